#include <fcntl.h>
#include <unistd.h>

#include "tests/support/HardDisks.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/SameBytes.h"
#include "tests/tool/CommandFixture.h"

namespace {

using testing::HasSubstr;

class CommandRead : public CCommandFixture {
protected:
    // Numbered sectors under an MBR with an NTFS partition; returns all bytes.
    std::string MakeDisk(const std::string& name = "disk.raw") const {
        std::string bytes = NumberedSectors(0, 4096);
        bytes.replace(0, 512, CBootRecordBuilder().Slot(0, 0x07, 63, 3000).Bytes());
        m_Dir.Write(name, bytes);
        return bytes;
    }

    void ExpectReads(const std::string& expected, const std::vector<std::string>& arguments) const {
        std::vector<std::string> all{"read", "-q", "disk.raw"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const CommandOutcome_t outcome = Run(all);
        EXPECT_SUCCEEDS(outcome);
        EXPECT_SAME_BYTES(expected, outcome.output);
    }
};

TEST_F(CommandRead, WritesTheBytesToTheStandardOutput) {
    const std::string bytes = MakeDisk();
    ExpectReads(bytes, {});
    ExpectReads(bytes.substr(63 * 512, 3000 * 512), {"--partition", "1"});
    ExpectReads(bytes.substr(63 * 512, 3000 * 512), {"--volume", "Volume1"});
    ExpectReads(bytes.substr(63 * 512 + 100, 7), {"--volume", "Volume1", "--offset", "100", "--length", "7"});
    ExpectReads(bytes.substr(1024, 2048), {"--offset", "1K", "--length", "2k"});
    ExpectReads(bytes.substr(1048576), {"--offset", "1M"});
    ExpectReads("", {"--offset", "2M"});
    ExpectReads("", {"--length", "0"});
}

TEST_F(CommandRead, RangesThatLeaveTheDiskGiveNoByte) {
    MakeDisk();
    for (const std::vector<std::string>& range :
         {std::vector<std::string>{"--offset", "2097153"},
          {"--length", "2097153"},
          {"--offset", "1T"},
          {"--offset", "9223372036854775807", "--length", "9223372036854775807"}}) {
        std::vector<std::string> all{"read", "-q", "disk.raw"};
        all.insert(all.end(), range.begin(), range.end());
        EXPECT_FAILS_WITH(Run(all), 1, "has 2097152 bytes");
    }
}

TEST_F(CommandRead, WhatIsNotThereIsNamed) {
    MakeDisk();
    MakeDisk("second.raw");
    EXPECT_FAILS_WITH(Run({"read", "none"}), 1, "none: No such file or directory");
    EXPECT_FAILS_WITH(Run({"read", "disk.raw", "--partition", "2"}), 1, "disk.raw: has no partition 2");
    EXPECT_FAILS_WITH(Run({"read", "disk.raw", "--volume", "Volume2"}), 1, "Volume2: no volume of the disks");
    EXPECT_FAILS_WITH(Run({"read", "disk.raw", "second.raw"}), 1, "--volume");
    EXPECT_SUCCEEDS(Run({"read", "-q", "disk.raw", "second.raw", "--volume", "Volume2", "--length", "1"}));
}

TEST_F(CommandRead, MisuseEndsWithTwo) {
    MakeDisk();
    const struct {
        std::vector<std::string> arguments;
        const char* words;
    } rows[] = {
        {{"read", "disk.raw", "--partition", "1", "--volume", "Volume1"}, "--partition"},
        {{"read", "disk.raw", "--partition", "one"}, "--partition"},
        {{"read", "disk.raw", "--partition", "-1"}, "--partition"},
        {{"read", "disk.raw", "--partition", "4294967296"}, "--partition"},
        {{"read", "disk.raw", "--offset", "1X"}, "1X is no number of bytes"},
        {{"read", "disk.raw", "--offset", "-1"}, "-1 is no number of bytes"},
        {{"read", "disk.raw", "--offset", ""}, "is no number of bytes"},
        {{"read", "disk.raw", "--offset", "K"}, "K is no number of bytes"},
        {{"read", "disk.raw", "--length", "1KK"}, "1KK is no number of bytes"},
        {{"read", "disk.raw", "--length", "99999999999999999999"}, "is no number of bytes"},
        {{"read", "disk.raw", "--length", "16777216T"}, "is no number of bytes"},
        {{"read", "disk.raw", "--volume", ""}, "the name is empty"},
        {{"read", "disk.raw", ""}, "the name is empty"},
        {{"read", "disk.raw", "--json"}, "no such option: --json"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.arguments));
        EXPECT_FAILS_WITH(Run(row.arguments), 2, row.words);
    }
}

TEST_F(CommandRead, AnOutputThatTakesNothingIsAFailure) {
    MakeDisk();
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    if (full < 0)
        GTEST_SKIP() << "/dev/full isn't there";
    CommandOutputs_t outputs;
    outputs.output = full;
    const CommandOutcome_t outcome = RunCommand({"read", "-q", "disk.raw"}, m_Dir.Path(), outputs);
    close(full);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.errorOutput, HasSubstr("diskstream: the standard output: No space left on device"));
}

TEST_F(CommandRead, ReadsImagesAsTheDiskInThem) {
    MakeSparse();
    std::string expected(256 * 512, '\0');
    expected.replace(0, 4096, 4096, 'A');
    expected.replace(7 * 4096, 4096, PatternedBytes(4096));
    const CommandOutcome_t outcome = Run({"read", "-q", "disk.vmdk"});
    EXPECT_SUCCEEDS(outcome);
    EXPECT_SAME_BYTES(expected, outcome.output);
    const CommandOutcome_t raw = Run({"read", "-q", "--type", "raw", "disk.vmdk", "--length", "4"});
    EXPECT_SUCCEEDS(raw);
    EXPECT_EQ("KDMV", raw.output);
}

}  // namespace
