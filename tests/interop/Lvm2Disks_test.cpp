#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/interop/JsonOutput.h"
#include "tests/interop/Lvm2Programs.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/SameBytes.h"

// Volume groups that LVM2's own programs make on loop devices. Nothing is activated: the disks are full
// of noise, and the volumes have to hold the noise of the places that the programs tell.

namespace {

using nlohmann::json;

constexpr uint64_t DiskBytes = uint64_t{40} << 20U;
constexpr uint64_t SectorBytes = 512;

class Lvm2Disks : public testing::Test {
protected:
    void SetUp() override {
        const std::string missing = WhatLvm2Lacks();
        if (!missing.empty())
            GTEST_SKIP() << missing;
    }

    // Whole disks of noise.
    void AddDisk() { AddDevice(NoiseFile(), 0, DiskBytes); }

    // A disk of noise with an MBR, whose second partition the device is.
    void AddPartition() {
        const uint64_t first = 6144;
        const uint64_t sectors = DiskBytes / SectorBytes - first - 1000;
        const std::string file = NoiseFile();
        const std::string record = CBootRecordBuilder()
                                       .Slot(0, 0x83, 2048, 100)
                                       .Slot(1, 0x8E, static_cast<uint32_t>(first), static_cast<uint32_t>(sectors))
                                       .Bytes();
        std::fstream(file, std::ios::in | std::ios::out | std::ios::binary).write(record.data(), 512);
        AddDevice(file, first * SectorBytes, sectors * SectorBytes);
    }

    // False, and the test skipped, where no device can be had.
    bool HasDevices() const {
        return std::all_of(m_Devices.begin(), m_Devices.end(), [](const auto& device) { return device->IsThere(); });
    }

    // Runs one of LVM2's programs on our devices alone.
    void Lvm(const std::string& command) { EXPECT_TRUE(Runs(Line(command))); }

    std::string Line(const std::string& command) const {
        std::vector<std::string> devices;
        for (const auto& device : m_Devices)
            devices.push_back(device->Path());
        return Lvm2Line(command, devices);
    }

    json Report(const std::string& command, const std::string& kind) {
        return JsonFrom(Line(command + " --reportformat json --units s --nosuffix"))["report"].at(0)[kind];
    }

    void MakeGroup() {
        std::string devices;
        for (const auto& device : m_Devices)
            devices += " " + device->Path();
        Lvm("pvcreate -q" + devices);
        Lvm("vgcreate -q -s 1M vg" + devices);
    }

    // What the volume has to hold, by the places that `lvs` and `pvs` tell.
    std::string Expected(const std::string& name) {
        std::string content;
        for (const json& segment : Report(
                 "lvs -o lv_name,stripes,stripe_size,seg_start_pe,seg_pe_ranges,vg_extent_size --segments vg", "seg"))
            content += segment["lv_name"] == name ? SegmentContent(segment) : std::string();
        return content;
    }

    std::string Command(const std::string& arguments) const {
        std::string command = std::string(DISKSTREAM_COMMAND) + " " + arguments;
        for (const std::string& file : m_Files)
            command += " " + Quoted(file);
        return command;
    }

    std::string Read(const std::string& name) {
        EXPECT_TRUE(Runs(Command("read --volume vg-" + name) + " > " + Quoted(m_Dir.File("volume"))));
        return FileContent(m_Dir.File("volume"));
    }

    json Listed(const std::string& name) const {
        for (const json& volume : JsonFrom(Command("volumes --json")).value("volumes", json::array())) {
            if (volume["name"] == "vg-" + name)
                return volume;
        }
        ADD_FAILURE() << name << " isn't listed";
        return json::object();
    }

    CTempDir m_Dir;
    std::vector<std::string> m_Files;  // of the disks
    std::vector<uint64_t> m_Offsets;   // of the devices in them
    std::vector<std::unique_ptr<CLosetup>> m_Devices;

private:
    std::string NoiseFile() {
        std::mt19937_64 random(m_Files.size() + 1);
        std::vector<uint64_t> words(DiskBytes / sizeof(uint64_t));
        std::generate(words.begin(), words.end(), random);
        std::fill_n(words.begin(), (uint64_t{1} << 20U) / sizeof(uint64_t), 0);  // where marks of others could stand
        const std::string file = m_Dir.File("disk" + std::to_string(m_Files.size()));
        std::ofstream(file, std::ios::binary)
            .write(reinterpret_cast<const char*>(words.data()), static_cast<long>(DiskBytes));
        m_Files.push_back(file);
        return file;
    }

