#pragma once

#include <cstdint>
#include <string>

#include "agent/VolumeInfo.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"

struct VolumePiece_t;

// The bytes of whole disks by their number, whatever holds them.
class IDiskBytes {
public:
    IDiskBytes() = default;
    IDiskBytes(const IDiskBytes&) = delete;
    IDiskBytes& operator=(const IDiskBytes&) = delete;
    virtual ~IDiskBytes() = default;

    virtual uint32_t DiskCount() const = 0;

    // Errors name the disk.
    virtual CZuError ReadDisk(uint32_t diskIndex, uint64_t offset, char* buffer, uint32_t length) = 0;
};

// Reads volumes across every boundary of their layout. What a disk doesn't give comes from a mirror's other half, or
// from the other disks of a RAID-5 volume.
class CVolumeReader {
public:
    // `disks` stays the caller's and outlives this.
    explicit CVolumeReader(IDiskBytes& disks) : m_Disks(disks) {}

    CZuError Read(const VolumeInfo_t& volume, uint64_t offset, char* buffer, uint32_t length);

private:
    CZuError ReadPiece(const VolumeInfo_t& volume, uint64_t offset, char* target, uint32_t mostBytes, uint32_t& bytes);
    CZuError ReadCopy(const std::string& name, const LVM_Volume_t& layout, uint64_t offset, char* target,
                      uint32_t mostBytes, uint32_t& bytes);
    CZuError ReadComponent(const std::string& name, const LVM_Component_t& component, uint64_t inComponent,
                           char* target, uint32_t bytes);
    CZuError RebuildPiece(const std::string& name, const VolumePiece_t& piece, char* target);

    IDiskBytes& m_Disks;
    CAutoMemory<char> m_Scratch;  // of another column's bytes
};
