#include "agent/detail/StagedDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/TempDir.h"

namespace {

using Names_t = std::vector<std::string>;

class StagedDirectory : public testing::Test {
protected:
    // Everything in the test's directory that lies below the directory's temporary name.
    static void Fill(const CStagedDirectory& directory) {
        std::filesystem::create_directory(directory.TemporaryName() + "/deep");
        WriteFileBytes(directory.TemporaryName() + "/deep/file", "bytes");
    }

    CTempDir m_Dir;
};

TEST_F(StagedDirectory, StandsUnderItsNameOnlyAfterCommit) {
    CStagedDirectory directory;
    ASSERT_OK(directory.Begin(m_Dir.File("tree")));
    Fill(directory);
    EXPECT_FALSE(std::filesystem::exists(m_Dir.File("tree")));
    ASSERT_OK(directory.Commit());
    EXPECT_EQ(Names_t{"tree"}, m_Dir.Entries());
    EXPECT_EQ("bytes", m_Dir.Read("tree/deep/file"));
}

TEST_F(StagedDirectory, LiesBesideItsTarget) {
    CStagedDirectory directory;
    ASSERT_OK(directory.Begin(m_Dir.File("tree")));
    EXPECT_EQ(m_Dir.Path(), std::filesystem::path(directory.TemporaryName()).parent_path().string());
    EXPECT_TRUE(std::filesystem::is_directory(directory.TemporaryName()));
}

TEST_F(StagedDirectory, LeavesNothingWithoutCommit) {
    {
        CStagedDirectory directory;
        ASSERT_OK(directory.Begin(m_Dir.File("tree")));
        Fill(directory);
        EXPECT_EQ(1U, m_Dir.Entries().size());
    }
    EXPECT_EQ(Names_t{}, m_Dir.Entries());
}

TEST_F(StagedDirectory, IsLeftAloneBehindCommit) {
    {
        CStagedDirectory directory;
        ASSERT_OK(directory.Begin(m_Dir.File("tree")));
        Fill(directory);
        ASSERT_OK(directory.Commit());
    }
    EXPECT_EQ("bytes", m_Dir.Read("tree/deep/file"));
}

TEST_F(StagedDirectory, RefusesWhatExists) {
    m_Dir.Write("file", "old");
    std::filesystem::create_directory(m_Dir.File("tree"));
    for (const char* const name : {"file", "tree"}) {
        CStagedDirectory directory;
        EXPECT_FAILS_SAYING(directory.Begin(m_Dir.File(name)), m_Dir.File(name), "exists already");
    }
    EXPECT_EQ((Names_t{"file", "tree"}), m_Dir.Entries());
    EXPECT_EQ("old", m_Dir.Read("file"));
}

TEST_F(StagedDirectory, RefusesAPlaceThatIsNotThere) {
    CStagedDirectory directory;
    EXPECT_FAILS_SAYING(directory.Begin(m_Dir.File("none/tree")), m_Dir.File("none/tree"), "can't be made");
    EXPECT_EQ(Names_t{}, m_Dir.Entries());
}

TEST_F(StagedDirectory, DoesNotReplaceWhatCameWhileItWasFilled) {
    {
        CStagedDirectory directory;
        ASSERT_OK(directory.Begin(m_Dir.File("tree")));
        Fill(directory);
        std::filesystem::create_directory(m_Dir.File("tree"));
        m_Dir.Write("tree/another's", "stands here");
        EXPECT_FAILS_SAYING(directory.Commit(), m_Dir.File("tree"));
    }
    EXPECT_EQ(Names_t{"tree"}, m_Dir.Entries());
    EXPECT_EQ("stands here", m_Dir.Read("tree/another's"));
    EXPECT_FALSE(std::filesystem::exists(m_Dir.File("tree/deep")));
}

}  // namespace
