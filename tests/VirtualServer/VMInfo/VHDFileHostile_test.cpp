#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/VHDFileReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/TempDir.h"
#include "tests/support/VhdBuilder.h"

// Files and records that lie. Whatever they say, an operation ends soon, with an error or with a
// sound result, and never leaves a buffer: the sanitizers watch.

namespace {

struct Field_t {
    const char* name;
    uint64_t offset;
    size_t width;
};

constexpr Field_t FooterFields[] = {
    {"cookie", 0, 8},    {"features", 8, 4},      {"version", 12, 4},     {"dataOffset", 16, 8}, {"timeStamp", 24, 4},
    {"creator", 28, 12}, {"originalSize", 40, 8}, {"currentSize", 48, 8}, {"geometry", 56, 4},   {"diskType", 60, 4},
    {"checksum", 64, 4}, {"uniqueId", 68, 16},    {"savedState", 84, 1},  {"reserved", 85, 427},
};

constexpr Field_t HeaderFields[] = {
    {"cookie", 0, 8},
    {"dataOffset", 8, 8},
    {"tableOffset", 16, 8},
    {"version", 24, 4},
    {"maxTableEntries", 28, 4},
    {"blockSize", 32, 4},
    {"checksum", 36, 4},
    {"parent", 40, 536},
    {"locator 0 length", 576 + 8, 4},
    {"locator 0 offset", 576 + 16, 8},
    {"locator 7 length", 744 + 8, 4},
    {"locator 7 offset", 744 + 16, 8},
    {"all locators", 576, 192},
    {"reserved", 768, 256},
};

CVhdBuilder Sound() {
    return CVhdBuilder::Differencing(800).Block(3, 'x').Block(9, 'y').Bitmap(9, "\x0F").Locator(0, "W2ru", "parent");
}

uint64_t Sum(const std::vector<uint32_t>& sizes) {
    return std::accumulate(sizes.begin(), sizes.end(), uint64_t{0});
}

class VHDFileHostile : public testing::Test {
protected:
    CZuError Open(CVHDFileReader& reader, const CVhdBuilder& file) {
        return reader.OpenDisk(file.WriteTo(m_Dir).c_str(), DiskType_VhdDifferencing);
    }

    // Asks an object all it can be asked.
    void UseAll(CVHDFileReader& reader) {
        char sector[512];
        const uint64_t total = reader.GetTotalSectors();
        for (const uint64_t at : {uint64_t{0}, uint64_t{24}, uint64_t{76}, total / 2, total - 1, total, ~uint64_t{0}}) {
            reader.ReadSector(at, sector, 512).IsErrorSet();
            SectorRun_t run;
            if (!reader.FindRun(at, ~uint64_t{0}, run).IsErrorSet()) {
                EXPECT_GE(run.sectors, 1U);
                EXPECT_LE(run.sectors, total - at);
            }
        }
        const uint64_t blockSectors = reader.GetBlockSize() != 0 ? reader.GetBlockSize() : 8;
        const bool isRoom = blockSectors < (1U << 14U);
        CAutoMemory<char> block;
        block.Alloc(isRoom ? static_cast<uint32_t>(blockSectors) * 512 : 512);
        for (const uint64_t index : {uint64_t{0}, uint64_t{3}, uint64_t{9}, uint64_t{99}, total, ~uint64_t{0}}) {
            unsigned int got = 0;
            if (isRoom)
                reader.ReadBlock(index, block.GetPtr(), static_cast<uint32_t>(blockSectors), got).IsErrorSet();
            reader.WriteBlock(index, static_cast<uint32_t>(blockSectors), block).IsErrorSet();
            EXPECT_GE(reader.NextHeldBlock(index), index);
        }
        CAutoMemory<char> metadata;
        reader.GetMetadataInfo(metadata).IsErrorSet();
        CZuFile out;
        EXPECT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenTruncating | OpenForWriting, 384));
        reader.DumpSparseInfo(out, "x", 8).IsErrorSet();
    }

    CTempDir m_Dir;
    CVHDFileReader m_Reader;
    char m_Sector[512] = {};
};

TEST_F(VHDFileHostile, EveryFieldOfAFooterMayHoldAnything) {
    int opened = 0;
    for (const Field_t& field : FooterFields) {
        for (const char value : {'\0', '\xFF', '\x7F'}) {
            SCOPED_TRACE(std::string(field.name) + " of " + std::to_string(value));
            CVHDFileReader reader;
            if (!Open(reader, Sound().PutEndFooter(field.offset, std::string(field.width, value))).IsErrorSet())
                ++opened;
            UseAll(reader);
        }
    }
    EXPECT_GE(opened, 24);
}

