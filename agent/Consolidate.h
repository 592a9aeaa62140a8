#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/BlockCodec.h"
#include "agent/Progress.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

struct ConsolidateOptions_t {
    std::vector<std::string> bases;  // see `CBackupSetReader::OpenBases`
    bool force = false;              // a set that stands at the target is replaced
    ProgressCallback_t progress;
};

struct ConsolidateResult_t {
    uint64_t setCount = 0;  // the set and those on which it builds
    uint64_t blockCount = 0;
    uint64_t storedBytes = 0;  // that the blocks take in the new set
    uint64_t setBytes = 0;     // the new set's file
};

// Makes the new backup set `target` hold all that `set` has together with the sets on which it builds, so that it needs
// none. Every block is proved before it is taken over, and keeps its encoding. The new set is of the same time.
[[nodiscard]] DISKSTREAM_EXPORT CZuError ConsolidateSet(const std::string& set, const std::string& target,
                                                        const ConsolidateOptions_t& options,
                                                        ConsolidateResult_t& result);
