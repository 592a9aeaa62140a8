#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <string>

#include "VirtualServer/VMInfo/VmdkFlatExtentReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

#define EXPECT_END_OF_EXTENT(expression) EXPECT_CONDITION(expression, 3, 2001, 1)

namespace {

constexpr char NoOpenFile[] = "Don't have a valid opened extent file";
constexpr char MetadataIsCorrupted[] = "Metadata header is corrupted";

class VmdkFlatExtentCreate : public testing::Test {
protected:
    CZuError Create(const std::string& record, const std::string& name = "made") {
        CAutoMemory<char> metadata = BufferOf(record);
        return m_Reader.CreateExtent(m_Dir.File(name).c_str(), VwExtentTypeFlat, metadata);
    }
    CZuError CreateSectors(uint64_t sectors) { return Create(MetadataRecordText("VDVWFT10", sectors, "")); }

    CZuError WriteGrain(uint64_t number, unsigned int sectors, const std::string& bytes) {
        CAutoMemory<char> data = BufferOf(bytes);
        return m_Reader.WriteGrain(number, sectors, data);
    }

    CTempDir m_Dir;
    CVmdkFlatExtentReader m_Reader;
};

TEST_F(VmdkFlatExtentCreate, RefusesANullNameAnOpenObjectAndEveryTypeButFlat) {
    CAutoMemory<char> metadata = BufferOf(MetadataRecordText("VDVWFT10", 1, ""));
    EXPECT_REFUSED(m_Reader.CreateExtent(nullptr, VwExtentTypeFlat, metadata), "Invalid Parameter");
    for (const int type : {0, 2, 3, 4, 5, 6, 7, 8})
        EXPECT_REFUSED(m_Reader.CreateExtent(m_Dir.File("made").c_str(), VwExtentType(type), metadata),
                       "Not a supported extent file type")
            << type;
    EXPECT_TRUE(m_Dir.Entries().empty());
    ASSERT_OK(CreateSectors(1));
    EXPECT_REFUSED(m_Reader.CreateExtent(nullptr, VwExtentTypeSparse, metadata), "Invalid Parameter");
    EXPECT_REFUSED(m_Reader.CreateExtent("x", VwExtentTypeSparse, metadata), "Object already have an open file.");
}

TEST_F(VmdkFlatExtentCreate, RefusesWhatIsNotARecordBeforeAFileIsTouched) {
    const std::string sound = MetadataRecordText("VDVWFT10", 4, "");
    const struct {
        const char* name;
        std::string record;
    } rows[] = {
        {"nothing", ""},
        {"31 bytes", sound.substr(0, 31)},
        {"31 bytes that say so", "VDVWFT100000001f000000000000000"},
        {"one byte longer than it says", sound + "x"},
        {"another size", "VDVWFT10"
                         "00000021"
                         "0000000000000004"},
        {"a size of fewer digits", "VDVWFT10"
                                   "      20"
                                   "0000000000000004"},
        {"a sparse extent's record", MetadataRecordText("VDVWSP10", 4, "")},
        {"a lower-case signature", MetadataRecordText("vdvwft10", 4, "")},
        {"a newer signature", MetadataRecordText("VDVWFT11", 4, "")},
        {"a size in upper-case letters", "VDVWFT10"
                                         "0000002A"
                                         "0000000000000004"
                                         "0123456789"},
    };
    m_Dir.Write("kept", "as it was");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_REFUSED(Create(row.record), MetadataIsCorrupted);
        EXPECT_REFUSED(Create(row.record, "kept"), MetadataIsCorrupted);
        EXPECT_REFUSED(WriteGrain(0, 1, ""), NoOpenFile);
    }
    EXPECT_EQ(std::vector<std::string>{"kept"}, m_Dir.Entries());
    EXPECT_EQ("as it was", m_Dir.Read("kept"));
}

TEST_F(VmdkFlatExtentCreate, ARecordOf32BytesIsComplete) {
    EXPECT_OK(Create("VDVWFT10"
                     "00000020"
                     "0000000000000004"));
}

TEST_F(VmdkFlatExtentCreate, ALongerRecordThatTellsItsSizeInLowerCaseIsTaken) {
    EXPECT_OK(Create("VDVWFT10"
                     "0000002a"
                     "0000000000000004"
                     "0123456789"));
}

