#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VolumeDumpBuilder.h"

// What `CLVM` reads back of a volume dump of either version.

namespace {

using Dump = CVolumeDumpBuilder;
constexpr Dump::Version_t Old = Dump::Version_t::Old;
constexpr Dump::Version_t Current = Dump::Version_t::Current;

constexpr char UnlikeHeaders[] = "Dump file signature does not match for header. Expecting LVMDUMP1.0 or LVMDUMP1.1";
constexpr char UnlikeFooter[] =
    "Dump file signature does not match for footer. Expecting LVMDUMP1.1. Could be an incomplete file";
constexpr char GuidText[] = "{01234567-89AB-CDEF-0F1E-2D3C4B5A6978}";
constexpr char OtherGuidText[] = "{FEDCBA98-7654-3210-A0B1-C2D3E4F50617}";

DumpedVolume_t VolumeOf(const std::string& name, const std::vector<DumpedSegment_t>& segments) {
    DumpedVolume_t volume;
    volume.name = name;
    volume.segments = segments;
    return volume;
}

DumpedSegment_t SegmentOf(const std::vector<DumpedComponent_t>& components, uint64_t lbaEnd = 0) {
    DumpedSegment_t segment;
    segment.components = components;
    segment.lbaEnd = lbaEnd;
    return segment;
}

// A volume with a number of its own in every field.
DumpedVolume_t VolumeOfNumbers() {
    DumpedComponent_t component;
    component.diskGuid = OtherGuidText;
    component.diskLbaStart = 0x1111111111111111;
    component.diskLbaEnd = 0x2222222222222222;
    component.volLbaStart = 0x3333333333333333;
    component.volLbaEnd = 0x3333333333333343;
    component.column = 0x12345678;
    component.hardDisk = 0xFFFFFFFF;
    DumpedSegment_t segment = SegmentOf({component}, 0x77);
    segment.stripeSize = 0x5555555555555555;
    segment.lbaStart = 0x6666666666666666;
    DumpedVolume_t volume = VolumeOf("Volume of numbers", {segment});
    volume.guid = GuidText;
    volume.isRaid5 = '1';
    volume.systemId = "8E";
    return volume;
}

class LvmDumpRead : public testing::Test {
protected:
    CZuError Read(const Dump& dump) { return Read(dump.WriteTo(m_Dir)); }
    CZuError Read(const std::string& path) { return CLVM::ReadVolumeInfoFromDump(path.c_str(), m_Volumes, &m_Sparse); }
    CZuError ReadVolumesOf(const Dump& dump) {
        return CLVM::ReadVolumeInfoFromDump(dump.WriteTo(m_Dir).c_str(), m_Volumes, nullptr);
    }

