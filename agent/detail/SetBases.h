#pragma once

#include <memory>
#include <string>
#include <vector>

#include "agent/BackupSetReader.h"

// Finds and opens the set on which `set` builds, as `CBackupSetReader::OpenBases` says, but not that one's own base.
CZuError FindSetBase(const CBackupSetReader& set, const std::vector<std::string>& places,
                     std::unique_ptr<CBackupSetReader>& base);
