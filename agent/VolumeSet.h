#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "agent/PartitionTable.h"
#include "agent/WholeDisk.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

// One volume, and where it comes from.
struct VolumeInfo_t {
    std::string name;  // by which it is asked for
    PartitionScheme_t scheme = PartitionScheme_t::None;
    uint32_t partition = 0;  // the number of the partition that it is; 0 for a whole disk
    std::string typeName;    // for people
    std::string label;       // that a GPT has for it
    std::string guid;
    std::string fileSystem;  // empty for none that is known
    uint64_t startSector = 0;
    uint64_t sectors = 0;
    LVM_Volume_t layout;
};

// A partition as a volume of its own, and a whole disk, on the disk of that index. Both are named after
// their place.
DISKSTREAM_EXPORT VolumeInfo_t PartitionVolume(const PartitionInfo_t& partition, uint32_t diskIndex);
DISKSTREAM_EXPORT VolumeInfo_t WholeDiskVolume(const CWholeDisk& disk, uint32_t diskIndex);

// The disks given and the volumes on them. One thread at a time.
//
// NTFS volumes have the names that the core gives them: "Volume1", "Volume2" and so on, in the order
// of the disks and of their tables. Others are named after their place: "Disk1Partition2", or "Disk1"
// for a whole disk.
class DISKSTREAM_EXPORT CVolumeSet {
public:
    CZuError Open(const std::vector<std::string>& paths, const ImageOptions_t& options);

    const std::vector<std::unique_ptr<CWholeDisk>>& Disks() const { return m_Disks; }
    const std::vector<PartitionTable_t>& Tables() const { return m_Tables; }  // by disk
    const std::vector<VolumeInfo_t>& Volumes() const { return m_Volumes; }
    std::vector<std::string> Warnings() const;

    // Null for a name that no volume has.
    const VolumeInfo_t* Find(const std::string& name) const;

    // Reads `length` bytes at byte `offset` of `volume`, across every boundary of its layout.
    CZuError Read(const VolumeInfo_t& volume, uint64_t offset, void* buffer, uint32_t length);

private:
    void AddVolumes(uint32_t diskIndex);
    void AddWholeDisk(uint32_t diskIndex);
    void AddPartition(uint32_t diskIndex, const PartitionInfo_t& partition);
    void AddVolume(VolumeInfo_t volume, uint32_t diskIndex, bool isNamedByCore);

    std::vector<std::unique_ptr<CWholeDisk>> m_Disks;
    std::vector<PartitionTable_t> m_Tables;
    std::vector<VolumeInfo_t> m_Volumes;
    unsigned m_NextNumber = 1;
};