TEST_F(VHDFileHostile, EveryFieldOfAHeaderMayHoldAnything) {
    int opened = 0;
    for (const Field_t& field : HeaderFields) {
        for (const char value : {'\0', '\xFF', '\x7F'}) {
            SCOPED_TRACE(std::string(field.name) + " of " + std::to_string(value));
            CVHDFileReader reader;
            if (!Open(reader, Sound().PutAt(512 + field.offset, std::string(field.width, value))).IsErrorSet())
                ++opened;
            UseAll(reader);
        }
    }
    EXPECT_GE(opened, 24);
}

TEST_F(VHDFileHostile, EveryFieldOfARecordMayHoldAnything) {
    const std::string record = Sound().Record();
    const auto tryRecord = [&](uint64_t offset, size_t width, char value) {
        std::string damaged = record;
        PutBytes(damaged, static_cast<size_t>(offset), std::string(width, value));
        CAutoMemory<char> metadata = BufferOf(damaged);
        CVHDFileReader reader;
        const CZuError error = reader.CreateDisk(m_Dir.File("made").c_str(), DiskType_VhdDifferencing, metadata);
        UseAll(reader);
        return error.IsErrorSet() ? 0 : 1;
    };
    int created = 0;
    for (const char value : {'\0', '\xFF', '\x7F'}) {
        for (const Field_t& field : FooterFields)
            created += tryRecord(32 + field.offset, field.width, value);
        for (const Field_t& field : HeaderFields)
            created += tryRecord(32 + 512 + field.offset, field.width, value);
        created += tryRecord(record.size() - 528, 16, value);
    }
    EXPECT_GE(created, 50);
}

TEST_F(VHDFileHostile, AFileCutAnywhereIsAnErrorOrSound) {
    const std::string bytes = Sound().Bytes();
    const uint64_t tableEnd = Sound().TableOffset() + 400;
    for (uint64_t cut = 0; cut < bytes.size(); cut += 211) {
        CVHDFileReader reader;
        const std::string path = m_Dir.Write("cut", bytes.substr(0, cut));
        EXPECT_FAILURE(reader.OpenDisk(path.c_str(), DiskType_VhdDifferencing)) << "without its footer";
        UseAll(reader);
        const std::string ended = m_Dir.Write("ended", bytes.substr(0, cut) + Sound().FooterBytes());
        EXPECT_EQ(cut + 512 < tableEnd, reader.OpenDisk(ended.c_str(), DiskType_VhdDifferencing).IsErrorSet()) << cut;
        UseAll(reader);
    }
}

TEST_F(VHDFileHostile, AFooterAloneHasNoHeader) {
    const std::string footer = Sound().FooterBytes();
    const std::string path = m_Dir.Write("footer", footer);
    EXPECT_FAILURE(m_Reader.OpenDisk(path.c_str(), DiskType_VhdDifferencing));
    const std::string fixed = m_Dir.Write("fixed", CVhdBuilder::Fixed(800).FooterBytes());
    ASSERT_OK(m_Reader.OpenDisk(fixed.c_str(), DiskType_VhdFixed));
    UseAll(m_Reader);
    EXPECT_OK(m_Reader.ReadSector(0, m_Sector, 512)) << "the footer itself";
    EXPECT_FAILURE(m_Reader.ReadSector(1, m_Sector, 512));
}

TEST_F(VHDFileHostile, AFooterThatNamesItselfAsTheHeaderIsRefused) {
    EXPECT_FAILURE(Open(m_Reader, Sound().PutEndFooter(16, BigEndianBytes(0, 8))));
    EXPECT_FAILURE(Open(m_Reader, Sound().PutEndFooter(16, BigEndianBytes(Sound().FooterPosition(), 8))));
    EXPECT_FAILURE(Open(m_Reader, Sound().PutEndFooter(16, BigEndianBytes(uint64_t{1} << 63U, 8))));
    EXPECT_FAILURE(Open(m_Reader, Sound().PutEndFooter(16, BigEndianBytes(~uint64_t{0}, 8))));
}

TEST_F(VHDFileHostile, EntriesOutsideTheFileFailWhenTheyAreRead) {
    for (const uint32_t sector : {0x1000U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFEU}) {
        ASSERT_OK(Open(m_Reader, Sound().PutEntry(3, sector)));
        unsigned int got = 0;
        std::string block(9 * 512, '?');
        for (const CZuError& error :
             {m_Reader.ReadSector(24, m_Sector, 512), m_Reader.ReadBlock(3, block.data(), 9, got)}) {
            EXPECT_FAILURE(error) << sector;
            EXPECT_EQ(0, m_Reader.IsErrorSectorNotFound(error));
            EXPECT_EQ(0, m_Reader.IsErrorEOF(error));
        }
        EXPECT_OK(m_Reader.ReadBlock(9, block.data(), 9, got)) << "the others can be read";
        UseAll(m_Reader);
    }
}

