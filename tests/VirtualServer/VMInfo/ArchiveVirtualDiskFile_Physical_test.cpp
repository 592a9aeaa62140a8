#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

#define EXPECT_END_OF_DISK(expression) EXPECT_CONDITION_TEXT(expression, 7, 5001, 1, "Read out of range")

namespace {

constexpr uint64_t NoBlock = ~uint64_t{0};
constexpr char NoFileIsOpen[] = "No file is open. Make sure Open succeeded";

class ArchiveVirtualDiskFilePhysical : public testing::TestWithParam<DiskType_t> {
protected:
    std::string Disk(uint64_t sectors) {
        m_Bytes = PatternedBytes(sectors * 512);
        return m_Dir.Write("disk", m_Bytes);
    }
    void Open(uint64_t sectors) { ASSERT_OK(m_Disk.Open(Disk(sectors).c_str(), GetParam())); }

    CZuError Create(const std::string& path, unsigned int blockSectors) {
        CAutoMemory<char> noRecord;
        return m_Disk.Create(path.c_str(), GetParam(), noRecord, blockSectors, m_Context);
    }
    CZuError Write(uint64_t number, const std::string& bytes) {
        CAutoMemory<char> data = BufferOf(bytes);
        return m_Disk.WriteBlock(data, number, m_Context);
    }
    CZuError Next() {
        CZuError error = m_Disk.GetNextBlock(m_Block, m_Number, m_Context);
        EXPECT_EQ(m_Context.blockNumber, m_Number) << "in every case";
        return error;
    }
    // Bytes up to the failure that ends them.
    std::string Stream(CZuError& end) {
        std::string bytes;
        for (end = Next(); !end.IsErrorSet(); end = Next()) {
            EXPECT_EQ(m_Context.blockSectors * 512, m_Block.GetSize()) << "whole blocks";
            bytes += BytesOf(m_Block);
        }
        return bytes;
    }

