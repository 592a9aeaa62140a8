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
#include "tests/support/FaultyFiles.h"
#include "tests/support/SameBytes.h"
#include "tests/support/SparseDumpText.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkSparseBuilder.h"

namespace {

constexpr char NoOpenFile[] = "Don't have a valid opened extent file";

// Three tables of 512 grains, the middle one absent.
CVmdkSparseBuilder WithAbsentTable() {
    return CVmdkSparseBuilder().Capacity(3 * 4096).NoTable(1).Grain(0, 'a').Grain(511, 'b').Grain(1030, 'c');
}

class VmdkSparseExtentRecord : public testing::Test {
protected:
    void Open(const std::string& path, uint64_t startSector = 0) {
        ASSERT_OK(m_Reader.OpenExtent(path.c_str(), startSector, VwExtentTypeSparse));
    }

    std::string Record() {
        CAutoMemory<char> metadata = BufferOf("what stood there before");
        EXPECT_OK(m_Reader.GetMetadataInfo(metadata));
        return BytesOf(metadata);
    }

    std::string Dump(const char* name = "extent") {
        CZuFile out;
        EXPECT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenTruncating | OpenForWriting, 384));
        EXPECT_OK(m_Reader.DumpSparseInfo(out, name));
        EXPECT_OK(out.Close());
        return m_Dir.Read("dump");
    }

    CTempDir m_Dir;
    CVmdkSparseExtentReader m_Reader;
};

TEST_F(VmdkSparseExtentRecord, IsHeadHeaderDescriptorDirectoriesAndTables) {
    const struct {
        const char* name;
        CVmdkSparseBuilder file;
    } rows[] = {
        {"no grain", CVmdkSparseBuilder()},
        {"no table", CVmdkSparseBuilder().NoTable(0)},
        {"no sector", CVmdkSparseBuilder().Capacity(0)},
        {"a descriptor", CVmdkSparseBuilder().Descriptor(PatternedBytes(1300)).Grain(7, 'x')},
        {"an absent table", WithAbsentTable()},
        {"a table that is absent from one copy", WithAbsentTable().NoTable(0, TableCopy_t::Redundant)},
        {"copies that differ", WithAbsentTable().Grain(5, 'r', TableCopy_t::Redundant)},
        {"the redundant tables in use", WithAbsentTable().RedundantIsActive()},
        {"tables backwards", WithAbsentTable().TablesInReverse().GapBetweenTables(2)},
        {"one table for all", CVmdkSparseBuilder().Capacity(5 * 4096).OneTableForAll().Grain(2, 'x')},
        {"many tables", CVmdkSparseBuilder().GrainSize(1).Capacity(1000 * 512).Grain(511999, 'x')},
        {"bytes behind the known header", CVmdkSparseBuilder().Flags(0xFFFFFFFF).Grain(0, 'x')},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Open(row.file.WriteTo(m_Dir));
        EXPECT_SAME_BYTES(row.file.Record(), Record());
        EXPECT_OK(m_Reader.CloseExtent());
    }
}

// The size counts the absent tables; callers find zeros in their place, at the very end.
TEST_F(VmdkSparseExtentRecord, AbsentTablesLeaveZerosAtTheEnd) {
    Open(WithAbsentTable().WriteTo(m_Dir));
    const std::string record = Record();
    EXPECT_EQ(32U + 512 + 2 * 12 + 6 * 2048, record.size());
    EXPECT_EQ("VDVWSP10"
              "00003238"
              "0000000000003000",
              record.substr(0, 32));
    EXPECT_EQ(std::string(2 * 2048, '\0'), record.substr(record.size() - 2 * 2048));
}

TEST_F(VmdkSparseExtentRecord, TellsTheExtentsOwnSectorsWhereverItBegins) {
    Open(WithAbsentTable().WriteTo(m_Dir), 777);
    EXPECT_SAME_BYTES(WithAbsentTable().Record(), Record());
}

TEST_F(VmdkSparseExtentRecord, HasTheHeaderAsItLiesInTheFile) {
    const CVmdkSparseBuilder file = CVmdkSparseBuilder().PutAt(64, "overhead").PutAt(79, PatternedBytes(433));
    Open(file.WriteTo(m_Dir));
    EXPECT_SAME_BYTES(file.Bytes().substr(0, 512), Record().substr(32, 512));
}

