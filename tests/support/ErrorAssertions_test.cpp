#include "tests/support/ErrorAssertions.h"

#include <gtest/gtest-spi.h>

namespace {

CZuError Made(int type, unsigned long moduleId, unsigned long code, const char* text) {
    CZuError error;
    error.SetError(type, moduleId, code, text, "disk.cpp", 1234);
    return error;
}

}  // namespace

TEST(ErrorAssertions, AcceptWhatTheyName) {
    EXPECT_OK(CZuError());
    ASSERT_OK(CZuError());
    EXPECT_REFUSED(Made(4, 1, 0, "no"), "no");
    EXPECT_CONDITION(Made(3, 1001, 2, nullptr), 3, 1001, 2);
    EXPECT_CONDITION_TEXT(Made(7, 3001, 1, "out"), 7, 3001, 1, "out");
    EXPECT_SYSTEM_ERROR(Made(1, 1, 2, nullptr), 2);
    EXPECT_FAILURE(Made(4, 1, 0, "no"));
}

TEST(ErrorAssertions, AFailureShowsTheWholeError) {
    EXPECT_NONFATAL_FAILURE(EXPECT_OK(Made(4, 1, 0, "no room")), "no room");
    EXPECT_NONFATAL_FAILURE(EXPECT_OK(Made(4, 1, 0, "no room")), "disk.cpp:1234");
    EXPECT_NONFATAL_FAILURE(EXPECT_REFUSED(CZuError(), "no room"), "no error");
}

TEST(ErrorAssertions, EachOfTheThreeNumbersAndTheTextCounts) {
    EXPECT_FALSE(ErrorIs("", Made(4, 1, 0, "a"), 3, 1, 0, "a"));
    EXPECT_FALSE(ErrorIs("", Made(4, 1, 0, "a"), 4, 2, 0, "a"));
    EXPECT_FALSE(ErrorIs("", Made(4, 1, 0, "a"), 4, 1, 1, "a"));
    EXPECT_FALSE(ErrorIs("", Made(4, 1, 0, "a"), 4, 1, 0, "A"));
    EXPECT_FALSE(ErrorIs("", Made(4, 1, 0, "a"), 4, 1, 0, nullptr));
    EXPECT_FALSE(ErrorIs("", Made(4, 1, 0, nullptr), 4, 1, 0, ""));
    EXPECT_FALSE(ErrorIs("", CZuError(), 0, 0, 0, nullptr));
    EXPECT_TRUE(ErrorIs("", Made(4, 1, 0, "a"), 4, 1, 0, "a"));
}
