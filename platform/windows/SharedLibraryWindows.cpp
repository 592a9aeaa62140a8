#include <windows.h>

#include <string>

#include "platform/SharedLibrary.h"
#include "platform/windows/WideText.h"

namespace {

// Where the code that asks lies, with a backslash behind it; empty when the system doesn't say.
std::wstring OwnDirectory() {
    static const int place = 0;
    HMODULE module = nullptr;
    constexpr DWORD flags = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    if (GetModuleHandleExW(flags, reinterpret_cast<const wchar_t*>(&place), &module) == 0)
        return L"";
    constexpr DWORD longestPath = 32767;
    std::wstring path(longestPath, L'\0');
    path.resize(GetModuleFileNameW(module, path.data(), longestPath));
    return path.substr(0, path.rfind(L'\\') + 1);
}

// Looks where Windows and the program say, and in the library's own directory for what it needs in turn. By a plain
// LoadLibrary a library would come from the current directory as well, where anybody may have put it.
HMODULE LoadFrom(const std::wstring& file, DWORD places) {
    return LoadLibraryExW(file.c_str(), nullptr, places | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS);
}

}  // namespace

unsigned long CSharedLibrary::Load(const char* name) {
    Free();
    const std::wstring file = L"Lib" + WideFromUtf8(name) + L".dll";
    HMODULE module = LoadFrom(file, 0);
    const std::wstring directory = OwnDirectory();
    if (module == nullptr && !directory.empty())
        module = LoadFrom(directory + file, LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR);
    m_Handle = module;
    return module != nullptr ? 0 : GetLastError();
}

unsigned long CSharedLibrary::Find(const char* symbol, void*& address) const {
    // Without a library the system would look into the program itself.
    address = IsLoaded() ? reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(m_Handle), symbol)) : nullptr;
    if (address != nullptr)
        return 0;
    return IsLoaded() ? GetLastError() : ERROR_MOD_NOT_FOUND;
}

void CSharedLibrary::Free() {
    if (m_Handle != nullptr)
        FreeLibrary(static_cast<HMODULE>(m_Handle));
    m_Handle = nullptr;
}
