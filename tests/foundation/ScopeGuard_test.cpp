#include "foundation/detail/ScopeGuard.h"

#include <gtest/gtest.h>

TEST(ScopeGuard, RunsItsActionOnceAtTheEnd) {
    int runs = 0;
    {
        const ScopeGuard guard([&runs] { ++runs; });
        EXPECT_EQ(runs, 0);
    }
    EXPECT_EQ(runs, 1);
}

TEST(ScopeGuard, DoesNothingOnceDismissed) {
    int runs = 0;
    {
        ScopeGuard guard([&runs] { ++runs; });
        guard.Dismiss();
    }
    EXPECT_EQ(runs, 0);
}
