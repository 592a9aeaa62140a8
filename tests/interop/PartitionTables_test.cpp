#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/interop/JsonOutput.h"
#include "tests/support/Bytes.h"
#include "tests/support/TempDir.h"

// Partition tables that others wrote are read as they read them, and they read ours.

namespace {

using nlohmann::json;
using Texts_t = std::vector<std::string>;

std::string Upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char character) { return static_cast<char>(std::toupper(character)); });
    return text;
}

std::string WithoutBraces(const std::string& guid) {
    return guid.size() > 2 && guid.front() == '{' ? guid.substr(1, guid.size() - 2) : guid;
}

json OurTable(const std::string& disk) {
    const json object = JsonFrom(std::string(DISKSTREAM_COMMAND) + " partitions --json " + Quoted(disk));
    return object.is_object() ? object["disks"].at(0) : json();
}

// Every fact that both tell, as "5 2048+100 83 boot": number, place, type, and for a GPT its names.
Texts_t Ours(const std::string& disk) {
    Texts_t texts;
    const json table = OurTable(disk);
    for (const json& each : table.value("partitions", json::array())) {
        std::ostringstream text;
        text << each["number"] << " " << each["start_sector"] << "+" << each["sectors"] << " ";
        if (each.contains("type_guid"))
            text << WithoutBraces(each["type_guid"]) << " " << WithoutBraces(each["guid"]) << " "
                 << each.value("name", "");
        else
            text << std::hex << each["type_id"].get<int>() << (each["bootable"] == true ? " boot" : "");
        texts.push_back(text.str());
    }
    return texts;
}

Texts_t SfdiskSays(const std::string& disk) {
    std::vector<std::pair<int, std::string>> texts;
    const json table = JsonFrom("sfdisk --json " + Quoted(disk))["partitiontable"];
    for (const json& each : table.value("partitions", json::array())) {
        const int number = std::stoi(each["node"].get<std::string>().substr(disk.size()));
        std::ostringstream text;
        text << number << " " << each["start"] << "+" << each["size"] << " " << each["type"].get<std::string>();
        if (table["label"] == "gpt")
            text << " " << each["uuid"].get<std::string>() << " " << each.value("name", "");
        else
            text << (each.value("bootable", false) ? " boot" : "");
        texts.emplace_back(number, text.str());
    }
    std::sort(texts.begin(), texts.end());
    Texts_t sorted;
    for (const auto& [number, text] : texts)
        sorted.push_back(text);
    return sorted;
}

// Number, first and last sector.
Texts_t SgdiskSays(const std::string& disk) {
    std::string output;
    EXPECT_TRUE(RunProgram("sgdisk -p " + Quoted(disk), &output)) << output;
    std::istringstream lines(output.substr(std::min(output.find("Number"), output.size())));
    Texts_t texts;
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        uint64_t number = 0;
        uint64_t first = 0;
        uint64_t last = 0;
        if (words >> number >> first >> last)
            texts.push_back(std::to_string(number) + " " + std::to_string(first) + "-" + std::to_string(last));
    }
    return texts;
}

Texts_t OursAsSgdiskSays(const std::string& disk) {
    Texts_t texts;
    const json table = OurTable(disk);
    for (const json& each : table.value("partitions", json::array())) {
        const uint64_t first = each["start_sector"];
        texts.push_back(each["number"].dump() + " " + std::to_string(first) + "-" +
                        std::to_string(first + each["sectors"].get<uint64_t>() - 1));
    }
    return texts;
}

class PartitionTables : public testing::Test {
protected:
    std::string Disk() const { return m_Dir.File("disk.raw"); }

    void MakeBySfdisk(const std::string& script, uint64_t sizeBytes = uint64_t{64} << 20U) const {
        m_Dir.WriteHole("disk.raw", sizeBytes);
        ASSERT_TRUE(Runs("sfdisk -q --no-reread --no-tell-kernel " + Quoted(Disk()) + " < " +
                         Quoted(m_Dir.Write("script", script))));
    }

    void ExpectAgreement(size_t partitions) const {
        const Texts_t theirs = SfdiskSays(Disk());
        EXPECT_EQ(partitions, theirs.size());
        EXPECT_EQ(theirs, Ours(Disk()));
    }

    CTempDir m_Dir;
};

