#pragma once

#include <string>

#include "platform/Export.h"

// A pattern for names of files: `*` stands for any characters, `?` for one, everything else for itself, whatever its
// case. Text is UTF-8.
class DISKSTREAM_EXPORT CNamePattern {
public:
    explicit CNamePattern(const std::string& pattern);

    // True when the pattern stands for the whole of `name`.
    bool Matches(const std::string& name) const;

private:
    std::u16string m_Pattern;  // in upper case
};
