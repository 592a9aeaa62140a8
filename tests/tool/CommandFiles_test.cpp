#include <filesystem>

#include "tests/support/NtfsVolumeBuilder.h"
#include "tests/support/SameBytes.h"
#include "tests/tool/CommandFixture.h"

// The commands for the files of an NTFS volume.

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

using Words_t = std::vector<std::string>;
using NtfsAttribute = CNtfsAttributeBuilder;
using NtfsRecord = CNtfsFileRecordBuilder;

constexpr uint32_t FolderBit = 0x10000000;
constexpr uint64_t FirstLcn = 64;

CNtfsIndexEntryBuilder FileEntry(uint64_t frn, const std::u16string& name, uint32_t attributes = 0x20,
                                 uint16_t reuseCount = 1) {
    NtfsFileNameFields_t fields;
    fields.name = name;
    fields.attributes = attributes;
    return CNtfsIndexEntryBuilder::Named(NtfsReference(frn, reuseCount), NtfsFileNameValue(fields));
}

// 2020-01-02 03:04:05.5, and an hour, two and three later.
NtfsAttribute FileInformation(uint32_t attributes) {
    constexpr uint64_t created = 132224078455000000;
    constexpr uint64_t hour = 36'000'000'000;
    NtfsStandardInformationFields_t fields;
    fields.creation = created;
    fields.modification = created + hour;
    fields.recordChange = created + 2 * hour;
    fields.access = created + 3 * hour;
    fields.attributes = attributes;
    fields.securityId = 300;
    return NtfsAttribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(fields));
}

NtfsRecord FileWith(const std::string& bytes) {
    return NtfsRecord().Add(FileInformation(0x21)).Add(NtfsAttribute::Resident(NtfsDataType, bytes));
}

NtfsRecord FolderWith(const std::vector<CNtfsIndexEntryBuilder>& entries) {
    CNtfsIndexRootBuilder index;
    for (const CNtfsIndexEntryBuilder& entry : entries)
        index.Add(entry);
    return NtfsRecord().Directory().Add(NtfsAttribute::Resident(NtfsIndexRootType, index.Bytes()).Name(u"$I30"));
}

