#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "VirtualServer/VMInfo/NtfsVolumeData.h"
#include "VirtualServer/VMInfo/SparseInfo.h"
#include "foundation/Guid.h"
#include "foundation/ZuError.h"
#include "foundation/ZuString.h"
#include "platform/Export.h"

class IVMInfo;

constexpr uint32_t NoHardDisk = 0xFFFFFFFF;

// One disk as the caller gives it.
struct LVM_HardDisk_t {
    ProductType_t ProductType = VirtualProdType_VMware;
    std::vector<Disk_t> Disks;  // the chain, base first
};

// One run of sectors on one disk.
struct LVM_Component_t {
    GUID DiskGUID{};  // of the disk in its dynamic-disk database; zero otherwise
    uint64_t DiskLBAStart = 0;
    uint64_t DiskLBAEnd = 0;  // inside the run
    uint64_t VolLBAStart = 0;
    uint64_t VolLBAEnd = 0;  // inside the run
    int32_t ColumnIndex = 0;
    uint32_t HardDiskIndex = NoHardDisk;  // into the disks; all ones for one that wasn't found
};

struct LVM_Segment_t {
    std::vector<LVM_Component_t> Components;  // by place in the volume, or by column where striped
    uint64_t StripeSize = 0;                  // sectors; 0 for no stripes
    uint64_t LBAStart = 0;                    // of the volume
    uint64_t LBAEnd = 0;                      // the last one; callers rely on a plain partition's being one behind it
};

struct LVM_Volume_t {
    GUID VolGUID{};          // of a dynamic volume; zero for a plain partition
    char VolName[100] = {};  // ended by 0
    int32_t IsRaid5 = 0;
    uint8_t SystemID = 0;                 // the partition's type: 7 for NTFS, 0x8E for Linux LVM2
    int32_t AllDiskFound = 0;             // every component has its disk
    std::vector<LVM_Segment_t> Segments;  // in the order of the volume
};

// Bytes of a volume that lie together in one backup block.
struct LVM_Disk_Offset_Len_t {
    uint64_t DiskOffset = ~uint64_t{0};  // bytes, on the disk
    uint64_t Length = ~uint64_t{0};      // bytes
    CZuString ExtentName;                // of the extent that holds them, as the dump has it
    uint64_t BlockNumber = ~uint64_t{0};
    uint64_t BlockOffset = ~uint64_t{0};  // bytes, what lies in front of a block's data included
};

// The volumes on a set of disks, found without an operating system's help.
//
// Construct, `InitializeFromDisk`, `GetVolumes`, read in any order. The disks stay open until
// `Reset` or the end of the object. Not for use by two threads at once, reads included.
class DISKSTREAM_EXPORT CLVM {
public:
    // Looks up in the settings whether Linux volumes are looked for: number `LinuxMetadataSupport`
    // of section "VirtualServer".
    CLVM();
    CLVM(const CLVM&) = delete;
    CLVM& operator=(const CLVM&) = delete;
    ~CLVM();

    // Closes all disks and forgets all volumes.
    void Reset();

    // What disks behind a hypervisor need. `info` stays the caller's.
    void SetVMInfo(IVMInfo* info, const char* first, const char* second);

    // Opens the disks and finds their volumes. A disk that opens but can't be read is passed over,
    // and gets no index. A volume whose disks aren't all there is kept, and marked. After a failure
    // what was found so far stays. Of plain partitions only those with NTFS become volumes.
    CZuError InitializeFromDisk(std::vector<LVM_HardDisk_t>& disks);

    std::vector<LVM_Volume_t> GetVolumes() const { return m_Volumes; }

    // Reads `length` bytes at byte `offset` of the disk of that index.
    CZuError ReadHardDisk(uint32_t hardDiskIndex, uint64_t offset, void* buffer, uint32_t length) const;

    // Reads `length` bytes, not 0, at byte `offset` of `volume`. `bytesRead`, which may be null, is
    // what was read, after a failure too.
    //
    // Callers keep each read within one stripe and one component: behind such a boundary the place
    // on the disk is worked out from the start of the request all the same, and other bytes come.
    CZuError ReadVolumeData(const LVM_Volume_t& volume, uint64_t offset, void* buffer, uint32_t length,
                            uint32_t* bytesRead) const;

