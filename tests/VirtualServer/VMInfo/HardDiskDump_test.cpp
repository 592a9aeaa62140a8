#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "VirtualServer/VMInfo/VHDFileReader.h"
#include "VirtualServer/VMInfo/VmdkFileReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/HardDisks.h"
#include "tests/support/SameBytes.h"
#include "tests/support/SparseDumpText.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkSparseBuilder.h"

// The block that a disk writes into the dump of a volume.

namespace {

class HardDiskDump : public testing::Test {
protected:
    template <typename Dumped, typename... Arguments> std::string Dump(Dumped& dumped, Arguments... arguments) {
        CZuFile out;
        EXPECT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenTruncating | OpenForWriting, 384));
        EXPECT_OK(dumped.DumpSparseInfo(out, arguments...));
        EXPECT_OK(out.Close());
        return m_Dir.Read("dump");
    }

    std::string FixedVhd(const std::string& name) {
        std::string footer(512, '\0');
        PutBytes(footer, 0, "conectix");
        PutBe32(footer, 12, 0x00010000);
        PutBe64(footer, 16, ~uint64_t{0});
        PutBe64(footer, 48, 8 * 512);
        PutBe32(footer, 60, 2);
        return m_Dir.Write(name, std::string(8 * 512, 'x') + footer);
    }

    CTempDir m_Dir;
};

TEST_F(HardDiskDump, AVmdkChainIsTheNumberOfLinksAndTheDumpOfEach) {
    CImageFile flat;
    flat.Resize(256 * 512);
    std::vector<Disk_t> disks = {FlatLink(m_Dir, flat)};
    disks[0].DumpName = "base";
    disks[0].BlockSize = 0x40;
    disks.push_back(
        LinkOf(CVmdkSparseBuilder().Grain(2, 'c').WriteTo(m_Dir), DiskType_MonolithicSparse, "child", 0x80));
    CHardDiskReader disk(VirtualProdType_VMware);
    ASSERT_OK(disk.OpenHardDisk(disks));

    SparseDumpText_t base;
    base.name = "base_00000000";
    base.endLba = 255;
    base.blockSize = base.grainSize = 0x40;
    std::string bytes = Dump(disk);
    const std::string front = "0000000200000001" + base.Bytes() + "00000001";
    EXPECT_SAME_BYTES(front, bytes.substr(0, front.size()));
    bytes.erase(0, front.size());
    const SparseDumpText_t child = TakeSparseDump(bytes);
    EXPECT_EQ("child_00000000", child.name);
    EXPECT_EQ(255U, child.endLba);
    EXPECT_EQ(8U, child.grainSize);
    ASSERT_EQ(1U, child.buckets.size());
    EXPECT_EQ('\x20', child.buckets[0][0]);
    EXPECT_EQ("", bytes);
}

TEST_F(HardDiskDump, EveryLinkIsDumpedAsItsReaderWould) {
    std::vector<Disk_t> disks;
    std::string expected = "00000003";
    for (const char* const name : {"one", "two", "three"}) {
        disks.push_back(LinkOf(FixedVhd(name), DiskType_VhdFixed, std::string("dump of ") + name, 8 * disks.size()));
        CVHDFileReader reader;
        ASSERT_OK(reader.OpenDisk(disks.back().FileName, DiskType_VhdFixed));
        expected += Dump(reader, disks.back().DumpName.c_str(), disks.back().BlockSize);
    }
    CHardDiskReader disk(VirtualProdType_HyperV);
    ASSERT_OK(disk.OpenHardDisk(disks));
    EXPECT_EQ(8 + 3 * (8 + SparseDumpText_t::RecordBytes), expected.size());
    EXPECT_SAME_BYTES(expected, Dump(disk));
    EXPECT_SAME_BYTES(expected, Dump(disk)) << "again";
}

TEST_F(HardDiskDump, APhysicalDiskIsOneLinkOfOneExtent) {
    std::vector<Disk_t> disks = {LinkOf(m_Dir.Write("plain", "x"), DiskType_PhysicalDisk, "first", 0x123456789),
                                 LinkOf("", DiskType_PhysicalDisk, "second", 1)};
    CHardDiskReader disk(VirtualProdType_Physical);
    ASSERT_OK(disk.OpenHardDisk(disks));
    SparseDumpText_t extent;
    extent.name = "first";
    extent.endLba = ~uint64_t{0};
    extent.blockSize = extent.grainSize = 0x123456789;
    EXPECT_SAME_BYTES("0000000100000001" + extent.Bytes(), Dump(disk));
}

// What an earlier open left must not stand in front of this one's names.
TEST_F(HardDiskDump, ClosingForgetsTheNames) {
    CHardDiskReader disk(VirtualProdType_Physical);
    for (const char* const name : {"before", "after"}) {
        std::vector<Disk_t> disks = {LinkOf(m_Dir.Write("plain", "x"), DiskType_PhysicalDisk, name, 8)};
        ASSERT_OK(disk.OpenHardDisk(disks));
        EXPECT_EQ(name, std::string(Dump(disk).substr(16, 100).c_str()));
        EXPECT_OK(disk.CloseHardDisk());
    }
}

TEST_F(HardDiskDump, EveryFailedWriteReachesTheCaller) {
    std::vector<Disk_t> vmdk = {LinkOf(CVmdkSparseBuilder().Grain(2, 'c').WriteTo(m_Dir), DiskType_MonolithicSparse)};
    vmdk.push_back(vmdk[0]);
    std::vector<Disk_t> vhd = {LinkOf(FixedVhd("fixed"), DiskType_VhdFixed)};
    std::vector<Disk_t> plain = {LinkOf(m_Dir.Write("plain", "x"), DiskType_PhysicalDisk)};
    const struct {
        ProductType_t product;
        std::vector<Disk_t> disks;
        unsigned int writes;
    } rows[] = {
        {VirtualProdType_VMware, vmdk, 1 + 2 * 4},  // per link: count, record, two bitmaps
        {VirtualProdType_HyperV, vhd, 1 + 2},
        {VirtualProdType_Physical, plain, 3},
    };
    for (const auto& row : rows) {
        std::vector<Disk_t> disks = row.disks;
        CHardDiskReader disk(row.product);
        ASSERT_OK(disk.OpenHardDisk(disks));
        CZuFile out;
        ASSERT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenForWriting, 384));
        EXPECT_EQ(row.writes, WalkFailures(FaultOp::Write, [&] { return disk.DumpSparseInfo(out); })) << row.product;
    }
}

}  // namespace
