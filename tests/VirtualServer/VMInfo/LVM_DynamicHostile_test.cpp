#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/HardDisks.h"
#include "tests/support/LdmGroupBuilder.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

// Dynamic disks that fail, or that somebody made up.

namespace {

constexpr char OutOfRange[] = "Offset out of range";

class LvmDynamicHostile : public testing::Test {
protected:
    LVM_HardDisk_t Disk(const CImageFile& image) {
        return FlatHardDisk(m_Dir, image, "disk" + std::to_string(m_DiskCount++));
    }

    // A dynamic disk with this database and nothing else.
    LVM_HardDisk_t Disk(const CLdmDatabaseBuilder& database) {
        CImageFile image = CPartitionTableBuilder().Sectors(4096).Slot(0, 0x42, 63, 1985).Image();
        database.PutTo(image);
        return Disk(image);
    }

    LVM_Volume_t OnlyVolume(std::vector<LVM_HardDisk_t> disks) {
        EXPECT_OK(m_Lvm.InitializeFromDisk(disks));
        EXPECT_EQ(1U, m_Lvm.GetVolumes().size());
        return m_Lvm.GetVolumes().empty() ? LVM_Volume_t() : m_Lvm.GetVolumes().front();
    }

    CZuError TryRead(const LVM_Volume_t& volume, uint64_t offset, uint32_t length) {
        std::string bytes(length, '?');
        return m_Lvm.ReadVolumeData(volume, offset, bytes.data(), length, nullptr);
    }

