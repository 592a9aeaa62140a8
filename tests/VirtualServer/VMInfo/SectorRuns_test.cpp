#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/SectorRun.h"
#include "VirtualServer/VMInfo/VHDFileReader.h"
#include "VirtualServer/VMInfo/VmdkFileReader.h"
#include "VirtualServer/VMInfo/VmdkFlatExtentReader.h"
#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/CowdBuilder.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VhdBuilder.h"
#include "tests/support/VmdkDescriptorBuilder.h"
#include "tests/support/VmdkSparseBuilder.h"

// A run is the answer for many sectors at once: it has to be the one that each of them gets alone.

namespace {

CZuError ReadOne(CVHDFileReader& reader, uint64_t sector, char* data) {
    return reader.ReadSector(sector, data, 512);
}
CZuError ReadOne(CVmdkFileReader& reader, uint64_t sector, char* data) {
    return reader.ReadSector(sector, data, 512);
}
CZuError ReadOne(CVmdkFlatExtentReader& reader, uint64_t sector, char* data) {
    return reader.ReadExtentSector(sector, data, 512);
}
CZuError ReadOne(CVmdkSparseExtentReader& reader, uint64_t sector, char* data) {
    return reader.ReadExtentSector(sector, data, 512);
}

// Nothing of a flat extent is a hole.
template <typename Reader> bool IsHole(Reader& reader, const CZuError& error) {
    return reader.IsErrorSectorNotFound(error) != 0;
}
bool IsHole(CVmdkFlatExtentReader& /*reader*/, const CZuError& /*error*/) {
    return false;
}

// The extents' own runs lie in their files.
std::string RunBytes(const SectorRun_t& run) {
    std::string bytes(static_cast<size_t>(run.sectors * 512), '?');
    unsigned int got = 0;
    EXPECT_OK(run.file->Seek(static_cast<int64_t>(run.fileOffset), 0, nullptr));
    EXPECT_OK(run.file->Read(bytes.data(), static_cast<unsigned int>(bytes.size()), &got));
    EXPECT_EQ(bytes.size(), got);
    return bytes;
}

// Proves the answer for `sector` against those of all the sectors that it covers.
template <typename Reader> uint64_t CheckRun(Reader& reader, uint64_t sector, uint64_t most) {
    SectorRun_t run;
    EXPECT_OK(reader.FindRun(sector, most, run)) << sector;
    EXPECT_GE(run.sectors, 1U) << sector;
    EXPECT_LE(run.sectors, most) << sector;
    std::string expected;
    for (uint64_t at = sector; at < sector + run.sectors; ++at) {
        char bytes[512];
        const CZuError error = ReadOne(reader, at, bytes);
        EXPECT_EQ(run.IsHeld(), !error.IsErrorSet()) << at;
        EXPECT_EQ(!run.IsHeld(), IsHole(reader, error)) << at;
        expected.append(bytes, 512);
    }
    if (run.IsHeld()) {
        EXPECT_SAME_BYTES(expected, RunBytes(run)) << sector;
    }
    return run.sectors;
}

// Walks the sectors from `first` up to `end` by runs, and asks inside each of them too. Returns the
// runs' lengths.
template <typename Reader> std::vector<uint64_t> CheckDisk(Reader& reader, uint64_t first, uint64_t end) {
    std::vector<uint64_t> lengths;
    for (uint64_t at = first; at < end && !testing::Test::HasFailure(); at += lengths.back()) {
        lengths.push_back(CheckRun(reader, at, end - first + 1000));
        for (uint64_t inside = at; inside < at + lengths.back(); inside += 1 + lengths.back() / 3) {
            EXPECT_EQ(at + lengths.back() - inside, CheckRun(reader, inside, end)) << "the same end from " << inside;
            for (const uint64_t most : {1U, 2U, 7U, 8U, 9U})
                EXPECT_EQ(std::min(most, at + lengths.back() - inside), CheckRun(reader, inside, most)) << inside;
        }
    }
    return lengths;
}

using Lengths_t = std::vector<uint64_t>;

class SectorRuns : public testing::Test {
protected:
    Lengths_t OpenAndCheckVhd(const CVhdBuilder& file, DiskType_t type, uint64_t sectors) {
        EXPECT_OK(m_Vhd.OpenDisk(file.WriteTo(m_Dir).c_str(), type));
        EXPECT_EQ(sectors, m_Vhd.GetTotalSectors());
        return CheckDisk(m_Vhd, 0, sectors);
    }
    template <typename Builder> Lengths_t OpenAndCheckSparse(const Builder& file, uint64_t start, uint64_t sectors) {
        CVmdkSparseExtentReader reader;
        EXPECT_OK(reader.OpenExtent(file.WriteTo(m_Dir).c_str(), start, VwExtentTypeSparse));
        return CheckDisk(reader, start, start + sectors);
    }

