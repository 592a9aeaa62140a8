#pragma once

// The `GUID` record: the system's own on Windows, one of the same shape elsewhere.
#ifdef _WIN32
#include <guiddef.h>
#else
#include "platform/posix/GuidRecordPosix.h"
#endif
