#include <cerrno>

#include "platform/StandardFile.h"
#include "platform/windows/WideText.h"

namespace {

int LastError() {
    return errno != 0 ? errno : EIO;
}

}  // namespace

int OpenStandardFile(const char* name, const char* mode, std::FILE*& file) {
    file = _wfopen(WideFromUtf8(name).c_str(), WideFromUtf8(mode).c_str());
    if (file != nullptr)
        return 0;
    return LastError();
}

int SeekStandardFile(std::FILE* file, int64_t offset, int whence) {
    return _fseeki64(file, offset, whence) == 0 ? 0 : LastError();
}

int TellStandardFile(std::FILE* file, int64_t& position) {
    position = _ftelli64(file);
    return position >= 0 ? 0 : LastError();
}
