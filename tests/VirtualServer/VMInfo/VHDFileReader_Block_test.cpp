#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/VHDFileReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VhdBuilder.h"

#define EXPECT_END_OF_DISK(expression) EXPECT_CONDITION(expression, 3, 4001, 1)
#define EXPECT_NOT_ALLOCATED(expression) EXPECT_CONDITION(expression, 3, 4001, 2)

namespace {

constexpr char NoOpenDisk[] = "Object is in invalid state. Make sure OpenDisk succeeded";

class VHDFileReaderBlock : public testing::Test {
protected:
    void Open(const CVhdBuilder& file, DiskType_t type = DiskType_VhdDynamic) {
        ASSERT_OK(m_Reader.OpenDisk(file.WriteTo(m_Dir).c_str(), type));
    }
    void OpenFixed(uint64_t sectors) {
        m_Bytes = PatternedBytes(sectors * 512);
        Open(CVhdBuilder::Fixed(sectors).Data(0, m_Bytes), DiskType_VhdFixed);
    }

    CZuError Read(uint64_t index, uint32_t blockSectors) {
        m_Got = 77;
        m_Block.assign(m_Block.size(), '?');
        return m_Reader.ReadBlock(index, m_Block.data(), blockSectors, m_Got);
    }

    // What block `index` delivers, by the count that the reader gives.
    std::string ReadBlock(uint64_t index, uint32_t blockSectors) {
        EXPECT_OK(Read(index, blockSectors)) << index;
        EXPECT_EQ('?', m_Block.at(size_t{m_Got} * 512)) << "nothing behind what it says";
        return m_Block.substr(0, size_t{m_Got} * 512);
    }