TEST_F(VmdkFlatExtentCreate, TheFileGetsItsFullSizeAtOnce) {
    ASSERT_OK(CreateSectors(0x1A));
    EXPECT_EQ(0x1AU, m_Reader.GetTotalSectors());
    EXPECT_SAME_BYTES(std::string(0x1A * 512, '\0'), m_Dir.Read("made"));
}

TEST_F(VmdkFlatExtentCreate, AFileThatExistsIsEmptied) {
    m_Dir.Write("made", std::string(5000, 'x'));
    ASSERT_OK(CreateSectors(2));
    EXPECT_SAME_BYTES(std::string(1024, '\0'), m_Dir.Read("made"));
}

TEST_F(VmdkFlatExtentCreate, SizesBehindFourGiBAreRead) {
    const uint64_t sectors = 0x123456789;
    ASSERT_OK(CreateSectors(sectors));
    EXPECT_EQ(sectors, m_Reader.GetTotalSectors());
    EXPECT_EQ(sectors * 512, std::filesystem::file_size(m_Dir.File("made")));
}

TEST_F(VmdkFlatExtentCreate, ASizeThatNoFileHasFailsAndLeavesTheObjectClosed) {
    for (const unsigned int bit : {54U, 55U, 63U}) {
        SCOPED_TRACE(bit);
        const CZuError error = CreateSectors(uint64_t{1} << bit);
        EXPECT_EQ(1U, error.GetErrorType()) << error.ConvertToString();
        EXPECT_REFUSED(WriteGrain(0, 1, "x"), NoOpenFile);
        EXPECT_EQ(1U, m_Reader.GetTotalSectors());
    }
    EXPECT_EQ(1U, CreateSectors(~uint64_t{0}).GetErrorType());
    EXPECT_OK(CreateSectors(1));
}

TEST_F(VmdkFlatExtentCreate, AnExtentOfNoSectorsEndsEveryWrite) {
    ASSERT_OK(CreateSectors(0));
    EXPECT_EQ(0U, m_Reader.GetTotalSectors());
    EXPECT_END_OF_EXTENT(WriteGrain(0, 1, std::string(512, 'x')));
    EXPECT_END_OF_EXTENT(WriteGrain(5, 1, std::string(512, 'x')));
    EXPECT_SAME_BYTES("", m_Dir.Read("made"));
}

TEST_F(VmdkFlatExtentCreate, ACreatedExtentIsForWritingAlone) {
    ASSERT_OK(CreateSectors(4));
    char buffer[512];
    EXPECT_EQ(1U, m_Reader.ReadExtentSector(0, buffer, 512).GetErrorType());
    unsigned int got = 0;
    EXPECT_EQ(1U, m_Reader.ReadGrain(0, buffer, 1, got).GetErrorType());
}

TEST_F(VmdkFlatExtentCreate, AnOpenedExtentIsForReadingAlone) {
    ASSERT_OK(m_Reader.OpenExtent(m_Dir.Write("flat", std::string(512, 'a')).c_str(), 0, VwExtentTypeFlat));
    EXPECT_EQ(1U, WriteGrain(0, 1, std::string(512, 'x')).GetErrorType());
    EXPECT_SAME_BYTES(std::string(512, 'a'), m_Dir.Read("flat"));
}

TEST_F(VmdkFlatExtentCreate, GrainsInAnyOrderLandWhereTheyBelong) {
    const std::string bytes = PatternedBytes(8 * 512);
    ASSERT_OK(CreateSectors(8));
    for (const unsigned int number : {3U, 0U, 2U, 1U})
        ASSERT_OK(WriteGrain(number, 2, bytes.substr(number * 1024, 1024)));
    EXPECT_SAME_BYTES(bytes, m_Dir.Read("made"));
}

TEST_F(VmdkFlatExtentCreate, ShorterDataLeavesTheEndOfTheGrainAsItIs) {
    ASSERT_OK(CreateSectors(2));
    ASSERT_OK(WriteGrain(0, 2, std::string(1024, 'o')));
    ASSERT_OK(WriteGrain(0, 2, std::string(700, 'n')));
    ASSERT_OK(WriteGrain(0, 2, ""));
    EXPECT_SAME_BYTES(std::string(700, 'n') + std::string(324, 'o'), m_Dir.Read("made"));
}