TEST_F(PartitionTables, OfAnMbrAgreeWithSfdisk) {
    SKIP_WITHOUT_PROGRAM("sfdisk");
    const struct {
        const char* script;
        size_t partitions;
    } rows[] = {
        {"label: dos\n", 0},
        {"label: dos\n2048,2048,7,*\n", 1},
        {"label: dos\nunit: sectors\n1 : start=63, size=100, type=83\n4 : start=4096, size=1, type=c\n", 2},
        {"label: dos\n2048,2048,83\n4096,2048,82\n8192,,5\n10240,2048,83\n14336,2048,7\n20480,2048,8e\n", 6},
        {"label: dos\n2048,20480,f\n30720,2048,83,*\n40960,2048,ef\n65536,,b\n4096,2048,83\n8192,2048,83\n", 6},
        {"label: dos\n1 : start=2048, size=40960, type=85\n5 : start=2111, size=7, type=83\n6 : start=4000, size=9, "
         "type=fd\n",
         3},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.script);
        ASSERT_NO_FATAL_FAILURE(MakeBySfdisk(row.script));
        ExpectAgreement(row.partitions);
        EXPECT_EQ("mbr", OurTable(Disk())["scheme"]);
    }
}

TEST_F(PartitionTables, OfAnMbrWithManyLogicalPartitionsAgreeWithSfdisk) {
    SKIP_WITHOUT_PROGRAM("sfdisk");
    std::ostringstream script;
    script << "label: dos\n2048,,5\n";
    for (int index = 0; index < 28; ++index)
        script << 4096 + index * 4096 << "," << 1000 + index << ",83\n";
    ASSERT_NO_FATAL_FAILURE(MakeBySfdisk(script.str()));
    ExpectAgreement(29);
}

// Links need not lie in the order of the disk.
TEST_F(PartitionTables, OfLogicalPartitionsMadeOutOfOrderAgreeWithSfdisk) {
    SKIP_WITHOUT_PROGRAM("sfdisk");
    ASSERT_NO_FATAL_FAILURE(MakeBySfdisk("label: dos\n2048,,5\n40960,2048,83\n20480,2048,7\n60000,1000,82\n"));
    ExpectAgreement(4);
    ASSERT_TRUE(Runs("sfdisk -q --no-reread --no-tell-kernel --delete " + Quoted(Disk()) + " 6"));
    ExpectAgreement(3);
    ASSERT_TRUE(Runs("sfdisk -q --no-reread --no-tell-kernel --delete " + Quoted(Disk()) + " 5"));
    ExpectAgreement(2);
}

TEST_F(PartitionTables, OfAGptAgreeWithSfdisk) {
    SKIP_WITHOUT_PROGRAM("sfdisk");
    const struct {
        const char* script;
        size_t partitions;
    } rows[] = {
        {"label: gpt\n", 0},
        {"label: gpt\nsize=2048, type=U, name=\"EFI system partition\"\nsize=4096, type=L\nname=\"Träger диск\"\n", 3},
        {"label: gpt\ntable-length: 4\n4 : size=2048, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n", 1},
        {"label: gpt\ntable-length: 200\n1 : size=1, start=4096\n200 : start=8192, size=77, "
         "type=E3C9E316-0B5C-4DB8-817D-F92DF00215AE, uuid=00112233-4455-6677-8899-AABBCCDDEEFF\n",
         2},
        {"label: gpt\nlabel-id: 12345678-9ABC-DEF0-1234-56789ABCDEF0\nsize=2048, attrs=\"RequiredPartition "
         "LegacyBIOSBootable\"\n",
         1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.script);
        ASSERT_NO_FATAL_FAILURE(MakeBySfdisk(row.script));
        ExpectAgreement(row.partitions);
        const json table = OurTable(Disk());
        EXPECT_EQ("gpt", table["scheme"]);
        EXPECT_EQ(Upper(JsonFrom("sfdisk --json " + Quoted(Disk()))["partitiontable"]["id"]),
                  Upper(WithoutBraces(table["guid"])));
    }
}

TEST_F(PartitionTables, OfAGptAgreeWithSgdisk) {
    SKIP_WITHOUT_PROGRAM("sgdisk");
    std::mt19937_64 random(7);
    for (int turn = 0; turn < 3; ++turn) {
        SCOPED_TRACE(turn);
        m_Dir.WriteHole("disk.raw", uint64_t{64} << 20U);
        std::ostringstream options;
        uint64_t at = 2048;
        for (int number = 1; number <= 20; ++number) {
            const uint64_t sectors = random() % 4000 + 1;
            if (random() % 4 != 0)
                options << " -n " << number << ":" << at << ":" << at + sectors - 1;
            at += sectors + random() % 100;
        }
        ASSERT_TRUE(Runs("sgdisk -a 1" + options.str() + " " + Quoted(Disk())));
        const Texts_t theirs = SgdiskSays(Disk());
        EXPECT_LE(5U, theirs.size());
        EXPECT_EQ(theirs, OursAsSgdiskSays(Disk()));
    }
}

