#include "agent/ExtentStream.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "VirtualServer/VMInfo/VmdkFileReader.h"
#include "agent/ErrorText.h"
#include "agent/detail/SparseRecord.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

CZuError CExtentStream::Open(const DiskExtent_t& extent) {
    m_Extent = extent;
    return ErrorAt(extent.path, OpenCore());
}

CZuError CExtentStream::OpenCore() {
    m_IsAtEnd = false;
    m_Core.emplace(m_Extent.product);
    ZU_RETURN_IF_ERROR(m_Core->Open(m_Extent.path.c_str(), m_Extent.diskType));
    ZU_RETURN_IF_ERROR(m_Core->GetFirstBlock(m_Record, FlatBlockSectors, m_Context));
    if (IsFlat()) {
        m_ExpectedBytes = m_Extent.totalSectors << SectorShift;
        return CZuError();
    }
    CSparseRecord record;
    ZU_RETURN_IF_ERROR(record.Open(m_Record));
    m_ExpectedBytes = record.CountGrains() * (m_Context.blockSectors << SectorShift);
    return CZuError();
}

CAutoMemory<char> CExtentStream::TakeRecord() {
    return std::exchange(m_Record, CAutoMemory<char>());
}

CZuError CExtentStream::Next(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place) {
    place.reset();
    return ErrorAt(m_Extent.path, IsFlat() ? NextFlat(bytes, place) : NextSparse(bytes, place));
}

CZuError CExtentStream::NextSparse(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place) {
    if (m_IsAtEnd)
        return CZuError();
    BlockPlace_t next{0, BlockSectors()};
    CZuError error = m_Core->GetNextBlock(bytes, next.number, m_Context);
    if (m_Core->IsErrorEOF(error) != 0)
        return CZuError();
    if (error.IsErrorSet())
        ZU_RETURN_IF_ERROR(ReadCutGrain(error, bytes, next));
    if (next.sectors != 0)
        place = next;
    return CZuError();
}

// The file may end inside its last grain, or the table may name one that lies behind the disk's
// end: of both, only the sectors of the disk count, and none of them come later. Anything else is
// the failure that it was.
CZuError CExtentStream::ReadCutGrain(const CZuError& whole, CAutoMemory<char>& bytes, BlockPlace_t& place) {
    const uint64_t firstSector = place.number * m_Context.blockSectors;
    const uint64_t sectorsLeft = m_Extent.totalSectors - std::min(m_Extent.totalSectors, firstSector);
    if (sectorsLeft >= m_Context.blockSectors)
        return whole;
    place.sectors = static_cast<uint32_t>(sectorsLeft);
    m_IsAtEnd = true;
    return sectorsLeft != 0 ? ReadBySector(whole, firstSector, place.sectors, bytes) : CZuError();
}

CZuError CExtentStream::ReadBySector(const CZuError& whole, uint64_t firstSector, uint32_t sectors,
                                     CAutoMemory<char>& bytes) {
    m_Core.reset();  // its tables would be in memory twice
    CVmdkFileReader reader;
    ZU_RETURN_IF_ERROR(reader.OpenDisk(m_Extent.path.c_str(), DiskType_MonolithicSparse));
    if (bytes.Alloc(sectors << SectorShift) == nullptr)
        return Refusal("Out of memory");
    for (uint32_t index = 0; index < sectors; ++index) {
        if (reader.ReadSector(firstSector + index, bytes.GetPtr() + (index << SectorShift), SectorSize).IsErrorSet())
            return whole;
    }
    return CZuError();
}

CZuError CExtentStream::NextFlat(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place) {
    const uint64_t number = m_Context.blockNumber + 1;  // from no block yet, which is all ones, to block 0
    const uint64_t firstSector = number * FlatBlockSectors;
    if (firstSector >= m_Extent.totalSectors)
        return CZuError();
    const auto sectors =
        static_cast<uint32_t>(std::min<uint64_t>(m_Extent.totalSectors - firstSector, FlatBlockSectors));
    if (sectors < FlatBlockSectors) {
        m_Context.blockNumber = number;
        ZU_RETURN_IF_ERROR(ReadFlatTail(sectors, bytes));
    } else {
        uint64_t gotNumber = 0;
        ZU_RETURN_IF_ERROR(m_Core->GetNextBlock(bytes, gotNumber, m_Context));
    }
    place = BlockPlace_t{number, sectors};
    return CZuError();
}

// The core fails in a block that reaches past the end, so the tail comes in blocks that are powers
// of two, the largest first: each begins at a multiple of its own size.
CZuError CExtentStream::ReadFlatTail(uint32_t tailSectors, CAutoMemory<char>& bytes) {
    if (bytes.Alloc(tailSectors << SectorShift) == nullptr)
        return Refusal("Out of memory");
    const uint64_t firstSector = m_Context.blockNumber * FlatBlockSectors;
    CAutoMemory<char> piece;
    uint32_t done = 0;
    for (uint32_t pieceSectors = FlatBlockSectors / 2; pieceSectors != 0; pieceSectors /= 2) {
        if ((tailSectors & pieceSectors) == 0)
            continue;
        Context_t context{NoBlockYet, pieceSectors};
        ZU_RETURN_IF_ERROR(m_Core->ReadBlock(piece, (firstSector + done) / pieceSectors, context));
        std::memcpy(bytes.GetPtr() + (done << SectorShift), piece.GetPtr(), piece.GetSize());
        done += pieceSectors;
    }
    return CZuError();
}

bool CExtentStream::IsFlat() const {
    return m_Extent.diskType == DiskType_MonolithicFlat || m_Extent.diskType == DiskType_TwoGbMaxExtentFlat;
}
