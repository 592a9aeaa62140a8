#pragma once

#include <filesystem>
#include <string>

#include "platform/PrivateDirectory.h"

// A directory of this process alone, which goes away with the object.
class CPrivateDirectory {
public:
    CPrivateDirectory() : m_Path(MakePrivateDirectory()) {}
    CPrivateDirectory(const CPrivateDirectory&) = delete;
    CPrivateDirectory& operator=(const CPrivateDirectory&) = delete;
    ~CPrivateDirectory() {
        std::error_code ignored;  // temporary files are all that is left
        if (IsMade())
            std::filesystem::remove_all(m_Path, ignored);
    }

    bool IsMade() const { return !m_Path.empty(); }
    const std::string& Path() const { return m_Path; }
    std::string File(const std::string& name) const { return m_Path + "/" + name; }

private:
    const std::string m_Path;
};