    CTempDir m_Dir;
    CVHDFileReader m_Reader;
    std::string m_Bytes;
    std::string m_Block = std::string(1 << 16, '\0');
    unsigned int m_Got = 0;
};

TEST_F(VHDFileReaderBlock, ABlockOfADynamicDiskComesAsItLiesInTheFile) {
    const CVhdBuilder file = CVhdBuilder::Dynamic(80).Block(4, PatternedBytes(4096)).Block(0, 'a').Bitmap(4, "\x01");
    Open(file);
    EXPECT_SAME_BYTES(file.BlockBytes(4), ReadBlock(4, 9)) << "the bits aren't looked at";
    EXPECT_EQ(9U, m_Got);
    EXPECT_SAME_BYTES(file.BlockBytes(0), ReadBlock(0, 9));
}

TEST_F(VHDFileReaderBlock, ABlockWithoutASingleBitComesToo) {
    const CVhdBuilder file = CVhdBuilder::Dynamic(80).Block(2, 'x').Bitmap(2, "");
    Open(file);
    EXPECT_SAME_BYTES(file.BlockBytes(2), ReadBlock(2, 9));
}

TEST_F(VHDFileReaderBlock, AHoleIsNotAllocated) {
    Open(CVhdBuilder::Dynamic(80).Block(2, 'x'));
    for (const uint64_t index : {0U, 1U, 3U}) {
        const CZuError error = Read(index, 9);
        EXPECT_NOT_ALLOCATED(error);
        EXPECT_EQ(1, m_Reader.IsErrorSectorNotFound(error));
        EXPECT_EQ(0U, m_Got);
    }
}

TEST_F(VHDFileReaderBlock, ADynamicDiskKnowsItsOwnBlockSizeAlone) {
    Open(CVhdBuilder::Dynamic(80).Block(0, 'x'));
    for (const uint32_t size : {0U, 1U, 8U, 10U, 0xFFFFFFFFU}) {
        EXPECT_REFUSED(Read(0, size), ("Dynamic disk block size " + std::to_string(size) +
                                       "(sectors) does not match the input size 9(sectors)")
                                          .c_str());
        EXPECT_EQ(0U, m_Got);
    }
    EXPECT_REFUSED(Read(~uint64_t{0}, 8), "Dynamic disk block size 8(sectors) does not match the input size 9(sectors)")
        << "before the range";
}

// Block 8 would begin at sector 72 by the size with the bitmap, block 9 at 81: behind sector 79.
TEST_F(VHDFileReaderBlock, TheEndOfADynamicDiskGoesByTheSizeWithTheBitmap) {
    Open(CVhdBuilder::Dynamic(80).Block(8, 'x').Block(9, 'y'));
    EXPECT_OK(Read(8, 9));
    const CZuError error = Read(9, 9);
    EXPECT_END_OF_DISK(error);
    EXPECT_EQ(1, m_Reader.IsErrorEOF(error));
    EXPECT_EQ(0U, m_Got);
    char sector[512];
    EXPECT_OK(m_Reader.ReadSector(79, sector, 512)) << "by sector the last block is there";
    EXPECT_EQ('y', sector[0]);
}

TEST_F(VHDFileReaderBlock, ABlockThatBeginsAtTheLastSectorIsInside) {
    Open(CVhdBuilder::Dynamic(73).Entries(20).Block(8, 'x').Block(9, 'y'));
    EXPECT_OK(Read(8, 9)) << "9 * 8 is the last sector";
    EXPECT_END_OF_DISK(Read(9, 9));
    Open(CVhdBuilder::Dynamic(72).Entries(20).Block(8, 'x'));
    EXPECT_END_OF_DISK(Read(8, 9)) << "one sector less";
}

TEST_F(VHDFileReaderBlock, ATableThatIsTooShortEndsTheDisk) {
    Open(CVhdBuilder::Dynamic(800).Entries(3).Block(2, 'x'));
    EXPECT_OK(Read(2, 9));
    EXPECT_END_OF_DISK(Read(3, 9));
    EXPECT_END_OF_DISK(Read(80, 9));
}

TEST_F(VHDFileReaderBlock, AFixedDiskComesInBlocksOfAnySize) {
    OpenFixed(25);
    EXPECT_SAME_BYTES(m_Bytes.substr(0, 8 * 512), ReadBlock(0, 8));
    EXPECT_SAME_BYTES(m_Bytes.substr(8 * 512, 8 * 512), ReadBlock(1, 8));
    EXPECT_SAME_BYTES(m_Bytes.substr(20 * 512, 512), ReadBlock(20, 1));
    EXPECT_EQ(1U, m_Got);
}

// Callers rely on it: what a stream of a fixed disk delivers is one sector short.
TEST_F(VHDFileReaderBlock, TheLastBlockOfAFixedDiskLacksItsLastSector) {
    OpenFixed(24);
    EXPECT_SAME_BYTES(m_Bytes.substr(16 * 512, 7 * 512), ReadBlock(2, 8)) << "a whole number of blocks";
    EXPECT_EQ(7U, m_Got);
    EXPECT_END_OF_DISK(Read(3, 8));
    EXPECT_EQ(0U, m_Got);
    EXPECT_SAME_BYTES(m_Bytes.substr(20 * 512, 3 * 512), ReadBlock(1, 20)) << "a partial block";
    EXPECT_SAME_BYTES(m_Bytes.substr(0, 23 * 512), ReadBlock(0, 24));
    EXPECT_SAME_BYTES(m_Bytes.substr(0, 23 * 512), ReadBlock(0, 25));
    EXPECT_SAME_BYTES(m_Bytes.substr(0, 23 * 512), ReadBlock(0, 100));
    EXPECT_SAME_BYTES(m_Bytes.substr(0, 23 * 512), ReadBlock(0, 23)) << "ends in front of the last sector";
}

TEST_F(VHDFileReaderBlock, ABlockThatBeginsAtTheLastSectorOfAFixedDiskIsEmpty) {
    OpenFixed(17);
    EXPECT_SAME_BYTES("", ReadBlock(2, 8));
    EXPECT_EQ(0U, m_Got);
    EXPECT_END_OF_DISK(Read(3, 8));
    EXPECT_SAME_BYTES("", ReadBlock(16, 1));
}

TEST_F(VHDFileReaderBlock, AnIndexWhoseSectorPasses64BitsIsBehindTheEnd) {
    OpenFixed(24);
    EXPECT_END_OF_DISK(Read(uint64_t{1} << 61U, 8)) << "its sector would be 0";
    EXPECT_END_OF_DISK(Read(~uint64_t{0}, 2));
    Open(CVhdBuilder::Dynamic(80).Block(0, 'x'));
    EXPECT_END_OF_DISK(Read(~uint64_t{0}, 9));
    EXPECT_END_OF_DISK(Read((~uint64_t{0}) / 9 + 1, 9));
}

TEST_F(VHDFileReaderBlock, ADiskOfASingleSectorHasNoBlocks) {
    OpenFixed(1);
    for (const uint32_t blockSectors : {1U, 8U})
        EXPECT_END_OF_DISK(Read(0, blockSectors));
    Open(CVhdBuilder::Dynamic(1).Block(0, 'x'));
    EXPECT_END_OF_DISK(Read(0, 9));
}

TEST_F(VHDFileReaderBlock, ADiskOfNoSectorsHasNoBlocks) {
    for (const uint64_t size : {0U, 511U}) {
        Open(CVhdBuilder::Fixed(8).CurrentSize(size), DiskType_VhdFixed);
        EXPECT_END_OF_DISK(Read(0, 8));
        Open(CVhdBuilder::Dynamic(8).Block(0, 'x').CurrentSize(size));
        EXPECT_END_OF_DISK(Read(0, 9));
    }
}

TEST_F(VHDFileReaderBlock, ABlockSizeBelowASectorIsTheBitmapAlone) {
    Open(CVhdBuilder::Dynamic(8).Entries(8).Header(32, BigEndianBytes(511, 4)).PutEntry(2, 3));
    EXPECT_EQ(1U, m_Reader.GetBlockSize());
    EXPECT_SAME_BYTES(std::string(8, '\xFF') + BigEndianBytes(3, 4), ReadBlock(2, 1).substr(0, 12))
        << "sector 3 is the table";
}

TEST_F(VHDFileReaderBlock, TheNextHeldBlockIsTheOneThatReadsWouldFind) {
    const struct {
        const char* name;
        CVhdBuilder file;
    } rows[] = {
        {"some blocks", CVhdBuilder::Dynamic(800).Block(7, 'x').Block(2, 'y').Block(80, 'z')},
        {"no block", CVhdBuilder::Dynamic(800)},
        {"a block behind the end", CVhdBuilder::Dynamic(800).Block(89, 'x').Block(99, 'y')},
        {"a table shorter than the disk", CVhdBuilder::Dynamic(800).Entries(20).Block(3, 'x')},
        {"a table longer than the disk", CVhdBuilder::Dynamic(80).Entries(200).Block(150, 'x')},
        {"a block at the last sector", CVhdBuilder::Dynamic(73).Entries(20).Block(8, 'x')},
        {"a disk of one sector", CVhdBuilder::Dynamic(1)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Open(row.file);
        uint64_t next = 0;
        for (uint64_t index = 0; index < 210; ++index) {
            const bool isHole = m_Reader.IsErrorSectorNotFound(Read(index, 9)) != 0;
            next = std::max(index, next);
            while (m_Reader.IsErrorSectorNotFound(Read(next, 9)) != 0)
                ++next;
            if (isHole) {
                EXPECT_EQ(next, m_Reader.NextHeldBlock(index)) << index;
            }
        }
    }
}

TEST_F(VHDFileReaderBlock, ABlockReadNeitherUsesNorFillsTheCacheOfBitmaps) {
    Open(CVhdBuilder::Dynamic(80).Block(2, 'x'));
    char sector[512];
    {
        const CFaultyFiles counting;
        EXPECT_OK(Read(2, 9));
        EXPECT_EQ((std::vector<uint32_t>{9 * 512}), counting.Sizes(FaultOp::Read)) << "bitmap and data come together";
    }
    {
        const CFaultyFiles counting;
        EXPECT_OK(m_Reader.ReadSector(16, sector, 512));
        EXPECT_EQ(2U, counting.Calls(FaultOp::Read));
    }
    const CFaultyFiles counting;
    EXPECT_OK(Read(2, 9));
    EXPECT_EQ((std::vector<uint32_t>{9 * 512}), counting.Sizes(FaultOp::Read));
}

TEST_F(VHDFileReaderBlock, AClosedObjectIsRefused) {
    EXPECT_REFUSED(Read(0, 8), NoOpenDisk);
    EXPECT_EQ(0U, m_Got);
}

TEST_F(VHDFileReaderBlock, ABlockThatLeavesTheFileFailsAndIsNoEnd) {
    Open(CVhdBuilder::Dynamic(80).Block(2, 'x').PutEntry(3, 0x7FFFFFFF).PutEntry(4, 0xFFFFFFFE));
    for (const uint64_t index : {3U, 4U}) {
        const CZuError error = Read(index, 9);
        EXPECT_FAILURE(error);
        EXPECT_EQ(0, m_Reader.IsErrorEOF(error));
        EXPECT_EQ(0, m_Reader.IsErrorSectorNotFound(error));
        EXPECT_EQ(0U, m_Got);
    }
    EXPECT_OK(Read(2, 9));
}

TEST_F(VHDFileReaderBlock, EveryFailureReachesTheCaller) {
    Open(CVhdBuilder::Dynamic(80).Block(2, 'x'));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return Read(2, 9); }));
    OpenFixed(24);
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read}) {
        EXPECT_EQ(1U, WalkFailures(op, [&] { return Read(1, 8); }));
        const CFaultyFiles faulty(Fault_t{op, 0, 5});
        EXPECT_FAILURE(Read(1, 8));
        EXPECT_EQ(0U, m_Got);
    }
}

}  // namespace
