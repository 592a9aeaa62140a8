#include <algorithm>

#include "agent/WholeDisk.h"
#include "agent/detail/BlockSource.h"
#include "agent/detail/OutOfMemory.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// A disk as it reads through its chain, in blocks of one size. Blocks that no link holds don't come.
class CChainSource final : public IBlockSource {
public:
    CZuError Open(const DiskExtent_t& extent) override {
        m_Disk = extent.chain;
        m_SizeBytes = extent.totalSectors << SectorShift;
        m_BlockSectors = FlatBlockSectors;
        m_ExpectedBytes = m_SizeBytes;
        return CZuError();
    }

    CZuError Next(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place) override {
        constexpr uint64_t blockBytes = uint64_t{FlatBlockSectors} << SectorShift;
        SkipHoles(blockBytes);
        if (m_Offset >= m_SizeBytes)
            return CZuError();
        const auto sizeBytes = static_cast<uint32_t>(std::min(m_SizeBytes - m_Offset, blockBytes));
        if (bytes.Alloc(sizeBytes) == nullptr)
            return Refusal(OutOfMemory);
        ZU_RETURN_IF_ERROR(m_Disk->Reader().ReadHardDiskData(m_Offset, bytes.GetPtr(), sizeBytes));
        place = BlockPlace_t{m_Offset / blockBytes, sizeBytes >> SectorShift};
        m_Offset += sizeBytes;
        return CZuError();
    }

private:
    // A block of which a part is held comes whole.
    void SkipHoles(uint64_t blockBytes) {
        while (m_Offset < m_SizeBytes) {
            const uint64_t hole = CountHoleBytes(std::min(m_SizeBytes - m_Offset, LongestLook));
            if (hole < std::min(m_SizeBytes - m_Offset, blockBytes))
                return;
            m_Offset += hole >= m_SizeBytes - m_Offset ? hole : hole / blockBytes * blockBytes;
        }
    }

    // The holes of a chain end where one link's answer does, and go on behind it.
    uint64_t CountHoleBytes(uint64_t mostBytes) {
        uint64_t count = 0;
        while (count < mostBytes) {
            const uint64_t step = m_Disk->Reader().CountHoleBytes(m_Offset + count, mostBytes - count);
            if (step == 0)
                break;
            count += step;
        }
        return count;
    }

    static constexpr uint64_t LongestLook = uint64_t{1} << 40U;

    std::shared_ptr<CWholeDisk> m_Disk;
    uint64_t m_SizeBytes = 0;
    uint64_t m_Offset = 0;
};

}  // namespace

std::unique_ptr<IBlockSource> MakeChainSource() {
    return std::make_unique<CChainSource>();
}
