#include "VirtualServer/VMInfo/VmdkFlatExtentReader.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/SparseDumpText.h"
#include "tests/support/TempDir.h"

#define EXPECT_END_OF_EXTENT(expression) EXPECT_CONDITION(expression, 3, 2001, 1)

namespace {

constexpr char NoOpenFile[] = "Don't have a valid opened extent file";

class VmdkFlatExtentReader : public testing::Test {
protected:
    std::string Sectors(uint64_t count) const { return m_Dir.Write("flat.vmdk", PatternedBytes(count * 512)); }

    // What disk sector `sector` holds, as far as `size` says.
    std::string ReadSector(uint64_t sector, unsigned long size = 512) {
        std::string bytes(512, '?');
        EXPECT_OK(m_Reader.ReadExtentSector(sector, bytes.data(), size));
        return bytes;
    }

    CTempDir m_Dir;
    CVmdkFlatExtentReader m_Reader;
    std::string m_Buffer = std::string(1 << 20, '?');
    unsigned int m_Got = 0;
};

TEST_F(VmdkFlatExtentReader, OpenRefusesANullName) {
    EXPECT_REFUSED(m_Reader.OpenExtent(nullptr, 0, VwExtentTypeFlat), "Invalid Parameter");
}

TEST_F(VmdkFlatExtentReader, OpenRefusesEveryTypeButFlat) {
    const std::string path = Sectors(1);
    for (int type = 0; type <= 8; ++type) {
        if (type == 1)
            continue;
        SCOPED_TRACE(type);
        EXPECT_REFUSED(m_Reader.OpenExtent(path.c_str(), 0, VwExtentType(type)), "Not a supported extent file type");
    }
}

TEST_F(VmdkFlatExtentReader, OpenRefusesASecondFileAndKeepsTheFirst) {
    const std::string path = Sectors(1);
    ASSERT_OK(m_Reader.OpenExtent(path.c_str(), 0, VwExtentTypeFlat));
    EXPECT_REFUSED(m_Reader.OpenExtent(path.c_str(), 9, VwExtentTypeFlat), "Object already have an open file.");
    EXPECT_SAME_BYTES(PatternedBytes(512), ReadSector(0));
}

TEST_F(VmdkFlatExtentReader, OpenTestsTheNameThenTheStateThenTheType) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(1).c_str(), 0, VwExtentTypeFlat));
    EXPECT_REFUSED(m_Reader.OpenExtent(nullptr, 0, VwExtentTypeSparse), "Invalid Parameter");
    EXPECT_REFUSED(m_Reader.OpenExtent("x", 0, VwExtentTypeSparse), "Object already have an open file.");
}

TEST_F(VmdkFlatExtentReader, OpenPassesOnThatAFileIsMissing) {
    EXPECT_SYSTEM_ERROR(m_Reader.OpenExtent(m_Dir.File("none").c_str(), 0, VwExtentTypeFlat), ENOENT);
}

TEST_F(VmdkFlatExtentReader, OpenRefusesAFileOfNoWholeSectors) {
    for (const size_t size : {1U, 511U, 513U, 1000U}) {
        SCOPED_TRACE(size);
        const std::string path = m_Dir.Write("odd", std::string(size, 'x'));
        const std::string text = "File size " + std::to_string(size) + " is not a multiple of sector size 512";
        EXPECT_REFUSED(m_Reader.OpenExtent(path.c_str(), 0, VwExtentTypeFlat), text.c_str());
    }
}

TEST_F(VmdkFlatExtentReader, AFailedOpenLeavesTheObjectClosed) {
    const std::string odd = m_Dir.Write("odd", "x");
    EXPECT_FAILURE(m_Reader.OpenExtent(odd.c_str(), 5, VwExtentTypeFlat));
    EXPECT_REFUSED(m_Reader.ReadExtentSector(0, m_Buffer.data(), 512), NoOpenFile);
    EXPECT_OK(m_Reader.OpenExtent(Sectors(1).c_str(), 0, VwExtentTypeFlat));
}

