#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/CowdBuilder.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/ImageFile.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkSparseBuilder.h"

#define EXPECT_END_OF_EXTENT(expression) EXPECT_CONDITION(expression, 3, 1001, 1)
#define EXPECT_SECTOR_NOT_FOUND(expression) EXPECT_CONDITION(expression, 3, 1001, 2)

namespace {

constexpr char HeaderIsCorrupted[] = "COWD file header is corrupted. Cannot continue further";
constexpr char IsUnclean[] = "COWD file has unclean flag set. Cannot continue further";
constexpr char UnknownHeader[] = "Metadata header is corrupted. Unknown sparse header type";
constexpr char MetadataIsCorrupted[] = "Metadata header is corrupted";

// A sector number whose 32-bit product with 512 is that of sector 4.
constexpr uint32_t WrapsToSector4 = 0x00800004;

CCowdBuilder Sound() {
    return CCowdBuilder().Grain(3, 'A');
}

// The only record that the writer of this form takes: its magic is the one in the file backwards.
std::string RecordWithDwoc(const CCowdBuilder& file) {
    std::string record = file.Record();
    record.replace(32, 4, "DWOC");
    return record;
}

class VmdkCowdExtent : public testing::Test {
protected:
    CZuError Open(const CCowdBuilder& file, uint64_t startSector = 0) {
        return m_Reader.OpenExtent(file.WriteTo(m_Dir).c_str(), startSector, VwExtentTypeVmfsSparse);
    }

    CZuError Create(const std::string& record) {
        CAutoMemory<char> metadata = BufferOf(record);
        return m_Reader.CreateExtent(m_Dir.File("made").c_str(), VwExtentTypeSparse, metadata);
    }

    CZuError WriteGrain(uint64_t index, const std::string& bytes) {
        CAutoMemory<char> data = BufferOf(bytes);
        return m_Reader.WriteGrain(index, data);
    }

    std::string ReadSector(uint64_t sector) {
        std::string bytes(512, '?');
        EXPECT_OK(m_Reader.ReadExtentSector(sector, bytes.data(), 512)) << sector;
        return bytes;
    }

    CTempDir m_Dir;
    CVmdkSparseExtentReader m_Reader;
    std::string m_Buffer = std::string(1 << 16, '?');
};

TEST_F(VmdkCowdExtent, RefusesWhatItCannotRead) {
    const struct {
        const char* name;
        CCowdBuilder file;
        const char* text;
    } rows[] = {
        {"version 0", Sound().Version(0), HeaderIsCorrupted},
        {"version 2", Sound().Version(2), HeaderIsCorrupted},
        {"flags 0", Sound().Flags(0), HeaderIsCorrupted},
        {"flags 1", Sound().Flags(1), HeaderIsCorrupted},
        {"flags 2", Sound().Flags(2), HeaderIsCorrupted},
        {"flags 7", Sound().Flags(7), HeaderIsCorrupted},
        {"closed uncleanly", Sound().Unclean(), IsUnclean},
        {"corrupted goes before unclean", Sound().Unclean().Flags(1), HeaderIsCorrupted},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_REFUSED(Open(row.file), row.text);
    }
    EXPECT_OK(Open(Sound().Put32(1648, 2))) << "only 1 is unclean";
}

TEST_F(VmdkCowdExtent, AFileShorterThanItsPartsFailsWithTheReadsOwnError) {
    const uint64_t tablesEnd = Sound().TableSectors()[0] * 512 + 16384;
    ASSERT_OK(Open(Sound().CutTo(tablesEnd)));
    ASSERT_OK(m_Reader.CloseExtent());
    for (const uint64_t sizeBytes :
         {uint64_t{4}, uint64_t{512}, uint64_t{2047}, uint64_t{2048}, uint64_t{2051}, tablesEnd - 1}) {
        SCOPED_TRACE(sizeBytes);
        const CZuError error = Open(Sound().CutTo(sizeBytes));
        EXPECT_TRUE(error.IsErrorSet());
        EXPECT_STRNE(HeaderIsCorrupted, error.GetErrorText());
    }
}

TEST_F(VmdkCowdExtent, SectorsAndGrainsAreAtTheirPlaces) {
    const std::string bytes = PatternedBytes(2 * 512);
    const CCowdBuilder file =
        CCowdBuilder().GrainSize(2).Capacity(2 * 8192 + 100).Grain(4096, bytes).Grain(0, 'a').Grain(8191, 'z');
    ASSERT_OK(Open(file, 1000));
    EXPECT_EQ(2U, m_Reader.GetBlockSize());
    EXPECT_EQ(2U * 8192 + 100, m_Reader.GetTotalSectors());
    EXPECT_SAME_BYTES(std::string(512, 'a'), ReadSector(1001));
    EXPECT_SAME_BYTES(bytes.substr(0, 512), ReadSector(1000 + 8192));
    EXPECT_SAME_BYTES(bytes.substr(512), ReadSector(1000 + 8193));
    ASSERT_OK(m_Reader.ReadGrain(8191, m_Buffer.data()));
    EXPECT_EQ(std::string(1024, 'z') + "?", m_Buffer.substr(0, 1025));
    EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadGrain(8192, m_Buffer.data()));
    EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadGrain(3 * 4096 - 1, m_Buffer.data()));
    EXPECT_END_OF_EXTENT(m_Reader.ReadGrain(3 * 4096, m_Buffer.data()));
    EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(1000 + 2 * 8192 + 100, m_Buffer.data(), 512));
    EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(999, m_Buffer.data(), 512));
}

