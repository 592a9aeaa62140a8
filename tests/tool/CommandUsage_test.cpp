#include <sstream>

#include "agent/DiskImage.h"
#include "agent/Version.h"
#include "tests/tool/CommandFixture.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using CommandUsage = CCommandFixture;

const std::vector<std::string> Commands{"info",    "backup",  "restore",       "verify",   "list",       "partitions",
                                        "volumes", "read",    "create-disk",   "ls",       "stat",       "cat",
                                        "cp",      "streams", "export-stream", "security", "consolidate"};

TEST_F(CommandUsage, HelpTellsOfEveryCommandWithExamples) {
    for (const std::string option : {"--help", "-h"}) {
        const CommandOutcome_t help = Run({option});
        EXPECT_SUCCEEDS(help);
        for (const std::string& command : Commands)
            EXPECT_THAT(help.output, HasSubstr("\n  " + command + " "));
        EXPECT_THAT(help.output, HasSubstr("Examples:\n  diskstream info disk.vmdk\n"));
        EXPECT_THAT(help.output, HasSubstr("Exit codes: 0 success, 1 failure, 2 usage."));
    }
}

TEST_F(CommandUsage, HelpOfEachCommandHasAnExampleAndFitsATerminal) {
    for (const std::string& command : Commands) {
        SCOPED_TRACE(command);
        const CommandOutcome_t help = Run({command, "--help"});
        EXPECT_SUCCEEDS(help);
        EXPECT_THAT(help.output, HasSubstr("Usage: diskstream " + command + " [OPTIONS] "));
        EXPECT_THAT(help.output, HasSubstr("\n  diskstream " + command + " "));
        std::istringstream lines(help.output);
        for (std::string line; std::getline(lines, line);)
            EXPECT_LE(line.size(), 110U) << line;
    }
}

TEST_F(CommandUsage, HelpNamesTheKindsOfImages) {
    const CommandOutcome_t help = Run({"backup", "--help"});
    for (const std::string& kind : SelectableDiskTypeNames())
        EXPECT_THAT(help.output, HasSubstr(" " + kind));
}

TEST_F(CommandUsage, VersionIsThatOfTheLibrary) {
    const CommandOutcome_t version = Run({"--version"});
    EXPECT_SUCCEEDS(version);
    EXPECT_EQ(version.output, std::string("diskstream ") + DiskstreamVersion() + "\n");
}

TEST_F(CommandUsage, MisuseEndsWithTwoAndSaysWhatIsWrongAndWhereToRead) {
    MakeSet();
    const struct {
        std::vector<std::string> arguments;
        const char* words;
        const char* help;
    } rows[] = {
        {{}, "a command is missing", "diskstream --help"},
        {{"restor"}, "restor is no command", "diskstream --help"},
        {{"--bogus"}, "no such option: --bogus", "diskstream --help"},
        {{"--json", "info", "disk.vmdk"}, "--json stands in front of the command", "diskstream info --help"},
        {{"info"}, "IMAGE is required", "diskstream info --help"},
        {{"backup", "disk.vmdk"}, "SET is required", "diskstream backup --help"},
        {{"restore", "disk.dset"}, "TARGET is required", "diskstream restore --help"},
        {{"verify"}, "SET is required", "diskstream verify --help"},
        {{"list"}, "SET is required", "diskstream list --help"},
        {{"verify", "--agianst", "disk.vmdk"}, "no such option: --agianst", "diskstream verify --help"},
        {{"partitions"}, "DISK is required", "diskstream partitions --help"},
        {{"volumes"}, "DISK is required", "diskstream volumes --help"},
        {{"read"}, "DISK is required", "diskstream read --help"},
        {{"create-disk", "--size", "1M"}, "TARGET is required", "diskstream create-disk --help"},
        {{"list", "disk.dset", "more"}, "one argument too many: more", "diskstream list --help"},
        {{"info", "disk.vmdk", "--force"}, "no such option: --force", "diskstream info --help"},
        {{"list", ""}, "SET: the name is empty", "diskstream list --help"},
        {{"verify", "disk.dset", "--against", ""}, "--against: the name is empty", "diskstream verify --help"},
        {{"info", "disk.vmdk", "--type", "floppy"}, "there is no kind floppy", "diskstream info --help"},
        {{"info", "disk.vmdk", "--type", "vhdFixd"}, "there is no kind vhdFixd", "diskstream info --help"},
        {{"restore", "disk.dset", "x", "--as", "qcow2"}, "--as: must be raw", "diskstream restore --help"},
        {{"backup", "--base", "disk.dset", "nbd://h/e", "x"}, "one needs the other", "diskstream backup --help"},
        {{"backup", "--changed-since", "b", "nbd://h/e", "x"}, "one needs the other", "diskstream backup --help"},
        {{"backup", "--changed-since", "b", "--base", "disk.dset", "nbd://h/e", "nbd://h/f", "x"},
         "with one disk only",
         "diskstream backup --help"},
        {{"backup", "--patience", "0", "nbd://h/e", "x"}, "--patience", "diskstream backup --help"},
        {{"consolidate", "disk.dset"}, "NEW is required", "diskstream consolidate --help"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.arguments));
        const CommandOutcome_t outcome = Run(row.arguments);
        EXPECT_FAILS_WITH(outcome, 2, row.words);
        EXPECT_THAT(outcome.errorOutput, HasSubstr(std::string("\nRun `") + row.help + "` for more.\n"));
    }
    EXPECT_EQ(m_Dir.Entries(), (std::vector<std::string>{"disk.dset", "disk.vmdk"}));
}

