#include <dlfcn.h>
#include <link.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

#include "platform/SharedLibrary.h"

namespace {

// The name of the shared library that this code is in, or of the program, which the loader knows by no name.
std::string OwnFile() {
    static const int place = 0;
    Dl_info info{};
    void* map = nullptr;
    if (dladdr1(&place, &info, &map, RTLD_DL_LINKMAP) == 0)
        return "";
    const std::string name = static_cast<const link_map*>(map)->l_name;
    if (!name.empty())
        return name;
    std::error_code ignored;  // without a name there is no directory to look in
    return std::filesystem::read_symlink("/proc/self/exe", ignored).string();
}

// Where that lies, with a slash behind it; empty when nobody says.
std::string OwnDirectory() {
    const std::string name = OwnFile();
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
