#include "agent/detail/SetBlockCache.h"

#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"

namespace {

constexpr uint64_t MostCachedBytes = uint64_t{32} << 20U;
constexpr size_t MostBlocks = 4096;  // the set's holes cost no bytes, but a place

}  // namespace

CZuError CSetBlockCache::Get(const SetStream_t& stream, uint64_t number, const CAutoMemory<char>*& bytes) {
    const Key_t key(stream.id, number);
    const auto found = m_Places.find(key);
    if (found != m_Places.end()) {
        m_Blocks.splice(m_Blocks.begin(), m_Blocks, found->second);
    } else {
        Block_t& block = PlaceFor(stream);
        auto dropUnlessRead = ScopeGuard([this] { m_Blocks.pop_front(); });
        ZU_RETURN_IF_ERROR(m_Set.ReadBlock(stream, number, block.bytes, block.isThere));
        block.key = key;
        m_Places[key] = m_Blocks.begin();
        m_HeldBytes += block.bytes.GetSize();
        dropUnlessRead.Dismiss();
    }
    bytes = m_Blocks.front().isThere ? &m_Blocks.front().bytes : nullptr;
    return CZuError();
}

// In front. The buffer of a block that goes is used again.
CSetBlockCache::Block_t& CSetBlockCache::PlaceFor(const SetStream_t& stream) {
    const uint64_t blockBytes = FileOffsetOfSector(stream.blockSectors);
    CAutoMemory<char> buffer;
    while (!m_Blocks.empty() && (m_Blocks.size() >= MostBlocks || m_HeldBytes + blockBytes > MostCachedBytes)) {
        m_HeldBytes -= m_Blocks.back().bytes.GetSize();
        buffer = std::move(m_Blocks.back().bytes);
        m_Places.erase(m_Blocks.back().key);
        m_Blocks.pop_back();
    }
    Block_t& block = m_Blocks.emplace_front();
    block.bytes = std::move(buffer);
    return block;
}
