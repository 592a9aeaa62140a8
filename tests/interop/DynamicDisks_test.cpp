#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/interop/JsonOutput.h"
#include "tests/support/SameBytes.h"

// Dynamic disks that Windows made: their volumes hold what is known of them, and lie where another
// program says.

namespace {

using nlohmann::json;

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char character) { return static_cast<char>(std::tolower(character)); });
    return text;
}

// One archive of disks, unpacked.
class DynamicSample {
public:
    explicit DynamicSample(const std::string& name)
        : m_Archive(std::string(DISKSTREAM_SAMPLES_DIR) + "/ldm/" + name + ".tar.xz"), m_Folder(m_Dir.File(name)) {
        if (!IsThere())
            return;
        EXPECT_TRUE(Runs("tar -C " + Quoted(m_Dir.Path()) + " -xf " + Quoted(m_Archive)));
        for (const auto& entry : std::filesystem::directory_iterator(m_Folder))
            m_Disks.push_back(entry.path());
        std::sort(m_Disks.begin(), m_Disks.end());
    }

    bool IsThere() const { return std::filesystem::exists(m_Archive); }
    const std::string& Archive() const { return m_Archive; }
    const std::vector<std::string>& Disks() const { return m_Disks; }

    // Those whose names don't hold `text`.
    std::vector<std::string> DisksWithout(const std::string& text) const {
        std::vector<std::string> disks;
        std::copy_if(m_Disks.begin(), m_Disks.end(), std::back_inserter(disks),
                     [&](const std::string& disk) { return disk.find(text) == std::string::npos; });
        return disks;
    }

    // Writes the bytes of a volume, by the name that its disk group has for it, into a file.
    std::string Read(const std::string& label, const std::vector<std::string>& disks) {
        const json volume = Volume(label, disks);
        const std::string target = m_Dir.File("volume");
        EXPECT_TRUE(Runs(Command("read --volume " + volume.value("name", "none"), disks) + " > " + Quoted(target)));
        EXPECT_EQ(volume.value("bytes", 0U), std::filesystem::file_size(target)) << label;
        return target;
    }

    static json Volume(const std::string& label, const std::vector<std::string>& disks) {
        const json listed = JsonFrom(Command("volumes --json", disks));
        for (const json& volume : listed.value("volumes", json::array())) {
            if (volume.value("label", "") == label)
                return volume;
        }
        ADD_FAILURE() << label << " isn't listed: " << listed;
        return json::object();
    }

    static std::string Command(const std::string& arguments, const std::vector<std::string>& disks) {
        std::string command = std::string(DISKSTREAM_COMMAND) + " " + arguments;
        for (const std::string& disk : disks)
            command += " " + Quoted(disk);
        return command;
    }

    std::string Sum(const std::string& label, const std::vector<std::string>& disks) {
        return FirstWordOf("sha256sum " + Quoted(Read(label, disks)));
    }

private:
    CTempDir m_Dir;
    std::string m_Archive;
    std::string m_Folder;
    std::vector<std::string> m_Disks;
};

#define SKIP_WITHOUT(sample) \
    if (!(sample).IsThere()) \
    GTEST_SKIP() << (sample).Archive() << " isn't there"

// What is known of a volume: its content, taken once from its disks by the figures of another program.
struct KnownVolume_t {
    const char* label;
    const char* type;
    const char* guid;
    uint64_t sectors;
    const char* sha256;
};

constexpr KnownVolume_t Volumes2003[] = {
    {"Volume1", "simple", "6e30daae-8e42-40fb-9af0-807416c3fede", 96256,
     "6b5398dca1f9671f6e483ceb2491a76a74aa33dc2e3f30147efe2720ffe7bb3a"},
    {"Volume2", "spanned", "fad18ad4-5054-4dea-8fe3-ca433d5fe1d1", 192512,
     "125be910bcd26819400f505323d777d2a7d06d7017237adf61848bafd5c55278"},
    {"Stripe1", "striped", "e5396ff0-7477-4b1a-91e8-476b9b5c6fb5", 122880,
     "4d09261ddb47c1ad0625326032b6a1e86f9a24192cecab10c59dc7c4ee673ddb"},
    {"Volume3", "mirrored", "1010eeb7-09e4-4a6d-9c43-6753ec9d3af2", 96256,
     "b0aec653c2eb833d937b58bbf1d52fad836465faa771225e7d5be8f8e542763b"},
    {"Raid1", "RAID-5", "f8528b30-cbe8-4ce0-9188-e60e39afcc72", 192512,
     "4f9ff1f8e6e7684c6e2f7856ae38c76212f4090eded9c3af8b652be55c718f97"},
    {"Volume4", "spanned", "782ff9fb-f2f6-465e-9f13-935a20458f00", 69632,
     "0610313ce7e5c74dc12685195570231838db1bc72c26f07bef246338ef0e4263"},
};

