#pragma once

#include <cstdint>
#include <cstdio>

#include "platform/Export.h"

// Opens a file of the C library, for formatted text. A backslash in the name separates folders on every system. Answers
// 0 or the system's error number; `file` is null then.
DISKSTREAM_EXPORT int OpenStandardFile(const char* name, const char* mode, std::FILE*& file);

// Of an open file, also beyond 2 GiB. `whence` is as for fseek. They answer 0 or the system's error number.
DISKSTREAM_EXPORT int SeekStandardFile(std::FILE* file, int64_t offset, int whence);
DISKSTREAM_EXPORT int TellStandardFile(std::FILE* file, int64_t& position);
