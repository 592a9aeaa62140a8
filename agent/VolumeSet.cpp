#include "agent/VolumeSet.h"

#include <algorithm>
#include <cstdio>

#include "VirtualServer/VMInfo/PartitionTables.h"
#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "agent/detail/DynamicVolumes.h"
#include "agent/detail/FileSystems.h"
#include "agent/detail/Lvm2Volumes.h"
#include "agent/detail/VolumeReader.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// Which volumes the core sees: of an MBR by the type, whatever lies there.
bool IsNamedByCore(PartitionScheme_t scheme, const PartitionInfo_t& partition) {
    return scheme == PartitionScheme_t::Mbr
               ? partition.typeId == PartitionType_NTFS
               : partition.fileSystem == NtfsFileSystem && partition.typeName == "Basic data";
}

// The partitions in which a dynamic disk keeps its volumes and its database.
bool IsOfDynamicDisk(const PartitionInfo_t& partition) {
    static const std::string metadata = FormatGuidText(GptTypeLdmMetadata).c_str();
    static const std::string data = FormatGuidText(GptTypeLdmData).c_str();
    return partition.typeId == PartitionType_DynamicDisk || partition.typeGuid == metadata ||
           partition.typeGuid == data;
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

const char* SchemeName(const VolumeInfo_t& volume) {
    switch (volume.manager) {
    case VolumeManager_t::DynamicDisks: return "ldm";
    case VolumeManager_t::Lvm2: return "lvm2";
    case VolumeManager_t::None: break;
    }
    return SchemeName(volume.scheme);
}

class CVolumeSet::CDisks final : public IDiskBytes {
public:
    explicit CDisks(const std::vector<std::unique_ptr<CWholeDisk>>& disks) : m_Disks(disks) {}

    uint32_t DiskCount() const override { return static_cast<uint32_t>(m_Disks.size()); }
    CZuError ReadDisk(uint32_t diskIndex, uint64_t offset, char* buffer, uint32_t length) override {
        return m_Disks[diskIndex]->Read(offset, buffer, length);
    }

private:
    const std::vector<std::unique_ptr<CWholeDisk>>& m_Disks;
};

CVolumeSet::CVolumeSet()
    : m_DiskBytes(std::make_unique<CDisks>(m_Disks)), m_Reader(std::make_unique<CVolumeReader>(*m_DiskBytes)) {}
CVolumeSet::~CVolumeSet() = default;

CZuError CVolumeSet::Open(const std::vector<std::string>& paths, const ImageOptions_t& options) {
    CDynamicGroups dynamicGroups;
    CLvm2Groups lvm2Groups;
    for (const std::string& path : paths) {
        CWholeDisk& disk = *m_Disks.emplace_back(std::make_unique<CWholeDisk>());
        ZU_RETURN_IF_ERROR(disk.Open(path, options));
        ZU_RETURN_IF_ERROR(ReadPartitionTable(disk, m_Tables.emplace_back()));
        dynamicGroups.AddDisk(disk, static_cast<uint32_t>(m_Disks.size() - 1));
    }
    for (uint32_t diskIndex = 0; diskIndex < m_Disks.size(); ++diskIndex)
        AddVolumes(diskIndex, dynamicGroups, lvm2Groups);
    AddLvm2Volumes(lvm2Groups);
    for (const auto* const warnings : {&dynamicGroups.Warnings(), &lvm2Groups.Warnings()})
        m_Warnings.insert(m_Warnings.end(), warnings->begin(), warnings->end());
    return CZuError();
}

CZuError CVolumeSet::Read(const VolumeInfo_t& volume, uint64_t offset, void* buffer, uint32_t length) {
    return m_Reader->Read(volume, offset, static_cast<char*>(buffer), length);
}

std::vector<std::string> CVolumeSet::Warnings() const {
    std::vector<std::string> warnings;
    for (const std::unique_ptr<CWholeDisk>& disk : m_Disks) {
        for (const CDiskImage& link : disk->Links())
            warnings.insert(warnings.end(), link.Warnings().begin(), link.Warnings().end());
    }
    for (const PartitionTable_t& table : m_Tables)
        warnings.insert(warnings.end(), table.warnings.begin(), table.warnings.end());
    warnings.insert(warnings.end(), m_Warnings.begin(), m_Warnings.end());
    return warnings;
}

const VolumeInfo_t* CVolumeSet::Find(const std::string& name) const {
    const auto found = std::find_if(m_Volumes.begin(), m_Volumes.end(),
                                    [&](const VolumeInfo_t& volume) { return volume.name == name; });
    return found != m_Volumes.end() ? &*found : nullptr;
}

void CVolumeSet::AddVolumes(uint32_t diskIndex, CDynamicGroups& groups, CLvm2Groups& lvm2) {
    CWholeDisk& disk = *m_Disks[diskIndex];
    const PartitionTable_t& table = m_Tables[diskIndex];
    if (table.scheme == PartitionScheme_t::None) {
        if (!lvm2.AddSlice(disk, diskIndex, disk.Path(), 0, disk.TotalSectors()))
            AddWholeDisk(diskIndex);
        return;
    }
    AddDynamicVolumes(diskIndex, groups);
    for (const PartitionInfo_t& partition : table.partitions) {
        if (partition.isExtended || partition.sectors == 0 || IsOfDynamicDisk(partition))
            continue;
        const std::string place = disk.Path() + ": partition " + std::to_string(partition.number);
        if (!lvm2.AddSlice(disk, diskIndex, place, partition.startSector, partition.sectors))
            AddPartition(diskIndex, partition);
    }
}

void CVolumeSet::AddDynamicVolumes(uint32_t diskIndex, CDynamicGroups& groups) {
    std::vector<VolumeInfo_t> volumes;
    groups.TakeVolumes(diskIndex, volumes);
    for (VolumeInfo_t& volume : volumes) {
        volume.name =
            volume.isActive ? "Volume" + std::to_string(m_NextNumber++) : UniqueName(volume.group + "-" + volume.label);
        AddManagedVolume(std::move(volume));
    }
}

void CVolumeSet::AddLvm2Volumes(CLvm2Groups& groups) {
    std::vector<VolumeInfo_t> volumes;
    groups.TakeVolumes(volumes);
    for (VolumeInfo_t& volume : volumes) {
        volume.name = UniqueName(volume.name);
        AddManagedVolume(std::move(volume));
    }
}

// A disk with neither a table nor a file system is no volume.
void CVolumeSet::AddWholeDisk(uint32_t diskIndex) {
    const PartitionTable_t& table = m_Tables[diskIndex];
    if (table.fileSystem.empty())
        return;
    VolumeInfo_t volume = WholeDiskVolume(*m_Disks[diskIndex], diskIndex);
    volume.fileSystem = table.fileSystem;
    AddPlainVolume(std::move(volume), diskIndex, table.fileSystem == NtfsFileSystem);
}

void CVolumeSet::AddPartition(uint32_t diskIndex, const PartitionInfo_t& partition) {
    VolumeInfo_t volume = PartitionVolume(partition, diskIndex);
    volume.scheme = m_Tables[diskIndex].scheme;
    AddPlainVolume(std::move(volume), diskIndex, IsNamedByCore(m_Tables[diskIndex].scheme, partition));
}

void CVolumeSet::AddPlainVolume(VolumeInfo_t volume, uint32_t diskIndex, bool isNamedByCore) {
    if (isNamedByCore)
        volume.name = "Volume" + std::to_string(m_NextNumber++);
    volume.layout = PlainLayout(diskIndex, volume);
    volume.layout.SystemID = isNamedByCore ? PartitionType_NTFS : PartitionType_Empty;
    m_Names.insert(volume.name);
    m_Volumes.push_back(std::move(volume));
}

void CVolumeSet::AddManagedVolume(VolumeInfo_t volume) {
    std::snprintf(volume.layout.VolName, sizeof(volume.layout.VolName), "%s", volume.name.c_str());
    volume.layout.AllDiskFound = volume.missing.empty() ? 1 : 0;
    if (volume.problem.empty())
        volume.fileSystem = RecognizeFileSystem(
            volume.sectors, [&](void* buffer, uint32_t size) { return !Read(volume, 0, buffer, size).IsErrorSet(); });
    m_Names.insert(volume.name);
    m_Volumes.push_back(std::move(volume));
}

std::string CVolumeSet::UniqueName(const std::string& name) const {
    std::string unique = name;
    for (unsigned number = 2; m_Names.count(unique) != 0; ++number)
        unique = name + "#" + std::to_string(number);
    return unique;
}
