#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/DiskImage.h"
#include "agent/Progress.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

// What to read of a set of disks.
struct ReadRange_t {
    std::optional<std::string> volume;  // by its name
    std::optional<uint32_t> partition;  // by its number, of one disk
    uint64_t offset = 0;                // bytes from the start of the volume, partition or disk
    std::optional<uint64_t> length;     // bytes; to the end unless given
    ProgressCallback_t progress;
};

// Takes bytes in their order; false ends the reading.
using TakeBytes_t = std::function<bool(const char* bytes, uint32_t size)>;

// Reads a range of a volume, of a partition or, with neither, of the one disk. A range that leaves
// what it is of is refused before the first byte.
[[nodiscard]] DISKSTREAM_EXPORT CZuError ReadDiskRange(const std::vector<std::string>& disks,
                                                       const ImageOptions_t& options, const ReadRange_t& range,
                                                       const TakeBytes_t& take);
