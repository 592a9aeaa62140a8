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

// What the footer and the header of a VHD tell.
struct VhdInfoSummary_t {
    std::string uniqueId;
    std::string creator;      // four letters, as the file has them
    uint64_t blockBytes = 0;  // data bytes in a block; 0 for a fixed disk
    uint64_t blockCount = 0;  // that the file holds
    uint64_t tableEntries = 0;
};

// What the boot sector and the bitmap of an NTFS volume tell.
struct NtfsInfoSummary_t {
    uint32_t clusterBytes = 0;
    uint64_t clusterCount = 0;
    uint64_t usedClusters = 0;
};

struct ExtentInfo_t {
    DiskExtent_t extent;
    std::optional<SparseInfoSummary_t> sparse;  // of a sparse VMDK extent alone
    std::optional<VhdInfoSummary_t> vhd;        // of a VHD alone
    std::optional<NtfsInfoSummary_t> ntfs;      // of an NTFS volume alone
};

struct ImageInfo_t {
    DiskType_t diskType = NoDiskType;
    uint64_t diskSectors = 0;
    bool hasParent = false;
    ImageParent_t parent;  // of a link that has one
    std::vector<ExtentInfo_t> extents;
    std::vector<std::string> files;  // that belong to the image beside its extents
    std::vector<std::string> warnings;
};

// Looks at a disk image: its headers, descriptor and tables, none of its blocks.
[[nodiscard]] DISKSTREAM_EXPORT CZuError DescribeImage(const std::string& image, const ImageOptions_t& options,
                                                       ImageInfo_t& info);
