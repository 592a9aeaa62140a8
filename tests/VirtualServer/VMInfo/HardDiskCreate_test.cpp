#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/HardDisks.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/PartitionText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

// New disks around one volume.

namespace {

uint64_t BigEndianAt(const std::string& bytes, size_t offset, size_t width) {
    const std::string field = bytes.substr(offset, width);
    return LittleEndianAt(std::string(field.rbegin(), field.rend()), 0, width);
}

class HardDiskCreate : public testing::Test {
protected:
    // A backslash, so that the descriptor names the file alone.
    std::string DiskFile() const { return m_Dir.Path() + "\\disk-flat"; }
    std::string Descriptor() const { return m_Dir.File("disk.vmdk"); }

    CZuError Create(uint64_t sectors, ProductType_t product) {
        return CHardDiskReader::CreateVirtualDisk(sectors, DiskFile().c_str(), Descriptor().c_str(), product);
    }

    std::string Footer() {
        const std::string file = m_Dir.Read("disk-flat");
        return file.substr(file.size() - 512);
    }

    CTempDir m_Dir;
};

TEST_F(HardDiskCreate, RefusesInItsOrder) {
    const std::string file = DiskFile();
    for (const int product : {1, 2, 3, 0}) {
        const auto type = ProductType_t(product);
        EXPECT_REFUSED(CHardDiskReader::CreateVirtualDisk(9, nullptr, "x", type), "Invalid input parameters");
        EXPECT_REFUSED(CHardDiskReader::CreateVirtualDisk(9, file.c_str(), nullptr, type), "Invalid input parameters");
    }
    for (const int product : {0, 3, 4, -7}) {
        EXPECT_REFUSED(Create(9, ProductType_t(product)),
                       ("Not a support product type for this operation " + std::to_string(product)).c_str());
    }
    EXPECT_TRUE(m_Dir.Entries().empty()) << "no file is touched";
}

// Every byte behind the boot program.
TEST_F(HardDiskCreate, TheBootSectorHoldsOnePartition) {
    const struct {
        uint64_t sectors;
        uint16_t lastCylinderAndSector;  // the cylinders of the volume in ten bits above 63
        uint32_t count;
    } rows[] = {
        {16065, (1U << 6U) | 63U, 16065},
        {16066, (2U << 6U) | 63U, 16066},
        {1, (1U << 6U) | 63U, 1},
        {16065 * 1023, 0xFFFF, 16065 * 1023},
        {16065 * 1024, 63, 16065 * 1024},  // 1024 has no bit among its low ten
        {(uint64_t{1} << 32U) + 5, 63U | static_cast<uint16_t>((267350U & 0x3FFU) << 6U), 5},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.sectors);
        ASSERT_OK(Create(row.sectors, VirtualProdType_VMware));
        EXPECT_EQ((row.sectors + 63) * 512, std::filesystem::file_size(m_Dir.File("disk-flat")));
        std::string expected(72, '\0');
        PutBytes(expected, 0, "\x16\x23\xAB\x41");  // 440
        PutLe8(expected, 7, 1);                     // 447
        PutLe16(expected, 8, 1);
        PutLe8(expected, 10, 7);
        PutLe8(expected, 11, 255);
        PutLe16(expected, 12, row.lastCylinderAndSector);
        PutLe32(expected, 14, 63);
        PutLe32(expected, 18, row.count);
        PutLe16(expected, 70, 0xAA55);
        std::string sector(512, '\0');
        CZuFile file;
        ASSERT_OK(file.Open(DiskFile().c_str(), OpenAsBinary, 0));
        ASSERT_OK(file.Read(sector.data(), 512, nullptr));
        EXPECT_SAME_BYTES(expected, sector.substr(440));
    }
}

TEST_F(HardDiskCreate, TheDescriptorTellsTheWholeDisk) {
    ASSERT_OK(Create(16065, VirtualProdType_VMware));
    // 16128 sectors are more than one cylinder of 16065.
    EXPECT_EQ("# Disk DescriptorFile\nversion=1\nCID=0\nparentCID=ffffffff\ncreateType=\"monolithicFlat\"\n\n"
              "# Extent description\nRW 16128 FLAT \"disk-flat\" 0\n\n# The Disk Data Base\n#DDB\n\n"
              "ddb.adapterType = \"buslogic\"\nddb.geometry.sectors = \"63\"\nddb.geometry.heads = \"255\"\n"
              "ddb.geometry.cylinders = \"2\"\nddb.geometry.biosSectors = \"63\"\nddb.geometry.biosHeads = \"255\"\n"
              "ddb.geometry.biosCylinders = \"2\"\n",
              m_Dir.Read("disk.vmdk"));
}

