#include "hypervisor/NbdVMInfo.h"

#include <libnbd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "foundation/detail/CheckedMath.h"
#include "hypervisor/detail/NbdConnection.h"
#include "hypervisor/detail/NbdReadAhead.h"
#include "hypervisor/detail/NbdWriteBehind.h"

namespace {

constexpr char AllocationContext[] = "base:allocation";
constexpr char BitmapPrefix[] = "qemu:dirty-bitmap:";
constexpr int ReadOnlyDisk = 303;
constexpr uint32_t DirtyFlag = 1;

// One question covers at most this much, so that the server's answer stays small.
constexpr uint64_t MostStatusBytes = uint64_t{1} << 30U;

std::string BitmapContext(const std::string& changeId) {
    return changeId.rfind(BitmapPrefix, 0) == 0 ? changeId : BitmapPrefix + changeId;
}

std::string Number(uint64_t number) {
    return std::to_string(number);
}

// Adds the piece from `start` to `end` to the stretches, or to the last one where it goes on.
void AddRange(std::vector<NbdRange_t>& ranges, uint64_t start, uint64_t end) {
    if (!ranges.empty() && ranges.back().end == start)
        ranges.back().end = end;
    else
        ranges.push_back({start, end});
}

}  // namespace

struct CNbdVMInfo::Disk_t {
    Disk_t(const std::string& name, const NbdOptions_t& options)
        : uri(name), connection(std::make_unique<CNbdConnection>(name, options)), readAhead(*connection),
          writeBehind(*connection) {}
    Disk_t(const Disk_t&) = delete;
    Disk_t& operator=(const Disk_t&) = delete;
    ~Disk_t() { connection.reset(); }  // its requests use buffers of the others

    bool ReadBytes(uint64_t offset, char* buffer, uint64_t size);
    bool ReadPiece(uint64_t offset, char* buffer, uint32_t size);

    bool WriteBytes(uint64_t offset, const char* bytes, uint64_t size);

    // How many of the bytes of these sectors the export has.
    uint64_t BytesThere(uint64_t firstSector, uint64_t sectors) const {
        const uint64_t end = connection->SizeBytes();
        return std::min(sectors << SectorShift, end - std::min(firstSector << SectorShift, end));
    }

    uint64_t Sectors() const { return DivideRoundingUp(connection->SizeBytes(), SectorSize); }

    const std::string uri;
    std::unique_ptr<CNbdConnection> connection;
    CNbdReadAhead readAhead;
    CNbdWriteBehind writeBehind;
    std::vector<std::string> contexts{AllocationContext};
    std::vector<NbdRange_t> told;  // the stretches of the table that was asked for last
    CAutoMemory<char> aligned;     // kept for its room
};

bool CNbdVMInfo::Disk_t::ReadBytes(uint64_t offset, char* buffer, uint64_t size) {
    for (uint64_t done = 0; done < size;) {
        const auto step = static_cast<uint32_t>(std::min<uint64_t>(size - done, CNbdConnection::MostBytes));
        if (!ReadPiece(offset + done, buffer + done, step))
            return false;
        done += step;
    }
    return true;
}

// A server whose blocks are larger than sectors is asked for whole ones.
bool CNbdVMInfo::Disk_t::ReadPiece(uint64_t offset, char* buffer, uint32_t size) {
    const uint64_t block = connection->SmallestBytes();
    const uint64_t start = offset / block * block;
    const uint64_t end = std::min(DivideRoundingUp(offset + size, block) * block, connection->SizeBytes());
    if (start == offset && end == offset + size)
        return readAhead.Read(offset, buffer, size);
    const auto wholeBytes = static_cast<uint32_t>(end - start);
    if (aligned.Alloc(wholeBytes) == nullptr || !readAhead.Read(start, aligned.GetPtr(), wholeBytes))
        return false;
    std::copy_n(aligned.GetPtr() + (offset - start), size, buffer);
    return true;
}

