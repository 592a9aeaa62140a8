#include "agent/Backup.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "agent/BackupSetReader.h"
#include "agent/detail/SetSchema.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VmdkSparseBuilder.h"

namespace {

using Names_t = std::vector<std::string>;

class BackupOfADisk : public testing::Test {
protected:
    std::string FlatDisk() { return WriteFlatDisk(m_Disks, {DiskContent(2049), DiskContent(300, 2)}); }

    CTempDir m_Disks;
    CTempDir m_Sets;
    BackupOptions_t m_Options;
    BackupResult_t m_Result;
};

TEST_F(BackupOfADisk, TellsWhatItDid) {
    ASSERT_OK(BackUpDisk(FlatDisk(), m_Sets.File("set"), m_Options, m_Result));
    ASSERT_EQ(1U, m_Result.disks.size());
    EXPECT_EQ(DiskType_TwoGbMaxExtentFlat, m_Result.disks[0].diskType);
    EXPECT_EQ(2349U * 512U, m_Result.disks[0].diskBytes);
    EXPECT_EQ(2349U * 512U, m_Result.diskBytes);
    EXPECT_EQ(2349U * 512U, m_Result.readBytes);
    EXPECT_EQ(20U, m_Result.blockCount);
    EXPECT_EQ(6U, m_Result.zeroBlocks);  // blocks 1, 4, 7, 10 and 13 of the first extent, 1 of the second
    EXPECT_EQ(m_Sets.Read("set").size(), m_Result.setBytes);
    EXPECT_GT(m_Result.storedBytes, 0U);
    EXPECT_LT(m_Result.storedBytes, m_Result.readBytes);
    EXPECT_EQ(Names_t{}, m_Result.warnings);
    EXPECT_EQ(Names_t{"set"}, m_Sets.Entries());
}

TEST_F(BackupOfADisk, TheSetTellsTheDisk) {
    ASSERT_OK(BackUpDisk(FlatDisk(), m_Sets.File("set"), m_Options, m_Result));
    CBackupSetReader set;
    ASSERT_OK(set.Open(m_Sets.File("set")));
    ASSERT_EQ(1U, set.Disks().size());
    EXPECT_EQ("disk.vmdk", set.Disks()[0].imageName);
    EXPECT_EQ(VirtualProdType_VMware, set.Disks()[0].product);
    EXPECT_EQ(DiskType_TwoGbMaxExtentFlat, set.Disks()[0].diskType);
    EXPECT_EQ(2349U, set.Disks()[0].diskSectors);
    EXPECT_FALSE(set.Disks()[0].hasParent);
    EXPECT_EQ(20U, set.Info().createdUtc.size());
    EXPECT_EQ('Z', set.Info().createdUtc.back());
    EXPECT_EQ(0U, set.Info().writer.find("diskstream "));
    ASSERT_EQ(2U, set.Streams().size());
    EXPECT_EQ("disk-f001.vmdk", set.Streams()[0].fileName);
    EXPECT_EQ("disk-f002.vmdk", set.Streams()[1].fileName);
    EXPECT_EQ(2049U, set.Streams()[0].diskSectors);
    EXPECT_EQ(300U * 512U, set.Streams()[1].fileBytes);
    ASSERT_EQ(1U, set.Files().size());
    EXPECT_EQ("disk.vmdk", set.Files()[0].name);
    EXPECT_EQ(m_Disks.Read("disk.vmdk"), set.Files()[0].bytes);
}

TEST_F(BackupOfADisk, TheSetIsADatabaseOfTheDocumentedTables) {
    m_Options.compressionLevel = NoCompression;
    ASSERT_OK(BackUpDisk(FlatDisk(), m_Sets.File("set"), m_Options, m_Result));
    const std::string set = m_Sets.File("set");
    EXPECT_EQ("ok", AskSet(set, "PRAGMA integrity_check"));
    EXPECT_EQ("1146307121", AskSet(set, "PRAGMA application_id"));
    EXPECT_EQ("2", AskSet(set, "PRAGMA user_version"));
    EXPECT_EQ("backup_set block disk entry file part piece record stream volume",
              AskSet(set, "SELECT group_concat(name, ' ') FROM (SELECT name FROM sqlite_schema ORDER BY name)"));
    const struct {
        const char* table;
        const char* columns;
    } rows[] = {
        {"backup_set", "created_utc writer digest"},
        {"disk", "id image_name product disk_type disk_sectors has_parent parent_name"},
        {"stream", "id disk file_name disk_type block_sectors disk_sectors file_bytes record_bytes record_digest "
                   "block_count stored_bytes digest"},
        {"record", "stream piece size digest encoding data"},
        {"block", "id sectors digest encoding data"},
        {"file", "disk name bytes"},
        {"volume", "id name facts entry_count entries_digest"},
        {"part", "id name bytes digest"},
        {"piece", "id size digest encoding data"},
        {"entry",
         "volume parent name frn bytes modified accessed created record_changed attributes reparse_tag links kind"},
    };
    for (const auto& row : rows) {
        const std::string columns =
            std::string("SELECT group_concat(name, ' ') FROM pragma_table_info('") + row.table + "')";
        EXPECT_EQ(row.columns, AskSet(set, columns));
    }
    EXPECT_EQ("20", AskSet(set, "SELECT count(*) FROM block"));
    EXPECT_EQ("6", AskSet(set, "SELECT count(*) FROM block WHERE encoding = 0 AND data IS NULL"));
    EXPECT_SAME_BYTES(DiskContent(300, 2).substr(256 * 512),
                      AskSet(set, "SELECT data FROM block WHERE id = (1 << 40) + 2"));
}

TEST_F(BackupOfADisk, EachCompressionHoldsTheSameDisk) {
    const std::string disk = FlatDisk();
    uint64_t plainBytes = 0;
    for (const int level : {NoCompression, 1, 3, HighestCompression()}) {
        SCOPED_TRACE(level);
        m_Options.compressionLevel = level;
        m_Options.force = true;
        ASSERT_OK(BackUpDisk(disk, m_Sets.File("set"), m_Options, m_Result));
        plainBytes = level == NoCompression ? m_Result.storedBytes : plainBytes;
        EXPECT_TRUE(level == NoCompression || m_Result.storedBytes < plainBytes);
        std::vector<std::string> differences;
        ASSERT_OK(VerifyAgainst(m_Sets.File("set"), disk, differences));
        EXPECT_EQ(Names_t{}, differences);
    }
}

TEST_F(BackupOfADisk, AStandingSetIsReplacedOnlyByForce) {
    const std::string disk = FlatDisk();
    m_Sets.Write("set", "stands here");
    EXPECT_FAILS_SAYING(BackUpDisk(disk, m_Sets.File("set"), m_Options, m_Result), m_Sets.File("set"), "exists already",
                        "--force");
    EXPECT_EQ("stands here", m_Sets.Read("set"));
    m_Options.force = true;
    ASSERT_OK(BackUpDisk(disk, m_Sets.File("set"), m_Options, m_Result));
    EXPECT_OK(Verify(m_Sets.File("set")));
    EXPECT_EQ(Names_t{"set"}, m_Sets.Entries());
}

TEST_F(BackupOfADisk, TheImagesOwnFilesAreNeverReplacedByTheSet) {
    const std::string disk = FlatDisk();
    const Names_t before = m_Disks.Entries();
    const std::string extent = m_Disks.Read("disk-f001.vmdk");
    std::filesystem::create_symlink(m_Disks.File("disk-f001.vmdk"), m_Sets.File("link"));
    m_Options.force = true;
    for (const std::string& set :
         {disk, m_Disks.File("disk-f001.vmdk"), m_Disks.File("./disk-f002.vmdk"), m_Sets.File("link")}) {
        SCOPED_TRACE(set);
        EXPECT_FAILS_SAYING(BackUpDisk(disk, set, m_Options, m_Result), set, "is a file of the image");
    }
    EXPECT_EQ(before, m_Disks.Entries());
    EXPECT_SAME_BYTES(extent, m_Disks.Read("disk-f001.vmdk"));
}

TEST_F(BackupOfADisk, ASetIsForItsOwnerAlone) {
    ASSERT_OK(BackUpDisk(FlatDisk(), m_Sets.File("set"), m_Options, m_Result));
    EXPECT_EQ(std::filesystem::perms::owner_read | std::filesystem::perms::owner_write,
              std::filesystem::status(m_Sets.File("set")).permissions());
}

TEST_F(BackupOfADisk, AForcedOneThatFailsKeepsTheStandingSet) {
    const std::string disk = FlatDisk();
    m_Sets.Write("set", "stands here");
    m_Options.force = true;
    m_Options.progress = [](const Progress_t&) { return false; };
    EXPECT_FAILS_SAYING(BackUpDisk(disk, m_Sets.File("set"), m_Options, m_Result), "cancelled");
    EXPECT_EQ("stands here", m_Sets.Read("set"));
    EXPECT_EQ(Names_t{"set"}, m_Sets.Entries());
}

TEST_F(BackupOfADisk, CancellingAtAnyMomentLeavesNothing) {
    const std::string disk = FlatDisk();
    for (int cancelAt = 0;; ++cancelAt) {
        SCOPED_TRACE(cancelAt);
        int step = 0;
        m_Options.progress = [&](const Progress_t&) { return step++ != cancelAt; };
        const CZuError error = BackUpDisk(disk, m_Sets.File("set"), m_Options, m_Result);
        if (step <= cancelAt) {
            EXPECT_OK(error);
            EXPECT_GE(cancelAt, 2);
            break;
        }
        EXPECT_FAILS_SAYING(error, "cancelled");
        EXPECT_EQ(Names_t{}, m_Sets.Entries());
    }
}

TEST_F(BackupOfADisk, ProgressGrowsToItsTotal) {
    const std::string sparse = CVmdkSparseBuilder().Grain(3, 'x').Grain(31, 'y').WriteTo(m_Disks);
    for (const std::string& disk : {FlatDisk(), sparse}) {
        SCOPED_TRACE(disk);
        Progress_t last;
        m_Options.force = true;
        m_Options.progress = [&](const Progress_t& progress) {
            EXPECT_GE(progress.doneBytes, last.doneBytes);
            EXPECT_LE(progress.doneBytes, progress.totalBytes);
            last = progress;
            return true;
        };
        ASSERT_OK(BackUpDisk(disk, m_Sets.File("set"), m_Options, m_Result));
        EXPECT_EQ(last.totalBytes, last.doneBytes);
        EXPECT_EQ(m_Result.readBytes, last.doneBytes);
    }
}

TEST_F(BackupOfADisk, ASetInNoDirectoryIsRefused) {
    EXPECT_FAILS_SAYING(BackUpDisk(FlatDisk(), m_Sets.File("none") + "/set", m_Options, m_Result),
                        "directory doesn't exist");
    EXPECT_FAILS_SAYING(BackUpDisk(FlatDisk(), m_Sets.Path(), m_Options, m_Result), m_Sets.Path());
}

TEST_F(BackupOfADisk, EveryFailureOfTheImageIsToldAndLeavesNothing) {
    const std::string sparse = CVmdkSparseBuilder().Grain(3, 'x').Grain(31, 'y').WriteTo(m_Disks);
    for (const std::string& disk : {FlatDisk(), sparse}) {
        for (const FaultOp op : {FaultOp::Open, FaultOp::Read, FaultOp::Seek, FaultOp::Size, FaultOp::Sync}) {
            bool fired = true;
            for (unsigned int failAt = 0; fired; ++failAt) {
                SCOPED_TRACE(testing::Message() << disk << ", operation " << int(op) << ", call " << failAt);
                const CTempDir sets;
                CZuError error;
                {
                    CFaultyFiles faulty(Fault_t{op, failAt, EIO});
                    error = BackUpDisk(disk, sets.File("set"), m_Options, m_Result);
                    fired = faulty.Fired();
                }
                EXPECT_EQ(fired, error.IsErrorSet()) << DescribeError(error);
                if (!fired)
                    break;
                EXPECT_FAILS_SAYING(error, ": ", "Input/output error");
                EXPECT_EQ(Names_t{}, sets.Entries());
            }
        }
    }
}

// The verification of a set against an image.

TEST_F(BackupOfADisk, DifferencesFromAnImageAreTold) {
    const std::string disk = FlatDisk();
    ASSERT_OK(BackUp(disk, m_Sets.File("set")));
    std::string changed = DiskContent(2049);
    changed[0] ^= 1;
    changed[128 * 512] ^= 1;  // in a block of zeros
    changed.back() ^= 1;
    m_Disks.Write("disk-f001.vmdk", changed);
    Names_t differences;
    ASSERT_OK(VerifyAgainst(m_Sets.File("set"), disk, differences));
    EXPECT_EQ((Names_t{"block 0 of disk-f001.vmdk, at sector 0", "block 1 of disk-f001.vmdk, at sector 128",
                       "block 16 of disk-f001.vmdk, at sector 2048"}),
              differences);
}

TEST_F(BackupOfADisk, MoreDifferencesThanAreToldAreCounted) {
    const std::string disk = FlatDisk();
    ASSERT_OK(BackUp(disk, m_Sets.File("set")));
    WriteFlatDisk(m_Disks, {std::string(2049 * 512, 'n'), std::string(300 * 512, 'n')});
    VerifyOptions_t options;
    options.against = disk;
    VerifyResult_t result;
    ASSERT_OK(VerifySet(m_Sets.File("set"), options, result));
    EXPECT_EQ(20U, result.differenceCount);
    EXPECT_EQ(10U, result.differences.size());
    EXPECT_EQ(20U, result.blockCount);
    EXPECT_EQ(2349U * 512U, result.plainBytes);
}

TEST_F(BackupOfADisk, AGrainOfZerosIsTheSameAsAHole) {
    const std::string disk = CVmdkSparseBuilder().Grain(3, 'x').WriteTo(m_Disks);
    ASSERT_OK(BackUp(disk, m_Sets.File("set")));
    Names_t differences;
    CVmdkSparseBuilder().Grain(3, 'x').Grain(5, '\0').WriteTo(m_Disks);
    ASSERT_OK(VerifyAgainst(m_Sets.File("set"), disk, differences));
    EXPECT_EQ(Names_t{}, differences);
    CVmdkSparseBuilder().Grain(3, 'x').Grain(5, 'z').WriteTo(m_Disks);
    ASSERT_OK(VerifyAgainst(m_Sets.File("set"), disk, differences));
    EXPECT_EQ((Names_t{"block 5 of sparse.vmdk, at sector 40"}), differences);
    CVmdkSparseBuilder().WriteTo(m_Disks);
    ASSERT_OK(VerifyAgainst(m_Sets.File("set"), disk, differences));
    EXPECT_EQ((Names_t{"block 3 of sparse.vmdk, at sector 24"}), differences);
}

TEST_F(BackupOfADisk, AnImageOfAnotherShapeIsTold) {
    const std::string disk = FlatDisk();
    ASSERT_OK(BackUp(disk, m_Sets.File("set")));
    Names_t differences;
    EXPECT_FAILS_SAYING(
        VerifyAgainst(m_Sets.File("set"), WriteFlatDisk(m_Disks, {DiskContent(2349)}, "one"), differences),
        "has 1 extents where the set", "has 2 streams");
    ASSERT_OK(VerifyAgainst(m_Sets.File("set"), WriteFlatDisk(m_Disks, {DiskContent(2050), DiskContent(300, 2)}),
                            differences));
    EXPECT_NE(Names_t{}, differences);
    EXPECT_FAILS_SAYING(VerifyAgainst(m_Sets.File("set"), m_Disks.File("none"), differences), m_Disks.File("none"));
}

TEST_F(BackupOfADisk, VerifyCanBeCancelled) {
    ASSERT_OK(BackUp(FlatDisk(), m_Sets.File("set")));
    VerifyOptions_t options;
    VerifyResult_t result;
    options.progress = [](const Progress_t&) { return false; };
    EXPECT_FAILS_SAYING(VerifySet(m_Sets.File("set"), options, result), "cancelled");
}

TEST_F(BackupOfADisk, VerifyOfAnEmptySetAgainstAFullImageCanBeCancelled) {
    const std::string zeros = WriteFlatDisk(m_Disks, {std::string(1024 * 512, '\0')});
    const std::string empty = CVmdkSparseBuilder().GrainSize(128).Capacity(1024).WriteTo(m_Sets, "empty");
    ASSERT_OK(BackUp(empty, m_Sets.File("set")));
    VerifyOptions_t options;
    VerifyResult_t result;
    options.against = zeros;
    options.progress = [](const Progress_t&) { return false; };
    EXPECT_FAILS_SAYING(VerifySet(m_Sets.File("set"), options, result), "cancelled");
}

TEST_F(BackupOfADisk, AReaderOpensOneSetAfterTheOther) {
    const std::string disk = FlatDisk();
    ASSERT_OK(BackUp(disk, m_Sets.File("set")));
    CBackupSetReader set;
    for (int round = 0; round < 2; ++round) {
        ASSERT_OK(set.Open(m_Sets.File("set")));
        EXPECT_EQ(2U, set.Streams().size());
        EXPECT_EQ(1U, set.Files().size());
    }
}

}  // namespace