// Every kind of file: "Folder" with "a.txt" and "deep", which holds "b.txt"; "streams", "link", "encrypted" and one
// whose name tries to clear the screen.
class CommandFiles : public CCommandFixture {
protected:
    static CNtfsVolumeBuilder Volume() {
        CNtfsVolumeBuilder volume;
        volume.Descriptor(300, SecurityDescriptorBytes("OG"));
        volume.RootEntry(FileEntry(30, u"Folder", FolderBit))
            .RootEntry(FileEntry(42, u"\x1b[2Jclear"))
            .RootEntry(FileEntry(43, u"encrypted"))
            .RootEntry(FileEntry(44, u"link"))
            .RootEntry(FileEntry(45, u"streams"));
        volume.Record(30, FolderWith({FileEntry(40, u"a.txt"), FileEntry(31, u"deep", FolderBit)}));
        volume.Record(31, FolderWith({FileEntry(41, u"b.txt")}));
        volume.Record(40, FileWith("contents of a\n")).Record(41, FileWith("b")).Record(42, FileWith("clear"));
        volume.Record(43, NtfsRecord().Add(NtfsAttribute::Resident(NtfsDataType, "x").Flags(0x4000)));
        volume.Record(
            44, FileWith("").Add(NtfsAttribute::Resident(NtfsReparsePointType, LittleEndianBytes(0xA000000C, 8))));
        volume.Record(45, FileWith("main")
                              .Add(NtfsAttribute::Resident(NtfsDataType, "named").Name(u"n\u00E4me"))
                              .Add(NtfsAttribute::NonResident(NtfsDataType, {{FirstLcn, 1}, {NtfsHole, 15}}, 50'000)
                                       .Name(u"packed")
                                       .Flags(0x8001)
                                       .CompressionUnit(4)));
        return volume;
    }

    // The folder's names stand in a damaged index as well.
    static CNtfsVolumeBuilder Damaged() {
        CNtfsVolumeBuilder volume = Volume();
        volume.Record(30, FolderWith({FileEntry(40, u"a.txt"), FileEntry(41, u"b.txt").SubNode(0),
                                      FileEntry(41, u"old", 0x20, 9)}));
        return volume;
    }

    void Make(const CNtfsVolumeBuilder& volume = Volume()) const { volume.Image().WriteTo(m_Dir, "disk.raw"); }

    // The command on the volume of the disk.
    static Words_t On(const std::string& command, const Words_t& rest) {
        Words_t words{command, "disk.raw", "--volume", "Volume1"};
        words.insert(words.end(), rest.begin(), rest.end());
        return words;
    }

    CommandOutcome_t RunOn(const std::string& command, const Words_t& rest) const { return Run(On(command, rest)); }
};

const Words_t FileCommands{"ls", "stat", "find", "cat", "cp", "streams", "export-stream", "security"};

// --- Arguments.

TEST_F(CommandFiles, AreToldOfInTheHelp) {
    const CommandOutcome_t help = Run({"--help"});
    for (const std::string& command : FileCommands) {
        SCOPED_TRACE(command);
        EXPECT_THAT(help.output, HasSubstr("\n  " + command + " "));
        const CommandOutcome_t own = Run({command, "--help"});
        EXPECT_SUCCEEDS(own);
        EXPECT_THAT(own.output, HasSubstr("Usage: diskstream " + command + " [OPTIONS] SET [--volume NAME] "));
        EXPECT_THAT(own.output, HasSubstr("\n       diskstream " + command + " [OPTIONS] DISK... --volume NAME "));
        EXPECT_THAT(own.output, HasSubstr("Examples:\n  diskstream " + command + " "));
    }
}

TEST_F(CommandFiles, MisuseEndsWithTwo) {
    Make();
    const struct {
        Words_t arguments;
        const char* words;
    } rows[] = {
        {{"ls"}, "DISK"},
        {{"ls", "disk.raw"}, "--volume"},
        {{"ls", "--volume", "Volume1", "disk.raw"}, "the disks stand in front of --volume"},
        {{"ls", "disk.raw", "--volume"}, "--volume"},
        {On("ls", {"/Folder", "/"}), "one argument too many: /"},
        {On("stat", {}), "behind --volume NAME PATH is missing"},
        {On("cat", {}), "behind --volume NAME PATH is missing"},
        {On("streams", {}), "behind --volume NAME PATH is missing"},
        {On("security", {}), "behind --volume NAME PATH is missing"},
        {On("cp", {"/Folder/a.txt"}), "behind --volume NAME PATH TARGET is missing"},
        {On("export-stream", {"/Folder/a.txt"}), "behind --volume NAME PATH TARGET is missing"},
        {On("cp", {"/Folder/a.txt", "copy", "more"}), "one argument too many: more"},
        {On("cat", {""}), "one of the names is empty"},
        {{"ls", "", "--volume", "Volume1"}, "one of the names is empty"},
        {On("cat", {"/Folder/a.txt", "--stream", ""}), "the name is empty"},
        {On("ls", {"--nonsense"}), "--nonsense"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.arguments));
        EXPECT_FAILS_WITH(Run(row.arguments), 2, row.words);
    }
    EXPECT_EQ(Words_t{"disk.raw"}, m_Dir.Entries());
}

TEST_F(CommandFiles, MayHaveTheirOptionsAnywhere) {
    Make();
    for (const Words_t& arguments : {Words_t{"ls", "-r", "disk.raw", "--volume", "Volume1", "/Folder"},
                                     {"ls", "disk.raw", "-r", "--volume=Volume1", "/Folder"},
                                     {"ls", "disk.raw", "--volume", "Volume1", "-r", "/Folder"},
                                     {"ls", "disk.raw", "--volume", "Volume1", "/Folder", "-r"}}) {
        const CommandOutcome_t outcome = Run(arguments);
        EXPECT_SUCCEEDS(outcome);
        EXPECT_EQ(outcome.output, "a.txt\ndeep/\ndeep/b.txt\n");
    }
}

