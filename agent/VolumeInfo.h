#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "agent/PartitionTable.h"
#include "platform/Export.h"

// What makes a volume: a partition table or none, or one of the volume managers.
enum class VolumeManager_t { None, DynamicDisks, Lvm2 };

// A disk that a volume lies on and that isn't among those given.
struct MissingDisk_t {
    std::string id;    // the disk's GUID, or the id of an LVM2 physical volume
    std::string name;  // by which the volume's records call it
};

// One volume, and where it comes from.
struct VolumeInfo_t {
    std::string name;  // by which it is asked for
    PartitionScheme_t scheme = PartitionScheme_t::None;
    VolumeManager_t manager = VolumeManager_t::None;
    uint32_t partition = 0;  // the number of the partition that it is; 0 for any other volume
    std::string typeName;    // for people
    std::string label;       // that a GPT, or its volume manager, has for it
    std::string group;       // its disk group or volume group
    std::string guid;        // for an LVM2 volume its id
    std::string fileSystem;  // empty for none that is known
    uint64_t startSector = 0;
    uint64_t sectors = 0;
    bool isActive = true;     // of a dynamic volume: its manager has it in use
    bool isInternal = false;  // a part of other volumes, which its volume manager doesn't show
    LVM_Volume_t layout;
    std::vector<LVM_Volume_t> mirrors;   // other copies of the same bytes
    std::vector<MissingDisk_t> missing;  // with all of its disks none
    std::string problem;                 // why it can't be read; empty where it can
};

// "none", "mbr", "gpt", "ldm" or "lvm2".
DISKSTREAM_EXPORT const char* SchemeName(const VolumeInfo_t& volume);
