#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/ImageFile.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkSparseBuilder.h"

#define EXPECT_END_OF_EXTENT(expression) EXPECT_CONDITION(expression, 3, 1001, 1)
#define EXPECT_SECTOR_NOT_FOUND(expression) EXPECT_CONDITION(expression, 3, 1001, 2)

namespace {

constexpr char NoOpenFile[] = "Don't have a valid opened extent file";
constexpr char MetadataIsCorrupted[] = "Metadata header is corrupted";
constexpr char UnknownHeader[] = "Metadata header is corrupted. Unknown sparse header type";

// The record of a body, with the size that it has.
std::string RecordOf(const std::string& body, uint64_t totalSectors = 256) {
    return MetadataRecordText("VDVWSP10", totalSectors, body);
}

std::string BodyOf(const CVmdkSparseBuilder& file) {
    return file.Record().substr(32);
}

class VmdkSparseExtentCreate : public testing::Test {
protected:
    CZuError Create(const std::string& record, VwExtentType type = VwExtentTypeSparse) {
        CAutoMemory<char> metadata = BufferOf(record);
        return m_Reader.CreateExtent(m_Dir.File("made").c_str(), type, metadata);
    }

    CZuError WriteGrain(uint64_t index, const std::string& bytes) {
        CAutoMemory<char> data = BufferOf(bytes);
        return m_Reader.WriteGrain(index, data);
    }

    // An object with a file refuses another one before it looks for it.
    bool HoldsAFile() {
        return m_Reader.OpenExtent(m_Dir.File("none").c_str(), 0, VwExtentTypeSparse).GetErrorType() == 4;
    }

    // Reads the made file by a reader of its own.
    std::string ReadMadeGrain(uint64_t index, size_t grainBytes) {
        CVmdkSparseExtentReader reader;
        std::string grain(grainBytes, '?');
        EXPECT_OK(reader.OpenExtent(m_Dir.File("made").c_str(), 0, VwExtentTypeSparse));
        EXPECT_OK(reader.ReadGrain(index, grain.data()));
        return grain;
    }

    CTempDir m_Dir;
    CVmdkSparseExtentReader m_Reader;
};

TEST_F(VmdkSparseExtentCreate, TestsTheNameThenTheStateThenTheTypeThenTheRecord) {
    CAutoMemory<char> nothing;
    EXPECT_REFUSED(m_Reader.CreateExtent(nullptr, VwExtentTypeFlat, nothing), "Invalid Parameter");
    for (const int type : {0, 1, 3, 4, 6, 7, 8})
        EXPECT_REFUSED(m_Reader.CreateExtent("x", VwExtentType(type), nothing), "Not a supported extent file type")
            << type;
    EXPECT_REFUSED(m_Reader.CreateExtent(m_Dir.File("x").c_str(), VwExtentTypeSparse, nothing), MetadataIsCorrupted);
    ASSERT_OK(Create(CVmdkSparseBuilder().Record()));
    EXPECT_REFUSED(m_Reader.CreateExtent(nullptr, VwExtentTypeFlat, nothing), "Invalid Parameter");
    EXPECT_REFUSED(m_Reader.CreateExtent("x", VwExtentTypeFlat, nothing), "Object already have an open file.");
}

TEST_F(VmdkSparseExtentCreate, TakesBothSparseTypes) {
    EXPECT_OK(Create(CVmdkSparseBuilder().Record(), VwExtentTypeSparse));
    EXPECT_OK(m_Reader.CloseExtent());
    EXPECT_OK(Create(CVmdkSparseBuilder().Record(), VwExtentTypeVmfsSparse));
}

TEST_F(VmdkSparseExtentCreate, RefusesWhatIsNotARecordBeforeAFileIsTouched) {
    const std::string sound = CVmdkSparseBuilder().Record();
    std::string upperCase = RecordOf(std::string(0xAB - 32, 'x'));
    upperCase.replace(8, 8, "000000AB");
    const struct {
        const char* name;
        std::string record;
    } rows[] = {
        {"nothing", ""},
        {"31 bytes", sound.substr(0, 31)},
        {"one byte longer than it says", sound + "x"},
        {"one byte shorter than it says", sound.substr(0, sound.size() - 1)},
        {"a flat extent's record", MetadataRecordText("VDVWFT10", 256, BodyOf(CVmdkSparseBuilder()))},
        {"a size in upper-case letters", upperCase},
    };
    m_Dir.Write("made", "as it was");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_REFUSED(Create(row.record), MetadataIsCorrupted);
        EXPECT_REFUSED(WriteGrain(0, ""), NoOpenFile);
    }
    EXPECT_SAME_BYTES("as it was", m_Dir.Read("made"));
}

