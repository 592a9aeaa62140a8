#include "foundation/detail/UtcTime.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>

namespace {

std::string ByTheCLibrary(std::time_t time) {
    char text[32] = {};
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&time));
    return text;
}

TEST(UtcTime, TellsWhatTheCLibraryTells) {
    const std::time_t before = std::time(nullptr);
    const std::string text = UtcTimeText();
    const std::time_t after = std::time(nullptr);
    EXPECT_GE(text, ByTheCLibrary(before));
    EXPECT_LE(text, ByTheCLibrary(after));
    EXPECT_EQ(text.size(), 20u);
}

}  // namespace
