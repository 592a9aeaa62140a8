#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "agent/ErrorText.h"
#include "foundation/ZuError.h"

// It fails, and the words for people hold each of these texts. What else they say is free to change.
inline testing::AssertionResult FailsSaying(const CZuError& error, std::initializer_list<std::string> texts) {
    if (!error.IsErrorSet())
        return testing::AssertionFailure() << "it succeeded";
    const std::string words = DescribeError(error);
    for (const std::string& text : texts) {
        if (words.find(text) == std::string::npos)
            return testing::AssertionFailure() << "\"" << text << "\" isn't in: " << words;
    }
    return testing::AssertionSuccess();
}

#define EXPECT_FAILS_SAYING(expression, ...) EXPECT_TRUE(FailsSaying(expression, {__VA_ARGS__}))
#define ASSERT_FAILS_SAYING(expression, ...) ASSERT_TRUE(FailsSaying(expression, {__VA_ARGS__}))
