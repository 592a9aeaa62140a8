#include "tests/tool/RunCommand.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <thread>

namespace {

using Clock_t = std::chrono::steady_clock;

constexpr std::chrono::seconds LongestRun{120};
constexpr std::chrono::milliseconds BetweenLooks{1};
constexpr int CouldNotStart = 127;

// Asks `isSo` again and again until it is so, or until nothing more is to be hoped for.
template <typename Question> bool WaitUntil(const Question& isSo) {
    const Clock_t::time_point end = Clock_t::now() + LongestRun;
    while (!isSo()) {
        if (Clock_t::now() > end)
            return false;
        std::this_thread::sleep_for(BetweenLooks);
    }
    return true;
}

// In the new process, where only the calls that POSIX allows between fork and exec are made.
[[noreturn]] void Become(const std::vector<char*>& arguments, const std::string& directory, int output, int errorOutput,
                         const std::vector<int>& ignored) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
        std::signal(signal, SIG_DFL);
    for (const int signal : ignored)
        std::signal(signal, SIG_IGN);
    const bool isReady = output >= 0 && errorOutput >= 0 && chdir(directory.c_str()) == 0 &&
                         dup2(output, STDOUT_FILENO) >= 0 && dup2(errorOutput, STDERR_FILENO) >= 0;
    if (isReady)
        execv(arguments.front(), arguments.data());
    _exit(CouldNotStart);
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

// The line `name` of what the system tells of a process: a set of signals in hexadecimal, the first
// signal in the lowest bit.
uint64_t SignalsOf(pid_t process, const std::string& name) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(name + ":", 0) == 0)
            return std::stoull(line.substr(name.size() + 1), nullptr, 16);
    }
    return 0;
}

// Gone, or ended and not yet waited for.
bool HasEnded(pid_t process) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid != 0;
}

}  // namespace

CRunningCommand::CRunningCommand(const std::vector<std::string>& arguments, const std::string& directory,
                                 CommandOutputs_t outputs, const std::vector<int>& ignored) {
    const int output = open(m_Kept.Write("output", {}).c_str(), O_WRONLY | O_CLOEXEC);
    const int errorOutput = open(m_Kept.Write("errors", {}).c_str(), O_WRONLY | O_CLOEXEC);
    std::vector<std::string> words{DISKSTREAM_COMMAND};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const std::vector<char*> pointers = Pointers(words);
    m_Process = fork();
    if (m_Process == 0)
        Become(pointers, directory, outputs.output >= 0 ? outputs.output : output,
               outputs.errorOutput >= 0 ? outputs.errorOutput : errorOutput, ignored);
    EXPECT_GT(m_Process, 0);
    close(output);
    close(errorOutput);
}

CRunningCommand::~CRunningCommand() {
    if (m_Process <= 0)
        return;
    kill(m_Process, SIGKILL);
    waitpid(m_Process, nullptr, 0);
}

bool CRunningCommand::WaitForHandler(int signal, bool isCaught) const {
    const auto isSo = [&] {
        const uint64_t caught = SignalsOf(m_Process, "SigCgt");
        return ((caught >> (signal - 1)) & 1U) == (isCaught ? 1U : 0U);
    };
    return WaitUntil([&] { return isSo() || HasEnded(m_Process); }) && !HasEnded(m_Process);
}

void CRunningCommand::Send(int signal) const {
    EXPECT_EQ(kill(m_Process, signal), 0);
}

CommandOutcome_t CRunningCommand::Wait() {
    const bool hasEnded = WaitUntil([&] { return HasEnded(m_Process); });
    EXPECT_TRUE(hasEnded) << "the command doesn't end";
    if (!hasEnded)
        kill(m_Process, SIGKILL);
    int status = 0;
    EXPECT_EQ(waitpid(m_Process, &status, 0), m_Process);
    m_Process = -1;
    CommandOutcome_t outcome;
    if (WIFEXITED(status))
        outcome.exitCode = WEXITSTATUS(status);
    else
        outcome.signal = WTERMSIG(status);
    EXPECT_NE(outcome.exitCode, CouldNotStart) << DISKSTREAM_COMMAND << " doesn't start";
    outcome.output = m_Kept.Read("output");
    outcome.errorOutput = m_Kept.Read("errors");
    return outcome;
}

CommandOutcome_t RunCommand(const std::vector<std::string>& arguments, const std::string& directory,
                            CommandOutputs_t outputs) {
    return CRunningCommand(arguments, directory, outputs).Wait();
}
