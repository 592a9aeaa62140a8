#include <windows.h>
#include <winioctl.h>

#include "platform/DriveSize.h"

namespace {

// What `IOCTL_DISK_GET_DRIVE_GEOMETRY_EX` answers, in the 40 bytes that drives of every kind fill.
struct DriveGeometry_t {
    DISK_GEOMETRY geometry;
    LARGE_INTEGER diskSize;
    BYTE partitionInfo[8];
};
static_assert(sizeof(DriveGeometry_t) == 40);

}  // namespace

DriveSizeResult_t FindDriveSize(const std::string& name, uint64_t& sizeBytes, uint32_t& systemError) {
    const HANDLE drive =
        CreateFileA(name.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (drive == INVALID_HANDLE_VALUE) {
        systemError = GetLastError();
        return DriveSizeResult_t::NoHandle;
    }
    DriveGeometry_t geometry{};
    DWORD got = 0;
    const bool isKnown = DeviceIoControl(drive, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, 0, &geometry,
                                         sizeof(geometry), &got, nullptr) != 0;
    systemError = isKnown ? 0 : GetLastError();
    CloseHandle(drive);
    sizeBytes = static_cast<uint64_t>(geometry.diskSize.QuadPart);
    return isKnown ? DriveSizeResult_t::Found : DriveSizeResult_t::NoGeometry;
}

bool IsBlockDevice(const std::string& /*name*/) {
    return false;
}
