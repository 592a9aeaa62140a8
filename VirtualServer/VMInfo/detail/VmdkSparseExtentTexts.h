#pragma once

#include "foundation/detail/ErrorHandling.h"

// What the reading and the writing half of `CVmdkSparseExtentReader` both say.

constexpr Condition_t VmdkSparseEndOfExtent{ErrorType::Condition, 1001, 1, nullptr};
constexpr Condition_t VmdkSparseSectorNotFound{ErrorType::Condition, 1001, 2, nullptr};

constexpr char VmdkSparseNoOpenFile[] = "Don't have a valid opened extent file";
constexpr char VmdkSparseNoData[] = "Data pointer is null";
constexpr char VmdkHeaderIsCorrupted[] = "VMDK file header is corrupted. Cannot continue further";
