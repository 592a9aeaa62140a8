#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>

#include "foundation/ZuFile.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/TempDir.h"

namespace {

constexpr int ForReading = 0x8080;
constexpr int ForWriting = 0x8381;
constexpr int ForBoth = 0x8082;
constexpr int OpensOrCreates = 0x8182;

// Ends the process, and with it the test, when a call waits for ever.
class CAlarm {
public:
    CAlarm() { alarm(20); }
    CAlarm(const CAlarm&) = delete;
    CAlarm& operator=(const CAlarm&) = delete;
    ~CAlarm() { alarm(0); }
};

unsigned int PermissionsOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

class ZuFileOnPosix : public testing::Test {
protected:
    const CTempDir m_Dir;
};

}  // namespace

TEST_F(ZuFileOnPosix, AFifoIsRefusedWithoutWaiting) {
    const CAlarm alarm;
    const std::string path = m_Dir.File("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    for (const int flags : {ForReading, ForWriting, ForBoth, OpensOrCreates, 0x4080}) {
        SCOPED_TRACE(flags);
        CZuFile file;
        const CZuError error = file.Open(path.c_str(), flags, 0);
        EXPECT_TRUE(error.IsErrorSet());
        EXPECT_EQ(error.GetErrorType(), 1U);
        EXPECT_FALSE(file.IsValid());
    }
}

TEST_F(ZuFileOnPosix, ADirectoryIsRefused) {
    for (const int flags : {ForReading, ForBoth, ForWriting}) {
        CZuFile file;
        EXPECT_SYSTEM_ERROR(file.Open(m_Dir.Path().c_str(), flags, 0), EISDIR) << flags;
        EXPECT_FALSE(file.IsValid());
    }
}

TEST_F(ZuFileOnPosix, CharacterDevicesAndSocketsAreRefused) {
    const std::string socketPath = m_Dir.File("socket");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(socketPath.size(), sizeof(address.sun_path));
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size());
    const int listening = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    for (const std::string& path : {std::string("/dev/null"), std::string("/dev/zero"), socketPath}) {
        SCOPED_TRACE(path);
        CZuFile file;
        const CZuError error = file.Open(path.c_str(), ForReading, 0);
        EXPECT_EQ(error.GetErrorType(), 1U) << error.ConvertToString();
        EXPECT_FALSE(file.IsValid());
    }
    close(listening);
}

TEST_F(ZuFileOnPosix, ARefusedFileLeavesNoDescriptorBehind) {
    CZuFile before;
    ASSERT_OK(before.Open(m_Dir.Write("before", "").c_str(), ForReading, 0));
    const int next = before.GetFD();
    EXPECT_OK(before.Close());
    CZuFile refused;
    EXPECT_FAILURE(refused.Open(m_Dir.Path().c_str(), ForReading, 0));
    CZuFile after;
    ASSERT_OK(after.Open(m_Dir.File("before").c_str(), ForReading, 0));
    EXPECT_EQ(after.GetFD(), next);
}

TEST_F(ZuFileOnPosix, ABackslashSeparatesFolders) {
    std::filesystem::create_directories(m_Dir.File("one/two"));
    m_Dir.Write("one/two/disk.vmdk", "abc");
    for (const char* const name : {"\\one\\two\\disk.vmdk", "\\one/two\\disk.vmdk", "/one/two/disk.vmdk"}) {
        SCOPED_TRACE(name);
        const std::string asked = m_Dir.Path() + name;
        CZuFile file;
        ASSERT_OK(file.Open(asked.c_str(), ForReading, 0));
        EXPECT_EQ(file.GetName(), asked) << "the name stays as it was passed";
    }
    CZuFile made;
    ASSERT_OK(made.Open((m_Dir.Path() + "\\one\\new").c_str(), ForWriting, 384));
    EXPECT_TRUE(std::filesystem::exists(m_Dir.File("one/new")));
    EXPECT_EQ(m_Dir.Entries().size(), 1U) << "no name with a backslash in it";
}

TEST_F(ZuFileOnPosix, AFileThatIsMadeHasThePermissionsAskedFor) {
    const mode_t before = umask(0);
    const struct {
        int flags;
        int mode;
        unsigned int permissions;
    } rows[] = {{0x8381, 384, 0600}, {0x8182, 384, 0600}, {0x8382, 384, 0600}, {0x0102, 128, 0200}, {0x8381, 0, 0}};
    for (const auto& row : rows) {
        const std::string path = m_Dir.File("made-" + std::to_string(row.flags) + "-" + std::to_string(row.mode));
        CZuFile file;
        EXPECT_OK(file.Open(path.c_str(), row.flags, row.mode));
        EXPECT_EQ(PermissionsOf(path), row.permissions) << path;
    }
    umask(before);
}

TEST_F(ZuFileOnPosix, AnExistingFileKeepsItsPermissions) {
    const std::string path = m_Dir.Write("file", "abc");
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    CZuFile file;
    EXPECT_OK(file.Open(path.c_str(), ForWriting, 384));
    EXPECT_EQ(PermissionsOf(path), 0640U);
}

TEST_F(ZuFileOnPosix, ChildrenInheritTheDescriptorOnlyWithoutTheFlag) {
    const std::string path = m_Dir.Write("file", "abc");
    CZuFile kept;
    ASSERT_OK(kept.Open(path.c_str(), 0x8080, 0));
    EXPECT_NE(fcntl(kept.GetFD(), F_GETFD) & FD_CLOEXEC, 0);
    CZuFile inherited;
    ASSERT_OK(inherited.Open(path.c_str(), 0x8000, 0));
    EXPECT_EQ(fcntl(inherited.GetFD(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(ZuFileOnPosix, AnOpenFileWaitsForItsDataAgain) {
    CZuFile file;
    ASSERT_OK(file.Open(m_Dir.Write("file", "abc").c_str(), ForBoth, 0));
    EXPECT_EQ(fcntl(file.GetFD(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(ZuFileOnPosix, AnObjectThatGoesAwayClosesItsFile) {
    int fd = -1;
    {
        CZuFile file;
        ASSERT_OK(file.Open(m_Dir.Write("file", "abc").c_str(), ForReading, 0));
        fd = file.GetFD();
        EXPECT_GE(fcntl(fd, F_GETFD), 0);
    }
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(ZuFileOnPosix, ANegativeLengthIsTheSystemsError) {
    CZuFile file;
    ASSERT_OK(file.Open(m_Dir.Write("file", "abc").c_str(), ForBoth, 0));
    EXPECT_SYSTEM_ERROR(file.Truncate(-1), EINVAL);
    EXPECT_EQ(m_Dir.Read("file"), "abc");
}

TEST_F(ZuFileOnPosix, AFileThatMayNotGrowIsTheSystemsError) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{4096, before.rlim_max};
    const auto oldHandler = signal(SIGXFSZ, SIG_IGN);
    CZuFile file;
    ASSERT_OK(file.Open(m_Dir.Write("file", "").c_str(), ForBoth, 0));
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const CZuError truncated = file.Truncate(4097);
    const CZuError sought = file.Seek(4096, 0, nullptr);
    const CZuError written = file.Write("x", 1, nullptr);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    signal(SIGXFSZ, oldHandler);
    EXPECT_SYSTEM_ERROR(truncated, EFBIG);
    EXPECT_OK(sought);
    EXPECT_SYSTEM_ERROR(written, EFBIG);
}
