#include "tests/support/SectorWalk.h"

#include <algorithm>
#include <sstream>

namespace {

constexpr char OutOfRange[] = "Offset out of range";
constexpr char OutOfPartition[] = "Offset out of range of partition";
constexpr char OutOfSparsePartition[] = "Offset out of range of sparse partition";

struct Piece_t {
    LVM_Component_t component;
    uint64_t inComponent = 0;
    uint64_t bytes = 0;
};

std::string FindInStripes(const LVM_Volume_t& volume, uint64_t offset, Piece_t& piece) {
    const uint64_t lba = offset / 512;
    const bool isRaid5 = volume.IsRaid5 != 0;
    if (lba > volume.Segments.back().LBAEnd)
        return OutOfRange;
    const LVM_Segment_t* segment = nullptr;
    for (size_t index = 0; index < volume.Segments.size() && segment == nullptr; ++index) {
        const LVM_Segment_t& each = volume.Segments[index];
        if (each.LBAStart <= lba && (!isRaid5 || lba <= each.LBAEnd))
            segment = &each;
    }
    if (segment == nullptr)
        return isRaid5 ? "Offset out of range. Segment Itr reached end of Volume segemnt list." : OutOfRange;
    const uint64_t columns = segment->Components.size();
    const uint64_t stripeBytes = segment->StripeSize * 512;
    if (columns < (isRaid5 ? 2U : 1U) || stripeBytes == 0 || stripeBytes / 512 != segment->StripeSize)
        return OutOfRange;
    const uint64_t stripe = offset / stripeBytes;
    uint64_t row = stripe / columns;
    uint64_t column = stripe % columns;
    if (isRaid5) {
        row = stripe / (columns - 1);
        const uint64_t parity = columns - (row % columns) - 1;
        column = (stripe % (columns - 1) + parity + 1) % columns;
    }
    piece.component = segment->Components[column];
    piece.inComponent = row * stripeBytes + offset % stripeBytes;
    piece.bytes = stripeBytes - offset % stripeBytes;
    return "";
}

std::string FindInSpan(const LVM_Volume_t& volume, uint64_t offset, Piece_t& piece) {
    const uint64_t lba = offset / 512;
    for (const LVM_Segment_t& segment : volume.Segments) {
        if (segment.LBAStart > offset)  // sectors against bytes
            continue;
        for (const LVM_Component_t& component : segment.Components) {
            if (component.VolLBAStart > lba || lba > component.VolLBAEnd)
                continue;
            piece.component = component;
            piece.inComponent = offset - component.VolLBAStart * 512;
            piece.bytes = (component.VolLBAEnd - component.VolLBAStart + 1) * 512 - piece.inComponent;
            return "";
        }
    }
    return OutOfRange;
}

std::string FindPiece(const LVM_Volume_t& volume, uint64_t offset, Piece_t& piece) {
    if (volume.Segments.empty())
        return OutOfRange;
    const bool hasStripes = volume.IsRaid5 != 0 || volume.Segments[0].StripeSize != 0;
    return hasStripes ? FindInStripes(volume, offset, piece) : FindInSpan(volume, offset, piece);
}

bool BitOf(const CAutoMemory<char>& bitmap, uint64_t index) {
    if (index / 8 >= bitmap.GetSize())
        return false;
    return ((static_cast<unsigned char>(bitmap.GetPtr()[index / 8]) << (index % 8)) & 0x80) != 0;
}

// Looks up one place in one link. `isThere` tells whether the link holds it.
std::string AskLink(const std::vector<ExtentSparseInfo_t>& link, uint64_t diskByte, LVM_Disk_Offset_Len_t& run,
                    bool& isThere) {
    const uint64_t diskLba = diskByte / 512;
    const ExtentSparseInfo_t* extent = nullptr;
    for (size_t index = 0; index < link.size() && extent == nullptr; ++index) {
        if (link[index].ExtentStartLBA <= diskLba && diskLba <= link[index].ExtentEndLBA)
            extent = &link[index];
    }
    if (extent == nullptr)
        return OutOfPartition;
    const uint64_t inExtent = diskByte - extent->ExtentStartLBA * 512;
    const uint64_t blockBytes = extent->BlockSize * 512;
    if (blockBytes == 0)
        return OutOfSparsePartition;
    run.BlockNumber = inExtent / blockBytes;
    run.BlockOffset = inExtent % blockBytes + extent->ExtentFileOffset;
    isThere = true;
    if (extent->GrainsPerBucket != 0) {
        const uint64_t grainBytes = extent->GrainSize * 512;
        if (grainBytes == 0)
            return OutOfSparsePartition;
        const uint64_t grain = inExtent / grainBytes;
        const uint64_t bucket = grain / extent->GrainsPerBucket;
        if (bucket > extent->BucketCount)
            return OutOfSparsePartition;
        isThere = BitOf(extent->TopBitmap, bucket) && bucket < extent->Buckets.size() &&
                  BitOf(extent->Buckets[bucket], grain % extent->GrainsPerBucket);
    }
    if (isThere)
        run.ExtentName = extent->ExtentName;
    return "";
}

std::string FindSector(const std::vector<std::vector<ExtentSparseInfo_t>>& links, uint64_t diskByte,
                       LVM_Disk_Offset_Len_t& run) {
    for (size_t index = links.size(); index > 0; --index) {
        bool isThere = false;
        const std::string failure = AskLink(links[index - 1], diskByte, run, isThere);
        if (!failure.empty() || isThere)
            return failure;
    }
    return "Offset seems to be not occupied in the disk";
}

void Append(const LVM_Disk_Offset_Len_t& run, std::vector<LVM_Disk_Offset_Len_t>& runs) {
    if (!runs.empty()) {
        LVM_Disk_Offset_Len_t& last = runs.back();
        if (last.BlockNumber == run.BlockNumber && last.BlockOffset + last.Length == run.BlockOffset &&
            last.DiskOffset + last.Length == run.DiskOffset && last.ExtentName == run.ExtentName) {
            last.Length += run.Length;
            return;
        }
    }
    runs.push_back(run);
}

}  // namespace

std::string WalkSectors(uint64_t offset, uint64_t length, const LVM_Volume_t& volume, const SparseInfo_t& sparseInfo,
                        std::vector<LVM_Disk_Offset_Len_t>& runs) {
    while (length != 0) {
        Piece_t piece;
        std::string failure = FindPiece(volume, offset, piece);
        if (!failure.empty())
            return failure;
        uint64_t left = std::min(piece.bytes, length);
        if (left == 0)
            return OutOfRange;  // it would never end
        if (piece.component.HardDiskIndex >= sparseInfo.size())
            return OutOfPartition;
        length -= left;
        while (left != 0) {
            LVM_Disk_Offset_Len_t run;
            run.DiskOffset = piece.component.DiskLBAStart * 512 + piece.inComponent;
            run.Length = std::min(512 - run.DiskOffset % 512, left);
            failure = FindSector(sparseInfo[piece.component.HardDiskIndex], run.DiskOffset, run);
            if (!failure.empty())
                return failure;
            Append(run, runs);
            offset += run.Length;
            piece.inComponent += run.Length;
            left -= run.Length;
        }
    }
    return "";
}

std::string TextOf(const std::vector<LVM_Disk_Offset_Len_t>& runs) {
    std::ostringstream text;
    for (const LVM_Disk_Offset_Len_t& run : runs)
        text << run.Length << " bytes at " << run.DiskOffset << ": " << run.ExtentName.c_str() << " block "
             << run.BlockNumber << " + " << run.BlockOffset << "\n";
    return text.str();
}
