#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/CowdBuilder.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkSparseBuilder.h"

#define EXPECT_END_OF_DISK(expression) EXPECT_CONDITION_TEXT(expression, 7, 5001, 1, "Read out of range")

namespace {

constexpr char OutOfMemoryNext[] = "Out of memory (GetNextBlock)";
constexpr char OutOfMemoryRead[] = "Out of memory (ReadBlock)";
constexpr uint64_t NoBlock = ~uint64_t{0};

class ArchiveVirtualDiskFileStream : public testing::Test {
protected:
    void OpenSparse(const CVmdkSparseBuilder& file) {
        ASSERT_OK(m_Disk.Open(file.WriteTo(m_Dir).c_str(), DiskType_MonolithicSparse));
    }
    void OpenFlat(uint64_t sectors) {
        m_FlatBytes = PatternedBytes(sectors * 512);
        ASSERT_OK(m_Disk.Open(m_Dir.Write("flat", m_FlatBytes).c_str(), DiskType_MonolithicFlat));
    }

    CZuError Next() {
        CZuError error = m_Disk.GetNextBlock(m_Block, m_Number, m_Context);
        EXPECT_EQ(m_Context.blockNumber, m_Number) << "in every case";
        return error;
    }

    // The numbers and first bytes of the whole stream, and the block at which it ends.
    std::vector<std::pair<uint64_t, char>> Stream() {
        std::vector<std::pair<uint64_t, char>> blocks;
        for (;;) {
            const CZuError error = Next();
            if (error.IsErrorSet()) {
                EXPECT_END_OF_DISK(error);
                EXPECT_EQ(1, m_Disk.IsErrorEOF(error));
                return blocks;
            }
            EXPECT_EQ(m_Context.blockSectors * 512, m_Block.GetSize());
            blocks.emplace_back(m_Number, m_Block.GetPtr()[0]);
        }
    }

    using Blocks_t = std::vector<std::pair<uint64_t, char>>;

