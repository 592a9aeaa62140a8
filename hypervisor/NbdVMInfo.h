#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/IVMInfo.h"
#include "platform/Export.h"

struct NbdOptions_t {
    // How long a server may take to answer, and how long a connection that was lost is tried again.
    std::chrono::milliseconds patience{15'000};
};

// Disks that an NBD server exports, as the readers of disks behind a hypervisor ask for them. A disk's name is a URI:
// `nbd://host[:port]/export`, `nbd+unix:///export?socket=PATH`, and `nbds://` or `nbds+unix://` for TLS
// (https://github.com/NetworkBlockDevice/nbd/blob/master/doc/uri.md). The two further names of the interface aren't
// used.
//
// What is allocated, the server tells as `base:allocation`; what changed, as the dirty bitmap that the change id names
// (`qemu:dirty-bitmap:NAME`). A server that tells nothing has everything allocated. A connection that breaks is made
// again, to an export of the same size, and what was asked is asked again.
//
// Disks that were opened stay open until this goes, which so has to outlive the readers; one that is opened again has
// the same connection. One thread at a time.
class DISKSTREAM_EXPORT CNbdVMInfo final : public IVMInfo {
public:
    explicit CNbdVMInfo(const NbdOptions_t& options = {});
    CNbdVMInfo(const CNbdVMInfo&) = delete;
    CNbdVMInfo& operator=(const CNbdVMInfo&) = delete;
    virtual ~CNbdVMInfo();

    // 303 for a write to an export that is read-only; else the system's error number, or 0 where there is none.
    int GetLastErrorCode() override;

    int SetCurrVmdkFile(const char* name1, const char* name2, const std::string& fileName,
                        VmdkFileHandle_t& handle) override;

    // Opens the export for writing, which has to be there and of that size, and not read-only.
    int CreateVmdkFile(const char* name1, const char* name2, const std::string& baseName, VmdkFileHandle_t& handle,
                       uint64_t sizeInBytes) override;

    // The URI.
    int GetCurrVmdkFileName(VmdkFileHandle_t& handle, std::string& fileName) override;

    // A begun sector counts. An export of 2 TiB or more is a failure: its sectors don't fit the record.
    int GetCurrVmdkFileInfo(VmdkFileHandle_t& handle, VmdkFileInfo_t& info) override;

    // `thinProvisioned` ("1" where the server tells what is allocated) and the geometry of a disk of that size.
    int GetCurrVmdkFileMetaData(VmdkFileHandle_t& handle,
                                std::vector<std::pair<std::string, std::string>>& pairs) override;

    // The end of each stretch is its last byte, not the one behind it: the readers count the sector in which a stretch
    // ends as inside, and so take in no sector more than the server tells.
    int GetCurrVmdkFileExtents(VmdkFileHandle_t& handle, const char* changeId, uint64_t position,
                               VmdkFileExtents_t& extents) override;

    // Reads that go on where the last one ended find their bytes read ahead. Behind the export's end there are zeros,
    // to the end of the sector.
    int ReadCurrVmdkFile(VmdkFileHandle_t& handle, uint64_t firstSector, uint32_t sectors, char* buffer) override;

    int WriteCurrVmdkFile(VmdkFileHandle_t& handle, uint64_t firstSector, uint32_t sectors, const char* data) override;

    // The same without waiting for the server: the bytes are copied, and what goes wrong shows in a later call, that of
    // `FlushCurrVmdkFile` at the latest. Until then each sector may be written once, and mustn't be read.
    int QueueWriteCurrVmdkFile(VmdkFileHandle_t& handle, uint64_t firstSector, uint32_t sectors, const char* data);

    // No NBD server has virtual disk images: these fail.
    int PrepareVDI(xen_vdi_record& record) override;
    int GetVDIRecord(xen_vdi_record& record) override;
    int CreateVDI(xen_vdi_record& record, const std::string& text, std::string& device) override;

    // Makes sectors zeros without sending them, where the server can.
    int ZeroCurrVmdkFile(VmdkFileHandle_t& handle, uint64_t firstSector, uint64_t sectors);

    // Returns when the server has everything written on its medium.
    int FlushCurrVmdkFile(VmdkFileHandle_t& handle);

    // True when the connection to the disk was lost and made again. A server that failed may have lost what was written
    // and not yet flushed.
    bool WasConnectionLost(const VmdkFileHandle_t& handle);

    // What went wrong last, in words for people, without the disk's name.
    const std::string& LastErrorText() const { return m_ErrorText; }

private:
    struct Disk_t;

    Disk_t* Find(const VmdkFileHandle_t& handle);
    Disk_t* Open(const std::string& uri, VmdkFileHandle_t& handle);
    bool AskForBitmap(Disk_t& disk, const std::string& context);
    bool MayWrite(const Disk_t& disk);
    Disk_t* FindForWriting(const VmdkFileHandle_t& handle, uint64_t firstSector, uint64_t sectors);
    int Fail(const std::string& text, int code = 0);
    int FailAs(const Disk_t& disk);
    int Outcome(const Disk_t& disk, bool isDone);

    NbdOptions_t m_Options;
    std::vector<std::unique_ptr<Disk_t>> m_Disks;  // a handle's id is the place from 1
    int m_ErrorCode = 0;
    std::string m_ErrorText;
};

// Tells whether `name` is the URI of an NBD export.
DISKSTREAM_EXPORT bool IsNbdUri(const std::string& name);

// The name of the export that the URI leads to; empty for the server's default.
DISKSTREAM_EXPORT std::string NbdExportName(const std::string& uri);
