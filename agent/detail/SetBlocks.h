#pragma once

#include <functional>

#include "agent/BackupSetReader.h"
#include "agent/detail/BlockBatch.h"

// Walks the blocks of a stream, decoded and proved, in the order of their numbers, with reading,
// decoding and consuming at the same time. `consume` may keep nothing of the batch block; its
// error ends the walk.
using ConsumeBlock_t = std::function<CZuError(BatchBlock_t&)>;

CZuError ForEachBlock(CBackupSetReader& set, const SetStream_t& stream, const ConsumeBlock_t& consume);
