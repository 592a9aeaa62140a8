#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/VhdBuilder.h"
#include "tests/tool/CommandFixture.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using Names_t = std::vector<std::string>;

class CommandPartitions : public CCommandFixture {
protected:
    // An NTFS partition to boot from, and a logical one in an extended one.
    void MakeMbr(const std::string& name = "mbr.raw") const {
        CPartitionTableBuilder disk;
        disk.Sectors(4096).Slot(0, 0x07, 63, 100).Ntfs(63).PutAt(446, "\x80").PutAt(440, "\x78\x56\x34\x12");
        disk.Extended(1, 0x05, 1000, {{0, 0x83, 2, 100}}).Image().WriteTo(m_Dir, name);
    }

    void MakeGpt() const {
        CGptBuilder gpt;
        gpt.Entry(0, EfiSystemGuid, 40, 139, "EFI").Entry(2, BasicDataGuid, 200, 299);
        CPartitionTableBuilder disk;
        disk.Sectors(4096)
            .Gpt(gpt)
            .PutAt(1024 + 16, std::string(16, '\x11'))
            .Ntfs(200)
            .Image()
            .WriteTo(m_Dir, "gpt.raw");
    }

    void MakeEndless() const {
        CPartitionTableBuilder disk;
        disk.Sectors(4096).Slot(0, 0x05, 1000, 2000);
        disk.Record(1000, CBootRecordBuilder().Slot(1, 0x05, 500, 100));
        disk.Record(1500, CBootRecordBuilder().Slot(1, 0x05, 0, 100)).Image().WriteTo(m_Dir, "endless.raw");
    }
};

json Partition(unsigned number, unsigned type, const char* typeName, unsigned start, unsigned sectors) {
    return json({{"number", number},
                 {"type_id", type},
                 {"type", typeName},
                 {"start_sector", start},
                 {"sectors", sectors},
                 {"bytes", sectors * 512},
                 {"bootable", false},
                 {"extended", false},
                 {"logical", false},
                 {"file_system", nullptr}});
}

TEST_F(CommandPartitions, TellNoSizeThatNobodyCanCount) {
    CGptBuilder gpt;
    gpt.Entry(0, EfiSystemGuid, 40, ~uint64_t{0} - 1);
    CPartitionTableBuilder disk;
    disk.Sectors(4096).Gpt(gpt).Image().WriteTo(m_Dir, "huge.raw");
    for (const char* command : {"partitions", "volumes"}) {
        SCOPED_TRACE(command);
        const CommandOutcome_t outcome = Run({command, "--json", "huge.raw"});
        ASSERT_EQ(outcome.exitCode, 0) << outcome.errorOutput;
        EXPECT_THAT(outcome.output, HasSubstr("\"bytes\": null"));
        EXPECT_THAT(Run({command, "huge.raw"}).output, HasSubstr("over 16 EiB"));
    }
}

TEST_F(CommandPartitions, TellOfAnMbr) {
    MakeMbr();
    json first = Partition(1, 7, "NTFS/exFAT", 63, 100);
    first["bootable"] = true;
    first["file_system"] = "ntfs";
    json second = Partition(2, 5, "Extended", 1000, 102);
    second["extended"] = true;
    json fifth = Partition(5, 0x83, "Linux", 1002, 100);
    fifth["logical"] = true;
    EXPECT_EQ(RunForJson({"partitions", "--json", "mbr.raw"}),
              json({{"disks", json::array({{{"disk", "mbr.raw"},
                                            {"scheme", "mbr"},
                                            {"sectors", 4096},
                                            {"signature", 0x12345678},
                                            {"partitions", json::array({first, second, fifth})}}})}}));
    const CommandOutcome_t text = Run({"partitions", "mbr.raw"});
    EXPECT_SUCCEEDS(text);
    EXPECT_EQ(text.output, "mbr.raw: 2.0 MiB, mbr\n"
                           "Number  Boot  Start  Sectors  Size      Type        File system  Name  GUID\n"
                           "1       *     63     100      50.0 KiB  NTFS/exFAT  ntfs         -     -\n"
                           "2             1000   102      51.0 KiB  Extended    -            -     -\n"
                           "5             1002   100      50.0 KiB  Linux       -            -     -\n");
}

