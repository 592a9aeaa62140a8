#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/LDMVblkTree.h"
#include "foundation/detail/ByteView.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/LdmBuilder.h"
#include "tests/support/LdmSteps.h"
#include "tests/support/TempDir.h"

// The records of a dynamic disk's database together: the walk over their slots, and the tree that they
// make.

namespace {

constexpr char NoSignature[] = "LDM partition VBLK signature is missing. VMDB is corrupted";

// The tree as one text: each record as its type and id, its children in brackets.
std::string TextOf(const CLDM_VBLK& record) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text = {digits[record.Type >> 4U], digits[record.Type & 15U], ':'};
    text += std::to_string(record.ObjectId);
    if (record.Children.empty())
        return text;
    text += "(";
    for (const CLDM_VBLK& child : record.Children)
        text += (&child != &record.Children.front() ? " " : "") + TextOf(child);
    return text + ")";
}

LdmVolumeRecord_t Volume(uint64_t id, uint64_t components) {
    LdmVolumeRecord_t record;
    record.id = id;
    record.childCount = components;
    return record;
}

LdmComponentRecord_t Component(uint64_t id, uint64_t volumeId, uint64_t partitions) {
    LdmComponentRecord_t record;
    record.id = id;
    record.parentId = volumeId;
    record.childCount = partitions;
    return record;
}

LdmPartitionRecord_t Partition(uint64_t id, uint64_t componentId, uint64_t diskId) {
    LdmPartitionRecord_t record;
    record.id = id;
    record.parentId = componentId;
    record.diskId = diskId;
    return record;
}

LdmDiskRecord_t DiskOf(uint64_t id, int revision = 3) {
    LdmDiskRecord_t record;
    record.id = id;
    record.revision = revision;
    return record;
}

LdmGroupRecord_t GroupOf(int revision = 3) {
    LdmGroupRecord_t record;
    record.revision = revision;
    return record;
}

// A group of one simple volume.
CLdmDatabaseBuilder Sound() {
    return CLdmDatabaseBuilder()
        .Add(GroupOf())
        .Add(DiskOf(2))
        .Add(Volume(3, 1))
        .Add(Component(4, 3, 1))
        .Add(Partition(5, 4, 2));
}

constexpr char SoundTree[] = "35:1(51:3(32:4(33:5(34:2))))";

class HardDiskVblkTree : public testing::Test {
protected:
    CZuError Parse(const CLdmDatabaseBuilder& database) {
        std::string sector = database.VmdbBytes();
        EXPECT_OK(m_Disk.ParseLDMVMDB(sector.data(), m_Vmdb));
        return Parse(database, m_Vmdb);
    }
    CZuError Parse(const CLdmDatabaseBuilder& database, const LDM_vmdb_t& vmdb) {
        m_Disk.OpenWith(m_Dir, database);
        return m_Disk.ParseLDMVBLK(database.ConfigStart() + 17, vmdb, m_Group);
    }
    std::string TreeOf(const CLdmDatabaseBuilder& database) {
        EXPECT_OK(Parse(database));
        return TextOf(m_Group);
    }

    static LDM_vmdb_t Vmdb(uint32_t size, uint32_t firstOffset, uint32_t last) {
        LDM_vmdb_t vmdb;
        vmdb.VBLKSize = size;
        vmdb.VBLKFirstOffset = firstOffset;
        vmdb.LastVBLKSeq = last;
        return vmdb;
    }

    CTempDir m_Dir;
    CLdmSteps m_Disk;
    LDM_vmdb_t m_Vmdb;
    CLDM_VBLK m_Group;
};

TEST_F(HardDiskVblkTree, RecordsHangOnTheirParents) {
    EXPECT_EQ(SoundTree, TreeOf(Sound()));
    EXPECT_EQ(100U, m_Group.Children[0].Volume.Size);
    EXPECT_STREQ("Disk1", m_Group.Children[0].Children[0].Children[0].Children[0].Name);
}