TEST_F(VmdkSparseExtentCreate, PutsEveryStructureBackWhereItLay) {
    const struct {
        const char* name;
        CVmdkSparseBuilder file;
    } rows[] = {
        {"no grain", CVmdkSparseBuilder()},
        {"no sector", CVmdkSparseBuilder().Capacity(0)},
        {"a descriptor", CVmdkSparseBuilder().Descriptor(PatternedBytes(1300)).Grain(7, 'x')},
        {"copies that differ", CVmdkSparseBuilder().Grain(5, 'r', TableCopy_t::Redundant).RedundantIsActive()},
        {"tables backwards", CVmdkSparseBuilder().Capacity(3 * 4096).TablesInReverse().GapBetweenTables(2)},
        {"a table's length between tables", CVmdkSparseBuilder().Capacity(4 * 4096).GapBetweenTables(4)},
        {"one table for all", CVmdkSparseBuilder().Capacity(5 * 4096).OneTableForAll().Grain(2, 'x')},
        {"many tables", CVmdkSparseBuilder().GrainSize(1).Capacity(1100 * 512).Grain(563199, 'x')},
        {"closed uncleanly", CVmdkSparseBuilder().Unclean().Flags(0xFFFFFFFF)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_OK(Create(row.file.Record()));
        EXPECT_OK(m_Reader.CloseExtent());
        // All that the source has in front of its first grain.
        const std::string made = m_Dir.Read("made");
        std::string source = row.file.Bytes();
        ASSERT_LE(made.size(), source.size());
        const uint64_t tablesEnd = made.size();
        EXPECT_SAME_BYTES(source.substr(0, tablesEnd), made);
        const uint64_t lastTable = row.file.DirectoryEntries() != 0
                                       ? row.file.TableSectors(TableCopy_t::Primary)[0] * 512 + 2048
                                       : row.file.DirectorySector(TableCopy_t::Primary) * 512;
        EXPECT_GE(tablesEnd, lastTable);
    }
}

TEST_F(VmdkSparseExtentCreate, WithItsGrainsItIsTheSourceByteForByte) {
    const CVmdkSparseBuilder file = CVmdkSparseBuilder()
                                        .Capacity(3 * 4096)
                                        .Descriptor("text")
                                        .RedundantIsActive()
                                        .Grain(0, PatternedBytes(4096, 1))
                                        .Grain(511, PatternedBytes(4096, 2))
                                        .Grain(1535, PatternedBytes(4096, 3))
                                        .Grain(512, PatternedBytes(4096, 4));
    ASSERT_OK(Create(file.Record()));
    uint64_t seed = 0;
    for (const uint64_t index : {0U, 511U, 1535U, 512U})
        ASSERT_OK(WriteGrain(index, PatternedBytes(4096, ++seed)));
    EXPECT_SAME_BYTES(file.Bytes(), m_Dir.Read("made"));
}

TEST_F(VmdkSparseExtentCreate, AFileThatExistsIsEmptied) {
    m_Dir.Write("made", std::string(1 << 20, 'x'));
    ASSERT_OK(Create(CVmdkSparseBuilder().Record()));
    EXPECT_SAME_BYTES(CVmdkSparseBuilder().Bytes().substr(0, 5632), m_Dir.Read("made"));
}

TEST_F(VmdkSparseExtentCreate, TheObjectIsThenAsAfterOpening) {
    const CVmdkSparseBuilder file = CVmdkSparseBuilder().Capacity(10000).Descriptor("text").Grain(1, 'x');
    ASSERT_OK(Create(file.Record()));
    EXPECT_EQ(8U, m_Reader.GetBlockSize());
    EXPECT_EQ(10000U, m_Reader.GetTotalSectors());
    CAutoMemory<char> metadata;
    ASSERT_OK(m_Reader.GetMetadataInfo(metadata));
    EXPECT_SAME_BYTES(file.Record(), BytesOf(metadata));
    char sector[512];
    EXPECT_EQ(1U, m_Reader.ReadExtentSector(8, sector, 512).GetErrorType()) << "it is open for writing alone";
    EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadExtentSector(0, sector, 512));
    EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(10000, sector, 512));
}

