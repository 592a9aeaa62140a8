#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "foundation/ZuError.h"

// Where the file of that name lies; "." where the name doesn't tell.
std::filesystem::path DirectoryOf(const std::string& name);

// True when both names lead to one file that is there.
bool IsSameFile(const std::string& left, const std::string& right);

// A name beside `target` that nothing has, for what becomes `target` when it is whole.
std::string TemporaryNameFor(const std::string& target);

// A file that is written under a name of its own beside its place and gets its final name when it
// is whole and on the medium. Until then a kill, a failure or the destructor leaves what stood
// under the final name as it was.
class CStagedFile {
public:
    CStagedFile() = default;
    CStagedFile(const CStagedFile&) = delete;
    CStagedFile& operator=(const CStagedFile&) = delete;
    CStagedFile(CStagedFile&& other) noexcept;
    CStagedFile& operator=(CStagedFile&&) = delete;
    ~CStagedFile();

    // Chooses the temporary name for `target`. Fails when `target` exists and isn't to be replaced
    // or is no regular file, or when its directory isn't there.
    CZuError Begin(const std::string& target, bool replacing);

    const std::string& TemporaryName() const { return m_TemporaryName; }
    const std::string& Target() const { return m_Target; }

    // Returns when the written file is on the medium. Of several files that belong together, all are
    // synced before the first is committed.
    CZuError Sync();

    // Syncs the written file where that isn't done, and gives it its final name.
    CZuError Commit();

    // Cuts or extends the written file, before `Sync`.
    CZuError SetSize(uint64_t sizeBytes);

private:
    std::string m_Target;
    std::string m_TemporaryName;  // empty when there is nothing to remove
    bool m_IsReplacing = false;
    bool m_IsSynced = false;
};
