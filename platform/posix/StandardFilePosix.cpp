#include <algorithm>
#include <cerrno>
#include <string>

#include "platform/StandardFile.h"

int OpenStandardFile(const char* name, const char* mode, std::FILE*& file) {
    std::string path = name;
    std::replace(path.begin(), path.end(), '\\', '/');
    file = std::fopen(path.c_str(), mode);
    if (file != nullptr)
        return 0;
    return errno != 0 ? errno : EIO;
}
