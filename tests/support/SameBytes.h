#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>

// Compares long bytes and, where they differ, tells the first place and the sizes, not all bytes.
inline testing::AssertionResult AreSameBytes(std::string_view expected, std::string_view actual) {
    if (expected == actual)
        return testing::AssertionSuccess();
    const auto differing = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    return testing::AssertionFailure() << "expected " << expected.size() << " bytes, got " << actual.size()
                                       << "; they differ from byte " << differing.first - expected.begin() << " on";
}

#define EXPECT_SAME_BYTES(expected, actual) EXPECT_TRUE(AreSameBytes(expected, actual))
