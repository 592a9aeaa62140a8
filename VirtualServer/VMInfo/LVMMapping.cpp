#include <algorithm>
#include <cinttypes>
#include <limits>

#include "VirtualServer/VMInfo/LVM.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "VirtualServer/VMInfo/detail/VolumePlace.h"
#include "foundation/LgDebug.h"
#include "foundation/detail/Bitmap.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

// From a volume to the backup blocks of its disks, by a dump alone. The runs are those of a walk from sector to sector;
// the steps are as long as the answer is the same.

namespace {

constexpr char MappingFunction[] = "CLVM::ConvertVolumeOffsetToDiskExtents";
constexpr char OutOfRange[] = "Offset out of range";
constexpr char OutOfPartition[] = "Offset out of range of partition";
constexpr char OutOfSparsePartition[] = "Offset out of range of sparse partition";
constexpr uint64_t Unbounded = std::numeric_limits<uint64_t>::max();
// A step may end early, at a block's border, and the next one looks at the bits behind it again. More than a table of
// any disk has in one bucket.
constexpr uint64_t MostGrainsAhead = 4096;

CZuError FindInRaid5(const LVM_Volume_t& volume, uint64_t offset, uint64_t lba, VolumePlace_t& place) {
    if (lba > volume.Segments.back().LBAEnd)
        return Refusal(OutOfRange);
    const auto segment = std::find_if(volume.Segments.begin(), volume.Segments.end(), [&](const LVM_Segment_t& each) {
        return each.LBAStart <= lba && lba <= each.LBAEnd;
    });
    if (segment == volume.Segments.end())
        return Refusal("Offset out of range. Segment Itr reached end of Volume segemnt list.");
    return FindPlaceInStripes(true, *segment, offset, place) ? CZuError() : Refusal(OutOfRange);
}

CZuError FindInStripes(const LVM_Volume_t& volume, uint64_t offset, uint64_t lba, VolumePlace_t& place) {
    if (lba > volume.Segments.back().LBAEnd)
        return Refusal(OutOfRange);
    const auto segment = std::find_if(volume.Segments.begin(), volume.Segments.end(),
                                      [&](const LVM_Segment_t& each) { return each.LBAStart <= lba; });
    const bool isFound = segment != volume.Segments.end() && FindPlaceInStripes(false, *segment, offset, place);
    return isFound ? CZuError() : Refusal(OutOfRange);
}

// Callers rely on the segment's first sector being held against the byte offset.
CZuError FindInSpan(const LVM_Volume_t& volume, uint64_t offset, uint64_t lba, VolumePlace_t& place) {
    for (const LVM_Segment_t& segment : volume.Segments) {
        if (segment.LBAStart <= offset && FindPlaceInSpan(segment, offset, lba, place))
            return CZuError();
    }
    return Refusal(OutOfRange);
}

CZuError FindPlace(const LVM_Volume_t& volume, uint64_t offset, uint64_t lba, VolumePlace_t& place) {
    if (volume.Segments.empty())
        return Refusal(OutOfRange);
    if (volume.IsRaid5 != 0)
        return FindInRaid5(volume, offset, lba, place);
    return IsStriped(volume) ? FindInStripes(volume, offset, lba, place) : FindInSpan(volume, offset, lba, place);
}

uint64_t SaturatingProduct(uint64_t left, uint64_t right) {
    uint64_t product = 0;
    return CheckedMul(left, right, product) ? product : Unbounded;
}

CByteView ViewOf(const CAutoMemory<char>& bitmap) {
    return {bitmap.GetPtr(), bitmap.GetSize()};
}

// What one link of a disk's chain answers for a byte, and for how many bytes from it on the answer is the same.
struct LinkAnswer_t {
    const ExtentSparseInfo_t* extent = nullptr;
    bool isAllocated = false;
    uint64_t bytes = 0;
};

// The bytes from `diskByte` on for which `extent` is the first one of the link that holds them.
uint64_t BytesOfExtent(const std::vector<ExtentSparseInfo_t>& extents, const ExtentSparseInfo_t& extent,
                       uint64_t diskByte) {
    const uint64_t diskLba = diskByte >> SectorShift;
    uint64_t lastLba = extent.ExtentEndLBA;
    for (const ExtentSparseInfo_t& earlier : extents) {
        if (&earlier == &extent)
            break;
        if (earlier.ExtentStartLBA > diskLba && earlier.ExtentStartLBA <= earlier.ExtentEndLBA)
            lastLba = std::min(lastLba, earlier.ExtentStartLBA - 1);
    }
    const uint64_t toWrap = diskByte != 0 ? Unbounded - diskByte + 1 : Unbounded;
    const uint64_t sectors = lastLba - diskLba;
    return sectors >= toWrap >> SectorShift ? toWrap : ((sectors + 1) << SectorShift) - diskByte % SectorSize;
}

// Of a sparse extent. `mostBytes` bounds the look at the bitmaps.
CZuError AskBitmaps(const ExtentSparseInfo_t& extent, uint64_t inExtent, uint64_t mostBytes, LinkAnswer_t& answer) {
    const uint64_t grainBytes = extent.GrainSize << SectorShift;
    if (grainBytes == 0)
        return Refusal(OutOfSparsePartition);
    const uint64_t grain = inExtent / grainBytes;
    const uint64_t bucket = grain / extent.GrainsPerBucket;
    const uint64_t bit = grain % extent.GrainsPerBucket;
    if (bucket > extent.BucketCount)  // callers rely on the one behind the last passing
        return Refusal(OutOfSparsePartition);
    const CByteView top = ViewOf(extent.TopBitmap);
    const uint64_t mostGrains = std::min(mostBytes / grainBytes + 2, MostGrainsAhead);
    uint64_t grains = 0;
    if (HasBit(top, bucket)) {
        const CByteView bitmap =
            bucket < extent.Buckets.size() ? ViewOf(extent.Buckets[static_cast<size_t>(bucket)]) : CByteView();
        answer.isAllocated = HasBit(bitmap, bit);
        grains = CountEqualBits(bitmap, bit, std::min(extent.GrainsPerBucket - bit, mostGrains));
    } else {
        const uint64_t mostBuckets = std::min(extent.BucketCount - bucket, mostGrains / extent.GrainsPerBucket + 1) + 1;
        grains = SaturatingProduct(CountEqualBits(top, bucket, mostBuckets), extent.GrainsPerBucket) - bit;
    }
    answer.bytes = std::min(answer.bytes, SaturatingProduct(grains, grainBytes) - inExtent % grainBytes);
    return CZuError();
}

CZuError AskLink(const std::vector<ExtentSparseInfo_t>& extents, uint64_t diskByte, uint64_t mostBytes,
                 LinkAnswer_t& answer) {
    const uint64_t diskLba = diskByte >> SectorShift;
    const auto extent = std::find_if(extents.begin(), extents.end(), [&](const ExtentSparseInfo_t& each) {
        return each.ExtentStartLBA <= diskLba && diskLba <= each.ExtentEndLBA;
    });
    if (extent == extents.end())
        return Refusal(OutOfPartition);
    if (extent->BlockSize << SectorShift == 0)
        return Refusal(OutOfSparsePartition);
    answer.extent = &*extent;
    answer.bytes = BytesOfExtent(extents, *extent, diskByte);
    if (extent->GrainsPerBucket == 0) {
        answer.isAllocated = true;  // a flat extent
        return CZuError();
    }
    return AskBitmaps(*extent, diskByte - (extent->ExtentStartLBA << SectorShift), mostBytes, answer);
}

// Fills `run` with the place of `diskByte` and how many bytes, at most `mostBytes`, lie there in the same block.
// `isFound` is false when no link holds the byte.
CZuError FindRun(const std::vector<std::vector<ExtentSparseInfo_t>>& links, uint64_t diskByte, uint64_t mostBytes,
                 LVM_Disk_Offset_Len_t& run, bool& isFound) {
    isFound = false;
    uint64_t bytes = mostBytes;
    for (auto link = links.rbegin(); link != links.rend() && !isFound; ++link) {
        LinkAnswer_t answer;
        ZU_RETURN_IF_ERROR(AskLink(*link, diskByte, mostBytes, answer));
        bytes = std::min(bytes, answer.bytes);
        isFound = answer.isAllocated;
        if (!isFound)
            continue;
        const uint64_t inExtent = diskByte - (answer.extent->ExtentStartLBA << SectorShift);
        const uint64_t blockBytes = answer.extent->BlockSize << SectorShift;
        run.ExtentName = answer.extent->ExtentName;
        run.BlockNumber = inExtent / blockBytes;
        run.BlockOffset = inExtent % blockBytes + answer.extent->ExtentFileOffset;
        bytes = std::min(bytes, blockBytes - inExtent % blockBytes);
    }
    run.DiskOffset = diskByte;
    run.Length = bytes;
    return CZuError();
}

// Makes room for the runs of the `leftBytes` to come, by what those of the `doneBytes` so far, from `first` on, were
// like: a list that only doubles is copied over and over.
void MakeRoom(std::vector<LVM_Disk_Offset_Len_t>& runs, size_t first, uint64_t doneBytes, uint64_t leftBytes) {
    constexpr uint64_t fewestRuns = 1024;
    constexpr uint64_t mostAhead = uint64_t{1} << 20U;
    const uint64_t found = runs.size() - first;
    if (runs.size() != runs.capacity() || found < fewestRuns)
        return;
    const uint64_t expected = leftBytes / std::max<uint64_t>(doneBytes / found, 1) + 1;
    runs.reserve(runs.size() + static_cast<size_t>(std::max<uint64_t>(std::min(expected, mostAhead), runs.size())));
}

bool Continues(const LVM_Disk_Offset_Len_t& last, const LVM_Disk_Offset_Len_t& run) {
    return last.BlockNumber == run.BlockNumber && last.BlockOffset + last.Length == run.BlockOffset &&
           last.DiskOffset + last.Length == run.DiskOffset && last.ExtentName == run.ExtentName;
}

}  // namespace