TEST_F(HardDiskVblkTree, TheOrderOfSlotsIsThatOfSiblingsAlone) {
    EXPECT_EQ("35:1(51:3(32:4(33:6(34:2) 33:5(34:2))) 51:7)", TreeOf(CLdmDatabaseBuilder()
                                                                         .Add(Partition(6, 4, 2))
                                                                         .Add(Component(4, 3, 2))
                                                                         .Add(Volume(3, 1))
                                                                         .Add(DiskOf(2))
                                                                         .Add(Volume(7, 0))
                                                                         .Add(Partition(5, 4, 2))
                                                                         .Add(GroupOf())));
}

TEST_F(HardDiskVblkTree, TheRevisionsMix) {
    EXPECT_EQ("45:1(51:3(32:4(33:5(44:2) 33:6(34:8))))", TreeOf(CLdmDatabaseBuilder()
                                                                    .Add(GroupOf(4))
                                                                    .Add(DiskOf(8, 3))
                                                                    .Add(DiskOf(2, 4))
                                                                    .Add(Volume(3, 1))
                                                                    .Add(Component(4, 3, 2))
                                                                    .Add(Partition(5, 4, 2))
                                                                    .Add(Partition(6, 4, 8))));
}

TEST_F(HardDiskVblkTree, ADatabaseMayHaveNoGroup) {
    EXPECT_EQ("00:0(51:3)", TreeOf(CLdmDatabaseBuilder().Add(Volume(3, 0))));
}

TEST_F(HardDiskVblkTree, AnEmptyDatabaseIsNoFailure) {
    m_Group.Type = 0x35;
    m_Group.Children.emplace_back();
    EXPECT_EQ("00:0", TreeOf(CLdmDatabaseBuilder())) << "unused slots alone";
    m_Group.Type = 0x35;
    EXPECT_OK(Parse(Sound(), Vmdb(128, 512, 0)));
    EXPECT_EQ("00:0", TextOf(m_Group)) << "no slots";
    EXPECT_OK(Parse(Sound(), Vmdb(128, 512, 4)));
    EXPECT_EQ("00:0", TextOf(m_Group)) << "none behind the first";
    EXPECT_OK(Parse(Sound(), Vmdb(128, 512, 3)));
}

TEST_F(HardDiskVblkTree, AnUnusedSlotIsPassedOver) {
    EXPECT_EQ(SoundTree, TreeOf(CLdmDatabaseBuilder()
                                    .AddUnused(3)
                                    .Add(GroupOf())
                                    .Add(DiskOf(2))
                                    .AddUnused()
                                    .Add(Volume(3, 1))
                                    .Add(Component(4, 3, 1))
                                    .Add(Partition(5, 4, 2))
                                    .PutInSlot(0, 16, std::string(112, '\xFF'))
                                    .PutInSlot(1, 12, "\xFF\xFF")));
}

TEST_F(HardDiskVblkTree, EverySlotHasItsSignature) {
    const size_t slots = 5 + 4;
    for (size_t slot = 0; slot < slots; ++slot) {
        for (size_t at = 0; at < 4; ++at) {
            EXPECT_REFUSED(Parse(Sound().PutInSlot(slot, at, "?")), NoSignature) << slot << ", byte " << at;
        }
    }
}

TEST_F(HardDiskVblkTree, EverySlotHasItsNumber) {
    for (uint32_t slot = 0; slot < 5 + 4; ++slot) {
        const std::string text =
            "VBLK sequence number does not match. Expecting " + std::to_string(4 + slot) + " got 99";
        EXPECT_REFUSED(Parse(Sound().PutInSlot(slot, 4, BigEndianBytes(99, 4))), text.c_str());
    }
    EXPECT_REFUSED(Parse(Sound().PutInSlot(2, 0, "VBLX" + BigEndianBytes(99, 4))), NoSignature);
}

TEST_F(HardDiskVblkTree, ABadWalkLeavesTheGroupAlone) {
    m_Group.ObjectId = 77;
    EXPECT_REFUSED(Parse(Sound().PutInSlot(8, 0, "?")), NoSignature);
    EXPECT_EQ(77U, m_Group.ObjectId);
}

