#include "agent/detail/StagedFile.h"

#include <atomic>
#include <system_error>
#include <utility>

#include "agent/ErrorText.h"
#include "foundation/ZuFile.h"
#include "foundation/detail/ErrorHandling.h"
#include "platform/FileSystem.h"

namespace {

CZuError RefuseExisting(const std::string& target, bool replacing) {
    std::error_code failed;  // what can't be looked at shows itself when the file is made, but for its name
    const std::filesystem::file_status status = std::filesystem::symlink_status(target, failed);
    if (failed == std::errc::filename_too_long)
        return Refusal(target + ": " + failed.message());
    if (!std::filesystem::exists(status))
        return CZuError();
    if (!std::filesystem::is_regular_file(status))
        return Refusal(target + ": exists and is no regular file; give another target");
    if (!replacing)
        return Refusal(target + ": exists already; give another target, or --force to overwrite it");
    return CZuError();
}

CZuError SyncFile(const std::string& name) {
    CZuFile file;
    ZU_RETURN_IF_ERROR(file.Open(name.c_str(), OpenAsBinary | OpenNotInherited | OpenForBoth, 0));
    ZU_RETURN_IF_ERROR(file.Sync());
    return file.Close();
}

}  // namespace

std::filesystem::path DirectoryOf(const std::string& name) {
    const std::filesystem::path directory = std::filesystem::path(name).parent_path();
    return directory.empty() ? "." : directory;
}

// Hidden, and told apart from those of other processes and of other files of this one. Process numbers
// come again, so a killed process may have left a file of the same name. A long target leaves no
// room for the rest: the beginning is enough to recognise it.
std::string TemporaryNameFor(const std::string& target) {
    static std::atomic<unsigned> counter{0};
    constexpr size_t mostKept = 64;
    const std::string beginning = "." + std::filesystem::path(target).filename().string().substr(0, mostKept) +
                                  ".diskstream-" + std::to_string(ProcessNumber()) + "-";
    for (;;) {
        const std::filesystem::path path = DirectoryOf(target) / (beginning + std::to_string(counter++) + ".partial");
        std::error_code ignored;  // what can't be looked at shows itself when the file is made
        if (!std::filesystem::exists(std::filesystem::symlink_status(path, ignored)))
            return path.string();
    }
}

bool IsSameFile(const std::string& left, const std::string& right) {
    std::error_code ignored;  // what isn't there is no other file's name
    return std::filesystem::equivalent(left, right, ignored);
}

CStagedFile::CStagedFile(CStagedFile&& other) noexcept
    : m_Target(std::move(other.m_Target)), m_TemporaryName(std::exchange(other.m_TemporaryName, std::string())),
      m_IsReplacing(other.m_IsReplacing) {}

CStagedFile::~CStagedFile() {
    std::error_code ignored;  // a name that nobody asked for is all that is left behind
    if (!m_TemporaryName.empty())
        std::filesystem::remove(m_TemporaryName, ignored);
}

CZuError CStagedFile::Begin(const std::string& target, bool replacing) {
    std::error_code ignored;  // a directory that can't be looked at can't be written to either
    if (!std::filesystem::is_directory(DirectoryOf(target), ignored))
        return Refusal(target + ": its directory doesn't exist");
    if (std::filesystem::path(target).filename().empty())
        return Refusal(target + ": is no name for a file");
    ZU_RETURN_IF_ERROR(RefuseExisting(target, replacing));
    m_Target = target;
    m_TemporaryName = TemporaryNameFor(target);
    m_IsReplacing = replacing;
    return CZuError();
}

CZuError CStagedFile::Sync() {
    ZU_RETURN_IF_ERROR(ErrorAt(m_Target, SyncFile(m_TemporaryName)));
    m_IsSynced = true;
    return CZuError();
}

CZuError CStagedFile::Commit() {
    if (!m_IsSynced)
        ZU_RETURN_IF_ERROR(Sync());
    ZU_RETURN_IF_ERROR(ErrorAt(m_Target, SystemFailure(RenameFile(m_TemporaryName, m_Target, m_IsReplacing))));
    m_TemporaryName.clear();
    ZU_RETURN_IF_ERROR(ErrorAt(m_Target, SystemFailure(SyncDirectory(DirectoryOf(m_Target).string()))));
    return CZuError();
}

CZuError CStagedFile::SetSize(uint64_t sizeBytes) {
    CZuFile file;
    ZU_RETURN_IF_ERROR(file.Open(m_TemporaryName.c_str(), OpenAsBinary | OpenNotInherited | OpenForBoth, 0));
    ZU_RETURN_IF_ERROR(file.Truncate(static_cast<int64_t>(sizeBytes)));
    return file.Close();
}
