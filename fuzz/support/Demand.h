#pragma once

#include <cstdio>
#include <cstdlib>

#include "foundation/ZuError.h"

// Ends the run where a property doesn't hold, so that the fuzzer keeps the input that showed it.
inline void Demand(bool holds, const char* property) {
    if (holds)
        return;
    std::fprintf(stderr, "Doesn't hold: %s\n", property);
    std::abort();
}

inline void DemandSuccess(const CZuError& error, const char* property) {
    if (error.IsErrorSet())
        std::fprintf(stderr, "%s\n", error.ConvertToString());
    Demand(!error.IsErrorSet(), property);
}

// For outcomes that an input may choose freely: only a crash would be wrong.
inline void EitherWay(const CZuError& /*error*/) {}