TEST_F(HardDiskVblkTree, TheFirstNumberFollowsFromTheFirstSlotsPlace) {
    EXPECT_EQ(SoundTree, TreeOf(Sound().FirstVblk(0x1000)));
    EXPECT_EQ(32U + 5 + 4, m_Vmdb.LastVBLKSeq);
    EXPECT_EQ(SoundTree, TreeOf(Sound().FirstVblk(700))) << "rounded down to 5";
    EXPECT_EQ(SoundTree, TreeOf(Sound().VblkSize(512).FirstVblk(1024)));
    EXPECT_EQ(2U + 5 + 4, m_Vmdb.LastVBLKSeq);
}

TEST_F(HardDiskVblkTree, SlotsBehindTheLastNumberAreNotThere) {
    EXPECT_REFUSED(Parse(Sound().LastSequence(4 + 4)),
                   "Component children count 1 does not match the number of partitions found 0 for volume GUID "
                   "{000000E0-0000-0040-8000-000000000000}");
    EXPECT_EQ(SoundTree, TreeOf(Sound().LastSequence(4 + 5).PutInSlot(5, 0, "?")));
    EXPECT_REFUSED(Parse(Sound().LastSequence(4 + 5 + 4 + 1)), NoSignature) << "zeros behind the last slot";
}

// Callers rely on fragments being told by the slot's own number, which no other slot has.
TEST_F(HardDiskVblkTree, ARecordOfSeveralFragmentsIsNeverFound) {
    EXPECT_EQ(SoundTree, TreeOf(Sound().PutInSlot(2, 12, BigEndianBytes(0, 2) + BigEndianBytes(1, 2))));
    for (const size_t fragments : {2, 3, 4}) {
        EXPECT_REFUSED(Parse(CLdmDatabaseBuilder().AddUnused(2).Add(GroupOf(), fragments)),
                       "LDM partition VBLK Group Number 6 and record number 1 Not found");
    }
    LdmDiskRecord_t longOne = DiskOf(2);
    longOne.alternateName = std::string(100, 'x');
    EXPECT_REFUSED(Parse(Sound().Add(longOne)), "LDM partition VBLK Group Number 9 and record number 1 Not found");
}

TEST_F(HardDiskVblkTree, MoreThanFourFragmentsAreNeverRight) {
    for (const size_t fragments : {5, 6, 255, 65535}) {
        const std::string text = "Number of VBLK records seems to be incorrect " + std::to_string(fragments);
        EXPECT_REFUSED(Parse(Sound().PutInSlot(1, 14, BigEndianBytes(fragments, 2))), text.c_str());
    }
}

TEST_F(HardDiskVblkTree, TheFirstRecordThatCannotBePutTogetherIsTold) {
    EXPECT_REFUSED(Parse(Sound().PutInSlot(1, 14, BigEndianBytes(2, 2)).PutInSlot(3, 14, BigEndianBytes(5, 2))),
                   "LDM partition VBLK Group Number 5 and record number 1 Not found");
    EXPECT_REFUSED(Parse(Sound().PutInSlot(1, 14, BigEndianBytes(5, 2)).PutInSlot(3, 14, BigEndianBytes(2, 2))),
                   "Number of VBLK records seems to be incorrect 5");
}

TEST_F(HardDiskVblkTree, AFragmentThatIsNotTheFirstIsNoRecord) {
    for (const char* const count : {"\0\1", "\0\2", "\0\5"}) {
        EXPECT_EQ(
            SoundTree,
            TreeOf(
                Sound().Add(GroupOf()).PutInSlot(5, 12, BigEndianBytes(1, 2)).PutInSlot(5, 14, std::string(count, 2))));
    }
}

TEST_F(HardDiskVblkTree, AFailedReadIsReturned) {
    m_Disk.OpenWith(m_Dir, Sound());
    const CFaultyFiles faulty(Fault_t{FaultOp::Read, 0, EIO});
    EXPECT_SYSTEM_ERROR(m_Disk.ParseLDMVBLK(2048 + 17, Vmdb(128, 512, 13), m_Group), EIO);
}

