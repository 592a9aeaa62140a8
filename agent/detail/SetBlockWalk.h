#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "agent/BackupSet.h"
#include "agent/detail/SetDatabase.h"

// Walks the blocks that a set has of a stream, in the order of their numbers, and proves at the end that they are all
// that were written.
class CSetBlockWalk {
public:
    explicit CSetBlockWalk(CSetDatabase& database) : m_Database(database) {}

    CZuError Begin(const SetStream_t& stream);

    // `block` is empty behind the last one, at each call. Its bytes live until the next call.
    CZuError Next(std::optional<SetBlock_t>& block);

private:
    CZuError Check(const SetBlock_t& block) const;
    CZuError End();

    CSetDatabase& m_Database;
    CSetStatement m_Rows;
    SetStream_t m_Stream;
    bool m_IsAtEnd = true;  // a finished query would begin anew
    uint64_t m_BlockCount = 0;
    uint64_t m_StoredBytes = 0;
    std::unique_ptr<CRunningDigest> m_Digest;
};
