#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/INtfsFiles.h"
#include "agent/Progress.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

struct NtfsCopy_t {
    bool isRecursive = false;   // needed for a directory
    bool isReplacing = false;   // a file may stand at the target
    bool withMetadata = false;  // the files that make the volume itself too
    ProgressCallback_t progress{};

    // Filled.
    uint64_t files = 0;
    uint64_t directories = 0;
    uint64_t bytes = 0;
    std::vector<std::string> problems{};  // what wasn't copied, and why
};

// Copies the contents and times of the file at `path`, or of the whole tree below it, to `target`, or into it where it
// is a directory. The target gets its name when all is written: a failure or a cancelled copy leaves nothing behind.
//
// Of a tree what can't be read is left out and told of in `problems`: encrypted files, links, files whose contents are
// kept elsewhere, names that this system has no room for. Named streams and descriptors aren't copied.
[[nodiscard]] DISKSTREAM_EXPORT CZuError CopyFromNtfs(INtfsFiles& volume, const std::string& path,
                                                      const std::string& target, NtfsCopy_t& copy);
