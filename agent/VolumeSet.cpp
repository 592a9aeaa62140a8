#include "agent/VolumeSet.h"

#include <algorithm>
#include <cstdio>

#include "VirtualServer/VMInfo/PartitionTables.h"
#include "agent/VolumeMap.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr char NtfsName[] = "ntfs";

// Which volumes the core sees: of an MBR by the type, whatever lies there.
bool IsNamedByCore(PartitionScheme_t scheme, const PartitionInfo_t& partition) {
    return scheme == PartitionScheme_t::Mbr ? partition.typeId == PartitionType_NTFS
                                            : partition.fileSystem == NtfsName && partition.typeName == "Basic data";
}

LVM_Volume_t PlainLayout(uint32_t diskIndex, const VolumeInfo_t& volume) {
    LVM_Component_t component;
    component.DiskLBAStart = volume.startSector;
    component.DiskLBAEnd = volume.startSector + volume.sectors - 1;
    component.VolLBAEnd = volume.sectors - 1;
    component.HardDiskIndex = diskIndex;
    LVM_Segment_t segment;
    segment.LBAEnd = volume.sectors;
    segment.Components.push_back(component);
    LVM_Volume_t layout;
    layout.AllDiskFound = 1;
    layout.Segments.push_back(segment);
    std::snprintf(layout.VolName, sizeof(layout.VolName), "%s", volume.name.c_str());
    return layout;
}

}  // namespace

VolumeInfo_t PartitionVolume(const PartitionInfo_t& partition, uint32_t diskIndex) {
    VolumeInfo_t volume;
    volume.name = "Disk" + std::to_string(diskIndex + 1) + "Partition" + std::to_string(partition.number);
    volume.partition = partition.number;
    volume.typeName = partition.typeName;
    volume.label = partition.name;
    volume.guid = partition.guid;
    volume.fileSystem = partition.fileSystem;
    volume.startSector = partition.startSector;
    volume.sectors = partition.sectors;
    volume.layout = PlainLayout(diskIndex, volume);
    return volume;
}

VolumeInfo_t WholeDiskVolume(const CWholeDisk& disk, uint32_t diskIndex) {
    VolumeInfo_t volume;
    volume.name = "Disk" + std::to_string(diskIndex + 1);
    volume.typeName = "whole disk";
    volume.sectors = disk.TotalSectors();
    volume.layout = PlainLayout(diskIndex, volume);
    return volume;
}

CZuError CVolumeSet::Open(const std::vector<std::string>& paths, const ImageOptions_t& options) {
    for (const std::string& path : paths) {
        CWholeDisk& disk = *m_Disks.emplace_back(std::make_unique<CWholeDisk>());
        ZU_RETURN_IF_ERROR(disk.Open(path, options));
        ZU_RETURN_IF_ERROR(ReadPartitionTable(disk, m_Tables.emplace_back()));
        AddVolumes(static_cast<uint32_t>(m_Disks.size() - 1));
    }
    return CZuError();
}

std::vector<std::string> CVolumeSet::Warnings() const {
    std::vector<std::string> warnings;
    for (const std::unique_ptr<CWholeDisk>& disk : m_Disks) {
        for (const CDiskImage& link : disk->Links())
            warnings.insert(warnings.end(), link.Warnings().begin(), link.Warnings().end());
    }
    for (const PartitionTable_t& table : m_Tables)
        warnings.insert(warnings.end(), table.warnings.begin(), table.warnings.end());
    return warnings;
}

const VolumeInfo_t* CVolumeSet::Find(const std::string& name) const {
    const auto found = std::find_if(m_Volumes.begin(), m_Volumes.end(),
                                    [&](const VolumeInfo_t& volume) { return volume.name == name; });
    return found != m_Volumes.end() ? &*found : nullptr;
}

CZuError CVolumeSet::Read(const VolumeInfo_t& volume, uint64_t offset, void* buffer, uint32_t length) {
    char* const target = static_cast<char*>(buffer);
    for (uint32_t done = 0; done < length;) {
        VolumePiece_t piece;
        if (!FindVolumePiece(volume.layout, offset + done, length - done, piece))
            return Refusal(CZuString::Format("{1}: has no byte {2}", volume.name, offset + done));
        if (piece.hardDiskIndex >= m_Disks.size())
            return Refusal(volume.name + ": one of its disks isn't there");
        const auto bytes = static_cast<uint32_t>(piece.bytes);
        ZU_RETURN_IF_ERROR(m_Disks[piece.hardDiskIndex]->Read(piece.diskOffset, target + done, bytes));
        done += bytes;
    }
    return CZuError();
}

void CVolumeSet::AddVolumes(uint32_t diskIndex) {
    const PartitionTable_t& table = m_Tables[diskIndex];
    if (table.scheme == PartitionScheme_t::None)
        return AddWholeDisk(diskIndex);
    for (const PartitionInfo_t& partition : table.partitions) {
        if (!partition.isExtended && partition.sectors != 0)
            AddPartition(diskIndex, partition);
    }
}

// A disk with neither a table nor a file system is no volume.
void CVolumeSet::AddWholeDisk(uint32_t diskIndex) {
    const PartitionTable_t& table = m_Tables[diskIndex];
    if (table.fileSystem.empty())
        return;
    VolumeInfo_t volume = WholeDiskVolume(*m_Disks[diskIndex], diskIndex);
    volume.fileSystem = table.fileSystem;
    AddVolume(std::move(volume), diskIndex, table.fileSystem == NtfsName);
}

void CVolumeSet::AddPartition(uint32_t diskIndex, const PartitionInfo_t& partition) {
    VolumeInfo_t volume = PartitionVolume(partition, diskIndex);
    volume.scheme = m_Tables[diskIndex].scheme;
    AddVolume(std::move(volume), diskIndex, IsNamedByCore(m_Tables[diskIndex].scheme, partition));
}

void CVolumeSet::AddVolume(VolumeInfo_t volume, uint32_t diskIndex, bool isNamedByCore) {
    if (isNamedByCore)
        volume.name = "Volume" + std::to_string(m_NextNumber++);
    volume.layout = PlainLayout(diskIndex, volume);
    volume.layout.SystemID = isNamedByCore ? PartitionType_NTFS : PartitionType_Empty;
    m_Volumes.push_back(std::move(volume));
}
