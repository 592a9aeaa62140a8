#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <sys/stat.h>
#include <windows.h>
#include <winioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "platform/Files.h"
#include "platform/SystemFiles.h"
#include "platform/windows/ErrorNumber.h"
#include "platform/windows/WideText.h"

namespace {

constexpr uint32_t LargestTransfer = 0x7FFFF000;  // the runtime counts a transfer in a signed 32-bit number

HANDLE HandleOf(int fd) {
    return reinterpret_cast<HANDLE>(_get_osfhandle(fd));
}

bool IsDiskFile(int fd) {
    return GetFileType(HandleOf(fd)) == FILE_TYPE_DISK;
}

// What is added to the file's end is then a hole. A file system without holes fills it with zeros, and refuses this.
void AllowHoles(HANDLE file) {
    DWORD got = 0;
    DeviceIoControl(file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &got, nullptr);
}

// A drive has no length as a file has.
int DriveLength(HANDLE drive, uint64_t& sizeBytes) {
    GET_LENGTH_INFORMATION length{};
    DWORD got = 0;
    if (DeviceIoControl(drive, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length, sizeof(length), &got, nullptr) == 0)
        return LastErrorNumber();
    sizeBytes = static_cast<uint64_t>(length.Length.QuadPart);
    return 0;
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
        const HANDLE file = HandleOf(fd);
        LARGE_INTEGER length{};
        if (file == INVALID_HANDLE_VALUE)
            return EBADF;
        if (GetFileSizeEx(file, &length) == 0)
            return DriveLength(file, sizeBytes);
        sizeBytes = static_cast<uint64_t>(length.QuadPart);
        return 0;
    }

    // The runtime's own call writes each byte that it adds, which takes hours where a disk is large.
    int Truncate(int fd, int64_t sizeBytes) override {
        const HANDLE file = HandleOf(fd);
        if (file == INVALID_HANDLE_VALUE)
            return EBADF;
        FILE_END_OF_FILE_INFO end{};
        end.EndOfFile.QuadPart = sizeBytes;
        LARGE_INTEGER before{};
        if (GetFileSizeEx(file, &before) != 0 && before.QuadPart < sizeBytes)
            AllowHoles(file);
        return SetFileInformationByHandle(file, FileEndOfFileInfo, &end, sizeof(end)) != 0 ? 0 : LastErrorNumber();
    }

    int Sync(int fd) override { return _commit(fd) < 0 ? errno : 0; }

    int Close(int fd) override { return _close(fd) < 0 ? errno : 0; }
};

}  // namespace

IFiles& SystemFiles() {
    static CWindowsFiles files;
    return files;
}
