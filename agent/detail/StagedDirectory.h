#pragma once

#include <string>

#include "foundation/ZuError.h"

// A directory that is filled under a name of its own beside its place, and gets its final name when it is whole and on
// the medium. Until then a failure or the destructor leaves nothing behind.
class CStagedDirectory {
public:
    CStagedDirectory() = default;
    CStagedDirectory(const CStagedDirectory&) = delete;
    CStagedDirectory& operator=(const CStagedDirectory&) = delete;
    ~CStagedDirectory();

    // Makes the directory. Fails when `target` exists, or when the directory around it doesn't.
    CZuError Begin(const std::string& target);

    const std::string& TemporaryName() const { return m_TemporaryName; }

    CZuError Commit();

private:
    std::string m_Target;
    std::string m_TemporaryName;  // empty when there is nothing to remove
};
