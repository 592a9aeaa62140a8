#pragma once

#include <cstdint>
#include <string>

#include "agent/INtfsFiles.h"
#include "agent/Progress.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

// Writes the backup stream of a file to `target`, which gets its name when it is whole.
[[nodiscard]] DISKSTREAM_EXPORT CZuError ExportBackupStream(INtfsFiles& volume, uint64_t frn, const std::string& target,
                                                            bool isReplacing, const ProgressCallback_t& progress);
