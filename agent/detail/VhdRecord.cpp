#include "agent/detail/VhdRecord.h"

#include <cstring>

#include "VirtualServer/VMInfo/DiskMetaData.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr uint64_t PositionTextBytes = 16;

bool HasSignature(CByteView record, const char* signature) {
    VirtualDisk_MetaData_Stream_t head{};
    return record.Get(0, head) && std::memcmp(head.signature, signature, sizeof(head.signature)) == 0;
}

bool IsSameDisk(const VhdFileFooter_t& left, const VhdFileFooter_t& right) {
    return left.dataOffset == right.dataOffset && left.currentSize == right.currentSize &&
           left.diskType == right.diskType;
}

}  // namespace

CZuError CVhdRecord::Open(const CAutoMemory<char>& record) {
    *this = CVhdRecord();
    const CByteView view(record.GetPtr(), record.GetSize());
    CByteReader body(view.From(sizeof(VirtualDisk_MetaData_Stream_t)));
    bool isWhole = false;
    if (HasSignature(view, SignatureVhdFixed)) {
        m_IsFixed = true;
        VhdFileFooter_t footer;
        isWhole = body.Skip(PositionTextBytes) && body.Take(&footer, sizeof(footer));
        if (isWhole)
            ConvertFooterFromNetToHost(footer, m_Footer);
    } else if (HasSignature(view, SignatureVhdDynamic)) {
        isWhole = OpenDynamic(body);
    }
    return isWhole ? CZuError() : Refusal("its metadata record isn't one of a VHD");
}

bool CVhdRecord::OpenDynamic(CByteReader& body) {
    VhdFileFooter_t copy;
    VhdFileFooter_t footer;
    VhdFileDynamicHeader_t fileHeader;
    if (!body.Take(&copy, sizeof(copy)) || !body.Take(&fileHeader, sizeof(fileHeader)))
        return false;
    VHD_DYNAMIC_HEADER_t header{};
    ConvertDynHdrFromNetToHost(fileHeader, header);
    for (const VhdParentLocator_t& locator : header.parentLocators) {
        if (!body.Skip(locator.platformDataLength))
            return false;
    }
    m_Table = CByteView(body.Rest().Data(), uint64_t{header.maxTableEntries} * sizeof(Be32_t));
    m_Shape = ShapeOfVhdBlock(header.blockSize);
    if (m_Shape.dataSectors == 0 || !body.Skip(m_Table.Size()) || !body.Skip(PositionTextBytes) ||
        !body.Take(&footer, sizeof(footer)))
        return false;
    ConvertFooterFromNetToHost(footer, m_Footer);
    m_CanBeMadeAgain = IsSameDisk(copy, footer);
    return true;
}

uint64_t CVhdRecord::DiskSectors() const {
    return m_Footer.currentSize / SectorSize;
}

uint64_t CVhdRecord::CountBlocks() const {
    uint64_t count = 0;
    for (uint64_t index = 0; index < TableEntries(); ++index)
        count += BlockSector(index) != VhdBlockNotAllocated ? 1 : 0;
    return count;
}

uint32_t CVhdRecord::BlockSector(uint64_t index) const {
    Be32_t sector;
    return m_Table.Get(index * sizeof(sector), sector) ? uint32_t{sector} : VhdBlockNotAllocated;
}

// A disk of one sector has none that come.
uint64_t CVhdRecord::FirstBlockLeftOut() const {
    const uint64_t sectors = DiskSectors();
    if (sectors <= 1)
        return 0;
    return DivideRoundingUp(sectors, uint64_t{m_Shape.bitmapSectors} + m_Shape.dataSectors);
}
