#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/CowdBuilder.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkSparseBuilder.h"

// Files and records that lie. Whatever they say, an operation ends soon, with an error or with a
// sound result, and never leaves a buffer: the sanitizers watch.

namespace {

struct Field_t {
    const char* name;
    uint64_t offset;
    size_t width;
};

constexpr Field_t HostedFields[] = {
    {"magic", 0, 4},
    {"version", 4, 4},
    {"flags", 8, 4},
    {"capacity", 12, 8},
    {"grainSize", 20, 8},
    {"descriptorOffset", 28, 8},
    {"descriptorSize", 36, 8},
    {"numGTEsPerGT", 44, 4},
    {"rgdOffset", 48, 8},
    {"gdOffset", 56, 8},
    {"overHead", 64, 8},
    {"uncleanShutdown", 72, 1},
    {"singleEndLine", 73, 1},
    {"nonEndLine", 74, 1},
    {"doubleEndLine1", 75, 1},
    {"doubleEndLine2", 76, 1},
    {"compressAlgorithm", 77, 2},
    {"rest", 79, 433},
};

constexpr Field_t CowdFields[] = {
    {"magic", 0, 4},         {"version", 4, 4},     {"flags", 8, 4},
    {"numSectors", 12, 4},   {"grainSize", 16, 4},  {"gdOffset", 20, 4},
    {"numGDEntries", 24, 4}, {"between", 28, 1620}, {"uncleanShutdown", 1648, 4},
    {"rest", 1652, 396},
};

constexpr uint64_t OutsideTheFile = 1 << 30;

CVmdkSparseBuilder Hosted() {
    return CVmdkSparseBuilder().Capacity(3 * 4096).Descriptor("text").NoTable(1).Grain(0, 'a').Grain(1030, 'b');
}

CCowdBuilder Cowd() {
    return CCowdBuilder().Capacity(3 * 4096).NoTable(1).Grain(0, 'a').Grain(8200, 'b');
}

uint64_t Sum(const std::vector<uint32_t>& sizes) {
    return std::accumulate(sizes.begin(), sizes.end(), uint64_t{0});
}

class VmdkSparseExtentHostile : public testing::Test {
protected:
    // Asks an open object all it can be asked.
    void UseAll(CVmdkSparseExtentReader& reader) {
        char sector[512];
        const uint64_t total = reader.GetTotalSectors();
        for (const uint64_t at : {uint64_t{0}, uint64_t{1}, uint64_t{4096}, total / 2, total - 1, total, ~uint64_t{0}})
            reader.ReadExtentSector(at, sector, 512).IsErrorSet();
        CAutoMemory<char> grain;
        const bool isRoom = reader.GetBlockSize() < (1U << 20U);
        grain.Alloc(isRoom ? static_cast<uint32_t>(reader.GetBlockSize()) * 512 + 1 : 512);
        for (const uint64_t index : {uint64_t{0}, uint64_t{511}, uint64_t{512}, uint64_t{1030}, total, ~uint64_t{0}}) {
            if (isRoom)
                reader.ReadGrain(index, grain.GetPtr()).IsErrorSet();
            reader.WriteGrain(index, grain).IsErrorSet();
        }
        CAutoMemory<char> metadata;
        reader.GetMetadataInfo(metadata).IsErrorSet();
        CZuFile out;
        EXPECT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenTruncating | OpenForWriting, 384));
        reader.DumpSparseInfo(out, "x").IsErrorSet();
    }

    // Opens `file` with each field at zeros and at ones; returns how many of the files opened.
    template <typename Builder, size_t Count> int OpenEach(const Builder& file, const Field_t (&fields)[Count]) {
        int opened = 0;
        for (const Field_t& field : fields) {
            for (const char value : {'\0', '\xFF'}) {
                SCOPED_TRACE(std::string(field.name) + (value == 0 ? " at 0" : " at all ones"));
                const Builder damaged = Builder(file).PutAt(field.offset, std::string(field.width, value));
                CVmdkSparseExtentReader reader;
                if (!reader.OpenExtent(damaged.WriteTo(m_Dir).c_str(), 0, VwExtentTypeSparse).IsErrorSet())
                    ++opened;
                UseAll(reader);
                EXPECT_OK(reader.CloseExtent());
            }
        }
        return opened;
    }

    // The same for the record. The first 32 bytes are the head, which stays sound.
    template <size_t Count> int CreateEach(const std::string& record, const Field_t (&fields)[Count]) {
        int created = 0;
        for (const Field_t& field : fields) {
            for (const char value : {'\0', '\xFF'}) {
                SCOPED_TRACE(std::string(field.name) + (value == 0 ? " at 0" : " at all ones"));
                std::string damaged = record;
                PutBytes(damaged, 32 + field.offset, std::string(field.width, value));
                CAutoMemory<char> metadata = BufferOf(damaged);
                CVmdkSparseExtentReader reader;
                if (!reader.CreateExtent(m_Dir.File("made").c_str(), VwExtentTypeSparse, metadata).IsErrorSet())
                    ++created;
                UseAll(reader);
                EXPECT_OK(reader.CloseExtent());
            }
        }
        return created;
    }

    CTempDir m_Dir;
    CVmdkSparseExtentReader m_Reader;
    char m_Sector[512] = {};
};

