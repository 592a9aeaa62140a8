#include "VirtualServer/VMInfo/LVM.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "VirtualServer/VMInfo/PartitionTables.h"
#include "VirtualServer/VMInfo/VIDALinuxDiskParser.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "foundation/HBPlatformInfo.h"
#include "foundation/LgDebug.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr char Discovery[] = "CLVM::InitializeFromDisk";
constexpr char Naming[] = "CLVM::FinishVolumes";

// What says that a disk has no MBR, whichever layer said it.
constexpr unsigned int NoMbrCode = 1;

LVM_Component_t ComponentOf(const Partition_Entry_t& entry, uint32_t diskIndex) {
    LVM_Component_t component;
    component.DiskLBAStart = entry.StartLBA;
    component.DiskLBAEnd = entry.EndLBA;
    component.VolLBAEnd = entry.EndLBA - entry.StartLBA;
    component.HardDiskIndex = diskIndex;
    return component;
}

LVM_Volume_t VolumeOf(const LVM_Component_t& component, uint8_t systemId) {
    LVM_Segment_t segment;
    segment.LBAEnd = component.VolLBAEnd + 1;  // callers rely on one behind the last, for plain partitions
    segment.Components.push_back(component);
    LVM_Volume_t volume;
    volume.SystemID = systemId;
    volume.Segments.push_back(std::move(segment));
    return volume;
}

bool IsActive(const char (&state)[16]) {
    constexpr char active[] = {'A', 'C', 'T', 'I', 'V', 'E'};
    return std::memcmp(state, active, sizeof(active)) == 0;
}

bool IsRaid5(const CLDM_VBLK::Volume_t& volume) {
    constexpr char raid5[] = "raid5";  // its terminator counts
    return std::memcmp(volume.VolumeType, raid5, sizeof(raid5)) == 0;
}

LVM_Component_t ComponentOf(const CLDM_VBLK& record) {
    const CLDM_VBLK::Partition_t& partition = record.Partition;
    LVM_Component_t component;
    component.DiskGUID = record.Children.front().Disk.GUID;
    component.DiskLBAStart = partition.Start;
    component.DiskLBAEnd = partition.Start + partition.Size - 1;
    component.VolLBAStart = partition.VolumeOffset;
    component.VolLBAEnd = partition.VolumeOffset + partition.Size - 1;
    component.ColumnIndex = static_cast<int32_t>(partition.ColumnIndex);
    return component;
}

// The segment ends where all of its components together do; a RAID-5 volume's end is set when the
// volume is finished.
LVM_Segment_t SegmentOf(const CLDM_VBLK& record) {
    LVM_Segment_t segment;
    segment.StripeSize = record.Component.StripeSize;
    uint64_t sectors = 0;
    for (const CLDM_VBLK& partition : record.Children) {
        segment.Components.push_back(ComponentOf(partition));
        sectors += partition.Partition.Size;
    }
    segment.LBAEnd = sectors - 1;
    std::stable_sort(segment.Components.begin(), segment.Components.end(),
                     [&](const LVM_Component_t& left, const LVM_Component_t& right) {
                         return segment.StripeSize == 0 ? left.VolLBAStart < right.VolLBAStart
                                                        : left.ColumnIndex < right.ColumnIndex;
                     });
    return segment;
}

LVM_Volume_t DynamicVolumeOf(const CLDM_VBLK& record, const CLDM_VBLK& component) {
    LVM_Volume_t volume;
    volume.VolGUID = record.Volume.VolumeGUID;
    volume.IsRaid5 = IsRaid5(record.Volume) ? 1 : 0;
    volume.SystemID = record.Volume.PartitionType;
    if (!component.Children.empty())
        volume.Segments.push_back(SegmentOf(component));
    return volume;
}

// Links the pieces that lie on the disk of `diskGuid`, whose places count from its data start.
void LinkComponents(LVM_Segment_t& segment, const GUID& diskGuid, uint32_t diskIndex, int64_t dataStartLBA) {
    for (LVM_Component_t& component : segment.Components) {
        if (!(component.DiskGUID == diskGuid))
            continue;
        component.HardDiskIndex = diskIndex;
        component.DiskLBAStart += static_cast<uint64_t>(dataStartLBA);
        component.DiskLBAEnd += static_cast<uint64_t>(dataStartLBA);
    }
}

bool KeepsItsName(const LVM_Volume_t& volume) {
    return volume.SystemID == PartitionType_LinuxLvm && volume.VolName[0] != '\0';
}

}  // namespace

CLVM::QuitFlagCallback_t CLVM::CheckQuitFlag = nullptr;
int CLVM::checkQuitFlagCallbackFirstArg = 0;
void* CLVM::checkQuitFlagCallbackSecondArg = nullptr;

