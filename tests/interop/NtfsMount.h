#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "tests/support/TempDir.h"

// NTFS volumes that another program makes, and its driver.

// Empty where volumes can be made and mounted here, else what is missing.
std::string WhatMountsLack();

#define SKIP_WITHOUT_MOUNTS()                         \
    do {                                              \
        const std::string missing = WhatMountsLack(); \
        if (!missing.empty())                         \
            GTEST_SKIP() << missing;                  \
    } while (false)

// Makes a file of that size with an empty volume in it, and returns its path.
std::string MakeNtfsVolume(const CTempDir& dir, uint64_t bytes, uint32_t clusterBytes = 4096);

// A volume behind the driver's mount. Files that are written to it lie in the image when it is unmounted.
class CNtfsMount {
public:
    // `options` are the driver's own. A mount that fails fails the test.
    CNtfsMount(const std::string& image, const std::string& options);
    CNtfsMount(const CNtfsMount&) = delete;
    CNtfsMount& operator=(const CNtfsMount&) = delete;
    ~CNtfsMount() { Unmount(); }

    bool IsThere() const { return m_IsThere; }
    const std::string& Path() const { return m_Directory.Path(); }
    std::string Path(const std::string& name) const { return m_Directory.File(name); }

    // Waits until the driver has written everything and has ended.
    void Unmount();

private:
    CTempDir m_Directory;
    pid_t m_Driver = -1;
    bool m_IsThere = false;
};

// An attribute of a file that the driver shows beside its contents. One that can't be set fails the test; one that
// isn't there is empty.
void SetAttribute(const std::string& path, const std::string& name, std::string_view bytes);
std::string GetAttribute(const std::string& path, const std::string& name);

// Writes bytes into a file at an offset. The file is made if it isn't there; what is left out is a hole.
void WriteAt(const std::string& path, uint64_t offset, std::string_view bytes);
