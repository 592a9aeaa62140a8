#include "agent/detail/SetRuns.h"

#include <algorithm>
#include <cstring>

#include "agent/detail/BlockRuns.h"
#include "agent/detail/SetSchema.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

BlockRun_t RunAt(const CAutoMemory<char>& piece, size_t index) {
    BlockRun_t run{};
    std::memcpy(&run, piece.GetPtr() + index * sizeof(run), sizeof(run));
    return run;
}

size_t RunCount(const CAutoMemory<char>& piece) {
    return piece.GetSize() / sizeof(BlockRun_t);
}

// Runs of one piece are in order.
bool HasBlock(const CAutoMemory<char>& piece, uint64_t number) {
    size_t first = 0;
    size_t end = RunCount(piece);
    while (first < end) {  // each round halves what is between them
        const size_t middle = first + (end - first) / 2;
        const BlockRun_t run = RunAt(piece, middle);
        if (number < run.first)
            end = middle;
        else if (number - run.first < run.count)
            return true;
        else
            first = middle + 1;
    }
    return false;
}

}  // namespace

CZuError CSetRuns::Has(const SetStream_t& stream, uint64_t number, bool& isListed) {
    const Runs_t* runs = nullptr;
    ZU_RETURN_IF_ERROR(FindRuns(stream, runs));
    const auto behind = std::upper_bound(runs->firstOfPiece.begin(), runs->firstOfPiece.end(), number);
    if (behind == runs->firstOfPiece.begin())
        return CZuError();
    const CAutoMemory<char>* piece = nullptr;
    ZU_RETURN_IF_ERROR(
        m_Parts.ReadPiece(runs->part, static_cast<uint64_t>(behind - runs->firstOfPiece.begin()) - 1, piece));
    isListed = HasBlock(*piece, number);
    return CZuError();
}

CZuError CSetRuns::FindRuns(const SetStream_t& stream, const Runs_t*& runs) {
    const auto known = m_Runs.find(stream.id);
    if (known != m_Runs.end()) {
        runs = &known->second;
        return CZuError();
    }
    Runs_t found;
    ZU_RETURN_IF_ERROR(ReadRuns(stream, found));
    runs = &(m_Runs[stream.id] = std::move(found));
    return CZuError();
}

CZuError CSetRuns::ReadRuns(const SetStream_t& stream, Runs_t& runs) {
    const SetPart_t* const part = FindPartIn(m_Lists.parts, m_Prefix + std::to_string(stream.id));
    if (part == nullptr || part->bytes % sizeof(BlockRun_t) != 0)
        return m_Database.Damaged("the list of the blocks of " + stream.fileName);
    runs.part = *part;
    uint64_t end = 0;
    for (uint64_t number = 0; number * PartPieceBytes < part->bytes; ++number) {
        const CAutoMemory<char>* piece = nullptr;
        ZU_RETURN_IF_ERROR(m_Parts.ReadPiece(*part, number, piece));
        runs.firstOfPiece.push_back(RunAt(*piece, 0).first);
        for (size_t index = 0; index < RunCount(*piece); ++index) {
            const BlockRun_t run = RunAt(*piece, index);
            if (run.first < end || run.first >= BlockNumberEnd || run.count == 0 ||
                run.count > BlockNumberEnd - run.first)
                return m_Database.Damaged("the list of the blocks of " + stream.fileName);
            end = run.first + run.count;
        }
    }
    return CZuError();
}
