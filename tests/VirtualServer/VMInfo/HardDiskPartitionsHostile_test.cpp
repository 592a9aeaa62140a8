#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/HardDisks.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/PartitionText.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkSparseBuilder.h"

// Partition tables that were made to do harm.

#define EXPECT_OUT_OF_RANGE(expression) EXPECT_CONDITION_TEXT(expression, 7, 3001, 1, "Sector Out of Range")

namespace {

using Texts_t = std::vector<std::string>;

constexpr uint32_t Base = 100;  // of the extended partition

class HardDiskPartitionsHostile : public testing::Test {
protected:
    void Open(const CPartitionTableBuilder& table) {
        EXPECT_OK(m_Disk.CloseHardDisk());
        m_Partitions.clear();
        std::vector<Disk_t> disks = {FlatLink(m_Dir, table.Image())};
        ASSERT_OK(m_Disk.OpenHardDisk(disks));
    }

    CZuError Partitions() {
        int isGpt = 0;
        return m_Disk.GetDOSPartitions(m_Partitions, isGpt);
    }

    // A record whose four slots lead to the record `next` behind the start of the extended partition.
    static CBootRecordBuilder Fan(uint32_t next) {
        return CBootRecordBuilder().Slot(0, 5, next, 1).Slot(1, 15, next, 1).Slot(2, 133, next, 1).Slot(3, 5, next, 1);
    }