TEST(DynamicDisks, VolumesOfTenDisksHoldWhatIsKnownOfThem) {
    DynamicSample sample("2003r2");
    SKIP_WITHOUT(sample);
    for (const KnownVolume_t& known : Volumes2003) {
        SCOPED_TRACE(known.label);
        const json volume = DynamicSample::Volume(known.label, sample.Disks());
        EXPECT_EQ("ldm", volume.value("scheme", ""));
        EXPECT_EQ(known.type, volume.value("type", ""));
        EXPECT_EQ("{" + std::string(known.guid) + "}", Lower(volume.value("guid", "")));
        EXPECT_EQ(known.sectors, volume.value("sectors", 0U));
        EXPECT_EQ("ntfs", volume.value("file_system", ""));
        EXPECT_EQ("Red-nzv8x6obywgDg0", volume.value("group", ""));
        EXPECT_TRUE(volume.value("readable", false));
        EXPECT_EQ(json::array(), volume.value("missing_disks", json()));
        EXPECT_EQ(known.sha256, sample.Sum(known.label, sample.Disks()));
    }
}

TEST(DynamicDisks, VolumesAreTheSameWhateverTheOrderOfTheDisks) {
    DynamicSample sample("2003r2");
    SKIP_WITHOUT(sample);
    std::vector<std::string> disks = sample.Disks();
    std::reverse(disks.begin(), disks.end());
    for (const KnownVolume_t& known : Volumes2003)
        EXPECT_EQ(known.sha256, sample.Sum(known.label, disks)) << known.label;
}

TEST(DynamicDisks, ARaid5VolumeIsReadByParityWithoutAnyOneDisk) {
    DynamicSample sample("2003r2");
    SKIP_WITHOUT(sample);
    for (const char* const gone : {"raid5-1", "raid5-2", "raid5-3"}) {
        const std::vector<std::string> disks = sample.DisksWithout(gone);
        EXPECT_EQ(Volumes2003[4].sha256, sample.Sum("Raid1", disks)) << "without " << gone;
        const json volume = DynamicSample::Volume("Raid1", disks);
        EXPECT_EQ(1U, volume["missing_disks"].size());
        EXPECT_TRUE(volume.value("readable", false));
    }
}

TEST(DynamicDisks, AMirrorIsReadFromEitherHalf) {
    DynamicSample sample("2003r2");
    SKIP_WITHOUT(sample);
    for (const char* const gone : {"mirrored-1", "mirrored-2"})
        EXPECT_EQ(Volumes2003[3].sha256, sample.Sum("Volume3", sample.DisksWithout(gone))) << "without " << gone;
}

TEST(DynamicDisks, VolumesThatLackDisksAreNamedWithThemAndNotRead) {
    DynamicSample sample("2003r2");
    SKIP_WITHOUT(sample);
    const std::vector<std::string> disks = sample.DisksWithout("-2.img");
    const json volume = DynamicSample::Volume("Stripe1", disks);
    EXPECT_FALSE(volume.value("readable", true));
    ASSERT_EQ(1U, volume["missing_disks"].size());
    EXPECT_EQ("{ce97d979-fabb-4e9b-b44c-7d9580ae1f53}", Lower(volume["missing_disks"][0].value("id", "")));
    EXPECT_EQ("Disk5", volume["missing_disks"][0].value("name", ""));
    std::string output;
    EXPECT_FALSE(RunProgram(DynamicSample::Command("read --volume " + volume.value("name", ""), disks), &output));
    EXPECT_NE(std::string::npos, output.find("{CE97D979-FABB-4E9B-B44C-7D9580AE1F53} (Disk5)")) << output;
}