    CTempDir m_Dir;
    CArchiveVirtualDiskFile m_Disk{VirtualProdType_VMware};
    CAutoMemory<char> m_Block;
    uint64_t m_Number = 0;
    Context_t m_Context{NoBlock, 8};
    std::string m_FlatBytes;
};

TEST_F(ArchiveVirtualDiskFileStream, TheFirstBlockOfASparseDiskIsItsRecordAndTheGrainItsBlock) {
    const CVmdkSparseBuilder file = CVmdkSparseBuilder().GrainSize(16).Descriptor("text").Grain(3, 'x');
    const std::string path = file.WriteTo(m_Dir);
    for (const int type : {1, 2, 5}) {
        CArchiveVirtualDiskFile disk{VirtualProdType_VMware};
        ASSERT_OK(disk.Open(path.c_str(), DiskType_t(type)));
        CAutoMemory<char> metadata = BufferOf("what stood there before");
        m_Context = {5, 77};
        ASSERT_OK(disk.GetFirstBlock(metadata, 128, m_Context));
        EXPECT_EQ(NoBlock, m_Context.blockNumber);
        EXPECT_EQ(16U, m_Context.blockSectors) << "whatever is asked for";
        EXPECT_SAME_BYTES(file.Record(), BytesOf(metadata));
    }
}

TEST_F(ArchiveVirtualDiskFileStream, TheFirstBlockOfAFlatDiskIsItsRecordAndTheBlockIsTheOneAskedFor) {
    const std::string path = m_Dir.WriteHole("hole", 0x321 * 512);
    for (const int type : {3, 6}) {
        CArchiveVirtualDiskFile disk{VirtualProdType_VMware};
        ASSERT_OK(disk.Open(path.c_str(), DiskType_t(type)));
        for (const unsigned int blockSectors : {1U, 128U, 0xFFFFFFFFU, 0U}) {
            CAutoMemory<char> metadata;
            m_Context = {5, 77};
            ASSERT_OK(disk.GetFirstBlock(metadata, blockSectors, m_Context));
            EXPECT_EQ(NoBlock, m_Context.blockNumber);
            EXPECT_EQ(blockSectors, m_Context.blockSectors);
            EXPECT_SAME_BYTES(MetadataRecordText("VDVWFT10", 0x321, ""), BytesOf(metadata));
        }
    }
}

TEST_F(ArchiveVirtualDiskFileStream, OnlyAllocatedGrainsCome) {
    OpenSparse(CVmdkSparseBuilder().Capacity(3 * 4096).NoTable(1).Grain(1030, 'c').Grain(0, 'a').Grain(511, 'b'));
    EXPECT_EQ((Blocks_t{{0, 'a'}, {511, 'b'}, {1030, 'c'}}), Stream());
    EXPECT_EQ(3U * 512, m_Context.blockNumber) << "the block behind the tables";
}

TEST_F(ArchiveVirtualDiskFileStream, TheFirstAllocatedGrainComesFirstUnderItsOwnNumber) {
    OpenSparse(CVmdkSparseBuilder().Grain(7, 'x'));
    ASSERT_OK(Next());
    EXPECT_EQ(7U, m_Number);
    EXPECT_SAME_BYTES(std::string(4096, 'x'), BytesOf(m_Block));
}

TEST_F(ArchiveVirtualDiskFileStream, ADiskWithoutAllocatedGrainsEndsAtOnce) {
    OpenSparse(CVmdkSparseBuilder());
    EXPECT_EQ(Blocks_t{}, Stream());
}

TEST_F(ArchiveVirtualDiskFileStream, ADiskOfNoSectorsEndsAtOnce) {
    OpenSparse(CVmdkSparseBuilder().Capacity(0));
    EXPECT_EQ(Blocks_t{}, Stream());
    EXPECT_EQ(0U, m_Number);
}

// The tables end the stream and not the capacity.
TEST_F(ArchiveVirtualDiskFileStream, GrainsBehindTheCapacityComeToo) {
    OpenSparse(CVmdkSparseBuilder().Capacity(100).Grain(12, 'l').Grain(13, 'b').Grain(511, 'z'));
    EXPECT_EQ((Blocks_t{{12, 'l'}, {13, 'b'}, {511, 'z'}}), Stream());
}

TEST_F(ArchiveVirtualDiskFileStream, ACowdDiskStreamsItsGrains) {
    const CCowdBuilder file = CCowdBuilder().Capacity(3 * 4096).NoTable(0).Grain(4100, 'x').Grain(12287, 'y');
    ASSERT_OK(m_Disk.Open(file.WriteTo(m_Dir).c_str(), DiskType_VmfsSparse));
    CAutoMemory<char> metadata;
    ASSERT_OK(m_Disk.GetFirstBlock(metadata, 128, m_Context));
    EXPECT_EQ(1U, m_Context.blockSectors);
    EXPECT_SAME_BYTES(file.Record(), BytesOf(metadata));
    EXPECT_EQ((Blocks_t{{4100, 'x'}, {12287, 'y'}}), Stream());
}

TEST_F(ArchiveVirtualDiskFileStream, AFlatDiskComesWhole) {
    OpenFlat(24);
    std::string disk;
    for (uint64_t number = 0; number < 3; ++number) {
        ASSERT_OK(Next());
        EXPECT_EQ(number, m_Number);
        disk += BytesOf(m_Block);
    }
    EXPECT_SAME_BYTES(m_FlatBytes, disk);
    EXPECT_END_OF_DISK(Next());
    EXPECT_EQ(3U, m_Number);
}

TEST_F(ArchiveVirtualDiskFileStream, TheEndComesAgainAndTheNumberGoesOn) {
    OpenFlat(8);
    ASSERT_OK(Next());
    EXPECT_END_OF_DISK(Next());
    EXPECT_END_OF_DISK(Next());
    EXPECT_EQ(2U, m_Number);
}

// Callers rely on the failure being the file's own: it isn't the end of the disk.
TEST_F(ArchiveVirtualDiskFileStream, AFlatDiskThatIsNoMultipleOfTheBlockFailsInItsLastBlock) {
    OpenFlat(9);
    ASSERT_OK(Next());
    const CZuError error = Next();
    EXPECT_TRUE(error.IsErrorSet());
    EXPECT_EQ(0, m_Disk.IsErrorEOF(error)) << error.ConvertToString();
    EXPECT_EQ(1U, m_Number);
    // A context of smaller blocks reads the rest.
    m_Context = {7, 1};
    ASSERT_OK(Next());
    EXPECT_SAME_BYTES(m_FlatBytes.substr(8 * 512), BytesOf(m_Block));
    EXPECT_END_OF_DISK(Next());
}

TEST_F(ArchiveVirtualDiskFileStream, ABlockSizeOf0IsOutOfMemory) {
    OpenFlat(8);
    CAutoMemory<char> metadata;
    ASSERT_OK(m_Disk.GetFirstBlock(metadata, 0, m_Context));
    EXPECT_REFUSED(Next(), OutOfMemoryNext);
    EXPECT_EQ(NoBlock, m_Number);
    EXPECT_REFUSED(m_Disk.ReadBlock(m_Block, 3, m_Context), OutOfMemoryRead);
    EXPECT_EQ(3U, m_Context.blockNumber);
}

TEST_F(ArchiveVirtualDiskFileStream, ABlockSizeOf4GiBOrMoreIsOutOfMemory) {
    OpenFlat(8);
    for (const uint64_t sectors : {uint64_t{1} << 23U, (uint64_t{1} << 32U) + 8, uint64_t{1} << 55U, ~uint64_t{0}}) {
        SCOPED_TRACE(sectors);
        m_Context = {2, sectors};
        EXPECT_REFUSED(Next(), OutOfMemoryNext);
        EXPECT_EQ(2U, m_Number);
        EXPECT_REFUSED(m_Disk.ReadBlock(m_Block, 4, m_Context), OutOfMemoryRead);
        EXPECT_EQ(4U, m_Context.blockNumber);
        EXPECT_EQ(0U, m_Block.GetSize());
    }
}

TEST_F(ArchiveVirtualDiskFileStream, BlocksSmallerThanTheGrainAreRefusedBeforeTheReaderWrites) {
    OpenSparse(CVmdkSparseBuilder().Grain(0, 'x'));
    for (const uint64_t sectors : {1U, 7U}) {
        m_Context = {NoBlock, sectors};
        EXPECT_EQ(4U, Next().GetErrorType());
        EXPECT_EQ(4U, m_Disk.ReadBlock(m_Block, 0, m_Context).GetErrorType());
    }
    m_Context = {NoBlock, 8};
    EXPECT_OK(Next());
}

TEST_F(ArchiveVirtualDiskFileStream, LargerBlocksHoldTheGrainInFront) {
    OpenSparse(CVmdkSparseBuilder().Grain(3, 'x'));
    m_Context = {NoBlock, 10};
    ASSERT_OK(Next());
    EXPECT_EQ(10U * 512, m_Block.GetSize());
    EXPECT_SAME_BYTES(std::string(4096, 'x'), BytesOf(m_Block).substr(0, 4096));
}

TEST_F(ArchiveVirtualDiskFileStream, AContextMadeByHandGivesTheSameStream) {
    OpenSparse(CVmdkSparseBuilder().Grain(2, 'x').Grain(9, 'y'));
    m_Context = {NoBlock, 8};
    EXPECT_EQ((Blocks_t{{2, 'x'}, {9, 'y'}}), Stream());
    m_Context = {2, 8};
    EXPECT_EQ((Blocks_t{{9, 'y'}}), Stream());
}

TEST_F(ArchiveVirtualDiskFileStream, ABufferIsReusedFromBlockToBlock) {
    OpenFlat(64);
    ASSERT_OK(Next());
    const char* const first = m_Block.GetPtr();
    for (int block = 1; block < 8; ++block) {
        ASSERT_OK(Next());
        EXPECT_EQ(first, m_Block.GetPtr());
    }
}

TEST_F(ArchiveVirtualDiskFileStream, ReadBlockGivesTheBlockAskedFor) {
    OpenFlat(32);
    for (const uint64_t number : {3U, 0U, 2U}) {
        ASSERT_OK(m_Disk.ReadBlock(m_Block, number, m_Context));
        EXPECT_EQ(number, m_Context.blockNumber);
        EXPECT_SAME_BYTES(m_FlatBytes.substr(number * 4096, 4096), BytesOf(m_Block));
    }
    EXPECT_END_OF_DISK(m_Disk.ReadBlock(m_Block, 4, m_Context));
    EXPECT_EQ(4U, m_Context.blockNumber);
}

// The caller looks at the context to see which block it got.
TEST_F(ArchiveVirtualDiskFileStream, ReadBlockOfAHoleGivesTheNextAllocatedBlock) {
    OpenSparse(CVmdkSparseBuilder().Capacity(2 * 4096).Grain(2, 'x').Grain(700, 'y'));
    ASSERT_OK(m_Disk.ReadBlock(m_Block, 3, m_Context));
    EXPECT_EQ(700U, m_Context.blockNumber);
    EXPECT_SAME_BYTES(std::string(4096, 'y'), BytesOf(m_Block));
    EXPECT_END_OF_DISK(m_Disk.ReadBlock(m_Block, 701, m_Context));
    EXPECT_EQ(1024U, m_Context.blockNumber);
    EXPECT_END_OF_DISK(m_Disk.ReadBlock(m_Block, NoBlock - 1, m_Context));
    EXPECT_EQ(NoBlock - 1, m_Context.blockNumber);
}

TEST_F(ArchiveVirtualDiskFileStream, TheStreamGoesOnFromTheBlockThatReadBlockLeft) {
    OpenSparse(CVmdkSparseBuilder().Grain(2, 'x').Grain(5, 'y').Grain(9, 'z'));
    ASSERT_OK(m_Disk.ReadBlock(m_Block, 3, m_Context));
    EXPECT_EQ((Blocks_t{{9, 'z'}}), Stream());
}

TEST_F(ArchiveVirtualDiskFileStream, ReadBlockOfAllOnesEndsAndTheStreamBeginsAnew) {
    OpenSparse(CVmdkSparseBuilder().Grain(2, 'x'));
    EXPECT_END_OF_DISK(m_Disk.ReadBlock(m_Block, NoBlock, m_Context));
    EXPECT_EQ(NoBlock, m_Context.blockNumber);
    EXPECT_EQ((Blocks_t{{2, 'x'}}), Stream());
}

TEST_F(ArchiveVirtualDiskFileStream, ABlockNumberWhoseProductWrapsIsTheEnd) {
    OpenFlat(32);
    EXPECT_END_OF_DISK(m_Disk.ReadBlock(m_Block, uint64_t{1} << 61U, m_Context));
}

TEST_F(ArchiveVirtualDiskFileStream, EveryFailureOfTheMachineIsPassedOnAndTheStreamCanGoOn) {
    OpenSparse(CVmdkSparseBuilder().Grain(2, 'x').Grain(5, 'y'));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read}) {
        const unsigned int failures = WalkFailures(op, [&] {
            m_Context.blockNumber = NoBlock;
            CZuError error = Next();
            EXPECT_EQ(2U, m_Number) << "the block that failed";
            return error;
        });
        EXPECT_EQ(1U, failures);
        EXPECT_EQ(1U, WalkFailures(op, [&] { return m_Disk.ReadBlock(m_Block, 4, m_Context); }));
    }
    m_Context.blockNumber = NoBlock;
    EXPECT_EQ((Blocks_t{{2, 'x'}, {5, 'y'}}), Stream());
}

