#include "agent/detail/StagedFile.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/TempDir.h"

namespace {

using Names_t = std::vector<std::string>;

class StagedFile : public testing::Test {
protected:
    CTempDir m_Dir;
};

TEST_F(StagedFile, StandsUnderItsNameOnlyAfterCommit) {
    CStagedFile file;
    ASSERT_OK(file.Begin(m_Dir.File("set"), false));
    EXPECT_EQ(Names_t{}, m_Dir.Entries());
    WriteFileBytes(file.TemporaryName(), "bytes");
    EXPECT_FALSE(std::filesystem::exists(m_Dir.File("set")));
    ASSERT_OK(file.Commit());
    EXPECT_EQ(Names_t{"set"}, m_Dir.Entries());
    EXPECT_EQ("bytes", m_Dir.Read("set"));
}

TEST_F(StagedFile, LeavesNothingWithoutCommit) {
    {
        CStagedFile file;
        ASSERT_OK(file.Begin(m_Dir.File("set"), false));
        WriteFileBytes(file.TemporaryName(), "bytes");
        EXPECT_EQ(1U, m_Dir.Entries().size());
    }
    EXPECT_EQ(Names_t{}, m_Dir.Entries());
}

TEST_F(StagedFile, LeavesWhatStoodThereWithoutCommit) {
    m_Dir.Write("set", "old");
    {
        CStagedFile file;
        ASSERT_OK(file.Begin(m_Dir.File("set"), true));
        WriteFileBytes(file.TemporaryName(), "new");
        EXPECT_EQ("old", m_Dir.Read("set"));
    }
    EXPECT_EQ("old", m_Dir.Read("set"));
    EXPECT_EQ(Names_t{"set"}, m_Dir.Entries());
}

TEST_F(StagedFile, ReplacesWhereItMay) {
    m_Dir.Write("set", "old and longer");
    CStagedFile file;
    ASSERT_OK(file.Begin(m_Dir.File("set"), true));
    WriteFileBytes(file.TemporaryName(), "new");
    ASSERT_OK(file.Commit());
    EXPECT_EQ("new", m_Dir.Read("set"));
    EXPECT_EQ(Names_t{"set"}, m_Dir.Entries());
}

TEST_F(StagedFile, RefusesWhatExists) {
    m_Dir.Write("set", "old");
    CStagedFile file;
    EXPECT_FAILS_SAYING(file.Begin(m_Dir.File("set"), false), m_Dir.File("set"), "exists already", "--force");
    EXPECT_EQ("old", m_Dir.Read("set"));
}

TEST_F(StagedFile, DoesNotReplaceWhatCameWhileItWasWritten) {
    CStagedFile file;
    ASSERT_OK(file.Begin(m_Dir.File("set"), false));
    WriteFileBytes(file.TemporaryName(), "mine");
    m_Dir.Write("set", "another's");
    EXPECT_FAILS_SAYING(file.Commit(), m_Dir.File("set"), "exists");
    EXPECT_EQ("another's", m_Dir.Read("set"));
}

TEST_F(StagedFile, RefusesADirectoryAsItsTarget) {
    std::filesystem::create_directory(m_Dir.File("set"));
    CStagedFile file;
    EXPECT_FAILS_SAYING(file.Begin(m_Dir.File("set"), false), "no regular file");
    EXPECT_FAILS_SAYING(file.Begin(m_Dir.File("set"), true), "no regular file");
}

TEST_F(StagedFile, RefusesANameThatNamesNoFile) {
    CStagedFile file;
    EXPECT_FAILS_SAYING(file.Begin(m_Dir.Path() + "/", false), "no name for a file");
    EXPECT_FAILS_SAYING(file.Begin(m_Dir.File("missing") + "/set", false), "directory doesn't exist");
    EXPECT_FAILS_SAYING(file.Begin(m_Dir.Write("plain", "x") + "/set", false), "directory doesn't exist");
    EXPECT_FAILS_SAYING(file.Begin("", false), "no name for a file");
}

TEST_F(StagedFile, TakesTheLongestNameThatAFileMayHave) {
    const std::string name(255, 'n');
    CStagedFile file;
    ASSERT_OK(file.Begin(m_Dir.File(name), false));
    WriteFileBytes(file.TemporaryName(), "bytes");
    ASSERT_OK(file.Commit());
    EXPECT_EQ(Names_t{name}, m_Dir.Entries());
}

TEST_F(StagedFile, RefusesALongerNameBeforeAnythingIsWritten) {
    CStagedFile file;
    EXPECT_FAILS_SAYING(file.Begin(m_Dir.File(std::string(256, 'n')), false), "nnn: File name too long");
}

TEST_F(StagedFile, TwoForOneTargetHaveNamesOfTheirOwn) {
    CStagedFile first;
    CStagedFile second;
    ASSERT_OK(first.Begin(m_Dir.File("set"), true));
    ASSERT_OK(second.Begin(m_Dir.File("set"), true));
    EXPECT_NE(first.TemporaryName(), second.TemporaryName());
}

// Process numbers come again, after a restart or in each container. The bytes of a process that was
// killed are neither taken for ours nor in our way.
TEST_F(StagedFile, PassesOverWhatAKilledProcessOfTheSameNumberLeft) {
    std::string before;
    {
        CStagedFile file;
        ASSERT_OK(file.Begin(m_Dir.File("set"), false));
        before = file.TemporaryName();
    }
    // The counter is the number behind the last hyphen; the next ones are taken.
    const size_t hyphen = before.rfind('-');
    const unsigned long counter = std::stoul(before.substr(hyphen + 1));
    const std::string end = before.substr(before.find('.', hyphen));
    for (unsigned long next = counter + 1; next < counter + 4; ++next)
        WriteFileBytes(before.substr(0, hyphen + 1) + std::to_string(next) + end, "left over");

    CStagedFile file;
    ASSERT_OK(file.Begin(m_Dir.File("set"), false));
    EXPECT_FALSE(std::filesystem::exists(file.TemporaryName()));
}

TEST_F(StagedFile, MovesWithWhatItHasToRemove) {
    std::vector<CStagedFile> files;
    for (const char* name : {"a", "b", "c", "d", "e"}) {
        ASSERT_OK(files.emplace_back().Begin(m_Dir.File(name), false));
        WriteFileBytes(files.back().TemporaryName(), name);
    }
    EXPECT_EQ(5U, m_Dir.Entries().size());
    ASSERT_OK(files[1].Commit());
    EXPECT_EQ("b", m_Dir.Read("b"));
    files.clear();
    EXPECT_EQ(Names_t{"b"}, m_Dir.Entries());
}

TEST_F(StagedFile, SetsTheSizeOfWhatWasWritten) {
    const struct {
        uint64_t size;
        std::string bytes;
    } rows[] = {{0, ""}, {3, "abc"}, {6, "abcdef"}, {8, std::string("abcdef\0\0", 8)}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.size);
        CStagedFile file;
        ASSERT_OK(file.Begin(m_Dir.File("set"), true));
        WriteFileBytes(file.TemporaryName(), "abcdef");
        ASSERT_OK(file.SetSize(row.size));
        ASSERT_OK(file.Commit());
        EXPECT_EQ(row.bytes, m_Dir.Read("set"));
    }
}

TEST_F(StagedFile, CommitOfWhatWasNeverWrittenFails) {
    CStagedFile file;
    ASSERT_OK(file.Begin(m_Dir.File("set"), false));
    EXPECT_FAILS_SAYING(file.Commit(), m_Dir.File("set"), "No such file");
    EXPECT_EQ(Names_t{}, m_Dir.Entries());
}

// The system tells of some writes that failed only when the file is synced or closed.
TEST_F(StagedFile, AWriteThatFailedLateKeepsTheOldFile) {
    m_Dir.Write("set", "old");
    for (const FaultOp op : {FaultOp::Open, FaultOp::Sync, FaultOp::Close}) {
        SCOPED_TRACE(int(op));
        CStagedFile file;
        ASSERT_OK(file.Begin(m_Dir.File("set"), true));
        WriteFileBytes(file.TemporaryName(), "new");
        CFaultyFiles faulty(Fault_t{op, 0, EIO});
        EXPECT_FAILS_SAYING(file.Commit(), m_Dir.File("set"), "Input/output error");
        EXPECT_TRUE(faulty.Fired());
        EXPECT_EQ("old", m_Dir.Read("set"));
    }
    EXPECT_EQ(Names_t{"set"}, m_Dir.Entries());
}

}  // namespace
