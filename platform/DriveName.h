#pragma once

#include <string>

#include "platform/Export.h"

// A name that begins like this is a whole drive. On Windows the drive's number follows; on POSIX a
// path does, of a device or of a file that holds a whole drive.
constexpr char DriveNamePrefix[] = "\\\\?\\PhysicalDrive";

DISKSTREAM_EXPORT bool IsDriveName(const std::string& name);

// What follows the prefix; the name itself where there is none.
DISKSTREAM_EXPORT std::string WithoutDrivePrefix(const std::string& name);
