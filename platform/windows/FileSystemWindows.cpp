#include "platform/FileSystem.h"

#include <windows.h>

#include "platform/windows/WideText.h"

int RenameFile(const std::string& from, const std::string& to, bool replacing) {
    const DWORD flags = MOVEFILE_WRITE_THROUGH | (replacing ? MOVEFILE_REPLACE_EXISTING : 0);
    const bool moved = MoveFileExW(WideFromUtf8(from.c_str()).c_str(), WideFromUtf8(to.c_str()).c_str(), flags) != 0;
    return moved ? 0 : static_cast<int>(GetLastError());
}

int RemoveFile(const std::string& name) {
    return DeleteFileW(WideFromUtf8(name.c_str()).c_str()) != 0 ? 0 : static_cast<int>(GetLastError());
}

// A rename that writes through has its name on the medium already.
int SyncDirectory(const std::string& /*directory*/) {
    return 0;
}

unsigned long ProcessNumber() {
    return GetCurrentProcessId();
}