CZuError CLVM::ConvertVolumeOffsetToDiskExtents(uint64_t offset, uint64_t length, const LVM_Volume_t& volume,
                                                const SparseInfo_t& sparseInfo,
                                                std::vector<LVM_Disk_Offset_Len_t>& runs) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        const uint64_t start = offset;
        const size_t firstRun = runs.size();
        while (length != 0) {
            const uint64_t lba = offset >> SectorShift;
            LgDebug().Debug(MappingFunction, "1..llOffsetLBA = %" PRIu64, lba);
            VolumePlace_t place;
            ZU_RETURN_IF_ERROR(FindPlace(volume, offset, lba, place));
            uint64_t piece = std::min(place.chunk, length);
            if (piece == 0)
                return Refusal(OutOfRange);  // a span that wraps to nothing would never end
            if (place.component->HardDiskIndex >= sparseInfo.size())
                return Refusal(OutOfPartition);
            length -= piece;
            for (uint64_t diskByte = DiskOffsetOf(place); piece != 0;) {
                LVM_Disk_Offset_Len_t run;
                bool isFound = false;
                ZU_RETURN_IF_ERROR(FindRun(sparseInfo[place.component->HardDiskIndex], diskByte, piece, run, isFound));
                if (!isFound) {
                    LgDebug().Debug(MappingFunction,
                                    "llOffset=%" PRIu64 "\tllDiskReadLength=%" PRIu64
                                    "\tharddiskindex=%d\tllDiskOffset=%" PRIu64,
                                    offset, piece, static_cast<int>(place.component->HardDiskIndex), diskByte);
                    return Refusal("Offset seems to be not occupied in the disk");
                }
                const uint64_t step = run.Length;
                if (!runs.empty() && Continues(runs.back(), run)) {
                    runs.back().Length += step;
                } else {
                    MakeRoom(runs, firstRun, offset - start, length + piece);
                    runs.push_back(std::move(run));
                }
                offset += step;
                diskByte += step;
                piece -= step;
            }
        }
        return CZuError();
    });
}
