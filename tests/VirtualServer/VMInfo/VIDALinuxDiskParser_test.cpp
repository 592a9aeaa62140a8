#include "VirtualServer/VMInfo/VIDALinuxDiskParser.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/LinuxDisks.h"

// What makes a slice of a disk a physical volume, and how its text gets into the temporary file.

namespace {

class LinuxDiskParser : public CLinuxParserTest {
protected:
    // True, false or the exception's line.
    std::string OutcomeOf(const CLvm2Builder& physicalVolume, uint32_t sectors = 133120) {
        const LVM_Component_t slice = Open(physicalVolume, sectors);
        try {
            return m_Parser.IsDiskSliceLVM2PhysicalVolume(slice, m_PvId, TextPath().c_str()) ? "true" : "false";
        } catch (VIDALinuxDiskParserException& exception) {
            return exception.GetErrorMsg();
        }
    }

    std::string CopiedText(const CLvm2Builder& physicalVolume) {
        EXPECT_EQ("true", OutcomeOf(physicalVolume));
        return m_Dir.Read("text");
    }
};

constexpr char Nul[] = {'\0', '\0'};
const std::string End(Nul, 1);  // of each text on a disk

TEST(LinuxDiskParserException, TellsItsCategoryAndMessage) {
    const struct {
        uint32_t category;
        const char* text;
    } rows[] = {{0, "SYSTEM\twhat went wrong  \n "},
                {1, "LVM2\twhat went wrong  \n "},
                {2, "APPLICATION\twhat went wrong  \n "},
                {3, "UNKNOWN\twhat went wrong  \n "},
                {0xFFFFFFFF, "UNKNOWN\twhat went wrong  \n "}};
    for (const auto& row : rows)
        EXPECT_STREQ(row.text, VIDALinuxDiskParserException(row.category, "what went wrong").GetErrorMsg());
}

TEST(LinuxDiskParserException, KeepsNoMoreThanTheStartOfALongMessage) {
    const std::string message = PatternedBytes(5000) + "x";
    const std::string kept(4095, 'k');
    EXPECT_EQ("LVM2\t" + kept + "  \n ", VIDALinuxDiskParserException(1, kept).GetErrorMsg());
    EXPECT_EQ("LVM2\t" + kept + "  \n ", VIDALinuxDiskParserException(1, kept + "l").GetErrorMsg());
}

TEST_F(LinuxDiskParser, ReadsBytesOfASlice) {
    const std::string bytes = PatternedBytes(5000);
    const LVM_Component_t slice = Open(CLvm2Builder().PutAt(70000, bytes));
    std::string read(4321, '?');
    EXPECT_EQ(4321U, m_Parser.ReadFromDiskSlice(slice, read.data(), 4321, 70003));
    EXPECT_EQ(bytes.substr(3, 4321), read);
}

TEST_F(LinuxDiskParser, AReadBehindTheDiskGivesNothing) {
    LVM_Component_t slice = Open(CLvm2Builder(), 2048);
    const uint64_t sliceBytes = 2048 * 512;
    char bytes[512];
    EXPECT_EQ(512U, m_Parser.ReadFromDiskSlice(slice, bytes, 512, sliceBytes - 512));
    EXPECT_EQ(0U, m_Parser.ReadFromDiskSlice(slice, bytes, 512, sliceBytes - 511));
    EXPECT_EQ(0U, m_Parser.ReadFromDiskSlice(slice, bytes, 512, sliceBytes));
    EXPECT_EQ(0U, m_Parser.ReadFromDiskSlice(slice, bytes, 512, ~uint64_t{0} - 64 * 512 + 1)) << "byte 2^64";
    slice.DiskLBAStart = uint64_t{1} << 55U;
    EXPECT_EQ(0U, m_Parser.ReadFromDiskSlice(slice, bytes, 512, 0)) << "sector 2^55 is byte 2^64";
    slice = SliceOf(1);
    EXPECT_EQ(0U, m_Parser.ReadFromDiskSlice(slice, bytes, 512, 0)) << "there is no such disk";
    slice.HardDiskIndex = 0xFFFFFFFF;
    EXPECT_EQ(0U, m_Parser.ReadFromDiskSlice(slice, bytes, 512, 0));
}

TEST_F(LinuxDiskParser, TheLabelLiesInOneOfTheFirstFourSectors) {
    for (uint64_t sector = 0; sector < 6; ++sector) {
        m_PvId.clear();
        EXPECT_EQ(sector < 4 ? "true" : "false", OutcomeOf(CLvm2Builder(Lvm2Id(7)).LabelSector(sector))) << sector;
        EXPECT_EQ(sector < 4 ? Lvm2Id(7) : "", m_PvId);
    }
}

TEST_F(LinuxDiskParser, ASliceWithoutALabelIsNoPhysicalVolume) {
    EXPECT_EQ("false", OutcomeOf(CLvm2Builder().LabelSignature("LABELTWO")));
    EXPECT_EQ("false", OutcomeOf(CLvm2Builder().LabelSignature("LABELONe")));
    EXPECT_FALSE(std::filesystem::exists(TextPath())) << "no text, no file";
}

// In spite of the words that go to the log.
TEST_F(LinuxDiskParser, ALabelOfAnotherSectorEndsTheSearch) {
    EXPECT_EQ("false", OutcomeOf(CLvm2Builder().StoredLabelSector(2)));
    EXPECT_EQ("false", OutcomeOf(CLvm2Builder().StoredLabelSector(uint64_t{1} << 32U | 1))) << "all 64 bits count";
    const std::string stray = "LABELONE" + LittleEndianBytes(3, 8);
    EXPECT_EQ("false", OutcomeOf(CLvm2Builder().LabelSector(1).PutAt(0, stray))) << "a sound one stands behind it";
    EXPECT_EQ("true", OutcomeOf(CLvm2Builder().LabelSector(1).PutAt(1024, stray)));
}

TEST_F(LinuxDiskParser, TheFirstSoundLabelCounts) {
    std::string older(512, '\0');
    PutBytes(older, 0, "LABELONE");
    PutBytes(older, 32, Lvm2Id(9));
    EXPECT_EQ("true", OutcomeOf(CLvm2Builder(Lvm2Id(7)).LabelSector(1).PutAt(0, older)));
    EXPECT_EQ(Lvm2Id(9), m_PvId);
}

TEST_F(LinuxDiskParser, ChecksumsTypesAndFlagsAreNotProved) {
    Lvm2Area_t area;
    area.text = "text";
    area.magic = " LVM2 otherwise ";
    area.wrongHeaderCrc = 1;
    area.wrongTextCrc = 0x80000000;
    area.flags = 1;
    EXPECT_EQ("text" + End, CopiedText(CLvm2Builder()
                                           .WrongLabelCrc(1)
                                           .LabelType("LVM9 009")
                                           .PutAt(512 + 20, LittleEndianBytes(99, 4))  // where the header would lie
                                           .MetadataArea(area)));
    EXPECT_EQ(Lvm2Id(1), m_PvId);
}

TEST_F(LinuxDiskParser, ASliceWhoseFirstSectorsCannotBeReadIsAFailure) {
    const char* const text = "APPLICATION\tRead of LVM label sector failed  \n ";
    EXPECT_EQ(text, OutcomeOf(CLvm2Builder().LabelSector(5), 3));
    EXPECT_EQ("false", OutcomeOf(CLvm2Builder().LabelSector(5), 4));
    LVM_Component_t slice = SliceOf(5);
    EXPECT_PARSER_THROWS(m_Parser.IsDiskSliceLVM2PhysicalVolume(slice, m_PvId, TextPath().c_str()), text);
}

TEST_F(LinuxDiskParser, TheTextIsCopiedWithTheNulBehindIt) {
    EXPECT_EQ("one line\n" + End, CopiedText(CLvm2Builder().Text("one line\n")));
    const std::string large = PatternedBytes(3 * 8192 + 17);
    EXPECT_EQ(large + End, CopiedText(CLvm2Builder().Text(large))) << "more than one piece";
    const std::string even = PatternedBytes(2 * 8192 - 1);
    EXPECT_EQ(even + End, CopiedText(CLvm2Builder().Text(even)));
}

TEST_F(LinuxDiskParser, TheTextLiesAnywhereInItsArea) {
    Lvm2Area_t area;
    area.offset = 65536 + 512;
    area.size = 32768;
    area.textOffset = 10240;
    EXPECT_EQ("far behind" + End, CopiedText(CLvm2Builder().MetadataArea(area).Text("far behind")));
}

TEST_F(LinuxDiskParser, DataAreasArePassedOver) {
    CLvm2Builder builder = CLvm2Builder().Text("text");
    for (uint64_t count = 1; count <= 4; ++count) {
        builder.DataArea(count << 20U, count << 10U);
        EXPECT_EQ("text" + End, CopiedText(builder)) << count;
    }
}

// Their end is the first thing behind them, and is taken for that of the metadata areas.
TEST_F(LinuxDiskParser, FiveDataAreasHideTheMetadataAreas) {
    CLvm2Builder builder = CLvm2Builder().Text("text");
    for (uint64_t count = 1; count <= 5; ++count)
        builder.DataArea(count << 20U, 512);
    EXPECT_EQ("", CopiedText(builder));
}

TEST_F(LinuxDiskParser, APhysicalVolumeMayHaveNoText) {
    EXPECT_EQ("", CopiedText(CLvm2Builder().NoMetadataArea()));
    EXPECT_EQ("", CopiedText(CLvm2Builder())) << "of no group";
}

Lvm2Area_t SmallArea(uint64_t index, const std::string& text) {
    Lvm2Area_t area;
    area.offset = (index + 1) * 16384;
    area.size = 16384;
    area.text = text;
    return area;
}

TEST_F(LinuxDiskParser, TextsOfUpToFiveAreasFollowEachOther) {
    CLvm2Builder builder;
    std::string expected;
    for (uint64_t count = 0; count < 5; ++count) {
        builder.MetadataArea(SmallArea(count, "text" + std::to_string(count)));
        expected += "text" + std::to_string(count) + End;
        EXPECT_EQ(expected, CopiedText(builder)) << count;
    }
    builder.MetadataArea(SmallArea(5, "text5"));
    EXPECT_EQ(expected, CopiedText(builder)) << "the sixth isn't looked at";
}

TEST_F(LinuxDiskParser, APairOfZerosAloneEndsTheAreas) {
    EXPECT_EQ("first" + End + "second" + End, CopiedText(CLvm2Builder()
                                                             .DataArea(0, 512)
                                                             .DataArea(512, 0)
                                                             .MetadataArea(SmallArea(0, "first"))
                                                             .MetadataArea(SmallArea(1, "second"))));
}

TEST_F(LinuxDiskParser, OfAnAreasMagicFiveCharactersCount) {
    const char* const text = "LVM2\tUnExpected Magic Value in Metadata Header  \n ";
    for (size_t at = 0; at < 16; ++at) {
        Lvm2Area_t area;
        area.magic[at] = 'x';
        EXPECT_EQ(at < 5 ? text : "true", OutcomeOf(CLvm2Builder().MetadataArea(area).Text("text"))) << at;
    }
}

TEST_F(LinuxDiskParser, AnAreaWhoseHeaderCannotBeReadIsAFailure) {
    const char* const text = "APPLICATION\tRead of LVM MetaDataHeader failed  \n ";
    const uint32_t sectors = 2048;
    Lvm2Area_t area;
    area.offset = sectors * 512 - 8192;
    EXPECT_EQ("true", OutcomeOf(CLvm2Builder().MetadataArea(area), sectors)) << "8192 bytes are read";
    EXPECT_EQ(text, OutcomeOf(CLvm2Builder().NoMetadataArea().MetadataLocation(area.offset + 1, 4096), sectors));
    EXPECT_EQ(text, OutcomeOf(CLvm2Builder().NoMetadataArea().MetadataLocation(~uint64_t{0}, 1), sectors));
    EXPECT_EQ(text, OutcomeOf(CLvm2Builder().MetadataLocation(uint64_t{1} << 40U, 1), sectors)) << "the second";
}

// Raw locations at the head of the sound area, in place of the one that is there.
CLvm2Builder WithLocations(uint64_t areaSize, const std::vector<std::pair<uint64_t, uint64_t>>& locations) {
    std::string bytes = LittleEndianBytes(areaSize, 8);
    for (const auto& [offset, size] : locations)
        bytes += LittleEndianBytes(offset, 8) + LittleEndianBytes(size, 8) + PatternedBytes(8);
    bytes += std::string(24, '\0');
    return CLvm2Builder().PutAt(4096 + 32, bytes).PutAt(4096 + 1024, "firstsecondthird");
}

TEST_F(LinuxDiskParser, AllRawLocationsUpToAZeroOneAreCopied) {
    EXPECT_EQ("thirdfirst", CopiedText(WithLocations(100000, {{1035, 5}, {1024, 5}})));
    EXPECT_EQ("second", CopiedText(WithLocations(100000, {{1024, 0}, {1029, 6}, {0, 0}, {1024, 5}})))
        << "a size of 0 alone doesn't end them";
    EXPECT_EQ(" LVM2", CopiedText(WithLocations(100000, {{4, 5}})).substr(0, 5)) << "nor does a place in the header";
}

TEST_F(LinuxDiskParser, RawLocationsEndWhereTheirSizesExceedTheAreas) {
    EXPECT_EQ("firstsecondthird", CopiedText(WithLocations(11, {{1024, 5}, {1029, 6}, {1035, 5}})));
    EXPECT_EQ("firstsecond", CopiedText(WithLocations(10, {{1024, 5}, {1029, 6}, {1035, 5}})));
    EXPECT_EQ("first", CopiedText(WithLocations(0, {{1024, 5}, {1029, 6}}))) << "the first is always copied";
}

// The rest of the text lies at the start of the area's ring.
TEST_F(LinuxDiskParser, ATextThatGoesOverItsAreasEndIsReadOnBehindIt) {
    Lvm2Area_t area;
    area.size = 16384;
    area.textOffset = 16384 - 4;
    EXPECT_EQ(
        "wrapnext" + std::string(3, '\0'),
        CopiedText(CLvm2Builder().MetadataArea(area).Text("wrapped te").PutAt(4096 + 16384, "next")).substr(0, 12))
        << "no wrap-around is made";
}

TEST_F(LinuxDiskParser, ATextThatCannotBeReadIsAFailure) {
    const char* const text = "APPLICATION\tRead of LVM MetaData failed  \n ";
    const uint32_t sectors = 2048;
    const uint64_t areaEnd = sectors * 512 - 4096;  // the slice's, seen from the area
    EXPECT_EQ("true", OutcomeOf(WithLocations(~uint64_t{0}, {{areaEnd - 9000, 9000}}), sectors));
    EXPECT_EQ(text, OutcomeOf(WithLocations(~uint64_t{0}, {{areaEnd - 9000, 9001}}), sectors));
    EXPECT_EQ(8192U, m_Dir.Read("text").size()) << "what was there of it";
    EXPECT_EQ(text, OutcomeOf(WithLocations(~uint64_t{0}, {{uint64_t{1} << 60U, 1}}), sectors));
}

TEST_F(LinuxDiskParser, AnEarlierTextIsReplaced) {
    m_Dir.Write("text", std::string(100000, 'x'));
    EXPECT_EQ("new" + End, CopiedText(CLvm2Builder().Text("new")));
}

TEST_F(LinuxDiskParser, AFileThatCannotBeMadeIsAFailure) {
    const char* const text = "SYSTEM\tTemp file open failed  \n ";
    const LVM_Component_t slice = Open(CLvm2Builder());
    std::filesystem::create_directory(m_Dir.File("text"));
    EXPECT_PARSER_THROWS(m_Parser.IsDiskSliceLVM2PhysicalVolume(slice, m_PvId, TextPath().c_str()), text);
    EXPECT_TRUE(std::filesystem::is_directory(TextPath()));
    const std::string nowhere = m_Dir.File("none") + "/text";
    EXPECT_PARSER_THROWS(m_Parser.IsDiskSliceLVM2PhysicalVolume(slice, m_PvId, nowhere.c_str()), text);
}

TEST_F(LinuxDiskParser, ATextThatCannotBeWrittenIsAFailure) {
    const LVM_Component_t slice = Open(CLvm2Builder().Text(PatternedBytes(3 * 8192)));
    const char* const text = "APPLICATION\tMeta Data Write to the Tmp File Failed  \n ";
    for (unsigned int failAt = 0; failAt < 4; ++failAt) {
        const CFaultyFiles faulty(Fault_t{FaultOp::Write, failAt, ENOSPC});
        EXPECT_PARSER_THROWS(m_Parser.IsDiskSliceLVM2PhysicalVolume(slice, m_PvId, TextPath().c_str()), text);
    }
    EXPECT_TRUE(m_Parser.IsDiskSliceLVM2PhysicalVolume(slice, m_PvId, TextPath().c_str()));
}

}  // namespace
