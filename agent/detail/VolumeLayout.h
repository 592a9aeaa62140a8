#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/VolumeInfo.h"

// Layouts of managed volumes, built soundly or not at all: the answer says in words what is unsound,
// and is empty for a layout that can be relied on.

// Appends the pieces, by their places in the volume, which have to follow each other from sector 0 on.
[[nodiscard]] std::string LayOutJoined(std::vector<LVM_Component_t> pieces, LVM_Volume_t& layout);

// Appends one segment, whose columns are the pieces by their column's index: as many as there are
// indexes from 0 on, all of the same size, a whole number of stripes.
[[nodiscard]] std::string LayOutColumns(std::vector<LVM_Component_t> pieces, uint64_t stripeSectors,
                                        LVM_Volume_t& layout);

// Notes a disk that isn't there, each once.
void AddMissing(VolumeInfo_t& volume, const MissingDisk_t& disk);

// Every byte of the layout can be read from the disks that are there: a RAID-5 volume does without
// one of its disks.
bool IsReadable(const LVM_Volume_t& layout);

// Which disks are missing of a volume that can't do without; empty for one that can be read.
std::string ProblemOf(const VolumeInfo_t& volume);
