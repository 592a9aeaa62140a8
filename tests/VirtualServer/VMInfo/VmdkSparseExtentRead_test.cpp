#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkSparseBuilder.h"

#define EXPECT_END_OF_EXTENT(expression) EXPECT_CONDITION(expression, 3, 1001, 1)
#define EXPECT_SECTOR_NOT_FOUND(expression) EXPECT_CONDITION(expression, 3, 1001, 2)

namespace {

constexpr char NoOpenFile[] = "Don't have a valid opened extent file";

class VmdkSparseExtentRead : public testing::Test {
protected:
    void Open(const CVmdkSparseBuilder& file, uint64_t startSector = 0) {
        ASSERT_OK(m_Reader.OpenExtent(file.WriteTo(m_Dir).c_str(), startSector, VwExtentTypeSparse));
    }

    std::string ReadSector(uint64_t sector, uint32_t size = 512) {
        std::string bytes(512, '?');
        EXPECT_OK(m_Reader.ReadExtentSector(sector, bytes.data(), size)) << sector;
        return bytes;
    }

    CTempDir m_Dir;
    CVmdkSparseExtentReader m_Reader;
    std::string m_Buffer = std::string(1 << 16, '?');
};

TEST_F(VmdkSparseExtentRead, EverySectorOfAGrainIsAtItsPlace) {
    const std::string bytes = PatternedBytes(8 * 512);
    Open(CVmdkSparseBuilder().Grain(9, 'x').Grain(2, bytes));
    for (uint64_t sector = 0; sector < 8; ++sector)
        EXPECT_SAME_BYTES(bytes.substr(sector * 512, 512), ReadSector(16 + sector));
    EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadExtentSector(15, m_Buffer.data(), 512));
    EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadExtentSector(24, m_Buffer.data(), 512));
}

TEST_F(VmdkSparseExtentRead, SectorsOfSeveralTablesAreAtTheirPlaces) {
    const std::string bytes = PatternedBytes(3 * 512, 7);
    const CVmdkSparseBuilder file =
        CVmdkSparseBuilder().GrainSize(3).Capacity(4000).Grain(511, 'y').Grain(512, bytes).Grain(1023, 'z');
    Open(file);
    EXPECT_SAME_BYTES(std::string(512, 'y'), ReadSector(512 * 3 - 1));
    EXPECT_SAME_BYTES(bytes.substr(0, 512), ReadSector(512 * 3));
    EXPECT_SAME_BYTES(bytes.substr(1024), ReadSector(512 * 3 + 2));
    EXPECT_SAME_BYTES(std::string(512, 'z'), ReadSector(1024 * 3 - 1));
}

TEST_F(VmdkSparseExtentRead, ADiskSectorIsCountedFromTheExtentsStart) {
    const std::string bytes = PatternedBytes(8 * 512);
    Open(CVmdkSparseBuilder().Grain(0, bytes).Grain(31, 'l'), 5000);
    EXPECT_SAME_BYTES(bytes.substr(0, 512), ReadSector(5000));
    EXPECT_SAME_BYTES(bytes.substr(7 * 512), ReadSector(5007));
    EXPECT_SAME_BYTES(std::string(512, 'l'), ReadSector(5255));
    EXPECT_EQ(256U, m_Reader.GetTotalSectors());
    for (const uint64_t sector : {uint64_t{0}, uint64_t{4999}, uint64_t{5256}, ~uint64_t{0}})
        EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(sector, m_Buffer.data(), 512)) << sector;
}

TEST_F(VmdkSparseExtentRead, AGrainIsCountedWithinTheExtent) {
    Open(CVmdkSparseBuilder().Grain(1, 'g'), 5000);
    ASSERT_OK(m_Reader.ReadGrain(1, m_Buffer.data()));
    EXPECT_SAME_BYTES(std::string(4096, 'g') + "?", m_Buffer.substr(0, 4097));
}

