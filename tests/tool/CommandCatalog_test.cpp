#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/agent/CatalogFiles.h"
#include "tests/tool/CommandFixture.h"

// Sets with a catalogue on the command line.

namespace {

using nlohmann::json;

constexpr uint64_t Second = 10'000'000;
constexpr uint64_t Year2026 = 134116992000000000;  // its start

CNtfsFileRecordBuilder CatalogFile(const std::u16string& name, uint64_t parent, uint64_t time) {
    NtfsStandardInformationFields_t fields;
    fields.creation = fields.modification = fields.recordChange = fields.access = time;
    return CNtfsFileRecordBuilder().Add(NtfsInformationOf(fields)).Add(NtfsNameOf(name, NtfsReference(parent)));
}

class CommandCatalog : public CCommandFixture {
protected:
    // A disk whose volume has a few files of different sizes and times.
    static CNtfsVolumeBuilder Volume() {
        return CNtfsVolumeBuilder()
            .Record(40, CatalogFile(u"Letter.txt", 5, Year2026 + 5 * Second).Add(NtfsDataOf("Dear reader")))
            .Record(41, CatalogFile(u"folder", 5, Year2026).Directory())
            .Record(42, CatalogFile(u"letter2.TXT", 41, Year2026 - 1).Add(NtfsDataOf(std::string(100, 'l'))))
            .Record(43, CatalogFile(u"large.bin", 41, 0)
                            .Add(CNtfsAttributeBuilder::NonResident(NtfsDataType, {{64, 3}}, 10000)))
            .Record(44,
                    CatalogFile(u"link", 5, Year2026 + Second).Add(NtfsReparsePointOf(0xA000000C)).Add(NtfsDataOf("")));
    }

    void MakeDisk() const { Volume().VolumeImage().WriteTo(m_Dir, "disk.raw"); }

    void BackUp() const {
        MakeDisk();
        EXPECT_SUCCEEDS(Run({"backup", "-q", "--catalog", "--type", "raw", "disk.raw", "disk.dset"}));
        std::filesystem::remove(m_Dir.File("disk.raw"));
    }