bool CNbdVMInfo::Disk_t::WriteBytes(uint64_t offset, const char* bytes, uint64_t size) {
    for (uint64_t done = 0; done < size;) {
        const auto step = static_cast<uint32_t>(std::min<uint64_t>(size - done, CNbdConnection::MostBytes));
        if (!connection->Write(offset + done, bytes + done, step))
            return false;
        done += step;
    }
    return true;
}

CNbdVMInfo::CNbdVMInfo(const NbdOptions_t& options) : m_Options(options) {}
CNbdVMInfo::~CNbdVMInfo() = default;

int CNbdVMInfo::GetLastErrorCode() {
    return m_ErrorCode;
}

int CNbdVMInfo::SetCurrVmdkFile(const char* /*name1*/, const char* /*name2*/, const std::string& fileName,
                                VmdkFileHandle_t& handle) {
    return Open(fileName, handle) != nullptr ? 1 : 0;
}

int CNbdVMInfo::CreateVmdkFile(const char* /*name1*/, const char* /*name2*/, const std::string& baseName,
                               VmdkFileHandle_t& handle, uint64_t sizeInBytes) {
    const Disk_t* const disk = Open(baseName, handle);
    if (disk == nullptr || !MayWrite(*disk))
        return 0;
    if (disk->Sectors() << SectorShift != sizeInBytes)
        return Fail("has " + Number(disk->connection->SizeBytes()) + " bytes, and the disk has " + Number(sizeInBytes) +
                    "; export one of that size");
    return 1;
}

int CNbdVMInfo::GetCurrVmdkFileName(VmdkFileHandle_t& handle, std::string& fileName) {
    const Disk_t* const disk = Find(handle);
    if (disk == nullptr)
        return 0;
    fileName = disk->uri;
    return 1;
}

int CNbdVMInfo::GetCurrVmdkFileInfo(VmdkFileHandle_t& handle, VmdkFileInfo_t& info) {
    const Disk_t* const disk = Find(handle);
    if (disk == nullptr)
        return 0;
    if (!NarrowTo32(disk->Sectors(), info.sectors))
        return Fail("has " + Number(disk->connection->SizeBytes()) +
                    " bytes; a disk behind a hypervisor can have 2 TiB less a sector");
    return 1;
}

int CNbdVMInfo::GetCurrVmdkFileMetaData(VmdkFileHandle_t& handle,
                                        std::vector<std::pair<std::string, std::string>>& pairs) {
    const Disk_t* const disk = Find(handle);
    if (disk == nullptr)
        return 0;
    unsigned int cylinders = 0;
    unsigned int heads = 0;
    unsigned int sectors = 0;
    ComputeCHS(disk->Sectors(), &cylinders, &heads, &sectors);
    pairs = {{"thinProvisioned", disk->connection->HasContext(AllocationContext) ? "1" : "0"},
             {"geometry.cylinders", Number(cylinders)},
             {"geometry.heads", Number(heads)},
             {"geometry.sectors", Number(sectors)}};
    return 1;
}

int CNbdVMInfo::GetCurrVmdkFileExtents(VmdkFileHandle_t& handle, const char* changeId, uint64_t position,
                                       VmdkFileExtents_t& extents) {
    Disk_t* const disk = Find(handle);
    if (disk == nullptr)
        return 0;
    const bool isBitmap = changeId != nullptr && *changeId != '\0';
    const std::string context = isBitmap ? BitmapContext(changeId) : AllocationContext;
    if (isBitmap && !AskForBitmap(*disk, context))
        return 0;
    extents = {position, 0, {}};
    if (!isBitmap && !disk->connection->HasContext(context))
        return 1;
    const uint64_t end = disk->connection->SizeBytes();
    if (position >= end) {  // in the part of the last sector that the export doesn't have
        extents.length = SectorSize;
        return 1;
    }
    std::vector<NbdStatus_t> pieces;
    if (!disk->connection->BlockStatus(context, position, std::min(end - position, MostStatusBytes), pieces))
        return FailAs(*disk);
    std::vector<NbdRange_t> ranges;
    if (position == 0)
        disk->told.clear();
    uint64_t at = position;
    for (const NbdStatus_t& piece : pieces) {
        const uint64_t next = at + std::min(piece.bytes, end - at);
        const bool isIn = isBitmap ? (piece.flags & DirtyFlag) != 0 : (piece.flags & LIBNBD_STATE_ZERO) == 0;
        if (isIn && next > at) {
            AddRange(ranges, at, next);
            AddRange(disk->told, at, next);
        }
        at = next;
    }
    extents.length = at - position;
    for (const NbdRange_t& range : ranges)
        extents.stretches.push_back({range.start, range.end - range.start - 1});
    if (at == end)
        disk->readAhead.Expect(disk->told);
    return 1;
}