TEST_F(VHDFileHostile, AnEntryOf0IsTheFooterTakenForABlock) {
    ASSERT_OK(Open(m_Reader, Sound().PutEntry(3, 0)));
    std::string block(9 * 512, '?');
    unsigned int got = 0;
    ASSERT_OK(m_Reader.ReadBlock(3, block.data(), 9, got));
    EXPECT_EQ("conectix", block.substr(0, 8));
    UseAll(m_Reader);
}

// What the header promises isn't there, so the read fails: nothing is taken for it before.
TEST_F(VHDFileHostile, AMegabyteThatClaimsHugeTablesEndsWithTheReadsOwnErrorAtOnce) {
    const struct {
        const char* name;
        CVhdBuilder file;
    } rows[] = {
        {"16 GiB of table", Sound().PutAt(512 + 28, BigEndianBytes(0xFFFFFFFF, 4))},
        {"2 GiB of table", Sound().PutAt(512 + 28, BigEndianBytes(1U << 29U, 4))},
        {"a table that begins in the last bytes", Sound().PutAt(512 + 16, BigEndianBytes((1 << 20) - 4, 8))},
        {"a table behind the end", Sound().PutAt(512 + 16, BigEndianBytes(1 << 20, 8))},
        {"a table at 2^63", Sound().PutAt(512 + 16, BigEndianBytes(uint64_t{1} << 63U, 8))},
        {"a table at all ones", Sound().PutAt(512 + 16, BigEndianBytes(~uint64_t{0}, 8))},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CVhdBuilder file = row.file;
        file.PutAt((1 << 20) - 512, Sound().FooterBytes());
        const std::string path = file.WriteTo(m_Dir);
        const CFaultyFiles counting;
        const CZuError error = m_Reader.OpenDisk(path.c_str(), DiskType_VhdDifferencing);
        EXPECT_FAILURE(error);
        EXPECT_STRNE("Out of memory", error.GetErrorText());
        EXPECT_LE(Sum(counting.Sizes(FaultOp::Read)), uint64_t{4} << 20U) << "bytes asked for";
    }
}

// Only holes make a file as long as its header claims. The tables of one object end at 1 GiB.
TEST_F(VHDFileHostile, AFileOfHolesThatHasAllThatItsHeaderClaimsIsOutOfMemory) {
    CVhdBuilder file = Sound();
    file.PutAt(512 + 28, BigEndianBytes((1U << 28U) + 1, 4)).PutAt(uint64_t{2} << 30U, Sound().FooterBytes());
    EXPECT_REFUSED(Open(m_Reader, file), "Out of memory");
    EXPECT_OK(Open(m_Reader, Sound()));
}

TEST_F(VHDFileHostile, LocatorsOfHolesAreOutOfMemoryInTheRecordAlone) {
    CVhdBuilder file = Sound();
    for (uint64_t slot = 0; slot < 8; ++slot)
        file.PutAt(512 + 576 + 24 * slot + 8, BigEndianBytes(1U << 28U, 4));
    file.PutAt(uint64_t{2} << 30U, Sound().FooterBytes());
    ASSERT_OK(Open(m_Reader, file));
    CAutoMemory<char> metadata;
    EXPECT_REFUSED(m_Reader.GetMetadataInfo(metadata), "Out of memory");
    EXPECT_EQ(0U, metadata.GetSize());
    EXPECT_OK(m_Reader.ReadSector(24, m_Sector, 512));
}

TEST_F(VHDFileHostile, BlockSizesWithoutUse) {
    for (const uint32_t blockBytes : {0U, 1U, 511U}) {
        ASSERT_OK(Open(m_Reader, Sound().PutAt(512 + 32, BigEndianBytes(blockBytes, 4))));
        EXPECT_EQ(1U, m_Reader.GetBlockSize());
        EXPECT_REFUSED(m_Reader.ReadSector(0, m_Sector, 512),
                       "Object is in invalid state. Make sure OpenDisk succeeded");
        UseAll(m_Reader);
    }
    for (const uint32_t blockBytes : {0x80000000U, 0xFFFFFFFFU}) {
        ASSERT_OK(Open(m_Reader, Sound().PutAt(512 + 32, BigEndianBytes(blockBytes, 4)).PutEntry(0, 3)));
        EXPECT_FAILURE(m_Reader.ReadSector(0, m_Sector, 512)) << "the bitmap isn't in the file";
        unsigned int got = 0;
        EXPECT_FAILURE(m_Reader.ReadBlock(5, nullptr, 1, got)) << "no block of that size is";
        UseAll(m_Reader);
    }
}

