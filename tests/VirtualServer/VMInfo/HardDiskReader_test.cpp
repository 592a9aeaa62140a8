#include "VirtualServer/VMInfo/HardDiskReader.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/DriveOfFile.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/HardDisks.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkSparseBuilder.h"

namespace {

constexpr char NothingOpen[] = "Object is in invalid state. Make sure OpenHardDisk succeeded";
constexpr char BeyondVolume[] = "Reading beyond volume boundaries";

class HardDiskReader : public testing::Test {
protected:
    // A fixed VHD of these bytes: what a reader looks at in its footer, and nothing else.
    std::string FixedVhd(const std::string& bytes, const std::string& name = "fixed.vhd") {
        std::string footer(512, '\0');
        PutBytes(footer, 0, "conectix");
        PutBe32(footer, 12, 0x00010000);
        PutBe64(footer, 16, ~uint64_t{0});
        PutBe64(footer, 48, bytes.size());
        PutBe32(footer, 60, 2);
        return m_Dir.Write(name, bytes + footer);
    }

    std::vector<Disk_t> SparseDisk() {
        return {LinkOf(CVmdkSparseBuilder().Grain(0, 'a').Grain(1, 'b').WriteTo(m_Dir), DiskType_MonolithicSparse)};
    }

    std::vector<Disk_t> PlainFile(DiskType_t type = DiskType_NTFSVolume) {
        return {LinkOf(m_Dir.Write("plain", NumberedSectors(0, 8)), type)};
    }