    // The lines that the command prints.
    std::vector<std::string> Lines(const std::vector<std::string>& arguments) const {
        const CommandOutcome_t outcome = Run(arguments);
        EXPECT_SUCCEEDS(outcome);
        std::vector<std::string> lines;
        std::istringstream all(outcome.output);
        for (std::string line; std::getline(all, line);)
            lines.push_back(line);
        return lines;
    }
};

TEST_F(CommandCatalog, IsCollectedAndAnswersWithoutTheDisk) {
    MakeDisk();
    const CommandOutcome_t outcome = Run({"backup", "--catalog", "--type", "raw", "disk.raw", "disk.dset"});
    EXPECT_EQ(0, outcome.exitCode) << outcome.errorOutput;
    EXPECT_THAT(outcome.output, testing::ContainsRegex("Catalogue:? +5 files of 1 volume\n"));
    std::filesystem::remove(m_Dir.File("disk.raw"));
    EXPECT_EQ((std::vector<std::string>{"folder/", "folder/large.bin", "folder/letter2.TXT", "Letter.txt", "link"}),
              Lines({"ls", "disk.dset", "/", "-r"}));
    EXPECT_EQ((std::vector<std::string>{"large.bin", "letter2.TXT"}), Lines({"ls", "disk.dset", "folder"}));
    EXPECT_EQ((std::vector<std::string>{"Dear reader"}),
              Lines({"cat", "disk.dset", "--volume", "Volume1", "letter.TXT"}));
    EXPECT_SUCCEEDS(Run({"cp", "-q", "-r", "disk.dset", "/folder", "copy"}));
    EXPECT_EQ(std::string(100, 'l'), m_Dir.Read("copy/letter2.TXT"));
    EXPECT_EQ(10000U, m_Dir.Read("copy/large.bin").size());
    EXPECT_EQ("link", RunForJson({"stat", "disk.dset", "link", "--json"}).value("type", ""));
}

TEST_F(CommandCatalog, IsToldOfAsJson) {
    MakeDisk();
    const json result = RunForJson({"backup", "--json", "--catalog", "--type", "raw", "disk.raw", "disk.dset"});
    EXPECT_EQ((json{{"volumes", 1}, {"files", 5}, {"problems", json::array()}}), result["catalog"]);
    EXPECT_FALSE(RunForJson({"backup", "--json", "--type", "raw", "disk.raw", "other.dset"}).contains("catalog"));
}

TEST_F(CommandCatalog, ThatIsNotWholeKeepsTheDisksAndFails) {
    Volume()
        .Record(30, CNtfsFileRecordBuilder().EndMarker(std::string(4, '\x01')))
        .VolumeImage()
        .WriteTo(m_Dir, "disk.raw");
    const CommandOutcome_t outcome = Run({"backup", "-q", "--catalog", "--type", "raw", "disk.raw", "disk.dset"});
    EXPECT_FAILS_WITH(outcome, 1, "Volume1: file record 30: File Record is Corrupted");
    EXPECT_THAT(outcome.errorOutput, testing::HasSubstr("disk.dset: holds the disks, but the catalogue isn't whole"));
    EXPECT_SUCCEEDS(Run({"restore", "-q", "disk.dset", "back.raw"}));
    EXPECT_SAME_BYTES(m_Dir.Read("disk.raw"), m_Dir.Read("back.raw"));
    EXPECT_EQ(5U, Lines({"ls", "disk.dset", "-r"}).size());
}

// A program that was copied to a machine alone.
TEST_F(CommandCatalog, IsCollectedWithoutTheTreeLibrary) {
    MakeDisk();
    std::filesystem::copy(DISKSTREAM_COMMAND, m_Dir.File("alone"));
    const std::string command =
        "cd '" + m_Dir.Path() + "' && ./alone backup -q --catalog --type raw disk.raw disk.dset 2> said";
    EXPECT_EQ(0, std::system(command.c_str()));
    EXPECT_THAT(m_Dir.Read("said"), testing::HasSubstr("the directory tree library can't be used"));
    EXPECT_EQ((std::vector<std::string>{"folder/", "folder/large.bin", "folder/letter2.TXT", "Letter.txt", "link"}),
              Lines({"ls", "disk.dset", "/", "-r"}));
    EXPECT_EQ(10000U, Run({"cat", "disk.dset", "folder/large.bin"}).output.size());
}

TEST_F(CommandCatalog, FindsFilesByWhatIsAskedFor) {
    BackUp();
    using Words_t = std::vector<std::string>;
    const Words_t all = {"folder/", "folder/large.bin", "folder/letter2.TXT", "Letter.txt", "link"};
    const struct {
        Words_t filters;
        Words_t found;
    } rows[] = {
        {{}, all},
        {{"--name", "*"}, all},
        {{"--name", "*.txt"}, {"folder/letter2.TXT", "Letter.txt"}},
        {{"--name", "LETTER?.txt"}, {"folder/letter2.TXT"}},
        {{"--name", "none"}, {}},
        {{"--min-size", "11"}, {"folder/large.bin", "folder/letter2.TXT", "Letter.txt"}},
        {{"--min-size", "12"}, {"folder/large.bin", "folder/letter2.TXT"}},
        {{"--max-size", "0"}, {"link"}},
        {{"--max-size", "100"}, {"folder/letter2.TXT", "Letter.txt", "link"}},
        {{"--max-size", "99"}, {"Letter.txt", "link"}},
        {{"--min-size", "1K", "--max-size", "1M"}, {"folder/large.bin"}},
        {{"--changed-since", "2026-01-01"}, {"folder/", "Letter.txt", "link"}},
        {{"--changed-since", "2026-01-01T00:00:05"}, {"Letter.txt"}},
        {{"--changed-since", "2026-01-01T00:00:06Z"}, {}},
        {{"--changed-before", "2026-01-01"}, {"folder/large.bin", "folder/letter2.TXT"}},
        {{"--changed-before", "2026-01-01T00:00:01"}, {"folder/", "folder/large.bin", "folder/letter2.TXT"}},
        {{"--kind", "file"}, {"folder/large.bin", "folder/letter2.TXT", "Letter.txt"}},
        {{"--kind", "directory"}, {"folder/"}},
        {{"--kind", "link"}, {"link"}},
        {{"--kind", "file", "--name", "l*", "--max-size", "50"}, {"Letter.txt"}},
        {{"/folder"}, {"large.bin", "letter2.TXT"}},
        {{"/folder", "--name", "*.bin"}, {"large.bin"}},
    };
    for (const auto& row : rows) {
        Words_t words = {"find", "disk.dset"};
        words.insert(words.end(), row.filters.begin(), row.filters.end());
        EXPECT_EQ(row.found, Lines(words)) << testing::PrintToString(row.filters);
        words.emplace_back("--json");
        const json object = RunForJson(words);
        EXPECT_EQ(row.found.size(), object["entries"].size()) << testing::PrintToString(row.filters);
        EXPECT_EQ(json::array(), object["problems"]);
    }
    EXPECT_THAT(Lines({"find", "disk.dset", "--name", "Letter.txt", "-l"}).at(0),
                testing::ContainsRegex("^-+ +11  2026-01-01 00:00:05  Letter.txt$"));
}

TEST_F(CommandCatalog, RefusesWhatIsWrongOnTheCommandLine) {
    BackUp();
    MakeDisk();
    const struct {
        std::vector<std::string> arguments;
        const char* words;
    } rows[] = {
        {{"backup", "--catalog", "disk.raw"}, "SET"},
        {{"ls", "disk.raw"}, "--volume"},
        {{"find"}, "DISK"},
        {{"find", "disk.dset", "/folder", "more"}, "one argument too many: more"},
        {{"find", "disk.dset", "--kind", "dog"}, "dog"},
        {{"find", "disk.dset", "--changed-since", "yesterday"}, "must be a time such as"},
        {{"find", "disk.dset", "--changed-before", "2026-02-30"}, "must be a time such as"},
        {{"find", "disk.dset", "--min-size", "many"}, "--min-size"},
        {{"find", "disk.dset", "--max-size", "-1"}, "--max-size"},
        {{"find", "disk.dset", "--name"}, "--name"},
        {{"cat", "disk.dset"}, "behind the set PATH is missing"},
        {{"cat", "disk.dset", "--volume", "Volume1"}, "behind --volume NAME PATH is missing"},
        {{"cat", "disk.dset", ""}, "one of the names is empty"},
        {{"ls", "--volume", "Volume1", "disk.dset"}, "the disks stand in front of --volume"},
    };
    for (const auto& row : rows)
        EXPECT_FAILS_WITH(Run(row.arguments), 2, row.words);
}

TEST_F(CommandCatalog, NamesWhatIsNotThere) {
    MakeSet();
    std::filesystem::rename(m_Dir.File("disk.dset"), m_Dir.File("without.dset"));
    BackUp();
    m_Dir.Write("text", "SQLite format 3 is what it isn't");
    const struct {
        std::vector<std::string> arguments;
        const char* words;
    } rows[] = {
        {{"ls", "without.dset", "--volume", "Volume1"}, "has no catalogue of files; `diskstream backup --catalog`"},
        {{"ls", "without.dset"}, "has no catalogue of files"},
        {{"ls", "disk.dset", "--volume", "Volume9"}, "Volume9: no volume of disk.dset has that name; it has Volume1"},
        {{"ls", "disk.dset", "/none"}, "Volume1: there is no /none"},
        {{"find", "disk.dset", "Letter.txt"}, "Letter.txt: is no directory"},
        {{"find", "disk.dset", "/none"}, "there is no /none"},
        {{"cat", "disk.dset", "folder"}, "folder"},
        {{"cat", "disk.dset", "Letter.txt", "--stream", "none"}, "has no such stream"},
        {{"ls", "text", "--volume", "Volume1"}, "text"},
    };
    for (const auto& row : rows)
        EXPECT_FAILS_WITH(Run(row.arguments), 1, row.words);
}

TEST_F(CommandCatalog, OfSeveralVolumesNeedsOneToBeNamed) {
    Volume().VolumeImage().WriteTo(m_Dir, "one.raw");
    CNtfsVolumeBuilder()
        .Record(40, CatalogFile(u"other", 5, 0).Add(NtfsDataOf("2nd")))
        .VolumeImage()
        .WriteTo(m_Dir, "two.raw");
    EXPECT_SUCCEEDS(Run({"backup", "-q", "--catalog", "--type", "raw", "one.raw", "two.raw", "both.dset"}));
    std::filesystem::remove(m_Dir.File("one.raw"));
    std::filesystem::remove(m_Dir.File("two.raw"));
    EXPECT_FAILS_WITH(Run({"ls", "both.dset"}), 1, "name one with --volume: Volume1, Volume2");
    EXPECT_EQ((std::vector<std::string>{"other"}), Lines({"ls", "both.dset", "--volume", "Volume2"}));
    EXPECT_EQ("2nd", Run({"cat", "both.dset", "--volume", "Volume2", "other"}).output);
    EXPECT_EQ(3U, Lines({"ls", "both.dset", "--volume", "Volume1"}).size());
    EXPECT_FAILS_WITH(Run({"ls", "both.dset", "--volume", "Volume3"}), 1, "it has Volume1, Volume2");
}

TEST_F(CommandCatalog, TellsThatTheVolumesOwnFilesAreNotInIt) {
    BackUp();
    const CommandOutcome_t outcome = Run({"ls", "disk.dset", "--all"});
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_THAT(outcome.errorOutput, testing::HasSubstr("leaves the files out that make the volume itself"));
    EXPECT_THAT(outcome.output, testing::HasSubstr("Letter.txt\n"));
}

}  // namespace