TEST_F(HardDiskCreate, TheDescriptorTakesTheNameBehindTheLastBackslash) {
    const std::string disk = m_Dir.File("plain");
    ASSERT_OK(CHardDiskReader::CreateVirtualDisk(5, disk.c_str(), Descriptor().c_str(), VirtualProdType_VMware));
    EXPECT_NE(std::string::npos,
              m_Dir.Read("disk.vmdk").find("RW 68 FLAT \"" + disk.substr(disk.rfind('\\') + 1) + "\" 0\n"));
}

TEST_F(HardDiskCreate, ALongerDescriptorGivesWay) {
    m_Dir.Write("disk.vmdk", std::string(5000, 'x'));
    ASSERT_OK(Create(16065, VirtualProdType_VMware));
    EXPECT_EQ(std::string::npos, m_Dir.Read("disk.vmdk").find('x', 200));
}

// The file may be there already, with the volume in its place.
TEST_F(HardDiskCreate, WhatLiesBehindTheBootSectorStays) {
    for (const ProductType_t product : {VirtualProdType_VMware, VirtualProdType_HyperV}) {
        const std::string before = PatternedBytes(100 * 512, 7);
        m_Dir.Write("disk-flat", before);
        ASSERT_OK(Create(20, product));
        const std::string after = m_Dir.Read("disk-flat");
        EXPECT_EQ(83U * 512 + (product == VirtualProdType_HyperV ? 512U : 0U), after.size());
        EXPECT_SAME_BYTES(before.substr(512, 82 * 512), after.substr(512, 82 * 512));
        EXPECT_NE(before.substr(0, 512), after.substr(0, 512));
    }
}

TEST_F(HardDiskCreate, TheFooterTellsTheWholeDisk) {
    const auto before = static_cast<uint64_t>(std::time(nullptr));
    ASSERT_OK(Create(16065, VirtualProdType_HyperV));
    const auto after = static_cast<uint64_t>(std::time(nullptr));
    EXPECT_EQ(16128U * 512 + 512, std::filesystem::file_size(m_Dir.File("disk-flat")));
    EXPECT_EQ((std::vector<std::string>{"disk-flat"}), m_Dir.Entries()) << "a VHD has no descriptor";

    const std::string footer = Footer();
    std::string expected(512, '\0');
    PutBytes(expected, 0, "conectix");
    PutBe32(expected, 8, 2);
    PutBe32(expected, 12, 0x00010000);
    PutBe64(expected, 16, ~uint64_t{0});
    PutBe32(expected, 24, static_cast<uint32_t>(BigEndianAt(footer, 24, 4)));
    PutBytes(expected, 28, "vs  ");
    PutBe32(expected, 32, 0x00010000);
    PutBytes(expected, 36, "Wi2k");
    PutBe64(expected, 40, 16128 * 512);
    PutBe64(expected, 48, 16128 * 512);
    PutBe16(expected, 56, 2);
    PutLe8(expected, 58, 255);
    PutLe8(expected, 59, 63);
    PutBe32(expected, 60, 2);
    PutBytes(expected, 68, footer.substr(68, 16));
    uint32_t sum = 0;
    for (const char byte : expected)
        sum += static_cast<uint8_t>(byte);
    PutBe32(expected, 64, ~sum);
    EXPECT_SAME_BYTES(expected, footer);
    EXPECT_GE(BigEndianAt(footer, 24, 4), before) << "seconds since 1970";
    EXPECT_LE(BigEndianAt(footer, 24, 4), after);
    EXPECT_NE(std::string(16, '\0'), footer.substr(68, 16));

    ASSERT_OK(Create(16065, VirtualProdType_HyperV));
    EXPECT_NE(footer.substr(68, 16), Footer().substr(68, 16)) << "each disk has its own identifier";
}

TEST_F(HardDiskCreate, ALargeDisksFooterKeepsTheLowBitsOfItsCylinders) {
    const uint64_t sectors = uint64_t{16065} * 0x10002 - 63;
    ASSERT_OK(Create(sectors, VirtualProdType_HyperV));
    std::string footer(512, '\0');
    CZuFile file;
    ASSERT_OK(file.Open(DiskFile().c_str(), OpenAsBinary, 0));
    ASSERT_OK(file.Seek(-512, 2, nullptr));
    ASSERT_OK(file.Read(footer.data(), 512, nullptr));
    EXPECT_EQ(2U, BigEndianAt(footer, 56, 2));
    EXPECT_EQ((sectors + 63) * 512, BigEndianAt(footer, 48, 8));
}

