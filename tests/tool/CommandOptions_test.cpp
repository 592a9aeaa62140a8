#include <filesystem>

#include "tests/support/SameBytes.h"
#include "tests/tool/CommandFixture.h"

namespace {

using testing::HasSubstr;

using CommandOptions = CCommandFixture;

TEST_F(CommandOptions, CompressionIsDoneAsAsked) {
    m_Dir.Write("text.vmdk", std::string(size_t{1} << 20U, 'x'));
    const auto storedBytes = [&](const std::vector<std::string>& options) {
        std::vector<std::string> words{"backup", "text.vmdk", "x.dset", "--type", "monolithicFlat", "-f", "--json"};
        words.insert(words.end(), options.begin(), options.end());
        const uint64_t stored = RunForJson(words)["stored_bytes"];
        EXPECT_SUCCEEDS(Run({"restore", "-q", "-f", "x.dset", "back.vmdk"}));
        EXPECT_SAME_BYTES(m_Dir.Read("text.vmdk"), m_Dir.Read("back.vmdk"));
        return stored;
    };
    EXPECT_EQ(storedBytes({"--compression", "none"}), uint64_t{1} << 20U);
    const uint64_t byDefault = storedBytes({});
    EXPECT_LT(byDefault, uint64_t{1} << 16U);
    EXPECT_EQ(storedBytes({"--compression", "zstd"}), byDefault);
    EXPECT_EQ(storedBytes({"--compression=zstd:1"}), byDefault);
    EXPECT_LT(storedBytes({"--compression", "zstd:22"}), uint64_t{1} << 16U);
}

TEST_F(CommandOptions, OnlyForceReplacesWhatExists) {
    MakeSet();
    const std::string before = m_Dir.Read("disk.dset");
    m_Dir.Write("target", "mine");
    EXPECT_FAILS_WITH(Run({"backup", "disk.vmdk", "disk.dset"}), 1, "--force to overwrite");
    EXPECT_FAILS_WITH(Run({"restore", "disk.dset", "target"}), 1, "--force to overwrite");
    EXPECT_FAILS_WITH(Run({"restore", "disk.dset", "target", "--as", "raw"}), 1, "--force to overwrite");
    EXPECT_SAME_BYTES(before, m_Dir.Read("disk.dset"));
    EXPECT_EQ(m_Dir.Read("target"), "mine");

    CVmdkSparseBuilder().Grain(3, 'Z').WriteTo(m_Dir, "disk.vmdk");
    EXPECT_SUCCEEDS(Run({"backup", "disk.vmdk", "disk.dset", "--force"}));
    EXPECT_SUCCEEDS(Run({"verify", "disk.dset", "--against", "disk.vmdk"}));
    EXPECT_SUCCEEDS(Run({"restore", "-f", "disk.dset", "target"}));
    EXPECT_SAME_BYTES(m_Dir.Read("disk.vmdk"), m_Dir.Read("target"));
}

TEST_F(CommandOptions, ForceReplacesNothingWhenItFails) {
    MakeSet();
    DamageSet();
    m_Dir.Write("target", "mine");
    EXPECT_FAILS_WITH(Run({"restore", "disk.dset", "target", "--force"}), 1, "is damaged");
    EXPECT_EQ(m_Dir.Read("target"), "mine");
    const std::string set = m_Dir.Read("disk.dset");
    EXPECT_FAILS_WITH(Run({"backup", "target", "disk.dset", "--force"}), 1, "is no disk image");
    EXPECT_SAME_BYTES(set, m_Dir.Read("disk.dset"));
    EXPECT_EQ(m_Dir.Entries(), (std::vector<std::string>{"disk.dset", "disk.vmdk", "target"}));
}

TEST_F(CommandOptions, TypeMakesADiskOfPlainBytes) {
    const std::string bytes = FlatBytes();
    m_Dir.Write("plain", bytes);
    EXPECT_FAILS_WITH(Run({"backup", "plain", "plain.dset"}), 1, "say --type raw");
    EXPECT_EQ(RunForJson({"info", "plain", "--json", "--type", "monolithicFlat"})["disk_bytes"], bytes.size());
    EXPECT_SUCCEEDS(Run({"backup", "-q", "plain", "plain.dset", "--type", "monolithicFlat"}));
    EXPECT_SUCCEEDS(Run({"verify", "plain.dset", "--against", "plain", "--type", "monolithicFlat"}));
    EXPECT_SUCCEEDS(Run({"restore", "-q", "plain.dset", "back"}));
    EXPECT_SAME_BYTES(bytes, m_Dir.Read("back"));
}

TEST_F(CommandOptions, ATypeThatTheFileIsNotIsRefused) {
    MakeSparse();
    m_Dir.Write("plain", FlatBytes());
    EXPECT_FAILS_WITH(Run({"info", "disk.vmdk", "--type", "monolithicFlat"}), 1,
                      "disk.vmdk: is a sparse extent, not monolithicFlat");
    EXPECT_FAILS_WITH(Run({"backup", "disk.vmdk", "x.dset", "--type", "vmfs"}), 1,
                      "disk.vmdk: is a sparse extent, not vmfs");
    EXPECT_FAILS_WITH(Run({"backup", "plain", "x.dset", "--type", "monolithicSparse"}), 1,
                      "plain: is neither a sparse extent nor a descriptor");
}

TEST_F(CommandOptions, ADescriptorLeadsOutOfItsDirectoryOnlyWhenAllowed) {
    const CTempDir outside;
    const std::string extent = outside.Write("far.vmdk", FlatBytes());
    MakeFlat(extent);
    EXPECT_FAILS_WITH(Run({"info", "flat.vmdk"}), 1, "--allow-outside");
    EXPECT_FAILS_WITH(Run({"backup", "flat.vmdk", "x.dset"}), 1, "--allow-outside");
    EXPECT_SUCCEEDS(Run({"info", "flat.vmdk", "--allow-outside"}));
    EXPECT_SUCCEEDS(Run({"backup", "-q", "flat.vmdk", "flat.dset", "--allow-outside"}));
    EXPECT_FAILS_WITH(Run({"verify", "flat.dset", "--against", "flat.vmdk"}), 1, "--allow-outside");
    EXPECT_SUCCEEDS(Run({"verify", "flat.dset", "--against", "flat.vmdk", "--allow-outside"}));

    std::filesystem::remove(extent);
    EXPECT_FAILS_WITH(Run({"restore", "flat.dset", "back.vmdk"}), 1, "--allow-outside");
    EXPECT_EQ(m_Dir.Entries(), (std::vector<std::string>{"flat.dset", "flat.vmdk"}));
    EXPECT_EQ(outside.Entries(), std::vector<std::string>{});
    EXPECT_SUCCEEDS(Run({"restore", "-q", "flat.dset", "back.vmdk", "--allow-outside"}));
    EXPECT_SAME_BYTES(FlatBytes(), outside.Read("far.vmdk"));
}

TEST_F(CommandOptions, RestoreTakesADirectoryAndMakesRawImages) {
    MakeSet();
    std::filesystem::create_directory(m_Dir.File("there"));
    EXPECT_EQ(RunForJson({"restore", "disk.dset", "there", "--json"})["files"], nlohmann::json({"there/disk.vmdk"}));
    EXPECT_SAME_BYTES(m_Dir.Read("disk.vmdk"), m_Dir.Read("there/disk.vmdk"));

    EXPECT_SUCCEEDS(Run({"restore", "-q", "--as", "raw", "disk.dset", "disk.raw"}));
    std::string plain(131072, '\0');
    PutBytes(plain, 0, std::string(4096, 'A'));
    PutBytes(plain, 7 * size_t{4096}, PatternedBytes(4096));
    EXPECT_SAME_BYTES(plain, m_Dir.Read("disk.raw"));
}

TEST_F(CommandOptions, ASetOfOneLinkOfAChainIsMadeWithAWarning) {
    CVmdkSparseBuilder()
        .Descriptor(CVmdkDescriptorBuilder().CreateType("monolithicSparse").ParentCid("12345678").Text())
        .Grain(1, 'A')
        .WriteTo(m_Dir, "link.vmdk");
    const CommandOutcome_t outcome = Run({"backup", "link.vmdk", "link.dset", "--quiet"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(outcome.errorOutput, HasSubstr("warning: link.vmdk is one link of a chain"));
}

}  // namespace
