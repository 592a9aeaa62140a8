#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/LdmBuilder.h"
#include "tests/support/LdmSteps.h"

// The records of a dynamic disk's database, one by one.

namespace {

constexpr char SomeGuid[] = "0a1b2c3d-4e5f-6071-8293-a4b5c6d7e8f9";

class HardDiskVblk : public testing::Test {
protected:
    // Reads the record alone, in a slot of the usual size.
    CZuError Parse(const LdmRecord_t& record) {
        std::string slot = CLdmDatabaseBuilder().Add(record).Slots().at(0);
        return m_Disk.ParseVBLKStructure(m_Record, slot.data());
    }

    CLdmSteps m_Disk;
    CLDM_VBLK m_Record;
};

LdmVolumeRecord_t Volume() {
    LdmVolumeRecord_t volume;
    volume.guid = SomeGuid;
    return volume;
}

std::string GuidOf(const GUID& guid) {
    return FormatGuidText(guid).c_str();
}

// As many characters, all different from their neighbours.
std::string Characters(size_t count) {
    std::string text;
    for (size_t at = 0; at < count; ++at)
        text += static_cast<char>('a' + at % 26);
    return text;
}

template <size_t Size> std::string Whole(const char (&field)[Size]) {
    return std::string(field, Size);
}

std::string Filled(std::string text, size_t size) {
    text.resize(size, '\0');
    return text;
}

TEST_F(HardDiskVblk, ANewRecordIsAllZero) {
    const CLDM_VBLK record{};
    EXPECT_EQ(0, record.Flags | record.Type);
    EXPECT_EQ(0U, record.ObjectId);
    EXPECT_EQ(std::string(64, '\0'), Whole(record.Name));
    EXPECT_TRUE(record.Disk.GUID == GUID{});
    EXPECT_EQ(std::string(128, '\0'), Whole(record.Disk.AlternateName));
    EXPECT_TRUE(record.Children.empty());
}

TEST_F(HardDiskVblk, AVolume) {
    LdmVolumeRecord_t volume = Volume();
    volume.id = 0x0102030405060708;
    volume.name = "A volume";
    volume.type = "raid5";
    volume.second = "not kept";
    volume.state = "ACTIVE and more.";
    volume.childCount = 3;
    volume.sectors = 0x123456789A;
    volume.partitionType = 0x8E;
    LdmRecord_t record = LdmRecordOf(volume);
    record.flags = 0xA5;
    ASSERT_OK(Parse(record));
    EXPECT_EQ(0x51, m_Record.Type);
    EXPECT_EQ(0xA5, m_Record.Flags);
    EXPECT_EQ(0x0102030405060708U, m_Record.ObjectId);
    EXPECT_EQ(Filled("A volume", 64), Whole(m_Record.Name));
    EXPECT_EQ(Filled("raid5", 16), Whole(m_Record.Volume.VolumeType));
    EXPECT_EQ("ACTIVE and more.", Whole(m_Record.Volume.State));
    EXPECT_EQ(3U, m_Record.Volume.ChildCount);
    EXPECT_EQ(0x123456789AU, m_Record.Volume.Size);
    EXPECT_EQ(0x8E, m_Record.Volume.PartitionType);
    EXPECT_EQ(LdmGuidBytes(SomeGuid, LdmGuidOrder_t::OfText),
              std::string(reinterpret_cast<const char*>(&m_Record.Volume.VolumeGUID), 16))
        << "the bytes as they stand";
}

TEST_F(HardDiskVblk, AComponent) {
    LdmComponentRecord_t component;
    component.id = 0x4142;
    component.name = "A component";
    component.state = "ACTIVE";
    component.layout = 3;
    component.childCount = 300;
    component.parentId = 0x5152535455;
    component.stripeSectors = 128;
    ASSERT_OK(Parse(LdmRecordOf(component)));
    EXPECT_EQ(0x32, m_Record.Type);
    EXPECT_EQ(0x10, m_Record.Flags);
    EXPECT_EQ(0x4142U, m_Record.ObjectId);
    EXPECT_STREQ("A component", m_Record.Name);
    EXPECT_EQ(Filled("ACTIVE", 16), Whole(m_Record.Component.State));
    EXPECT_EQ(3, m_Record.Component.Layout);
    EXPECT_EQ(300U, m_Record.Component.ChildCount);
    EXPECT_EQ(0x5152535455U, m_Record.Component.ParentId);
    EXPECT_EQ(128U, m_Record.Component.StripeSize);
}

TEST_F(HardDiskVblk, APartition) {
    LdmPartitionRecord_t partition;
    partition.id = 0x6162;
    partition.name = "A partition";
    partition.start = 0x0102030405060708;
    partition.volumeStart = 0x1112131415161718;
    partition.sectors = 0x212223;
    partition.parentId = 0x3132;
    partition.diskId = 0x41;
    partition.column = 5;
    ASSERT_OK(Parse(LdmRecordOf(partition)));
    EXPECT_EQ(0x33, m_Record.Type);
    EXPECT_EQ(0x08, m_Record.Flags);
    EXPECT_EQ(0x6162U, m_Record.ObjectId);
    EXPECT_STREQ("A partition", m_Record.Name);
    EXPECT_EQ(0x0102030405060708U, m_Record.Partition.Start);
    EXPECT_EQ(0x1112131415161718U, m_Record.Partition.VolumeOffset);
    EXPECT_EQ(0x212223U, m_Record.Partition.Size);
    EXPECT_EQ(0x3132U, m_Record.Partition.ParentId);
    EXPECT_EQ(0x41U, m_Record.Partition.DiskId);
    EXPECT_EQ(5U, m_Record.Partition.ColumnIndex);
}

// What stands behind the last field doesn't count without the flag.
TEST_F(HardDiskVblk, AFlagSaysWhetherTheLastFieldIsThere) {
    LdmComponentRecord_t component;
    component.stripeSectors = 128;
    LdmPartitionRecord_t partition;
    partition.column = 5;
    for (const int others : {0x00, 0xE7}) {
        LdmRecord_t record = LdmRecordOf(component);
        record.flags = static_cast<uint8_t>(others | 0x10);
        ASSERT_OK(Parse(record));
        EXPECT_EQ(128U, m_Record.Component.StripeSize);
        record.flags = static_cast<uint8_t>(others | 0x08);
        ASSERT_OK(Parse(record));
        EXPECT_EQ(0U, m_Record.Component.StripeSize);

        record = LdmRecordOf(partition);
        record.flags = static_cast<uint8_t>(others | 0x08);
        ASSERT_OK(Parse(record));
        EXPECT_EQ(5U, m_Record.Partition.ColumnIndex);
        record.flags = static_cast<uint8_t>(others | 0x10);
        ASSERT_OK(Parse(record));
        EXPECT_EQ(0U, m_Record.Partition.ColumnIndex);
    }
}

TEST_F(HardDiskVblk, ADiskAndAGroupOfRevision3HaveTheirGuidAsText) {
    LdmDiskRecord_t disk;
    disk.name = "A disk";
    disk.guid = SomeGuid;
    disk.alternateName = "Another name";
    ASSERT_OK(Parse(LdmRecordOf(disk)));
    EXPECT_EQ(0x34, m_Record.Type);
    EXPECT_EQ(2U, m_Record.ObjectId);
    EXPECT_STREQ("A disk", m_Record.Name);
    EXPECT_EQ("{0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9}", GuidOf(m_Record.Disk.GUID));
    EXPECT_EQ(Filled("Another name", 128), Whole(m_Record.Disk.AlternateName));

    LdmGroupRecord_t group;
    group.guid = std::string("{") + SomeGuid + "}";
    ASSERT_OK(Parse(LdmRecordOf(group)));
    EXPECT_EQ(0x35, m_Record.Type);
    EXPECT_STREQ("Group-Dg0", m_Record.Name);
    EXPECT_EQ("{0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9}", GuidOf(m_Record.DiskGroup.GUID));
}

TEST_F(HardDiskVblk, ADiskAndAGroupOfRevision4HaveItsSixteenBytes) {
    LdmDiskRecord_t disk;
    disk.revision = 4;
    disk.guid = SomeGuid;
    LdmGroupRecord_t group;
    group.revision = 4;
    group.guid = SomeGuid;
    ASSERT_OK(Parse(LdmRecordOf(disk)));
    EXPECT_EQ(0x44, m_Record.Type);
    const std::string bytes = LdmGuidBytes(SomeGuid, LdmGuidOrder_t::OfText);
    EXPECT_EQ(bytes, std::string(reinterpret_cast<const char*>(&m_Record.Disk.GUID), 16));
    EXPECT_EQ(std::string(128, '\0'), Whole(m_Record.Disk.AlternateName));
    ASSERT_OK(Parse(LdmRecordOf(group)));
    EXPECT_EQ(0x45, m_Record.Type);
    EXPECT_EQ(bytes, std::string(reinterpret_cast<const char*>(&m_Record.DiskGroup.GUID), 16));
}

TEST_F(HardDiskVblk, AGuidTextThatIsNoneIsRefused) {
    for (const char* const text :
         {"", "none", "0a1b2c3d-4e5f-6071-8293-a4b5c6d7e8f", "{0a1b2c3d-4e5f-6071-8293-a4b5c6d7e8f9"}) {
        LdmDiskRecord_t disk;
        disk.guid = text;
        EXPECT_REFUSED(Parse(LdmRecordOf(disk)), "Failed to parse disk guid in LDM parser");
        LdmGroupRecord_t group;
        group.guid = text;
        EXPECT_REFUSED(Parse(LdmRecordOf(group)), "Failed to parse disk guid in LDM parser");
    }
}

TEST_F(HardDiskVblk, AnyOtherTypeIsUnknown) {
    for (const int type : {0, 0x31, 0x36, 0x43, 0x46, 0x50, 0x52, 0xFF}) {
        const std::string text = "Unknown VBLK type " + std::to_string(type);
        EXPECT_REFUSED(Parse({static_cast<uint8_t>(type), 0, LdmRecordOf(Volume()).fields}), text.c_str());
    }
}

TEST_F(HardDiskVblk, ANumberTakesUpToEightBytes) {
    const std::string rest = LdmText("a name") + LdmText(SomeGuid);
    for (const size_t width : {1, 2, 5, 8}) {
        ASSERT_OK(Parse({LdmGroup3Type, 0, LdmNumber(0xA1, width) + rest}));
        EXPECT_EQ(0xA1U, m_Record.ObjectId) << width;
    }
    ASSERT_OK(Parse({LdmGroup3Type, 0, LdmNumber(0xFEDCBA9876543210) + rest}));
    EXPECT_EQ(0xFEDCBA9876543210U, m_Record.ObjectId);
    ASSERT_OK(Parse({LdmGroup3Type, 0, std::string(1, '\0') + rest}));
    EXPECT_EQ(0U, m_Record.ObjectId) << "none at all";
    EXPECT_STREQ("a name", m_Record.Name);
    for (const size_t width : {9, 200, 255}) {
        const std::string text =
            "Variable string length " + std::to_string(width) + " is greater than exptected max of 8";
        EXPECT_REFUSED(Parse({LdmGroup3Type, 0, LittleEndianBytes(width, 1) + rest}), text.c_str());
    }
}

TEST_F(HardDiskVblk, ATextMayFillItsRoomAndThenHasNoEnd) {
    LdmGroupRecord_t group;
    group.name = Characters(64);
    ASSERT_OK(Parse(LdmRecordOf(group)));
    EXPECT_EQ(Characters(64), Whole(m_Record.Name));

    LdmComponentRecord_t component;
    component.state = Characters(16);
    ASSERT_OK(Parse(LdmRecordOf(component)));
    EXPECT_EQ(Characters(16), Whole(m_Record.Component.State));

    LdmVolumeRecord_t volume = Volume();
    volume.type = Characters(16);
    ASSERT_OK(Parse(LdmRecordOf(volume)));
    EXPECT_EQ(Characters(16), Whole(m_Record.Volume.VolumeType));
}

TEST_F(HardDiskVblk, ALongerTextIsRefused) {
    LdmGroupRecord_t group;
    group.name = Characters(65);
    EXPECT_REFUSED(Parse(LdmRecordOf(group)), "Variable string length 65 is greater than exptected 64");
    LdmComponentRecord_t component;
    component.state = Characters(17);
    EXPECT_REFUSED(Parse(LdmRecordOf(component)), "Variable string length 17 is greater than exptected 16");
    LdmVolumeRecord_t volume = Volume();
    volume.type = Characters(17);
    EXPECT_REFUSED(Parse(LdmRecordOf(volume)), "Variable string length 17 is greater than exptected 16");
    LdmDiskRecord_t disk;
    disk.alternateName = "";
    LdmRecord_t record = LdmRecordOf(disk);
    record.fields = record.fields.substr(0, record.fields.size() - 9) + LittleEndianBytes(129, 1);
    EXPECT_REFUSED(Parse(record), "Variable string length 129 is greater than exptected 128");
}

TEST_F(HardDiskVblk, ATextMayBeEmpty) {
    LdmVolumeRecord_t volume = Volume();
    volume.name = "";
    volume.type = "";
    ASSERT_OK(Parse(LdmRecordOf(volume)));
    EXPECT_EQ(std::string(64, '\0'), Whole(m_Record.Name));
    EXPECT_EQ(std::string(16, '\0'), Whole(m_Record.Volume.VolumeType));
    EXPECT_EQ(100U, m_Record.Volume.Size);
}

TEST_F(HardDiskVblk, ARecordForgetsWhatItHeld) {
    LdmDiskRecord_t disk;
    disk.alternateName = Characters(20);
    ASSERT_OK(Parse(LdmRecordOf(disk)));
    m_Record.Children.emplace_back();
    ASSERT_OK(Parse(LdmRecordOf(LdmComponentRecord_t())));
    EXPECT_TRUE(m_Record.Children.empty());
    EXPECT_EQ(0U, m_Record.Component.StripeSize);
    EXPECT_STREQ("Volume1-01", m_Record.Name);
}

// A record of several fragments lies in a buffer of its own, without the heads of all but the first.
TEST_F(HardDiskVblk, ARecordOfSeveralFragmentsIsAsLongAsItsHeadSays) {
    LdmDiskRecord_t disk;
    disk.alternateName = Characters(128);
    const std::vector<std::string> slots = CLdmDatabaseBuilder().Add(disk).UnusedBehind(0).Slots();
    ASSERT_EQ(2U, slots.size());
    std::string record = slots[0] + slots[1].substr(16);
    ASSERT_OK(m_Disk.ParseVBLKStructure(m_Record, record.data()));
    EXPECT_EQ(Characters(128), Whole(m_Record.Disk.AlternateName));
}

// The length that runs out of the slot, and what is left of it.
TEST_F(HardDiskVblk, FieldsThatRunOutOfTheSlotAreRefused) {
    const std::string head = LdmNumber(1) + LdmText(Characters(64));  // up to byte 91 of 128
    EXPECT_REFUSED(Parse({LdmGroup3Type, 0, head + LittleEndianBytes(37, 1)}),
                   "Variable string length 37 is greater than exptected 36");
    EXPECT_REFUSED(Parse({LdmDisk3Type, 0, head + LittleEndianBytes(255, 1)}),
                   "Variable string length 255 is greater than exptected 36");
    EXPECT_REFUSED(Parse({LdmVolumeType, 0, head + LdmText("gen") + LittleEndianBytes(40, 1)}),
                   "Variable string length 40 is greater than exptected 32");
    EXPECT_REFUSED(Parse({LdmVolumeType, 0, head + LdmText("gen") + LdmText(Characters(20))}),
                   "Variable string length 16 is greater than exptected 12");
}

}  // namespace
