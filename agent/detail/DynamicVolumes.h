#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "agent/VolumeInfo.h"
#include "agent/WholeDisk.h"
#include "agent/detail/DynamicDatabase.h"

// The dynamic disks of a set, and the volumes of their disk groups. Every disk is added before the
// volumes are taken.
class CDynamicGroups {
public:
    // False, and nothing done, for a disk that isn't dynamic. One that is, but whose database can't be
    // read, is one with a warning.
    bool AddDisk(CWholeDisk& disk, uint32_t diskIndex);

    // Appends the volumes of the disk's group, in the order of its newest database, unless an earlier
    // disk gave them. Without names.
    void TakeVolumes(uint32_t diskIndex, std::vector<VolumeInfo_t>& volumes);

    const std::vector<std::string>& Warnings() const { return m_Warnings; }

private:
    struct Member_t {
        std::string path;
        DynamicDisk_t dynamic;
    };

    void WarnOfTwin(const Member_t& member);

    // The newest of a group's databases: that of the disk of this index.
    uint32_t NewestOf(const Member_t& member);

    std::map<uint32_t, Member_t> m_Disks;  // by index
    std::vector<std::string> m_GroupsTaken;
    std::vector<std::string> m_Warnings;
};
