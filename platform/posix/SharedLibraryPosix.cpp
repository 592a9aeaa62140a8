#include <dlfcn.h>

#include <cerrno>
#include <string>

#include "platform/SharedLibrary.h"

namespace {

// Where the code that asks lies, with a slash behind it; empty when the loader doesn't say.
std::string OwnDirectory() {
    static const int place = 0;
    Dl_info info{};
    if (dladdr(&place, &info) == 0 || info.dli_fname == nullptr)
        return "";
    const std::string name = info.dli_fname;
    return name.substr(0, name.rfind('/') + 1);
}

}  // namespace

// The loader has texts and no numbers: a library that doesn't load isn't there, as far as callers can tell.
unsigned long CSharedLibrary::Load(const char* name) {
    Free();
    const std::string file = std::string("lib") + name + ".so";
    m_Handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    const std::string directory = OwnDirectory();
    if (m_Handle == nullptr && !directory.empty())
        m_Handle = dlopen((directory + file).c_str(), RTLD_NOW | RTLD_LOCAL);
    return m_Handle != nullptr ? 0 : ENOENT;
}

unsigned long CSharedLibrary::Find(const char* symbol, void*& address) const {
    address = m_Handle != nullptr ? dlsym(m_Handle, symbol) : nullptr;
    return address != nullptr ? 0 : ENOSYS;
}

void CSharedLibrary::Free() {
    if (m_Handle != nullptr)
        dlclose(m_Handle);
    m_Handle = nullptr;
}
