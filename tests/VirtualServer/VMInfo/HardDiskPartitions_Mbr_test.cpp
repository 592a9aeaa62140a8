#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/HardDisks.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/PartitionText.h"
#include "tests/support/TempDir.h"

#define EXPECT_NO_MBR(expression) EXPECT_CONDITION_TEXT(expression, 7, 6001, 1, "MBR signature does not match")

namespace {

class HardDiskPartitionsOfMbr : public testing::Test {
protected:
    void Open(const CPartitionTableBuilder& table) {
        EXPECT_OK(m_Disk.CloseHardDisk());
        std::vector<Disk_t> disks = {FlatLink(m_Dir, table.Image())};
        ASSERT_OK(m_Disk.OpenHardDisk(disks));
    }

    // The partitions of a disk that has no GPT.
    std::vector<std::string> Partitions(const CPartitionTableBuilder& table) {
        Open(table);
        std::vector<Partition_Entry_t> partitions;
        int isGpt = 77;
        EXPECT_OK(m_Disk.GetDOSPartitions(partitions, isGpt));
        EXPECT_EQ(0, isGpt);
        return TextsOf(partitions);
    }

    CTempDir m_Dir;
    CHardDiskReader m_Disk{VirtualProdType_VMware};
    std::vector<Partition_Entry_t> m_Partitions;
    int m_IsGpt = 77;
};

using Texts_t = std::vector<std::string>;

TEST_F(HardDiskPartitionsOfMbr, ATableWithoutPartitionsGivesNone) {
    EXPECT_EQ(Texts_t{}, Partitions(CPartitionTableBuilder()));
}

TEST_F(HardDiskPartitionsOfMbr, EverySlotInUseIsAPartition) {
    EXPECT_EQ((Texts_t{"07 63-162", "83 200-299", "0c 300-309", "42 400-400"}), Partitions(CPartitionTableBuilder()
                                                                                               .Slot(0, 0x07, 63, 100)
                                                                                               .Slot(1, 0x83, 200, 100)
                                                                                               .Slot(2, 0x0C, 300, 10)
                                                                                               .Slot(3, 0x42, 400, 1)));
}

TEST_F(HardDiskPartitionsOfMbr, EmptySlotsArePassedOverWhereverTheyAre) {
    for (size_t used = 0; used < 4; ++used) {
        EXPECT_EQ((Texts_t{"07 10-19"}), Partitions(CPartitionTableBuilder().Slot(used, 7, 10, 10))) << used;
    }
    EXPECT_EQ(
        (Texts_t{"07 10-19", "83 30-34"}),
        Partitions(CPartitionTableBuilder().Slot(0, 0, 1, 1).Slot(1, 7, 10, 10).Slot(2, 0, 5, 5).Slot(3, 0x83, 30, 5)));
}

TEST_F(HardDiskPartitionsOfMbr, EveryTypeButTheExtendedOnesIsKeptWithItsBounds) {
    for (unsigned int type = 1; type < 256; ++type) {
        if (type == 5 || type == 15 || type == 133 || type == 238)
            continue;
        const Texts_t texts = Partitions(CPartitionTableBuilder().Slot(0, static_cast<uint8_t>(type), 40, 2));
        EXPECT_EQ((Texts_t{HexDigits(type, 2) + " 40-41"}), texts);
    }
}

// The sum of a primary slot is one of 32 bits.
TEST_F(HardDiskPartitionsOfMbr, ThePrimaryEndWrapsAt32Bits) {
    EXPECT_EQ((Texts_t{"07 4294967040-255", "07 0-4294967295", "07 5-4", "07 4294967295-4294967295"}),
              Partitions(CPartitionTableBuilder()
                             .Slot(0, 7, 0xFFFFFF00, 0x200)
                             .Slot(1, 7, 0, 0)
                             .Slot(2, 7, 5, 0)
                             .Slot(3, 7, 0xFFFFFFFF, 1)));
}

TEST_F(HardDiskPartitionsOfMbr, PartitionsAreAppendedToWhatIsThere) {
    Open(CPartitionTableBuilder().Slot(0, 7, 10, 10));
    ASSERT_OK(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt));
    ASSERT_OK(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt));
    EXPECT_EQ((Texts_t{"07 10-19", "07 10-19"}), TextsOf(m_Partitions));
}

TEST_F(HardDiskPartitionsOfMbr, AnotherSignatureIsACondition) {
    for (const int signature : {0, 0x55AA, 0xAA54, 0x2A55}) {
        Open(CPartitionTableBuilder()
                 .Slot(0, 7, 10, 10)
                 .PutAt(510, LittleEndianBytes(static_cast<uint64_t>(signature), 2)));
        EXPECT_NO_MBR(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt));
        EXPECT_EQ(0, m_IsGpt);
        EXPECT_TRUE(m_Partitions.empty());
    }
}

