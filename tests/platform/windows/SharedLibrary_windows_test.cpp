#include "platform/SharedLibrary.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <string>

#include "tests/support/TempDir.h"

namespace {

namespace fs = std::filesystem;

fs::path BesideTheProgram(const wchar_t* name) {
    wchar_t program[MAX_PATH] = {};
    EXPECT_NE(0U, GetModuleFileNameW(nullptr, program, MAX_PATH));
    return fs::path(program).parent_path() / name;
}

// The current directory for as long as the object lives.
class CWorkingIn {
public:
    explicit CWorkingIn(const fs::path& directory) : m_Before(fs::current_path()) { fs::current_path(directory); }
    CWorkingIn(const CWorkingIn&) = delete;
    CWorkingIn& operator=(const CWorkingIn&) = delete;
    ~CWorkingIn() { fs::current_path(m_Before); }

private:
    fs::path m_Before;
};

TEST(SharedLibraryOnWindows, IsNotLoadedFromTheCurrentDirectory) {
    const CTempDir dir;
    const fs::path copy = fs::path(dir.Path()) / L"Libplanted.dll";
    fs::copy_file(BesideTheProgram(L"Libtreestore.dll"), copy);
    const CWorkingIn there(dir.Path());
    CSharedLibrary library;
    EXPECT_EQ(static_cast<unsigned long>(ERROR_MOD_NOT_FOUND), library.Load("planted"));
    EXPECT_FALSE(library.IsLoaded());

    const HMODULE module = LoadLibraryW(copy.c_str());
    EXPECT_NE(nullptr, module) << "there is nothing wrong with the library itself";
    FreeLibrary(module);
}

TEST(SharedLibraryOnWindows, WithoutItTheNamesOfTheProgramItselfAreNotFound) {
    const CSharedLibrary library;
    void* address = nullptr;
    ASSERT_NE(nullptr, GetProcAddress(GetModuleHandleW(nullptr), "diskstreamTestOfTheProgram"));
    EXPECT_EQ(static_cast<unsigned long>(ERROR_MOD_NOT_FOUND), library.Find("diskstreamTestOfTheProgram", address));
    EXPECT_EQ(nullptr, address);
}

}  // namespace

// Exported, so that who asks the program for it gets it.
extern "C" __declspec(dllexport) int diskstreamTestOfTheProgram() {
    return 1;
}