TEST_F(HardDiskVblkTree, AllSlotsAreReadAtOnce) {
    m_Disk.OpenWith(m_Dir, Sound().UnusedBehind(2000));
    const CFaultyFiles counting;
    EXPECT_OK(m_Disk.ParseLDMVBLK(2048 + 17, Vmdb(128, 512, 2000), m_Group));
    EXPECT_EQ((std::vector<uint32_t>{2000 * 128}), counting.Sizes(FaultOp::Read));
}

// Behind the copies of the tables of contents, since so many don't fit in front of them.
TEST_F(HardDiskVblkTree, MoreSlotsThanAMebibyteHoldsAreReadInPieces) {
    constexpr uint32_t perMebibyte = 8192;
    constexpr uint32_t piece = 1U << 20U;
    CLdmDatabaseBuilder database;
    database.Bitmap1(2048, 8000).Add(GroupOf()).AddUnused(perMebibyte - 2);
    database.Add(Volume(3, 0)).Add(Volume(4, 0)).AddUnused(perMebibyte).Add(Volume(5, 0)).UnusedBehind(100);
    m_Disk.OpenWith(m_Dir, database, 16384);
    const uint32_t last = 4 + 2 * perMebibyte + 1;
    const CFaultyFiles counting;
    ASSERT_OK(m_Disk.ParseLDMVBLK(2048 + 2048, Vmdb(128, 512, last + 1), m_Group));
    EXPECT_EQ("35:1(51:3 51:4 51:5)", TextOf(m_Group));
    EXPECT_EQ((std::vector<uint32_t>{piece, piece, (last + 1) * 128 - 2 * piece}), counting.Sizes(FaultOp::Read));
}

TEST_F(HardDiskVblkTree, AGroupIsOneAtMost) {
    for (const int first : {3, 4}) {
        for (const int second : {3, 4}) {
            EXPECT_REFUSED(Parse(CLdmDatabaseBuilder().Add(GroupOf(first)).Add(GroupOf(second))),
                           "More than one disk group found");
        }
    }
}

TEST_F(HardDiskVblkTree, AParentThatIsMissingIsTold) {
    EXPECT_REFUSED(Parse(Sound().Add(Component(6, 300, 0))),
                   "Component VBLK with parent_id 300 does not match with any of volume VBLKs");
    EXPECT_REFUSED(Parse(Sound().Add(Component(6, 4, 0))),
                   "Component VBLK with parent_id 4 does not match with any of volume VBLKs")
        << "that of a component";
    EXPECT_REFUSED(Parse(Sound().Add(Partition(6, 18446744073709551615U, 2))),
                   "Partition VBLK with parent_id 18446744073709551615 does not match with any of volume VBLKs");
    EXPECT_REFUSED(Parse(Sound().Add(Partition(6, 3, 2))),
                   "Partition VBLK with parent_id 3 does not match with any of volume VBLKs")
        << "that of a volume";
}

TEST_F(HardDiskVblkTree, ADiskWithoutPartitionsIsDropped) {
    EXPECT_EQ(SoundTree, TreeOf(Sound().Add(DiskOf(6)).Add(DiskOf(7, 4))));
    EXPECT_EQ("35:1", TreeOf(CLdmDatabaseBuilder().Add(GroupOf()).Add(DiskOf(2))));
}

TEST_F(HardDiskVblkTree, ARecordOfAnUnknownTypeIsPassedOver) {
    EXPECT_EQ(SoundTree,
              TreeOf(Sound().Add({0x36, 0, ""}).Add({0, 0, "junk"}).Add({0x31, 0, std::string(90, '\xFF')})));
}

TEST_F(HardDiskVblkTree, OfRecordsWithOneIdTheFirstIsTheParent) {
    EXPECT_EQ("35:1(51:3(32:4(33:5(34:2)) 32:4) 51:3 51:8(32:4))", TreeOf(CLdmDatabaseBuilder()
                                                                              .Add(GroupOf())
                                                                              .Add(DiskOf(2))
                                                                              .Add(Volume(3, 2))
                                                                              .Add(Volume(3, 0))
                                                                              .Add(Volume(8, 1))
                                                                              .Add(Component(4, 3, 1))
                                                                              .Add(Component(4, 8, 0))
                                                                              .Add(Component(4, 3, 0))
                                                                              .Add(Partition(5, 4, 2))));
}

