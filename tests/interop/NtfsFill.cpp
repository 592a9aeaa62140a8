#include "tests/interop/NtfsFill.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <vector>

#include "tests/support/Bytes.h"

namespace {

namespace fs = std::filesystem;

const std::string CompressedAttribute("\0\0\x08\0", 4);  // FILE_ATTRIBUTE_COMPRESSED, high byte first

void SetTimes(const std::string& path, int64_t seconds, int64_t nanoseconds) {
    const timespec time{static_cast<time_t>(seconds), static_cast<long>(nanoseconds)};
    const std::array<timespec, 2> times{time, time};
    EXPECT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times.data(), 0)) << path;
}

// False where there is no room left.
bool HasWritten(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary);
    file << bytes;
    file.close();
    return file.good();
}

// Of the last change, with nanoseconds. The time of access doesn't outlive a comparison.
std::string TimeOf(const std::string& path) {
    struct stat facts {};
    EXPECT_EQ(0, stat(path.c_str(), &facts)) << path;
    return std::to_string(facts.st_mtim.tv_sec) + "." + std::to_string(facts.st_mtim.tv_nsec);
}

}  // namespace

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

std::string MixedBytes(size_t size) {
    std::string bytes;
    for (uint64_t turn = 1; bytes.size() < size; ++turn)
        bytes +=
            PatternedBytes(3000 * (turn % 4), turn) + Repeated("a line of the ledger, " + std::to_string(turn), 200);
    return bytes.substr(0, size);
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

void AddFilesOfAllKinds(const CNtfsMount& mount, uint32_t clusterBytes) {
    AddPlainFiles(mount, clusterBytes);
    AddSparseFiles(mount);
    if (clusterBytes <= 4096)
        AddCompressedFiles(mount);
    AddLinksAndStreams(mount);
    AddNames(mount);
}

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

Names_t NamesOfMount(const CNtfsMount& mount) {
    Names_t names;
    for (const auto& entry : fs::recursive_directory_iterator(mount.Path()))
        names.insert(entry.path().string().substr(mount.Path().size() + 1));
    return names;
}

void ExpectCopyIsWhatIsMounted(const VolumeAt_t& at, const std::string& image) {
    const CTempDir dir;
    ASSERT_TRUE(Runs(CommandOn(at, "cp", "-q -r / " + Quoted(dir.File("copy")))));
    const CNtfsMount mount(image, ReadOptions);
    EXPECT_TRUE(Runs("diff -r " + Quoted(mount.Path()) + " " + Quoted(dir.File("copy"))));
    for (const std::string& name : NamesOfMount(mount))
        EXPECT_EQ(TimeOf(mount.Path(name)), TimeOf(dir.File("copy/" + name))) << name;
}
