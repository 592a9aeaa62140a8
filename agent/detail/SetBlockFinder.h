#pragma once

#include "agent/detail/SetLists.h"
#include "agent/detail/SetRuns.h"

// Reads blocks at random. Which blocks a stream has, its part of runs tells, which is proved when it
// is first used. A set of version 1 has no such parts; its rows alone tell.
class CSetBlockFinder {
public:
    CSetBlockFinder(CSetDatabase& database, const SetLists_t& lists, CSetPartReader& parts)
        : m_Database(database), m_Lists(lists), m_Runs(database, lists, parts, BlocksPartPrefix) {}

    CZuError Read(const SetStream_t& stream, uint64_t number, CAutoMemory<char>& bytes, bool& isThere);

    // The same without reading it.
    CZuError Has(const SetStream_t& stream, uint64_t number, bool& isThere);

private:
    CZuError ReadRow(const SetStream_t& stream, uint64_t number, CAutoMemory<char>& bytes, bool& isThere);

    CSetDatabase& m_Database;
    const SetLists_t& m_Lists;
    CSetRuns m_Runs;
    CSetStatement m_SelectBlock;
    CBlockDecoder m_Decoder;
};
