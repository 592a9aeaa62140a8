#include "platform/Environment.h"

#include <cstdlib>

bool EnvironmentVariable(const char* name, std::string& value) {
    const char* const found = std::getenv(name);
    if (found == nullptr)
        return false;
    value = found;
    return true;
}

std::string UsualSettingsFile() {
    return "/etc/diskstream.conf";
}
