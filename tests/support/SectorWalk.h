#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"

// Where the bytes of a volume lie in the backup blocks of its disks, looked up sector by sector in the plainest way:
// what `CLVM::ConvertVolumeOffsetToDiskExtents` has to come to. Returns the text of its failure, empty for none.
std::string WalkSectors(uint64_t offset, uint64_t length, const LVM_Volume_t& volume, const SparseInfo_t& sparseInfo,
                        std::vector<LVM_Disk_Offset_Len_t>& runs);

// A line for each run.
std::string TextOf(const std::vector<LVM_Disk_Offset_Len_t>& runs);
