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
    wchar_t name[MAX_PATH] = {};
    if (GetModuleHandleExW(flags, reinterpret_cast<const wchar_t*>(&place), &module) == 0 ||
        GetModuleFileNameW(module, name, MAX_PATH) == 0)
        return L"";
    const std::wstring path = name;
    return path.substr(0, path.rfind(L'\\') + 1);
}

}  // namespace

unsigned long CSharedLibrary::Load(const char* name) {
    Free();
    const std::wstring file = L"Lib" + WideFromUtf8(name) + L".dll";
    HMODULE module = LoadLibraryW(file.c_str());
    const std::wstring directory = OwnDirectory();
    if (module == nullptr && !directory.empty())
        module = LoadLibraryW((directory + file).c_str());
    m_Handle = module;
    return module != nullptr ? 0 : GetLastError();
}

unsigned long CSharedLibrary::Find(const char* symbol, void*& address) const {
    address = reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(m_Handle), symbol));
    return address != nullptr ? 0 : GetLastError();
}

void CSharedLibrary::Free() {
    if (m_Handle != nullptr)
        FreeLibrary(static_cast<HMODULE>(m_Handle));
    m_Handle = nullptr;
}
