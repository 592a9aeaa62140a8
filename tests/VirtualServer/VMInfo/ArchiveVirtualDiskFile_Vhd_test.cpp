#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VhdBuilder.h"

#define EXPECT_END_OF_DISK(expression) EXPECT_CONDITION_TEXT(expression, 7, 5001, 1, "Read out of range")

namespace {

constexpr uint64_t NoBlock = ~uint64_t{0};
constexpr char NoFileIsOpen[] = "No file is open. Make sure Open succeeded";

// Numbers and bytes, in the order of the stream.
using Blocks_t = std::vector<std::pair<uint64_t, std::string>>;

class ArchiveVirtualDiskFileVhd : public testing::Test {
protected:
    void Open(const CVhdBuilder& file, DiskType_t type) {
        m_Disk = CArchiveVirtualDiskFile(VirtualProdType_HyperV);
        ASSERT_OK(m_Disk.Open(file.WriteTo(m_Dir).c_str(), type));
    }
    void First(unsigned int blockSectors) {
        CAutoMemory<char> metadata = BufferOf("what stood there before");
        m_Context = {5, 77};
        ASSERT_OK(m_Disk.GetFirstBlock(metadata, blockSectors, m_Context));
        EXPECT_EQ(NoBlock, m_Context.blockNumber);
        m_Record = BytesOf(metadata);
    }

    CZuError Next() {
        CZuError error = m_Disk.GetNextBlock(m_Block, m_Number, m_Context);
        EXPECT_EQ(m_Context.blockNumber, m_Number) << "in every case";
        return error;
    }

    Blocks_t Stream() {
        Blocks_t blocks;
        for (;;) {
            const CZuError error = Next();
            if (error.IsErrorSet()) {
                EXPECT_END_OF_DISK(error);
                EXPECT_EQ(1, m_Disk.IsErrorEOF(error));
                return blocks;
            }
            blocks.emplace_back(m_Number, BytesOf(m_Block));
        }
    }

    CZuError Create(const std::string& record, DiskType_t type, unsigned int blockSectors) {
        m_Disk = CArchiveVirtualDiskFile(VirtualProdType_HyperV);
        CAutoMemory<char> metadata = BufferOf(record);
        return m_Disk.Create(m_Dir.File("made").c_str(), type, metadata, blockSectors, m_Context);
    }
    CZuError Write(uint64_t number, const std::string& bytes) {
        CAutoMemory<char> data = BufferOf(bytes);
        return m_Disk.WriteBlock(data, number, m_Context);
    }

