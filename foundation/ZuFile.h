#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "foundation/ZuError.h"
#include "platform/Export.h"
#include "platform/Files.h"

// An open file. A copy shares the open file and its position: closing one closes it for all, and
// the last one closes it in any case. A default-constructed or closed object isn't valid, and its
// operations fail with the system's bad-descriptor error.
class DISKSTREAM_EXPORT CZuFile {
public:
    // Opens `name` (8-bit text; a backslash separates folders on every system). `flags` are
    // `OpenFlag_t` bits, `mode` the permission bits of a file that is made (384 is owner read and
    // write). Only regular files and block devices open. What was open before is let go.
    CZuError Open(const char* name, int flags, int mode);

    // Closing what isn't open is no error.
    CZuError Close();
    bool IsValid() const;

    // -1 when not open. The descriptor's position is the object's when it is given away; one that
    // others move later isn't seen here.
    int GetFD() const;

    const char* GetName() const;

    // Reads up to `size` bytes at the position. At the end of the file it fails with a text that
    // says so, so that a loop for more always ends.
    CZuError Read(void* buffer, unsigned int size, unsigned int* got);

    // Writes up to `size` bytes at the position; fails where the system takes none.
    CZuError Write(const void* buffer, unsigned int size, unsigned int* put);

    // `whence` 0 counts from the start, 1 from the position, 2 from the end. `newPosition` may be
    // null.
    CZuError Seek(int64_t offset, int whence, int64_t* newPosition);

    // The size in bytes, of a block device too.
    CZuError Size(uint64_t& size) const;

    CZuError Truncate(int64_t size);

    // Returns when everything written is on the medium.
    CZuError Sync();

    // Lets what was written from `offset` on go to the medium, without waiting for it.
    void BeginSync(int64_t offset);

private:
    struct Shared_t;

    std::shared_ptr<Shared_t> m_Shared;
};
