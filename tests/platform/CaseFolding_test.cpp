#include "platform/CaseFolding.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

constexpr uint32_t CharacterCount = 0x10000;

char16_t CharacterAt(uint32_t number) {
    return static_cast<char16_t>(number);
}

// FNV-1a over the table as it lies on a volume, the low byte of each character first.
uint64_t ChecksumOfTheTable() {
    uint64_t sum = 0xCBF29CE484222325U;
    for (uint32_t number = 0; number < CharacterCount; ++number) {
        const uint32_t folded = FoldCase(CharacterAt(number));
        for (const uint32_t byte : {folded & 0xFFU, folded >> 8U})
            sum = (sum ^ byte) * 0x100000001B3U;
    }
    return sum;
}

}  // namespace

TEST(CaseFolding, IsTheTableThatWindowsWritesIntoItsVolumes) {
    EXPECT_EQ(ChecksumOfTheTable(), 0x48ED4531E9399927U);
}

TEST(CaseFolding, ChangesOfAsciiTheSmallLettersAlone) {
    for (char16_t character = 0; character < 0x80; ++character) {
        const bool isSmall = character >= u'a' && character <= u'z';
        EXPECT_EQ(FoldCase(character), isSmall ? character - 32 : character) << static_cast<uint32_t>(character);
    }
}

TEST(CaseFolding, FoldsALetterOfEveryScriptThatHasCase) {
    const struct {
        const char* name;
        char16_t small;
        char16_t capital;
    } rows[] = {
        {"a with grave", 0x00E0, 0x00C0},
        {"thorn", 0x00FE, 0x00DE},
        {"y with diaeresis", 0x00FF, 0x0178},
        {"a with macron", 0x0101, 0x0100},
        {"z with caron", 0x017E, 0x017D},
        {"b with stroke", 0x0180, 0x0243},
        {"dz with caron", 0x01C6, 0x01C4},
        {"turned a", 0x0250, 0x2C6F},
        {"alpha with tonos", 0x03AC, 0x0386},
        {"alpha", 0x03B1, 0x0391},
        {"sigma", 0x03C3, 0x03A3},
        {"omega with tonos", 0x03CE, 0x038F},
        {"Cyrillic a", 0x0430, 0x0410},
        {"Cyrillic ya", 0x044F, 0x042F},
        {"Cyrillic io", 0x0451, 0x0401},
        {"palochka", 0x04CF, 0x04C0},
        {"Armenian ayb", 0x0561, 0x0531},
        {"Georgian an", 0x2D00, 0x10A0},
        {"alpha with psili", 0x1F00, 0x1F08},
        {"alpha with ypogegrammeni", 0x1FB3, 0x1FBC},
        {"Roman numeral one", 0x2170, 0x2160},
        {"circled a", 0x24D0, 0x24B6},
        {"Glagolitic azu", 0x2C30, 0x2C00},
        {"Coptic alfa", 0x2C81, 0x2C80},
        {"Cyrillic zemlya", 0xA641, 0xA640},
        {"fullwidth a", 0xFF41, 0xFF21},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(FoldCase(row.small), row.capital) << row.name;
        EXPECT_EQ(FoldCase(row.capital), row.capital) << row.name;
    }
}

TEST(CaseFolding, LeavesWhatWindowsDoesntFold) {
    const struct {
        const char* name;
        char16_t character;
    } rows[] = {
        {"feminine ordinal", 0x00AA},
        {"micro sign", 0x00B5},
        {"sharp s", 0x00DF},
        {"division sign", 0x00F7},
        {"dotted I", 0x0130},
        {"dotless i", 0x0131},
        {"kra", 0x0138},
        {"n with apostrophe", 0x0149},
        {"long s", 0x017F},
        {"titlecase dz", 0x01C5},
        {"final sigma", 0x03C2},
        {"beta symbol", 0x03D0},
        {"Georgian small an", 0x10D0},
        {"ligature ff", 0xFB00},
        {"Han one", 0x4E00},
        {"lone surrogate", 0xD801},
        {"the last character", 0xFFFF},
    };
    for (const auto& row : rows)
        EXPECT_EQ(FoldCase(row.character), row.character) << row.name;
}

TEST(CaseFolding, ChangesNothingMoreTheSecondTime) {
    for (uint32_t number = 0; number < CharacterCount; ++number) {
        const char16_t once = FoldCase(CharacterAt(number));
        EXPECT_EQ(FoldCase(once), once) << number;
    }
}

TEST(CaseFolding, ComparesAsManyCharactersAsItIsTold) {
    const struct {
        std::u16string left;
        std::u16string right;
        size_t count;
        bool isEqual;
    } rows[] = {
        {u"$Secure", u"$SECURE", 7, true},
        {u"$Secure", u"$secure", 7, true},
        {u"$Secure", u"$Secare", 7, false},
        {u"$Secure", u"$Secare", 4, true},
        {u"a", u"b", 0, true},
        {u"\u0444\u0430\u0439\u043B", u"\u0424\u0410\u0419\u041B", 4, true},
        {u"ma\u00DFe", u"MASSE", 5, false},
        {{u'a', 0, u'b'}, {u'A', 0, u'c'}, 3, false},
        {{u'a', 0, u'b'}, {u'A', 0, u'B'}, 3, true},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(EqualIgnoringCase(row.left.c_str(), row.right.c_str(), row.count), row.isEqual) << row.count;
        EXPECT_EQ(EqualIgnoringCase(row.right.c_str(), row.left.c_str(), row.count), row.isEqual) << row.count;
    }
}
