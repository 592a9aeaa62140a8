#include "agent/detail/Lvm2Text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/ErrorAssertions.h"
#include "tests/support/Lvm2Builder.h"

namespace {

using namespace std::string_literals;

// name=['value','value'] of each item, then name{...} of each block.
std::string TextOf(const Lvm2Block_t& block) {
    std::string text;
    for (const Lvm2Item_t& item : block.items) {
        text += item.name + "=[";
        for (size_t index = 0; index < item.values.size(); ++index)
            text += (index == 0 ? "'" : ",'") + item.values[index] + "'";
        text += "]";
    }
    for (const Lvm2Block_t& inner : block.blocks)
        text += inner.name + "{" + TextOf(inner) + "}";
    return text;
}

std::string Nested(size_t depth, const std::string& inmost) {
    std::string text = inmost;
    for (size_t level = 0; level < depth; ++level)
        text = "b {\n" + text + "}\n";
    return text;
}

TEST(Lvm2Text, IsItemsAndBlocks) {
    const struct {
        const char* name;
        std::string text;
        const char* expected;
    } rows[] = {
        {"nothing", "", ""},
        {"blanks", " \t\r\n\n", ""},
        {"a number", "a = 1", "a=['1']"},
        {"no blanks", "a=1", "a=['1']"},
        {"two on a line", "a = 1 b = 2", "a=['1']b=['2']"},
        {"a value on the next line", "a\n=\n1\n", "a=['1']"},
        {"ends of lines of two characters", "a = 1\r\nb = \"x\"\r\n", "a=['1']b=['x']"},
        {"a text", "a = \"x y\"", "a=['x y']"},
        {"an empty text", "a = \"\"", "a=['']"},
        {"escapes", "a = \"x\\\"y\\\\z\\n\"", "a=['x\"y\\zn']"},
        {"marks inside a text", "a = \"{[#=,]}\" b = 1", "a=['{[#=,]}']b=['1']"},
        {"a line's end inside a text", "a = \"x\ny\"", "a=['x\ny']"},
        {"a comment", "# a = 1\nb = 2", "b=['2']"},
        {"a comment behind a value", "a = 1# b = 2\nc = 3 # d", "a=['1']c=['3']"},
        {"a comment with quotes", "a = 1 # \"\nb = 2", "a=['1']b=['2']"},
        {"an empty list", "a = []", "a=[]"},
        {"a list", "a = [\"x\", 1,2]", "a=['x','1','2']"},
        {"a list over lines", "a = [\n\t\"x\", 1,\n\n\t2 # two\n]\nb = 3", "a=['x','1','2']b=['3']"},
        {"a comma behind the last one", "a = [1, 2,]", "a=['1','2']"},
        {"an empty block", "a { }", "a{}"},
        {"blocks in blocks", "a { b = 1 c { d = 2 } e { } } f = 3", "f=['3']a{b=['1']c{d=['2']}e{}}"},
        {"names in quotes", "\"a b\" { \"c\" = 1 }", "a b{c=['1']}"},
        {"the same name twice", "a = 1 a = 2", "a=['1']a=['2']"},
        {"a NUL, which ends it", "a = 1\0}{["s, "a=['1']"},
        {"a NUL inside a comment", "a = 1 # \0 b = 2"s, "a=['1']"},
        {"blocks as deep as they may be", Nested(16, "a = 1"), nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Lvm2Block_t root;
        EXPECT_OK(ParseLvm2Text(row.text, root));
        if (row.expected != nullptr) {
            EXPECT_EQ(row.expected, TextOf(root));
        }
    }
}

TEST(Lvm2Text, ThatIsUnsoundIsRefusedWithItsLine) {
    const struct {
        std::string text;
        const char* expected;
    } rows[] = {
        {"a = \"x", "line 1 of its text: a text in quotes doesn't end"},
        {"a = \"x\0\""s, "line 1 of its text: a text in quotes doesn't end"},
        {"a = \"x\\", "line 1 of its text: a text in quotes doesn't end"},
        {"a = 1\n\"b", "line 2 of its text: a text in quotes doesn't end"},
        {"a \"b", "line 1 of its text: a text in quotes doesn't end"},
        {"a = [\n1, \"b", "line 2 of its text: a text in quotes doesn't end"},
        {"a {\nb = 1\n", "line 3 of its text: a block doesn't end"},
        {"a {\n} # }\n}\n", "line 3 of its text: a block ends that didn't begin"},
        {"a = \"\n\n\"\n}", "line 4 of its text: a block ends that didn't begin"},
        {"a = 1\n= 2", "line 2 of its text: a name is missing"},
        {"\n[", "line 2 of its text: a name is missing"},
        {"a = 1, b", "line 1 of its text: a name is missing"},
        {"{ }", "line 1 of its text: a name is missing"},
        {"a\nb = 1", "line 2 of its text: neither a value nor a block follows a"},
        {"a", "line 1 of its text: neither a value nor a block follows a"},
        {"a [ 1 ]", "line 1 of its text: neither a value nor a block follows a"},
        {"a =", "line 1 of its text: the value of a is missing"},
        {"b {\n a = }", "line 2 of its text: the value of a is missing"},
        {"a = { }", "line 1 of its text: the value of a is missing"},
        {"a = [1, 2\n", "line 2 of its text: the values of a don't end"},
        {"a = [1, 2 }", "line 1 of its text: the values of a don't end"},
        {"a = [[1]]", "line 1 of its text: the values of a don't end"},
        {Nested(17, ""), "line 17 of its text: its blocks are nested too deeply"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        Lvm2Block_t root;
        EXPECT_REFUSED(ParseLvm2Text(row.text, root), row.expected);
    }
}

// Memory is what the text's items take: millions of nested openings are no deep recursion.
TEST(Lvm2Text, OfOpeningsAloneIsRefused) {
    std::string text;
    for (int turn = 0; turn < 100000; ++turn)
        text += "a{";
    Lvm2Block_t root;
    EXPECT_REFUSED(ParseLvm2Text(text, root), "line 1 of its text: its blocks are nested too deeply");
}

TEST(Lvm2Text, IsReadAsItsToolsWriteIt) {
    const std::string text = CLvm2TextBuilder("vg")
                                 .PhysicalVolume("pv0", Lvm2Id(1), 10)
                                 .LogicalVolume("root", {{0, 4, {{"pv0", 2}, {"pv0", 5}}, 128}})
                                 .Text();
    Lvm2Block_t root;
    ASSERT_OK(ParseLvm2Text(text + '\0', root));
    EXPECT_EQ("Text Format Volume Group", root.Text("contents"));
    const Lvm2Block_t* const group = root.Block("vg");
    ASSERT_NE(nullptr, group);
    EXPECT_TRUE(group->Has("status", "WRITE"));
    const Lvm2Block_t* const physical = group->Block("physical_volumes");
    ASSERT_NE(nullptr, physical);
    ASSERT_NE(nullptr, physical->Block("pv0"));
    EXPECT_EQ(WithLvm2Dashes(Lvm2Id(1)), physical->Block("pv0")->Text("id"));
    const Lvm2Block_t* const logical = group->Block("logical_volumes");
    ASSERT_NE(nullptr, logical);
    ASSERT_NE(nullptr, logical->Block("root"));
    const Lvm2Block_t* const segment = logical->Block("root")->Block("segment1");
    ASSERT_NE(nullptr, segment);
    ASSERT_NE(nullptr, segment->Values("stripes"));
    EXPECT_EQ((std::vector<std::string>{"pv0", "2", "pv0", "5"}), *segment->Values("stripes"));
    uint64_t number = 0;
    EXPECT_TRUE(segment->Number("stripe_size", number));
    EXPECT_EQ(128U, number);
}

TEST(Lvm2Text, ItsItemsAreAskedForByName) {
    Lvm2Block_t root;
    ASSERT_OK(ParseLvm2Text("one = 7 two = [7, 8] none = [] text = \"7x\" b { } b { c = 1 }", root));
    EXPECT_EQ("7", root.Text("one"));
    EXPECT_EQ("", root.Text("two"));
    EXPECT_EQ("", root.Text("none"));
    EXPECT_EQ("", root.Text("b"));
    EXPECT_EQ("", root.Text("One"));
    EXPECT_EQ(nullptr, root.Values("c"));
    EXPECT_EQ(nullptr, root.Block("one"));
    ASSERT_NE(nullptr, root.Block("b"));
    EXPECT_TRUE(root.Block("b")->items.empty());
    EXPECT_TRUE(root.Has("two", "8"));
    EXPECT_FALSE(root.Has("two", "9"));
    EXPECT_FALSE(root.Has("three", ""));
    uint64_t number = 5;
    EXPECT_TRUE(root.Number("one", number));
    EXPECT_EQ(7U, number);
    for (const char* const name : {"two", "none", "text", "three"})
        EXPECT_FALSE(root.Number(name, number)) << name;
}

TEST(Lvm2Text, NumbersAreWholeAndFit) {
    uint64_t number = 0;
    EXPECT_TRUE(ParseLvm2Number("0", number));
    EXPECT_EQ(0U, number);
    EXPECT_TRUE(ParseLvm2Number("18446744073709551615", number));
    EXPECT_EQ(~uint64_t{0}, number);
    for (const char* const text : {"", "18446744073709551616", "-1", "+1", " 1", "1 ", "0x10", "1.5", "x"})
        EXPECT_FALSE(ParseLvm2Number(text, number)) << text;
}

}  // namespace
