#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkSparseBuilder.h"

#define EXPECT_END_OF_EXTENT(expression) EXPECT_CONDITION(expression, 3, 1001, 1)
#define EXPECT_SECTOR_NOT_FOUND(expression) EXPECT_CONDITION(expression, 3, 1001, 2)

namespace {

constexpr char HeaderIsCorrupted[] = "VMDK file header is corrupted. Cannot continue further";
constexpr char IsUnclean[] = "VMDK file has unclean flag set. Cannot continue further";
constexpr char NoOpenFile[] = "Don't have a valid opened extent file";
constexpr char UnknownSignature[] = "File signature does not match with standard sparse extent signatures VMDK or COWD";

// Places in the header.
constexpr uint64_t CapacityAt = 12;
constexpr uint64_t GrainSizeAt = 20;
constexpr uint64_t DescriptorOffsetAt = 28;
constexpr uint64_t DescriptorSizeAt = 36;
constexpr uint64_t EntriesPerTableAt = 44;
constexpr uint64_t RedundantDirectoryAt = 48;
constexpr uint64_t DirectoryAt = 56;
constexpr uint64_t UncleanAt = 72;

CVmdkSparseBuilder Sound() {
    return CVmdkSparseBuilder().Grain(3, 'A');
}

std::string WrongTableSize(uint64_t entries) {
    return "m_NumGTEsPerGT!=512. Number of entries per grain table (" + std::to_string(entries) +
           ") does not match documentation";
}

class VmdkSparseExtentOpen : public testing::Test {
protected:
    CZuError Open(const CVmdkSparseBuilder& file) {
        return m_Reader.OpenExtent(file.WriteTo(m_Dir).c_str(), 0, VwExtentTypeSparse);
    }

    // An object with a file would refuse the name for the file it has.
    bool IsClosed() {
        return m_Reader.OpenExtent(m_Dir.File("none").c_str(), 0, VwExtentTypeSparse).GetErrorType() == 1;
    }

