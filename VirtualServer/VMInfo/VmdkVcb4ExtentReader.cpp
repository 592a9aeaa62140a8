#include "VirtualServer/VMInfo/VmdkVcb4ExtentReader.h"

#include <algorithm>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/MetadataRecord.h"
#include "VirtualServer/VMInfo/detail/SparseDumpRecord.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "foundation/LgDebug.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"

namespace {

constexpr Condition_t EndOfManagedDisk{ErrorType::Condition, 3001, 1, nullptr};
constexpr Condition_t NotAllocated{ErrorType::Condition, 3001, 2, nullptr};
constexpr Condition_t NotChanged{ErrorType::Condition, 3001, 3, nullptr};
constexpr Condition_t DiskIsFull{ErrorType::Condition, 3001, 4, nullptr};
constexpr Condition_t DiskIsReadOnly{ErrorType::Condition, 3001, 5, nullptr};

constexpr char NoData[] = "Data pointer is null";
constexpr char ReadFailed[] = "Failed to ReadCurrVmdkFile.";
constexpr int ServersReadOnlyDisk = 303;

// The number that callers know, and the one that the machine's own system has.
bool IsNoSpace(const CZuError& error) {
    constexpr unsigned long noSpace = 28;
    return error.GetErrorCode() == noSpace ||
           (error.GetErrorType() == ErrorType::System &&
            std::error_code(static_cast<int>(error.GetErrorCode()), std::system_category()) ==
                std::errc::no_space_on_device);
}

void LogCount(const char* table, uint32_t count) {
    LgDebug().Debug("CVmdkVcb4ExtentReader::OpenDisk", "There are %d entries in the %s extent table",
                    static_cast<int>(count), table);
}

}  // namespace

void CVmdkVcb4ExtentReader::SetVMInfo(IVMInfo* info, const char* first, const char* second) {
    m_VMInfo = info;
    m_VMInfoTexts[0] = first != nullptr ? first : "";
    m_VMInfoTexts[1] = second != nullptr ? second : "";
}

void CVmdkVcb4ExtentReader::SetChangeId(const char* changeId) {
    m_ChangeId = changeId != nullptr ? changeId : "";
}

void CVmdkVcb4ExtentReader::GetFileName(std::string& name) {
    name.clear();
    if (m_VMInfo == nullptr)
        name = m_LocalFile.GetName();
    else if (m_VMInfo->GetCurrVmdkFileName(m_Handle, name) == 0)
        name.clear();
}

CZuError CVmdkVcb4ExtentReader::OpenDisk(const char* name, uint64_t /*firstSector*/, VwExtentType /*type*/) {
    // Half a table would pass for holes: a disk that doesn't open has no sectors.
    ScopeGuard emptyUnlessKept([this] { m_LastSector = 0; });
    ZU_RETURN_IF_ERROR(WithinMemory(OutOfMemory, [&] { return OpenManagedDisk(name); }));
    emptyUnlessKept.Dismiss();
    return CZuError();
}

CZuError CVmdkVcb4ExtentReader::OpenManagedDisk(const char* name) {
    if (m_VMInfo == nullptr || name == nullptr ||
        m_VMInfo->SetCurrVmdkFile(m_VMInfoTexts[0].c_str(), m_VMInfoTexts[1].c_str(), name, m_Handle) == 0)
        return Refusal("Failed to SetCurrVmdkFile.");
    VmdkFileInfo_t info;
    if (m_VMInfo->GetCurrVmdkFileInfo(m_Handle, info) == 0)
        return Refusal("Failed to GetCurrVmdkFileInfo.");
    m_SectorSize = SectorSize;
    m_FirstSector = 0;
    m_LastSector = info.sectors;
    AdjustBlockSize();
    ZU_RETURN_IF_ERROR(BuildExtentTable(m_Allocated, ""));
    LogCount("allocated", m_Allocated.GetCount());
    if (m_ChangeId.empty())
        return CZuError();
    ZU_RETURN_IF_ERROR(BuildExtentTable(m_Changed, m_ChangeId.c_str()));
    LogCount("changed", m_Changed.GetCount());
    return CZuError();
}

CZuError CVmdkVcb4ExtentReader::CloseDisk() {
    m_SectorSize = 0;
    m_BlockSize = 0;
    m_FirstSector = 0;
    m_LastSector = 0;
    return CZuError();
}

CZuError CVmdkVcb4ExtentReader::GetMetadataInfo(CAutoMemory<char>& metadata) {
    std::vector<std::pair<std::string, std::string>> pairs;
    if (m_VMInfo == nullptr || m_VMInfo->GetCurrVmdkFileMetaData(m_Handle, pairs) == 0)
        return Refusal("Failed to get disk metadata info");
    return WithinMemory(OutOfMemory, [&] {
        std::string text;
        for (const auto& [key, value] : pairs)
            text.append(key).append(" = \"").append(value).append("\";");
        if (!text.empty())
            text.pop_back();
        uint32_t recordBytes = 0;
        if (!NarrowTo32(uint64_t{text.size()} + MetadataHeadBytes, recordBytes) ||
            metadata.Alloc(recordBytes) == nullptr)
            return Refusal(OutOfMemory);
        WriteMetadataHead(metadata, SignatureVMInfoDisk, GetTotalSectors());
        std::copy(text.begin(), text.end(), metadata.GetPtr() + MetadataHeadBytes);
        return CZuError();
    });
}

