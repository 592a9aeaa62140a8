#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "tests/tool/CommandFixture.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

using CommandOutput = CCommandFixture;

// Both ends of a pipe, closed with the object or before.
class CPipe {
public:
    CPipe() { EXPECT_EQ(pipe2(m_Ends, O_CLOEXEC), 0); }
    CPipe(const CPipe&) = delete;
    CPipe& operator=(const CPipe&) = delete;
    ~CPipe() {
        CloseReading();
        close(m_Ends[1]);
    }
    int Writing() const { return m_Ends[1]; }
    void CloseReading() {
        if (m_Ends[0] >= 0)
            close(m_Ends[0]);
        m_Ends[0] = -1;
    }

private:
    int m_Ends[2] = {-1, -1};
};

TEST_F(CommandOutput, ResultsAreAColumnOfFacts) {
    MakeSparse();
    const CommandOutcome_t info = Run({"info", "disk.vmdk"});
    EXPECT_SUCCEEDS(info);
    EXPECT_THAT(info.output, MatchesRegex("Image      disk.vmdk\n"
                                          "Type       monolithicSparse\n"
                                          "Disk size  128.0 KiB .256 sectors.\n"
                                          "Extent     disk.vmdk, monolithicSparse, .*, 3 grains of 4.0 KiB\n"));
    const CommandOutcome_t backup = Run({"backup", "disk.vmdk", "disk.dset"});
    EXPECT_SUCCEEDS(backup);
    EXPECT_THAT(backup.output, MatchesRegex("Set     disk.dset\n"
                                            "Disk    128.0 KiB, monolithicSparse\n"
                                            "Blocks  3 with 12.0 KiB, 1 of them zeros\n"
                                            "Stored  [^\n]* in a set of [^\n]*\n"
                                            "Rate    [^\n]*/s\n"));
    const CommandOutcome_t list = Run({"list", "disk.dset"});
    EXPECT_SUCCEEDS(list);
    EXPECT_THAT(list.output, MatchesRegex("Set        disk.dset\n"
                                          "Image      disk.vmdk\n"
                                          "Type       monolithicSparse\n"
                                          "Disk size  128.0 KiB\n"
                                          "Created    [^\n]* by diskstream [^\n]*\n"
                                          "Stream     disk.vmdk, monolithicSparse, 3 blocks of 4.0 KiB, [^\n]*\n"));
    const CommandOutcome_t restore = Run({"restore", "disk.dset", "back.vmdk"});
    EXPECT_SUCCEEDS(restore);
    EXPECT_EQ(restore.output, "File     back.vmdk\n"
                              "Disk     128.0 KiB\n"
                              "Written  8.0 KiB in 3 blocks\n");
}

TEST_F(CommandOutput, VerifySaysWhatItProved) {
    MakeSet();
    const CommandOutcome_t alone = Run({"verify", "disk.dset"});
    EXPECT_SUCCEEDS(alone);
    EXPECT_EQ(alone.output, "disk.dset: sound, 3 blocks with 12.0 KiB\n");
    const CommandOutcome_t against = Run({"verify", "disk.dset", "--against", "disk.vmdk"});
    EXPECT_SUCCEEDS(against);
    EXPECT_EQ(against.output, "disk.dset: sound, 3 blocks with 12.0 KiB; disk.vmdk holds the same\n");
}

TEST_F(CommandOutput, QuietCommandsPrintNothingButWhatIsWrong) {
    MakeSparse();
    for (const std::string option : {"--quiet", "-q"}) {
        SCOPED_TRACE(option);
        for (const std::vector<std::string>& words :
             {std::vector<std::string>{"backup", "-f", "disk.vmdk", "disk.dset"},
              std::vector<std::string>{"verify", "disk.dset", "--against", "disk.vmdk"},
              std::vector<std::string>{"restore", "-f", "disk.dset", "back.vmdk"}}) {
            std::vector<std::string> arguments = words;
            arguments.push_back(option);
            const CommandOutcome_t outcome = Run(arguments);
            EXPECT_SUCCEEDS(outcome);
            EXPECT_EQ(outcome.output, "");
        }
        EXPECT_FAILS_WITH(Run({"restore", "disk.dset", "disk.vmdk", option}), 1, "exists already");
    }
}

TEST_F(CommandOutput, NamesFromADiskDoNotReachTheTerminalAsCommands) {
    const std::string name = "\x1B]0;title\x07\nImage      other\xC2\x9B.vmdk";
    const std::string printed = R"(\x1B]0;title\x07\x0AImage      other)"
                                "\xC2"
                                R"(\x9B.vmdk)";
    MakeSparse(name);
    EXPECT_THAT(Run({"info", name}).output, HasSubstr("Image      " + printed + "\n"));
    ASSERT_EQ(Run({"backup", name, "disk.dset"}).exitCode, 0);
    EXPECT_THAT(Run({"list", "disk.dset"}).output, HasSubstr("Image      " + printed + "\n"));
    EXPECT_FAILS_WITH(Run({"verify", name}), 1, printed + ": is no backup set\n");
    EXPECT_THAT(Run({"verify", "disk.dset", "--against", name}).output, HasSubstr(printed + " holds the same\n"));
}

TEST_F(CommandOutput, AReaderThatGoesAwayStopsTheCommandAndHarmsNothing) {
    MakeSet();
    CPipe pipe;
    pipe.CloseReading();
    const CommandOutputs_t toNobody{pipe.Writing(), -1};
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"--help"}, std::vector<std::string>{"info", "disk.vmdk"},
          std::vector<std::string>{"list", "disk.dset", "--json"},
          std::vector<std::string>{"restore", "disk.dset", "back.vmdk"}}) {
        SCOPED_TRACE(testing::PrintToString(words));
        const CommandOutcome_t outcome = RunCommand(words, m_Dir.Path(), toNobody);
        EXPECT_EQ(outcome.signal, SIGPIPE);
        EXPECT_THAT(outcome.errorOutput, IsEmpty());
    }
    EXPECT_EQ(m_Dir.Read("back.vmdk"), m_Dir.Read("disk.vmdk"));
    EXPECT_EQ(m_Dir.Entries(), (std::vector<std::string>{"back.vmdk", "disk.dset", "disk.vmdk"}));
}

TEST_F(CommandOutput, AReaderThatGoesAwayIsAFailureWhereItsSignalIsIgnored) {
    MakeSparse();
    CPipe pipe;
    pipe.CloseReading();
    CRunningCommand command({"info", "disk.vmdk"}, m_Dir.Path(), {pipe.Writing(), -1}, {SIGPIPE});
    EXPECT_FAILS_WITH(command.Wait(), 1, "the standard output: Broken pipe");
}

TEST_F(CommandOutput, AResultThatCannotBeWrittenIsAFailure) {
    MakeSparse();
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    EXPECT_FAILS_WITH(RunCommand({"info", "disk.vmdk"}, m_Dir.Path(), {full, -1}), 1,
                      "the standard output: No space left on device");
    EXPECT_FAILS_WITH(RunCommand({"--help"}, m_Dir.Path(), {full, -1}), 1,
                      "the standard output: No space left on device");
    close(full);
}

}  // namespace
