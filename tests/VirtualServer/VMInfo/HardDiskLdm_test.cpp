#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/LdmBuilder.h"
#include "tests/support/LdmSteps.h"
#include "tests/support/TempDir.h"

// The way to a dynamic disk's database: private header, tables of contents, and the records' head.

namespace {

constexpr char NoTocBlocks[] = "Failing because no valid tocblocks were found";
constexpr char OutOfRange[] = "Failing because the tocblock bitmaps are out of range";
constexpr char TooLarge[] = "LDM partition VMDB exceeds allowed size specified by TOCBLOCK. Database is corrupt";
constexpr size_t Copies = 4;

class HardDiskLdm : public testing::Test {
protected:
    CZuError PrivateHead(const CLdmDatabaseBuilder& database) {
        std::string sector = database.PrivateHeadBytes();
        return m_Disk.ParseLDMPrivateHead(sector.data(), m_Head);
    }
    CZuError TocBlock(const CLdmDatabaseBuilder& database) {
        std::string sector = database.TocBlockBytes();
        return m_Disk.ParseLDMTOCBlock(sector.data(), m_TocBlock);
    }
    CZuError Vmdb(const CLdmDatabaseBuilder& database) {
        std::string sector = database.VmdbBytes();
        return m_Disk.ParseLDMVMDB(sector.data(), m_Vmdb);
    }
    CZuError Database(const CLdmDatabaseBuilder& database, uint64_t diskSectors = 4096) {
        m_Disk.OpenWith(m_Dir, database, diskSectors);
        m_Db = LDM_DB_t();
        return m_Disk.GetDynamicDiskDatabase(m_Db, 6);
    }

