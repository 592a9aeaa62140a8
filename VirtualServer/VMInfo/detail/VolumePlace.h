#pragma once

#include <algorithm>
#include <cstdint>

#include "VirtualServer/VMInfo/LVM.h"
#include "foundation/detail/CheckedMath.h"

// From a byte of a volume to a byte of one of its disks. Places are worked out in 64 bits that wrap; whether they lie
// on the disk shows when they are looked up there.

struct VolumePlace_t {
    const LVM_Component_t* component = nullptr;
    uint64_t inComponent = 0;  // bytes
    uint64_t chunk = 0;        // bytes that lie there together
};

// Byte offset on the disk.
inline uint64_t DiskOffsetOf(const VolumePlace_t& place) {
    return (place.component->DiskLBAStart << SectorShift) + place.inComponent;
}

inline bool IsStriped(const LVM_Volume_t& volume) {
    return volume.IsRaid5 != 0 || volume.Segments.front().StripeSize != 0;
}

// The place of byte `offset` of the volume. False for a segment that can't have stripes.
//
// Parity of RAID-5 begins on the last column and moves one to the left with each row; the row's data begins on the
// column behind it and wraps (left-symmetric).
inline bool FindPlaceInStripes(bool isRaid5, const LVM_Segment_t& segment, uint64_t offset, VolumePlace_t& place) {
    const uint64_t columns = segment.Components.size();
    uint64_t stripeBytes = 0;
    if (columns < (isRaid5 ? 2U : 1U) || !SectorsToBytes(segment.StripeSize, stripeBytes) || stripeBytes == 0)
        return false;
    const uint64_t stripe = offset / stripeBytes;
    const uint64_t inStripe = offset % stripeBytes;
    const uint64_t dataColumns = isRaid5 ? columns - 1 : columns;
    const uint64_t row = stripe / dataColumns;
    const uint64_t parity = columns - row % columns - 1;
    const uint64_t first = isRaid5 ? parity + 1 : 0;
    place.component = &segment.Components[static_cast<size_t>((stripe % dataColumns + first) % columns)];
    place.inComponent = row * stripeBytes + inStripe;
    place.chunk = stripeBytes - inStripe;
    return true;
}

// False when no component of the segment has sector `lba`, in which byte `offset` lies.
inline bool FindPlaceInSpan(const LVM_Segment_t& segment, uint64_t offset, uint64_t lba, VolumePlace_t& place) {
    const auto component =
        std::find_if(segment.Components.begin(), segment.Components.end(),
                     [&](const LVM_Component_t& each) { return each.VolLBAStart <= lba && lba <= each.VolLBAEnd; });
    if (component == segment.Components.end())
        return false;
    place.component = &*component;
    place.inComponent = offset - (component->VolLBAStart << SectorShift);
    place.chunk = ((component->VolLBAEnd - component->VolLBAStart + 1) << SectorShift) - place.inComponent;
    return true;
}
