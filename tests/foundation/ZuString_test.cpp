#include "foundation/ZuString.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace {

constexpr char Quote = 34;
constexpr char Escape = 92;

struct TokenRow_t {
    const char* name;
    const char* text;
    std::vector<std::string> tokens;
};

std::vector<std::string> Tokens(const CZuString& text, char quote, char escape, char separator) {
    std::vector<CZuString> cut{"left from before"};
    text.Tokenize(cut, quote, quote, escape, separator, false);
    return {cut.begin(), cut.end()};
}

void ExpectTokens(const std::vector<TokenRow_t>& rows, char quote, char escape, char separator) {
    for (const TokenRow_t& row : rows)
        EXPECT_EQ(Tokens(row.text, quote, escape, separator), row.tokens) << row.name;
}

std::string Text(const CZuString& text) {
    return text.c_str();
}

}  // namespace

TEST(ZuString, IsEmptyAtFirst) {
    const CZuString text;
    EXPECT_TRUE(text.IsEmpty());
    EXPECT_EQ(text.Length(), 0U);
    EXPECT_STREQ(text.c_str(), "");
}

TEST(ZuString, IsMadeFromTexts) {
    const CZuString text("abc");
    EXPECT_FALSE(text.IsEmpty());
    EXPECT_EQ(text.Length(), 3U);
    EXPECT_STREQ(text.c_str(), "abc");
    const char* const converted = text;
    EXPECT_STREQ(converted, "abc");
    EXPECT_STREQ(CZuString(text).c_str(), "abc");
    EXPECT_TRUE(CZuString(static_cast<const char*>(nullptr)).IsEmpty());
}

TEST(ZuString, ShowsNumbersInDecimal) {
    EXPECT_EQ(Text(CZuString(std::numeric_limits<uint16_t>::max())), "65535");
    EXPECT_EQ(Text(CZuString(uint16_t{0})), "0");
    EXPECT_EQ(Text(CZuString(std::numeric_limits<int32_t>::min())), "-2147483648");
    EXPECT_EQ(Text(CZuString(std::numeric_limits<int32_t>::max())), "2147483647");
    EXPECT_EQ(Text(CZuString(std::numeric_limits<uint32_t>::max())), "4294967295");
    EXPECT_EQ(Text(CZuString(std::numeric_limits<int64_t>::min())), "-9223372036854775808");
    EXPECT_EQ(Text(CZuString(std::numeric_limits<int64_t>::max())), "9223372036854775807");
    EXPECT_EQ(Text(CZuString(std::numeric_limits<uint64_t>::max())), "18446744073709551615");
    EXPECT_EQ(Text(CZuString(uint64_t{0})), "0");
    EXPECT_EQ(Text(CZuString(-1L)), "-1");
    EXPECT_EQ(Text(CZuString(7UL)), "7");
}

TEST(ZuString, FormatTakesZeroToFiveArguments) {
    EXPECT_EQ(Text(CZuString::Format("as it stands")), "as it stands");
    EXPECT_EQ(Text(CZuString::Format("{1}", "a")), "a");
    EXPECT_EQ(Text(CZuString::Format("{1}{2}", "a", "b")), "ab");
    EXPECT_EQ(Text(CZuString::Format("{1}{2}{3}", "a", "b", "c")), "abc");
    EXPECT_EQ(Text(CZuString::Format("{1}{2}{3}{4}", "a", "b", "c", "d")), "abcd");
    EXPECT_EQ(Text(CZuString::Format("{1}{2}{3}{4}{5}", "a", "b", "c", "d", "e")), "abcde");
}

TEST(ZuString, FormatPutsEachArgumentWhereItsNumberStands) {
    const CZuString path("disk.vmdk");
    EXPECT_EQ(Text(CZuString::Format("File size {1} is not a multiple of sector size {2}", uint64_t{513}, 512)),
              "File size 513 is not a multiple of sector size 512");
    EXPECT_EQ(Text(CZuString::Format("{3} {1} {2}", "a", "b", "c")), "c a b");
    EXPECT_EQ(Text(CZuString::Format("{2} {2}-{2}", "a", "b")), "b b-b");
    EXPECT_EQ(Text(CZuString::Format("{1}", path)), "disk.vmdk");
    EXPECT_EQ(Text(CZuString::Format("<{1}>", "")), "<>");
    EXPECT_EQ(Text(CZuString::Format("{1} {2}", int64_t{-5}, uint16_t{7})), "-5 7");
    EXPECT_EQ(Text(CZuString::Format(CZuString("{1}!"), "a")), "a!");
    EXPECT_EQ(Text(CZuString::Format("", "a")), "");
}

