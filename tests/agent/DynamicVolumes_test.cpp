#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/agent/ManagedVolumes.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/LdmGroupBuilder.h"
#include "tests/support/PartitionTableBuilder.h"

// Volumes of dynamic disks: where their bytes are, and what becomes of them when disks are absent.

namespace {

std::string InBraces(std::string guid) {
    std::transform(guid.begin(), guid.end(), guid.begin(),
                   [](unsigned char each) { return static_cast<char>(std::toupper(each)); });
    return "{" + guid + "}";
}

// Three disks with a volume of each kind, Volume1 to Volume6, of which no two have the same size.
CLdmGroupBuilder AllKinds() {
    return CLdmGroupBuilder(3)
        .Volume(LdmSimple({0, 0, 100}))
        .Volume(LdmSpanned({{1, 500, 100}, {0, 200, 51}, {1, 100, 30}}))
        .Volume(LdmStriped(8, {{2, 0, 64}, {0, 300, 64}, {1, 700, 64}}))
        .Volume(LdmRaid5(8, {{0, 1000, 80}, {1, 1000, 80}, {2, 1000, 80}}))
        .Volume(LdmMirrored({{0, 1500, 90}, {2, 1500, 90}}))
        .Volume(LdmStriped(1, {{1, 1500, 17}, {2, 1700, 17}}));
}
constexpr size_t KindCount = 6;

class DynamicVolumes : public CManagedVolumesTest {
protected:
    void AddDisks(const CLdmGroupBuilder& group, size_t count) {
        for (size_t disk = 0; disk < count; ++disk)
            AddDisk(group.Image(disk));
    }

    void ExpectHoldsAll(const CLdmGroupBuilder& group, size_t count) {
        for (size_t volume = 0; volume < count; ++volume)
            ExpectHolds("Volume" + std::to_string(volume + 1), group.VolumeBytes(volume));
    }

    // The same names, sizes and bytes, sector by sector.
    void ExpectAgreesWithCore() {
        CLVM core;
        ASSERT_OK(core.InitializeFromDisk(m_CoreDisks));
        ASSERT_EQ(core.GetVolumes().size(), m_Set->Volumes().size());
        for (const LVM_Volume_t& volume : core.GetVolumes()) {
            SCOPED_TRACE(volume.VolName);
            const VolumeInfo_t& ours = Volume(volume.VolName);
            EXPECT_STREQ(volume.VolName, ours.layout.VolName);
            EXPECT_EQ(volume.SystemID, ours.layout.SystemID);
            EXPECT_EQ(volume.IsRaid5, ours.layout.IsRaid5);
            EXPECT_EQ(volume.AllDiskFound, ours.layout.AllDiskFound);
            ASSERT_EQ(volume.Segments.back().LBAEnd + 1, ours.sectors);
            for (uint64_t sector = 0; sector < ours.sectors; ++sector)
                EXPECT_SAME_BYTES(CoreSector(core, volume, sector), Read(ours, sector * 512, 512)) << sector;
        }
    }

