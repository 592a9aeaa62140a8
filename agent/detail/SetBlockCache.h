#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <utility>

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
    using Key_t = std::pair<int64_t, uint64_t>;  // stream and number

    struct Block_t {
        Key_t key;
        bool isThere = false;
        CAutoMemory<char> bytes;
    };

    Block_t& PlaceFor(const SetStream_t& stream);

    CBackupSetReader& m_Set;
    std::list<Block_t> m_Blocks;  // the one used last in front
    std::map<Key_t, std::list<Block_t>::iterator> m_Places;
    uint64_t m_HeldBytes = 0;
};