TEST_F(VmdkSparseExtentRead, AHoleInTheDirectoryAndAHoleInATableAreTheSame) {
    Open(CVmdkSparseBuilder().Capacity(3 * 4096).NoTable(1).Grain(1024, 'x'));
    for (const uint64_t grain : {0U, 511U, 512U, 1023U, 1025U}) {
        EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadGrain(grain, m_Buffer.data())) << grain;
        EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadExtentSector(grain * 8, m_Buffer.data(), 512)) << grain;
    }
    EXPECT_SAME_BYTES("?", m_Buffer.substr(0, 1)) << "no zeros are made up";
}

TEST_F(VmdkSparseExtentRead, ATableEntryOf1IsSector1OfTheFile) {
    const CVmdkSparseBuilder sound = CVmdkSparseBuilder().Descriptor(std::string(8 * 512, 'd'));
    const uint64_t entryAt = sound.TableSectors(TableCopy_t::Primary)[0] * 512 + 5 * 4;
    Open(CVmdkSparseBuilder(sound).Put32(entryAt, 1));
    EXPECT_SAME_BYTES(std::string(512, 'd'), ReadSector(40));
    ASSERT_OK(m_Reader.ReadGrain(5, m_Buffer.data()));
    EXPECT_SAME_BYTES(std::string(4096, 'd'), m_Buffer.substr(0, 4096));
}

TEST_F(VmdkSparseExtentRead, AGrainBehindFourGiBIsReadWhereItLies) {
    const CVmdkSparseBuilder sound;
    const uint64_t entryAt = sound.TableSectors(TableCopy_t::Primary)[0] * 512;
    constexpr uint32_t farSector = 0x00800001;  // its product with 512 doesn't fit 32 bits
    Open(CVmdkSparseBuilder(sound).Put32(entryAt, farSector).PutAt(uint64_t{farSector} * 512, PatternedBytes(4096)));
    EXPECT_SAME_BYTES(PatternedBytes(4096).substr(512, 512), ReadSector(1));
    ASSERT_OK(m_Reader.ReadGrain(0, m_Buffer.data()));
    EXPECT_SAME_BYTES(PatternedBytes(4096), m_Buffer.substr(0, 4096));
}

TEST_F(VmdkSparseExtentRead, AGrainOutsideTheFileFailsWithTheReadsOwnError) {
    const CVmdkSparseBuilder sound;
    const uint64_t entryAt = sound.TableSectors(TableCopy_t::Primary)[0] * 512;
    Open(CVmdkSparseBuilder(sound).Put32(entryAt, 0xFFFFFFFF));
    for (const CZuError& error :
         {m_Reader.ReadGrain(0, m_Buffer.data()), m_Reader.ReadExtentSector(0, m_Buffer.data(), 512)}) {
        EXPECT_TRUE(error.IsErrorSet());
        EXPECT_EQ(0, m_Reader.IsErrorEOF(error));
        EXPECT_EQ(0, m_Reader.IsErrorSectorNotFound(error));
    }
}

TEST_F(VmdkSparseExtentRead, TheCapacityEndsSectorsAndTheTablesEndGrains) {
    Open(CVmdkSparseBuilder().Capacity(100).Grain(12, 'c').Grain(13, 'b'));
    EXPECT_SAME_BYTES(std::string(512, 'c'), ReadSector(99));
    EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(100, m_Buffer.data(), 512));
    ASSERT_OK(m_Reader.ReadGrain(13, m_Buffer.data()));
    EXPECT_SAME_BYTES(std::string(4096, 'b'), m_Buffer.substr(0, 4096));
    EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadGrain(14, m_Buffer.data()));
    EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadGrain(511, m_Buffer.data()));
    EXPECT_END_OF_EXTENT(m_Reader.ReadGrain(512, m_Buffer.data()));
    EXPECT_END_OF_EXTENT(m_Reader.ReadGrain(~uint64_t{0}, m_Buffer.data()));
}

TEST_F(VmdkSparseExtentRead, ReadsAsManyBytesOfASectorAsAsked) {
    const std::string bytes = PatternedBytes(4096);
    Open(CVmdkSparseBuilder().Grain(0, bytes));
    EXPECT_SAME_BYTES(bytes.substr(512, 512), ReadSector(1, 512));
    EXPECT_SAME_BYTES(bytes[512] + std::string(511, '?'), ReadSector(1, 1));
    EXPECT_SAME_BYTES(std::string(512, '?'), ReadSector(1, 0));
    EXPECT_REFUSED(m_Reader.ReadExtentSector(1, m_Buffer.data(), 513), "Cannot read more than sector size");
}

