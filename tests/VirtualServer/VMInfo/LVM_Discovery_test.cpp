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
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkSparseBuilder.h"

// What `CLVM` finds on disks with plain partitions.

namespace {

// A volume of one run as a text: name, type, disk, its sectors there, its sectors, the segment's.
std::string TextOf(const LVM_Volume_t& volume) {
    if (volume.Segments.size() != 1 || volume.Segments[0].Components.size() != 1)
        return "not of one run";
    const LVM_Segment_t& segment = volume.Segments[0];
    const LVM_Component_t& component = segment.Components[0];
    const auto run = [](uint64_t first, uint64_t last) { return std::to_string(first) + "-" + std::to_string(last); };
    return std::string(volume.VolName) + ": type " + std::to_string(volume.SystemID) + " on " +
           std::to_string(component.HardDiskIndex) + " at " + run(component.DiskLBAStart, component.DiskLBAEnd) +
           " as " + run(component.VolLBAStart, component.VolLBAEnd) + " in " + run(segment.LBAStart, segment.LBAEnd);
}

class LvmDiscovery : public testing::Test {
protected:
    LVM_HardDisk_t Disk(const CPartitionTableBuilder& table) {
        return FlatHardDisk(m_Dir, table.Image(), "disk" + std::to_string(m_DiskCount++));
    }

    LVM_HardDisk_t PlainFile(const std::string& bytes) {
        LVM_HardDisk_t disk;
        disk.ProductType = VirtualProdType_Physical;
        disk.Disks = {LinkOf(m_Dir.Write("plain" + std::to_string(m_DiskCount++), bytes), DiskType_NTFSVolume)};
        return disk;
    }

    // One that opens, and whose first sector can't be read.
    LVM_HardDisk_t UnreadableDisk() {
        CVmdkSparseBuilder sparse;
        for (const TableCopy_t copy : {TableCopy_t::Redundant, TableCopy_t::Primary})
            sparse.Put32(sparse.TableSectors(copy).at(0) * 512, 0x00FFFFFF);
        LVM_HardDisk_t disk;
        disk.Disks = {LinkOf(sparse.WriteTo(m_Dir, "bad" + std::to_string(m_DiskCount++)), DiskType_MonolithicSparse)};
        return disk;
    }

    std::vector<std::string> Found() const {
        std::vector<std::string> texts;
        for (const LVM_Volume_t& volume : m_Lvm.GetVolumes())
            texts.push_back(TextOf(volume));
        return texts;
    }

    std::vector<std::string> VolumesOf(std::vector<LVM_HardDisk_t> disks) {
        EXPECT_OK(m_Lvm.InitializeFromDisk(disks));
        for (const LVM_Volume_t& volume : m_Lvm.GetVolumes()) {
            EXPECT_EQ(1, volume.AllDiskFound);
            EXPECT_EQ(0, volume.IsRaid5);
            EXPECT_TRUE(volume.VolGUID == GUID{});
            EXPECT_EQ(0U, volume.Segments.at(0).StripeSize);
            EXPECT_TRUE(volume.Segments.at(0).Components.at(0).DiskGUID == GUID{});
            EXPECT_EQ(0, volume.Segments.at(0).Components.at(0).ColumnIndex);
        }
        return Found();
    }