    // What one failing read leaves of a volume that has its bytes twice: all of them.
    void ExpectSurvivesAnyFailedRead(const std::string& name, const std::string& content) {
        const VolumeInfo_t& volume = Volume(name);
        unsigned int failAt = 0;
        for (bool fired = true; fired; ++failAt) {
            CFaultyFiles faulty(Fault_t{FaultOp::Read, failAt, EIO});
            EXPECT_SAME_BYTES(content, Read(volume, 0, content.size())) << "read " << failAt;
            fired = faulty.Fired();
        }
        EXPECT_LE(2U, failAt);
    }
};

TEST_F(DynamicVolumes, OfEachKindHoldTheirBytes) {
    const CLdmGroupBuilder group = AllKinds();
    AddDisks(group, 3);
    Open();
    EXPECT_EQ((Texts_t{"Volume1", "Volume2", "Volume3", "Volume4", "Volume5", "Volume6"}), Names());
    EXPECT_EQ(Texts_t{}, m_Set->Warnings());
    ExpectHoldsAll(group, KindCount);
}

TEST_F(DynamicVolumes, TellWhatTheirRecordsTell) {
    const CLdmGroupBuilder group = AllKinds();
    AddDisks(group, 3);
    Open();
    const char* const types[] = {"simple", "spanned", "striped", "RAID-5", "mirrored", "striped"};
    for (size_t index = 0; index < KindCount; ++index) {
        const VolumeInfo_t& volume = m_Set->Volumes().at(index);
        EXPECT_EQ(VolumeManager_t::DynamicDisks, volume.manager);
        EXPECT_STREQ("ldm", SchemeName(volume));
        EXPECT_EQ(types[index], volume.typeName);
        EXPECT_EQ("Volume" + std::to_string(index + 1), volume.label);
        EXPECT_EQ("Group-Dg0", volume.group);
        EXPECT_EQ(InBraces(group.VolumeGuid(index)), volume.guid);
        EXPECT_EQ(0U, volume.partition);
        EXPECT_TRUE(volume.isActive);
        EXPECT_FALSE(volume.isInternal);
        EXPECT_EQ(1, volume.layout.AllDiskFound);
        EXPECT_EQ(7, volume.layout.SystemID);
    }
}

TEST_F(DynamicVolumes, AgreeWithTheCore) {
    AddDisks(AllKinds(), 3);
    Open();
    ExpectAgreesWithCore();
}

TEST_F(DynamicVolumes, OfAGptAgreeWithTheCore) {
    const CLdmGroupBuilder group = AllKinds().OnGpt();
    AddDisks(group, 3);
    Open();
    ExpectHoldsAll(group, KindCount);
    ExpectAgreesWithCore();
}

TEST_F(DynamicVolumes, AreTheSameInAnyOrderOfTheDisks) {
    const CLdmGroupBuilder group = AllKinds();
    AddDisks(group, 3);
    std::vector<size_t> order{0, 1, 2};
    do {
        SCOPED_TRACE(testing::PrintToString(order));
        OpenOnly(order);
        ExpectHoldsAll(group, KindCount);
    } while (std::next_permutation(order.begin(), order.end()));
}

// Stripes of odd sizes, and rows in which the parity goes round more than once.
TEST_F(DynamicVolumes, OfAnyStripesHoldTheirBytes) {
    const CLdmGroupBuilder group =
        CLdmGroupBuilder(5)
            .Volume(LdmRaid5(7, {{4, 0, 91}, {2, 0, 91}, {0, 0, 91}, {1, 0, 91}, {3, 0, 91}}))
            .Volume(LdmRaid5(1, {{3, 100, 9}, {1, 100, 9}, {0, 100, 9}, {2, 100, 9}}))
            .Volume(LdmStriped(3, {{1, 200, 30}, {2, 200, 30}, {3, 200, 30}, {4, 200, 30}, {0, 200, 30}}))
            .Volume(LdmStriped(128, {{0, 300, 384}, {1, 300, 384}}))
            .Volume(LdmStriped(8, {{0, 800, 16}}));
    AddDisks(group, 5);
    Open();
    ExpectHoldsAll(group, 5);
    ExpectAgreesWithCore();
}

TEST_F(DynamicVolumes, OfSeveralGroupsAreKeptApart) {
    const CLdmGroupBuilder first = CLdmGroupBuilder(2).Volume(LdmSpanned({{0, 0, 40}, {1, 7, 50}}));
    const CLdmGroupBuilder second = CLdmGroupBuilder(2).Serial(1).Volume(LdmSpanned({{1, 5, 33}, {0, 9, 44}}));
    for (size_t disk = 0; disk < 2; ++disk) {
        AddDisk(second.Image(disk));
        AddDisk(first.Image(disk));
    }
    Open();
    ExpectHolds("Volume1", second.VolumeBytes(0));
    ExpectHolds("Volume2", first.VolumeBytes(0));
    ExpectAgreesWithCore();
}

// Numbers go on from disk to disk, whatever manages the volumes there.
TEST_F(DynamicVolumes, BesidePlainDisksHaveTheNamesThatTheCoreGives) {
    const CLdmGroupBuilder group =
        CLdmGroupBuilder(2).Volume(LdmSpanned({{1, 0, 40}, {0, 7, 50}})).Volume(LdmSimple({1, 100, 30}));
    const CImageFile plain = CPartitionTableBuilder().Sectors(400).Slot(2, 0x07, 63, 100).Ntfs(63).Image();
    AddDisk(plain);
    AddDisk(group.Image(1));
    AddDisk(plain);
    AddDisk(group.Image(0));
    Open();
    CLVM core;
    ASSERT_OK(core.InitializeFromDisk(m_CoreDisks));
    Texts_t names;
    for (const LVM_Volume_t& volume : core.GetVolumes())
        names.push_back(volume.VolName);
    EXPECT_EQ((Texts_t{"Volume1", "Volume2", "Volume3", "Volume4"}), names);
    EXPECT_EQ(names, Names());
    ExpectHolds("Volume2", group.VolumeBytes(0));
    ExpectHolds("Volume3", group.VolumeBytes(1));
    EXPECT_EQ(PartitionScheme_t::Mbr, Volume("Volume4").scheme);
}

TEST_F(DynamicVolumes, AbsentDisksAreNamedByGuidAndName) {
    const CLdmGroupBuilder group = AllKinds();
    AddDisks(group, 3);
    OpenOnly({1});
    const std::string first = InBraces(group.DiskGuid(0)) + " (Disk1)";
    const std::string third = InBraces(group.DiskGuid(2)) + " (Disk3)";
    const std::vector<Texts_t> missing{{first}, {first}, {third, first}, {first, third}, {first, third}, {third}};
    for (size_t index = 0; index < KindCount; ++index) {
        const VolumeInfo_t& volume = m_Set->Volumes().at(index);
        EXPECT_EQ(missing[index], MissingOf(volume)) << volume.name;
        EXPECT_EQ(0, volume.layout.AllDiskFound);
        EXPECT_EQ("", volume.fileSystem);
        for (const std::string& disk : missing[index])
            ExpectRefused(volume.name, {disk, "missing"});
    }
}

TEST_F(DynamicVolumes, OneAbsentDiskTakesWhatHasItsBytesOnce) {
    const CLdmGroupBuilder group = AllKinds();
    AddDisks(group, 3);
    const struct {
        std::vector<size_t> disks;
        std::vector<bool> isReadable;
    } rows[] = {
        {{0, 1}, {true, true, false, true, true, false}},
        {{0, 2}, {true, false, false, true, true, false}},
        {{1, 2}, {false, false, false, true, true, true}},
        {{2}, {false, false, false, false, true, false}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.disks));
        OpenOnly(row.disks);
        for (size_t index = 0; index < KindCount; ++index) {
            const std::string name = "Volume" + std::to_string(index + 1);
            if (row.isReadable[index])
                ExpectHolds(name, group.VolumeBytes(index));
            else
                ExpectRefused(name, {"missing"});
        }
    }
}

