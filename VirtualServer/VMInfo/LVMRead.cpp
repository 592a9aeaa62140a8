#include <algorithm>

#include "VirtualServer/VMInfo/LVM.h"
#include "VirtualServer/VMInfo/NtfsBootSector.h"
#include "VirtualServer/VMInfo/detail/NtfsVolumeFacts.h"
#include "VirtualServer/VMInfo/detail/VolumePlace.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

// The reading half of `CLVM`. Places on the disks are worked out in 64 bits that wrap, from the
// start of the request in every pass; what callers rely on of that stands in the header.

namespace {

constexpr char ReadOutOfRange[] = "Offset out of range";

CZuError FindStripesToRead(const LVM_Volume_t& volume, uint64_t offset, uint64_t lba, VolumePlace_t& place) {
    if (lba > volume.Segments.back().LBAEnd)
        return Refusal(ReadOutOfRange);
    const auto segment = std::find_if(volume.Segments.begin(), volume.Segments.end(),
                                      [&](const LVM_Segment_t& each) { return each.LBAStart <= lba; });
    const bool isFound =
        segment != volume.Segments.end() && FindPlaceInStripes(volume.IsRaid5 != 0, *segment, offset, place);
    return isFound ? CZuError() : Refusal(ReadOutOfRange);
}

CZuError FindSpanToRead(const LVM_Volume_t& volume, uint64_t offset, uint64_t lba, VolumePlace_t& place) {
    for (const LVM_Segment_t& segment : volume.Segments) {
        if (segment.LBAStart <= lba && FindPlaceInSpan(segment, offset, lba, place))
            return CZuError();
    }
    return Refusal(ReadOutOfRange);
}

CZuError FindPlaceToRead(const LVM_Volume_t& volume, uint64_t offset, uint64_t lba, VolumePlace_t& place) {
    if (volume.Segments.empty())
        return Refusal(ReadOutOfRange);
    return IsStriped(volume) ? FindStripesToRead(volume, offset, lba, place)
                             : FindSpanToRead(volume, offset, lba, place);
}

}  // namespace

CZuError CLVM::ReadVolumeData(const LVM_Volume_t& volume, uint64_t offset, void* buffer, uint32_t length,
                              uint32_t* bytesRead) const {
    if (length == 0)
        return Refusal("Invalid input parameter");
    if (volume.AllDiskFound == 0)
        return Refusal("Not all disks where found for this volume.");
    if (bytesRead != nullptr)
        *bytesRead = 0;
    for (uint32_t done = 0; done < length;) {
        VolumePlace_t place;
        ZU_RETURN_IF_ERROR(FindPlaceToRead(volume, offset, (offset + done) >> SectorShift, place));
        if (place.component->HardDiskIndex >= m_HardDisks.size())
            return Refusal("Volume component is not point to any harddisk object");
        const auto chunk = static_cast<uint32_t>(std::min<uint64_t>(place.chunk, length - done));
        if (chunk == 0)
            return Refusal(ReadOutOfRange);  // a span that wraps to nothing would never end
        const uint64_t diskOffset = DiskOffsetOf(place);
        ZU_RETURN_IF_ERROR(m_HardDisks[place.component->HardDiskIndex]->ReadHardDiskData(
            diskOffset, static_cast<char*>(buffer) + done, chunk));
        done += chunk;
        if (bytesRead != nullptr)
            *bytesRead = done;
    }
    return CZuError();
}

uint32_t CLVM::CountBytesTogether(const LVM_Volume_t& volume, uint64_t offset, uint32_t length) {
    VolumePlace_t place;
    const CZuError error = FindPlaceToRead(volume, offset, offset >> SectorShift, place);
    const bool isFound = !error.IsErrorSet() && place.chunk != 0;
    return isFound ? static_cast<uint32_t>(std::min<uint64_t>(place.chunk, length)) : length;
}

CZuError CLVM::ReadHardDisk(uint32_t hardDiskIndex, uint64_t offset, void* buffer, uint32_t length) const {
    if (hardDiskIndex >= m_HardDisks.size())
        return Refusal("Volume component is not point to any harddisk object");
    ZU_RETURN_IF_ERROR(m_HardDisks[hardDiskIndex]->ReadHardDiskData(offset, buffer, length));
    return CZuError();
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