TEST_F(VmdkSparseExtentHostile, EveryFieldOfAHostedHeaderMayHoldAnything) {
    EXPECT_GE(OpenEach(Hosted(), HostedFields), 10);
    EXPECT_GE(OpenEach(Hosted().RedundantIsActive(), HostedFields), 10);
}

TEST_F(VmdkSparseExtentHostile, EveryFieldOfACowdHeaderMayHoldAnything) {
    EXPECT_GE(OpenEach(Cowd(), CowdFields), 6);
}

TEST_F(VmdkSparseExtentHostile, EveryFieldOfAHostedRecordMayHoldAnything) {
    EXPECT_GE(CreateEach(Hosted().Record(), HostedFields), 10);
}

TEST_F(VmdkSparseExtentHostile, EveryFieldOfACowdRecordMayHoldAnything) {
    std::string record = Cowd().Record();
    record.replace(32, 4, "DWOC");
    EXPECT_GE(CreateEach(record, CowdFields), 6);
}

TEST_F(VmdkSparseExtentHostile, EveryEntryOfADirectoryAndATableMayHoldAnything) {
    const uint64_t entries[] = {
        Hosted().DirectorySector(TableCopy_t::Primary) * 512,
        Hosted().DirectorySector(TableCopy_t::Redundant) * 512 + 8,
        Hosted().TableSectors(TableCopy_t::Primary)[0] * 512,
        Hosted().TableSectors(TableCopy_t::Primary)[2] * 512 + 24,
    };
    for (const uint64_t entry : entries) {
        for (const uint32_t value : {0U, 1U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
            CVmdkSparseExtentReader reader;
            const std::string path = Hosted().Put32(entry, value).WriteTo(m_Dir);
            reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse).IsErrorSet();
            UseAll(reader);
        }
    }
}

TEST_F(VmdkSparseExtentHostile, AFileCutAnywhereIsAnErrorOrSound) {
    const uint64_t size = Hosted().Bytes().size();
    for (uint64_t cut = 0; cut < size; cut += 211) {
        CVmdkSparseExtentReader reader;
        reader.OpenExtent(Hosted().CutTo(cut).WriteTo(m_Dir).c_str(), 0, VwExtentTypeSparse).IsErrorSet();
        UseAll(reader);
    }
}

TEST_F(VmdkSparseExtentHostile, ARecordCutAnywhereIsAnErrorOrSound) {
    const std::string body = Hosted().Record().substr(32);
    for (size_t cut = 0; cut < body.size(); cut += 211) {
        CAutoMemory<char> metadata = BufferOf(MetadataRecordText("VDVWSP10", 1, body.substr(0, cut)));
        CVmdkSparseExtentReader reader;
        EXPECT_FAILURE(reader.CreateExtent(m_Dir.File("made").c_str(), VwExtentTypeSparse, metadata)) << cut;
        UseAll(reader);
    }
}

