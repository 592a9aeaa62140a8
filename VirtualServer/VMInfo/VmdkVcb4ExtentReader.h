#pragma once

#include <cstdint>
#include <string>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "VirtualServer/VMInfo/ExtentTable.h"
#include "VirtualServer/VMInfo/IVMInfo.h"
#include "VirtualServer/VMInfo/SectorRun.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"
#include "platform/Export.h"

// A disk that a hypervisor serves through `IVMInfo`, as source and target of blocks. Two tables that the server fills
// tell which sectors are allocated and, where a change id is set, which changed since then. A target without a server
// is a local flat file with its descriptor.
//
// Call the setters, open or create, read or write in any order, close. Not for use by two threads at once: reads move
// the tables' positions. A copy has its own tables and shares the server and the local file.
class DISKSTREAM_EXPORT CVmdkVcb4ExtentReader {
public:
    // `info` stays the caller's and outlives this object; null for none. The names are passed on to it.
    void SetVMInfo(IVMInfo* info, const char* first, const char* second);

    // What changed since then is in the stream; empty, or null, for all that is allocated. Given before `OpenDisk`.
    void SetChangeId(const char* changeId);

    // Sectors; 0 stands for 512 and 0xFFFFFFFF for 128, which `OpenDisk` and `CreateDisk` put in place.
    void SetBlockSize(unsigned int sectors) { m_BlockSize = sectors; }
    unsigned int GetBlockSize() const { return m_BlockSize; }

    // Callers rely on one sector more than the server reports for an open disk: the record has it, and `CreateDisk`
    // takes it off again.
    uint64_t GetTotalSectors() const { return m_LastSector - m_FirstSector + 1; }

    // The server's name of the disk, or the local file's.
    void GetFileName(std::string& name);

    // Opens the server's disk `name` and asks for its tables. The other arguments have no effect. Answers that lead
    // nowhere are refused: none at all behind the first, or one for another place than asked for.
    CZuError OpenDisk(const char* name, uint64_t firstSector, VwExtentType type);

    CZuError CloseDisk();

    // Makes the disk from the record of `GetMetadataInfo`: on the server, whose disk gets what stands behind the last
    // backslash of `name`, or as the descriptor `name` and the flat file beside it. The type has no effect. A record
    // that isn't one is refused before anything is made.
    CZuError CreateDisk(const char* name, VwExtentType type, CAutoMemory<char>& metadata);

    // Makes `metadata` the record of the open disk, with the settings that the server tells as `key = "value"` texts.
    CZuError GetMetadataInfo(CAutoMemory<char>& metadata);

    // Reads the first `size` bytes (at most 512) of `sector`. `IsErrorEOF` holds behind the disk's end,
    // `IsErrorSectorNotFound` when it isn't allocated.
    CZuError ReadSector(uint64_t sector, char* buffer, unsigned long size);

    // Tells how far the answer of `ReadSector` holds, at most `mostSectors`; what isn't allocated is an answer here.
    CZuError FindRun(uint64_t sector, uint64_t mostSectors, SectorRun_t& run);

    // Reads `size` bytes from `sector` on, allocated or not.
    CZuError ReadSectors(uint64_t sector, char* buffer, uint32_t size);

    // Reads block `number` of `GetBlockSize` sectors, whole wherever one of its sectors is allocated; what lies behind
    // the disk's end comes as zeros. `IsErrorEOF` holds when it begins there, `IsErrorSectorNotFound` when no sector of
    // it is allocated, `IsErrorSectorNotChanged` when some are and none changed.
    CZuError ReadBlock(uint64_t number, char* buffer);

    // The block from `number` on, itself included, that `ReadBlock` finds allocated; without one the first behind the
    // disk.
    uint64_t NextHeldBlock(uint64_t number);

    // Writes `data`, at most `sectors` sectors, where block `number` of that size begins. What would pass the disk's
    // end is cut off; a sector that the data fills in part is filled up with zeros on the server. `IsErrorNoSpace`
    // holds when the local file's system is full, `IsErrorReadOnly` when the server says that the disk can't be
    // written.
    CZuError WriteBlock(uint64_t number, unsigned int sectors, CAutoMemory<char>& data);

    // Tells what the text of a record of `GetMetadataInfo` has for the keys that it knows, in any case of letters; what
    // it doesn't have stays as it was, but for the provisioning, which is thick then.
    CZuError ParseDiskMetaData(CAutoMemory<char>& metadata, DiskGeometry_t& geometry,
                               DiskProvisioningType_t& provisioning, std::string& adapterType, std::string& uuid,
                               std::string& virtualHWVersion);

    // Writes an extent count of one and one record of the sparse dump, in which the disk is flat: the tables aren't in
    // it.
    CZuError DumpSparseInfo(CZuFile& out, const char* name);

    int IsErrorEOF(const CZuError& error) const;
    int IsErrorSectorNotFound(const CZuError& error) const;
    int IsErrorSectorNotChanged(const CZuError& error) const;
    int IsErrorNoSpace(const CZuError& error) const;
    int IsErrorReadOnly(const CZuError& error) const;

private:
    void AdjustBlockSize();
    CZuError OpenManagedDisk(const char* name);
    CZuError BuildExtentTable(CExtentTable& table, const char* changeId);
    void AppendStretches(CExtentTable& table, const VmdkFileExtents_t& answer) const;
    CZuError CreateManagedDisk(const std::string& name);
    CZuError CreateLocalDisk(const std::string& name, const CAutoMemory<char>& metadata);
    bool HoldsOneOf(CExtentTable& table, uint64_t firstSector, uint64_t sectors) const;
    bool FirstSectorOf(uint64_t number, uint64_t blockSectors, uint64_t& firstSector) const;
    CZuError WriteManaged(uint64_t firstSector, uint64_t mostSectors, CAutoMemory<char>& data);
    CZuError WriteLocal(uint64_t firstSector, uint64_t mostSectors, CAutoMemory<char>& data);

    IVMInfo* m_VMInfo = nullptr;
    std::string m_VMInfoTexts[2];
    uint32_t m_SectorSize = 0;  // bytes; 0 while closed
    uint32_t m_BlockSize = 0;   // sectors
    uint64_t m_FirstSector = 0;
    uint64_t m_LastSector = 0;  // as the server reports it: reads end in front of it
    CExtentTable m_Allocated;
    CExtentTable m_Changed;
    CZuFile m_LocalFile;
    VmdkFileHandle_t m_Handle;
    std::string m_ChangeId;
};