    CTempDir m_Dir;
    CArchiveVirtualDiskFile m_Disk{VirtualProdType_Physical};
    CAutoMemory<char> m_Block;
    uint64_t m_Number = 0;
    Context_t m_Context{5, 77};
    std::string m_Bytes;
};

INSTANTIATE_TEST_SUITE_P(BothTypes, ArchiveVirtualDiskFilePhysical,
                         testing::Values(DiskType_PhysicalDisk, DiskType_PhysicalDisk2));

TEST_P(ArchiveVirtualDiskFilePhysical, HasNoRecordAndTheBlockSizeThatIsAskedFor) {
    Open(24);
    for (const unsigned int blockSectors : {1U, 128U, 0U}) {
        CAutoMemory<char> metadata = BufferOf("emptied");
        m_Context = {5, 77};
        ASSERT_OK(m_Disk.GetFirstBlock(metadata, blockSectors, m_Context));
        EXPECT_EQ(0U, metadata.GetSize());
        EXPECT_EQ(NoBlock, m_Context.blockNumber);
        EXPECT_EQ(blockSectors, m_Context.blockSectors);
    }
    EXPECT_REFUSED(Next(), "Out of memory (GetNextBlock)") << "nothing replaces a size of 0";
}

TEST_P(ArchiveVirtualDiskFilePhysical, ComesWholeAndEndsAtTheSizeThatIsSet) {
    Open(24);
    EXPECT_OK(m_Disk.SetDiskSize(16 * 512));
    m_Context = {NoBlock, 8};
    CZuError end;
    EXPECT_SAME_BYTES(m_Bytes.substr(0, 16 * 512), Stream(end));
    EXPECT_END_OF_DISK(end);
    EXPECT_EQ(1, m_Disk.IsErrorEOF(end));
    EXPECT_EQ(2U, m_Number);
}

TEST_P(ArchiveVirtualDiskFilePhysical, OfUnknownSizeEndsWithTheReadThatFails) {
    Open(20);
    m_Context = {NoBlock, 8};
    CZuError end;
    EXPECT_SAME_BYTES(m_Bytes.substr(0, 16 * 512), Stream(end));
    EXPECT_EQ(0, m_Disk.IsErrorEOF(end));
    EXPECT_EQ(2U, m_Number);
    m_Context = {NoBlock, 1};
    EXPECT_SAME_BYTES(m_Bytes, Stream(end)) << "smaller blocks bring the rest";
}

TEST_P(ArchiveVirtualDiskFilePhysical, ReadsAnyBlock) {
    Open(24);
    m_Context = {NoBlock, 8};
    EXPECT_OK(m_Disk.SetDiskSize(24 * 512));
    ASSERT_OK(m_Disk.ReadBlock(m_Block, 2, m_Context));
    EXPECT_SAME_BYTES(m_Bytes.substr(16 * 512), BytesOf(m_Block));
    EXPECT_END_OF_DISK(m_Disk.ReadBlock(m_Block, 3, m_Context));
    EXPECT_END_OF_DISK(m_Disk.ReadBlock(m_Block, uint64_t{1} << 61U, m_Context)) << "its sector would be 0";
    EXPECT_EQ(uint64_t{1} << 61U, m_Context.blockNumber);
}

TEST_P(ArchiveVirtualDiskFilePhysical, IsWrittenInPlace) {
    const std::string path = Disk(24);
    ASSERT_OK(Create(path, 8));
    EXPECT_EQ(NoBlock, m_Context.blockNumber);
    EXPECT_EQ(8U, m_Context.blockSectors);
    EXPECT_OK(m_Disk.SetDiskSize(24 * 512));
    EXPECT_OK(Write(2, std::string(8 * 512, 'x')));
    EXPECT_REFUSED(Write(0, std::string(8 * 512 + 1, 'x')), "Data size is greater than grain size");
    PutBytes(m_Bytes, 16 * 512, std::string(8 * 512, 'x'));
    ASSERT_OK(m_Disk.ReadBlock(m_Block, 2, m_Context)) << "a target can be read";
    EXPECT_SAME_BYTES(m_Bytes.substr(16 * 512), BytesOf(m_Block));
    EXPECT_OK(m_Disk.Close());
    EXPECT_SAME_BYTES(m_Bytes, m_Dir.Read("disk"));
}

TEST_P(ArchiveVirtualDiskFilePhysical, AnyRecordDoesForATarget) {
    CAutoMemory<char> record = BufferOf("no record at all");
    EXPECT_OK(m_Disk.Create(Disk(24).c_str(), GetParam(), record, 16, m_Context));
    EXPECT_EQ(16U, m_Context.blockSectors);
}

TEST_P(ArchiveVirtualDiskFilePhysical, ATargetHasToExist) {
    EXPECT_SYSTEM_ERROR(Create(m_Dir.File("none"), 8), ENOENT);
    EXPECT_EQ(NoBlock, m_Context.blockNumber);
    EXPECT_EQ(0U, m_Context.blockSectors);
    EXPECT_REFUSED(Write(0, "x"), NoFileIsOpen);
    EXPECT_REFUSED(m_Disk.SetDiskSize(1), NoFileIsOpen);
    EXPECT_TRUE(m_Dir.Entries().empty());
}

TEST_P(ArchiveVirtualDiskFilePhysical, PassesOnWhatTheReaderRefuses) {
    EXPECT_REFUSED(m_Disk.Open(nullptr, GetParam()), "Disk name is NULL");
    EXPECT_SYSTEM_ERROR(m_Disk.Open(m_Dir.File("none").c_str(), GetParam()), ENOENT);
    EXPECT_REFUSED(Next(), NoFileIsOpen);
    Open(8);
    EXPECT_REFUSED(m_Disk.Open("x", GetParam()), "Already have an open file. Close it first");
}

TEST_P(ArchiveVirtualDiskFilePhysical, CloseClosesTheFileAndSucceedsWhateverTheSystemSays) {
    Open(8);
    const CFaultyFiles faulty(Fault_t{FaultOp::Close, 0, EIO});
    EXPECT_OK(m_Disk.Close());
    EXPECT_TRUE(faulty.Fired());
    EXPECT_REFUSED(Next(), NoFileIsOpen);
}

TEST_P(ArchiveVirtualDiskFilePhysical, EveryFailureReachesTheCaller) {
    const std::string path = Disk(24);
    EXPECT_EQ(1U, WalkFailures(FaultOp::Open, [&] {
                  CArchiveVirtualDiskFile disk{VirtualProdType_Physical};
                  return disk.Open(path.c_str(), GetParam());
              }));
    EXPECT_EQ(1U, WalkFailures(FaultOp::Open, [&] { return Create(path, 8); }));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return m_Disk.ReadBlock(m_Block, 1, m_Context); }));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Write})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return Write(1, std::string(4096, 'w')); }));
}

}  // namespace
