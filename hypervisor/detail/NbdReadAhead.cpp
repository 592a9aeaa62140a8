#include "hypervisor/detail/NbdReadAhead.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

// Together as much as a fast network has on its way, and no more: it is used while it is in the processor's caches.
constexpr uint32_t ReadAheadBytes = 512U << 10U;
constexpr size_t MostPieces = 8;
constexpr uint64_t NoOffset = ~uint64_t{0};  // behind every piece

}  // namespace

void CNbdReadAhead::Expect(std::vector<NbdRange_t> ranges) {
    m_Expected = std::move(ranges);
    m_NextExpected = 0;
    m_HasExpectation = true;
}

bool CNbdReadAhead::Read(uint64_t offset, char* buffer, uint32_t size) {
    constexpr unsigned enoughToReadOn = 2;
    const bool goesOn = offset >= m_End;
    m_ForwardReads = goesOn ? m_ForwardReads + 1 : 0;
    m_End = offset + size;
    if (!goesOn && !DropUpTo(NoOffset))
        return false;
    if (m_ForwardReads < enoughToReadOn)
        return m_Connection.Read(offset, buffer, size);
    for (uint32_t done = 0; done < size;) {
        const uint64_t at = offset + done;
        if (!DropUpTo(at))
            return false;
        FillUp(at);
        if (m_Pieces.empty() || m_Pieces.front()->offset > at)  // nobody expected it
            return m_Connection.Read(at, buffer + done, size - done);
        Piece_t& piece = *m_Pieces.front();
        if (!Finish(piece)) {
            PutAwayFirst();  // its request is over: the next read asks anew
            return false;
        }
        const auto step = static_cast<uint32_t>(std::min<uint64_t>(size - done, piece.End() - at));
        std::memcpy(buffer + done, piece.bytes.GetPtr() + (at - piece.offset), step);
        done += step;
    }
    return true;
}

// A request that is on its way has to end first, with its connection at the latest: it writes into the piece. What it
// brings doesn't matter any more.
bool CNbdReadAhead::DropUpTo(uint64_t offset) {
    while (!m_Pieces.empty() && m_Pieces.front()->End() <= offset) {
        Piece_t& piece = *m_Pieces.front();
        if (!piece.isThere && !m_Connection.LetGo(piece.request))
            return false;
        PutAwayFirst();
    }
    return true;
}

void CNbdReadAhead::PutAwayFirst() {
    m_Spare.push_back(std::move(m_Pieces.front()));
    m_Pieces.pop_front();
}

void CNbdReadAhead::FillUp(uint64_t from) {
    uint64_t next = m_Pieces.empty() ? from : m_Pieces.back()->End();
    while (m_Pieces.size() < MostPieces && FindNext(next, next) && Start(next))
        next = m_Pieces.back()->End();
}

// The first place from `from` on that will be read, where a piece may begin.
bool CNbdReadAhead::FindNext(uint64_t from, uint64_t& offset) {
    offset = from;
    if (!m_HasExpectation)
        return from < m_Connection.SizeBytes();
    if (m_NextExpected != 0 && m_Expected[m_NextExpected - 1].end > from)
        m_NextExpected = 0;
    while (m_NextExpected < m_Expected.size() && m_Expected[m_NextExpected].end <= from)
        ++m_NextExpected;
    if (m_NextExpected == m_Expected.size())
        return false;
    const uint64_t start = m_Expected[m_NextExpected].start / ReadAheadBytes * ReadAheadBytes;
    offset = std::max(from, start);
    return offset < m_Connection.SizeBytes();
}

// Pieces end at multiples of their size, so that they begin there, too.
bool CNbdReadAhead::Start(uint64_t offset) {
    std::unique_ptr<Piece_t> piece;
    if (!m_Spare.empty()) {
        piece = std::move(m_Spare.back());
        m_Spare.pop_back();
    } else {
        piece = std::make_unique<Piece_t>();
    }
    const uint64_t end = std::min((offset / ReadAheadBytes + 1) * ReadAheadBytes, m_Connection.SizeBytes());
    piece->offset = offset;
    piece->size = static_cast<uint32_t>(end - offset);
    piece->isThere = false;
    if (piece->bytes.Alloc(piece->size) == nullptr)
        return false;
    m_Connection.StartRead(piece->offset, piece->bytes.GetPtr(), piece->size, piece->request);
    m_Pieces.push_back(std::move(piece));
    return true;
}

bool CNbdReadAhead::Finish(Piece_t& piece) {
    if (!piece.isThere)
        piece.isThere = m_Connection.Finish(piece.request, [&] {
            m_Connection.StartRead(piece.offset, piece.bytes.GetPtr(), piece.size, piece.request);
        });
    return piece.isThere;
}
