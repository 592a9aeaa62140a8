#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SectorWalk.h"
#include "tests/support/TempDir.h"
#include "tests/support/VolumeDumpBuilder.h"

// Where `CLVM` says that the bytes of a volume lie in the backup blocks of its disks.

namespace {

constexpr char OutOfRange[] = "Offset out of range";
constexpr char OutOfPartition[] = "Offset out of range of partition";
constexpr char OutOfSparsePartition[] = "Offset out of range of sparse partition";
constexpr char NotOccupied[] = "Offset seems to be not occupied in the disk";

LVM_Component_t PieceOf(uint32_t disk, uint64_t diskLba, uint64_t volumeLba, uint64_t sectors) {
    LVM_Component_t component;
    component.HardDiskIndex = disk;
    component.DiskLBAStart = diskLba;
    component.DiskLBAEnd = diskLba + sectors - 1;
    component.VolLBAStart = volumeLba;
    component.VolLBAEnd = volumeLba + sectors - 1;
    return component;
}

LVM_Segment_t SegmentOf(const std::vector<LVM_Component_t>& components, uint64_t lbaStart, uint64_t lbaEnd,
                        uint64_t stripeSize = 0) {
    LVM_Segment_t segment;
    segment.Components = components;
    segment.LBAStart = lbaStart;
    segment.LBAEnd = lbaEnd;
    segment.StripeSize = stripeSize;
    return segment;
}

LVM_Volume_t VolumeOf(const std::vector<LVM_Segment_t>& segments) {
    LVM_Volume_t volume;
    volume.AllDiskFound = 1;
    volume.Segments = segments;
    return volume;
}

LVM_Volume_t Plain(uint64_t diskLba, uint64_t sectors) {
    return VolumeOf({SegmentOf({PieceOf(0, diskLba, 0, sectors)}, 0, sectors)});
}

// Columns of 64 sectors on disks 0, 1, ..., at sector 100 of the first one, 200 of the second and so on.
LVM_Volume_t Striped(uint32_t columns, uint64_t stripeSize) {
    std::vector<LVM_Component_t> components;
    for (uint32_t column = 0; column < columns; ++column)
        components.push_back(PieceOf(column, 100 * (column + 1), 0, 64));
    return VolumeOf({SegmentOf(components, 0, columns * 64 - 1, stripeSize)});
}

LVM_Volume_t Raid5(uint32_t columns, uint64_t stripeSize) {
    LVM_Volume_t volume = Striped(columns, stripeSize);
    volume.IsRaid5 = 1;
    volume.Segments[0].LBAEnd = (columns - 1) * 64 - 1;
    return volume;
}

ExtentSparseInfo_t Flat(const std::string& name, uint64_t startLba, uint64_t endLba, uint64_t blockSize) {
    ExtentSparseInfo_t extent;
    extent.ExtentName = name;
    extent.ExtentStartLBA = startLba;
    extent.ExtentEndLBA = endLba;
    extent.BlockSize = blockSize;
    extent.GrainSize = blockSize;
    return extent;
}

// '1' for each grain that is there; a bucket for each text.
ExtentSparseInfo_t Sparse(const std::string& name, uint64_t startLba, uint64_t endLba, uint64_t grainSize,
                          uint64_t grainsPerBucket, const std::vector<std::string>& buckets) {
    std::string grains;
    for (const std::string& bucket : buckets)
        grains += bucket + std::string(grainsPerBucket - bucket.size(), '0');
    const SparseDumpText_t dumped = DumpedSparseExtent(name, startLba, endLba, grainSize, grainsPerBucket, grains);
    ExtentSparseInfo_t extent = Flat(name, startLba, endLba, grainSize);
    extent.GrainsPerBucket = grainsPerBucket;
    extent.BucketCount = dumped.bucketCount;
    extent.TopBitmapBytes = static_cast<uint32_t>(dumped.topBitmapBytes);
    extent.BucketBytes = static_cast<uint32_t>(dumped.bucketBytes);
    extent.TopBitmap = BufferOf(dumped.topBitmap);
    for (const std::string& bucket : dumped.buckets)
        extent.Buckets.push_back(BufferOf(bucket));
    return extent;
}

using Link_t = std::vector<ExtentSparseInfo_t>;

// Disks of one flat extent each, "disk0" and so on.
SparseInfo_t FlatDisks(size_t count, uint64_t blockSize) {
    SparseInfo_t disks;
    for (size_t index = 0; index < count; ++index)
        disks.push_back({Link_t{Flat("disk" + std::to_string(index), 0, 9999, blockSize)}});
    return disks;
}

class LvmMapping : public testing::Test {
protected:
    CZuError Map(uint64_t offset, uint64_t length, const LVM_Volume_t& volume, const SparseInfo_t& disks) {
        return CLVM::ConvertVolumeOffsetToDiskExtents(offset, length, volume, disks, m_Runs);
    }

