#include "agent/detail/SetBlockCache.h"

#include <algorithm>

#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr uint64_t MostHeldBytes = uint64_t{32} << 20U;
constexpr size_t MostBlocks = 256;  // they are looked through one by one

}  // namespace

CZuError CSetBlockCache::Get(const SetStream_t& stream, uint64_t number, const CAutoMemory<char>*& bytes) {
    auto found = std::find_if(m_Blocks.begin(), m_Blocks.end(), [&](const Block_t& block) {
        return block.number == number && block.stream == stream.id;
    });
    if (found != m_Blocks.end()) {
        m_Blocks.splice(m_Blocks.begin(), m_Blocks, found);
    } else {
        Block_t& block = PlaceFor(stream);
        CZuError error = m_Set.ReadBlock(stream, number, block.bytes, block.isThere);
        if (error.IsErrorSet()) {
            m_Blocks.pop_front();
            return error;
        }
        block.stream = stream.id;
        block.number = number;
        m_HeldBytes += block.bytes.GetSize();
    }
    bytes = m_Blocks.front().isThere ? &m_Blocks.front().bytes : nullptr;
    return CZuError();
}

// In front. The buffer of a block that goes is used again.
CSetBlockCache::Block_t& CSetBlockCache::PlaceFor(const SetStream_t& stream) {
    const uint64_t blockBytes = FileOffsetOfSector(stream.blockSectors);
    CAutoMemory<char> buffer;
    while (!m_Blocks.empty() && (m_Blocks.size() >= MostBlocks || m_HeldBytes + blockBytes > MostHeldBytes)) {
        m_HeldBytes -= m_Blocks.back().bytes.GetSize();
        buffer = std::move(m_Blocks.back().bytes);
        m_Blocks.pop_back();
    }
    Block_t& block = m_Blocks.emplace_front();
    block.bytes = std::move(buffer);
    return block;
}
