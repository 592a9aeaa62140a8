#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/XenVDIRecord.h"

// What the hypervisor's side names an open disk by; its own to fill and to read.
struct VmdkFileHandle_t {
    uint64_t id = 0;
    void* impl = nullptr;
};

// What the hypervisor's side tells of an open disk.
struct VmdkFileInfo_t {
    uint32_t sectors = 0;  // of 512 bytes
};

// A stretch of a disk, in bytes.
struct VmdkFileStretch_t {
    uint64_t start = 0;
    uint64_t length = 0;
};

// The stretches that lie in the piece of a disk from `position` on, in bytes and in ascending order.
struct VmdkFileExtents_t {
    uint64_t position = 0;
    uint64_t length =
        0;  // that the answer covers; 0 on the first question: no more is known than that all may be in use
    std::vector<VmdkFileStretch_t> stretches;
};

// A server of virtual disks: what the readers of disks behind a hypervisor ask. Classes that implement it lie outside
// of the core. Names and texts are in UTF-8, sectors have 512 bytes, and `handle` is what `SetCurrVmdkFile` or
// `CreateVmdkFile` filled.
//
// Each operation returns 0 for failure, but `GetLastErrorCode`, which returns the error itself, and the three at the
// end, which return 0 for success. The order of the operations is part of the contract.
class IVMInfo {
public:
    // The error of the operation that failed last.
    virtual int GetLastErrorCode() = 0;

    // Opens the disk `fileName`; the two names are those that `SetVMInfo` was given.
    virtual int SetCurrVmdkFile(const char* name1, const char* name2, const std::string& fileName,
                                VmdkFileHandle_t& handle) = 0;
    virtual int CreateVmdkFile(const char* name1, const char* name2, const std::string& baseName,
                               VmdkFileHandle_t& handle, uint64_t sizeInBytes) = 0;
    virtual int GetCurrVmdkFileName(VmdkFileHandle_t& handle, std::string& fileName) = 0;
    virtual int GetCurrVmdkFileInfo(VmdkFileHandle_t& handle, VmdkFileInfo_t& info) = 0;

    // The disk's settings as pairs of key and value.
    virtual int GetCurrVmdkFileMetaData(VmdkFileHandle_t& handle,
                                        std::vector<std::pair<std::string, std::string>>& pairs) = 0;

    // The stretches from byte `position` on that are allocated, for an empty `changeId`, or else changed since then. An
    // answer covers as much of the disk as the server likes.
    virtual int GetCurrVmdkFileExtents(VmdkFileHandle_t& handle, const char* changeId, uint64_t position,
                                       VmdkFileExtents_t& extents) = 0;

    virtual int ReadCurrVmdkFile(VmdkFileHandle_t& handle, uint64_t firstSector, uint32_t sectors, char* buffer) = 0;
    virtual int WriteCurrVmdkFile(VmdkFileHandle_t& handle, uint64_t firstSector, uint32_t sectors,
                                  const char* data) = 0;

    // Virtual disk images of a Xen host: gets the host ready to make one, tells the record of the one with the record's
    // uuid, makes one and says which device it is.
    virtual int PrepareVDI(xen_vdi_record& record) = 0;
    virtual int GetVDIRecord(xen_vdi_record& record) = 0;
    virtual int CreateVDI(xen_vdi_record& record, const std::string& text, std::string& device) = 0;

protected:
    // Readers don't own the server; without a virtual destructor the operations above are all that it has of slots.
    ~IVMInfo() = default;
};
