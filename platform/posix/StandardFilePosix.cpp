#include <algorithm>
#include <cerrno>
#include <string>

#include "platform/StandardFile.h"

namespace {

int LastError() {
    return errno != 0 ? errno : EIO;
}

}  // namespace

int OpenStandardFile(const char* name, const char* mode, std::FILE*& file) {
    std::string path = name;
    std::replace(path.begin(), path.end(), '\\', '/');
    file = std::fopen(path.c_str(), mode);
    if (file != nullptr)
        return 0;
    return LastError();
}

int SeekStandardFile(std::FILE* file, int64_t offset, int whence) {
    return fseeko(file, static_cast<off_t>(offset), whence) == 0 ? 0 : LastError();
}

int TellStandardFile(std::FILE* file, int64_t& position) {
    position = ftello(file);
    return position >= 0 ? 0 : LastError();
}
