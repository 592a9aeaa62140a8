#include "tests/support/posix/ChildProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "tests/support/TempDir.h"

namespace {

constexpr const char* ChildMark = "DISKSTREAM_TEST_CHILD";

bool BeginsWith(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

std::vector<std::string> EnvironmentOfChild(const std::map<std::string, std::string>& added) {
    std::vector<std::string> variables{std::string(ChildMark) + "=1"};
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string_view text = *variable;
        const std::string name(text.substr(0, text.find('=')));
        if (!BeginsWith(name, "DISKSTREAM_") && !BeginsWith(name, "GTEST_") && added.count(name) == 0)
            variables.emplace_back(text);
    }
    for (const auto& [name, value] : added)
        variables.push_back(name + "=" + value);
    return variables;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::string NameOfThisTest() {
    const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
    return std::string(test->test_suite_name()) + "." + test->name();
}

// Starts this program again with its outputs sent to the two files; -1 when that fails.
pid_t Start(std::vector<std::string> arguments, std::vector<std::string> environment, const std::string& output,
            const std::string& errorOutput) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorOutput.c_str(), O_WRONLY | O_CREAT, 0600);
    pid_t child = -1;
    const int error = posix_spawn(&child, "/proc/self/exe", &actions, nullptr, Pointers(arguments).data(),
                                  Pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    EXPECT_EQ(error, 0);
    return error == 0 ? child : -1;
}

bool EndedWell(pid_t child) {
    int status = 0;
    pid_t waited = waitpid(child, &status, 0);
    while (waited < 0 && errno == EINTR)
        waited = waitpid(child, &status, 0);
    return waited == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

bool InChildProcess() {
    return std::getenv(ChildMark) != nullptr;
}

ChildOutcome_t RunThisTestInChild(const std::map<std::string, std::string>& environment) {
    const CTempDir dir;
    const std::string output = dir.Write("output", {});
    const std::string errorOutput = dir.Write("errors", {});
    const pid_t child = Start({"core_tests", "--gtest_filter=" + NameOfThisTest(), "--gtest_color=no"},
                              EnvironmentOfChild(environment), output, errorOutput);
    if (child < 0)
        return {false, "", ""};
    const bool endedWell = EndedWell(child);
    ChildOutcome_t outcome{endedWell, ReadFileBytes(output), ReadFileBytes(errorOutput)};
    // A filter that matches nothing ends well too.
    if (outcome.output.find("[  PASSED  ] 1 test.") == std::string::npos)
        outcome.passed = false;
    return outcome;
}
