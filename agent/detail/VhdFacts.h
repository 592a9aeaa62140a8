#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "VirtualServer/VMInfo/VHDFormat.h"
#include "foundation/ZuError.h"

// What the footer and the header of a VHD file tell, and whether the core would read it rightly.
struct VhdFacts_t {
    DiskType_t diskType = NoDiskType;
    uint64_t diskSectors = 0;
    uint64_t fileBytes = 0;
    VHD_FOOTER_t footer{};
    VHD_DYNAMIC_HEADER_t header{};  // of a dynamic or differencing disk
    VhdBlockShape_t shape;          // the same
    std::string uniqueId;
    std::string parentUniqueId;            // of a differencing disk
    std::vector<std::string> parentNames;  // the same: as the file has them, best first
    std::vector<std::string> warnings;
};

// Refuses, by name, what the core would read wrongly without noticing: blocks of other layouts than
// its own, a table that is too short for the disk, a file that is too short for its disk. A wrong
// checksum is a warning: some tools leave one behind.
CZuError ReadVhdFacts(const std::string& path, VhdFacts_t& facts);

// The disk type of a footer's type; none for one that nobody knows.
DiskType_t DiskTypeOfVhd(uint32_t footerType);
