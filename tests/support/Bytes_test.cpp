#include "tests/support/Bytes.h"

#include <gtest/gtest.h>

#include <set>

TEST(Bytes, PutGrowsTheTextWithZerosAndReplacesWhatIsThere) {
    std::string bytes = "abc";
    PutLe16(bytes, 1, 0x4142);
    EXPECT_EQ(bytes, "aBA");
    PutLe8(bytes, 4, 0x43);
    EXPECT_EQ(bytes, std::string("aBA\0C", 5));
}

TEST(Bytes, NumbersComeInTheOrderOfTheirName) {
    std::string bytes;
    PutLe32(bytes, 0, 0x01020304);
    PutBe32(bytes, 4, 0x01020304);
    PutLe64(bytes, 8, 0x1112131415161718);
    PutBe64(bytes, 16, 0x1112131415161718);
    PutBe16(bytes, 24, 0x0102);
    EXPECT_EQ(bytes, "\x04\x03\x02\x01\x01\x02\x03\x04\x18\x17\x16\x15\x14\x13\x12\x11"
                     "\x11\x12\x13\x14\x15\x16\x17\x18\x01\x02");
    EXPECT_EQ(LittleEndianAt(bytes, 8, 8), 0x1112131415161718U);
    EXPECT_EQ(LittleEndianAt(bytes, 1, 2), 0x0203U);
}

TEST(Bytes, PatternsAreTheSameForTheSameSeedAndRepeatNoSector) {
    const std::string pattern = PatternedBytes(64 * 512, 7);
    EXPECT_EQ(pattern, PatternedBytes(64 * 512, 7));
    EXPECT_NE(pattern, PatternedBytes(64 * 512, 8));
    EXPECT_EQ(PatternedBytes(10, 7), pattern.substr(0, 10));
    std::set<std::string> sectors;
    for (size_t at = 0; at < pattern.size(); at += 512)
        sectors.insert(pattern.substr(at, 512));
    EXPECT_EQ(sectors.size(), 64U);
}