    CTempDir m_Dir;
    CLdmSteps m_Disk;
    LDM_privhead_t m_Head;
    LDM_tocblock_t m_TocBlock;
    LDM_vmdb_t m_Vmdb;
    LDM_DB_t m_Db;
};

// A group without volumes.
CLdmDatabaseBuilder Sound() {
    return CLdmDatabaseBuilder().Add(LdmGroupRecord_t());
}

CLdmDatabaseBuilder WithoutTocBlocks(const std::vector<size_t>& copies) {
    CLdmDatabaseBuilder database = Sound();
    for (const size_t copy : copies)
        database.PutInTocBlock(copy, 7, "?");
    return database;
}

TEST_F(HardDiskLdm, ThePrivateHeaderTellsWhereTheDatabaseLies) {
    ASSERT_OK(PrivateHead(CLdmDatabaseBuilder()
                              .DiskGuid("0a1b2c3d-4e5f-6071-8293-a4b5c6d7e8f9")
                              .LogicalDisk(0x0102030405060708, 0x1112131415161718)
                              .Config(0x2122232425262728, 0x3132333435363738)));
    EXPECT_EQ(2, m_Head.VersionMajor);
    EXPECT_EQ(11, m_Head.VersionMinor);
    EXPECT_EQ(0x0102030405060708U, m_Head.LogicalDiskStart);
    EXPECT_EQ(0x1112131415161718U, m_Head.LogicalDiskSize);
    EXPECT_EQ(0x2122232425262728U, m_Head.ConfigStart);
    EXPECT_EQ(0x3132333435363738U, m_Head.ConfigSize);
    EXPECT_STREQ("{0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9}", FormatGuidText(m_Head.DiskGUID).c_str());
}

TEST_F(HardDiskLdm, TwoVersionsOfThePrivateHeaderAreKnown) {
    EXPECT_OK(PrivateHead(CLdmDatabaseBuilder().Version(2, 12)));
    EXPECT_EQ(12, m_Head.VersionMinor);
    const struct {
        uint16_t major;
        uint16_t minor;
        const char* got;
    } rows[] = {{2, 10, "2.10"}, {2, 13, "2.13"}, {1, 11, "1.11"},
                {3, 12, "3.12"}, {0, 0, "0.0"},   {2, 0x0B00, "2.2816"}};
    for (const auto& row : rows) {
        EXPECT_REFUSED(
            PrivateHead(CLdmDatabaseBuilder().Version(row.major, row.minor)),
            (std::string("LDM partition Private Head verion expecting 2.11 or 2.12. Got ") + row.got).c_str());
    }
}

TEST_F(HardDiskLdm, APrivateHeaderWithoutItsSignatureIsCorruptAndGivesNothing) {
    for (size_t at = 0; at < 8; ++at) {
        m_Head.ConfigStart = 77;
        m_Head.VersionMajor = 77;
        m_Head.DiskGUID.Data1 = 77;
        EXPECT_REFUSED(PrivateHead(CLdmDatabaseBuilder().PutInPrivateHead(at, "?")),
                       "LDM partition Private Head is corrupted");
        EXPECT_EQ(0U, m_Head.ConfigStart | m_Head.VersionMajor | m_Head.DiskGUID.Data1);
    }
}

TEST_F(HardDiskLdm, TheDisksGuidIsAText) {
    const std::string expected = "{D0000001-0002-4003-8004-000000000005}";
    for (const char* const text : {"d0000001-0002-4003-8004-000000000005", "{d0000001-0002-4003-8004-000000000005}",
                                   "D0000001-0002-4003-8004-000000000005 and what follows"}) {
        EXPECT_OK(PrivateHead(CLdmDatabaseBuilder().DiskGuid(text)));
        EXPECT_EQ(expected, FormatGuidText(m_Head.DiskGUID).c_str());
    }
    for (const char* const text : {"", "d0000001-0002-4003-8004-00000000000", "{d0000001-0002-4003-8004-000000000005",
                                   "d0000001x0002-4003-8004-000000000005", "d000000g-0002-4003-8004-000000000005"}) {
        EXPECT_REFUSED(PrivateHead(CLdmDatabaseBuilder().DiskGuid(text)), "LDM partition, GUID value is not valid");
        EXPECT_TRUE(m_Head.DiskGUID == GUID{});
    }
}

TEST_F(HardDiskLdm, TheVersionOfThePrivateHeaderIsTestedBeforeItsGuid) {
    EXPECT_REFUSED(PrivateHead(CLdmDatabaseBuilder().Version(2, 13).DiskGuid("none")),
                   "LDM partition Private Head verion expecting 2.11 or 2.12. Got 2.13");
}

TEST_F(HardDiskLdm, ATableOfContentsTellsItsTwoBitmaps) {
    ASSERT_OK(TocBlock(CLdmDatabaseBuilder()
                           .Bitmap1(0x0102030405060708, 0x1112131415161718)
                           .Bitmap2(0x2122232425262728, 0x3132333435363738)));
    EXPECT_STREQ("config", m_TocBlock.Bitmap1Name);
    EXPECT_EQ(0x0102030405060708U, m_TocBlock.Bitmap1Start);
    EXPECT_EQ(0x1112131415161718U, m_TocBlock.Bitmap1Size);
    EXPECT_STREQ("log", m_TocBlock.Bitmap2Name);
    EXPECT_EQ(0x2122232425262728U, m_TocBlock.Bitmap2Start);
    EXPECT_EQ(0x3132333435363738U, m_TocBlock.Bitmap2Size);
}

TEST_F(HardDiskLdm, ATableOfContentsWithoutItsSignatureIsCorruptAndGivesNothing) {
    for (size_t at = 0; at < 8; ++at) {
        m_TocBlock.Bitmap1Start = 77;
        m_TocBlock.Bitmap2Name[0] = 'x';
        EXPECT_REFUSED(TocBlock(CLdmDatabaseBuilder().PutInTocBlocks(at, "?")), "LDM partition TOC Block is corrupted");
        EXPECT_EQ(0U, m_TocBlock.Bitmap1Start);
        EXPECT_STREQ("", m_TocBlock.Bitmap2Name);
    }
}

TEST_F(HardDiskLdm, TheBitmapsHaveTheirNames) {
    const struct {
        std::string bytes;  // of the eight
        const char* found;
    } rows[] = {{std::string(8, '\0'), ""},
                {std::string("c\0nfig\0\0", 8), "c"},
                {std::string("confi\0\0\0", 8), "confi"},
                {std::string("Config\0\0", 8), "Config"},
                {std::string("configs\0", 8), "configs"},
                {std::string("configsX", 8), "configsX"},
                {std::string("log\0\0\0\0\0", 8), "log"}};
    for (const auto& row : rows) {
        const std::string text =
            std::string("LDM partition TOC Block first bitmap name is [") + row.found + "], expecting [config]";
        EXPECT_REFUSED(TocBlock(CLdmDatabaseBuilder().PutInTocBlocks(36, row.bytes)), text.c_str());
    }
    for (const char* const name : {"LOG", "lo", "logs", "config", "logslogs"}) {
        const std::string bytes = std::string(name) + std::string(8 - std::string(name).size(), '\0');
        const std::string text =
            std::string("LDM partition TOC Block second bitmap name is [") + name + "], expecting [log]";
        EXPECT_REFUSED(TocBlock(CLdmDatabaseBuilder().PutInTocBlocks(70, bytes)), text.c_str());
    }
}

TEST_F(HardDiskLdm, WhatFollowsANamesEndDoesNotCount) {
    EXPECT_OK(TocBlock(CLdmDatabaseBuilder()
                           .PutInTocBlocks(36, std::string("config\0x", 8))
                           .PutInTocBlocks(70, std::string("log\0rest", 8))));
}

TEST_F(HardDiskLdm, TheFirstBitmapIsTestedFirst) {
    EXPECT_REFUSED(TocBlock(CLdmDatabaseBuilder().PutInTocBlocks(36, "x").PutInTocBlocks(70, "y")),
                   "LDM partition TOC Block first bitmap name is [xonfig], expecting [config]");
    EXPECT_EQ(17U, m_TocBlock.Bitmap1Start);
    EXPECT_EQ(1481U, m_TocBlock.Bitmap1Size);
    EXPECT_EQ(0U, m_TocBlock.Bitmap2Start);
}

TEST_F(HardDiskLdm, TheRecordsHeadTellsTheirSizeAndNumber) {
    ASSERT_OK(Vmdb(CLdmDatabaseBuilder().PutInVmdb(4, BigEndianBytes(0x11121314, 4) + BigEndianBytes(0x21222324, 4) +
                                                          BigEndianBytes(0x31323334, 4))));
    EXPECT_EQ(4, m_Vmdb.VersionMajor);
    EXPECT_EQ(10, m_Vmdb.VersionMinor);
    EXPECT_EQ(0x11121314U, m_Vmdb.LastVBLKSeq);
    EXPECT_EQ(0x21222324U, m_Vmdb.VBLKSize);
    EXPECT_EQ(0x31323334U, m_Vmdb.VBLKFirstOffset);
}

TEST_F(HardDiskLdm, ARecordsHeadWithoutItsSignatureIsCorruptAndGivesNothing) {
    for (size_t at = 0; at < 4; ++at) {
        m_Vmdb.VBLKSize = 77;
        m_Vmdb.VersionMajor = 77;
        EXPECT_REFUSED(Vmdb(CLdmDatabaseBuilder().PutInVmdb(at, "?")), "LDM partition VMDB is corrupted");
        EXPECT_EQ(0U, m_Vmdb.VBLKSize | m_Vmdb.VersionMajor);
    }
}

TEST_F(HardDiskLdm, TheRecordsHeadHasOneVersionAndOneState) {
    const struct {
        const char* name;
        uint16_t state;
        uint16_t major;
        uint16_t minor;
        const char* text;
    } rows[] = {
        {"older", 1, 4, 9, "LDM partition VMDB verion expecting 4.10. Got 4.9"},
        {"newer", 1, 4, 11, "LDM partition VMDB verion expecting 4.10. Got 4.11"},
        {"older major", 1, 3, 10, "LDM partition VMDB verion expecting 4.10. Got 3.10"},
        {"newer major", 1, 5, 10, "LDM partition VMDB verion expecting 4.10. Got 5.10"},
        {"version before state", 2, 4, 11, "LDM partition VMDB verion expecting 4.10. Got 4.11"},
        {"state 0", 0, 4, 10, "LDM partition VMDB is not in consistent state"},
        {"state 2", 2, 4, 10, "LDM partition VMDB is not in consistent state"},
        {"state 0x101", 0x101, 4, 10, "LDM partition VMDB is not in consistent state"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string bytes =
            BigEndianBytes(row.state, 2) + BigEndianBytes(row.major, 2) + BigEndianBytes(row.minor, 2);
        EXPECT_REFUSED(Vmdb(CLdmDatabaseBuilder().PutInVmdb(16, bytes)), row.text);
    }
}

TEST_F(HardDiskLdm, ASoundDatabaseOpens) {
    ASSERT_OK(Database(Sound()));
    EXPECT_EQ(2048U, m_Db.PrivateHead.ConfigStart);
    EXPECT_EQ(2048U, m_Db.PrivateHead.ConfigSize);
    EXPECT_EQ(63U, m_Db.PrivateHead.LogicalDiskStart);
    EXPECT_EQ(17U, m_Db.TocBlock.Bitmap1Start);
    EXPECT_EQ(224U, m_Db.TocBlock.Bitmap2Size);
    EXPECT_EQ(128U, m_Db.Vmdb.VBLKSize);
    EXPECT_EQ(512U, m_Db.Vmdb.VBLKFirstOffset);
    EXPECT_EQ(4U + 1 + 4, m_Db.Vmdb.LastVBLKSeq);
    EXPECT_EQ(0x35, m_Db.Group.Type);
    EXPECT_STREQ("Group-Dg0", m_Db.Group.Name);
    EXPECT_TRUE(m_Db.Group.Children.empty());
}

TEST_F(HardDiskLdm, ThePrivateHeaderIsReadWhereTheCallerSays) {
    CImageFile image;
    Sound().PutTo(image, 1000);
    image.Resize(uint64_t{4096} * 512);
    std::vector<Disk_t> disks = {FlatLink(m_Dir, image)};
    ASSERT_OK(m_Disk.OpenHardDisk(disks));
    EXPECT_OK(m_Disk.GetDynamicDiskDatabase(m_Db, 1000));
    EXPECT_REFUSED(m_Disk.GetDynamicDiskDatabase(m_Db, 6), "Failed to parse private head");
    for (const uint64_t lba : {uint64_t{4096}, uint64_t{1} << 55U, (uint64_t{1} << 55U) + 1000, ~uint64_t{0}}) {
        EXPECT_REFUSED(m_Disk.GetDynamicDiskDatabase(m_Db, lba), "Failed to read disk for private head");
    }
}

TEST_F(HardDiskLdm, WithNothingOpenThePrivateHeaderCannotBeRead) {
    EXPECT_REFUSED(m_Disk.GetDynamicDiskDatabase(m_Db, 6), "Failed to read disk for private head");
}

TEST_F(HardDiskLdm, OuterWordsReplaceThoseOfAStep) {
    const struct {
        const char* name;
        CLdmDatabaseBuilder database;
        const char* text;
    } rows[] = {
        {"private header's signature", Sound().PutInPrivateHead(0, "?"), "Failed to parse private head"},
        {"private header's version", Sound().Version(2, 13), "Failed to parse private head"},
        {"disk's guid", Sound().DiskGuid("none"), "Failed to parse private head"},
        {"signature of the records' head", Sound().PutInVmdb(0, "?"), "Failed to parse VMDB"},
        {"version of the records' head", Sound().PutInVmdb(20, BigEndianBytes(11, 2)), "Failed to parse VMDB"},
        {"state of the records' head", Sound().PutInVmdb(16, BigEndianBytes(2, 2)), "Failed to parse VMDB"},
        {"a record", Sound().PutInSlot(0, 0, "?"), "Failed to parse VMBLK"},
        {"a second group", Sound().Add(LdmGroupRecord_t()), "Failed to parse VMBLK"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_REFUSED(Database(row.database), row.text);
    }
}

TEST_F(HardDiskLdm, OneGoodTableOfContentsIsEnough) {
    const std::vector<size_t> all = {0, 1, 2, 3};
    for (const size_t good : all) {
        SCOPED_TRACE(good);
        std::vector<size_t> others;
        for (const size_t copy : all) {
            if (copy != good)
                others.push_back(copy);
        }
        EXPECT_OK(Database(WithoutTocBlocks(others)));
        EXPECT_EQ(1481U, m_Db.TocBlock.Bitmap1Size);
    }
    EXPECT_REFUSED(Database(WithoutTocBlocks(all)), NoTocBlocks);
}

TEST_F(HardDiskLdm, ACopyThatIsNotGoodMayTellOtherBitmaps) {
    EXPECT_OK(Database(Sound()
                           .PutInTocBlock(0, 36, "x")
                           .PutInTocBlock(0, 46, "x")
                           .PutInTocBlock(2, 70, "x")
                           .PutInTocBlock(2, 88, "x")));
}

TEST_F(HardDiskLdm, CopiesBehindTheDisksEndAreNotThere) {
    EXPECT_OK(Database(Sound(), 2048 + 2046)) << "the last copy";
    EXPECT_OK(Database(Sound(), 2048 + 2045)) << "the last two";
    EXPECT_REFUSED(Database(WithoutTocBlocks({0, 1}), 2048 + 2045), NoTocBlocks);
    for (const uint64_t start : {uint64_t{4096}, uint64_t{1} << 55U, ~uint64_t{0} - 3000}) {
        const std::string bytes = BigEndianBytes(start, 8);
        EXPECT_REFUSED(Database(Sound().PutInPrivateHead(299, bytes)), NoTocBlocks) << start;
    }
}

TEST_F(HardDiskLdm, BothBitmapsLieInsideTheDatabase) {
    constexpr uint64_t most = ~uint64_t{0};
    const struct {
        const char* name;
        CLdmDatabaseBuilder database;
        bool isInside;
    } rows[] = {
        {"first up to the end", Sound().Bitmap1(17, 2031), true},
        {"first one behind it", Sound().Bitmap1(17, 2032), false},
        {"second up to the end", Sound().Bitmap2(2048, 0), true},
        {"second one behind it", Sound().Bitmap2(2048, 1), false},
        {"second begins behind it", Sound().Bitmap2(2049, 0), false},
        {"first wraps", Sound().Bitmap1(17, most), false},
        {"second wraps", Sound().Bitmap2(most, 17), false},
        {"a smaller database", Sound().Config(2048, 1721), false},
        {"one that just holds them", Sound().Config(2048, 1722), true},
        {"an empty database", Sound().Config(2048, 0), false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.isInside) {
            EXPECT_OK(Database(row.database));
        } else {
            EXPECT_REFUSED(Database(row.database), OutOfRange);
        }
    }
}

TEST_F(HardDiskLdm, AllGoodTablesOfContentsAgree) {
    for (const size_t offset : {size_t{46}, size_t{54}, size_t{80}, size_t{88}}) {
        for (size_t copy = 1; copy < Copies; ++copy) {
            SCOPED_TRACE(testing::Message() << "copy " << copy << ", offset " << offset);
            const std::string text = "Failing because tocblocks 0 and " + std::to_string(copy) + " do not match";
            EXPECT_REFUSED(Database(Sound().PutInTocBlock(copy, offset, BigEndianBytes(18, 8))), text.c_str());
        }
    }
}

TEST_F(HardDiskLdm, WhatElseTheyHoldMayDiffer) {
    EXPECT_OK(
        Database(Sound().PutInTocBlock(1, 8, "sequence").PutInTocBlock(2, 62, "flags").PutInTocBlock(3, 96, "x")));
}

TEST_F(HardDiskLdm, GoodTablesOfContentsAreCountedAmongThemselves) {
    const std::string other = BigEndianBytes(18, 8);
    EXPECT_REFUSED(Database(WithoutTocBlocks({0}).PutInTocBlock(2, 46, other)),
                   "Failing because tocblocks 0 and 1 do not match");
    EXPECT_REFUSED(Database(WithoutTocBlocks({2}).PutInTocBlock(3, 46, other)),
                   "Failing because tocblocks 0 and 2 do not match");
    EXPECT_REFUSED(Database(Sound().PutInTocBlock(3, 46, other).PutInTocBlock(1, 88, other)),
                   "Failing because tocblocks 0 and 1 do not match");
    EXPECT_REFUSED(Database(Sound().PutInTocBlock(0, 46, other)), "Failing because tocblocks 0 and 1 do not match");
}

TEST_F(HardDiskLdm, TheRangeIsThatOfTheFirstGoodOneAndTestedBeforeTheyAreCompared) {
    const std::string tooMany = BigEndianBytes(5000, 8);
    EXPECT_REFUSED(Database(Sound().PutInTocBlock(0, 88, tooMany)), OutOfRange);
    EXPECT_REFUSED(Database(Sound().PutInTocBlock(1, 88, tooMany)), "Failing because tocblocks 0 and 1 do not match");
    EXPECT_REFUSED(Database(WithoutTocBlocks({0}).PutInTocBlock(1, 88, tooMany)), OutOfRange);
}

TEST_F(HardDiskLdm, ARecordsHeadBehindTheDisksEndCannotBeRead) {
    EXPECT_REFUSED(Database(Sound().Config(2048, 5000).PutInTocBlocks(46, BigEndianBytes(3000, 8))),
                   "Failed to read disk for VMDB");
}

// The whole first bitmap may be counted, though its head takes some of it.
TEST_F(HardDiskLdm, TheRecordsAreNoLargerThanTheFirstBitmap) {
    EXPECT_OK(Database(Sound().UnusedBehind(1481 * 4 - 4 - 1)));
    EXPECT_EQ(1481U * 4, m_Db.Vmdb.LastVBLKSeq);
    EXPECT_REFUSED(Database(Sound().LastSequence(1481 * 4 + 1)), TooLarge);
    EXPECT_REFUSED(Database(Sound().Bitmap1(17, 0)), TooLarge);
}

// The size of all records is worked out in 32 bits: one that wraps passes here, and is refused where the
// records end.
TEST_F(HardDiskLdm, TheSizeOfTheRecordsWraps) {
    const struct {
        const char* name;
        uint32_t size;
        uint32_t count;
        const char* text;
    } rows[] = {
        {"2^32 - 1", 1, 0xFFFFFFFF, TooLarge},
        {"2^32", 0x80000000, 2, "Failed to parse VMBLK"},
        {"2^32 + 2^16", 0x10000, 0x10001, "Failed to parse VMBLK"},
        {"2^32 + 2^20", 0x100000, 0x1001, TooLarge},
        {"all ones squared", 0xFFFFFFFF, 0xFFFFFFFF, "Failed to parse VMBLK"},
        {"slots of usual size", 128, 0x02000009, "Failed to parse VMBLK"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string bytes = BigEndianBytes(row.count, 4) + BigEndianBytes(row.size, 4);
        EXPECT_REFUSED(Database(Sound().PutInVmdb(4, bytes)), row.text);
    }
}

// The reads: private header, four tables of contents, the records' head, the records.
TEST_F(HardDiskLdm, EveryFailureOfAReadReachesTheCallerButThoseOfTablesOfContents) {
    m_Disk.OpenWith(m_Dir, Sound());
    std::vector<std::string> outcomes;
    for (unsigned int failAt = 0;; ++failAt) {
        const CFaultyFiles faulty(Fault_t{FaultOp::Read, failAt, EIO});
        const CZuError error = m_Disk.GetDynamicDiskDatabase(m_Db, 6);
        if (!faulty.Fired()) {
            EXPECT_OK(error);
            break;
        }
        outcomes.push_back(error.IsErrorSet() ? error.GetErrorText() : "");
    }
    EXPECT_EQ((std::vector<std::string>{"Failed to read disk for private head", "", "", "", "",
                                        "Failed to read disk for VMDB", "Failed to parse VMBLK"}),
              outcomes);
}

TEST_F(HardDiskLdm, AReaderServesAgainAfterAFailure) {
    m_Disk.OpenWith(m_Dir, Sound());
    EXPECT_FAILURE(m_Disk.GetDynamicDiskDatabase(m_Db, 7));
    EXPECT_OK(m_Disk.GetDynamicDiskDatabase(m_Db, 6));
    EXPECT_OK(m_Disk.GetDynamicDiskDatabase(m_Db, 6)) << "into a database that is filled";
    EXPECT_STREQ("Group-Dg0", m_Db.Group.Name);
}

}  // namespace
