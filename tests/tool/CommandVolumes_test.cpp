#include <algorithm>
#include <cctype>

#include "tests/support/LdmGroupBuilder.h"
#include "tests/support/Lvm2Disks.h"
#include "tests/support/SameBytes.h"
#include "tests/tool/CommandFixture.h"

// Volumes of dynamic disks and of LVM2 as the command lists and reads them.

namespace {

using nlohmann::json;
using testing::HasSubstr;
using Names_t = std::vector<std::string>;

const Names_t ThreeDisks{"d0.raw", "d1.raw", "d2.raw"};

std::string InBraces(std::string guid) {
    std::transform(guid.begin(), guid.end(), guid.begin(),
                   [](unsigned char each) { return static_cast<char>(std::toupper(each)); });
    return "{" + guid + "}";
}

// Three disks with a volume of each kind, Volume1 to Volume5.
CLdmGroupBuilder AllKinds() {
    return CLdmGroupBuilder(3)
        .Volume(LdmSimple({0, 0, 100}))
        .Volume(LdmSpanned({{1, 500, 60}, {0, 200, 30}}))
        .Volume(LdmStriped(8, {{2, 0, 64}, {0, 300, 64}, {1, 700, 64}}))
        .Volume(LdmRaid5(8, {{0, 1000, 80}, {1, 1000, 80}, {2, 1000, 80}}))
        .Volume(LdmMirrored({{0, 1500, 90}, {2, 1500, 90}}));
}

// A group on two disks with a volume of each sort that is told of.
std::string Lvm2Text() {
    Lvm2Segment_t thin{0, 4};
    thin.type = "thin";
    thin.lines = {"thin_pool = \"pool\"", "transaction_id = 0", "device_id = 1"};
    return GroupOf(2)
        .LogicalVolume("root", {{0, 2, {{"pv0", 1}}}, {2, 1, {{"pv1", 4}}}})
        .LogicalVolume("data", {{0, 4, {{"pv0", 10}, {"pv1", 20}}, 8}})
        .LogicalVolume("pool_tdata", {{0, 1, {{"pv0", 30}}}}, "[\"READ\", \"WRITE\"]")
        .LogicalVolume("light", {thin})
        .Text();
}

class CommandVolumes : public CCommandFixture {
protected:
    void MakeDisks(const CLdmGroupBuilder& group, size_t count = 3) const {
        for (size_t disk = 0; disk < count; ++disk)
            group.Image(disk).WriteTo(m_Dir, ThreeDisks[disk]);
    }

    void MakePvs(const std::string& text = Lvm2Text()) const {
        WholePv(0, text).WriteTo(m_Dir, "p0.raw");
        PvInMbr(1, text).WriteTo(m_Dir, "p1.raw");
    }

    CommandOutcome_t RunOn(Names_t arguments, const Names_t& disks) const {
        arguments.insert(arguments.end(), disks.begin(), disks.end());
        return Run(arguments);
    }

    // The volumes of the disks by their names.
    json VolumesOf(const Names_t& disks) const {
        Names_t arguments{"volumes", "--json"};
        arguments.insert(arguments.end(), disks.begin(), disks.end());
        json volumes;
        for (const json& volume : RunForJson(arguments).value("volumes", json::array()))
            volumes[volume.at("name").get<std::string>()] = volume;
        return volumes;
    }

