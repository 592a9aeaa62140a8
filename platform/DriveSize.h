#pragma once

#include <cstdint>
#include <string>

#include "platform/Export.h"

// How asking a drive for its size ended.
enum class DriveSizeResult_t { Found, NoHandle, NoGeometry };

// Makes `sizeBytes` the size of the drive `name`. `systemError` is the system's number of a failure.
DISKSTREAM_EXPORT DriveSizeResult_t FindDriveSize(const std::string& name, uint64_t& sizeBytes, uint32_t& systemError);

// True for the name of a block device, which has a size without being written as a drive.
DISKSTREAM_EXPORT bool IsBlockDevice(const std::string& name);
