#pragma once

// The `NTFS_VOLUME_DATA_BUFFER` record: the system's own on Windows, one of the same shape elsewhere.
#ifdef _WIN32
// Without these the system's header brings macros `min` and `max` and a global `byte` to all who include this one.
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#include <winioctl.h>
#else
#include "platform/posix/NtfsVolumeRecordPosix.h"
#endif
