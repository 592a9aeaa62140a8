#pragma once

#include "foundation/ZuString.h"
#include "platform/Export.h"

// Paths as texts, with both separators known on every system.
class DISKSTREAM_EXPORT CZuPath {
public:
    // The directory that holds `path`: "." for a bare name or nothing, the root for what lies in it.
    static CZuString GetParent(const char* path);
};
