#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/DriveName.h"
#include "platform/DriveSize.h"

// The name of a whole drive whose bytes are those of the file. Where a drive's name takes a number and no path there is
// no such drive.
inline std::string DriveOfFile(const std::string& path) {
    return DriveNamePrefix + path;
}

inline bool IsThereADrive(const std::string& name) {
    uint64_t sizeBytes = 0;
    uint32_t ignored = 0;
    return FindDriveSize(name, sizeBytes, ignored) == DriveSizeResult_t::Found;
}

// Ends a test that needs one. `path` is that of a file.
#define SKIP_UNLESS_A_FILE_CAN_BE_A_DRIVE(path) \
    if (!IsThereADrive(DriveOfFile(path)))      \
    GTEST_SKIP() << "no file can be a drive on this system"