    CTempDir m_Dir;
    CVmdkSparseExtentReader m_Reader;
    char m_Sector[512] = {};
};

TEST_F(VmdkSparseExtentOpen, TestsTheNameThenTheStateThenTheType) {
    EXPECT_REFUSED(m_Reader.OpenExtent(nullptr, 0, VwExtentTypeFlat), "Invalid Parameter");
    EXPECT_REFUSED(m_Reader.OpenExtent("x", 0, VwExtentTypeFlat), "Not a supported extent file type");
    ASSERT_OK(Open(Sound()));
    EXPECT_REFUSED(m_Reader.OpenExtent(nullptr, 0, VwExtentTypeFlat), "Invalid Parameter");
    EXPECT_REFUSED(m_Reader.OpenExtent("x", 0, VwExtentTypeFlat), "Object already have an open file.");
    EXPECT_OK(m_Reader.ReadExtentSector(24, m_Sector, 512));
}

TEST_F(VmdkSparseExtentOpen, TakesTheTwoSparseTypesAlone) {
    const std::string path = Sound().WriteTo(m_Dir);
    for (int type = 0; type <= 8; ++type) {
        SCOPED_TRACE(type);
        CVmdkSparseExtentReader reader;
        if (type == 2 || type == 5) {
            EXPECT_OK(reader.OpenExtent(path.c_str(), 0, VwExtentType(type)));
        } else {
            EXPECT_REFUSED(reader.OpenExtent(path.c_str(), 0, VwExtentType(type)), "Not a supported extent file type");
        }
    }
}

TEST_F(VmdkSparseExtentOpen, PassesOnThatAFileIsMissing) {
    EXPECT_SYSTEM_ERROR(m_Reader.OpenExtent(m_Dir.File("none").c_str(), 0, VwExtentTypeSparse), ENOENT);
}

TEST_F(VmdkSparseExtentOpen, RefusesWhatItCannotRead) {
    const struct {
        const char* name;
        CVmdkSparseBuilder file;
        const char* text;
    } rows[] = {
        {"no signature", Sound().Put32(0, 0), UnknownSignature},
        {"signature in small letters", Sound().PutAt(0, "kdmv"), UnknownSignature},
        {"signature of a record", Sound().PutAt(0, "DWOC"), UnknownSignature},
        {"signature backwards", Sound().PutAt(0, "VMDK"), UnknownSignature},
        {"version 0", Sound().Version(0), HeaderIsCorrupted},
        {"version 2 has no text of its own", Sound().Version(2), HeaderIsCorrupted},
        {"version 3", Sound().Version(3), HeaderIsCorrupted},
        {"version all ones", Sound().Version(0xFFFFFFFF), HeaderIsCorrupted},
        {"first line end", Sound().Put8(73, 0x0D), HeaderIsCorrupted},
        {"no line end", Sound().Put8(74, 0x0A), HeaderIsCorrupted},
        {"double line end", Sound().Put8(75, 0x0A), HeaderIsCorrupted},
        {"second line end", Sound().Put8(76, 0x0D), HeaderIsCorrupted},
        {"closed uncleanly", Sound().Unclean(), IsUnclean},
        {"corrupted goes before unclean", Sound().Unclean().Version(2), HeaderIsCorrupted},
        {"grain size 0", Sound().Put64(GrainSizeAt, 0), HeaderIsCorrupted},
        {"a grain whose table wraps", Sound().Put64(GrainSizeAt, uint64_t{1} << 55U), HeaderIsCorrupted},
        {"grain size all ones", Sound().Put64(GrainSizeAt, ~uint64_t{0}), HeaderIsCorrupted},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_REFUSED(Open(row.file), row.text);
        EXPECT_TRUE(IsClosed());
    }
}

TEST_F(VmdkSparseExtentOpen, RefusesTablesOfOtherThan512Entries) {
    for (const uint32_t entries : {0U, 1U, 511U, 513U, 4096U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(entries);
        EXPECT_REFUSED(Open(Sound().Put32(EntriesPerTableAt, entries)), WrongTableSize(entries).c_str());
        EXPECT_REFUSED(Open(Sound().Put32(EntriesPerTableAt, entries).Put64(GrainSizeAt, 0)),
                       WrongTableSize(entries).c_str());
        EXPECT_TRUE(IsClosed());
    }
}

TEST_F(VmdkSparseExtentOpen, ReadsTheDescriptorBeforeItLooksAtTheTables) {
    const CVmdkSparseBuilder file = Sound().Descriptor("x").Put32(EntriesPerTableAt, 511);
    EXPECT_REFUSED(Open(file), WrongTableSize(511).c_str());
    const CZuError error = Open(CVmdkSparseBuilder(file).Put64(DescriptorOffsetAt, 1 << 30));
    EXPECT_STRNE(WrongTableSize(511).c_str(), error.GetErrorText());
    EXPECT_TRUE(error.IsErrorSet());
}

TEST_F(VmdkSparseExtentOpen, AFileShorterThanItsPartsFailsWithTheReadsOwnError) {
    const CVmdkSparseBuilder sound = Sound().Descriptor(std::string(600, 'd'));
    const uint64_t tablesEnd = sound.TableSectors(TableCopy_t::Primary)[0] * 512 + 2048;
    ASSERT_OK(Open(CVmdkSparseBuilder(sound).CutTo(tablesEnd)));
    ASSERT_OK(m_Reader.CloseExtent());
    for (const uint64_t sizeBytes : {uint64_t{0}, uint64_t{3}, uint64_t{4}, uint64_t{511}, uint64_t{512},
                                     uint64_t{1535}, sound.DirectorySector(TableCopy_t::Redundant) * 512 + 3,
                                     sound.TableSectors(TableCopy_t::Redundant)[0] * 512 + 2047,
                                     sound.DirectorySector(TableCopy_t::Primary) * 512 + 3, tablesEnd - 1}) {
        SCOPED_TRACE(sizeBytes);
        const CZuError error = Open(CVmdkSparseBuilder(sound).CutTo(sizeBytes));
        EXPECT_TRUE(error.IsErrorSet());
        EXPECT_STRNE(UnknownSignature, error.GetErrorText());
        EXPECT_STRNE(HeaderIsCorrupted, error.GetErrorText());
        EXPECT_TRUE(IsClosed());
    }
}

TEST_F(VmdkSparseExtentOpen, ToleratesWhatItDoesNotLookAt) {
    const struct {
        const char* name;
        CVmdkSparseBuilder file;
    } rows[] = {
        {"no flags", Sound().Flags(0)},
        {"every flag but the one of the redundant tables", Sound().Flags(0xFFFFFFFD)},
        {"compression and markers", Sound().Flags(0x30001).Put8(77, 1)},
        {"an unclean flag that isn't 1", Sound().Put8(UncleanAt, 2)},
        {"overhead", Sound().Put64(64, ~uint64_t{0})},
        {"the rest of the header", Sound().PutAt(77, std::string(435, '\xFF'))},
        {"a grain of 3 sectors", CVmdkSparseBuilder().GrainSize(3).Grain(8, 'A')},
        {"a descriptor that isn't one", Sound().Descriptor("\xFF\xFE?")},
        {"a descriptor's size without a place", Sound().Put64(DescriptorSizeAt, ~uint64_t{0})},
        {"a descriptor of no sectors", Sound().Put64(DescriptorOffsetAt, 1 << 30)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_OK(Open(row.file));
        ASSERT_OK(m_Reader.ReadExtentSector(24, m_Sector, 512));
        EXPECT_EQ(std::string(512, 'A'), std::string(m_Sector, 512));
        ASSERT_OK(m_Reader.CloseExtent());
    }
}

TEST_F(VmdkSparseExtentOpen, OnlyFlag2MakesTheRedundantTablesTheActiveOnes) {
    for (const uint32_t flags : {0U, 1U, 2U, 3U, 4U, 0xFFFFFFFDU, 0xFFFFFFFFU}) {
        SCOPED_TRACE(flags);
        const CVmdkSparseBuilder file =
            CVmdkSparseBuilder().Flags(flags).Grain(1, 'R', TableCopy_t::Redundant).Grain(1, 'P', TableCopy_t::Primary);
        ASSERT_OK(Open(file));
        std::string grain(file.GrainBytes(), '?');
        ASSERT_OK(m_Reader.ReadGrain(1, grain.data()));
        EXPECT_EQ(std::string(file.GrainBytes(), (flags & 2U) != 0 ? 'R' : 'P'), grain);
        ASSERT_OK(m_Reader.CloseExtent());
    }
}

TEST_F(VmdkSparseExtentOpen, TheActiveDirectoryDecidesWhichTablesThereAre) {
    for (const bool redundantIsActive : {false, true}) {
        CVmdkSparseBuilder file = Sound().NoTable(0, TableCopy_t::Primary);
        if (redundantIsActive)
            file.RedundantIsActive();
        ASSERT_OK(Open(file));
        const CZuError error = m_Reader.ReadExtentSector(24, m_Sector, 512);
        if (redundantIsActive) {
            EXPECT_OK(error);
        } else {
            EXPECT_SECTOR_NOT_FOUND(error);
        }
        ASSERT_OK(m_Reader.CloseExtent());
    }
}

// Callers rely on it: an extent one of whose copies is damaged is refused, whichever is active.
TEST_F(VmdkSparseExtentOpen, BothCopiesOfTheTablesMustBeReadable) {
    constexpr uint64_t outside = 1 << 30;
    for (const bool redundantIsActive : {false, true}) {
        SCOPED_TRACE(redundantIsActive);
        CVmdkSparseBuilder sound = Sound();
        if (redundantIsActive)
            sound.RedundantIsActive();
        const uint64_t redundantEntry = sound.DirectorySector(TableCopy_t::Redundant) * 512;
        const uint64_t primaryEntry = sound.DirectorySector(TableCopy_t::Primary) * 512;
        EXPECT_FAILURE(Open(CVmdkSparseBuilder(sound).Put64(RedundantDirectoryAt, outside)));
        EXPECT_FAILURE(Open(CVmdkSparseBuilder(sound).Put64(DirectoryAt, outside)));
        EXPECT_FAILURE(Open(CVmdkSparseBuilder(sound).Put32(redundantEntry, outside)));
        EXPECT_FAILURE(Open(CVmdkSparseBuilder(sound).Put32(primaryEntry, outside)));
        EXPECT_TRUE(IsClosed());
    }
}

// Callers rely on it: without a redundant directory the header itself is read as one.
TEST_F(VmdkSparseExtentOpen, ARedundantDirectoryAtSector0IsTheHeaderAndNormallyRefused) {
    const std::string path = Sound().Put64(RedundantDirectoryAt, 0).WriteTo(m_Dir);
    const CFaultyFiles counting;
    EXPECT_FAILURE(m_Reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse));
    EXPECT_TRUE(IsClosed());
    ASSERT_FALSE(counting.Seeks().empty());
    EXPECT_EQ(int64_t{0x564D444B} * 512, counting.Seeks().back().offset) << "\"KDMV\" as the place of a table";
}

TEST_F(VmdkSparseExtentOpen, AFileLongEnoughOpensWithItsHeaderAsTheRedundantDirectory) {
    const CVmdkSparseBuilder file = Sound().Put64(RedundantDirectoryAt, 0).CutTo(uint64_t{1} << 40U);
    ASSERT_OK(Open(file));
    EXPECT_OK(m_Reader.ReadExtentSector(24, m_Sector, 512));
}

TEST_F(VmdkSparseExtentOpen, TablesMayLieAnywhereInAnyOrder) {
    const CVmdkSparseBuilder files[] = {
        CVmdkSparseBuilder().GrainSize(1),
        CVmdkSparseBuilder().GrainSize(1).TablesInReverse(),
        CVmdkSparseBuilder().GrainSize(1).GapBetweenTables(3),
        CVmdkSparseBuilder().GrainSize(1).GapBetweenTables(4),
        CVmdkSparseBuilder().GrainSize(1).GapBetweenTables(1).TablesInReverse(),
        CVmdkSparseBuilder().GrainSize(1).NoTable(1),
    };
    for (CVmdkSparseBuilder file : files) {
        file.Capacity(5 * 512).Grain(0, 'a').Grain(511, 'b').Grain(1024, 'c').Grain(2559, 'd').RedundantIsActive();
        ASSERT_OK(Open(file));
        for (const auto& [sector, fill] :
             {std::pair(0, 'a'), std::pair(511, 'b'), std::pair(1024, 'c'), std::pair(2559, 'd')}) {
            ASSERT_OK(m_Reader.ReadExtentSector(sector, m_Sector, 512)) << sector;
            EXPECT_EQ(std::string(512, fill), std::string(m_Sector, 512)) << sector;
        }
        EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadExtentSector(512, m_Sector, 512));
        ASSERT_OK(m_Reader.CloseExtent());
    }
}

TEST_F(VmdkSparseExtentOpen, TablesThatLieTogetherAreReadTogether) {
    const std::string path = CVmdkSparseBuilder().Capacity(5 * 4096).WriteTo(m_Dir);
    const CFaultyFiles counting;
    ASSERT_OK(m_Reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse));
    EXPECT_EQ((std::vector<uint32_t>{4, 512, 20, 20, 5 * 2048, 5 * 2048}), counting.Sizes(FaultOp::Read));
}

