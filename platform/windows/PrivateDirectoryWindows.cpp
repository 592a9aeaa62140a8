#include "platform/PrivateDirectory.h"

#include <windows.h>

#include "platform/windows/WideText.h"

namespace {
constexpr int Attempts = 100;  // each takes a name of its own; only a foe takes a hundred of them before us
}

// The user's own temporary folder is closed to others; what is made below inherits that.
std::string MakePrivateDirectory() {
    wchar_t temporary[MAX_PATH + 1] = {};
    if (GetTempPathW(MAX_PATH + 1, temporary) == 0)
        return {};
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        const std::wstring path = std::wstring(temporary) + L"diskstream-" + std::to_wstring(GetCurrentProcessId()) +
                                  L"-" + std::to_wstring(GetTickCount64()) + L"-" + std::to_wstring(attempt);
        if (CreateDirectoryW(path.c_str(), nullptr) != 0)
            return Utf8FromWide(path.c_str());
    }
    return {};
}
