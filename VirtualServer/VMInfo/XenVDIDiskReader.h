#pragma once

#include <cstdint>
#include <string>

#include "VirtualServer/VMInfo/PhysicalDiskReader.h"
#include "VirtualServer/VMInfo/XenVDIRecord.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

class IVMInfo;

// A virtual disk image of a Xen host, which the hypervisor's side attaches to this machine as a device. It is read and
// written as any raw disk is. What comes on top: its name is that of the image and that of the device, its metadata is
// the image's record as an XML message, and a new image is made from such a record.
//
// Give it the server, then open, or create from the record of another, then read or write, then close. Nothing but
// `CloseDisk` and the destructor closes it. Not for use by two threads at once.
class DISKSTREAM_EXPORT CXenVDIDiskReader : public CPhysicalDiskReader {
public:
    // Whom `GetMetadataInfo` and `CreateDisk` ask; it stays the caller's. Without one they fail as they do when it
    // fails. The two names are those of other kinds of disk, and are dropped.
    void SetVMInfo(IVMInfo* info, const char* first, const char* second);

    // The storage repository for a new image. `name` counts up to a character 18, behind which callers put what isn't
    // ours to read; where there is one, the record of this image is given that repository at once.
    void SetDataStore(const char* name);

    // Sectors.
    void SetBlockSize(unsigned int sectors) { m_BlockSize = sectors; }
    unsigned int GetBlockSize() const { return m_BlockSize; }

    // Opens `name`, which is the image's identifier, "#" and the device. The identifier is kept also when the device
    // doesn't open.
    CZuError OpenDisk(const char* name) override;

    using CPhysicalDiskReader::CreateDisk;

    // Has the server make an image from `metadata`, which `GetMetadataInfo` gave at backup, and opens the device that
    // it names. `record` becomes what the server was asked for, and `device` the device's name. `flag` has no effect.
    //
    // The record as it came and as it was asked for stay behind as two files in the directory of `name`, for those who
    // look into a failed restore: UUID.origConfig and UUID.newConfig, with the identifier of the image that the record
    // is of.
    CZuError CreateDisk(const char* name, xen_vdi_record& record, bool flag, std::string& device,
                        CAutoMemory<char>& metadata);

    // Makes `metadata` the record of this image as an XML message, without a terminator.
    CZuError GetMetadataInfo(CAutoMemory<char>& metadata);

    // Writes as other raw disks do, but a device that isn't ready or isn't there yet gets up to 30 tries, with two
    // seconds behind each.
    CZuError WriteBlock(uint64_t number, unsigned int sectors, CAutoMemory<char>& data) override;

protected:
    // Lets time pass between two tries.
    virtual void WaitForDevice(unsigned int milliseconds);

private:
    int PrepareImage();
    int MakeImage(std::string& device);
    void TakeOver(const VirtualServer::XenVDIRecord& message);

    IVMInfo* m_VMInfo = nullptr;
    std::string m_DataStore;  // without character 18 and what stood behind it
    xen_vdi_record m_Record;
    uint32_t m_BlockSize = 512;  // sectors
};