TEST_F(VmdkFlatExtentReader, AnEmptyFileOpensAndEndsEveryRead) {
    const std::string path = m_Dir.Write("empty", "");
    for (const uint64_t firstSector : {0U, 7U}) {
        SCOPED_TRACE(firstSector);
        ASSERT_OK(m_Reader.OpenExtent(path.c_str(), firstSector, VwExtentTypeFlat));
        EXPECT_EQ(0U, m_Reader.GetTotalSectors());
        for (const uint64_t sector : {uint64_t{0}, uint64_t{6}, uint64_t{7}, uint64_t{8}, ~uint64_t{0}})
            EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(sector, m_Buffer.data(), 512)) << sector;
        EXPECT_END_OF_EXTENT(m_Reader.ReadGrain(0, m_Buffer.data(), 1, m_Got));
        EXPECT_END_OF_EXTENT(m_Reader.ReadGrain(9, m_Buffer.data(), 1, m_Got));
        ASSERT_OK(m_Reader.CloseExtent());
    }
}

TEST_F(VmdkFlatExtentReader, TheFirstSectorOfTheExtentIsTheFirstOfTheFile) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(3).c_str(), 2048, VwExtentTypeFlat));
    EXPECT_EQ(3U, m_Reader.GetTotalSectors());
    EXPECT_SAME_BYTES(PatternedBytes(1536).substr(0, 512), ReadSector(2048));
    EXPECT_SAME_BYTES(PatternedBytes(1536).substr(1024), ReadSector(2050));
}

TEST_F(VmdkFlatExtentReader, SectorsOutsideTheExtentEndTheRead) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(3).c_str(), 2048, VwExtentTypeFlat));
    for (const uint64_t sector : {uint64_t{0}, uint64_t{2047}, uint64_t{2051}, ~uint64_t{0}})
        EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(sector, m_Buffer.data(), 512)) << sector;
}

TEST_F(VmdkFlatExtentReader, AnExtentAtTheEndOfAllNumbersIsReadToItsLastSector) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(2).c_str(), ~uint64_t{0} - 1, VwExtentTypeFlat));
    EXPECT_SAME_BYTES(PatternedBytes(1024).substr(512), ReadSector(~uint64_t{0}));
    EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(0, m_Buffer.data(), 512));
}

TEST_F(VmdkFlatExtentReader, ReadsAsManyBytesOfASectorAsAsked) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(2).c_str(), 0, VwExtentTypeFlat));
    const std::string sector = PatternedBytes(1024).substr(512);
    EXPECT_SAME_BYTES(sector, ReadSector(1, 512));
    EXPECT_SAME_BYTES(sector[0] + std::string(511, '?'), ReadSector(1, 1));
    EXPECT_SAME_BYTES(std::string(512, '?'), ReadSector(1, 0));
    EXPECT_REFUSED(m_Reader.ReadExtentSector(1, m_Buffer.data(), 513), "Cannot read more than sector size");
}

TEST_F(VmdkFlatExtentReader, ASectorOutsideIsFoundBeforeAnOpenFileIsAndThatBeforeTheSize) {
    EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(1, m_Buffer.data(), 513));
    EXPECT_REFUSED(m_Reader.ReadExtentSector(0, m_Buffer.data(), 513), NoOpenFile);
    ASSERT_OK(m_Reader.OpenExtent(Sectors(1).c_str(), 0, VwExtentTypeFlat));
    EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(1, m_Buffer.data(), 513));
}

TEST_F(VmdkFlatExtentReader, AGrainBeginsAtItsNumberTimesItsSize) {
    const std::string path = m_Dir.WriteHole("hole", 512 * 512);
    ASSERT_OK(m_Reader.OpenExtent(path.c_str(), 0, VwExtentTypeFlat));
    const CFaultyFiles counting;
    ASSERT_OK(m_Reader.ReadGrain(3, m_Buffer.data(), 128, m_Got));
    EXPECT_EQ(128U, m_Got);
    ASSERT_EQ(1U, counting.Seeks().size());
    EXPECT_EQ(196608, counting.Seeks()[0].offset);
    EXPECT_EQ(0, counting.Seeks()[0].whence);
}

