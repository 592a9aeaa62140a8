#include <algorithm>

#include "agent/DiskImage.h"

namespace {

struct DiskTypeName_t {
    DiskType_t type;
    const char* name;
    bool isSelectable;  // an image can be told to be of this type
};

constexpr DiskTypeName_t Names[] = {
    {DiskType_MonolithicSparse, "monolithicSparse", true},
    {DiskType_VmfsSparse, "vmfsSparse", true},
    {DiskType_MonolithicFlat, "monolithicFlat", true},
    {DiskType_Vmfs, "vmfs", true},
    {DiskType_TwoGbMaxExtentSparse, "twoGbMaxExtentSparse", true},
    {DiskType_TwoGbMaxExtentFlat, "twoGbMaxExtentFlat", true},
    {DiskType_FullDevice, "fullDevice", false},
    {DiskType_VmfsRaw, "vmfsRaw", false},
    {DiskType_PartitionedDevice, "partitionedDevice", false},
    {DiskType_VmfsRawDeviceMap, "vmfsRawDeviceMap", false},
    {DiskType_VmfsPassthroughRawDeviceMap, "vmfsPassthroughRawDeviceMap", false},
    {DiskType_VhdFixed, "vhdFixed", true},
    {DiskType_VhdDynamic, "vhdDynamic", true},
    {DiskType_VhdDifferencing, "vhdDifferencing", true},
    {DiskType_PhysicalDisk, "raw", true},
    {DiskType_NTFSVolume, "ntfs-volume", true},
    {DiskType_VMInfoDisk, "nbd", false},
};

}  // namespace

const char* DiskTypeName(DiskType_t type) {
    const auto* const row =
        std::find_if(std::begin(Names), std::end(Names), [&](const DiskTypeName_t& each) { return each.type == type; });
    return row != std::end(Names) ? row->name : "unknown";
}

std::optional<DiskType_t> DiskTypeFromName(const std::string& name) {
    const auto* const row = std::find_if(std::begin(Names), std::end(Names), [&](const DiskTypeName_t& each) {
        return each.isSelectable && name == each.name;
    });
    return row != std::end(Names) ? std::optional(row->type) : std::nullopt;
}

std::vector<std::string> SelectableDiskTypeNames() {
    std::vector<std::string> names;
    for (const DiskTypeName_t& row : Names) {
        if (row.isSelectable)
            names.emplace_back(row.name);
    }
    return names;
}
