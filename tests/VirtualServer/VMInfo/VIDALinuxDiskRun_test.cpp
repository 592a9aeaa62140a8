#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/VIDALinuxDiskParser.h"
#include "tests/support/Bytes.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/LinuxDisks.h"

// A whole run of the parser: what it appends, what ends it, and what it makes of lies.

namespace {

using Texts_t = std::vector<std::string>;

// "v" lies on two physical volumes, with stripes of eight sectors, and "w" on the second one alone.
CLvm2TextBuilder Group() {
    return CLvm2TextBuilder("vg")
        .ExtentSectors(16)
        .PhysicalVolume("pv0", Lvm2Id(1), 100)
        .PhysicalVolume("pv1", Lvm2Id(2), 100, 4096)
        .LogicalVolume("v", {{0, 6, {{"pv0", 1}, {"pv1", 5}}, 8}})
        .LogicalVolume("w", {{0, 2, {{"pv1", 0}}}});
}

class LinuxDiskRun : public CLinuxParserTest {
protected:
    bool Run(const std::vector<LVM_Component_t>& slices) {
        m_Volumes.clear();
        VIDALinuxDiskParser parser(&m_Lvm);  // one serves one run
        return parser.GenerateVolListFromPartitions(slices, m_Volumes, TextPath().c_str());
    }

    Texts_t Found() const { return TextsOf(m_Volumes); }

