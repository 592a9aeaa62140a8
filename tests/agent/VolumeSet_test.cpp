#include "agent/VolumeSet.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/WholeDisks.h"
#include "tests/support/HardDisks.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/SameBytes.h"

namespace {

using Names_t = std::vector<std::string>;

constexpr uint64_t DiskSectors = 4096;

// A disk with NTFS, another file system, and logical partitions of both kinds.
CPartitionTableBuilder MbrDisk() {
    const std::vector<LogicalPartition_t> chain{{0, 0x83, 2, 100}, {200, 0x07, 63, 50}};
    CPartitionTableBuilder disk;
    disk.Sectors(DiskSectors).Slot(0, 0x83, 10, 20).Slot(1, 0x07, 100, 200).Ntfs(100).Ntfs(1263);
    return disk.Extended(2, 0x0F, 1000, chain);
}

CPartitionTableBuilder GptDisk() {
    CGptBuilder gpt;
    gpt.Entry(0, EfiSystemGuid, 40, 99, "EFI").Entry(1, BasicDataGuid, 100, 299, "data");
    gpt.Entry(2, BasicDataGuid, 300, 399).Entry(3, BasicDataGuid, 400, 499);
    CPartitionTableBuilder disk;
    return disk.Sectors(DiskSectors).Gpt(gpt).Ntfs(100).Ntfs(400);
}

class VolumeSet : public testing::Test {
protected:
    // The same disks for us as raw files and for the core.
    void AddDisk(const CPartitionTableBuilder& builder) {
        CImageFile image = builder.Image();
        m_Paths.push_back(image.WriteTo(m_Dir, "raw" + std::to_string(m_Paths.size())));
        m_CoreDisks.push_back(FlatHardDisk(m_Dir, image, "disk" + std::to_string(m_Paths.size())));
    }

    Names_t Open() {
        EXPECT_OK(m_Set.Open(m_Paths, RawUnlessKnown()));
        Names_t names;
        for (const VolumeInfo_t& volume : m_Set.Volumes())
            names.push_back(volume.name);
        return names;
    }

