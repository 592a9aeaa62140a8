#include "agent/ReadRange.h"

#include <algorithm>
#include <vector>

#include "agent/VolumeSet.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/Pieces.h"
#include "foundation/AutoMemory.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// What is read, as a volume.
CZuError ChooseVolume(const CVolumeSet& set, const ReadRange_t& range, VolumeInfo_t& chosen) {
    if (range.volume.has_value()) {
        const VolumeInfo_t* const found = set.Find(*range.volume);
        if (found == nullptr)
            return Refusal(*range.volume + ": no volume of the disks has that name; `diskstream volumes` lists them");
        chosen = *found;
        return chosen.problem.empty() ? CZuError() : Refusal(chosen.name + ": " + chosen.problem);
    }
    if (set.Disks().size() != 1)
        return Refusal("Several disks are given; say with --volume what to read of them");
    const CWholeDisk& disk = *set.Disks().front();
    if (!range.partition.has_value()) {
        chosen = WholeDiskVolume(disk, 0);
        return CZuError();
    }
    const std::vector<PartitionInfo_t>& partitions = set.Tables().front().partitions;
    const auto found = std::find_if(partitions.begin(), partitions.end(),
                                    [&](const PartitionInfo_t& each) { return each.number == *range.partition; });
    if (found == partitions.end())
        return Refusal(CZuString::Format("{1}: has no partition {2}; `diskstream partitions` lists them", disk.Path(),
                                         *range.partition));
    chosen = PartitionVolume(*found, 0);
    return CZuError();
}

CZuError CheckRange(const VolumeInfo_t& volume, const ReadRange_t& range, uint64_t& length) {
    uint64_t sizeBytes = 0;
    if (!SectorsToBytes(volume.sectors, sizeBytes))
        return Refusal(
            CZuString::Format("{1}: claims {2} sectors, more than a disk can have", volume.name, volume.sectors));
    if (range.offset > sizeBytes)
        return Refusal(CZuString::Format("{1}: has {2} bytes, and --offset lies behind them", volume.name, sizeBytes));
    length = range.length.value_or(sizeBytes - range.offset);
    if (length > sizeBytes - range.offset)
        return Refusal(CZuString::Format("{1}: has {2} bytes, and --offset and --length lead behind them", volume.name,
                                         sizeBytes));
    return CZuError();
}

CZuError ReadAll(CVolumeSet& set, const VolumeInfo_t& volume, const ReadRange_t& range, const TakeBytes_t& take) {
    Progress_t progress;
    ZU_RETURN_IF_ERROR(CheckRange(volume, range, progress.totalBytes));
    CAutoMemory<char> buffer;
    if (buffer.Alloc(PieceBytes) == nullptr)
        return Refusal(OutOfMemory);
    while (progress.doneBytes < progress.totalBytes) {
        const uint64_t offset = range.offset + progress.doneBytes;
        // Pieces end at multiples of their size, where those of most layouts do too.
        const auto size = static_cast<uint32_t>(
            std::min<uint64_t>(progress.totalBytes - progress.doneBytes, PieceBytes - offset % PieceBytes));
        ZU_RETURN_IF_ERROR(set.Read(volume, offset, buffer.GetPtr(), size));
        if (!take(buffer.GetPtr(), size))
            return CZuError();
        progress.doneBytes += size;
        if (range.progress && !range.progress(progress))
            return Refusal("The reading was cancelled");
    }
    return CZuError();
}

}  // namespace

CZuError ReadDiskRange(const std::vector<std::string>& disks, const ImageOptions_t& options, const ReadRange_t& range,
                       const TakeBytes_t& take) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        CVolumeSet set;
        VolumeInfo_t volume;
        ZU_RETURN_IF_ERROR(set.Open(disks, options));
        ZU_RETURN_IF_ERROR(ChooseVolume(set, range, volume));
        return ReadAll(set, volume, range, take);
    });
}
