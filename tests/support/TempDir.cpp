#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

#include "platform/Files.h"
#include "platform/SystemFiles.h"

namespace {

namespace fs = std::filesystem;

std::string MakeDirectory() {
    std::random_device random;
    const std::string prefix = (fs::temp_directory_path() / "diskstream-test-").string();
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string path = prefix + std::to_string(random()) + "-" + std::to_string(random());
        if (fs::create_directory(path))
            return path;
    }
    throw std::runtime_error("no temporary directory can be made at " + prefix);
}

}  // namespace

CTempDir::CTempDir() : m_Path(MakeDirectory()) {}

CTempDir::~CTempDir() {
    std::error_code failed;
    fs::remove_all(m_Path, failed);
    // On Windows an open file can't be removed: the test has lost one.
    EXPECT_FALSE(failed) << m_Path << ": " << failed.message();
}

std::string CTempDir::File(const std::string& name) const {
    return (fs::path(m_Path) / name).string();
}

std::string CTempDir::Write(const std::string& name, std::string_view bytes) const {
    WriteFileBytes(File(name), bytes);
    return File(name);
}

std::string CTempDir::WriteHole(const std::string& name, uint64_t sizeBytes) const {
    Write(name, {});
    ResizeFile(File(name), sizeBytes);
    return File(name);
}

std::string CTempDir::Read(const std::string& name) const {
    return ReadFileBytes(File(name));
}

std::string CTempDir::ReadText(const std::string& name) const {
    std::ifstream file(File(name));
    EXPECT_TRUE(file.is_open()) << name;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<std::string> CTempDir::Entries() const {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(m_Path))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string ReadFileBytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void WriteFileBytes(const std::string& path, std::string_view bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.flush();
    EXPECT_TRUE(file.good()) << path;
}

// The standard library wants room for what will be a hole.
void ResizeFile(const std::string& path, uint64_t sizeBytes) {
    IFiles& files = SystemFiles();
    int fd = -1;
    ASSERT_EQ(0, files.Open(path.c_str(), OpenAsBinary | OpenForBoth, 0, fd)) << path;
    EXPECT_EQ(0, files.Truncate(fd, static_cast<int64_t>(sizeBytes))) << path << ": " << sizeBytes;
    EXPECT_EQ(0, files.Close(fd)) << path;
}
