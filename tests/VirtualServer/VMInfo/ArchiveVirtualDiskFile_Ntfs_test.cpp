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
#include "tests/support/FakeVolumeControl.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/ImageFile.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

#define EXPECT_END_OF_DISK(expression) EXPECT_CONDITION_TEXT(expression, 7, 5001, 1, "Read out of range")

namespace {

constexpr uint64_t BlockClusters = 8192;
constexpr uint64_t BlockBytes = BlockClusters * 512;

using VolumeBlocks_t = std::vector<std::pair<uint64_t, uint64_t>>;  // numbers and bytes

// An NTFS volume behind the door to all disks: four whole blocks and 10 clusters.
class ArchiveVirtualDiskFileNtfs : public testing::Test {
protected:
    static constexpr uint64_t Clusters = 4 * BlockClusters + 10;

    std::string Volume(const std::string& name = "volume") {
        m_Image.Resize(Clusters * 512);
        return m_Image.WriteTo(m_Dir, name);
    }
    CZuError Open() { return m_Disk.Open(Volume().c_str(), DiskType_NTFSVolume); }

    CZuError First() { return m_Disk.GetFirstBlock(m_Metadata, 77, m_Context); }
    CZuError Next() { return m_Disk.GetNextBlock(m_Block, m_Number, m_Context); }

    VolumeBlocks_t Stream() {
        VolumeBlocks_t blocks;
        EXPECT_OK(First());
        for (;;) {
            const CZuError error = Next();
            EXPECT_EQ(m_Context.blockNumber, m_Number);
            if (error.IsErrorSet()) {
                EXPECT_END_OF_DISK(error);
                return blocks;
            }
            blocks.emplace_back(m_Number, m_Block.GetSize());
        }
    }

    CTempDir m_Dir;
    CImageFile m_Image;
    CFakeVolumeControl m_Control{Clusters};
    CArchiveVirtualDiskFile m_Disk{VirtualProdType_Physical};
    CAutoMemory<char> m_Metadata;
    CAutoMemory<char> m_Block;
    uint64_t m_Number = 0;
    Context_t m_Context{};
};

TEST_F(ArchiveVirtualDiskFileNtfs, TheStreamHasTheBlocksInUseAndEndsWithTheVolume) {
    m_Control.Use(1);
    m_Control.Use(3 * BlockClusters - 1);
    m_Control.Use(4 * BlockClusters + 9);
    ASSERT_OK(Open());
    EXPECT_EQ((VolumeBlocks_t{{0, BlockBytes}, {2, BlockBytes}, {4, 10 * 512}}), Stream());
    EXPECT_EQ(BlockClusters, m_Context.blockSectors) << "the volume's own, whatever was asked for";
    EXPECT_EQ(MetadataRecordText("VDNTFS10", Clusters, HexDigits(512, 16) + HexDigits(BlockClusters, 16)),
              BytesOf(m_Metadata));
    EXPECT_EQ(5U, m_Number);
}

TEST_F(ArchiveVirtualDiskFileNtfs, AVolumeWithNothingInUseEndsAtOnce) {
    ASSERT_OK(Open());
    EXPECT_TRUE(Stream().empty());
}

TEST_F(ArchiveVirtualDiskFileNtfs, AFreeBlockGivesTheNextOneInUse) {
    m_Control.Use(3 * BlockClusters);
    const std::string bytes = PatternedBytes(BlockBytes);
    m_Image.Put(3 * BlockBytes, bytes);
    ASSERT_OK(Open());
    ASSERT_OK(First());
    EXPECT_OK(m_Disk.ReadBlock(m_Block, 1, m_Context));
    EXPECT_EQ(3U, m_Context.blockNumber);
    EXPECT_SAME_BYTES(bytes, BytesOf(m_Block));
    EXPECT_END_OF_DISK(Next());
}

TEST_F(ArchiveVirtualDiskFileNtfs, ABufferBelowTheVolumesBlockIsRefused) {
    m_Control.Use(0);
    ASSERT_OK(Open());
    ASSERT_OK(First());
    --m_Context.blockSectors;
    EXPECT_REFUSED(Next(), "Block size 8191 is less than the volume's block size 8192");
    m_Context = {~uint64_t{0}, 0};
    EXPECT_REFUSED(Next(), "Out of memory (GetNextBlock)");
    m_Context = {~uint64_t{0}, 2 * BlockClusters};
    EXPECT_OK(Next());
    EXPECT_EQ(BlockBytes, m_Block.GetSize());
}

TEST_F(ArchiveVirtualDiskFileNtfs, AFailureStaysOnItsBlock) {
    m_Control.Use(2 * BlockClusters);
    ASSERT_OK(Open());
    ASSERT_OK(First());
    const CFaultyFiles faulty(Fault_t{FaultOp::Read, 0, EIO});
    EXPECT_SYSTEM_ERROR(Next(), EIO);
    EXPECT_EQ(2U, m_Number);
    EXPECT_OK(m_Disk.ReadBlock(m_Block, m_Number, m_Context)) << "it can be asked for again";
}

TEST_F(ArchiveVirtualDiskFileNtfs, AVolumeIsMadeFromItsStream) {
    m_Control.Use(2 * BlockClusters);
    const std::string bytes = PatternedBytes(BlockBytes);
    m_Image.Put(2 * BlockBytes, bytes);
    ASSERT_OK(Open());
    ASSERT_OK(First());
    ASSERT_OK(Next());
    m_Image = CImageFile();
    CArchiveVirtualDiskFile target{VirtualProdType_Physical};
    Context_t context{5, 5};
    ASSERT_OK(target.Create(Volume("target").c_str(), DiskType_NTFSVolume, m_Metadata, 77, context));
    EXPECT_EQ(~uint64_t{0}, context.blockNumber);
    EXPECT_EQ(BlockClusters, context.blockSectors);
    EXPECT_OK(target.WriteBlock(m_Block, m_Number, context));
    EXPECT_OK(target.SetDiskSize(1)) << "heeded by physical disks alone";
    EXPECT_OK(target.Close());
    EXPECT_SAME_BYTES(m_Dir.Read("volume"), m_Dir.Read("target"));
}

TEST_F(ArchiveVirtualDiskFileNtfs, ATargetThatIsRefusedIsNotOpen) {
    CAutoMemory<char> record =
        BufferOf(MetadataRecordText("VDNTFS10", Clusters, HexDigits(512, 16) + HexDigits(BlockClusters, 16)));
    m_Control.lockError = EBUSY;
    EXPECT_SYSTEM_ERROR(m_Disk.Create(Volume().c_str(), DiskType_NTFSVolume, record, 0, m_Context), EBUSY);
    EXPECT_EQ(0U, m_Context.blockSectors);
    EXPECT_REFUSED(m_Disk.WriteBlock(record, 0, m_Context), "No file is open. Make sure Open succeeded");
}

TEST_F(ArchiveVirtualDiskFileNtfs, CloseLetsTheVolumeGo) {
    m_Control.Use(0);
    ASSERT_OK(Open());
    const CFaultyFiles counting;
    EXPECT_OK(m_Disk.Close());
    EXPECT_EQ(1U, counting.Calls(FaultOp::Close));
    EXPECT_REFUSED(Next(), "No file is open. Make sure Open succeeded");
    std::string name = "x";
    m_Disk.GetFileName(name);
    EXPECT_EQ("", name);
}

}  // namespace
