#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>

#include "foundation/LgDebug.h"
#include "tests/support/TempDir.h"
#include "tests/support/posix/ChildProcess.h"

namespace {

// One line of each kind.
void WriteOneOfEach() {
    const LgDebug log;
    log.Debug("::ReadFileAt", "Using max read size of %d bytes", -5);
    log.debug("plain %u %s", 7U, "text");
    log.DebugLvl("::Walk", 2, "at %llu", 18446744073709551615ULL);
    log.Error("::Fail", "failed with %d", 3);
}

void ExpectOneOfEach(const std::string& text) {
    for (const char* const piece : {"::ReadFileAt Using max read size of -5 bytes\n", "plain 7 text\n",
                                    "::Walk at 18446744073709551615\n", "::Fail failed with 3\n"})
        EXPECT_NE(text.find(piece), std::string::npos) << piece << " in " << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4) << text;
}

}  // namespace

TEST(LgDebugOnPosix, IsSilentByDefault) {
    if (InChildProcess()) {
        WriteOneOfEach();
        return;
    }
    for (const std::map<std::string, std::string>& environment :
         {std::map<std::string, std::string>{}, std::map<std::string, std::string>{{"DISKSTREAM_LOG", ""}}}) {
        const ChildOutcome_t child = RunThisTestInChild(environment);
        EXPECT_TRUE(child.passed) << child.output;
        EXPECT_EQ(child.errorOutput, "");
        EXPECT_EQ(child.output.find("plain 7"), std::string::npos) << child.output;
    }
}

TEST(LgDebugOnPosix, WritesEveryLevelToTheErrorOutputForAMinus) {
    if (InChildProcess()) {
        WriteOneOfEach();
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    ExpectOneOfEach(child.errorOutput);
    EXPECT_EQ(child.output.find("plain 7"), std::string::npos) << child.output;
}

TEST(LgDebugOnPosix, AppendsToTheFileNamed) {
    if (InChildProcess()) {
        WriteOneOfEach();
        return;
    }
    const CTempDir dir;
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", dir.Write("log", "before\n")}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_EQ(child.errorOutput, "");
    ASSERT_EQ(dir.Read("log").substr(0, 7), "before\n");
    ExpectOneOfEach(dir.Read("log").substr(7));
}

TEST(LgDebugOnPosix, StaysSilentWhereTheFileCannotBeOpened) {
    if (InChildProcess()) {
        WriteOneOfEach();
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "/nowhere/at/all"}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_EQ(child.errorOutput, "");
}

TEST(LgDebugOnPosix, EscapesControlCharactersSoThatNoTextForgesALine) {
    if (InChildProcess()) {
        const LgDebug log;
        log.debug("name %s end", "a\nb\r\t\x1b[31m\x7f\x01");
        log.debug("bytes \n in the format too%c", '\0');
        log.Debug("::Quiet", "%s", "\xc3\xa4 \\ % stays");
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    const std::string& text = child.errorOutput;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3) << text;
    EXPECT_TRUE(std::none_of(text.begin(), text.end(), [](unsigned char byte) {
        return (byte < 0x20 && byte != '\n') || byte == 0x7F;
    })) << text;
    EXPECT_NE(text.find("name a\\x0ab\\x0d\\x09\\x1b[31m\\x7f\\x01 end\n"), std::string::npos) << text;
    EXPECT_NE(text.find("::Quiet \xc3\xa4 \\ % stays\n"), std::string::npos) << text;
}

TEST(LgDebugOnPosix, LongLinesStayWhole) {
    if (InChildProcess()) {
        LgDebug(nullptr).debug("%s|", std::string(100000, 'x').c_str());
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_NE(child.errorOutput.find(std::string(100000, 'x') + "|\n"), std::string::npos);
}