    CTempDir m_Dir;
    CVHDFileReader m_Vhd;
    SectorRun_t m_Run;
};

TEST_F(SectorRuns, OfAFixedVhdAreTheWholeDisk) {
    EXPECT_EQ((Lengths_t{100}),
              OpenAndCheckVhd(CVhdBuilder::Fixed(100).Data(0, PatternedBytes(51200)), DiskType_VhdFixed, 100));
}

TEST_F(SectorRuns, OfADynamicVhdEndWithTheBlockSinceABitmapLiesBetween) {
    const CVhdBuilder file = CVhdBuilder::Dynamic(44).Block(0, 'a').Block(1, 'b').Block(5, 'c');
    EXPECT_EQ((Lengths_t{8, 8, 8, 8, 8, 4}), OpenAndCheckVhd(file, DiskType_VhdDynamic, 44));
}

TEST_F(SectorRuns, OfADifferencingVhdFollowTheBits) {
    const CVhdBuilder file = CVhdBuilder::Differencing(32)
                                 .Block(0, PatternedBytes(4096))
                                 .Bitmap(0, "\xE3")
                                 .Block(2, 'b')
                                 .Bitmap(2, std::string(1, '\0'))
                                 .Block(3, 'c')
                                 .Bitmap(3, "\x01");
    EXPECT_EQ((Lengths_t{3, 3, 2, 8, 8, 7, 1}), OpenAndCheckVhd(file, DiskType_VhdDifferencing, 32));
}

TEST_F(SectorRuns, OfALargeVhdBlockGoByWholeBytesOfTheBitmap) {
    std::string bitmap(128, '\xFF');
    bitmap.replace(10, 20, std::string(20, '\0'));
    bitmap[40] = '\xFE';
    const CVhdBuilder file = CVhdBuilder::Dynamic(1024).BlockSize(512 * 1024).Block(0, PatternedBytes(512 * 1024));
    EXPECT_EQ((Lengths_t{80, 160, 87, 1, 696}),
              OpenAndCheckVhd(CVhdBuilder(file).Bitmap(0, bitmap), DiskType_VhdDynamic, 1024));
    EXPECT_EQ((Lengths_t{1024}), OpenAndCheckVhd(file, DiskType_VhdDynamic, 1024));
}

TEST_F(SectorRuns, OfAVhdBehindItsBitmapAreHoles) {
    const CVhdBuilder file = CVhdBuilder::Dynamic(6144).BlockSize(3 << 20).BitmapSectors(1).Block(0, 'x').Bitmap(
        0, std::string(512, '\xFF'));
    ASSERT_OK(m_Vhd.OpenDisk(file.WriteTo(m_Dir).c_str(), DiskType_VhdDynamic));
    ASSERT_OK(m_Vhd.FindRun(0, 10'000, m_Run));
    EXPECT_TRUE(m_Run.IsHeld());
    EXPECT_EQ(4096U, m_Run.sectors);
    ASSERT_OK(m_Vhd.FindRun(4096, 10'000, m_Run));
    EXPECT_FALSE(m_Run.IsHeld());
    EXPECT_EQ(2048U, m_Run.sectors);
}

TEST_F(SectorRuns, OfAVhdFailAsItsSectorsDo) {
    EXPECT_REFUSED(m_Vhd.FindRun(0, 1, m_Run), "Object is in invalid state. Make sure OpenDisk succeeded");
    ASSERT_OK(m_Vhd.OpenDisk(CVhdBuilder::Dynamic(40).Entries(2).WriteTo(m_Dir).c_str(), DiskType_VhdDynamic));
    EXPECT_CONDITION_TEXT(m_Vhd.FindRun(40, 1, m_Run), 7, 4001, 1, "Sector Out of Range");
    EXPECT_CONDITION(m_Vhd.FindRun(16, 1, m_Run), 3, 4001, 1) << "the table is too short";
}

TEST_F(SectorRuns, OfAVhdAreReadFromTheirStart) {
    const std::string bytes = PatternedBytes(4096);
    ASSERT_OK(m_Vhd.OpenDisk(CVhdBuilder::Dynamic(40).Block(3, bytes).WriteTo(m_Dir).c_str(), DiskType_VhdDynamic));
    ASSERT_OK(m_Vhd.FindRun(26, 100, m_Run));
    std::string read(6 * 512, '?');
    ASSERT_OK(m_Vhd.ReadRun(m_Run, read.data(), 700));
    EXPECT_SAME_BYTES(bytes.substr(1024, 700) + std::string(6 * 512 - 700, '?'), read);
    ASSERT_OK(m_Vhd.ReadRun(m_Run, read.data(), 6 * 512));
    EXPECT_SAME_BYTES(bytes.substr(1024), read);
}

TEST_F(SectorRuns, AgreeWithTheSectorsOfAnyVhd) {
    for (unsigned int seed = 1; seed <= 25 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const uint32_t blockSectors = 1U << random() % 6;
        const uint64_t sectors = 100 + random() % 100;
        CVhdBuilder file = CVhdBuilder::Differencing(sectors).BlockSize(blockSectors * 512);
        std::vector<uint64_t> blocks((sectors + blockSectors - 1) / blockSectors);
        for (size_t index = 0; index < blocks.size(); ++index)
            blocks[index] = index;
        std::shuffle(blocks.begin(), blocks.end(), random);
        blocks.resize(blocks.size() * 2 / 3);
        for (const uint64_t block : blocks) {
            file.Block(block, PatternedBytes(size_t{blockSectors} * 512, block + seed));
            if (random() % 2 == 0)
                file.Bitmap(block, LittleEndianBytes(random(), 4));
        }
        OpenAndCheckVhd(file, DiskType_VhdDifferencing, sectors);
    }
}

TEST_F(SectorRuns, OfSparseExtentsJoinGrainsThatFollowOneAnother) {
    CVmdkSparseBuilder file = CVmdkSparseBuilder().Capacity(100);
    file.Grain(2, PatternedBytes(4096, 2)).Grain(3, PatternedBytes(4096, 3)).Grain(4, PatternedBytes(4096, 4));
    file.Grain(6, 'x').Grain(5, 'y').Grain(12, 'z');
    for (const uint64_t start : {uint64_t{0}, uint64_t{777}, uint64_t{1} << 40U})
        EXPECT_EQ((Lengths_t{16, 24, 8, 8, 40, 4}), OpenAndCheckSparse(file, start, 100)) << start;
}

TEST_F(SectorRuns, OfSparseExtentsCrossTables) {
    CVmdkSparseBuilder file = CVmdkSparseBuilder().GrainSize(1).Capacity(4 * 512).NoTable(2);
    file.Grain(511, 'a').Grain(512, 'b').Grain(513, 'c').Grain(1023, 'd').Grain(1600, 'e');
    EXPECT_EQ((Lengths_t{511, 3, 509, 1, 576, 1, 447}), OpenAndCheckSparse(file, 0, 4 * 512));
}

TEST_F(SectorRuns, OfCowdExtentsAreOfTheSameKind) {
    const CCowdBuilder file = CCowdBuilder().Capacity(8200).NoTable(1).Grain(7, 'a').Grain(8, 'b').Grain(8195, 'c');
    EXPECT_EQ((Lengths_t{7, 2, 8186, 1, 4}), OpenAndCheckSparse(file, 0, 8200));
}

TEST_F(SectorRuns, AgreeWithTheSectorsOfAnySparseExtent) {
    for (unsigned int seed = 1; seed <= 15 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const uint64_t grainSectors = 1 + random() % 9;
        const uint64_t capacity = 400 + random() % 400;
        CVmdkSparseBuilder file = CVmdkSparseBuilder().GrainSize(grainSectors).Capacity(capacity);
        const uint64_t grains = (capacity + grainSectors - 1) / grainSectors;
        uint64_t grain = random() % grains;
        std::vector<bool> isHeld(grains);
        for (uint64_t count = 0; count < grains / 2; ++count) {
            // Mostly the next one, so that runs come about.
            grain = random() % 4 != 0 ? (grain + 1) % grains : random() % grains;
            if (!isHeld[grain])
                file.Grain(grain, PatternedBytes(grainSectors * 512, grain + seed));
            isHeld[grain] = true;
        }
        OpenAndCheckSparse(file, random() % 1000, capacity);
    }
}

TEST_F(SectorRuns, OfAFlatExtentAreAllOfIt) {
    CVmdkFlatExtentReader reader;
    const std::string path = m_Dir.Write("flat", PatternedBytes(100 * 512));
    ASSERT_OK(reader.OpenExtent(path.c_str(), 50, VwExtentTypeFlat));
    EXPECT_EQ((Lengths_t{100}), CheckDisk(reader, 50, 150));
    for (const uint64_t sector : {0U, 49U, 150U})
        EXPECT_EQ(1, reader.IsErrorEOF(reader.FindRun(sector, 1, m_Run))) << sector;
    ASSERT_OK(reader.CloseExtent());
    EXPECT_REFUSED(reader.FindRun(0, 1, m_Run), "Don't have a valid opened extent file");
}

TEST_F(SectorRuns, OfADiskEndWithItsExtents) {
    CVmdkDescriptorBuilder flat;
    for (const uint64_t sectors : {40U, 1U, 60U}) {
        const std::string name = "flat" + std::to_string(sectors);
        m_Dir.Write(name, PatternedBytes(sectors * 512, sectors));
        flat.Extent(sectors, "FLAT", name);
    }
    CVmdkFileReader reader;
    ASSERT_OK(reader.OpenDisk(flat.WriteTo(m_Dir).c_str(), DiskType_TwoGbMaxExtentFlat));
    EXPECT_EQ((Lengths_t{40, 1, 60}), CheckDisk(reader, 0, 101));
    EXPECT_EQ(1, reader.IsErrorEOF(reader.FindRun(101, 1, m_Run)));
    ASSERT_OK(reader.CloseDisk());
    EXPECT_FAILURE(reader.FindRun(0, 1, m_Run));

    CVmdkDescriptorBuilder sparse;
    sparse.CreateType("twoGbMaxExtentSparse");
    for (const char* const name : {"s1", "s2"}) {
        CVmdkSparseBuilder().Capacity(64).Grain(0, PatternedBytes(4096, 5)).Grain(7, 'x').WriteTo(m_Dir, name);
        sparse.Extent(64, "SPARSE", name);
    }
    ASSERT_OK(reader.OpenDisk(sparse.WriteTo(m_Dir).c_str(), DiskType_TwoGbMaxExtentSparse));
    EXPECT_EQ((Lengths_t{8, 48, 8, 8, 48, 8}), CheckDisk(reader, 0, 128));
}

TEST_F(SectorRuns, OfADiskAreReadFromTheirStart) {
    const std::string bytes = PatternedBytes(4096);
    const std::string path = CVmdkSparseBuilder().Grain(3, bytes).WriteTo(m_Dir);
    CVmdkFileReader reader;
    ASSERT_OK(reader.OpenDisk(path.c_str(), DiskType_MonolithicSparse));
    ASSERT_OK(reader.FindRun(26, 100, m_Run));
    std::string read(6 * 512, '?');
    ASSERT_OK(reader.ReadRun(m_Run, read.data(), 700));
    EXPECT_SAME_BYTES(bytes.substr(1024, 700) + std::string(6 * 512 - 700, '?'), read);
}

// Callers step by what they get.
TEST_F(SectorRuns, HaveASectorEvenWhenNoneIsAskedFor) {
    ASSERT_OK(m_Vhd.OpenDisk(CVhdBuilder::Dynamic(40).WriteTo(m_Dir).c_str(), DiskType_VhdDynamic));
    ASSERT_OK(m_Vhd.FindRun(0, 0, m_Run));
    EXPECT_EQ(1U, m_Run.sectors);
    CVmdkSparseExtentReader sparse;
    ASSERT_OK(sparse.OpenExtent(CVmdkSparseBuilder().WriteTo(m_Dir).c_str(), 0, VwExtentTypeSparse));
    ASSERT_OK(sparse.FindRun(0, 0, m_Run));
    EXPECT_EQ(1U, m_Run.sectors);
    CVmdkFlatExtentReader flat;
    ASSERT_OK(flat.OpenExtent(m_Dir.WriteHole("flat", 4096).c_str(), 0, VwExtentTypeFlat));
    ASSERT_OK(flat.FindRun(0, 0, m_Run));
    EXPECT_EQ(1U, m_Run.sectors);
}

// Its end wraps to all ones, so that its sectors can be asked for though it has none.
TEST_F(SectorRuns, OfACowdExtentOfNoSectorsAreNotEmpty) {
    CVmdkSparseExtentReader reader;
    const std::string path = CCowdBuilder().Grain(3, 'x').Put32(12, 0).WriteTo(m_Dir);
    ASSERT_OK(reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse));
    EXPECT_EQ((Lengths_t{3, 1, 4092}), CheckDisk(reader, 0, 4096));
    for (const uint64_t most : {~uint64_t{0}, ~uint64_t{0} - 1, ~uint64_t{0} - 2}) {
        ASSERT_OK(reader.FindRun(0, most, m_Run));
        EXPECT_EQ(3U, m_Run.sectors);
    }
}

// 1024 grains of 2^54 sectors are 2^64.
TEST_F(SectorRuns, OfGrainsThatFillAll64BitsAreNotEmpty) {
    CVmdkSparseExtentReader reader;
    const CVmdkSparseBuilder huge =
        CVmdkSparseBuilder().Capacity(2 * 4096).Put64(12, ~uint64_t{0}).Put64(20, uint64_t{1} << 54U);
    ASSERT_OK(reader.OpenExtent(huge.WriteTo(m_Dir).c_str(), 0, VwExtentTypeSparse));
    ASSERT_OK(reader.FindRun(0, ~uint64_t{0}, m_Run));
    EXPECT_FALSE(m_Run.IsHeld());
    EXPECT_EQ(~uint64_t{0}, m_Run.sectors);
    ASSERT_OK(reader.FindRun(5, ~uint64_t{0}, m_Run));
    EXPECT_EQ(~uint64_t{0} - 5, m_Run.sectors);
}

}  // namespace