TEST_F(CommandUsage, CompressionThatDoesNotExistIsMisuse) {
    MakeSparse();
    for (const char* const bad : {"", "gzip", "zstd:", "zstd:0", "zstd:23", "zstd:99", "zstd:-1", "zstd:1x", "zstd:999",
                                  "none:1", "Zstd", "zstd 3"}) {
        SCOPED_TRACE(bad);
        EXPECT_FAILS_WITH(Run({"backup", "disk.vmdk", "disk.dset", "--compression", bad}), 2,
                          "--compression: must be none, zstd or zstd:LEVEL with a level from 1 to 22");
    }
    EXPECT_EQ(m_Dir.Entries(), (std::vector<std::string>{"disk.vmdk"}));
}

TEST_F(CommandUsage, FailuresEndWithOneAndSayWhatWhereAndWhatToDo) {
    MakeSet();
    MakeFlat("elsewhere.vmdk");
    m_Dir.Write("text", "Nothing that anybody would call a disk.\n");
    const struct {
        std::vector<std::string> arguments;
        const char* words;
    } rows[] = {
        {{"info", "none.vmdk"}, "none.vmdk: No such file or directory"},
        {{"info", "text"},
         "text: is no disk image of a known kind; if it holds the plain bytes of a disk, say --type raw"},
        {{"info", "."}, ".: Is a directory"},
        {{"info", "flat.vmdk"}, "elsewhere.vmdk: No such file or directory"},
        {{"backup", "none.vmdk", "x.dset"}, "none.vmdk: No such file or directory"},
        {{"backup", "disk.vmdk", "disk.dset"}, "disk.dset: exists already; give another target, or --force"},
        {{"backup", "disk.vmdk", "nowhere/x.dset"}, "nowhere/x.dset: its directory doesn't exist"},
        {{"backup", "disk.vmdk", "."}, ".: exists and is no regular file"},
        {{"backup", "disk.dset", "x.dset"}, "disk.dset: is no disk image"},
        {{"verify", "none.dset"}, "none.dset: No such file or directory"},
        {{"verify", "disk.vmdk"}, "disk.vmdk: is no backup set"},
        {{"verify", "disk.dset", "--against", "none.vmdk"}, "none.vmdk: No such file or directory"},
        {{"list", "none.dset"}, "none.dset: No such file or directory"},
        {{"list", "text"}, "text: is no backup set"},
        {{"restore", "none.dset", "x.vmdk"}, "none.dset: No such file or directory"},
        {{"restore", "disk.dset", "disk.vmdk"}, "disk.vmdk: exists already; give another target, or --force"},
        {{"restore", "disk.dset", "nowhere/x.vmdk"}, "nowhere/x.vmdk: its directory doesn't exist"},
        {{"restore", "disk.dset", "nowhere/x.raw", "--as", "raw"}, "nowhere/x.raw: its directory doesn't exist"},
    };
    const std::vector<std::string> before = m_Dir.Entries();
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.arguments));
        EXPECT_FAILS_WITH(Run(row.arguments), 1, row.words);
    }
    EXPECT_EQ(m_Dir.Entries(), before);
}

TEST_F(CommandUsage, DamageAndDifferencesAreFailures) {
    MakeSet();
    CVmdkSparseBuilder().Grain(0, 'A').Grain(7, 'B').Grain(9, '\0').WriteTo(m_Dir, "other.vmdk");
    const CommandOutcome_t differing = Run({"verify", "disk.dset", "--against", "other.vmdk"});
    EXPECT_EQ(differing.exitCode, 1);
    EXPECT_THAT(differing.output, StartsWith("disk.dset: sound, "));
    EXPECT_THAT(differing.output, Not(HasSubstr("holds the same")));
    EXPECT_THAT(differing.errorOutput,
                StartsWith("diskstream: other.vmdk and the set disk.dset differ in 1 place:\n  "));

    DamageSet();
    EXPECT_FAILS_WITH(Run({"verify", "disk.dset"}), 1, "disk.dset: the set is damaged: ");
    EXPECT_FAILS_WITH(Run({"restore", "disk.dset", "back.vmdk"}), 1, "disk.dset: the set is damaged: ");
    EXPECT_EQ(m_Dir.Entries(), (std::vector<std::string>{"disk.dset", "disk.vmdk", "other.vmdk"}));
}

}  // namespace