CLVM::CLVM() {
    unsigned long setting = 0;
    if (HBPlatformInfo::getNumber("VirtualServer", "LinuxMetadataSupport", &setting) != 0 && setting != 0)
        m_LinuxMetadataSupport = 1;
    LgDebug().Debug("CLVM::CLVM", "Linux metadata collection is %s.",
                    m_LinuxMetadataSupport != 0 ? "enabled" : "disabled");
}

CLVM::~CLVM() {
    Reset();
}

void CLVM::Reset() {
    for (const std::unique_ptr<CHardDiskReader>& disk : m_HardDisks)
        Dropped(disk->CloseHardDisk());  // only reads were made, which have told of their failures
    m_HardDisks.clear();
    m_Volumes.clear();
    m_UndecidedComponents.clear();
}

void CLVM::SetVMInfo(IVMInfo* info, const char* first, const char* second) {
    m_pVMInfo = info;
    m_VMInfoName1 = first != nullptr ? first : "";
    m_VMInfoName2 = second != nullptr ? second : "";
}

void CLVM::SetQuitFlagCallback(QuitFlagCallback_t callback, int first, void* second) {
    CheckQuitFlag = callback;
    checkQuitFlagCallbackFirstArg = first;
    checkQuitFlagCallbackSecondArg = second;
}

CZuError CLVM::InitializeFromDisk(std::vector<LVM_HardDisk_t>& disks) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        Reset();
        for (const LVM_HardDisk_t& disk : disks)
            ZU_RETURN_IF_ERROR(AddHardDisk(disk));
        ZU_RETURN_IF_ERROR(AddLinuxVolumes());
        FinishVolumes();
        return CZuError();
    });
}

CZuError CLVM::AddHardDisk(const LVM_HardDisk_t& disk) {
    LgDebug().Debug(Discovery, "Processing a Hard Disk of ProdType: %d", static_cast<int>(disk.ProductType));
    auto reader = std::make_unique<CHardDiskReader>(disk.ProductType);
    reader->SetVMInfo(m_pVMInfo, m_VMInfoName1.c_str(), m_VMInfoName2.c_str());
    std::vector<Disk_t> chain = disk.Disks;
    ZU_RETURN_IF_ERROR(reader->OpenHardDisk(chain));

    LgDebug().Debug(Discovery, "Checking if the disk is dynamic disk.");
    int isDynamic = 0;
    int64_t privateHeadLBA = 0;
    int64_t dataStartLBA = 0;
    const CZuError error = reader->CheckForDynamicDisk(isDynamic, privateHeadLBA, dataStartLBA);
    if (error.IsErrorSet() && error.GetErrorCode() != NoMbrCode) {
        LgDebug().Debug(Discovery, "Failed to read disk [%s], Error [%s]. Skipping this disk",
                        chain.front().FileName.c_str(), error.ConvertToString());
        return CZuError();
    }
    if (error.IsErrorSet())
        LgDebug().DebugLvl(Discovery, 2, "MBR missing or corrupted on disk. Possibly LVM or uninitialized disk.");

    m_HardDisks.push_back(std::move(reader));
    const auto index = static_cast<uint32_t>(m_HardDisks.size() - 1);
    if (isDynamic == 0) {
        LgDebug().Debug(Discovery, "The disk is not dynamic disk. Parse and add DOS Partitions for this disk.");
        ZU_RETURN_IF_ERROR(ParseAndAddDOSPartitions(index));
    } else {
        LgDebug().Debug(Discovery, "The disk is dynamic disk. Parse and add LDM Partitions for this disk.");
        ZU_RETURN_IF_ERROR(ParseAndAddLDMPartitions(index, privateHeadLBA, dataStartLBA));
    }
    return CZuError();
}

CZuError CLVM::ParseAndAddDOSPartitions(uint32_t diskIndex) {
    std::vector<Partition_Entry_t> partitions;
    int isGPT = 0;
    CZuError error = m_HardDisks[diskIndex]->GetDOSPartitions(partitions, isGPT);
    if (error.IsErrorSet() && error.GetErrorCode() == NoMbrCode && m_LinuxMetadataSupport != 0) {
        LVM_Component_t wholeDisk;
        wholeDisk.HardDiskIndex = diskIndex;
        m_UndecidedComponents.push_back(wholeDisk);
        return CZuError();
    }
    ZU_RETURN_IF_ERROR(error);
    for (const Partition_Entry_t& entry : partitions)
        AddPartition(entry, diskIndex);
    return CZuError();
}

