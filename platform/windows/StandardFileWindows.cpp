#include <cerrno>

#include "platform/StandardFile.h"
#include "platform/windows/WideText.h"

int OpenStandardFile(const char* name, const char* mode, std::FILE*& file) {
    file = _wfopen(WideFromUtf8(name).c_str(), WideFromUtf8(mode).c_str());
    if (file != nullptr)
        return 0;
    return errno != 0 ? errno : EIO;
}
