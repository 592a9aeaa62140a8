#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FakeVMInfo.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

#define EXPECT_END_OF_DISK(expression) EXPECT_CONDITION_TEXT(expression, 7, 5001, 1, "Read out of range")

namespace {

constexpr uint64_t Sector = 512;

// Numbers and bytes, in the order of the stream; an unchanged block has no bytes.
using ManagedBlocks_t = std::vector<std::pair<uint64_t, std::string>>;

class ArchiveVirtualDiskFileManaged : public testing::Test {
protected:
    ArchiveVirtualDiskFileManaged() : m_Server(PatternedBytes(100 * Sector)) {
        m_Disk.SetVMInfo(&m_Server, "first", "second");
        m_Disk.SetExtentSize(8);
    }

    void OnlyIn(const std::string& changeId, const std::vector<uint64_t>& sectors) {
        std::vector<VmdkFileStretch_t> stretches;
        for (const uint64_t sector : sectors)
            stretches.push_back({sector * Sector, 1});
        m_Server.Answer(changeId, 0, 100 * Sector, stretches);
    }

    ManagedBlocks_t Stream() {
        ManagedBlocks_t blocks;
        CAutoMemory<char> metadata;
        Context_t context{};
        EXPECT_OK(m_Disk.GetFirstBlock(metadata, 77, context));
        EXPECT_EQ(8U, context.blockSectors);
        for (;;) {
            CAutoMemory<char> block;
            uint64_t number = 0;
            const CZuError error = m_Disk.GetNextBlock(block, number, context);
            EXPECT_EQ(context.blockNumber, number);
            if (error.IsErrorSet()) {
                EXPECT_END_OF_DISK(error);
                m_NumberAtTheEnd = number;
                return blocks;
            }
            blocks.emplace_back(number, BytesOf(block));
        }
    }

    CZuError Write(const Context_t& context, uint64_t number, const std::string& bytes) {
        CAutoMemory<char> data = BufferOf(bytes);
        Context_t copy = context;
        return m_Disk.WriteBlock(data, number, copy);
    }

    std::string Block(uint64_t number) const { return m_Server.bytes.substr(number * 8 * Sector, 8 * Sector); }