TEST_F(PartitionTables, OfAHybridMbrAreThoseOfTheGpt) {
    SKIP_WITHOUT_PROGRAM("sgdisk");
    m_Dir.WriteHole("disk.raw", uint64_t{16} << 20U);
    ASSERT_TRUE(Runs("sgdisk -n 1:2048:4095 -n 2:4096:8191 -n 5:8192:9000 -h 1:2 " + Quoted(Disk())));
    EXPECT_EQ(SgdiskSays(Disk()), OursAsSgdiskSays(Disk()));
    EXPECT_EQ("gpt", OurTable(Disk())["scheme"]);
}

// What the makers of real disks wrote, for machines that have the collection.
TEST_F(PartitionTables, OfRealDisksAgreeWithSfdisk) {
    SKIP_WITHOUT_PROGRAM("sfdisk");
    const struct {
        const char* archive;
        const char* disk;
        size_t partitions;
    } rows[] = {{"mbr-windows-logicals", "mbr-win-512.raw", 8},
                {"mbr-p1e2", "mbr-512-p1e2.bin", 4},
                {"mbr-1-primary-1-logical", "mbr.raw", 3},
                {"gpt-3p", "gpt-512-3p.raw", 3},
                {"gpt-5p", "gpt.img", 5}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.archive);
        const std::string archive = std::string(DISKSTREAM_SAMPLES_DIR) + "/parttable/" + row.archive + ".tar.xz";
        if (!std::filesystem::exists(archive))
            GTEST_SKIP() << archive << " isn't there";
        ASSERT_TRUE(Runs("tar -C " + Quoted(m_Dir.Path()) + " -xf " + Quoted(archive)));
        std::filesystem::rename(m_Dir.File(std::string(row.archive) + "/" + row.disk), Disk());
        ExpectAgreement(row.partitions);
    }
}

TEST_F(PartitionTables, AnNtfsPartitionReadsAsDdReadsIt) {
    SKIP_WITHOUT_PROGRAM("sfdisk");
    SKIP_WITHOUT_PROGRAM("mkntfs");
    SKIP_WITHOUT_PROGRAM("qemu-img");
    ASSERT_NO_FATAL_FAILURE(MakeBySfdisk("label: dos\n2048,32768,7\n40960,,5\n43008,16384,7\n"));
    m_Dir.WriteHole("ntfs", uint64_t{16} << 20U);
    ASSERT_TRUE(Runs("mkntfs -q -F -Q -p 2048 -H 255 -S 63 -s 512 " + Quoted(m_Dir.File("ntfs"))));
    ASSERT_TRUE(Runs("dd if=" + Quoted(m_Dir.File("ntfs")) + " of=" + Quoted(Disk()) +
                     " bs=512 seek=2048 conv=notrunc status=none"));
    m_Dir.WriteHole("ntfs", uint64_t{8} << 20U);
    ASSERT_TRUE(Runs("mkntfs -q -F -Q -p 43008 -H 255 -S 63 -s 512 " + Quoted(m_Dir.File("ntfs"))));
    ASSERT_TRUE(Runs("dd if=" + Quoted(m_Dir.File("ntfs")) + " of=" + Quoted(Disk()) +
                     " bs=512 seek=43008 conv=notrunc status=none"));
    ASSERT_TRUE(Runs("qemu-img convert -f raw -O vmdk " + Quoted(Disk()) + " " + Quoted(m_Dir.File("disk.vmdk"))));
    ASSERT_TRUE(Runs("qemu-img convert -f raw -O vpc -o force_size=on " + Quoted(Disk()) + " " +
                     Quoted(m_Dir.File("disk.vhd"))));
    const struct {
        const char* options;
        const char* range;  // of dd, in sectors
    } rows[] = {
        {"--partition 1", "skip=2048 count=32768"},
        {"--volume Volume1", "skip=2048 count=32768"},
        {"--partition 5", "skip=43008 count=16384"},
        {"--volume Volume2", "skip=43008 count=16384"},
        {"--volume Volume2 --offset 1M --length 64K", "skip=45056 count=128"},
        {"--partition 1 --offset 512", "skip=2049 count=32767"},
        {"", "skip=0"},
    };
    for (const char* image : {"disk.raw", "disk.vmdk", "disk.vhd"}) {
        for (const auto& row : rows) {
            SCOPED_TRACE(testing::Message() << image << " " << row.options);
            ASSERT_TRUE(Runs("dd if=" + Quoted(Disk()) + " bs=512 status=none " + row.range +
                             " of=" + Quoted(m_Dir.File("expected"))));
            EXPECT_TRUE(Runs(std::string(DISKSTREAM_COMMAND) + " read -q " + Quoted(m_Dir.File(image)) + " " +
                             row.options + " | cmp - " + Quoted(m_Dir.File("expected"))));
        }
    }
    const json volumes =
        JsonFrom(std::string(DISKSTREAM_COMMAND) + " volumes --json " + Quoted(m_Dir.File("disk.vhd")));
    ASSERT_EQ(2U, volumes["volumes"].size());
    EXPECT_EQ("ntfs", volumes["volumes"][0]["file_system"]);
    EXPECT_EQ("ntfs", volumes["volumes"][1]["file_system"]);
}

