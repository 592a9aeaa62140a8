#include <algorithm>
#include <cstring>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/VHDFileReader.h"
#include "VirtualServer/VMInfo/detail/MetadataRecord.h"
#include "VirtualServer/VMInfo/detail/SparseDumpRecord.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "VirtualServer/VMInfo/detail/VHDTexts.h"
#include "foundation/detail/Bitmap.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

// What `CVHDFileReader` tells of its file: the metadata record and the sparse dump.

namespace {

constexpr uint32_t EndFooterBytes = VhdPositionTextBytes + sizeof(VhdFileFooter_t);

// Writes the end footer's position as text and its bytes, as they end every record.
CZuError PutEndFooter(CZuFile& file, uint64_t fileBytes, char* at) {
    const uint64_t position = fileBytes - sizeof(VhdFileFooter_t);
    PutHexText(at, VhdPositionTextBytes, position);
    return ReadFileAt(file, position, 0, at + VhdPositionTextBytes, sizeof(VhdFileFooter_t), nullptr);
}

}  // namespace

CZuError CVHDFileReader::GetMetadataInfo(CAutoMemory<char>& metadata) {
    if (!m_File.IsValid())
        return Refusal(VhdNoOpenDisk);
    metadata.Alloc(0);
    if (m_DiskKind == KindFixed)
        return ReadFixedRecord(metadata);
    return WithinMemory(OutOfMemory, [&] { return ReadDynamicRecord(metadata); });
}

CZuError CVHDFileReader::ReadFixedRecord(CAutoMemory<char>& metadata) {
    uint64_t fileBytes = 0;
    ZU_RETURN_IF_ERROR(m_File.Size(fileBytes));
    if (metadata.Alloc(MetadataHeadBytes + EndFooterBytes) == nullptr)
        return Refusal(OutOfMemory);
    WriteMetadataHead(metadata, SignatureVhdFixed, GetTotalSectors());
    ZU_RETURN_IF_ERROR(PutEndFooter(m_File, fileBytes, metadata.GetPtr() + MetadataHeadBytes));
    return CZuError();
}

// The locators are read before the record takes memory, since only the file tells whether their
// lengths are true.
CZuError CVHDFileReader::ReadDynamicRecord(CAutoMemory<char>& metadata) {
    constexpr uint32_t headersBytes = sizeof(VhdFileFooter_t) + sizeof(VhdFileDynamicHeader_t);
    uint64_t fileBytes = 0;
    ZU_RETURN_IF_ERROR(m_File.Size(fileBytes));
    CAutoMemory<char> locators;
    ZU_RETURN_IF_ERROR(ReadLocators(locators));
    const uint64_t tableBytes = uint64_t{m_BAT.GetSize()} * sizeof(Be32_t);
    uint32_t sizeBytes = 0;
    if (!NarrowTo32(MetadataHeadBytes + headersBytes + uint64_t{locators.GetSize()} + tableBytes + EndFooterBytes,
                    sizeBytes) ||
        metadata.Alloc(sizeBytes) == nullptr)
        return Refusal(OutOfMemory);

    WriteMetadataHead(metadata, SignatureVhdDynamic, GetTotalSectors());
    char* at = metadata.GetPtr() + MetadataHeadBytes;
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, 0, 0, at, sizeof(VhdFileFooter_t), nullptr));
    at += sizeof(VhdFileFooter_t);
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, m_Footer.dataOffset, 0, at, sizeof(VhdFileDynamicHeader_t), nullptr));
    at += sizeof(VhdFileDynamicHeader_t);
    at = std::copy_n(locators.GetPtr(), locators.GetSize(), at);
    if (tableBytes != 0)
        std::memcpy(at, m_BAT.GetPtr(), static_cast<size_t>(tableBytes));
    ZU_RETURN_IF_ERROR(PutEndFooter(m_File, fileBytes, at + tableBytes));
    return CZuError();
}

CZuError CVHDFileReader::ReadLocators(CAutoMemory<char>& data) {
    CTableReader budget(m_File);
    ZU_RETURN_IF_ERROR(budget.Charge(m_TakenBytes));
    CAutoMemory<char> piece;
    for (const VhdParentLocator_t& locator : m_DynamicHeader.parentLocators) {
        if (locator.platformDataLength == 0)
            continue;
        ZU_RETURN_IF_ERROR(budget.Read(locator.platformDataOffset, locator.platformDataLength, piece));
        const uint32_t done = data.GetSize();
        if (data.ReAlloc(done + piece.GetSize()) == nullptr)
            return Refusal(OutOfMemory);
        std::copy_n(piece.GetPtr(), piece.GetSize(), data.GetPtr() + done);
    }
    return CZuError();
}

CZuError CVHDFileReader::DumpSparseInfo(CZuFile& out, const char* name, uint64_t blockSectors) {
    if (!m_File.IsValid())
        return Refusal("Don't have a valid opened extent file");
    SparseDumpFields_t fields;
    fields.endLba = ~uint64_t{0};
    fields.blockSectors = blockSectors;
    fields.grainSectors = blockSectors;
    if (m_DiskKind == KindDynamic) {
        fields.blockSectors = m_SectorsPerBlock;
        fields.grainSectors = 1;
        fields.fileOffset = m_BitmapSectors * m_SectorSize;
        fields.grainsPerBucket = m_SectorsPerBlock;
        fields.bucketCount = m_BAT.GetSize();
        fields.topBitmapBytes = static_cast<uint32_t>(DivideRoundingUp(m_BAT.GetSize(), 8));
        fields.bucketBytes = m_BitmapSectors * m_SectorSize;
    }
    ZU_RETURN_IF_ERROR(WriteSparseDumpCount(out, 1));
    ZU_RETURN_IF_ERROR(WriteSparseDumpRecord(out, name, fields));
    return m_DiskKind == KindDynamic ? WriteBitmaps(out) : CZuError();
}

CZuError CVHDFileReader::WriteBitmaps(CZuFile& out) {
    const uint64_t count = m_BAT.GetSize();
    const auto topBytes = static_cast<uint32_t>(DivideRoundingUp(count, 8));
    const uint32_t bitmapBytes = m_BitmapSectors * m_SectorSize;
    CAutoMemory<char> bitmap;
    if (bitmap.Alloc(std::max(topBytes, bitmapBytes)) == nullptr)
        return Refusal(OutOfMemory);
    std::fill_n(bitmap.GetPtr(), topBytes, '\0');
    for (uint64_t index = NextTableEntry(0); index < count; index = NextTableEntry(index + 1))
        SetBit(bitmap.GetPtr(), index);
    if (topBytes != 0)
        ZU_RETURN_IF_ERROR(WriteWhole(out, bitmap.GetPtr(), topBytes));
    for (uint64_t index = NextTableEntry(0); index < count; index = NextTableEntry(index + 1)) {
        const uint64_t offset = FileOffsetOfSector(m_BAT.GetPtr()[index]);
        ZU_RETURN_IF_ERROR(ReadFileAt(m_File, offset, 0, bitmap.GetPtr(), bitmapBytes, nullptr));
        ZU_RETURN_IF_ERROR(WriteWhole(out, bitmap.GetPtr(), bitmapBytes));
    }
    return CZuError();
}
