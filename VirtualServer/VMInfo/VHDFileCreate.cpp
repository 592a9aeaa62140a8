#include <cstdlib>
#include <string>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/VHDFileReader.h"
#include "VirtualServer/VMInfo/detail/MetadataRecord.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "VirtualServer/VMInfo/detail/VHDTexts.h"
#include "foundation/detail/ByteView.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"

namespace {

bool TakePosition(CByteReader& record, uint64_t& position) {
    char text[VhdPositionTextBytes + 1] = {};
    if (!record.Take(text, VhdPositionTextBytes))
        return false;
    position = std::strtoull(text, nullptr, 16);
    return true;
}

// Takes `size` bytes off the record and writes them at `offset` of the file. Nothing has no place: an
// offset without bytes may be anything.
CZuError MovePiece(CByteReader& record, CZuFile& file, uint64_t size, uint64_t offset) {
    if (size == 0)
        return CZuError();
    const CByteView piece = record.Rest();
    uint32_t sizeBytes = 0;
    if (!NarrowTo32(size, sizeBytes) || !record.Skip(size))
        return Refusal(MetadataIsCorrupted);
    ZU_RETURN_IF_ERROR(WriteFileAt(file, offset, 0, piece.Data(), sizeBytes, nullptr));
    return CZuError();
}

}  // namespace

CZuError CVHDFileReader::CreateDisk(const char* name, DiskType_t type, CAutoMemory<char>& metadata) {
    constexpr int ownerReadsAndWrites = 384;
    if (name == nullptr)
        return Refusal(VhdNoDiskName);
    uint32_t wantedType = 0;
    ZU_RETURN_IF_ERROR(FooterTypeOf(type, wantedType));
    Dropped(CloseDisk());  // what was open gives way, whatever the system says to that
    ZU_RETURN_IF_ERROR(m_File.Open(
        name, OpenAsBinary | OpenNotInherited | OpenCreating | OpenTruncating | OpenForWriting, ownerReadsAndWrites));
    ScopeGuard closeUnlessKept([this] { Dropped(CloseDisk()); });  // the first error is the one to report
    if (type == DiskType_VhdFixed)
        ZU_RETURN_IF_ERROR(CreateFlatDisk(metadata));
    else
        ZU_RETURN_IF_ERROR(WithinMemory(OutOfMemory, [&] { return CreateDynamicDisk(metadata); }));
    ZU_RETURN_IF_ERROR(RefuseOtherType(name, wantedType));
    m_DiskKind = type == DiskType_VhdFixed ? KindFixed : KindDynamic;
    SetShapeAndSize();
    closeUnlessKept.Dismiss();
    return CZuError();
}

CZuError CVHDFileReader::WriteBlock(uint64_t index, uint32_t blockSectors, CAutoMemory<char>& data) {
    if (!m_File.IsValid())
        return Refusal(VhdNoOpenDisk);
    ZU_RETURN_IF_ERROR(RefuseOtherBlockSize(blockSectors));
    if (data.GetSize() > uint64_t{blockSectors} << SectorShift)
        return Refusal("Data size greater than grain size");
    uint64_t firstSector = 0;
    if (HasNoSectors() || !CheckedMul(index, blockSectors, firstSector) || firstSector > m_LastSector)
        return VhdEndOfDisk.Error();
    if (m_DiskKind == KindDynamic) {
        uint32_t blockSector = 0;
        ZU_RETURN_IF_ERROR(FindBlock(index, blockSector));
        firstSector = blockSector;
    }
    ZU_RETURN_IF_ERROR(WriteFileAt(m_File, FileOffsetOfSector(firstSector), 0, data.GetPtr(), data.GetSize(), nullptr));
    return CZuError();
}

CZuError CVHDFileReader::CreateFlatDisk(const CAutoMemory<char>& metadata) {
    ZU_RETURN_IF_ERROR(CheckMetadataHead(metadata, SignatureVhdFixed));
    CByteReader record(MetadataBody(metadata));
    VhdFileFooter_t footer;
    ZU_RETURN_IF_ERROR(ReplayEndFooter(record, footer));
    ConvertFooterFromNetToHost(footer, m_Footer);
    return CZuError();
}

CZuError CVHDFileReader::CreateDynamicDisk(const CAutoMemory<char>& metadata) {
    ZU_RETURN_IF_ERROR(CheckMetadataHead(metadata, SignatureVhdDynamic));
    CByteReader record(MetadataBody(metadata));
    ZU_RETURN_IF_ERROR(ReplayHeaders(record));
    for (const VhdParentLocator_t& locator : m_DynamicHeader.parentLocators)
        ZU_RETURN_IF_ERROR(MovePiece(record, m_File, locator.platformDataLength, locator.platformDataOffset));
    ZU_RETURN_IF_ERROR(ReplayTable(record));
    VhdFileFooter_t endFooter;
    ZU_RETURN_IF_ERROR(ReplayEndFooter(record, endFooter));
    return CZuError();
}

// The footer's copy at the file's start tells what the disk is, and where its header goes.
CZuError CVHDFileReader::ReplayHeaders(CByteReader& record) {
    VhdFileFooter_t footer;
    VhdFileDynamicHeader_t header;
    if (!record.Take(&footer, sizeof(footer)) || !record.Take(&header, sizeof(header)))
        return Refusal(MetadataIsCorrupted);
    ConvertFooterFromNetToHost(footer, m_Footer);
    ConvertDynHdrFromNetToHost(header, m_DynamicHeader);
    ZU_RETURN_IF_ERROR(WriteFileAt(m_File, 0, 0, &footer, sizeof(footer), nullptr));
    ZU_RETURN_IF_ERROR(WriteFileAt(m_File, m_Footer.dataOffset, 0, &header, sizeof(header), nullptr));
    return CZuError();
}

CZuError CVHDFileReader::ReplayTable(CByteReader& record) {
    const uint64_t tableBytes = uint64_t{m_DynamicHeader.maxTableEntries} * sizeof(Be32_t);
    if (tableBytes > record.Rest().Size())
        return Refusal(MetadataIsCorrupted);
    if (tableBytes != 0 && m_BAT.Alloc(m_DynamicHeader.maxTableEntries) == nullptr)
        return Refusal(OutOfMemory);
    if (!record.Rest().CopyOut(0, m_BAT.GetPtr(), tableBytes))
        return Refusal(MetadataIsCorrupted);
    return MovePiece(record, m_File, tableBytes, m_DynamicHeader.tableOffset);
}

// The file's size is set to the footer's position, so that the footer ends the file.
CZuError CVHDFileReader::ReplayEndFooter(CByteReader& record, VhdFileFooter_t& footer) {
    uint64_t position = 0;
    if (!TakePosition(record, position) || !record.Take(&footer, sizeof(footer)))
        return Refusal(MetadataIsCorrupted);
    ZU_RETURN_IF_ERROR(m_File.Truncate(static_cast<int64_t>(position)));
    ZU_RETURN_IF_ERROR(WriteFileAt(m_File, position, 0, &footer, sizeof(footer), nullptr));
    return CZuError();
}