TEST(ZuString, FormatNeverLooksIntoAnArgumentAgain) {
    EXPECT_EQ(Text(CZuString::Format("{1} {2}", "{2}", "b")), "{2} b");
    EXPECT_EQ(Text(CZuString::Format("{1} {2}", "a", "{1}")), "a {1}");
    EXPECT_EQ(Text(CZuString::Format("{{1}}", "1")), "{1}");
    EXPECT_EQ(Text(CZuString::Format("{1}{2}", "{", "1}")), "{1}");
    EXPECT_EQ(Text(CZuString::Format("{1}", "%s%n")), "%s%n");
}

TEST(ZuString, FormatLeavesWhatIsNoPlaceholderOfAnArgument) {
    const char* const formats[] = {"{",   "}",   "{}",   "{1",   "{a}",  "{0}", "{2}",
                                   "{6}", "{9}", "{10}", "{ 1}", "{-1}", "1}",  "%s"};
    for (const char* const format : formats)
        EXPECT_EQ(Text(CZuString::Format(format, "a")), format);
    EXPECT_EQ(Text(CZuString::Format("{1} {2}")), "{1} {2}");
    EXPECT_EQ(Text(CZuString::Format("{1}{1", "a")), "a{1");
}

TEST(ZuString, TokenizeCutsLinesWithoutQuoting) {
    const std::vector<TokenRow_t> rows = {
        {"nothing", "", {}},
        {"one line", "abc", {"abc"}},
        {"two lines", "abc\ndef", {"abc", "def"}},
        {"a line end at the end", "abc\n", {"abc"}},
        {"empty lines", "\n\nabc\n\n\ndef\n\n", {"abc", "def"}},
        {"nothing but line ends", "\n\n\n", {}},
        {"carriage returns stay", "abc\r\n\r\ndef", {"abc\r", "\r", "def"}},
        {"blanks stay", " a b \n\t", {" a b ", "\t"}},
        {"quotes are characters", "\"a\nb\"\n\"\"", {"\"a", "b\"", "\"\""}},
        {"escapes are characters", "a\\\nb\\", {"a\\", "b\\"}},
    };
    ExpectTokens(rows, 0, 0, '\n');
}

TEST(ZuString, TokenizeCutsAtSemicolonsWithoutQuoting) {
    const std::vector<TokenRow_t> rows = {
        {"entries", "a = \"1\";b = \"2\";", {"a = \"1\"", "b = \"2\""}},
        {"a semicolon in quotes cuts", "a = \"1;2\"", {"a = \"1", "2\""}},
        {"empty entries", ";;a;;", {"a"}},
        {"line ends stay", "a\n;b", {"a\n", "b"}},
    };
    ExpectTokens(rows, 0, 0, ';');
}

TEST(ZuString, TokenizeCutsAtBlanksOutsideQuotes) {
    const std::vector<TokenRow_t> rows = {
        {"nothing", "", {}},
        {"an extent line", "RW 4192256 SPARSE \"disk-s001.vmdk\"", {"RW", "4192256", "SPARSE", "disk-s001.vmdk"}},
        {"a blank in quotes", "FLAT \"my disk.vmdk\" 0", {"FLAT", "my disk.vmdk", "0"}},
        {"many blanks", "  a   b  ", {"a", "b"}},
        {"a tab doesn't cut", "a\tb c", {"a\tb", "c"}},
        {"an empty token in quotes", "a \"\" b", {"a", "", "b"}},
        {"nothing but an empty token in quotes", "\"\"", {""}},
        {"two of them", "\"\" \"\"", {"", ""}},
        {"two of them without a blank", "\"\"\"\"", {""}},
        {"quotes inside a token", "a\"b c\"d e", {"ab cd", "e"}},
        {"an empty quote inside a token", "a\"\"b", {"ab"}},
        {"an escaped quote", "\"a\\\"b\" c", {"a\"b", "c"}},
        {"an escaped escape", "\"a\\\\\" b", {"a\\", "b"}},
        {"any other character escaped", "\"a\\nb\"", {"anb"}},
        {"an escaped blank in quotes", "\"a\\ b\"", {"a b"}},
        {"an escape outside quotes", "a\\b c", {"a\\b", "c"}},
        {"an escape before a blank outside quotes", "a\\ b", {"a\\", "b"}},
        {"an escape before a quote outside quotes", "a\\\"b c\"", {"a\\b c"}},
        {"an open quote", "a \"b c  d", {"a", "b c  d"}},
        {"an open quote with nothing behind it", "a \"", {"a", ""}},
        {"an escape at the end of an open quote", "\"a\\", {"a\\"}},
        {"a separator before the end of an open quote", "\"a ", {"a "}},
        {"a line end", "a\nb c", {"a\nb", "c"}},
    };
    ExpectTokens(rows, Quote, Escape, ' ');
}

