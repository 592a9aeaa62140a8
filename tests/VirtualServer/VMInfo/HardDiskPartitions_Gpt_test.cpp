#include <gtest/gtest.h>

#include <cerrno>
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

namespace {

using Texts_t = std::vector<std::string>;

const std::string Basic = std::string(" {") + BasicDataGuid + "}";
const std::string Efi = std::string(" {") + EfiSystemGuid + "}";

class HardDiskPartitionsOfGpt : public testing::Test {
protected:
    void Open(const CPartitionTableBuilder& table) {
        EXPECT_OK(m_Disk.CloseHardDisk());
        std::vector<Disk_t> disks = {FlatLink(m_Dir, table.Image())};
        ASSERT_OK(m_Disk.OpenHardDisk(disks));
    }

    Texts_t Partitions(const CPartitionTableBuilder& table) {
        Open(table);
        std::vector<Partition_Entry_t> partitions;
        int isGpt = 77;
        EXPECT_OK(m_Disk.GetDOSPartitions(partitions, isGpt));
        EXPECT_EQ(1, isGpt);
        return TextsOf(partitions);
    }

    CTempDir m_Dir;
    CHardDiskReader m_Disk{VirtualProdType_VMware};
    std::vector<Partition_Entry_t> m_Partitions;
    int m_IsGpt = 77;
};

TEST_F(HardDiskPartitionsOfGpt, ATableWithoutPartitionsGivesNone) {
    EXPECT_EQ(Texts_t{}, Partitions(CPartitionTableBuilder().Gpt(CGptBuilder())));
    EXPECT_EQ(Texts_t{}, Partitions(CPartitionTableBuilder().Gpt(CGptBuilder().EntryCount(0))));
}

// NTFS is looked for on basic data partitions alone.
TEST_F(HardDiskPartitionsOfGpt, ABasicDataPartitionWithNtfsHasItsType) {
    const CGptBuilder gpt = CGptBuilder()
                                .Entry(0, EfiSystemGuid, 100, 199, "EFI")
                                .Entry(1, BasicDataGuid, 200, 299, "Windows")
                                .Entry(2, BasicDataGuid, 300, 300)
                                .Entry(3, LdmDataGuid, 400, 500);
    EXPECT_EQ((Texts_t{"00 100-199" + Efi, "07 200-299" + Basic, "00 300-300" + Basic,
                       std::string("00 400-500 {") + LdmDataGuid + "}"}),
              Partitions(CPartitionTableBuilder().Gpt(gpt).Ntfs(100).Ntfs(200).Ntfs(400)));
}

TEST_F(HardDiskPartitionsOfGpt, TheFourLettersAreAllOfNtfs) {
    const CGptBuilder gpt = CGptBuilder().Entry(0, BasicDataGuid, 200, 299);
    const struct {
        const char* oemName;
        const char* type;
    } rows[] = {{"NTFSxyz!", "07"}, {"ntfs    ", "00"}, {"XNTFS   ", "00"}, {"NTF S   ", "00"}};
    for (const auto& row : rows) {
        EXPECT_EQ((Texts_t{row.type + (" 200-299" + Basic)}),
                  Partitions(CPartitionTableBuilder().Gpt(gpt).Ntfs(200, CNtfsBootBuilder().OemName(row.oemName))));
    }
}

TEST_F(HardDiskPartitionsOfGpt, GapsBetweenTheEntriesArePassedOver) {
    const CGptBuilder gpt =
        CGptBuilder().Entry(0, EfiSystemGuid, 1, 2).Entry(5, EfiSystemGuid, 3, 4).Entry(127, EfiSystemGuid, 5, 6);
    EXPECT_EQ((Texts_t{"00 1-2" + Efi, "00 3-4" + Efi, "00 5-6" + Efi}), Partitions(CPartitionTableBuilder().Gpt(gpt)));
}

TEST_F(HardDiskPartitionsOfGpt, OnlyTheTypeTellsWhetherAnEntryIsUsed) {
    std::string unused(128, '\0');
    PutBytes(unused, 16, PatternedBytes(112));
    std::string used(128, '\0');
    PutLe8(used, 15, 1);
    const Texts_t expected = {"00 0-0 {00000000-0000-0000-0000-000000000001}"};
    EXPECT_EQ(expected, Partitions(CPartitionTableBuilder().Gpt(CGptBuilder()).PutAt(1024, unused + used)));
}

TEST_F(HardDiskPartitionsOfGpt, EntriesBehindTheCountAreNotRead) {
    const CGptBuilder gpt = CGptBuilder().Entry(0, EfiSystemGuid, 1, 2).Entry(4, EfiSystemGuid, 3, 4);
    EXPECT_EQ((Texts_t{"00 1-2" + Efi}),
              Partitions(CPartitionTableBuilder().Gpt(gpt).PutAt(512 + 80, LittleEndianBytes(4, 4))));
}

// Callers rely on sector 2 and 128 bytes, whatever the header says.
TEST_F(HardDiskPartitionsOfGpt, TheHeadersPlaceAndSizeOfTheEntriesAreNotUsed) {
    const CGptBuilder gpt = CGptBuilder().Entry(0, EfiSystemGuid, 1, 2).Entry(1, EfiSystemGuid, 3, 4);
    EXPECT_EQ((Texts_t{"00 1-2" + Efi, "00 3-4" + Efi}), Partitions(CPartitionTableBuilder()
                                                                        .Gpt(gpt)
                                                                        .PutAt(512 + 72, LittleEndianBytes(40, 8))
                                                                        .PutAt(512 + 84, LittleEndianBytes(256, 4))));
}

TEST_F(HardDiskPartitionsOfGpt, ChecksumsAndTheCopyAtTheEndHaveNoSay) {
    const CGptBuilder gpt = CGptBuilder().Entry(0, EfiSystemGuid, 1, 2);
    EXPECT_EQ((Texts_t{"00 1-2" + Efi}), Partitions(CPartitionTableBuilder()
                                                        .Gpt(gpt)
                                                        .PutAt(512 + 16, "xxxx")
                                                        .PutAt(512 + 88, "xxxx")
                                                        .PutAt(2047 * 512, std::string(512, 'x'))));
}

TEST_F(HardDiskPartitionsOfGpt, AProtectiveSlotDropsWhatCameBeforeIt) {
    const std::string mbr =
        CBootRecordBuilder().Slot(0, 7, 10, 10).Slot(1, 5, 60, 10).Slot(2, 0xEE, 1, 2047).Slot(3, 0x83, 50, 10).Bytes();
    const CPartitionTableBuilder table = CPartitionTableBuilder()
                                             .Gpt(CGptBuilder().Entry(0, EfiSystemGuid, 1, 2))
                                             .Record(60, CBootRecordBuilder().Slot(0, 7, 1, 1))
                                             .PutAt(0, mbr);
    Open(table);
    m_Partitions.resize(3);
    ASSERT_OK(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt));
    EXPECT_EQ(1, m_IsGpt);
    EXPECT_EQ((Texts_t{"00 1-2" + Efi}), TextsOf(m_Partitions));
}