TEST_F(VmdkSparseExtentRead, ASectorReadTestsThePlaceThenTheFileThenTheBufferThenTheSizeThenTheTables) {
    EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(1, nullptr, 513));
    EXPECT_REFUSED(m_Reader.ReadExtentSector(0, nullptr, 513), NoOpenFile);
    Open(CVmdkSparseBuilder());
    EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(256, nullptr, 513));
    EXPECT_REFUSED(m_Reader.ReadExtentSector(0, nullptr, 513), "Data pointer is null");
    EXPECT_REFUSED(m_Reader.ReadExtentSector(0, m_Buffer.data(), 513), "Cannot read more than sector size");
    EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadExtentSector(0, m_Buffer.data(), 512));
}

TEST_F(VmdkSparseExtentRead, AGrainReadTestsTheFileThenTheBufferThenThePlace) {
    EXPECT_REFUSED(m_Reader.ReadGrain(~uint64_t{0}, nullptr), NoOpenFile);
    Open(CVmdkSparseBuilder());
    EXPECT_REFUSED(m_Reader.ReadGrain(~uint64_t{0}, nullptr), "Data pointer is null");
    EXPECT_END_OF_EXTENT(m_Reader.ReadGrain(~uint64_t{0}, m_Buffer.data()));
}

TEST_F(VmdkSparseExtentRead, AGrainOfFourGiBIsOutOfMemory) {
    constexpr uint64_t sectors = uint64_t{1} << 23U;
    const CVmdkSparseBuilder sound;
    const uint64_t entryAt = sound.TableSectors(TableCopy_t::Primary)[0] * 512;
    Open(CVmdkSparseBuilder(sound).Put64(20, sectors).Put32(entryAt, 1));
    EXPECT_EQ(sectors, m_Reader.GetBlockSize());
    EXPECT_REFUSED(m_Reader.ReadGrain(0, m_Buffer.data()), "Out of memory");
}

TEST_F(VmdkSparseExtentRead, ASectorReadIsOneReadOfTheFileAndNoneOfTheTables) {
    const CVmdkSparseBuilder file = CVmdkSparseBuilder().Grain(2, 'x');
    const CFaultyFiles counting;
    Open(file);
    const size_t before = counting.Seeks().size();
    ASSERT_EQ(before, counting.Sizes(FaultOp::Read).size());
    ReadSector(17);
    ASSERT_OK(m_Reader.ReadGrain(2, m_Buffer.data()));
    EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadGrain(3, m_Buffer.data()));
    ASSERT_EQ(before + 2, counting.Sizes(FaultOp::Read).size());
    ASSERT_EQ(before + 2, counting.Seeks().size());
    EXPECT_EQ(512U, counting.Sizes(FaultOp::Read)[before]);
    EXPECT_EQ(4096U, counting.Sizes(FaultOp::Read)[before + 1]);
    EXPECT_EQ(static_cast<int64_t>((file.GrainSector(2) + 1) * 512), counting.Seeks()[before].offset);
    EXPECT_EQ(static_cast<int64_t>(file.GrainSector(2) * 512), counting.Seeks()[before + 1].offset);
}

