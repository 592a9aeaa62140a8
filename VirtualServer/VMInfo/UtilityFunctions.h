#pragma once

#include <cstdint>
#include <string>

#include "foundation/Guid.h"
#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"
#include "foundation/ZuString.h"
#include "platform/Export.h"

// Positional reads and writes, chunked, and small helpers that the readers share.

// Reads `size` bytes at `offset`, counted as `whence` says (0 start, 1 position, 2 end), in chunks
// of at most `ImageLevelMaxReadSize` bytes (settings section "VirtualServer", 1 MiB unless set;
// looked up once per process). `*got`, where `got` isn't null, is the bytes read, 0 after a
// failure. Fewer bytes than `size` are a failure; an offset of 2^63 or more fails in the seek.
DISKSTREAM_EXPORT CZuError ReadFileAt(CZuFile& file, uint64_t offset, int whence, void* buffer, unsigned int size,
                                      unsigned int* got);

// Writes as `ReadFileAt` reads, with `ImageLevelMaxWriteSize`. Callers rely on `*put` being the
// count of the last single write, which is the total whenever one chunk was enough.
DISKSTREAM_EXPORT CZuError WriteFileAt(CZuFile& file, uint64_t offset, int whence, const void* buffer,
                                       unsigned int size, unsigned int* put);

// The same value with its bytes reversed.
DISKSTREAM_EXPORT uint16_t ByteSwap16(uint16_t value);
DISKSTREAM_EXPORT uint32_t ByteSwap32(uint32_t value);
DISKSTREAM_EXPORT uint64_t ByteSwap64(uint64_t value);

// The value 0 to 255 of the two hexadecimal characters at `text`, or -1 where one isn't. A
// terminator ends the look: nothing behind it is read.
DISKSTREAM_EXPORT int HexPairToByte(const char* text);

// Reads a GUID in its 36-character text form, with or without braces, in either case: 1, or 0 and
// a zeroed `out`. What follows the 36 characters of a form without braces doesn't matter.
DISKSTREAM_EXPORT int ParseGuidText(const char* text, GUID* out);

// The text form in braces and upper case.
DISKSTREAM_EXPORT CZuString FormatGuidText(const GUID& guid);

// The geometry of a disk of `totalSectors` with 255 heads and 63 sectors; a begun cylinder counts.
DISKSTREAM_EXPORT void ComputeCHS(uint64_t totalSectors, unsigned int* cylinders, unsigned int* heads,
                                  unsigned int* sectors);

// The part of `path` behind its last backslash. The part before goes into `directory` where that
// isn't null; without a backslash the whole path is returned and `directory` stays as it was.
DISKSTREAM_EXPORT std::string SplitFileName(const std::string& path, std::string* directory);