TEST_F(CommandFiles, WhatIsNotThereEndsWithOne) {
    Make();
    const struct {
        Words_t arguments;
        const char* words;
    } rows[] = {
        {{"ls", "none.raw", "--volume", "Volume1"}, "none.raw"},
        {{"ls", "disk.raw", "--volume", "Volume9"}, "Volume9: no volume of the disks has that name"},
        {On("ls", {"/gone"}), "there is no /gone"},
        {On("stat", {"/Folder/gone"}), "there is no /Folder/gone"},
        {On("cat", {"/Folder/a.txt/b"}), "/Folder/a.txt is no directory"},
        {On("cat", {"/Folder"}), "/Folder: is a directory"},
        {On("cat", {"/streams", "--stream", "gone"}), "no such stream"},
        {On("cat", {"/encrypted"}), "is encrypted"},
        {On("cp", {"/encrypted", "copy"}), "is encrypted"},
        {On("cp", {"/link", "copy"}), "is a link"},
        {On("cp", {"/Folder", "copy"}), "is a directory; copy it with --recursive"},
        {On("export-stream", {"/encrypted", "copy"}), "is encrypted"},
        {On("export-stream", {"/encrypted", "-"}), "is encrypted"},
        {On("security", {"/encrypted"}), "no security descriptor"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.arguments));
        EXPECT_FAILS_WITH(Run(row.arguments), 1, row.words);
    }
    EXPECT_EQ(Words_t{"disk.raw"}, m_Dir.Entries());
}

TEST_F(CommandFiles, FailuresAreJsonWhereItIsAskedFor) {
    Make();
    for (const char* const command : {"ls", "stat", "streams", "security"})
        EXPECT_THAT(RunForJson(On(command, {"/gone", "--json"}), 1).at("error").get<std::string>(),
                    HasSubstr("there is no /gone"));
    EXPECT_THAT(RunForJson(On("cp", {"/gone", "copy", "--json"}), 1).at("error").get<std::string>(),
                HasSubstr("there is no /gone"));
}

// --- ls.

TEST_F(CommandFiles, LsListsNamesInTheOrderOfTheIndex) {
    Make();
    for (const Words_t& path : {Words_t{}, {"/"}, {"\\"}}) {
        const CommandOutcome_t outcome = RunOn("ls", path);
        EXPECT_SUCCEEDS(outcome);
        EXPECT_EQ(outcome.output, "Folder/\n\\x1B[2Jclear\nencrypted\nlink\nstreams\n");
    }
    EXPECT_EQ(RunOn("ls", {"\\folder\\DEEP"}).output, "b.txt\n");
}

TEST_F(CommandFiles, LsListsAllThatLiesBelow) {
    Make();
    const CommandOutcome_t outcome = RunOn("ls", {"--recursive"});
    EXPECT_SUCCEEDS(outcome);
    EXPECT_EQ(outcome.output, "Folder/\nFolder/a.txt\nFolder/deep/\nFolder/deep/b.txt\n\\x1B[2Jclear\nencrypted\n"
                              "link\nstreams\n");
}

TEST_F(CommandFiles, LsShowsTheVolumesOwnFilesWhenAskedFor) {
    CNtfsVolumeBuilder volume;
    Make(volume.Root(CNtfsIndexRootBuilder().Add(FileEntry(3, u"$Volume")).Add(FileEntry(40, u"file")))
             .Record(40, FileWith("x")));
    EXPECT_EQ(RunOn("ls", {}).output, "file\n");
    EXPECT_EQ(RunOn("ls", {"--all"}).output, "$Volume\nfile\n");
}

TEST_F(CommandFiles, LsShowsAttributesSizesAndTimes) {
    Make();
    const CommandOutcome_t outcome = RunOn("ls", {"-l", "/"});
    EXPECT_SUCCEEDS(outcome);
    EXPECT_EQ(outcome.output, "d--------              0  -                    Folder/\n"
                              "-r--a----              5  2020-01-02 04:04:05  \\x1B[2Jclear\n"
                              "---------              1  -                    encrypted\n"
                              "-r--a----              0  2020-01-02 04:04:05  link\n"
                              "-r--a----              4  2020-01-02 04:04:05  streams\n");
}

TEST_F(CommandFiles, LsOfAFileIsThatFile) {
    Make();
    const CommandOutcome_t outcome = RunOn("ls", {"/Folder/a.txt"});
    EXPECT_SUCCEEDS(outcome);
    EXPECT_EQ(outcome.output, "/Folder/a.txt\n");
    const json object = RunForJson(On("ls", {"--json", "/Folder/a.txt"}));
    EXPECT_EQ(object.at("entries").size(), 1U);
    EXPECT_EQ(object.at("entries")[0].at("path"), "/Folder/a.txt");
    EXPECT_EQ(object.at("entries")[0].at("bytes"), 14);
}

