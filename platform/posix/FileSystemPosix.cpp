#include "platform/FileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace {

// For file systems that can't rename without replacing: a hard link is refused where a name exists.
int LinkAndUnlink(const char* from, const char* to) {
    if (link(from, to) != 0)
        return errno;
    return unlink(from) != 0 ? errno : 0;
}

int RenameWithoutReplacing(const char* from, const char* to) {
    if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0)
        return 0;
    return errno == EINVAL || errno == ENOSYS ? LinkAndUnlink(from, to) : errno;
}

timespec TimeOf(uint64_t time) {
    constexpr uint64_t ticksPerSecond = 10'000'000;
    constexpr int64_t secondsFrom1601To1970 = 11'644'473'600;
    timespec result{};
    if (time == 0) {
        result.tv_nsec = UTIME_OMIT;
        return result;
    }
    result.tv_sec = static_cast<time_t>(static_cast<int64_t>(time / ticksPerSecond) - secondsFrom1601To1970);
    result.tv_nsec = static_cast<decltype(result.tv_nsec)>(time % ticksPerSecond * 100);
    return result;
}

}  // namespace

int RenameFile(const std::string& from, const std::string& to, bool replacing) {
    if (!replacing)
        return RenameWithoutReplacing(from.c_str(), to.c_str());
    return rename(from.c_str(), to.c_str()) != 0 ? errno : 0;
}

int RemoveFile(const std::string& name) {
    std::string path = name;
    std::replace(path.begin(), path.end(), '\\', '/');
    return unlink(path.c_str()) != 0 ? errno : 0;
}

int SyncDirectory(const std::string& directory) {
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    const int error = fsync(fd) != 0 ? errno : 0;
    close(fd);
    return error;
}

int SyncFileSystem(const std::string& directory) {
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    const int error = syncfs(fd) != 0 ? errno : 0;
    close(fd);
    return error;
}

int SetFileTimes(const std::string& name, uint64_t /*creation*/, uint64_t access, uint64_t modification) {
    const timespec times[2] = {TimeOf(access), TimeOf(modification)};
    return utimensat(AT_FDCWD, name.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0 ? errno : 0;
}

unsigned long ProcessNumber() {
    return static_cast<unsigned long>(getpid());
}
