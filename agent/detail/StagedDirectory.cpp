#include "agent/detail/StagedDirectory.h"

#include <filesystem>
#include <system_error>

#include "agent/ErrorText.h"
#include "agent/detail/StagedFile.h"
#include "foundation/detail/ErrorHandling.h"
#include "platform/FileSystem.h"

CStagedDirectory::~CStagedDirectory() {
    std::error_code ignored;  // a name that nobody asked for is all that is left behind
    if (!m_TemporaryName.empty())
        std::filesystem::remove_all(m_TemporaryName, ignored);
}

CZuError CStagedDirectory::Begin(const std::string& target) {
    std::error_code failed;
    if (std::filesystem::exists(std::filesystem::symlink_status(target, failed)))
        return Refusal(target + ": exists already; give another target");
    m_Target = target;
    const std::string name = TemporaryNameFor(target);
    if (!std::filesystem::create_directory(name, failed))
        return Refusal(target + ": can't be made: " + failed.message());
    m_TemporaryName = name;
    return CZuError();
}

CZuError CStagedDirectory::Commit() {
    int error = SyncFileSystem(m_TemporaryName);
    // What may have come there since `Begin` is replaced only where it is an empty directory.
    if (error == 0)
        error = RenameFile(m_TemporaryName, m_Target, true);
    if (error != 0)
        return ErrorAt(m_Target, SystemFailure(error));
    m_TemporaryName.clear();
    const std::filesystem::path around = std::filesystem::path(m_Target).parent_path();
    return ErrorAt(m_Target, SystemFailure(SyncDirectory(around.empty() ? "." : around.string())));
}
