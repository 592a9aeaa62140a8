#pragma once

// The `NTFS_VOLUME_DATA_BUFFER` record: the system's own on Windows, one of the same shape elsewhere.
#ifdef _WIN32
#include <windows.h>
#include <winioctl.h>
#else
#include "platform/posix/NtfsVolumeRecordPosix.h"
#endif
