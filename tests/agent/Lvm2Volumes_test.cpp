#include <algorithm>
#include <string>
#include <vector>

#include "tests/agent/ManagedVolumes.h"
#include "tests/support/Lvm2Disks.h"

// Logical volumes: where their bytes are, and what is said of those that can't be read.

namespace {

class Lvm2Volumes : public CManagedVolumesTest {
protected:
    // Opens so many physical volumes on whole disks, all with the same metadata.
    void OpenGroup(size_t physicalVolumes, const std::string& text) {
        m_Paths.clear();
        for (size_t index = 0; index < physicalVolumes; ++index)
            AddDisk(WholePv(index, text));
        Open();
    }
};

TEST_F(Lvm2Volumes, OfManySegmentsHoldTheirBytesAcrossTheSeams) {
    const CLvm2TextBuilder group = GroupOf(3).LogicalVolume("root", {{0, 3, {{"pv1", 7}}},
                                                                     {3, 1, {{"pv0", 63}}},
                                                                     {4, 5, {{"pv2", 0}}},
                                                                     {9, 2, {{"pv1", 0}}},
                                                                     {11, 4, {{"pv1", 30}}}});
    OpenGroup(3, group.Text());
    EXPECT_EQ(Texts_t{"vg-root"}, Names());
    EXPECT_EQ(Texts_t{}, m_Set->Warnings());
    ExpectHolds("vg-root", ExtentsOf(1, 7, 3) + ExtentsOf(0, 63, 1) + ExtentsOf(2, 0, 5) + ExtentsOf(1, 0, 2) +
                               ExtentsOf(1, 30, 4));
    EXPECT_EQ("linear", Volume("vg-root").typeName);
}

TEST_F(Lvm2Volumes, InStripesHoldTheirBytes) {
    const CLvm2TextBuilder group = GroupOf(3)
                                       .LogicalVolume("two", {{0, 4, {{"pv2", 1}, {"pv0", 5}}, 8}})
                                       .LogicalVolume("three", {{0, 6, {{"pv1", 0}, {"pv2", 20}, {"pv0", 9}}, 4}})
                                       .LogicalVolume("onepv", {{0, 4, {{"pv1", 10}, {"pv1", 30}}, 16}})
                                       .LogicalVolume("small", {{0, 2, {{"pv1", 40}, {"pv2", 41}}, 1}});
    OpenGroup(3, group.Text());
    EXPECT_EQ((Texts_t{"vg-onepv", "vg-small", "vg-three", "vg-two"}), Names());
    ExpectHolds("vg-two", StripedContent({{2, 1}, {0, 5}}, 8, 2));
    ExpectHolds("vg-three", StripedContent({{1, 0}, {2, 20}, {0, 9}}, 4, 2));
    ExpectHolds("vg-onepv", StripedContent({{1, 10}, {1, 30}}, 16, 2));
    ExpectHolds("vg-small", StripedContent({{1, 40}, {2, 41}}, 1, 1));
    EXPECT_EQ("striped", Volume("vg-two").typeName);
}

TEST_F(Lvm2Volumes, OfSegmentsOfEachSortHoldTheirBytes) {
    const CLvm2TextBuilder group =
        GroupOf(3).LogicalVolume("root", {{0, 6, {{"pv0", 0}, {"pv1", 0}, {"pv2", 0}}, 8},
                                          {6, 1, {{"pv0", 40}}},
                                          {7, 4, {{"pv2", 10}, {"pv0", 10}}, 2},
                                          {11, 3, {{"pv1", 50}, {"pv2", 50}, {"pv0", 50}}, 16}});
    OpenGroup(3, group.Text());
    ExpectHolds("vg-root", StripedContent({{0, 0}, {1, 0}, {2, 0}}, 8, 2) + ExtentsOf(0, 40, 1) +
                               StripedContent({{2, 10}, {0, 10}}, 2, 2) +
                               StripedContent({{1, 50}, {2, 50}, {0, 50}}, 16, 1));
    EXPECT_EQ("striped", Volume("vg-root").typeName);
}

TEST_F(Lvm2Volumes, LieOnWholeDisksAndPartitionsOfBothTables) {
    const std::string text =
        GroupOf(3)
            .LogicalVolume("root", {{0, 2, {{"pv0", 1}}}, {2, 2, {{"pv1", 62}}}, {4, 2, {{"pv2", 3}}}})
            .LogicalVolume("stripes", {{0, 6, {{"pv0", 10}, {"pv1", 11}, {"pv2", 12}}, 4}})
            .Text();
    AddDisk(PvInMbr(1, text));
    AddDisk(PvInGpt(2, text));
    AddDisk(WholePv(0, text));
    Open();
    EXPECT_EQ((Texts_t{"vg-root", "vg-stripes"}), Names());
    EXPECT_EQ(Texts_t{}, m_Set->Warnings());
    ExpectHolds("vg-root", ExtentsOf(0, 1, 2) + ExtentsOf(1, 62, 2) + ExtentsOf(2, 3, 2));
    ExpectHolds("vg-stripes", StripedContent({{0, 10}, {1, 11}, {2, 12}}, 4, 2));
}

TEST_F(Lvm2Volumes, TellWhatTheirMetadataTells) {
    OpenGroup(1, GroupOf(1)
                     .LogicalVolume("seen", {{0, 2, {{"pv0", 1}}}})
                     .LogicalVolume("part", {{0, 3, {{"pv0", 5}}}}, "[\"READ\", \"WRITE\"]")
                     .Text());
    const VolumeInfo_t& volume = Volume("vg-seen");
    EXPECT_EQ(VolumeManager_t::Lvm2, volume.manager);
    EXPECT_STREQ("lvm2", SchemeName(volume));
    EXPECT_EQ("vg", volume.group);
    EXPECT_EQ("seen", volume.label);
    EXPECT_EQ(WithLvm2Dashes(Lvm2Id(1000)), volume.guid);
    EXPECT_EQ(2 * ExtentSectors, volume.sectors);
    EXPECT_EQ(0U, volume.partition);
    EXPECT_EQ(1, volume.layout.AllDiskFound);
    EXPECT_STREQ("vg-seen", volume.layout.VolName);
    EXPECT_EQ(0x8E, volume.layout.SystemID);
    EXPECT_FALSE(volume.isInternal);
    EXPECT_TRUE(Volume("vg-part").isInternal);
    ExpectHolds("vg-part", ExtentsOf(0, 5, 3));
}

TEST_F(Lvm2Volumes, WhatLiesOnThemIsRecognized) {
    CImageFile image = WholePv(0, GroupOf(1).LogicalVolume("data", {{0, 2, {{"pv0", 4}}}}).Text());
    image.Put((FirstExtentSector + 4 * ExtentSectors) * 512, CNtfsBootBuilder().Bytes());
    AddDisk(image);
    Open();
    EXPECT_EQ("ntfs", Volume("vg-data").fileSystem);
}

TEST_F(Lvm2Volumes, WithoutTheirPhysicalVolumesAreNotRead) {
    const CLvm2TextBuilder group =
        GroupOf(3)
            .LogicalVolume("all", {{0, 1, {{"pv0", 1}}}, {1, 2, {{"pv1", 1}, {"pv2", 1}}, 8}})
            .LogicalVolume("first", {{0, 3, {{"pv0", 5}}}})
            .LogicalVolume("second", {{0, 3, {{"pv1", 5}}}, {3, 1, {{"pv0", 9}}}});
    OpenGroup(3, group.Text());
    OpenOnly({0});
    const std::string second = WithLvm2Dashes(PvId(1)) + " (/dev/sda)";
    const std::string third = WithLvm2Dashes(PvId(2)) + " (/dev/sda)";
    EXPECT_EQ((Texts_t{second, third}), MissingOf(Volume("vg-all")));
    ExpectRefused("vg-all", {"disks of it are missing: " + second + ", " + third});
    EXPECT_EQ(3 * ExtentSectors, Volume("vg-all").sectors);
    EXPECT_EQ(0, Volume("vg-all").layout.AllDiskFound);
    ExpectRefused("vg-second", {"a disk of it is missing: " + second});
    ExpectHolds("vg-first", ExtentsOf(0, 5, 3));
    OpenOnly({0, 1});
    ExpectRefused("vg-all", {"a disk of it is missing: " + third});
    ExpectHolds("vg-second", ExtentsOf(1, 5, 3) + ExtentsOf(0, 9, 1));
}

TEST_F(Lvm2Volumes, OfOtherSegmentTypesAreNamedAndNotRead) {
    for (const char* const type : {"thin", "thin-pool", "cache", "cache-pool", "writecache", "raid1", "raid5_ls",
                                   "raid10", "mirror", "snapshot", "error", "zero", "vdo", "Striped", "linear", ""}) {
        SCOPED_TRACE(type);
        Lvm2Segment_t other{2, 2, {{"pv0", 9}}};
        other.type = type;
        OpenGroup(1, GroupOf(1)
                         .LogicalVolume("odd", {{0, 2, {{"pv0", 1}}}, other})
                         .LogicalVolume("plain", {{0, 2, {{"pv0", 20}}}})
                         .Text());
        ExpectRefused("vg-odd", {"its segments are of type \"" + std::string(type) + "\", which can't be read"});
        EXPECT_EQ(type, Volume("vg-odd").typeName);
        EXPECT_EQ(4 * ExtentSectors, Volume("vg-odd").sectors);
        EXPECT_EQ("", Volume("vg-odd").fileSystem);
        EXPECT_TRUE(Volume("vg-odd").layout.Segments.empty());
        ExpectHolds("vg-plain", ExtentsOf(0, 20, 2));
    }
}

CLvm2TextBuilder WithSnapshot(const std::string& storeItem) {
    Lvm2Segment_t snapshot{0, 4};
    snapshot.type = "snapshot";
    snapshot.lines = {"chunk_size = 8", "origin = \"root\"", storeItem + " = \"snap\""};
    return GroupOf(1)
        .LogicalVolume("root", {{0, 4, {{"pv0", 1}}}})
        .LogicalVolume("snap", {{0, 2, {{"pv0", 9}}}})
        .LogicalVolume("snapshot0", {snapshot}, "[\"READ\", \"WRITE\"]");
}

TEST_F(Lvm2Volumes, TheStoreOfASnapshotIsNoVolumeToRead) {
    OpenGroup(1, WithSnapshot("cow_store").Text());
    ExpectHolds("vg-root", ExtentsOf(0, 1, 4));
    ExpectRefused("vg-snap", {"it is a snapshot, which can't be read"});
    ExpectRefused("vg-snapshot0", {"type \"snapshot\""});
}

// Until the merge is done, what its users see is partly in the store.
TEST_F(Lvm2Volumes, AVolumeIntoWhichASnapshotIsMergedIsNotRead) {
    OpenGroup(1, WithSnapshot("merging_store").Text());
    ExpectRefused("vg-root", {"a snapshot is being merged into it"});
    ExpectRefused("vg-snap", {"it is a snapshot, which can't be read"});
}

TEST_F(Lvm2Volumes, OnAnotherVolumeInsteadOfADiskAreNotRead) {
    OpenGroup(1, GroupOf(1)
                     .LogicalVolume("root", {{0, 2, {{"pvmove0", 0}}}})
                     .LogicalVolume("pvmove0", {{0, 2, {{"pv0", 0}}}}, "[\"READ\", \"PVMOVE\"]")
                     .Text());
    ExpectRefused("vg-root", {"a stripe of it lies on pvmove0, which is no physical volume"});
}

TEST_F(Lvm2Volumes, NamesThatAreTakenGetANumber) {
    const std::string other = Replaced(GroupOf(0)
                                           .PhysicalVolume("pv0", PvId(1), ExtentCount, FirstExtentSector)
                                           .LogicalVolume("root", {{0, 2, {{"pv0", 8}}}})
                                           .Text(),
                                       WithLvm2Dashes(Lvm2Id(999)), WithLvm2Dashes(Lvm2Id(998)));
    const std::string third = Replaced(GroupOf(0, "vg-root")
                                           .PhysicalVolume("pv0", PvId(2), ExtentCount, FirstExtentSector)
                                           .LogicalVolume("a", {{0, 2, {{"pv0", 8}}}})
                                           .Text(),
                                       WithLvm2Dashes(Lvm2Id(999)), WithLvm2Dashes(Lvm2Id(997)));
    AddDisk(WholePv(0, GroupOf(1)
                           .LogicalVolume("root", {{0, 2, {{"pv0", 1}}}})
                           .LogicalVolume("root-a", {{0, 2, {{"pv0", 3}}}})
                           .Text()));
    AddDisk(WholePv(1, other));
    AddDisk(WholePv(2, third));
    Open();
    EXPECT_EQ(Texts_t{}, m_Set->Warnings());
    EXPECT_EQ((Texts_t{"vg-root", "vg-root#2", "vg-root-a", "vg-root-a#2"}), Names());
    std::vector<std::string> contents;
    for (const VolumeInfo_t& volume : m_Set->Volumes())
        contents.push_back(Read(volume, 0, volume.sectors * 512));
    for (const std::string& expected : {ExtentsOf(0, 1, 2), ExtentsOf(0, 3, 2), ExtentsOf(1, 8, 2), ExtentsOf(2, 8, 2)})
        EXPECT_EQ(1, std::count(contents.begin(), contents.end(), expected));
}

}  // namespace
