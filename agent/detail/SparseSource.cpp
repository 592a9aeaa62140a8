#include <algorithm>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "VirtualServer/VMInfo/VmdkFileReader.h"
#include "agent/detail/BlockSource.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/SparseRecord.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// The grains of a VMDK sparse extent. The core gives all that the file holds whole.
class CSparseSource final : public IBlockSource {
public:
    CZuError Open(const DiskExtent_t& extent) override {
        m_Extent = extent;
        m_Core.emplace(extent.product);
        ZU_RETURN_IF_ERROR(m_Core->Open(extent.path.c_str(), extent.diskType));
        ZU_RETURN_IF_ERROR(m_Core->GetFirstBlock(m_Record, 0, m_Context));
        CSparseRecord record;
        ZU_RETURN_IF_ERROR(record.Open(m_Record));
        m_BlockSectors = static_cast<uint32_t>(m_Context.blockSectors);
        m_ExpectedBytes = record.CountGrains() * (m_Context.blockSectors << SectorShift);
        return CZuError();
    }

    CZuError Next(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place) override {
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

private:
    // The file may end inside its last grain, or the table may name one that lies behind the disk's
    // end: of both, only the sectors of the disk count, and none of them come later. Anything else is
    // the failure that it was.
    CZuError ReadCutGrain(const CZuError& whole, CAutoMemory<char>& bytes, BlockPlace_t& place) {
        const uint64_t firstSector = place.number * m_Context.blockSectors;
        const uint64_t sectorsLeft = m_Extent.totalSectors - std::min(m_Extent.totalSectors, firstSector);
        if (sectorsLeft >= m_Context.blockSectors)
            return whole;
        place.sectors = static_cast<uint32_t>(sectorsLeft);
        m_IsAtEnd = true;
        return sectorsLeft != 0 ? ReadBySector(whole, firstSector, place.sectors, bytes) : CZuError();
    }

    CZuError ReadBySector(const CZuError& whole, uint64_t firstSector, uint32_t sectors, CAutoMemory<char>& bytes) {
        m_Core.reset();  // its tables would be in memory twice
        CVmdkFileReader reader;
        ZU_RETURN_IF_ERROR(reader.OpenDisk(m_Extent.path.c_str(), DiskType_MonolithicSparse));
        if (bytes.Alloc(sectors << SectorShift) == nullptr)
            return Refusal(OutOfMemory);
        for (uint32_t index = 0; index < sectors; ++index) {
            if (reader.ReadSector(firstSector + index, bytes.GetPtr() + (index << SectorShift), SectorSize)
                    .IsErrorSet())
                return whole;
        }
        return CZuError();
    }

    DiskExtent_t m_Extent;
    std::optional<CArchiveVirtualDiskFile> m_Core;
    bool m_IsAtEnd = false;
    Context_t m_Context{};
};

}  // namespace

std::unique_ptr<IBlockSource> MakeSparseSource() {
    return std::make_unique<CSparseSource>();
}
