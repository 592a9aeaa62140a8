#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/TempDir.h"

// Runs the built `diskstream` as its users do: as a process, in a directory.

struct CommandOutcome_t {
    int exitCode = -1;  // -1 when a signal ended it
    int signal = 0;     // that ended it
    std::string output;
    std::string errorOutput;
};

// Where the command's outputs go instead of being kept, as file descriptors of this process.
struct CommandOutputs_t {
    int output = -1;
    int errorOutput = -1;
};

// A command on its way. One that the test doesn't wait for, or that doesn't end, is killed.
class CRunningCommand {
public:
    // Signals of `ignored` are ignored when the command begins.
    CRunningCommand(const std::vector<std::string>& arguments, const std::string& directory,
                    CommandOutputs_t outputs = {}, const std::vector<int>& ignored = {});
    CRunningCommand(const CRunningCommand&) = delete;
    CRunningCommand& operator=(const CRunningCommand&) = delete;
    ~CRunningCommand();

    // Waits until the command has a handler for the signal, or has none any more. False when it
    // ends before, or never comes that far.
    [[nodiscard]] bool WaitUntilCaught(int signal) const { return WaitForHandler(signal, true); }
    [[nodiscard]] bool WaitUntilUncaught(int signal) const { return WaitForHandler(signal, false); }

    void Send(int signal) const;

    // Waits for the end. One that takes too long is killed and fails the test.
    CommandOutcome_t Wait();

private:
    bool WaitForHandler(int signal, bool isCaught) const;

    CTempDir m_Kept;  // what it prints
    pid_t m_Process = -1;
};

// From start to end.
CommandOutcome_t RunCommand(const std::vector<std::string>& arguments, const std::string& directory,
                            CommandOutputs_t outputs = {});
