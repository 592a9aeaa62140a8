#include "platform/FileSystem.h"

#include <gtest/gtest.h>

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
