#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/interop/JsonOutput.h"
#include "tests/interop/NtfsComparison.h"
#include "tests/interop/NtfsFill.h"
#include "tests/interop/NtfsMount.h"
#include "tests/support/Bytes.h"
#include "tests/support/SameBytes.h"

// Volumes that another program makes and another driver fills: we list the names and read the bytes and times that the
// driver shows.

namespace {

namespace fs = std::filesystem;

// How often a file's contents go on elsewhere, by the clusters that another program tells of it.
size_t BreaksOf(const std::string& image, uint64_t frn) {
    const std::string output = OutputOf("istat " + Quoted(image) + " " + std::to_string(frn));
    std::istringstream clusters(output.substr(output.find("Type: $DATA")));
    std::string line;
    std::getline(clusters, line);
    size_t breaks = 0;
    for (uint64_t last = 0, next = 0; clusters >> next; last = next)
        breaks += last != 0 && next != last + 1 ? 1 : 0;
    return breaks;
}

class NtfsVolumes : public testing::Test {
protected:
    // Makes the volume and has it filled. False, and the test skipped, where that can't be done.
    bool Make(uint64_t bytes, uint32_t clusterBytes, const std::string& options,
              const std::function<void(const CNtfsMount&)>& fill) {
        const std::string missing = HasProgram("fls") ? WhatMountsLack() : "the Sleuth Kit isn't installed";
        if (!missing.empty()) {
            Skip(missing);
            return false;
        }
        m_At.disks = {MakeNtfsVolume(m_Dir, bytes, clusterBytes)};
        const CNtfsMount mount(m_At.disks[0], options);
        if (mount.IsThere())
            fill(mount);
        return mount.IsThere();
    }

    void ExpectNamesOfOthers() const {
        const Names_t names = NamesOfLs(m_At, "");
        {
            const CNtfsMount mount(m_At.disks[0], ReadOptions);
            EXPECT_TRUE(AreSameNames(NamesOfMount(mount), names));
        }
        EXPECT_TRUE(AreSameNames(NamesOfFls(m_At.disks[0], 0), NamesOfLs(m_At, "--all")));
    }

    // It takes less room than it has bytes, and is said to do so in this way.
    void ExpectIsStored(const std::string& path, const std::string& way) const {
        struct stat facts {};
        const CNtfsMount mount(m_At.disks[0], ReadOptions);
        ASSERT_EQ(0, stat(mount.Path(path).c_str(), &facts)) << path;
        const auto stream =
            JsonFrom(CommandOn(m_At, "streams", "--json " + path)).value("streams", nlohmann::json()).at(0);
        EXPECT_LT(facts.st_blocks * 512, facts.st_size) << path;
        EXPECT_EQ(facts.st_blocks * 512, stream.value("stored_bytes", 0)) << path;
        EXPECT_EQ(facts.st_size, stream.value("bytes", 0)) << path;
        EXPECT_TRUE(stream.value(way, false)) << path;
    }

    void ExpectStreamIsWhatIsMounted(const std::string& path, const std::string& name) const {
        const CNtfsMount mount(m_At.disks[0], ReadOptions);
        EXPECT_SAME_BYTES(ReadFileBytes(mount.Path(path + ":" + name)),
                          OutputOf(CommandOn(m_At, "cat", Quoted(path) + " --stream " + Quoted(name))))
            << name;
    }

