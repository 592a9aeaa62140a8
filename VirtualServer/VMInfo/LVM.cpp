#include "VirtualServer/VMInfo/LVM.h"

#include <cstdio>
#include <cstring>

#include "VirtualServer/VMInfo/PartitionTables.h"
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

// The database of dynamic disks has no reader yet.
CZuError CLVM::ParseAndAddLDMPartitions(uint32_t /*diskIndex*/, int64_t /*privateHeadLBA*/, int64_t /*dataStartLBA*/) {
    return Refusal("Dynamic disks can't be read yet");
}

// Linux volumes have no reader yet: components that may hold them stay undecided.
CZuError CLVM::AddLinuxVolumes() {
    if (!m_UndecidedComponents.empty())
        LgDebug().Debug(Discovery,
                        "We found %d undecided components. Generate Vol List From Partitions with Linux Disk Parser.",
                        static_cast<int>(m_UndecidedComponents.size()));
    return CZuError();
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
