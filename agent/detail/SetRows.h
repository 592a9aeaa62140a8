#pragma once

#include <cstdint>

#include "agent/BlockCodec.h"
#include "agent/detail/SetDatabase.h"

// What rows of several tables have in common.

// Binds digest, encoding and data, from `firstIndex` on.
void BindEncoded(CSetStatement& statement, int firstIndex, const EncodedBlock_t& encoded);

// False where the column holds no digest.
bool ReadDigest(CSetStatement& row, int column, BlockDigest_t& digest);

// Reads digest, encoding and data, from `firstColumn` on. False where they can't be what a set holds.
bool ReadEncoded(CSetStatement& row, int firstColumn, EncodedBlock_t& encoded);

// False where the column isn't a whole number from 0 to `most`.
bool ReadUpTo(CSetStatement& row, int column, uint64_t most, uint64_t& number);
