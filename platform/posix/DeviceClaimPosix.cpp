#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/DeviceClaim.h"
#include "platform/DriveName.h"
#include "platform/DriveSize.h"

namespace {

// Without O_CREAT, O_EXCL is about the device and not about its name.
int OpenAlone(const std::string& name, int access) {
    std::string path = WithoutDrivePrefix(name);
    std::replace(path.begin(), path.end(), '\\', '/');
    return open(path.c_str(), access | O_EXCL | O_CLOEXEC);
}

}  // namespace

CDeviceClaim::~CDeviceClaim() {
    if (m_Fd >= 0)
        close(m_Fd);
}

int CDeviceClaim::Take(const std::string& name) {
    m_Fd = OpenAlone(name, O_RDWR);
    if (m_Fd < 0)
        return errno;
    // A plain file opens for anybody, but is locked by one alone.
    return IsBlockDevice(name) || flock(m_Fd, LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
}

bool IsDeviceClaimed(const std::string& name) {
    if (!IsBlockDevice(name))
        return false;
    const int fd = OpenAlone(name, O_RDONLY);
    if (fd < 0)
        return errno == EBUSY;
    close(fd);
    return false;
}
