// The input is a whole disk, alone and with a hole behind it, or a single volume. What its tables give
// has to be the same each time, and the volumes found on it have to read as the disk does.
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

constexpr char VolumeName[] = "volume";
constexpr uint64_t HoleBytes = 8 * 1024;
constexpr uint32_t SectorBytes = 512;
constexpr uint64_t MostVolumes = 16;  // to read from: a few records can give thousands
constexpr uint8_t Ntfs = 7;
constexpr uint64_t LargestVolumeLba = uint64_t{1} << 54U;

struct Tables_t {
    std::vector<Partition_Entry_t> partitions;
    int isGpt = -1;
    CZuError error;
};

Tables_t TablesOf(CHardDiskReader& disk) {
    Tables_t tables;
    tables.error = disk.GetDOSPartitions(tables.partitions, tables.isGpt);
    Demand(tables.isGpt == 0 || tables.isGpt == 1, "a table is a GPT or not");
    return tables;
}

bool SameEntry(const Partition_Entry_t& one, const Partition_Entry_t& other) {
    return one.Type == other.Type && one.GUID == other.GUID && one.StartLBA == other.StartLBA &&
           one.EndLBA == other.EndLBA;
}

bool SameTables(const Tables_t& one, const Tables_t& other) {
    return one.isGpt == other.isGpt && one.error.IsErrorSet() == other.error.IsErrorSet() &&
           one.error.GetErrorCode() == other.error.GetErrorCode() &&
           std::equal(one.partitions.begin(), one.partitions.end(), other.partitions.begin(), other.partitions.end(),
                      SameEntry);
}

void CheckEntry(const Partition_Entry_t& entry, bool isGpt) {
    if (isGpt) {
        Demand(entry.Type == Ntfs || entry.Type == 0, "the only type of a GPT is NTFS");
        Demand(!(entry.GUID == GUID{}), "an entry in use has its type's GUID");
        return;
    }
    Demand(entry.GUID == GUID{}, "an MBR has no GUIDs");
    Demand(entry.Type != 5 && entry.Type != 15 && entry.Type != 133 && entry.Type != 238,
           "what leads to other tables is no partition");
}

// A read within a partition gives what the disk has there.
void CheckVolumeRead(CHardDiskReader& disk, const Partition_Entry_t& entry) {
    char fromVolume[SectorBytes + 1];
    char fromDisk[SectorBytes + 1];
    for (const uint64_t offset : {uint64_t{0}, uint64_t{100}, ~uint64_t{0} - 100}) {
        if (disk.ReadVolumeData(entry, offset, fromVolume, sizeof(fromVolume)).IsErrorSet())
            continue;
        DemandSuccess(disk.ReadHardDiskData(entry.StartLBA * SectorBytes + offset, fromDisk, sizeof(fromDisk)),
                      "what a partition has the disk has");
        Demand(std::memcmp(fromVolume, fromDisk, sizeof(fromDisk)) == 0, "a partition is a piece of its disk");
    }
}

struct DynamicPlaces_t {
    int isDynamic = -1;
    int64_t privateHeadLBA = -1;
    int64_t dataStartLBA = -1;
};

DynamicPlaces_t CheckDynamic(CHardDiskReader& disk, const Tables_t& tables) {
    DynamicPlaces_t places;
    const CZuError error = disk.CheckForDynamicDisk(places.isDynamic, places.privateHeadLBA, places.dataStartLBA);
    Demand(error.IsErrorSet() == tables.error.IsErrorSet(), "the look for a dynamic disk fails as the tables do");
    Demand(places.isDynamic == 0 || places.isDynamic == 1, "a disk is dynamic or not");
    Demand(!error.IsErrorSet() || (places.isDynamic == 0 && places.privateHeadLBA == 0 && places.dataStartLBA == 0),
           "a failure tells nothing");
    const bool isOfMbr = places.isDynamic != 0 && tables.isGpt == 0;
    Demand(!isOfMbr || places.privateHeadLBA == 6, "an MBR's private header lies at sector 6");
    return places;
}

std::vector<LVM_HardDisk_t> HardDiskOf(const std::string& name) {
    Disk_t link;
    link.FileName = name.c_str();
    link.Type = DiskType_PhysicalDisk;
    LVM_HardDisk_t disk;
    disk.ProductType = VirtualProdType_Physical;
    disk.Disks = {link};
    return {disk};
}