    std::vector<LVM_Volume_t> m_Volumes;
};

TEST_F(LinuxDiskRun, SlicesWithoutALabelBecomePlainVolumes) {
    const CLvm2Builder none = CLvm2Builder().LabelSignature("no label");
    OpenDisks({LinuxDisk(none, 500), LinuxDisk(none, 4)});
    m_Volumes.resize(1);
    std::vector<LVM_Component_t> slices = {SliceOf(0, 500), SliceOf(1, 4), SliceOf(0, 300)};
    slices[1].ColumnIndex = 3;
    ASSERT_TRUE(m_Parser.GenerateVolListFromPartitions(slices, m_Volumes, TextPath().c_str()));
    EXPECT_EQ((Texts_t{" type 0", "Volume-0 type 0 [0-499 by 0 0:64-563 as 0-499]",
                       "Volume-1 type 0 [0-3 by 0 1:64-67 as 0-3]", "Volume-2 type 0 [0-299 by 0 0:64-363 as 0-299]"}),
              Found());
    for (size_t index = 1; index < m_Volumes.size(); ++index) {
        EXPECT_EQ(1, m_Volumes[index].AllDiskFound);
        EXPECT_EQ(0, m_Volumes[index].IsRaid5);
        EXPECT_TRUE(m_Volumes[index].VolGUID == GUID{});
    }
    EXPECT_EQ(3, m_Volumes[2].Segments[0].Components[0].ColumnIndex) << "the component is unchanged";
}

TEST_F(LinuxDiskRun, WithoutSlicesThereIsNothing) {
    EXPECT_TRUE(Run({}));
    EXPECT_EQ(Texts_t{}, Found());
}

TEST_F(LinuxDiskRun, LogicalVolumesComeBehindThePlainOnes) {
    const CLvm2Builder first = CLvm2Builder(Lvm2Id(1)).Text(Group());
    const CLvm2Builder second = CLvm2Builder(Lvm2Id(2)).Text(Group());
    OpenDisks({LinuxDisk(first), LinuxDisk(CLvm2Builder().LabelSignature("no label")), LinuxDisk(second)});
    const Texts_t expected = {"Volume-0 type 0 [0-133119 by 0 1:64-133183 as 0-133119]",
                              "vg-v type 142 [0-96 by 8 0:2128-2176 as 0-96 2:4240-4288 as 0-96]",
                              "vg-w type 142 [0-32 by 0 2:4160-4192 as 0-32]"};
    ASSERT_TRUE(Run({SliceOf(0), SliceOf(1), SliceOf(2)}));
    EXPECT_EQ(expected, Found());
    ASSERT_TRUE(Run({SliceOf(2), SliceOf(1), SliceOf(0)})) << "whichever is found first";
    EXPECT_EQ(expected, Found());
    EXPECT_EQ(Group().Text() + std::string(1, '\0'), m_Dir.Read("text")) << "the file stays";
}

TEST_F(LinuxDiskRun, TheTextOfTheFirstPhysicalVolumeIsThatOfItsGroup) {
    const CLvm2TextBuilder older =
        CLvm2TextBuilder("vg").PhysicalVolume("pv0", Lvm2Id(2), 5).LogicalVolume("old", {{0, 1, {{"pv0", 0}}}});
    OpenDisks({LinuxDisk(CLvm2Builder(Lvm2Id(1)).Text(Group())), LinuxDisk(CLvm2Builder(Lvm2Id(2)).Text(older))});
    ASSERT_TRUE(Run({SliceOf(0), SliceOf(1)}));
    EXPECT_EQ(2U, Found().size());
    ASSERT_TRUE(Run({SliceOf(1), SliceOf(0)}));
    EXPECT_EQ(Texts_t{"vg-old type 142 [0-8192 by 0 1:2112-10304 as 0-8192]"}, Found());
}

TEST_F(LinuxDiskRun, AnAbsentPhysicalVolumeLeavesItsComponentsWithoutADisk) {
    OpenDisks({LinuxDisk(CLvm2Builder(Lvm2Id(2)).Text(Group()))});
    ASSERT_TRUE(Run({SliceOf(0)}));
    EXPECT_EQ((Texts_t{"vg-v type 142 [0-96 by 8 none:2064-2112 as 0-96 0:4240-4288 as 0-96]",
                       "vg-w type 142 [0-32 by 0 0:4160-4192 as 0-32]"}),
              Found());
}

// Its file is empty, or has no logical volumes.
TEST_F(LinuxDiskRun, APhysicalVolumeWithoutAWholeTextEndsTheRun) {
    const CLvm2Builder none = CLvm2Builder().LabelSignature("no label");
    const struct {
        const char* name;
        CLvm2Builder physicalVolume;
    } rows[] = {
        {"of no group", CLvm2Builder()},
        {"without a copy of the text", CLvm2Builder().NoMetadataArea()},
        {"a group without logical volumes", CLvm2Builder().Text(CLvm2TextBuilder())},
        {"no text", CLvm2Builder().Text(PatternedBytes(1000))},
        {"a magic that is wrong", CLvm2Builder().Text(Group()).PutAt(4096 + 4, "x")},
        {"a text that ends early", CLvm2Builder().Text(Group().Text().substr(0, 700))},
    };
    for (const auto& row : rows) {
        OpenDisks({LinuxDisk(none), LinuxDisk(row.physicalVolume)});
        EXPECT_FALSE(Run({SliceOf(0), SliceOf(1), SliceOf(0)})) << row.name;
        EXPECT_EQ(Texts_t{"Volume-0 type 0 [0-133119 by 0 0:64-133183 as 0-133119]"}, Found()) << row.name;
    }
}

// What goes over the end of its area is lost, though it is there at the start of the ring.
TEST_F(LinuxDiskRun, AWrappedTextIsReadUpToTheEndOfItsArea) {
    Lvm2Area_t area;
    area.size = 16384;
    const std::string text = Group().Text();
    area.textOffset = area.size - text.find("\n# Generated") - 1;
    OpenDisks({LinuxDisk(CLvm2Builder().MetadataArea(area).Text(text))});
    EXPECT_TRUE(Run({SliceOf(0)})) << "nobody needs the rest";
    EXPECT_EQ(2U, Found().size());
    area.textOffset = area.size - text.find("logical_volumes");
    OpenDisks({LinuxDisk(CLvm2Builder().MetadataArea(area).Text(text))});
    EXPECT_FALSE(Run({SliceOf(0)}));
}

// The label, the header, the text, its file and the text read back.
TEST_F(LinuxDiskRun, EveryFailureOfTheMachineEndsTheRun) {
    const std::string comments = "# " + std::string(12000, 'c') + "\n";  // the text takes more than one read
    OpenDisks({LinuxDisk(CLvm2Builder().Text(comments + Group().Text()))});
    for (const FaultOp op : {FaultOp::Open, FaultOp::Read, FaultOp::Write, FaultOp::Seek, FaultOp::Size}) {
        unsigned int failAt = 0;
        for (;; ++failAt) {
            const CFaultyFiles faulty(Fault_t{op, failAt, EIO});
            const bool isDone = Run({SliceOf(0)});
            EXPECT_EQ(!faulty.Fired(), isDone) << static_cast<int>(op) << " call " << failAt;
            if (!faulty.Fired())
                break;
            EXPECT_EQ(Texts_t{}, Found());
        }
        EXPECT_LE(1U, failAt) << static_cast<int>(op);
    }
    EXPECT_EQ(2U, Found().size());
}

// Each of these costs no more than the bytes that are there.
TEST_F(LinuxDiskRun, LocationsThatLieEndTheRun) {
    const struct {
        const char* name;
        uint64_t areaSize;
        uint64_t offset;
        uint64_t size;
    } rows[] = {
        {"a text of 2^64 - 1 bytes", 1044480, 512, ~uint64_t{0}},
        {"in an area as large", ~uint64_t{0}, 512, ~uint64_t{0}},
        {"a text behind the disk", ~uint64_t{0}, uint64_t{1} << 50U, 512},
        {"a text at the end of all numbers", ~uint64_t{0}, ~uint64_t{0} - 4096 - 100, 512},
    };
    for (const auto& row : rows) {
        const std::string bytes =
            LittleEndianBytes(row.areaSize, 8) + LittleEndianBytes(row.offset, 8) + LittleEndianBytes(row.size, 8);
        OpenDisks({LinuxDisk(CLvm2Builder().Text(Group()).PutAt(4096 + 32, bytes), 4096)});
        EXPECT_FALSE(Run({SliceOf(0, 4096)})) << row.name;
        EXPECT_LE(std::filesystem::file_size(TextPath()), 4096U * 512) << row.name;
    }
}

TEST_F(LinuxDiskRun, RawLocationsEndWithTheBytesThatWereRead) {
    std::string locations;
    for (uint64_t index = 0; locations.size() < 20000; ++index)
        locations += LittleEndianBytes(32768, 8) + LittleEndianBytes(2, 8) + std::string(8, '\0');
    LVM_Component_t slice =
        Open(CLvm2Builder().PutAt(4096 + 32, LittleEndianBytes(~uint64_t{0}, 8) + locations).PutAt(4096 + 32768, "ab"));
    ASSERT_TRUE(m_Parser.IsDiskSliceLVM2PhysicalVolume(slice, m_PvId, TextPath().c_str()));
    EXPECT_EQ((8192 - 40) / 24 * 2U, m_Dir.Read("text").size());
}

// Many locations of one large hole could fill the machine.
TEST_F(LinuxDiskRun, TheTextsFileHasABound) {
    const uint64_t bound = uint64_t{256} << 20U;
    const uint32_t sectors = 64U << 11U;
    std::string locations;
    for (int index = 0; index < 5; ++index)
        locations += LittleEndianBytes(1048576, 8) + LittleEndianBytes(uint64_t{60} << 20U, 8) + std::string(8, '\0');
    OpenDisks({LinuxDisk(CLvm2Builder().PutAt(4096 + 32, LittleEndianBytes(~uint64_t{0}, 8) + locations), sectors)});
    EXPECT_FALSE(Run({SliceOf(0, sectors)}));
    EXPECT_LE(std::filesystem::file_size(TextPath()), bound);
    EXPECT_LE(bound - 8192, std::filesystem::file_size(TextPath()));
}

// A record takes more memory than its bytes of text.
TEST_F(LinuxDiskRun, WhatATextMakesHasABound) {
    std::string text = std::string(4000, 'g') + " {\nphysical_volumes {\n}\nlogical_volumes {\n";
    for (int index = 0; index < 200000; ++index)
        text += "v{\n}\n";
    OpenDisks({LinuxDisk(CLvm2Builder().Text(text + "}\n"))});
    EXPECT_FALSE(Run({SliceOf(0)}));
    OpenDisks({LinuxDisk(CLvm2Builder().Text(text.substr(0, 100000) + "\n}\n}\n"))});
    EXPECT_TRUE(Run({SliceOf(0)}));
}

}  // namespace
