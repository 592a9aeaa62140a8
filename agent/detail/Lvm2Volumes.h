#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "agent/VolumeInfo.h"
#include "agent/WholeDisk.h"
#include "agent/detail/Lvm2Text.h"

// One physical volume as its group's metadata has it, and where it is.
struct Lvm2Place_t {
    std::string id;
    std::string device;  // by which it was known last
    uint64_t firstExtentSector = 0;
    uint32_t diskIndex = NoHardDisk;
    uint64_t startSector = 0;
    uint64_t sectors = 0;
};

using Lvm2PhysicalVolumes_t = std::map<std::string, Lvm2Place_t>;  // by name

// The physical volumes of a set of disks, and the logical volumes of their volume groups. Every slice is
// added before the volumes are taken.
class CLvm2Groups {
public:
    // False, and nothing done, for a slice that is no physical volume. Warnings begin with `place`.
    bool AddSlice(CWholeDisk& disk, uint32_t diskIndex, const std::string& place, uint64_t startSector,
                  uint64_t sectors);

    // Appends the logical volumes of all groups, named "group-volume", as their newest metadata tells.
    void TakeVolumes(std::vector<VolumeInfo_t>& volumes);

    // Those of `TakeVolumes` too.
    const std::vector<std::string>& Warnings() const { return m_Warnings; }

private:
    // Where a physical volume lies.
    struct Slice_t {
        uint32_t diskIndex = NoHardDisk;
        uint64_t startSector = 0;
        uint64_t sectors = 0;
        std::string place;
    };
    // The newest metadata of one group.
    struct Group_t {
        std::string place;  // whose metadata it is
        std::string text;
        uint64_t sequence = 0;
        Lvm2Block_t block;
        std::string problem;
    };

    void AddText(const std::string& place, std::string text);
    void AddGroup(const std::string& place, std::string text, Lvm2Block_t block);
    void TakeGroup(const Group_t& group, std::vector<VolumeInfo_t>& volumes) const;
    Lvm2PhysicalVolumes_t PhysicalVolumesOf(const Group_t& group) const;
    void WarnOfLoneSlices();
    void WarnOfOlder(const std::string& name, const std::string& older, const std::string& newer);

    std::map<std::string, Slice_t> m_Slices;  // by the physical volume's id
    std::map<std::string, Group_t> m_Groups;  // by the volume group's id
    std::vector<std::string> m_Warnings;
    uint64_t m_TextBytes = 0;
};
