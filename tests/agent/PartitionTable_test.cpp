#include "agent/PartitionTable.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/WholeDisks.h"
#include "tests/support/Bytes.h"
#include "tests/support/PartitionTableBuilder.h"

namespace {

using Texts_t = std::vector<std::string>;

constexpr uint64_t DiskSectors = 4096;

// As in IEEE 802.3, bit by bit.
uint32_t CrcOf(const std::string& bytes) {
    uint32_t crc = 0xFFFFFFFF;
    for (const char byte : bytes) {
        crc ^= static_cast<uint8_t>(byte);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1U) ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0);
    }
    return ~crc;
}

std::string WithRightCrc(std::string header) {
    PutLe32(header, 16, 0);
    PutLe32(header, 16, CrcOf(header.substr(0, 92)));
    return header;
}

CPartitionTableBuilder GptDisk(const CGptBuilder& gpt) {
    return CPartitionTableBuilder().Sectors(DiskSectors).Gpt(gpt);
}

// The header of that sector with other bytes, and a checksum that fits them.
std::string ChangedHeader(const CPartitionTableBuilder& disk, uint64_t lba, size_t offset, const std::string& bytes) {
    std::string header = disk.Image().Bytes().substr(lba * 512, 512);
    PutBytes(header, offset, bytes);
    return WithRightCrc(header);
}

// Both headers with those bytes.
CPartitionTableBuilder WithHeaders(CPartitionTableBuilder disk, size_t offset, const std::string& bytes) {
    const CPartitionTableBuilder sound = disk;
    for (const uint64_t lba : {uint64_t{1}, DiskSectors - 1})
        disk.PutAt(lba * 512, ChangedHeader(sound, lba, offset, bytes));
    return disk;
}

class PartitionTable : public testing::Test {
protected:
    CZuError Read(const CPartitionTableBuilder& builder) {
        m_Path = builder.Image().WriteTo(m_Dir, "disk");
        CWholeDisk disk;
        EXPECT_OK(disk.Open(m_Path, RawUnlessKnown()));
        return ReadPartitionTable(disk, m_Table);
    }

    // One warning, which names the disk and says all this.
    void ExpectWarning(const Texts_t& words) const {
        ASSERT_EQ(1U, m_Table.warnings.size()) << testing::PrintToString(m_Table.warnings);
        EXPECT_EQ(0U, m_Table.warnings[0].find(m_Path + ": "));
        for (const std::string& text : words)
            EXPECT_NE(std::string::npos, m_Table.warnings[0].find(text)) << m_Table.warnings[0];
    }

    CTempDir m_Dir;
    std::string m_Path;
    PartitionTable_t m_Table;
};

TEST_F(PartitionTable, SlotsOfAnMbrKeepTheirNumbers) {
    CPartitionTableBuilder disk;
    disk.Sectors(DiskSectors).Slot(0, 0x83, 63, 100).Slot(3, 0x07, 1000, 3096).PutAt(440, "\x78\x56\x34\x12");
    ASSERT_OK(Read(disk.PutAt(446 + 48, "\x80")));
    EXPECT_EQ(PartitionScheme_t::Mbr, m_Table.scheme);
    EXPECT_EQ(0x12345678U, m_Table.diskSignature);
    EXPECT_EQ((Texts_t{"1 83 63+100", "4 07 1000+3096 boot"}), TextsOf(m_Table));
    EXPECT_EQ(Texts_t{}, m_Table.warnings);
}

TEST_F(PartitionTable, AnEmptyMbrHasNoPartitions) {
    ASSERT_OK(Read(CPartitionTableBuilder()));
    EXPECT_EQ(PartitionScheme_t::Mbr, m_Table.scheme);
    EXPECT_EQ(Texts_t{}, TextsOf(m_Table));
}

TEST_F(PartitionTable, LogicalPartitionsCountFromFive) {
    const std::vector<LogicalPartition_t> chain{{0, 0x83, 2, 100}, {200, 0x07, 63, 50}, {400, 0x82, 1, 10}};
    for (const unsigned type : {0x05U, 0x0FU, 0x85U}) {
        CPartitionTableBuilder disk;
        ASSERT_OK(
            Read(disk.Sectors(DiskSectors).Slot(0, 0x83, 10, 20).Extended(1, static_cast<uint8_t>(type), 1000, chain)));
        const std::string extended = "2 " + std::string(type == 0x05 ? "05" : type == 0x0F ? "0f" : "85");
        EXPECT_EQ((Texts_t{"1 83 10+20", extended + " 1000+411 extended", "5 83 1002+100 logical",
                           "6 07 1263+50 logical", "7 82 1401+10 logical"}),
                  TextsOf(m_Table));
        EXPECT_EQ(Texts_t{}, m_Table.warnings);
    }
}

