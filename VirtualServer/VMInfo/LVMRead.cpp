#include <algorithm>

#include "VirtualServer/VMInfo/LVM.h"
#include "VirtualServer/VMInfo/NtfsBootSector.h"
#include "VirtualServer/VMInfo/detail/NtfsVolumeFacts.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

// The reading half of `CLVM`. Places on the disks are worked out in 64 bits that wrap, from the
// start of the request in every pass; what callers rely on of that stands in the header.

namespace {

constexpr char OutOfRange[] = "Offset out of range";

// The number of a stripe, the byte in it and its size, at byte `offset` of a volume.
struct Stripe_t {
    uint64_t number;
    uint64_t inStripe;
    uint64_t sizeBytes;
};

bool FindStripe(const LVM_Segment_t& segment, uint64_t offset, Stripe_t& stripe) {
    if (!SectorsToBytes(segment.StripeSize, stripe.sizeBytes) || stripe.sizeBytes == 0)
        return false;
    stripe.number = offset / stripe.sizeBytes;
    stripe.inStripe = offset % stripe.sizeBytes;
    return true;
}

struct RowAndColumn_t {
    uint64_t row;
    uint64_t column;
};

RowAndColumn_t PlaceInStripes(uint64_t stripe, uint64_t columns) {
    return {stripe / columns, stripe % columns};
}

// Parity begins on the last column and moves one to the left with each row; the row's data begins on
// the column behind it and wraps (left-symmetric).
RowAndColumn_t PlaceInRaid5(uint64_t stripe, uint64_t columns) {
    const uint64_t row = stripe / (columns - 1);
    const uint64_t parity = columns - row % columns - 1;
    return {row, (stripe % (columns - 1) + parity + 1) % columns};
}

}  // namespace

// Where the next bytes of a request lie.
struct CLVM::Place_t {
    const LVM_Component_t* component = nullptr;
    uint64_t inComponent = 0;  // bytes
    uint64_t chunk = 0;        // bytes that lie there together
};

CZuError CLVM::ReadVolumeData(const LVM_Volume_t& volume, uint64_t offset, void* buffer, uint32_t length,
                              uint32_t* bytesRead) const {
    if (length == 0)
        return Refusal("Invalid input parameter");
    if (volume.AllDiskFound == 0)
        return Refusal("Not all disks where found for this volume.");
    if (bytesRead != nullptr)
        *bytesRead = 0;
    for (uint32_t done = 0; done < length;) {
        Place_t place;
        ZU_RETURN_IF_ERROR(FindPlace(volume, offset, (offset + done) >> SectorShift, place));
        if (place.component->HardDiskIndex >= m_HardDisks.size())
            return Refusal("Volume component is not point to any harddisk object");
        const auto chunk = static_cast<uint32_t>(std::min<uint64_t>(place.chunk, length - done));
        if (chunk == 0)
            return Refusal(OutOfRange);  // a span that wraps to nothing would never end
        const uint64_t diskOffset = (place.component->DiskLBAStart << SectorShift) + place.inComponent;
        ZU_RETURN_IF_ERROR(m_HardDisks[place.component->HardDiskIndex]->ReadHardDiskData(
            diskOffset, static_cast<char*>(buffer) + done, chunk));
        done += chunk;
        if (bytesRead != nullptr)
            *bytesRead = done;
    }
    return CZuError();
}

uint32_t CLVM::CountBytesTogether(const LVM_Volume_t& volume, uint64_t offset, uint32_t length) {
    Place_t place;
    const CZuError error = FindPlace(volume, offset, offset >> SectorShift, place);
    const bool isFound = !error.IsErrorSet() && place.chunk != 0;
    return isFound ? static_cast<uint32_t>(std::min<uint64_t>(place.chunk, length)) : length;
}

CZuError CLVM::ReadHardDisk(uint32_t hardDiskIndex, uint64_t offset, void* buffer, uint32_t length) const {
    if (hardDiskIndex >= m_HardDisks.size())
        return Refusal("Volume component is not point to any harddisk object");
    ZU_RETURN_IF_ERROR(m_HardDisks[hardDiskIndex]->ReadHardDiskData(offset, buffer, length));
    return CZuError();
}

CZuError CLVM::FindPlace(const LVM_Volume_t& volume, uint64_t offset, uint64_t lba, Place_t& place) {
    if (volume.Segments.empty())
        return Refusal(OutOfRange);
    const bool isStriped = volume.IsRaid5 != 0 || volume.Segments.front().StripeSize != 0;
    return isStriped ? FindInStripes(volume, offset, lba, place) : FindInSpan(volume, offset, lba, place);
}

CZuError CLVM::FindInStripes(const LVM_Volume_t& volume, uint64_t offset, uint64_t lba, Place_t& place) {
    if (lba > volume.Segments.back().LBAEnd)
        return Refusal(OutOfRange);
    const auto segment = std::find_if(volume.Segments.begin(), volume.Segments.end(),
                                      [&](const LVM_Segment_t& each) { return each.LBAStart <= lba; });
    const bool isRaid5 = volume.IsRaid5 != 0;
    Stripe_t stripe{};
    if (segment == volume.Segments.end() || segment->Components.size() < (isRaid5 ? 2U : 1U) ||
        !FindStripe(*segment, offset, stripe))
        return Refusal(OutOfRange);
    const uint64_t columns = segment->Components.size();
    const RowAndColumn_t at = isRaid5 ? PlaceInRaid5(stripe.number, columns) : PlaceInStripes(stripe.number, columns);
    place.component = &segment->Components[static_cast<size_t>(at.column)];
    place.inComponent = at.row * stripe.sizeBytes + stripe.inStripe;
    place.chunk = stripe.sizeBytes - stripe.inStripe;
    return CZuError();
}

CZuError CLVM::FindInSpan(const LVM_Volume_t& volume, uint64_t offset, uint64_t lba, Place_t& place) {
    for (const LVM_Segment_t& segment : volume.Segments) {
        if (segment.LBAStart > lba)
            continue;
        const auto component =
            std::find_if(segment.Components.begin(), segment.Components.end(),
                         [&](const LVM_Component_t& each) { return each.VolLBAStart <= lba && lba <= each.VolLBAEnd; });
        if (component == segment.Components.end())
            continue;
        place.component = &*component;
        place.inComponent = offset - (component->VolLBAStart << SectorShift);
        place.chunk = ((component->VolLBAEnd - component->VolLBAStart + 1) << SectorShift) - place.inComponent;
        return CZuError();
    }
    return Refusal(OutOfRange);
}

CZuError CLVM::GetNTFSVolInfo(const LVM_Volume_t& volume, NTFS_VOLUME_DATA_BUFFER* info) const {
    *info = NTFS_VOLUME_DATA_BUFFER{};
    NtfsBootSector_t sector{};
    ZU_RETURN_IF_ERROR(ReadVolumeData(volume, 0, &sector, sizeof(sector), nullptr));
    if (!IsNtfs(sector))
        return Refusal("Not a NTFS volume");
    FillNtfsVolumeFacts(sector, *info);
    return CZuError();
}
