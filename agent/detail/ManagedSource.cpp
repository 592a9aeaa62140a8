#include <algorithm>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "agent/detail/BlockSource.h"
#include "agent/detail/OutOfMemory.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "hypervisor/NbdVMInfo.h"

namespace {

// A disk that a server exports: the blocks that it has allocated, and of those that haven't changed the numbers alone.
class CManagedSource final : public IBlockSource {
public:
    CZuError Open(const DiskExtent_t& extent) override {
        m_Extent = extent;
        m_Core.emplace(extent.product);
        m_Core->SetVMInfo(extent.server.get(), "", "");
        m_Core->SetChangeId(extent.changedSince.c_str());
        m_Core->SetExtentSize(FlatBlockSectors);
        ZU_RETURN_IF_ERROR(InServersWords(m_Core->Open(extent.path.c_str(), extent.diskType)));
        ZU_RETURN_IF_ERROR(InServersWords(m_Core->GetFirstBlock(m_Record, FlatBlockSectors, m_Context)));
        m_BlockSectors = FlatBlockSectors;
        m_ExpectedBytes = extent.totalSectors << SectorShift;
        return CZuError();
    }

    CZuError Next(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place) override {
        uint64_t number = 0;
        CZuError error = m_Core->GetNextBlock(bytes, number, m_Context);
        if (m_Core->IsErrorEOF(error) != 0)
            return CZuError();
        ZU_RETURN_IF_ERROR(InServersWords(error));
        const uint32_t sectors = SectorsOf(number);
        place = BlockPlace_t{number, sectors, bytes.GetSize() == 0};
        if (bytes.GetSize() != 0)
            bytes.Alloc(sectors << SectorShift);  // behind the disk's end there are zeros
        return CZuError();
    }

    CZuError ReadUnchanged(uint64_t number, CAutoMemory<char>& bytes) override {
        CNbdVMInfo& server = *m_Extent.server;
        const uint32_t sectors = SectorsOf(number);
        VmdkFileHandle_t handle;
        if (bytes.Alloc(sectors << SectorShift) == nullptr)
            return Refusal(OutOfMemory);
        const bool isRead = server.SetCurrVmdkFile("", "", m_Extent.path, handle) != 0 &&
                            server.ReadCurrVmdkFile(handle, number * FlatBlockSectors, sectors, bytes.GetPtr()) != 0;
        return isRead ? CZuError() : Refusal(server.LastErrorText());
    }

private:
    // The last block may be shorter than the others.
    uint32_t SectorsOf(uint64_t number) const {
        const uint64_t rest = m_Extent.totalSectors - number * FlatBlockSectors;
        return static_cast<uint32_t>(std::min<uint64_t>(rest, FlatBlockSectors));
    }

    // The core knows that the server failed; the server knows why.
    CZuError InServersWords(const CZuError& error) const {
        const std::string& text = m_Extent.server->LastErrorText();
        return error.IsErrorSet() && !text.empty() ? Refusal(text) : error;
    }

    DiskExtent_t m_Extent;
    std::optional<CArchiveVirtualDiskFile> m_Core;
    Context_t m_Context{};
};

}  // namespace

std::unique_ptr<IBlockSource> MakeManagedSource() {
    return std::make_unique<CManagedSource>();
}
