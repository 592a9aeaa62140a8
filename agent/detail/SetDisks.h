#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/VHDFormat.h"
#include "agent/BackupSetReader.h"
#include "agent/detail/SetBlockCache.h"
#include "agent/detail/VolumeReader.h"
#include "foundation/ZuError.h"

// The disks of a backup set, read from its blocks. What the set has no block for is zeros.
class CSetDisks final : public IDiskBytes {
public:
    // `set` stays the caller's and outlives this.
    explicit CSetDisks(CBackupSetReader& set);

    uint32_t DiskCount() const override { return static_cast<uint32_t>(m_Disks.size()); }
    CZuError ReadDisk(uint32_t diskIndex, uint64_t offset, char* buffer, uint32_t length) override;

    // Reads from byte `inBlock` of a block, what it has in front of its data included.
    CZuError ReadBlock(const SetStream_t& stream, uint64_t number, uint64_t inBlock, char* buffer, uint32_t length);

private:
    struct Extent_t {
        const SetStream_t* stream = nullptr;
        uint64_t firstByte = 0;  // on the disk
        uint64_t bytes = 0;
        std::optional<VhdBlockShape_t> shape;  // of a stream whose blocks have bitmaps, once it is known
    };

    struct Disk_t {
        std::string name;
        std::vector<Extent_t> extents;
    };

    CZuError ReadExtent(Extent_t& extent, uint64_t offset, char* buffer, uint32_t length, uint32_t& done);
    CZuError ReadPlain(const Extent_t& extent, uint64_t offset, char* buffer, uint32_t length, uint32_t& done);
    CZuError ReadVhd(Extent_t& extent, uint64_t offset, char* buffer, uint32_t length, uint32_t& done);
    CZuError FindShape(Extent_t& extent);
    CZuError Lost(const SetStream_t& stream, uint64_t number) const;

    CBackupSetReader& m_Set;
    CSetBlockCache m_Cache;
    std::vector<Disk_t> m_Disks;
};
