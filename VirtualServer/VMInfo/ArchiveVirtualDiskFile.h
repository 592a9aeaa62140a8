#pragma once

#include <cstdint>
#include <string>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "VirtualServer/VMInfo/NTFSVolumeReader.h"
#include "VirtualServer/VMInfo/PhysicalDiskReader.h"
#include "VirtualServer/VMInfo/VHDFileReader.h"
#include "VirtualServer/VMInfo/VmdkFileReader.h"
#include "VirtualServer/VMInfo/VmdkFlatExtentReader.h"
#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "VirtualServer/VMInfo/VmdkVcb4ExtentReader.h"
#include "VirtualServer/VMInfo/XenVDIDiskReader.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

class IVMInfo;

// The one door to all kinds of disk file, as a stream of numbered blocks. Block N starts at sector
// N times the context's block size; a block that the disk file doesn't hold never comes, so that
// numbers jump forward.
//
// Backup: `Open`, `GetFirstBlock` for the metadata record, `GetNextBlock` until `IsErrorEOF` holds
// for the error, `Close`. Restore: `Create` with the record, `WriteBlock` for each block in any
// order, `Close`. A closed object can't be opened again. One object serves one thread at a time.
class DISKSTREAM_EXPORT CArchiveVirtualDiskFile {
public:
    explicit CArchiveVirtualDiskFile(ProductType_t product);

    // What disks behind a hypervisor need, given before `Open` or `Create`; other kinds heed none
    // of it.
    void SetVMInfo(IVMInfo* info, const char* first, const char* second);
    void SetDataStore(const char* name);
    void SetChangeId(const char* changeId);
    void SetExtentSize(uint64_t sectors);

    // Opens `name` for reading. A pair of product and disk type that no reader serves is "Disk
    // type not supported {1}". A failed `Open` leaves the object closed.
    CZuError Open(const char* name, DiskType_t type);

    // Makes the disk `name` from the record that `GetFirstBlock` gave at backup. `context` comes
    // back at no block yet, with the block size that the target uses; `blockSectors` is that size
    // where the target has none of its own. A failed `Create` leaves the object closed.
    CZuError Create(const char* name, DiskType_t type, CAutoMemory<char>& metadata, unsigned int blockSectors,
                    Context_t& context);

    // Returns no error, whatever the readers say; what they say goes to the log. The device of a Xen
    // image stays open until the object's end.
    CZuError Close();

    // Fills `metadata` with the disk's record and brings `context` to the start of the stream.
    // `blockSectors` is the block size of the kinds that have none of their own, and isn't 0 but
    // for a fixed VHD, which takes 0x10000 then. A physical disk has no record: it stays empty.
    CZuError GetFirstBlock(CAutoMemory<char>& metadata, unsigned int blockSectors, Context_t& context);

    // The next block that holds data, in a buffer that is reused from call to call. `blockNumber`
    // is set in every case, to the context's. A disk behind a hypervisor gives an empty buffer, and no
    // error, for a block that hasn't changed since the change id.
    CZuError GetNextBlock(CAutoMemory<char>& block, uint64_t& blockNumber, Context_t& context);

    // The block asked for or, where the disk file doesn't hold it, the next one that it holds:
    // `context.blockNumber` tells which. `GetNextBlock` goes on from there.
    CZuError ReadBlock(CAutoMemory<char>& block, uint64_t blockNumber, Context_t& context);

    // Writes one block of the stream. A failure leaves the object open.
    CZuError WriteBlock(CAutoMemory<char>& data, uint64_t blockNumber, Context_t& context);

    // The size in bytes of a physical disk. Kinds that know their size pass over it.
    CZuError SetDiskSize(uint64_t size);

    // What a record of a disk behind a hypervisor tells. Other kinds touch nothing.
    CZuError ParseDiskMetaData(DiskType_t type, CAutoMemory<char>& metadata, DiskGeometry_t& geometry,
                               DiskProvisioningType_t& provisioning, std::string& adapterType, std::string& uuid,
                               std::string& virtualHWVersion);

    // See `CVmdkFileReader::ParseVmdkDescriptorFile`.
    static CZuError ParseVmdkDescriptorFile(const char* name, VmdkDescriptorFile_t& out, DiskType_t type);

    // The file behind a hypervisor's disk; empty for every other kind.
    void GetFileName(std::string& name);

    int IsErrorEOF(const CZuError& error) const;
    int IsErrorNoSpace(const CZuError& error) const;
    int IsErrorReadOnly(const CZuError& error) const;

private:
    CZuError OpenReader(const char* name, DiskType_t type);
    CZuError CreateTarget(const char* name, DiskType_t type, CAutoMemory<char>& metadata, unsigned int blockSectors,
                          Context_t& context);
    CZuError CreateVmdkFile(const char* name, DiskType_t type, CAutoMemory<char>& metadata, unsigned int blockSectors,
                            Context_t& context);
    CZuError CreateVhdFile(const char* name, DiskType_t type, CAutoMemory<char>& metadata, unsigned int blockSectors,
                           Context_t& context);
    CZuError CreatePhysicalDisk(const char* name, DiskType_t type, CAutoMemory<char>& metadata,
                                unsigned int blockSectors, Context_t& context);
    CZuError CreateXenVDI(const char* name, CAutoMemory<char>& metadata, Context_t& context);
    CZuError ReadForward(CAutoMemory<char>& block, Context_t& context);
    CZuError AllocateBlock(CAutoMemory<char>& block, const char* outOfMemory, const Context_t& context) const;
    CZuError ReadCurrentBlock(CAutoMemory<char>& block, const Context_t& context);
    CZuError ReadSparseGrain(CAutoMemory<char>& block, const Context_t& context);
    CZuError ReadFlatGrain(CAutoMemory<char>& block, const Context_t& context);
    CZuError ReadVhdBlock(CAutoMemory<char>& block, const Context_t& context);
    CZuError ReadPhysicalBlock(CAutoMemory<char>& block, const Context_t& context);
    CZuError ReadNtfsBlock(CAutoMemory<char>& block, const Context_t& context);
    CZuError ReadXenBlock(CAutoMemory<char>& block, const Context_t& context);
    CZuError ReadManagedBlock(CAutoMemory<char>& block, const Context_t& context);
    CZuError WriteManagedBlock(CAutoMemory<char>& data, uint64_t blockNumber, unsigned int blockSectors);
    bool IsHole(const CZuError& error) const;
    uint64_t NextHeldBlock(uint64_t number);
    bool IsEndOfReader(const CZuError& error) const;

    ProductType_t m_ProductType;
    DiskType_t m_DiskType = NoDiskType;
    CVmdkSparseExtentReader m_SparseExtent;
    CVmdkFlatExtentReader m_FlatExtent;
    CVmdkVcb4ExtentReader m_ManagedDisk;
    CPhysicalDiskReader m_PhysicalDisk;
    CVHDFileReader m_VhdFile;
    CNTFSVolumeReader m_NtfsVolume;
    CXenVDIDiskReader m_XenImage;
};
