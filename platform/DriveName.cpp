#include "platform/DriveName.h"

bool IsDriveName(const std::string& name) {
    return name.rfind(DriveNamePrefix, 0) == 0;
}

std::string WithoutDrivePrefix(const std::string& name) {
    return IsDriveName(name) ? name.substr(sizeof(DriveNamePrefix) - 1) : name;
}
