#include "foundation/ByteOrder.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

template <typename Number> Number FromBytes(const char* bytes) {
    LittleEndian_t<Number> number;
    std::memcpy(&number, bytes, sizeof(number));
    return number;
}

template <typename Number> Number FromBigEndianBytes(const char* bytes) {
    BigEndian_t<Number> number;
    std::memcpy(&number, bytes, sizeof(number));
    return number;
}

}  // namespace

TEST(ByteOrder, TheFirstByteIsTheLeastSignificant) {
    EXPECT_EQ(FromBytes<uint8_t>("\xF1"), 0xF1U);
    EXPECT_EQ(FromBytes<uint16_t>("\x02\xF1"), 0xF102U);
    EXPECT_EQ(FromBytes<uint32_t>("\x04\x03\x02\xF1"), 0xF1020304U);
    EXPECT_EQ(FromBytes<uint64_t>("\x08\x07\x06\x05\x04\x03\x02\xF1"), 0xF102030405060708U);
}

TEST(ByteOrder, WhatIsAssignedIsReadBack) {
    Le16_t two{};
    Le32_t four{};
    Le64_t eight{};
    for (const uint64_t value : {uint64_t{0}, uint64_t{1}, uint64_t{0x8081828384858687}, ~uint64_t{0}}) {
        two = static_cast<uint16_t>(value);
        four = static_cast<uint32_t>(value);
        eight = value;
        EXPECT_EQ(two, static_cast<uint16_t>(value));
        EXPECT_EQ(four, static_cast<uint32_t>(value));
        EXPECT_EQ(eight, value);
    }
    four = 0x01020304;
    EXPECT_EQ(std::memcmp(&four, "\x04\x03\x02\x01", 4), 0);
}

TEST(ByteOrder, TheFirstByteOfTheOtherOrderIsTheMostSignificant) {
    EXPECT_EQ(FromBigEndianBytes<uint16_t>("\xF1\x02"), 0xF102U);
    EXPECT_EQ(FromBigEndianBytes<uint32_t>("\xF1\x02\x03\x04"), 0xF1020304U);
    EXPECT_EQ(FromBigEndianBytes<uint64_t>("\xF1\x02\x03\x04\x05\x06\x07\x08"), 0xF102030405060708U);
}

TEST(ByteOrder, WhatIsAssignedInTheOtherOrderIsReadBack) {
    Be16_t two{};
    Be32_t four{};
    Be64_t eight{};
    for (const uint64_t value : {uint64_t{0}, uint64_t{1}, uint64_t{0x8081828384858687}, ~uint64_t{0}}) {
        two = static_cast<uint16_t>(value);
        four = static_cast<uint32_t>(value);
        eight = value;
        EXPECT_EQ(two, static_cast<uint16_t>(value));
        EXPECT_EQ(four, static_cast<uint32_t>(value));
        EXPECT_EQ(eight, value);
    }
    two = 0x0102;
    four = 0x01020304;
    eight = 0x0102030405060708;
    EXPECT_EQ(std::memcmp(&two, "\x01\x02", 2), 0);
    EXPECT_EQ(std::memcmp(&four, "\x01\x02\x03\x04", 4), 0);
    EXPECT_EQ(std::memcmp(&eight, "\x01\x02\x03\x04\x05\x06\x07\x08", 8), 0);
}

TEST(ByteOrder, NumbersOfTheOtherOrderLieInAStructureWithoutGapsToo) {
    struct Structure_t {
        U8_t byte;
        Be16_t two;
        Be64_t eight;
        Be32_t four;
    };
    static_assert(sizeof(Structure_t) == 15 && alignof(Structure_t) == 1);
    static_assert(offsetof(Structure_t, eight) == 3 && offsetof(Structure_t, four) == 11);
}

TEST(ByteOrder, NumbersLieInAStructureWithoutGaps) {
    struct Structure_t {
        U8_t byte;
        Le16_t two;
        Le64_t eight;
        Le32_t four;
    };
    static_assert(sizeof(Structure_t) == 15 && alignof(Structure_t) == 1);
    static_assert(offsetof(Structure_t, eight) == 3 && offsetof(Structure_t, four) == 11);
}