TEST_F(CommandFiles, LsIsJson) {
    Make();
    const json object = RunForJson(On("ls", {"--json", "/Folder"}));
    EXPECT_EQ(object.at("volume"), "Volume1");
    EXPECT_EQ(object.at("path"), "/Folder");
    EXPECT_EQ(object.at("problems"), json::array());
    ASSERT_EQ(object.at("entries").size(), 2U);
    EXPECT_EQ(object.at("entries")[0], json({{"path", "a.txt"},
                                             {"frn", 40},
                                             {"type", "file"},
                                             {"bytes", 14},
                                             {"attributes", 0x21},
                                             {"creation", "2020-01-02T03:04:05.5000000Z"},
                                             {"modification", "2020-01-02T04:04:05.5000000Z"},
                                             {"record_change", "2020-01-02T05:04:05.5000000Z"},
                                             {"access", "2020-01-02T06:04:05.5000000Z"},
                                             {"links", 0}}));
    EXPECT_EQ(object.at("entries")[1].at("type"), "directory");
    EXPECT_EQ(object.at("entries")[1].at("creation"), nullptr);
    const json empty = RunForJson(On("ls", {"--json"}));
    EXPECT_EQ(empty.at("path"), "/");
    EXPECT_EQ(empty.at("entries")[3].at("reparse_tag"), 0xA000000C);
    EXPECT_EQ(empty.at("entries")[3].at("type"), "link");
}

TEST_F(CommandFiles, LsOfADamagedDirectoryListsTheRestAndFails) {
    Make(Damaged());
    const CommandOutcome_t outcome = RunOn("ls", {"/Folder"});
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_EQ(outcome.output, "a.txt\nb.txt\nold\n");
    EXPECT_THAT(outcome.errorOutput, HasSubstr("diskstream: warning: Volume1: /: block 0 of its index is damaged\n"));
    EXPECT_THAT(outcome.errorOutput, HasSubstr("warning: old: Volume1: file record 41 belongs to another file by now"));
    EXPECT_THAT(outcome.errorOutput, HasSubstr("diskstream: the listing isn't whole"));
    const json object = RunForJson(On("ls", {"--json", "/Folder"}), 1);
    EXPECT_EQ(object.at("entries").size(), 3U);
    EXPECT_EQ(object.at("problems").size(), 2U);
    EXPECT_EQ(object.at("entries")[2].at("problem"), "Volume1: file record 41 belongs to another file by now");
}

// --- stat.

TEST_F(CommandFiles, StatTellsAllOfAFile) {
    Make();
    const CommandOutcome_t outcome = RunOn("stat", {"/Folder/a.txt"});
    EXPECT_SUCCEEDS(outcome);
    EXPECT_EQ(outcome.output, "Path            /Folder/a.txt\n"
                              "Type            file\n"
                              "Size            14 B (14 bytes)\n"
                              "Attributes      -r--a----\n"
                              "Created         2020-01-02T03:04:05.5000000Z\n"
                              "Changed         2020-01-02T04:04:05.5000000Z\n"
                              "Record changed  2020-01-02T05:04:05.5000000Z\n"
                              "Accessed        2020-01-02T06:04:05.5000000Z\n"
                              "File record     40\n"
                              "Names           0\n"
                              "Streams         1\n"
                              "Security id     300\n");
    EXPECT_THAT(RunOn("stat", {"/link"}).output, HasSubstr("Type            link\n"));
    EXPECT_THAT(RunOn("stat", {"/link"}).output, HasSubstr("Reparse point   0xA000000C\n"));
    EXPECT_THAT(RunOn("stat", {"/"}).output, HasSubstr("Created         unknown\n"));
    EXPECT_THAT(RunOn("stat", {"/\x1b[2Jclear"}).output, StartsWith("Path            /\\x1B[2Jclear\n"));
}