TEST_F(PartitionTable, ALinkWithoutAPartitionTakesNoNumber) {
    CPartitionTableBuilder disk;
    disk.Sectors(DiskSectors).Slot(0, 0x05, 1000, 2000);
    disk.Record(1000, CBootRecordBuilder().Slot(1, 0x05, 500, 100));
    ASSERT_OK(Read(disk.Record(1500, CBootRecordBuilder().Slot(0, 0x83, 1, 99))));
    EXPECT_EQ((Texts_t{"1 05 1000+2000 extended", "5 83 1501+99 logical"}), TextsOf(m_Table));
}

TEST_F(PartitionTable, AThousandLogicalPartitionsAreRead) {
    std::vector<LogicalPartition_t> chain;
    for (uint32_t index = 0; index < 1000; ++index)
        chain.push_back({index * 3, 0x83, 1, 2});
    CPartitionTableBuilder disk;
    ASSERT_OK(Read(disk.Sectors(DiskSectors).Extended(0, 0x05, 63, chain)));
    ASSERT_EQ(1001U, m_Table.partitions.size());
    EXPECT_EQ("1004 83 3061+2 logical", TextOf(m_Table.partitions.back()));
}

TEST_F(PartitionTable, AChainThatNeverEndsIsRefusedByTheSectorThatLeadsBack) {
    const auto link = [](uint32_t next) { return CBootRecordBuilder().Slot(0, 0x83, 1, 9).Slot(1, 0x05, next, 100); };
    const auto disk = [] { return CPartitionTableBuilder().Sectors(DiskSectors).Slot(0, 0x05, 1000, 2000); };
    EXPECT_FAILS_SAYING(Read(disk().Record(1000, link(0))), m_Path, "sector 1000 leads back to the one in sector 1000");
    EXPECT_FAILS_SAYING(Read(disk().Record(1000, link(100)).Record(1100, link(200)).Record(1200, link(100))), m_Path,
                        "sector 1200 leads back to the one in sector 1100", "never end");
    EXPECT_FAILS_SAYING(Read(disk().Record(1000, link(100)).Record(1100, link(0))),
                        "sector 1100 leads back to the one in sector 1000");
}

TEST_F(PartitionTable, AChainThatLeadsBehindTheDiskIsRefused) {
    CPartitionTableBuilder disk;
    disk.Sectors(DiskSectors).Slot(0, 0x05, 1000, 2000);
    disk.Record(1000, CBootRecordBuilder().Slot(0, 0x83, 1, 9).Slot(1, 0x05, 3096, 1));
    EXPECT_FAILS_SAYING(Read(disk), m_Path, "sector 1000 leads to sector 4096", "behind the disk's end");
    EXPECT_FAILS_SAYING(Read(disk.Slot(0, 0x05, 0xFFFFFFFF, 1)), m_Path, "4294967295", "behind the disk's end");
}

TEST_F(PartitionTable, ARecordWithoutItsSignatureEndsTheChainWithAWarning) {
    CPartitionTableBuilder disk;
    disk.Sectors(DiskSectors).Slot(0, 0x05, 1000, 2000).Slot(1, 0x83, 3000, 5);
    disk.Record(1000, CBootRecordBuilder().Slot(0, 0x83, 1, 9).Slot(1, 0x05, 500, 100));
    ASSERT_OK(Read(disk.Record(1500, CBootRecordBuilder().Slot(0, 0x83, 1, 9).Signature(0))));
    EXPECT_EQ((Texts_t{"1 05 1000+2000 extended", "5 83 1001+9 logical", "2 83 3000+5"}), TextsOf(m_Table));
    ExpectWarning({"1500"});
}

