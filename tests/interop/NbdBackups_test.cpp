#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent/Backup.h"
#include "agent/BackupSetReader.h"
#include "agent/Restore.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/interop/JsonOutput.h"
#include "tests/interop/NbdServers.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"

// Backups of disks that a storage daemon serves, with its own bitmaps of what changed.

namespace {

constexpr uint64_t NbdDiskBytes = 16 * MiB;

class NbdBackups : public testing::Test {
protected:
    void SetUp() override {
        SKIP_WITHOUT_PROGRAM("qemu-storage-daemon");
        ASSERT_TRUE(Runs("qemu-img create -q -f qcow2 " + Quoted(Image()) + " 16M"));
        ASSERT_TRUE(RunsInQemuIo("qcow2", Image(),
                                 {"write -P 1 0 1M", "write -P 2 10M 3M", "write -P 3 15M 1M", "write -z 14M 1M"}));
        ASSERT_TRUE(Runs("qemu-img bitmap --add " + Quoted(Image()) + " monday"));
        m_Server.emplace(StorageDaemon(Image(), {"monday"}), "disk");
        ASSERT_TRUE(m_Server->Start());
    }

    std::string Image() const { return m_Dir.File("disk.qcow2"); }
    std::string Uri() const { return m_Server->Uri(); }

    void Write(const std::vector<std::string>& commands) { ASSERT_TRUE(RunsInQemuIo("raw", Uri(), commands)); }

    // A disk of which not all is on its way when the first blocks are in the set. It has no bitmaps: these don't
    // survive that their server is killed.
    void ServeLarge() {
        m_Server->Kill();
        ASSERT_TRUE(Runs("qemu-img create -q -f qcow2 " + Quoted(Image()) + " 40M"));
        ASSERT_TRUE(RunsInQemuIo("qcow2", Image(), {"write -P 5 0 20M", "write -P 6 20M 20M"}));
        m_Server.emplace(StorageDaemon(Image(), {}), "disk");
        ASSERT_TRUE(m_Server->Start());
    }

    // The export's bytes, as another program copies them.
    std::string State() {
        EXPECT_TRUE(Runs("qemu-img convert -f raw -O raw " + Quoted(Uri()) + " " + Quoted(m_Dir.File("state"))));
        return m_Dir.Read("state");
    }

    CZuError BackUpWhole(const std::string& set) {
        BackupOptions_t options;
        options.image.patience = std::chrono::seconds(10);
        return BackUpDisk(Uri(), m_Dir.File(set), options, m_Result);
    }

    CZuError BackUpChanges(const std::string& set, const std::string& bitmap, const std::string& base) {
        BackupOptions_t options;
        options.image.changedSince = bitmap;
        options.base = m_Dir.File(base);
        return BackUpDisk(Uri(), m_Dir.File(set), options, m_Result);
    }

    // The blocks that the set itself has.
    std::set<uint64_t> OwnBlocks(const std::string& set) {
        std::set<uint64_t> numbers;
        CBackupSetReader reader;
        EXPECT_OK(reader.Open(m_Dir.File(set)));
        EXPECT_OK(reader.OpenBases());
        EXPECT_OK(reader.BeginBlocks(reader.Streams().front()));
        for (std::optional<SetBlock_t> block;;) {
            EXPECT_OK(reader.NextBlock(block));
            if (!block.has_value())
                return numbers;
            if (!block->isInherited)
                numbers.insert(block->number);
        }
    }

    std::string Restored(const std::string& set) {
        EXPECT_OK(Restore(m_Dir.File(set), m_Dir.File("raw"), true));
        return m_Dir.Read("raw");
    }

    std::string Command(const std::string& words) const { return Quoted(DISKSTREAM_COMMAND) + " " + words; }

