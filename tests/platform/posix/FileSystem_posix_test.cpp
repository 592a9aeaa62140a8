#include "platform/FileSystem.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
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

namespace {

constexpr uint64_t UnixStart = 116'444'736'000'000'000;  // 1970, as files' times count
constexpr uint64_t Second = 10'000'000;

struct stat StatOf(const std::string& path) {
    struct stat facts {};
    EXPECT_EQ(lstat(path.c_str(), &facts), 0) << path;
    return facts;
}

}  // namespace

TEST(FileTimesOnPosix, AreSetToTheirHundredNanoseconds) {
    const CTempDir dir;
    const std::string path = dir.Write("file", "abc");
    ASSERT_EQ(SetFileTimes(path, 0, UnixStart + 1000 * Second + 1234567, UnixStart + 2000 * Second + 7654321), 0);
    EXPECT_EQ(StatOf(path).st_atim.tv_sec, 1000);
    EXPECT_EQ(StatOf(path).st_atim.tv_nsec, 123456700);
    EXPECT_EQ(StatOf(path).st_mtim.tv_sec, 2000);
    EXPECT_EQ(StatOf(path).st_mtim.tv_nsec, 765432100);
}

TEST(FileTimesOnPosix, BeforeTheSystemsStartAreSetWhereTheFileSystemHasThem) {
    const CTempDir dir;
    const std::string path = dir.Write("file", "abc");
    ASSERT_EQ(SetFileTimes(path, 0, UnixStart - 1, UnixStart - 10 * Second), 0);
    EXPECT_EQ(StatOf(path).st_atim.tv_sec, -1);
    EXPECT_EQ(StatOf(path).st_atim.tv_nsec, 999'999'900);
    EXPECT_EQ(StatOf(path).st_mtim.tv_sec, -10);
    EXPECT_EQ(StatOf(path).st_mtim.tv_nsec, 0);
}

TEST(FileTimesOnPosix, ATimeOfZeroStaysAsItIs) {
    const CTempDir dir;
    const std::string path = dir.Write("file", "abc");
    ASSERT_EQ(SetFileTimes(path, 0, UnixStart + 1000 * Second, UnixStart + 2000 * Second), 0);
    ASSERT_EQ(SetFileTimes(path, 77, 0, UnixStart + 3000 * Second), 0);
    EXPECT_EQ(StatOf(path).st_atim.tv_sec, 1000);
    EXPECT_EQ(StatOf(path).st_mtim.tv_sec, 3000);
    ASSERT_EQ(SetFileTimes(path, 0, UnixStart + 4000 * Second, 0), 0);
    EXPECT_EQ(StatOf(path).st_atim.tv_sec, 4000);
    EXPECT_EQ(StatOf(path).st_mtim.tv_sec, 3000);
}

TEST(FileTimesOnPosix, OfADirectoryAreSetAsWell) {
    const CTempDir dir;
    ASSERT_EQ(SetFileTimes(dir.Path(), 0, 0, UnixStart + 2000 * Second), 0);
    EXPECT_EQ(StatOf(dir.Path()).st_mtim.tv_sec, 2000);
}

TEST(FileTimesOnPosix, OfALinkTheLinksAreSet) {
    const CTempDir dir;
    const std::string path = dir.Write("file", "abc");
    ASSERT_EQ(SetFileTimes(path, 0, 0, UnixStart + 1000 * Second), 0);
    std::filesystem::create_symlink(path, dir.File("link"));
    ASSERT_EQ(SetFileTimes(dir.File("link"), 0, 0, UnixStart + 2000 * Second), 0);
    EXPECT_EQ(StatOf(dir.File("link")).st_mtim.tv_sec, 2000);
    EXPECT_EQ(StatOf(path).st_mtim.tv_sec, 1000);
}

TEST(FileTimesOnPosix, ABackslashInTheNameSeparatesNothing) {
    const CTempDir dir;
    const std::string path = dir.Write("a\\b", "abc");
    ASSERT_EQ(SetFileTimes(path, 0, 0, UnixStart + 1000 * Second), 0);
    EXPECT_EQ(StatOf(path).st_mtim.tv_sec, 1000);
}

TEST(FileTimesOnPosix, AFailureIsTheSystemsNumber) {
    const CTempDir dir;
    EXPECT_EQ(SetFileTimes(dir.File("none"), 0, UnixStart, UnixStart), ENOENT);
}

TEST(FileSystemOnPosix, SyncsTheFileSystemOfADirectoryAlone) {
    const CTempDir dir;
    EXPECT_EQ(SyncFileSystem(dir.Path()), 0);
    EXPECT_EQ(SyncFileSystem(dir.File("none")), ENOENT);
    EXPECT_EQ(SyncFileSystem(dir.Write("file", "abc")), ENOTDIR);
}