// What the header promises isn't there, so the read fails: nothing is taken for it before.
TEST_F(VmdkSparseExtentHostile, AMegabyteThatClaimsHugeTablesEndsWithTheReadsOwnErrorAtOnce) {
    constexpr uint64_t entries16GiB = uint64_t{1} << 32U;
    const struct {
        const char* name;
        std::string path;
    } rows[] = {
        {"16 GiB of directory", CVmdkSparseBuilder().Put64(12, entries16GiB * 4096).CutTo(1 << 20).WriteTo(m_Dir, "a")},
        {"a capacity of 2^63", CVmdkSparseBuilder().Put64(12, uint64_t{1} << 63U).CutTo(1 << 20).WriteTo(m_Dir, "b")},
        {"a capacity of all ones", CVmdkSparseBuilder().Put64(12, ~uint64_t{0}).CutTo(1 << 20).WriteTo(m_Dir, "c")},
        {"16 GiB of descriptor",
         CVmdkSparseBuilder().Put64(28, 1).Put64(36, uint64_t{1} << 25U).CutTo(1 << 20).WriteTo(m_Dir, "d")},
        {"a descriptor of all ones",
         CVmdkSparseBuilder().Put64(28, 1).Put64(36, ~uint64_t{0}).CutTo(1 << 20).WriteTo(m_Dir, "e")},
        {"16 GiB of COWD directory", CCowdBuilder().Put32(24, 0xFFFFFFFF).CutTo(1 << 20).WriteTo(m_Dir, "f")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const CFaultyFiles counting;
        const CZuError error = m_Reader.OpenExtent(row.path.c_str(), 0, VwExtentTypeSparse);
        EXPECT_TRUE(error.IsErrorSet());
        EXPECT_STRNE("Out of memory", error.GetErrorText());
        EXPECT_LE(Sum(counting.Sizes(FaultOp::Read)), uint64_t{4} << 20U) << "bytes asked for";
    }
}

TEST_F(VmdkSparseExtentHostile, PlacesBehindAllFilesFail) {
    for (const uint64_t sector : {OutsideTheFile, uint64_t{1} << 54U, uint64_t{1} << 55U, ~uint64_t{0}}) {
        SCOPED_TRACE(sector);
        for (const uint64_t field : {uint64_t{48}, uint64_t{56}})
            EXPECT_FAILURE(
                m_Reader.OpenExtent(Hosted().Put64(field, sector).WriteTo(m_Dir).c_str(), 0, VwExtentTypeSparse));
        EXPECT_FAILURE(m_Reader.OpenExtent(Hosted().Put64(28, sector).WriteTo(m_Dir).c_str(), 0, VwExtentTypeSparse));
    }
}

TEST_F(VmdkSparseExtentHostile, AGrainOf2To40SectorsOpensAndIsTooLargeToRead) {
    const uint64_t entryAt = Hosted().TableSectors(TableCopy_t::Primary)[0] * 512;
    const std::string path = Hosted().Put64(20, uint64_t{1} << 40U).Put32(entryAt, 1).WriteTo(m_Dir);
    ASSERT_OK(m_Reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse));
    EXPECT_EQ(uint64_t{1} << 40U, m_Reader.GetBlockSize());
    EXPECT_REFUSED(m_Reader.ReadGrain(0, m_Sector), "Out of memory");
    EXPECT_OK(m_Reader.ReadExtentSector(0, m_Sector, 512));
    UseAll(m_Reader);
}

TEST_F(VmdkSparseExtentHostile, TheLargestGrainThatFitsItsTableOpens) {
    const std::string path = Hosted().Put64(20, uint64_t{1} << 54U).WriteTo(m_Dir);
    ASSERT_OK(m_Reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse));
    UseAll(m_Reader);
}

TEST_F(VmdkSparseExtentHostile, AStartSectorThatMakesTheEndWrapEndsReads) {
    ASSERT_OK(m_Reader.OpenExtent(Hosted().WriteTo(m_Dir).c_str(), ~uint64_t{0} - 10, VwExtentTypeSparse));
    for (const uint64_t sector : {uint64_t{0}, uint64_t{5}, ~uint64_t{0}})
        EXPECT_FAILURE(m_Reader.ReadExtentSector(sector, m_Sector, 512));
}

