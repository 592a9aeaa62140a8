#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
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
#include "tests/interop/NtfsMount.h"
#include "tests/support/Bytes.h"
#include "tests/support/SameBytes.h"

// Volumes that another program makes and another driver fills: we list the names and read the bytes and times that the
// driver shows.

namespace {

namespace fs = std::filesystem;

constexpr char FillOptions[] = "compression,streams_interface=windows";
constexpr char ReadOptions[] = "ro,streams_interface=windows";
const std::string CompressedAttribute("\0\0\x08\0", 4);  // FILE_ATTRIBUTE_COMPRESSED, high byte first

// In UTF-8.
std::string Character(uint32_t code) {
    const auto byte = [](uint32_t value) { return static_cast<char>(value); };
    const std::string last{byte(0x80U | ((code >> 6U) & 0x3FU)), byte(0x80U | (code & 0x3FU))};
    if (code < 0x10000)
        return byte(0xE0U | (code >> 12U)) + last;
    return std::string{byte(0xF0U | (code >> 18U)), byte(0x80U | ((code >> 12U) & 0x3FU))} + last;
}

std::string Repeated(const std::string& text, size_t times) {
    std::string all;
    for (size_t turn = 0; turn < times; ++turn)
        all += text;
    return all;
}

// Bytes that compress in part: stretches of text between stretches that don't, neither as long as a chunk.
std::string MixedBytes(size_t size) {
    std::string bytes;
    for (uint64_t turn = 1; bytes.size() < size; ++turn)
        bytes +=
            PatternedBytes(3000 * (turn % 4), turn) + Repeated("a line of the ledger, " + std::to_string(turn), 200);
    return bytes.substr(0, size);
}

void SetTimes(const std::string& path, int64_t seconds, int64_t nanoseconds) {
    const timespec time{static_cast<time_t>(seconds), static_cast<long>(nanoseconds)};
    const std::array<timespec, 2> times{time, time};
    EXPECT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times.data(), 0)) << path;
}

void AddPlainFiles(const CNtfsMount& mount, size_t clusterBytes) {
    fs::create_directory(mount.Path("plain"));
    for (const size_t size : {size_t{0}, size_t{1}, size_t{500}, size_t{1000}, clusterBytes - 1, clusterBytes,
                              clusterBytes + 1, size_t{300000}})
        WriteAt(mount.Path("plain/" + std::to_string(size)), 0, PatternedBytes(size, size + 1));
    WriteAt(mount.Path("plain/Case"), 0, "upper");
    WriteAt(mount.Path("plain/case"), 0, "lower");
    SetTimes(mount.Path("plain/1"), 981173106, 123456700);
    SetTimes(mount.Path("plain/0"), -86400, 0);  // the driver shows no parts of a second before 1970
}

void AddSparseFiles(const CNtfsMount& mount) {
    fs::create_directory(mount.Path("sparse"));
    const std::string holes = mount.Path("sparse/holes");
    for (const uint64_t offset : {uint64_t{100}, uint64_t{1} << 20U, (uint64_t{3} << 20U) + 70001})
        WriteAt(holes, offset, PatternedBytes(70000, offset));
    WriteAt(mount.Path("sparse/nothing"), 0, "");
    fs::resize_file(mount.Path("sparse/nothing"), (uint64_t{5} << 20U) + 123);
    WriteAt(mount.Path("sparse/tail"), 0, PatternedBytes(100000));
    fs::resize_file(mount.Path("sparse/tail"), uint64_t{2} << 20U);
}

void AddCompressedFiles(const CNtfsMount& mount) {
    const std::string folder = mount.Path("compressed");
    fs::create_directory(folder);
    SetAttribute(folder, "system.ntfs_attrib_be", CompressedAttribute);
    WriteAt(folder + "/text", 0, Repeated("the same words again, ", 20000));
    WriteAt(folder + "/noise", 0, PatternedBytes(200000));
    WriteAt(folder + "/mixed", 0, MixedBytes(700001));
    WriteAt(folder + "/short", 0, "resident");
    fs::resize_file(folder + "/mixed", 1000000);
}

void AddLinksAndStreams(const CNtfsMount& mount) {
    fs::create_directories(mount.Path("links/deeper/down"));
    WriteAt(mount.Path("links/file"), 0, "one file of three names");
    fs::create_hard_link(mount.Path("links/file"), mount.Path("links/again"));
    fs::create_hard_link(mount.Path("links/file"), mount.Path("links/deeper/down/file"));
    fs::create_directory(mount.Path("streams"));
    WriteAt(mount.Path("streams/file"), 0, "contents");
    WriteAt(mount.Path("streams/file:short"), 0, "a stream");
    WriteAt(mount.Path("streams/file:long"), 0, PatternedBytes(150000));
    WriteAt(mount.Path("streams/file:" + Character(0x1F600)), 0, "a name of two characters of 16 bits");
}

