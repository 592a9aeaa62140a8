#include "platform/FileSystem.h"

#include <windows.h>

#include "platform/windows/ErrorNumber.h"
#include "platform/windows/WideText.h"

int RenameFile(const std::string& from, const std::string& to, bool replacing) {
    const DWORD flags = MOVEFILE_WRITE_THROUGH | (replacing ? MOVEFILE_REPLACE_EXISTING : 0);
    const bool moved = MoveFileExW(WideFromUtf8(from.c_str()).c_str(), WideFromUtf8(to.c_str()).c_str(), flags) != 0;
    return moved ? 0 : LastErrorNumber();
}

int RemoveFile(const std::string& name) {
    return DeleteFileW(WideFromUtf8(name.c_str()).c_str()) != 0 ? 0 : LastErrorNumber();
}

// A rename that writes through has its name on the medium already.
int SyncDirectory(const std::string& /*directory*/) {
    return 0;
}

// A user without special rights can't ask for a whole volume.
int SyncFileSystem(const std::string& /*directory*/) {
    return 0;
}

int SetFileTimes(const std::string& name, uint64_t creation, uint64_t access, uint64_t modification) {
    const HANDLE file =
        CreateFileW(WideFromUtf8(name.c_str()).c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return LastErrorNumber();
    const auto timeOf = [](uint64_t time) {
        return FILETIME{static_cast<DWORD>(time), static_cast<DWORD>(time >> 32U)};
    };
    const FILETIME times[] = {timeOf(creation), timeOf(access), timeOf(modification)};
    const auto unlessZero = [&](size_t index, uint64_t time) { return time != 0 ? &times[index] : nullptr; };
    const bool isSet =
        SetFileTime(file, unlessZero(0, creation), unlessZero(1, access), unlessZero(2, modification)) != 0;
    const int error = isSet ? 0 : LastErrorNumber();
    CloseHandle(file);
    return error;
}

unsigned long ProcessNumber() {
    return GetCurrentProcessId();
}
