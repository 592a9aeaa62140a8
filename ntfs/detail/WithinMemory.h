#pragma once

#include <cstdint>
#include <new>
#include <stdexcept>

#include "ntfs/NtfsResults.h"

// The most memory that one record, list or value may take. Only a volume that lies about holes asks for more.
constexpr uint64_t NtfsCeilingBytes = uint64_t{1} << 30U;

// Runs a step that may need more memory than there is.
template <typename Step> int NtfsWithinMemory(Step step) {
    try {
        return step();
    } catch (const std::bad_alloc&) {
        return NtfsOutOfMemory;
    } catch (const std::length_error&) {
        return NtfsOutOfMemory;
    }
}

// Passes a result on to the caller unless it is success.
#define NTFS_RETURN_IF_FAILED(expression)    \
    do {                                     \
        const int ntfsResult = (expression); \
        if (ntfsResult != NtfsOk)            \
            return ntfsResult;               \
    } while (false)