TEST_F(VmdkCowdExtent, AHoleInTheDirectoryAndAHoleInATableAreTheSame) {
    ASSERT_OK(Open(CCowdBuilder().Capacity(3 * 4096).NoTable(1).Grain(8192, 'x')));
    for (const uint64_t grain : {0U, 4096U, 8191U, 8193U}) {
        EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadGrain(grain, m_Buffer.data())) << grain;
        EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadExtentSector(grain, m_Buffer.data(), 512)) << grain;
    }
    EXPECT_SAME_BYTES(std::string(512, 'x'), ReadSector(8192));
}

// The header says how many entries the directory has; the capacity has no say.
TEST_F(VmdkCowdExtent, TheDirectoryHasAsManyEntriesAsTheHeaderSays) {
    ASSERT_OK(Open(Sound().Capacity(3 * 4096).Put32(24, 1)));
    EXPECT_END_OF_EXTENT(m_Reader.ReadGrain(4096, m_Buffer.data()));
    EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(4096, m_Buffer.data(), 512));
    EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadExtentSector(4095, m_Buffer.data(), 512));
    ASSERT_OK(m_Reader.CloseExtent());
    ASSERT_OK(Open(Sound().Put32(24, 0)));
    EXPECT_END_OF_EXTENT(m_Reader.ReadGrain(0, m_Buffer.data()));
}

TEST_F(VmdkCowdExtent, AGrainSizeOf0EndsEverySectorRead) {
    ASSERT_OK(Open(Sound().Put32(16, 0)));
    EXPECT_EQ(0U, m_Reader.GetBlockSize());
    for (const uint64_t sector : {0U, 3U, 63U})
        EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(sector, m_Buffer.data(), 512));
}

// Callers rely on it: the place of the directory wraps at 4 GiB.
TEST_F(VmdkCowdExtent, ThePlaceOfTheDirectoryIsA32BitProduct) {
    ASSERT_OK(Open(Sound().Put32(20, WrapsToSector4)));
    EXPECT_SAME_BYTES(std::string(512, 'A'), ReadSector(3));
}

TEST_F(VmdkCowdExtent, ThePlaceOfATableIsA64BitProduct) {
    constexpr uint32_t farSector = 0x00800100;
    std::string table(16384, '\0');
    PutLe32(table, 5 * 4, farSector + 32);
    const uint64_t tableAt = uint64_t{farSector} * 512;
    ASSERT_OK(
        Open(Sound().Put32(4 * 512, farSector).PutAt(tableAt, table).PutAt(tableAt + 16384, std::string(512, 'F'))));
    EXPECT_SAME_BYTES(std::string(512, 'F'), ReadSector(5));
    EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadExtentSector(3, m_Buffer.data(), 512));
}