    CTempDir m_Dir;
    std::vector<LVM_Volume_t> m_Volumes;
    SparseInfo_t m_Sparse;
};

TEST_F(LvmDumpRead, EveryFieldOfAVolumeComesBack) {
    ASSERT_OK(Read(Dump().Volume(VolumeOfNumbers())));
    EXPECT_EQ(std::string("volume ") + GuidText +
                  " [Volume of numbers] RAID-5 1 type 8e found 1\n"
                  " segment 6666666666666666-88 stripe 5555555555555555\n"
                  "  component " +
                  OtherGuidText +
                  " disk ffffffff 1111111111111111-2222222222222222 at 3333333333333333-3333333333333343 column "
                  "12345678\n",
              TextOf(m_Volumes));
}

TEST_F(LvmDumpRead, ARowOfVolumesSegmentsAndComponentsComesBackInItsOrder) {
    ASSERT_OK(Read(Dump()
                       .Volume(VolumeOf("first", {SegmentOf({DumpedPiece(0, 10, 0, 5), DumpedPiece(1, 20, 5, 5)}),
                                                  SegmentOf({DumpedPiece(2, 30, 10, 5)})}))
                       .Volume(VolumeOf("without segments", {}))
                       .Volume(VolumeOf("without components", {SegmentOf({})}))));
    ASSERT_EQ(3U, m_Volumes.size());
    ASSERT_EQ(2U, m_Volumes[0].Segments.size());
    EXPECT_EQ(2U, m_Volumes[0].Segments[0].Components.size());
    EXPECT_EQ(20U, m_Volumes[0].Segments[0].Components[1].DiskLBAStart);
    EXPECT_EQ(30U, m_Volumes[0].Segments[1].Components.at(0).DiskLBAStart);
    EXPECT_STREQ("without segments", m_Volumes[1].VolName);
    EXPECT_TRUE(m_Volumes[1].Segments.empty());
    EXPECT_TRUE(m_Volumes[2].Segments.at(0).Components.empty());
}

// Callers rely on it: the end is larger than it was on the disks.
TEST_F(LvmDumpRead, TheSectorsOfTheComponentsComeOnTopOfASegmentsEnd) {
    ASSERT_OK(Read(Dump().Volume(VolumeOf(
        "v", {SegmentOf({DumpedPiece(0, 0, 0, 100), DumpedPiece(0, 500, 100, 50)}, 149), SegmentOf({}, 33)}))));
    EXPECT_EQ(149U + 100 + 50, m_Volumes[0].Segments[0].LBAEnd);
    EXPECT_EQ(33U, m_Volumes[0].Segments[1].LBAEnd);
}

TEST_F(LvmDumpRead, OnlyTheCharacter1IsYes) {
    for (const char character : {'1', '0', '2', 'y', '\0', '\xB1'}) {
        DumpedVolume_t volume = VolumeOf("v", {SegmentOf({})});
        volume.isRaid5 = character;
        volume.allDiskFound = '0';
        for (const Dump::Version_t version : {Current, Old}) {
            ASSERT_OK(Read(Dump(version).Volume(volume)));
            EXPECT_EQ(character == '1' ? 1 : 0, m_Volumes[0].IsRaid5) << character;
            EXPECT_EQ(0, m_Volumes[0].AllDiskFound);
        }
        std::swap(volume.isRaid5, volume.allDiskFound);
        ASSERT_OK(Read(Dump().Volume(volume)));
        EXPECT_EQ(0, m_Volumes[0].IsRaid5);
        EXPECT_EQ(character == '1' ? 1 : 0, m_Volumes[0].AllDiskFound) << character;
    }
}

TEST_F(LvmDumpRead, AnOlderDumpHasOneSegmentForEachVolume) {
    DumpedVolume_t volume = VolumeOfNumbers();
    volume.segments[0].components.push_back(DumpedPiece(3, 7, 9, 11));
    ASSERT_OK(Read(Dump(Old).Volume(volume).Volume(VolumeOf("second", {SegmentOf({})}))));
    EXPECT_EQ(std::string("volume ") + GuidText +
                  " [Volume of numbers] RAID-5 1 type 8e found 1\n"
                  " segment 0-24 stripe 5555555555555555\n"  // 36: 18 for each component
                  "  component " +
                  OtherGuidText +
                  " disk ffffffff 1111111111111111-2222222222222222 at 3333333333333333-3333333333333343 column "
                  "12345678\n"
                  "  component " +
                  NoDumpGuid +
                  " disk 3 7-11 at 9-13 column 0\n"
                  "volume " +
                  NoDumpGuid +
                  " [second] RAID-5 0 type 7 found 1\n"
                  " segment 0-0 stripe 0\n",
              TextOf(m_Volumes));
}

TEST_F(LvmDumpRead, TheComponentsOfAnOlderDumpAreCountedInDecimal) {
    DumpedVolume_t volume = VolumeOf("v", {SegmentOf(std::vector<DumpedComponent_t>(12, DumpedPiece(0, 1, 0, 1)))});
    ASSERT_OK(Read(Dump(Old).Volume(volume)));
    EXPECT_EQ(12U, m_Volumes[0].Segments[0].Components.size());
    EXPECT_EQ(12U * 18, m_Volumes[0].Segments[0].LBAEnd);
    // What a hexadecimal digit follows is over there.
    ASSERT_OK(Read(Dump(Old).Volume(VolumeOf("v", {SegmentOf({})})).PutAt(18 + 161, "0000000a")));
    EXPECT_TRUE(m_Volumes[0].Segments[0].Components.empty());
}

TEST_F(LvmDumpRead, AGuidThatIsNoneIsToldWithItsText) {
    for (const Dump::Version_t version : {Current, Old}) {
        DumpedVolume_t bad = VolumeOf("bad", {SegmentOf({})});
        bad.guid = "{0123456-no}";
        EXPECT_REFUSED(Read(Dump(version).Volume(VolumeOf("good", {SegmentOf({})})).Volume(bad)),
                       "Failed to read dump file. VolGUID conversion failed {0123456-no}");
        EXPECT_EQ(1U, m_Volumes.size()) << "what was read so far";

        DumpedComponent_t component = DumpedPiece(0, 1, 2, 3);
        component.diskGuid = "";
        bad = VolumeOf("bad", {SegmentOf({DumpedPiece(0, 1, 2, 3), component})});
        EXPECT_REFUSED(Read(Dump(version).Volume(bad)), "Failed to read dump file. DiskGUID conversion failed ");
        EXPECT_TRUE(m_Volumes.empty());
    }
}

TEST_F(LvmDumpRead, NoPathIsRefusedAndChangesNothing) {
    m_Volumes.resize(2);
    m_Sparse.resize(3);
    EXPECT_REFUSED(CLVM::ReadVolumeInfoFromDump(nullptr, m_Volumes, &m_Sparse), "Invalid parameter");
    EXPECT_EQ(2U, m_Volumes.size());
    EXPECT_EQ(3U, m_Sparse.size());
}

TEST_F(LvmDumpRead, BothListsAreEmptiedFirst) {
    for (const Dump::Version_t version : {Current, Old}) {
        m_Volumes.resize(2);
        m_Sparse.resize(3);
        EXPECT_OK(Read(Dump(version)));
        EXPECT_TRUE(m_Volumes.empty());
        EXPECT_TRUE(m_Sparse.empty());
    }
}

TEST_F(LvmDumpRead, SignaturesThatDoNotFitAreTold) {
    const struct {
        const char* name;
        Dump dump;
        const char* text;
    } rows[] = {
        {"no header", Dump().Header("LVMDUMP1.2"), UnlikeHeaders},
        {"a header of other letters", Dump(Old).Header("lvmdump1.0"), UnlikeHeaders},
        {"no footer", Dump().Footer(""), UnlikeFooter},
        {"no footer in an older dump", Dump(Old).Footer(""), UnlikeFooter},
        {"a footer cut short", Dump().Footer("LVMDUMP1."), UnlikeFooter},
        {"bytes behind the footer", Dump().Footer("LVMDUMP1.1\n"), UnlikeFooter},
        {"an older footer", Dump().Footer("LVMDUMP1.0"),
         "Dump file signature does not match for header. Expecting LVMDUMP1.0"},
        {"an older header", Dump().Header("LVMDUMP1.0"),
         "Dump file signature does not match for header. Expecting LVMDUMP1.1"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_REFUSED(Read(row.dump), row.text);
        EXPECT_REFUSED(ReadVolumesOf(row.dump), row.text);
    }
}

TEST_F(LvmDumpRead, AFileThatIsMissingOrHasNoRoomForASignatureIsTheReadsOwnError) {
    EXPECT_SYSTEM_ERROR(Read(m_Dir.File("nowhere")), ENOENT);
    for (const size_t size : {0U, 1U, 9U})
        EXPECT_FAILURE(Read(Dump().CutTo(size))) << size;
    // Head and end are the same bytes here; the number of volumes is missing.
    EXPECT_FAILURE(Read(Dump().CutTo(10)));
}

TEST_F(LvmDumpRead, ExtentsOfEveryLinkComeBack) {
    SparseDumpText_t numbers;
    numbers.name = "disk_0000abcd";
    numbers.startLba = 0x1111111111111111;
    numbers.endLba = 0x2222222222222222;
    numbers.blockSize = 0x3333333333333333;
    numbers.grainSize = 0x4444444444444444;
    numbers.fileOffset = 0x55555555;
    numbers.grainsPerBucket = 0x6666666666666666;
    numbers.bucketCount = 0x7777777777777777;
    numbers.bucketBytes = 0x99999999;
    const std::vector<std::vector<DumpedLink_t>> disks = {
        {{numbers}},
        {},
        {{DumpedFlatExtent("base", 0, ~uint64_t{0}, 128)},
         {},
         {DumpedSparseExtent("first", 0, 99, 8, 4, "000001100000"), DumpedSparseExtent("second", 100, 199, 8, 4, "1")}},
    };
    for (const Dump::Version_t version : {Current, Old}) {
        Dump dump(version);
        dump.Volume(VolumeOf("v", {SegmentOf({DumpedPiece(0, 1, 2, 3)})}));
        std::string expected;
        for (const std::vector<DumpedLink_t>& links : disks) {
            dump.Disk(links);
            expected += "disk\n";
            for (const DumpedLink_t& link : links)
                expected += TextOf(link);
        }
        ASSERT_OK(Read(dump));
        EXPECT_EQ(expected, TextOf(m_Sparse));
        EXPECT_EQ(1U, m_Volumes.size());
    }
}

// Without a top bitmap there is nothing behind the record, whatever the record says of buckets.
TEST_F(LvmDumpRead, AnExtentWithoutATopBitmapHasNoBucketsBehindIt) {
    SparseDumpText_t extent = DumpedFlatExtent("first", 0, 9, 8);
    extent.grainsPerBucket = 4;
    extent.bucketCount = 100;
    extent.bucketBytes = 4;
    ASSERT_OK(Read(Dump().Disk({{extent, DumpedFlatExtent("second", 10, 19, 8)}})));
    EXPECT_TRUE(m_Sparse[0][0][0].Buckets.empty());
    EXPECT_EQ(0U, m_Sparse[0][0][0].TopBitmap.GetSize());
    EXPECT_STREQ("second", m_Sparse[0][0][1].ExtentName);
}

TEST_F(LvmDumpRead, ATopBitmapWithBit9AloneIsFollowedByOneBucket) {
    SparseDumpText_t extent = DumpedFlatExtent("sparse", 0, 99, 8);
    extent.grainsPerBucket = 16;
    extent.bucketCount = 12;
    extent.topBitmapBytes = 2;
    extent.bucketBytes = 2;
    extent.topBitmap = std::string("\0\x40", 2);
    extent.buckets = {"\xAB\xCD"};
    ASSERT_OK(Read(Dump().Disk({{extent, DumpedFlatExtent("next", 0, 9, 8)}})));
    const std::vector<CAutoMemory<char>>& buckets = m_Sparse[0][0][0].Buckets;
    ASSERT_EQ(12U, buckets.size());
    for (size_t index = 0; index < buckets.size(); ++index)
        EXPECT_EQ(index == 9 ? 2U : 0U, buckets[index].GetSize()) << index;
    EXPECT_EQ('\xAB', buckets[9].GetPtr()[0]);
    EXPECT_EQ('\xCD', buckets[9].GetPtr()[1]);
    EXPECT_STREQ("next", m_Sparse[0][0][1].ExtentName);
}

// Bits behind the last bucket tell of nothing.
TEST_F(LvmDumpRead, OnlyAsManyBitsOfTheTopBitmapCountAsThereAreBuckets) {
    SparseDumpText_t extent = DumpedFlatExtent("sparse", 0, 99, 8);
    extent.grainsPerBucket = 8;
    extent.bucketCount = 3;
    extent.topBitmapBytes = 1;
    extent.bucketBytes = 1;
    extent.topBitmap = "\xBF";
    extent.buckets = {"a", "", "c"};
    ASSERT_OK(Read(Dump().Disk({{extent}, {DumpedFlatExtent("next", 0, 9, 8)}})));
    ASSERT_EQ(2U, m_Sparse[0].size());
    EXPECT_EQ(3U, m_Sparse[0][0][0].Buckets.size());
    EXPECT_STREQ("next", m_Sparse[0][1][0].ExtentName);
}

// Bitmaps of many sizes, on both sides of what is read at once.
TEST_F(LvmDumpRead, BitmapsOfAnySizeComeBack) {
    for (const uint64_t bytes : {1U, 1000U, 262143U, 262144U, 262145U, 700000U, 1200000U}) {
        SCOPED_TRACE(bytes);
        SparseDumpText_t extent = DumpedFlatExtent("sparse", 0, 99, 8);
        extent.grainsPerBucket = bytes * 8;
        extent.bucketCount = 8;
        extent.topBitmapBytes = bytes;
        extent.bucketBytes = bytes;
        extent.topBitmap = "\xA0" + PatternedBytes(bytes - 1, 1);
        extent.buckets = {PatternedBytes(bytes, 2), "", PatternedBytes(bytes, 3), "", "", "", "", ""};
        const DumpedLink_t link = {DumpedFlatExtent("before", 0, 9, 8), extent, DumpedFlatExtent("behind", 0, 9, 8)};
        ASSERT_OK(Read(Dump().Disk({link})));
        ASSERT_EQ(3U, m_Sparse[0][0].size());
        const ExtentSparseInfo_t& found = m_Sparse[0][0][1];
        EXPECT_SAME_BYTES(extent.topBitmap, BytesOf(found.TopBitmap));
        ASSERT_EQ(8U, found.Buckets.size());
        for (size_t index = 0; index < 8; ++index)
            EXPECT_SAME_BYTES(extent.buckets[index], BytesOf(found.Buckets[index]));
        EXPECT_STREQ("behind", m_Sparse[0][0][2].ExtentName);
    }
}

TEST_F(LvmDumpRead, WithoutAPlaceForItTheSparseSectionIsNotRead) {
    for (const Dump::Version_t version : {Current, Old}) {
        const Dump damaged = Dump(version)
                                 .Volume(VolumeOf("v", {SegmentOf({DumpedPiece(0, 1, 2, 3)})}))
                                 .Disk({{DumpedSparseExtent("sparse", 0, 99, 8, 4, "1111")}})
                                 .DiskCount("ffffffff");
        EXPECT_FAILURE(Read(damaged));
        EXPECT_OK(ReadVolumesOf(damaged));
        EXPECT_EQ(1U, m_Volumes.size());
    }
}

// A caller sees how far the reading came. The footer behind the cut is taken for the rest of what was cut, and the file
// ends in it.
TEST_F(LvmDumpRead, AFailureKeepsWhatWasReadSoFar) {
    const Dump dump = Dump()
                          .Volume(VolumeOf("first", {SegmentOf({DumpedPiece(0, 1, 2, 3)})}))
                          .Volume(VolumeOf("second", {SegmentOf({DumpedPiece(0, 1, 2, 3)})}))
                          .Disk({{DumpedFlatExtent("a", 0, 9, 8)}, {DumpedFlatExtent("b", 0, 9, 8)}})
                          .Disk({{DumpedSparseExtent("c", 0, 99, 8, 160, std::string(320, '1'))}});
    const size_t volume = 153 + 60 + 125;
    const size_t disks = dump.DisksOffset();
    const size_t topBitmap = disks + 16 + 2 * (8 + 1153) + 16 + 1153;
    const struct {
        const char* name;
        size_t cut;
        size_t volumes;
        size_t disks;
        size_t links;    // of the last disk
        size_t extents;  // of its last link
        size_t buckets;  // of its last extent
    } rows[] = {
        {"in the first volume", 18 + 100, 0, 0, 0, 0, 0},
        {"in the first volume's segment", 18 + 153 + 40, 0, 0, 0, 0, 0},
        {"in the second volume's component", 18 + volume + 153 + 60 + 100, 1, 0, 0, 0, 0},
        {"in the first extent", disks + 24 + 1100, 2, 1, 1, 0, 0},
        {"in the second link", disks + 24 + 1153 + 8 + 1, 2, 1, 2, 0, 0},
        {"in the second disk's extent", topBitmap - 100, 2, 2, 1, 0, 0},
        {"in its first bucket", topBitmap + 1 + 1, 2, 2, 1, 1, 1},
        {"in its second bucket", topBitmap + 1 + 20 + 3, 2, 2, 1, 1, 2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_FAILURE(Read(m_Dir.Write("cut", dump.Bytes().substr(0, row.cut) + "LVMDUMP1.1")));
        EXPECT_EQ(row.volumes, m_Volumes.size());
        ASSERT_EQ(row.disks, m_Sparse.size());
        if (row.disks == 0)
            continue;
        ASSERT_EQ(row.links, m_Sparse.back().size());
        ASSERT_EQ(row.extents, m_Sparse.back().back().size());
        if (row.extents != 0) {
            EXPECT_EQ(row.buckets, m_Sparse.back().back().back().Buckets.size());
        }
    }
}

TEST_F(LvmDumpRead, NamesEndWithTheirFields) {
    DumpedVolume_t volume = VolumeOf(std::string(99, 'v'), {SegmentOf({})});
    ASSERT_OK(Read(Dump().Volume(volume).Disk({{DumpedFlatExtent(std::string(1023, 'e'), 0, 9, 8)}})));
    EXPECT_EQ(volume.name, m_Volumes[0].VolName);
    EXPECT_EQ(std::string(1023, 'e'), m_Sparse[0][0][0].ExtentName.c_str());
}

TEST_F(LvmDumpRead, EveryFailureOfTheMachineReachesTheCaller) {
    for (const Dump::Version_t version : {Current, Old}) {
        const std::string path = Dump(version)
                                     .Volume(VolumeOf("v", {SegmentOf({DumpedPiece(0, 1, 2, 3)})}))
                                     .Disk({{DumpedSparseExtent("sparse", 0, 99, 8, 8, "1111111111111111")}})
                                     .WriteTo(m_Dir);
        for (const FaultOp op : {FaultOp::Open, FaultOp::Seek, FaultOp::Read, FaultOp::Size})
            EXPECT_LE(1U, WalkFailures(op, [&] { return Read(path); }));
        EXPECT_EQ(2U, WalkFailures(FaultOp::Close, [&] { return Read(path); })) << "looked at, then read";
    }
}

}  // namespace
