#include "tests/interop/NtfsMount.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>

#include "tests/interop/OtherPrograms.h"

namespace {

constexpr char Driver[] = "lowntfs-3g";
constexpr char DriverOfStreams[] = "ntfs-3g";  // the only one that shows them as files
constexpr std::chrono::seconds LongestWait{60};
constexpr std::chrono::milliseconds BetweenLooks{2};

dev_t DeviceOf(const std::string& path) {
    struct stat facts {};
    return stat(path.c_str(), &facts) == 0 ? facts.st_dev : 0;
}

// The driver stays in the foreground, so that its end, and with it the last write, can be waited for.
[[noreturn]] void BecomeDriver(const std::string& image, const std::string& directory, const std::string& options) {
    const char* const driver =
        options.find("streams_interface=windows") == std::string::npos ? Driver : DriverOfStreams;
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);  // it tells of every mount
    dup2(nowhere, STDOUT_FILENO);
    dup2(nowhere, STDERR_FILENO);
    execlp(driver, driver, "-o", options.c_str(), image.c_str(), directory.c_str(), nullptr);
    _exit(127);
}

bool HasEnded(pid_t process) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid != 0;
}

}  // namespace

std::string WhatMountsLack() {
    if (geteuid() != 0)
        return "mounts need root";
    if (access("/dev/fuse", R_OK | W_OK) != 0)
        return "there is no /dev/fuse";
    for (const char* const program : {"mkntfs", Driver, DriverOfStreams, "fusermount"}) {
        if (!HasProgram(program))
            return std::string(program) + " isn't installed";
    }
    return {};
}

std::string MakeNtfsVolume(const CTempDir& dir, uint64_t bytes, uint32_t clusterBytes) {
    const std::string image = dir.WriteHole("volume", bytes);
    EXPECT_TRUE(Runs("mkntfs -F -Q -q -c " + std::to_string(clusterBytes) + " " + Quoted(image)));
    return image;
}

CNtfsMount::CNtfsMount(const std::string& image, const std::string& options) {
    const dev_t before = DeviceOf(Path());
    m_Driver = fork();
    if (m_Driver == 0)
        BecomeDriver(image, Path(), "no_detach,noatime," + options);
    EXPECT_GT(m_Driver, 0);
    const auto end = std::chrono::steady_clock::now() + LongestWait;
    while (!m_IsThere && !HasEnded(m_Driver) && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(BetweenLooks);
        m_IsThere = DeviceOf(Path()) != before;
    }
    EXPECT_TRUE(m_IsThere) << "the driver doesn't mount " << image;
}

void CNtfsMount::Unmount() {
    if (m_Driver <= 0)
        return;
    const bool isUnmounted = m_IsThere && RunProgram("fusermount -u " + Quoted(Path()));
    EXPECT_TRUE(isUnmounted) << Path();
    if (!isUnmounted)
        kill(m_Driver, SIGKILL);
    EXPECT_EQ(m_Driver, waitpid(m_Driver, nullptr, 0));
    m_Driver = -1;
    m_IsThere = false;
}

void SetAttribute(const std::string& path, const std::string& name, std::string_view bytes) {
    EXPECT_EQ(0, lsetxattr(path.c_str(), name.c_str(), bytes.data(), bytes.size(), 0))
        << path << ", " << name << ": " << std::strerror(errno);
}

std::string GetAttribute(const std::string& path, const std::string& name) {
    std::string bytes(65536, '\0');
    const ssize_t size = lgetxattr(path.c_str(), name.c_str(), bytes.data(), bytes.size());
    bytes.resize(size > 0 ? static_cast<size_t>(size) : 0);
    return bytes;
}

void WriteAt(const std::string& path, uint64_t offset, std::string_view bytes) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(file, 0) << path << ": " << std::strerror(errno);
    const ssize_t put = pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), put) << path << ": " << std::strerror(errno);
    EXPECT_EQ(0, close(file));
}
