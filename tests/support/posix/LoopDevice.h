#pragma once

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <string>

// A block device of the test's own, whose bytes are those of a file. Only root can have one: without
// it `IsThere` is false, and the test has to be skipped. It goes away with the object, and with the
// process too.
class CLoopDevice {
public:
    explicit CLoopDevice(const std::string& path) : m_File(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
        const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
        // Another process may take the same free device first.
        for (int attempt = 0; control >= 0 && !m_IsThere && attempt < 10; ++attempt)
            Attach(ioctl(control, LOOP_CTL_GET_FREE));
        if (control >= 0)
            close(control);
    }
    CLoopDevice(const CLoopDevice&) = delete;
    CLoopDevice& operator=(const CLoopDevice&) = delete;
    ~CLoopDevice() {
        if (m_IsThere)
            ioctl(m_Device, LOOP_CLR_FD);
        if (m_Device >= 0)
            close(m_Device);
        if (m_File >= 0)
            close(m_File);
    }

    bool IsThere() const { return m_IsThere; }
    const std::string& Path() const { return m_Path; }
    bool Flush() const { return fsync(m_Device) == 0; }

private:
    void Attach(int number) {
        if (number < 0 || m_File < 0)
            return;
        m_Path = "/dev/loop" + std::to_string(number);
        m_Device = open(m_Path.c_str(), O_RDWR | O_CLOEXEC);
        if (m_Device < 0)
            return;
        m_IsThere = ioctl(m_Device, LOOP_SET_FD, m_File) == 0;
        if (!m_IsThere) {
            close(m_Device);
            m_Device = -1;
            return;
        }
        loop_info64 info{};
        info.lo_flags = LO_FLAGS_AUTOCLEAR;
        ioctl(m_Device, LOOP_SET_STATUS64, &info);
    }

    const int m_File;
    int m_Device = -1;
    bool m_IsThere = false;
    std::string m_Path;
};

#define SKIP_WITHOUT_LOOP(device) \
    if (!(device).IsThere())      \
    GTEST_SKIP() << "a loop device can't be had here; run as root to prove this"
