#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/LgDebug.h"
#include "tests/support/Bytes.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/LinuxDisks.h"
#include "tests/support/posix/ChildProcess.h"

// What the Linux parser tells the log, line by line. The log is settled once per process, so all runs are made in
// a child, each behind a line that names it.

namespace {

using Texts_t = std::vector<std::string>;

constexpr char Mark[] = "LinuxDiskLogMark";

// The lines behind the one of `run`, up to the next run: those of the parser alone, without their times.
Texts_t LinesOf(const std::string& log, const std::string& run, const std::string& level = "") {
    Texts_t lines;
    bool isInside = false;
    for (size_t at = 0, end = 0; (end = log.find('\n', at)) != std::string::npos; at = end + 1) {
        const std::string line = log.substr(at, end - at);
        const std::string words = line.substr(line.find(' ') + 1);
        if (words.find(Mark) != std::string::npos)
            isInside = words == "debug " + std::string(Mark) + " " + run;
        const bool isOurs =
            words.find(" VIDALinuxDiskParser ") != std::string::npos || words.find(" FileIO::") != std::string::npos;
        if (isInside && isOurs && words.rfind(level, 0) == 0)
            lines.push_back(words);
    }
    return lines;
}

std::string Told(const std::string& text) {
    return "debug VIDALinuxDiskParser " + text;
}

std::string Failed(const std::string& text) {
    return "error VIDALinuxDiskParser " + text;
}

// The same failure on each level that it passes.
Texts_t Failed(Texts_t lines, const std::string& exception, int levels) {
    for (std::string& line : lines)
        line.insert(0, "error ");
    lines.insert(lines.end(), static_cast<size_t>(levels), Failed(exception + "  \\x0a "));
    return lines;
}

CLvm2TextBuilder Group() {
    return CLvm2TextBuilder("vg").PhysicalVolume("pv0", Lvm2Id(1), 5).LogicalVolume("v", {{0, 1, {{"pv0", 0}}}});
}

CLvm2Builder Sound() {
    return CLvm2Builder().Text(Group());
}

class LinuxDiskLog : public CLinuxParserTest {
protected:
    void Run(const char* name, const CLvm2Builder& physicalVolume, uint32_t sectors = 133120) {
        RunAt(name, physicalVolume, TextPath(), sectors);
    }

    void RunAt(const char* name, const CLvm2Builder& physicalVolume, const std::string& path,
               uint32_t sectors = 133120) {
        const LVM_Component_t slice = Open(physicalVolume, sectors);
        LgDebug().Debug(Mark, "%s", name);
        std::vector<LVM_Volume_t> volumes;
        VIDALinuxDiskParser(&m_Lvm).GenerateVolListFromPartitions({slice}, volumes, path.c_str());
    }

