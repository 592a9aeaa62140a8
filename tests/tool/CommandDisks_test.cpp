#include <filesystem>

#include "tests/support/SameBytes.h"
#include "tests/support/VhdBuilder.h"
#include "tests/tool/CommandFixture.h"

// VHD files, raw disks and chains through the commands that keep images.

namespace {

using nlohmann::json;
using testing::HasSubstr;
using Names_t = std::vector<std::string>;

std::string BigEndianName(const std::string& ascii) {
    std::string bytes;
    for (const char character : ascii)
        bytes += std::string{'\0', character};
    return bytes;
}

class CommandDisks : public CCommandFixture {
protected:
    // base.vhd, and top.vhd which builds on it; returns what the two make together.
    std::string MakeChain() const {
        CVhdBuilder base = CVhdBuilder::Dynamic(100);
        base.Footer(68, std::string(16, 'p')).Block(0, 'b').Block(12, 'b').WriteTo(m_Dir, "base.vhd");
        CVhdBuilder top = CVhdBuilder::Differencing(100);
        top.Footer(68, std::string(16, 't')).Header(40, std::string(16, 'p')).Header(64, BigEndianName("base.vhd"));
        top.Block(12, 't').Bitmap(12, "\x80").WriteTo(m_Dir, "top.vhd");
        std::string content(51200, '\0');
        content.replace(0, 4096, 4096, 'b');
        content.replace(96 * 512, 2048, 2048, 'b');
        content.replace(96 * 512, 512, 512, 't');
        return content;
    }
};

TEST_F(CommandDisks, InfoTellsOfAVhd) {
    CVhdBuilder::Fixed(100).Footer(68, std::string(16, 'f')).WriteTo(m_Dir, "fixed.vhd");
    EXPECT_EQ(RunForJson({"info", "--json", "fixed.vhd"}),
              json({{"image", "fixed.vhd"},
                    {"type", "vhdFixed"},
                    {"disk_bytes", 51200},
                    {"extents",
                     {{{"file", "fixed.vhd"},
                       {"type", "vhdFixed"},
                       {"disk_bytes", 51200},
                       {"file_bytes", 51712},
                       {"unique_id", "{66666666-6666-6666-6666-666666666666}"},
                       {"creator", "tstb"},
                       {"block_bytes", 0},
                       {"blocks", 0},
                       {"table_entries", 0}}}},
                    {"files", json::array()},
                    {"warnings", json::array()}}));
}

TEST_F(CommandDisks, InfoTellsOfADifferencingVhdAndItsParent) {
    MakeChain();
    const json object = RunForJson({"info", "--json", "top.vhd"});
    EXPECT_EQ("vhdDifferencing", object["type"]);
    EXPECT_EQ("base.vhd", object["parent"]);
    EXPECT_EQ("{70707070-7070-7070-7070-707070707070}", object["parent_identity"]);
    EXPECT_EQ(4096, object["extents"][0]["block_bytes"]);
    EXPECT_EQ(1, object["extents"][0]["blocks"]);
    EXPECT_EQ(13, object["extents"][0]["table_entries"]);
    const CommandOutcome_t text = Run({"info", "top.vhd"});
    EXPECT_SUCCEEDS(text);
    EXPECT_THAT(text.output, HasSubstr("vhdDifferencing"));
    EXPECT_THAT(text.output, HasSubstr("base.vhd ({70707070-7070-7070-7070-707070707070})"));
    EXPECT_THAT(text.output, HasSubstr("1 of 13 blocks of 4.0 KiB"));
}

TEST_F(CommandDisks, ADamagedVhdIsAFailureThatNamesIt) {
    CVhdBuilder builder = CVhdBuilder::Dynamic(100);
    builder.BlockSize(0).Entries(1).WriteTo(m_Dir, "bad.vhd");
    for (const std::vector<std::string>& arguments :
         {Names_t{"info", "bad.vhd"}, {"backup", "bad.vhd", "set"}, {"partitions", "bad.vhd"}, {"read", "bad.vhd"}})
        EXPECT_FAILS_WITH(Run(arguments), 1, "bad.vhd: is a VHD with blocks of 0 bytes");
    CVhdBuilder::Fixed(100).CutTo(51000).WriteTo(m_Dir, "cut.vhd");
    EXPECT_FAILS_WITH(Run({"backup", "cut.vhd", "set"}), 1, "cut.vhd: is no disk image of a known kind");
    EXPECT_EQ(m_Dir.Entries(), (Names_t{"bad.vhd", "cut.vhd"}));
}

TEST_F(CommandDisks, ALinkIsKeptAloneWithAWarning) {
    MakeChain();
    const CommandOutcome_t backup = Run({"backup", "-q", "top.vhd", "set"});
    EXPECT_EQ(backup.exitCode, 0);
    EXPECT_THAT(backup.errorOutput, HasSubstr("diskstream: warning: top.vhd is one link of a chain"));
    EXPECT_THAT(backup.errorOutput, HasSubstr("--flatten"));
    EXPECT_SUCCEEDS(Run({"verify", "set", "--against", "top.vhd"}));
    EXPECT_SUCCEEDS(Run({"restore", "-q", "set", "back.vhd"}));
    EXPECT_SAME_BYTES(m_Dir.Read("top.vhd"), m_Dir.Read("back.vhd"));
    const json object = RunForJson({"backup", "--json", "-f", "top.vhd", "set"});
    EXPECT_EQ(1U, object["warnings"].size());
}

TEST_F(CommandDisks, AFlattenedChainIsARawDisk) {
    const std::string content = MakeChain();
    EXPECT_SUCCEEDS(Run({"backup", "-q", "--flatten", "top.vhd", "set"}));
    EXPECT_SUCCEEDS(Run({"verify", "set", "--against", "top.vhd"}));
    EXPECT_SUCCEEDS(Run({"restore", "-q", "set", "."}));
    EXPECT_SAME_BYTES(content, m_Dir.Read("top.raw"));
    EXPECT_SUCCEEDS(Run({"verify", "set", "--against", "top.raw"}));
    const json object = RunForJson({"backup", "--json", "-f", "--flatten", "top.vhd", "set"});
    EXPECT_EQ("raw", object["type"]);
    EXPECT_EQ(51200, object["disk_bytes"]);
    EXPECT_EQ(json::array(), object["warnings"]);
}

TEST_F(CommandDisks, AChainCanBeGivenByHand) {
    const std::string content = MakeChain();
    std::filesystem::create_directory(m_Dir.File("old"));
    std::filesystem::rename(m_Dir.File("base.vhd"), m_Dir.File("old/base of all.vhd"));
    EXPECT_FAILS_WITH(Run({"read", "-q", "top.vhd"}), 1, "top.vhd: its parent base.vhd");
    EXPECT_FAILS_WITH(Run({"backup", "--flatten", "top.vhd", "set"}), 1, "give the chain with --chain");
    EXPECT_FALSE(std::filesystem::exists(m_Dir.File("set")));
    const CommandOutcome_t read = Run({"read", "-q", "top.vhd", "--chain", "old/base of all.vhd"});
    EXPECT_SUCCEEDS(read);
    EXPECT_SAME_BYTES(content, read.output);
    EXPECT_SUCCEEDS(Run({"backup", "-q", "--flatten", "top.vhd", "set", "--chain", "old/base of all.vhd"}));
    EXPECT_SUCCEEDS(Run({"verify", "set", "--against", "top.vhd", "--chain", "old/base of all.vhd"}));
    EXPECT_FAILS_WITH(Run({"verify", "set", "--against", "top.vhd"}), 1, "base.vhd");
    EXPECT_FAILS_WITH(Run({"read", "-q", "top.vhd", "--chain", "top.vhd,old/base of all.vhd"}), 1,
                      "builds on no other image, but top.vhd is given as its parent");
    EXPECT_SUCCEEDS(Run({"read", "-q", "--chain", "old/base of all.vhd", "top.vhd"}));
    EXPECT_FAILS_WITH(Run({"read", "-q", "top.vhd", "--chain", "none"}), 1, "none: No such file");
    EXPECT_FAILS_WITH(Run({"read", "-q", "top.vhd", "--chain", ""}), 2, "the name is empty");
}

TEST_F(CommandDisks, ARawFileIsADiskForThoseWhoSaySo) {
    const std::string content = PatternedBytes(129 * 512);
    m_Dir.Write("disk.img", content);
    EXPECT_FAILS_WITH(Run({"backup", "disk.img", "set"}), 1, "say --type raw");
    EXPECT_SUCCEEDS(Run({"backup", "-q", "--type", "raw", "disk.img", "set"}));
    EXPECT_SUCCEEDS(Run({"verify", "set", "--against", "disk.img"}));
    EXPECT_SUCCEEDS(Run({"restore", "-q", "set", "back.img"}));
    EXPECT_SAME_BYTES(content, m_Dir.Read("back.img"));
    EXPECT_FAILS_WITH(Run({"restore", "set", "back.img"}), 1, "--force");
    const json object = RunForJson({"info", "--json", "--type", "raw", "disk.img"});
    EXPECT_EQ("raw", object["type"]);
    EXPECT_EQ(content.size(), object["disk_bytes"]);
    EXPECT_EQ("raw", RunForJson({"list", "--json", "set"})["type"]);
}

TEST_F(CommandDisks, AVhdIsNotTakenForAnotherKindOfVhd) {
    CVhdBuilder::Fixed(100).WriteTo(m_Dir, "fixed.vhd");
    EXPECT_FAILS_WITH(Run({"info", "fixed.vhd", "--type", "vhdDynamic"}), 1,
                      "fixed.vhd: is a VHD of the kind vhdFixed, not vhdDynamic");
    EXPECT_SUCCEEDS(Run({"info", "fixed.vhd", "--type", "vhdFixed"}));
}

}  // namespace