    CTempDir m_Dir;
    std::optional<CNbdServer> m_Server;
    BackupResult_t m_Result;
};

TEST_F(NbdBackups, AWholeBackupHoldsWhatIsAllocated) {
    ASSERT_OK(BackUpWhole("whole"));
    EXPECT_EQ(80U, m_Result.blockCount) << "five MiB in blocks of 64 KiB";
    EXPECT_EQ(NbdDiskBytes, m_Result.diskBytes);
    EXPECT_SAME_BYTES(State(), Restored("whole"));
    EXPECT_OK(Verify(m_Dir.File("whole")));
}

TEST_F(NbdBackups, ABackupOfChangesHoldsExactlyTheBlocksWritten) {
    const std::string before = State();
    ASSERT_OK(BackUpWhole("whole"));
    Write({"write -P 9 1M 64k", "write -P 8 5M 100k", "write -P 7 7000k 1k", "discard 10M 1M"});
    const std::string after = State();
    ASSERT_OK(BackUpChanges("changes", "monday", "whole"));
    EXPECT_EQ((std::set<uint64_t>{16, 80, 81, 109}), OwnBlocks("changes"));
    EXPECT_EQ(4U, m_Result.blockCount);
    EXPECT_EQ(80U - 16U, m_Result.unchangedBlocks) << "what was discarded is neither";
    EXPECT_SAME_BYTES(after, Restored("changes"));
    EXPECT_SAME_BYTES(before, Restored("whole"));
    std::vector<std::string> differences;
    EXPECT_OK(VerifyAgainst(m_Dir.File("changes"), Uri(), differences));
    EXPECT_EQ(std::vector<std::string>(), differences);
    EXPECT_OK(VerifyAgainst(m_Dir.File("whole"), Uri(), differences));
    EXPECT_FALSE(differences.empty());
}

TEST_F(NbdBackups, WhatABitmapYoungerThanTheBaseDoesNotTellIsInTheSetWhereTheBaseHasNone) {
    ASSERT_OK(BackUpWhole("whole"));
    Write({"write -P 8 5M 100k", "write -P 0 6M 64k"});
    m_Server->Kill();
    ASSERT_TRUE(Runs("qemu-img bitmap --add " + Quoted(Image()) + " late"));
    m_Server.emplace(StorageDaemon(Image(), {"late"}), "disk");
    ASSERT_TRUE(m_Server->Start());
    Write({"write -P 9 10M 64k"});
    const std::string state = State();
    ASSERT_OK(BackUpChanges("changes", "late", "whole"));
    EXPECT_EQ((std::set<uint64_t>{80, 81, 96, 160}), OwnBlocks("changes")) << "zeros are nothing to warn of";
    EXPECT_SAME_BYTES(state, Restored("changes"));
    ASSERT_EQ(1U, m_Result.warnings.size());
    EXPECT_EQ(Uri() +
                  ": 2 blocks are neither in the base nor told by the bitmap late, and went into the set. If the "
                  "bitmap was begun after the base was made, other changes may be missing: compare with `diskstream "
                  "verify SET --against " +
                  Uri() + "`, or back the disk up whole",
              m_Result.warnings.front());
}

TEST_F(NbdBackups, AChainOfBackupsRestoresEachState) {
    ASSERT_OK(BackUpWhole("whole"));
    const std::string first = State();
    Write({"write -P 9 1M 64k"});
    const std::string second = State();
    ASSERT_OK(BackUpChanges("second", "monday", "whole"));
    Write({"write -P 10 5M 1M", "write -P 11 12M 64k"});
    const std::string third = State();
    ASSERT_OK(BackUpChanges("third", "monday", "second"));
    EXPECT_EQ(std::vector<std::string>{}, m_Result.warnings) << "what the oldest set has counts as the base's";
    EXPECT_SAME_BYTES(first, Restored("whole"));
    EXPECT_SAME_BYTES(second, Restored("second"));
    EXPECT_SAME_BYTES(third, Restored("third"));
    ASSERT_TRUE(Runs(Command("consolidate -q " + m_Dir.File("third") + " " + m_Dir.File("new"))));
    for (const char* const set : {"whole", "second", "third"})
        std::filesystem::remove(m_Dir.File(set));
    EXPECT_SAME_BYTES(third, Restored("new"));
}

TEST_F(NbdBackups, TheSetGoesBackIntoAnExport) {
    ASSERT_OK(BackUpWhole("whole"));
    const std::string before = State();
    Write({"write -P 9 0 16M"});
    RestoreOptions_t options;
    RestoreResult_t result;
    EXPECT_FAILS_SAYING(RestoreDisk(m_Dir.File("whole"), Uri(), options, result), Uri(), "--force");
    options.force = true;
    ASSERT_OK(RestoreDisk(m_Dir.File("whole"), Uri(), options, result));
    EXPECT_SAME_BYTES(before, State());
}

TEST_F(NbdBackups, ARestoreOverANewConnectionSaysWhatToCheck) {
    ServeLarge();
    const std::string state = State();
    ASSERT_OK(BackUpWhole("whole"));
    const std::string file = m_Dir.Write("target.raw", std::string(state.size(), 'o'));
    CNbdServer target({"qemu-nbd", "-t", "-k", "SOCKET", "-f", "raw", file});
    ASSERT_TRUE(target.Start());
    RestoreOptions_t options;
    options.force = true;
    bool isCut = false;
    options.progress = [&](const Progress_t& progress) {
        if (!isCut && progress.doneBytes != 0) {
            isCut = true;
            target.Kill();
            target.Start();
        }
        return true;
    };
    RestoreResult_t result;
    ASSERT_OK(RestoreDisk(m_Dir.File("whole"), target.Uri(), options, result));
    EXPECT_SAME_BYTES(state, m_Dir.Read("target.raw"));
    ASSERT_EQ(1U, result.warnings.size());
    EXPECT_NE(std::string::npos, result.warnings.front().find("restore once more")) << result.warnings.front();
}

TEST_F(NbdBackups, ARestoreThatEndsInTheMiddleSaysWhatTheExportHasNow) {
    ServeLarge();
    ASSERT_OK(BackUpWhole("whole"));
    RestoreOptions_t options;
    options.force = true;
    options.patience = std::chrono::seconds(1);
    RestoreResult_t result;
    bool isKilling = false;
    options.progress = [&](const Progress_t& /*progress*/) {
        if (isKilling)
            m_Server->Kill();
        return isKilling;
    };
    const std::string partOnly = Uri() + " has a part of the disk only, and no more what was there before";
    EXPECT_FAILS_SAYING(RestoreDisk(m_Dir.File("whole"), Uri(), options, result),
                        "The restore was cancelled; " + partOnly);
    isKilling = true;
    EXPECT_FAILS_SAYING(RestoreDisk(m_Dir.File("whole"), Uri(), options, result), "the connection was lost", partOnly);
}

TEST_F(NbdBackups, AnExportOfAnotherSizeIsNotRestoredTo) {
    ASSERT_OK(BackUpWhole("whole"));
    const std::string file = m_Dir.Write("small.raw", std::string(MiB, 'o'));
    CNbdServer small({"qemu-nbd", "-t", "-k", "SOCKET", "-f", "raw", file});
    ASSERT_TRUE(small.Start());
    RestoreOptions_t options;
    options.force = true;
    RestoreResult_t result;
    EXPECT_FAILS_SAYING(RestoreDisk(m_Dir.File("whole"), small.Uri(), options, result), small.Uri(), "1048576",
                        "16777216");
    EXPECT_EQ(std::string(MiB, 'o'), m_Dir.Read("small.raw"));
}

TEST_F(NbdBackups, AServerThatIsKilledIsAClearErrorAndLeavesNoSet) {
    BackupOptions_t options;
    options.image.patience = std::chrono::seconds(1);
    options.progress = [this](const Progress_t& /*progress*/) {
        m_Server->Kill();
        return true;
    };
    ServeLarge();
    const std::string uri = Uri();
    EXPECT_FAILS_SAYING(BackUpDisk(uri, m_Dir.File("set"), options, m_Result), uri, "the connection was lost",
                        "couldn't be made again in 1 s");
    EXPECT_EQ((std::vector<std::string>{"disk.qcow2"}), m_Dir.Entries());
}

TEST_F(NbdBackups, AConnectionThatIsCutAndComesBackLetsTheBackupGoOn) {
    ServeLarge();
    const std::string state = State();
    BackupOptions_t options;
    std::thread later;
    options.progress = [&](const Progress_t& /*progress*/) {
        if (!later.joinable()) {
            m_Server->Kill();
            later = std::thread([this] {
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
                m_Server->Start();
            });
        }
        return true;
    };
    const CZuError error = BackUpDisk(Uri(), m_Dir.File("set"), options, m_Result);
    later.join();
    ASSERT_OK(error);
    EXPECT_SAME_BYTES(state, Restored("set"));
}

TEST_F(NbdBackups, WhatDoesNotFitIsRefusedBeforeAnythingIsWritten) {
    ASSERT_OK(BackUpWhole("whole"));
    EXPECT_FAILS_SAYING(BackUpChanges("x", "friday", "whole"), Uri(), "no bitmap friday");
    EXPECT_FAILS_SAYING(BackUpChanges("x", "monday", "none"), m_Dir.File("none"));
    EXPECT_FAILS_SAYING(BackUpChanges("whole", "monday", "whole"), "is the base itself");
    ASSERT_OK(BackUp(WriteFlatDisk(m_Dir, {DiskContent(400)}), m_Dir.File("other")));
    EXPECT_FAILS_SAYING(BackUpChanges("x", "monday", "other"), m_Dir.File("other"), "can't be a base");
    BackupOptions_t options;
    options.image.changedSince = "monday";
    EXPECT_FAILS_SAYING(BackUpDisk(Uri(), m_Dir.File("x"), options, m_Result), "needs both");
    options.base = m_Dir.File("whole");
    EXPECT_FAILS_SAYING(BackUpDisk(WriteFlatDisk(m_Dir, {DiskContent(400)}), m_Dir.File("x"), options, m_Result),
                        "a server exports");
    EXPECT_FALSE(std::filesystem::exists(m_Dir.File("x")));
}

TEST_F(NbdBackups, ADiskThatGrewNeedsAWholeBackup) {
    ASSERT_OK(BackUpWhole("whole"));
    m_Server->Kill();
    ASSERT_TRUE(Runs("qemu-img bitmap --remove " + Quoted(Image()) + " monday"));
    ASSERT_TRUE(Runs("qemu-img resize -q -f qcow2 " + Quoted(Image()) + " 17M"));
    ASSERT_TRUE(Runs("qemu-img bitmap --add " + Quoted(Image()) + " monday"));
    m_Server.emplace(StorageDaemon(Image(), {"monday"}), "disk");
    ASSERT_TRUE(m_Server->Start());
    EXPECT_FAILS_SAYING(BackUpChanges("x", "monday", "whole"), "32768 sectors", "34816 now", "back it up whole");
}

TEST_F(NbdBackups, TheCommandTellsOfBasesAndFindsThem) {
    const std::string uri = Quoted(Uri());
    const std::string whole = m_Dir.File("whole.dset");
    const std::string changes = m_Dir.File("changes.dset");
    ASSERT_TRUE(Runs(Command("backup -q " + uri + " " + whole)));
    Write({"write -P 9 1M 64k"});
    const nlohmann::json backup =
        JsonFrom(Command("backup --json --changed-since monday --base " + whole + " " + uri + " " + changes));
    EXPECT_EQ(1, backup.value("blocks", 0));
    EXPECT_EQ(80, backup.value("unchanged_blocks", 0));
    EXPECT_EQ("nbd", backup.value("type", ""));
    const nlohmann::json list = JsonFrom(Command("list --json " + changes));
    EXPECT_EQ("whole.dset", list["base"].value("set", ""));
    EXPECT_EQ("monday", list["base"].value("changed_since", ""));
    EXPECT_EQ(JsonFrom(Command("list --json " + whole)).value("identity", "?"), list["base"].value("identity", ""));

    std::filesystem::create_directory(m_Dir.File("older"));
    std::filesystem::rename(whole, m_Dir.File("older/whole.dset"));
    std::string output;
    EXPECT_FALSE(RunProgram(Command("verify " + changes), &output));
    EXPECT_NE(std::string::npos, output.find("builds on the set whole.dset")) << output;
    EXPECT_TRUE(Runs(Command("verify -q --base " + m_Dir.File("older") + " " + changes)));
    EXPECT_TRUE(
        Runs(Command("verify -q --base " + m_Dir.File("older/whole.dset") + " --against " + uri + " " + changes)));
    EXPECT_TRUE(
        Runs(Command("consolidate -q --base " + m_Dir.File("older") + " " + changes + " " + m_Dir.File("new"))));
    EXPECT_EQ(2, JsonFrom(Command("consolidate --json -f --base " + m_Dir.File("older") + " " + changes + " " +
                                  m_Dir.File("new")))
                     .value("sets", 0));
    EXPECT_TRUE(Runs(Command("verify -q " + m_Dir.File("new") + " --against " + uri)));
    EXPECT_EQ("nbd", JsonFrom(Command("info --json " + uri)).value("type", ""));
}

// Partitions, volumes and files are seen through the server, too.
TEST_F(NbdBackups, FilesOfABackupOfChangesAreReadThroughItsBase) {
    SKIP_WITHOUT_PROGRAM("mkntfs");
    SKIP_WITHOUT_PROGRAM("ntfscp");
    const std::string raw = m_Dir.WriteHole("ntfs.raw", 16 * MiB);
    const std::string first = m_Dir.Write("first.txt", DiskContent(300, 1));
    const std::string second = m_Dir.Write("second.txt", DiskContent(200, 2));
    ASSERT_TRUE(
        Runs("mkntfs -q -F " + Quoted(raw) + " && ntfscp -q " + Quoted(raw) + " " + Quoted(first) + " /first.txt"));
    const std::string image = m_Dir.File("ntfs.qcow2");
    ASSERT_TRUE(Runs("qemu-img convert -f raw -O qcow2 " + Quoted(raw) + " " + Quoted(image) +
                     " && qemu-img bitmap --add " + Quoted(image) + " b"));
    m_Server.emplace(std::vector<std::string>{"qemu-nbd", "-r", "-t", "-k", "SOCKET", "-f", "qcow2", image});
    ASSERT_TRUE(m_Server->Start());
    ASSERT_TRUE(Runs(Command("backup -q --catalog " + Quoted(Uri()) + " " + m_Dir.File("whole"))))
        << "over one connection at a time";
    m_Server.emplace(StorageDaemon(image, {"b"}), "disk");
    ASSERT_TRUE(m_Server->Start());
    const std::string uri = Quoted(Uri());
    ASSERT_TRUE(Runs("ntfscp -q " + Quoted(raw) + " " + Quoted(second) +
                     " /second.txt && qemu-img convert -n -f raw -O raw " + Quoted(raw) + " " + uri));
    ASSERT_TRUE(Runs(Command("backup -q --catalog --changed-since b --base " + m_Dir.File("whole") + " " + uri + " " +
                             m_Dir.File("changes"))));
    m_Server->Kill();
    std::string output;
    ASSERT_TRUE(RunProgram(Command("ls " + m_Dir.File("changes")), &output)) << output;
    EXPECT_NE(std::string::npos, output.find("second.txt")) << output;
    ASSERT_TRUE(Runs(Command("cat " + m_Dir.File("changes") + " /first.txt") + " > " + m_Dir.File("out")));
    EXPECT_SAME_BYTES(m_Dir.Read("first.txt"), m_Dir.Read("out"));
    ASSERT_TRUE(Runs(Command("cat " + m_Dir.File("changes") + " /second.txt") + " > " + m_Dir.File("out")));
    EXPECT_SAME_BYTES(m_Dir.Read("second.txt"), m_Dir.Read("out"));
}

}  // namespace