TEST_F(VmdkCowdExtent, AnObjectGoesFromOneFormToTheOther) {
    for (int turn = 0; turn < 2; ++turn) {
        CAutoMemory<char> metadata;
        ASSERT_OK(Open(Sound()));
        ASSERT_OK(m_Reader.GetMetadataInfo(metadata));
        EXPECT_SAME_BYTES(Sound().Record(), BytesOf(metadata));
        ASSERT_OK(m_Reader.CloseExtent());
        const CVmdkSparseBuilder hosted = CVmdkSparseBuilder().RedundantIsActive().Descriptor("text");
        ASSERT_OK(m_Reader.OpenExtent(hosted.WriteTo(m_Dir).c_str(), 0, VwExtentTypeSparse));
        ASSERT_OK(m_Reader.GetMetadataInfo(metadata));
        EXPECT_SAME_BYTES(hosted.Record(), BytesOf(metadata));
        ASSERT_OK(m_Reader.CloseExtent());
    }
}

TEST_F(VmdkCowdExtent, AfterItAHostedExtentIsCreatedWithItsOwnHeader) {
    ASSERT_OK(Open(Sound()));
    ASSERT_OK(m_Reader.CloseExtent());
    const CVmdkSparseBuilder hosted = CVmdkSparseBuilder().Descriptor("text").Grain(1, 'x');
    ASSERT_OK(Create(hosted.Record()));
    CAutoMemory<char> metadata;
    ASSERT_OK(m_Reader.GetMetadataInfo(metadata));
    EXPECT_SAME_BYTES(hosted.Record(), BytesOf(metadata));
}

// Callers rely on it: an extent of this form can't be made from its own record.
TEST_F(VmdkCowdExtent, ItsOwnRecordIsRefusedAndLeavesAnEmptyFileOpen) {
    CAutoMemory<char> metadata;
    ASSERT_OK(Open(Sound()));
    ASSERT_OK(m_Reader.GetMetadataInfo(metadata));
    ASSERT_OK(m_Reader.CloseExtent());
    EXPECT_REFUSED(Create(BytesOf(metadata)), UnknownHeader);
    EXPECT_EQ("", m_Dir.Read("made"));
    EXPECT_REFUSED(Create(BytesOf(metadata)), "Object already have an open file.");
}

// Callers rely on the header going where the directory goes, which then lies over it.
TEST_F(VmdkCowdExtent, TheRecordWithDwocPutsTheHeaderUnderTheDirectory) {
    const CCowdBuilder file = CCowdBuilder().Capacity(3 * 4096).NoTable(1).Grain(1, 'a').Grain(8193, 'b');
    const std::string record = RecordWithDwoc(file);
    ASSERT_OK(Create(record));

    CImageFile expected;
    expected.Put(4 * 512, record.substr(32, 2048));
    expected.Put(4 * 512, file.DirectoryBytes());
    const std::vector<uint64_t> sectors = file.TableSectors();
    const std::vector<std::string> tables = file.Tables();
    expected.Put(sectors[0] * 512, tables[0]);
    expected.Put(sectors[2] * 512, tables[2]);
    EXPECT_SAME_BYTES(expected.Bytes(), m_Dir.Read("made"));
    EXPECT_EQ(std::string(4 * 512, '\0'), m_Dir.Read("made").substr(0, 4 * 512)) << "no header at the file's start";
}

TEST_F(VmdkCowdExtent, TheRecordWithDwocWritesAtA32BitProductToo) {
    std::string record = RecordWithDwoc(Sound());
    PutLe32(record, 32 + 20, WrapsToSector4);
    ASSERT_OK(Create(record));
    EXPECT_EQ(Sound().DirectoryBytes(), m_Dir.Read("made").substr(4 * 512, 4));
}

TEST_F(VmdkCowdExtent, TheRecordWithDwocWritesTablesAt64Bits) {
    constexpr uint32_t farSector = 0x00800100;
    std::string record = RecordWithDwoc(Sound());
    PutLe32(record, 32 + 2048, farSector);
    const CFaultyFiles counting;
    ASSERT_OK(Create(record));
    ASSERT_EQ(3U, counting.Seeks().size());
    EXPECT_EQ(4 * 512, counting.Seeks()[0].offset);
    EXPECT_EQ(4 * 512, counting.Seeks()[1].offset);
    EXPECT_EQ(int64_t{farSector} * 512, counting.Seeks()[2].offset);
}