int CNbdVMInfo::ReadCurrVmdkFile(VmdkFileHandle_t& handle, uint64_t firstSector, uint32_t sectors, char* buffer) {
    Disk_t* const disk = Find(handle);
    if (disk == nullptr)
        return 0;
    if (firstSector > disk->Sectors() || sectors > disk->Sectors() - firstSector)
        return Fail("ends in front of sector " + Number(firstSector + sectors), EINVAL);
    const uint64_t offset = firstSector << SectorShift;
    const uint64_t wanted = uint64_t{sectors} << SectorShift;
    const uint64_t there = disk->BytesThere(firstSector, sectors);
    std::memset(buffer + there, 0, static_cast<size_t>(wanted - there));
    return Outcome(*disk, disk->ReadBytes(offset, buffer, there));
}

int CNbdVMInfo::WriteCurrVmdkFile(VmdkFileHandle_t& handle, uint64_t firstSector, uint32_t sectors, const char* data) {
    Disk_t* const disk = FindForWriting(handle, firstSector, sectors);
    if (disk == nullptr)
        return 0;
    return Outcome(*disk, disk->WriteBytes(firstSector << SectorShift, data, disk->BytesThere(firstSector, sectors)));
}

int CNbdVMInfo::QueueWriteCurrVmdkFile(VmdkFileHandle_t& handle, uint64_t firstSector, uint32_t sectors,
                                       const char* data) {
    Disk_t* const disk = FindForWriting(handle, firstSector, sectors);
    uint32_t size = 0;
    if (disk == nullptr)
        return 0;
    if (!NarrowTo32(disk->BytesThere(firstSector, sectors), size))
        return Fail("can't take more than 4 GiB at once", EINVAL);
    return Outcome(*disk, disk->writeBehind.Write(firstSector << SectorShift, data, size));
}

int CNbdVMInfo::PrepareVDI(xen_vdi_record& /*record*/) {
    Fail("an NBD server has no virtual disk images", ENOTSUP);
    return ENOTSUP;
}

int CNbdVMInfo::GetVDIRecord(xen_vdi_record& record) {
    return PrepareVDI(record);
}

int CNbdVMInfo::CreateVDI(xen_vdi_record& record, const std::string& /*text*/, std::string& /*device*/) {
    return PrepareVDI(record);
}

int CNbdVMInfo::ZeroCurrVmdkFile(VmdkFileHandle_t& handle, uint64_t firstSector, uint64_t sectors) {
    Disk_t* const disk = FindForWriting(handle, firstSector, sectors);
    if (disk == nullptr)
        return 0;
    uint64_t at = firstSector << SectorShift;
    for (const uint64_t end = at + disk->BytesThere(firstSector, sectors); at < end;) {
        const uint64_t step = std::min(end - at, MostStatusBytes);
        if (!disk->connection->Zero(at, step))
            return FailAs(*disk);
        at += step;
    }
    return 1;
}

int CNbdVMInfo::FlushCurrVmdkFile(VmdkFileHandle_t& handle) {
    Disk_t* const disk = Find(handle);
    return disk != nullptr ? Outcome(*disk, disk->writeBehind.Finish() && disk->connection->Flush()) : 0;
}

bool CNbdVMInfo::WasConnectionLost(const VmdkFileHandle_t& handle) {
    const Disk_t* const disk = Find(handle);
    return disk != nullptr && disk->connection->Reconnections() != 0;
}

CNbdVMInfo::Disk_t* CNbdVMInfo::Find(const VmdkFileHandle_t& handle) {
    if (handle.id == 0 || handle.id > m_Disks.size()) {
        Fail("the handle isn't that of an open disk", EBADF);
        return nullptr;
    }
    return m_Disks[static_cast<size_t>(handle.id) - 1].get();
}