// A plain partition's volume reads as the disk does from the partition's start on.
void CheckVolume(CHardDiskReader& disk, const CLVM& lvm, const LVM_Volume_t& volume) {
    const LVM_Component_t& run = volume.Segments.front().Components.front();
    for (const uint64_t offset : {uint64_t{0}, uint64_t{700}, (run.VolLBAEnd << 9U) + 511, ~uint64_t{0}}) {
        char fromVolume[300];
        char fromDisk[sizeof(fromVolume)];
        uint32_t got = ~0U;
        const CZuError error = lvm.ReadVolumeData(volume, offset, fromVolume, sizeof(fromVolume), &got);
        Demand(error.IsErrorSet() == (got != sizeof(fromVolume)), "a whole read is a success");
        Demand(got <= sizeof(fromVolume), "no read is longer than asked for");
        // In larger ones the bytes up to the end wrap, and a read goes on where it began.
        if (got == 0 || run.VolLBAEnd > LargestVolumeLba)
            continue;
        DemandSuccess(disk.ReadHardDiskData((run.DiskLBAStart << 9U) + offset, fromDisk, got),
                      "what a volume has the disk has");
        Demand(std::memcmp(fromVolume, fromDisk, got) == 0, "a volume is a piece of its disk");
    }
    NTFS_VOLUME_DATA_BUFFER info{};
    const CZuError error = lvm.GetNTFSVolInfo(volume, &info);
    Demand(!error.IsErrorSet() || info.NumberSectors.QuadPart == 0, "a failure leaves zeros");
}

void CheckDiscovery(CHardDiskReader& disk, const std::string& name, const Tables_t& tables, bool isDynamic) {
    CLVM lvm;
    std::vector<LVM_HardDisk_t> disks = HardDiskOf(name);
    const CZuError error = lvm.InitializeFromDisk(disks);
    if (isDynamic)
        return;
    const bool isPassedOver = tables.error.IsErrorSet() && tables.error.GetErrorCode() != 1;
    Demand(error.IsErrorSet() == (tables.error.IsErrorSet() && !isPassedOver),
           "discovery fails on a disk without a table, and passes over one that can't be read");
    const std::vector<LVM_Volume_t> volumes = lvm.GetVolumes();
    const auto ntfs = std::count_if(tables.partitions.begin(), tables.partitions.end(),
                                    [](const Partition_Entry_t& entry) { return entry.Type == Ntfs; });
    const bool hasTables = !tables.error.IsErrorSet();
    Demand(volumes.size() == (hasTables ? static_cast<size_t>(ntfs) : 0), "each NTFS partition is a volume");
    for (size_t index = 0; index < std::min<size_t>(volumes.size(), MostVolumes); ++index) {
        Demand(volumes[index].AllDiskFound == 1, "a plain partition's disk is there");
        Demand(volumes[index].VolName == "Volume" + std::to_string(index + 1), "volumes are numbered");
        CheckVolume(disk, lvm, volumes[index]);
    }
}

void TryDisk(const std::string& name) {
    CHardDiskReader disk(VirtualProdType_Physical);
    std::vector<LVM_HardDisk_t> disks = HardDiskOf(name);
    DemandSuccess(disk.OpenHardDisk(disks.front().Disks), "a file in memory opens");
    const Tables_t tables = TablesOf(disk);
    Demand(SameTables(tables, TablesOf(disk)), "reading the tables twice gives the same");
    for (const Partition_Entry_t& entry : tables.partitions)
        CheckEntry(entry, tables.isGpt != 0);
    for (size_t index = 0; index < std::min<size_t>(tables.partitions.size(), MostVolumes); ++index)
        CheckVolumeRead(disk, tables.partitions[index]);
    const DynamicPlaces_t places = CheckDynamic(disk, tables);
    CheckDiscovery(disk, name, tables, places.isDynamic != 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CMemoryFiles files;
    const std::string drive = std::string(DriveNamePrefix) + "0";
    for (const uint64_t holeBytes : {uint64_t{0}, HoleBytes}) {
        files.Put(drive, data, size, holeBytes);
        TryDisk(drive);
    }
    files.Put(VolumeName, data, size);
    TryDisk(VolumeName);
    Demand(files.OpenCount() == 0, "every file is closed in the end");
    return 0;
}
