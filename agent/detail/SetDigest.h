#pragma once

#include "agent/BackupSet.h"
#include "agent/BlockCodec.h"
#include "agent/detail/SetLists.h"

// What the digests of a set run over, for its writer and its readers alike.

inline void AddToDigest(CRunningDigest& digest, const SetBlock_t& block) {
    digest.AddNumber(block.number);
    digest.AddNumber(block.sectors);
    digest.Add(block.encoded.digest.data(), block.encoded.digest.size());
}

// Over all lists of the set, as its version has them.
BlockDigest_t DigestOfSet(const SetLists_t& lists);

// The sum modulo 2^128 of digests, for which their order doesn't matter.
class CDigestSum {
public:
    void Add(const BlockDigest_t& digest);
    BlockDigest_t Result() const;

private:
    uint64_t m_High = 0;
    uint64_t m_Low = 0;
};

// The sum of the kinds that hold for the entry, as the set has it.
uint8_t EntryKindOf(const SetEntry_t& entry);

// The name isn't longer than a set takes.
BlockDigest_t DigestOfEntry(const SetEntry_t& entry);
