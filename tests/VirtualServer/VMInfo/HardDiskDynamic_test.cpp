#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/HardDisks.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/TempDir.h"

// Which disks count as Windows dynamic disks, and where their parts lie.

namespace {

class HardDiskDynamic : public testing::Test {
protected:
    struct Places_t {
        int isDynamic = 77;
        int64_t privateHeadLBA = 77;
        int64_t dataStartLBA = 77;

        std::vector<int64_t> AsList() const { return {isDynamic, privateHeadLBA, dataStartLBA}; }
    };

    CZuError Check(const CPartitionTableBuilder& table, Places_t& places) {
        std::vector<Disk_t> disks = {FlatLink(m_Dir, table.Image())};
        CHardDiskReader disk(VirtualProdType_VMware);
        EXPECT_OK(disk.OpenHardDisk(disks));
        return disk.CheckForDynamicDisk(places.isDynamic, places.privateHeadLBA, places.dataStartLBA);
    }

    std::vector<int64_t> PlacesOf(const CPartitionTableBuilder& table) {
        Places_t places;
        EXPECT_OK(Check(table, places));
        return places.AsList();
    }

    CTempDir m_Dir;
};

using List_t = std::vector<int64_t>;

TEST_F(HardDiskDynamic, ADiskWithNeitherIsNotDynamic) {
    EXPECT_EQ((List_t{0, 0, 0}), PlacesOf(CPartitionTableBuilder()));
    EXPECT_EQ((List_t{0, 0, 0}), PlacesOf(CPartitionTableBuilder().Slot(0, 7, 63, 100)));
    EXPECT_EQ((List_t{0, 0, 0}),
              PlacesOf(CPartitionTableBuilder().Gpt(CGptBuilder().Entry(0, BasicDataGuid, 100, 199))));
}

TEST_F(HardDiskDynamic, OnAnMbrTheFirstPartitionOfType42Decides) {
    EXPECT_EQ((List_t{1, 6, 63}),
              PlacesOf(CPartitionTableBuilder().Slot(1, 7, 10, 10).Slot(2, 0x42, 63, 100).Slot(3, 0x42, 200, 100)));
}

// A logical partition of that type has no bounds, and so no place to count from.
TEST_F(HardDiskDynamic, OnAnMbrALogicalPartitionCountsToo) {
    EXPECT_EQ((List_t{1, 6, -1}),
              PlacesOf(CPartitionTableBuilder().Extended(0, 5, 100, {{0, 0x42, 1, 10}}).Slot(1, 0x42, 63, 100)));
}

TEST_F(HardDiskDynamic, OnAGptTheTypesOfThePartitionsDecide) {
    struct Entry_t {
        const char* guid;
        uint64_t first;
    };
    constexpr uint64_t wrapping = 0 - uint64_t{1856};
    const struct {
        const char* name;
        std::vector<Entry_t> entries;
        List_t places;
    } rows[] = {
        {"metadata before data", {{LdmMetadataGuid, 34}, {LdmDataGuid, 3000}}, {1, 1890, 3000}},
        {"data before metadata", {{LdmDataGuid, 3000}, {LdmMetadataGuid, 34}}, {1, 1890, 3000}},
        {"others between",
         {{EfiSystemGuid, 5}, {LdmMetadataGuid, 34}, {EfiSystemGuid, 7}, {LdmDataGuid, 9}},
         {1, 1890, 9}},
        {"metadata alone", {{LdmMetadataGuid, 34}}, {1, 1890, 0}},
        {"data alone", {{LdmDataGuid, 3000}}, {0, 0, 3000}},
        {"the last metadata before the data",
         {{LdmMetadataGuid, 34}, {LdmMetadataGuid, 44}, {LdmDataGuid, 9}},
         {1, 1900, 9}},
        {"the last data before the metadata",
         {{LdmDataGuid, 8}, {LdmDataGuid, 9}, {LdmMetadataGuid, 34}},
         {1, 1890, 9}},
        {"nothing behind both",
         {{LdmMetadataGuid, 34}, {LdmDataGuid, 9}, {LdmMetadataGuid, 44}, {LdmDataGuid, 10}},
         {1, 1890, 9}},
        {"data at 0 isn't found yet", {{LdmDataGuid, 0}, {LdmMetadataGuid, 34}, {LdmDataGuid, 9}}, {1, 1890, 9}},
        {"a head at 0 isn't either", {{LdmMetadataGuid, wrapping}, {LdmDataGuid, 8}, {LdmDataGuid, 9}}, {1, 0, 9}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CGptBuilder gpt;
        uint32_t index = 3;
        for (const Entry_t& entry : row.entries)
            gpt.Entry(index += 2, entry.guid, entry.first, entry.first + 9);
        EXPECT_EQ(row.places, PlacesOf(CPartitionTableBuilder().Gpt(gpt)));
    }
}

// On each kind of table only its own signs count.
TEST_F(HardDiskDynamic, AProtectiveMbrsOtherSlotsHaveNoSay) {
    const std::string mbr = CBootRecordBuilder().Slot(0, 0x42, 63, 100).Slot(1, 0xEE, 1, 1).Slot(2, 0x42, 9, 9).Bytes();
    EXPECT_EQ((List_t{0, 0, 0}), PlacesOf(CPartitionTableBuilder().Gpt(CGptBuilder()).PutAt(0, mbr)));
}

TEST_F(HardDiskDynamic, AFailureIsReturnedAsItStandsAndSaysNothing) {
    Places_t places;
    EXPECT_CONDITION_TEXT(Check(CPartitionTableBuilder().PutAt(510, "xx"), places), 7, 6001, 1,
                          "MBR signature does not match");
    EXPECT_EQ((List_t{0, 0, 0}), places.AsList());

    places = Places_t();
    EXPECT_CONDITION_TEXT(Check(CPartitionTableBuilder().Slot(0, 0x42, 63, 9).Slot(1, 5, 100, 9), places), 7, 6001, 1,
                          "MBR signature does not match");
    EXPECT_EQ((List_t{0, 0, 0}), places.AsList());

    places = Places_t();
    EXPECT_REFUSED(Check(CPartitionTableBuilder().Gpt(CGptBuilder()).PutAt(512, "x"), places),
                   "GPT Partition header signature didn't match.");
    EXPECT_EQ((List_t{0, 0, 0}), places.AsList());
}

TEST_F(HardDiskDynamic, WithNothingOpenItSaysSo) {
    CHardDiskReader disk(VirtualProdType_HyperV);
    Places_t places;
    EXPECT_REFUSED(disk.CheckForDynamicDisk(places.isDynamic, places.privateHeadLBA, places.dataStartLBA),
                   "Object is in invalid state. Make sure OpenHardDisk succeeded");
    EXPECT_EQ((List_t{0, 0, 0}), places.AsList());
}

TEST_F(HardDiskDynamic, ASingleVolumeIsNotDynamic) {
    std::vector<Disk_t> disks = {LinkOf(m_Dir.Write("volume", CNtfsBootBuilder().Bytes()), DiskType_NTFSVolume)};
    CHardDiskReader disk(VirtualProdType_Physical);
    ASSERT_OK(disk.OpenHardDisk(disks));
    Places_t places;
    EXPECT_OK(disk.CheckForDynamicDisk(places.isDynamic, places.privateHeadLBA, places.dataStartLBA));
    EXPECT_EQ((List_t{0, 0, 0}), places.AsList());
}

}  // namespace