// A directory of 16384 entries that all name one table would take 32 MiB twice.
TEST_F(VmdkSparseExtentHostile, ATableThatEveryEntryNamesIsLoadedOnce) {
    constexpr uint64_t entries = 16384;
    const CVmdkSparseBuilder small = CVmdkSparseBuilder().Grain(7, 'x');
    const uint64_t table = small.TableSectors(TableCopy_t::Primary)[0];
    std::string directory;
    for (uint64_t entry = 0; entry < entries; ++entry)
        directory += LittleEndianBytes(table, 4);
    const std::string path = CVmdkSparseBuilder(small)
                                 .Put64(12, entries * 4096)
                                 .Put64(48, 1000)
                                 .Put64(56, 1000)
                                 .PutAt(1000 * 512, directory)
                                 .WriteTo(m_Dir);
    {
        const CFaultyFiles counting;
        ASSERT_OK(m_Reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse));
        EXPECT_EQ((std::vector<uint32_t>{4, 512, entries * 4, entries * 4, 2048}), counting.Sizes(FaultOp::Read));
    }
    ASSERT_OK(m_Reader.ReadExtentSector((entries - 1) * 4096 + 7 * 8, m_Sector, 512));
    EXPECT_EQ('x', m_Sector[0]);
    UseAll(m_Reader);
}

// Two tables named in turns can't be read in one run, and yet each is loaded once.
TEST_F(VmdkSparseExtentHostile, TablesNamedInTurnsAreLoadedOnceEach) {
    const CCowdBuilder sound = CCowdBuilder().Capacity(6 * 4096).Grain(0, 'x');
    const std::vector<uint64_t> tables = sound.TableSectors();
    CCowdBuilder file = sound;
    for (uint64_t entry = 0; entry < 6; ++entry)
        file.Put32(4 * 512 + entry * 4, static_cast<uint32_t>(tables[entry % 2 == 0 ? 4 : 2]));
    const std::string path = file.WriteTo(m_Dir);
    const CFaultyFiles counting;
    ASSERT_OK(m_Reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse));
    EXPECT_EQ((std::vector<uint32_t>{4, 2048, 24, 16384, 16384}), counting.Sizes(FaultOp::Read));
}

TEST_F(VmdkSparseExtentHostile, TablesThatOverlapAreReadAsTheyLie) {
    const CVmdkSparseBuilder sound = CVmdkSparseBuilder().Capacity(2 * 4096).Grain(128, 'x');
    const std::vector<uint64_t> tables = sound.TableSectors(TableCopy_t::Primary);
    const uint64_t secondEntry = sound.DirectorySector(TableCopy_t::Primary) * 512 + 4;
    // One sector behind the first: its entry 0 is the first one's entry 128.
    const CVmdkSparseBuilder file = CVmdkSparseBuilder(sound).Put32(secondEntry, static_cast<uint32_t>(tables[0]) + 1);
    ASSERT_OK(m_Reader.OpenExtent(file.WriteTo(m_Dir).c_str(), 0, VwExtentTypeSparse));
    ASSERT_OK(m_Reader.ReadExtentSector(4096, m_Sector, 512));
    EXPECT_EQ('x', m_Sector[0]);
    ASSERT_OK(m_Reader.ReadExtentSector(128 * 8, m_Sector, 512));
    EXPECT_EQ('x', m_Sector[0]);
}

// Only holes make a file as long as its header claims. The tables of one object end at 1 GiB, what
// keeps track of them included.
TEST_F(VmdkSparseExtentHostile, AFileOfHolesThatHasAllThatItsHeaderClaimsIsOutOfMemory) {
    constexpr uint32_t ceiling = 1U << 30U;
    const struct {
        const char* name;
        uint32_t entries;
    } rows[] = {
        {"no room for references to the tables", ceiling / sizeof(GrainTableRef_t)},
        {"no room for the first table", ceiling / (sizeof(GrainTableRef_t) + 4)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string path = CCowdBuilder().Put32(24, row.entries).CutTo(uint64_t{3} << 40U).WriteTo(m_Dir);
        EXPECT_REFUSED(m_Reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse), "Out of memory");
    }
    EXPECT_OK(m_Reader.OpenExtent(Hosted().WriteTo(m_Dir).c_str(), 0, VwExtentTypeSparse));
}

}  // namespace
