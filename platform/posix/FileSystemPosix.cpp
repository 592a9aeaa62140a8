#include "platform/FileSystem.h"

#include <fcntl.h>
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

unsigned long ProcessNumber() {
    return static_cast<unsigned long>(getpid());
}
