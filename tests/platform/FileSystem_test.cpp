#include "platform/FileSystem.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/Files.h"
#include "tests/support/TempDir.h"

namespace {

constexpr int CreatingOnlyNew =
    OpenAsBinary | OpenNotInherited | OpenForBoth | OpenCreating | OpenTruncating | OpenOnlyNew;
constexpr int OwnerReadsAndWrites = 384;

}  // namespace

TEST(FileSystem, ARemovedFileIsGone) {
    const CTempDir dir;
    const std::string path = dir.Write("file", "abc");
    dir.Write("other", "def");
    EXPECT_EQ(RemoveFile(path), 0);
    EXPECT_EQ(dir.Entries(), std::vector<std::string>{"other"});
    EXPECT_NE(RemoveFile(path), 0) << "it isn't there";
}

TEST(FileSystem, ABackslashSeparatesTheFoldersOfAFileToRemove) {
    const CTempDir dir;
    std::filesystem::create_directory(dir.File("folder"));
    dir.Write("folder/file", "abc");
    EXPECT_EQ(RemoveFile(dir.Path() + "\\folder\\\\file"), 0);
    EXPECT_TRUE(std::filesystem::is_empty(dir.File("folder")));
}

TEST(FileSystem, AFolderIsNotRemoved) {
    const CTempDir dir;
    std::filesystem::create_directory(dir.File("folder"));
    EXPECT_NE(RemoveFile(dir.File("folder")), 0);
    EXPECT_TRUE(std::filesystem::is_directory(dir.File("folder")));
}

TEST(FileSystem, AFileThatHasToBeNewIsMadeOnce) {
    const CTempDir dir;
    int fd = -1;
    ASSERT_EQ(Files().Open(dir.File("file").c_str(), CreatingOnlyNew, OwnerReadsAndWrites, fd), 0);
    uint32_t put = 0;
    EXPECT_EQ(Files().Write(fd, "abc", 3, put), 0);
    EXPECT_EQ(Files().Close(fd), 0);
    fd = -77;
    EXPECT_NE(Files().Open(dir.File("file").c_str(), CreatingOnlyNew, OwnerReadsAndWrites, fd), 0);
    EXPECT_EQ(fd, -77);
    EXPECT_EQ(dir.Read("file"), "abc") << "what stands isn't truncated";
}

TEST(FileSystem, AFileIsRenamedWhereNothingStandsUnlessItReplaces) {
    const CTempDir dir;
    const std::string from = dir.Write("from", "new");
    const std::string to = dir.Write("to", "old");
    EXPECT_EQ(RenameFile(from, to, false), EEXIST);
    EXPECT_EQ(dir.Read("to"), "old");
    EXPECT_EQ(RenameFile(from, to, true), 0);
    EXPECT_EQ(dir.Read("to"), "new");
    EXPECT_EQ(RenameFile(to, dir.File("elsewhere"), false), 0);
    EXPECT_EQ(dir.Entries(), std::vector<std::string>{"elsewhere"});
}

TEST(FileSystem, WhatIsNotThereIsToldByTheNumberOfTheCLibrary) {
    const CTempDir dir;
    EXPECT_EQ(RenameFile(dir.File("none"), dir.File("to"), true), ENOENT);
    EXPECT_EQ(RenameFile(dir.File("none/none"), dir.File("to"), false), ENOENT);
    EXPECT_EQ(RemoveFile(dir.File("none")), ENOENT);
    EXPECT_EQ(RemoveFile(dir.File("none/none")), ENOENT);
    EXPECT_EQ(SetFileTimes(dir.File("none"), 0, 0, 126'227'808'000'000'000), ENOENT);
}

TEST(FileSystem, GivesAFileTheTimeOfItsLastChange) {
    const CTempDir dir;
    const std::string path = dir.Write("file", "abc");
    const auto before = std::filesystem::last_write_time(path);
    constexpr uint64_t ticksIn2001 = 126'227'808'000'000'000;
    constexpr uint64_t ticksIn2002 = 126'543'168'000'000'000;
    ASSERT_EQ(SetFileTimes(path, 0, 0, ticksIn2001), 0);
    const auto in2001 = std::filesystem::last_write_time(path);
    ASSERT_EQ(SetFileTimes(path, 0, ticksIn2001, ticksIn2002), 0);
    const auto in2002 = std::filesystem::last_write_time(path);
    EXPECT_LT(in2001, before);
    EXPECT_EQ(std::chrono::hours(365 * 24), in2002 - in2001);
    ASSERT_EQ(SetFileTimes(path, 0, 0, 0), 0);
    EXPECT_EQ(in2002, std::filesystem::last_write_time(path)) << "0 leaves a time as it is";
}
