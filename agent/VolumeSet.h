#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "agent/PartitionTable.h"
#include "agent/VolumeInfo.h"
#include "agent/WholeDisk.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

// A partition as a volume of its own, and a whole disk, on the disk of that index. Both are named after
// their place.
DISKSTREAM_EXPORT VolumeInfo_t PartitionVolume(const PartitionInfo_t& partition, uint32_t diskIndex);
DISKSTREAM_EXPORT VolumeInfo_t WholeDiskVolume(const CWholeDisk& disk, uint32_t diskIndex);

class CDynamicGroups;
class CLvm2Groups;
class CVolumeReader;

// The disks given and the volumes on them. One thread at a time.
//
// NTFS partitions and the active volumes of dynamic disks have the names that the core gives them:
// "Volume1", "Volume2" and so on, in the order of the disks and of their tables and databases. A
// logical volume of LVM2 is named after its group and itself, "group-volume". Others are named after
// their place: "Disk1Partition2", or "Disk1" for a whole disk. A name that is taken already gets a
// number behind it.
class DISKSTREAM_EXPORT CVolumeSet {
public:
    CVolumeSet();
    CVolumeSet(const CVolumeSet&) = delete;
    CVolumeSet& operator=(const CVolumeSet&) = delete;
    ~CVolumeSet();

    CZuError Open(const std::vector<std::string>& paths, const ImageOptions_t& options);

    const std::vector<std::unique_ptr<CWholeDisk>>& Disks() const { return m_Disks; }
    const std::vector<PartitionTable_t>& Tables() const { return m_Tables; }  // by disk
    const std::vector<VolumeInfo_t>& Volumes() const { return m_Volumes; }
    std::vector<std::string> Warnings() const;

    // Null for a name that no volume has.
    const VolumeInfo_t* Find(const std::string& name) const;

    // Reads `length` bytes at byte `offset` of `volume`, across every boundary of its layout. What a disk
    // doesn't give comes from a mirror's other half, or from the other disks of a RAID-5 volume.
    CZuError Read(const VolumeInfo_t& volume, uint64_t offset, void* buffer, uint32_t length);

private:
    void AddVolumes(uint32_t diskIndex, CDynamicGroups& groups, CLvm2Groups& lvm2);
    void AddDynamicVolumes(uint32_t diskIndex, CDynamicGroups& groups);
    void AddLvm2Volumes(CLvm2Groups& groups);
    void AddWholeDisk(uint32_t diskIndex);
    void AddPartition(uint32_t diskIndex, const PartitionInfo_t& partition);
    void AddPlainVolume(VolumeInfo_t volume, uint32_t diskIndex, bool isNamedByCore);
    void AddManagedVolume(VolumeInfo_t volume);
    std::string UniqueName(const std::string& name) const;

    class CDisks;

    std::vector<std::unique_ptr<CWholeDisk>> m_Disks;
    std::unique_ptr<CDisks> m_DiskBytes;  // of `m_Disks`
    std::unique_ptr<CVolumeReader> m_Reader;
    std::vector<PartitionTable_t> m_Tables;
    std::vector<VolumeInfo_t> m_Volumes;
    std::set<std::string> m_Names;
    std::vector<std::string> m_Warnings;  // of the volume managers
    unsigned m_NextNumber = 1;
};