    // What is found, from an empty list on. A walk from sector to sector has to find the same.
    std::string Found(uint64_t offset, uint64_t length, const LVM_Volume_t& volume, const SparseInfo_t& disks) {
        m_Runs.clear();
        EXPECT_OK(Map(offset, length, volume, disks));
        std::vector<LVM_Disk_Offset_Len_t> walked;
        EXPECT_EQ("", WalkSectors(offset, length, volume, disks, walked));
        EXPECT_EQ(TextOf(walked), TextOf(m_Runs));
        return TextOf(m_Runs);
    }

    std::vector<LVM_Disk_Offset_Len_t> m_Runs;
};

TEST_F(LvmMapping, SectorsOfOneBlockAreOneRun) {
    EXPECT_EQ("1024 bytes at 32768: disk0 block 4 + 0\n", Found(512, 1024, Plain(63, 100), FlatDisks(1, 16)));
}

TEST_F(LvmMapping, SectorsOfNeighbouringBlocksAreTwoRuns) {
    EXPECT_EQ("512 bytes at 32256: disk0 block 3 + 7680\n"
              "512 bytes at 32768: disk0 block 4 + 0\n",
              Found(0, 1024, Plain(63, 100), FlatDisks(1, 16)));
}

TEST_F(LvmMapping, SectorsOfTwoLinksAreTwoRuns) {
    const SparseInfo_t disks = {
        {{Flat("base", 0, 99, 16)}, {Sparse("child", 0, 99, 1, 8, {"00000000", "00100000"})}},
    };
    EXPECT_EQ("1024 bytes at 4096: base block 0 + 4096\n"
              "512 bytes at 5120: child block 10 + 0\n"
              "512 bytes at 5632: base block 0 + 5632\n",
              Found(0, 2048, Plain(8, 100), disks));
}

TEST_F(LvmMapping, APieceOfASectorJoinsTheOneBefore) {
    EXPECT_EQ("100 bytes at 500: disk0 block 0 + 500\n", Found(500, 100, Plain(0, 100), FlatDisks(1, 16)));
    EXPECT_EQ("12 bytes at 500: disk0 block 0 + 500\n"
              "88 bytes at 512: disk0 block 1 + 0\n",
              Found(500, 100, Plain(0, 100), FlatDisks(1, 1)));
    EXPECT_EQ("1 bytes at 513: disk0 block 1 + 1\n", Found(513, 1, Plain(0, 100), FlatDisks(1, 1)));
}

TEST_F(LvmMapping, ALengthOf0LeavesTheRunsAlone) {
    m_Runs.resize(1);
    EXPECT_OK(Map(0, 0, LVM_Volume_t(), SparseInfo_t()));
    EXPECT_OK(Map(~uint64_t{0}, 0, Plain(0, 10), FlatDisks(1, 8)));
    EXPECT_EQ(1U, m_Runs.size());
}

TEST_F(LvmMapping, ARunThatNobodyFilledIsAllOnes) {
    const LVM_Disk_Offset_Len_t run;
    EXPECT_EQ(~uint64_t{0}, run.DiskOffset);
    EXPECT_EQ(~uint64_t{0}, run.Length);
    EXPECT_EQ(~uint64_t{0}, run.BlockNumber);
    EXPECT_EQ(~uint64_t{0}, run.BlockOffset);
    EXPECT_TRUE(run.ExtentName.IsEmpty());
}

TEST_F(LvmMapping, RunsAreAppendedAndJoinTheLastOne) {
    const SparseInfo_t disks = FlatDisks(1, 16);
    EXPECT_OK(Map(0, 512, Plain(0, 100), disks));
    EXPECT_OK(Map(512, 512, Plain(0, 100), disks));
    EXPECT_OK(Map(2048, 512, Plain(0, 100), disks));
    EXPECT_OK(Map(0, 512, Plain(0, 100), disks));
    EXPECT_EQ("1024 bytes at 0: disk0 block 0 + 0\n"
              "512 bytes at 2048: disk0 block 0 + 2048\n"
              "512 bytes at 0: disk0 block 0 + 0\n",
              TextOf(m_Runs));
}

// Each of what makes two runs one has to fit.
TEST_F(LvmMapping, ARunJoinsTheLastOneOnlyWhereAllOfItFits) {
    LVM_Disk_Offset_Len_t last;
    last.DiskOffset = 0;
    last.Length = 512;
    last.ExtentName = "disk0";
    last.BlockNumber = 0;
    last.BlockOffset = 0;
    const auto countBehind = [&](const LVM_Disk_Offset_Len_t& first) {
        m_Runs = {first};
        EXPECT_OK(Map(512, 512, Plain(0, 100), FlatDisks(1, 16)));
        return m_Runs.size();
    };
    EXPECT_EQ(1U, countBehind(last));
    LVM_Disk_Offset_Len_t other = last;
    other.DiskOffset = 1;
    EXPECT_EQ(2U, countBehind(other));
    other = last;
    other.BlockOffset = 1;
    EXPECT_EQ(2U, countBehind(other));
    other = last;
    other.BlockNumber = 1;
    EXPECT_EQ(2U, countBehind(other));
    other = last;
    other.ExtentName = "disk1";
    EXPECT_EQ(2U, countBehind(other));
}

TEST_F(LvmMapping, ASectorThatOnlyTheParentHasIsFoundThere) {
    const SparseInfo_t disks = {
        {{Sparse("base", 0, 99, 4, 2, {"01"})},
         {Sparse("middle", 0, 99, 4, 2, {"10"})},
         {Sparse("top", 0, 99, 4, 2, {})}},
    };
    EXPECT_EQ("2048 bytes at 0: middle block 0 + 0\n"
              "2048 bytes at 2048: base block 1 + 0\n",
              Found(0, 4096, Plain(0, 8), disks));
}

TEST_F(LvmMapping, ABucketWhoseTopBitIsClearIsNotLookedAt) {
    SparseInfo_t disks = {{{Flat("base", 0, 99, 8)}, {Sparse("child", 0, 99, 1, 8, {"11111111"})}}};
    EXPECT_EQ("512 bytes at 0: child block 0 + 0\n", Found(0, 512, Plain(0, 8), disks));
    disks[0][1][0].TopBitmap.GetPtr()[0] = '\x40';
    EXPECT_EQ("512 bytes at 0: base block 0 + 0\n", Found(0, 512, Plain(0, 8), disks));
}

// Callers rely on the bucket behind the last one being a hole, not a failure.
TEST_F(LvmMapping, TheBucketBehindTheLastOneIsAHoleAndTheNextOneAFailure) {
    SparseInfo_t disks = {{{Flat("base", 0, 99, 8)}, {Sparse("child", 0, 99, 1, 8, {"11111111"})}}};
    const std::string behind = "4096 bytes at 4096: base block 1 + 0\n";
    EXPECT_EQ(behind, Found(4096, 4096, Plain(0, 100), disks));
    disks[0][1][0].TopBitmap.GetPtr()[0] = '\xFF';
    EXPECT_EQ(behind, Found(4096, 4096, Plain(0, 100), disks)) << "a bit of no bucket";
    EXPECT_REFUSED(Map(8192, 1, Plain(0, 100), disks), OutOfSparsePartition);
    m_Runs.clear();
    EXPECT_REFUSED(Map(4096, 4097, Plain(0, 100), disks), OutOfSparsePartition);
    EXPECT_EQ(behind, TextOf(m_Runs)) << "what came before the failure";
}

TEST_F(LvmMapping, AHoleInAllLinksIsAFailure) {
    const SparseInfo_t disks = {{{Sparse("base", 0, 99, 2, 4, {"1101"})}, {Sparse("child", 0, 99, 2, 4, {"0"})}}};
    EXPECT_REFUSED(Map(0, 8 * 512, Plain(0, 8), disks), NotOccupied);
    EXPECT_EQ("1024 bytes at 0: base block 0 + 0\n"
              "1024 bytes at 1024: base block 1 + 0\n",
              TextOf(m_Runs));
    EXPECT_OK(Map(6 * 512, 1024, Plain(0, 8), disks));
}

TEST_F(LvmMapping, ADiskWithoutLinksHoldsNothing) {
    EXPECT_REFUSED(Map(0, 1, Plain(0, 8), SparseInfo_t(1)), NotOccupied);
}

TEST_F(LvmMapping, ASectorInNoExtentOfALinkIsAFailure) {
    const SparseInfo_t disks = {{{Flat("base", 0, 99, 8)}, {Sparse("child", 10, 19, 1, 10, {"0"})}}};
    EXPECT_EQ("1024 bytes at 5120: base block 1 + 1024\n", Found(5120, 1024, Plain(0, 100), disks));
    EXPECT_REFUSED(Map(9 * 512, 512, Plain(0, 100), disks), OutOfPartition);
    EXPECT_REFUSED(Map(20 * 512, 512, Plain(0, 100), disks), OutOfPartition);
    EXPECT_REFUSED(Map(0, 1, Plain(0, 100), SparseInfo_t{{Link_t()}}), OutOfPartition);
}

TEST_F(LvmMapping, ALinkThatHoldsASectorHidesWhatOlderOnesLack) {
    const SparseInfo_t disks = {{{}, {Flat("child", 0, 99, 8)}}};
    EXPECT_EQ("1 bytes at 0: child block 0 + 0\n", Found(0, 1, Plain(0, 100), disks));
}

TEST_F(LvmMapping, ExtentsOfALinkCountFromTheirOwnStart) {
    const SparseInfo_t disks = {{{Flat("first", 0, 9, 8), Flat("second", 10, 29, 8), Flat("third", 30, ~0ULL, 8)}}};
    EXPECT_EQ("1024 bytes at 4096: first block 1 + 0\n"
              "4096 bytes at 5120: second block 0 + 0\n"
              "4096 bytes at 9216: second block 1 + 0\n"
              "2048 bytes at 13312: second block 2 + 0\n"
              "512 bytes at 15360: third block 0 + 0\n",
              Found(8 * 512, 23 * 512, Plain(0, 100), disks));
}

TEST_F(LvmMapping, OfExtentsThatOverlapTheFirstOneCounts) {
    const SparseInfo_t disks = {
        {{Flat("middle", 5, 9, 100), Flat("none", 8, 3, 100), Flat("all", 0, 99, 100), Flat("never", 0, 99, 1)}}};
    EXPECT_EQ("2560 bytes at 0: all block 0 + 0\n"
              "2560 bytes at 2560: middle block 0 + 0\n"
              "46080 bytes at 5120: all block 0 + 5120\n",
              Found(0, 51200, Plain(0, 100), disks));
}

TEST_F(LvmMapping, WhatLiesInFrontOfABlocksDataIsAdded) {
    SparseInfo_t disks = {{{Sparse("vhd", 0, 99, 1, 8, {"11111111", "11111111"})}}};
    disks[0][0][0].BlockSize = 8;
    disks[0][0][0].ExtentFileOffset = 512;
    EXPECT_EQ("3996 bytes at 100: vhd block 0 + 612\n"
              "1124 bytes at 4096: vhd block 1 + 512\n",
              Found(100, 5120, Plain(0, 100), disks));
}

TEST_F(LvmMapping, ASpannedVolumeGoesOnFromComponentToComponent) {
    const LVM_Volume_t volume = VolumeOf(
        {SegmentOf({PieceOf(0, 50, 0, 4), PieceOf(2, 20, 4, 2)}, 0, 5), SegmentOf({PieceOf(1, 10, 6, 3)}, 6, 8)});
    EXPECT_EQ("1548 bytes at 26100: disk0 block 0 + 26100\n"
              "1024 bytes at 10240: disk2 block 0 + 10240\n"
              "1536 bytes at 5120: disk1 block 0 + 5120\n",
              Found(500, 4108, volume, FlatDisks(3, 1000)));
    EXPECT_REFUSED(Map(9 * 512, 1, volume, FlatDisks(3, 1000)), OutOfRange);
    EXPECT_REFUSED(Map(9 * 512 - 1, 2, volume, FlatDisks(3, 1000)), OutOfRange);
}

// Callers rely on a segment's first sector being held against the byte offset.
TEST_F(LvmMapping, ASegmentOfASpannedVolumeIsPassedOverUpToTheByteOfItsFirstSectorsNumber) {
    const LVM_Volume_t volume = VolumeOf({SegmentOf({PieceOf(0, 0, 0, 100)}, 1000, 1099)});
    EXPECT_REFUSED(Map(999, 1, volume, FlatDisks(1, 100)), OutOfRange);
    EXPECT_EQ("1 bytes at 1000: disk0 block 0 + 1000\n", Found(1000, 1, volume, FlatDisks(1, 100)));
}

// Another component of a later segment may hold the sector too: the first one found counts.
TEST_F(LvmMapping, TheFirstComponentThatHoldsASectorCounts) {
    const LVM_Volume_t volume = VolumeOf(
        {SegmentOf({PieceOf(0, 0, 0, 10), PieceOf(1, 0, 5, 10)}, 0, 9), SegmentOf({PieceOf(2, 0, 0, 99)}, 0, 98)});
    EXPECT_EQ("2560 bytes at 2560: disk0 block 0 + 2560\n"
              "2560 bytes at 2560: disk1 block 0 + 2560\n"
              "512 bytes at 7680: disk2 block 0 + 7680\n",
              Found(5 * 512, 11 * 512, volume, FlatDisks(3, 1000)));
}

TEST_F(LvmMapping, StripesTakeTurns) {
    const SparseInfo_t disks = FlatDisks(2, 10000);
    // Stripe 5 lies in row 2 of column 1.
    EXPECT_EQ("4096 bytes at 110592: disk1 block 0 + 110592\n", Found(5 * 4096, 4096, Striped(2, 8), disks));
    EXPECT_EQ("596 bytes at 54700: disk0 block 0 + 54700\n"
              "4096 bytes at 102400: disk1 block 0 + 102400\n"
              "3 bytes at 55296: disk0 block 0 + 55296\n",
              Found(3500, 4695, Striped(2, 8), disks));
    EXPECT_OK(Map(2 * 64 * 512 - 1, 1, Striped(2, 8), disks));
    EXPECT_REFUSED(Map(2 * 64 * 512, 1, Striped(2, 8), disks), OutOfRange);
}

// Parity begins on the last column and moves one to the left with each row; the data begins behind it.
TEST_F(LvmMapping, Raid5OfThreeColumns) {
    const struct {
        uint64_t stripe;
        uint64_t row;
        uint32_t column;
    } rows[] = {{0, 0, 0}, {1, 0, 1}, {2, 1, 2}, {3, 1, 0}, {4, 2, 1}, {5, 2, 2}, {6, 3, 0}, {7, 3, 1}};
    std::string all;
    for (const auto& row : rows) {
        const uint64_t diskByte = (100 * (row.column + 1) + row.row * 8) * 512;
        const std::string expected = "4096 bytes at " + std::to_string(diskByte) + ": disk" +
                                     std::to_string(row.column) + " block 0 + " + std::to_string(diskByte) + "\n";
        EXPECT_EQ(expected, Found(row.stripe * 4096, 4096, Raid5(3, 8), FlatDisks(3, 10000)));
        all += expected;
    }
    EXPECT_EQ(all, Found(0, 8 * 4096, Raid5(3, 8), FlatDisks(3, 10000)));
    EXPECT_REFUSED(Map(2 * 64 * 512, 1, Raid5(3, 8), FlatDisks(3, 10000)), OutOfRange);
}

TEST_F(LvmMapping, Raid5TakesTheSegmentThatHoldsTheSector) {
    LVM_Volume_t volume = Raid5(3, 8);
    volume.Segments.push_back(volume.Segments[0]);
    volume.Segments[0].LBAEnd = 15;
    volume.Segments[1].LBAStart = 32;
    for (LVM_Component_t& component : volume.Segments[1].Components)
        component.DiskLBAStart += 1000;
    const SparseInfo_t disks = FlatDisks(3, 10000);
    EXPECT_EQ("1 bytes at 102400: disk1 block 0 + 102400\n", Found(8 * 512, 1, volume, disks));
    EXPECT_EQ("1 bytes at 622592: disk1 block 0 + 622592\n", Found(32 * 512, 1, volume, disks));
    EXPECT_REFUSED(Map(16 * 512, 1, volume, disks),
                   "Offset out of range. Segment Itr reached end of Volume segemnt list.");
    EXPECT_REFUSED(Map(128 * 512, 1, volume, disks), OutOfRange);
}

// The end of the last one is the volume's; the ends of the others aren't looked at.
TEST_F(LvmMapping, StripesTakeTheFirstSegmentThatBeginsInFront) {
    LVM_Volume_t volume = Striped(2, 8);
    volume.Segments.push_back(volume.Segments[0]);
    volume.Segments[0].LBAStart = 4;
    volume.Segments[0].LBAEnd = 5;
    for (LVM_Component_t& component : volume.Segments[1].Components)
        component.DiskLBAStart += 1000;
    const SparseInfo_t disks = FlatDisks(2, 10000);
    EXPECT_EQ("512 bytes at 563200: disk0 block 0 + 563200\n", Found(0, 512, volume, disks));
    EXPECT_EQ("512 bytes at 102400: disk1 block 0 + 102400\n", Found(8 * 512, 512, volume, disks));
    volume.Segments[1].LBAStart = 4;
    EXPECT_REFUSED(Map(0, 1, volume, disks), OutOfRange);
}

TEST_F(LvmMapping, AComponentWithoutADiskIsAFailureThoughAllDisksWereFound) {
    LVM_Volume_t volume = VolumeOf({SegmentOf({PieceOf(NoHardDisk, 0, 0, 10), PieceOf(1, 0, 10, 10)}, 0, 19)});
    EXPECT_REFUSED(Map(0, 1, volume, FlatDisks(1, 8)), OutOfPartition);
    EXPECT_REFUSED(Map(10 * 512, 1, volume, FlatDisks(1, 8)), OutOfPartition);
    volume.AllDiskFound = 0;
    EXPECT_EQ("1 bytes at 0: disk1 block 0 + 0\n", Found(10 * 512, 1, volume, FlatDisks(2, 8))) << "it isn't asked for";
}

// What reading an older dump makes of the ends of segments bounds stripes, and no span.
TEST_F(LvmMapping, StripesOfAnOlderDumpEndAfter18SectorsForEachComponent) {
    const CTempDir dir;
    DumpedVolume_t volume;
    DumpedSegment_t segment{{DumpedPiece(0, 10, 0, 100), DumpedPiece(0, 200, 0, 100)}, 8};
    volume.segments = {segment};
    CVolumeDumpBuilder dump(CVolumeDumpBuilder::Version_t::Old);
    dump.Volume(volume);
    volume.isRaid5 = '1';
    dump.Volume(volume);
    volume.isRaid5 = '0';
    volume.segments[0] = {{DumpedPiece(0, 10, 0, 100), DumpedPiece(0, 200, 100, 100)}};
    dump.Volume(volume).Disk({{DumpedFlatExtent("disk", 0, 999, 1000)}});
    std::vector<LVM_Volume_t> volumes;
    SparseInfo_t disks;
    ASSERT_OK(CLVM::ReadVolumeInfoFromDump(dump.WriteTo(dir).c_str(), volumes, &disks));
    for (size_t index = 0; index < 2; ++index) {
        EXPECT_OK(Map(36 * 512, 1, volumes[index], disks));
        EXPECT_REFUSED(Map(37 * 512, 1, volumes[index], disks), OutOfRange);
    }
    EXPECT_OK(Map(199 * 512, 1, volumes[2], disks));
}

// The ends that a dump of today comes with are wider than they were on the disks.
TEST_F(LvmMapping, StripesOfADumpGoOnBehindTheirEndByTheirComponentsSectors) {
    const CTempDir dir;
    DumpedVolume_t volume;
    volume.segments = {{{DumpedPiece(0, 10, 0, 64), DumpedPiece(0, 200, 0, 64)}, 8, 0, 127}};
    std::vector<LVM_Volume_t> volumes;
    SparseInfo_t disks;
    ASSERT_OK(CLVM::ReadVolumeInfoFromDump(
        CVolumeDumpBuilder().Volume(volume).Disk({{DumpedFlatExtent("disk", 0, 999, 1000)}}).WriteTo(dir).c_str(),
        volumes, &disks));
    EXPECT_OK(Map(255 * 512, 1, volumes[0], disks));
    EXPECT_REFUSED(Map(256 * 512, 1, volumes[0], disks), OutOfRange);
}

}  // namespace
