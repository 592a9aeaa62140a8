#include "agent/detail/BlockRuns.h"

#include "foundation/detail/ErrorHandling.h"

CZuError CBlockRuns::Add(uint64_t number) {
    if (m_Count != 0 && number == m_First + m_Count) {
        ++m_Count;
        return CZuError();
    }
    ZU_RETURN_IF_ERROR(EndRun());
    m_First = number;
    m_Count = 1;
    return CZuError();
}

CZuError CBlockRuns::Finish() {
    ZU_RETURN_IF_ERROR(EndRun());
    return m_Piece.empty() ? CZuError() : m_Take(m_Piece);
}

CZuError CBlockRuns::EndRun() {
    if (m_Count == 0)
        return CZuError();
    BlockRun_t run{};
    run.first = m_First;
    run.count = m_Count;
    m_Piece.append(reinterpret_cast<const char*>(&run), sizeof(run));
    if (m_Piece.size() < PartPieceBytes)
        return CZuError();
    ZU_RETURN_IF_ERROR(m_Take(m_Piece));
    m_Piece.clear();
    return CZuError();
}
