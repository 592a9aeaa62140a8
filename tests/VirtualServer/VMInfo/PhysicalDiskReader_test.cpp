#include "VirtualServer/VMInfo/PhysicalDiskReader.h"

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
#include "tests/support/SameBytes.h"
#include "tests/support/SparseDumpText.h"
#include "tests/support/TempDir.h"

#define EXPECT_END_OF_DISK(expression) EXPECT_CONDITION(expression, 3, 8001, 1)

namespace {

constexpr char NothingOpened[] = "Object is in invalid state. Make sure OpenDisk succeeded";
constexpr char NothingCreated[] = "Object is in invalid state. Make sure CreateDisk succeeded";

class PhysicalDiskReader : public testing::Test {
protected:
    std::string Disk(uint64_t sectors) {
        m_Bytes = PatternedBytes(sectors * 512);
        return m_Dir.Write("disk", m_Bytes);
    }
    void Open(uint64_t sectors) { ASSERT_OK(m_Reader.OpenDisk(Disk(sectors).c_str())); }
    void Create(uint64_t sectors) { ASSERT_OK(m_Reader.CreateDisk(Disk(sectors).c_str())); }

    std::string Read(uint64_t offset, size_t size) {
        std::string bytes(size, '?');
        EXPECT_OK(m_Reader.ReadData(offset, bytes.data(), static_cast<unsigned long>(size))) << offset;
        return bytes;
    }
    CZuError Write(uint64_t number, unsigned int sectors, const std::string& bytes) {
        CAutoMemory<char> data = BufferOf(bytes);
        return m_Reader.WriteBlock(number, sectors, data);
    }

