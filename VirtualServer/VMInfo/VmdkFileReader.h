#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "VirtualServer/VMInfo/SectorRun.h"
#include "VirtualServer/VMInfo/VmdkFlatExtentReader.h"
#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "VirtualServer/VMInfo/VmdkVcb4ExtentReader.h"
#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"
#include "foundation/ZuString.h"
#include "platform/Export.h"

enum VmdkAccess_t : int {
    VmdkAccessReadWrite = 1,
    VmdkAccessReadOnly = 2,
    VmdkAccessNone = 3,
};

// One extent line of a descriptor.
struct VmdkExtentDescriptor_t {
    VmdkAccess_t access = VmdkAccessNone;
    uint64_t size = 0;  // sectors
    VwExtentType type = VwExtentTypeZero;
    CZuString fileName;   // the descriptor's directory, a backslash and the name in the line
    uint64_t offset = 0;  // always 0: others are refused
};

// What a descriptor file tells.
struct VmdkDescriptorFile_t {
    int version = 0;
    uint32_t CID = 0;
    uint32_t parentCID = 0;
    DiskType_t createType = NoDiskType;
    std::vector<VmdkExtentDescriptor_t> extents;  // in the order of the disk
};

// A whole VMDK disk for reading by sector: one sparse file, a descriptor with several flat or sparse
// extents, or a disk that a hypervisor serves. Open, read in any order, close. The block stream
// doesn't go through it. Not for use by two threads at once.
class DISKSTREAM_EXPORT CVmdkFileReader {
public:
    // Opens the sparse file `name` (types 1 and 2), or the descriptor `name` with all its extents
    // (types 3, 5 and 6), or the hypervisor's disk `name` (type 18). Anything else is "Not a supported disk type".
    // After a failure nothing is open.
    CZuError OpenDisk(const char* name, DiskType_t type);

    CZuError CloseDisk();

    // Reads the first `size` bytes (at most 512) of `sector` of the disk. `IsErrorEOF` holds when
    // no extent has that sector, `IsErrorSectorNotFound` when its grain was never allocated.
    CZuError ReadSector(uint64_t sector, char* buffer, unsigned long size);

    // Tells how far the answer for `sector` holds, over at most `mostSectors` sectors. Fails as
    // `ReadSector` does, but a sector that was never allocated is an answer and no failure.
    CZuError FindRun(uint64_t sector, uint64_t mostSectors, SectorRun_t& run);

    // Reads `size` bytes of a held run of this disk from its start on.
    CZuError ReadRun(const SectorRun_t& run, char* buffer, uint32_t size);

    // Reads the descriptor file `name` of at most 20 KiB. `type` has no effect. After a failure
    // `out` is partly filled.
    CZuError ParseVmdkDescriptorFile(const char* name, VmdkDescriptorFile_t& out, DiskType_t type);

    // Writes the number of extents and then the sparse dump of each, named `name`, "_" and its
    // index as eight hexadecimal digits; `blockSectors` is what the records of flat ones tell. A
    // hypervisor's disk has one, under `name` itself.
    CZuError DumpSparseInfo(CZuFile& out, const char* name, uint64_t blockSectors);

    // What a disk behind a hypervisor is opened with; other disks don't use it. `info` stays the
    // caller's.
    void SetVMInfo(IVMInfo* info, const char* first, const char* second);
    void SetBlockSize(uint64_t sectors);

    int IsErrorEOF(const CZuError& error) const;
    int IsErrorSectorNotFound(const CZuError& error) const;

private:
    enum class OpenKind_t { None, Flat, Sparse, Managed };

    CZuError OpenSparseDisk(const char* name);
    CZuError OpenFlatDisk(const char* name);
    CZuError OpenVcb4Disk(const char* name);
    CZuError ReadManagedSector(uint64_t sector, char* buffer, unsigned long size);
    template <typename Extent>
    CZuError OpenExtents(const VmdkDescriptorFile_t& descriptor, VwExtentType type, std::vector<Extent>& extents);
    CZuError RefuseUnlessOpen() const;

    DiskType_t m_DiskType = NoDiskType;
    OpenKind_t m_OpenKind = OpenKind_t::None;
    std::vector<CVmdkFlatExtentReader> m_FlatExtents;
    std::vector<CVmdkSparseExtentReader> m_SparseExtents;
    CVmdkVcb4ExtentReader m_ManagedDisk;
    IVMInfo* m_VMInfo = nullptr;
    std::string m_VMInfoTexts[2];
    uint64_t m_BlockSize = 0;
};