    CFakeVMInfo m_Server;
    CTempDir m_Dir;  // outlives the disk, whose end alone closes a local file
    CArchiveVirtualDiskFile m_Disk{VirtualProdType_VMware};
    uint64_t m_NumberAtTheEnd = 0;
};

TEST_F(ArchiveVirtualDiskFileManaged, AllocatedBlocksComeAndOthersDoNot) {
    OnlyIn("", {3, 40, 99});
    ASSERT_OK(m_Disk.Open("disk", DiskType_VMInfoDisk));
    EXPECT_EQ("SetCurrVmdkFile(first|second|disk)", m_Server.calls.at(0));
    EXPECT_EQ((ManagedBlocks_t{{0, Block(0)}, {5, Block(5)}, {12, Block(12) + std::string(4 * Sector, '\0')}}),
              Stream());
    EXPECT_EQ(13U, m_NumberAtTheEnd);
}

TEST_F(ArchiveVirtualDiskFileManaged, ADiskWithNothingAllocatedEndsAtOnce) {
    OnlyIn("", {});
    ASSERT_OK(m_Disk.Open("disk", DiskType_VMInfoDisk));
    EXPECT_EQ(ManagedBlocks_t(), Stream());
    EXPECT_EQ(13U, m_NumberAtTheEnd);
}

TEST_F(ArchiveVirtualDiskFileManaged, ABlockThatHasNotChangedComesWithoutBytes) {
    OnlyIn("", {3, 40, 50});
    OnlyIn("id", {20, 41});
    m_Disk.SetChangeId("id");
    ASSERT_OK(m_Disk.Open("disk", DiskType_VMInfoDisk));
    EXPECT_EQ((ManagedBlocks_t{{0, ""}, {5, Block(5)}, {6, ""}}), Stream());
}

TEST_F(ArchiveVirtualDiskFileManaged, ARandomReaderGetsTheNextBlockThatIsThere) {
    OnlyIn("", {3, 40});
    ASSERT_OK(m_Disk.Open("disk", DiskType_VMInfoDisk));
    CAutoMemory<char> block;
    Context_t context{0, 8};
    ASSERT_OK(m_Disk.ReadBlock(block, 2, context));
    EXPECT_EQ(5U, context.blockNumber);
    EXPECT_SAME_BYTES(Block(5), BytesOf(block));
    EXPECT_END_OF_DISK(m_Disk.ReadBlock(block, 6, context));
}

TEST_F(ArchiveVirtualDiskFileManaged, ABufferSmallerThanABlockIsRefused) {
    ASSERT_OK(m_Disk.Open("disk", DiskType_VMInfoDisk));
    CAutoMemory<char> block;
    Context_t context{0, 7};
    EXPECT_REFUSED(m_Disk.ReadBlock(block, 0, context), "Block size 7 is less than the disk's block size 8");
}

TEST_F(ArchiveVirtualDiskFileManaged, TheFileNameIsTheServers) {
    ASSERT_OK(m_Disk.Open("disk", DiskType_VMInfoDisk));
    std::string name;
    m_Disk.GetFileName(name);
    EXPECT_EQ("server's name", name);
    ASSERT_OK(m_Disk.Close());
    m_Disk.GetFileName(name);
    EXPECT_EQ("", name);
}

TEST_F(ArchiveVirtualDiskFileManaged, AFailedReadIsPassedOnAndLeavesTheDiskOpen) {
    ASSERT_OK(m_Disk.Open("disk", DiskType_VMInfoDisk));
    m_Server.failing = "ReadCurrVmdkFile";
    CAutoMemory<char> block;
    Context_t context{0, 8};
    EXPECT_REFUSED(m_Disk.ReadBlock(block, 4, context), "Failed to ReadCurrVmdkFile.");
    EXPECT_EQ(4U, context.blockNumber);
    m_Server.failing.clear();
    EXPECT_OK(m_Disk.ReadBlock(block, 4, context));
}

TEST_F(ArchiveVirtualDiskFileManaged, AFailedOpenLeavesTheObjectClosed) {
    m_Server.failing = "GetCurrVmdkFileInfo";
    EXPECT_REFUSED(m_Disk.Open("disk", DiskType_VMInfoDisk), "Failed to GetCurrVmdkFileInfo.");
    m_Server.failing.clear();
    EXPECT_OK(m_Disk.Open("disk", DiskType_VMInfoDisk));
}

TEST_F(ArchiveVirtualDiskFileManaged, OnlyItsOwnProductServesIt) {
    for (const ProductType_t product : {VirtualProdType_HyperV, VirtualProdType_Physical}) {
        CArchiveVirtualDiskFile disk(product);
        disk.SetVMInfo(&m_Server, "", "");
        EXPECT_REFUSED(disk.Open("disk", DiskType_VMInfoDisk), "Disk type not supported 18");
    }
    CArchiveVirtualDiskFile disk(VirtualProdType_Physical);
    CAutoMemory<char> metadata;
    Context_t context{};
    EXPECT_REFUSED(disk.Create("disk", DiskType_VMInfoDisk, metadata, 8, context),
                   "Unknown disk type 18 for product type VirtualProdType_Physical");
}

TEST_F(ArchiveVirtualDiskFileManaged, ADiskIsMadeAgainFromItsStream) {
    ASSERT_OK(m_Disk.Open("disk", DiskType_VMInfoDisk));
    CAutoMemory<char> metadata;
    Context_t context{};
    ASSERT_OK(m_Disk.GetFirstBlock(metadata, 0, context));
    const ManagedBlocks_t blocks = Stream();
    ASSERT_OK(m_Disk.Close());

    CFakeVMInfo target;
    m_Disk = CArchiveVirtualDiskFile(VirtualProdType_VMware);
    m_Disk.SetVMInfo(&target, "", "");
    m_Disk.SetExtentSize(8);
    ASSERT_OK(m_Disk.Create("copy", DiskType_VMInfoDisk, metadata, 99, context));
    EXPECT_EQ(~uint64_t{0}, context.blockNumber);
    EXPECT_EQ(8U, context.blockSectors);
    for (const auto& [number, bytes] : blocks)
        ASSERT_OK(Write(context, number, bytes));
    EXPECT_SAME_BYTES(m_Server.bytes, target.bytes);
}

TEST_F(ArchiveVirtualDiskFileManaged, ADiskThatCannotBeWrittenIsAConditionOfTheFacade) {
    ASSERT_OK(m_Disk.Open("disk", DiskType_VMInfoDisk));
    m_Server.failing = "WriteCurrVmdkFile";
    m_Server.lastError = 303;
    const CZuError readOnly = Write({0, 8}, 0, "x");
    EXPECT_CONDITION_TEXT(readOnly, 7, 5001, 5, "Write to read only disk");
    EXPECT_EQ(1, m_Disk.IsErrorReadOnly(readOnly));
    m_Server.lastError = 28;
    EXPECT_REFUSED(Write({0, 8}, 0, "x"), "Failed to write to vmdk.");
    EXPECT_CONDITION(Write({0, 8}, 5000, "x"), 3, 3001, 1);
}

TEST_F(ArchiveVirtualDiskFileManaged, AFullFileSystemIsAConditionOfTheFacade) {
    CAutoMemory<char> metadata = BufferOf(MetadataRecordText("VDVWVD10", 101, ""));
    Context_t context{};
    m_Disk.SetVMInfo(nullptr, "", "");
    ASSERT_OK(m_Disk.Create((m_Dir.Path() + "\\d.vmdk").c_str(), DiskType_VMInfoDisk, metadata, 8, context));
    const CFaultyFiles faulty(Fault_t{FaultOp::Write, 0, 28});
    const CZuError noSpace = Write(context, 0, "x");
    EXPECT_CONDITION_TEXT(noSpace, 7, 5001, 4, "Write out of space");
    EXPECT_EQ(1, m_Disk.IsErrorNoSpace(noSpace));
}

TEST_F(ArchiveVirtualDiskFileManaged, ParsesTheSettingsOfItsOwnRecordsAlone) {
    DiskGeometry_t geometry{1, 2, 3};
    DiskProvisioningType_t provisioning = DiskProvisioning_Unknown;
    std::string texts[3];
    CAutoMemory<char> metadata = BufferOf(MetadataRecordText("VDVWVD10", 101, "uuid = \"7\";geometry.heads=5"));
    const auto parse = [&](DiskType_t type) {
        return m_Disk.ParseDiskMetaData(type, metadata, geometry, provisioning, texts[0], texts[1], texts[2]);
    };
    EXPECT_REFUSED(parse(NoDiskType), "unknown disk type");
    EXPECT_OK(parse(DiskType_VhdFixed));
    EXPECT_EQ(DiskProvisioning_Unknown, provisioning);
    EXPECT_OK(parse(DiskType_VMInfoDisk));
    EXPECT_EQ("7", texts[1]);
    EXPECT_EQ(5U, geometry.heads);
    EXPECT_EQ(DiskProvisioning_Thick, provisioning);
}

TEST_F(ArchiveVirtualDiskFileManaged, OfTheBlockSizeTheLow32BitsCount) {
    m_Disk.SetExtentSize((uint64_t{1} << 32U) + 16);
    ASSERT_OK(m_Disk.Open("disk", DiskType_VMInfoDisk));
    CAutoMemory<char> metadata;
    Context_t context{};
    ASSERT_OK(m_Disk.GetFirstBlock(metadata, 77, context));
    EXPECT_EQ(16U, context.blockSectors);
}

}  // namespace
