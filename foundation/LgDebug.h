#pragma once

#include "platform/Export.h"

class LgDebugFileInstance;

// Lets the compiler compare formats and arguments.
#if defined(__clang__)
#define DISKSTREAM_PRINTF(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))
#elif defined(__GNUC__)
#define DISKSTREAM_PRINTF(formatIndex, firstArgument) __attribute__((format(gnu_printf, formatIndex, firstArgument)))
#else
#define DISKSTREAM_PRINTF(formatIndex, firstArgument)
#endif

// The log, the library's only output. Silent unless the environment's DISKSTREAM_LOG names a file
// (appended to) or "-" for the error output; then every level is written. Control characters in a
// line come out escaped, so that text from a disk can't forge lines.
class DISKSTREAM_EXPORT LgDebug {
public:
    // Null stands for the log of the process, the only one there is.
    explicit LgDebug(LgDebugFileInstance* instance = nullptr);

    // `function` names the caller, as in "::ReadFileAt".
    void Debug(const char* function, const char* format, ...) const DISKSTREAM_PRINTF(3, 4);
    void debug(const char* format, ...) const DISKSTREAM_PRINTF(2, 3);
    void DebugLvl(const char* function, int level, const char* format, ...) const DISKSTREAM_PRINTF(4, 5);
    void Error(const char* function, const char* format, ...) const DISKSTREAM_PRINTF(3, 4);

private:
    LgDebugFileInstance* m_Instance;
};