TEST_F(DynamicVolumes, ARaid5VolumeDoesWithoutAnyOneOfItsDisks) {
    const CLdmGroupBuilder group =
        CLdmGroupBuilder(5).Volume(LdmRaid5(7, {{4, 0, 91}, {2, 0, 91}, {0, 0, 91}, {1, 0, 91}, {3, 0, 91}}));
    AddDisks(group, 5);
    for (size_t absent = 0; absent < 5; ++absent) {
        SCOPED_TRACE(absent);
        std::vector<size_t> disks{0, 1, 2, 3, 4};
        disks.erase(disks.begin() + static_cast<std::ptrdiff_t>(absent));
        OpenOnly(disks);
        ExpectHolds("Volume1", group.VolumeBytes(0));
        EXPECT_EQ(1U, Volume("Volume1").missing.size());
        disks.erase(disks.begin());
        OpenOnly(disks);
        EXPECT_EQ(2U, Volume("Volume1").missing.size());
        ExpectRefused("Volume1", {"disks of it are missing"});
    }
}

TEST_F(DynamicVolumes, AFailedReadOfADiskIsMadeGoodByTheOthers) {
    const CLdmGroupBuilder group = AllKinds();
    AddDisks(group, 3);
    Open();
    ExpectSurvivesAnyFailedRead("Volume4", group.VolumeBytes(3));
    ExpectSurvivesAnyFailedRead("Volume5", group.VolumeBytes(4));
}

TEST_F(DynamicVolumes, AFailedReadOfBytesThatAreThereOnceReachesTheCaller) {
    const CLdmGroupBuilder group = AllKinds();
    AddDisks(group, 3);
    const struct {
        std::vector<size_t> disks;
        const char* name;
        size_t path;  // of the disk with the volume's first bytes
    } rows[] = {{{0, 1, 2}, "Volume1", 0},
                {{0, 1, 2}, "Volume2", 1},
                {{0, 1, 2}, "Volume3", 2},
                {{0, 1}, "Volume4", 0},
                {{1, 2}, "Volume5", 2}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        OpenOnly(row.disks);
        const VolumeInfo_t& volume = Volume(row.name);
        std::string bytes(512, '?');
        CFaultyFiles faulty(Fault_t{FaultOp::Read, 0, EIO});
        EXPECT_FAILS_SAYING(m_Set->Read(volume, 0, bytes.data(), 512), m_Paths[row.path]);
        EXPECT_TRUE(faulty.Fired());
    }
}

// A disk that ends early has the front of its column; what lies behind comes from the parity.
TEST_F(DynamicVolumes, ADiskThatWasCutIsMadeGoodByTheOthers) {
    const CLdmGroupBuilder group = CLdmGroupBuilder(3)
                                       .OnGpt()
                                       .Volume(LdmRaid5(8, {{0, 100, 80}, {1, 100, 80}, {2, 100, 80}}))
                                       .Volume(LdmMirrored({{1, 200, 60}, {2, 10, 60}}));
    AddDisk(group.Image(0));
    CImageFile cut = group.Image(1);
    cut.Resize((group.DataStart() + 140) * 512);
    AddDisk(cut);
    AddDisk(group.Image(2));
    Open();
    ExpectHoldsAll(group, 2);
    OpenOnly({0, 1});
    const VolumeInfo_t& volume = Volume("Volume1");
    EXPECT_SAME_BYTES(group.VolumeBytes(0).substr(0, 80 * 512), Read(volume, 0, 80 * 512));
    std::string bytes(volume.sectors * 512, '?');
    EXPECT_FAILS_SAYING(m_Set->Read(volume, 0, bytes.data(), static_cast<uint32_t>(bytes.size())), m_Paths[1]);
}

}  // namespace
