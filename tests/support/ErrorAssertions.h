#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "foundation/ZuError.h"

// What a test expects of a `CZuError`. A failure prints the whole error with its places.

testing::AssertionResult ErrorIsNotSet(const char* expression, const CZuError& error);

// Compares all three numbers and the text; a null `text` stands for an error without one.
testing::AssertionResult ErrorIs(const char* expression, const CZuError& error, uint32_t type, uint32_t moduleId,
                                 uint32_t code, const char* text);

// It succeeds.
#define EXPECT_OK(expression) EXPECT_TRUE(ErrorIsNotSet(#expression, expression))
#define ASSERT_OK(expression) ASSERT_TRUE(ErrorIsNotSet(#expression, expression))

// It fails with exactly this text for people: type 4, module 1, code 0.
#define EXPECT_REFUSED(expression, text) EXPECT_TRUE(ErrorIs(#expression, expression, 4, 1, 0, text))
#define ASSERT_REFUSED(expression, text) ASSERT_TRUE(ErrorIs(#expression, expression, 4, 1, 0, text))

// It fails with this condition and without a text, as the conditions of type 3 do.
#define EXPECT_CONDITION(expression, type, moduleId, code) \
    EXPECT_TRUE(ErrorIs(#expression, expression, type, moduleId, code, nullptr))
#define ASSERT_CONDITION(expression, type, moduleId, code) \
    ASSERT_TRUE(ErrorIs(#expression, expression, type, moduleId, code, nullptr))

// It fails with this condition and exactly this text, as the conditions of type 7 do.
#define EXPECT_CONDITION_TEXT(expression, type, moduleId, code, text) \
    EXPECT_TRUE(ErrorIs(#expression, expression, type, moduleId, code, text))
#define ASSERT_CONDITION_TEXT(expression, type, moduleId, code, text) \
    ASSERT_TRUE(ErrorIs(#expression, expression, type, moduleId, code, text))

// It fails with the system's own error `number`: type 1, module 1, no text.
#define EXPECT_SYSTEM_ERROR(expression, number) \
    EXPECT_TRUE(ErrorIs(#expression, expression, 1, 1, static_cast<uint32_t>(number), nullptr))
#define ASSERT_SYSTEM_ERROR(expression, number) \
    ASSERT_TRUE(ErrorIs(#expression, expression, 1, 1, static_cast<uint32_t>(number), nullptr))

// It fails, however that is worded. For walks over every failure of the machine.
#define EXPECT_FAILURE(expression) EXPECT_TRUE((expression).IsErrorSet())
#define ASSERT_FAILURE(expression) ASSERT_TRUE((expression).IsErrorSet())
