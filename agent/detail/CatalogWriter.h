#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/BackupSetWriter.h"
#include "agent/VolumeSet.h"
#include "foundation/ZuError.h"

struct CatalogOptions_t {
    std::vector<uint32_t> blockSectors;  // of the streams of each disk, by disk
    bool isFlattened = false;            // the disks are in the set as they read through their chains
    int compressionLevel = DefaultCompression;
};

struct CatalogResult_t {
    uint64_t volumes = 0;
    uint64_t files = 0;
    std::vector<std::string> problems;  // what isn't in the catalogue, and why
    std::vector<std::string> warnings;
};

// Collects into a backup set what lets a machine without the disks list and restore the files of the NTFS volumes on
// them. What of a volume can't be read is told of in the result. `disks` are those of the set, in its order.
CZuError CollectCatalog(CVolumeSet& disks, CBackupSetWriter& set, const CatalogOptions_t& options,
                        CatalogResult_t& result);
