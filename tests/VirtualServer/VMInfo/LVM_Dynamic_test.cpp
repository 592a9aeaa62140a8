#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/HardDisks.h"
#include "tests/support/LdmGroupBuilder.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

// What `CLVM` finds on dynamic disks, and that it reads.

namespace {

std::string Run(uint64_t first, uint64_t last) {
    return std::to_string(first) + "-" + std::to_string(last);
}

// A piece as a text: its disk, its sectors there, its sectors of the volume, its column.
std::string TextOf(const LVM_Component_t& component) {
    const std::string disk = component.HardDiskIndex == 0xFFFFFFFF ? "?" : std::to_string(component.HardDiskIndex);
    return disk + " at " + Run(component.DiskLBAStart, component.DiskLBAEnd) + " as " +
           Run(component.VolLBAStart, component.VolLBAEnd) + " column " + std::to_string(component.ColumnIndex);
}

class LvmDynamic : public testing::Test {
protected:
    // The disks of the group with these numbers, in this order.
    std::vector<LVM_HardDisk_t> Disks(const CLdmGroupBuilder& group, const std::vector<size_t>& numbers) {
        std::vector<LVM_HardDisk_t> disks;
        for (const size_t number : numbers)
            disks.push_back(Disk(group.Image(number)));
        return disks;
    }

    LVM_HardDisk_t Disk(const CImageFile& image) {
        return FlatHardDisk(m_Dir, image, "disk" + std::to_string(m_DiskCount++));
    }

    LVM_Volume_t OnlyVolume(std::vector<LVM_HardDisk_t> disks) {
        EXPECT_OK(m_Lvm.InitializeFromDisk(disks));
        EXPECT_EQ(1U, m_Lvm.GetVolumes().size());
        return m_Lvm.GetVolumes().empty() ? LVM_Volume_t() : m_Lvm.GetVolumes().front();
    }

    static std::vector<std::string> PiecesOf(const LVM_Volume_t& volume) {
        std::vector<std::string> texts;
        for (const LVM_Segment_t& segment : volume.Segments) {
            for (const LVM_Component_t& component : segment.Components)
                texts.push_back(TextOf(component));
        }
        return texts;
    }

    std::string Read(const LVM_Volume_t& volume, uint64_t sector, uint64_t sectors) {
        std::string bytes(sectors * 512, '?');
        EXPECT_OK(
            m_Lvm.ReadVolumeData(volume, sector * 512, bytes.data(), static_cast<uint32_t>(bytes.size()), nullptr))
            << sectors << " at " << sector;
        return bytes;
    }

    // One read for each stripe: no read may cross the end of one.
    std::string ReadByStripes(const LVM_Volume_t& volume, uint64_t stripeSectors, uint64_t sectors) {
        std::string bytes;
        for (uint64_t sector = 0; sector < sectors; sector += stripeSectors)
            bytes += Read(volume, sector, stripeSectors);
        return bytes;
    }

