#pragma once

#include <cstdint>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"

// What `CHardDiskReader` has open, whatever its product.
class IOpenHardDisk {
public:
    IOpenHardDisk() = default;
    IOpenHardDisk(const IOpenHardDisk&) = delete;
    IOpenHardDisk& operator=(const IOpenHardDisk&) = delete;
    virtual ~IOpenHardDisk() = default;

    virtual CZuError Read(uint64_t offset, char* buffer, uint32_t length) = 0;

    // The sectors from `sector` on, at most `mostSectors`, that nothing holds; 0 where that can't be
    // told.
    virtual uint64_t CountHoleSectors(uint64_t sector, uint64_t mostSectors) = 0;

    virtual CZuError DumpSparseInfo(CZuFile& out, const std::vector<HardDiskDumpInfo_t>& infos) = 0;

    // True for a disk that is one volume, without a partition table.
    virtual bool IsSingleVolume() const = 0;
};