    void ExpectReads(const std::string& expected, const std::string& name, const Names_t& disks) const {
        SCOPED_TRACE(name);
        const CommandOutcome_t outcome = RunOn({"read", "-q", "--volume", name}, disks);
        EXPECT_SUCCEEDS(outcome);
        EXPECT_SAME_BYTES(expected, outcome.output);
        const CommandOutcome_t part =
            RunOn({"read", "-q", "--volume", name, "--offset", "5000", "--length", "777"}, disks);
        EXPECT_SUCCEEDS(part);
        EXPECT_SAME_BYTES(expected.substr(5000, 777), part.output);
    }
};

TEST_F(CommandVolumes, OfDynamicDisksAreListed) {
    const CLdmGroupBuilder group = AllKinds();
    MakeDisks(group);
    const CommandOutcome_t outcome = RunOn({"volumes"}, ThreeDisks);
    EXPECT_SUCCEEDS(outcome);
    EXPECT_EQ(outcome.output,
              "Name     Scheme  Type      Start  Size      File system  GUID                                    Disks\n"
              "Volume1  ldm     simple    -      50.0 KiB  -            " +
                  InBraces(group.VolumeGuid(0)) +
                  "  d0.raw\n"
                  "Volume2  ldm     spanned   -      45.0 KiB  -            " +
                  InBraces(group.VolumeGuid(1)) +
                  "  d1.raw, d0.raw\n"
                  "Volume3  ldm     striped   -      96.0 KiB  -            " +
                  InBraces(group.VolumeGuid(2)) +
                  "  d2.raw, d0.raw, d1.raw\n"
                  "Volume4  ldm     RAID-5    -      80.0 KiB  -            " +
                  InBraces(group.VolumeGuid(3)) +
                  "  d0.raw, d1.raw, d2.raw\n"
                  "Volume5  ldm     mirrored  -      45.0 KiB  -            " +
                  InBraces(group.VolumeGuid(4)) + "  d0.raw, d2.raw\n");
}

TEST_F(CommandVolumes, OfDynamicDisksAreJson) {
    const CLdmGroupBuilder group = AllKinds();
    MakeDisks(group);
    EXPECT_EQ(VolumesOf(ThreeDisks).at("Volume2"), json({{"name", "Volume2"},
                                                         {"scheme", "ldm"},
                                                         {"type", "spanned"},
                                                         {"label", "Volume2"},
                                                         {"group", "Group-Dg0"},
                                                         {"guid", InBraces(group.VolumeGuid(1))},
                                                         {"sectors", 90},
                                                         {"bytes", 46080},
                                                         {"file_system", nullptr},
                                                         {"disks", {"d1.raw", "d0.raw"}},
                                                         {"missing_disks", json::array()},
                                                         {"readable", true}}));
}

TEST_F(CommandVolumes, OfDynamicDisksNameWhatIsMissing) {
    const CLdmGroupBuilder group = AllKinds();
    MakeDisks(group);
    const std::string missing = InBraces(group.DiskGuid(1)) + " (Disk2)";
    const CommandOutcome_t outcome = Run({"volumes", "d0.raw", "d2.raw"});
    EXPECT_EQ(0, outcome.exitCode);
    EXPECT_THAT(outcome.output, HasSubstr("  d0.raw, missing " + missing + "\n"));
    EXPECT_THAT(outcome.output, HasSubstr("  d0.raw, d2.raw, missing " + missing + "\n"));
    EXPECT_EQ(outcome.errorOutput,
              "diskstream: warning: Volume2 can't be read: a disk of it is missing: " + missing + "\n" +
                  "diskstream: warning: Volume3 can't be read: a disk of it is missing: " + missing + "\n");
    const json volumes = VolumesOf({"d0.raw", "d2.raw"});
    const json disk{{"id", InBraces(group.DiskGuid(1))}, {"name", "Disk2"}};
    for (const char* const name : {"Volume2", "Volume3", "Volume4"})
        EXPECT_EQ(volumes.at(name).at("missing_disks"), json::array({disk})) << name;
    EXPECT_EQ(volumes.at("Volume3").at("problem"), "a disk of it is missing: " + missing);
    EXPECT_FALSE(volumes.at("Volume3").at("readable"));
    EXPECT_TRUE(volumes.at("Volume4").at("readable"));
    EXPECT_FALSE(volumes.at("Volume4").contains("problem"));
    EXPECT_EQ(volumes.at("Volume5").at("missing_disks"), json::array());
}

TEST_F(CommandVolumes, OfDynamicDisksAreRead) {
    const CLdmGroupBuilder group = AllKinds();
    MakeDisks(group);
    for (size_t volume = 0; volume < 5; ++volume)
        ExpectReads(group.VolumeBytes(volume), "Volume" + std::to_string(volume + 1), ThreeDisks);
}

TEST_F(CommandVolumes, WithASpareDiskAreReadWithoutIt) {
    const CLdmGroupBuilder group = AllKinds();
    MakeDisks(group);
    for (const Names_t& disks : {Names_t{"d0.raw", "d1.raw"}, {"d2.raw", "d1.raw"}, {"d0.raw", "d2.raw"}})
        ExpectReads(group.VolumeBytes(3), "Volume4", disks);
    ExpectReads(group.VolumeBytes(4), "Volume5", {"d0.raw"});
    ExpectReads(group.VolumeBytes(4), "Volume5", {"d2.raw"});
}

TEST_F(CommandVolumes, ThatCannotBeReadSayWhy) {
    const CLdmGroupBuilder group = AllKinds();
    MakeDisks(group);
    MakePvs();
    const std::string thirdDisk = InBraces(group.DiskGuid(2)) + " (Disk3)";
    const std::string secondPv = WithLvm2Dashes(PvId(1)) + " (/dev/sda)";
    const struct {
        Names_t disks;
        const char* name;
        std::string words;
    } rows[] = {
        {{"d0.raw", "d1.raw"}, "Volume3", "a disk of it is missing: " + thirdDisk},
        {{"d0.raw"}, "Volume4", "disks of it are missing: " + InBraces(group.DiskGuid(1)) + " (Disk2), " + thirdDisk},
        {{"d1.raw"}, "Volume5", "disks of it are missing: " + InBraces(group.DiskGuid(0)) + " (Disk1), " + thirdDisk},
        {{"p0.raw"}, "vg-root", "a disk of it is missing: " + secondPv},
        {{"p0.raw"}, "vg-data", "a disk of it is missing: " + secondPv},
        {{"p0.raw", "p1.raw"}, "vg-light", "its segments are of type \"thin\", which can't be read"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const CommandOutcome_t outcome = RunOn({"read", "--volume", row.name}, row.disks);
        EXPECT_FAILS_WITH(outcome, 1, std::string(row.name) + ": " + row.words);
    }
}

TEST_F(CommandVolumes, ThatAreNotActiveHaveNamesOfTheirOwn) {
    LdmVolume_t broken = LdmSimple({0, 0, 10});
    broken.state = "BROKEN";
    MakeDisks(CLdmGroupBuilder(1).Volume(broken), 1);
    const CommandOutcome_t outcome = Run({"volumes", "d0.raw"});
    EXPECT_EQ(0, outcome.exitCode);
    EXPECT_THAT(outcome.output, HasSubstr("\nGroup-Dg0-Volume1  ldm"));
    EXPECT_THAT(outcome.errorOutput, HasSubstr("Group-Dg0-Volume1 can't be read: its state is \"BROKEN\""));
    EXPECT_FAILS_WITH(Run({"read", "d0.raw", "--volume", "Group-Dg0-Volume1"}), 1, "its state is \"BROKEN\"");
    EXPECT_FAILS_WITH(Run({"read", "d0.raw", "--volume", "Volume1"}), 1, "no volume of the disks has that name");
}

TEST_F(CommandVolumes, OfDamagedDatabasesAreWarnedOf) {
    const CLdmGroupBuilder group = AllKinds();
    MakeDisks(group);
    group.Image(1, group.Database(1).PutInVmdb(0, "x")).WriteTo(m_Dir, "d1.raw");
    const CommandOutcome_t outcome = RunOn({"volumes"}, ThreeDisks);
    EXPECT_EQ(0, outcome.exitCode);
    EXPECT_THAT(outcome.output, HasSubstr("\nVolume5"));
    EXPECT_THAT(outcome.errorOutput,
                testing::StartsWith("diskstream: warning: d1.raw: is a dynamic disk whose database can't be read"));
    ExpectReads(group.VolumeBytes(2), "Volume3", ThreeDisks);
    const CommandOutcome_t alone = Run({"volumes", "d1.raw"});
    EXPECT_EQ(0, alone.exitCode);
    EXPECT_EQ("Name  Scheme  Type  Start  Size  File system  GUID  Disks\n", alone.output);
}

TEST_F(CommandVolumes, OfLvm2AreListed) {
    MakePvs();
    const CommandOutcome_t outcome = Run({"volumes", "p0.raw", "p1.raw"});
    EXPECT_EQ(0, outcome.exitCode);
    const auto id = [](uint64_t volume) { return WithLvm2Dashes(Lvm2Id(1000 + volume)); };
    EXPECT_EQ(outcome.output, "Name           Scheme  Type              Start  Size      File system  GUID             "
                              "                       Disks\n"
                              "vg-data        lvm2    striped           -      32.0 KiB  -            " +
                                  id(1) +
                                  "  p0.raw, p1.raw\n"
                                  "vg-light       lvm2    thin              -      32.0 KiB  -            " +
                                  id(3) +
                                  "\n"
                                  "vg-pool_tdata  lvm2    linear, internal  -      8.0 KiB   -            " +
                                  id(2) +
                                  "  p0.raw\n"
                                  "vg-root        lvm2    linear            -      24.0 KiB  -            " +
                                  id(0) + "  p0.raw, p1.raw\n");
    EXPECT_EQ(outcome.errorOutput, "diskstream: warning: vg-light can't be read: its segments are of type \"thin\", "
                                   "which can't be read\n");
}

TEST_F(CommandVolumes, OfLvm2AreJson) {
    MakePvs();
    const json volumes = VolumesOf({"p1.raw", "p0.raw"});
    EXPECT_EQ(4U, volumes.size());
    EXPECT_EQ(volumes.at("vg-pool_tdata"), json({{"name", "vg-pool_tdata"},
                                                 {"scheme", "lvm2"},
                                                 {"type", "linear"},
                                                 {"label", "pool_tdata"},
                                                 {"group", "vg"},
                                                 {"id", WithLvm2Dashes(Lvm2Id(1002))},
                                                 {"internal", true},
                                                 {"sectors", 16},
                                                 {"bytes", 8192},
                                                 {"file_system", nullptr},
                                                 {"disks", {"p0.raw"}},
                                                 {"missing_disks", json::array()},
                                                 {"readable", true}}));
    EXPECT_FALSE(volumes.at("vg-light").at("readable"));
    EXPECT_EQ(volumes.at("vg-light").at("problem"), "its segments are of type \"thin\", which can't be read");
    EXPECT_EQ(volumes.at("vg-root").at("disks"), json({"p0.raw", "p1.raw"}));
}

TEST_F(CommandVolumes, OfLvm2NameMissingPhysicalVolumes) {
    MakePvs();
    const json volumes = VolumesOf({"p1.raw"});
    const json disk{{"id", WithLvm2Dashes(PvId(0))}, {"name", "/dev/sda"}};
    EXPECT_EQ(volumes.at("vg-root").at("missing_disks"), json::array({disk}));
    EXPECT_EQ(volumes.at("vg-root").at("disks"), json({"p1.raw"}));
    EXPECT_FALSE(volumes.at("vg-root").at("readable"));
    EXPECT_THAT(Run({"volumes", "p1.raw"}).output,
                HasSubstr("  p1.raw, missing " + WithLvm2Dashes(PvId(0)) + " (/dev/sda)\n"));
}

TEST_F(CommandVolumes, OfLvm2AreRead) {
    MakePvs();
    for (const Names_t& disks : {Names_t{"p0.raw", "p1.raw"}, {"p1.raw", "p0.raw"}}) {
        ExpectReads(ExtentsOf(0, 1, 2) + ExtentsOf(1, 4, 1), "vg-root", disks);
        ExpectReads(StripedContent({{0, 10}, {1, 20}}, 8, 2), "vg-data", disks);
        ExpectReads(ExtentsOf(0, 30, 1), "vg-pool_tdata", disks);
    }
}

TEST_F(CommandVolumes, OfAllManagersLieSideBySide) {
    const CLdmGroupBuilder group = CLdmGroupBuilder(1).Volume(LdmSimple({0, 0, 100}));
    MakeDisks(group, 1);
    MakePvs();
    CPartitionTableBuilder plain;
    plain.Sectors(400).Slot(0, 0x07, 63, 100).Ntfs(63).Image().WriteTo(m_Dir, "plain.raw");
    const Names_t disks{"plain.raw", "p0.raw", "d0.raw", "p1.raw"};
    const json volumes = VolumesOf(disks);
    EXPECT_EQ(6U, volumes.size());
    EXPECT_EQ("mbr", volumes.at("Volume1").at("scheme"));
    EXPECT_EQ("ldm", volumes.at("Volume2").at("scheme"));
    ExpectReads(group.VolumeBytes(0), "Volume2", disks);
    ExpectReads(ExtentsOf(0, 1, 2) + ExtentsOf(1, 4, 1), "vg-root", disks);
}

}  // namespace