TEST_F(ArchiveVirtualDiskFileStream, AFailedFirstBlockIsNotPossibleOnceTheDiskIsOpen) {
    OpenSparse(CVmdkSparseBuilder().Grain(2, 'x'));
    const CFaultyFiles counting;
    CAutoMemory<char> metadata;
    ASSERT_OK(m_Disk.GetFirstBlock(metadata, 8, m_Context));
    for (const FaultOp op : {FaultOp::Open, FaultOp::Seek, FaultOp::Read, FaultOp::Size})
        EXPECT_EQ(0U, counting.Calls(op));
}

TEST_F(ArchiveVirtualDiskFileStream, ManyHolesAreSkippedWithoutTouchingTheFile) {
    const CFaultyFiles counting;
    OpenSparse(CVmdkSparseBuilder().GrainSize(1).Capacity(400 * 512).Grain(204799, 'x'));
    m_Context.blockSectors = 1;
    const unsigned int readsBefore = counting.Calls(FaultOp::Read);
    const unsigned int seeksBefore = counting.Calls(FaultOp::Seek);
    ASSERT_OK(Next());
    EXPECT_EQ(204799U, m_Number);
    EXPECT_EQ(readsBefore + 1, counting.Calls(FaultOp::Read));
    EXPECT_EQ(seeksBefore + 1, counting.Calls(FaultOp::Seek));
}