void AddNames(const CNtfsMount& mount) {
    fs::create_directory(mount.Path("names"));
    for (uint32_t plane = 0; plane <= 16; ++plane)
        WriteAt(mount.Path("names/" + Character(plane * 0x10000 + 0x4E2D)), 0, std::to_string(plane));
    WriteAt(mount.Path("names/" + std::string(255, 'n')), 0, "long");
    WriteAt(mount.Path("names/" + Repeated(Character(0x10FFFD), 63)), 0, "long in UTF-8");
    WriteAt(mount.Path("names/ends with a dot."), 0, "dot");
    WriteAt(mount.Path("names/<not>|for*Windows?"), 0, "POSIX");
}

Names_t NamesOfMount(const CNtfsMount& mount) {
    Names_t names;
    for (const auto& entry : fs::recursive_directory_iterator(mount.Path()))
        names.insert(entry.path().string().substr(mount.Path().size() + 1));
    return names;
}

// Of the last change, with nanoseconds. The time of access doesn't outlive a comparison.
std::string TimeOf(const std::string& path) {
    struct stat facts {};
    EXPECT_EQ(0, stat(path.c_str(), &facts)) << path;
    return std::to_string(facts.st_mtim.tv_sec) + "." + std::to_string(facts.st_mtim.tv_nsec);
}

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

    void ExpectCopyIsWhatIsMounted() const {
        const std::string copy = m_Dir.File("copy");
        ASSERT_TRUE(Runs(CommandOn(m_At, "cp", "-q -r / " + Quoted(copy))));
        const CNtfsMount mount(m_At.disks[0], ReadOptions);
        EXPECT_TRUE(Runs("diff -r " + Quoted(mount.Path()) + " " + Quoted(copy)));
        for (const std::string& name : NamesOfMount(mount))
            EXPECT_EQ(TimeOf(mount.Path(name)), TimeOf(copy + "/" + name)) << name;
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
    const bool isMade = Make(64 * MiB, clusterBytes, FillOptions, [&](const CNtfsMount& mount) {
        AddPlainFiles(mount, clusterBytes);
        AddSparseFiles(mount);
        if (clusterBytes <= 4096)
            AddCompressedFiles(mount);
        AddLinksAndStreams(mount);
        AddNames(mount);
    });
    if (!isMade)
        return;
    ExpectNamesOfOthers();
    ExpectCopyIsWhatIsMounted();
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

// False where there is no room left.
bool HasWritten(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary);
    file << bytes;
    file.close();
    return file.good();
}

// Makes files until none fits, and takes every second of the large ones away again: the table of file records grows into
// the gaps, and so do files.
void FillWithGaps(const CNtfsMount& mount) {
    const std::string block = PatternedBytes(4096);
    fs::create_directory(mount.Path("packed"));
    SetAttribute(mount.Path("packed"), "system.ntfs_attrib_be", CompressedAttribute);
    for (size_t turn = 0; turn < 4; ++turn)
        fs::create_directory(mount.Path(std::to_string(turn)));
    for (size_t turn = 0; turn < 4; ++turn) {
        const std::string folder = mount.Path(std::to_string(turn));
        std::vector<std::string> blocks;
        for (bool isFull = false; !isFull && blocks.size() < 5000;) {
            blocks.push_back(folder + "/block" + std::to_string(blocks.size()));
            isFull = !HasWritten(blocks.back(), block);
        }
        for (size_t index = 0; index < blocks.size(); index += 2)
            fs::remove(blocks[index]);
        for (size_t index = 0; index < 300; ++index)
            HasWritten(folder + "/small" + std::to_string(index), std::to_string(index));
    }
    for (size_t index = 1; index < 1000; index += 4)
        fs::remove(mount.Path("0/block" + std::to_string(index)));
    WriteAt(mount.Path("packed/file"), 0, MixedBytes(150000));
    WriteAt(mount.Path("plain"), 0, PatternedBytes(60000));
}

TEST_F(NtfsVolumes, AnMftAndFilesInManyPiecesAreReadWhole) {
    if (!Make(4 * MiB, 1024, "compression", FillWithGaps))
        return;
    COpenNtfs ntfs(m_At);
    for (const char* const path : {"$MFT", "plain", "packed/file"})
        EXPECT_GE(BreaksOf(m_At.disks[0], ntfs.Find(path)), 3U) << path;
    ExpectNamesOfOthers();
    ExpectCopyIsWhatIsMounted();
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
