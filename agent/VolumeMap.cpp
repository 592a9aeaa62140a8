#include "agent/VolumeMap.h"

#include <algorithm>

#include "foundation/detail/CheckedMath.h"

namespace {

uint64_t SpanSectors(const LVM_Component_t& component) {
    return component.VolLBAEnd - component.VolLBAStart + 1;
}

// The sectors of the volume that a segment makes.
uint64_t SegmentSectors(const LVM_Volume_t& volume, const LVM_Segment_t& segment) {
    if (segment.Components.empty())
        return 0;
    if (volume.IsRaid5 != 0)
        return (segment.Components.size() - 1) * SpanSectors(segment.Components.front());
    uint64_t sectors = 0;
    for (const LVM_Component_t& component : segment.Components)
        sectors += SpanSectors(component);
    return sectors;
}

struct Place_t {
    const LVM_Component_t* component = nullptr;
    uint64_t inComponent = 0;  // bytes
    uint64_t bytes = 0;        // that lie there together
};

// `offset` counts from the segment's start.
bool FindInSpan(const LVM_Segment_t& segment, uint64_t offset, Place_t& place) {
    uint64_t start = 0;
    for (const LVM_Component_t& component : segment.Components) {
        const uint64_t spanBytes = SpanSectors(component) << SectorShift;
        if (offset - start < spanBytes) {
            place = {&component, offset - start, spanBytes - (offset - start)};
            return true;
        }
        start += spanBytes;
    }
    return false;
}

bool FindInStripes(const LVM_Volume_t& volume, const LVM_Segment_t& segment, uint64_t offset, Place_t& place) {
    const bool isRaid5 = volume.IsRaid5 != 0;
    const uint64_t columns = segment.Components.size();
    const uint64_t dataColumns = isRaid5 ? columns - 1 : columns;
    uint64_t stripeBytes = 0;
    if (dataColumns == 0 || !SectorsToBytes(segment.StripeSize, stripeBytes) || stripeBytes == 0)
        return false;
    const uint64_t stripe = offset / stripeBytes;
    const uint64_t inStripe = offset % stripeBytes;
    const uint64_t row = stripe / dataColumns;
    const uint64_t first = isRaid5 ? columns - row % columns : 0;  // the column behind the row's parity
    const uint64_t column = (stripe % dataColumns + first) % columns;
    place.component = &segment.Components[static_cast<size_t>(column)];
    place.inComponent = row * stripeBytes + inStripe;
    const uint64_t spanBytes = SpanSectors(*place.component) << SectorShift;
    if (place.inComponent >= spanBytes)
        return false;
    place.bytes = std::min(stripeBytes - inStripe, spanBytes - place.inComponent);
    return true;
}

}  // namespace

uint64_t VolumeSectors(const LVM_Volume_t& volume) {
    uint64_t sectors = 0;
    for (const LVM_Segment_t& segment : volume.Segments)
        sectors += SegmentSectors(volume, segment);
    return sectors;
}

bool FindVolumePiece(const LVM_Volume_t& volume, uint64_t offset, uint64_t mostBytes, VolumePiece_t& piece) {
    uint64_t start = 0;
    for (const LVM_Segment_t& segment : volume.Segments) {
        const uint64_t segmentBytes = SegmentSectors(volume, segment) << SectorShift;
        if (offset - start >= segmentBytes) {
            start += segmentBytes;
            continue;
        }
        Place_t place;
        const bool isStriped = volume.IsRaid5 != 0 || segment.StripeSize != 0;
        if (!(isStriped ? FindInStripes(volume, segment, offset - start, place)
                        : FindInSpan(segment, offset - start, place)))
            return false;
        piece.hardDiskIndex = place.component->HardDiskIndex;
        piece.diskOffset = (place.component->DiskLBAStart << SectorShift) + place.inComponent;
        piece.bytes = std::min({place.bytes, segmentBytes - (offset - start), std::max<uint64_t>(mostBytes, 1)});
        return true;
    }
    return false;
}
