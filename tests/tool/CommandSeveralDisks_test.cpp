#include <algorithm>
#include <filesystem>

#include "agent/BackupSetWriter.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/tool/CommandFixture.h"

// Several disks in one set, through the command.

namespace {

using testing::HasSubstr;
using Json = nlohmann::json;

class CommandsOfSeveralDisks : public CCommandFixture {
protected:
    CommandsOfSeveralDisks() {
        MakeSparse("system.vmdk");
        MakeFlat();
        m_Dir.Write("flat-flat.vmdk", FlatBytes());
    }

    void MakeSetOfBoth() const {
        const CommandOutcome_t outcome = Run({"backup", "-q", "system.vmdk", "flat.vmdk", "both.dset"});
        ASSERT_EQ(outcome.exitCode, 0) << outcome.errorOutput;
        EXPECT_EQ(outcome.output, "");
    }
};

TEST_F(CommandsOfSeveralDisks, BackupTellsOfEachDisk) {
    const CommandOutcome_t outcome = Run({"backup", "system.vmdk", "flat.vmdk", "both.dset"});
    EXPECT_SUCCEEDS(outcome);
    EXPECT_THAT(outcome.output, HasSubstr("Set     both.dset\n"
                                          "Disk 1  system.vmdk, 128.0 KiB, monolithicSparse\n"
                                          "Disk 2  flat.vmdk, 100.0 KiB, monolithicFlat\n"
                                          "Blocks  5 with "));
    const Json object = RunForJson({"backup", "-f", "--json", "system.vmdk", "flat.vmdk", "both.dset"});
    EXPECT_FALSE(object.contains("type"));
    EXPECT_EQ(object["disk_bytes"], 131072 + 102400);
    ASSERT_EQ(object["disks"].size(), 2U);
    EXPECT_EQ(object["disks"][1],
              Json({{"number", 2}, {"image", "flat.vmdk"}, {"type", "monolithicFlat"}, {"disk_bytes", 102400}}));
}

TEST_F(CommandsOfSeveralDisks, ListTellsWhichFilesAreOfWhichDisk) {
    MakeSetOfBoth();
    const CommandOutcome_t outcome = Run({"list", "both.dset"});
    EXPECT_SUCCEEDS(outcome);
    EXPECT_THAT(outcome.output,
                testing::ContainsRegex("Set      both.dset\n"
                                       "Created  [^\n]*\n"
                                       "Disk 1   system.vmdk, monolithicSparse, 128.0 KiB\n"
                                       "Stream   system.vmdk, [^\n]*\n"
                                       "Disk 2   flat.vmdk, monolithicFlat, 100.0 KiB\n"
                                       "File     flat.vmdk, [^\n]*\n"
                                       "Stream   flat-flat.vmdk, monolithicFlat, 2 blocks of 64.0 KiB, stored in "));
    const Json object = RunForJson({"list", "--json", "both.dset"});
    for (const char* ofOne : {"image", "type", "disk_bytes", "volumes", "parts"})
        EXPECT_FALSE(object.contains(ofOne)) << ofOne;
    EXPECT_EQ(object["disks"][0]["image"], "system.vmdk");
    EXPECT_EQ(object["disks"][1]["number"], 2);
    EXPECT_EQ(object["streams"][1]["disk"], 2);
    EXPECT_EQ(object["files"][0]["disk"], 2);
}

TEST_F(CommandsOfSeveralDisks, ListTellsOfVolumesAndParts) {
    CBackupSetWriter writer;
    ASSERT_OK(writer.Create(m_Dir.File("set"), false));
    SetDisk_t disk;
    disk.imageName = "disk.raw";
    ASSERT_OK(writer.AddDisk(disk));
    bool isRead = false;
    ASSERT_OK(writer.AddPart("a part", 1, [&](char* buffer, uint32_t, uint32_t& got) {
        got = isRead ? 0 : 2048;
        std::fill_n(buffer, got, 'x');
        isRead = true;
        return CZuError();
    }));
    SetVolume_t volume;
    volume.name = "Volume1";
    ASSERT_OK(writer.AddVolume(volume));
    SetEntry_t entry;
    entry.name = "a name";
    ASSERT_OK(writer.AddEntry(entry));
    ASSERT_OK(writer.Commit({"2026-01-31T12:00:00Z", "a test"}));

    const CommandOutcome_t outcome = Run({"list", "set"});
    EXPECT_SUCCEEDS(outcome);
    EXPECT_THAT(outcome.output, HasSubstr("\nVolume     Volume1, 1 entries\nPart       a part, 2.0 KiB\n"));
    const Json object = RunForJson({"list", "--json", "set"});
    EXPECT_EQ(object["volumes"], Json::array({{{"volume", "Volume1"}, {"entries", 1}}}));
    EXPECT_EQ(object["parts"], Json::array({{{"part", "a part"}, {"bytes", 2048}}}));
}

TEST_F(CommandsOfSeveralDisks, RestoreTakesTheDiskOfThatNumber) {
    MakeSetOfBoth();
    EXPECT_SUCCEEDS(Run({"restore", "-q", "both.dset", "one.vmdk", "--disk", "1"}));
    EXPECT_EQ(m_Dir.Read("one.vmdk"), m_Dir.Read("system.vmdk"));
    EXPECT_SUCCEEDS(Run({"restore", "-q", "--as", "raw", "--disk", "2", "both.dset", "two.raw"}));
    EXPECT_EQ(m_Dir.Read("two.raw"), FlatBytes());
}

TEST_F(CommandsOfSeveralDisks, WithoutANumberTheErrorTellsThem) {
    MakeSetOfBoth();
    const char* const disks = "say --disk with the number of one: 1 (system.vmdk), 2 (flat.vmdk)";
    EXPECT_FAILS_WITH(Run({"restore", "both.dset", "x.vmdk"}), 1, disks);
    EXPECT_FAILS_WITH(Run({"verify", "both.dset", "--against", "flat.vmdk"}), 1, disks);
    EXPECT_FAILS_WITH(Run({"restore", "both.dset", "x.vmdk", "--disk", "3"}), 1,
                      "has no disk 3; it holds 1 (system.vmdk), 2 (flat.vmdk)");
    for (const std::string number : {"0", "-1", "x", "", "99999999999999999999"})
        EXPECT_FAILS_WITH(Run({"restore", "both.dset", "x.vmdk", "--disk=" + number}), 2, "--disk");
    EXPECT_FALSE(std::filesystem::exists(m_Dir.File("x.vmdk")));
}

TEST_F(CommandsOfSeveralDisks, VerifyProvesAllOfThemAndComparesOne) {
    MakeSetOfBoth();
    EXPECT_EQ(RunForJson({"verify", "both.dset", "--json"})["blocks"], 5);
    EXPECT_SUCCEEDS(Run({"verify", "both.dset", "--against", "flat.vmdk", "--disk", "2"}));
    EXPECT_SUCCEEDS(Run({"verify", "both.dset", "--against", "system.vmdk", "--disk", "1"}));
    EXPECT_FAILS_WITH(Run({"verify", "both.dset", "--against", "system.vmdk", "--disk", "2"}), 1,
                      "an image of another kind");
}

TEST_F(CommandsOfSeveralDisks, ADiskIsGivenOnce) {
    std::filesystem::create_symlink("system.vmdk", m_Dir.File("link"));
    for (const std::string again : {"system.vmdk", "./system.vmdk", "link"})
        EXPECT_FAILS_WITH(Run({"backup", "system.vmdk", again, "x.dset"}), 1,
                          again + ": is the same disk as system.vmdk");
    EXPECT_FALSE(std::filesystem::exists(m_Dir.File("x.dset")));
}

TEST_F(CommandsOfSeveralDisks, MisuseOfBackupSaysWhatIsMissing) {
    const struct {
        std::vector<std::string> arguments;
        const char* words;
    } rows[] = {
        {{"backup"}, "DISK is required"},
        {{"backup", "system.vmdk"}, "SET is required"},
        {{"backup", "system.vmdk", ""}, "DISK: the name is empty"},
        {{"backup", "", "x.dset"}, "DISK: the name is empty"},
        {{"backup", "system.vmdk", "flat.vmdk", "x.dset", "--chain", "base.vmdk"}, "with one disk only"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.arguments));
        EXPECT_FAILS_WITH(Run(row.arguments), 2, row.words);
    }
    EXPECT_THAT(Run({"backup", "--help"}).output, HasSubstr("Usage: diskstream backup [OPTIONS] DISK... SET\n"));
}

}  // namespace
