#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "VirtualServer/VMInfo/LVM.h"
#include "platform/DriveName.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/HardDisks.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/PartitionText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/posix/MemoryMeter.h"

// Whole drives, for which a path stands in the number's place here, and machines without memory.

namespace {

class HardDiskDrive : public testing::Test {
protected:
    std::vector<Disk_t> Drive(const CPartitionTableBuilder& table, DiskType_t type = DiskType_PhysicalDisk) const {
        return {LinkOf(DriveNamePrefix + table.Image().WriteTo(m_Dir, "raw"), type)};
    }

    CTempDir m_Dir;
    CHardDiskReader m_Disk{VirtualProdType_Physical};
    std::vector<Partition_Entry_t> m_Partitions;
    int m_IsGpt = 77;
};

TEST_F(HardDiskDrive, ADriveHasAPartitionTable) {
    for (const DiskType_t type : {DiskType_PhysicalDisk, DiskType_PhysicalDisk2, DiskType_NTFSVolume}) {
        std::vector<Disk_t> disks = Drive(CPartitionTableBuilder().Slot(0, 7, 63, 100).Slot(1, 0x83, 200, 50), type);
        ASSERT_OK(m_Disk.OpenHardDisk(disks));
        m_Partitions.clear();
        EXPECT_OK(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt));
        EXPECT_EQ((std::vector<std::string>{"07 63-162", "83 200-249"}), TextsOf(m_Partitions));
        EXPECT_OK(m_Disk.CloseHardDisk());
    }
}

TEST_F(HardDiskDrive, ADriveWithoutATableIsNotAVolume) {
    std::vector<Disk_t> disks = Drive(CPartitionTableBuilder().PutAt(0, std::string(512, '\0')));
    ASSERT_OK(m_Disk.OpenHardDisk(disks));
    EXPECT_CONDITION_TEXT(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt), 7, 6001, 1, "MBR signature does not match");
}

TEST_F(HardDiskDrive, OnlyThePrefixMakesADrive) {
    const std::string path = CPartitionTableBuilder().Slot(0, 7, 63, 100).Image().WriteTo(m_Dir, "PhysicalDrive0");
    std::vector<Disk_t> disks = {LinkOf(path, DiskType_PhysicalDisk)};
    ASSERT_OK(m_Disk.OpenHardDisk(disks));
    EXPECT_OK(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt));
    EXPECT_EQ((std::vector<std::string>{"00 0-?"}), TextsOf(m_Partitions));
}

TEST_F(HardDiskDrive, ADrivesSizeIsKnown) {
    std::vector<Disk_t> disks = Drive(CPartitionTableBuilder().Sectors(300));
    ASSERT_OK(m_Disk.OpenHardDisk(disks));
    EXPECT_SAME_BYTES(std::string(512, '\0'), ReadDisk(m_Disk, 299 * 512, 512));
    char bytes[2];
    EXPECT_CONDITION(m_Disk.ReadHardDiskData(300 * 512 - 1, bytes, 2), 3, 8001, 1);
    EXPECT_CONDITION(m_Disk.ReadHardDiskData(~uint64_t{0}, bytes, 2), 3, 8001, 1);
}

// The same disk through a file and as a drive tells the same partitions.
TEST_F(HardDiskDrive, AGptOfADriveEndsAtTheDrivesEnd) {
    const CPartitionTableBuilder table =
        CPartitionTableBuilder().Gpt(CGptBuilder().Entry(0, BasicDataGuid, 100, 199)).Ntfs(100);
    std::vector<Disk_t> disks = Drive(table);
    ASSERT_OK(m_Disk.OpenHardDisk(disks));
    EXPECT_OK(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt));
    EXPECT_EQ((std::vector<std::string>{std::string("07 100-199 {") + BasicDataGuid + "}"}), TextsOf(m_Partitions));
    EXPECT_OK(m_Disk.CloseHardDisk());

    disks = Drive(CPartitionTableBuilder(table).PutAt(512 + 80, "\xFF\xFF\xFF\xFF"));
    ASSERT_OK(m_Disk.OpenHardDisk(disks));
    EXPECT_CONDITION(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt), 3, 8001, 1);
}

TEST_F(HardDiskDrive, ADrivesVolumeIsFound) {
    LVM_HardDisk_t disk;
    disk.ProductType = VirtualProdType_Physical;
    disk.Disks = Drive(CPartitionTableBuilder().Slot(0, 7, 63, 1000).Ntfs(63));
    std::vector<LVM_HardDisk_t> disks = {disk};
    CLVM lvm;
    ASSERT_OK(lvm.InitializeFromDisk(disks));
    ASSERT_EQ(1U, lvm.GetVolumes().size());
    NTFS_VOLUME_DATA_BUFFER info;
    ASSERT_OK(lvm.GetNTFSVolInfo(lvm.GetVolumes()[0], &info));
    EXPECT_EQ(204799, info.NumberSectors.QuadPart);
}

// 4^9 partitions from ten records. What was found before memory ended stays.
TEST_F(HardDiskDrive, WithoutMemoryAPartitionTableFailsAndTheDiskStaysUsable) {
    CPartitionTableBuilder table;
    table.Slot(0, 5, 100, 10);
    for (uint32_t level = 0; level < 9; ++level)
        table.Record(100 + level, CBootRecordBuilder()
                                      .Slot(0, 5, level + 1, 1)
                                      .Slot(1, 5, level + 1, 1)
                                      .Slot(2, 5, level + 1, 1)
                                      .Slot(3, 5, level + 1, 1));
    table.Record(109, CBootRecordBuilder().Slot(0, 7, 1, 5));
    std::vector<Disk_t> disks = Drive(table);
    ASSERT_OK(m_Disk.OpenHardDisk(disks));
    {
        CMemoryMeter meter;
        meter.RefuseAbove(1U << 20U);
        EXPECT_REFUSED(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt), "Out of memory");
        EXPECT_LE(meter.PeakBytes(), 4U << 20U);
    }
    EXPECT_GE(m_Partitions.size(), 1000U);
    m_Partitions = {};
    EXPECT_OK(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt));
    EXPECT_EQ(uint64_t{1} << 18U, m_Partitions.size());
}

// The number of entries is a promise only.
TEST_F(HardDiskDrive, AGptTakesMemoryForAPieceAtATime) {
    std::vector<Disk_t> disks =
        Drive(CPartitionTableBuilder().Sectors(100'000).Gpt(CGptBuilder()).PutAt(512 + 80, "\xFF\xFF\xFF\xFF"));
    ASSERT_OK(m_Disk.OpenHardDisk(disks));
    const CMemoryMeter meter;
    EXPECT_CONDITION(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt), 3, 8001, 1);
    EXPECT_LE(meter.PeakBytes(), 2U << 20U);
}

TEST_F(HardDiskDrive, WithoutMemoryDiscoveryFails) {
    LVM_HardDisk_t disk;
    disk.ProductType = VirtualProdType_Physical;
    disk.Disks = Drive(CPartitionTableBuilder().Gpt(CGptBuilder().EntryCount(128)));
    std::vector<LVM_HardDisk_t> disks = {disk};
    CLVM lvm;
    CMemoryMeter meter;
    meter.RefuseAbove(16);
    EXPECT_REFUSED(lvm.InitializeFromDisk(disks), "Out of memory");
}

}  // namespace