    CTempDir m_Dir;
    VolumeAt_t m_At;

private:
    static void Skip(const std::string& why) { GTEST_SKIP() << why; }
};

class NtfsVolumesOfClusters : public NtfsVolumes, public testing::WithParamInterface<uint32_t> {};

TEST_P(NtfsVolumesOfClusters, HoldTheNamesBytesAndTimesThatTheDriverShows) {
    const uint32_t clusterBytes = GetParam();
    const bool isMade = Make(64 * MiB, clusterBytes, FillOptions,
                             [&](const CNtfsMount& mount) { AddFilesOfAllKinds(mount, clusterBytes); });
    if (!isMade)
        return;
    ExpectNamesOfOthers();
    ExpectCopyIsWhatIsMounted(m_At, m_At.disks[0]);
    for (const std::string& stream : {std::string("short"), std::string("long"), Character(0x1F600)})
        ExpectStreamIsWhatIsMounted("streams/file", stream);
    ExpectIsStored("sparse/holes", "sparse");
    if (clusterBytes <= 4096)
        ExpectIsStored("compressed/mixed", "compressed");
}

INSTANTIATE_TEST_SUITE_P(Bytes, NtfsVolumesOfClusters, testing::Values(512, 1024, 4096, 16384, 65536),
                         testing::PrintToStringParamName());

// Longer in UTF-8 than a name may be here: such a file is read by its path, and left out of a copy with a word.
TEST_F(NtfsVolumes, NamesOf255CharactersOfAnyScriptAreListedAndRead) {
    const std::string folder = "деревня";
    const std::string name = Repeated(Character(0x4E2D), 253) + Character(0x1F600);
    const bool isMade = Make(16 * MiB, 4096, FillOptions, [&](const CNtfsMount& mount) {
        fs::create_directory(mount.Path(folder));
        WriteAt(mount.Path(folder + "/" + name), 0, "of that name");
    });
    if (!isMade)
        return;
    ExpectNamesOfOthers();
    EXPECT_EQ("of that name", OutputOf(CommandOn(m_At, "cat", Quoted(folder + "/" + name))));
    std::string output;
    EXPECT_FALSE(RunProgram(CommandOn(m_At, "cp", "-q -r / " + Quoted(m_Dir.File("copy"))), &output));
    EXPECT_NE(std::string::npos, output.find(folder)) << output;
    EXPECT_TRUE(fs::is_empty(m_Dir.File("copy/" + folder)));
}

TEST_F(NtfsVolumes, AnMftAndFilesInManyPiecesAreReadWhole) {
    if (!Make(4 * MiB, 1024, "compression", FillWithGaps))
        return;
    COpenNtfs ntfs(m_At);
    for (const char* const path : {"$MFT", "plain", "packed/file"})
        EXPECT_GE(BreaksOf(m_At.disks[0], ntfs.Find(path)), 3U) << path;
    ExpectNamesOfOthers();
    ExpectCopyIsWhatIsMounted(m_At, m_At.disks[0]);
}

// A directory whose index has many blocks on three levels, and a tree of many directories.
constexpr size_t WideFiles = 50000;

size_t DeepFiles() {
    return std::getenv("DISKSTREAM_LARGE_TESTS") == nullptr ? 10000 : 100000;
}

// Eight levels of directories, two names in each, and files in the lowest ones.
std::string DeepFolder(size_t index) {
    std::string path = "deep";
    for (unsigned level = 0; level < 8; ++level)
        path += "/" + std::string((index >> level) % 2 == 0 ? "left" : "right") + std::to_string(level);
    return path;
}

std::string DeepContent(size_t index) {
    return "file " + std::to_string(index) + std::string(index % 900, static_cast<char>('a' + index % 26));
}

void FillLargeVolume(const CNtfsMount& mount) {
    fs::create_directory(mount.Path("wide"));
    const int wide = open(mount.Path("wide").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (size_t index = 0; index < WideFiles; ++index)
        ASSERT_EQ(0, mknodat(wide, ("a name among many, " + std::to_string(index)).c_str(), S_IFREG | 0644, 0));
    close(wide);
    for (size_t index = 0; index < 256; ++index)
        fs::create_directories(mount.Path(DeepFolder(index)));
    for (size_t index = 0; index < DeepFiles(); ++index)
        WriteAt(mount.Path(DeepFolder(index) + "/" + std::to_string(index)), 0, DeepContent(index));
}

// The bytes of each file below `folder`, by its path.
std::map<std::string, std::string> ContentsBelow(COpenNtfs& ntfs, const std::string& folder) {
    std::map<std::string, std::string> contents;
    NtfsListing_t listing;
    listing.isRecursive = true;
    EXPECT_OK(ntfs.Volume().List(ntfs.Find(folder), listing, [&](const NtfsEntry_t& entry) {
        if (!entry.file.isDirectory)
            contents[folder + "/" + entry.path] = StreamBytes(ntfs.Volume(), entry.file.frn);
        return true;
    }));
    EXPECT_EQ(std::vector<std::string>{}, listing.problems);
    return contents;
}

TEST_F(NtfsVolumes, ALargeDirectoryAndADeepTreeAreListedAndRead) {
    if (!Make(512 * MiB, 4096, "big_writes", FillLargeVolume))
        return;
    ExpectNamesOfOthers();
    COpenNtfs ntfs(m_At);
    ASSERT_TRUE(ntfs.IsOpen());
    std::map<std::string, std::string> expected;
    for (size_t index = 0; index < DeepFiles(); ++index)
        expected[DeepFolder(index) + "/" + std::to_string(index)] = DeepContent(index);
    EXPECT_TRUE(expected == ContentsBelow(ntfs, "deep"));
}

}  // namespace