    void AddDevice(const std::string& file, uint64_t offset, uint64_t bytes) {
        m_Offsets.push_back(offset);
        m_Devices.push_back(std::make_unique<CLosetup>(file, offset, bytes));
    }

    // The bytes of "/dev/loop0:3-7".
    std::string RangeContent(const std::string& range, uint64_t extentBytes) {
        const size_t colon = range.rfind(':');
        const size_t dash = range.rfind('-');
        const uint64_t first = std::stoull(range.substr(colon + 1));
        const uint64_t last = std::stoull(range.substr(dash + 1));
        for (size_t index = 0; index < m_Devices.size(); ++index) {
            if (m_Devices[index]->Path() != range.substr(0, colon))
                continue;
            const json device = Report("pvs -o pe_start " + m_Devices[index]->Path(), "pv").at(0);
            const uint64_t start = std::stoull(device["pe_start"].get<std::string>()) * SectorBytes;
            return FileContent(m_Files[index], m_Offsets[index] + start + first * extentBytes,
                               (last - first + 1) * extentBytes);
        }
        ADD_FAILURE() << range << " is on none of the devices";
        return {};
    }

    std::string SegmentContent(const json& segment) {
        const uint64_t extentBytes = std::stoull(segment["vg_extent_size"].get<std::string>()) * SectorBytes;
        const uint64_t stripeBytes = std::stoull(segment["stripe_size"].get<std::string>()) * SectorBytes;
        std::vector<std::string> columns;
        std::istringstream ranges(segment["seg_pe_ranges"].get<std::string>());
        for (std::string range; ranges >> range;)
            columns.push_back(RangeContent(range, extentBytes));
        EXPECT_EQ(segment["stripes"].get<std::string>(), std::to_string(columns.size()));
        if (columns.size() == 1)
            return columns.front();
        std::string content;
        for (uint64_t at = 0; at < columns.front().size(); at += stripeBytes) {
            for (const std::string& column : columns)
                content += column.substr(at, stripeBytes);
        }
        return content;
    }
};

#define SKIP_WITHOUT_DEVICES() \
    if (!HasDevices())         \
    GTEST_SKIP() << "loop devices can't be had here"

TEST_F(Lvm2Disks, ALinearVolumeOnOneDiskHoldsTheBytesOfItsExtents) {
    AddDisk();
    SKIP_WITHOUT_DEVICES();
    MakeGroup();
    Lvm("lvcreate -q -an -Zn -Wn -n other -l 3 vg");
    Lvm("lvcreate -q -an -Zn -Wn -n linear -l 7 vg");
    EXPECT_SAME_BYTES(Expected("linear"), Read("linear"));
    EXPECT_SAME_BYTES(Expected("other"), Read("other"));
    const json volume = Listed("linear");
    EXPECT_EQ("lvm2", volume.value("scheme", ""));
    EXPECT_EQ("linear", volume.value("type", ""));
    EXPECT_EQ("vg", volume.value("group", ""));
    EXPECT_EQ(7U << 20U, volume.value("bytes", 0U));
    EXPECT_EQ(Report("lvs -o lv_uuid vg/linear", "lv").at(0)["lv_uuid"], volume.value("id", ""));
}

TEST_F(Lvm2Disks, ALinearVolumeGoesOnOverItsSeamsAndOnTheNextDisk) {
    AddDisk();
    AddDisk();
    SKIP_WITHOUT_DEVICES();
    MakeGroup();
    Lvm("lvcreate -q -an -Zn -Wn -n linear -l 10 vg");
    Lvm("lvcreate -q -an -Zn -Wn -n between -l 4 vg");
    Lvm("lvextend -q -l 55 vg/linear");
    EXPECT_LE(3U, Report("lvs --segments -o seg_start_pe vg/linear", "seg").size());
    EXPECT_SAME_BYTES(Expected("linear"), Read("linear"));
    EXPECT_EQ(json(m_Files), Listed("linear")["disks"]);
}

TEST_F(Lvm2Disks, AVolumeIsStripedOverThreeDisks) {
    for (int disk = 0; disk < 3; ++disk)
        AddDisk();
    SKIP_WITHOUT_DEVICES();
    MakeGroup();
    Lvm("lvcreate -q -an -Zn -Wn -n shift -l 2 vg");
    Lvm("lvcreate -q -an -Zn -Wn -n striped -i 3 -I 64k -l 30 vg");
    EXPECT_SAME_BYTES(Expected("striped"), Read("striped"));
    EXPECT_EQ("striped", Listed("striped").value("type", ""));
    Lvm("lvcreate -q -an -Zn -Wn -n between -i 3 -I 64k -l 3 vg");
    Lvm("lvextend -q -i 2 -I 16k -l +20 vg/striped");  // a second segment, with stripes of its own
    EXPECT_SAME_BYTES(Expected("striped"), Read("striped"));
}

TEST_F(Lvm2Disks, PhysicalVolumesLieOnPartitionsToo) {
    AddPartition();
    AddDisk();
    SKIP_WITHOUT_DEVICES();
    MakeGroup();
    Lvm("lvcreate -q -an -Zn -Wn -n striped -i 2 -I 32k -l 10 vg");
    Lvm("lvcreate -q -an -Zn -Wn -n linear -l 50 vg");
    EXPECT_SAME_BYTES(Expected("linear"), Read("linear"));
    EXPECT_SAME_BYTES(Expected("striped"), Read("striped"));
}

TEST_F(Lvm2Disks, AVolumeOfWhichADiskIsMissingIsNamedWithItsPhysicalVolume) {
    AddDisk();
    AddDisk();
    SKIP_WITHOUT_DEVICES();
    MakeGroup();
    Lvm("lvcreate -q -an -Zn -Wn -n first -l 5 vg " + m_Devices[0]->Path());
    Lvm("lvcreate -q -an -Zn -Wn -n both -l 50 vg");
    const std::string gone = Report("pvs -o pv_uuid " + m_Devices[1]->Path(), "pv").at(0)["pv_uuid"];
    const std::string first = Expected("first");
    m_Files.pop_back();
    const json volume = Listed("both");
    EXPECT_FALSE(volume.value("readable", true));
    ASSERT_EQ(1U, volume["missing_disks"].size());
    EXPECT_EQ(gone, volume["missing_disks"][0]["id"]);
    std::string output;
    EXPECT_FALSE(RunProgram(Command("read --volume vg-both"), &output));
    EXPECT_NE(std::string::npos, output.find(gone)) << output;
    EXPECT_SAME_BYTES(first, Read("first"));
}

TEST_F(Lvm2Disks, TypesThatCannotBeReadAreNamed) {
    AddDisk();
    SKIP_WITHOUT_DEVICES();
    MakeGroup();
    Lvm("lvcreate -q -an -Zn -Wn -n linear -l 4 vg");
    for (const std::string type : {"zero", "error"}) {  // those that can be made without a driver
        Lvm("lvcreate -q -an -Zn -Wn -n " + type + " --type " + type + " -l 4 vg");
        const json volume = Listed(type);
        EXPECT_EQ(type, volume.value("type", ""));
        EXPECT_FALSE(volume.value("readable", true));
        std::string output;
        EXPECT_FALSE(RunProgram(Command("read --volume vg-" + type), &output));
        EXPECT_NE(std::string::npos, output.find("\"" + type + "\"")) << output;
    }
    EXPECT_SAME_BYTES(Expected("linear"), Read("linear"));
}

TEST_F(Lvm2Disks, ManyChangesOfTheMetadataAreReadAroundTheEndOfItsRing) {
    AddDisk();
    SKIP_WITHOUT_DEVICES();
    Lvm("pvcreate -q --metadatasize 64k " + m_Devices[0]->Path());
    Lvm("vgcreate -q -s 1M vg " + m_Devices[0]->Path());
    Lvm("lvcreate -q -an -Zn -Wn -n linear -l 5 vg");
    for (int change = 0; change < 60; ++change) {
        Lvm("lvchange -q --addtag tag" + std::to_string(change) + " vg/linear");
        ASSERT_TRUE(Listed("linear").value("readable", false)) << "after change " << change;
    }
    EXPECT_SAME_BYTES(Expected("linear"), Read("linear"));
}

// Volume groups of other machines: the extents of their volumes, from the first byte of the first one on.
struct KnownLvm2Volume_t {
    const char* archive;
    const char* file;
    const char* name;
    const char* fileSystem;
    uint64_t firstExtent;  // bytes
    std::vector<std::pair<uint64_t, uint64_t>> extents;
    const char* sha256;  // empty where the content is too long to be summed in every run
};

const KnownLvm2Volume_t KnownVolumes[] = {
    {"gpt-vg-test-3lv",
     "lvm2.raw",
     "test-fat",
     "fat32",
     4096 * 512,
     {{562, 128}, {285, 25}, {946, 25}},
     "083fc4d321825352cf3da03b5ced1d17e1631e00de45510988e02c2f3d9a65ea"},
    {"gpt-vg-test-3lv", "lvm2.raw", "test-ntfs", "ntfs", 4096 * 512, {{690, 256}, {310, 25}}, ""},
    {"gpt-vg-test-3lv", "lvm2.raw", "test-vol01", "ext3", 4096 * 512, {{0, 256}, {512, 50}}, ""},
    {"one-lv",
     "lvm.bin",
     "vg_test-lv_test",
     "",
     1048576,
     {{0, 1}},
     "dffad29594c30648611f56c4122ed557bdfd08bb178ce28d22436009bd7c4a1a"},
};

// A command that prints the bytes of the extents, 4 MiB each.
std::string ExtentsCommand(const KnownLvm2Volume_t& known, const std::string& disk) {
    std::string command = "{ true";
    for (const auto& [first, count] : known.extents)
        command += "; dd status=none bs=4M iflag=skip_bytes,fullblock count=" + std::to_string(count) +
                   " skip=" + std::to_string(known.firstExtent + (first << 22U)) + " if=" + Quoted(disk);
    return command + "; }";
}

// The only disk of an archive, unpacked once; empty where the archive isn't there.
std::string Unpacked(const CTempDir& dir, const std::string& name, const std::string& file) {
    if (std::filesystem::exists(dir.File(name + "/" + file)))
        return dir.File(name + "/" + file);
    const std::string archive = std::string(DISKSTREAM_SAMPLES_DIR) + "/lvm2/" + name + ".tar.xz";
    if (!std::filesystem::exists(archive))
        return {};
    EXPECT_TRUE(Runs("tar -C " + Quoted(dir.Path()) + " -xf " + Quoted(archive)));
    return dir.File(name + "/" + file);
}

TEST(Lvm2Samples, VolumesHoldWhatIsKnownOfThem) {
    const CTempDir dir;
    for (const KnownLvm2Volume_t& known : KnownVolumes) {
        SCOPED_TRACE(known.name);
        const std::string disk = Unpacked(dir, known.archive, known.file);
        if (disk.empty())
            GTEST_SKIP() << known.archive << " isn't there";
        const std::string command = std::string(DISKSTREAM_COMMAND) + " ";
        const std::string read = command + "read --volume " + known.name + " " + Quoted(disk);
        EXPECT_TRUE(Runs("bash -c \"cmp <(" + read + ") <(" + ExtentsCommand(known, disk) + ")\""));
        const std::string sha256 = known.sha256;
        EXPECT_EQ(sha256, sha256.empty() ? sha256 : FirstWordOf(read + " | sha256sum"));
        const json listed = JsonFrom(command + "volumes --json " + Quoted(disk))["volumes"];
        EXPECT_TRUE(std::any_of(listed.begin(), listed.end(), [&](const json& each) {
            const json fileSystem = each["file_system"];
            return each["name"] == known.name && (fileSystem.is_null() ? json("") : fileSystem) == known.fileSystem;
        })) << listed;
    }
}

TEST(Lvm2Samples, AThinPoolIsNamedAndItsInternalVolumesAreRead) {
    const CTempDir dir;
    const std::string disk = Unpacked(dir, "thin", "lvm-thin.bin");
    if (disk.empty())
        GTEST_SKIP() << "the sample isn't there";
    const std::string command = std::string(DISKSTREAM_COMMAND) + " ";
    const json listed = JsonFrom(command + "volumes --json " + Quoted(disk))["volumes"];
    std::vector<std::string> texts;
    for (const json& volume : listed)
        texts.push_back(volume.value("name", "") + " " + volume.value("type", "") +
                        (volume.value("readable", false) ? " readable" : "") +
                        (volume.value("internal", false) ? " internal" : ""));
    EXPECT_EQ((std::vector<std::string>{"lvm-thin-data thin-pool", "lvm-thin-data_tdata linear readable internal",
                                        "lvm-thin-data_tmeta linear readable internal", "lvm-thin-lv-1 thin",
                                        "lvm-thin-lv-2 thin", "lvm-thin-lvol0_pmspare linear readable internal"}),
              texts);
    EXPECT_FALSE(RunProgram(command + "read --volume lvm-thin-lv-1 " + Quoted(disk)));
}

TEST(Lvm2Samples, APhysicalVolumeWithoutAGroupIsSaid) {
    const CTempDir dir;
    const std::string disk = Unpacked(dir, "pv-without-vg", "lvm2.img");
    if (disk.empty())
        GTEST_SKIP() << "the sample isn't there";
    std::string output;
    EXPECT_TRUE(RunProgram(std::string(DISKSTREAM_COMMAND) + " volumes " + Quoted(disk), &output));
    EXPECT_NE(std::string::npos, output.find("Vynv4k-APH8-xQER-HSBb-8VJ3-SvFF-PB5O1U")) << output;
}

}  // namespace