TEST(DynamicDisks, AVolumeSpansAnMbrDiskAndAGptDisk) {
    DynamicSample sample("2008r2-spanned");
    SKIP_WITHOUT(sample);
    EXPECT_EQ("8d6b04d858aefa751855f925ab71de5a8203564691fa70b8bc8b250b83629f43",
              sample.Sum("Volume1", sample.Disks()));
    size_t unreadable = 0;
    const json listed = JsonFrom(DynamicSample::Command("volumes --json", sample.Disks()));
    for (const json& volume : listed.value("volumes", json::array()))
        unreadable += volume.value("readable", true) ? 0 : 1;
    EXPECT_EQ(4U, unreadable);
}

// The pieces of a volume as `ldmtool` tells them, and the volume's bytes put together from them.
class CLdmtool {
public:
    explicit CLdmtool(const std::vector<std::string>& disks) {
        for (const std::string& disk : disks)
            m_Arguments += " -d " + Quoted(disk);
        m_Group = JsonFrom("ldmtool" + m_Arguments + " scan").at(0);
    }

    json Show(const std::string& kind, const std::string& name) const {
        return JsonFrom("ldmtool" + m_Arguments + " show " + kind + " " + m_Group + " " + Quoted(name));
    }

    json Group() const { return JsonFrom("ldmtool" + m_Arguments + " show diskgroup " + m_Group); }

    std::string Content(const json& volume) const {
        std::vector<std::string> pieces;
        for (const json& name : volume["partitions"])
            pieces.push_back(Piece(name));
        const uint64_t chunkBytes = volume.value("chunk-size", 0U) * uint64_t{512};
        const std::string type = volume.value("type", "");
        if (type == "mirrored")
            return pieces.front();
        return chunkBytes == 0 ? Joined(pieces) : Interleaved(pieces, chunkBytes, type == "RAID5");
    }

private:
    std::string Piece(const std::string& name) const {
        const json partition = Show("partition", name);
        const json disk = Show("disk", partition["disk"]);
        return FileContent(disk["device"],
                           (disk.value("data-start", 0U) + partition.value("start", 0U)) * uint64_t{512},
                           partition.value("size", 0U) * uint64_t{512});
    }

    static std::string Joined(const std::vector<std::string>& pieces) {
        std::string all;
        for (const std::string& piece : pieces)
            all += piece;
        return all;
    }

    // Row by row. A RAID-5 volume's parity begins in the last column and moves to the left; a row's data
    // begins behind it.
    static std::string Interleaved(const std::vector<std::string>& columns, uint64_t chunkBytes, bool hasParity) {
        std::string all;
        for (uint64_t row = 0; row * chunkBytes < columns.front().size(); ++row) {
            const size_t parity = columns.size() - 1 - row % columns.size();
            for (size_t turn = 0; turn < columns.size() - (hasParity ? 1 : 0); ++turn)
                all += columns[hasParity ? (parity + 1 + turn) % columns.size() : turn].substr(row * chunkBytes,
                                                                                               chunkBytes);
        }
        return all;
    }

    std::string m_Arguments;
    std::string m_Group;
};

TEST(DynamicDisks, VolumesLieWhereAnotherProgramSays) {
    DynamicSample sample("2003r2");
    SKIP_WITHOUT(sample);
    if (!HasProgram("ldmtool"))
        GTEST_SKIP() << "ldmtool isn't installed";
    const CLdmtool other(sample.Disks());
    const json names = other.Group()["volumes"];
    EXPECT_EQ(6U, names.size());
    for (const json& name : names) {
        SCOPED_TRACE(name);
        const json theirs = other.Show("volume", name);
        const json ours = DynamicSample::Volume(name, sample.Disks());
        EXPECT_EQ(theirs.value("size", 0U), ours.value("sectors", 1U));
        EXPECT_EQ("{" + theirs.value("guid", "") + "}", Lower(ours.value("guid", "")));
        EXPECT_SAME_BYTES(other.Content(theirs), FileContent(sample.Read(name, sample.Disks())));
    }
}

}  // namespace
