#pragma once

#include <cstdint>

#include "VirtualServer/VMInfo/LVM.h"
#include "platform/Export.h"

// From a volume to its disks, for every layout: plain, spanned, striped, RAID-5. The core's own
// reading keeps to one stripe and one component; this goes on rightly behind each.

// Bytes of a volume that lie together on one disk.
struct VolumePiece_t {
    uint32_t hardDiskIndex = NoHardDisk;  // of the component; all ones for a disk that isn't there
    uint64_t diskOffset = 0;              // bytes
    uint64_t bytes = 0;                   // at least 1
};

// The size of the volume in sectors.
DISKSTREAM_EXPORT uint64_t VolumeSectors(const LVM_Volume_t& volume);

// Makes `piece` the place of byte `offset` and of the bytes behind it, at most `mostBytes`, up to
// the end of the stripe or component. False when no component holds the byte.
[[nodiscard]] DISKSTREAM_EXPORT bool FindVolumePiece(const LVM_Volume_t& volume, uint64_t offset, uint64_t mostBytes,
                                                     VolumePiece_t& piece);