TEST(ZuString, TokenizeCutsAtEqualsSignsOutsideQuotes) {
    const std::vector<TokenRow_t> rows = {
        {"a pair", "createType=\"monolithicSparse\"", {"createType", "monolithicSparse"}},
        {"blanks stay", "a = \"1\"", {"a ", " 1"}},
        {"an equals sign in quotes", "a=\"b=c\"", {"a", "b=c"}},
        {"no value", "a=", {"a"}},
        {"an empty value in quotes", "a=\"\"", {"a", ""}},
        {"no key", "=a", {"a"}},
        {"a second sign", "a=b=c", {"a", "b", "c"}},
    };
    ExpectTokens(rows, Quote, Escape, '=');
}

TEST(ZuString, TokenizeTakesDifferentQuotes) {
    std::vector<CZuString> tokens;
    CZuString("a (b ( c) d) e").Tokenize(tokens, '(', ')', '\\', ' ', false);
    EXPECT_EQ((std::vector<std::string>(tokens.begin(), tokens.end())),
              (std::vector<std::string>{"a", "b ( c", "d)", "e"}));
}

TEST(ZuString, TokenizeMayWriteIntoTheListThatHoldsTheText) {
    std::vector<CZuString> tokens{"a b"};
    CZuString(tokens[0]).Tokenize(tokens, Quote, Quote, Escape, ' ', false);
    EXPECT_EQ(tokens.size(), 2U);
}

TEST(ZuString, IsAssignedAndCompared) {
    CZuString text("abc");
    text = "de";
    EXPECT_TRUE(text == "de");
    EXPECT_FALSE(text == "d");
    EXPECT_FALSE(text == "def");
    EXPECT_FALSE(text == "DE");
    const CZuString other("de");
    EXPECT_TRUE(text == other);
    CZuString assigned;
    assigned = other;
    EXPECT_TRUE(assigned == "de");
    assigned = "x";
    EXPECT_TRUE(other == "de") << "a value of its own";
    EXPECT_TRUE(CZuString() == "");
    text.Clear();
    EXPECT_TRUE(text.IsEmpty());
    EXPECT_TRUE(text == CZuString());
}

TEST(ZuString, GivesAndTakesSingleCharacters) {
    CZuString text("abc");
    text[1] = 'X';
    EXPECT_TRUE(text == "aXc");
    const CZuString constant("abc");
    EXPECT_EQ(constant[0], 'a');
    EXPECT_EQ(constant[2], 'c');
    EXPECT_EQ(CZuString()[0], '\0') << "what callers find in an empty text";
}

TEST(ZuString, IsPutTogether) {
    const CZuString left("ab");
    const CZuString right("cd");
    EXPECT_TRUE(left + right == "abcd");
    EXPECT_TRUE(left + 'c' == "abc");
    EXPECT_TRUE("x" + right == "xcd");
    EXPECT_TRUE(left + "\\" + right == "ab\\cd");
    EXPECT_TRUE(left == "ab") << "the parts stay";
    CZuString sum;
    sum += left;
    sum += "-";
    sum += sum;
    EXPECT_TRUE(sum == "ab-ab-");
}

