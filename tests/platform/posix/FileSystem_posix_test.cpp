#include "platform/FileSystem.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/Files.h"
#include "tests/support/TempDir.h"

namespace {

int OpenNew(const std::string& path, int& fd) {
    const int flags = OpenAsBinary | OpenNotInherited | OpenForBoth | OpenCreating | OpenTruncating | OpenOnlyNew;
    return Files().Open(path.c_str(), flags, 0600, fd);
}

}  // namespace

TEST(FileSystemOnPosix, OfALinkTheLinkAloneIsRemoved) {
    const CTempDir dir;
    const std::string target = dir.Write("target", "abc");
    std::filesystem::create_symlink(target, dir.File("link"));
    EXPECT_EQ(RemoveFile(dir.File("link")), 0);
    EXPECT_EQ(dir.Entries(), std::vector<std::string>{"target"});
    EXPECT_EQ(RemoveFile(dir.File("link")), ENOENT);
}

TEST(FileSystemOnPosix, ALinkStandsInTheWayOfAFileThatHasToBeNew) {
    const CTempDir dir;
    dir.Write("target", "abc");
    for (const char* const target : {"target", "none"}) {
        const std::string link = dir.File(std::string("link to ") + target);
        std::filesystem::create_symlink(dir.File(target), link);
        int fd = -77;
        EXPECT_EQ(OpenNew(link, fd), EEXIST);
        EXPECT_EQ(fd, -77);
    }
    EXPECT_EQ(dir.Read("target"), "abc");
    EXPECT_FALSE(std::filesystem::exists(dir.File("none")));
}

TEST(FileSystemOnPosix, AFileThatHasToBeNewHasTheModeThatIsAskedFor) {
    const CTempDir dir;
    const mode_t before = umask(0);
    int fd = -1;
    EXPECT_EQ(OpenNew(dir.File("file"), fd), 0);
    umask(before);
    struct stat status {};
    EXPECT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_mode, unsigned{S_IFREG} | 0600U);
    EXPECT_EQ(Files().Close(fd), 0);
}
