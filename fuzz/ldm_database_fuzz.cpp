// The input is a dynamic disk; a second disk of its group is the same with another GUID. What the database
// gives has to be the same each time and a sound tree, and the volumes found have to read as the disks do.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "VirtualServer/VMInfo/LVM.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryFiles.h"
#include "platform/DriveName.h"

namespace {

constexpr size_t LastGuidDigit = 6 * 512 + 48 + 35;  // of the private header
constexpr uint64_t MostVolumes = 16;                 // to read from
constexpr uint32_t SectorBytes = 512;
constexpr uint64_t HoleBytes = 2048 * SectorBytes;

std::vector<LVM_HardDisk_t> HardDisksOf(const std::vector<std::string>& names) {
    std::vector<LVM_HardDisk_t> disks;
    for (const std::string& name : names) {
        Disk_t link;
        link.FileName = name.c_str();
        link.Type = DiskType_PhysicalDisk;
        LVM_HardDisk_t disk;
        disk.ProductType = VirtualProdType_Physical;
        disk.Disks = {link};
        disks.push_back(disk);
    }
    return disks;
}

void CheckPartition(const CLDM_VBLK& partition) {
    Demand(partition.Type == LdmRecord_Partition, "components own partitions");
    Demand(!partition.Children.empty(), "a partition has its disk");
    for (const CLDM_VBLK& disk : partition.Children) {
        Demand(disk.Type == LdmRecord_Disk3 || disk.Type == LdmRecord_Disk4, "partitions own disks");
        Demand(disk.ObjectId == partition.Partition.DiskId, "a partition's disk is the one that it names");
        Demand(disk.Children.empty(), "a disk owns nothing");
    }
}

void CheckVolumeRecord(const CLDM_VBLK& volume) {
    Demand(volume.Type == LdmRecord_Volume, "a group owns volumes");
    Demand(volume.Children.size() == volume.Volume.ChildCount, "a volume has as many components as it counts");
    for (const CLDM_VBLK& component : volume.Children) {
        Demand(component.Type == LdmRecord_Component, "volumes own components");
        Demand(component.Component.ParentId == volume.ObjectId, "a component hangs on its parent");
        Demand(component.Children.size() == component.Component.ChildCount, "a component has what it counts");
        for (const CLDM_VBLK& partition : component.Children) {
            Demand(partition.Partition.ParentId == component.ObjectId, "a partition hangs on its parent");
            CheckPartition(partition);
        }
    }
}

bool SameTree(const CLDM_VBLK& one, const CLDM_VBLK& other) {
    return one.Type == other.Type && one.Flags == other.Flags && one.ObjectId == other.ObjectId &&
           std::memcmp(one.Name, other.Name, sizeof(one.Name)) == 0 &&
           std::equal(one.Children.begin(), one.Children.end(), other.Children.begin(), other.Children.end(), SameTree);
}

void CheckDatabase(CHardDiskReader& disk, uint64_t privateHeadLba) {
    LDM_DB_t db;
    const CZuError error = disk.GetDynamicDiskDatabase(db, privateHeadLba);
    LDM_DB_t again;
    const CZuError errorAgain = disk.GetDynamicDiskDatabase(again, privateHeadLba);
    Demand(error.IsErrorSet() == errorAgain.IsErrorSet(), "reading the database twice ends the same");
    if (error.IsErrorSet()) {
        Demand(error.GetErrorType() == 4 && error.GetModuleId() == 1 && error.GetErrorCode() == 0,
               "a failure of the database is worded for people");
        Demand(std::strcmp(error.GetErrorText(), errorAgain.GetErrorText()) == 0, "a failure has the same words");
        return;
    }
    Demand(SameTree(db.Group, again.Group), "reading the database twice gives the same");
    for (const CLDM_VBLK& volume : db.Group.Children)
        CheckVolumeRecord(volume);
}

bool HasAllDisks(const LVM_Volume_t& volume) {
    for (const LVM_Segment_t& segment : volume.Segments) {
        for (const LVM_Component_t& component : segment.Components) {
            if (component.HardDiskIndex == NoHardDisk)
                return false;
        }
    }
    return true;
}

void CheckOrder(const LVM_Segment_t& segment) {
    Demand(std::is_sorted(segment.Components.begin(), segment.Components.end(),
                          [&](const LVM_Component_t& left, const LVM_Component_t& right) {
                              return segment.StripeSize == 0 ? left.VolLBAStart < right.VolLBAStart
                                                             : left.ColumnIndex < right.ColumnIndex;
                          }),
           "pieces stand in the order of the volume or of the columns");
}

// The start of a volume without stripes is the start of its first piece.
void CheckFirstSector(const CLVM& lvm, const LVM_Volume_t& volume) {
    const LVM_Component_t& first = volume.Segments.front().Components.front();
    if (volume.IsRaid5 != 0 || volume.Segments.front().StripeSize != 0 || first.VolLBAStart != 0)
        return;
    char fromVolume[SectorBytes];
    char fromDisk[SectorBytes];
    if (lvm.ReadVolumeData(volume, 0, fromVolume, SectorBytes, nullptr).IsErrorSet())
        return;
    DemandSuccess(lvm.ReadHardDisk(first.HardDiskIndex, first.DiskLBAStart << 9U, fromDisk, SectorBytes),
                  "what a volume has its disk has");
    Demand(std::memcmp(fromVolume, fromDisk, SectorBytes) == 0, "a volume is made of pieces of its disks");
}

void CheckVolume(const CLVM& lvm, const LVM_Volume_t& volume) {
    Demand((volume.AllDiskFound != 0) == HasAllDisks(volume), "a volume is marked where a disk is absent");
    Demand(volume.Segments.size() <= 1, "a dynamic volume has one segment");
    for (const LVM_Segment_t& segment : volume.Segments)
        CheckOrder(segment);
    for (const uint64_t offset : {uint64_t{0}, uint64_t{700}, uint64_t{1} << 20U, ~uint64_t{0} - 100}) {
        char bytes[1500];
        uint32_t got = 0;
        const CZuError error = lvm.ReadVolumeData(volume, offset, bytes, sizeof(bytes), &got);
        Demand(error.IsErrorSet() == (got != sizeof(bytes)), "a whole read is a success");
        Demand(!error.IsErrorSet() || got < sizeof(bytes), "no read is longer than asked for");
        Demand(error.IsErrorSet() || volume.AllDiskFound != 0, "a volume without all disks isn't read");
    }
    if (!volume.Segments.empty() && !volume.Segments.front().Components.empty())
        CheckFirstSector(lvm, volume);
}

void CheckDiscovery(const std::vector<std::string>& names) {
    CLVM lvm;
    std::vector<LVM_HardDisk_t> disks = HardDisksOf(names);
    const CZuError error = lvm.InitializeFromDisk(disks);
    const std::vector<LVM_Volume_t> volumes = lvm.GetVolumes();
    if (error.IsErrorSet())
        return;
    for (size_t index = 0; index < std::min<size_t>(volumes.size(), MostVolumes); ++index) {
        Demand(volumes[index].VolName == "Volume" + std::to_string(index + 1), "volumes are numbered");
        CheckVolume(lvm, volumes[index]);
    }
}

void TryDisk(const std::string& name) {
    CHardDiskReader disk(VirtualProdType_Physical);
    std::vector<LVM_HardDisk_t> disks = HardDisksOf({name});
    DemandSuccess(disk.OpenHardDisk(disks.front().Disks), "a file in memory opens");
    int isDynamic = 0;
    int64_t privateHeadLba = 0;
    int64_t dataStartLba = 0;
    if (!disk.CheckForDynamicDisk(isDynamic, privateHeadLba, dataStartLba).IsErrorSet() && isDynamic != 0)
        CheckDatabase(disk, static_cast<uint64_t>(privateHeadLba));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CMemoryFiles files;
    const std::string first = std::string(DriveNamePrefix) + "0";
    const std::string second = std::string(DriveNamePrefix) + "1";
    std::string other(reinterpret_cast<const char*>(data), size);
    if (size > LastGuidDigit)
        other[LastGuidDigit] = static_cast<char>(other[LastGuidDigit] ^ 1);
    for (const uint64_t holeBytes : {uint64_t{0}, HoleBytes}) {
        files.Put(first, data, size, holeBytes);
        files.Put(second, other.data(), other.size(), holeBytes);
        TryDisk(first);
        CheckDiscovery({first});
        CheckDiscovery({second, first});
    }
    Demand(files.OpenCount() == 0, "every file is closed in the end");
    return 0;
}