TEST_F(VmdkSparseExtentOpen, GeometryFollowsTheHeader) {
    const struct {
        uint64_t capacity;
        uint64_t grainSize;
        uint64_t grains;  // that the tables have
    } rows[] = {{0, 8, 0},       {1, 8, 512},     {4096, 8, 512}, {4097, 8, 1024},    {8191, 8, 1024},
                {8192, 8, 1024}, {1000, 1, 1024}, {1, 128, 512},  {131073, 128, 1536}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.capacity);
        ASSERT_OK(Open(CVmdkSparseBuilder().Capacity(row.capacity).GrainSize(row.grainSize)));
        EXPECT_EQ(row.grainSize, m_Reader.GetBlockSize());
        EXPECT_EQ(row.capacity, m_Reader.GetTotalSectors());
        std::string grain(row.grainSize * 512, '?');
        EXPECT_END_OF_EXTENT(m_Reader.ReadGrain(row.grains, grain.data()));
        if (row.grains != 0) {
            EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadGrain(row.grains - 1, grain.data()));
        }
        ASSERT_OK(m_Reader.CloseExtent());
    }
}

TEST_F(VmdkSparseExtentOpen, AFailedOpenLeavesNothingForTheNextOne) {
    const CVmdkSparseBuilder sound = CVmdkSparseBuilder().Capacity(3 * 4096).Descriptor("text").Grain(3, 'A');
    const uint64_t lastEntry = sound.DirectorySector(TableCopy_t::Primary) * 512 + 8;
    EXPECT_FAILURE(Open(CVmdkSparseBuilder(sound).Put32(lastEntry, 1 << 30)));
    ASSERT_OK(Open(Sound()));
    EXPECT_EQ(256U, m_Reader.GetTotalSectors());
    std::string grain(4096, '?');
    EXPECT_END_OF_EXTENT(m_Reader.ReadGrain(512, grain.data()));
    EXPECT_OK(m_Reader.ReadGrain(3, grain.data()));
}