CNbdVMInfo::Disk_t* CNbdVMInfo::Open(const std::string& uri, VmdkFileHandle_t& handle) {
    if (!IsNbdUri(uri)) {
        Fail("isn't the URI of an NBD export, such as nbd://host/export", EINVAL);
        return nullptr;
    }
    // Many servers take one connection at a time, so that who opens an export twice has it twice over the same.
    const auto known = std::find_if(m_Disks.begin(), m_Disks.end(),
                                    [&](const std::unique_ptr<Disk_t>& each) { return each->uri == uri; });
    if (known != m_Disks.end()) {
        handle.id = static_cast<uint64_t>(known - m_Disks.begin()) + 1;
        handle.impl = known->get();
        return known->get();
    }
    auto disk = std::make_unique<Disk_t>(uri, m_Options);
    if (!disk->connection->Connect(disk->contexts)) {
        FailAs(*disk);
        return nullptr;
    }
    m_Disks.push_back(std::move(disk));
    handle.id = m_Disks.size();
    handle.impl = m_Disks.back().get();
    return m_Disks.back().get();
}

// What the server tells of an export is settled while the connection is made.
bool CNbdVMInfo::AskForBitmap(Disk_t& disk, const std::string& context) {
    if (std::find(disk.contexts.begin(), disk.contexts.end(), context) == disk.contexts.end()) {
        disk.contexts.push_back(context);
        if (!disk.connection->Connect(disk.contexts)) {
            FailAs(disk);
            return false;
        }
    }
    if (disk.connection->HasContext(context))
        return true;
    Fail("the server has no bitmap " + context.substr(sizeof(BitmapPrefix) - 1) +
             " for this export; name one that it exports with the disk",
         ENOENT);
    return false;
}

bool CNbdVMInfo::MayWrite(const Disk_t& disk) {
    if (disk.connection->IsReadOnly())
        Fail("is exported read-only", ReadOnlyDisk);
    return !disk.connection->IsReadOnly();
}

CNbdVMInfo::Disk_t* CNbdVMInfo::FindForWriting(const VmdkFileHandle_t& handle, uint64_t firstSector, uint64_t sectors) {
    Disk_t* const disk = Find(handle);
    if (disk == nullptr || !MayWrite(*disk))
        return nullptr;
    if (firstSector <= disk->Sectors() && sectors <= disk->Sectors() - firstSector)
        return disk;
    Fail("ends in front of sector " + Number(firstSector + sectors), EINVAL);
    return nullptr;
}

int CNbdVMInfo::Fail(const std::string& text, int code) {
    m_ErrorText = text;
    m_ErrorCode = code;
    return 0;
}

int CNbdVMInfo::FailAs(const Disk_t& disk) {
    return Fail(disk.connection->ErrorText(), disk.connection->ErrorCode());
}

int CNbdVMInfo::Outcome(const Disk_t& disk, bool isDone) {
    return isDone ? 1 : FailAs(disk);
}

bool IsNbdUri(const std::string& name) {
    static constexpr std::array schemes{"nbd://", "nbds://", "nbd+unix://", "nbds+unix://"};
    return std::any_of(schemes.begin(), schemes.end(), [&](const char* scheme) { return name.rfind(scheme, 0) == 0; });
}

std::string NbdExportName(const std::string& uri) {
    const size_t host = uri.find("://");
    const size_t path = host != std::string::npos ? uri.find('/', host + 3) : std::string::npos;
    if (path == std::string::npos)
        return {};
    const std::string escaped = uri.substr(path + 1, uri.find_first_of("?#", path) - path - 1);
    std::string name;
    for (size_t at = 0; at < escaped.size(); ++at) {
        const int byte = escaped[at] == '%' ? HexPairToByte(escaped.c_str() + at + 1) : -1;
        name += byte >= 0 ? static_cast<char>(byte) : escaped[at];
        at += byte >= 0 ? 2 : 0;
    }
    return name;
}
