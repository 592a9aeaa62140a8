#include <algorithm>
#include <cstring>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "VirtualServer/VMInfo/VHDFileReader.h"
#include "agent/detail/BlockSource.h"
#include "agent/detail/OutOfMemory.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

// Extents whose every sector is in their file, in blocks of one size.

namespace {

// Gives whole blocks from the core, and leaves the last sectors to those who know what the core
// does with them.
class CWholeBlocks : public IBlockSource {
public:
    CZuError Open(const DiskExtent_t& extent) override {
        m_Extent = extent;
        m_Core.emplace(extent.product);
        ZU_RETURN_IF_ERROR(m_Core->Open(CoreNameOf(extent).c_str(), extent.diskType));
        ZU_RETURN_IF_ERROR(m_Core->GetFirstBlock(m_Record, FlatBlockSectors, m_Context));
        m_BlockSectors = FlatBlockSectors;
        m_ExpectedBytes = extent.totalSectors << SectorShift;
        return CZuError();
    }

    CZuError Next(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place) override {
        const uint64_t number = m_Context.blockNumber + 1;  // from no block yet, which is all ones, to block 0
        const uint64_t firstSector = number * FlatBlockSectors;
        if (firstSector >= m_Extent.totalSectors)
            return CZuError();
        const auto sectors =
            static_cast<uint32_t>(std::min<uint64_t>(m_Extent.totalSectors - firstSector, FlatBlockSectors));
        if (IsTail(firstSector)) {
            m_Context.blockNumber = number;
            ZU_RETURN_IF_ERROR(ReadTail(firstSector, sectors, bytes));
        } else {
            uint64_t gotNumber = 0;
            ZU_RETURN_IF_ERROR(m_Core->GetNextBlock(bytes, gotNumber, m_Context));
        }
        place = BlockPlace_t{number, sectors};
        return CZuError();
    }

protected:
    virtual bool IsTail(uint64_t firstSector) const = 0;
    virtual CZuError ReadTail(uint64_t firstSector, uint32_t sectors, CAutoMemory<char>& bytes) = 0;

    DiskExtent_t m_Extent;
    std::optional<CArchiveVirtualDiskFile> m_Core;
    Context_t m_Context{};
};

// The core fails in a block that reaches past the end, so the tail comes in blocks that are powers
// of two, the largest first: each begins at a multiple of its own size.
class CFlatSource final : public CWholeBlocks {
    bool IsTail(uint64_t firstSector) const override { return m_Extent.totalSectors - firstSector < FlatBlockSectors; }

    CZuError ReadTail(uint64_t firstSector, uint32_t sectors, CAutoMemory<char>& bytes) override {
        if (bytes.Alloc(sectors << SectorShift) == nullptr)
            return Refusal(OutOfMemory);
        CAutoMemory<char> piece;
        uint32_t done = 0;
        for (uint32_t pieceSectors = FlatBlockSectors / 2; pieceSectors != 0; pieceSectors /= 2) {
            if ((sectors & pieceSectors) == 0)
                continue;
            Context_t context{NoBlockYet, pieceSectors};
            ZU_RETURN_IF_ERROR(m_Core->ReadBlock(piece, (firstSector + done) / pieceSectors, context));
            std::memcpy(bytes.GetPtr() + (done << SectorShift), piece.GetPtr(), piece.GetSize());
            done += pieceSectors;
        }
        return CZuError();
    }
};

// The core leaves the disk's last sector out of the last block, whole or not, so that block is read
// by sector.
class CFixedVhdSource final : public CWholeBlocks {
    bool IsTail(uint64_t firstSector) const override { return m_Extent.totalSectors - firstSector <= FlatBlockSectors; }

    CZuError ReadTail(uint64_t firstSector, uint32_t sectors, CAutoMemory<char>& bytes) override {
        CVHDFileReader reader;
        ZU_RETURN_IF_ERROR(reader.OpenDisk(m_Extent.path.c_str(), m_Extent.diskType));
        if (bytes.Alloc(sectors << SectorShift) == nullptr)
            return Refusal(OutOfMemory);
        for (uint32_t index = 0; index < sectors; ++index)
            ZU_RETURN_IF_ERROR(
                reader.ReadSector(firstSector + index, bytes.GetPtr() + (index << SectorShift), SectorSize));
        return CZuError();
    }
};

}  // namespace

std::unique_ptr<IBlockSource> MakeFlatSource() {
    return std::make_unique<CFlatSource>();
}

std::unique_ptr<IBlockSource> MakeFixedVhdSource() {
    return std::make_unique<CFixedVhdSource>();
}