TEST_F(VmdkSparseExtentOpen, CloseMakesTheObjectAsNew) {
    ASSERT_OK(Open(Sound()));
    ASSERT_OK(m_Reader.CloseExtent());
    EXPECT_EQ(0U, m_Reader.GetBlockSize());
    EXPECT_EQ(1U, m_Reader.GetTotalSectors());
    EXPECT_REFUSED(m_Reader.ReadExtentSector(0, m_Sector, 512), NoOpenFile);
    EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(1, m_Sector, 512));
    EXPECT_OK(m_Reader.CloseExtent());
    EXPECT_OK(Open(Sound()));
}

TEST_F(VmdkSparseExtentOpen, CloseSucceedsWhateverTheSystemSays) {
    ASSERT_OK(Open(Sound()));
    const CFaultyFiles faulty(Fault_t{FaultOp::Close, 0, EIO});
    EXPECT_OK(m_Reader.CloseExtent());
    EXPECT_TRUE(faulty.Fired());
    EXPECT_TRUE(IsClosed());
}

TEST_F(VmdkSparseExtentOpen, TheDestructorClosesTheFile) {
    const std::string path = Sound().WriteTo(m_Dir);
    const CFaultyFiles counting;
    {
        CVmdkSparseExtentReader reader;
        ASSERT_OK(reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse));
    }
    EXPECT_EQ(1U, counting.Calls(FaultOp::Close));
}

