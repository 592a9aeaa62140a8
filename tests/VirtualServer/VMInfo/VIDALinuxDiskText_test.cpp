#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/VIDALinuxDiskParser.h"
#include "tests/support/LinuxDisks.h"
#include "tests/support/Lvm2Builder.h"
#include "tests/support/TempDir.h"

// The text of a group: its tokens and the logical volumes that it tells.

namespace {

constexpr char EndOfText[] = "SYSTEM\tfgets failed  \n ";

// The steps of the parser, one by one.
class CStepwiseParser : public VIDALinuxDiskParser {
public:
    CStepwiseParser() : VIDALinuxDiskParser(nullptr) {}

    using VIDALinuxDiskParser::GetNextTokenValue;
    using VIDALinuxDiskParser::LinuxLVM2MetaDataParser;
    using VIDALinuxDiskParser::UpdateLogicalVolInfo;
    using VIDALinuxDiskParser::UpdatePVInfo;

    // The code, the name and the value, of all tokens up to the text's end.
    std::vector<std::string> Tokens(const std::string& path) {
        std::vector<std::string> tokens;
        try {
            for (FileIO file(path.c_str(), "r");;) {
                std::string name = "?";
                std::string value = "?";
                const auto code = static_cast<int>(GetNextTokenValue(file, name, value));
                tokens.push_back(std::to_string(code) + "|" + name + "|" + value);
            }
        } catch (VIDALinuxDiskParserException& exception) {
            EXPECT_STREQ(EndOfText, exception.GetErrorMsg());
        }
        return tokens;
    }
};

using Texts_t = std::vector<std::string>;

class LinuxDiskText : public testing::Test {
protected:
    void Parse(const std::string& text) {
        m_Dir.Write("text", text);
        m_Parser.LinuxLVM2MetaDataParser(m_Dir.File("text").c_str());
    }

    // What parsing ends with: "" or the exception's line.
    std::string OutcomeOf(const std::string& text) {
        try {
            Parse(text);
        } catch (VIDALinuxDiskParserException& exception) {
            return exception.GetErrorMsg();
        }
        return "";
    }

    // Tells the parser that the physical volume `id` begins at `firstSector` of `disk`.
    void Link(const std::string& id, uint32_t disk, uint64_t firstSector = 0) {
        LVM_Component_t slice;
        slice.HardDiskIndex = disk;
        slice.DiskLBAStart = firstSector;
        m_Parser.UpdatePVInfo(id, slice);
    }

    Texts_t Volumes() {
        std::vector<LVM_Volume_t> volumes;
        m_Parser.UpdateLogicalVolInfo(volumes);
        return TextsOf(volumes);
    }

