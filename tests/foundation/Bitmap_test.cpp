#include "foundation/detail/Bitmap.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tests/support/Bytes.h"

namespace {

TEST(Bitmap, TheHighBitOfEachByteComesFirst) {
    std::string bitmap(2, '\0');
    SetBit(bitmap.data(), 0);
    SetBit(bitmap.data(), 9);
    EXPECT_EQ(std::string("\x80\x40"), bitmap);
    const CByteView view(bitmap.data(), bitmap.size());
    for (uint64_t index = 0; index < 16; ++index)
        EXPECT_EQ(index == 0 || index == 9, HasBit(view, index)) << index;
}

TEST(Bitmap, ABitBehindTheEndIsClear) {
    const std::string bitmap(1, '\xFF');
    const CByteView view(bitmap.data(), bitmap.size());
    EXPECT_TRUE(HasBit(view, 7));
    EXPECT_FALSE(HasBit(view, 8));
    EXPECT_FALSE(HasBit(view, ~uint64_t{0}));
    EXPECT_EQ(4U, CountEqualBits(view, 4, 100));
    EXPECT_EQ(92U, CountEqualBits(view, 8, 92));
}

void ExpectCountedAsOneByOne(const std::string& bitmap) {
    const CByteView view(bitmap.data(), bitmap.size());
    const uint64_t bits = bitmap.size() * 8;
    for (uint64_t first = 0; first < bits; ++first) {
        for (const uint64_t most : {uint64_t{1}, uint64_t{7}, uint64_t{64}, bits - first}) {
            uint64_t expected = 1;
            while (expected < most && HasBit(view, first + expected) == HasBit(view, first))
                ++expected;
            ASSERT_EQ(expected, CountEqualBits(view, first, most)) << first << ", " << most;
        }
    }
}

TEST(Bitmap, EqualBitsAreCountedAsOneByOne) {
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::string bitmap = PatternedBytes(40, seed);
        bitmap.replace(5, 12, std::string(12, '\xFF'));
        bitmap.replace(20, 9, std::string(9, '\0'));
        ExpectCountedAsOneByOne(bitmap);
    }
}

// Equal bytes in number, up to one in which a single bit differs.
TEST(Bitmap, EqualBitsOfManyWordsAreCountedAsOneByOne) {
    for (const char whole : {'\0', '\xFF'}) {
        for (const size_t odd : {0U, 63U, 64U, 65U, 128U, 150U, 199U}) {
            SCOPED_TRACE(odd);
            std::string bitmap(200, whole);
            bitmap[odd] = static_cast<char>(bitmap[odd] ^ 0x10);
            ExpectCountedAsOneByOne(bitmap);
        }
    }
}

}  // namespace