TEST_F(VmdkSparseExtentOpen, EveryFailureReachesTheCallerAndClosesTheFile) {
    const std::string path =
        CVmdkSparseBuilder().Capacity(3 * 4096).Descriptor("text").GapBetweenTables(1).WriteTo(m_Dir);
    const struct {
        FaultOp op;
        unsigned int calls;  // magic, header, descriptor, two directories, two times three tables
    } rows[] = {{FaultOp::Open, 1}, {FaultOp::Seek, 11}, {FaultOp::Read, 11}};
    for (const auto& row : rows) {
        const unsigned int failures = WalkFailures(row.op, [&] {
            CVmdkSparseExtentReader reader;
            CZuError error = reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse);
            EXPECT_EQ(error.IsErrorSet() ? 1 : 0, reader.ReadExtentSector(0, m_Sector, 512).GetErrorType() == 4);
            return error;
        });
        EXPECT_EQ(row.calls, failures);
    }
}

TEST_F(VmdkSparseExtentOpen, AFileThatComesInPiecesIsReadWhole) {
    const std::string path = Sound().Descriptor("text").WriteTo(m_Dir);
    CFaultyFiles pieces;
    pieces.LimitTransfers(FaultOp::Read, 7);
    ASSERT_OK(m_Reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse));
    ASSERT_OK(m_Reader.ReadExtentSector(24, m_Sector, 512));
    EXPECT_EQ(std::string(512, 'A'), std::string(m_Sector, 512));
}

}  // namespace