// A block of 4 GiB with its bitmap passes what one read can ask for.
TEST_F(VHDFileHostile, ABlockOf4GiBIsTooLargeToRead) {
    ASSERT_OK(
        Open(m_Reader,
             Sound().PutAt(512 + 32, BigEndianBytes(0xFFFFFFFF, 4)).PutEntry(0, 3).CurrentSize(uint64_t{1} << 40U)));
    unsigned int got = 0;
    EXPECT_EQ(8388607U + 2047, m_Reader.GetBlockSize());
    EXPECT_REFUSED(m_Reader.ReadBlock(0, m_Sector, 8388607U + 2047, got), "Out of memory");
    EXPECT_EQ(0U, got);
}

TEST_F(VHDFileHostile, ADiskOf2To55SectorsOpensAndEndsWithItsTable) {
    ASSERT_OK(Open(m_Reader, Sound().CurrentSize(~uint64_t{0})));
    EXPECT_EQ((uint64_t{1} << 55U) - 1, m_Reader.GetTotalSectors());
    EXPECT_CONDITION(m_Reader.ReadSector((uint64_t{1} << 55U) - 2, m_Sector, 512), 3, 4001, 1);
    UseAll(m_Reader);
    const std::string path = CVhdBuilder::Fixed(8).CurrentSize(~uint64_t{0}).WriteTo(m_Dir);
    ASSERT_OK(m_Reader.OpenDisk(path.c_str(), DiskType_VhdFixed));
    EXPECT_FAILURE(m_Reader.ReadSector((uint64_t{1} << 55U) - 2, m_Sector, 512));
    UseAll(m_Reader);
}

TEST_F(VHDFileHostile, ABlockThatManyEntriesNameHasOneBitmap) {
    CVhdBuilder file = Sound();
    for (uint64_t index = 0; index < 100; ++index)
        file.PutEntry(index, static_cast<uint32_t>(Sound().BlockSector(3)));
    ASSERT_OK(Open(m_Reader, file));
    const CFaultyFiles counting;
    for (uint64_t sector = 0; sector < 800; ++sector)
        ASSERT_OK(m_Reader.ReadSector(sector, m_Sector, 512));
    EXPECT_EQ(801U, counting.Calls(FaultOp::Read)) << "each sector, and the bitmap once";
}

TEST_F(VHDFileHostile, BlocksMayOverlapEachOtherAndTheTables) {
    const auto block = static_cast<uint32_t>(Sound().BlockSector(3));
    ASSERT_OK(Open(m_Reader, Sound().PutEntry(0, block + 1).PutEntry(1, 3).PutEntry(2, 1)));
    ASSERT_OK(m_Reader.ReadSector(1, m_Sector, 512));
    EXPECT_EQ('x', m_Sector[0]) << "a bitmap of letters has that bit";
    UseAll(m_Reader);
}

TEST_F(VHDFileHostile, ARecordWhosePiecesHaveNoPlaceFailsInTheSystem) {
    const struct {
        const char* name;
        uint64_t offset;
        std::string bytes;
    } rows[] = {
        {"the header", 32 + 16, BigEndianBytes(uint64_t{1} << 63U, 8)},
        {"a locator", 32 + 512 + 576 + 16, BigEndianBytes(~uint64_t{0}, 8)},
        {"the table", 32 + 512 + 16, BigEndianBytes(uint64_t{1} << 63U, 8)},
        {"the footer", Sound().Record().size() - 528, "ffffffffffffffff"},
        {"the footer at 2^63", Sound().Record().size() - 528, "8000000000000000"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string record = Sound().Record();
        PutBytes(record, static_cast<size_t>(row.offset), row.bytes);
        CAutoMemory<char> metadata = BufferOf(record);
        EXPECT_EQ(1U,
                  m_Reader.CreateDisk(m_Dir.File("made").c_str(), DiskType_VhdDifferencing, metadata).GetErrorType());
    }
}

TEST_F(VHDFileHostile, ARecordThatPromisesMoreThanItHoldsIsCorrupt) {
    const struct {
        const char* name;
        size_t offset;
        uint32_t value;
    } rows[] = {
        {"2^32-1 entries", 32 + 512 + 28, 0xFFFFFFFF},
        {"2^30 entries, whose bytes wrap", 32 + 512 + 28, 0x40000000},
        {"a locator of 2^32-1 bytes", 32 + 512 + 576 + 8, 0xFFFFFFFF},
        {"another locator", 32 + 512 + 744 + 8, 0x80000000},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string record = Sound().Record();
        PutBe32(record, row.offset, row.value);
        CAutoMemory<char> metadata = BufferOf(record);
        EXPECT_REFUSED(m_Reader.CreateDisk(m_Dir.File("made").c_str(), DiskType_VhdDifferencing, metadata),
                       "Metadata header is corrupted");
        UseAll(m_Reader);
    }
}

}  // namespace