TEST_F(HardDiskVblkTree, EveryDiskWithTheIdHangsOnEveryPartitionThatNamesIt) {
    EXPECT_EQ("35:1(51:3(32:4(33:5(34:2 44:2) 33:6(34:2 44:2)) 32:7(33:8(34:2 44:2))))",
              TreeOf(CLdmDatabaseBuilder()
                         .Add(GroupOf())
                         .Add(DiskOf(2))
                         .Add(DiskOf(2, 4))
                         .Add(Volume(3, 2))
                         .Add(Component(4, 3, 2))
                         .Add(Component(7, 3, 1))
                         .Add(Partition(5, 4, 2))
                         .Add(Partition(6, 4, 2))
                         .Add(Partition(8, 7, 2))));
}

TEST_F(HardDiskVblkTree, ManyRecordsWithOneIdHangAllTogether) {
    constexpr size_t many = 300;
    CLdmDatabaseBuilder database = CLdmDatabaseBuilder().Add(Volume(3, 1)).Add(Component(4, 3, many));
    for (uint64_t number = 0; number < many; ++number)
        database.Add(Partition(1000 + number, 4, 2)).Add(DiskOf(2));
    EXPECT_OK(Parse(database));
    for (const CLDM_VBLK& partition : m_Group.Children.at(0).Children.at(0).Children)
        ASSERT_EQ(many, partition.Children.size());
}

