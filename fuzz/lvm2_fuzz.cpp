// The input is what lies in a partition of Linux's, alone and with a hole behind it, and it is the text of a group.
// Whatever is found has to be found again, and to lie where the partition or no disk at all is.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "VirtualServer/VMInfo/VIDALinuxDiskParser.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryFiles.h"
#include "platform/DriveName.h"

namespace {

constexpr char TextName[] = "of\\no\\folder\\LinuxLVM2.txt";
constexpr uint64_t LargestText = uint64_t{256} << 20U;
constexpr uint64_t HoleBytes = 16 * 1024;
constexpr uint64_t SectorBytes = 512;
constexpr uint32_t NoDisk = 0xFFFFFFFF;
constexpr uint8_t LinuxLvm = 0x8E;
const std::string IdOfTheSeeds(32, 'i');

// The steps behind the temporary file.
class CTextParser : public VIDALinuxDiskParser {
public:
    CTextParser() : VIDALinuxDiskParser(nullptr) {}

    // What of the text is sound stays when the rest of it isn't.
    std::vector<LVM_Volume_t> VolumesOf(const LVM_Component_t& slice) {
        std::vector<LVM_Volume_t> volumes;
        try {
            LinuxLVM2MetaDataParser(TextName);
        } catch (VIDALinuxDiskParserException& exception) {
            Demand(std::strncmp(exception.GetErrorMsg(), "APPLICATION", 11) != 0, "only a disk fails so");
        }
        UpdatePVInfo(IdOfTheSeeds, slice);
        UpdateLogicalVolInfo(volumes);
        return volumes;
    }
};

// A disk of one partition, from sector 1 on.
std::string DiskWith(const uint8_t* data, size_t size) {
    std::string disk(SectorBytes, '\0');
    const uint64_t sectors = (size + HoleBytes) / SectorBytes + 1;
    disk[446 + 4] = static_cast<char>(LinuxLvm);
    disk[446 + 8] = 1;
    disk[446 + 12] = static_cast<char>(sectors & 0xFFU);
    disk[446 + 13] = static_cast<char>(sectors >> 8U & 0xFFU);
    disk[510] = '\x55';
    disk[511] = '\xAA';
    return disk.append(reinterpret_cast<const char*>(data), size);
}

LVM_Component_t Slice() {
    LVM_Component_t slice;
    slice.DiskLBAStart = 1;
    slice.HardDiskIndex = 0;
    return slice;
}

void CheckSegment(const LVM_Segment_t& segment) {
    for (const LVM_Component_t& component : segment.Components) {
        Demand(component.VolLBAStart == segment.LBAStart && component.VolLBAEnd == segment.LBAEnd,
               "a component has the sectors of its segment");
        Demand(component.HardDiskIndex == 0 || component.HardDiskIndex == NoDisk, "there is one disk at most");
    }
}

void CheckLogicalVolumes(const std::vector<LVM_Volume_t>& volumes) {
    std::string before;
    for (const LVM_Volume_t& volume : volumes) {
        Demand(std::memchr(volume.VolName, '\0', sizeof(volume.VolName)) != nullptr, "a name ends");
        Demand(before <= volume.VolName, "volumes come in the order of their names");
        Demand(volume.SystemID == LinuxLvm && volume.AllDiskFound == 1 && volume.IsRaid5 == 0, "a volume is LVM2's");
        for (const LVM_Segment_t& segment : volume.Segments)
            CheckSegment(segment);
        before = volume.VolName;
    }
}

bool SameComponent(const LVM_Component_t& one, const LVM_Component_t& other) {
    return one.DiskLBAStart == other.DiskLBAStart && one.DiskLBAEnd == other.DiskLBAEnd &&
           one.HardDiskIndex == other.HardDiskIndex;
}

bool SameSegment(const LVM_Segment_t& one, const LVM_Segment_t& other) {
    return one.LBAStart == other.LBAStart && one.LBAEnd == other.LBAEnd && one.StripeSize == other.StripeSize &&
           std::equal(one.Components.begin(), one.Components.end(), other.Components.begin(), other.Components.end(),
                      SameComponent);
}

bool SameVolume(const LVM_Volume_t& one, const LVM_Volume_t& other) {
    return std::strcmp(one.VolName, other.VolName) == 0 &&
           std::equal(one.Segments.begin(), one.Segments.end(), other.Segments.begin(), other.Segments.end(),
                      SameSegment);
}

bool SameVolumes(const std::vector<LVM_Volume_t>& one, const std::vector<LVM_Volume_t>& other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(), SameVolume);
}

void OpenDisk(CLVM& lvm, const std::string& drive) {
    Disk_t link;
    link.FileName = drive.c_str();
    link.Type = DiskType_PhysicalDisk;
    LVM_HardDisk_t disk;
    disk.ProductType = VirtualProdType_Physical;
    disk.Disks = {link};
    std::vector<LVM_HardDisk_t> disks = {disk};
    DemandSuccess(lvm.InitializeFromDisk(disks), "a disk in memory with an MBR is one");
}

// A slice that is no physical volume is a plain one. The others' text is in the file, and may be any.
void CheckRun(CLVM& lvm, const CMemoryFiles& files, bool isPhysicalVolume) {
    std::vector<LVM_Volume_t> volumes;
    const bool isDone = VIDALinuxDiskParser(&lvm).GenerateVolListFromPartitions({Slice()}, volumes, TextName);
    if (!isPhysicalVolume) {
        Demand(isDone && volumes.size() == 1, "a slice without a label is a volume");
        Demand(std::strcmp(volumes.front().VolName, "Volume-0") == 0, "plain volumes are numbered");
        return;
    }
    Demand(isDone || volumes.empty(), "a run that fails gives no logical volumes");
    CheckLogicalVolumes(volumes);
    Demand(files.Find(TextName)->Size() <= LargestText, "the text's file has a bound");
    std::vector<LVM_Volume_t> again;
    Demand(VIDALinuxDiskParser(&lvm).GenerateVolListFromPartitions({Slice()}, again, TextName) == isDone &&
               SameVolumes(volumes, again),
           "what is found is found again");
}

void TryDisk(const std::string& drive, const CMemoryFiles& files) {
    CLVM lvm;
    OpenDisk(lvm, drive);
    VIDALinuxDiskParser parser(&lvm);
    std::string id;
    try {
        const bool isPhysicalVolume = parser.IsDiskSliceLVM2PhysicalVolume(Slice(), id, TextName);
        Demand(!isPhysicalVolume || id.size() == 32, "a physical volume has an id");
        CheckRun(lvm, files, isPhysicalVolume);
    } catch (VIDALinuxDiskParserException&) {
        std::vector<LVM_Volume_t> volumes;
        Demand(!VIDALinuxDiskParser(&lvm).GenerateVolListFromPartitions({Slice()}, volumes, TextName),
               "what can't be looked at ends the run");
        Demand(volumes.empty(), "and gives no volumes");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CMemoryFiles files;
    const std::string drive = std::string(DriveNamePrefix) + "0";
    const std::string disk = DiskWith(data, size);
    for (const uint64_t holeBytes : {uint64_t{0}, HoleBytes}) {
        files.Put(drive, disk.data(), disk.size(), holeBytes);
        TryDisk(drive, files);
    }
    files.Put(TextName, data, size);
    CheckLogicalVolumes(CTextParser().VolumesOf(Slice()));
    Demand(files.OpenCount() == 0, "every file is closed in the end");
    return 0;
}
