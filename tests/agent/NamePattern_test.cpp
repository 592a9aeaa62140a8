#include "agent/NamePattern.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(NamePattern, StandsForTheWholeOfAName) {
    const struct {
        const char* pattern;
        const char* name;
        bool isMatch;
    } rows[] = {
        {"letter.txt", "letter.txt", true},
        {"letter.txt", "letter.txt2", false},
        {"letter.txt", "a letter.txt", false},
        {"letter.txt", "LETTER.Txt", true},
        {"LETTER.TXT", "letter.txt", true},
        {"straße", "STRAßE", true},
        {"ÄRGER", "ärger", true},
        {"", "", true},
        {"", "a", false},
        {"a", "", false},
        {"*", "", true},
        {"*", "anything", true},
        {"**", "anything", true},
        {"*.txt", ".txt", true},
        {"*.txt", "a.txt.txt", true},
        {"*.txt", "a.txt.tx", false},
        {"a*", "a", true},
        {"a*", "ba", false},
        {"a*b", "ab", true},
        {"a*b", "a b c b", true},
        {"a*b", "a b c", false},
        {"a*b*c", "axbxbxc", true},
        {"a*b*c", "acb", false},
        {"*ab*", "aab", true},
        {"*abab*c", "ababababc", true},
        {"a*?", "a", false},
        {"a*?", "ab", true},
        {"?", "a", true},
        {"?", "ä", true},
        {"?", "", false},
        {"?", "ab", false},
        {"??", "\xF0\x9F\x98\x80", true},  // two characters of 16 bits
        {"?", "\xF0\x9F\x98\x80", false},
        {"a?c", "abc", true},
        {"a?c", "ac", false},
        {"[a]", "a", false},
        {"[a]", "[A]", true},
        {"a.b", "axb", false},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.isMatch, CNamePattern(row.pattern).Matches(row.name)) << row.pattern << " and " << row.name;
}

// A pattern of many stars tries no more than each place of the name for each star.
TEST(NamePattern, TakesNoLongerForManyStars) {
    std::string pattern;
    for (int star = 0; star < 100; ++star)
        pattern += "*a";
    EXPECT_FALSE(CNamePattern(pattern + "b").Matches(std::string(255, 'a')));
    EXPECT_TRUE(CNamePattern(pattern).Matches(std::string(255, 'a')));
    EXPECT_FALSE(CNamePattern(pattern).Matches(std::string(99, 'a')));
}

}  // namespace
