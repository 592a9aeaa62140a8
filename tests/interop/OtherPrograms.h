#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/TempDir.h"

// Programs of others, run for comparison.

constexpr uint64_t MiB = uint64_t{1} << 20U;

// Runs `command` in the shell; `output` becomes what it printed, errors included. False when it fails.
inline bool RunProgram(const std::string& command, std::string* output = nullptr) {
    const CTempDir dir;
    const int result = std::system(("( " + command + " ) > '" + dir.File("output") + "' 2>&1").c_str());
    if (output != nullptr)
        *output = dir.Read("output");
    return result == 0;
}

inline testing::AssertionResult Runs(const std::string& command) {
    std::string output;
    return RunProgram(command, &output) ? testing::AssertionSuccess()
                                        : testing::AssertionFailure() << command << ": " << output;
}

// For the shell.
inline std::string Quoted(const std::string& text) {
    return "'" + text + "'";
}

inline bool HasProgram(const std::string& name) {
    return RunProgram("command -v " + name);
}

#define SKIP_WITHOUT_PROGRAM(name) \
    if (!HasProgram(name))         \
    GTEST_SKIP() << (name) << " isn't installed"

// The first word that `command` prints.
inline std::string FirstWordOf(const std::string& command) {
    std::string output;
    EXPECT_TRUE(RunProgram(command, &output)) << command << ": " << output;
    return output.substr(0, output.find_first_of(" \n"));
}

// Bytes of a file; question marks where it has none.
inline std::string FileContent(const std::string& path, uint64_t offset, uint64_t bytes) {
    std::string content(bytes, '?');
    std::ifstream(path, std::ios::binary)
        .seekg(static_cast<std::streamoff>(offset))
        .read(content.data(), static_cast<std::streamsize>(bytes));
    return content;
}

inline std::string FileContent(const std::string& path) {
    return FileContent(path, 0, std::filesystem::file_size(path));
}

// Both directories hold the same names and bytes.
inline testing::AssertionResult HoldSameFiles(const std::string& left, const std::string& right) {
    return Runs("diff -rq '" + left + "' '" + right + "'");
}
