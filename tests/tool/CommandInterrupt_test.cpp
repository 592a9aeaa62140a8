#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "tests/tool/CommandFixture.h"

namespace {

class CommandInterrupt : public CCommandFixture {
protected:
    void SetUp() override {
        MakeLong();
        ASSERT_EQ(Run({"backup", "-q", "long.vmdk", "long.dset"}).exitCode, 0);
        m_Before = m_Dir.Entries();
    }

    CommandOutcome_t RunInterrupted(const std::vector<std::string>& arguments, int signal) const {
        CRunningCommand command(arguments, m_Dir.Path());
        EXPECT_TRUE(command.WaitUntilCaught(signal));
        command.Send(signal);
        return command.Wait();
    }

    std::vector<std::string> m_Before;
};

TEST_F(CommandInterrupt, EndsALongCommandWithOneAndLeavesNothingBehind) {
    const struct {
        std::vector<std::string> arguments;
        const char* words;
    } rows[] = {
        {{"backup", "long.vmdk", "new.dset"}, "The backup was cancelled; nothing was written"},
        {{"restore", "long.dset", "new.vmdk"}, "The restore was cancelled; nothing was left at the target"},
        {{"restore", "--as", "raw", "long.dset", "new.raw"}, "The restore was cancelled; nothing was left"},
        {{"verify", "long.dset"}, "The verification was cancelled"},
    };
    for (const auto& row : rows) {
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
            SCOPED_TRACE(testing::PrintToString(row.arguments) + " " + std::to_string(signal));
            EXPECT_FAILS_WITH(RunInterrupted(row.arguments, signal), 1, row.words);
            EXPECT_EQ(m_Dir.Entries(), m_Before);
        }
    }
}

TEST_F(CommandInterrupt, LeavesTheSetThatItWouldHaveReplaced) {
    const std::string set = m_Dir.Read("long.dset");
    EXPECT_FAILS_WITH(RunInterrupted({"backup", "--force", "long.vmdk", "long.dset"}, SIGINT), 1, "cancelled");
    EXPECT_EQ(m_Dir.Entries(), m_Before);
    EXPECT_TRUE(set == m_Dir.Read("long.dset"));
}

TEST_F(CommandInterrupt, IsAnObjectWhereOneWasAskedFor) {
    const CommandOutcome_t outcome = RunInterrupted({"verify", "long.dset", "--json"}, SIGTERM);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(nlohmann::json::parse(outcome.output), nlohmann::json({{"error", "The verification was cancelled"}}));
}

// The command can't say that it was cancelled, since nobody reads what it says, and so doesn't end
// by itself.
TEST_F(CommandInterrupt, EndsTheCommandAtOnceTheSecondTime) {
    for (const int second : {SIGINT, SIGTERM, SIGHUP}) {
        SCOPED_TRACE(second);
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        ASSERT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
        while (write(ends[1], "full", 1) == 1)
            continue;
        ASSERT_EQ(fcntl(ends[1], F_SETFL, 0), 0);

        CRunningCommand command({"verify", "long.dset"}, m_Dir.Path(), {-1, ends[1]});
        EXPECT_TRUE(command.WaitUntilCaught(SIGINT));
        command.Send(SIGINT);
        EXPECT_TRUE(command.WaitUntilUncaught(second));
        command.Send(second);
        EXPECT_EQ(command.Wait().signal, second);
        close(ends[0]);
        close(ends[1]);
    }
}

TEST_F(CommandInterrupt, StaysIgnoredWhereTheStarterIgnoresIt) {
    CRunningCommand command({"verify", "long.dset"}, m_Dir.Path(), {}, {SIGHUP});
    EXPECT_TRUE(command.WaitUntilCaught(SIGTERM));
    command.Send(SIGHUP);
    EXPECT_SUCCEEDS(command.Wait());
}

}  // namespace