TEST_F(VmdkSparseExtentCreate, TheHeadersSectorsCountAndNotThoseOfTheHead) {
    ASSERT_OK(Create(RecordOf(BodyOf(CVmdkSparseBuilder()), 999999)));
    EXPECT_EQ(256U, m_Reader.GetTotalSectors());
}

TEST_F(VmdkSparseExtentCreate, WritesTakeExactlyOneGrain) {
    ASSERT_OK(Create(CVmdkSparseBuilder().Grain(3, 'x').Grain(4, 'y').Record()));
    ASSERT_OK(WriteGrain(4, std::string(4096, 'n')));
    ASSERT_OK(WriteGrain(3, std::string(4096, 'm') + "cut"));
    EXPECT_SAME_BYTES(std::string(4096, 'm'), ReadMadeGrain(3, 4096));
    EXPECT_SAME_BYTES(std::string(4096, 'n'), ReadMadeGrain(4, 4096));
    EXPECT_REFUSED(WriteGrain(3, std::string(4095, 'z')), "Data size 4095 is less than grain size 4096");
    EXPECT_REFUSED(WriteGrain(3, ""), "Data size 0 is less than grain size 4096");
    EXPECT_SAME_BYTES(std::string(4096, 'm'), ReadMadeGrain(3, 4096));
}

TEST_F(VmdkSparseExtentCreate, AGrainThatTheSourceDidNotHaveIsRefused) {
    ASSERT_OK(Create(CVmdkSparseBuilder().Capacity(2 * 4096).Grain(3, 'x').Record()));
    const std::string before = m_Dir.Read("made");
    for (const uint64_t index : {0U, 2U, 512U, 1023U})
        EXPECT_SECTOR_NOT_FOUND(WriteGrain(index, std::string(4096, 'z'))) << index;
    EXPECT_END_OF_EXTENT(WriteGrain(1024, std::string(4096, 'z')));
    EXPECT_END_OF_EXTENT(WriteGrain(~uint64_t{0}, std::string(4096, 'z')));
    EXPECT_SAME_BYTES(before, m_Dir.Read("made"));
}

TEST_F(VmdkSparseExtentCreate, OnlyFlag2MakesTheRedundantTablesPlaceTheGrains) {
    for (const bool redundantIsActive : {false, true}) {
        CVmdkSparseBuilder file;
        file.Grain(3, 'r', TableCopy_t::Redundant).Grain(4, 'p', TableCopy_t::Primary);
        ASSERT_OK(Create((redundantIsActive ? file.RedundantIsActive() : file).Record()));
        const uint64_t held = redundantIsActive ? 3 : 4;
        EXPECT_SECTOR_NOT_FOUND(WriteGrain(redundantIsActive ? 4 : 3, std::string(4096, 'z')));
        ASSERT_OK(WriteGrain(held, std::string(4096, 'n')));
        EXPECT_SAME_BYTES(std::string(4096, 'n'), m_Dir.Read("made").substr(file.GrainSector(held) * 512, 4096));
        ASSERT_OK(m_Reader.CloseExtent());
    }
}

TEST_F(VmdkSparseExtentCreate, AWriteTestsTheFileThenTheSizeThenThePlace) {
    EXPECT_REFUSED(WriteGrain(~uint64_t{0}, ""), NoOpenFile);
    ASSERT_OK(Create(CVmdkSparseBuilder().Record()));
    EXPECT_REFUSED(WriteGrain(~uint64_t{0}, ""), "Data size 0 is less than grain size 4096");
}

TEST_F(VmdkSparseExtentCreate, AnOpenedExtentIsForReadingAlone) {
    const std::string path = CVmdkSparseBuilder().Grain(3, 'x').WriteTo(m_Dir);
    ASSERT_OK(m_Reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse));
    EXPECT_EQ(1U, WriteGrain(3, std::string(4096, 'z')).GetErrorType());
}

