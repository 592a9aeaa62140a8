#pragma once

#include <cstdint>
#include <list>

#include "agent/BackupSetReader.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"

// Decoded blocks of a set, the ones used last, so that neighbours in a block are read from the set once.
class CSetBlockCache {
public:
    // `set` stays the caller's and outlives this.
    explicit CSetBlockCache(CBackupSetReader& set) : m_Set(set) {}

    // `bytes` is the block, null where the stream has none; it lives until the next call.
    CZuError Get(const SetStream_t& stream, uint64_t number, const CAutoMemory<char>*& bytes);

private:
    struct Block_t {
        int64_t stream = 0;
        uint64_t number = 0;
        bool isThere = false;
        CAutoMemory<char> bytes;
    };

    Block_t& PlaceFor(const SetStream_t& stream);

    CBackupSetReader& m_Set;
    std::list<Block_t> m_Blocks;  // the one used last in front
    uint64_t m_HeldBytes = 0;
};
