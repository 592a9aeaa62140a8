#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "tests/agent/ManagedVolumes.h"
#include "tests/support/Bytes.h"
#include "tests/support/LdmGroupBuilder.h"

// The databases of dynamic disks as they may be met: in fragments, damaged, of different ages, and with
// records that tell of no sound volume.

namespace {

using Slots_t = std::vector<std::string>;

constexpr size_t SlotPlaceBytes = 8;  // signature and number, which belong to the slot's place

// Sector 0 of a group's records, by which its databases are of different ages.
std::string CommitBytes(uint64_t commit) {
    return BigEndianBytes(commit, 8);
}
constexpr size_t CommitOffset = 117;

// The same fragments in other slots: slot `at` gets what was in slot `order[at]`.
CLdmDatabaseBuilder Reordered(CLdmDatabaseBuilder database, const std::vector<size_t>& order) {
    const Slots_t slots = database.Slots();
    for (size_t at = 0; at < order.size(); ++at)
        database.PutInSlot(at, SlotPlaceBytes, slots.at(order[at]).substr(SlotPlaceBytes));
    return database;
}

// The number of the first slot with that fragment of a record of so many.
size_t FindSlot(const CLdmDatabaseBuilder& database, uint16_t fragment, uint16_t count) {
    const std::string wanted = BigEndianBytes(fragment, 2) + BigEndianBytes(count, 2);
    const Slots_t slots = database.Slots();
    const auto found = std::find_if(slots.begin(), slots.end(),
                                    [&](const std::string& slot) { return slot.compare(12, 4, wanted) == 0; });
    EXPECT_NE(slots.end(), found);
    return static_cast<size_t>(found - slots.begin());
}

CLdmGroupBuilder OneSpan() {
    return CLdmGroupBuilder(2).Volume(LdmSpanned({{0, 10, 40}, {1, 20, 50}}));
}

class DynamicRecords : public CManagedVolumesTest {
protected:
    // Opens the disks of the group anew, both with databases that `change` was done to.
    template <typename Change> void OpenChanged(const CLdmGroupBuilder& group, const Change& change) {
        m_Paths.clear();
        for (size_t disk = 0; disk < 2; ++disk) {
            CLdmDatabaseBuilder database = group.Database(disk);
            AddDisk(group.Image(disk, change(database)));
        }
        Open();
    }