// Callers rely on it, and keep such records away: an entry of 0 takes a table all the same, which
// lands on the header, and every table behind it is the one before its own.
TEST_F(VmdkSparseExtentCreate, ADirectoryEntryOf0TakesATableThatLandsOnTheHeader) {
    const CVmdkSparseBuilder file = CVmdkSparseBuilder().Capacity(3 * 4096).NoTable(1).Grain(0, 'a').Grain(1024, 'b');
    const std::string record = file.Record();
    ASSERT_OK(Create(record));

    size_t next = 32 + 512;
    CImageFile expected;
    expected.Put(0, file.HeaderBytes());
    for (const TableCopy_t copy : {TableCopy_t::Redundant, TableCopy_t::Primary}) {
        expected.Put(file.DirectorySector(copy) * 512, record.substr(next, 12));
        next += 12;
    }
    for (const TableCopy_t copy : {TableCopy_t::Redundant, TableCopy_t::Primary}) {
        for (const uint64_t sector : file.TableSectors(copy)) {
            expected.Put(sector * 512, record.substr(next, 2048));
            next += 2048;
        }
    }
    EXPECT_EQ(record.size(), next);
    const std::string made = m_Dir.Read("made");
    EXPECT_SAME_BYTES(expected.Bytes(), made);
    EXPECT_NE("KDMV", made.substr(0, 4));
    // Grains of the absent table have no place; the object itself goes on.
    EXPECT_SECTOR_NOT_FOUND(WriteGrain(512, std::string(4096, 'z')));
}

TEST_F(VmdkSparseExtentCreate, AnUnknownHeaderIsRefusedAndLeavesAnEmptyFileOpen) {
    const std::string body = BodyOf(CVmdkSparseBuilder());
    for (const char* const magic : {"COWD", "VMDK", "kdmv", "dwoc"}) {
        SCOPED_TRACE(magic);
        std::string changed = body;
        EXPECT_REFUSED(Create(RecordOf(changed.replace(0, 4, magic))), UnknownHeader);
        EXPECT_SAME_BYTES("", m_Dir.Read("made"));
        EXPECT_REFUSED(Create(RecordOf(body)), "Object already have an open file.");
        EXPECT_OK(m_Reader.CloseExtent());
    }
    EXPECT_REFUSED(Create(RecordOf("")), UnknownHeader);
    EXPECT_OK(m_Reader.CloseExtent());
    EXPECT_OK(Create(RecordOf(body)));
}

TEST_F(VmdkSparseExtentCreate, RefusesAHeaderAsReadingDoes) {
    std::string body = BodyOf(CVmdkSparseBuilder());
    PutLe32(body, 44, 511);
    EXPECT_REFUSED(Create(RecordOf(body)),
                   "m_NumGTEsPerGT!=512. Number of entries per grain table (511) does not match documentation");
    EXPECT_OK(m_Reader.CloseExtent());
    EXPECT_SAME_BYTES(body.substr(0, 512), m_Dir.Read("made")) << "the header is written before";
    PutLe32(body, 44, 512);
    PutLe64(body, 20, 0);
    EXPECT_REFUSED(Create(RecordOf(body)), "VMDK file header is corrupted. Cannot continue further");
}

TEST_F(VmdkSparseExtentCreate, DoesNotLookAtVersionLineEndsOrTheUncleanFlag) {
    std::string body = BodyOf(CVmdkSparseBuilder().Grain(3, 'x').Unclean());
    PutLe32(body, 4, 77);
    PutBytes(body, 73, "abcd");
    ASSERT_OK(Create(RecordOf(body)));
    EXPECT_EQ(body.substr(0, 512), m_Dir.Read("made").substr(0, 512));
    EXPECT_OK(WriteGrain(3, std::string(4096, 'x')));
}

