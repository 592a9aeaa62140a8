#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/DeviceClaim.h"

CDeviceClaim::~CDeviceClaim() {
    if (m_Fd >= 0)
        close(m_Fd);
}

// Without O_CREAT, O_EXCL is about the device and not about its name.
int CDeviceClaim::Take(const std::string& name) {
    m_Fd = open(name.c_str(), O_RDWR | O_EXCL | O_CLOEXEC);
    return m_Fd < 0 ? errno : 0;
}
