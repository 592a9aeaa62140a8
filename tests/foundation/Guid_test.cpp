#include "foundation/Guid.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

TEST(Guid, IsA32BitFieldTwo16BitFieldsAndEightBytes) {
    static_assert(sizeof(GUID) == 16);
    static_assert(sizeof(GUID::Data1) == 4 && offsetof(GUID, Data1) == 0);
    static_assert(sizeof(GUID::Data2) == 2 && offsetof(GUID, Data2) == 4);
    static_assert(sizeof(GUID::Data3) == 2 && offsetof(GUID, Data3) == 6);
    static_assert(sizeof(GUID::Data4) == 8 && offsetof(GUID, Data4) == 8);
    static_assert(std::is_trivially_copyable_v<GUID>);
}

TEST(Guid, TwoAreEqualWhenAllFieldsAre) {
    const GUID guid{1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
    EXPECT_TRUE(guid == (GUID{1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}}));
    EXPECT_FALSE(guid == (GUID{0, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}}));
    EXPECT_FALSE(guid == (GUID{1, 0, 3, {4, 5, 6, 7, 8, 9, 10, 11}}));
    EXPECT_FALSE(guid == (GUID{1, 2, 0, {4, 5, 6, 7, 8, 9, 10, 11}}));
    EXPECT_FALSE(guid == (GUID{1, 2, 3, {0, 5, 6, 7, 8, 9, 10, 11}}));
    EXPECT_FALSE(guid == (GUID{1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 0}}));
}