TEST_F(VmdkCowdExtent, AfterTheRecordWithDwocGrainsAreWrittenWhereTheTablesSay) {
    const CCowdBuilder file = CCowdBuilder().GrainSize(2).Grain(1, 'a').Grain(30, 'b');
    ASSERT_OK(Create(RecordWithDwoc(file)));
    EXPECT_EQ(2U, m_Reader.GetBlockSize());
    EXPECT_EQ(64U, m_Reader.GetTotalSectors());
    ASSERT_OK(WriteGrain(30, std::string(1025, 'n')));
    EXPECT_SECTOR_NOT_FOUND(WriteGrain(2, std::string(1024, 'n')));
    EXPECT_END_OF_EXTENT(WriteGrain(4096, std::string(1024, 'n')));
    EXPECT_REFUSED(WriteGrain(30, std::string(1023, 'n')), "Data size 1023 is less than grain size 1024");
    EXPECT_SAME_BYTES(std::string(1024, 'n'), m_Dir.Read("made").substr(file.GrainSector(30) * 512));
}

// The form of the object is that of what was opened before, and a closed object has the hosted one.
TEST_F(VmdkCowdExtent, AfterTheRecordWithDwocTheObjectsRecordHasAHeaderOfOneSector) {
    ASSERT_OK(Create(RecordWithDwoc(Sound())));
    CAutoMemory<char> metadata;
    ASSERT_OK(m_Reader.GetMetadataInfo(metadata));
    EXPECT_EQ(32U + 512 + 4 + 16384, metadata.GetSize());
    EXPECT_EQ("DWOC", BytesOf(metadata).substr(32, 4));
}

TEST_F(VmdkCowdExtent, TheRecordWithDwocDoesNotLookAtVersionOrFlags) {
    std::string record = RecordWithDwoc(Sound());
    PutLe32(record, 32 + 4, 77);
    PutLe32(record, 32 + 8, 0);
    PutLe32(record, 32 + 1648, 1);
    EXPECT_OK(Create(record));
}

TEST_F(VmdkCowdExtent, ARecordThatEndsInsideAPartIsCorrupted) {
    const CCowdBuilder file = CCowdBuilder().Capacity(2 * 4096);
    const std::string body = RecordWithDwoc(file).substr(32);
    ASSERT_EQ(2048U + 8 + 2 * 16384, body.size());
    for (const size_t kept : {4U, 512U, 2047U, 2048U, 2055U, 2056U, 2056U + 16383U, 2056U + 16384U, 2056U + 32767U}) {
        SCOPED_TRACE(kept);
        EXPECT_REFUSED(Create(MetadataRecordText("VDVWSP10", 1, body.substr(0, kept))), MetadataIsCorrupted);
        EXPECT_OK(m_Reader.CloseExtent());
    }
    EXPECT_OK(Create(MetadataRecordText("VDVWSP10", 1, body)));
}

TEST_F(VmdkCowdExtent, EveryFailureOfTheMachineReachesTheCaller) {
    const CCowdBuilder file = CCowdBuilder().Capacity(3 * 4096).NoTable(1);
    const std::string path = file.WriteTo(m_Dir);
    const auto open = [&] { return CVmdkSparseExtentReader().OpenExtent(path.c_str(), 0, VwExtentTypeSparse); };
    const auto create = [&] {
        CZuError error = Create(RecordWithDwoc(file));
        EXPECT_OK(m_Reader.CloseExtent());
        return error;
    };
    EXPECT_EQ(5U, WalkFailures(FaultOp::Read, open)) << "magic, header, directory, two tables";
    EXPECT_EQ(5U, WalkFailures(FaultOp::Seek, open));
    EXPECT_EQ(4U, WalkFailures(FaultOp::Write, create)) << "header, directory, two tables";
    EXPECT_EQ(4U, WalkFailures(FaultOp::Seek, create));
    EXPECT_EQ(1U, WalkFailures(FaultOp::Open, create));
}

}  // namespace