    CTempDir m_Dir;
    CStepwiseParser m_Parser;
};

TEST_F(LinuxDiskText, ALineIsANameAndAValue) {
    const struct {
        const char* name;
        const char* line;
        const char* token;
    } rows[] = {
        {"an item", "seqno = 3", "0|seqno|3"},
        {"without blanks", "seqno=3", "0|seqno|3"},
        {"tabs and spaces around", " \t seqno \t = \t 3", "0|seqno|3"},
        {"quotes", "id = \"ab-cd\"", "0|id|ab-cd"},
        {"quotes around and inside the name", "\"na\"me = 3", "0|name|3"},
        {"quotes inside the value", "x = a\"b\"c\"", "0|x|abc"},
        {"an element of a list", "\"pv0\", 17", "0|pv0|17"},
        {"and another behind it", "\"pv0\", 17,", "0|pv0|17,"},
        {"spaces in the value", "x = a b  c", "0|x|a b  c"},
        {"spaces in front of a comment", "x = 3  # three", "0|x|3  "},
        {"a tab in front of a comment", "x = 3\t# three", "0|x|3"},
        {"a tab ends the value", "x = a\tb", "0|x|a"},
        {"a comment alone", "# Generated", "0|#|"},
        {"a comment of one word", "#Generated", "0|#Generated|"},
        {"a comment sign in the name", "a#b = 3", "0|a#b|3"},
        {"a list in one line", "status = [\"READ\", \"WRITE\"]", "0|status|[READ, WRITE]"},
        {"a list in two lines", "x = [\"a\",", "0|x|[a,"},
        {"an empty list", "flags = []", "0|flags|[]"},
        {"without a value", "x =", "0|x|"},
        {"without a sign", "x", "0|x|"},
        {"two words", "x y = 3", "0|x|"},
        {"no name", "= 3", "0||3"},
        {"a block", "vg0 {", "4|vg0|"},
        {"without a blank", "vg0{", "4|vg0|"},
        {"more behind the bracket", "vg0 { id = 3 }", "4|vg0|"},
        {"a bracket alone", "{", "4||"},
        {"the other bracket alone", "[", "4||"},
        {"a list's name in front of its bracket", "stripes [", "4|stripes|"},
        {"a list that goes on", "stripes = [", "4|stripes|["},
        {"a quoted bracket", "stripes = \"[\"", "4|stripes|["},
        {"a list that goes on, with a blank", "stripes = [ ", "0|stripes|[ "},
        {"a list that goes on, with a tab", "stripes = [\t# one", "4|stripes|["},
        {"a curly value", "x = {", "0|x|{"},
        {"the end of a list", "]", "3||"},
        {"the end of a block", "\t}", "3||"},
        {"more behind the end", "} x = 3", "3||"},
        {"the end behind a name", "x }", "0|x|"},
        {"the end in a name", "x}", "0|x}|"},
        {"a quoted end", "\"}\"", "0|}|"},
        {"a carriage return", "x = 3\r", "0|x|3\r"},
    };
    for (const auto& row : rows) {
        for (const char* const end : {"\n", ""}) {
            m_Dir.Write("text", row.line + std::string(end));
            EXPECT_EQ(Texts_t{row.token}, m_Parser.Tokens(m_Dir.File("text"))) << row.name;
        }
    }
}

TEST_F(LinuxDiskText, EmptyLinesArePassedOver) {
    m_Dir.Write("text", "\n  \n\t\na = 1\n\n \t \nb = 2\n   ");
    EXPECT_EQ((Texts_t{"0|a|1", "0|b|2"}), m_Parser.Tokens(m_Dir.File("text")));
}

TEST_F(LinuxDiskText, ALineEndsAtItsNul) {
    m_Dir.Write("text", std::string("a = 1\0b = 2\n\0c\nd = 3", 20));
    EXPECT_EQ((Texts_t{"0|a|1", "0|d|3"}), m_Parser.Tokens(m_Dir.File("text")));
}

TEST_F(LinuxDiskText, OfALineUpTo4095CharactersAreOneToken) {
    const std::string value(4095 - 4, 'v');
    m_Dir.Write("text", "n = " + value + "n = rest");
    EXPECT_EQ((Texts_t{"0|n|" + value, "0|n|rest"}), m_Parser.Tokens(m_Dir.File("text")));
}

// Each of them is a step of a loop.
TEST_F(LinuxDiskText, AMillionEmptyLinesTakeNoStack) {
    m_Dir.Write("text", std::string(1000000, '\n') + "a = 1");
    EXPECT_EQ(Texts_t{"0|a|1"}, m_Parser.Tokens(m_Dir.File("text")));
}

// A group of two physical volumes with extents of ten sectors.
CLvm2TextBuilder Group(const std::string& name = "vg") {
    return CLvm2TextBuilder(name)
        .ExtentSectors(10)
        .PhysicalVolume("pv0", Lvm2Id(1), 100, 2048)
        .PhysicalVolume("pv1", Lvm2Id(2), 100, 384);
}

TEST_F(LinuxDiskText, ALinearVolumeLiesInItsExtents) {
    Parse(Group().LogicalVolume("root", {{0, 7, {{"pv0", 3}}}}).Text());
    Link(Lvm2Id(1), 0, 63);
    EXPECT_EQ((Texts_t{"vg-root type 142 [0-70 by 0 0:2141-2211 as 0-70]"}), Volumes());
}

TEST_F(LinuxDiskText, SegmentsFollowEachOther) {
    Parse(Group().LogicalVolume("root", {{0, 7, {{"pv0", 3}}}, {7, 2, {{"pv1", 0}}}, {9, 1, {{"pv0", 0}}}}).Text());
    Link(Lvm2Id(1), 4, 100);
    Link(Lvm2Id(2), 2, 1000);
    EXPECT_EQ((Texts_t{"vg-root type 142 [0-70 by 0 4:2178-2248 as 0-70] [70-90 by 0 2:1384-1404 as 70-90] "
                       "[90-100 by 0 4:2148-2158 as 90-100]"}),
              Volumes());
}

// Neither segments nor stripes are sorted.
TEST_F(LinuxDiskText, TheOrderIsThatOfTheText) {
    Parse(Group().LogicalVolume("v", {{5, 4, {{"pv1", 9}, {"pv0", 2}}, 128}, {0, 5, {{"pv0", 0}}}}).Text());
    Link(Lvm2Id(1), 0);
    Link(Lvm2Id(2), 1);
    EXPECT_EQ((Texts_t{"vg-v type 142 [50-90 by 128 1:474-494 as 50-90 0:2068-2088 as 50-90] "
                       "[0-50 by 0 0:2048-2098 as 0-50]"}),
              Volumes());
}

TEST_F(LinuxDiskText, AStripedVolumesExtentsAreSharedByItsStripes) {
    const struct {
        const char* name;
        const char* lines;
        const char* text;
    } rows[] = {
        {"both are told", "stripe_count = 2\nstripe_size = 8", "by 8 0:2048-2088 as 0-90 1:384-424 as 0-90]"},
        {"the count decides", "stripe_count = 3\nstripe_size = 8", "by 8 0:2048-2078 as 0-90 1:384-414 as 0-90]"},
        {"no size", "stripe_count = 2", "by 0 0:2048-2138 as 0-90 1:384-474 as 0-90]"},
        {"a size of 0", "stripe_count = 2\nstripe_size = 0", "by 0 0:2048-2138 as 0-90 1:384-474 as 0-90]"},
        {"no count", "stripe_size = 8", "by 8 0:2048-2138 as 0-90 1:384-474 as 0-90]"},
        {"a count of 0", "stripe_count = 0\nstripe_size = 8", "by 8 0:2048-2138 as 0-90 1:384-474 as 0-90]"},
        {"more than extents", "stripe_count = 10\nstripe_size = 8", "by 8 0:2048-2048 as 0-90 1:384-384 as 0-90]"},
    };
    for (const auto& row : rows) {
        m_Parser = CStepwiseParser();
        Parse("vg {\nextent_size = 10\nphysical_volumes {\npv0 {\nid = \"a-b\"\npe_start = 2048\n}\n"
              "pv1 {\nid = \"c-d\"\npe_start = 384\n}\n}\nlogical_volumes {\nlv {\nsegment1 {\nstart_extent = 0\n"
              "extent_count = 9\n" +
              std::string(row.lines) + "\nstripes = [\n\"pv0\", 0\n\"pv1\", 0\n]\n}\n}\n}\n}\n");
        Link("ab", 0);
        Link("cd", 1);
        EXPECT_EQ((Texts_t{"vg-lv type 142 [0-90 " + std::string(row.text)}), Volumes()) << row.name;
    }
}

TEST_F(LinuxDiskText, VolumesComeInTheOrderOfTheirKeys) {
    const std::vector<Lvm2Segment_t> segments = {{0, 1, {{"pv0", 0}}}};
    Parse(Group("vgb").LogicalVolume("b", segments).LogicalVolume("B", segments).LogicalVolume("a", segments).Text());
    Parse(Group("vga").LogicalVolume("z", segments).Text());
    Texts_t names;
    for (const std::string& text : Volumes())
        names.push_back(text.substr(0, text.find(' ')));
    EXPECT_EQ((Texts_t{"vga-z", "vgb-B", "vgb-a", "vgb-b"}), names);
}

TEST_F(LinuxDiskText, AVolumeIsOneOfItsGroupsExtents) {
    const std::vector<Lvm2Segment_t> segments = {{0, 1, {{"pv0", 1}}}};
    Parse(Group("a").LogicalVolume("v", segments).Text());
    Parse(Group("b").ExtentSectors(8192).LogicalVolume("v", segments).Text());
    Link(Lvm2Id(1), 0);
    EXPECT_EQ(
        (Texts_t{"a-v type 142 [0-10 by 0 0:2058-2068 as 0-10]", "b-v type 142 [0-8192 by 0 0:10240-18432 as 0-8192]"}),
        Volumes());
}

TEST_F(LinuxDiskText, WhatElseAVolumeHasIsThatOfANewOne) {
    Parse(Group().LogicalVolume("root", {{0, 7, {{"pv0", 3}}}}).Text());
    LVM_Component_t slice;
    slice.DiskLBAEnd = 4711;  // nothing of it counts but its start and its disk
    slice.VolLBAStart = 4712;
    slice.VolLBAEnd = 4713;
    slice.HardDiskIndex = 6;
    slice.ColumnIndex = 5;
    slice.DiskGUID.Data1 = 9;
    m_Parser.UpdatePVInfo(Lvm2Id(1), slice);
    std::vector<LVM_Volume_t> volumes(1);
    m_Parser.UpdateLogicalVolInfo(volumes);
    ASSERT_EQ(2U, volumes.size()) << "volumes are appended";
    EXPECT_EQ(0, volumes[1].IsRaid5);
    EXPECT_EQ(1, volumes[1].AllDiskFound);
    EXPECT_TRUE(volumes[1].VolGUID == GUID{});
    EXPECT_EQ("6:2078-2148 as 0-70", TextOf(volumes[1].Segments.at(0).Components.at(0)));
    EXPECT_EQ(5, volumes[1].Segments[0].Components[0].ColumnIndex) << "the component is a copy of the slice";
    EXPECT_EQ(9U, volumes[1].Segments[0].Components[0].DiskGUID.Data1);
}

TEST_F(LinuxDiskText, APhysicalVolumeThatNobodyFoundHasNoDisk) {
    Parse(Group().LogicalVolume("v", {{0, 7, {{"pv0", 0}, {"pv1", 0}}}}).Text());
    Link(Lvm2Id(2), 0);
    Link(Lvm2Id(3), 1);  // no match is no error
    EXPECT_EQ((Texts_t{"vg-v type 142 [0-70 by 0 none:2048-2118 as 0-70 0:384-454 as 0-70]"}), Volumes());
}

TEST_F(LinuxDiskText, AnIdIsComparedWholeAndWithoutItsDashes) {
    const struct {
        const char* stored;
        const char* id;
        bool isIt;
    } rows[] = {
        {"ab-cd", "abcd", true},  {"a-b-c-d-", "abcd", true}, {"abcd", "abcd", true},  {"ab-cd", "ab-cd", false},
        {"ab-cd", "abcD", false}, {"ab-cd", "abcde", false},  {"ab-cd", "abc", false}, {"ab-cd", "", false},
    };
    for (const auto& row : rows) {
        m_Parser = CStepwiseParser();
        Parse("vg {\nphysical_volumes {\npv0 {\nid = \"" + std::string(row.stored) +
              "\"\n}\n}\nlogical_volumes {\nlv {\nsegment1 {\nstripes = [\npv0, 0\n]\n}\n}\n}\n}\n");
        Link(row.id, 0);
        const std::string disk = row.isIt ? "0" : "none";
        EXPECT_EQ((Texts_t{"vg-lv type 142 [0-0 by 0 " + disk + ":0-0 as 0-0]"}), Volumes()) << row.stored << row.id;
    }
}

TEST_F(LinuxDiskText, AllPhysicalVolumesOfAnIdAreLinked) {
    const std::vector<Lvm2Segment_t> segments = {{0, 1, {{"pv0", 0}}}};
    Parse(Group("a").LogicalVolume("v", segments).Text());
    Parse(Group("b").LogicalVolume("v", segments).Text());
    Link(Lvm2Id(1), 5);
    EXPECT_EQ((Texts_t{"a-v type 142 [0-10 by 0 5:2048-2058 as 0-10]", "b-v type 142 [0-10 by 0 5:2048-2058 as 0-10]"}),
              Volumes());
    Link(Lvm2Id(1), 6);
    EXPECT_EQ("b-v type 142 [0-10 by 0 6:2048-2058 as 0-10]", Volumes().at(1)) << "the last one counts";
}

TEST_F(LinuxDiskText, AVolumeWithAStripeOnAnUnknownPhysicalVolumeIsLeftOut) {
    Parse(Group()
              .LogicalVolume("a", {{0, 1, {{"pv0", 0}}}, {1, 1, {{"pv2", 0}}}})
              .LogicalVolume("b", {{0, 1, {{"pv0", 0}}}})
              .LogicalVolume("c", {{0, 2, {{"pv0", 0}, {"PV1", 0}}, 8}})
              .Text());
    Link(Lvm2Id(1), 0);
    EXPECT_EQ((Texts_t{"vg-b type 142 [0-10 by 0 0:2048-2058 as 0-10]"}), Volumes());
}

TEST_F(LinuxDiskText, APhysicalVolumeIsOneOfItsOwnGroup) {
    Parse(Group("a").Text() + "logical_volumes {\n}\n");
    EXPECT_EQ("", OutcomeOf(CLvm2TextBuilder("b").LogicalVolume("v", {{0, 1, {{"pv0", 0}}}}).Text()));
    EXPECT_EQ(Texts_t{}, Volumes());
}

TEST_F(LinuxDiskText, AGroupIsParsedOnce) {
    Parse(Group().LogicalVolume("old", {{0, 1, {{"pv0", 0}}}}).Text());
    Parse(Group().ExtentSectors(99).LogicalVolume("new", {{0, 1, {{"pv0", 0}}}}).Text());
    EXPECT_EQ("", OutcomeOf("vg {\nthe rest of which is not looked at")) << "not even for its end";
    Link(Lvm2Id(1), 0);
    EXPECT_EQ((Texts_t{"vg-old type 142 [0-10 by 0 0:2048-2058 as 0-10]"}), Volumes());
}

TEST_F(LinuxDiskText, WhatStandsBehindTheLogicalVolumesIsNotRead) {
    std::string text = Group().LogicalVolume("v", {{0, 1, {{"pv0", 0}}}}).Text();
    text.resize(text.rfind("}\n\n}"));  // the bracket that ends the logical volumes
    EXPECT_EQ(EndOfText, OutcomeOf(text));
    m_Parser = CStepwiseParser();
    EXPECT_EQ("", OutcomeOf(text + "}"));
    EXPECT_EQ(1U, Volumes().size());
}

TEST_F(LinuxDiskText, CommentsTagsAndUnknownItemsChangeNothing) {
    Parse("# a comment\nanother = item\n" +
          Group()
              .GroupLine("tags = [\"a\", \"b\"]")
              .GroupLine("# physical_volumes")
              .PhysicalVolumeLine("tags = [\"pe_start\", \"id\"]")
              .PhysicalVolumeLine("Pe_start = 4711")
              .LogicalVolume("v", {{0, 1, {{"pv0", 0}}, 0, "striped", {"lines = 3", "# stripes", "extent_counts = 7"}}})
              .LogicalVolumeLine("tags = [\"segment1\"]")
              .LogicalVolumeLine("allocation_policy = \"cling\"")
              .Text());
    Link(Lvm2Id(1), 0);
    EXPECT_EQ((Texts_t{"vg-v type 142 [0-10 by 0 0:2048-2058 as 0-10]"}), Volumes());
}

TEST_F(LinuxDiskText, ATextWithoutItsBlocksIsAFailure) {
    const char* const noPhysical = "LVM2\tError Parsing . Could not find physical_volumes  \n ";
    const char* const noLogical = "LVM2\tError Parsing . Could not find logical_volumes  \n ";
    const struct {
        const char* name;
        const char* text;
        const char* outcome;
    } rows[] = {
        {"nothing", "", EndOfText},
        {"no block", "id = 3\n", EndOfText},
        {"a group alone", "vg {\nid = 3\n}\n", EndOfText},
        {"another block first", "vg {\nlogical_volumes {\n", noPhysical},
        {"a longer name", "vg {\nphysical_volumes_ {\n", noPhysical},
        {"a list in front", "vg {\ntags = [\n]\nphysical_volumes {\n", noPhysical},
        {"no end of the physical volumes", "vg {\nphysical_volumes {\npv0 {\n}\n", EndOfText},
        {"no end of a physical volume", "vg {\nphysical_volumes {\npv0 {\nid = 3\n", EndOfText},
        {"no logical volumes", "vg {\nphysical_volumes {\n}\n}\n", EndOfText},
        {"another block behind", "vg {\nphysical_volumes {\n}\nphysical_volumes {\n", noLogical},
        {"no end of a segment", "vg {\nphysical_volumes {\n}\nlogical_volumes {\nlv {\nsegment1 {\n", EndOfText},
        {"no end of the stripes", "vg {\nphysical_volumes {\n}\nlogical_volumes {\nlv {\nsegment1 {\nstripes = [\n",
         EndOfText},
        {"empty blocks", "vg {\nphysical_volumes {\n}\nlogical_volumes {\n}\n", ""},
    };
    for (const auto& row : rows) {
        m_Parser = CStepwiseParser();
        EXPECT_EQ(row.outcome, OutcomeOf(row.text)) << row.name;
    }
    EXPECT_PARSER_THROWS(m_Parser.LinuxLVM2MetaDataParser(m_Dir.File("none").c_str()), "SYSTEM\tfopen failed  \n ");
}

// Kinds of segments that need more than stripes name other volumes, in lists of their own.
TEST_F(LinuxDiskText, ASegmentWithoutStripesHasNoComponents) {
    Parse(Group()
              .LogicalVolume("a", {{0, 3, {}, 0, "thin", {"thin_pool = \"pool\"", "device_id = 1"}}})
              .LogicalVolume("b", {{0, 1, {{"pv0", 0}}}})
              .Text());
    Link(Lvm2Id(1), 0);
    EXPECT_EQ((Texts_t{"vg-a type 142 [0-30 by 0]", "vg-b type 142 [0-10 by 0 0:2048-2058 as 0-10]"}), Volumes());
}

// The bracket that ends an unknown list ends the segment, and so on for all blocks around it.
TEST_F(LinuxDiskText, AListThatIsNotKnownEndsTheBlocksAroundItEarly) {
    Parse(Group()
              .LogicalVolume("a", {{0, 3, {}, 0, "raid1", {"raids = [", "\"a_rmeta_0\", \"a_rimage_0\"", "]"}}})
              .LogicalVolume("b", {{0, 1, {{"pv0", 0}}}})
              .Text());
    Link(Lvm2Id(1), 0);
    EXPECT_EQ(Texts_t{"vg-a type 142 [0-30 by 0]"}, Volumes());
}

TEST_F(LinuxDiskText, ALogicalVolumeMayHaveNoSegments) {
    Parse(Group().LogicalVolume("a", {}).Text());
    EXPECT_EQ(Texts_t{"vg-a type 142"}, Volumes());
}

TEST_F(LinuxDiskText, ALongNameIsCut) {
    const std::string name(200, 'n');
    Parse(Group().LogicalVolume(name.substr(0, 96), {}).LogicalVolume(name, {}).Text());
    EXPECT_EQ((Texts_t{"vg-" + name.substr(0, 96) + " type 142", "vg-" + name.substr(0, 96) + " type 142"}), Volumes());
}

// The names of groups and of volumes may hold the character that lies between them.
TEST_F(LinuxDiskText, OfTwoVolumesWithOneKeyTheLaterIsThere) {
    Parse(Group("vg").LogicalVolume("a-b", {{0, 1, {{"pv0", 0}}}}).Text());
    Parse(Group("vg-a").LogicalVolume("b", {{0, 2, {{"pv1", 0}}}}).Text());
    Link(Lvm2Id(2), 0);
    EXPECT_EQ((Texts_t{"vg-a-b type 142 [0-20 by 0 0:384-404 as 0-20]"}), Volumes());
}

TEST_F(LinuxDiskText, NumbersAreTakenAsTheyStand) {
    Parse("vg {\nextent_size = 18446744073709551615\nphysical_volumes {\npv0 {\npe_start = x\n}\n}\n"
          "logical_volumes {\nlv {\nsegment1 {\nstart_extent = 2\nextent_count = 99999999999999999999\n"
          "stripe_count = -1\nstripe_size = 4294967295\nstripes = [\npv0, 3\n]\n}\n}\n}\n");
    EXPECT_EQ((Texts_t{"vg-lv type 142 [18446744073709551614-18446744073709551615 by 18446744073709551615 "
                       "none:18446744073709551613-18446744073709551612 as "
                       "18446744073709551614-18446744073709551615]"}),
              Volumes());
}

}  // namespace