TEST_F(PartitionTables, FileSystemsAreThoseThatTheirMakersMade) {
    const struct {
        const char* program;
        const char* make;
        const char* name;
    } rows[] = {{"mkfs.ext4", "mkfs.ext4 -q -F", "ext4"}, {"mkfs.ext3", "mkfs.ext3 -q -F", "ext3"},
                {"mkfs.ext2", "mkfs.ext2 -q -F", "ext2"}, {"mkntfs", "mkntfs -q -F -Q", "ntfs"},
                {"mkswap", "mkswap -q", "swap"},          {"mkfs.vfat", "mkfs.vfat -F 32", "fat32"},
                {"mkfs.xfs", "mkfs.xfs -q", "xfs"},       {"mkfs.btrfs", "mkfs.btrfs -q", "btrfs"},
                {"mkfs.exfat", "mkfs.exfat", "exfat"},    {"mkfs.fat", "mkfs.fat -F 16", "fat16"}};
    unsigned made = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        m_Dir.WriteHole("disk.raw", uint64_t{400} << 20U);
        if (!HasProgram(row.program) || !RunProgram(std::string(row.make) + " " + Quoted(Disk())))
            continue;
        ++made;
        const json table = OurTable(Disk());
        EXPECT_EQ("none", table["scheme"]);
        EXPECT_EQ(row.name, table["file_system"]);
        std::filesystem::remove(Disk());
    }
    if (made == 0)
        GTEST_SKIP() << "no program that makes file systems is installed";
}

TEST_F(PartitionTables, OfDisksThatWeMakeAreRead) {
    SKIP_WITHOUT_PROGRAM("sfdisk");
    const std::string create = std::string(DISKSTREAM_COMMAND) + " create-disk -q --size 20M ";
    ASSERT_TRUE(Runs(create + Quoted(m_Dir.File("new.vhd"))));
    ASSERT_TRUE(Runs(create + Quoted(m_Dir.File("new.vmdk"))));
    for (const char* name : {"new.vhd", "new.vmdk"}) {
        SCOPED_TRACE(name);
        const std::string image = m_Dir.File(name);
        ASSERT_TRUE(Runs(std::string(DISKSTREAM_COMMAND) + " read -q " + Quoted(image) + " > " + Quoted(Disk())));
        ExpectAgreement(1);
        EXPECT_EQ(0U, SfdiskSays(Disk()).at(0).find("1 63+40960 7"));
        EXPECT_EQ(SfdiskSays(Disk()), Ours(image));
        if (HasProgram("qemu-img")) {
            // Left to itself it would know no fixed VHD, and take the geometry, which is rounded up, for
            // the size.
            const std::string options = std::string(name) == "new.vhd"
                                            ? "driver=vpc,force_size_calc=current_size,file.filename="
                                            : "driver=vmdk,file.filename=";
            EXPECT_TRUE(Runs("qemu-img compare --image-opts driver=raw,file.filename=" + Quoted(Disk()) + " " +
                             options + Quoted(image)));
        }
    }
    if (HasProgram("vhdiinfo")) {
        std::string output;
        EXPECT_TRUE(RunProgram("vhdiinfo " + Quoted(m_Dir.File("new.vhd")), &output)) << output;
        EXPECT_NE(std::string::npos, output.find("Fixed")) << output;
    }
}

}  // namespace
