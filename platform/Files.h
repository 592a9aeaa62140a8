#pragma once

#include <cstdint>

#include "platform/Export.h"

// The open flags of `IFiles::Open` and `CZuFile::Open`, a bit set. Without `OpenForWriting` and
// `OpenForBoth` a file is opened for reading.
enum OpenFlag_t : int {
    OpenForWriting = 0x0001,
    OpenForBoth = 0x0002,
    OpenRandomAccess = 0x0010,  // a hint: reads will jump
    OpenNotInherited = 0x0080,  // child processes don't get the descriptor
    OpenCreating = 0x0100,
    OpenTruncating = 0x0200,
    OpenOnlyNew = 0x0400,  // with `OpenCreating`: a name that stands, a link too, is the error
    OpenAsText = 0x4000,   // bytes come as they stand all the same, on every system
    OpenAsBinary = 0x8000,
};

// The files of the machine. Names are 8-bit text (UTF-8), and a backslash in them separates
// folders on every system; for those of whole drives see `platform/DriveName.h`. Only regular files and block devices
// open: anything else could block the caller or never end.
//
// Every operation answers 0 or the system's own error number, and retries interrupted calls.
class DISKSTREAM_EXPORT IFiles {
public:
    IFiles() = default;
    IFiles(const IFiles&) = delete;
    IFiles& operator=(const IFiles&) = delete;
    virtual ~IFiles() = default;

    virtual int Open(const char* name, int flags, int mode, int& fd) = 0;
    virtual int Read(int fd, void* buffer, uint32_t size, uint32_t& got) = 0;  // got 0 only at the end of the file
    virtual int Write(int fd, const void* buffer, uint32_t size, uint32_t& put) = 0;
    virtual int Seek(int fd, int64_t offset, int whence, int64_t& position) = 0;

    // True where a transfer can name its place, which spares a call for each. `ReadAt` and `WriteAt`
    // are for that case alone, and leave the file's position as it is.
    virtual bool IsPositional() const { return false; }
    virtual int ReadAt(int fd, int64_t offset, void* buffer, uint32_t size, uint32_t& got);
    virtual int WriteAt(int fd, int64_t offset, const void* buffer, uint32_t size, uint32_t& put);

    virtual int Size(int fd, uint64_t& sizeBytes) = 0;
    virtual int Truncate(int fd, int64_t sizeBytes) = 0;
    virtual int Sync(int fd) = 0;  // returns when the file's bytes and size are on the medium

    // A hint: what was written from `offset` on may go to the medium now, so that a later `Sync` has less to wait for.
    // Returns at once, and what goes wrong shows there.
    virtual void BeginSync(int /*fd*/, int64_t /*offset*/) {}

    virtual int Close(int fd) = 0;
};

// The machine's own files, or what a test put in front of them.
DISKSTREAM_EXPORT IFiles& Files();

// Puts `files` in front of the machine's own, or takes it away again with null. Returns what stood
// there before, null for nothing. For tests: not while another thread works with files.
DISKSTREAM_EXPORT IFiles* PutFilesInFront(IFiles* files);