TEST_F(CommandPartitions, TellOfAGpt) {
    MakeGpt();
    const json object = RunForJson({"partitions", "--json", "gpt.raw"});
    ASSERT_EQ(1U, object["disks"].size());
    const json& disk = object["disks"][0];
    EXPECT_EQ("gpt", disk["scheme"]);
    EXPECT_EQ(38U, disk["guid"].get<std::string>().size());
    ASSERT_EQ(2U, disk["partitions"].size());
    EXPECT_EQ(disk["partitions"][0], json({{"number", 1},
                                           {"name", "EFI"},
                                           {"type_guid", "{C12A7328-F81F-11D2-BA4B-00A0C93EC93B}"},
                                           {"type", "EFI system"},
                                           {"guid", "{11111111-1111-1111-1111-111111111111}"},
                                           {"start_sector", 40},
                                           {"sectors", 100},
                                           {"bytes", 51200},
                                           {"bootable", false},
                                           {"extended", false},
                                           {"logical", false},
                                           {"file_system", nullptr}}));
    EXPECT_EQ(3, disk["partitions"][1]["number"]);
    EXPECT_EQ("ntfs", disk["partitions"][1]["file_system"]);
    EXPECT_FALSE(disk["partitions"][1].contains("name"));
}

TEST_F(CommandPartitions, WarningsGoToTheErrorOutput) {
    MakeGpt();  // the identifier of a partition isn't the one that the checksum was made over
    const CommandOutcome_t outcome = Run({"partitions", "gpt.raw"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.output, HasSubstr("EFI system"));
    EXPECT_EQ(outcome.errorOutput, "diskstream: warning: gpt.raw: the checksum of the GPT's entries is wrong\n");
}

TEST_F(CommandPartitions, TellOfADiskWithoutATable) {
    CPartitionTableBuilder ntfs;
    ntfs.Sectors(2048).Ntfs(0).Image().WriteTo(m_Dir, "ntfs.raw");
    m_Dir.Write("zeros.raw", std::string(1024, '\0'));
    const CommandOutcome_t text = Run({"partitions", "ntfs.raw", "zeros.raw"});
    EXPECT_SUCCEEDS(text);
    EXPECT_EQ(text.output, "ntfs.raw: 1.0 MiB, no partition table, ntfs on the whole disk\n"
                           "zeros.raw: 1.0 KiB, no partition table\n");
    const json object = RunForJson({"partitions", "--json", "ntfs.raw", "zeros.raw"});
    EXPECT_EQ(object["disks"][0]["file_system"], "ntfs");
    EXPECT_EQ(object["disks"][1], json({{"disk", "zeros.raw"},
                                        {"scheme", "none"},
                                        {"sectors", 2},
                                        {"file_system", nullptr},
                                        {"partitions", json::array()}}));
}

TEST_F(CommandPartitions, OfImagesAreThoseOfTheDiskInThem) {
    MakeMbr();
    const std::string bytes = m_Dir.Read("mbr.raw");
    CVhdBuilder::Fixed(4096).Data(0, bytes).WriteTo(m_Dir, "disk.vhd");
    m_Dir.Write("flat-flat.vmdk", bytes);
    CVmdkDescriptorBuilder()
        .CreateType("monolithicFlat")
        .Line("encoding=\"UTF-8\"")
        .Extent(4096, "FLAT", "flat-flat.vmdk")
        .WriteTo(m_Dir, "flat.vmdk");
    const json expected = RunForJson({"partitions", "--json", "mbr.raw"})["disks"][0]["partitions"];
    const json object = RunForJson({"partitions", "--json", "disk.vhd", "flat.vmdk"});
    EXPECT_EQ(expected, object["disks"][0]["partitions"]);
    EXPECT_EQ(expected, object["disks"][1]["partitions"]);
    EXPECT_EQ("flat.vmdk", object["disks"][1]["disk"]);
}

TEST_F(CommandPartitions, ThatNeverEndAreAFailureThatNamesTheSector) {
    MakeEndless();
    for (const char* command : {"partitions", "volumes", "read"}) {
        SCOPED_TRACE(command);
        EXPECT_FAILS_WITH(Run({command, "endless.raw"}), 1,
                          "endless.raw: the extended partition's record in sector 1500 leads back to the one in "
                          "sector 1000");
    }
    EXPECT_THAT(RunForJson({"partitions", "--json", "endless.raw"}, 1)["error"].get<std::string>(),
                HasSubstr("sector 1500"));
}

TEST_F(CommandPartitions, OfADiskThatIsNotThereAreAFailure) {
    MakeMbr();
    for (const char* command : {"partitions", "volumes"}) {
        SCOPED_TRACE(command);
        EXPECT_FAILS_WITH(Run({command, "none"}), 1, "none: No such file or directory");
        EXPECT_FAILS_WITH(Run({command, "mbr.raw", "none"}), 1, "none: No such file or directory");
        EXPECT_FAILS_WITH(Run({command, "."}), 1, ".: Is a directory");
        EXPECT_THAT(RunForJson({command, "--json", "none"}, 1)["error"].get<std::string>(), HasSubstr("none: "));
    }
    m_Dir.Write("odd", std::string(513, 'x'));
    EXPECT_FAILS_WITH(Run({"partitions", "odd"}), 1, "odd: has 513 bytes");
}

TEST_F(CommandPartitions, AsVolumesHaveNames) {
    MakeMbr();
    MakeMbr("second.raw");
    const CommandOutcome_t text = Run({"volumes", "mbr.raw", "second.raw"});
    EXPECT_SUCCEEDS(text);
    EXPECT_EQ(text.output, "Name             Scheme  Type        Start  Size      File system  GUID  Disks\n"
                           "Volume1          mbr     NTFS/exFAT  63     50.0 KiB  ntfs         -     mbr.raw\n"
                           "Disk1Partition5  mbr     Linux       1002   50.0 KiB  -            -     mbr.raw\n"
                           "Volume2          mbr     NTFS/exFAT  63     50.0 KiB  ntfs         -     second.raw\n"
                           "Disk2Partition5  mbr     Linux       1002   50.0 KiB  -            -     second.raw\n");
    const json object = RunForJson({"volumes", "--json", "mbr.raw"});
    ASSERT_EQ(2U, object["volumes"].size());
    EXPECT_EQ(object["volumes"][0], json({{"name", "Volume1"},
                                          {"scheme", "mbr"},
                                          {"partition", 1},
                                          {"type", "NTFS/exFAT"},
                                          {"start_sector", 63},
                                          {"sectors", 100},
                                          {"bytes", 51200},
                                          {"file_system", "ntfs"},
                                          {"disks", {"mbr.raw"}},
                                          {"missing_disks", json::array()},
                                          {"readable", true}}));
}

TEST_F(CommandPartitions, OfDisksWithoutVolumesAreNone) {
    m_Dir.Write("zeros.raw", std::string(1024, '\0'));
    EXPECT_EQ(RunForJson({"volumes", "--json", "zeros.raw"}), json({{"volumes", json::array()}}));
}

// What a disk calls itself goes to a terminal: nothing in it may steer that.
TEST_F(CommandPartitions, NamesOfPartitionsCannotSteerTheTerminal) {
    CGptBuilder gpt;
    CPartitionTableBuilder disk;
    gpt.Entry(0, BasicDataGuid, 40, 139, "a\x1B[2J\nb\x7F");
    disk.Sectors(4096).Gpt(gpt).Image().WriteTo(m_Dir, "gpt.raw");
    const CommandOutcome_t text = Run({"partitions", "gpt.raw"});
    EXPECT_SUCCEEDS(text);
    EXPECT_THAT(text.output, HasSubstr("a\\x1B[2J\\x0Ab\\x7F"));
    EXPECT_EQ("a\x1B[2J\nb\x7F", RunForJson({"partitions", "--json", "gpt.raw"})["disks"][0]["partitions"][0]["name"]);
}

TEST_F(CommandPartitions, NothingIsWrittenBesideTheDisks) {
    MakeMbr();
    EXPECT_SUCCEEDS(Run({"partitions", "mbr.raw"}));
    EXPECT_SUCCEEDS(Run({"volumes", "mbr.raw"}));
    EXPECT_SUCCEEDS(Run({"read", "-q", "mbr.raw", "--partition", "1"}));
    EXPECT_EQ(m_Dir.Entries(), Names_t{"mbr.raw"});
}

}  // namespace