    CTempDir m_Dir;
    int m_DiskCount = 0;
    CLVM m_Lvm;
};

using Texts_t = std::vector<std::string>;

TEST_F(LvmDiscovery, NewRecordsAreZeroAndHaveNoDisk) {
    const LVM_Component_t component;
    EXPECT_EQ(0xFFFFFFFF, component.HardDiskIndex);
    EXPECT_EQ(0U, component.DiskLBAStart | component.DiskLBAEnd | component.VolLBAStart | component.VolLBAEnd);
    EXPECT_EQ(0, component.ColumnIndex);
    EXPECT_TRUE(component.DiskGUID == GUID{});
    const LVM_Segment_t segment;
    EXPECT_EQ(0U, segment.StripeSize | segment.LBAStart | segment.LBAEnd);
    EXPECT_TRUE(segment.Components.empty());
    const LVM_Volume_t volume;
    EXPECT_EQ(std::string(100, '\0'), std::string(volume.VolName, sizeof(volume.VolName)));
    EXPECT_EQ(0, volume.IsRaid5 | volume.SystemID | volume.AllDiskFound);
    EXPECT_TRUE(volume.Segments.empty());
}

TEST_F(LvmDiscovery, WithoutDisksThereAreNoVolumes) {
    EXPECT_EQ(Texts_t{}, VolumesOf({}));
}

TEST_F(LvmDiscovery, NtfsPartitionsBecomeVolumesAndOthersDoNot) {
    EXPECT_EQ(
        (Texts_t{"Volume1: type 7 on 0 at 63-162 as 0-99 in 0-100", "Volume2: type 7 on 0 at 301-340 as 0-39 in 0-40"}),
        VolumesOf({Disk(CPartitionTableBuilder()
                            .Slot(0, 0x0C, 10, 50)
                            .Slot(1, 7, 63, 100)
                            .Slot(2, 0x83, 200, 10)
                            .Extended(3, 5, 300, {{0, 7, 1, 40}, {50, 0x8E, 1, 10}, {70, 0x0C, 1, 10}}))}));
}

TEST_F(LvmDiscovery, OfAGptBasicDataWithNtfsIsAVolume) {
    const CGptBuilder gpt = CGptBuilder()
                                .Entry(0, EfiSystemGuid, 100, 199)
                                .Entry(1, BasicDataGuid, 200, 299)
                                .Entry(2, BasicDataGuid, 300, 399);
    EXPECT_EQ((Texts_t{"Volume1: type 7 on 0 at 300-399 as 0-99 in 0-100"}),
              VolumesOf({Disk(CPartitionTableBuilder().Gpt(gpt).Ntfs(100).Ntfs(300))}));
}

TEST_F(LvmDiscovery, APlainVolumeIsOne) {
    EXPECT_EQ((Texts_t{"Volume1: type 7 on 0 at 0-1000 as 0-1000 in 0-1001"}),
              VolumesOf({PlainFile(CNtfsBootBuilder().TotalSectors(1000).Bytes())}));
    EXPECT_EQ(Texts_t{}, VolumesOf({PlainFile(CNtfsBootBuilder().OemName("MSDOS5.0").Bytes())}));
}

TEST_F(LvmDiscovery, BoundsAreTakenAsTheyStand) {
    EXPECT_EQ((Texts_t{"Volume1: type 7 on 0 at 4294967040-255 as 0-18446744069414584831 in 0-18446744069414584832"}),
              VolumesOf({Disk(CPartitionTableBuilder().Slot(0, 7, 0xFFFFFF00, 0x200))}));
}

TEST_F(LvmDiscovery, NumbersGoOnOverTheDisks) {
    EXPECT_EQ((Texts_t{"Volume1: type 7 on 0 at 63-72 as 0-9 in 0-10", "Volume2: type 7 on 0 at 80-89 as 0-9 in 0-10",
                       "Volume3: type 7 on 2 at 70-79 as 0-9 in 0-10"}),
              VolumesOf({Disk(CPartitionTableBuilder().Slot(0, 7, 63, 10).Slot(1, 7, 80, 10)),
                         Disk(CPartitionTableBuilder()), Disk(CPartitionTableBuilder().Slot(3, 7, 70, 10))}));
}

TEST_F(LvmDiscovery, ADiskThatCannotBeReadIsPassedOverAndGetsNoIndex) {
    const CPartitionTableBuilder withVolume = CPartitionTableBuilder().Slot(0, 7, 63, 10).PutAt(63 * 512, "here");
    EXPECT_EQ((Texts_t{"Volume1: type 7 on 0 at 63-72 as 0-9 in 0-10", "Volume2: type 7 on 1 at 63-72 as 0-9 in 0-10"}),
              VolumesOf({UnreadableDisk(), Disk(withVolume), PlainFile(""), UnreadableDisk(),
                         Disk(CPartitionTableBuilder().Gpt(CGptBuilder()).PutAt(512, "x")), Disk(withVolume)}));
    char bytes[4] = {};
    ASSERT_OK(m_Lvm.ReadVolumeData(m_Lvm.GetVolumes().at(1), 0, bytes, 4, nullptr));
    EXPECT_EQ("here", std::string(bytes, 4)) << "the index is that of the disk";
}

// Reads behind the descriptor's, one after the other: sector 0 and the record of the first look, and the same
// two again.
TEST_F(LvmDiscovery, OnlyTheFirstLookAtADiskMayFail) {
    std::vector<LVM_HardDisk_t> disks = {
        Disk(CPartitionTableBuilder().Slot(0, 7, 63, 10).Extended(1, 5, 100, {{0, 7, 1, 10}}))};
    std::string outcomes;
    for (unsigned int failAt = 0;; ++failAt) {
        const CFaultyFiles faulty(Fault_t{FaultOp::Read, failAt, EIO});
        const CZuError error = m_Lvm.InitializeFromDisk(disks);
        if (error.IsErrorSet()) {
            EXPECT_EQ(static_cast<unsigned int>(EIO), error.GetErrorCode());
        }
        outcomes += error.IsErrorSet() ? 'E' : static_cast<char>('0' + m_Lvm.GetVolumes().size());
        if (!faulty.Fired())
            break;
    }
    EXPECT_EQ("00EE2", outcomes.substr(outcomes.find('0')));
}

TEST_F(LvmDiscovery, ADiskWithoutAnMbrEndsDiscovery) {
    std::vector<LVM_HardDisk_t> disks = {Disk(CPartitionTableBuilder().Slot(0, 7, 63, 10)),
                                         Disk(CPartitionTableBuilder().PutAt(510, "xx")),
                                         Disk(CPartitionTableBuilder().Slot(0, 7, 80, 10))};
    EXPECT_CONDITION_TEXT(m_Lvm.InitializeFromDisk(disks), 7, 6001, 1, "MBR signature does not match");
    EXPECT_EQ((Texts_t{": type 7 on 0 at 63-72 as 0-9 in 0-10"}), Found()) << "what was found stays, without a name";
    EXPECT_EQ(0, m_Lvm.GetVolumes().at(0).AllDiskFound);
}

TEST_F(LvmDiscovery, ABadRecordOfAnExtendedPartitionEndsDiscoveryToo) {
    std::vector<LVM_HardDisk_t> disks = {Disk(CPartitionTableBuilder().Slot(0, 5, 100, 10))};
    EXPECT_CONDITION_TEXT(m_Lvm.InitializeFromDisk(disks), 7, 6001, 1, "MBR signature does not match");
}

// The code alone tells, whichever layer set it: a disk that ends before its table counts as one without.
TEST_F(LvmDiscovery, EveryErrorOfCode1IsAMissingMbr) {
    std::vector<LVM_HardDisk_t> disks = {Disk(CPartitionTableBuilder().Slot(0, 5, 5000, 10))};
    EXPECT_CONDITION_TEXT(m_Lvm.InitializeFromDisk(disks), 7, 3001, 1, "Sector Out of Range");
}

TEST_F(LvmDiscovery, ADiskThatDoesNotOpenEndsDiscovery) {
    const LVM_HardDisk_t sound = Disk(CPartitionTableBuilder().Slot(0, 7, 63, 10));
    LVM_HardDisk_t missing = sound;
    missing.Disks[0].FileName = m_Dir.File("none").c_str();
    std::vector<LVM_HardDisk_t> disks = {sound, missing, sound};
    EXPECT_SYSTEM_ERROR(m_Lvm.InitializeFromDisk(disks), ENOENT);
    EXPECT_EQ(1U, m_Lvm.GetVolumes().size());

    LVM_HardDisk_t empty;
    disks = {empty};
    EXPECT_REFUSED(m_Lvm.InitializeFromDisk(disks), "Disk vector is empty");
    LVM_HardDisk_t unknown = sound;
    unknown.ProductType = ProductType_t(9);
    disks = {unknown};
    EXPECT_REFUSED(m_Lvm.InitializeFromDisk(disks), "Unknown product type 9");
    EXPECT_TRUE(m_Lvm.GetVolumes().empty()) << "each discovery starts afresh";
}

TEST_F(LvmDiscovery, EachDiscoveryStartsAfresh) {
    const CFaultyFiles counting;
    const LVM_HardDisk_t one = Disk(CPartitionTableBuilder().Slot(0, 7, 63, 10));
    const LVM_HardDisk_t other = Disk(CPartitionTableBuilder().Slot(0, 7, 80, 10));
    EXPECT_EQ((Texts_t{"Volume1: type 7 on 0 at 63-72 as 0-9 in 0-10"}), VolumesOf({one}));
    EXPECT_EQ((Texts_t{"Volume1: type 7 on 0 at 80-89 as 0-9 in 0-10"}), VolumesOf({other}));
    EXPECT_EQ(counting.Calls(FaultOp::Open), counting.Calls(FaultOp::Close) + 1) << "one disk is open";
    m_Lvm.Reset();
    EXPECT_TRUE(m_Lvm.GetVolumes().empty());
    EXPECT_EQ(counting.Calls(FaultOp::Open), counting.Calls(FaultOp::Close));
}

TEST_F(LvmDiscovery, TheEndOfTheObjectClosesTheDisks) {
    const CFaultyFiles counting;
    {
        CLVM lvm;
        std::vector<LVM_HardDisk_t> disks = {Disk(CPartitionTableBuilder()), UnreadableDisk()};
        ASSERT_OK(lvm.InitializeFromDisk(disks));
        EXPECT_EQ(counting.Calls(FaultOp::Open), counting.Calls(FaultOp::Close) + 1) << "the unreadable one is closed";
    }
    EXPECT_EQ(counting.Calls(FaultOp::Open), counting.Calls(FaultOp::Close));
}

TEST_F(LvmDiscovery, TheVolumesAreACopy) {
    ASSERT_EQ(1U, VolumesOf({Disk(CPartitionTableBuilder().Slot(0, 7, 63, 10))}).size());
    std::vector<LVM_Volume_t> volumes = m_Lvm.GetVolumes();
    volumes[0].VolName[0] = 'X';
    EXPECT_STREQ("Volume1", m_Lvm.GetVolumes()[0].VolName);
}

TEST_F(LvmDiscovery, WhatAHypervisorsDiskNeedsChangesNothingForOthers) {
    m_Lvm.SetVMInfo(nullptr, nullptr, nullptr);
    m_Lvm.SetVMInfo(nullptr, "one", "two");
    EXPECT_EQ(1U, VolumesOf({Disk(CPartitionTableBuilder().Slot(0, 7, 63, 10))}).size());
}

TEST_F(LvmDiscovery, NobodyCallsTheQuitFlag) {
    static int calls = 0;
    CLVM::SetQuitFlagCallback([](int, void*, void*) { return ++calls; }, 1, &calls);
    EXPECT_EQ(1U, VolumesOf({Disk(CPartitionTableBuilder().Slot(0, 7, 63, 10))}).size());
    CLVM::SetQuitFlagCallback(nullptr, 0, nullptr);
    EXPECT_EQ(0, calls);
}

}  // namespace
