#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "agent/detail/SetSchema.h"
#include "foundation/ByteOrder.h"
#include "foundation/ZuError.h"

// A run of blocks, as the part that lists a stream's blocks has it.
struct BlockRun_t {
    Le64_t first;
    Le64_t count;
};
static_assert(sizeof(BlockRun_t) == 16 && PartPieceBytes % sizeof(BlockRun_t) == 0);

// Gathers the numbers of a stream's blocks as runs, in pieces of a part.
class CBlockRuns {
public:
    using TakePiece_t = std::function<CZuError(const std::string&)>;

    explicit CBlockRuns(TakePiece_t take) : m_Take(std::move(take)) {}

    // Whether `number` is behind all those that were added.
    bool IsBehind(uint64_t number) const { return m_Count == 0 || number >= m_First + m_Count; }

    // `number` is behind all others.
    CZuError Add(uint64_t number);

    // Hands over what is left.
    CZuError Finish();

private:
    CZuError EndRun();

    const TakePiece_t m_Take;
    uint64_t m_First = 0;
    uint64_t m_Count = 0;
    std::string m_Piece;
};