CZuError CVmdkVcb4ExtentReader::ReadSector(uint64_t sector, char* buffer, unsigned long size) {
    if (buffer == nullptr)
        return Refusal(NoData);
    SectorRun_t run;
    ZU_RETURN_IF_ERROR(FindRun(sector, 1, run));
    if (!run.IsHeld())
        return NotAllocated.Error();
    ZU_RETURN_IF_ERROR(ReadSectors(sector, buffer, static_cast<uint32_t>(std::min<unsigned long>(size, SectorSize))));
    return CZuError();
}

CZuError CVmdkVcb4ExtentReader::FindRun(uint64_t sector, uint64_t mostSectors, SectorRun_t& run) {
    if (sector >= m_LastSector)
        return EndOfManagedDisk.Error();
    bool isAllocated = false;
    run = SectorRun_t();
    run.sectors = m_Allocated.CountAlike(sector, std::min(mostSectors, m_LastSector - sector), isAllocated);
    if (isAllocated) {
        run.server = this;
        run.fileOffset = sector << SectorShift;
    }
    return CZuError();
}

CZuError CVmdkVcb4ExtentReader::ReadSectors(uint64_t sector, char* buffer, uint32_t size) {
    const uint32_t whole = size >> SectorShift;
    const uint32_t rest = size % SectorSize;
    if (m_VMInfo == nullptr)
        return Refusal(ReadFailed);
    if (whole != 0 && m_VMInfo->ReadCurrVmdkFile(m_Handle, sector, whole, buffer) == 0)
        return Refusal(ReadFailed);
    if (rest == 0)
        return CZuError();
    char last[SectorSize];
    if (m_VMInfo->ReadCurrVmdkFile(m_Handle, sector + whole, 1, last) == 0)
        return Refusal(ReadFailed);
    std::copy_n(last, rest, buffer + (size - rest));
    return CZuError();
}

CZuError CVmdkVcb4ExtentReader::ReadBlock(uint64_t number, char* buffer) {
    if (buffer == nullptr)
        return Refusal(NoData);
    uint64_t firstSector = 0;
    if (!FirstSectorOf(number, m_BlockSize, firstSector))
        return EndOfManagedDisk.Error();
    const auto sectors = static_cast<uint32_t>(std::min<uint64_t>(m_BlockSize, m_LastSector - firstSector));
    if (!HoldsOneOf(m_Allocated, firstSector, sectors))
        return NotAllocated.Error();
    if (!m_ChangeId.empty() && !HoldsOneOf(m_Changed, firstSector, sectors))
        return NotChanged.Error();
    if (m_VMInfo == nullptr || m_VMInfo->ReadCurrVmdkFile(m_Handle, firstSector, sectors, buffer) == 0)
        return Refusal(ReadFailed);
    std::memset(buffer + (size_t{sectors} << SectorShift), 0, size_t{m_BlockSize - sectors} << SectorShift);
    return CZuError();
}

uint64_t CVmdkVcb4ExtentReader::NextHeldBlock(uint64_t number) {
    uint64_t firstSector = 0;
    if (!FirstSectorOf(number, m_BlockSize, firstSector))
        return number;
    const uint64_t sector = m_Allocated.FindSector(firstSector);
    return sector < m_LastSector ? sector / m_BlockSize : DivideRoundingUp(m_LastSector, m_BlockSize);
}

CZuError CVmdkVcb4ExtentReader::WriteBlock(uint64_t number, unsigned int sectors, CAutoMemory<char>& data) {
    if (data.GetSize() > uint64_t{sectors} << SectorShift)
        return Refusal("Data size is greater than block size");
    uint64_t firstSector = 0;
    if (!FirstSectorOf(number, sectors, firstSector))
        return EndOfManagedDisk.Error();
    const uint64_t mostSectors = std::min<uint64_t>(sectors, m_LastSector - firstSector);
    if (m_VMInfo == nullptr)
        return WriteLocal(firstSector, mostSectors, data);
    return WriteManaged(firstSector, mostSectors, data);
}

CZuError CVmdkVcb4ExtentReader::DumpSparseInfo(CZuFile& out, const char* name) {
    SparseDumpFields_t fields;
    fields.startLba = m_FirstSector;
    fields.endLba = m_LastSector;
    fields.blockSectors = m_BlockSize;
    fields.grainSectors = m_BlockSize;
    ZU_RETURN_IF_ERROR(WriteSparseDumpCount(out, 1));
    ZU_RETURN_IF_ERROR(WriteSparseDumpRecord(out, name, fields));
    return CZuError();
}