void CLVM::AddPartition(const Partition_Entry_t& entry, uint32_t diskIndex) {
    const LVM_Component_t component = ComponentOf(entry, diskIndex);
    if (entry.Type == PartitionType_NTFS)
        m_Volumes.push_back(VolumeOf(component, entry.Type));
    else if (m_LinuxMetadataSupport != 0)
        m_UndecidedComponents.push_back(component);
}

bool CLVM::GuidOrder_t::operator()(const GUID& left, const GUID& right) const {
    return std::memcmp(&left, &right, sizeof(GUID)) < 0;
}

CZuError CLVM::ParseAndAddLDMPartitions(uint32_t diskIndex, int64_t privateHeadLBA, int64_t dataStartLBA) {
    LDM_DB_t db;
    ZU_RETURN_IF_ERROR(m_HardDisks[diskIndex]->GetDynamicDiskDatabase(db, static_cast<uint64_t>(privateHeadLBA)));
    VolumesByGuid_t volumes;
    for (size_t index = 0; index < m_Volumes.size(); ++index)
        volumes.emplace(m_Volumes[index].VolGUID, index);  // the first of equal ones
    for (const CLDM_VBLK& record : db.Group.Children) {
        if (!IsActive(record.Volume.State))
            continue;
        size_t index = 0;
        ZU_RETURN_IF_ERROR(FindOrAddDynamicVolume(record, volumes, index));
        if (!m_Volumes[index].Segments.empty())
            LinkComponents(m_Volumes[index].Segments.front(), db.PrivateHead.DiskGUID, diskIndex, dataStartLBA);
    }
    return CZuError();
}

// The first disk whose database names a volume builds it; the others' copies aren't compared.
CZuError CLVM::FindOrAddDynamicVolume(const CLDM_VBLK& record, VolumesByGuid_t& volumes, size_t& index) {
    const auto component = std::find_if(record.Children.begin(), record.Children.end(),
                                        [](const CLDM_VBLK& each) { return IsActive(each.Component.State); });
    if (component == record.Children.end())
        return Refusal("No component is marked ACTIVE for an active volume in LDM database");
    const auto [place, isNew] = volumes.emplace(record.Volume.VolumeGUID, m_Volumes.size());
    index = place->second;
    if (isNew)
        m_Volumes.push_back(DynamicVolumeOf(record, *component));
    return CZuError();
}

CZuError CLVM::AddLinuxVolumes() {
    if (m_UndecidedComponents.empty())
        return CZuError();
    LgDebug().Debug(Discovery,
                    "We found %d undecided components. Generate Vol List From Partitions with Linux Disk Parser.",
                    static_cast<int>(m_UndecidedComponents.size()));
    VIDALinuxDiskParser parser(this);
    std::string directory;
    if (HBPlatformInfo::getString("Base", "dORBISTEMPDIR", &directory) == 0) {
        directory = "C:";
        LgDebug().Debug(Discovery, "Setting the default temp file on C:\\");
    }
    const std::string path = directory + "\\\\LinuxLVM2.txt";
    const bool isDone = parser.GenerateVolListFromPartitions(m_UndecidedComponents, m_Volumes, path.c_str());
    return isDone ? CZuError() : Refusal("Linux Disk Parser Failed.");
}

void CLVM::FinishVolumes() {
    LgDebug().Debug(Naming, "Now go through all the volumes and make sure you have all the disks. If not mark the "
                            "volumes accordingly");
    int counter = 1;
    for (LVM_Volume_t& volume : m_Volumes) {
        if (!KeepsItsName(volume)) {
            std::snprintf(volume.VolName, sizeof(volume.VolName), "Volume%d", counter++);
            LgDebug().Debug(Naming, "Named the volume as %s", volume.VolName);
        }
        FinishSegments(volume);
    }
}

// The first component without a disk ends it: later segments keep the ends that they have.
void CLVM::FinishSegments(LVM_Volume_t& volume) {
    volume.AllDiskFound = 1;
    for (LVM_Segment_t& segment : volume.Segments) {
        if (volume.IsRaid5 != 0 && !segment.Components.empty()) {
            segment.LBAEnd = (segment.Components.size() - 1) * (segment.Components.front().VolLBAEnd + 1) - 1;
            LgDebug().Debug(Naming, "Adjusted the LBAEnd of segment of volume %s to %016llx", volume.VolName,
                            static_cast<unsigned long long>(segment.LBAEnd));
        }
        for (const LVM_Component_t& component : segment.Components) {
            if (component.HardDiskIndex != NoHardDisk)
                continue;
            volume.AllDiskFound = 0;
            LgDebug().Debug(Naming, "Volume %s does not have all disks required", volume.VolName);
            return;
        }
    }
}
