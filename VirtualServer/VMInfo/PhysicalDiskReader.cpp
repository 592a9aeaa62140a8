#include "VirtualServer/VMInfo/PhysicalDiskReader.h"

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/SparseDumpRecord.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"
#include "platform/DriveName.h"
#include "platform/DriveSize.h"

namespace {

constexpr Condition_t EndOfPhysicalDisk{ErrorType::Condition, 8001, 1, nullptr};
constexpr uint64_t DefaultBlockSectors = 512;
constexpr char TooMuchAtOnce[] = "Cannot read 4 GiB or more at once";

// Callers find the system's number in the place of the module.
CZuError SizeFailure(uint32_t systemError, const char* text) {
    CZuError error;
    error.SetError(ErrorType::Text, systemError, 0, text, __FILE__, __LINE__);
    return error;
}

// Where block `number` begins, in bytes; false where no disk reaches that far.
bool OffsetOfBlock(uint64_t number, unsigned int sectors, uint64_t& offset) {
    uint64_t firstSector = 0;
    return CheckedMul(number, sectors, firstSector) && SectorsToBytes(firstSector, offset);
}

}  // namespace

CZuError CPhysicalDiskReader::OpenDisk(const char* name) {
    ZU_RETURN_IF_ERROR(RefuseUnlessFree(name));
    ZU_RETURN_IF_ERROR(m_File.Open(name, OpenAsBinary | OpenNotInherited, 0));
    ScopeGuard closeUnlessKept([this] { Dropped(CloseDisk()); });  // the first error is the one to report
    m_FileName = name;
    m_DiskSize = 0;
    ZU_RETURN_IF_ERROR(FindSize(name));
    m_BlockSize = DefaultBlockSectors;
    closeUnlessKept.Dismiss();
    return CZuError();
}

CZuError CPhysicalDiskReader::CloseDisk() {
    m_DiskSize = 0;
    return m_File.Close();
}

CZuError CPhysicalDiskReader::ReadData(uint64_t offset, char* buffer, unsigned long size) {
    if (!m_File.IsValid())
        return Refusal("Object is in invalid state. Make sure OpenDisk succeeded");
    uint64_t end = 0;
    if (!CheckedAdd(offset, size, end) || (m_DiskSize != 0 && end > m_DiskSize))
        return EndOfPhysicalDisk.Error();
    uint32_t sizeBytes = 0;
    if (!NarrowTo32(size, sizeBytes))
        return Refusal(TooMuchAtOnce);
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, offset, 0, buffer, sizeBytes, nullptr));
    return CZuError();
}

CZuError CPhysicalDiskReader::ReadBlock(uint64_t number, char* buffer, unsigned int sectors) {
    uint64_t offset = 0;
    if (!OffsetOfBlock(number, sectors, offset))
        return EndOfPhysicalDisk.Error();
    uint32_t sizeBytes = 0;
    if (!NarrowTo32(uint64_t{sectors} << SectorShift, sizeBytes))
        return Refusal(TooMuchAtOnce);
    ZU_RETURN_IF_ERROR(ReadData(offset, buffer, sizeBytes));
    return CZuError();
}

CZuError CPhysicalDiskReader::CreateDisk(const char* name) {
    ZU_RETURN_IF_ERROR(RefuseUnlessFree(name));
    ZU_RETURN_IF_ERROR(m_File.Open(name, OpenAsBinary | OpenNotInherited | OpenForBoth, 0));
    m_FileName = name;
    return CZuError();
}

CZuError CPhysicalDiskReader::WriteBlock(uint64_t number, unsigned int sectors, CAutoMemory<char>& data) {
    if (!m_File.IsValid())
        return Refusal("Object is in invalid state. Make sure CreateDisk succeeded");
    if (data.GetSize() > uint64_t{sectors} << SectorShift)
        return Refusal("Data size is greater than grain size");
    uint64_t offset = 0;
    if (!OffsetOfBlock(number, sectors, offset))
        return EndOfPhysicalDisk.Error();
    ZU_RETURN_IF_ERROR(WriteFileAt(m_File, offset, 0, data.GetPtr(), data.GetSize(), nullptr));
    return CZuError();
}

CZuError CPhysicalDiskReader::DumpSparseInfo(CZuFile& out, const char* name, uint64_t offset) {
    SparseDumpFields_t fields;
    fields.endLba = ~uint64_t{0};
    fields.blockSectors = offset;
    fields.grainSectors = offset;
    ZU_RETURN_IF_ERROR(WriteSparseDumpRecord(out, name, fields));
    return CZuError();
}

CZuError CPhysicalDiskReader::SetDiskSize(uint64_t size) {
    m_DiskSize = size;
    return CZuError();
}

int CPhysicalDiskReader::IsErrorEOF(const CZuError& error) const {
    return EndOfPhysicalDisk.Holds(error) ? 1 : 0;
}

CZuError CPhysicalDiskReader::RefuseUnlessFree(const char* name) const {
    if (name == nullptr)
        return Refusal("Disk name is NULL");
    return m_File.IsValid() ? Refusal("Object already have an open disk.") : CZuError();
}

CZuError CPhysicalDiskReader::FindSize(const char* name) {
    if (!IsDriveName(name) && !IsBlockDevice(name))
        return CZuError();
    uint32_t systemError = 0;
    switch (FindDriveSize(name, m_DiskSize, systemError)) {
    case DriveSizeResult_t::Found: break;
    case DriveSizeResult_t::NoHandle: return SizeFailure(systemError, "Could not open disk handle to find size.");
    case DriveSizeResult_t::NoGeometry: return SizeFailure(systemError, "Error in getting disk geometry.");
    }
    return CZuError();
}