TEST_F(CommandFiles, StatIsJson) {
    Make();
    const json object = RunForJson(On("stat", {"/streams", "--json"}));
    EXPECT_EQ(object.at("path"), "/streams");
    EXPECT_EQ(object.at("frn"), 45);
    EXPECT_EQ(object.at("security_id"), 300);
    EXPECT_EQ(object.at("streams"), 3);
}

// --- cat and streams.

TEST_F(CommandFiles, CatWritesTheContentsAndNothingElse) {
    Make();
    const CommandOutcome_t outcome = RunOn("cat", {"Folder\\A.TXT"});
    EXPECT_SUCCEEDS(outcome);
    EXPECT_EQ(outcome.output, "contents of a\n");
    const CommandOutcome_t named = RunOn("cat", {"/streams", "--stream", "n\u00E4me"});
    EXPECT_SUCCEEDS(named);
    EXPECT_EQ(named.output, "named");
}

TEST_F(CommandFiles, StreamsAreListed) {
    Make();
    const CommandOutcome_t outcome = RunOn("streams", {"/streams"});
    EXPECT_SUCCEEDS(outcome);
    EXPECT_EQ(outcome.output, "Name        Bytes  On disk  Kind\n"
                              "(contents)  4      0        in the record\n"
                              "n\u00E4me        5      0        in the record\n"
                              "packed      50000  4096     compressed, sparse\n");
    EXPECT_THAT(RunOn("streams", {"/encrypted"}).output, HasSubstr("in the record, encrypted\n"));
    EXPECT_EQ(RunOn("streams", {"/Folder"}).output, "Name  Bytes  On disk  Kind\n");
}

