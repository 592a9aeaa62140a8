#include "platform/ProcessDirectory.h"

#include <filesystem>

#include "platform/PrivateDirectory.h"

namespace {

class COwnedDirectory {
public:
    COwnedDirectory() : m_Path(MakePrivateDirectory()) {}
    COwnedDirectory(const COwnedDirectory&) = delete;
    COwnedDirectory& operator=(const COwnedDirectory&) = delete;
    ~COwnedDirectory() {
        std::error_code ignored;  // at exit there is nobody left to tell
        if (!m_Path.empty())
            std::filesystem::remove_all(m_Path, ignored);
    }

    const std::string& Path() const { return m_Path; }

private:
    std::string m_Path;
};

}  // namespace

std::string ProcessDirectory() {
    static const COwnedDirectory directory;
    return directory.Path();
}