    void RunAll();
};

// A text whose records would take more than their share of memory.
std::string LargeText() {
    std::string text = std::string(4000, 'g') + " {\nphysical_volumes {\n}\nlogical_volumes {\n";
    for (int index = 0; index < 200000; ++index)
        text += "v{\n}\n";
    return text;
}

void LinuxDiskLog::RunAll() {
    Run("sound", Sound().LabelSector(3).DataArea(2097152, 512).DataArea(8192, 7));
    Run("no label", CLvm2Builder().LabelSector(4));
    Run("label of another sector", Sound().StoredLabelSector(2).WrongLabelCrc(0).LabelType("any\nthin"));
    Run("short slice", CLvm2Builder().LabelSector(4), 3);
    RunAt("no file", Sound(), "\\none\\of\\these");
    Run("short area", Sound().MetadataLocation(2048 * 512 - 8191, 1), 2048);
    Run("magic", Sound().PutAt(4096 + 4, "ABCDE"));
    Run("short text", Sound().PutAt(4096 + 40, LittleEndianBytes(2048 * 512 - 4096 - 100, 8)), 2048);
    Run("empty text", CLvm2Builder());
    Run("no physical volumes", CLvm2Builder().Text("vg {\nother {\n"));
    Run("no logical volumes", CLvm2Builder().Text("vg {\nphysical_volumes {\n}\nother {\n"));
    Run("large text", CLvm2Builder().Text(LargeText()));
    const CFaultyFiles faulty(Fault_t{FaultOp::Write, 0, ENOSPC});
    Run("no room", Sound());
    LgDebug().Debug(Mark, "missing file");
    EXPECT_PARSER_THROWS(FileIO("/none\nat all", "r"), "SYSTEM\tfopen failed  \n ");
}

TEST_F(LinuxDiskLog, TellsEachStepAndEachFailureOnAllItsLevels) {
    if (InChildProcess()) {
        RunAll();
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    const std::string log = child.errorOutput;
    const CLvm2Builder labelOfAnother = Sound().StoredLabelSector(2).LabelType("any\nthin");
    const auto crcAt = [](const CLvm2Builder& builder, size_t offset) {
        return "crc: " + std::to_string(LittleEndianAt(builder.Image().Bytes(), offset, 4));
    };
    EXPECT_EQ(
        (Texts_t{Told("Label seems to be on sector 3"), Told("Sector : 3\\x0a"),
                 Told(crcAt(Sound().LabelSector(3).DataArea(2097152, 512).DataArea(8192, 7), 3 * 512 + 16)),
                 Told("offset: 32"), Told("LabelType : LVM2 001"), Told("PvID : " + Lvm2Id(1)),
                 Told("PhysicalVolume DeviceSize : 68157440"), Told("DiskLocn 0 -- Offset : 2097152 \\x09 Size : 512"),
                 Told("DiskLocn 1 -- Offset : 8192 \\x09 Size : 7"),
                 Told("MetaData Offset : 4096 \\x09 Size : 1044480"), Told("Size of this MDA is 1044480"),
                 Told("RawLocnOffset : 512\\x09RawLocnSize : " + std::to_string(Group().Text().size() + 1)),
                 Told("RawLocnOffset : 0\\x09RawLocnSize : 0"), Told("Read of MetaData File Successfull")}),
        LinesOf(log, "sound"));
    EXPECT_EQ(Texts_t{Told(" Could not find an LVM label on this device")}, LinesOf(log, "no label"));
    EXPECT_EQ((Texts_t{Told("Label seems to be on sector 1"), Told("Sector : 2\\x0a"),
                       Told("Label Sector did not match , Continue looking for the label"),
                       Told(crcAt(labelOfAnother, 512 + 16)), Told("offset: 32"), Told("LabelType : any\\x0athin"),
                       Told(" Could not find an LVM label on this device")}),
              LinesOf(log, "label of another sector"));

    const struct {
        const char* run;
        Texts_t lines;
        const char* exception;
        int levels;
    } rows[] = {
        {"short slice",
         {"VIDALinuxDiskParser Read from HardDisk:0 failed . Offset :1536 , Size:512",
          "VIDALinuxDiskParser ReadFromDiskSlice failed . DiskSliceIndex : 0 , Size : 512 , Offset : 1536"},
         "APPLICATION\\x09Read of LVM label sector failed",
         2},
        {"short area",
         {"VIDALinuxDiskParser Read from HardDisk:0 failed . Offset :1040385 , Size:8192",
          "VIDALinuxDiskParser ReadFromDiskSlice failed . DiskSliceIndex : 0 , Size : 8192 , Offset : 1040385"},
         "APPLICATION\\x09Read of LVM MetaDataHeader failed",
         2},
        {"magic",
         {"VIDALinuxDiskParser magic value in MdaHedaer is not what we expect . Offset: 4096",
          "VIDALinuxDiskParser Magic Value: ABCDE"},
         "LVM2\\x09UnExpected Magic Value in Metadata Header",
         2},
        {"empty text", {"FileIO::ReadLine Fgets failed. n : 4096"}, "SYSTEM\\x09fgets failed", 3},
        {"no physical volumes",
         {"VIDALinuxDiskParser Error Parsing . Could not find physical_volumes"},
         "LVM2\\x09Error Parsing . Could not find physical_volumes",
         2},
        {"no logical volumes",
         {"VIDALinuxDiskParser Error Parsing . Could not find logical_volumes"},
         "LVM2\\x09Error Parsing . Could not find logical_volumes",
         2},
        {"large text", {"VIDALinuxDiskParser UnHandled exception"}, "", 0},
        {"missing file", {"FileIO::FileIO File Open failed . FileName : /none\\x0aat all, Mode : r"}, "", 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Failed(row.lines, row.exception, row.levels), LinesOf(log, row.run, "error ")) << row.run;

    const uint64_t at = 2048 * 512 - 100;
    const uint64_t size = Group().Text().size() + 1;
    EXPECT_EQ(Failed({"VIDALinuxDiskParser Read from HardDisk:0 failed . Offset :" + std::to_string(at) +
                          " , Size:" + std::to_string(size),
                      "VIDALinuxDiskParser ReadFromDiskSlice failed . DiskSliceIndex : 0 , Size : " +
                          std::to_string(size) + " , Offset : " + std::to_string(at)},
                     "APPLICATION\\x09Read of LVM MetaData failed", 2),
              LinesOf(log, "short text", "error "));
}

// Behind the colon stands the system's own error.
TEST_F(LinuxDiskLog, TellsWhatTheSystemSaysOfTheTextsFile) {
    if (InChildProcess()) {
        RunAll();
        return;
    }
    const std::string log = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}}).errorOutput;
    const struct {
        const char* run;
        const char* line;
        const char* exception;
    } rows[] = {
        {"no file", "Open failed on \\none\\of\\these . CZuError : ", "SYSTEM\\x09Temp file open failed"},
        {"no room", "Meta Data Write to the Tmp File Failed . CZuError : ",
         "APPLICATION\\x09Meta Data Write to the Tmp File Failed"},
    };
    for (const auto& row : rows) {
        const Texts_t lines = LinesOf(log, row.run, "error ");
        ASSERT_EQ(3U, lines.size()) << row.run;
        EXPECT_EQ(0U, lines[0].find(Failed(row.line))) << lines[0];
        EXPECT_LT(Failed(row.line).size(), lines[0].size());
        EXPECT_EQ(Failed({}, row.exception, 2), Texts_t(lines.begin() + 1, lines.end())) << row.run;
    }
}

}  // namespace