TEST_F(HardDiskVblkTree, RecordsHaveAsManyChildrenAsTheyCount) {
    const std::string volumeText = " for volume GUID {000000E0-0000-0040-8000-000000000000}";
    const struct {
        const char* name;
        CLdmDatabaseBuilder database;
        std::string text;
    } rows[] = {
        {"a volume with fewer", Sound().Add(Volume(6, 1)),
         "Volume children count 1 does not match the number of components found 0" + volumeText},
        {"a volume with more", Sound().Add(Component(6, 3, 0)),
         "Volume children count 1 does not match the number of components found 2" + volumeText},
        {"a component with fewer", Sound().Add(Volume(6, 1)).Add(Component(7, 6, 3)).Add(Partition(8, 7, 2)),
         "Component children count 3 does not match the number of partitions found 1" + volumeText},
        {"a component with more", Sound().Add(Partition(8, 4, 2)),
         "Component children count 1 does not match the number of partitions found 2" + volumeText},
        {"a count of all ones", Sound().Add(Volume(6, ~uint64_t{0})),
         "Volume children count 18446744073709551615 does not match the number of components found 0" + volumeText},
        {"a partition without its disk",
         Sound().Add(Volume(6, 1)).Add(Component(7, 6, 2)).Add(Partition(8, 7, 2)).Add(Partition(9, 7, 50)),
         "Disk with id 50 not found for parition id 9"},
        {"a disk with the id of another record alone",
         Sound().Add(Volume(6, 1)).Add(Component(7, 6, 1)).Add(Partition(8, 7, 6)),
         "Disk with id 6 not found for parition id 8"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_REFUSED(Parse(row.database), row.text.c_str());
    }
}

TEST_F(HardDiskVblkTree, OfTheVolumesTheFirstOneThatIsWrongIsTold) {
    const CLdmDatabaseBuilder secondIsEmpty = CLdmDatabaseBuilder().Add(Volume(3, 1)).Add(Volume(6, 5));
    EXPECT_REFUSED(Parse(CLdmDatabaseBuilder(secondIsEmpty).Add(Component(4, 3, 1)).Add(Partition(5, 4, 9))),
                   "Disk with id 9 not found for parition id 5");
    EXPECT_REFUSED(
        Parse(
            CLdmDatabaseBuilder(secondIsEmpty).Add(Component(4, 3, 1)).Add(Component(7, 3, 0)).Add(Partition(5, 4, 9))),
        "Volume children count 1 does not match the number of components found 2 for volume GUID "
        "{000000E0-0000-0040-8000-000000000000}");
}

// Parents before children: of two failures that of the earlier pass is told, wherever its slot lies.
TEST_F(HardDiskVblkTree, ThePassesFollowEachOther) {
    const LdmRecord_t badPartition = LdmRecordOf(Partition(10, 100, 2));
    const LdmRecord_t badComponent = LdmRecordOf(Component(11, 101, 0));
    const LdmRecord_t badVolume = {LdmVolumeType, 0, LdmNumber(1, 9)};
    const LdmRecord_t badGroup = LdmRecordOf(GroupOf());
    LdmDiskRecord_t diskWithoutGuid = DiskOf(2);
    diskWithoutGuid.guid = "none";
    CLdmDatabaseBuilder database = Sound().Add(Volume(20, 3)).Add(diskWithoutGuid);
    EXPECT_REFUSED(Parse(database), "Failed to parse disk guid in LDM parser");
    EXPECT_REFUSED(Parse(database.Add(badPartition)),
                   "Partition VBLK with parent_id 100 does not match with any of volume VBLKs");
    EXPECT_REFUSED(Parse(database.Add(badComponent)),
                   "Component VBLK with parent_id 101 does not match with any of volume VBLKs");
    EXPECT_REFUSED(Parse(database.Add(badVolume)), "Variable string length 9 is greater than exptected max of 8");
    EXPECT_REFUSED(Parse(database.Add(badGroup)), "More than one disk group found");
}

// A slot that ends anywhere in front of its record's end is refused as a length that is too large.
TEST_F(HardDiskVblkTree, FieldsThatRunOutOfTheirSlotAreRefusedWhereverItEnds) {
    LdmComponentRecord_t component = Component(4, 3, 0);
    component.stripeSectors = 128;
    LdmPartitionRecord_t partition = Partition(5, 4, 2);
    partition.column = 1;
    LdmRecord_t columns = LdmRecordOf(component);
    columns.fields.pop_back();  // the two bytes that no component needs
    columns.fields.pop_back();
    const struct {
        const char* name;
        LdmRecord_t record;
        size_t behind;  // bytes that the record could do without
    } rows[] = {
        {"volume", LdmRecordOf(Volume(3, 0)), 0}, {"component", columns, 0},
        {"partition", LdmRecordOf(partition), 0}, {"disk 3", LdmRecordOf(DiskOf(2)), 8},
        {"group 3", LdmRecordOf(GroupOf()), 8},   {"disk 4", LdmRecordOf(DiskOf(2, 4)), 8},
        {"group 4", LdmRecordOf(GroupOf(4)), 8},
    };
    for (const auto& row : rows) {
        const size_t whole = row.record.fields.size() - row.behind;
        for (size_t size = 0; size <= whole; ++size) {
            SCOPED_TRACE(testing::Message() << row.name << ", " << size << " of " << whole);
            const LdmRecord_t cut = {row.record.type, row.record.flags, row.record.fields.substr(0, size)};
            const auto slotBytes = static_cast<uint32_t>(24 + size);
            const std::string slot =
                CLdmDatabaseBuilder().VblkSize(slotBytes).FirstVblk(slotBytes).Add(cut).Slots().at(0);
            const std::vector<char> exactly(slot.begin(), slot.end());  // so that a sanitizer sees its end
            const CZuError error = BuildVblkTree({CByteView(exactly.data(), exactly.size())}, m_Group);
            m_Group = CLDM_VBLK();
            const std::string text = error.IsErrorSet() ? error.GetErrorText() : "";
            EXPECT_EQ(size < whole, text.rfind("Variable string length ", 0) == 0) << text;
        }
    }
}

TEST_F(HardDiskVblkTree, TheLongestTextsFitALargerSlot) {
    LdmVolumeRecord_t volume = Volume(3, 0);
    volume.second = std::string(255, 's');
    EXPECT_EQ("00:0(51:3)", TreeOf(CLdmDatabaseBuilder().VblkSize(512).Add(volume)));
    LdmDiskRecord_t disk = DiskOf(2);
    disk.alternateName = std::string(128, 'n');
    CLdmDatabaseBuilder database =
        CLdmDatabaseBuilder().VblkSize(512).Add(Volume(3, 1)).Add(Component(4, 3, 1)).Add(Partition(5, 4, 2));
    EXPECT_OK(Parse(CLdmDatabaseBuilder(database).Add(disk)));
    const CLDM_VBLK& found = m_Group.Children[0].Children[0].Children[0].Children[0];
    EXPECT_EQ(disk.alternateName, std::string(found.Disk.AlternateName, 128));
    disk.alternateName += "n";
    EXPECT_REFUSED(Parse(CLdmDatabaseBuilder(database).Add(disk)),
                   "Variable string length 129 is greater than exptected 128");
}

TEST_F(HardDiskVblkTree, SlotsWithoutRoomForTheirHeadAreRefused) {
    for (const uint32_t size : {0U, 1U, 4U, 16U, 20U, 23U}) {
        EXPECT_REFUSED(Parse(Sound(), Vmdb(size, 512, 13)), NoSignature) << size;
    }
    EXPECT_REFUSED(Parse(CLdmDatabaseBuilder().VblkSize(24).FirstVblk(24).Add({LdmGroup3Type, 0, ""})),
                   "Variable string length 1 is greater than exptected 0");
}

// The bytes that are read are a product of 32 bits; no slot is taken behind them.
TEST_F(HardDiskVblkTree, AProductThatWrapsEndsWhereTheBytesDo) {
    const struct {
        const char* name;
        uint32_t size;
        uint32_t last;
    } rows[] = {
        {"2^32", 0x80000000, 2},
        {"2^32 + 128 of usual size", 128, 0x02000001},
        {"slots larger than what is read", 0x10000, 0x10001},
        {"all ones", 0xFFFFFFFF, 0xFFFFFFFF},
    };
    for (const auto& row : rows) {
        EXPECT_REFUSED(Parse(Sound(), Vmdb(row.size, 0, row.last)), NoSignature) << row.name;
    }
}

// The last slot begins in the 24 bytes that are read, with all of its head, and ends behind them.
TEST_F(HardDiskVblkTree, ASlotThatOnlyBeginsInWhatWasReadIsRefused) {
    constexpr uint32_t size = 40;
    constexpr uint32_t number = 107374182;
    const CLdmDatabaseBuilder database =
        CLdmDatabaseBuilder().VblkSize(size).FirstVblk(size * number).Add({0x36, 0, ""}).UnusedBehind(0);
    m_Disk.OpenWith(m_Dir, database, (uint64_t{1} << 23U) + 4096);
    EXPECT_REFUSED(m_Disk.ParseLDMVBLK(2048 + 17, Vmdb(size, size * number, number + 1), m_Group), NoSignature);
}

TEST_F(HardDiskVblkTree, AreasLargerThanAnyDatabaseAreOutOfMemory) {
    EXPECT_REFUSED(Parse(Sound(), Vmdb(0x40000001, 512, 1)), "Out of memory");
    EXPECT_REFUSED(Parse(Sound(), Vmdb(0xFFFFFFFF, 0, 1)), "Out of memory");
}

// What isn't there costs no memory: the read's own failure ends it at the disk's end.
TEST_F(HardDiskVblkTree, AnAreaThatTheDiskDoesNotHaveIsAReadFailure) {
    const CZuError behind = Parse(Sound(), Vmdb(128, 512, 0x00800000));
    EXPECT_FAILURE(behind);
    EXPECT_EQ(3001U, behind.GetModuleId()) << behind.ConvertToString();
    for (const uint64_t first : {uint64_t{1} << 55U, ~uint64_t{0}}) {
        m_Disk.OpenWith(m_Dir, Sound());
        EXPECT_FAILURE(m_Disk.ParseLDMVBLK(first, Vmdb(128, 512, 13), m_Group));
    }
    EXPECT_FAILURE(Parse(Sound(), Vmdb(128, 0xFFFFFFFF, 13)));
}

}  // namespace
