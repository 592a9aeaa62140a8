#include <sys/stat.h>

#include <algorithm>

#include "platform/DriveName.h"
#include "platform/DriveSize.h"
#include "platform/Files.h"

DriveSizeResult_t FindDriveSize(const std::string& name, uint64_t& sizeBytes, uint32_t& systemError) {
    int fd = -1;
    if (const int error = Files().Open(name.c_str(), OpenAsBinary | OpenNotInherited, 0, fd); error != 0) {
        systemError = static_cast<uint32_t>(error);
        return DriveSizeResult_t::NoHandle;
    }
    const int error = Files().Size(fd, sizeBytes);
    Files().Close(fd);  // nothing was written that a failure could lose
    systemError = static_cast<uint32_t>(error);
    return error == 0 ? DriveSizeResult_t::Found : DriveSizeResult_t::NoGeometry;
}

bool IsBlockDevice(const std::string& name) {
    std::string path = WithoutDrivePrefix(name);
    std::replace(path.begin(), path.end(), '\\', '/');
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
}