TEST_F(HardDiskPartitionsOfGpt, AFailureBeforeTheProtectiveSlotEndsTheWalk) {
    const std::string mbr = CBootRecordBuilder().Slot(0, 7, 10, 10).Slot(1, 5, 60, 10).Slot(2, 0xEE, 1, 1).Bytes();
    Open(CPartitionTableBuilder().Gpt(CGptBuilder()).PutAt(0, mbr));
    EXPECT_CONDITION_TEXT(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt), 7, 6001, 1, "MBR signature does not match");
    EXPECT_EQ(0, m_IsGpt);
    EXPECT_EQ((Texts_t{"07 10-19"}), TextsOf(m_Partitions));
}

TEST_F(HardDiskPartitionsOfGpt, AnotherHeaderIsRefused) {
    for (const char* const signature : {"EFI PARt", "efi part", "XFI PART"}) {
        Open(CPartitionTableBuilder().Gpt(CGptBuilder().Entry(0, EfiSystemGuid, 1, 2)).PutAt(512, signature));
        EXPECT_REFUSED(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt), "GPT Partition header signature didn't match.");
        EXPECT_EQ(1, m_IsGpt);
        EXPECT_TRUE(m_Partitions.empty());
    }
}

TEST_F(HardDiskPartitionsOfGpt, ADiskOfOneSectorHasNoHeaderToRead) {
    Open(CPartitionTableBuilder().Sectors(1).Slot(0, 0xEE, 1, 1));
    EXPECT_CONDITION_TEXT(m_Disk.GetDOSPartitions(m_Partitions, m_IsGpt), 7, 3001, 1, "Sector Out of Range");
    EXPECT_EQ(1, m_IsGpt);
}