TEST_F(CommandFiles, StreamsAreJson) {
    Make();
    const json object = RunForJson(On("streams", {"--json", "/streams"}));
    ASSERT_EQ(object.at("streams").size(), 3U);
    EXPECT_EQ(object.at("streams")[2], json({{"name", "packed"},
                                             {"bytes", 50'000},
                                             {"stored_bytes", 4096},
                                             {"resident", false},
                                             {"encrypted", false},
                                             {"compressed", true},
                                             {"sparse", true}}));
}

// --- cp.

TEST_F(CommandFiles, CpCopiesAFile) {
    Make();
    const CommandOutcome_t outcome = RunOn("cp", {"/Folder/a.txt", "copy"});
    EXPECT_SUCCEEDS(outcome);
    EXPECT_EQ(outcome.output, "1 file, 14 B\n");
    EXPECT_EQ(m_Dir.Read("copy"), "contents of a\n");
    EXPECT_FAILS_WITH(RunOn("cp", {"/Folder/deep/b.txt", "copy"}), 1, "copy: exists already");
    EXPECT_EQ(m_Dir.Read("copy"), "contents of a\n");
    const CommandOutcome_t forced = RunOn("cp", {"-q", "-f", "/Folder/deep/b.txt", "copy"});
    EXPECT_SUCCEEDS(forced);
    EXPECT_EQ(forced.output, "");
    EXPECT_EQ(m_Dir.Read("copy"), "b");
}

TEST_F(CommandFiles, CpCopiesATree) {
    Make();
    const json object = RunForJson(On("cp", {"--json", "-r", "/Folder", "."}));
    EXPECT_EQ(object, json({{"files", 2}, {"directories", 2}, {"bytes", 15}, {"problems", json::array()}}));
    EXPECT_EQ(m_Dir.Read("Folder/a.txt"), "contents of a\n");
    EXPECT_EQ(m_Dir.Read("Folder/deep/b.txt"), "b");
    EXPECT_FAILS_WITH(RunOn("cp", {"-r", "/Folder", "."}), 1, "exists already");
    EXPECT_FAILS_WITH(RunOn("cp", {"-r", "-f", "/Folder", "."}), 1, "exists already");
}

TEST_F(CommandFiles, CpTellsWhatItLeftOutAndFails) {
    Make();
    const CommandOutcome_t outcome = RunOn("cp", {"-r", "/", "all"});
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_EQ(outcome.output, "4 files, 24 B\n");
    EXPECT_THAT(outcome.errorOutput, HasSubstr("diskstream: warning: encrypted: "));
    EXPECT_THAT(outcome.errorOutput, HasSubstr("diskstream: warning: link: is a link (reparse point 0xA000000C)"));
    EXPECT_THAT(outcome.errorOutput, HasSubstr("diskstream: the copy isn't whole"));
    EXPECT_EQ(m_Dir.Read("all/Folder/deep/b.txt"), "b");
    EXPECT_FALSE(std::filesystem::exists(m_Dir.File("all/encrypted")));
    const json object = RunForJson(On("cp", {"--json", "-r", "/", "again"}), 1);
    EXPECT_EQ(object.at("files"), 4);
    EXPECT_EQ(object.at("problems").size(), 2U);
}

// --- export-stream.

TEST_F(CommandFiles, ExportStreamWritesAFileOrTheStandardOutput) {
    Make();
    const std::string descriptor = CanonicalDescriptorBytes("OG");
    const std::string expected = LittleEndianBytes(3, 4) + LittleEndianBytes(2, 4) +
                                 LittleEndianBytes(descriptor.size(), 8) + std::string(4, '\0') + descriptor +
                                 LittleEndianBytes(1, 8) + LittleEndianBytes(14, 8) + std::string(4, '\0') +
                                 "contents of a\n";
    const CommandOutcome_t outcome = RunOn("export-stream", {"/Folder/a.txt", "-"});
    EXPECT_SUCCEEDS(outcome);
    EXPECT_SAME_BYTES(expected, outcome.output);
    EXPECT_SUCCEEDS(RunOn("export-stream", {"-q", "/Folder/a.txt", "stream"}));
    EXPECT_SAME_BYTES(expected, m_Dir.Read("stream"));
    EXPECT_FAILS_WITH(RunOn("export-stream", {"/Folder/deep/b.txt", "stream"}), 1, "stream: exists already");
    EXPECT_SAME_BYTES(expected, m_Dir.Read("stream"));
    EXPECT_SUCCEEDS(RunOn("export-stream", {"--force", "/Folder/deep/b.txt", "stream"}));
    EXPECT_EQ(expected.size() - 13, m_Dir.Read("stream").size());
    EXPECT_EQ((Words_t{"disk.raw", "stream"}), m_Dir.Entries());
}

// --- security.

TEST_F(CommandFiles, SecurityShowsOwnerGroupAndRights) {
    Make();
    const CommandOutcome_t outcome = RunOn("security", {"/Folder/a.txt"});
    EXPECT_SUCCEEDS(outcome);
    EXPECT_EQ(outcome.output, "Owner  BA\n"
                              "Group  SY\n"
                              "DACL   \n"
                              "SDDL   O:BAG:SY\n");
    EXPECT_EQ(RunForJson(On("security", {"--json", "/Folder/a.txt"})), json({{"path", "/Folder/a.txt"},
                                                                             {"owner", "BA"},
                                                                             {"group", "SY"},
                                                                             {"dacl", nullptr},
                                                                             {"sacl", nullptr},
                                                                             {"sddl", "O:BAG:SY"}}));
}

TEST_F(CommandFiles, ADescriptorThatIsDamagedIsAFailure) {
    CNtfsVolumeBuilder volume = Volume();
    volume.Record(41, FileWith("x").Add(NtfsAttribute::Resident(NtfsSecurityDescriptorType, "nonsense")));
    Make(volume);
    EXPECT_FAILS_WITH(RunOn("security", {"/Folder/deep/b.txt"}), 1,
                      "/Folder/deep/b.txt: the security descriptor is damaged");
}

TEST_F(CommandFiles, AVolumeWithDamagedSecurityIsWarnedOf) {
    CNtfsVolumeBuilder volume = Volume();
    volume.Record(NtfsSecureNumber, "");
    Make(volume);
    const CommandOutcome_t outcome = RunOn("cat", {"/Folder/a.txt"});
    EXPECT_EQ(0, outcome.exitCode);
    EXPECT_EQ(outcome.output, "contents of a\n");
    EXPECT_THAT(outcome.errorOutput, HasSubstr("diskstream: warning: Volume1: "));
    EXPECT_THAT(outcome.errorOutput, HasSubstr("security descriptors can't be read\n"));
    EXPECT_EQ(1, RunOn("security", {"/Folder/a.txt"}).exitCode);
    EXPECT_EQ(1, RunOn("export-stream", {"/Folder/a.txt", "-"}).exitCode);
}

}  // namespace
