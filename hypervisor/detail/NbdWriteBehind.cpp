#include "hypervisor/detail/NbdWriteBehind.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr uint32_t WriteBehindBytes = 512U << 10U;
constexpr size_t MostOnTheirWay = 8;

}  // namespace

bool CNbdWriteBehind::Write(uint64_t offset, const char* bytes, uint32_t size) {
    for (uint32_t done = 0; done < size;) {
        if (!GatherFrom(offset + done))
            return false;
        const uint32_t step = std::min(size - done, WriteBehindBytes - m_Gathered->size);
        std::memcpy(m_Gathered->bytes.GetPtr() + m_Gathered->size, bytes + done, step);
        m_Gathered->size += step;
        done += step;
    }
    return true;
}

bool CNbdWriteBehind::Finish() {
    if (m_Gathered != nullptr)
        SendGathered();
    bool areDone = true;
    while (!m_OnTheirWay.empty() && areDone)
        areDone = FinishFirst();
    return areDone;
}

// Makes sure that there is a piece which goes on at `offset` and has room.
bool CNbdWriteBehind::GatherFrom(uint64_t offset) {
    if (m_Gathered != nullptr && (m_Gathered->End() != offset || m_Gathered->size == WriteBehindBytes))
        SendGathered();
    if (m_Gathered != nullptr)
        return true;
    if (m_OnTheirWay.size() == MostOnTheirWay && !FinishFirst())
        return false;
    if (m_Spare.empty())
        m_Spare.push_back(std::make_unique<Piece_t>());
    if (m_Spare.back()->bytes.Alloc(WriteBehindBytes) == nullptr)
        return m_Connection.FailForMemory();
    m_Gathered = std::move(m_Spare.back());
    m_Spare.pop_back();
    m_Gathered->offset = offset;
    m_Gathered->size = 0;
    return true;
}

void CNbdWriteBehind::SendGathered() {
    m_Connection.StartWrite(m_Gathered->offset, m_Gathered->bytes.GetPtr(), m_Gathered->size, m_Gathered->request);
    m_OnTheirWay.push_back(std::move(m_Gathered));
}

bool CNbdWriteBehind::FinishFirst() {
    Piece_t& piece = *m_OnTheirWay.front();
    const bool isDone = m_Connection.Finish(
        piece.request, [&] { m_Connection.StartWrite(piece.offset, piece.bytes.GetPtr(), piece.size, piece.request); });
    m_Spare.push_back(std::move(m_OnTheirWay.front()));
    m_OnTheirWay.pop_front();
    return isDone;
}