TEST_F(HardDiskPartitionsOfMbr, WithNothingOpenItSaysSo) {
    EXPECT_REFUSED(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt),
                   "Object is in invalid state. Make sure OpenHardDisk succeeded");
    EXPECT_EQ(0, m_IsGpt);
}

TEST_F(HardDiskPartitionsOfMbr, ADiskOfNoSectorsIsAReadFailure) {
    std::vector<Disk_t> disks = {LinkOf(m_Dir.Write("d", "version=1\nCID=0\nparentCID=ffffffff\n"
                                                         "createType=\"monolithicFlat\"\n"),
                                        DiskType_MonolithicFlat)};
    ASSERT_OK(m_Disk.OpenHardDisk(disks));
    EXPECT_CONDITION_TEXT(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt), 7, 3001, 1, "Sector Out of Range");
}

TEST_F(HardDiskPartitionsOfMbr, LogicalPartitionsCountFromTheirRecordAndRecordsFromTheExtendedPartition) {
    for (const uint8_t type : {uint8_t{5}, uint8_t{15}, uint8_t{133}}) {
        const Texts_t texts =
            Partitions(CPartitionTableBuilder()
                           .Slot(0, 7, 10, 10)
                           .Extended(1, type, 100, {{0, 7, 2, 40}, {50, 0x83, 3, 20}, {80, 0x8E, 1, 100}})
                           .Slot(2, 0x83, 500, 5));
        EXPECT_EQ((Texts_t{"07 10-19", "07 102-141", "83 153-172", "8e 181-280", "83 500-504"}), texts);
    }
}

TEST_F(HardDiskPartitionsOfMbr, ALogicalPartitionOfAnotherTypeHasNoBounds) {
    for (unsigned int type = 1; type < 256; ++type) {
        if (type == 5 || type == 15 || type == 133)
            continue;
        const bool hasBounds = type == 7 || type == 0x83 || type == 0x8E;
        const Texts_t texts =
            Partitions(CPartitionTableBuilder().Extended(0, 5, 100, {{0, static_cast<uint8_t>(type), 2, 40}}));
        EXPECT_EQ((Texts_t{HexDigits(type, 2) + (hasBounds ? " 102-141" : " ?-?")}), texts);
    }
}

// Unlike the primary ones: their ends go on behind 32 bits.
TEST_F(HardDiskPartitionsOfMbr, TheLogicalEndIsOneOf64Bits) {
    const uint64_t base = 0xFFFFFFF0;
    EXPECT_EQ((Texts_t{"07 8589934575-12884901869", "07 4294967293-4294967292"}),
              Partitions(CPartitionTableBuilder()
                             .Sectors(base + 100)
                             .Slot(0, 5, 0xFFFFFFF0, 10)
                             .Record(base, CBootRecordBuilder().Slot(0, 7, 0xFFFFFFFF, 0xFFFFFFFF).Slot(1, 7, 13, 0))));
}

TEST_F(HardDiskPartitionsOfMbr, ARecordMayLeadToSeveralOthersInTheOrderOfItsSlots) {
    const CPartitionTableBuilder table =
        CPartitionTableBuilder()
            .Slot(0, 5, 100, 500)
            .Record(100, CBootRecordBuilder().Slot(0, 5, 10, 1).Slot(1, 7, 1, 1).Slot(2, 15, 20, 1).Slot(3, 0x83, 2, 1))
            .Record(110, CBootRecordBuilder().Slot(1, 133, 30, 1).Slot(2, 7, 1, 1))
            .Record(120, CBootRecordBuilder().Slot(3, 7, 1, 1))
            .Record(130, CBootRecordBuilder().Slot(0, 7, 1, 1));
    EXPECT_EQ((Texts_t{"07 131-131", "07 111-111", "07 101-101", "07 121-121", "83 102-102"}), Partitions(table));
}

// A record that is reached on two ways gives its partitions twice.
TEST_F(HardDiskPartitionsOfMbr, ASharedRecordCountsForEachThatLeadsToIt) {
    const CPartitionTableBuilder table = CPartitionTableBuilder()
                                             .Slot(0, 5, 100, 500)
                                             .Record(100, CBootRecordBuilder().Slot(0, 5, 10, 1).Slot(1, 5, 10, 1))
                                             .Record(110, CBootRecordBuilder().Slot(0, 7, 1, 1));
    EXPECT_EQ((Texts_t{"07 111-111", "07 111-111"}), Partitions(table));
}

