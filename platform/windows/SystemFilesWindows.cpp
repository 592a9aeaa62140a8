#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <sys/stat.h>
#include <windows.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "platform/Files.h"
#include "platform/SystemFiles.h"
#include "platform/windows/WideText.h"

namespace {

constexpr uint32_t LargestTransfer = 0x7FFFF000;  // the runtime counts a transfer in a signed 32-bit number

bool IsDiskFile(int fd) {
    return GetFileType(reinterpret_cast<HANDLE>(_get_osfhandle(fd))) == FILE_TYPE_DISK;
}

class CWindowsFiles final : public IFiles {
public:
    int Open(const char* name, int flags, int mode, int& fd) override {
        // Our flags are the runtime's own. Text stays bytes: translated line ends would be missed.
        const int system = (flags & ~OpenAsText) | OpenAsBinary;
        int opened = -1;
        const errno_t error = _wsopen_s(&opened, WideFromUtf8(name).c_str(), system, _SH_DENYNO, mode);
        if (error != 0)
            return error;
        if (!IsDiskFile(opened)) {
            _close(opened);
            return EINVAL;
        }
        fd = opened;
        return 0;
    }

    int Read(int fd, void* buffer, uint32_t size, uint32_t& got) override {
        const int count = _read(fd, buffer, std::min(size, LargestTransfer));
        got = count > 0 ? static_cast<uint32_t>(count) : 0;
        return count < 0 ? errno : 0;
    }

    int Write(int fd, const void* buffer, uint32_t size, uint32_t& put) override {
        const int count = _write(fd, buffer, std::min(size, LargestTransfer));
        put = count > 0 ? static_cast<uint32_t>(count) : 0;
        return count < 0 ? errno : 0;
    }

    int Seek(int fd, int64_t offset, int whence, int64_t& position) override {
        const int64_t reached = _lseeki64(fd, offset, whence);
        if (reached < 0)
            return errno;
        position = reached;
        return 0;
    }

    int Size(int fd, uint64_t& sizeBytes) override {
        const int64_t length = _filelengthi64(fd);
        if (length < 0)
            return errno;
        sizeBytes = static_cast<uint64_t>(length);
        return 0;
    }

    int Truncate(int fd, int64_t sizeBytes) override { return _chsize_s(fd, sizeBytes); }

    int Sync(int fd) override { return _commit(fd) < 0 ? errno : 0; }

    int Close(int fd) override { return _close(fd) < 0 ? errno : 0; }
};

}  // namespace

IFiles& SystemFiles() {
    static CWindowsFiles files;
    return files;
}
