#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "agent/WholeDisk.h"
#include "tests/agent/AgentRuns.h"
#include "tests/interop/OtherPrograms.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VhdBuilder.h"

// VHD files, and chains of links, that others made read as their makers read them, and come back from
// a set as they were.

namespace {

constexpr uint64_t GiB = uint64_t{1} << 30U;

// All bytes of the disk, as the readers of a whole disk give them, in requests of 1 MiB.
void WriteContent(const std::string& image, const std::string& target) {
    CWholeDisk disk;
    ASSERT_OK(disk.Open(image, ImageOptions_t()));
    std::ofstream file(target, std::ios::binary);
    std::string bytes;
    const uint64_t sizeBytes = disk.TotalSectors() * 512;
    for (uint64_t offset = 0; offset < sizeBytes; offset += MiB) {
        bytes.resize(std::min(sizeBytes - offset, MiB));
        ASSERT_OK(disk.Read(offset, bytes.data(), static_cast<uint32_t>(bytes.size()))) << offset;
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    ASSERT_TRUE(file.flush().good());
}

// A raw disk with data at random places, its first and its last sector among them.
void WriteRandomDisk(const CTempDir& dir, uint64_t sizeBytes, int extents) {
    std::mt19937_64 random(sizeBytes + static_cast<uint64_t>(extents));
    dir.WriteHole("source.raw", sizeBytes);
    std::fstream raw(dir.File("source.raw"), std::ios::in | std::ios::out | std::ios::binary);
    const auto put = [&](uint64_t offset, const std::string& bytes) {
        raw.seekp(static_cast<std::streamoff>(offset));
        raw.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    };
    for (int extent = 0; extent < extents; ++extent) {
        const uint64_t sectors = random() % 600 + 1;
        const uint64_t first = random() % (sizeBytes / 512 - sectors);
        put(first * 512, PatternedBytes(sectors * 512, first));
    }
    put(0, PatternedBytes(512, 1));
    put(sizeBytes - 512, PatternedBytes(512, 2));
    ASSERT_TRUE(raw.flush().good());
}

uint64_t BigEndianAt(const std::string& bytes, uint64_t offset, size_t width) {
    uint64_t value = 0;
    for (size_t index = 0; index < width; ++index)
        value = value << 8U | static_cast<unsigned char>(bytes.at(offset + index));
    return value;
}

// The same bytes. Behind its last entry a table is filled up, as its maker likes, to where something
// else begins: no reader looks there, so a set doesn't keep it.
testing::AssertionResult IsSameVhd(const std::string& image, const std::string& back) {
    const std::string expected = ReadFileBytes(image);
    std::string actual = ReadFileBytes(back);
    if (expected.size() != actual.size())
        return testing::AssertionFailure() << actual.size() << " bytes instead of " << expected.size();
    const uint64_t footer = expected.size() - 512;
    if (BigEndianAt(expected, footer + 60, 4) != 2) {
        const uint64_t header = BigEndianAt(expected, footer + 16, 8);
        const uint64_t end = BigEndianAt(expected, header + 16, 8) + 4 * BigEndianAt(expected, header + 28, 4);
        for (uint64_t at = end; at < end + 4096 && at < footer && expected[at] == '\xFF' && actual[at] == '\0'; ++at)
            actual[at] = expected[at];
    }
    return AreSameBytes(expected, actual);
}

class QemuVhds : public testing::Test {
protected:
    void SetUp() override {
        if (!HasProgram("qemu-img") || !HasProgram("qemu-io"))
            GTEST_SKIP() << "qemu-img and qemu-io aren't installed";
    }

    std::string Set() const { return m_Work.File("set"); }

    // What `diskstream read`, our readers and qemu-img say of the disk is the same.
    void ExpectSameContent(const std::string& image, const std::string& format) const {
        const std::string expected = m_Work.File("expected.raw");
        ASSERT_TRUE(Runs("qemu-img convert -f " + format + " -O raw " + Quoted(image) + " " + Quoted(expected)));
        ASSERT_NO_FATAL_FAILURE(WriteContent(image, m_Work.File("ours.raw")));
        EXPECT_TRUE(Runs("cmp " + Quoted(expected) + " " + Quoted(m_Work.File("ours.raw"))));
        EXPECT_TRUE(
            Runs(std::string(DISKSTREAM_COMMAND) + " read -q " + Quoted(image) + " | cmp - " + Quoted(expected)));
    }

    void ExpectComesBack(const std::string& image, const std::string& format) const {
        const CTempDir restored;
        ASSERT_OK(BackUp(image, Set(), true));
        std::vector<std::string> differences;
        ASSERT_OK(VerifyAgainst(Set(), image, differences));
        EXPECT_EQ(std::vector<std::string>{}, differences);
        ASSERT_OK(Restore(Set(), restored.Path()));
        const std::string back = restored.File(std::filesystem::path(image).filename().string());
        EXPECT_TRUE(IsSameVhd(image, back));
        EXPECT_TRUE(Runs("qemu-img compare -f " + format + " -F " + format + " " + Quoted(image) + " " + Quoted(back)));
        ExpectRawComesBack(image, format);
    }

    void ExpectRawComesBack(const std::string& image, const std::string& format) const {
        ASSERT_OK(RestoreRaw(Set(), m_Work.File("raw"), true));
        EXPECT_TRUE(
            Runs("qemu-img compare -f " + format + " -F raw " + Quoted(image) + " " + Quoted(m_Work.File("raw"))));
    }

    void MakeVhd(const std::string& options) const {
        ASSERT_TRUE(Runs("qemu-img convert -f raw -O vpc -o " + options + " " + Quoted(m_Work.File("source.raw")) +
                         " " + Quoted(m_Image.File("disk.vhd"))));
    }

    CTempDir m_Work;
    CTempDir m_Image;  // the image's files and nothing else
};

TEST_F(QemuVhds, ReadAsQemuReadsThemAndComeBack) {
    const struct {
        const char* options;
        uint64_t sizeBytes;
        int extents;
    } rows[] = {
        {"subformat=dynamic", 20 * MiB, 20},
        {"subformat=dynamic", 20 * MiB + 512, 5},
        {"subformat=dynamic,force_size=on", 20 * MiB, 20},
        {"subformat=dynamic,force_size=on", 20 * MiB + 512, 5},
        {"subformat=dynamic,force_size=on", 50 * MiB + 7 * 512, 40},
        {"subformat=fixed", 5 * MiB, 10},
        {"subformat=fixed,force_size=on", 5 * MiB, 10},
        {"subformat=fixed,force_size=on", 5 * MiB + 512, 5},
        {"subformat=fixed,force_size=on", 64 * 1024 + 512, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.options << " of " << row.sizeBytes);
        ASSERT_NO_FATAL_FAILURE(WriteRandomDisk(m_Work, row.sizeBytes, row.extents));
        ASSERT_NO_FATAL_FAILURE(MakeVhd(row.options));
        ExpectSameContent(m_Image.File("disk.vhd"), "vpc");
        ExpectComesBack(m_Image.File("disk.vhd"), "vpc");
    }
}

TEST_F(QemuVhds, OfTwentyGiBComeBackWithTheirLastBlocks) {
    ASSERT_NO_FATAL_FAILURE(WriteRandomDisk(m_Work, 20 * GiB, 3));
    ASSERT_NO_FATAL_FAILURE(MakeVhd("subformat=dynamic,force_size=on"));
    ExpectComesBack(m_Image.File("disk.vhd"), "vpc");
    EXPECT_TRUE(
        Runs("qemu-img compare -f raw -F raw " + Quoted(m_Work.File("source.raw")) + " " + Quoted(m_Work.File("raw"))));
}

TEST_F(QemuVhds, WrittenInPlaceAreReadAndComeBack) {
    const std::string disk = m_Image.File("disk.vhd");
    ASSERT_TRUE(Runs("qemu-img create -f vpc -o force_size=on " + Quoted(disk) + " 100M"));
    ExpectSameContent(disk, "vpc");
    ExpectComesBack(disk, "vpc");
    ASSERT_TRUE(Runs("qemu-io -f vpc -c 'write -P 7 99M 1M' -c 'write -P 9 512 512' -c 'write -P 5 30M 3M' -c 'write "
                     "-P 0 31M 64k' " +
                     Quoted(disk)));
    ExpectSameContent(disk, "vpc");
    ExpectComesBack(disk, "vpc");
}

// VMDK chains.
class QemuChains : public QemuVhds {
protected:
    void MakeBase(const std::string& subformat) const {
        ASSERT_NO_FATAL_FAILURE(WriteRandomDisk(m_Work, 40 * MiB + 512, 30));
        ASSERT_TRUE(Runs("qemu-img convert -f raw -O vmdk -o subformat=" + subformat + " " +
                         Quoted(m_Work.File("source.raw")) + " " + Quoted(m_Image.File("base.vmdk"))));
    }

    // A link on top of `parent`, with data of its own.
    void AddLink(const std::string& name, const std::string& parent, const std::string& writes) const {
        ASSERT_TRUE(Runs("cd " + Quoted(m_Image.Path()) + " && qemu-img create -q -f vmdk -b " + parent + " -F vmdk " +
                         name + " && qemu-io -f vmdk " + writes + " " + name));
    }

    void ExpectFlattened(const std::string& name) const {
        const std::string image = m_Image.File(name);
        ExpectSameContent(image, "vmdk");
        BackupOptions_t options;
        options.flatten = true;
        options.force = true;
        BackupResult_t result;
        ASSERT_OK(BackUpDisk(image, Set(), options, result));
        std::vector<std::string> differences;
        ASSERT_OK(VerifyAgainst(Set(), image, differences));
        EXPECT_EQ(std::vector<std::string>{}, differences);
        ExpectRawComesBack(image, "vmdk");
    }
};

TEST_F(QemuChains, ReadAsQemuReadsThemAndAreFlattened) {
    for (const char* subformat : {"monolithicSparse", "monolithicFlat", "twoGbMaxExtentSparse", "twoGbMaxExtentFlat"}) {
        SCOPED_TRACE(subformat);
        for (const std::string& name : m_Image.Entries())
            std::filesystem::remove(m_Image.File(name));
        ASSERT_NO_FATAL_FAILURE(MakeBase(subformat));
        ASSERT_NO_FATAL_FAILURE(AddLink("middle.vmdk", "base.vmdk",
                                        "-c 'write -P 7 1M 1M' -c 'write -P 8 20M 3M' -c 'write -P 9 41942528 512'"));
        ExpectFlattened("middle.vmdk");
        ASSERT_NO_FATAL_FAILURE(AddLink("top.vmdk", "middle.vmdk",
                                        "-c 'write -P 3 1536k 1M' -c 'write -P 0 21M 1M' -c 'write -P 4 0 512'"));
        ExpectFlattened("top.vmdk");
    }
}

TEST_F(QemuChains, EachLinkComesBackAlone) {
    ASSERT_NO_FATAL_FAILURE(MakeBase("monolithicSparse"));
    ASSERT_NO_FATAL_FAILURE(AddLink("top.vmdk", "base.vmdk", "-c 'write -P 7 1M 1M'"));
    const CTempDir restored;
    for (const std::string name : {"base.vmdk", "top.vmdk"}) {
        ASSERT_OK(BackUp(m_Image.File(name), Set(), true));
        ASSERT_OK(Restore(Set(), restored.Path()));
    }
    EXPECT_TRUE(HoldSameFiles(m_Image.Path(), restored.Path()));
    EXPECT_TRUE(Runs("qemu-img compare -f vmdk -F vmdk " + Quoted(m_Image.File("top.vmdk")) + " " +
                     Quoted(restored.File("top.vmdk"))));
}

// A base that was written to since gets a new identity.
TEST_F(QemuChains, ABaseThatHasChangedIsRefused) {
    ASSERT_NO_FATAL_FAILURE(MakeBase("monolithicSparse"));
    ASSERT_NO_FATAL_FAILURE(AddLink("top.vmdk", "base.vmdk", "-c 'write -P 7 1M 1M'"));
    ASSERT_TRUE(Runs("qemu-io -f vmdk -c 'write -P 1 5M 1M' " + Quoted(m_Image.File("base.vmdk"))));
    std::string output;
    EXPECT_FALSE(RunProgram(
        std::string(DISKSTREAM_COMMAND) + " read -q --length 512 " + Quoted(m_Image.File("top.vmdk")), &output));
    EXPECT_NE(std::string::npos, output.find("base.vmdk: has changed")) << output;
}

// Another reader's judgement of differencing disks, which no tool here makes: it mounts a chain as
// files, the newest link as the last one.
class MountedVhds : public testing::Test {
protected:
    void SetUp() override {
        if (!HasProgram("vhdimount"))
            GTEST_SKIP() << "vhdimount isn't installed";
    }
    void TearDown() override {
        if (m_IsMounted) {
            EXPECT_TRUE(RunProgram("fusermount -u " + Quoted(m_Mount.Path()) + " || umount " + Quoted(m_Mount.Path())))
                << m_Mount.Path();
        }
    }

    // False where no file system can be mounted.
    bool Mount(const std::string& image) {
        m_IsMounted =
            RunProgram("cd " + Quoted(m_Dir.Path()) + " && vhdimount " + image + " " + Quoted(m_Mount.Path()));
        return m_IsMounted;
    }

    CTempDir m_Mount;
    CTempDir m_Dir;
    bool m_IsMounted = false;
};

std::string BigEndianName(const std::string& ascii) {
    std::string bytes;
    for (const char character : ascii)
        bytes += std::string{'\0', character};
    return bytes;
}

TEST_F(MountedVhds, ADifferencingDiskReadsAsAnotherReaderReadsIt) {
    constexpr uint64_t sectors = 3 * 4096 + 100;
    constexpr uint32_t blockBytes = 2U << 20U;
    CVhdBuilder base = CVhdBuilder::Dynamic(sectors);
    base.BlockSize(blockBytes).Footer(68, std::string(16, 'p'));
    base.Block(3, PatternedBytes(blockBytes, 1)).Block(0, PatternedBytes(blockBytes, 2)).WriteTo(m_Dir, "base.vhd");
    // That reader takes all sectors behind the first one of a bitmap's byte for there, so each byte's
    // bits go to its end.
    std::string bitmap(512, '\0');
    for (size_t at = 0; at < bitmap.size(); ++at)
        bitmap[at] = static_cast<char>(0xFFU >> (at * 5 % 9));
    CVhdBuilder child = CVhdBuilder::Differencing(sectors);
    child.BlockSize(blockBytes).Footer(68, std::string(16, 'c')).Header(40, std::string(16, 'p'));
    child.Header(64, BigEndianName("base.vhd")).Block(1, PatternedBytes(blockBytes, 3)).Bitmap(1, bitmap);
    child.Block(0, PatternedBytes(blockBytes, 4)).Bitmap(0, bitmap).Block(3, PatternedBytes(blockBytes, 5));
    child.Bitmap(3, bitmap).WriteTo(m_Dir, "child.vhd");
    if (!Mount("child.vhd"))
        GTEST_SKIP() << "file systems of programs can't be mounted here";

    ASSERT_NO_FATAL_FAILURE(WriteContent(m_Dir.File("child.vhd"), m_Dir.File("ours.raw")));
    EXPECT_TRUE(Runs("cmp " + Quoted(m_Mount.File("vhdi2")) + " " + Quoted(m_Dir.File("ours.raw"))));
    ASSERT_NO_FATAL_FAILURE(WriteContent(m_Dir.File("base.vhd"), m_Dir.File("base.raw")));
    EXPECT_TRUE(Runs("cmp " + Quoted(m_Mount.File("vhdi1")) + " " + Quoted(m_Dir.File("base.raw"))));
    BackupOptions_t options;
    options.flatten = true;
    BackupResult_t result;
    ASSERT_OK(BackUpDisk(m_Dir.File("child.vhd"), m_Dir.File("set"), options, result));
    ASSERT_OK(RestoreRaw(m_Dir.File("set"), m_Dir.File("flat.raw")));
    EXPECT_TRUE(Runs("cmp " + Quoted(m_Mount.File("vhdi2")) + " " + Quoted(m_Dir.File("flat.raw"))));
}

// Disks of real hypervisors, for machines that have the collection.
struct VhdSample_t {
    const char* archive;
    const char* image;
    const char* contentSha256;  // of the disk as it reads through its chain
    size_t warnings;
};

class SampleVhds : public testing::TestWithParam<VhdSample_t> {
protected:
    void Unpack(const std::string& name) {
        const std::string archive = std::string(DISKSTREAM_SAMPLES_DIR) + "/vhd/" + name + ".tar.xz";
        if (!std::filesystem::exists(archive))
            GTEST_SKIP() << archive << " isn't there";
        ASSERT_TRUE(Runs("tar -C " + Quoted(m_Dir.Path()) + " -xf " + Quoted(archive)));
        m_Folder = m_Dir.File(name);
    }

    CTempDir m_Dir;
    std::string m_Folder;
};

// For the names of tests.
void PrintTo(const VhdSample_t& sample, std::ostream* stream) {
    *stream << sample.image;
}

constexpr char Zeros40MiB[] = "80a3721188e40218b08b26776bc53bdae81e4784fff71d71450a197319cba113";

constexpr VhdSample_t VhdSamples[] = {
    {"win10-dynamic-ntfs", "dynamic.vhd", "ecff2ef6615a3cddc6a6885f1c6d9cf13a232697e1dc6575f2c2f01f57247784", 0},
    {"win10-fixed-fat16", "fixed.vhd", "fa0490edf13cf9699ac7ead2b2024f2ec7921f583ff824039bca0529055e409d", 0},
    {"win8-differencing", "win8-child.vhd", Zeros40MiB, 0},
    {"win8-differencing", "win8.vhd", Zeros40MiB, 0},
    {"vbox-dynamic-empty", "vbox.vhd", Zeros40MiB, 0},
    {"virtualpc2007-dynamic-empty", "hda.vhd", "a6d72ac7690f53be6ae46ba88506bd97302a093f7108472bd9efc3cefda06484", 0},
    {"qemu-differencing-ext2", "image-differential.vhd",
     "c6db12a7db548e193c29420c1b4533e4708b20c5033db5cc29ef075d48316d25", 3},
};

TEST_P(SampleVhds, ComeBackWithTheirContent) {
    Unpack(GetParam().archive);
    if (IsSkipped() || HasFatalFailure())
        return;
    const std::string image = m_Folder + "/" + GetParam().image;
    const std::string set = m_Dir.File("set");
    BackupOptions_t options;
    options.flatten = true;
    BackupResult_t result;
    ASSERT_OK(BackUpDisk(image, set, options, result));
    EXPECT_EQ(GetParam().warnings, result.warnings.size()) << testing::PrintToString(result.warnings);
    ASSERT_OK(RestoreRaw(set, m_Dir.File("raw")));
    EXPECT_EQ(GetParam().contentSha256, FirstWordOf("sha256sum " + Quoted(m_Dir.File("raw"))));
    ASSERT_NO_FATAL_FAILURE(WriteContent(image, m_Dir.File("ours")));
    EXPECT_TRUE(Runs("cmp " + Quoted(m_Dir.File("raw")) + " " + Quoted(m_Dir.File("ours"))));

    ASSERT_OK(BackUp(image, set, true));
    std::vector<std::string> differences;
    ASSERT_OK(VerifyAgainst(set, image, differences));
    EXPECT_EQ(std::vector<std::string>{}, differences);
    ASSERT_OK(Restore(set, m_Dir.File("back.vhd")));
    EXPECT_TRUE(IsSameVhd(image, m_Dir.File("back.vhd")));
}

TEST_F(SampleVhds, AnEmptyDiskOf127GiBCostsNothing) {
    Unpack("virtualpc-dynamic-empty");
    if (IsSkipped() || HasFatalFailure())
        return;
    const std::string image = m_Folder + "/virtualpc-dynamic.vhd";
    for (const bool flatten : {false, true}) {
        BackupOptions_t options;
        options.flatten = flatten;
        options.force = true;
        BackupResult_t result;
        ASSERT_OK(BackUpDisk(image, m_Dir.File("set"), options, result));
        EXPECT_EQ(136365211648U, result.diskBytes);
        EXPECT_EQ(0U, result.blockCount);
        ASSERT_OK(RestoreRaw(m_Dir.File("set"), m_Dir.File("raw"), true));
        EXPECT_EQ(136365211648U, std::filesystem::file_size(m_Dir.File("raw")));
    }
    ASSERT_OK(BackUp(image, m_Dir.File("set"), true));
    ASSERT_OK(Restore(m_Dir.File("set"), m_Dir.File("back.vhd")));
    EXPECT_TRUE(IsSameVhd(image, m_Dir.File("back.vhd")));
}

std::string NameOfVhdSample(const testing::TestParamInfo<VhdSample_t>& sample) {
    std::string name = std::string(sample.param.archive) + "_" + sample.param.image;
    std::replace_if(
        name.begin(), name.end(), [](char each) { return each == '-' || each == '.'; }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Vhd, SampleVhds, testing::ValuesIn(VhdSamples), NameOfVhdSample);

}  // namespace