    CTempDir m_Dir;
    int m_DiskCount = 0;
    CLVM m_Lvm;
};

using Texts_t = std::vector<std::string>;

TEST_F(LvmDynamic, ASimpleVolumeIsOnePieceOfItsDisk) {
    const CLdmGroupBuilder group = CLdmGroupBuilder(1).Volume(LdmSimple({0, 20, 100}));
    const LVM_Volume_t volume = OnlyVolume(Disks(group, {0}));
    EXPECT_EQ((Texts_t{"0 at 83-182 as 0-99 column 0"}), PiecesOf(volume));
    EXPECT_STREQ("Volume1", volume.VolName);
    EXPECT_EQ(7, volume.SystemID);
    EXPECT_EQ(0, volume.IsRaid5);
    EXPECT_EQ(1, volume.AllDiskFound);
    ASSERT_EQ(1U, volume.Segments.size());
    EXPECT_EQ(0U, volume.Segments[0].StripeSize);
    EXPECT_EQ(0U, volume.Segments[0].LBAStart);
    EXPECT_EQ(99U, volume.Segments[0].LBAEnd);
    EXPECT_SAME_BYTES(group.VolumeBytes(0), Read(volume, 0, 100));
}

TEST_F(LvmDynamic, PiecesOfASpanStandInTheOrderOfTheVolume) {
    LdmVolume_t spanned = LdmSpanned({{1, 500, 100}, {0, 10, 50}, {1, 100, 30}});
    std::rotate(spanned.plexes[0].pieces.begin(), spanned.plexes[0].pieces.begin() + 2, spanned.plexes[0].pieces.end());
    const CLdmGroupBuilder group = CLdmGroupBuilder(2).Volume(spanned);
    const LVM_Volume_t volume = OnlyVolume(Disks(group, {0, 1}));
    EXPECT_EQ((Texts_t{"1 at 563-662 as 0-99 column 0", "0 at 73-122 as 100-149 column 0",
                       "1 at 163-192 as 150-179 column 0"}),
              PiecesOf(volume));
    EXPECT_EQ(179U, volume.Segments.at(0).LBAEnd);
    EXPECT_SAME_BYTES(group.VolumeBytes(0), Read(volume, 0, 100) + Read(volume, 100, 50) + Read(volume, 150, 30));
}

TEST_F(LvmDynamic, PiecesOfTheSamePlaceKeepTheirOrder) {
    LdmVolume_t spanned = LdmSpanned({{0, 0, 10}, {0, 100, 10}, {0, 200, 10}});
    for (LdmPiece_t& piece : spanned.plexes[0].pieces)
        piece.volumeStart = piece.start == 100 ? 0 : 5;
    EXPECT_EQ((Texts_t{"0 at 163-172 as 0-9 column 0", "0 at 63-72 as 5-14 column 0", "0 at 263-272 as 5-14 column 0"}),
              PiecesOf(OnlyVolume(Disks(CLdmGroupBuilder(1).Volume(spanned), {0}))));
}

TEST_F(LvmDynamic, PiecesOfStripesStandInTheOrderOfTheirColumns) {
    LdmVolume_t striped = LdmStriped(8, {{2, 0, 64}, {0, 300, 64}, {1, 16, 64}});
    std::reverse(striped.plexes[0].pieces.begin(), striped.plexes[0].pieces.end());
    const CLdmGroupBuilder group = CLdmGroupBuilder(3).Volume(striped);
    const LVM_Volume_t volume = OnlyVolume(Disks(group, {0, 1, 2}));
    EXPECT_EQ(
        (Texts_t{"2 at 63-126 as 0-63 column 0", "0 at 363-426 as 0-63 column 1", "1 at 79-142 as 0-63 column 2"}),
        PiecesOf(volume));
    EXPECT_EQ(0, volume.IsRaid5);
    ASSERT_EQ(1U, volume.Segments.size());
    EXPECT_EQ(8U, volume.Segments[0].StripeSize);
    EXPECT_EQ(191U, volume.Segments[0].LBAEnd);
    EXPECT_SAME_BYTES(group.VolumeBytes(0), ReadByStripes(volume, 8, 192));
}

TEST_F(LvmDynamic, ColumnsThatAreEqualKeepTheirOrder) {
    LdmVolume_t striped = LdmStriped(8, {{0, 0, 8}, {0, 100, 8}, {0, 200, 8}});
    striped.plexes[0].pieces[1].column = 5;
    striped.plexes[0].pieces[2].column = 0;
    striped.plexes[0].pieces[2].volumeStart = 0;
    EXPECT_EQ((Texts_t{"0 at 63-70 as 0-7 column 0", "0 at 263-270 as 0-7 column 0", "0 at 163-170 as 0-7 column 5"}),
              PiecesOf(OnlyVolume(Disks(CLdmGroupBuilder(1).Volume(striped), {0}))));
}

TEST_F(LvmDynamic, ARaid5VolumeEndsWhereItsDataDoes) {
    const LVM_Volume_t volume = OnlyVolume(
        Disks(CLdmGroupBuilder(3).Volume(LdmRaid5(8, {{0, 0, 1000}, {1, 0, 1000}, {2, 0, 1000}})), {0, 1, 2}));
    EXPECT_EQ(1, volume.IsRaid5);
    EXPECT_EQ(1999U, volume.Segments.at(0).LBAEnd);
}

TEST_F(LvmDynamic, ARaid5VolumeReadsStripeByStripe) {
    const CLdmGroupBuilder group =
        CLdmGroupBuilder(4).Volume(LdmRaid5(16, {{3, 7, 160}, {1, 70, 160}, {0, 0, 160}, {2, 9, 160}}));
    const LVM_Volume_t volume = OnlyVolume(Disks(group, {2, 0, 3, 1}));
    EXPECT_EQ((Texts_t{"2 at 70-229 as 0-159 column 0", "3 at 133-292 as 0-159 column 1",
                       "1 at 63-222 as 0-159 column 2", "0 at 72-231 as 0-159 column 3"}),
              PiecesOf(volume));
    EXPECT_EQ(479U, volume.Segments.at(0).LBAEnd);
    EXPECT_SAME_BYTES(group.VolumeBytes(0), ReadByStripes(volume, 16, 480));
}

TEST_F(LvmDynamic, OnlyTheNameRaid5MeansIt) {
    for (const char* const type : {"raid", "raid50", "RAID5", "", "gen", "mirror"}) {
        SCOPED_TRACE(type);
        LdmVolume_t raid = LdmRaid5(8, {{0, 0, 80}, {0, 100, 80}, {0, 200, 80}});
        raid.type = type;
        const LVM_Volume_t volume = OnlyVolume(Disks(CLdmGroupBuilder(1).Volume(raid), {0}));
        EXPECT_EQ(0, volume.IsRaid5);
        EXPECT_EQ(239U, volume.Segments.at(0).LBAEnd);
    }
}

TEST_F(LvmDynamic, AVolumeHasTheTypeAndGuidOfItsRecord) {
    LdmVolume_t simple = LdmSimple({0, 0, 100});
    simple.partitionType = 0x8E;
    const CLdmGroupBuilder group = CLdmGroupBuilder(1).Volume(simple);
    const LVM_Volume_t volume = OnlyVolume(Disks(group, {0}));
    EXPECT_EQ(0x8E, volume.SystemID);
    EXPECT_STREQ("Volume1", volume.VolName) << "it has no name of its own to keep";
    EXPECT_EQ(LdmGuidBytes(group.VolumeGuid(0), LdmGuidOrder_t::OfText),
              std::string(reinterpret_cast<const char*>(&volume.VolGUID), 16));
    GUID diskGuid{};
    ASSERT_EQ(1, ParseGuidText(group.DiskGuid(0).c_str(), &diskGuid));
    EXPECT_TRUE(volume.Segments.at(0).Components.at(0).DiskGUID == diskGuid);
}

TEST_F(LvmDynamic, OnlyActiveVolumesCount) {
    const struct {
        const char* state;
        bool isActive;
    } rows[] = {{"ACTIVE", true},  {"ACTIVE, more", true}, {"ACTIVATED", false},
                {"active", false}, {"DISABLED", false},    {"ACTIV", false},
                {"", false},       {" ACTIVE", false},     {"?CTIVE", false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.state);
        LdmVolume_t volume = LdmSimple({0, 0, 100});
        volume.state = row.state;
        std::vector<LVM_HardDisk_t> disks = Disks(CLdmGroupBuilder(1).Volume(volume), {0});
        EXPECT_OK(m_Lvm.InitializeFromDisk(disks));
        EXPECT_EQ(row.isActive ? 1U : 0U, m_Lvm.GetVolumes().size());
    }
}

TEST_F(LvmDynamic, OfComponentsTheFirstActiveOneIsTheVolume) {
    LdmVolume_t mirror = LdmMirrored({{0, 0, 100}, {1, 50, 100}, {2, 20, 100}});
    const CLdmGroupBuilder sound = CLdmGroupBuilder(3).Volume(mirror);
    EXPECT_EQ((Texts_t{"0 at 63-162 as 0-99 column 0"}), PiecesOf(OnlyVolume(Disks(sound, {0, 1, 2}))));
    mirror.plexes[0].state = "DETACHED";
    const CLdmGroupBuilder half = CLdmGroupBuilder(3).Volume(mirror);
    const LVM_Volume_t volume = OnlyVolume(Disks(half, {0, 1, 2}));
    EXPECT_EQ((Texts_t{"1 at 113-212 as 0-99 column 0"}), PiecesOf(volume));
    EXPECT_SAME_BYTES(half.VolumeBytes(0), Read(volume, 0, 100));
}

TEST_F(LvmDynamic, AnActiveVolumeHasAnActiveComponent) {
    LdmVolume_t mirror = LdmMirrored({{0, 0, 100}, {0, 200, 100}});
    mirror.plexes[0].state = "DETACHED";
    mirror.plexes[1].state = "active";
    const CLdmGroupBuilder group = CLdmGroupBuilder(1).Volume(LdmSimple({0, 400, 50})).Volume(mirror);
    std::vector<LVM_HardDisk_t> disks = Disks(group, {0});
    EXPECT_REFUSED(m_Lvm.InitializeFromDisk(disks),
                   "No component is marked ACTIVE for an active volume in LDM database");
    EXPECT_EQ(1U, m_Lvm.GetVolumes().size()) << "what was found so far stays";
}

TEST_F(LvmDynamic, AnInactiveVolumeNeedsNoActiveComponent) {
    LdmVolume_t simple = LdmSimple({0, 0, 100});
    simple.state = "DISABLED";
    simple.plexes[0].state = "DETACHED";
    std::vector<LVM_HardDisk_t> disks = Disks(CLdmGroupBuilder(1).Volume(simple), {0});
    EXPECT_OK(m_Lvm.InitializeFromDisk(disks));
}

TEST_F(LvmDynamic, TheComponentIsLookedForOnLaterDisksToo) {
    LdmVolume_t simple = LdmSimple({0, 0, 100});
    const CLdmGroupBuilder sound = CLdmGroupBuilder(2).Volume(simple);
    simple.plexes[0].state = "DETACHED";
    const CLdmGroupBuilder detached = CLdmGroupBuilder(2).Volume(simple);
    std::vector<LVM_HardDisk_t> disks = {Disk(sound.Image(0)), Disk(detached.Image(1))};
    EXPECT_REFUSED(m_Lvm.InitializeFromDisk(disks),
                   "No component is marked ACTIVE for an active volume in LDM database");
}

TEST_F(LvmDynamic, AnAbsentDiskMarksItsVolumes) {
    const CLdmGroupBuilder group =
        CLdmGroupBuilder(3).Volume(LdmSpanned({{0, 0, 100}, {1, 0, 100}, {2, 0, 100}})).Volume(LdmSimple({1, 200, 50}));
    std::vector<LVM_HardDisk_t> disks = Disks(group, {0, 1});
    ASSERT_OK(m_Lvm.InitializeFromDisk(disks));
    const std::vector<LVM_Volume_t> volumes = m_Lvm.GetVolumes();
    ASSERT_EQ(2U, volumes.size());
    EXPECT_EQ(0, volumes[0].AllDiskFound);
    EXPECT_EQ(
        (Texts_t{"0 at 63-162 as 0-99 column 0", "1 at 63-162 as 100-199 column 0", "? at 0-99 as 200-299 column 0"}),
        PiecesOf(volumes[0]))
        << "the place of an absent piece counts from its disk's data";
    EXPECT_STREQ("Volume1", volumes[0].VolName);
    EXPECT_EQ(299U, volumes[0].Segments.at(0).LBAEnd);
    char bytes[512];
    EXPECT_REFUSED(m_Lvm.ReadVolumeData(volumes[0], 0, bytes, 512, nullptr),
                   "Not all disks where found for this volume.");
    EXPECT_EQ(1, volumes[1].AllDiskFound);
    EXPECT_STREQ("Volume2", volumes[1].VolName);
    EXPECT_SAME_BYTES(group.VolumeBytes(1), Read(volumes[1], 0, 50));
}

TEST_F(LvmDynamic, ARaid5VolumeWithAnAbsentDiskHasItsEndAllTheSame) {
    const CLdmGroupBuilder group = CLdmGroupBuilder(3).Volume(LdmRaid5(8, {{0, 0, 1000}, {1, 0, 1000}, {2, 0, 1000}}));
    for (const size_t absent : {0, 1, 2}) {
        std::vector<size_t> there;
        for (const size_t disk : {0, 1, 2}) {
            if (disk != absent)
                there.push_back(disk);
        }
        const LVM_Volume_t volume = OnlyVolume(Disks(group, there));
        EXPECT_EQ(0, volume.AllDiskFound);
        EXPECT_EQ(1999U, volume.Segments.at(0).LBAEnd) << absent;
    }
}

TEST_F(LvmDynamic, DisksAreToldByTheirGuidsInAnyOrder) {
    const CLdmGroupBuilder group = CLdmGroupBuilder(3).Volume(LdmSpanned({{0, 0, 10}, {1, 0, 10}, {2, 0, 10}}));
    std::vector<LVM_HardDisk_t> disks = {Disk(CPartitionTableBuilder().Slot(0, 7, 63, 10).Image())};
    for (const size_t number : {2, 0, 1})
        disks.push_back(Disk(group.Image(number)));
    ASSERT_OK(m_Lvm.InitializeFromDisk(disks));
    const std::vector<LVM_Volume_t> volumes = m_Lvm.GetVolumes();
    ASSERT_EQ(2U, volumes.size());
    EXPECT_STREQ("Volume1", volumes[0].VolName) << "the plain partition";
    EXPECT_STREQ("Volume2", volumes[1].VolName);
    EXPECT_EQ((Texts_t{"2 at 63-72 as 0-9 column 0", "3 at 63-72 as 10-19 column 0", "1 at 63-72 as 20-29 column 0"}),
              PiecesOf(volumes[1]));
    EXPECT_SAME_BYTES(group.VolumeBytes(0),
                      Read(volumes[1], 0, 10) + Read(volumes[1], 10, 10) + Read(volumes[1], 20, 10));
}

// The sixteen bytes of a disk's record are compared as they stand with what the private header's text says.
TEST_F(LvmDynamic, AGuidOfRevision4IsComparedByItsBytes) {
    const CLdmGroupBuilder group = CLdmGroupBuilder(1).Volume(LdmSimple({0, 0, 10}));
    EXPECT_EQ((Texts_t{"0 at 63-72 as 0-9 column 0"}),
              PiecesOf(OnlyVolume(Disks(CLdmGroupBuilder(group).Revision(4, LdmGuidOrder_t::OfNumbers), {0}))));
    EXPECT_EQ((Texts_t{"? at 0-9 as 0-9 column 0"}),
              PiecesOf(OnlyVolume(Disks(CLdmGroupBuilder(group).Revision(4, LdmGuidOrder_t::OfText), {0}))));
}

TEST_F(LvmDynamic, PlacesCountFromTheDisksDataStart) {
    const CLdmGroupBuilder group = CLdmGroupBuilder(2).Volume(LdmSpanned({{0, 20, 10}, {1, 30, 10}})).OnGpt();
    const LVM_Volume_t volume = OnlyVolume(Disks(group, {0, 1}));
    EXPECT_EQ((Texts_t{"0 at 2312-2321 as 0-9 column 0", "1 at 2322-2331 as 10-19 column 0"}), PiecesOf(volume));
    EXPECT_SAME_BYTES(group.VolumeBytes(0), Read(volume, 0, 10) + Read(volume, 10, 10));
}

// Callers rely on the data start of a logical partition being one in front of the disk.
TEST_F(LvmDynamic, OfALogicalPartitionPlacesCountFromOneInFrontOfTheDisk) {
    CImageFile image = CLdmGroupBuilder(1).Volume(LdmSimple({0, 20, 10})).Image(0);
    image.Put(0, CBootRecordBuilder().Slot(0, 5, 1500, 100).Bytes());
    image.Put(uint64_t{1500} * 512, CBootRecordBuilder().Slot(0, 0x42, 1, 90).Bytes());
    EXPECT_EQ((Texts_t{"0 at 19-28 as 0-9 column 0"}), PiecesOf(OnlyVolume({Disk(image)})));
}

TEST_F(LvmDynamic, TheFirstDisksDatabaseMakesAVolume) {
    const CLdmGroupBuilder one = CLdmGroupBuilder(2).Volume(LdmSpanned({{0, 0, 100}, {1, 0, 100}}));
    const CLdmGroupBuilder other = CLdmGroupBuilder(2).Volume(LdmSpanned({{1, 500, 70}, {0, 300, 70}}));
    EXPECT_EQ((Texts_t{"0 at 63-162 as 0-99 column 0", "1 at 63-162 as 100-199 column 0"}),
              PiecesOf(OnlyVolume({Disk(one.Image(0)), Disk(other.Image(1))})));
    EXPECT_EQ((Texts_t{"0 at 563-632 as 0-69 column 0", "1 at 363-432 as 70-139 column 0"}),
              PiecesOf(OnlyVolume({Disk(other.Image(1)), Disk(one.Image(0))})));
}

TEST_F(LvmDynamic, TwoGroupsKeepToThemselves) {
    const CLdmGroupBuilder one = CLdmGroupBuilder(2).Volume(LdmSpanned({{0, 0, 10}, {1, 0, 10}})).Serial(1);
    const CLdmGroupBuilder two = CLdmGroupBuilder(2).Volume(LdmSpanned({{1, 5, 10}, {0, 5, 10}})).Serial(2);
    std::vector<LVM_HardDisk_t> disks = {Disk(one.Image(0)), Disk(two.Image(0)), Disk(one.Image(1)),
                                         Disk(two.Image(1))};
    ASSERT_OK(m_Lvm.InitializeFromDisk(disks));
    const std::vector<LVM_Volume_t> volumes = m_Lvm.GetVolumes();
    ASSERT_EQ(2U, volumes.size());
    EXPECT_EQ((Texts_t{"0 at 63-72 as 0-9 column 0", "2 at 63-72 as 10-19 column 0"}), PiecesOf(volumes[0]));
    EXPECT_EQ((Texts_t{"3 at 68-77 as 0-9 column 0", "1 at 68-77 as 10-19 column 0"}), PiecesOf(volumes[1]));
    EXPECT_SAME_BYTES(one.VolumeBytes(0), Read(volumes[0], 0, 10) + Read(volumes[0], 10, 10));
    EXPECT_SAME_BYTES(two.VolumeBytes(0), Read(volumes[1], 0, 10) + Read(volumes[1], 10, 10));
}

TEST_F(LvmDynamic, ASecondDiscoveryStartsAfresh) {
    const CLdmGroupBuilder group = CLdmGroupBuilder(2).Volume(LdmSpanned({{0, 0, 10}, {1, 0, 10}}));
    EXPECT_EQ(1, OnlyVolume(Disks(group, {0, 1})).AllDiskFound);
    const LVM_Volume_t volume = OnlyVolume(Disks(group, {1}));
    EXPECT_EQ(0, volume.AllDiskFound);
    EXPECT_EQ((Texts_t{"? at 0-9 as 0-9 column 0", "0 at 63-72 as 10-19 column 0"}), PiecesOf(volume));
}

}  // namespace
