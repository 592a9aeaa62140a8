#pragma once

#include "VirtualServer/VMInfo/NtfsBootSector.h"
#include "VirtualServer/VMInfo/NtfsVolumeData.h"
#include "platform/Export.h"

// Fills `info`, which is zero, with what the boot sector of an NTFS volume tells.
DISKSTREAM_EXPORT void FillNtfsVolumeFacts(const NtfsBootSector_t& sector, NTFS_VOLUME_DATA_BUFFER& info);
