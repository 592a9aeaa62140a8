#pragma once

#include "platform/NtfsVolumeRecord.h"

// What the boot sector of an NTFS volume tells, in the record that Windows answers to
// FSCTL_GET_NTFS_VOLUME_DATA.
static_assert(sizeof(NTFS_VOLUME_DATA_BUFFER) == 96);