    // Opens one disk with the records of one volume, and nothing of its bytes.
    void OpenWith(const LdmVolume_t& volume) {
        m_Paths.clear();
        AddDisk(CLdmGroupBuilder(1).Image(0, CLdmGroupBuilder(1).Volume(volume).Database(0)));
        Open();
    }
};

TEST_F(DynamicRecords, OfAnyNumberOfFragmentsArePutTogether) {
    const CLdmGroupBuilder group = OneSpan();
    size_t mostFragments = 0;
    for (const uint32_t slotBytes : {128U, 96U, 72U, 64U, 56U, 48U, 40U, 32U, 28U, 24U}) {
        SCOPED_TRACE(slotBytes);
        OpenChanged(group, [&](CLdmDatabaseBuilder& database) { return database.VblkSize(slotBytes); });
        ExpectHolds("Volume1", group.VolumeBytes(0));
        EXPECT_EQ("Volume1", Volume("Volume1").label);
        for (const std::string& slot : group.Database(0).VblkSize(slotBytes).Slots())
            mostFragments = std::max(mostFragments, static_cast<size_t>(LittleEndianAt(slot, 15, 1)));
    }
    EXPECT_LT(10U, mostFragments);
}

TEST_F(DynamicRecords, OfEachTypeMayLieInFragments) {
    for (const uint8_t type : {LdmComponentType, LdmPartitionType, LdmDisk3Type, LdmGroup3Type, LdmVolumeType}) {
        for (const size_t fragments : {2U, 3U, 4U, 5U, 9U}) {
            SCOPED_TRACE(testing::Message() << fragments << " of type " << int{type});
            const CLdmGroupBuilder group = OneSpan().Fragments(type, fragments);
            OpenChanged(group, [](const CLdmDatabaseBuilder& database) { return database; });
            ExpectHolds("Volume1", group.VolumeBytes(0));
        }
    }
}

TEST_F(DynamicRecords, MayLieInAnyOrderOfTheirSlots) {
    const CLdmGroupBuilder group = OneSpan();
    for (const uint32_t slotBytes : {128U, 64U, 48U}) {
        std::vector<size_t> order(group.Database(0).VblkSize(slotBytes).Slots().size());
        std::iota(order.begin(), order.end(), size_t{0});
        std::reverse(order.begin(), order.end());
        std::mt19937_64 random(slotBytes);
        for (int turn = 0; turn < 8; ++turn) {
            SCOPED_TRACE(testing::Message() << slotBytes << " in turn " << turn);
            OpenChanged(group,
                        [&](CLdmDatabaseBuilder& database) { return Reordered(database.VblkSize(slotBytes), order); });
            ExpectHolds("Volume1", group.VolumeBytes(0));
            std::shuffle(order.begin(), order.end(), random);
        }
    }
}

TEST_F(DynamicRecords, WithoutAFragmentAreNamed) {
    const CLdmGroupBuilder group = OneSpan().Fragments(LdmVolumeType, 3);
    for (const uint16_t fragment : {uint16_t{1}, uint16_t{2}}) {
        OpenChanged(group, [&](CLdmDatabaseBuilder& database) {
            return database.PutInSlot(FindSlot(database, fragment, 3), 12, std::string(4, '\0'));
        });
        EXPECT_EQ(Texts_t{}, Names());
        const Texts_t warnings = m_Set->Warnings();
        ASSERT_EQ(2U, warnings.size());
        EXPECT_EQ(m_Paths[0] + ": is a dynamic disk whose database can't be read: fragment " +
                      std::to_string(fragment) + " of record 115 of its database is missing",
                  warnings[0]);
    }
}

// A record whose first fragment is gone is missed by those that belong to it.
TEST_F(DynamicRecords, WithoutTheFirstFragmentAreMissed) {
    const CLdmGroupBuilder group = OneSpan();
    for (const uint8_t type : {LdmComponentType, LdmPartitionType, LdmDisk3Type, LdmVolumeType}) {
        SCOPED_TRACE(int{type});
        CLdmGroupBuilder inFragments = group;
        inFragments.Fragments(type, 3);
        OpenChanged(inFragments, [&](CLdmDatabaseBuilder& database) {
            return database.PutInSlot(FindSlot(database, 0, 3), 12, std::string(4, '\0'));
        });
        EXPECT_EQ(Texts_t{}, Names());
        EXPECT_EQ(2U, m_Set->Warnings().size());
    }
}

TEST_F(DynamicRecords, WithAFragmentTwiceAreRefused) {
    const CLdmGroupBuilder group = OneSpan().Fragments(LdmVolumeType, 3);
    OpenChanged(group, [&](CLdmDatabaseBuilder& database) {
        return database.PutInSlot(FindSlot(database, 2, 3), 12, BigEndianBytes(1, 2));
    });
    EXPECT_EQ(Texts_t{}, Names());
    const Texts_t warnings = m_Set->Warnings();
    ASSERT_EQ(2U, warnings.size());
    EXPECT_NE(std::string::npos, warnings[0].find("two slots hold fragment 1 of record 115")) << warnings[0];
}

TEST_F(DynamicRecords, FindTheirDisksByGuidsOfEachRevisionAndOrder) {
    const CLdmGroupBuilder groups[] = {OneSpan().Revision(3), OneSpan().Revision(4, LdmGuidOrder_t::OfText),
                                       OneSpan().Revision(4, LdmGuidOrder_t::OfNumbers)};
    for (const CLdmGroupBuilder& group : groups) {
        SCOPED_TRACE(&group - groups);
        OpenChanged(group, [](const CLdmDatabaseBuilder& database) { return database; });
        ExpectHolds("Volume1", group.VolumeBytes(0));
        EXPECT_EQ(Texts_t{}, m_Set->Warnings());
    }
}

TEST_F(DynamicRecords, AreFoundFromAnyCopyOfThePrivateHeader) {
    for (const bool isGpt : {false, true}) {
        CLdmGroupBuilder group = OneSpan();
        if (isGpt)
            group.OnGpt();
        std::vector<uint64_t> copies{2048 + 1856, 2048 + 2047};
        if (isGpt)
            copies = {34 + 1856, 34 + 2047};
        else
            copies.insert(copies.begin(), 6);
        for (const uint64_t sound : copies) {
            SCOPED_TRACE(testing::Message() << sound << (isGpt ? " of a GPT" : ""));
            m_Paths.clear();
            CImageFile image = group.Image(0);
            for (const uint64_t copy : copies) {
                if (copy != sound)
                    image.Put(copy * 512, std::string(512, '\0'));
            }
            AddDisk(image);
            AddDisk(group.Image(1));
            Open();
            ExpectHolds("Volume1", group.VolumeBytes(0));
            EXPECT_EQ(Texts_t{}, m_Set->Warnings());
        }
    }
}

TEST_F(DynamicRecords, ADiskWithoutAPrivateHeaderIsMissed) {
    const CLdmGroupBuilder group = OneSpan();
    AddDisk(group.Image(0, group.Database(0).PutInPrivateHead(0, "x")));
    AddDisk(group.Image(1));
    Open();
    ExpectOneWarning({m_Paths[0], "dynamic disk whose database can't be read"});
    ExpectRefused("Volume1", {"Disk1"});
    EXPECT_EQ(1U, Volume("Volume1").missing.size());
}

TEST_F(DynamicRecords, TheirSectorsCountFromThePrivateHeadersDataStart) {
    const CLdmGroupBuilder group = OneSpan();
    CImageFile image = group.Image(0, group.Database(0).LogicalDisk(200, 1500));
    image.Put((200 + 10) * 512, group.VolumeBytes(0).substr(0, 40 * 512));
    image.Put((63 + 10) * 512, std::string(40 * 512, 'x'));
    AddDisk(image);
    AddDisk(group.Image(1));
    Open();
    ExpectHolds("Volume1", group.VolumeBytes(0));
}

TEST_F(DynamicRecords, OfOneDiskDoForAnotherOneWhoseAreDamaged) {
    const CLdmGroupBuilder group = OneSpan();
    const CLdmDatabaseBuilder sound = group.Database(0);
    const struct {
        const char* name;
        CLdmDatabaseBuilder database;
        const char* text;
    } rows[] = {
        {"tables of contents", CLdmDatabaseBuilder(sound).PutInTocBlocks(0, "x"), "no valid tocblocks"},
        {"the records' head", CLdmDatabaseBuilder(sound).PutInVmdb(0, "x"), "Failed to parse VMDB"},
        {"a state of change", CLdmDatabaseBuilder(sound).PutInVmdb(16, BigEndianBytes(2, 2)), "Failed to parse VMDB"},
        {"a slot's signature", CLdmDatabaseBuilder(sound).PutInSlot(3, 0, "x"), "VBLK signature is missing"},
        {"a slot's number", CLdmDatabaseBuilder(sound).PutInSlot(3, 7, "x"), "sequence number does not match"},
        {"a second group", CLdmDatabaseBuilder(sound).Add(LdmGroupRecord_t()), "More than one disk group found"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        m_Paths.clear();
        AddDisk(group.Image(0, row.database));
        AddDisk(group.Image(1));
        Open();
        ExpectHolds("Volume1", group.VolumeBytes(0));
        ExpectOneWarning({m_Paths[0], row.text});
        OpenOnly({0});
        EXPECT_EQ(Texts_t{}, Names());
    }
}

TEST_F(DynamicRecords, OfTheNewestDatabaseAreUsed) {
    const CLdmGroupBuilder older = CLdmGroupBuilder(2).Volume(LdmSimple({0, 300, 7}));
    const CLdmGroupBuilder newer = OneSpan();
    for (const bool isFirstNewer : {true, false}) {
        SCOPED_TRACE(isFirstNewer);
        m_Paths.clear();
        for (size_t disk = 0; disk < 2; ++disk) {
            const bool isNewer = (disk == 0) == isFirstNewer;
            CLdmDatabaseBuilder database = (isNewer ? newer : older).Database(disk);
            AddDisk(newer.Image(disk, database.PutInVmdb(CommitOffset, CommitBytes(isNewer ? 0x100 : 0xFF))));
        }
        Open();
        EXPECT_EQ(Texts_t{"Volume1"}, Names());
        ExpectHolds("Volume1", newer.VolumeBytes(0));
        ExpectOneWarning(
            {m_Paths[isFirstNewer ? 1 : 0] + ": its database", "older than that of " + m_Paths[isFirstNewer ? 0 : 1]});
    }
}

// A disk that was away while its group changed has old bytes.
TEST_F(DynamicRecords, ADiskThatMissedChangesIsReadOnlyWhereNothingStandsInForIt) {
    const LdmVolume_t volumes[] = {LdmMirrored({{0, 0, 64}, {1, 0, 64}, {2, 0, 64}}),
                                   LdmRaid5(16, {{0, 0, 64}, {1, 0, 64}, {2, 0, 64}})};
    for (const LdmVolume_t& volume : volumes) {
        const CLdmGroupBuilder group = CLdmGroupBuilder(3).Volume(volume);
        for (size_t old = 0; old < 3; ++old) {
            SCOPED_TRACE(old);
            m_Paths.clear();
            for (size_t disk = 0; disk < 3; ++disk) {
                CLdmDatabaseBuilder database = group.Database(disk);
                CImageFile image =
                    group.Image(disk, database.PutInVmdb(CommitOffset, CommitBytes(disk == old ? 6 : 7)));
                if (disk == old)
                    image.Put(group.DataStart() * 512, std::string(64 * 512, 'o'));
                AddDisk(image);
            }
            Open();
            ExpectHolds("Volume1", group.VolumeBytes(0));
            ExpectOneWarning({m_Paths[old] + ": its database", "older"});
        }
    }
}

TEST_F(DynamicRecords, OneSoundHalfOfAMirrorIsEnough) {
    LdmVolume_t volume = LdmMirrored({{0, 0, 64}, {1, 0, 64}});
    volume.plexes[0].layout = 7;
    const CLdmGroupBuilder group = CLdmGroupBuilder(2).Volume(volume);
    AddDisk(group.Image(0));
    AddDisk(group.Image(1));
    Open();
    ExpectHolds("Volume1", group.VolumeBytes(0));
    EXPECT_EQ(1U, Volume("Volume1").layout.Segments.at(0).Components.at(0).HardDiskIndex);
}

TEST_F(DynamicRecords, ADiskGivenAgainIsReadOnce) {
    const CLdmGroupBuilder group = OneSpan();
    AddDisk(group.Image(0));
    AddDisk(group.Image(1));
    AddDisk(group.Image(0));
    AddDisk(group.Image(0));
    Open();
    EXPECT_EQ(Texts_t{"Volume1"}, Names());
    ExpectHolds("Volume1", group.VolumeBytes(0));
    EXPECT_EQ((Texts_t{m_Paths[2] + ": is the same dynamic disk as " + m_Paths[0] + ", which is read instead",
                       m_Paths[3] + ": is the same dynamic disk as " + m_Paths[0] + ", which is read instead"}),
              m_Set->Warnings());
    EXPECT_EQ(0U, Volume("Volume1").layout.Segments.at(0).Components.at(0).HardDiskIndex);
}

// It was moved there. What the group that it left says of its sectors holds no longer.
TEST_F(DynamicRecords, ADiskWithTheDatabaseOfAnotherGroupIsNoDiskOfTheFirst) {
    const CLdmGroupBuilder group = OneSpan();
    LdmDiskRecord_t disk;
    disk.guid = group.DiskGuid(0);
    CLdmDatabaseBuilder database;
    database.DiskGuid(disk.guid).Add(LdmGroupRecord_t()).Add(disk).Add(LdmVolumeRecord_t());
    AddDisk(group.Image(0, database.Add(LdmComponentRecord_t()).Add(LdmPartitionRecord_t())));
    AddDisk(group.Image(1));
    Open();
    EXPECT_EQ((Texts_t{"Volume1", "Volume2"}), Names());
    EXPECT_EQ("", Volume("Volume1").problem);
    ExpectRefused("Volume2", {"a disk of it is missing", "Disk1"});
}

TEST_F(DynamicRecords, OfADiskWithoutVolumesAreNoVolumes) {
    AddDisk(CLdmGroupBuilder(1).Image(0));
    Open();
    EXPECT_EQ(Texts_t{}, Names());
    EXPECT_EQ(Texts_t{}, m_Set->Warnings());
}

TEST_F(DynamicRecords, OfAVolumeThatIsNotActiveSaySo) {
    LdmVolume_t broken = LdmSimple({0, 0, 10});
    broken.state = "BROKEN";
    CLdmGroupBuilder group(1);
    AddDisk(group.Volume(broken).Volume(LdmSimple({0, 20, 30})).Image(0));
    Open();
    EXPECT_EQ((Texts_t{"Group-Dg0-Volume1", "Volume1"}), Names());
    ExpectRefused("Group-Dg0-Volume1", {"its state is \"BROKEN\""});
    EXPECT_FALSE(Volume("Group-Dg0-Volume1").isActive);
    EXPECT_EQ(10U, Volume("Group-Dg0-Volume1").sectors);
    ExpectHolds("Volume1", group.VolumeBytes(1));
}

TEST_F(DynamicRecords, OfAHalfThatIsNotActiveAreNotRead) {
    for (const size_t stale : {0U, 1U}) {
        SCOPED_TRACE(stale);
        LdmVolume_t mirrored = LdmMirrored({{0, 0, 20}, {1, 100, 20}});
        mirrored.plexes[stale].state = "STALE";
        const CLdmGroupBuilder group = CLdmGroupBuilder(2).Volume(mirrored);
        m_Paths.clear();
        for (size_t disk = 0; disk < 2; ++disk) {
            CImageFile image = group.Image(disk);
            if (disk == stale)
                image.Put((63 + (disk == 0 ? 0 : 100)) * 512, std::string(20 * 512, 'x'));
            AddDisk(image);
        }
        Open();
        ExpectHolds("Volume1", group.VolumeBytes(0));
        EXPECT_EQ("mirrored", Volume("Volume1").typeName);
        EXPECT_TRUE(Volume("Volume1").mirrors.empty());
        OpenOnly({stale});
        ExpectRefused("Volume1", {"missing"});
    }
}

TEST_F(DynamicRecords, WithoutAnActiveComponentSaySo) {
    LdmVolume_t volume = LdmSimple({0, 0, 20});
    volume.plexes[0].state = "STALE";
    OpenWith(volume);
    ExpectRefused("Volume1", {"none of its components is active"});
}

TEST_F(DynamicRecords, ThatTellOfNoSoundVolumeAreNamed) {
    const auto spanAt = [](uint64_t first, uint64_t second, uint64_t sectors = 20) {
        LdmVolume_t volume = LdmSpanned({{0, 0, 20}, {0, 100, 20}});
        volume.plexes[0].pieces[0].volumeStart = first;
        volume.plexes[0].pieces[1].volumeStart = second;
        volume.plexes[0].pieces[1].sectors = sectors;
        return volume;
    };
    const auto columns = [](LdmVolume_t volume, std::vector<uint64_t> indexes) {
        for (size_t piece = 0; piece < indexes.size(); ++piece)
            volume.plexes[0].pieces[piece].column = indexes[piece];
        return volume;
    };
    const auto withLayout = [](LdmVolume_t volume, uint8_t layout) {
        volume.plexes[0].layout = layout;
        return volume;
    };
    const auto asRaid5 = [](LdmVolume_t volume) {
        volume.type = "raid5";
        return volume;
    };
    const std::vector<LdmPiece_t> three{{0, 0, 16}, {0, 100, 16}, {0, 200, 16}};
    const struct {
        const char* name;
        LdmVolume_t volume;
        const char* text;
    } rows[] = {
        {"a gap", spanAt(0, 21), "one begins at sector 21 where sector 20 is next"},
        {"a gap in front", spanAt(1, 21), "one begins at sector 1 where sector 0 is next"},
        {"an overlap", spanAt(0, 19), "one begins at sector 19 where sector 20 is next"},
        {"the same place twice", spanAt(0, 0), "one begins at sector 0 where sector 20 is next"},
        {"no sectors", spanAt(0, 20, 0), "places that no disk can have"},
        {"sectors that wrap", spanAt(0, 20, ~uint64_t{0}), "places that no disk can have"},
        {"sectors whose bytes wrap", spanAt(0, 20, uint64_t{1} << 55U), "places that no disk can have"},
        {"a place that wraps", spanAt(0, ~uint64_t{0}), "places that no disk can have"},
        {"columns of different sizes", LdmStriped(8, {{0, 0, 16}, {0, 100, 24}}), "same size"},
        {"columns that are no whole stripes", LdmStriped(8, {{0, 0, 20}, {0, 100, 20}}), "aren't whole stripes of 8"},
        {"a column twice", columns(LdmStriped(8, three), {0, 1, 1}), "columns aren't one piece"},
        {"no first column", columns(LdmStriped(8, three), {1, 2, 3}), "columns aren't one piece"},
        {"a column left out", columns(LdmStriped(8, three), {0, 1, 3}), "columns aren't one piece"},
        {"a column that wraps", columns(LdmStriped(8, three), {0, 1, 0x100000002}), "columns aren't one piece"},
        {"RAID-5 of two columns", LdmRaid5(8, {{0, 0, 16}, {0, 100, 16}}), "too few columns"},
        {"RAID-5 without stripes", asRaid5(withLayout(LdmSpanned(three), 3)), "aren't whole stripes of 0"},
        {"stripes joined", withLayout(LdmStriped(8, three), 2), "layout 2"},
        {"a span striped", withLayout(LdmSpanned(three), 1), "layout 1"},
        {"a span as RAID-5", withLayout(LdmSpanned(three), 3), "layout 3"},
        {"RAID-5 striped", withLayout(LdmRaid5(8, three), 1), "layout 1"},
        {"a layout of none", withLayout(LdmSpanned(three), 9), "layout 9"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        OpenWith(row.volume);
        ExpectRefused("Volume1", {row.text});
        EXPECT_EQ(Texts_t{}, m_Set->Warnings());
    }
}

}  // namespace