    CTempDir m_Dir;
    char m_Buffer[1024] = {};
};

TEST_F(HardDiskReader, WithNothingOpenItSaysSo) {
    for (const int product : {1, 2, 3, 0, 77}) {
        CHardDiskReader disk{ProductType_t(product)};
        CZuFile out;
        EXPECT_REFUSED(disk.ReadHardDiskData(0, m_Buffer, 512), NothingOpen);
        EXPECT_REFUSED(disk.DumpSparseInfo(out), NothingOpen);
        EXPECT_EQ(0U, disk.CountHoleBytes(0, 512));
        EXPECT_OK(disk.CloseHardDisk());
        Partition_Entry_t whole;
        whole.EndLBA = 100;
        EXPECT_REFUSED(disk.ReadVolumeData(whole, 0, m_Buffer, 512), NothingOpen);
    }
}

TEST_F(HardDiskReader, ANewPartitionEntryIsAllZero) {
    const Partition_Entry_t entry;
    EXPECT_EQ(0, entry.Type);
    EXPECT_TRUE(entry.GUID == GUID{});
    EXPECT_EQ(0U, entry.StartLBA);
    EXPECT_EQ(0U, entry.EndLBA);
}

// The product matters last: an empty list is refused before anybody asks for it.
TEST_F(HardDiskReader, OpeningRefusesInItsOrder) {
    std::vector<Disk_t> none;
    std::vector<Disk_t> sparse = SparseDisk();
    for (const int product : {1, 2, 3, 0, 4}) {
        CHardDiskReader disk{ProductType_t(product)};
        EXPECT_REFUSED(disk.OpenHardDisk(none), "Disk vector is empty") << product;
    }
    for (const int product : {0, 4, -1, 0x7FFFFFFF}) {
        CHardDiskReader disk{ProductType_t(product)};
        EXPECT_REFUSED(disk.OpenHardDisk(sparse), ("Unknown product type " + std::to_string(product)).c_str());
        EXPECT_REFUSED(disk.ReadHardDiskData(0, m_Buffer, 1), NothingOpen);
        EXPECT_OK(disk.CloseHardDisk());
    }
    CHardDiskReader disk(VirtualProdType_VMware);
    ASSERT_OK(disk.OpenHardDisk(sparse));
    EXPECT_REFUSED(disk.OpenHardDisk(none), "Disk vector is empty");
    EXPECT_REFUSED(disk.OpenHardDisk(sparse), "This object already has some open disk.");
    EXPECT_EQ('a', ReadDisk(disk, 0, 1)[0]) << "the refusals changed nothing";
}

TEST_F(HardDiskReader, OpensADiskOfEachProduct) {
    const struct {
        ProductType_t product;
        std::vector<Disk_t> disks;
        std::string bytes;
    } rows[] = {
        {VirtualProdType_VMware, SparseDisk(), std::string(4096, 'a') + std::string(4096, 'b')},
        {VirtualProdType_HyperV, {LinkOf(FixedVhd(NumberedSectors(0, 16)), DiskType_VhdFixed)}, NumberedSectors(0, 16)},
        {VirtualProdType_Physical, PlainFile(), NumberedSectors(0, 8)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.product);
        std::vector<Disk_t> disks = row.disks;
        CHardDiskReader disk(row.product);
        for (int turn = 0; turn < 2; ++turn) {
            ASSERT_OK(disk.OpenHardDisk(disks));
            EXPECT_SAME_BYTES(row.bytes.substr(500, 3000), ReadDisk(disk, 500, 3000));
            EXPECT_OK(disk.CloseHardDisk());
            EXPECT_REFUSED(disk.ReadHardDiskData(0, m_Buffer, 1), NothingOpen);
        }
    }
}

TEST_F(HardDiskReader, APhysicalDiskHasOneOfThreeTypes) {
    for (const DiskType_t type : {DiskType_PhysicalDisk, DiskType_PhysicalDisk2, DiskType_NTFSVolume}) {
        std::vector<Disk_t> disks = PlainFile(type);
        CHardDiskReader disk(VirtualProdType_Physical);
        ASSERT_OK(disk.OpenHardDisk(disks)) << type;
        EXPECT_SAME_BYTES(NumberedSectors(7, 1), ReadDisk(disk, 7 * 512, 512));
    }
    for (const int type : {0, 1, 6, 12, 14, 18, 20, -1}) {
        std::vector<Disk_t> disks = PlainFile(DiskType_t(type));
        CHardDiskReader disk(VirtualProdType_Physical);
        const CFaultyFiles counting;
        EXPECT_REFUSED(disk.OpenHardDisk(disks),
                       ("Disk type " + std::to_string(type) + " is not supported for product 3").c_str());
        EXPECT_EQ(0U, counting.Calls(FaultOp::Open));
        EXPECT_REFUSED(disk.ReadHardDiskData(0, m_Buffer, 1), NothingOpen) << "and nothing was made";
    }
}

TEST_F(HardDiskReader, AnImageOfAXenHostIsOpenedByItsIdentifierAndItsDevice) {
    std::vector<Disk_t> disks = PlainFile(DiskType_XenVDI);
    const std::string device = disks[0].FileName.c_str();
    {
        CHardDiskReader disk(VirtualProdType_Physical);
        const CZuError error = disk.OpenHardDisk(disks);
        EXPECT_NE(nullptr, std::strstr(error.GetErrorText(), "Not in expected format")) << "the device alone";
        EXPECT_REFUSED(disk.OpenHardDisk(disks), "This object already has some open disk.");
    }
    disks[0].FileName = ("vdi-1#" + device).c_str();
    CHardDiskReader disk(VirtualProdType_Physical);
    ASSERT_OK(disk.OpenHardDisk(disks));
    EXPECT_SAME_BYTES(NumberedSectors(7, 1), ReadDisk(disk, 7 * 512, 512));
    std::vector<Partition_Entry_t> partitions;
    int isGpt = 1;
    EXPECT_OK(disk.GetDOSPartitions(partitions, isGpt));
    EXPECT_EQ(1U, partitions.size()) << "without a drive's name a volume alone";
}

TEST_F(HardDiskReader, AnImageOfAXenHostWithADrivesNameHasPartitions) {
    std::vector<Disk_t> disks = PlainFile(DiskType_XenVDI);
    const std::string device = disks[0].FileName.c_str();
    SKIP_UNLESS_A_FILE_CAN_BE_A_DRIVE(device);
    disks[0].FileName = ("vdi-1#" + DriveOfFile(device)).c_str();
    CHardDiskReader drive(VirtualProdType_Physical);
    ASSERT_OK(drive.OpenHardDisk(disks));
    std::vector<Partition_Entry_t> partitions;
    int isGpt = 1;
    EXPECT_FAILURE(drive.GetDOSPartitions(partitions, isGpt)) << "a drive without partitions";
}

TEST_F(HardDiskReader, OfAPhysicalDiskOnlyTheFirstLinkIsLookedAt) {
    std::vector<Disk_t> disks = PlainFile();
    disks.push_back(LinkOf(m_Dir.File("none"), DiskType_NTFSVolume));
    disks.push_back(LinkOf("", DiskType_t(99)));
    CHardDiskReader disk(VirtualProdType_Physical);
    const CFaultyFiles counting;
    ASSERT_OK(disk.OpenHardDisk(disks));
    EXPECT_EQ(1U, counting.Calls(FaultOp::Open));
    EXPECT_SAME_BYTES(NumberedSectors(0, 1), ReadDisk(disk, 0, 512));
}

TEST_F(HardDiskReader, APhysicalReadGoesThroughAsItWasAsked) {
    std::vector<Disk_t> disks = PlainFile();
    CHardDiskReader disk(VirtualProdType_Physical);
    ASSERT_OK(disk.OpenHardDisk(disks));
    const CFaultyFiles counting;
    EXPECT_SAME_BYTES(NumberedSectors(0, 8).substr(500, 1100), ReadDisk(disk, 500, 1100));
    EXPECT_SAME_BYTES(NumberedSectors(0, 8).substr(500, 1100), ReadDisk(disk, 500, 1100));
    EXPECT_EQ((std::vector<uint32_t>{1100, 1100}), counting.Sizes(FaultOp::Read)) << "nothing is cached";
    EXPECT_EQ(0U, disk.CountHoleBytes(0, 4096));
}

// Whoever opened it closes it, so that a second open needs a close first.
TEST_F(HardDiskReader, APhysicalDiskThatDoesNotOpenCountsAsOpen) {
    std::vector<Disk_t> none = {LinkOf(m_Dir.File("none"), DiskType_PhysicalDisk)};
    std::vector<Disk_t> plain = PlainFile();
    CHardDiskReader disk(VirtualProdType_Physical);
    EXPECT_SYSTEM_ERROR(disk.OpenHardDisk(none), ENOENT);
    EXPECT_REFUSED(disk.OpenHardDisk(plain), "This object already has some open disk.");
    EXPECT_REFUSED(disk.ReadHardDiskData(0, m_Buffer, 1), "Object is in invalid state. Make sure OpenDisk succeeded");
    EXPECT_OK(disk.CloseHardDisk());
    ASSERT_OK(disk.OpenHardDisk(plain));
    EXPECT_SAME_BYTES(NumberedSectors(1, 1), ReadDisk(disk, 512, 512));
}

TEST_F(HardDiskReader, AChainOfWhichOneLinkDoesNotOpenIsClosed) {
    std::vector<Disk_t> sparse = SparseDisk();
    std::vector<Disk_t> vhd = {LinkOf(FixedVhd(NumberedSectors(0, 4)), DiskType_VhdFixed)};
    const struct {
        ProductType_t product;
        std::vector<Disk_t> sound;
        Disk_t bad;
        const char* text;
    } rows[] = {
        {VirtualProdType_VMware, sparse, LinkOf(sparse[0].FileName.c_str(), DiskType_Vmfs),
         "Not a supported disk type"},
        {VirtualProdType_VMware, sparse, LinkOf(vhd[0].FileName.c_str(), DiskType_MonolithicSparse),
         "File signature does not match with standard sparse extent signatures VMDK or COWD"},
        {VirtualProdType_HyperV, vhd, LinkOf(sparse[0].FileName.c_str(), DiskType_VhdFixed),
         "Disk footer information is corrupted. Unknown Cookie"},
    };
    for (const auto& row : rows) {
        for (const bool isFirst : {true, false}) {
            std::vector<Disk_t> disks = row.sound;
            disks.insert(isFirst ? disks.begin() : disks.end(), row.bad);
            CHardDiskReader disk(row.product);
            const CFaultyFiles counting;
            EXPECT_REFUSED(disk.OpenHardDisk(disks), row.text);
            EXPECT_EQ(counting.Calls(FaultOp::Open), counting.Calls(FaultOp::Close)) << "no file stays open";
            EXPECT_REFUSED(disk.ReadHardDiskData(0, m_Buffer, 1), NothingOpen);
            std::vector<Disk_t> sound = row.sound;
            EXPECT_OK(disk.OpenHardDisk(sound)) << "and it can be opened right away";
        }
    }
}

TEST_F(HardDiskReader, EveryFailureOfAnOpenReachesTheCaller) {
    std::vector<Disk_t> sparse = SparseDisk();
    sparse.push_back(LinkOf(CVmdkSparseBuilder().Grain(1, 'c').WriteTo(m_Dir, "child"), DiskType_MonolithicSparse));
    for (const FaultOp op : {FaultOp::Open, FaultOp::Read, FaultOp::Seek}) {
        const unsigned int failures = WalkFailures(op, [&] {
            CHardDiskReader disk(VirtualProdType_VMware);
            CZuError error = disk.OpenHardDisk(sparse);
            if (error.IsErrorSet()) {
                EXPECT_REFUSED(disk.ReadHardDiskData(0, m_Buffer, 1), NothingOpen);
            }
            return error;
        });
        EXPECT_GE(failures, 2U);
    }
}

TEST_F(HardDiskReader, CloseSucceedsWhateverTheSystemSays) {
    std::vector<Disk_t> disks = SparseDisk();
    CHardDiskReader disk(VirtualProdType_VMware);
    ASSERT_OK(disk.OpenHardDisk(disks));
    const CFaultyFiles faulty(Fault_t{FaultOp::Close, 0, EIO});
    EXPECT_OK(disk.CloseHardDisk());
    EXPECT_TRUE(faulty.Fired());
    EXPECT_OK(disk.CloseHardDisk()) << "once more does nothing";
    EXPECT_EQ(1U, faulty.Calls(FaultOp::Close));
}

TEST_F(HardDiskReader, ACopySharesTheOpenDisk) {
    std::vector<Disk_t> disks = SparseDisk();
    CHardDiskReader disk(VirtualProdType_VMware);
    ASSERT_OK(disk.OpenHardDisk(disks));
    CHardDiskReader copy(disk);
    CHardDiskReader assigned(VirtualProdType_Physical);
    assigned = disk;
    const CFaultyFiles counting;
    EXPECT_EQ('a', ReadDisk(copy, 0, 1)[0]);
    EXPECT_OK(disk.CloseHardDisk());
    EXPECT_EQ('b', ReadDisk(copy, 4096, 1)[0]);
    EXPECT_EQ('b', ReadDisk(assigned, 8191, 1)[0]);
    EXPECT_EQ(0U, counting.Calls(FaultOp::Open)) << "nobody opened it anew";
    EXPECT_OK(copy.CloseHardDisk());
    EXPECT_OK(assigned.CloseHardDisk());
    EXPECT_EQ(1U, counting.Calls(FaultOp::Close));
}

TEST_F(HardDiskReader, WhatAHypervisorsDiskNeedsChangesNothingForOthers) {
    std::vector<Disk_t> disks = SparseDisk();
    CHardDiskReader disk(VirtualProdType_VMware);
    disk.SetVMInfo(nullptr, nullptr, nullptr);
    disk.SetVMInfo(nullptr, "one", "two");
    ASSERT_OK(disk.OpenHardDisk(disks));
    EXPECT_EQ('a', ReadDisk(disk, 0, 1)[0]);
}

// The sector behind the last byte read has to belong to the partition.
TEST_F(HardDiskReader, AVolumeReadEndsBeforeTheLastByteOfThePartition) {
    std::vector<Disk_t> disks = PlainFile();
    CHardDiskReader disk(VirtualProdType_Physical);
    ASSERT_OK(disk.OpenHardDisk(disks));
    Partition_Entry_t partition;  // sectors 2 to 5
    partition.StartLBA = 2;
    partition.EndLBA = 5;
    const std::string bytes = NumberedSectors(2, 4);
    const struct {
        uint64_t offset;
        uint32_t length;
        bool isWithin;
    } rows[] = {
        {0, 2048, false}, {0, 2047, true},   {1, 2047, false},   {2047, 0, true},  {2047, 1, false},
        {2048, 0, false}, {1536, 511, true}, {1536, 512, false}, {511, 514, true}, {5000, 1, false},
    };
    for (const auto& row : rows) {
        std::string read(row.length, '?');
        CZuError error = disk.ReadVolumeData(partition, row.offset, read.data(), row.length);
        if (!row.isWithin) {
            EXPECT_REFUSED(error, BeyondVolume) << row.length << " bytes at " << row.offset;
            continue;
        }
        EXPECT_OK(error);
        EXPECT_SAME_BYTES(bytes.substr(row.offset, row.length), read);
    }
}

TEST_F(HardDiskReader, AVolumeReadThatWrapsIsBeyondTheVolume) {
    std::vector<Disk_t> disks = PlainFile();
    CHardDiskReader disk(VirtualProdType_Physical);
    ASSERT_OK(disk.OpenHardDisk(disks));
    constexpr uint64_t all = ~uint64_t{0};
    const struct {
        const char* name;
        uint64_t start;
        uint64_t end;
        uint64_t offset;
    } rows[] = {
        {"the offset and the length", 0, all, all},
        {"the last sector", all - 1, all, 1024},
        {"the start in bytes", uint64_t{1} << 55U, all, 0},
        {"the start and the offset", (uint64_t{1} << 55U) - 1, all, 512},
        {"a partition without bounds", all, all, 0},
        {"an end that wrapped", 0xFFFFFF00, 0xFF, 0},
    };
    for (const auto& row : rows) {
        Partition_Entry_t partition;
        partition.StartLBA = row.start;
        partition.EndLBA = row.end;
        EXPECT_REFUSED(disk.ReadVolumeData(partition, row.offset, m_Buffer, 1), BeyondVolume) << row.name;
    }
}

TEST_F(HardDiskReader, AVolumeOfUnknownEndReadsOn) {
    std::vector<Disk_t> disks = PlainFile();
    CHardDiskReader disk(VirtualProdType_Physical);
    ASSERT_OK(disk.OpenHardDisk(disks));
    Partition_Entry_t partition;
    partition.EndLBA = ~uint64_t{0};
    std::string read(4096, '?');
    ASSERT_OK(disk.ReadVolumeData(partition, 0, read.data(), 4096));
    EXPECT_SAME_BYTES(NumberedSectors(0, 8), read);
    EXPECT_FAILURE(disk.ReadVolumeData(partition, 1, read.data(), 4096)) << "the file's own end";
}

}  // namespace
