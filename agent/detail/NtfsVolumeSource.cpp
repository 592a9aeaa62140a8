#include <algorithm>

#include "VirtualServer/VMInfo/NTFSVolumeReader.h"
#include "agent/detail/BlockSource.h"
#include "agent/detail/NtfsUsedPieces.h"
#include "agent/detail/OutOfMemory.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// An NTFS volume in blocks of the size that raw disks have. The core's stream has blocks of 8192 clusters, too large to
// leave much out or to be held several at a time, places them wrongly where sectors are larger than 512 bytes, and ends
// with the last whole cluster. So the record and the bytes are the core's, and which blocks there are is found here.
class CNtfsVolumeSource final : public IBlockSource {
public:
    CZuError Open(const DiskExtent_t& extent) override {
        m_Sectors = extent.totalSectors;
        m_BlockSectors = FlatBlockSectors;
        ZU_RETURN_IF_ERROR(m_Pieces.Open(extent.path));
        ZU_RETURN_IF_ERROR(m_Pieces.FindPieces(FlatBlockSectors << SectorShift));
        ZU_RETURN_IF_ERROR(m_Core.OpenVolume(extent.path.c_str()));
        ZU_RETURN_IF_ERROR(m_Core.GetMetadataInfo(m_Record));
        m_ExpectedBytes = m_Pieces.HeldPieces() * (FlatBlockSectors << SectorShift);
        return CZuError();
    }

    CZuError Next(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place) override {
        const uint64_t number = m_Pieces.NextPiece(m_NextNumber);
        const uint64_t firstSector = number * FlatBlockSectors;
        if (number == m_Pieces.PieceCount() || firstSector >= m_Sectors)
            return CZuError();
        const auto sectors = static_cast<uint32_t>(std::min<uint64_t>(m_Sectors - firstSector, FlatBlockSectors));
        if (bytes.Alloc(sectors << SectorShift) == nullptr)
            return Refusal(OutOfMemory);
        ZU_RETURN_IF_ERROR(m_Core.ReadData(firstSector << SectorShift, bytes.GetPtr(), bytes.GetSize()));
        place = BlockPlace_t{number, sectors};
        m_NextNumber = number + 1;
        return CZuError();
    }

private:
    uint64_t m_Sectors = 0;
    CNtfsUsedPieces m_Pieces;
    CNTFSVolumeReader m_Core;
    uint64_t m_NextNumber = 0;
};

}  // namespace

std::unique_ptr<IBlockSource> MakeNtfsVolumeSource() {
    return std::make_unique<CNtfsVolumeSource>();
}
