#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "agent/VolumeSet.h"

// The volume dump of the disks of a set, made by the core's rules.
class CCatalogDump {
public:
    // Writes the dump of `disks`, whose streams have blocks of `blockSectors`, to `path`. False where the core can't
    // make one of these disks: the set's own layouts tell all that it would.
    bool Write(CVolumeSet& disks, const std::vector<uint32_t>& blockSectors, const std::string& path);

    // True where the dump leads to the same bytes of the set as the layout of `volume`.
    bool Covers(const CVolumeSet& disks, const VolumeInfo_t& volume) const;

private:
    std::vector<LVM_Volume_t> m_Volumes;
};
