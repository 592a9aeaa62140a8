#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "agent/detail/BlockSource.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/VhdRecord.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// The blocks of a dynamic VHD as they lie in the file, bitmap and sectors. The core's stream ends
// before the last blocks of a large disk do: these are read from where the table says they are.
class CDynamicVhdSource final : public IBlockSource {
public:
    CZuError Open(const DiskExtent_t& extent) override {
        m_Extent = extent;
        m_Core.emplace(extent.product);
        ZU_RETURN_IF_ERROR(m_Core->Open(extent.path.c_str(), extent.diskType));
        ZU_RETURN_IF_ERROR(m_Core->GetFirstBlock(m_Record, 0, m_Context));
        CVhdRecord record;
        ZU_RETURN_IF_ERROR(record.Open(m_Record));
        m_BlockSectors = static_cast<uint32_t>(m_Context.blockSectors);
        m_ExpectedBytes = record.CountBlocks() * (m_Context.blockSectors << SectorShift);
        NoteBlocksLeftOut(record);
        return CZuError();
    }

    CZuError Next(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place) override {
        if (m_Core.has_value()) {
            uint64_t number = 0;
            CZuError error = m_Core->GetNextBlock(bytes, number, m_Context);
            if (!error.IsErrorSet()) {
                place = BlockPlace_t{number, BlockSectors()};
                return CZuError();
            }
            if (m_Core->IsErrorEOF(error) == 0)
                ZU_RETURN_IF_ERROR(error);
            m_Core.reset();
        }
        return NextLeftOut(bytes, place);
    }

private:
    struct LeftOut_t {
        uint64_t number;
        uint32_t sector;  // of the file
    };

    void NoteBlocksLeftOut(const CVhdRecord& record) {
        const uint64_t blocksOfDisk = DivideRoundingUp(m_Extent.totalSectors, record.Shape().dataSectors);
        for (uint64_t number = record.FirstBlockLeftOut(); number < blocksOfDisk; ++number) {
            if (record.BlockSector(number) != VhdBlockNotAllocated)
                m_LeftOut.push_back({number, record.BlockSector(number)});
        }
    }

    CZuError NextLeftOut(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place) {
        if (m_NextLeftOut == m_LeftOut.size())
            return CZuError();
        if (!m_File.IsValid())
            ZU_RETURN_IF_ERROR(m_File.Open(m_Extent.path.c_str(), OpenAsBinary | OpenNotInherited, 0));
        const LeftOut_t& block = m_LeftOut[m_NextLeftOut++];
        if (bytes.Alloc(BlockSectors() << SectorShift) == nullptr)
            return Refusal(OutOfMemory);
        ZU_RETURN_IF_ERROR(
            ReadFileAt(m_File, FileOffsetOfSector(block.sector), 0, bytes.GetPtr(), bytes.GetSize(), nullptr));
        place = BlockPlace_t{block.number, BlockSectors()};
        return CZuError();
    }

    DiskExtent_t m_Extent;
    std::optional<CArchiveVirtualDiskFile> m_Core;  // until its stream has ended
    Context_t m_Context{};
    std::vector<LeftOut_t> m_LeftOut;
    size_t m_NextLeftOut = 0;
    CZuFile m_File;
};

}  // namespace

std::unique_ptr<IBlockSource> MakeDynamicVhdSource() {
    return std::make_unique<CDynamicVhdSource>();
}
