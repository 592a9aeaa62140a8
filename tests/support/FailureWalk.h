#pragma once

#include <gtest/gtest.h>

#include <cerrno>

#include "foundation/ZuError.h"
#include "tests/support/FaultyFiles.h"

// Lets the calls of `op` fail one after the other, the n-th call in the n-th run, until a run gets
// through untouched. Each failure has to reach the caller as the system's own error. `operation()`
// starts afresh each time, and returns the error of what is tested. Returns the number of failures.
template <typename Operation> unsigned int WalkFailures(FaultOp op, Operation operation) {
    for (unsigned int failAt = 0;; ++failAt) {
        CFaultyFiles faulty(Fault_t{op, failAt, EIO});
        const CZuError error = operation();
        EXPECT_EQ(faulty.Fired(), error.IsErrorSet()) << "call " << failAt << ": " << error.ConvertToString();
        if (!faulty.Fired())
            return failAt;
        EXPECT_EQ(1U, error.GetErrorType()) << "call " << failAt << ": " << error.ConvertToString();
        EXPECT_EQ(static_cast<unsigned int>(EIO), error.GetErrorCode()) << "call " << failAt;
    }
}