TEST_F(HardDiskPartitionsOfMbr, SeveralExtendedPartitionsHaveTheirOwnBases) {
    EXPECT_EQ((Texts_t{"07 101-110", "07 121-130", "07 301-310", "07 341-350"}),
              Partitions(CPartitionTableBuilder()
                             .Extended(0, 5, 100, {{0, 7, 1, 10}, {20, 7, 1, 10}})
                             .Extended(2, 15, 300, {{0, 7, 1, 10}, {40, 7, 1, 10}})));
}

TEST_F(HardDiskPartitionsOfMbr, ABadRecordEndsTheWalkAndKeepsWhatWasFound) {
    const CPartitionTableBuilder sound = CPartitionTableBuilder()
                                             .Slot(0, 7, 10, 10)
                                             .Extended(1, 5, 100, {{0, 7, 2, 40}, {50, 0x83, 3, 20}})
                                             .Slot(2, 0x83, 500, 5);
    Open(CPartitionTableBuilder(sound).PutAt(150 * 512 + 510, "xx"));
    EXPECT_NO_MBR(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt));
    EXPECT_EQ((Texts_t{"07 10-19", "07 102-141"}), TextsOf(m_Partitions));

    m_Partitions.clear();
    Open(CPartitionTableBuilder(sound).CutTo(150 * 512));
    EXPECT_CONDITION_TEXT(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt), 7, 3001, 1, "Sector Out of Range");
    EXPECT_EQ((Texts_t{"07 10-19", "07 102-141"}), TextsOf(m_Partitions));
}

TEST_F(HardDiskPartitionsOfMbr, EveryFailedReadReachesTheCaller) {
    const CImageFile image =
        CPartitionTableBuilder().Slot(0, 7, 10, 10).Extended(1, 5, 100, {{0, 7, 2, 40}, {50, 0x83, 3, 20}}).Image();
    std::vector<Disk_t> disks = {FlatLink(m_Dir, image)};
    for (const FaultOp op : {FaultOp::Read, FaultOp::Seek}) {
        const unsigned int failures = WalkFailures(op, [&] {
            CHardDiskReader disk(VirtualProdType_VMware);
            CZuError error = disk.OpenHardDisk(disks);
            return error.IsErrorSet() ? error : disk.GetDOSPartitions(m_Partitions, m_IsGpt);
        });
        EXPECT_GE(failures, 3U) << "one for each record at least";
    }
}

// A physical disk that isn't named as a drive is one volume, whatever its first sector looks like.
TEST_F(HardDiskPartitionsOfMbr, ADiskThatIsNoDriveIsOneVolume) {
    const std::string ntfs = CNtfsBootBuilder().TotalSectors(0x123456789A).Bytes();
    std::string withoutSignature = ntfs;
    PutLe16(withoutSignature, 510, 0);
    const std::string mbr = CBootRecordBuilder().Slot(0, 7, 1, 1).Bytes();
    const struct {
        const char* name;
        std::string sector;
        std::string text;
    } rows[] = {
        {"NTFS", ntfs, "07 0-78187493530"},
        {"NTFS without the signature", withoutSignature, "07 0-78187493530"},
        {"another name", CNtfsBootBuilder().OemName("NTFX    ").Bytes(), "00 0-?"},
        {"only the four letters count", CNtfsBootBuilder().OemName("NTFSxyz!").TotalSectors(9).Bytes(), "07 0-9"},
        {"a partition table", mbr, "00 0-?"},
        {"zeros", std::string(512, '\0'), "00 0-?"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<Disk_t> disks = {LinkOf(m_Dir.Write("volume", row.sector), DiskType_NTFSVolume)};
        CHardDiskReader disk(VirtualProdType_Physical);
        ASSERT_OK(disk.OpenHardDisk(disks));
        std::vector<Partition_Entry_t> partitions;
        int isGpt = 77;
        EXPECT_OK(disk.GetDOSPartitions(partitions, isGpt));
        EXPECT_EQ(0, isGpt);
        EXPECT_EQ((Texts_t{row.text}), TextsOf(partitions));
        EXPECT_EQ(1U, WalkFailures(FaultOp::Read, [&] { return disk.GetDOSPartitions(partitions, isGpt); }));
        EXPECT_EQ(2U, partitions.size()) << "a failed read appends nothing";
    }
}

TEST_F(HardDiskPartitionsOfMbr, AVolumeShorterThanASectorIsAReadFailure) {
    std::vector<Disk_t> disks = {LinkOf(m_Dir.Write("volume", std::string(511, 'x')), DiskType_NTFSVolume)};
    CHardDiskReader disk(VirtualProdType_Physical);
    ASSERT_OK(disk.OpenHardDisk(disks));
    EXPECT_FAILURE(disk.GetDOSPartitions(m_Partitions, m_IsGpt));
    EXPECT_TRUE(m_Partitions.empty());
}

}  // namespace
