#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "agent/detail/SetLists.h"
#include "agent/detail/SetPartReader.h"

// Tells which blocks a list of a stream's has: those of the set, or those that its base has. A stream's list is proved
// when it is first used.
class CSetRuns {
public:
    // `prefix` is that of the parts' names.
    CSetRuns(CSetDatabase& database, const SetLists_t& lists, CSetPartReader& parts, std::string prefix)
        : m_Database(database), m_Lists(lists), m_Parts(parts), m_Prefix(std::move(prefix)) {}

    CZuError Has(const SetStream_t& stream, uint64_t number, bool& isListed);

private:
    struct Runs_t {
        SetPart_t part;
        std::vector<uint64_t> firstOfPiece;  // the first block of each piece
    };

    CZuError FindRuns(const SetStream_t& stream, const Runs_t*& runs);
    CZuError ReadRuns(const SetStream_t& stream, Runs_t& runs);

    CSetDatabase& m_Database;
    const SetLists_t& m_Lists;
    CSetPartReader& m_Parts;
    const std::string m_Prefix;
    std::map<int64_t, Runs_t> m_Runs;  // by stream
};