TEST(ZuString, SubStrIsClippedToTheText) {
    const CZuString text("abcdef");
    const struct {
        size_t start;
        size_t length;
        const char* part;
    } rows[] = {
        {0, 6, "abcdef"},
        {0, 2, "ab"},
        {4, 2, "ef"},
        {4, 9, "ef"},
        {5, 1, "f"},
        {6, 1, ""},
        {99, 1, ""},
        {2, 0, ""},
        {0, 99, "abcdef"},
        {1, std::numeric_limits<size_t>::max(), "bcdef"},
        {std::numeric_limits<size_t>::max(), 1, ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Text(text.SubStr(row.start, row.length)), row.part) << row.start << " " << row.length;
    EXPECT_TRUE(CZuString().SubStr(0, 1).IsEmpty());
    EXPECT_TRUE(text == "abcdef");
}

TEST(ZuString, ReverseFindLooksBackwardsFromItsStart) {
    const CZuString text("a/b/c");
    EXPECT_EQ(text.ReverseFind('/'), 3);
    EXPECT_EQ(text.ReverseFind('/', 4), 3);
    EXPECT_EQ(text.ReverseFind('/', 3), 3);
    EXPECT_EQ(text.ReverseFind('/', 2), 1);
    EXPECT_EQ(text.ReverseFind('/', 1), 1);
    EXPECT_EQ(text.ReverseFind('/', 0), -1);
    EXPECT_EQ(text.ReverseFind('a', 0), 0);
    EXPECT_EQ(text.ReverseFind('/', 99), 3);
    EXPECT_EQ(text.ReverseFind('x'), -1);
    EXPECT_EQ(CZuString().ReverseFind('/'), -1);
}

TEST(ZuString, ChopAtKeepsWhatStandsBefore) {
    const struct {
        size_t index;
        const char* left;
    } rows[] = {{0, ""}, {1, "a"}, {2, "ab"}, {3, "abc"}, {4, "abc"}, {std::numeric_limits<size_t>::max(), "abc"}};
    for (const auto& row : rows) {
        CZuString text("abc");
        text.ChopAt(row.index);
        EXPECT_EQ(Text(text), row.left) << row.index;
        EXPECT_EQ(text.Length(), std::strlen(row.left));
    }
}

TEST(ZuString, TheTrimsWorkInPlaceEachAtItsEnd) {
    const struct {
        const char* text;
        const char* leftTrimmed;
        const char* rightTrimmed;
    } rows[] = {
        {"", "", ""},
        {"a", "a", "a"},
        {"  a b  ", "a b  ", "  a b"},
        {"\t\r\n a \n\r\t", "a \n\r\t", "\t\r\n a"},
        {" \t\r\n ", "", ""},
    };
    for (const auto& row : rows) {
        CZuString left(row.text);
        left.LTrimAll();
        EXPECT_EQ(Text(left), row.leftTrimmed);
        CZuString right(row.text);
        right.RTrimAll();
        EXPECT_EQ(Text(right), row.rightTrimmed);
        EXPECT_EQ(right.Length(), std::strlen(row.rightTrimmed));
    }
}

TEST(ZuString, ABufferIsFilledByItsUser) {
    CZuString text("before");
    text.AllocateBuffer(8);
    std::memcpy(text.GetBuffer(), "abc", 4);
    text.ReCalculateLength();
    EXPECT_EQ(text.Length(), 3U);
    EXPECT_TRUE(text == "abc");
}

TEST(ZuString, ABufferWithoutATerminatorIsTakenWhole) {
    CZuString text;
    text.AllocateBuffer(4);
    std::memcpy(text.GetBuffer(), "abcd", 4);
    text.ReCalculateLength();
    EXPECT_EQ(text.Length(), 4U);
    EXPECT_STREQ(text.c_str(), "abcd");
}

TEST(ZuString, AFreshBufferIsAnEmptyText) {
    CZuString text("before");
    text.AllocateBuffer(4);
    text.ReCalculateLength();
    EXPECT_TRUE(text.IsEmpty());
    text.AllocateBuffer(0);
    text.ReCalculateLength();
    EXPECT_TRUE(text.IsEmpty());
}

TEST(ZuString, AssignBufferTakesSoManyBytes) {
    CZuString text;
    text.AssignBuffer("abcdef", 3);
    EXPECT_TRUE(text == "abc");
    EXPECT_EQ(text.Length(), 3U);
    text.AssignBuffer("ab\0cd", 5);
    EXPECT_EQ(text.Length(), 5U);
    text.ReCalculateLength();
    EXPECT_TRUE(text == "ab");
    text.AssignBuffer("x", 0);
    EXPECT_TRUE(text.IsEmpty());
    text.AssignBuffer(nullptr, 0);
    EXPECT_TRUE(text.IsEmpty());
}