TEST_F(PartitionTable, APartitionThatReachesBehindTheDiskIsAWarning) {
    for (const uint32_t sectors : {97U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(sectors);
        CPartitionTableBuilder disk;
        ASSERT_OK(Read(disk.Sectors(DiskSectors).Slot(1, 0x83, 4000, sectors)));
        EXPECT_EQ(Texts_t{"2 83 4000+" + std::to_string(sectors)}, TextsOf(m_Table));
        ExpectWarning({"partition 2 ", "behind the disk's end"});
    }
    CPartitionTableBuilder whole;
    ASSERT_OK(Read(whole.Sectors(DiskSectors).Slot(1, 0x83, 4000, 96)));
    EXPECT_EQ(Texts_t{}, m_Table.warnings);
}

TEST_F(PartitionTable, FileSystemsOfPartitionsAreTold) {
    CPartitionTableBuilder disk;
    ASSERT_OK(Read(disk.Sectors(DiskSectors).Slot(0, 0x07, 63, 100).Slot(1, 0x07, 200, 100).Ntfs(63)));
    ASSERT_EQ(2U, m_Table.partitions.size());
    EXPECT_EQ("ntfs", m_Table.partitions[0].fileSystem);
    EXPECT_EQ("", m_Table.partitions[1].fileSystem);
}

TEST_F(PartitionTable, AVolumeOnTheWholeDiskIsNoTable) {
    ASSERT_OK(Read(CPartitionTableBuilder().Sectors(DiskSectors).Ntfs(0)));
    EXPECT_EQ(PartitionScheme_t::None, m_Table.scheme);
    EXPECT_EQ("ntfs", m_Table.fileSystem);
    EXPECT_EQ(Texts_t{}, TextsOf(m_Table));
}

// What a volume that was there before left behind is no volume.
TEST_F(PartitionTable, ATableBehindTheMarksOfAVolumeIsATable) {
    CPartitionTableBuilder disk;
    ASSERT_OK(Read(disk.Sectors(DiskSectors).Slot(0, 0x83, 63, 100).PutAt(3, "NTFS    ")));
    EXPECT_EQ(PartitionScheme_t::Mbr, m_Table.scheme);
    EXPECT_EQ(Texts_t{"1 83 63+100"}, TextsOf(m_Table));
}

TEST_F(PartitionTable, ADiskOfZerosHasNoTable) {
    CPartitionTableBuilder disk;
    ASSERT_OK(Read(disk.PutAt(510, std::string(2, '\0'))));
    EXPECT_EQ(PartitionScheme_t::None, m_Table.scheme);
    EXPECT_EQ("", m_Table.fileSystem);
    ASSERT_OK(Read(CPartitionTableBuilder().Sectors(1)));
    EXPECT_EQ(PartitionScheme_t::Mbr, m_Table.scheme);
}

TEST_F(PartitionTable, EntriesOfAGptKeepTheirNumbers) {
    CGptBuilder gpt;
    gpt.Entry(0, EfiSystemGuid, 40, 139, "EFI").Entry(4, BasicDataGuid, 140, 140).Entry(127, LdmDataGuid, 141, 4062);
    ASSERT_OK(Read(GptDisk(gpt)));
    EXPECT_EQ(PartitionScheme_t::Gpt, m_Table.scheme);
    EXPECT_EQ((Texts_t{"1 EFI system 40+100", "5 Basic data 140+1", "128 Windows LDM data 141+3922"}),
              TextsOf(m_Table));
    EXPECT_EQ(Texts_t{}, m_Table.warnings);
    EXPECT_EQ("EFI", m_Table.partitions[0].name);
    EXPECT_EQ("", m_Table.partitions[1].name);
    EXPECT_EQ(38U, m_Table.diskGuid.size());
    EXPECT_EQ(38U, m_Table.partitions[0].guid.size());
    EXPECT_NE(m_Table.partitions[0].guid, m_Table.partitions[1].guid);
}

// The first three numbers of a GUID lie with their least significant byte first.
TEST_F(PartitionTable, GuidsAreReadInTheOrderInWhichPeopleWriteThem) {
    std::string entry = GuidBytesOnDisk("00112233-4455-6677-8899-AABBCCDDEEFF");
    entry += std::string("\x33\x22\x11\x00\x55\x44\x77\x66\x88\x99\xAA\xBB\xCC\xDD\xEE\xFF", 16);
    ASSERT_EQ(entry.substr(0, 16), entry.substr(16));
    CGptBuilder gpt;
    CPartitionTableBuilder disk = GptDisk(gpt.Entry(0, BasicDataGuid, 40, 139)).PutAt(1024, entry);
    ASSERT_OK(Read(disk));
    ASSERT_EQ(1U, m_Table.partitions.size());
    for (std::string text : {m_Table.partitions[0].typeGuid, m_Table.partitions[0].guid}) {
        for (char& character : text)
            character = static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
        EXPECT_EQ("{00112233-4455-6677-8899-AABBCCDDEEFF}", text);
    }
    EXPECT_NE("", m_Table.partitions[0].typeName);
}

TEST_F(PartitionTable, NamesOfAGptAreUtf16) {
    CGptBuilder gpt;
    std::string name("D\0\xE4\0\x34\x04\x3D\xD8\x00\xDE", 10);
    ASSERT_OK(Read(GptDisk(gpt.Entry(0, BasicDataGuid, 40, 139)).PutAt(1024 + 56, name)));
    EXPECT_EQ("Däд😀", m_Table.partitions[0].name);
    // All 36 places are taken, so no NUL stands behind.
    ASSERT_OK(Read(GptDisk(gpt.Entry(0, BasicDataGuid, 40, 139, std::string(36, 'n')))));
    EXPECT_EQ(std::string(36, 'n'), m_Table.partitions[0].name);
}

TEST_F(PartitionTable, AGptMayHaveMoreOrFewerEntriesThanUsual) {
    for (const uint32_t count : {1U, 4U, 129U, 1000U}) {
        SCOPED_TRACE(count);
        CGptBuilder gpt;
        ASSERT_OK(Read(GptDisk(gpt.EntryCount(count).Entry(count - 1, BasicDataGuid, 2000, 2001))));
        EXPECT_EQ(Texts_t{std::to_string(count) + " Basic data 2000+2"}, TextsOf(m_Table));
        EXPECT_EQ(Texts_t{}, m_Table.warnings);
    }
}

TEST_F(PartitionTable, LargerEntriesOfAGptAreRead) {
    CGptBuilder gpt;
    gpt.Entry(0, BasicDataGuid, 40, 139).Entry(2, EfiSystemGuid, 140, 239).EntryCount(4);
    CPartitionTableBuilder disk = GptDisk(gpt);
    const std::string entries = disk.Image().Bytes().substr(1024, 512);
    std::string header = ChangedHeader(disk, 1, 80, LittleEndianBytes(2, 4) + LittleEndianBytes(256, 4));
    PutLe32(header, 88, CrcOf(entries));
    ASSERT_OK(Read(disk.PutAt(512, WithRightCrc(header))));
    EXPECT_EQ((Texts_t{"1 Basic data 40+100", "2 EFI system 140+100"}), TextsOf(m_Table));
    EXPECT_EQ(Texts_t{}, m_Table.warnings);
}

TEST_F(PartitionTable, TheCopyServesWhereTheFirstHeaderIsDamaged) {
    CGptBuilder gpt;
    gpt.Entry(0, BasicDataGuid, 40, 139);
    const struct {
        const char* name;
        size_t offset;
        std::string bytes;
    } rows[] = {{"its signature", 0, "X"},
                {"its checksum", 16, "XXXX"},
                {"its own place", 24, std::string(8, '\x02')},
                {"its size", 12, LittleEndianBytes(513, 4)},
                {"the number of entries", 80, LittleEndianBytes(3, 4)}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_OK(Read(GptDisk(gpt).PutAt(512 + row.offset, row.bytes)));
        EXPECT_EQ(Texts_t{"1 Basic data 40+100"}, TextsOf(m_Table));
        ExpectWarning({"header in sector 1 is damaged"});
        EXPECT_FAILS_SAYING(
            Read(GptDisk(gpt).PutAt(512 + row.offset, row.bytes).PutAt((DiskSectors - 1) * 512 + 8, "X")), m_Path,
            "both headers");
    }
}

TEST_F(PartitionTable, ADiskThatWasCutHasItsFirstHeaderStill) {
    CGptBuilder gpt;
    CPartitionTableBuilder disk = GptDisk(gpt.Entry(0, BasicDataGuid, 40, 139).Entry(1, BasicDataGuid, 3000, 3999));
    ASSERT_OK(Read(disk.CutTo(3500 * 512)));
    EXPECT_EQ((Texts_t{"1 Basic data 40+100", "2 Basic data 3000+1000"}), TextsOf(m_Table));
    ExpectWarning({"partition 2 ", "behind the disk's end"});
    EXPECT_FAILS_SAYING(Read(disk.PutAt(512, "X")), "both headers");
    EXPECT_FAILS_SAYING(Read(disk.CutTo(512)), "both headers");
}

TEST_F(PartitionTable, EntriesWithAWrongChecksumAreReadWithAWarning) {
    CGptBuilder gpt;
    ASSERT_OK(Read(GptDisk(gpt.Entry(0, BasicDataGuid, 40, 139)).PutAt(1024 + 32, "\x29")));
    EXPECT_EQ(Texts_t{"1 Basic data 41+99"}, TextsOf(m_Table));
    ExpectWarning({"checksum of the GPT's entries"});
}

TEST_F(PartitionTable, APartitionThatEndsBeforeItsStartHasNoSectors) {
    for (const uint64_t last : {uint64_t{99}, uint64_t{0}}) {
        CGptBuilder gpt;
        ASSERT_OK(Read(GptDisk(gpt.Entry(0, BasicDataGuid, 100, last))));
        EXPECT_EQ(Texts_t{"1 Basic data 100+0"}, TextsOf(m_Table));
        ExpectWarning({"partition 1 ", "in front of its start"});
    }
}

TEST_F(PartitionTable, EndsThatNoDiskHasAreWarnings) {
    for (const uint64_t last : {~uint64_t{0}, uint64_t{1} << 63U, uint64_t{1} << 55U, DiskSectors}) {
        SCOPED_TRACE(last);
        CGptBuilder gpt;
        ASSERT_OK(Read(GptDisk(gpt.Entry(0, BasicDataGuid, 40, last))));
        ASSERT_EQ(1U, m_Table.partitions.size());
        EXPECT_EQ(last - 39, m_Table.partitions[0].sectors);
        ExpectWarning({"partition 1 ", "behind the disk's end"});
    }
    CGptBuilder gpt;
    ASSERT_OK(Read(GptDisk(gpt.Entry(0, BasicDataGuid, ~uint64_t{0}, ~uint64_t{0}))));
    ExpectWarning({"behind the disk's end"});
    ASSERT_OK(Read(GptDisk(gpt.Entry(0, BasicDataGuid, 0, ~uint64_t{0}))));
    EXPECT_EQ(1U, m_Table.warnings.size());
}

TEST_F(PartitionTable, CountsThatNoDiskHasRoomForAreRefused) {
    CGptBuilder gpt;
    const CPartitionTableBuilder disk = GptDisk(gpt.Entry(0, BasicDataGuid, 40, 139));
    for (const uint32_t count : {0xFFFFFFFFU, 0x80000000U, 1U << 20U, 100000U}) {
        SCOPED_TRACE(count);
        EXPECT_FAILS_SAYING(Read(WithHeaders(disk, 80, LittleEndianBytes(count, 4))), m_Path,
                            std::to_string(count) + " entries");
    }
    for (const uint32_t entryBytes : {0xFFFFFFFFU, 0x80000000U, 1U << 20U}) {
        SCOPED_TRACE(entryBytes);
        EXPECT_FAILS_SAYING(Read(WithHeaders(disk, 84, LittleEndianBytes(entryBytes, 4))), m_Path,
                            std::to_string(entryBytes) + " bytes");
    }
    for (const uint64_t lba : {~uint64_t{0}, uint64_t{1} << 55U, DiskSectors, DiskSectors - 1}) {
        SCOPED_TRACE(lba);
        EXPECT_FAILS_SAYING(Read(WithHeaders(disk, 72, LittleEndianBytes(lba, 8))), m_Path, "sector");
    }
    for (const uint32_t entryBytes : {0U, 127U}) {
        SCOPED_TRACE(entryBytes);
        EXPECT_FAILS_SAYING(Read(WithHeaders(disk, 84, LittleEndianBytes(entryBytes, 4))), "both headers");
    }
}

TEST_F(PartitionTable, AHybridMbrLeadsToTheGpt) {
    CGptBuilder gpt;
    const CPartitionTableBuilder plain = GptDisk(gpt.Entry(0, BasicDataGuid, 40, 139));
    for (size_t protects = 0; protects < 4; ++protects) {
        CBootRecordBuilder record;
        record.Slot(0, 0x83, 40, 100).Slot(1, 0x07, 140, 10).Slot(protects, 0xEE, 1, 39);
        CPartitionTableBuilder disk = plain;
        ASSERT_OK(Read(disk.PutAt(0, record.Bytes())));
        EXPECT_EQ(PartitionScheme_t::Gpt, m_Table.scheme);
        EXPECT_EQ(Texts_t{"1 Basic data 40+100"}, TextsOf(m_Table));
    }
}

TEST_F(PartitionTable, AnMbrWithoutTheProtectingSlotIsOne) {
    CGptBuilder gpt;
    CPartitionTableBuilder disk = GptDisk(gpt.Entry(0, BasicDataGuid, 40, 139));
    ASSERT_OK(Read(disk.PutAt(0, CBootRecordBuilder().Slot(0, 0x83, 40, 100).Bytes())));
    EXPECT_EQ(PartitionScheme_t::Mbr, m_Table.scheme);
    EXPECT_EQ(Texts_t{"1 83 40+100"}, TextsOf(m_Table));
}

TEST(PartitionScheme, HasANameOfItsOwn) {
    EXPECT_STREQ("none", SchemeName(PartitionScheme_t::None));
    EXPECT_STREQ("mbr", SchemeName(PartitionScheme_t::Mbr));
    EXPECT_STREQ("gpt", SchemeName(PartitionScheme_t::Gpt));
}

}  // namespace