TEST_F(VmdkSparseExtentCreate, ARecordThatEndsInsideAPartIsCorrupted) {
    const CVmdkSparseBuilder file = CVmdkSparseBuilder().Capacity(2 * 4096).GapBetweenTables(1).Descriptor("text");
    const std::string body = BodyOf(file);
    ASSERT_EQ(512U + 512 + 2 * 8 + 4 * 2048, body.size());
    for (const size_t kept : {4U, 511U, 512U, 1023U, 1024U, 1031U, 1032U, 1039U, 1040U, 3087U, 3088U, 9231U}) {
        SCOPED_TRACE(kept);
        EXPECT_REFUSED(Create(RecordOf(body.substr(0, kept))), MetadataIsCorrupted);
        EXPECT_REFUSED(Create(RecordOf(body)), "Object already have an open file.");
        EXPECT_OK(m_Reader.CloseExtent());
    }
}

// The directory is read and promises two tables in each copy, of which one came.
TEST_F(VmdkSparseExtentCreate, AFailedCreateLeavesAnObjectThatAnswersFromWhatItHas) {
    const CVmdkSparseBuilder file = CVmdkSparseBuilder().Capacity(2 * 4096).GapBetweenTables(1).Grain(600, 'x');
    const std::string body = BodyOf(file);
    for (const size_t tablesThatCame : {0U, 1U, 2U, 3U}) {
        SCOPED_TRACE(tablesThatCame);
        EXPECT_REFUSED(Create(RecordOf(body.substr(0, 512 + 16 + tablesThatCame * 2048))), MetadataIsCorrupted);
        char sector[512];
        for (const uint64_t index : {0U, 511U, 512U, 600U, 1023U}) {
            EXPECT_FAILURE(WriteGrain(index, std::string(4096, 'z'))) << index;
            EXPECT_FAILURE(m_Reader.ReadExtentSector(index * 8, sector, 512)) << index;
        }
        CZuFile out;
        ASSERT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenTruncating | OpenForWriting, 384));
        m_Reader.DumpSparseInfo(out, "x").IsErrorSet();
        CAutoMemory<char> metadata;
        m_Reader.GetMetadataInfo(metadata).IsErrorSet();
        EXPECT_OK(m_Reader.CloseExtent());
    }
}

TEST_F(VmdkSparseExtentCreate, BytesBehindTheTablesArePassedOver) {
    ASSERT_OK(Create(RecordOf(BodyOf(CVmdkSparseBuilder()) + "more")));
    EXPECT_SAME_BYTES(CVmdkSparseBuilder().Bytes().substr(0, 5632), m_Dir.Read("made"));
}

TEST_F(VmdkSparseExtentCreate, EveryFailureReachesTheCallerAndAfterTheFirstTheFileStaysOpen) {
    const std::string record = CVmdkSparseBuilder().Capacity(2 * 4096).GapBetweenTables(1).Descriptor("text").Record();
    const struct {
        FaultOp op;
        unsigned int calls;  // header, descriptor, two directories, two times two tables
    } rows[] = {{FaultOp::Open, 1}, {FaultOp::Seek, 8}, {FaultOp::Write, 8}};
    for (const auto& row : rows) {
        const unsigned int failures = WalkFailures(row.op, [&] {
            CZuError error = Create(record);
            const bool isOpen = row.op != FaultOp::Open || !error.IsErrorSet();
            EXPECT_EQ(isOpen, HoldsAFile());
            EXPECT_OK(m_Reader.CloseExtent());
            return error;
        });
        EXPECT_EQ(row.calls, failures);
    }
}

TEST_F(VmdkSparseExtentCreate, EveryFailureOfAWriteReachesTheCallerAndLeavesTheObjectOpen) {
    ASSERT_OK(Create(CVmdkSparseBuilder().Grain(3, 'x').Record()));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Write})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return WriteGrain(3, std::string(4096, 'w')); }));
    EXPECT_SAME_BYTES(std::string(4096, 'w'), ReadMadeGrain(3, 4096));
}

TEST_F(VmdkSparseExtentCreate, WritesThatTheSystemTakesInPiecesAreWhole) {
    const CVmdkSparseBuilder file = CVmdkSparseBuilder().Descriptor("text").Grain(0, PatternedBytes(4096));
    CFaultyFiles pieces;
    pieces.LimitTransfers(FaultOp::Write, 100);
    ASSERT_OK(Create(file.Record()));
    ASSERT_OK(WriteGrain(0, PatternedBytes(4096)));
    EXPECT_SAME_BYTES(file.Bytes(), m_Dir.Read("made"));
}

}  // namespace