TEST_F(VmdkFlatExtentCreate, DataLargerThanTheGrainIsRefused) {
    ASSERT_OK(CreateSectors(4));
    EXPECT_REFUSED(WriteGrain(0, 2, std::string(1025, 'x')), "Data size is greater than grain size");
    EXPECT_REFUSED(WriteGrain(9, 2, std::string(1025, 'x')), "Data size is greater than grain size");
    EXPECT_REFUSED(WriteGrain(0, 0, "x"), "Data size is greater than grain size");
    EXPECT_SAME_BYTES(std::string(2048, '\0'), m_Dir.Read("made"));
}

TEST_F(VmdkFlatExtentCreate, AGrainBehindTheEndIsTheEnd) {
    ASSERT_OK(CreateSectors(5));
    EXPECT_END_OF_EXTENT(WriteGrain(3, 2, std::string(1024, 'x')));
    EXPECT_END_OF_EXTENT(WriteGrain(uint64_t{1} << 63U, 2, std::string(1024, 'x')));
    EXPECT_SAME_BYTES(std::string(5 * 512, '\0'), m_Dir.Read("made"));
}

TEST_F(VmdkFlatExtentCreate, AGrainThatBeginsInTheLastSectorIsWrittenWhole) {
    ASSERT_OK(CreateSectors(5));
    ASSERT_OK(WriteGrain(2, 2, std::string(1024, 'x')));
    EXPECT_SAME_BYTES(std::string(4 * 512, '\0') + std::string(1024, 'x'), m_Dir.Read("made"));
}

TEST_F(VmdkFlatExtentCreate, AClosedExtentRefusesToWrite) {
    EXPECT_REFUSED(WriteGrain(0, 1, std::string(513, 'x')), NoOpenFile);
    ASSERT_OK(CreateSectors(1));
    ASSERT_OK(m_Reader.CloseExtent());
    EXPECT_REFUSED(WriteGrain(0, 1, "x"), NoOpenFile);
}

TEST_F(VmdkFlatExtentCreate, TheRecordOfAnExtentMakesOneOfItsSize) {
    CAutoMemory<char> metadata;
    ASSERT_OK(m_Reader.OpenExtent(m_Dir.WriteHole("hole", 77 * 512).c_str(), 5, VwExtentTypeFlat));
    ASSERT_OK(m_Reader.GetMetadataInfo(metadata));
    ASSERT_OK(m_Reader.CloseExtent());
    ASSERT_OK(m_Reader.CreateExtent(m_Dir.File("made").c_str(), VwExtentTypeFlat, metadata));
    EXPECT_EQ(77U * 512, std::filesystem::file_size(m_Dir.File("made")));
}

TEST_F(VmdkFlatExtentCreate, EveryFailureOfTheMachineReachesTheCallerAndLeavesTheObjectClosed) {
    for (const FaultOp op : {FaultOp::Open, FaultOp::Truncate}) {
        const unsigned int failures = WalkFailures(op, [&] {
            CZuError error = CreateSectors(4);
            EXPECT_EQ(error.IsErrorSet(), WriteGrain(0, 1, "x").IsErrorSet());
            EXPECT_OK(m_Reader.CloseExtent());
            return error;
        });
        EXPECT_EQ(1U, failures);
    }
}

TEST_F(VmdkFlatExtentCreate, EveryFailureOfAWriteReachesTheCallerAndLeavesTheObjectOpen) {
    ASSERT_OK(CreateSectors(4));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Write})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return WriteGrain(1, 2, std::string(1024, 'x')); }));
    EXPECT_OK(WriteGrain(0, 2, std::string(1024, 'y')));
    EXPECT_SAME_BYTES(std::string(1024, 'y') + std::string(1024, 'x'), m_Dir.Read("made"));
}

TEST_F(VmdkFlatExtentCreate, AWriteThatTheSystemTakesInPiecesIsWhole) {
    ASSERT_OK(CreateSectors(4));
    CFaultyFiles pieces;
    pieces.LimitTransfers(FaultOp::Write, 100);
    const std::string bytes = PatternedBytes(2048);
    ASSERT_OK(WriteGrain(0, 4, bytes));
    EXPECT_SAME_BYTES(bytes, m_Dir.Read("made"));
}

}  // namespace