    CTempDir m_Dir;
    int m_DiskCount = 0;
    CLVM m_Lvm;
};

// The default records make a simple volume of 100 sectors.
CLdmDatabaseBuilder WithPartitions(const LdmComponentRecord_t& component,
                                   const std::vector<LdmPartitionRecord_t>& partitions,
                                   const LdmVolumeRecord_t& volume = LdmVolumeRecord_t()) {
    CLdmDatabaseBuilder database = CLdmDatabaseBuilder().Add(LdmGroupRecord_t()).Add(LdmDiskRecord_t()).Add(volume);
    LdmComponentRecord_t counted = component;
    counted.childCount = partitions.size();
    database.Add(counted);
    for (const LdmPartitionRecord_t& partition : partitions)
        database.Add(partition);
    return database;
}

LdmPartitionRecord_t PartitionAt(uint64_t start, uint64_t volumeStart, uint64_t sectors) {
    LdmPartitionRecord_t partition;
    partition.start = start;
    partition.volumeStart = volumeStart;
    partition.sectors = sectors;
    return partition;
}

TEST_F(LvmDynamicHostile, ADatabaseThatCannotBeReadEndsDiscovery) {
    const CLdmGroupBuilder group = CLdmGroupBuilder(2).Volume(LdmSimple({0, 0, 10})).Volume(LdmSimple({1, 0, 10}));
    const struct {
        const char* name;
        CLdmDatabaseBuilder database;
        const char* text;
    } rows[] = {
        {"private header", group.Database(1).PutInPrivateHead(0, "?"), "Failed to parse private head"},
        {"tables of contents", group.Database(1).PutInTocBlocks(0, "?"),
         "Failing because no valid tocblocks were found"},
        {"records' head", group.Database(1).PutInVmdb(16, "?"), "Failed to parse VMDB"},
        {"record", group.Database(1).PutInSlot(2, 0, "?"), "Failed to parse VMBLK"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<LVM_HardDisk_t> disks = {Disk(group.Image(0)), Disk(group.Image(1, row.database)),
                                             Disk(CPartitionTableBuilder().Slot(0, 7, 63, 10).Image())};
        EXPECT_REFUSED(m_Lvm.InitializeFromDisk(disks), row.text);
        ASSERT_EQ(2U, m_Lvm.GetVolumes().size()) << "what the first disk told stays";
        EXPECT_STREQ("", m_Lvm.GetVolumes()[0].VolName) << "unfinished";
        EXPECT_EQ(0U, m_Lvm.GetVolumes()[0].Segments.at(0).Components.at(0).HardDiskIndex);
        EXPECT_EQ(NoHardDisk, m_Lvm.GetVolumes()[1].Segments.at(0).Components.at(0).HardDiskIndex);
    }
}

TEST_F(LvmDynamicHostile, RecordsOfSeveralFragmentsEndDiscovery) {
    std::vector<LVM_HardDisk_t> disks = {
        Disk(CLdmGroupBuilder(1).Volume(LdmSimple({0, 0, 10})).Fragments(LdmVolumeType, 2).Image(0))};
    EXPECT_REFUSED(m_Lvm.InitializeFromDisk(disks), "Failed to parse VMBLK");
}

// The reads of a disk behind those of its opening: sector 0 of the first look, private header, four tables of
// contents, the records' head, the records. Only the first look may fail, and the tables one by one.
TEST_F(LvmDynamicHostile, EveryFailureOfAReadIsToldOrPassedOver) {
    std::vector<LVM_HardDisk_t> disks = {Disk(CLdmGroupBuilder(1).Volume(LdmSimple({0, 0, 10})).Image(0))};
    std::string outcomes;
    for (unsigned int failAt = 0;; ++failAt) {
        const CFaultyFiles faulty(Fault_t{FaultOp::Read, failAt, EIO});
        const CZuError error = m_Lvm.InitializeFromDisk(disks);
        outcomes += error.IsErrorSet() ? 'E' : static_cast<char>('0' + m_Lvm.GetVolumes().size());
        if (!faulty.Fired())
            break;
    }
    EXPECT_EQ("0E1111EE1", outcomes.substr(outcomes.find('0')));
}

TEST_F(LvmDynamicHostile, AFailureOfTheDiskReachesTheReader) {
    const LVM_Volume_t volume = OnlyVolume({Disk(CLdmGroupBuilder(1).Volume(LdmSimple({0, 0, 10})).Image(0))});
    const CFaultyFiles faulty(Fault_t{FaultOp::Read, 0, EIO});
    EXPECT_SYSTEM_ERROR(TryRead(volume, 0, 512), EIO);
}

TEST_F(LvmDynamicHostile, AVolumeWithoutPiecesHasNothingToRead) {
    const LVM_Volume_t volume = OnlyVolume({Disk(WithPartitions(LdmComponentRecord_t(), {}))});
    EXPECT_TRUE(volume.Segments.empty());
    EXPECT_EQ(1, volume.AllDiskFound);
    EXPECT_REFUSED(TryRead(volume, 0, 512), OutOfRange);
}

TEST_F(LvmDynamicHostile, BoundsAreTakenAsTheyStand) {
    const uint64_t most = ~uint64_t{0};
    const LVM_Volume_t volume = OnlyVolume({Disk(
        WithPartitions(LdmComponentRecord_t(), {PartitionAt(most, 0, 0), PartitionAt(most - 10, most - 4, 10)}))});
    ASSERT_EQ(1U, volume.Segments.size());
    const std::vector<LVM_Component_t>& pieces = volume.Segments[0].Components;
    ASSERT_EQ(2U, pieces.size());
    EXPECT_EQ(62U, pieces[0].DiskLBAStart);
    EXPECT_EQ(61U, pieces[0].DiskLBAEnd);
    EXPECT_EQ(0U, pieces[0].VolLBAStart);
    EXPECT_EQ(most, pieces[0].VolLBAEnd);
    EXPECT_EQ(52U, pieces[1].DiskLBAStart);
    EXPECT_EQ(61U, pieces[1].DiskLBAEnd);
    EXPECT_EQ(most - 4, pieces[1].VolLBAStart);
    EXPECT_EQ(4U, pieces[1].VolLBAEnd);
    EXPECT_EQ(9U, volume.Segments[0].LBAEnd);
    EXPECT_REFUSED(TryRead(volume, 0, 512), OutOfRange) << "a span of 2^64 sectors";
}

TEST_F(LvmDynamicHostile, PiecesBehindTheDisksEndAreReadFailures) {
    for (const uint64_t start : {uint64_t{4096 - 63}, uint64_t{1} << 50U, (uint64_t{1} << 55U) - 63}) {
        const LVM_Volume_t volume =
            OnlyVolume({Disk(WithPartitions(LdmComponentRecord_t(), {PartitionAt(start, 0, 100)}))});
        EXPECT_EQ(start != (uint64_t{1} << 55U) - 63, TryRead(volume, 0, 512).IsErrorSet()) << start;
    }
}

TEST_F(LvmDynamicHostile, StripesOfImpossibleSizesHaveNothingToRead) {
    for (const uint64_t stripe : {uint64_t{1} << 55U, uint64_t{1} << 63U, ~uint64_t{0}}) {
        LdmComponentRecord_t component;
        component.stripeSectors = stripe;
        const LVM_Volume_t volume = OnlyVolume({Disk(WithPartitions(component, {PartitionAt(0, 0, 100)}))});
        EXPECT_EQ(stripe, volume.Segments.at(0).StripeSize);
        EXPECT_REFUSED(TryRead(volume, 0, 512), OutOfRange) << stripe;
    }
}

TEST_F(LvmDynamicHostile, ARaid5VolumeNeedsStripesAndTwoColumns) {
    LdmVolumeRecord_t raid;
    raid.type = "raid5";
    LdmComponentRecord_t striped;
    striped.stripeSectors = 8;
    const LVM_Volume_t oneColumn = OnlyVolume({Disk(WithPartitions(striped, {PartitionAt(0, 0, 100)}, raid))});
    EXPECT_EQ(1, oneColumn.IsRaid5);
    EXPECT_EQ(~uint64_t{0}, oneColumn.Segments.at(0).LBAEnd) << "0 columns of data";
    EXPECT_REFUSED(TryRead(oneColumn, 0, 512), OutOfRange);

    const LVM_Volume_t noStripes = OnlyVolume(
        {Disk(WithPartitions(LdmComponentRecord_t(), {PartitionAt(0, 0, 100), PartitionAt(200, 0, 100)}, raid))});
    EXPECT_EQ(99U, noStripes.Segments.at(0).LBAEnd);
    EXPECT_REFUSED(TryRead(noStripes, 0, 512), OutOfRange);

    const LVM_Volume_t none = OnlyVolume({Disk(WithPartitions(striped, {}, raid))});
    EXPECT_TRUE(none.Segments.empty());
}

TEST_F(LvmDynamicHostile, ColumnsAreSignedNumbersOf32Bits) {
    LdmComponentRecord_t component;
    component.stripeSectors = 8;
    LdmPartitionRecord_t first = PartitionAt(100, 0, 8);
    first.column = 3;
    LdmPartitionRecord_t second = PartitionAt(200, 0, 8);
    second.column = 0xFFFFFFFF;
    LdmPartitionRecord_t third = PartitionAt(300, 0, 8);
    third.column = 0x100000001;
    const LVM_Volume_t volume = OnlyVolume({Disk(WithPartitions(component, {first, second, third}))});
    std::vector<int32_t> columns;
    for (const LVM_Component_t& piece : volume.Segments.at(0).Components)
        columns.push_back(piece.ColumnIndex);
    EXPECT_EQ((std::vector<int32_t>{-1, 1, 3}), columns);
}

// Volumes are told by their GUIDs alone, and that of a plain partition is zero.
TEST_F(LvmDynamicHostile, AGuidOfZeroIsThatOfAPlainPartition) {
    LdmVolumeRecord_t zero;
    zero.guid = "00000000-0000-0000-0000-000000000000";
    const LVM_HardDisk_t dynamic = Disk(WithPartitions(LdmComponentRecord_t(), {LdmPartitionRecord_t()}, zero));
    const LVM_Volume_t volume = OnlyVolume({Disk(CPartitionTableBuilder().Slot(0, 7, 70, 10).Image()), dynamic});
    EXPECT_EQ(70U, volume.Segments.at(0).Components.at(0).DiskLBAStart) << "the partition's, and no link of the disk";
    EXPECT_EQ(0U, volume.Segments.at(0).Components.at(0).HardDiskIndex);
    EXPECT_EQ(163U - 1, OnlyVolume({dynamic}).Segments.at(0).Components.at(0).DiskLBAEnd);
}

// Each record that names a volume links it, so that the pieces move twice where two do.
TEST_F(LvmDynamicHostile, AVolumeThatTwoRecordsNameIsLinkedTwice) {
    LdmVolumeRecord_t second;
    second.id = 30;
    LdmComponentRecord_t component;
    component.id = 40;
    component.parentId = 30;
    LdmPartitionRecord_t partition = PartitionAt(500, 0, 10);
    partition.parentId = 40;
    const LVM_Volume_t volume = OnlyVolume({Disk(
        WithPartitions(LdmComponentRecord_t(), {PartitionAt(20, 0, 100)}).Add(second).Add(component).Add(partition))});
    ASSERT_EQ(1U, volume.Segments.at(0).Components.size());
    EXPECT_EQ(20U + 63 + 63, volume.Segments[0].Components[0].DiskLBAStart);
}

TEST_F(LvmDynamicHostile, TheSameDiskGivenTwiceIsLinkedTwice) {
    const CLdmGroupBuilder group = CLdmGroupBuilder(1).Volume(LdmSimple({0, 20, 10}));
    const LVM_Volume_t volume = OnlyVolume({Disk(group.Image(0)), Disk(group.Image(0))});
    EXPECT_EQ(1U, volume.Segments.at(0).Components.at(0).HardDiskIndex);
    EXPECT_EQ(20U + 63 + 63, volume.Segments[0].Components[0].DiskLBAStart);
}

TEST_F(LvmDynamicHostile, AGroupWithoutVolumesIsNoFailure) {
    std::vector<LVM_HardDisk_t> disks = {Disk(CLdmGroupBuilder(1).Image(0)), Disk(CLdmDatabaseBuilder())};
    EXPECT_OK(m_Lvm.InitializeFromDisk(disks));
    EXPECT_TRUE(m_Lvm.GetVolumes().empty());
}

}  // namespace
