#pragma once

#include <map>
#include <vector>

#include "agent/detail/SetLists.h"
#include "agent/detail/SetPartReader.h"

// Reads blocks at random. Which blocks a stream has, its part of runs tells, which is proved when it
// is first used. A set of version 1 has no such parts; its rows alone tell.
class CSetBlockFinder {
public:
    CSetBlockFinder(CSetDatabase& database, const SetLists_t& lists, CSetPartReader& parts)
        : m_Database(database), m_Lists(lists), m_Parts(parts) {}

    CZuError Read(const SetStream_t& stream, uint64_t number, CAutoMemory<char>& bytes, bool& isThere);

private:
    struct Runs_t {
        SetPart_t part;
        std::vector<uint64_t> firstOfPiece;  // the first block of each piece
    };

    CZuError IsListed(const SetStream_t& stream, uint64_t number, bool& isListed);
    CZuError FindRuns(const SetStream_t& stream, const Runs_t*& runs);
    CZuError ReadRuns(const SetStream_t& stream, Runs_t& runs);
    CZuError ReadRow(const SetStream_t& stream, uint64_t number, CAutoMemory<char>& bytes, bool& isThere);

    CSetDatabase& m_Database;
    const SetLists_t& m_Lists;
    CSetPartReader& m_Parts;
    CSetStatement m_SelectBlock;
    CBlockDecoder m_Decoder;
    std::map<int64_t, Runs_t> m_Runs;  // by stream
};
