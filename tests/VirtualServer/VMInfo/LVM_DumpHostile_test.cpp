#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "foundation/detail/ErrorHandling.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/TempDir.h"
#include "tests/support/VolumeDumpBuilder.h"

// Volume dumps that are damaged, or made to do harm.

namespace {

using Dump = CVolumeDumpBuilder;
constexpr Dump::Version_t Old = Dump::Version_t::Old;
constexpr Dump::Version_t Current = Dump::Version_t::Current;
constexpr size_t FirstVolume = 18;

Dump Sound(Dump::Version_t version = Current) {
    DumpedVolume_t volume;
    volume.name = "v";
    volume.segments = {DumpedSegment_t{{DumpedPiece(0, 10, 0, 90)}}};
    return Dump(version).Volume(volume).Disk({{DumpedFlatExtent("base", 0, 99, 16)},
                                              {DumpedSparseExtent("child", 0, 99, 4, 5, "0100100001001100100110000")}});
}

class LvmDumpHostile : public testing::Test {
protected:
    CZuError Read(const Dump& dump) { return ReadBytes(dump.Bytes()); }
    CZuError ReadBytes(const std::string& bytes) {
        return CLVM::ReadVolumeInfoFromDump(m_Dir.Write("dump", bytes).c_str(), m_Volumes, &m_Sparse);
    }

    CTempDir m_Dir;
    std::vector<LVM_Volume_t> m_Volumes;
    SparseInfo_t m_Sparse;
};

TEST_F(LvmDumpHostile, CountsThatPromiseMoreThanTheFileHoldsEndWithTheReadsFailure) {
    const size_t disks = Sound().DisksOffset();
    const struct {
        const char* name;
        Dump dump;
    } rows[] = {
        {"volumes", Sound().VolumeCount("ffffffff")},
        {"volumes of an older dump", Sound(Old).VolumeCount("00000003")},
        {"segments", Sound().PutAt(FirstVolume + 144, "ffffffff")},
        {"components", Sound().PutAt(FirstVolume + 153 + 51, "ffffffff")},
        {"components of an older dump", Sound(Old).PutAt(FirstVolume + 161, "999999999")},
        {"disks", Sound().DiskCount("ffffffff")},
        {"links", Sound().PutAt(disks + 8, "ffffffff")},
        {"extents", Sound().PutAt(disks + 16, "ffffffff")},
        {"the bytes of the top bitmap", Sound().PutAt(disks + 24 + 1153 + 8 + 1135, "3fffffff")},
        {"the bytes of a bucket", Sound().PutAt(disks + 24 + 1153 + 8 + 1144, "3fffffff")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_FAILURE(Read(row.dump));
    }
    EXPECT_OK(Read(Sound()));
    EXPECT_OK(Read(Sound(Old)));
}

TEST_F(LvmDumpHostile, BucketsWithoutABitOfTheTopBitmapAreALyingCount) {
    const size_t bucketCount = Sound().DisksOffset() + 24 + 1153 + 8 + 1118;
    EXPECT_OK(Read(Sound().PutAt(bucketCount, "0000000000000008")));
    EXPECT_EQ(8U, m_Sparse[0][1][0].Buckets.size());
    for (const char* const count : {"0000000000000009", "ffffffffffffffff", "0000000100000005"})
        EXPECT_REFUSED(Read(Sound().PutAt(bucketCount, count)), "Out of memory") << count;
}

// A number's characters end with its field, though nothing ends them.
TEST_F(LvmDumpHostile, FieldsWithoutAnEndDoNotRunIntoTheirNeighbours) {
    const size_t extent = Sound().DisksOffset() + 24;
    ASSERT_OK(Read(Sound()
                       .PutAt(FirstVolume + 39, std::string(100, 'n'))
                       .PutAt(FirstVolume + 140, "8EF")
                       .PutAt(FirstVolume + 153 + 60 + 39, "00000000000000ab1")
                       .PutAt(FirstVolume + 153 + 60 + 107, "0000000c1")
                       .PutAt(extent, std::string(1024, 'e'))
                       .PutAt(extent + 1041, "000000000000006411")
                       .PutAt(extent + 1092, "000000ff1")));
    EXPECT_EQ(std::string(99, 'n'), m_Volumes[0].VolName);
    EXPECT_EQ(0x8E, m_Volumes[0].SystemID);
    EXPECT_EQ(0xABU, m_Volumes[0].Segments[0].Components[0].DiskLBAStart);
    EXPECT_EQ(0xC, m_Volumes[0].Segments[0].Components[0].ColumnIndex);
    EXPECT_EQ(std::string(1024, 'e'), m_Sparse[0][0][0].ExtentName.c_str());
    EXPECT_EQ(0x64U, m_Sparse[0][0][0].ExtentEndLBA);
    EXPECT_EQ(0xFFU, m_Sparse[0][0][0].ExtentFileOffset);
}

TEST_F(LvmDumpHostile, AGuidWithoutAnEndEndsWithItsField) {
    EXPECT_REFUSED(Read(Sound().PutAt(FirstVolume, std::string(39, '{'))),
                   ("Failed to read dump file. VolGUID conversion failed " + std::string(39, '{')).c_str());
    EXPECT_REFUSED(Read(Sound().PutAt(FirstVolume, std::string("{1}\n{2}"))),
                   "Failed to read dump file. VolGUID conversion failed {1}\n{2}00-0000-0000-0000-000000000000}");
}

TEST_F(LvmDumpHostile, ANumberThatIsNoneIs0) {
    ASSERT_OK(Read(Sound().PutAt(FirstVolume + 153 + 60 + 39, "lots of sectors!")));
    EXPECT_EQ(0U, m_Volumes[0].Segments[0].Components[0].DiskLBAStart);
}

TEST_F(LvmDumpHostile, AFileCutAnywhereIsRefused) {
    for (const Dump::Version_t version : {Current, Old}) {
        const std::string whole = Sound(version).Bytes();
        for (size_t size = 0; size < whole.size(); size += size < 30 ? 1 : 37)
            EXPECT_FAILURE(ReadBytes(whole.substr(0, size))) << size;
    }
}

// Only a crash would be wrong, or a list without an end: what is read lies in the file.
TEST_F(LvmDumpHostile, AnyBytesOfTheFileMayBeOthers) {
    std::minstd_rand random(1);
    for (int turn = 0; turn < 300; ++turn) {
        std::string bytes = Sound(turn % 2 == 0 ? Current : Old).Bytes();
        for (unsigned changes = 1 + random() % 4; changes > 0; --changes)
            bytes[10 + random() % (bytes.size() - 20)] = "0123456789abcdef\xFF-{ \0x"[random() % 22];
        Dropped(ReadBytes(bytes));  // either way
        size_t buckets = 0;
        for (const auto& links : m_Sparse) {
            for (const auto& link : links) {
                for (const ExtentSparseInfo_t& extent : link)
                    buckets += extent.Buckets.size();
            }
        }
        ASSERT_LE(m_Volumes.size() * 153 + buckets / 8, bytes.size()) << turn;
    }
}

}  // namespace