TEST_F(ArchiveVirtualDiskFileStream, ACopyOfAnOpenDiskStreamsTheSame) {
    OpenSparse(CVmdkSparseBuilder().Grain(2, 'x').Grain(5, 'y'));
    ASSERT_OK(Next());
    CArchiveVirtualDiskFile copy(m_Disk);
    ASSERT_OK(copy.GetNextBlock(m_Block, m_Number, m_Context));
    EXPECT_EQ(5U, m_Number);
    CArchiveVirtualDiskFile assigned{VirtualProdType_Physical};
    assigned = m_Disk;
    m_Context.blockNumber = NoBlock;
    ASSERT_OK(assigned.GetNextBlock(m_Block, m_Number, m_Context));
    EXPECT_SAME_BYTES(std::string(4096, 'x'), BytesOf(m_Block));
}

TEST_F(ArchiveVirtualDiskFileStream, TwoDisksGoOnIndependently) {
    OpenSparse(CVmdkSparseBuilder().Grain(2, 'x').Grain(5, 'y'));
    CArchiveVirtualDiskFile other{VirtualProdType_VMware};
    ASSERT_OK(other.Open(m_Dir.WriteHole("hole", 4096 * 4).c_str(), DiskType_MonolithicFlat));
    Context_t otherContext{NoBlock, 8};
    ASSERT_OK(Next());
    EXPECT_EQ(2U, m_Number);
    uint64_t otherNumber = 0;
    ASSERT_OK(other.GetNextBlock(m_Block, otherNumber, otherContext));
    EXPECT_EQ(0U, otherNumber);
    EXPECT_OK(other.Close());
    EXPECT_EQ((Blocks_t{{5, 'y'}}), Stream());
}

}  // namespace
