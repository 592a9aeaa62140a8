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

struct SegmentPlace_t {
    size_t column = 0;         // of the component
    uint64_t inComponent = 0;  // bytes
    uint64_t bytes = 0;        // that lie there together
};

// `offset` counts from the segment's start.
bool FindInSpan(const LVM_Segment_t& segment, uint64_t offset, SegmentPlace_t& place) {
    uint64_t start = 0;
    for (size_t index = 0; index < segment.Components.size(); ++index) {
        const uint64_t spanBytes = SpanSectors(segment.Components[index]) << SectorShift;
        if (offset - start < spanBytes) {
            place = {index, offset - start, spanBytes - (offset - start)};
            return true;
        }
        start += spanBytes;
    }
    return false;
}

bool FindInStripes(bool isRaid5, const LVM_Segment_t& segment, uint64_t offset, SegmentPlace_t& place) {
    const uint64_t columns = segment.Components.size();
    const uint64_t dataColumns = isRaid5 ? columns - 1 : columns;
    uint64_t stripeBytes = 0;
    if (dataColumns == 0 || !SectorsToBytes(segment.StripeSize, stripeBytes) || stripeBytes == 0)
        return false;
    const uint64_t stripe = offset / stripeBytes;
    const uint64_t inStripe = offset % stripeBytes;
    const uint64_t row = stripe / dataColumns;
    const uint64_t first = isRaid5 ? columns - row % columns : 0;  // the column behind the row's parity
    place.column = static_cast<size_t>((stripe % dataColumns + first) % columns);
    place.inComponent = row * stripeBytes + inStripe;
    const uint64_t spanBytes = SpanSectors(segment.Components[place.column]) << SectorShift;
    if (place.inComponent >= spanBytes)
        return false;
    place.bytes = std::min(stripeBytes - inStripe, spanBytes - place.inComponent);
    return true;
}

// The segment that begins last of those that begin at or in front of `sector`; null for none.
const LVM_Segment_t* FindSegment(const LVM_Volume_t& volume, uint64_t sector) {
    const auto behind =
        std::upper_bound(volume.Segments.begin(), volume.Segments.end(), sector,
                         [](uint64_t wanted, const LVM_Segment_t& each) { return wanted < each.LBAStart; });
    return behind != volume.Segments.begin() ? &*(behind - 1) : nullptr;
}

}  // namespace

uint64_t VolumeSectors(const LVM_Volume_t& volume) {
    if (volume.Segments.empty())
        return 0;
    return volume.Segments.back().LBAStart + SegmentSectors(volume, volume.Segments.back());
}

uint64_t DiskOffsetOf(const LVM_Component_t& component, uint64_t inComponent) {
    return (component.DiskLBAStart << SectorShift) + inComponent;
}

bool FindVolumePiece(const LVM_Volume_t& volume, uint64_t offset, uint64_t mostBytes, VolumePiece_t& piece) {
    const LVM_Segment_t* const segment = FindSegment(volume, offset >> SectorShift);
    if (segment == nullptr)
        return false;
    const uint64_t inSegment = offset - (segment->LBAStart << SectorShift);
    const uint64_t segmentBytes = SegmentSectors(volume, *segment) << SectorShift;
    if (inSegment >= segmentBytes)
        return false;
    SegmentPlace_t place;
    const bool isRaid5 = volume.IsRaid5 != 0;
    const bool isFound = isRaid5 || segment->StripeSize != 0 ? FindInStripes(isRaid5, *segment, inSegment, place)
                                                             : FindInSpan(*segment, inSegment, place);
    if (!isFound)
        return false;
    const LVM_Component_t& component = segment->Components[place.column];
    piece.hardDiskIndex = component.HardDiskIndex;
    piece.diskOffset = DiskOffsetOf(component, place.inComponent);
    piece.bytes = std::min({place.bytes, segmentBytes - inSegment, std::max<uint64_t>(mostBytes, 1)});
    piece.segment = segment;
    piece.column = place.column;
    piece.inComponent = place.inComponent;
    return true;
}