TEST_F(VmdkSparseExtentRecord, OfACowdExtentHasItsWholeHeaderAndOneCopyOfTheTables) {
    const CCowdBuilder file = CCowdBuilder().Capacity(3 * 4096).NoTable(0).Grain(4096, 'x').Grain(12287, 'y');
    Open(file.WriteTo(m_Dir));
    const std::string record = Record();
    EXPECT_SAME_BYTES(file.Record(), record);
    EXPECT_EQ(32U + 2048 + 12 + 3 * 16384, record.size());
    EXPECT_EQ("COWD", record.substr(32, 4));
}

TEST_F(VmdkSparseExtentRecord, IsRefusedOnAClosedObject) {
    CAutoMemory<char> metadata = BufferOf("kept");
    EXPECT_REFUSED(m_Reader.GetMetadataInfo(metadata), NoOpenFile);
    EXPECT_SAME_BYTES("kept", BytesOf(metadata));
}

TEST_F(VmdkSparseExtentRecord, TouchesNoFile) {
    Open(WithAbsentTable().WriteTo(m_Dir));
    const CFaultyFiles counting;
    Record();
    for (const FaultOp op : {FaultOp::Open, FaultOp::Read, FaultOp::Seek, FaultOp::Size})
        EXPECT_EQ(0U, counting.Calls(op));
}

// Two directories of a million absent tables each, all in a hole: their place in the record is 4 GiB.
TEST_F(VmdkSparseExtentRecord, OfFourGiBIsOutOfMemoryWithACapital) {
    constexpr uint64_t directoryEntries = uint64_t{1} << 20U;
    constexpr uint64_t inTheHole = 4096;
    Open(CVmdkSparseBuilder()
             .Put64(12, directoryEntries * 4096)
             .Put64(48, inTheHole)
             .Put64(56, inTheHole)
             .CutTo(inTheHole * 512 + directoryEntries * 4)
             .WriteTo(m_Dir));
    CAutoMemory<char> metadata = BufferOf("gone");
    EXPECT_REFUSED(m_Reader.GetMetadataInfo(metadata), "Out Of memory");
    EXPECT_EQ(0U, metadata.GetSize());
}

TEST_F(VmdkSparseExtentRecord, TheDumpTellsTheGeometryAndWhatIsAllocated) {
    Open(WithAbsentTable().WriteTo(m_Dir), 0x1000);
    SparseDumpText_t expected;
    expected.name = "disk_00000000";
    expected.startLba = 0x1000;
    expected.endLba = 0x3FFF;
    expected.blockSize = 8;
    expected.grainSize = 8;
    expected.grainsPerBucket = 512;
    expected.bucketCount = 3;
    expected.topBitmapBytes = 1;
    expected.bucketBytes = 64;
    expected.topBitmap = "\xA0";
    expected.buckets = {"\x80" + std::string(62, '\0') + "\x01", "\x02" + std::string(63, '\0')};
    EXPECT_SAME_BYTES(expected.Bytes(), Dump("disk_00000000"));
}

