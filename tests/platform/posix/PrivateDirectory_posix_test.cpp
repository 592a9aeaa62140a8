#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "platform/PrivateDirectory.h"
#include "tests/support/TempDir.h"
#include "tests/support/posix/ScopedEnvironment.h"

namespace {

unsigned int Mode(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode;
}

}  // namespace

TEST(PrivateDirectoryOnPosix, EachIsNewAndOpenToThisUserAlone) {
    const CTempDir dir;
    const CScopedEnvironment temporary("TMPDIR", dir.Path());
    const mode_t before = umask(0);
    const std::string first = MakePrivateDirectory();
    const std::string second = MakePrivateDirectory();
    umask(before);
    EXPECT_NE(first, second);
    for (const std::string& path : {first, second}) {
        EXPECT_EQ(path.substr(0, dir.Path().size() + 1), dir.Path() + "/");
        EXPECT_EQ(Mode(path), unsigned{S_IFDIR} | 0700U);
    }
}

TEST(PrivateDirectoryOnPosix, ItLiesInTmpWithoutAnotherPlace) {
    for (const bool isEmpty : {false, true}) {
        const CScopedEnvironment temporary = isEmpty ? CScopedEnvironment("TMPDIR", "") : CScopedEnvironment("TMPDIR");
        const std::string path = MakePrivateDirectory();
        EXPECT_EQ(path.substr(0, 5), "/tmp/");
        EXPECT_TRUE(std::filesystem::remove(path)) << "empty";
    }
}

TEST(PrivateDirectoryOnPosix, ItsAbsenceIsAnEmptyPath) {
    const CScopedEnvironment temporary("TMPDIR", "/nowhere/at/all");
    EXPECT_EQ(MakePrivateDirectory(), "");
}
