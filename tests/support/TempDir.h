#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A directory of the test alone. It goes away at the end of the object with all that lies in it.
class CTempDir {
public:
    CTempDir();
    CTempDir(const CTempDir&) = delete;
    CTempDir& operator=(const CTempDir&) = delete;
    ~CTempDir();

    const std::string& Path() const { return m_Path; }

    // The path of `name` in the directory, whether the file exists or not.
    std::string File(const std::string& name) const;

    // Makes or replaces the file `name` with these bytes and returns its path.
    std::string Write(const std::string& name, std::string_view bytes) const;

    // Makes a file of `sizeBytes` zeros that takes no room on the disk, and returns its path.
    std::string WriteHole(const std::string& name, uint64_t sizeBytes) const;

    // All bytes of the file `name`. A file that can't be read fails the test.
    std::string Read(const std::string& name) const;

    // The same of text, whose lines end as this system ends them: each line feed stands alone.
    std::string ReadText(const std::string& name) const;

    // The names of what lies in the directory, sorted.
    std::vector<std::string> Entries() const;

private:
    std::string m_Path;
};

// The same for a path that isn't in such a directory.
std::string ReadFileBytes(const std::string& path);
void WriteFileBytes(const std::string& path, std::string_view bytes);

// Cuts the file off, or adds a hole to its end.
void ResizeFile(const std::string& path, uint64_t sizeBytes);
