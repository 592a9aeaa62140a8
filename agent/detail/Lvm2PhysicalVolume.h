#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/WholeDisk.h"

// A physical volume of LVM2, as its label and its metadata areas tell.
struct Lvm2PhysicalVolume_t {
    std::string id;                  // 32 characters
    std::vector<std::string> texts;  // of the metadata areas whose texts are whole
    std::vector<std::string> warnings;
};

// True when the slice of `sectors` sectors from `startSector` on is a physical volume: one of its first
// four sectors holds a label with the right checksum. A metadata area that is damaged is a warning.
// Warnings begin with `place`.
bool ReadLvm2PhysicalVolume(CWholeDisk& disk, const std::string& place, uint64_t startSector, uint64_t sectors,
                            Lvm2PhysicalVolume_t& volume);

// With the dashes that LVM2's own programs print.
std::string DashedLvm2Id(const std::string& id);
