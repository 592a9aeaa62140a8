#pragma once

#include <string>

#include "platform/Export.h"

// The settings. A key of a section is looked for in the environment first, as
// DISKSTREAM_<section>_<key> with the letters as they stand, then in the settings file: lines of
// `[section]` and `key = value`, "#" or ";" in front of a comment. The environment's
// DISKSTREAM_CONFIG names that file, else it is the system's usual one (/etc/diskstream.conf).
class DISKSTREAM_EXPORT HBPlatformInfo {
public:
    // Non-zero when the key exists and `value` was set. A number is decimal, or hexadecimal behind
    // 0x; a text that is no number counts as absent.
    static int getNumber(const char* section, const char* key, unsigned long* value);

    // Non-zero when the key exists and `value` was set. Where nothing sets `dORBISTEMPDIR` of
    // section "Base", the answer is a directory of this process alone that is removed at exit.
    static int getString(const char* section, const char* key, std::string* value);
};
