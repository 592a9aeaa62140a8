#pragma once

#include <cstdio>

#include "platform/Export.h"

// Opens a file of the C library, for formatted text. A backslash in the name separates folders on every system. Answers 0
// or the system's error number; `file` is null then.
DISKSTREAM_EXPORT int OpenStandardFile(const char* name, const char* mode, std::FILE*& file);
