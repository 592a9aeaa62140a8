#pragma once

#include <cstdint>

#include "foundation/ZuError.h"

// The clusters of an NTFS volume, wherever they come from.
class IClusterSource {
public:
    IClusterSource() = default;
    IClusterSource(const IClusterSource&) = delete;
    IClusterSource& operator=(const IClusterSource&) = delete;
    virtual ~IClusterSource() = default;

    virtual uint32_t ClusterBytes() const = 0;

    // Reads `size` bytes, `skip` bytes behind the start of cluster `lcn`.
    virtual CZuError ReadClusters(uint64_t lcn, uint64_t skip, char* buffer, uint32_t size) = 0;
};
