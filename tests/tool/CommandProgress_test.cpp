#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "tests/tool/CommandFixture.h"

namespace {

using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;

// Both ends of a terminal: what is written to its line arrives at the test.
class CTerminal {
public:
    CTerminal() : m_Screen(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        EXPECT_EQ(grantpt(m_Screen), 0);
        EXPECT_EQ(unlockpt(m_Screen), 0);
        m_Line = open(ptsname(m_Screen), O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_GE(m_Line, 0);
    }
    CTerminal(const CTerminal&) = delete;
    CTerminal& operator=(const CTerminal&) = delete;
    ~CTerminal() {
        close(m_Screen);
        close(m_Line);
    }

    int Line() const { return m_Line; }

    // What has arrived, waiting for the first of it at most that long.
    std::string Read(int milliseconds) const {
        std::string text;
        pollfd waiting{m_Screen, POLLIN, 0};
        while (poll(&waiting, 1, text.empty() ? milliseconds : 0) > 0) {
            char bytes[4096];
            const ssize_t got = read(m_Screen, bytes, sizeof(bytes));
            if (got <= 0)
                break;
            text.append(bytes, static_cast<size_t>(got));
        }
        return text;
    }

private:
    int m_Screen;
    int m_Line = -1;
};

constexpr int LongEnough = 60000;  // milliseconds
constexpr int NoWait = 0;

class CommandProgress : public CCommandFixture {
protected:
    // So large that reading it takes many times as long as the first line takes to come. Only the
    // first moments are waited for.
    void MakeEndless() const { m_Dir.WriteHole("endless", uint64_t{1} << 38U); }

    // Runs the command to its end, with a pause in its work that is longer than the time between
    // two lines, however fast the machine is.
    CommandOutcome_t RunSlowly(const std::vector<std::string>& arguments, CommandOutputs_t outputs) const {
        CRunningCommand command(arguments, m_Dir.Path(), outputs);
        EXPECT_TRUE(command.WaitUntilCaught(SIGINT));
        command.Send(SIGSTOP);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        command.Send(SIGCONT);
        return command.Wait();
    }

    // What a terminal shows of the command, from its start to its end.
    std::string Shown(const std::vector<std::string>& arguments) const {
        const CTerminal terminal;
        EXPECT_EQ(RunSlowly(arguments, {-1, terminal.Line()}).exitCode, 0);
        return terminal.Read(NoWait);
    }
};

TEST_F(CommandProgress, ATerminalShowsHowFarItIsAndIsLeftClean) {
    MakeEndless();
    const CTerminal terminal;
    CRunningCommand command({"backup", "endless", "x.dset", "--type", "monolithicFlat"}, m_Dir.Path(),
                            {-1, terminal.Line()});
    EXPECT_THAT(terminal.Read(LongEnough),
                ContainsRegex("^\rBacking up [0-9.]+ [KMG]iB of 256.0 GiB \\([0-9]+%\\), [0-9.]+ [KMGT]?i?B/s, "
                              "[0-9]+:[0-9][0-9] (min|h) left\x1B\\[K"));
    command.Send(SIGINT);
    const CommandOutcome_t outcome = command.Wait();
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(terminal.Read(NoWait),
                EndsWith("\r\x1B[Kdiskstream: The backup was cancelled; nothing was written\r\n"));
}

TEST_F(CommandProgress, EachLongCommandSaysWhatItDoes) {
    MakeLong();
    EXPECT_THAT(Shown({"backup", "long.vmdk", "long.dset"}), HasSubstr("\rBacking up "));
    EXPECT_THAT(Shown({"verify", "long.dset"}), HasSubstr("\rVerifying "));
    EXPECT_THAT(Shown({"restore", "long.dset", "long.raw", "--as", "raw"}), HasSubstr("\rRestoring "));
}

TEST_F(CommandProgress, NothingIsShownWhereNobodyLooks) {
    MakeLong();
    std::vector<std::string> words{"backup", "long.vmdk", "long.dset", "--force"};
    EXPECT_SUCCEEDS(RunSlowly(words, {}));
    words.emplace_back();
    for (const std::string option : {"--quiet", "--json"}) {
        words.back() = option;
        EXPECT_EQ(Shown(words), "") << option;
    }
}

}  // namespace
