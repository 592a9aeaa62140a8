#include <cstring>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "VirtualServer/VMInfo/detail/MetadataRecord.h"
#include "VirtualServer/VMInfo/detail/VmdkGrainTables.h"
#include "VirtualServer/VMInfo/detail/VmdkSparseExtentTexts.h"
#include "foundation/detail/ByteView.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

// The writing half of `CVmdkSparseExtentReader`: the replay of a record. Nothing is worked out
// anew, so what is written is what the source held.

namespace {

constexpr uint64_t MagicBytes = 4;

bool BeginsWith(CByteView body, const char* magic) {
    return body.Holds(0, MagicBytes) && std::memcmp(body.Data(), magic, MagicBytes) == 0;
}

// Takes the next `count` elements off the record and writes them at byte `offset` of the file.
template <typename Element>
CZuError ReplayBytes(CByteReader& record, uint64_t count, CZuFile& file, uint64_t offset,
                     CAutoMemory<Element>& target) {
    uint64_t sizeBytes = 0;
    if (!CheckedMul(count, sizeof(Element), sizeBytes) || !record.Rest().Holds(0, sizeBytes))
        return Refusal(MetadataIsCorrupted);
    if (count == 0)
        return CZuError();
    if (target.Alloc(static_cast<uint32_t>(count)) == nullptr)
        return Refusal(OutOfMemory);
    if (!record.Take(target.GetPtr(), sizeBytes))
        return Refusal(MetadataIsCorrupted);
    ZU_RETURN_IF_ERROR(WriteFileAt(file, offset, 0, target.GetPtr(), static_cast<unsigned int>(sizeBytes), nullptr));
    return CZuError();
}

}  // namespace

CZuError CVmdkSparseExtentReader::CreateExtent(const char* name, VwExtentType type, CAutoMemory<char>& metadata) {
    constexpr int ownerReadsAndWrites = 384;
    ZU_RETURN_IF_ERROR(RefuseUnlessFree(name, type));
    ZU_RETURN_IF_ERROR(CheckMetadataHead(metadata, SignatureVmdkSparse));
    ZU_RETURN_IF_ERROR(m_File.Open(
        name, OpenAsBinary | OpenNotInherited | OpenCreating | OpenTruncating | OpenForWriting, ownerReadsAndWrites));

    ForgetTables();
    ZU_RETURN_IF_ERROR(WithinMemory(OutOfMemory, [&] { return ReplayRecord(metadata); }));
    return CZuError();
}

CZuError CVmdkSparseExtentReader::WriteGrain(uint64_t index, CAutoMemory<char>& data) {
    if (!m_File.IsValid())
        return Refusal(VmdkSparseNoOpenFile);
    const uint64_t grainBytes = FileOffsetOfSector(m_GrainSize);
    if (data.GetSize() < grainBytes)
        return Refusal(CZuString::Format("Data size {1} is less than grain size {2}", data.GetSize(), grainBytes));
    uint32_t sector = 0;
    ZU_RETURN_IF_ERROR(FindGrain(index, sector));
    ZU_RETURN_IF_ERROR(WriteFileAt(m_File, FileOffsetOfSector(sector), 0, data.GetPtr(),
                                   static_cast<unsigned int>(grainBytes), nullptr));
    return CZuError();
}

CZuError CVmdkSparseExtentReader::ReplayRecord(const CAutoMemory<char>& metadata) {
    const CByteView body = MetadataBody(metadata);
    if (BeginsWith(body, "KDMV"))
        return WriteVMDKSparseTableInfo(body.Data(), body.Size());
    // Callers rely on "DWOC": the record of a COWD extent, which begins with "COWD", is refused.
    if (BeginsWith(body, "DWOC"))
        return WriteCOWDSparseTableInfo(body.Data(), body.Size());
    return Refusal("Metadata header is corrupted. Unknown sparse header type");
}

CZuError CVmdkSparseExtentReader::WriteVMDKSparseTableInfo(const char* body, uint64_t bodyBytes) {
    CByteReader record(CByteView(body, bodyBytes));
    VmdkSparseHeader_t header{};
    if (!record.Take(&header, sizeof(header)))
        return Refusal(MetadataIsCorrupted);
    std::memcpy(m_SparseHeader, &header, sizeof(header));
    ZU_RETURN_IF_ERROR(WriteFileAt(m_File, 0, 0, m_SparseHeader, sizeof(header), nullptr));
    if (header.descriptorOffset != 0)
        ZU_RETURN_IF_ERROR(ReplayBytes(record, FileOffsetOfSector(header.descriptorSize), m_File,
                                       FileOffsetOfSector(header.descriptorOffset), m_Descriptor));
    ZU_RETURN_IF_ERROR(SetVMDKGeometry(header));
    ZU_RETURN_IF_ERROR(
        ReplayBytes(record, m_NumGDEntries, m_File, FileOffsetOfSector(header.rgdOffset), m_RedundantGD));
    ZU_RETURN_IF_ERROR(ReplayBytes(record, m_NumGDEntries, m_File, FileOffsetOfSector(header.gdOffset), m_GD));

    CGrainTableReplay tables(m_File, record, VmdkEntriesPerTable);
    ZU_RETURN_IF_ERROR(tables.WriteForEveryEntry(m_RedundantGD, m_RedundantGTs));
    ZU_RETURN_IF_ERROR(tables.WriteForEveryEntry(m_GD, m_GTs));
    m_EndSector = m_StartSector + header.capacity - 1;
    m_RedundantIsActive = (header.flags & VmdkSparseRedundantIsActive) != 0;
    return CZuError();
}

CZuError CVmdkSparseExtentReader::WriteCOWDSparseTableInfo(const char* body, uint64_t bodyBytes) {
    CByteReader record(CByteView(body, bodyBytes));
    CowdHeader_t header{};
    if (!record.Take(&header, sizeof(header)))
        return Refusal(MetadataIsCorrupted);
    std::memcpy(m_SparseHeader, &header, sizeof(header));
    // Callers rely on the header going where the directory goes, which then lies over it, and on
    // the 32-bit product for both.
    const uint32_t directoryOffset = header.gdOffset * SectorSize;
    ZU_RETURN_IF_ERROR(WriteFileAt(m_File, directoryOffset, 0, m_SparseHeader, sizeof(header), nullptr));
    SetCOWDGeometry(header);
    ZU_RETURN_IF_ERROR(ReplayBytes(record, m_NumGDEntries, m_File, directoryOffset, m_GD));
    ZU_RETURN_IF_ERROR(CGrainTableReplay(m_File, record, CowdEntriesPerTable).WriteForPresentEntries(m_GD, m_GTs));
    m_EndSector = m_StartSector + header.numSectors - 1;
    m_RedundantIsActive = false;
    return CZuError();
}
