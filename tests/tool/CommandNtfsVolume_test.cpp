#include <string>
#include <vector>

#include "tests/support/NtfsBitmapVolume.h"
#include "tests/support/SameBytes.h"
#include "tests/tool/CommandFixture.h"

// The commands on NTFS volumes whose blocks in use alone are kept.

namespace {

using testing::HasSubstr;

class CommandNtfsVolume : public CCommandFixture {
protected:
    CommandNtfsVolume() {
        m_Volume.Data(3000, PatternedBytes(2000)).Stale(2000, PatternedBytes(512, 3)).WriteTo(m_Dir, "volume");
    }

    CNtfsBitmapVolume m_Volume{4000};
};

TEST_F(CommandNtfsVolume, GoesIntoASetAndComesBack) {
    const nlohmann::json backup = RunForJson({"backup", "--json", "--type", "ntfs-volume", "volume", "v.dset"});
    EXPECT_EQ("ntfs-volume", backup["type"]);
    EXPECT_EQ(4001 * 512, backup["disk_bytes"]);
    EXPECT_EQ(3, backup["blocks"]);
    EXPECT_EQ((2 * 128 + 33) * 512, backup["read_bytes"]);
    EXPECT_TRUE(backup["warnings"].empty());
    EXPECT_SUCCEEDS(Run({"verify", "v.dset"}));
    EXPECT_SUCCEEDS(Run({"verify", "--against", "volume", "v.dset"}));
    EXPECT_SUCCEEDS(Run({"restore", "v.dset", "back"}));
    std::string expected = m_Dir.Read("volume");
    expected.replace(2000 * 512, 512, 512, '\0');
    EXPECT_SAME_BYTES(expected, m_Dir.Read("back"));
    const nlohmann::json list = RunForJson({"list", "--json", "v.dset"});
    EXPECT_EQ("ntfs-volume", list["disks"][0]["type"]);
}

TEST_F(CommandNtfsVolume, InfoTellsWhatIsInUse) {
    const nlohmann::json info = RunForJson({"info", "--json", "--type", "ntfs-volume", "volume"});
    EXPECT_EQ("ntfs-volume", info["type"]);
    EXPECT_EQ(4001 * 512, info["disk_bytes"]);
    EXPECT_EQ(512, info["extents"][0]["cluster_bytes"]);
    EXPECT_EQ(4000, info["extents"][0]["clusters"]);
    EXPECT_EQ(64 + 1 + 4, info["extents"][0]["used_clusters"]);
    const CommandOutcome_t text = Run({"info", "--type", "ntfs-volume", "volume"});
    EXPECT_SUCCEEDS(text);
    EXPECT_THAT(text.output, HasSubstr("69 of 4000 clusters of 512 B in use"));
}

TEST_F(CommandNtfsVolume, WhatIsNoVolumeIsRefusedWithAWayOut) {
    m_Dir.Write("zeros", std::string(4096, '\0'));
    EXPECT_FAILS_WITH(Run({"backup", "--type", "ntfs-volume", "zeros", "v.dset"}), 1,
                      "zeros: holds no NTFS volume; as --type raw all of its bytes can be kept");
    const nlohmann::json error = RunForJson({"backup", "--json", "--type", "ntfs-volume", "zeros", "v.dset"}, 1);
    EXPECT_THAT(error["error"].get<std::string>(), HasSubstr("holds no NTFS volume"));
    EXPECT_FAILS_WITH(Run({"info", "--type", "ntfs-volume", "none"}), 1, "none: ");
}

TEST_F(CommandNtfsVolume, HelpShowsHow) {
    EXPECT_THAT(Run({"backup", "--help"}).output, HasSubstr("backup --type ntfs-volume /dev/sdb1 monday.dset"));
    EXPECT_THAT(Run({"restore", "--help"}).output, HasSubstr("restore --force monday.dset /dev/sdc1"));
}

// A volume is read as one whatever it is told to be.
TEST_F(CommandNtfsVolume, VolumesAndReadTakeTheTypeToo) {
    const nlohmann::json volumes = RunForJson({"volumes", "--json", "--type", "ntfs-volume", "volume"});
    ASSERT_EQ(1U, volumes["volumes"].size());
    EXPECT_EQ("ntfs", volumes["volumes"][0]["file_system"]);
    const CommandOutcome_t read =
        Run({"read", "--type", "ntfs-volume", "--offset", "1536000", "--length", "2000", "volume"});
    EXPECT_EQ(0, read.exitCode) << read.errorOutput;
    EXPECT_SAME_BYTES(PatternedBytes(2000), read.output);
}

}  // namespace