    CTempDir m_Dir;
    Names_t m_Paths;
    std::vector<LVM_HardDisk_t> m_CoreDisks;
    CVolumeSet m_Set;
};

TEST_F(VolumeSet, NamesNtfsAsTheCoreDoesAndOthersByTheirPlace) {
    AddDisk(MbrDisk());
    AddDisk(GptDisk());
    EXPECT_EQ((Names_t{"Disk1Partition1", "Volume1", "Disk1Partition5", "Volume2", "Disk2Partition1", "Volume3",
                       "Disk2Partition3", "Volume4"}),
              Open());
}

TEST_F(VolumeSet, AgreesWithTheCoreOnEveryVolumeThatItSees) {
    AddDisk(GptDisk());
    AddDisk(MbrDisk());
    CPartitionTableBuilder third;
    AddDisk(third.Sectors(DiskSectors).Slot(3, 0x07, 500, 600).Slot(0, 0x07, 63, 100).Ntfs(63));
    Open();
    CLVM core;
    ASSERT_OK(core.InitializeFromDisk(m_CoreDisks));
    ASSERT_EQ(6U, core.GetVolumes().size());
    for (const LVM_Volume_t& volume : core.GetVolumes()) {
        SCOPED_TRACE(volume.VolName);
        const VolumeInfo_t* const ours = m_Set.Find(volume.VolName);
        ASSERT_NE(nullptr, ours);
        EXPECT_STREQ(volume.VolName, ours->layout.VolName);
        EXPECT_EQ(volume.SystemID, ours->layout.SystemID);
        ASSERT_EQ(1U, ours->layout.Segments.size());
        ASSERT_EQ(1U, ours->layout.Segments[0].Components.size());
        const LVM_Component_t& expected = volume.Segments.at(0).Components.at(0);
        const LVM_Component_t& actual = ours->layout.Segments[0].Components[0];
        EXPECT_EQ(expected.HardDiskIndex, actual.HardDiskIndex);
        EXPECT_EQ(expected.DiskLBAStart, actual.DiskLBAStart);
        EXPECT_EQ(expected.DiskLBAEnd, actual.DiskLBAEnd);
        std::string bytes(512, '?');
        std::string coreBytes(512, '?');
        ASSERT_OK(m_Set.Read(*ours, 0, bytes.data(), 512));
        ASSERT_OK(core.ReadVolumeData(volume, 0, coreBytes.data(), 512, nullptr));
        EXPECT_SAME_BYTES(coreBytes, bytes);
    }
}

TEST_F(VolumeSet, TellsOfEachVolumeWhatItsTableTells) {
    AddDisk(GptDisk());
    Open();
    const VolumeInfo_t* const volume = m_Set.Find("Volume1");
    ASSERT_NE(nullptr, volume);
    EXPECT_EQ(PartitionScheme_t::Gpt, volume->scheme);
    EXPECT_EQ(2U, volume->partition);
    EXPECT_EQ("Basic data", volume->typeName);
    EXPECT_EQ("data", volume->label);
    EXPECT_EQ(m_Set.Tables()[0].partitions[1].guid, volume->guid);
    EXPECT_EQ("ntfs", volume->fileSystem);
    EXPECT_EQ(100U, volume->startSector);
    EXPECT_EQ(200U, volume->sectors);
    EXPECT_EQ(nullptr, m_Set.Find("Volume9"));
    EXPECT_EQ(nullptr, m_Set.Find(""));
}

TEST_F(VolumeSet, AWholeDiskWithAFileSystemIsOneVolume) {
    CPartitionTableBuilder ntfs;
    AddDisk(ntfs.Sectors(DiskSectors).Ntfs(0));
    CPartitionTableBuilder ext;
    AddDisk(ext.Sectors(DiskSectors).PutAt(510, std::string(2, '\0')).PutAt(1024 + 56, "\x53\xEF"));
    CPartitionTableBuilder nothing;
    AddDisk(nothing.Sectors(DiskSectors).PutAt(510, std::string(2, '\0')));
    EXPECT_EQ((Names_t{"Volume1", "Disk2"}), Open());
    EXPECT_EQ(DiskSectors, m_Set.Find("Volume1")->sectors);
    EXPECT_EQ("ext2", m_Set.Find("Disk2")->fileSystem);
    EXPECT_EQ(0U, m_Set.Find("Disk2")->partition);
}

TEST_F(VolumeSet, PartitionsWithoutSectorsAreNoVolumes) {
    CGptBuilder gpt;
    gpt.Entry(0, BasicDataGuid, 100, 99).Entry(1, BasicDataGuid, 100, 100);
    CPartitionTableBuilder disk;
    AddDisk(disk.Sectors(DiskSectors).Gpt(gpt).Slot(0, 0x83, 5, 0));
    EXPECT_EQ(Names_t{"Disk1Partition2"}, Open());
    EXPECT_EQ(1U, m_Set.Warnings().size());
}

TEST_F(VolumeSet, ReadsOfAVolumeThatLeavesItsDiskFail) {
    CPartitionTableBuilder disk;
    AddDisk(disk.Sectors(DiskSectors).Slot(0, 0x83, 4095, 10));
    Open();
    const VolumeInfo_t* const volume = m_Set.Find("Disk1Partition1");
    ASSERT_NE(nullptr, volume);
    std::string bytes(1024, '?');
    EXPECT_OK(m_Set.Read(*volume, 0, bytes.data(), 512));
    EXPECT_FAILS_SAYING(m_Set.Read(*volume, 0, bytes.data(), 1024), m_Paths[0]);
    EXPECT_EQ(1U, m_Set.Warnings().size());
}

TEST_F(VolumeSet, ADiskThatCannotBeOpenedOrReadIsNamed) {
    m_Paths = {m_Dir.File("gone")};
    EXPECT_FAILS_SAYING(m_Set.Open(m_Paths, RawUnlessKnown()), m_Paths[0]);
    CPartitionTableBuilder disk;
    disk.Sectors(DiskSectors).Slot(0, 0x05, 1000, 2000);
    disk.Record(1000, CBootRecordBuilder().Slot(1, 0x05, 0, 100));
    m_Paths = {disk.Image().WriteTo(m_Dir, "loop")};
    CVolumeSet other;
    EXPECT_FAILS_SAYING(other.Open(m_Paths, RawUnlessKnown()), m_Paths[0], "sector 1000");
}

}  // namespace