int CVmdkVcb4ExtentReader::IsErrorEOF(const CZuError& error) const {
    return EndOfManagedDisk.Holds(error) ? 1 : 0;
}

int CVmdkVcb4ExtentReader::IsErrorSectorNotFound(const CZuError& error) const {
    return NotAllocated.Holds(error) ? 1 : 0;
}

int CVmdkVcb4ExtentReader::IsErrorSectorNotChanged(const CZuError& error) const {
    return NotChanged.Holds(error) ? 1 : 0;
}

int CVmdkVcb4ExtentReader::IsErrorNoSpace(const CZuError& error) const {
    return DiskIsFull.Holds(error) ? 1 : 0;
}

int CVmdkVcb4ExtentReader::IsErrorReadOnly(const CZuError& error) const {
    return DiskIsReadOnly.Holds(error) ? 1 : 0;
}

void CVmdkVcb4ExtentReader::AdjustBlockSize() {
    constexpr uint32_t smallBlocks = 0xFFFFFFFF;
    if (m_BlockSize == 0)
        m_BlockSize = 512;
    else if (m_BlockSize == smallBlocks)
        m_BlockSize = 128;
}

// Asks for one piece of the disk after the other until the server told of all of it.
CZuError CVmdkVcb4ExtentReader::BuildExtentTable(CExtentTable& table, const char* changeId) {
    table.Clear();
    const uint64_t end = m_LastSector << SectorShift;
    bool isFirstAnswer = true;
    for (uint64_t position = 0; position < end; isFirstAnswer = false) {
        VmdkFileExtents_t answer;
        if (m_VMInfo->GetCurrVmdkFileExtents(m_Handle, changeId, position, answer) == 0)
            return Refusal("Failed to get current VMDK file extents");
        if (answer.length == 0 && !isFirstAnswer)
            return Refusal("Received empty VMDK file extents");
        if (answer.length == 0) {
            table.Append({0, m_LastSector});
            return CZuError();
        }
        if (answer.position != position)
            return Refusal("Received VMDK file extents for incorrect position");
        AppendStretches(table, answer);
        if (!CheckedAdd(answer.position, answer.length, position))
            return CZuError();
    }
    return CZuError();
}

void CVmdkVcb4ExtentReader::AppendStretches(CExtentTable& table, const VmdkFileExtents_t& answer) const {
    for (const VmdkFileStretch_t& stretch : answer.stretches) {
        uint64_t end = 0;
        if (!CheckedAdd(stretch.start, stretch.length, end))
            end = ~uint64_t{0};
        table.Append({stretch.start / m_SectorSize, end / m_SectorSize});
    }
}

bool CVmdkVcb4ExtentReader::HoldsOneOf(CExtentTable& table, uint64_t firstSector, uint64_t sectors) const {
    const uint64_t found = table.FindSector(firstSector);
    return found != CExtentTable::NoSector && found - firstSector < sectors;
}

// False where the block begins behind the disk's end.
bool CVmdkVcb4ExtentReader::FirstSectorOf(uint64_t number, uint64_t blockSectors, uint64_t& firstSector) const {
    return CheckedMul(number, blockSectors, firstSector) && firstSector < m_LastSector;
}

CZuError CVmdkVcb4ExtentReader::WriteManaged(uint64_t firstSector, uint64_t mostSectors, CAutoMemory<char>& data) {
    CAutoMemory<char> filledUp;
    const auto sectors = static_cast<uint32_t>(std::min(DivideRoundingUp(data.GetSize(), SectorSize), mostSectors));
    const char* bytes = data.GetPtr();
    if (data.GetSize() >> SectorShift < sectors) {
        if (filledUp.Alloc(sectors << SectorShift) == nullptr)
            return Refusal(OutOfMemory);
        std::memset(std::copy_n(bytes, data.GetSize(), filledUp.GetPtr()), 0, filledUp.GetSize() - data.GetSize());
        bytes = filledUp.GetPtr();
    }
    if (sectors == 0 || m_VMInfo->WriteCurrVmdkFile(m_Handle, firstSector, sectors, bytes) != 0)
        return CZuError();
    return m_VMInfo->GetLastErrorCode() == ServersReadOnlyDisk ? DiskIsReadOnly.Error()
                                                               : Refusal("Failed to write to vmdk.");
}

CZuError CVmdkVcb4ExtentReader::WriteLocal(uint64_t firstSector, uint64_t mostSectors, CAutoMemory<char>& data) {
    if (!m_LocalFile.IsValid())
        return Refusal("Don't have a valid opened extent file");
    const auto size = static_cast<uint32_t>(std::min<uint64_t>(data.GetSize(), mostSectors << SectorShift));
    CZuError error = WriteFileAt(m_LocalFile, FileOffsetOfSector(firstSector), 0, data.GetPtr(), size, nullptr);
    if (error.IsErrorSet() && IsNoSpace(error))
        return DiskIsFull.Error();
    ZU_RETURN_IF_ERROR(error);
    return CZuError();
}