    CTempDir m_Dir;
    CArchiveVirtualDiskFile m_Disk{VirtualProdType_HyperV};
    CAutoMemory<char> m_Block;
    uint64_t m_Number = 0;
    Context_t m_Context{NoBlock, 8};
    std::string m_Record;
};

TEST_F(ArchiveVirtualDiskFileVhd, TheFirstBlockOfAFixedDiskTakesTheBlockSizeThatIsAskedFor) {
    const CVhdBuilder file = CVhdBuilder::Fixed(24);
    Open(file, DiskType_VhdFixed);
    for (const unsigned int blockSectors : {1U, 128U, 0xFFFFFFFFU}) {
        First(blockSectors);
        EXPECT_EQ(blockSectors, m_Context.blockSectors);
        EXPECT_SAME_BYTES(file.Record(), m_Record);
    }
}

TEST_F(ArchiveVirtualDiskFileVhd, TheDefaultBlockOfAFixedDiskIs32MiB) {
    Open(CVhdBuilder::Fixed(24), DiskType_VhdFixed);
    First(0);
    EXPECT_EQ(0x10000U, m_Context.blockSectors);
    EXPECT_OK(Next());
    EXPECT_EQ(23U * 512, m_Block.GetSize());
}

TEST_F(ArchiveVirtualDiskFileVhd, TheFirstBlockOfADynamicDiskTellsTheDisksOwnBlockSize) {
    const CVhdBuilder files[] = {CVhdBuilder::Dynamic(80).Block(3, 'x'), CVhdBuilder::Differencing(80).Block(1, 'y')};
    for (const CVhdBuilder& file : files) {
        Open(file, &file == files ? DiskType_VhdDynamic : DiskType_VhdDifferencing);
        for (const unsigned int blockSectors : {0U, 128U}) {
            First(blockSectors);
            EXPECT_EQ(9U, m_Context.blockSectors) << "the bitmap counts";
            EXPECT_SAME_BYTES(file.Record(), m_Record);
        }
    }
    Open(CVhdBuilder::Dynamic(8192).BlockSize(2 << 20), DiskType_VhdDynamic);
    First(0);
    EXPECT_EQ(4097U, m_Context.blockSectors);
}

TEST_F(ArchiveVirtualDiskFileVhd, AFixedDiskComesWithoutItsLastSector) {
    const std::string bytes = PatternedBytes(24 * 512);
    Open(CVhdBuilder::Fixed(24).Data(0, bytes), DiskType_VhdFixed);
    First(8);
    EXPECT_EQ((Blocks_t{{0, bytes.substr(0, 4096)}, {1, bytes.substr(4096, 4096)}, {2, bytes.substr(8192, 7 * 512)}}),
              Stream());
    EXPECT_EQ(3U, m_Context.blockNumber);
    First(20);
    EXPECT_EQ((Blocks_t{{0, bytes.substr(0, 20 * 512)}, {1, bytes.substr(20 * 512, 3 * 512)}}), Stream());
    First(23);
    EXPECT_EQ((Blocks_t{{0, bytes.substr(0, 23 * 512)}, {1, ""}}), Stream())
        << "a block that begins at the last sector";
}

// Nothing is skipped: a fixed disk doesn't say what is in use.
TEST_F(ArchiveVirtualDiskFileVhd, AFixedDiskOfZerosComesWhole) {
    Open(CVhdBuilder::Fixed(33), DiskType_VhdFixed);
    First(8);
    EXPECT_EQ(5U, Stream().size());
}

TEST_F(ArchiveVirtualDiskFileVhd, OnlyAllocatedBlocksOfADynamicDiskCome) {
    const CVhdBuilder file =
        CVhdBuilder::Dynamic(800).Block(77, 'x').Block(2, PatternedBytes(4096)).Block(3, 'y').Bitmap(3, "\x01");
    for (const DiskType_t type : {DiskType_VhdDynamic, DiskType_VhdDifferencing}) {
        CVhdBuilder typed = file;
        typed.Footer(60, BigEndianBytes(type == DiskType_VhdDynamic ? 3 : 4, 4));
        Open(typed, type);
        First(0);
        EXPECT_EQ((Blocks_t{{2, file.BlockBytes(2)}, {3, file.BlockBytes(3)}, {77, file.BlockBytes(77)}}), Stream());
        EXPECT_EQ(89U, m_Context.blockNumber) << "the first block that begins behind the end: 89 * 9 is 801";
    }
}

TEST_F(ArchiveVirtualDiskFileVhd, AnEmptyDynamicDiskEndsAtOnce) {
    Open(CVhdBuilder::Dynamic(800), DiskType_VhdDynamic);
    First(0);
    EXPECT_EQ(Blocks_t{}, Stream());
    EXPECT_EQ(89U, m_Context.blockNumber);
    Open(CVhdBuilder::Dynamic(0), DiskType_VhdDynamic);
    First(0);
    EXPECT_EQ(Blocks_t{}, Stream());
    EXPECT_EQ(0U, m_Context.blockNumber);
}

// 20 GiB are 10240 blocks of 4096 sectors, but by the size with the bitmap only 10238 begin inside.
TEST_F(ArchiveVirtualDiskFileVhd, TheLastBlocksOfALargeDynamicDiskNeverCome) {
    CVhdBuilder file = CVhdBuilder::Dynamic(uint64_t{20} << 21U).BlockSize(2 << 20);
    file.Block(10237, 'a').Block(10238, 'b').Block(10239, 'c');
    Open(file, DiskType_VhdDynamic);
    First(0);
    const Blocks_t blocks = Stream();
    ASSERT_EQ(1U, blocks.size());
    EXPECT_EQ(10237U, blocks[0].first);
    EXPECT_SAME_BYTES(file.BlockBytes(10237), blocks[0].second);
    EXPECT_EQ(10238U, m_Number);
}

TEST_F(ArchiveVirtualDiskFileVhd, ATableShorterThanTheDiskEndsTheStream) {
    Open(CVhdBuilder::Dynamic(800).Entries(4).Block(1, 'x'), DiskType_VhdDynamic);
    First(0);
    EXPECT_EQ(1U, Stream().size());
    EXPECT_EQ(4U, m_Context.blockNumber);
}

TEST_F(ArchiveVirtualDiskFileVhd, ReadingAHoleGivesTheNextBlockAndSaysWhich) {
    const CVhdBuilder file = CVhdBuilder::Dynamic(800).Block(77, 'x').Block(2, 'y');
    Open(file, DiskType_VhdDynamic);
    First(0);
    ASSERT_OK(m_Disk.ReadBlock(m_Block, 3, m_Context));
    EXPECT_EQ(77U, m_Context.blockNumber);
    EXPECT_SAME_BYTES(file.BlockBytes(77), BytesOf(m_Block));
    ASSERT_OK(m_Disk.ReadBlock(m_Block, 0, m_Context));
    EXPECT_EQ(2U, m_Context.blockNumber);
    EXPECT_OK(Next());
    EXPECT_EQ(77U, m_Number) << "the stream goes on from there";
    EXPECT_END_OF_DISK(m_Disk.ReadBlock(m_Block, 78, m_Context));
    EXPECT_EQ(89U, m_Context.blockNumber);
    EXPECT_END_OF_DISK(m_Disk.ReadBlock(m_Block, 1000, m_Context));
    EXPECT_EQ(1000U, m_Context.blockNumber);
}

TEST_F(ArchiveVirtualDiskFileVhd, ABlockOfAFixedDiskIsReadByItsNumber) {
    const std::string bytes = PatternedBytes(24 * 512);
    Open(CVhdBuilder::Fixed(24).Data(0, bytes), DiskType_VhdFixed);
    First(8);
    ASSERT_OK(m_Disk.ReadBlock(m_Block, 2, m_Context));
    EXPECT_SAME_BYTES(bytes.substr(8192, 7 * 512), BytesOf(m_Block));
    ASSERT_OK(m_Disk.ReadBlock(m_Block, 1, m_Context));
    EXPECT_SAME_BYTES(bytes.substr(4096, 4096), BytesOf(m_Block));
    EXPECT_END_OF_DISK(m_Disk.ReadBlock(m_Block, 3, m_Context));
}

TEST_F(ArchiveVirtualDiskFileVhd, AContextWithAnotherBlockSizeIsRefusedByADynamicDisk) {
    Open(CVhdBuilder::Dynamic(800).Block(2, 'y'), DiskType_VhdDynamic);
    m_Context = {NoBlock, 8};
    EXPECT_REFUSED(Next(), "Dynamic disk block size 8(sectors) does not match the input size 9(sectors)");
    EXPECT_EQ(0U, m_Number);
}

TEST_F(ArchiveVirtualDiskFileVhd, AContextWithoutABlockSizeIsOutOfMemory) {
    Open(CVhdBuilder::Fixed(24), DiskType_VhdFixed);
    m_Context = {NoBlock, 0};
    EXPECT_REFUSED(Next(), "Out of memory (GetNextBlock)");
    EXPECT_REFUSED(m_Disk.ReadBlock(m_Block, 0, m_Context), "Out of memory (ReadBlock)");
}

TEST_F(ArchiveVirtualDiskFileVhd, PassesOnWhatTheReaderRefuses) {
    const std::string path = CVhdBuilder::Dynamic(80).WriteTo(m_Dir);
    EXPECT_REFUSED(m_Disk.Open(nullptr, DiskType_VhdFixed), "Disk name is NULL");
    EXPECT_REFUSED(m_Disk.Open(path.c_str(), DiskType_VhdFixed),
                   ("Disk Type does not match for " + path + " Disk Type 3 != Input 2").c_str());
    EXPECT_REFUSED(Next(), NoFileIsOpen);
    EXPECT_OK(m_Disk.Open(path.c_str(), DiskType_VhdDynamic)) << "a failed open leaves the object closed";
}

TEST_F(ArchiveVirtualDiskFileVhd, ADiskWithATableComesBackByteForByte) {
    CVhdBuilder file = CVhdBuilder::Differencing(800).Locator(1, "W2ku", PatternedBytes(600));
    file.Block(50, PatternedBytes(4096, 3)).Block(2, PatternedBytes(4096, 4)).Bitmap(2, "\x5A");
    Open(file, DiskType_VhdDifferencing);
    First(0);
    const Blocks_t blocks = Stream();
    ASSERT_OK(Create(m_Record, DiskType_VhdDifferencing, 128));
    EXPECT_EQ(NoBlock, m_Context.blockNumber);
    EXPECT_EQ(9U, m_Context.blockSectors);
    for (const auto& [number, bytes] : blocks)
        EXPECT_OK(Write(number, bytes));
    EXPECT_OK(m_Disk.Close());
    EXPECT_SAME_BYTES(file.Bytes(), m_Dir.Read("made"));
}

TEST_F(ArchiveVirtualDiskFileVhd, AFixedDiskComesBackButForItsLastSector) {
    const CVhdBuilder file = CVhdBuilder::Fixed(25).Data(0, PatternedBytes(25 * 512));
    Open(file, DiskType_VhdFixed);
    First(8);
    const Blocks_t blocks = Stream();
    EXPECT_EQ(4U, blocks.size());
    ASSERT_OK(Create(m_Record, DiskType_VhdFixed, 8));
    EXPECT_EQ(8U, m_Context.blockSectors) << "the argument, as a fixed disk has no block size";
    for (const auto& [number, bytes] : blocks)
        EXPECT_OK(Write(number, bytes));
    EXPECT_OK(m_Disk.Close());
    std::string expected = file.Bytes();
    PutBytes(expected, 24 * 512, std::string(512, '\0'));
    EXPECT_SAME_BYTES(expected, m_Dir.Read("made"));
}

TEST_F(ArchiveVirtualDiskFileVhd, TheReadersConditionsOfAWriteComeAsTheyStand) {
    ASSERT_OK(Create(CVhdBuilder::Dynamic(800).Block(2, 'x').Record(), DiskType_VhdDynamic, 0));
    EXPECT_CONDITION(Write(3, "x"), 3, 4001, 2);
    EXPECT_CONDITION(Write(800, "x"), 3, 4001, 1);
    m_Context.blockSectors = 8;
    EXPECT_REFUSED(Write(2, "x"), "Dynamic disk block size 8(sectors) does not match the input size 9(sectors)");
    m_Context.blockSectors = 9;
    EXPECT_REFUSED(Write(2, std::string(9 * 512 + 1, 'x')), "Data size greater than grain size");
    EXPECT_OK(Write(2, "x")) << "a failed write leaves the disk open";
}

TEST_F(ArchiveVirtualDiskFileVhd, ARefusedRecordStoresNoType) {
    EXPECT_REFUSED(Create(CVhdBuilder::Fixed(24).Record(), DiskType_VhdDynamic, 8), "Metadata header is corrupted");
    EXPECT_EQ(NoBlock, m_Context.blockNumber);
    EXPECT_EQ(0U, m_Context.blockSectors);
    EXPECT_REFUSED(Write(0, "x"), NoFileIsOpen);
    EXPECT_SAME_BYTES("", m_Dir.Read("made"));
}

TEST_F(ArchiveVirtualDiskFileVhd, ASetDiskSizeChangesNothing) {
    ASSERT_OK(Create(CVhdBuilder::Fixed(24).Record(), DiskType_VhdFixed, 8));
    const std::string before = m_Dir.Read("made");
    EXPECT_OK(m_Disk.SetDiskSize(1));
    EXPECT_SAME_BYTES(before, m_Dir.Read("made"));
}

TEST_F(ArchiveVirtualDiskFileVhd, CloseClosesTheFileAndSucceedsWhateverTheSystemSays) {
    Open(CVhdBuilder::Dynamic(80), DiskType_VhdDynamic);
    const CFaultyFiles faulty(Fault_t{FaultOp::Close, 0, EIO});
    EXPECT_OK(m_Disk.Close());
    EXPECT_TRUE(faulty.Fired());
    EXPECT_REFUSED(Next(), NoFileIsOpen);
    EXPECT_REFUSED(m_Disk.Open("x", DiskType_VhdDynamic), "Unknown product type 0");
}

TEST_F(ArchiveVirtualDiskFileVhd, EveryFailureReachesTheCaller) {
    const CVhdBuilder file = CVhdBuilder::Dynamic(800).Block(2, 'x').Block(5, 'x');
    const std::string path = file.WriteTo(m_Dir);
    for (const FaultOp op : {FaultOp::Open, FaultOp::Seek, FaultOp::Read}) {
        EXPECT_LE(1U, WalkFailures(op, [&] {
                      CArchiveVirtualDiskFile disk{VirtualProdType_HyperV};
                      return disk.Open(path.c_str(), DiskType_VhdDynamic);
                  }));
    }
    Open(file, DiskType_VhdDynamic);
    CAutoMemory<char> metadata;
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read}) {
        EXPECT_EQ(3U, WalkFailures(op, [&] { return m_Disk.GetFirstBlock(metadata, 0, m_Context); }));
        EXPECT_EQ(1U, WalkFailures(op, [&] { return m_Disk.ReadBlock(m_Block, 3, m_Context); }));
    }
    EXPECT_EQ(5U, m_Context.blockNumber);
    for (const FaultOp op : {FaultOp::Open, FaultOp::Seek, FaultOp::Write, FaultOp::Truncate}) {
        EXPECT_LE(1U, WalkFailures(op, [&] {
                      CZuError error = Create(file.Record(), DiskType_VhdDynamic, 0);
                      EXPECT_EQ(error.IsErrorSet() ? 0U : 9U, m_Context.blockSectors);
                      return error;
                  }));
    }
}

}  // namespace
