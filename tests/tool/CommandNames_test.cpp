#include "tests/tool/CommandFixture.h"

namespace {

using CommandNames = CCommandFixture;

// Behind "--", where a name may begin with a dash.
TEST_F(CommandNames, AnyNameThatTheSystemTakesGoesThroughEveryCommand) {
    for (const std::string name : {"a b  c", "it's \"quoted\"", "Gr\xC3\xB6\xC3\x9F-\xE2\x82\xAC", "-dash", "--force",
                                   "100%s%n", "*?[a],b=c", "$HOME"}) {
        SCOPED_TRACE(name);
        const std::string image = name + ".vmdk";
        const std::string set = name + ".dset";
        const std::string target = name + ".restored";
        MakeSparse(image);
        EXPECT_SUCCEEDS(Run({"info", "--", image}));
        EXPECT_SUCCEEDS(Run({"backup", "--quiet", "--", image, set}));
        EXPECT_SUCCEEDS(Run({"verify", "--against=" + image, "--", set}));
        EXPECT_SUCCEEDS(Run({"restore", "--quiet", "--", set, target}));
        EXPECT_EQ(m_Dir.Read(target), m_Dir.Read(image));
        EXPECT_EQ(RunForJson({"list", "--json", "--", set})["image"], image);
    }
}

TEST_F(CommandNames, ACommandsNameMayBeThatOfAFile) {
    for (const std::string name : {"info", "backup", "verify"}) {
        MakeSparse(name);
        EXPECT_SUCCEEDS(Run({"info", name}));
        EXPECT_SUCCEEDS(Run({"backup", "-q", name, "restore", "--force"}));
        EXPECT_SUCCEEDS(Run({"restore", "-q", "restore", "list", "--force"}));
        EXPECT_EQ(m_Dir.Read("list"), m_Dir.Read(name));
    }
}

TEST_F(CommandNames, AnExtentsNameWithBlanksAndLettersOfAllKindsComesBack) {
    const std::string extent = "my d\xC3\xAEsk's extent.vmdk";
    MakeFlat(extent);
    m_Dir.Write(extent, FlatBytes());
    ASSERT_EQ(Run({"backup", "flat.vmdk", "flat.dset"}).exitCode, 0);
    const CTempDir target;
    EXPECT_SUCCEEDS(Run({"restore", "-q", "flat.dset", target.Path()}));
    EXPECT_EQ(target.Read(extent), FlatBytes());
    EXPECT_EQ(target.Read("flat.vmdk"), m_Dir.Read("flat.vmdk"));
}

}  // namespace