TEST_F(VmdkFlatExtentReader, AGrainHoldsItsSectors) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(7).c_str(), 0, VwExtentTypeFlat));
    ASSERT_OK(m_Reader.ReadGrain(2, m_Buffer.data(), 2, m_Got));
    EXPECT_EQ(2U, m_Got);
    EXPECT_SAME_BYTES(PatternedBytes(7 * 512).substr(4 * 512, 1024) + "?", m_Buffer.substr(0, 1025));
}

// Callers use grains on a disk of one extent alone, so the extent's place on the disk has no say.
TEST_F(VmdkFlatExtentReader, GrainsAreCountedFromTheFilesStartWhateverTheFirstSector) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(4).c_str(), 1000, VwExtentTypeFlat));
    ASSERT_OK(m_Reader.ReadGrain(1, m_Buffer.data(), 1, m_Got));
    EXPECT_SAME_BYTES(PatternedBytes(1024).substr(512), m_Buffer.substr(0, 512));
    // The end is tested against the disk's sectors all the same: 4 is behind the file, not behind 1003.
    const CZuError behindTheFile = m_Reader.ReadGrain(4, m_Buffer.data(), 1, m_Got);
    EXPECT_TRUE(behindTheFile.IsErrorSet());
    EXPECT_EQ(0, m_Reader.IsErrorEOF(behindTheFile));
    EXPECT_END_OF_EXTENT(m_Reader.ReadGrain(1004, m_Buffer.data(), 1, m_Got));
}

TEST_F(VmdkFlatExtentReader, AGrainThatReachesPastTheEndFailsWithTheReadsOwnError) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(5).c_str(), 0, VwExtentTypeFlat));
    const CZuError error = m_Reader.ReadGrain(2, m_Buffer.data(), 2, m_Got);
    EXPECT_TRUE(error.IsErrorSet());
    EXPECT_EQ(0, m_Reader.IsErrorEOF(error)) << error.ConvertToString();
    EXPECT_END_OF_EXTENT(m_Reader.ReadGrain(3, m_Buffer.data(), 2, m_Got));
}

TEST_F(VmdkFlatExtentReader, AGrainNumberWhoseProductWrapsIsBehindTheEnd) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(4).c_str(), 0, VwExtentTypeFlat));
    EXPECT_END_OF_EXTENT(m_Reader.ReadGrain(uint64_t{1} << 63U, m_Buffer.data(), 2, m_Got));
    EXPECT_END_OF_EXTENT(m_Reader.ReadGrain(~uint64_t{0}, m_Buffer.data(), 128, m_Got));
}

TEST_F(VmdkFlatExtentReader, AGrainOfFourGiBIsOutOfMemory) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(4).c_str(), 0, VwExtentTypeFlat));
    EXPECT_REFUSED(m_Reader.ReadGrain(0, m_Buffer.data(), 1U << 23U, m_Got), "Out of memory");
}

TEST_F(VmdkFlatExtentReader, AClosedExtentRefusesWhatNeedsTheFile) {
    CZuFile out;
    EXPECT_REFUSED(m_Reader.ReadExtentSector(0, m_Buffer.data(), 512), NoOpenFile);
    EXPECT_REFUSED(m_Reader.ReadGrain(0, m_Buffer.data(), 1, m_Got), NoOpenFile);
    EXPECT_REFUSED(m_Reader.ReadGrain(~uint64_t{0}, m_Buffer.data(), 1, m_Got), NoOpenFile);
    EXPECT_REFUSED(m_Reader.DumpSparseInfo(out, "x", 1), NoOpenFile);
    EXPECT_EQ(1U, m_Reader.GetTotalSectors());
    EXPECT_OK(m_Reader.CloseExtent());
}

