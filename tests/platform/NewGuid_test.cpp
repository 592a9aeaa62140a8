#include "platform/NewGuid.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

TEST(NewGuid, NoTwoAreAlike) {
    std::set<std::string> made;
    for (int turn = 0; turn < 1000; ++turn) {
        GUID guid{};
        ASSERT_EQ(0, MakeGuid(guid));
        std::string bytes(sizeof(guid), '\0');
        std::memcpy(bytes.data(), &guid, sizeof(guid));
        EXPECT_TRUE(made.insert(bytes).second) << turn;
    }
}

// Random ones, of the usual variant: all other bits change.
TEST(NewGuid, EachTellsItsVersionAndVariant) {
    uint32_t everSet = 0;
    uint32_t everClear = 0;
    for (int turn = 0; turn < 200; ++turn) {
        GUID guid{};
        ASSERT_EQ(0, MakeGuid(guid));
        EXPECT_EQ(0x4000U, guid.Data3 & 0xF000U);
        EXPECT_EQ(0x80U, guid.Data4[0] & 0xC0U);
        everSet |= guid.Data1;
        everClear |= ~static_cast<uint32_t>(guid.Data1);
    }
    EXPECT_EQ(0xFFFFFFFF, everSet);
    EXPECT_EQ(0xFFFFFFFF, everClear);
}
