#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/Progress.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

struct RestoreOptions_t {
    bool asRaw = false;              // one raw image with holes, instead of the same files
    bool force = false;              // files that stand at the target are replaced
    bool allowOutside = false;       // files may go where the set's names lead, out of the target's directory
    std::optional<uint64_t> disk;    // which disk of the set, from 1; needed where there are several
    std::vector<std::string> bases;  // see `CBackupSetReader::OpenBases`
    std::optional<std::chrono::seconds> patience;  // how long a server may take, and a lost connection
    ProgressCallback_t progress;
};

struct RestoreResult_t {
    std::vector<std::string> files;  // in the order in which they got their names
    uint64_t diskBytes = 0;
    uint64_t blockCount = 0;
    uint64_t writtenBytes = 0;  // blocks of zeros are left as holes
    std::vector<std::string> warnings;
};

// Restores a disk of the backup set `set` to `target`: the image's main file, or a directory that gets it
// under its own name; the image's other files go beside it. Every block is proved before it is
// written. The files get their names when all are whole and on the medium; until then nothing
// stands or changes at the target.
//
// A raw image may go to a block device, or to an export of the disk's size, named by its URI, as well, if `force` is
// set: those are overwritten in place, so a failure leaves them half written. A disk that a server exported is a raw
// image.
[[nodiscard]] DISKSTREAM_EXPORT CZuError RestoreDisk(const std::string& set, const std::string& target,
                                                     const RestoreOptions_t& options, RestoreResult_t& result);