TEST_F(HardDiskPartitionsOfGpt, TablesOfManyPiecesAreReadToTheirEnd) {
    constexpr uint32_t count = 20'000;
    const CGptBuilder gpt = CGptBuilder()
                                .EntryCount(count)
                                .Entry(8191, EfiSystemGuid, 1, 2)
                                .Entry(8192, EfiSystemGuid, 3, 4)
                                .Entry(count - 1, EfiSystemGuid, 5, 6);
    EXPECT_EQ((Texts_t{"00 1-2" + Efi, "00 3-4" + Efi, "00 5-6" + Efi}),
              Partitions(CPartitionTableBuilder().Sectors(20'000).Gpt(gpt)));
}

// Every other read has no second chance: its failure is the outcome.
TEST_F(HardDiskPartitionsOfGpt, OnlyThePieceOfEntriesIsReadAgainAfterAFailure) {
    const CImageFile image = CPartitionTableBuilder()
                                 .Gpt(CGptBuilder().Entry(0, EfiSystemGuid, 1, 2).Entry(1, BasicDataGuid, 200, 299))
                                 .Ntfs(200)
                                 .Image();
    std::vector<Disk_t> disks = {FlatLink(m_Dir, image)};
    const Texts_t whole = {"00 1-2" + Efi, "07 200-299" + Basic};
    const std::vector<Texts_t> rows = {{}, {}, whole, {whole[0]}, whole};  // MBR, header, entries, boot sector, none
    for (unsigned int failAt = 0; failAt < rows.size(); ++failAt) {
        CHardDiskReader disk(VirtualProdType_VMware);
        ASSERT_OK(disk.OpenHardDisk(disks));
        m_Partitions.clear();
        const CFaultyFiles faulty(Fault_t{FaultOp::Read, failAt, EIO});
        const CZuError error = disk.GetDOSPartitions(m_Partitions, m_IsGpt);
        EXPECT_EQ(failAt < 4, faulty.Fired());
        EXPECT_EQ(rows[failAt].size() < 2, error.IsErrorSet()) << failAt;
        EXPECT_EQ(rows[failAt], TextsOf(m_Partitions)) << failAt;
    }
}

TEST_F(HardDiskPartitionsOfGpt, TheBuildersTableIsASoundOne) {
    const std::string disk =
        CPartitionTableBuilder().Gpt(CGptBuilder().Entry(0, BasicDataGuid, 100, 199, "data")).Image().Bytes();
    EXPECT_EQ("EFI PART", disk.substr(512, 8));
    EXPECT_EQ(disk.substr(2 * 512, 128 * 128), disk.substr((2047 - 32) * 512, 128 * 128)) << "the copy";
    EXPECT_EQ(std::string("\xA2\xA0\xD0\xEB\xE5\xB9\x33\x44\x87\xC0\x68\xB6\xB7\x26\x99\xC7"), disk.substr(1024, 16));
    EXPECT_EQ(1U, LittleEndianAt(disk, 512 + 24, 8));
    EXPECT_EQ(2047U, LittleEndianAt(disk, 512 + 32, 8));
    EXPECT_EQ(34U, LittleEndianAt(disk, 512 + 40, 8));
    EXPECT_EQ(2014U, LittleEndianAt(disk, 512 + 48, 8));
}

}  // namespace
