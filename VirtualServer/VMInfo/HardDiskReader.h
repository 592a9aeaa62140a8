#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "VirtualServer/VMInfo/LDMDatabase.h"
#include "foundation/AutoMemory.h"
#include "foundation/Guid.h"
#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"
#include "foundation/ZuString.h"
#include "platform/Export.h"

class IOpenHardDisk;
class IVMInfo;

// One link of a disk's chain.
struct Disk_t {
    CZuString FileName;  // to open it
    DiskType_t Type = NoDiskType;
    CZuString DumpName;      // under which its extents stand in a dump
    uint64_t BlockSize = 0;  // sectors, as the dump tells them
};

// What one link of an open disk is called in a dump.
struct HardDiskDumpInfo_t {
    CZuString DumpName;
    uint64_t BlockSize = 0;  // sectors
};

// One partition as its table has it. A new one is all zero.
struct Partition_Entry_t {
    uint8_t Type = 0;       // the MBR's system id; of a GPT only 7 (NTFS) or 0
    ::GUID GUID{};          // the GPT's type of partition; zero for MBR
    uint64_t StartLBA = 0;  // sectors of the disk
    uint64_t EndLBA = 0;    // inside the partition; all ones for unknown
};

// One hard disk as a flat run of bytes: a chain of VMDK files, a chain of VHD files, or a physical
// disk. It hides holes and chains, and reads the partition tables.
//
// Construct for a product, open, read in any order, close; then it can be opened again. A copy
// shares the open disk: closing one leaves the other's readers open. Not for use by two threads at
// once: reads fill the cache of a sector.
class DISKSTREAM_EXPORT CHardDiskReader {
public:
    explicit CHardDiskReader(ProductType_t product);

    // What disks behind a hypervisor need, given before `OpenHardDisk`. `info` stays the caller's.
    void SetVMInfo(IVMInfo* info, const char* first, const char* second);

    // Opens the chain, base first and newest link last; of a physical disk only the first is looked
    // at. A failure leaves the object closed, with two exceptions, which count as open until
    // `CloseHardDisk`: a physical disk whose file doesn't open, and a chain for whose cache there is no
    // memory.
    CZuError OpenHardDisk(std::vector<Disk_t>& disks);

    // Closing what isn't open is no error.
    CZuError CloseHardDisk();

    // Reads `length` bytes at byte `offset`. A sector that no link holds reads as zeros; a sector of
    // an older link shows through what the newer ones don't hold. Physical disks fail behind their
    // end with their own error, chains with that of the link that has no such sector.
    CZuError ReadHardDiskData(uint64_t offset, void* buffer, uint32_t length);

    // The bytes from `offset` on, at most `mostBytes`, that no link of the chain holds, and which
    // so are zeros: callers pass over them. 0 where a link holds the first, or none can tell.
    uint64_t CountHoleBytes(uint64_t offset, uint64_t mostBytes);

    // Reads within a partition. Callers rely on the last byte being out of reach: a read that ends
    // exactly where the partition does is "Reading beyond volume boundaries".
    CZuError ReadVolumeData(Partition_Entry_t partition, uint64_t offset, void* buffer, uint32_t length);

    // Appends the disk's partitions; `isGPT` becomes 1 when a GPT told them, else 0. A physical disk
    // that isn't named as a drive (see `platform/DriveName.h`) is one single volume. A disk without
    // the MBR's signature fails with code 1. What was appended before a failure stays.
    //
    // Callers rely on some edges: an MBR slot's end wraps at 32 bits; logical partitions of other
    // types than 7, 0x83 and 0x8E have all ones for both bounds; a slot of type 0xEE drops what the
    // slots before it gave; a GPT's entries are read from sector 2 on, 128 bytes each, wherever its
    // header says that they are.
    CZuError GetDOSPartitions(std::vector<Partition_Entry_t>& partitions, int& isGPT);

    // Tells whether this is a Windows dynamic disk, and then the LBA of its private header and the
    // LBA from which the places in its database count.
    CZuError CheckForDynamicDisk(int& isDynamic, int64_t& privateHeadLBA, int64_t& dataStartLBA);

    // Reads the database of a dynamic disk from the private header at `privateHeadLBA`, with all of its
    // records as one tree. Of the four copies of its table of contents one good one is enough. Callers
    // rely on records being single: one of several fragments fails as "Not found".
    CZuError GetDynamicDiskDatabase(LDM_DB_t& db, uint64_t privateHeadLBA);

    // Writes this disk's block of a volume dump: the number of links, and the sparse dump of each.
    CZuError DumpSparseInfo(CZuFile& out);

    // Makes an empty disk around one NTFS partition of `sectors` sectors, 63 sectors in: a boot
    // sector, and for a VHD its footer, go to `diskFile`, which may exist; `descriptorFile` gets the
    // VMDK descriptor and isn't touched for a VHD. A failure leaves the files as far as they came.
    static CZuError CreateVirtualDisk(uint64_t sectors, const char* diskFile, const char* descriptorFile,
                                      ProductType_t product);

protected:
    // The steps of `GetDynamicDiskDatabase`. `sector` holds 512 bytes, `record` a slot of 128 or as many
    // as its head says.
    CZuError ParseLDMPrivateHead(char* sector, LDM_privhead_t& head);
    CZuError ParseLDMTOCBlock(char* sector, LDM_tocblock_t& block);
    CZuError ParseLDMVMDB(char* sector, LDM_vmdb_t& vmdb);
    CZuError ParseLDMVBLK(uint64_t firstLBA, const LDM_vmdb_t& vmdb, CLDM_VBLK& group);
    CZuError ParseVBLKStructure(CLDM_VBLK& out, char* record);

    // The same steps with their reads, and the area of the records as it lies on the disk. `firstLBA` is
    // that of the records' head.
    CZuError ReadPrivateHead(LDM_DB_t& db, uint64_t lba);
    CZuError FindTocBlock(LDM_DB_t& db);
    CZuError ReadVmdb(LDM_DB_t& db);
    CZuError ReadVblkArea(uint64_t firstLBA, const LDM_vmdb_t& vmdb, CAutoMemory<char>& area);

private:
    bool ReadTocBlock(uint64_t lba, unsigned int copy, LDM_tocblock_t& block);

    CZuError OpenVmdkHardDisk(const std::vector<Disk_t>& disks);
    CZuError OpenVhdHardDisk(const std::vector<Disk_t>& disks);
    CZuError OpenPhysicalHardDisk(const Disk_t& disk);
    template <typename Reader, typename Prepare> CZuError OpenChain(const std::vector<Disk_t>& disks, Prepare prepare);

    CZuError GetSingleVolume(std::vector<Partition_Entry_t>& partitions);
    CZuError GetPrimaryPartitions(std::vector<Partition_Entry_t>& partitions, int& isGPT);
    CZuError GetDOSExtendedPartitions(std::vector<Partition_Entry_t>& partitions, uint64_t recordLBA,
                                      uint64_t extendedBaseLBA);
    CZuError GetGPTPartitions(std::vector<Partition_Entry_t>& partitions);

    ProductType_t m_ProductType;
    std::vector<HardDiskDumpInfo_t> m_DiskDumpInfo;  // by link
    std::shared_ptr<IOpenHardDisk> m_pDisk;          // null while nothing is open
    IVMInfo* m_pVMInfo = nullptr;
    std::string m_VMInfoName1;
    std::string m_VMInfoName2;
};