    // How many of `length` bytes from byte `offset` on lie together, within one stripe and one component, so that one
    // read gives them rightly. `length` where the volume has no such byte: the read tells why.
    static uint32_t CountBytesTogether(const LVM_Volume_t& volume, uint64_t offset, uint32_t length);

    // Fills `info` from the volume's boot sector.
    CZuError GetNTFSVolInfo(const LVM_Volume_t& volume, NTFS_VOLUME_DATA_BUFFER* info) const;

    // Writes the layout of all volumes, and which sectors the files of each disk hold, to `path`, so that a machine
    // without the disks finds the bytes of a volume in their backups. A failure leaves an incomplete file, which no
    // reader takes.
    CZuError DumpVolumeInfoToFile(const char* path) const;

    // Reads such a dump, of this version or the one before it. `sparseInfo` may be null. After a failure both hold what
    // was read by then.
    //
    // Callers rely on the ends of segments as they come: of the dumps written now each is the sum of the components'
    // sectors beyond what it was, of the older ones 18 for each component.
    static CZuError ReadVolumeInfoFromDump(const char* path, std::vector<LVM_Volume_t>& volumes,
                                           SparseInfo_t* sparseInfo);

    // Appends to `runs` where the bytes of a volume lie in the backup blocks of its disks, from a dump alone. Bytes
    // that no file of a disk holds are a failure, where a read of the disk gives zeros. `runs` keeps what came before a
    // failure. Whether all disks were found isn't looked at.
    static CZuError ConvertVolumeOffsetToDiskExtents(uint64_t offset, uint64_t length, const LVM_Volume_t& volume,
                                                     const SparseInfo_t& sparseInfo,
                                                     std::vector<LVM_Disk_Offset_Len_t>& runs);

    // Kept for the process: set once, before work starts.
    using QuitFlagCallback_t = int (*)(int, void*, void*);
    static void SetQuitFlagCallback(QuitFlagCallback_t callback, int first, void* second);

private:
    struct GuidOrder_t {
        bool operator()(const GUID& left, const GUID& right) const;
    };
    using VolumesByGuid_t = std::map<GUID, size_t, GuidOrder_t>;  // indexes into the volumes

    CZuError AddHardDisk(const LVM_HardDisk_t& disk);
    CZuError ParseAndAddDOSPartitions(uint32_t diskIndex);
    CZuError ParseAndAddLDMPartitions(uint32_t diskIndex, int64_t privateHeadLBA, int64_t dataStartLBA);
    void AddPartition(const Partition_Entry_t& entry, uint32_t diskIndex);
    CZuError FindOrAddDynamicVolume(const CLDM_VBLK& record, VolumesByGuid_t& volumes, size_t& index);
    CZuError AddLinuxVolumes();
    void FinishVolumes();
    static void FinishSegments(LVM_Volume_t& volume);

    static CZuError ReadVolumeInfoFromDump10(const char* path, std::vector<LVM_Volume_t>& volumes,
                                             SparseInfo_t* sparseInfo);
    static CZuError ReadVolumeInfoFromDump11(const char* path, std::vector<LVM_Volume_t>& volumes,
                                             SparseInfo_t* sparseInfo);

    std::vector<std::unique_ptr<CHardDiskReader>> m_HardDisks;  // by `HardDiskIndex`
    std::vector<LVM_Volume_t> m_Volumes;
    std::vector<LVM_Component_t> m_UndecidedComponents;  // that may be Linux physical volumes
    IVMInfo* m_pVMInfo = nullptr;
    std::string m_VMInfoName1;
    std::string m_VMInfoName2;
    int32_t m_LinuxMetadataSupport = 0;

    static QuitFlagCallback_t CheckQuitFlag;
    static int checkQuitFlagCallbackFirstArg;
    static void* checkQuitFlagCallbackSecondArg;
};