TEST_F(VmdkSparseExtentRead, TheNextHeldGrainIsTheFirstThatIsAllocated) {
    EXPECT_EQ(7U, m_Reader.NextHeldGrain(7)) << "a closed extent has none";
    const CVmdkSparseBuilder file = CVmdkSparseBuilder()
                                        .Capacity(6 * 4096 - 100)
                                        .NoTable(1)
                                        .NoTable(2)
                                        .Grain(3, 'x')
                                        .Grain(511, 'y')
                                        .Grain(1536, 'z')
                                        .Grain(2100, 'r', TableCopy_t::Redundant)
                                        .Grain(3071, 'l');
    Open(file);
    const struct {
        uint64_t from;
        uint64_t held;
    } rows[] = {{0, 3},       {3, 3},       {4, 511},     {511, 511},   {512, 1536},  {1023, 1536},
                {1500, 1536}, {1536, 1536}, {1537, 3071}, {3071, 3071}, {3072, 3072}, {~uint64_t{0}, ~uint64_t{0}}};
    for (const auto& row : rows)
        EXPECT_EQ(row.held, m_Reader.NextHeldGrain(row.from)) << row.from;
    ASSERT_OK(m_Reader.CloseExtent());
    Open(CVmdkSparseBuilder(file).RedundantIsActive());
    EXPECT_EQ(2100U, m_Reader.NextHeldGrain(1537));
    ASSERT_OK(m_Reader.CloseExtent());
    Open(CVmdkSparseBuilder().Capacity(2 * 4096));
    EXPECT_EQ(1024U, m_Reader.NextHeldGrain(5)) << "behind the last grain";
}

TEST_F(VmdkSparseExtentRead, EveryFailureOfAReadReachesTheCallerAndLeavesTheObjectOpen) {
    Open(CVmdkSparseBuilder().Grain(2, 'x'));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read}) {
        EXPECT_EQ(1U, WalkFailures(op, [&] { return m_Reader.ReadExtentSector(16, m_Buffer.data(), 512); }));
        EXPECT_EQ(1U, WalkFailures(op, [&] { return m_Reader.ReadGrain(2, m_Buffer.data()); }));
    }
    EXPECT_SAME_BYTES(std::string(512, 'x'), ReadSector(16));
}

TEST_F(VmdkSparseExtentRead, ACopyHasItsOwnTablesAndSharesTheFile) {
    Open(CVmdkSparseBuilder().RedundantIsActive().Grain(2, 'r', TableCopy_t::Redundant), 100);
    CVmdkSparseExtentReader copy(m_Reader);
    CVmdkSparseExtentReader assigned;
    assigned = m_Reader;
    for (CVmdkSparseExtentReader* const reader : {&copy, &assigned}) {
        ASSERT_OK(reader->ReadExtentSector(116, m_Buffer.data(), 512));
        EXPECT_SAME_BYTES(std::string(512, 'r'), m_Buffer.substr(0, 512));
        EXPECT_EQ(8U, reader->GetBlockSize());
        EXPECT_EQ(256U, reader->GetTotalSectors());
    }
    ASSERT_OK(m_Reader.CloseExtent());
    EXPECT_REFUSED(copy.ReadExtentSector(116, m_Buffer.data(), 512), NoOpenFile);
    EXPECT_REFUSED(assigned.ReadGrain(2, m_Buffer.data()), NoOpenFile);
}

TEST_F(VmdkSparseExtentRead, ACopyOutlivesItsOriginal) {
    CVmdkSparseExtentReader copy;
    {
        CVmdkSparseExtentReader original;
        const std::string path = CVmdkSparseBuilder().Grain(2, 'x').WriteTo(m_Dir);
        ASSERT_OK(original.OpenExtent(path.c_str(), 0, VwExtentTypeSparse));
        copy = original;
    }
    ASSERT_OK(copy.ReadGrain(2, m_Buffer.data()));
    EXPECT_SAME_BYTES(std::string(4096, 'x'), m_Buffer.substr(0, 4096));
}

TEST_F(VmdkSparseExtentRead, OnlyTheirOwnTriplesAreTheConditions) {
    const struct {
        int type;
        unsigned long module;
        unsigned long code;
        int isEnd;
        int isNotFound;
    } rows[] = {{3, 1001, 1, 1, 0}, {3, 1001, 2, 0, 1}, {3, 2001, 1, 0, 0},
                {7, 1001, 1, 0, 0}, {7, 1001, 2, 0, 0}, {3, 1001, 3, 0, 0}};
    for (const auto& row : rows) {
        CZuError error;
        error.SetError(row.type, row.module, row.code, nullptr, __FILE__, __LINE__);
        EXPECT_EQ(row.isEnd, m_Reader.IsErrorEOF(error)) << row.type << "/" << row.module << "/" << row.code;
        EXPECT_EQ(row.isNotFound, m_Reader.IsErrorSectorNotFound(error)) << row.code;
    }
}

}  // namespace