TEST_F(VmdkFlatExtentReader, AClosedExtentCanBeOpenedAgain) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(3).c_str(), 100, VwExtentTypeFlat));
    ASSERT_OK(m_Reader.CloseExtent());
    EXPECT_EQ(1U, m_Reader.GetTotalSectors());
    EXPECT_END_OF_EXTENT(m_Reader.ReadExtentSector(100, m_Buffer.data(), 512));
    ASSERT_OK(m_Reader.OpenExtent(Sectors(2).c_str(), 0, VwExtentTypeFlat));
    EXPECT_SAME_BYTES(PatternedBytes(512), ReadSector(0));
}

TEST_F(VmdkFlatExtentReader, CloseReturnsWhatTheSystemSays) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(3).c_str(), 0, VwExtentTypeFlat));
    {
        const CFaultyFiles faulty(Fault_t{FaultOp::Close, 0, EIO});
        EXPECT_SYSTEM_ERROR(m_Reader.CloseExtent(), EIO);
    }
    EXPECT_EQ(1U, m_Reader.GetTotalSectors());
    EXPECT_OK(m_Reader.OpenExtent(Sectors(3).c_str(), 0, VwExtentTypeFlat));
}

TEST_F(VmdkFlatExtentReader, TheDestructorClosesTheFile) {
    const std::string path = Sectors(1);
    const CFaultyFiles counting;
    {
        CVmdkFlatExtentReader reader;
        ASSERT_OK(reader.OpenExtent(path.c_str(), 0, VwExtentTypeFlat));
        EXPECT_EQ(0U, counting.Calls(FaultOp::Close));
    }
    EXPECT_EQ(1U, counting.Calls(FaultOp::Close));
}

TEST_F(VmdkFlatExtentReader, ACopySharesTheOpenFile) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(3).c_str(), 10, VwExtentTypeFlat));
    CVmdkFlatExtentReader copy(m_Reader);
    CVmdkFlatExtentReader assigned;
    assigned = m_Reader;
    ASSERT_OK(copy.ReadExtentSector(12, m_Buffer.data(), 512));
    EXPECT_SAME_BYTES(PatternedBytes(1536).substr(1024), m_Buffer.substr(0, 512));
    EXPECT_EQ(3U, assigned.GetTotalSectors());
    ASSERT_OK(m_Reader.CloseExtent());
    EXPECT_REFUSED(copy.ReadExtentSector(12, m_Buffer.data(), 512), NoOpenFile);
    EXPECT_REFUSED(assigned.ReadExtentSector(12, m_Buffer.data(), 512), NoOpenFile);
}

TEST_F(VmdkFlatExtentReader, TheRecordIsSignatureSizeAndSectors) {
    const std::string path = m_Dir.WriteHole("hole", uint64_t{0xABCDE} * 512);
    ASSERT_OK(m_Reader.OpenExtent(path.c_str(), 0x1234, VwExtentTypeFlat));
    CAutoMemory<char> metadata = BufferOf(std::string(100, 'x'));
    ASSERT_OK(m_Reader.GetMetadataInfo(metadata));
    EXPECT_SAME_BYTES("VDVWFT10"
                      "00000020"
                      "00000000000abcde",
                      BytesOf(metadata));
}

TEST_F(VmdkFlatExtentReader, AClosedExtentGivesTheRecordOfOneSector) {
    CAutoMemory<char> metadata;
    ASSERT_OK(m_Reader.GetMetadataInfo(metadata));
    EXPECT_SAME_BYTES(MetadataRecordText("VDVWFT10", 1, ""), BytesOf(metadata));
}

TEST_F(VmdkFlatExtentReader, TheDumpIsOneRecordInOneWrite) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(0x10).c_str(), 0x800, VwExtentTypeFlat));
    CZuFile out;
    ASSERT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenForWriting, 384));
    {
        const CFaultyFiles counting;
        ASSERT_OK(m_Reader.DumpSparseInfo(out, "disk_00000000", 0xC0DE));
        EXPECT_EQ(std::vector<uint32_t>{1153}, counting.Sizes(FaultOp::Write));
    }
    ASSERT_OK(out.Close());
    SparseDumpText_t expected;
    expected.name = "disk_00000000";
    expected.startLba = 0x800;
    expected.endLba = 0x80F;
    expected.blockSize = 0xC0DE;
    expected.grainSize = 0xC0DE;
    EXPECT_SAME_BYTES(expected.Bytes(), m_Dir.Read("dump"));
}