// An absent table has no bitmap, so that what is read back by the top bitmap comes out even.
TEST_F(VmdkSparseExtentRecord, TheDumpReadsBack) {
    const struct {
        const char* name;
        CVmdkSparseBuilder file;
    } rows[] = {
        {"all tables", CVmdkSparseBuilder().Capacity(9 * 4096).Grain(0, 'x').Grain(4607, 'y')},
        {"absent tables", WithAbsentTable()},
        {"no table", CVmdkSparseBuilder().NoTable(0)},
        {"one table for all", CVmdkSparseBuilder().Capacity(20 * 4096).OneTableForAll().Grain(77, 'x')},
        {"copies that differ", WithAbsentTable().Grain(5, 'r', TableCopy_t::Redundant)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Open(row.file.WriteTo(m_Dir));
        std::string bytes = Dump();
        const SparseDumpText_t dump = TakeSparseDump(bytes);
        EXPECT_EQ("", bytes);
        const std::vector<std::string> tables = row.file.Tables(TableCopy_t::Primary);
        ASSERT_EQ(tables.size(), dump.buckets.size());
        for (size_t index = 0; index < tables.size(); ++index) {
            ASSERT_EQ(tables[index].empty() ? 0U : 64U, dump.buckets[index].size()) << index;
            for (size_t entry = 0; entry < tables[index].size() / 4; ++entry) {
                const int bit = static_cast<unsigned char>(dump.buckets[index][entry / 8]) >> (7 - entry % 8) & 1;
                EXPECT_EQ(LittleEndianAt(tables[index], entry * 4, 4) != 0, bit != 0) << index << ":" << entry;
            }
        }
        EXPECT_OK(m_Reader.CloseExtent());
    }
}

TEST_F(VmdkSparseExtentRecord, TheDumpFollowsTheActiveTables) {
    for (const bool redundantIsActive : {false, true}) {
        CVmdkSparseBuilder file;
        file.Grain(0, 'p', TableCopy_t::Primary).Grain(1, 'r', TableCopy_t::Redundant);
        Open((redundantIsActive ? file.RedundantIsActive() : file).WriteTo(m_Dir));
        EXPECT_EQ(redundantIsActive ? '\x40' : '\x80', Dump()[1154]);
        EXPECT_OK(m_Reader.CloseExtent());
    }
    for (const bool redundantIsActive : {false, true}) {
        CVmdkSparseBuilder file;
        file.NoTable(0, TableCopy_t::Redundant);
        Open((redundantIsActive ? file.RedundantIsActive() : file).WriteTo(m_Dir));
        EXPECT_EQ(redundantIsActive ? 1154U : 1154U + 64, Dump().size());
        EXPECT_OK(m_Reader.CloseExtent());
    }
}

TEST_F(VmdkSparseExtentRecord, TheTopBitmapHasWholeBytes) {
    for (const uint64_t tables : {1U, 7U, 8U, 9U, 16U, 17U}) {
        SCOPED_TRACE(tables);
        Open(CVmdkSparseBuilder().Capacity(tables * 4096).WriteTo(m_Dir));
        std::string bytes = Dump();
        const SparseDumpText_t dump = TakeSparseDump(bytes);
        EXPECT_EQ((tables + 7) / 8, dump.topBitmapBytes);
        EXPECT_EQ(tables, dump.bucketCount);
        EXPECT_EQ(tables % 8 == 0 ? '\xFF' : static_cast<char>(0xFF00U >> tables % 8), dump.topBitmap.back());
        EXPECT_EQ("", bytes);
        EXPECT_OK(m_Reader.CloseExtent());
    }
}

TEST_F(VmdkSparseExtentRecord, TheDumpOfNoSectorsIsTheRecordAlone) {
    Open(CVmdkSparseBuilder().Capacity(0).WriteTo(m_Dir));
    std::string bytes = Dump();
    EXPECT_EQ(1153U, bytes.size());
    const SparseDumpText_t dump = TakeSparseDump(bytes);
    EXPECT_EQ(0U, dump.startLba);
    EXPECT_EQ(~uint64_t{0}, dump.endLba);
    EXPECT_EQ(0U, dump.bucketCount);
}

TEST_F(VmdkSparseExtentRecord, TheDumpOfACowdExtentHasLargeBuckets) {
    const CCowdBuilder file = CCowdBuilder().Capacity(2 * 4096).Grain(0, 'x').Grain(4095, 'y').NoTable(1);
    Open(file.WriteTo(m_Dir));
    std::string bytes = Dump();
    const SparseDumpText_t dump = TakeSparseDump(bytes);
    EXPECT_EQ(4096U, dump.grainsPerBucket);
    EXPECT_EQ(512U, dump.bucketBytes);
    EXPECT_EQ("\x80", dump.topBitmap);
    EXPECT_EQ("\x80" + std::string(510, '\0') + "\x01", dump.buckets[0]);
    EXPECT_EQ("", bytes);
}

TEST_F(VmdkSparseExtentRecord, TheNameInTheDumpIsCutAt1023Characters) {
    Open(CVmdkSparseBuilder().WriteTo(m_Dir));
    EXPECT_EQ(std::string(1023, 'n') + '\0', Dump(std::string(2000, 'n').c_str()).substr(0, 1024));
}

TEST_F(VmdkSparseExtentRecord, TheDumpIsRefusedOnAClosedObject) {
    CZuFile out;
    ASSERT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenForWriting, 384));
    EXPECT_REFUSED(m_Reader.DumpSparseInfo(out, "x"), NoOpenFile);
    EXPECT_SAME_BYTES("", m_Dir.Read("dump"));
}

TEST_F(VmdkSparseExtentRecord, EveryFailedOrShortWriteOfTheDumpReachesTheCaller) {
    Open(WithAbsentTable().WriteTo(m_Dir));
    CZuFile out;
    ASSERT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenForWriting, 384));
    const unsigned int writes = WalkFailures(FaultOp::Write, [&] { return m_Reader.DumpSparseInfo(out, "x"); });
    EXPECT_EQ(4U, writes) << "the record, the top bitmap, two buckets";
    for (unsigned int call = 0; call < writes; ++call) {
        CFaultyFiles cutting;
        cutting.ShortenTransfer(FaultOp::Write, call, call == 1 ? 0 : 60);
        EXPECT_FAILURE(m_Reader.DumpSparseInfo(out, "x")) << call;
    }
}

}  // namespace
