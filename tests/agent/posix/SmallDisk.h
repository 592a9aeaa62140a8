#pragma once

#include <sys/mount.h>

#include <cstdint>
#include <string>

#include "tests/support/TempDir.h"

// A disk of its own for a test, that can be full or not be written to. Only root can have one:
// without it `IsThere` is false, and the test has to be skipped.
class CSmallDisk {
public:
    explicit CSmallDisk(uint64_t sizeKiB)
        : m_IsThere(mount("tmpfs", m_Dir.Path().c_str(), "tmpfs", 0,
                          ("size=" + std::to_string(sizeKiB) + "k").c_str()) == 0) {}
    CSmallDisk(const CSmallDisk&) = delete;
    CSmallDisk& operator=(const CSmallDisk&) = delete;
    ~CSmallDisk() {
        if (m_IsThere)
            umount2(m_Dir.Path().c_str(), MNT_DETACH);
    }

    bool IsThere() const { return m_IsThere; }
    bool ForbidWrites() const {
        return mount("tmpfs", m_Dir.Path().c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr) == 0;
    }
    const CTempDir& Dir() const { return m_Dir; }

private:
    const CTempDir m_Dir;
    const bool m_IsThere;
};

#define SKIP_WITHOUT(disk) \
    if (!(disk).IsThere()) \
    GTEST_SKIP() << "a file system can't be mounted here; run as root to prove this"