TEST_F(VmdkFlatExtentReader, TheNameInTheDumpIsCutAt1023Characters) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(1).c_str(), 0, VwExtentTypeFlat));
    for (const size_t length : {1022U, 1023U, 1024U, 5000U}) {
        SCOPED_TRACE(length);
        CZuFile out;
        ASSERT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenTruncating | OpenForWriting, 384));
        ASSERT_OK(m_Reader.DumpSparseInfo(out, std::string(length, 'n').c_str(), 1));
        ASSERT_OK(out.Close());
        const std::string dump = m_Dir.Read("dump");
        ASSERT_EQ(1153U, dump.size());
        const size_t kept = length < 1023 ? length : 1023;
        EXPECT_EQ(std::string(kept, 'n') + std::string(1024 - kept, '\0'), dump.substr(0, 1024));
    }
}

TEST_F(VmdkFlatExtentReader, EveryFailureOfAnOpenReachesTheCallerAndClosesTheFile) {
    const std::string path = Sectors(3);
    for (const FaultOp op : {FaultOp::Open, FaultOp::Size}) {
        const unsigned int failures = WalkFailures(op, [&] {
            CVmdkFlatExtentReader reader;
            CZuError error = reader.OpenExtent(path.c_str(), 0, VwExtentTypeFlat);
            if (error.IsErrorSet()) {
                EXPECT_REFUSED(reader.ReadExtentSector(0, m_Buffer.data(), 1), NoOpenFile);
            }
            return error;
        });
        EXPECT_EQ(1U, failures);
    }
}

TEST_F(VmdkFlatExtentReader, EveryFailureOfAReadReachesTheCaller) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(3).c_str(), 0, VwExtentTypeFlat));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read}) {
        EXPECT_EQ(1U, WalkFailures(op, [&] { return m_Reader.ReadExtentSector(1, m_Buffer.data(), 512); }));
        EXPECT_EQ(1U, WalkFailures(op, [&] { return m_Reader.ReadGrain(0, m_Buffer.data(), 3, m_Got); }));
    }
    EXPECT_SAME_BYTES(PatternedBytes(1536).substr(1024), ReadSector(2));
}

TEST_F(VmdkFlatExtentReader, AFailedOrShortWriteOfTheDumpReachesTheCaller) {
    ASSERT_OK(m_Reader.OpenExtent(Sectors(3).c_str(), 0, VwExtentTypeFlat));
    CZuFile out;
    ASSERT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenForWriting, 384));
    EXPECT_EQ(1U, WalkFailures(FaultOp::Write, [&] { return m_Reader.DumpSparseInfo(out, "x", 8); }));
    CFaultyFiles cutting;
    cutting.ShortenTransfer(FaultOp::Write, 0, 1152);
    EXPECT_FAILURE(m_Reader.DumpSparseInfo(out, "x", 8));
}

TEST_F(VmdkFlatExtentReader, OnlyItsOwnTripleIsTheEndOfTheExtent) {
    const struct {
        int type;
        unsigned long module;
        unsigned long code;
        int isEnd;
    } rows[] = {{3, 2001, 1, 1}, {3, 2001, 2, 0}, {3, 1001, 1, 0}, {7, 2001, 1, 0}, {4, 1, 0, 0}};
    for (const auto& row : rows) {
        CZuError error;
        error.SetError(row.type, row.module, row.code, nullptr, __FILE__, __LINE__);
        EXPECT_EQ(row.isEnd, m_Reader.IsErrorEOF(error)) << row.type << "/" << row.module << "/" << row.code;
    }
    EXPECT_EQ(0, m_Reader.IsErrorEOF(CZuError()));
}

}  // namespace
