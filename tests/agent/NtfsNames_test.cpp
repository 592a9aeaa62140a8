#include "agent/detail/NtfsNames.h"

#include <gtest/gtest.h>

#include <string>

namespace {

const std::u16string HighHalf(1, static_cast<char16_t>(0xD83D));
const std::u16string LowHalf(1, static_cast<char16_t>(0xDE00));
constexpr char HighHalfText[] = "\xED\xA0\xBD";
constexpr char LowHalfText[] = "\xED\xB8\x80";

TEST(NtfsNames, HaveATextThatLeadsBack) {
    const struct {
        const char* what;
        std::u16string name;
        std::string text;
    } rows[] = {
        {"nothing", u"", ""},
        {"letters", u"name.txt", "name.txt"},
        {"two bytes", u"\u00E4\u07FF", "\xC3\xA4\xDF\xBF"},
        {"three bytes", u"\u0800\uFFFF", "\xE0\xA0\x80\xEF\xBF\xBF"},
        {"four bytes", u"\U00010000\U0010FFFF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        {"a zero", std::u16string(u"a\0b", 3), std::string("a\0b", 3)},
        {"half a pair", HighHalf, HighHalfText},
        {"the other half", LowHalf, LowHalfText},
        {"halves in the wrong order", LowHalf + HighHalf, std::string(LowHalfText) + HighHalfText},
        {"a half in front of a pair", HighHalf + HighHalf + LowHalf, std::string(HighHalfText) + "\xF0\x9F\x98\x80"},
        {"a half at the end", u"a" + HighHalf, std::string("a") + HighHalfText},
        {"a half in front of a letter", HighHalf + u"a", std::string(HighHalfText) + "a"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(row.text, TextOfNtfsName(row.name));
        EXPECT_EQ(row.name, NtfsNameOfText(row.text));
    }
}

TEST(NtfsNames, EveryUnitAloneHasATextOfItsOwn) {
    for (uint32_t unit = 0; unit < 0x10000; ++unit) {
        const std::u16string name(1, static_cast<char16_t>(unit));
        ASSERT_EQ(name, NtfsNameOfText(TextOfNtfsName(name))) << unit;
    }
}

// Such a byte stands for U+FFFD alone, and what follows for itself.
TEST(NtfsNames, OfATextThatIsNoUtf8TheRestIsKept) {
    const struct {
        const char* what;
        std::string text;
        std::u16string name;
    } rows[] = {
        {"a byte that begins none", "a\x80z", u"a\uFFFDz"},
        {"the end of the text", "a\xE4\xB8", u"a\uFFFD\uFFFD"},
        {"a letter too soon", "\xC3z", u"\uFFFDz"},
        {"the largest byte", "\xFF", u"\uFFFD"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(row.name, NtfsNameOfText(row.text));
    }
}

TEST(NtfsNames, AreReadAsTheyLieOnTheDisk) {
    EXPECT_EQ(u"ab\u0416", NtfsNameAt("a\0b\0\x16\x04zz", 3));
    EXPECT_EQ(u"", NtfsNameAt("", 0));
}

TEST(NtfsNames, AreTheSameButForTheirCase) {
    EXPECT_TRUE(IsSameNtfsName(u"Name \u00C4\u0436", u"nAME \u00E4\u0416"));
    EXPECT_FALSE(IsSameNtfsName(u"name", u"names"));
    EXPECT_FALSE(IsSameNtfsName(u"name", u"mame"));
    EXPECT_TRUE(IsSameNtfsName(u"", u""));
    EXPECT_TRUE(IsSameNtfsName(HighHalf, HighHalf));
    EXPECT_FALSE(IsSameNtfsName(HighHalf, LowHalf));
}

}  // namespace
