#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "VirtualServer/VMInfo/VmdkFileReader.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkDescriptorBuilder.h"

namespace {

class VmdkDescriptor : public testing::Test {
protected:
    CZuError Parse(const CVmdkDescriptorBuilder& builder) { return ParseText(builder.Text()); }

    CZuError ParseText(const std::string& text) {
        m_Out = VmdkDescriptorFile_t();
        return m_Reader.ParseVmdkDescriptorFile(m_Dir.Write("disk.vmdk", text).c_str(), m_Out, m_Type);
    }

    CZuError ParseLine(const std::string& line) { return Parse(CVmdkDescriptorBuilder().Line(line)); }

    std::string Beside(const std::string& name) const { return m_Dir.Path() + "\\" + name; }

    CTempDir m_Dir;
    CVmdkFileReader m_Reader;
    DiskType_t m_Type = DiskType_TwoGbMaxExtentFlat;
    VmdkDescriptorFile_t m_Out;
};

TEST_F(VmdkDescriptor, TellsAllThatItHolds) {
    ASSERT_OK(Parse(CVmdkDescriptorBuilder()
                        .Version("3")
                        .Cid("12ab34CD")
                        .ParentCid("deadbeef")
                        .CreateType("twoGbMaxExtentFlat")
                        .Line("")
                        .Line("# Extent description")
                        .Line("RW 4192256 FLAT \"disk-f001.vmdk\" 0")
                        .Line("RDONLY 63 SPARSE \"two words.vmdk\"")
                        .Line("ddb.virtualHWVersion = \"4\"")
                        .Line("DDB.adapterType = \"ide\"")));
    EXPECT_EQ(3, m_Out.version);
    EXPECT_EQ(0x12AB34CDU, m_Out.CID);
    EXPECT_EQ(0xDEADBEEFU, m_Out.parentCID);
    EXPECT_EQ(DiskType_TwoGbMaxExtentFlat, m_Out.createType);
    ASSERT_EQ(2U, m_Out.extents.size());
    EXPECT_EQ(VmdkAccessReadWrite, m_Out.extents[0].access);
    EXPECT_EQ(4192256U, m_Out.extents[0].size);
    EXPECT_EQ(VwExtentTypeFlat, m_Out.extents[0].type);
    EXPECT_EQ(Beside("disk-f001.vmdk"), m_Out.extents[0].fileName.c_str());
    EXPECT_EQ(0U, m_Out.extents[0].offset);
    EXPECT_EQ(VmdkAccessReadOnly, m_Out.extents[1].access);
    EXPECT_EQ(63U, m_Out.extents[1].size);
    EXPECT_EQ(VwExtentTypeSparse, m_Out.extents[1].type);
    EXPECT_EQ(Beside("two words.vmdk"), m_Out.extents[1].fileName.c_str());
}

TEST_F(VmdkDescriptor, AnEmptyFileTellsNothing) {
    // Reading no bytes is no failure.
    ASSERT_OK(ParseText(""));
    EXPECT_EQ(0, m_Out.version);
    EXPECT_EQ(NoDiskType, m_Out.createType);
    EXPECT_TRUE(m_Out.extents.empty());
}

TEST_F(VmdkDescriptor, KnowsEveryCreateType) {
    const struct {
        const char* word;
        int value;
    } rows[] = {
        {"monolithicSparse", 1},
        {"vmfsSparse", 2},
        {"monolithicFlat", 3},
        {"vmfs", 4},
        {"twoGbMaxExtentSparse", 5},
        {"twoGbMaxExtentFlat", 6},
        {"fullDevice", 7},
        {"vmfsRaw", 8},
        {"partitionedDevice", 9},
        {"vmfsRawDeviceMap", 10},
        {"vmfsPassthroughRawDeviceMap", 11},
    };
    for (const auto& row : rows) {
        EXPECT_OK(Parse(CVmdkDescriptorBuilder().CreateType(row.word))) << row.word;
        EXPECT_EQ(row.value, m_Out.createType) << row.word;
    }
}

TEST_F(VmdkDescriptor, AnUnknownCreateTypeIsNamed) {
    const struct {
        const char* line;
        const char* text;
    } rows[] = {
        {"createType=\"streamOptimized\"", "Unknown CreateType \"streamOptimized\""},
        {"createType=\"custom\"", "Unknown CreateType \"custom\""},
        {"createType=\"MonolithicSparse\"", "Unknown CreateType \"MonolithicSparse\""},
        {"createType=monolithicSparse", "Unknown CreateType monolithicSparse"},
        {"createType=\"monolithicSparse", "Unknown CreateType \"monolithicSparse"},
        {"createType=\"vmfsRawX\"", "Unknown CreateType \"vmfsRawX\""},
        {"createType=\"\"", "Unknown CreateType \"\""},
        {"createType=", "Unknown CreateType "},
        {"createType", "Unknown CreateType "},
    };
    for (const auto& row : rows)
        EXPECT_REFUSED(ParseLine(row.line), row.text) << row.line;
}

TEST_F(VmdkDescriptor, TheCreateTypesWordEndsBeforeBlanksAndACarriageReturn) {
    for (const char* const line : {"createType=\"vmfs\"\r", "createType=\"vmfs\" ", "createType=\"vmfs\"\t# x",
                                   "createType = \"vmfs\"", "createType=\"vmfs\" \"more\""}) {
        EXPECT_OK(ParseLine(line)) << line;
        EXPECT_EQ(DiskType_Vmfs, m_Out.createType) << line;
    }
}

TEST_F(VmdkDescriptor, KeywordsAreTheLinesBeginningInAnyCase) {
    ASSERT_OK(Parse(CVmdkDescriptorBuilder()
                        .Line("VeRsIoN=7")
                        .Line("cid=1a")
                        .Line("ParentCid=2b")
                        .Line("CREATETYPE=\"vmfs\"")
                        .Line("dDb.x")
                        .Line("ddb.")));
    EXPECT_EQ(7, m_Out.version);
    EXPECT_EQ(0x1AU, m_Out.CID);
    EXPECT_EQ(0x2BU, m_Out.parentCID);
    EXPECT_EQ(DiskType_Vmfs, m_Out.createType);
    EXPECT_TRUE(m_Out.extents.empty());
    // Nothing but the beginning counts.
    ASSERT_OK(Parse(CVmdkDescriptorBuilder().Line("versionOfSomething=9").Line("CIDs=3c")));
    EXPECT_EQ(9, m_Out.version);
    EXPECT_EQ(0x3CU, m_Out.CID);
}

// "CID" is looked for first, and a parent's line doesn't begin with it.
TEST_F(VmdkDescriptor, TheParentsCidIsNotTheDisks) {
    ASSERT_OK(ParseText("CID=11111111\nparentCID=22222222\n"));
    EXPECT_EQ(0x11111111U, m_Out.CID);
    EXPECT_EQ(0x22222222U, m_Out.parentCID);
    ASSERT_OK(ParseText("parentCID=22222222\nCID=11111111\n"));
    EXPECT_EQ(0x11111111U, m_Out.CID);
    EXPECT_EQ(0x22222222U, m_Out.parentCID);
}

TEST_F(VmdkDescriptor, NumbersAreReadAsFarAsTheyGo) {
    ASSERT_OK(ParseText("version=12abc\nCID=ffffffff\nparentCID=0x1Fg\n"));
    EXPECT_EQ(12, m_Out.version);
    EXPECT_EQ(0xFFFFFFFFU, m_Out.CID);
    EXPECT_EQ(0x1FU, m_Out.parentCID);
    ASSERT_OK(ParseText("version=\nversion\n"));
    EXPECT_EQ(0, m_Out.version);
}

TEST_F(VmdkDescriptor, ALaterLineOverwritesAnEarlierOne) {
    ASSERT_OK(ParseText("version=1\nversion=2\ncreateType=\"vmfs\"\ncreateType=\"fullDevice\"\n"));
    EXPECT_EQ(2, m_Out.version);
    EXPECT_EQ(DiskType_FullDevice, m_Out.createType);
}

TEST_F(VmdkDescriptor, CommentsAndBlankLinesChangeNothing) {
    ASSERT_OK(ParseText("#version=9\n#\n\n   \n\t\n \r\n#RW 0 FLAT \"x\"\nddb.RW 0 FLAT\n"));
    EXPECT_EQ(0, m_Out.version);
    EXPECT_TRUE(m_Out.extents.empty());
}

TEST_F(VmdkDescriptor, KnowsEveryAccessWordAndEveryExtentType) {
    for (const auto& [word, value] : {std::pair("RW", 1), std::pair("RDONLY", 2), std::pair("NOACCESS", 3)}) {
        ASSERT_OK(ParseLine(std::string(word) + " 1 FLAT \"x\"")) << word;
        EXPECT_EQ(value, m_Out.extents.at(0).access) << word;
    }
    const char* const types[] = {"FLAT", "SPARSE", "ZERO", "VMFS", "VMFSSPARSE", "VMFSRDM", "VMFSRAW"};
    for (int type = 1; type <= 7; ++type) {
        ASSERT_OK(ParseLine(std::string("RW 1 ") + types[type - 1] + " \"x\""));
        EXPECT_EQ(type, m_Out.extents.at(0).type) << types[type - 1];
    }
}

TEST_F(VmdkDescriptor, ABadExtentLineIsRefusedWithTheLine) {
    const struct {
        const char* line;
        const char* text;  // in front of the line
    } rows[] = {
        {"RX 100 FLAT \"x\" 0", "Unknown Access in line "},
        {"rw 100 FLAT \"x\" 0", "Unknown Access in line "},
        {"encoding=\"UTF-8\"", "Unknown Access in line "},
        {"parentFileNameHint=\"base.vmdk\"", "Unknown Access in line "},
        {"RX 0 FLOT \"x\" 5", "Unknown Access in line "},
        {" version=1", "Unknown Access in line "},
        {"RW 0 FLAT \"x\" 0", "Unknown size in line "},
        {"RW -5 FLAT \"x\" 0", "Unknown size in line "},
        {"RW x FLAT \"x\" 0", "Unknown size in line "},
        {"RW", "Unknown size in line "},
        {"RW 0 FLOT \"x\" 5", "Unknown size in line "},
        {"RW 100 FLOT \"x\" 0", "Unknown extent type in line "},
        {"RW 100 flat \"x\" 0", "Unknown extent type in line "},
        {"RW 100", "Unknown extent type in line "},
        {"RW 100 FLOT \"x\" 5", "Unknown extent type in line "},
        {"RW 100 FLAT", "Error while processing line "},
        {"RW 100 FLAT \"x\" -1", "Unknown offset in line "},
        {"RW 100 FLAT \"x\" -9223372036854775808", "Unknown offset in line "},
        {"RW 100 FLAT \"x\" 5", "Offset is non zero. I have not coded for this.. Yet!!! "},
        {"RW 100 FLAT \"x\" 9223372036854775807", "Offset is non zero. I have not coded for this.. Yet!!! "},
        {"RW 100 FLAT \"x\" 0 more", "Error while processing line "},
        {"RX 0 FLOT \"x\" 5 more", "Error while processing line "},
    };
    for (const auto& row : rows) {
        const std::string text = std::string(row.text) + row.line;
        EXPECT_REFUSED(ParseLine(row.line), text.c_str());
    }
}

TEST_F(VmdkDescriptor, AnExtentLineMayHaveItsTokensInQuotesOrApart) {
    ASSERT_OK(ParseLine("  RW   \"100\"   FLAT  \"a\"  "));
    EXPECT_EQ(100U, m_Out.extents.at(0).size);
    ASSERT_OK(ParseLine("RW 100abc FLAT plain.vmdk 0x"));
    EXPECT_EQ(100U, m_Out.extents.at(0).size);
    EXPECT_EQ(Beside("plain.vmdk"), m_Out.extents.at(0).fileName.c_str());
    ASSERT_OK(ParseLine("RW 100 FLAT \"with \\\"quotes\\\" and \\\\\" 0"));
    EXPECT_EQ(Beside("with \"quotes\" and \\"), m_Out.extents.at(0).fileName.c_str());
}

TEST_F(VmdkDescriptor, SizesOfAllSixtyThreeBitsAreRead) {
    ASSERT_OK(ParseLine("RW 9223372036854775807 FLAT \"x\""));
    EXPECT_EQ(0x7FFFFFFFFFFFFFFFU, m_Out.extents.at(0).size);
}

TEST_F(VmdkDescriptor, ExtentsKeepTheirOrder) {
    CVmdkDescriptorBuilder builder;
    for (int index = 0; index < 50; ++index)
        builder.Extent(index + 1, "FLAT", std::to_string(index));
    ASSERT_OK(Parse(builder));
    ASSERT_EQ(50U, m_Out.extents.size());
    for (size_t index = 0; index < 50; ++index) {
        EXPECT_EQ(index + 1, m_Out.extents[index].size);
        EXPECT_EQ(Beside(std::to_string(index)), m_Out.extents[index].fileName.c_str());
    }
}

TEST_F(VmdkDescriptor, LinesMayEndInCarriageReturnsToo) {
    CVmdkDescriptorBuilder builder;
    builder.LineEnd("\r\n").Version("5").Cid("ab").CreateType("vmfs").Extent(100, "FLAT", "x").Extent(7, "SPARSE", "y");
    ASSERT_OK(Parse(builder.Line("ddb.x = \"1\"").Line("")));
    EXPECT_EQ(5, m_Out.version);
    EXPECT_EQ(0xABU, m_Out.CID);
    EXPECT_EQ(DiskType_Vmfs, m_Out.createType);
    ASSERT_EQ(2U, m_Out.extents.size());
    EXPECT_EQ(Beside("y"), m_Out.extents[1].fileName.c_str());
}

TEST_F(VmdkDescriptor, TheLastLineNeedsNoEnd) {
    ASSERT_OK(ParseText("version=1\nRW 100 FLAT \"x\" 0"));
    EXPECT_EQ(1U, m_Out.extents.size());
}

TEST_F(VmdkDescriptor, TheTextEndsAtItsFirstNul) {
    ASSERT_OK(Parse(CVmdkDescriptorBuilder().Extent(100, "FLAT", "x").Tail(std::string("\0not a line\n", 12))));
    EXPECT_EQ(1U, m_Out.extents.size());
    ASSERT_OK(ParseText(std::string("version=1\0\nversion=2\n", 21)));
    EXPECT_EQ(1, m_Out.version);
}

TEST_F(VmdkDescriptor, TwentyKiBAreReadAndOneByteMoreIsRefused) {
    const std::string text = CVmdkDescriptorBuilder().Extent(100, "FLAT", "x").Text() + "#";
    ASSERT_OK(ParseText(text + std::string(20480 - text.size(), '-')));
    EXPECT_EQ(1U, m_Out.extents.size());
    EXPECT_REFUSED(ParseText(text + std::string(20481 - text.size(), '-')),
                   "Vmdk description file seems to be larger than 20KB. Size 20481");
    const std::string hole = m_Dir.WriteHole("hole", uint64_t{1} << 40U);
    EXPECT_REFUSED(m_Reader.ParseVmdkDescriptorFile(hole.c_str(), m_Out, m_Type),
                   "Vmdk description file seems to be larger than 20KB. Size 1099511627776");
}

TEST_F(VmdkDescriptor, ANameWithoutADirectoryHasItsExtentsInThisOne) {
    const std::string name = "diskstream-descriptor-test.vmdk";
    WriteFileBytes(name, CVmdkDescriptorBuilder().Extent(1, "FLAT", "x").Text());
    EXPECT_OK(m_Reader.ParseVmdkDescriptorFile(name.c_str(), m_Out, m_Type));
    std::remove(name.c_str());
    ASSERT_EQ(1U, m_Out.extents.size());
    EXPECT_STREQ(".\\x", m_Out.extents[0].fileName);
}

TEST_F(VmdkDescriptor, TheTypeHasNoEffect) {
    for (const int type : {0, 1, 4, 12, 99}) {
        m_Type = DiskType_t(type);
        EXPECT_OK(Parse(CVmdkDescriptorBuilder().Extent(1, "FLAT", "x"))) << type;
    }
}

TEST_F(VmdkDescriptor, EndlessLinesAndOpenQuotesAreErrorsOrSound) {
    const std::string texts[] = {
        std::string(20000, ' '),
        std::string(20000, '\n'),
        std::string(20000, '"'),
        std::string(20000, '\\'),
        "RW 1 FLAT \"" + std::string(20000, 'x'),
        "RW 1 FLAT \"x\\",
        "createType=" + std::string(20000, '"'),
        std::string(20000, '\xFF'),
        "version=" + std::string(20000, '9'),
        "CID=" + std::string(20000, 'f'),
        "RW " + std::string(20000, '9') + " FLAT x",
    };
    for (const std::string& text : texts)
        ParseText(text).IsErrorSet();
    EXPECT_OK(ParseText(texts[1]));
    EXPECT_OK(ParseText(texts[4])) << "an open quote runs to the end";
}

TEST_F(VmdkDescriptor, PassesOnThatAFileIsMissing) {
    EXPECT_SYSTEM_ERROR(m_Reader.ParseVmdkDescriptorFile(m_Dir.File("none").c_str(), m_Out, m_Type), ENOENT);
    EXPECT_FAILURE(m_Reader.ParseVmdkDescriptorFile(nullptr, m_Out, m_Type));
}

TEST_F(VmdkDescriptor, EveryFailureOfTheMachineReachesTheCaller) {
    const std::string path = CVmdkDescriptorBuilder().WriteTo(m_Dir);
    for (const FaultOp op : {FaultOp::Open, FaultOp::Size, FaultOp::Seek, FaultOp::Read}) {
        const unsigned int failures =
            WalkFailures(op, [&] { return m_Reader.ParseVmdkDescriptorFile(path.c_str(), m_Out, m_Type); });
        EXPECT_EQ(1U, failures) << static_cast<int>(op);
    }
}

TEST_F(VmdkDescriptor, TheFileIsClosedAfterwards) {
    const std::string good = CVmdkDescriptorBuilder().WriteTo(m_Dir, "good");
    const std::string bad = CVmdkDescriptorBuilder().Line("bad").WriteTo(m_Dir, "bad");
    const CFaultyFiles counting;
    EXPECT_OK(m_Reader.ParseVmdkDescriptorFile(good.c_str(), m_Out, m_Type));
    EXPECT_FAILURE(m_Reader.ParseVmdkDescriptorFile(bad.c_str(), m_Out, m_Type));
    EXPECT_EQ(2U, counting.Calls(FaultOp::Close));
}

TEST_F(VmdkDescriptor, TheFacadeParsesTheSame) {
    const std::string path = CVmdkDescriptorBuilder().Cid("77").Extent(5, "FLAT", "x").WriteTo(m_Dir);
    ASSERT_OK(CArchiveVirtualDiskFile::ParseVmdkDescriptorFile(path.c_str(), m_Out, DiskType_MonolithicFlat));
    EXPECT_EQ(0x77U, m_Out.CID);
    EXPECT_EQ(1U, m_Out.extents.size());
    const std::string bad = CVmdkDescriptorBuilder().CreateType("x").WriteTo(m_Dir);
    EXPECT_REFUSED(CArchiveVirtualDiskFile::ParseVmdkDescriptorFile(bad.c_str(), m_Out, DiskType_MonolithicFlat),
                   "Unknown CreateType \"x\"");
}

}  // namespace
