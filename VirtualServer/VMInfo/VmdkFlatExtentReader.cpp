#include "VirtualServer/VMInfo/VmdkFlatExtentReader.h"

#include <algorithm>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/MetadataRecord.h"
#include "VirtualServer/VMInfo/detail/SparseDumpRecord.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"

namespace {
constexpr Condition_t EndOfFlatExtent{ErrorType::Condition, 2001, 1, nullptr};
constexpr char NoOpenFile[] = "Don't have a valid opened extent file";
}  // namespace

CZuError CVmdkFlatExtentReader::OpenExtent(const char* name, uint64_t firstSector, VwExtentType type) {
    ZU_RETURN_IF_ERROR(RefuseUnlessFree(name, type));
    ZU_RETURN_IF_ERROR(m_File.Open(name, OpenAsBinary | OpenNotInherited, 0));
    ScopeGuard closeUnlessKept([this] { Dropped(CloseExtent()); });  // the first error is the one to report
    ZU_RETURN_IF_ERROR(MeasureExtent(firstSector));
    closeUnlessKept.Dismiss();
    return CZuError();
}

CZuError CVmdkFlatExtentReader::CreateExtent(const char* name, VwExtentType type, CAutoMemory<char>& metadata) {
    constexpr int ownerReadsAndWrites = 384;
    ZU_RETURN_IF_ERROR(RefuseUnlessFree(name, type));
    ZU_RETURN_IF_ERROR(CheckMetadataHead(metadata, SignatureVmdkFlat));
    ZU_RETURN_IF_ERROR(m_File.Open(
        name, OpenAsBinary | OpenNotInherited | OpenCreating | OpenTruncating | OpenForWriting, ownerReadsAndWrites));
    ScopeGuard closeUnlessKept([this] { Dropped(CloseExtent()); });  // the first error is the one to report
    const uint64_t totalSectors = MetadataTotalSectors(metadata);
    m_FirstSector = 0;
    m_LastSector = totalSectors - 1;
    ZU_RETURN_IF_ERROR(m_File.Truncate(static_cast<int64_t>(FileOffsetOfSector(totalSectors))));
    closeUnlessKept.Dismiss();
    return CZuError();
}

CZuError CVmdkFlatExtentReader::CloseExtent() {
    m_FirstSector = 0;
    m_LastSector = 0;
    return m_File.Close();
}

CZuError CVmdkFlatExtentReader::GetMetadataInfo(CAutoMemory<char>& metadata) {
    if (metadata.Alloc(MetadataHeadBytes) == nullptr)
        return Refusal("Out of memory");
    WriteMetadataHead(metadata, SignatureVmdkFlat, GetTotalSectors());
    return CZuError();
}

CZuError CVmdkFlatExtentReader::ReadExtentSector(uint64_t sector, char* buffer, unsigned long size) {
    if (sector < m_FirstSector || sector - m_FirstSector >= GetTotalSectors())
        return EndOfFlatExtent.Error();
    if (!m_File.IsValid())
        return Refusal(NoOpenFile);
    if (size > m_SectorSize)
        return Refusal("Cannot read more than sector size");
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, FileOffsetOfSector(sector - m_FirstSector), 0, buffer,
                                  static_cast<unsigned int>(size), nullptr));
    return CZuError();
}

CZuError CVmdkFlatExtentReader::FindRun(uint64_t sector, uint64_t mostSectors, SectorRun_t& run) {
    if (sector < m_FirstSector || sector - m_FirstSector >= GetTotalSectors())
        return EndOfFlatExtent.Error();
    if (!m_File.IsValid())
        return Refusal(NoOpenFile);
    run.sectors = std::min(std::max<uint64_t>(mostSectors, 1), m_LastSector - sector + 1);
    run.file = &m_File;
    run.fileOffset = FileOffsetOfSector(sector - m_FirstSector);
    return CZuError();
}

CZuError CVmdkFlatExtentReader::ReadGrain(uint64_t number, char* buffer, unsigned int sectors,
                                          unsigned int& gotSectors) {
    uint64_t offset = 0;
    ZU_RETURN_IF_ERROR(FindGrain(number, sectors, offset));
    uint32_t sizeBytes = 0;
    if (!NarrowTo32(uint64_t{sectors} << SectorShift, sizeBytes))
        return Refusal("Out of memory");
    unsigned int gotBytes = 0;
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, offset, 0, buffer, sizeBytes, &gotBytes));
    gotSectors = gotBytes >> SectorShift;
    return CZuError();
}

CZuError CVmdkFlatExtentReader::WriteGrain(uint64_t number, unsigned int sectors, CAutoMemory<char>& data) {
    if (!m_File.IsValid())
        return Refusal(NoOpenFile);
    if (data.GetSize() > uint64_t{sectors} << SectorShift)
        return Refusal("Data size is greater than grain size");
    uint64_t offset = 0;
    ZU_RETURN_IF_ERROR(FindGrain(number, sectors, offset));
    ZU_RETURN_IF_ERROR(WriteFileAt(m_File, offset, 0, data.GetPtr(), data.GetSize(), nullptr));
    return CZuError();
}

CZuError CVmdkFlatExtentReader::DumpSparseInfo(CZuFile& out, const char* name, uint64_t blockSectors) {
    if (!m_File.IsValid())
        return Refusal(NoOpenFile);
    SparseDumpFields_t fields;
    fields.startLba = m_FirstSector;
    fields.endLba = m_LastSector;
    fields.blockSectors = blockSectors;
    fields.grainSectors = blockSectors;
    ZU_RETURN_IF_ERROR(WriteSparseDumpRecord(out, name, fields));
    return CZuError();
}

int CVmdkFlatExtentReader::IsErrorEOF(const CZuError& error) const {
    return EndOfFlatExtent.Holds(error) ? 1 : 0;
}

CZuError CVmdkFlatExtentReader::RefuseUnlessFree(const char* name, VwExtentType type) const {
    if (name == nullptr)
        return Refusal("Invalid Parameter");
    if (m_File.IsValid())
        return Refusal("Object already have an open file.");
    if (type != VwExtentTypeFlat)
        return Refusal("Not a supported extent file type");
    return CZuError();
}

CZuError CVmdkFlatExtentReader::MeasureExtent(uint64_t firstSector) {
    uint64_t sizeBytes = 0;
    ZU_RETURN_IF_ERROR(m_File.Size(sizeBytes));
    if (sizeBytes % m_SectorSize != 0)
        return Refusal(
            CZuString::Format("File size {1} is not a multiple of sector size {2}", sizeBytes, m_SectorSize));
    m_FirstSector = firstSector;
    m_LastSector = firstSector + sizeBytes / m_SectorSize - 1;
    return CZuError();
}

// The file offset of block `number`, or the end condition where it begins behind the extent's end.
CZuError CVmdkFlatExtentReader::FindGrain(uint64_t number, unsigned int sectors, uint64_t& offset) const {
    if (!m_File.IsValid())
        return Refusal(NoOpenFile);
    uint64_t startSector = 0;
    if (!CheckedMul(number, sectors, startSector) || startSector > m_LastSector || GetTotalSectors() == 0)
        return EndOfFlatExtent.Error();
    offset = FileOffsetOfSector(startSector);
    return CZuError();
}
