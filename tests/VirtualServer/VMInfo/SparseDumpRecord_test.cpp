#include "VirtualServer/VMInfo/detail/SparseDumpRecord.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/TempDir.h"

namespace {

class SparseDumpRecord : public testing::Test {
protected:
    SparseDumpRecord() { EXPECT_OK(m_File.Open(m_Dir.File("dump").c_str(), 0x8381, 384)); }

    std::string Dumped() const { return m_Dir.Read("dump"); }

    const CTempDir m_Dir;
    CZuFile m_File;
};

// A record of zeros but for its name and its numbers, each text at its own offset.
std::string Expected(const std::string& name, const char* const (&numbers)[9]) {
    constexpr size_t offsets[] = {1024, 1041, 1058, 1075, 1092, 1101, 1118, 1135, 1144};
    std::string record(1153, '\0');
    PutBytes(record, 0, name);
    for (size_t index = 0; index < 9; ++index)
        PutBytes(record, offsets[index], numbers[index]);
    return record;
}

const char* const Zeros[9] = {"0000000000000000", "0000000000000000", "0000000000000000",
                              "0000000000000000", "00000000",         "0000000000000000",
                              "0000000000000000", "00000000",         "00000000"};

}  // namespace

TEST_F(SparseDumpRecord, EveryFieldStandsAtItsPlaceAsText) {
    SparseDumpFields_t fields;
    fields.startLba = 0x1111111111111111;
    fields.endLba = 0x2222222222222222;
    fields.blockSectors = 0x3333333333333333;
    fields.grainSectors = 0x44;
    fields.fileOffset = 0x55AAFF;
    fields.grainsPerBucket = 0x200;
    fields.bucketCount = 0xABCDEF;
    fields.topBitmapBytes = 0x88888888;
    fields.bucketBytes = 0x40;
    const CFaultyFiles counted;
    EXPECT_OK(WriteSparseDumpRecord(m_File, "disk_00000000", fields));
    EXPECT_EQ(Dumped(),
              Expected("disk_00000000", {"1111111111111111", "2222222222222222", "3333333333333333", "0000000000000044",
                                         "0055aaff", "0000000000000200", "0000000000abcdef", "88888888", "00000040"}));
    EXPECT_EQ(counted.Sizes(FaultOp::Write), (std::vector<uint32_t>{1153})) << "one write";
}

TEST_F(SparseDumpRecord, ZerosAreWrittenAsTextToo) {
    EXPECT_OK(WriteSparseDumpRecord(m_File, "", SparseDumpFields_t()));
    EXPECT_EQ(Dumped(), Expected("", Zeros));
}

TEST_F(SparseDumpRecord, AllOnesAreLowerCase) {
    SparseDumpFields_t fields;
    fields.endLba = ~uint64_t{0};
    fields.bucketBytes = ~uint32_t{0};
    EXPECT_OK(WriteSparseDumpRecord(m_File, "", fields));
    EXPECT_EQ(Dumped().substr(1041, 17), std::string("ffffffffffffffff\0", 17));
    EXPECT_EQ(Dumped().substr(1144), std::string("ffffffff\0", 9));
}

TEST_F(SparseDumpRecord, ANameIsCutTo1023Bytes) {
    for (const size_t length : {1022U, 1023U, 1024U, 1025U, 5000U}) {
        SCOPED_TRACE(length);
        ASSERT_OK(m_File.Seek(0, 0, nullptr));
        const std::string name = std::string(length - 1, 'n') + "e";
        EXPECT_OK(WriteSparseDumpRecord(m_File, name.c_str(), SparseDumpFields_t()));
        EXPECT_EQ(Dumped(), Expected(name.substr(0, 1023), Zeros));
    }
}

TEST_F(SparseDumpRecord, NoNameIsAnEmptyOne) {
    EXPECT_OK(WriteSparseDumpRecord(m_File, nullptr, SparseDumpFields_t()));
    EXPECT_EQ(Dumped(), Expected("", Zeros));
}

TEST_F(SparseDumpRecord, RecordsFollowEachOther) {
    EXPECT_OK(WriteSparseDumpCount(m_File, 2));
    EXPECT_OK(WriteSparseDumpRecord(m_File, "a", SparseDumpFields_t()));
    EXPECT_OK(WriteSparseDumpRecord(m_File, "b", SparseDumpFields_t()));
    EXPECT_EQ(Dumped(), "00000002" + Expected("a", Zeros) + Expected("b", Zeros));
}

TEST_F(SparseDumpRecord, ACountIsEightCharactersWithoutATerminator) {
    EXPECT_OK(WriteSparseDumpCount(m_File, 0));
    EXPECT_OK(WriteSparseDumpCount(m_File, 0x1A));
    EXPECT_OK(WriteSparseDumpCount(m_File, ~uint32_t{0}));
    EXPECT_EQ(Dumped(), "000000000000001affffffff");
}

TEST_F(SparseDumpRecord, AFailedWriteIsTheSystemsError) {
    const CFaultyFiles faulty(Fault_t{FaultOp::Write, 1, ENOSPC});
    EXPECT_OK(WriteSparseDumpCount(m_File, 1));
    EXPECT_SYSTEM_ERROR(WriteSparseDumpRecord(m_File, "a", SparseDumpFields_t()), ENOSPC);
    EXPECT_TRUE(faulty.Fired());
}

TEST_F(SparseDumpRecord, AWriteThatTakesTooFewBytesIsAFailure) {
    CFaultyFiles faulty;
    faulty.ShortenTransfer(FaultOp::Write, 0, 1152);
    EXPECT_REFUSED(WriteSparseDumpRecord(m_File, "a", SparseDumpFields_t()),
                   "Write failed. Tried 1153 bytes wrote 1152 bytes");
    faulty.ShortenTransfer(FaultOp::Write, 1, 0);
    EXPECT_FAILURE(WriteSparseDumpCount(m_File, 1));
}

TEST_F(SparseDumpRecord, WriteWholeWritesAtThePosition) {
    EXPECT_OK(m_File.Seek(3, 0, nullptr));
    EXPECT_OK(WriteWhole(m_File, "abc", 3));
    EXPECT_OK(WriteWhole(m_File, nullptr, 0));
    EXPECT_EQ(Dumped(), std::string("\0\0\0abc", 6));
}
