#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

// Makes an empty disk around one NTFS partition of `volumeSectors` sectors: a fixed VHD, or a VMDK
// descriptor `target` with its data in NAME-flat.vmdk beside it. `files` gets the names of what was
// made. Files that stand there are replaced only when `replacing`, and whole.
[[nodiscard]] DISKSTREAM_EXPORT CZuError CreateEmptyDisk(const std::string& target, uint64_t volumeSectors,
                                                         ProductType_t product, bool replacing,
                                                         std::vector<std::string>& files);
