#include "tests/tool/CommandFixture.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;

using CommandJson = CCommandFixture;

std::vector<std::string> Names(const json& object) {
    std::vector<std::string> names;
    for (const auto& member : object.items())
        names.push_back(member.key());
    return names;
}

// In the order of the alphabet, as the parser keeps them.
using Names_t = std::vector<std::string>;

TEST_F(CommandJson, InfoTellsOfASparseDisk) {
    MakeSparse();
    const uint64_t fileBytes = m_Dir.Read("disk.vmdk").size();
    EXPECT_EQ(RunForJson({"info", "--json", "disk.vmdk"}), json({{"image", "disk.vmdk"},
                                                                 {"type", "monolithicSparse"},
                                                                 {"disk_bytes", 131072},
                                                                 {"extents",
                                                                  {{{"file", "disk.vmdk"},
                                                                    {"type", "monolithicSparse"},
                                                                    {"disk_bytes", 131072},
                                                                    {"file_bytes", fileBytes},
                                                                    {"grain_bytes", 4096},
                                                                    {"grains", 3},
                                                                    {"can_be_made_again", true}}}},
                                                                 {"files", json::array()},
                                                                 {"warnings", json::array()}}));
}

TEST_F(CommandJson, InfoTellsOfAFlatDisk) {
    MakeFlat();
    m_Dir.Write("flat-flat.vmdk", FlatBytes());
    EXPECT_EQ(RunForJson({"info", "flat.vmdk", "--json"}), json({{"image", "flat.vmdk"},
                                                                 {"type", "monolithicFlat"},
                                                                 {"disk_bytes", 102400},
                                                                 {"extents",
                                                                  {{{"file", "flat-flat.vmdk"},
                                                                    {"type", "monolithicFlat"},
                                                                    {"disk_bytes", 102400},
                                                                    {"file_bytes", 102400}}}},
                                                                 {"files", {"flat.vmdk"}},
                                                                 {"warnings", json::array()}}));
}

TEST_F(CommandJson, BackupTellsWhatItDid) {
    MakeSparse();
    const json result = RunForJson({"backup", "disk.vmdk", "disk.dset", "--json"});
    ASSERT_EQ(Names(result), (Names_t{"blocks", "disk_bytes", "disks", "read_bytes", "seconds", "set", "set_bytes",
                                      "stored_bytes", "type", "warnings", "zero_blocks"}));
    EXPECT_EQ(result["set"], "disk.dset");
    EXPECT_EQ(result["type"], "monolithicSparse");
    EXPECT_EQ(result["disk_bytes"], 131072);
    const json disk = {{"number", 1}, {"image", "disk.vmdk"}, {"type", "monolithicSparse"}, {"disk_bytes", 131072}};
    EXPECT_EQ(result["disks"], json::array({disk}));
    EXPECT_EQ(result["blocks"], 3);
    EXPECT_EQ(result["zero_blocks"], 1);
    EXPECT_EQ(result["read_bytes"], 3 * 4096);
    EXPECT_GT(result["stored_bytes"], 4096);
    EXPECT_LT(result["stored_bytes"], 2 * 4096);
    EXPECT_EQ(result["set_bytes"], m_Dir.Read("disk.dset").size());
    EXPECT_GT(result["seconds"], 0.0);
    EXPECT_EQ(result["warnings"], json::array());
}

TEST_F(CommandJson, ListTellsWhatASetHolds) {
    MakeFlat();
    m_Dir.Write("flat-flat.vmdk", FlatBytes());
    ASSERT_EQ(Run({"backup", "flat.vmdk", "flat.dset"}).exitCode, 0);
    json result = RunForJson({"list", "flat.dset", "--json"});
    ASSERT_EQ(Names(result), (Names_t{"created", "disk_bytes", "disks", "files", "identity", "image", "set", "streams",
                                      "type", "writer"}));
    EXPECT_THAT(result["created"].get<std::string>(),
                testing::MatchesRegex("20[0-9][0-9]-[0-9][0-9]-[0-9][0-9]T[0-9][0-9]:[0-9][0-9]:[0-9][0-9]Z"));
    EXPECT_THAT(result["writer"].get<std::string>(), testing::StartsWith("diskstream "));
    EXPECT_THAT(result["identity"].get<std::string>(), testing::MatchesRegex("[0-9a-f]+"));
    EXPECT_EQ(32U, result["identity"].get<std::string>().size());
    for (const char* const name : {"created", "identity", "writer"})
        result.erase(name);
    EXPECT_EQ(
        result,
        json({{"set", "flat.dset"},
              {"image", "flat.vmdk"},
              {"type", "monolithicFlat"},
              {"disk_bytes", 102400},
              {"disks", {{{"number", 1}, {"image", "flat.vmdk"}, {"type", "monolithicFlat"}, {"disk_bytes", 102400}}}},
              {"streams",
               {{{"disk", 1},
                 {"file", "flat-flat.vmdk"},
                 {"type", "monolithicFlat"},
                 {"block_bytes", 65536},
                 {"disk_bytes", 102400},
                 {"blocks", 2},
                 {"stored_bytes", 102400}}}},
              {"files", {{{"disk", 1}, {"file", "flat.vmdk"}, {"bytes", m_Dir.Read("flat.vmdk").size()}}}}}));
}