    CTempDir m_Dir;
    CPhysicalDiskReader m_Reader;
    std::string m_Bytes;
    std::string m_Buffer = std::string(1 << 16, '?');
};

TEST_F(PhysicalDiskReader, ReadsBytesWhereverTheyLie) {
    Open(24);
    EXPECT_SAME_BYTES(m_Bytes, Read(0, 24 * 512));
    EXPECT_SAME_BYTES(m_Bytes.substr(1000, 777), Read(1000, 777));
    EXPECT_SAME_BYTES("", Read(5, 0));
}

TEST_F(PhysicalDiskReader, BlocksAreCountedInTheirOwnSize) {
    Open(24);
    const struct {
        uint64_t number;
        unsigned int sectors;
    } rows[] = {{0, 8}, {2, 8}, {23, 1}, {1, 12}, {7, 3}};
    for (const auto& row : rows) {
        ASSERT_OK(m_Reader.ReadBlock(row.number, m_Buffer.data(), row.sectors));
        const size_t size = size_t{row.sectors} * 512;
        EXPECT_SAME_BYTES(m_Bytes.substr(row.number * size, size), m_Buffer.substr(0, size));
    }
}

TEST_F(PhysicalDiskReader, RefusesNoNameAndASecondDisk) {
    EXPECT_REFUSED(m_Reader.OpenDisk(nullptr), "Disk name is NULL");
    EXPECT_REFUSED(m_Reader.CreateDisk(nullptr), "Disk name is NULL");
    Open(8);
    EXPECT_REFUSED(m_Reader.OpenDisk("x"), "Object already have an open disk.");
    EXPECT_REFUSED(m_Reader.CreateDisk("x"), "Object already have an open disk.");
    EXPECT_REFUSED(m_Reader.OpenDisk(nullptr), "Disk name is NULL");
    EXPECT_SAME_BYTES(m_Bytes, Read(0, 8 * 512));
}

TEST_F(PhysicalDiskReader, PassesOnWhatTheSystemSaysToTheName) {
    EXPECT_SYSTEM_ERROR(m_Reader.OpenDisk(m_Dir.File("none").c_str()), ENOENT);
    EXPECT_SYSTEM_ERROR(m_Reader.CreateDisk(m_Dir.File("none").c_str()), ENOENT) << "the target has to exist";
    EXPECT_TRUE(m_Dir.Entries().empty());
}

TEST_F(PhysicalDiskReader, WithNothingOpenItSaysSo) {
    EXPECT_REFUSED(m_Reader.ReadData(0, m_Buffer.data(), 512), NothingOpened);
    EXPECT_REFUSED(m_Reader.ReadBlock(0, m_Buffer.data(), 1), NothingOpened);
    EXPECT_REFUSED(Write(0, 1, std::string(513, 'x')), NothingCreated);
    EXPECT_OK(m_Reader.SetDiskSize(512));
    EXPECT_REFUSED(m_Reader.ReadData(0, m_Buffer.data(), 513), NothingOpened) << "also behind the size";
    EXPECT_OK(m_Reader.CloseDisk());
}

TEST_F(PhysicalDiskReader, KeepsTheNameAsItWasGiven) {
    EXPECT_STREQ("", m_Reader.getDiskFileName());
    const std::string path = Disk(8);
    ASSERT_OK(m_Reader.OpenDisk(path.c_str()));
    EXPECT_EQ(path, m_Reader.getDiskFileName());
    EXPECT_OK(m_Reader.CloseDisk());
    ASSERT_OK(m_Reader.CreateDisk(path.c_str()));
    EXPECT_EQ(path, m_Reader.getDiskFileName());
}

// The end of the stream is then the read that fails.
TEST_F(PhysicalDiskReader, APlainFileHasNoKnownSizeAndIsReadToItsOwnEnd) {
    Open(20);
    EXPECT_EQ(0U, m_Reader.GetDiskSize());
    EXPECT_OK(m_Reader.ReadBlock(1, m_Buffer.data(), 8));
    for (const uint64_t number : {2U, 3U, 1000U}) {
        const CZuError error = m_Reader.ReadBlock(number, m_Buffer.data(), 8);
        EXPECT_FAILURE(error);
        EXPECT_EQ(0, m_Reader.IsErrorEOF(error)) << number;
    }
}

TEST_F(PhysicalDiskReader, AReadThatEndsAtTheKnownSizeIsTheLastOne) {
    Open(24);
    EXPECT_OK(m_Reader.SetDiskSize(20 * 512 + 100));
    EXPECT_EQ(20U * 512 + 100, m_Reader.GetDiskSize());
    EXPECT_SAME_BYTES(m_Bytes.substr(20 * 512, 100), Read(20 * 512, 100));
    EXPECT_SAME_BYTES("", Read(20 * 512 + 100, 0));
    const CZuError error = m_Reader.ReadData(20 * 512, m_Buffer.data(), 101);
    EXPECT_END_OF_DISK(error);
    EXPECT_EQ(1, m_Reader.IsErrorEOF(error));
    EXPECT_END_OF_DISK(m_Reader.ReadData(20 * 512 + 101, m_Buffer.data(), 0));
    EXPECT_OK(m_Reader.ReadBlock(19, m_Buffer.data(), 1));
    EXPECT_END_OF_DISK(m_Reader.ReadBlock(20, m_Buffer.data(), 1)) << "a partial block doesn't come";
    EXPECT_OK(m_Reader.SetDiskSize(0));
    EXPECT_OK(m_Reader.ReadBlock(23, m_Buffer.data(), 1)) << "unknown again";
}

TEST_F(PhysicalDiskReader, PlacesThatPass64BitsAreBehindTheEnd) {
    Open(24);
    for (const uint64_t size : {uint64_t{0}, uint64_t{24 * 512}, ~uint64_t{0}}) {
        EXPECT_OK(m_Reader.SetDiskSize(size));
        EXPECT_END_OF_DISK(m_Reader.ReadData(~uint64_t{0}, m_Buffer.data(), 512));
        EXPECT_END_OF_DISK(m_Reader.ReadBlock(uint64_t{1} << 55U, m_Buffer.data(), 1)) << "its offset would be 0";
        EXPECT_END_OF_DISK(m_Reader.ReadBlock(uint64_t{1} << 61U, m_Buffer.data(), 8));
        EXPECT_END_OF_DISK(m_Reader.ReadBlock(~uint64_t{0}, m_Buffer.data(), 0xFFFFFFFF));
        EXPECT_END_OF_DISK(Write(uint64_t{1} << 55U, 1, "x"));
    }
    EXPECT_OK(m_Reader.SetDiskSize(0));
    EXPECT_FAILURE(m_Reader.ReadData(uint64_t{1} << 63U, m_Buffer.data(), 1)) << "no file has that place";
}

TEST_F(PhysicalDiskReader, ABlockOf4GiBIsRefused) {
    Open(24);
    EXPECT_FAILURE(m_Reader.ReadBlock(0, m_Buffer.data(), 1U << 23U));
    EXPECT_FAILURE(m_Reader.ReadBlock(0, m_Buffer.data(), 0xFFFFFFFF));
}

TEST_F(PhysicalDiskReader, WritesBlocksInPlaceAndKeepsTheRest) {
    Create(24);
    EXPECT_OK(Write(1, 8, std::string(8 * 512, 'x')));
    EXPECT_OK(Write(20, 1, "short"));
    EXPECT_OK(Write(3, 2, ""));
    PutBytes(m_Bytes, 8 * 512, std::string(8 * 512, 'x'));
    PutBytes(m_Bytes, 20 * 512, "short");
    EXPECT_SAME_BYTES(m_Bytes, m_Dir.Read("disk"));
    EXPECT_SAME_BYTES(m_Bytes, Read(0, 24 * 512)) << "a target is open for both";
}

TEST_F(PhysicalDiskReader, MoreThanABlockIsNotWritten) {
    Create(24);
    EXPECT_REFUSED(Write(0, 1, std::string(513, 'x')), "Data size is greater than grain size");
    EXPECT_REFUSED(Write(0, 0, "x"), "Data size is greater than grain size");
    EXPECT_REFUSED(Write(~uint64_t{0}, 1, std::string(513, 'x')), "Data size is greater than grain size");
    EXPECT_SAME_BYTES(m_Bytes, m_Dir.Read("disk"));
}

TEST_F(PhysicalDiskReader, AnOpenedDiskIsForReadingAlone) {
    Open(24);
    EXPECT_EQ(1U, Write(0, 1, "x").GetErrorType());
    EXPECT_SAME_BYTES(m_Bytes, m_Dir.Read("disk"));
}

TEST_F(PhysicalDiskReader, ASizeSetBeforeTheTargetIsMadeHolds) {
    EXPECT_OK(m_Reader.SetDiskSize(8 * 512));
    Create(24);
    EXPECT_EQ(8U * 512, m_Reader.GetDiskSize());
    EXPECT_END_OF_DISK(m_Reader.ReadBlock(1, m_Buffer.data(), 8));
    EXPECT_OK(Write(2, 8, "no bound for writes"));
    EXPECT_OK(m_Reader.CloseDisk());
    EXPECT_EQ(0U, m_Reader.GetDiskSize());
    EXPECT_OK(m_Reader.SetDiskSize(8 * 512));
    Open(24);
    EXPECT_EQ(0U, m_Reader.GetDiskSize()) << "an open finds it out anew";
}

TEST_F(PhysicalDiskReader, ClosingClosesTheFileAndTellsWhatTheSystemSays) {
    Open(8);
    {
        const CFaultyFiles faulty(Fault_t{FaultOp::Close, 0, EIO});
        EXPECT_SYSTEM_ERROR(m_Reader.CloseDisk(), EIO);
    }
    EXPECT_REFUSED(m_Reader.ReadData(0, m_Buffer.data(), 1), NothingOpened);
    Open(8);
    const CFaultyFiles counting;
    EXPECT_OK(m_Reader.CloseDisk());
    EXPECT_EQ(1U, counting.Calls(FaultOp::Close));
}

// Other raw disks put their own reading below.
TEST_F(PhysicalDiskReader, BlocksAreReadThroughReadData) {
    class CCounting final : public CPhysicalDiskReader {
    public:
        CZuError ReadData(uint64_t offset, char* buffer, unsigned long size) override {
            offsets.push_back(offset);
            buffer[size - 1] = 'x';
            return CZuError();
        }
        std::vector<uint64_t> offsets;
    };
    CCounting disk;
    EXPECT_OK(disk.ReadBlock(3, m_Buffer.data(), 8));
    EXPECT_EQ((std::vector<uint64_t>{3 * 8 * 512}), disk.offsets);
    EXPECT_EQ('x', m_Buffer[8 * 512 - 1]);
}

TEST_F(PhysicalDiskReader, TheDumpIsOneRecordOfAFlatExtent) {
    SparseDumpText_t expected;
    expected.name = "drive";
    expected.endLba = ~uint64_t{0};
    expected.blockSize = 0x200;
    expected.grainSize = 0x200;
    CZuFile out;
    ASSERT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenForWriting, 384));
    EXPECT_OK(m_Reader.DumpSparseInfo(out, "drive", 0x200)) << "also when closed";
    EXPECT_SAME_BYTES(expected.Bytes(), m_Dir.Read("dump"));
    EXPECT_EQ(1U, WalkFailures(FaultOp::Write, [&] { return m_Reader.DumpSparseInfo(out, "drive", 1); }));
}

