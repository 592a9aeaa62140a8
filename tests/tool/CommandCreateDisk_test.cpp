#include <filesystem>

#include "tests/tool/CommandFixture.h"

namespace {

using nlohmann::json;
using Names_t = std::vector<std::string>;

using CommandCreateDisk = CCommandFixture;

TEST_F(CommandCreateDisk, TellsTheFilesThatItMade) {
    const CommandOutcome_t vmdk = Run({"create-disk", "--size", "1M", "new.vmdk"});
    EXPECT_SUCCEEDS(vmdk);
    EXPECT_EQ(vmdk.output, "./new-flat.vmdk\n./new.vmdk\n");
    const CommandOutcome_t quiet = Run({"create-disk", "-q", "--size", "512", "new.vhd"});
    EXPECT_SUCCEEDS(quiet);
    EXPECT_EQ(quiet.output, "");
    EXPECT_EQ(RunForJson({"create-disk", "--json", "--size", "4K", "more.vhd"}),
              json({{"files", {"./more.vhd"}}, {"volume_bytes", 4096}, {"first_sector", 63}}));
    EXPECT_EQ(m_Dir.Entries(), (Names_t{"more.vhd", "new-flat.vmdk", "new.vhd", "new.vmdk"}));
}

TEST_F(CommandCreateDisk, TheKindIsThatOfTheNameUnlessTold) {
    const struct {
        std::vector<std::string> arguments;
        const char* image;
        const char* type;
    } rows[] = {{{"a.vhd"}, "a.vhd", "vhdFixed"},
                {{"a.vmdk"}, "a.vmdk", "monolithicFlat"},
                {{"a"}, "a", "monolithicFlat"},
                {{"b", "--format", "vhd"}, "b", "vhdFixed"},
                {{"b.vhd", "--format", "vmdk"}, "b.vhd", "monolithicFlat"}};
    for (const auto& row : rows) {
        std::vector<std::string> all{"create-disk", "-q", "--force", "--size", "1M"};
        all.insert(all.end(), row.arguments.begin(), row.arguments.end());
        EXPECT_SUCCEEDS(Run(all));
        EXPECT_EQ(row.type, RunForJson({"info", "--json", row.image})["type"]) << row.image;
        const json table = RunForJson({"partitions", "--json", row.image})["disks"][0];
        ASSERT_EQ(1U, table["partitions"].size());
        EXPECT_EQ(63, table["partitions"][0]["start_sector"]);
        EXPECT_EQ(2048, table["partitions"][0]["sectors"]);
        EXPECT_EQ(7, table["partitions"][0]["type_id"]);
    }
}

TEST_F(CommandCreateDisk, ReplacesNothingUnlessForced) {
    m_Dir.Write("a.vhd", "kept");
    m_Dir.Write("b-flat.vmdk", "kept");
    EXPECT_FAILS_WITH(Run({"create-disk", "--size", "1M", "a.vhd"}), 1, "a.vhd: exists already");
    EXPECT_FAILS_WITH(Run({"create-disk", "--size", "1M", "b.vmdk"}), 1, "b-flat.vmdk: exists already");
    EXPECT_EQ("kept", m_Dir.Read("a.vhd"));
    EXPECT_EQ("kept", m_Dir.Read("b-flat.vmdk"));
    EXPECT_EQ(m_Dir.Entries(), (Names_t{"a.vhd", "b-flat.vmdk"}));
    EXPECT_SUCCEEDS(Run({"create-disk", "-qf", "--size", "1M", "a.vhd"}));
    EXPECT_LT(1048576U, std::filesystem::file_size(m_Dir.File("a.vhd")));
}

TEST_F(CommandCreateDisk, LeavesNothingAfterAFailure) {
    EXPECT_FAILS_WITH(Run({"create-disk", "--size", "1M", "nowhere/a.vhd"}), 1, "nowhere/a.vhd");
    EXPECT_FAILS_WITH(Run({"create-disk", "--size", "4T", "a.vhd"}), 1, "a.vhd");
    EXPECT_FAILS_WITH(Run({"create-disk", "--size", "4T", "a.vmdk"}), 1, "a.vmdk");
    EXPECT_EQ(RunForJson({"create-disk", "--json", "--size", "4T", "a.vhd"}, 1).size(), 1U);
    EXPECT_EQ(m_Dir.Entries(), Names_t{});
}

TEST_F(CommandCreateDisk, MisuseEndsWithTwo) {
    const struct {
        std::vector<std::string> arguments;
        const char* words;
    } rows[] = {
        {{"create-disk", "a.vhd"}, "--size is required"},
        {{"create-disk", "--size", "0", "a.vhd"}, "--size must be a multiple of 512"},
        {{"create-disk", "--size", "1000", "a.vhd"}, "--size must be a multiple of 512"},
        {{"create-disk", "--size", "big", "a.vhd"}, "big is no number of bytes"},
        {{"create-disk", "--size", "1M", "--format", "qcow2", "a"}, "must be vmdk or vhd"},
        {{"create-disk", "--size", "1M", ""}, "the name is empty"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.arguments));
        EXPECT_FAILS_WITH(Run(row.arguments), 2, row.words);
    }
    EXPECT_EQ(m_Dir.Entries(), Names_t{});
}

}  // namespace