TEST_F(CommandJson, VerifyTellsOfSoundnessAndDifferences) {
    MakeSet();
    json result = RunForJson({"verify", "disk.dset", "--json"});
    ASSERT_EQ(Names(result),
              (Names_t{"blocks", "difference_count", "differences", "plain_bytes", "seconds", "set", "sound"}));
    EXPECT_GT(result["seconds"], 0.0);
    result.erase("seconds");
    EXPECT_EQ(result, json({{"set", "disk.dset"},
                            {"sound", true},
                            {"blocks", 3},
                            {"plain_bytes", 3 * 4096},
                            {"difference_count", 0},
                            {"differences", json::array()}}));

    CVmdkSparseBuilder().Grain(0, 'X').Grain(7, 'Y').WriteTo(m_Dir, "other.vmdk");
    const json differing = RunForJson({"verify", "disk.dset", "--json", "--against", "other.vmdk"}, 1);
    EXPECT_EQ(differing["sound"], true);
    EXPECT_EQ(differing["difference_count"], 2);
    EXPECT_EQ(differing["differences"].size(), 2U);
}

TEST_F(CommandJson, RestoreTellsWhichFilesItMade) {
    MakeSet();
    json result = RunForJson({"restore", "--json", "disk.dset", "back.vmdk"});
    ASSERT_EQ(Names(result), (Names_t{"blocks", "disk_bytes", "files", "seconds", "set", "warnings", "written_bytes"}));
    EXPECT_GT(result["seconds"], 0.0);
    result.erase("seconds");
    EXPECT_EQ(result, json({{"set", "disk.dset"},
                            {"files", {"back.vmdk"}},
                            {"disk_bytes", 131072},
                            {"blocks", 3},
                            {"written_bytes", 2 * 4096},
                            {"warnings", json::array()}}));
}

TEST_F(CommandJson, AWarningIsInTheObjectToo) {
    CVmdkSparseBuilder()
        .Descriptor(CVmdkDescriptorBuilder()
                        .CreateType("monolithicSparse")
                        .ParentCid("12345678")
                        .Line("parentFileNameHint=\"base.vmdk\"")
                        .Text())
        .Grain(1, 'A')
        .WriteTo(m_Dir, "link.vmdk");
    const CommandOutcome_t outcome = Run({"backup", "link.vmdk", "link.dset", "--json"});
    ASSERT_EQ(outcome.exitCode, 0) << outcome.errorOutput;
    EXPECT_THAT(outcome.errorOutput, testing::StartsWith("diskstream: warning: link.vmdk is one link of a chain"));
    const json result = json::parse(outcome.output);
    ASSERT_EQ(result["warnings"].size(), 1U);
    EXPECT_THAT(result["warnings"][0].get<std::string>(), HasSubstr("base.vmdk"));
    EXPECT_EQ(RunForJson({"list", "link.dset", "--json"})["parent"], "base.vmdk");
    EXPECT_EQ(RunForJson({"info", "link.vmdk", "--json"})["parent"], "base.vmdk");
}

TEST_F(CommandJson, AFailureIsAnObjectAsWell) {
    MakeSet();
    DamageSet();
    const struct {
        std::vector<std::string> arguments;
        const char* words;
    } rows[] = {
        {{"info", "none", "--json"}, "none: No such file or directory"},
        {{"list", "none", "--json"}, "none: No such file or directory"},
        {{"backup", "disk.vmdk", "disk.dset", "--json"}, "disk.dset: exists already"},
        {{"verify", "disk.dset", "--json"}, "disk.dset: the set is damaged"},
        {{"restore", "disk.dset", "back.vmdk", "--json"}, "disk.dset: the set is damaged"},
        {{"restore", "disk.dset", "disk.vmdk", "--json", "--quiet"}, "disk.vmdk: exists already"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.arguments));
        const json object = RunForJson(row.arguments, 1);
        ASSERT_EQ(Names(object), Names_t{"error"});
        EXPECT_THAT(object["error"].get<std::string>(), HasSubstr(row.words));
    }
}

TEST_F(CommandJson, NamesThatAreNotUtf8AreReplacedAndTheObjectStaysValid) {
    const std::string name = "d\xE4\xFFsk\".vmdk";
    MakeSparse(name);
    EXPECT_EQ(RunForJson({"info", name, "--json"})["image"], "d\xEF\xBF\xBD\xEF\xBF\xBDsk\".vmdk");
    EXPECT_THAT(RunForJson({"info", "none\xFF", "--json"}, 1)["error"].get<std::string>(),
                HasSubstr("none\xEF\xBF\xBD: No such file"));
}

}  // namespace