TEST_F(HardDiskCreate, TheReadersTakeWhatWasMade) {
    const struct {
        ProductType_t product;
        DiskType_t type;
        std::string path;
    } rows[] = {
        {VirtualProdType_VMware, DiskType_MonolithicFlat, Descriptor()},
        {VirtualProdType_HyperV, DiskType_VhdFixed, DiskFile()},
    };
    for (const auto& row : rows) {
        ASSERT_OK(Create(1000, row.product));
        std::vector<Disk_t> disks = {LinkOf(row.path, row.type)};
        CHardDiskReader disk(row.product);
        ASSERT_OK(disk.OpenHardDisk(disks));
        std::vector<Partition_Entry_t> partitions;
        int isGpt = 0;
        ASSERT_OK(disk.GetDOSPartitions(partitions, isGpt));
        EXPECT_EQ((std::vector<std::string>{"07 63-1062"}), TextsOf(partitions));
        EXPECT_SAME_BYTES(std::string(512, '\0'), ReadDisk(disk, 1062 * 512, 512));
        char byte = 0;
        EXPECT_FAILURE(disk.ReadHardDiskData(1063 * 512, &byte, 1));
    }
}

TEST_F(HardDiskCreate, ASizeThatNoFileHasIsTheSystemsFailure) {
    for (const uint64_t sectors : {uint64_t{1} << 55U, ~uint64_t{0} - 63, ~uint64_t{0} - 62, ~uint64_t{0}}) {
        for (const ProductType_t product : {VirtualProdType_VMware, VirtualProdType_HyperV}) {
            const CZuError error = Create(sectors, product);
            EXPECT_TRUE(error.IsErrorSet()) << sectors;
            EXPECT_EQ(1U, error.GetErrorType()) << sectors;
        }
    }
    EXPECT_EQ((std::vector<std::string>{"disk-flat"}), m_Dir.Entries()) << "it stays as far as it came";
}

TEST_F(HardDiskCreate, AFileThatCannotBeMadeIsTheSystemsFailure) {
    EXPECT_SYSTEM_ERROR(CHardDiskReader::CreateVirtualDisk(9, m_Dir.File("none/disk").c_str(), Descriptor().c_str(),
                                                           VirtualProdType_VMware),
                        ENOENT);
    EXPECT_SYSTEM_ERROR(
        CHardDiskReader::CreateVirtualDisk(9, DiskFile().c_str(), m_Dir.File("none/x").c_str(), VirtualProdType_VMware),
        ENOENT);
    EXPECT_EQ((std::vector<std::string>{"disk-flat"}), m_Dir.Entries());
}

TEST_F(HardDiskCreate, EveryFailureReachesTheCallerAndLeavesNoFileOpen) {
    const struct {
        FaultOp op;
        unsigned int ofVmdk;
        unsigned int ofVhd;
    } rows[] = {{FaultOp::Open, 2, 1}, {FaultOp::Write, 2, 2}, {FaultOp::Truncate, 1, 1}, {FaultOp::Close, 2, 1}};
    for (const auto& row : rows) {
        for (const ProductType_t product : {VirtualProdType_VMware, VirtualProdType_HyperV}) {
            EXPECT_EQ(product == VirtualProdType_VMware ? row.ofVmdk : row.ofVhd,
                      WalkFailures(row.op, [&] { return Create(9, product); }))
                << static_cast<int>(row.op);
        }
    }
    EXPECT_GE(WalkFailures(FaultOp::Seek, [&] { return Create(9, VirtualProdType_HyperV); }), 2U);
}

TEST_F(HardDiskCreate, TheStepsComeInTheirOrder) {
    {
        const CFaultyFiles faulty(Fault_t{FaultOp::Truncate, 0, EIO});
        EXPECT_SYSTEM_ERROR(Create(9, VirtualProdType_HyperV), EIO);
        EXPECT_EQ(faulty.Calls(FaultOp::Open), faulty.Calls(FaultOp::Close));
    }
    EXPECT_EQ(512U, m_Dir.Read("disk-flat").size()) << "the boot sector was written first";
    {
        const CFaultyFiles faulty(Fault_t{FaultOp::Write, 1, EIO});
        EXPECT_SYSTEM_ERROR(Create(9, VirtualProdType_HyperV), EIO);
        EXPECT_EQ(faulty.Calls(FaultOp::Open), faulty.Calls(FaultOp::Close));
    }
    EXPECT_EQ(72U * 512, m_Dir.Read("disk-flat").size()) << "then the size was set";
}

}  // namespace
