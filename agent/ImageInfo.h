#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/DiskImage.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

// What a sparse extent's tables tell.
struct SparseInfoSummary_t {
    uint64_t grainSectors = 0;
    uint64_t grainCount = 0;  // that the file holds
    bool canBeMadeAgain = true;
};

struct ExtentInfo_t {
    DiskExtent_t extent;
    std::optional<SparseInfoSummary_t> sparse;  // absent for a flat extent
};

struct ImageInfo_t {
    DiskType_t diskType = NoDiskType;
    uint64_t diskSectors = 0;
    bool hasParent = false;
    std::string parentName;
    std::vector<ExtentInfo_t> extents;
    std::vector<std::string> files;  // that belong to the image beside its extents
};

// Looks at a disk image: its headers, descriptor and tables, none of its blocks.
[[nodiscard]] DISKSTREAM_EXPORT CZuError DescribeImage(const std::string& image, const ImageOptions_t& options,
                                                       ImageInfo_t& info);