    CTempDir m_Dir;
    CHardDiskReader m_Disk{VirtualProdType_VMware};
    std::vector<Partition_Entry_t> m_Partitions;
};

TEST_F(HardDiskPartitionsHostile, ARecordThatIsItsOwnAncestorEndsAsMemoryWould) {
    const CPartitionTableBuilder extended =
        CPartitionTableBuilder().Slot(0, 7, 9, 1).Slot(1, 5, Base, 10).Slot(2, 7, 8, 1);
    const CBootRecordBuilder linkTo10 = CBootRecordBuilder().Slot(0, 7, 1, 1).Slot(1, 5, 10, 1);
    const CBootRecordBuilder linkTo20 = CBootRecordBuilder().Slot(0, 7, 1, 1).Slot(2, 15, 20, 1);
    const CBootRecordBuilder linkTo0 = CBootRecordBuilder().Slot(1, 7, 1, 1).Slot(3, 133, 0, 1);
    const struct {
        const char* name;
        CPartitionTableBuilder table;
        Texts_t found;
    } rows[] = {
        {"itself", CPartitionTableBuilder(extended).Record(Base, linkTo0), {"07 9-9", "07 101-101"}},
        {"itself, without a partition",
         CPartitionTableBuilder(extended).Record(Base, CBootRecordBuilder().Slot(0, 5, 0, 1)),
         {"07 9-9"}},
        {"its parent",
         CPartitionTableBuilder(extended).Record(Base, linkTo10).Record(Base + 10, linkTo0),
         {"07 9-9", "07 101-101", "07 111-111"}},
        {"a link in the middle",
         CPartitionTableBuilder(extended)
             .Record(Base, linkTo10)
             .Record(Base + 10, linkTo20)
             .Record(Base + 20, linkTo10),
         {"07 9-9", "07 101-101", "07 111-111", "07 121-121"}},
        {"the first of three",
         CPartitionTableBuilder(extended).Record(Base, linkTo10).Record(Base + 10, linkTo20).Record(Base + 20, linkTo0),
         {"07 9-9", "07 101-101", "07 111-111", "07 121-121"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Open(row.table);
        const CFaultyFiles counting;
        EXPECT_REFUSED(Partitions(), "Out of memory");
        EXPECT_EQ(row.found, TextsOf(m_Partitions));
        EXPECT_LE(counting.Calls(FaultOp::Read), 8U) << "it is seen at once";
    }
}

// Its slot leads to its own record, once as an extended one and then as its own ancestor.
TEST_F(HardDiskPartitionsHostile, AnExtendedPartitionAtSector0IsTheMbrItself) {
    Open(CPartitionTableBuilder().Slot(0, 7, 9, 1).Slot(1, 5, 0, 10));
    EXPECT_REFUSED(Partitions(), "Out of memory");
    EXPECT_EQ((Texts_t{"07 9-9", "07 9-9"}), TextsOf(m_Partitions));
}

TEST_F(HardDiskPartitionsHostile, ALoopBehindAFailureIsNotReached) {
    Open(CPartitionTableBuilder()
             .Slot(0, 5, Base, 10)
             .Record(Base, CBootRecordBuilder().Slot(0, 5, 10, 1).Slot(1, 5, 0, 1)));
    EXPECT_CONDITION_TEXT(Partitions(), 7, 6001, 1, "MBR signature does not match");
}

TEST_F(HardDiskPartitionsHostile, AChainOfTenThousandLinksIsFollowedToItsEnd) {
    std::vector<LogicalPartition_t> chain;
    Texts_t expected;
    for (uint32_t link = 0; link < 10'000; ++link) {
        chain.push_back({2 * link, 7, 1, 1});
        const std::string lba = std::to_string(Base + 2 * link + 1);
        expected.push_back("07 " + lba + "-" + lba);
    }
    Open(CPartitionTableBuilder().Sectors(30'000).Extended(0, 5, Base, chain));
    EXPECT_OK(Partitions());
    EXPECT_EQ(expected, TextsOf(m_Partitions));
}

TEST_F(HardDiskPartitionsHostile, AChainThatGoesBackwardsEndsToo) {
    CPartitionTableBuilder table;
    table.Slot(0, 5, Base, 10).Record(Base, CBootRecordBuilder().Slot(0, 5, 500, 1));
    for (uint32_t link = 500; link > 0; --link)
        table.Record(Base + link, CBootRecordBuilder().Slot(0, 7, 1, 1).Slot(1, 5, link > 1 ? link - 1 : 600, 1));
    table.Record(Base + 600, CBootRecordBuilder());
    Open(table);
    EXPECT_OK(Partitions());
    EXPECT_EQ(500U, m_Partitions.size());
}

// Each level leads four times to the next: 4^200 ways to the last record.
TEST_F(HardDiskPartitionsHostile, AFanThatGivesNothingIsWalkedOnce) {
    constexpr uint32_t levels = 200;
    CPartitionTableBuilder table;
    table.Slot(0, 5, Base, 10).Slot(1, 7, 9, 1);
    for (uint32_t level = 0; level < levels; ++level)
        table.Record(Base + level, Fan(level + 1));
    Open(CPartitionTableBuilder(table).Record(Base + levels, CBootRecordBuilder()));
    {
        const CFaultyFiles counting;
        EXPECT_OK(Partitions());
        EXPECT_EQ((Texts_t{"07 9-9"}), TextsOf(m_Partitions));
        EXPECT_LE(counting.Calls(FaultOp::Read), levels + 2);
    }
    Open(table);
    EXPECT_CONDITION_TEXT(Partitions(), 7, 6001, 1, "MBR signature does not match") << "of the record behind";
}

// 4^8 ways, each of them to a long chain with one partition at its end.
TEST_F(HardDiskPartitionsHostile, WhatManyWaysLeadToIsReadOnce) {
    constexpr uint32_t levels = 8;
    constexpr uint32_t end = 1000;
    CPartitionTableBuilder table;
    table.Slot(0, 5, Base, 10);
    for (uint32_t level = 0; level < levels; ++level)
        table.Record(Base + level, Fan(level + 1));
    for (uint32_t link = levels; link < end; ++link)
        table.Record(Base + link, CBootRecordBuilder().Slot(2, 5, link + 1, 1));
    Open(table.Record(Base + end, CBootRecordBuilder().Slot(0, 7, 1, 5)));
    const CFaultyFiles counting;
    EXPECT_OK(Partitions());
    EXPECT_LE(counting.Calls(FaultOp::Read), end + 2);
    ASSERT_EQ(65'536U, m_Partitions.size());
    for (const Partition_Entry_t& entry : m_Partitions)
        ASSERT_EQ("07 1101-1105", TextOf(entry));
}

TEST_F(HardDiskPartitionsHostile, ARecordOutsideTheDiskIsAReadFailure) {
    for (const uint32_t lba : {2048U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        Open(CPartitionTableBuilder().Slot(0, 7, 9, 1).Slot(1, 5, lba, 1));
        EXPECT_OUT_OF_RANGE(Partitions()) << lba;
        EXPECT_EQ((Texts_t{"07 9-9"}), TextsOf(m_Partitions));

        Open(CPartitionTableBuilder().Slot(1, 5, Base, 1).Record(Base, CBootRecordBuilder().Slot(0, 5, lba, 1)));
        EXPECT_OUT_OF_RANGE(Partitions()) << lba;
    }
}

// Base and link are summed in 64 bits: a link of all ones isn't one sector back.
TEST_F(HardDiskPartitionsHostile, ALinkDoesNotWrapAt32Bits) {
    Open(CPartitionTableBuilder()
             .Slot(0, 5, Base, 10)
             .Record(Base, CBootRecordBuilder().Slot(0, 5, 0xFFFFFFFF, 1))
             .Record(Base - 1, CBootRecordBuilder().Slot(0, 7, 1, 1)));
    EXPECT_OUT_OF_RANGE(Partitions());
    EXPECT_TRUE(m_Partitions.empty());
}

TEST_F(HardDiskPartitionsHostile, EntryCountsBeyondTheDiskEndWithTheReadsError) {
    const CPartitionTableBuilder table = CPartitionTableBuilder().Gpt(CGptBuilder().Entry(0, EfiSystemGuid, 1, 2));
    const uint32_t atTheEnd = (2048 - 2) * 4;
    for (const uint32_t count : {atTheEnd + 1, 1U << 24U, 0x80000000U, 0xFFFFFFFFU}) {
        Open(CPartitionTableBuilder(table)
                 .PutAt(512 + 80, LittleEndianBytes(count, 4))
                 .PutAt(2000 * 512, std::string(48 * 512, '\0')));
        EXPECT_OUT_OF_RANGE(Partitions()) << count;
        EXPECT_EQ(1U, m_Partitions.size()) << "what lies before the end counts";
    }
}

TEST_F(HardDiskPartitionsHostile, EntriesMayReachTheEndOfTheDisk) {
    const uint32_t atTheEnd = (2048 - 2) * 4;
    std::string last(128, '\0');
    PutBytes(last, 0, GuidBytesOnDisk(EfiSystemGuid));
    const CPartitionTableBuilder table = CPartitionTableBuilder()
                                             .Gpt(CGptBuilder())
                                             .PutAt(2000 * 512, std::string(48 * 512, '\0'))
                                             .PutAt(2048 * 512 - 128, last);
    for (const uint32_t beyond : {0U, 1U}) {
        Open(CPartitionTableBuilder(table).PutAt(512 + 80, LittleEndianBytes(atTheEnd + beyond, 4)));
        EXPECT_EQ(beyond != 0, Partitions().IsErrorSet());
        EXPECT_EQ(1U, m_Partitions.size());
    }
}

// A grain that lies behind the file's end can't be read; all entries in front of it can.
TEST_F(HardDiskPartitionsHostile, EntriesInFrontOfABadPlaceCount) {
    CImageFile image;
    CGptBuilder()
        .EntryCount(256)
        .Entry(3, EfiSystemGuid, 1, 2)
        .Entry(87, EfiSystemGuid, 3, 4)
        .Entry(88, EfiSystemGuid, 5, 6)
        .PutTo(image, 256);
    image.Resize(256 * 512);
    const std::string bytes = image.Bytes();
    CVmdkSparseBuilder sparse;
    sparse.Grain(0, bytes.substr(0, 4096)).Grain(1, bytes.substr(4096, 4096));
    sparse.Grain(2, bytes.substr(8192, 4096)).Grain(3, bytes.substr(12288, 4096));
    for (const TableCopy_t copy : {TableCopy_t::Redundant, TableCopy_t::Primary})
        sparse.Put32(sparse.TableSectors(copy).at(0) * 512 + 3 * 4, 0x00FFFFFF);
    std::vector<Disk_t> disks = {LinkOf(sparse.WriteTo(m_Dir), DiskType_MonolithicSparse)};
    ASSERT_OK(m_Disk.OpenHardDisk(disks));
    EXPECT_FAILURE(Partitions());
    // Entry 88 lies at the start of grain 3, from byte 12288 on.
    const std::string efi = std::string(" {") + EfiSystemGuid + "}";
    EXPECT_EQ((Texts_t{"00 1-2" + efi, "00 3-4" + efi}), TextsOf(m_Partitions));
}

TEST_F(HardDiskPartitionsHostile, BoundsOfAGptAreTakenAsTheyStand) {
    const std::string efi = std::string(" {") + EfiSystemGuid + "}";
    Open(CPartitionTableBuilder().Gpt(CGptBuilder()
                                          .Entry(0, EfiSystemGuid, 100, 50)
                                          .Entry(1, EfiSystemGuid, ~uint64_t{0} - 1, 0)
                                          .Entry(2, EfiSystemGuid, 0, ~uint64_t{0} - 1)));
    EXPECT_OK(Partitions());
    EXPECT_EQ((Texts_t{"00 100-50" + efi, "00 18446744073709551614-0" + efi, "00 0-18446744073709551614" + efi}),
              TextsOf(m_Partitions));
}

// None of these places may come down to one on the disk by wrapping.
TEST_F(HardDiskPartitionsHostile, ABasicDataPartitionOutsideTheDiskIsAReadFailure) {
    for (const uint64_t first :
         {uint64_t{2048}, uint64_t{1} << 55U, (uint64_t{1} << 55U) + 200, uint64_t{1} << 63U, ~uint64_t{0}}) {
        Open(CPartitionTableBuilder()
                 .Gpt(CGptBuilder().Entry(0, EfiSystemGuid, 1, 2).Entry(1, BasicDataGuid, first, first))
                 .Ntfs(200));
        EXPECT_OUT_OF_RANGE(Partitions()) << first;
        EXPECT_EQ(1U, m_Partitions.size());
    }
}

TEST_F(HardDiskPartitionsHostile, AHeaderCutByTheDisksEndIsAReadFailure) {
    std::vector<Disk_t> disks = {LinkOf(
        CVmdkSparseBuilder().Capacity(1).Grain(0, CBootRecordBuilder().Slot(0, 0xEE, 1, 1).Bytes()).WriteTo(m_Dir),
        DiskType_MonolithicSparse)};
    ASSERT_OK(m_Disk.OpenHardDisk(disks));
    EXPECT_OUT_OF_RANGE(Partitions());
}

}  // namespace
