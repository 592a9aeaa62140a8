#include "agent/detail/CatalogDump.h"

#include <algorithm>

#include "agent/detail/CatalogParts.h"
#include "foundation/detail/CheckedMath.h"

namespace {

bool IsSame(const LVM_Component_t& left, const LVM_Component_t& right) {
    return left.HardDiskIndex == right.HardDiskIndex && left.DiskLBAStart == right.DiskLBAStart &&
           left.VolLBAStart == right.VolLBAStart && left.VolLBAEnd == right.VolLBAEnd;
}

bool IsSame(const LVM_Volume_t& left, const LVM_Volume_t& right) {
    if (left.Segments.size() != 1 || right.Segments.size() != 1 || (left.IsRaid5 != 0) != (right.IsRaid5 != 0))
        return false;
    const LVM_Segment_t& leftOnly = left.Segments.front();
    const LVM_Segment_t& rightOnly = right.Segments.front();
    return leftOnly.LBAStart == rightOnly.LBAStart && leftOnly.StripeSize == rightOnly.StripeSize &&
           std::equal(leftOnly.Components.begin(), leftOnly.Components.end(), rightOnly.Components.begin(),
                      rightOnly.Components.end(),
                      [](const LVM_Component_t& one, const LVM_Component_t& other) { return IsSame(one, other); });
}

LVM_HardDisk_t CoreDiskOf(const CWholeDisk& disk, int64_t index, uint32_t blockSectors) {
    LVM_HardDisk_t core;
    core.ProductType = disk.Links().back().Product();
    core.Disks = disk.CoreDisks();
    for (Disk_t& link : core.Disks) {
        link.DumpName = CatalogDumpName(index);
        link.BlockSize = blockSectors;
    }
    return core;
}

}  // namespace

bool CCatalogDump::Write(CVolumeSet& disks, const std::vector<uint32_t>& blockSectors, const std::string& path) {
    std::vector<LVM_HardDisk_t> coreDisks;
    for (size_t index = 0; index < disks.Disks().size(); ++index)
        coreDisks.push_back(CoreDiskOf(*disks.Disks()[index], static_cast<int64_t>(index), blockSectors[index]));
    CLVM volumes;
    char sector[SectorSize];
    // A disk that the core passes over gets no number, and the others would move up.
    const bool hasAllDisks =
        !volumes.InitializeFromDisk(coreDisks).IsErrorSet() &&
        !volumes.ReadHardDisk(static_cast<uint32_t>(coreDisks.size() - 1), 0, sector, sizeof(sector)).IsErrorSet();
    if (!hasAllDisks || volumes.DumpVolumeInfoToFile(path.c_str()).IsErrorSet())
        return false;
    m_Volumes = volumes.GetVolumes();
    return true;
}

// Of a chain the set has other blocks than its links.
bool CCatalogDump::Covers(const CVolumeSet& disks, const VolumeInfo_t& volume) const {
    const bool isOfChain = std::any_of(disks.Disks().begin(), disks.Disks().end(),
                                       [](const auto& disk) { return disk->Links().size() != 1; });
    const auto found = std::find_if(m_Volumes.begin(), m_Volumes.end(),
                                    [&](const LVM_Volume_t& each) { return volume.name == each.VolName; });
    return !isOfChain && volume.mirrors.empty() && found != m_Volumes.end() && IsSame(volume.layout, *found);
}
