#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/DiskImage.h"
#include "agent/Progress.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

struct VerifyOptions_t {
    std::optional<std::string> against;  // an image that should hold the same
    ImageOptions_t image;
    std::vector<std::string> bases;  // see `CBackupSetReader::OpenBases`
    std::optional<uint64_t> disk;    // the disk that the image should hold, from 1; needed where there are several
    ProgressCallback_t progress;
};

struct VerifyResult_t {
    uint64_t blockCount = 0;
    uint64_t plainBytes = 0;
    uint64_t differenceCount = 0;          // of blocks and files, against the image
    std::vector<std::string> differences;  // the first of them
};

// Proves every byte of the backup set `set`, and of the sets on which it builds those that it has from them, and that
// the image holds the same as a disk of it where one is given. Differences are a result and no error: the set itself is
// sound.
[[nodiscard]] DISKSTREAM_EXPORT CZuError VerifySet(const std::string& set, const VerifyOptions_t& options,
                                                   VerifyResult_t& result);
