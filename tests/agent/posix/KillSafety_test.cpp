#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"

// A process that is killed at any moment leaves the old state or the new one under the final name.

namespace {

using Milliseconds_t = std::chrono::duration<double, std::milli>;

// Runs `work` in a child and kills it after `life`. Returns whether it got to its end.
bool EndsWithin(Milliseconds_t life, const std::function<CZuError()>& work) {
    const pid_t child = fork();
    if (child == 0)
        _exit(work().IsErrorSet() ? 1 : 0);
    std::this_thread::sleep_for(life);
    kill(child, SIGKILL);
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0) << status;
    return WIFEXITED(status);
}

// How long `work` takes in a child that nobody kills.
Milliseconds_t TimeOf(const std::function<CZuError()>& work) {
    const auto begin = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0)
        _exit(work().IsErrorSet() ? 1 : 0);
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    return std::chrono::steady_clock::now() - begin;
}

class KillSafety : public testing::Test {
protected:
    static constexpr int Kills = 16;

    KillSafety() : m_Content(PatternedBytes(6 << 20)), m_Disk(WriteFlatDisk(m_Disks, {m_Content})) {}

    // A set is the whole new disk, proved and compared.
    void ExpectWholeSet(const std::string& set) const {
        std::vector<std::string> differences;
        ASSERT_OK(VerifyAgainst(set, m_Disk, differences));
        EXPECT_EQ(std::vector<std::string>{}, differences);
    }

    // Kills `work` at moments spread over its time and a little beyond; `check(ended)` sees each outcome.
    void KillAtManyMoments(const std::function<CZuError()>& work, const std::function<void(bool)>& check) const {
        const Milliseconds_t whole = TimeOf(work);
        check(true);
        int ended = 0;
        for (int kill = 0; kill < Kills; ++kill) {
            SCOPED_TRACE(testing::Message() << "kill " << kill);
            const bool hasEnded = EndsWithin(whole * 1.2 * kill / Kills, work);
            ended += hasEnded ? 1 : 0;
            check(hasEnded);
        }
        EXPECT_LT(ended, Kills) << "no kill came in time";
    }

    CTempDir m_Disks;
    CTempDir m_Dir;
    const std::string m_Content;
    const std::string m_Disk;
};

TEST_F(KillSafety, ANewSetIsWholeOrNotThere) {
    const std::string set = m_Dir.File("set");
    KillAtManyMoments([&] { return BackUp(m_Disk, set); },
                      [&](bool hasEnded) {
                          EXPECT_TRUE(!hasEnded || std::filesystem::exists(set));
                          if (std::filesystem::exists(set))
                              ExpectWholeSet(set);
                          std::filesystem::remove(set);
                      });
}

TEST_F(KillSafety, ASetThatIsReplacedIsTheOldOneOrTheNew) {
    const std::string set = m_Dir.File("set");
    const CTempDir others;
    ASSERT_OK(BackUp(WriteFlatDisk(others, {DiskContent(300)}), others.File("old")));
    const std::string old = others.Read("old");
    m_Dir.Write("set", old);
    KillAtManyMoments([&] { return BackUp(m_Disk, set, true); },
                      [&](bool hasEnded) {
                          if (hasEnded || m_Dir.Read("set") != old)
                              ExpectWholeSet(set);
                          m_Dir.Write("set", old);
                      });
}

TEST_F(KillSafety, ARestoredFileIsWholeOrNotThere) {
    ASSERT_OK(BackUp(m_Disk, m_Dir.File("set")));
    const std::string raw = m_Dir.File("raw");
    KillAtManyMoments([&] { return RestoreRaw(m_Dir.File("set"), raw); },
                      [&](bool hasEnded) {
                          EXPECT_TRUE(!hasEnded || std::filesystem::exists(raw));
                          if (std::filesystem::exists(raw)) {
                              EXPECT_SAME_BYTES(m_Content, m_Dir.Read("raw"));
                          }
                          std::filesystem::remove(raw);
                      });
}

TEST_F(KillSafety, ADescriptorNeverStandsThereWithoutItsExtents) {
    ASSERT_OK(BackUp(m_Disk, m_Dir.File("set")));
    const std::string target = m_Dir.File("target");
    std::filesystem::create_directory(target);
    KillAtManyMoments([&] { return Restore(m_Dir.File("set"), target); },
                      [&](bool hasEnded) {
                          const bool isThere = std::filesystem::exists(target + "/disk.vmdk");
                          EXPECT_TRUE(!hasEnded || isThere);
                          if (isThere || std::filesystem::exists(target + "/disk-flat.vmdk")) {
                              EXPECT_SAME_BYTES(m_Content, ReadFileBytes(target + "/disk-flat.vmdk"));
                          }
                          if (isThere) {
                              EXPECT_SAME_BYTES(m_Disks.Read("disk.vmdk"), ReadFileBytes(target + "/disk.vmdk"));
                          }
                          std::filesystem::remove_all(target);
                          std::filesystem::create_directory(target);
                      });
}

}  // namespace