TEST_F(PhysicalDiskReader, TheNameInTheDumpIsCutAt1023Characters) {
    CZuFile out;
    ASSERT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenForWriting, 384));
    EXPECT_OK(m_Reader.DumpSparseInfo(out, std::string(2000, 'n').c_str(), 8));
    EXPECT_EQ(std::string(1023, 'n') + '\0', m_Dir.Read("dump").substr(0, 1024));
}

TEST_F(PhysicalDiskReader, EveryFailureReachesTheCaller) {
    const std::string path = Disk(24);
    EXPECT_EQ(1U, WalkFailures(FaultOp::Open, [&] { return CPhysicalDiskReader().OpenDisk(path.c_str()); }));
    EXPECT_EQ(1U, WalkFailures(FaultOp::Open, [&] { return CPhysicalDiskReader().CreateDisk(path.c_str()); }));
    ASSERT_OK(m_Reader.CreateDisk(path.c_str()));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return m_Reader.ReadBlock(1, m_Buffer.data(), 8); }));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Write})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return Write(1, 8, std::string(8 * 512, 'w')); }));
}

TEST_F(PhysicalDiskReader, OnlyItsOwnTripleIsTheEnd) {
    const struct {
        int type;
        unsigned long module;
        unsigned long code;
        int isEnd;
    } rows[] = {{3, 8001, 1, 1}, {3, 8001, 2, 0}, {7, 8001, 1, 0}, {3, 4001, 1, 0}, {4, 8001, 1, 0}};
    for (const auto& row : rows) {
        CZuError error;
        error.SetError(row.type, row.module, row.code, "x", __FILE__, __LINE__);
        EXPECT_EQ(row.isEnd, m_Reader.IsErrorEOF(error)) << row.type << "/" << row.module << "/" << row.code;
    }
    EXPECT_EQ(0, m_Reader.IsErrorEOF(CZuError()));
}

}  // namespace
