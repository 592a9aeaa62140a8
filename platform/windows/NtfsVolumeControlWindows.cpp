#include <io.h>
#include <windows.h>
#include <winioctl.h>

#include "platform/NtfsVolumeControl.h"
#include "platform/SystemVolumeControl.h"

namespace {

static_assert(FSCTL_ALLOW_EXTENDED_DASD_IO == 0x90083 && FSCTL_GET_NTFS_VOLUME_DATA == 0x90064 &&
              FSCTL_GET_VOLUME_BITMAP == 0x9006F && FSCTL_LOCK_VOLUME == 0x90018);
static_assert(NtfsBitmapIsOver == ERROR_INVALID_PARAMETER && NtfsBitmapIsCut == ERROR_MORE_DATA);

struct Piece_t {
    void* bytes = nullptr;
    uint32_t size = 0;
};

class CWindowsVolumeControl final : public INtfsVolumeControl {
public:
    explicit CWindowsVolumeControl(int fd) : m_Volume(reinterpret_cast<HANDLE>(_get_osfhandle(fd))) {}

    int AllowExtendedAccess() override {
        uint32_t got = 0;
        return Control(FSCTL_ALLOW_EXTENDED_DASD_IO, {}, {}, got);
    }

    int ReadVolumeData(NTFS_VOLUME_DATA_BUFFER& data, uint32_t& got) override {
        return Control(FSCTL_GET_NTFS_VOLUME_DATA, {}, {&data, sizeof(data)}, got);
    }

    int ReadBitmap(uint64_t firstLcn, char* reply, uint32_t replyBytes, uint32_t& got) override {
        return Control(FSCTL_GET_VOLUME_BITMAP, {&firstLcn, sizeof(firstLcn)}, {reply, replyBytes}, got);
    }

    // The system lets go of it when the volume's last handle is closed.
    int Lock() override {
        uint32_t got = 0;
        return Control(FSCTL_LOCK_VOLUME, {}, {}, got);
    }

private:
    int Control(uint32_t code, Piece_t in, Piece_t out, uint32_t& got) const {
        DWORD gotBytes = 0;
        const bool succeeded =
            DeviceIoControl(m_Volume, code, in.bytes, in.size, out.bytes, out.size, &gotBytes, nullptr) != 0;
        const DWORD error = succeeded ? ERROR_SUCCESS : GetLastError();
        got = gotBytes;
        return static_cast<int>(error);
    }

    HANDLE m_Volume;
};

}  // namespace

int BadVolumeReplyError() {
    return ERROR_INVALID_PARAMETER;
}

std::shared_ptr<INtfsVolumeControl> SystemVolumeControl(int fd) {
    return std::make_shared<CWindowsVolumeControl>(fd);
}
