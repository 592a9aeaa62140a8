#pragma once

#include <cstdint>

#include "VirtualServer/VMInfo/LVM.h"
#include "platform/Export.h"

// From a volume to its disks, for every layout: plain, spanned, striped, RAID-5, and any number of
// segments, which follow each other without gaps. All ends are inside. The core's own reading keeps
// to one stripe and one component; this goes on rightly behind each.

// Bytes of a volume that lie together on one disk.
struct VolumePiece_t {
    uint32_t hardDiskIndex = NoHardDisk;  // of the component; all ones for a disk that isn't there
    uint64_t diskOffset = 0;              // bytes
    uint64_t bytes = 0;                   // at least 1
    const LVM_Segment_t* segment = nullptr;
    size_t column = 0;         // the component's index in the segment
    uint64_t inComponent = 0;  // bytes
};

// The size of the volume in sectors.
DISKSTREAM_EXPORT uint64_t VolumeSectors(const LVM_Volume_t& volume);

// Makes `piece` the place of byte `offset` and of the bytes behind it, at most `mostBytes`, up to
// the end of the stripe or component. False when no component holds the byte.
[[nodiscard]] DISKSTREAM_EXPORT bool FindVolumePiece(const LVM_Volume_t& volume, uint64_t offset, uint64_t mostBytes,
                                                     VolumePiece_t& piece);

// The byte of its disk where byte `inComponent` of a component lies.
DISKSTREAM_EXPORT uint64_t DiskOffsetOf(const LVM_Component_t& component, uint64_t inComponent);
