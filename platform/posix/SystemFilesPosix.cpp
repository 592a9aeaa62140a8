#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "platform/DriveName.h"
#include "platform/Files.h"
#include "platform/SystemFiles.h"

namespace {

template <typename Call> auto RetryInterrupted(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

int AccessMode(int flags) {
    if ((flags & OpenForBoth) != 0)
        return O_RDWR;
    return (flags & OpenForWriting) != 0 ? O_WRONLY : O_RDONLY;
}

int SystemOpenFlags(int flags) {
    int system = AccessMode(flags) | O_NOCTTY;
    if ((flags & OpenNotInherited) != 0)
        system |= O_CLOEXEC;
    if ((flags & OpenCreating) != 0)
        system |= O_CREAT;
    if ((flags & OpenTruncating) != 0)
        system |= O_TRUNC;
    if ((flags & OpenOnlyNew) != 0)
        system |= O_EXCL;
    return system;
}

// A FIFO would keep the caller waiting and a terminal or /dev/zero would never end.
int RefuseUnlessDisk(const struct stat& status) {
    if (S_ISREG(status.st_mode) || S_ISBLK(status.st_mode))
        return 0;
    return S_ISDIR(status.st_mode) ? EISDIR : ENOTBLK;
}

// Opening alone makes some devices act, so a name is looked at before. It may be another's by the
// time it is open, so the open file is looked at as well.
int RefuseNameUnlessDisk(const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 ? RefuseUnlessDisk(status) : 0;  // what isn't there may be made
}

int RefuseFileUnlessDisk(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 ? RefuseUnlessDisk(status) : errno;
}

int StopNotWaiting(int fd) {
    const int status = fcntl(fd, F_GETFL);
    if (status < 0 || fcntl(fd, F_SETFL, status & ~O_NONBLOCK) < 0)
        return errno;
    return 0;
}

std::string SystemPath(const char* name) {
    std::string path = WithoutDrivePrefix(name);
    std::replace(path.begin(), path.end(), '\\', '/');
    return path;
}

class CPosixFiles final : public IFiles {
public:
    int Open(const char* name, int flags, int mode, int& fd) override {
        const std::string path = SystemPath(name);
        int error = RefuseNameUnlessDisk(path.c_str());
        if (error != 0)
            return error;
        // Without O_NONBLOCK the open of a FIFO waits for its other end.
        const int opened = RetryInterrupted(
            [&] { return open(path.c_str(), SystemOpenFlags(flags) | O_NONBLOCK, static_cast<mode_t>(mode)); });
        if (opened < 0)
            return errno;

        error = RefuseFileUnlessDisk(opened);
        if (error == 0)
            error = StopNotWaiting(opened);
        if (error != 0) {
            close(opened);
            return error;
        }
        if ((flags & OpenRandomAccess) != 0)
            posix_fadvise(opened, 0, 0, POSIX_FADV_RANDOM);
        fd = opened;
        return 0;
    }

    int Read(int fd, void* buffer, uint32_t size, uint32_t& got) override {
        const ssize_t count = RetryInterrupted([&] { return read(fd, buffer, size); });
        got = count > 0 ? static_cast<uint32_t>(count) : 0;
        return count < 0 ? errno : 0;
    }

    int Write(int fd, const void* buffer, uint32_t size, uint32_t& put) override {
        const ssize_t count = RetryInterrupted([&] { return write(fd, buffer, size); });
        put = count > 0 ? static_cast<uint32_t>(count) : 0;
        return count < 0 ? errno : 0;
    }

    bool IsPositional() const override { return true; }

    int ReadAt(int fd, int64_t offset, void* buffer, uint32_t size, uint32_t& got) override {
        const ssize_t count = RetryInterrupted([&] { return pread(fd, buffer, size, offset); });
        got = count > 0 ? static_cast<uint32_t>(count) : 0;
        return count < 0 ? errno : 0;
    }

    int WriteAt(int fd, int64_t offset, const void* buffer, uint32_t size, uint32_t& put) override {
        const ssize_t count = RetryInterrupted([&] { return pwrite(fd, buffer, size, offset); });
        put = count > 0 ? static_cast<uint32_t>(count) : 0;
        return count < 0 ? errno : 0;
    }

    int Seek(int fd, int64_t offset, int whence, int64_t& position) override {
        const off_t reached = lseek(fd, offset, whence);
        if (reached < 0)
            return errno;
        position = reached;
        return 0;
    }

    // A block device has no size in its status, but an end that can be sought.
    int Size(int fd, uint64_t& sizeBytes) override {
        struct stat status {};
        if (fstat(fd, &status) != 0)
            return errno;
        if (S_ISREG(status.st_mode)) {
            sizeBytes = static_cast<uint64_t>(status.st_size);
            return 0;
        }
        return EndPosition(fd, sizeBytes);
    }

    int Truncate(int fd, int64_t sizeBytes) override {
        return RetryInterrupted([&] { return ftruncate(fd, sizeBytes); }) < 0 ? errno : 0;
    }

    int Sync(int fd) override {
        return RetryInterrupted([&] { return fsync(fd); }) < 0 ? errno : 0;
    }

    void BeginSync([[maybe_unused]] int fd, [[maybe_unused]] int64_t offset) override {
#ifdef SYNC_FILE_RANGE_WRITE  // Linux
        sync_file_range(fd, offset, 0, SYNC_FILE_RANGE_WRITE);
#endif
    }

    // Not retried: after an interrupted close the descriptor is gone, and may be another file's.
    int Close(int fd) override {
        return close(fd) < 0 && errno != EINTR ? errno : 0;
    }

private:
    static int EndPosition(int fd, uint64_t& sizeBytes) {
        const off_t before = lseek(fd, 0, SEEK_CUR);
        const off_t end = lseek(fd, 0, SEEK_END);
        if (before < 0 || end < 0 || lseek(fd, before, SEEK_SET) < 0)
            return errno;
        sizeBytes = static_cast<uint64_t>(end);
        return 0;
    }
};

}  // namespace

IFiles& SystemFiles() {
    static CPosixFiles files;
    return files;
}
