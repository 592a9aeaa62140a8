#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "agent/BackupSetReader.h"
#include "tests/interop/JsonOutput.h"
#include "tests/interop/NtfsComparison.h"
#include "tests/interop/NtfsFill.h"
#include "tests/interop/NtfsMount.h"
#include "tests/interop/NtfsSampleList.h"
#include "tests/support/Bytes.h"
#include "tests/support/SameBytes.h"
#include "tests/support/posix/LoopDevice.h"

// NTFS volumes of others, backed up by what is in use: what comes back is what their driver and their programs know,
// and what is kept is what other programs say is in use.

namespace {

namespace fs = std::filesystem;

constexpr uint64_t SetPieceBytes = 65536;
constexpr char Type[] = "--type ntfs-volume ";

std::string Diskstream(const std::string& words) {
    return std::string(DISKSTREAM_COMMAND) + " " + words;
}

// Of a volume: what another program tells of its boot sector, and the bytes of its bitmap, read by that program.
struct ToldVolume_t {
    uint64_t clusterBytes = 0;
    uint64_t sectorBytes = 0;
    uint64_t clusters = 0;
    std::string bitmap;
    std::string report;

    bool IsUsed(uint64_t lcn) const { return (static_cast<unsigned char>(bitmap.at(lcn / 8)) >> lcn % 8 & 1) != 0; }
    uint64_t UsedClusters() const {
        uint64_t used = 0;
        for (uint64_t lcn = 0; lcn < clusters; ++lcn)
            used += IsUsed(lcn) ? 1 : 0;
        return used;
    }
};

// The number behind `label` in a report.
uint64_t NumberBehind(const std::string& report, const std::string& label) {
    const size_t at = report.find(label);
    EXPECT_NE(std::string::npos, at) << label << " isn't in " << report;
    return at == std::string::npos ? 0 : std::stoull(report.substr(report.find_first_of("0123456789", at)));
}

ToldVolume_t Ask(const std::string& volume) {
    ToldVolume_t told;
    told.report = OutputOf("ntfsinfo -m -f " + Quoted(volume) + " | grep -v 'Name of device'");
    told.clusterBytes = NumberBehind(told.report, "Cluster Size:");
    told.sectorBytes = NumberBehind(told.report, "Sector Size:");
    told.clusters = NumberBehind(told.report, "Volume Size in Clusters:");
    told.bitmap = OutputOf("ntfscat -f -i 6 " + Quoted(volume));
    return told;
}

// The blocks of a set of one volume.
std::set<uint64_t> NumbersIn(const std::string& setName) {
    CBackupSetReader set;
    EXPECT_OK(set.Open(setName));
    std::set<uint64_t> numbers;
    const std::vector<SetStream_t> streams = set.Streams();
    EXPECT_EQ(1U, streams.size());
    const std::string rows = OutputOf("sqlite3 " + Quoted(setName) + " 'SELECT number FROM block'");
    for (const std::string& line : LinesOf(rows))
        numbers.insert(std::stoull(line));
    return numbers;
}

class NtfsVolumeSets : public testing::Test {
protected:
    // The programs that tell what is in use. False, and the test skipped, without them.
    static std::string WhatIsMissing() {
        for (const char* const program : {"ntfsinfo", "ntfsfix", "ntfscat", "sqlite3"}) {
            if (!HasProgram(program))
                return std::string(program) + " isn't installed";
        }
        return WhatMountsLack();
    }

    std::string Set() const { return m_Dir.File("set.dset"); }
    std::string BackUpLine(const std::string& volume) const {
        return Diskstream("backup -q --force " + std::string(Type) + Quoted(volume) + " " + Quoted(Set()));
    }

    void MakeFilled(uint64_t bytes, uint32_t clusterBytes) {
        m_Volume = MakeNtfsVolume(m_Dir, bytes, clusterBytes);
        const CNtfsMount mount(m_Volume, FillOptions);
        ASSERT_TRUE(mount.IsThere());
        AddFilesOfAllKinds(mount, clusterBytes);
        RemoveSome(mount);
    }

    // So that there are clusters with bytes which nobody uses.
    static void RemoveSome(const CNtfsMount& mount) {
        for (size_t index = 0; index < 40; ++index)
            WriteAt(mount.Path("removed" + std::to_string(index)), 0, PatternedBytes(100000, index));
        for (size_t index = 0; index < 40; index += 2)
            fs::remove(mount.Path("removed" + std::to_string(index)));
    }

    static void ExpectSameFiles(const std::string& left, const std::string& right) {
        const CNtfsMount leftMount(left, ReadOptions);
        const CNtfsMount rightMount(right, ReadOptions);
        ASSERT_TRUE(leftMount.IsThere() && rightMount.IsThere());
        EXPECT_TRUE(Runs("diff -r " + Quoted(leftMount.Path()) + " " + Quoted(rightMount.Path())));
        EXPECT_TRUE(AreSameNames(NamesOfMount(leftMount), NamesOfMount(rightMount)));
    }

    // Every cluster that is in use, and all behind the last one, is the same.
    static void ExpectSameClusters(const ToldVolume_t& told, const std::string& left, const std::string& right) {
        const std::string expected = FileContent(left);
        const std::string actual = FileContent(right);
        ASSERT_LE(told.clusters * told.clusterBytes, actual.size());
        ASSERT_LE(actual.size(), expected.size());
        for (uint64_t lcn = 0; lcn < told.clusters; ++lcn) {
            const size_t at = lcn * told.clusterBytes;
            if (told.IsUsed(lcn) && expected.compare(at, told.clusterBytes, actual, at, told.clusterBytes) != 0)
                FAIL() << "cluster " << lcn << " differs";
        }
        const size_t tail = told.clusters * told.clusterBytes;
        EXPECT_SAME_BYTES(expected.substr(tail, actual.size() - tail), actual.substr(tail));
    }

    // No more and no fewer than those with a cluster in use, and what is behind the last one.
    void ExpectBlocksInUse(const ToldVolume_t& told, uint64_t diskBytes) const {
        std::set<uint64_t> expected;
        for (uint64_t lcn = 0; lcn < told.clusters; ++lcn) {
            const uint64_t last = (lcn + 1) * told.clusterBytes - 1;
            for (uint64_t piece = lcn * told.clusterBytes / SetPieceBytes; piece <= last / SetPieceBytes; ++piece) {
                if (told.IsUsed(lcn))
                    expected.insert(piece);
            }
        }
        for (uint64_t at = told.clusters * told.clusterBytes; at < diskBytes; at += 512)
            expected.insert(at / SetPieceBytes);
        EXPECT_TRUE(expected == NumbersIn(Set()));
    }

    CTempDir m_Dir;
    std::string m_Volume;
};

class NtfsVolumeSetsOfClusters : public NtfsVolumeSets, public testing::WithParamInterface<uint32_t> {};

TEST_P(NtfsVolumeSetsOfClusters, ComeBackToAnotherDeviceAndToAFile) {
    if (const std::string missing = WhatIsMissing(); !missing.empty())
        GTEST_SKIP() << missing;
    MakeFilled(64 * MiB, GetParam());
    const ToldVolume_t told = Ask(m_Volume);
    const std::string target = m_Dir.WriteHole("target", 65 * MiB);
    const std::string file = m_Dir.File("restored");
    {
        const CLoopDevice source(m_Volume);
        SKIP_WITHOUT_LOOP(source);
        EXPECT_TRUE(Runs(BackUpLine(source.Path())));
        ExpectBlocksInUse(told, 64 * MiB);
        const auto info = JsonFrom(Diskstream("info --json " + std::string(Type) + source.Path()));
        EXPECT_EQ(told.UsedClusters(), info["extents"][0]["used_clusters"].get<uint64_t>());
        EXPECT_EQ(told.clusters, info["extents"][0]["clusters"].get<uint64_t>());
        EXPECT_EQ(told.clusterBytes, info["extents"][0]["cluster_bytes"].get<uint64_t>());
        EXPECT_TRUE(Runs(Diskstream("verify -q --against " + source.Path() + " " + Quoted(Set()))));

        EXPECT_TRUE(
            Runs("tr '\\0' x < /dev/zero | head -c 68157440 | dd of=" + Quoted(target) + " bs=1M conv=notrunc"));
        const CLoopDevice device(target);
        EXPECT_TRUE(Runs(Diskstream("restore -q --force " + Quoted(Set()) + " " + device.Path())));
        EXPECT_TRUE(device.Flush());
        EXPECT_TRUE(Runs(Diskstream("verify -q --against " + device.Path() + " " + Quoted(Set()))));
    }
    EXPECT_TRUE(Runs(Diskstream("restore -q " + Quoted(Set()) + " " + Quoted(file))));
    ExpectSameClusters(told, m_Volume, file);
    EXPECT_EQ(64 * MiB, fs::file_size(file));
    EXPECT_EQ(told.report, Ask(file).report);
    EXPECT_TRUE(Runs("ntfsfix -n " + Quoted(file)));
    ExpectSameFiles(m_Volume, file);
    ExpectSameFiles(m_Volume, target);
    EXPECT_EQ(std::string(MiB, 'x'), FileContent(target, 64 * MiB, MiB)) << "what lies behind the volume stays";
}

INSTANTIATE_TEST_SUITE_P(Bytes, NtfsVolumeSetsOfClusters, testing::Values(512, 4096, 65536),
                         testing::PrintToStringParamName());

TEST_F(NtfsVolumeSets, LargeSectorsAndClustersComeBackToo) {
    if (const std::string missing = WhatIsMissing(); !missing.empty())
        GTEST_SKIP() << missing;
    for (const char* const options : {"-s 4096 -c 4096", "-s 1024 -c 65536", "-c 2097152", "-s 4096 -c 262144"}) {
        SCOPED_TRACE(options);
        m_Volume = m_Dir.WriteHole("volume", 64 * MiB);
        ASSERT_TRUE(Runs("mkntfs -F -Q -q " + std::string(options) + " " + Quoted(m_Volume)));
        const ToldVolume_t told = Ask(m_Volume);
        EXPECT_TRUE(Runs(BackUpLine(m_Volume)));
        ExpectBlocksInUse(told, 64 * MiB);
        const std::string file = m_Dir.File("restored");
        EXPECT_TRUE(Runs(Diskstream("restore -q --force " + Quoted(Set()) + " " + Quoted(file))));
        ExpectSameClusters(told, m_Volume, file);
        EXPECT_EQ(told.report, Ask(file).report);
        EXPECT_TRUE(Runs("ntfsfix -n " + Quoted(file)));
    }
}

// A set has what is in use, as the image of the program for such images has: it takes no more room, but for pieces that
// are in use in part.
TEST_F(NtfsVolumeSets, TakeAboutTheRoomOfAnotherProgramsImage) {
    if (const std::string missing = WhatIsMissing(); !missing.empty())
        GTEST_SKIP() << missing;
    if (!HasProgram("ntfsclone") || !HasProgram("zstd"))
        GTEST_SKIP() << "ntfsclone or zstd isn't installed";
    MakeFilled(256 * MiB, 4096);
    EXPECT_TRUE(Runs(BackUpLine(m_Volume)));
    const std::string image = m_Dir.File("image.zst");
    EXPECT_TRUE(Runs("ntfsclone -q --save-image -f -O - " + Quoted(m_Volume) + " | zstd -1 -q -o " + Quoted(image)));
    const uint64_t setBytes = fs::file_size(Set());
    const uint64_t imageBytes = fs::file_size(image);
    RecordProperty("set_bytes", std::to_string(setBytes));
    RecordProperty("image_bytes", std::to_string(imageBytes));
    EXPECT_LT(setBytes, imageBytes + imageBytes / 2 + MiB);
    EXPECT_GT(setBytes, imageBytes / 2);
}

// The core's own stream, whose target is a volume that was formatted before.
TEST_F(NtfsVolumeSets, TheCoresStreamGoesToAFormattedDevice) {
    if (const std::string missing = WhatIsMissing(); !missing.empty())
        GTEST_SKIP() << missing;
    MakeFilled(128 * MiB, 4096);
    const std::string target = m_Dir.WriteHole("target", 130 * MiB);
    ASSERT_TRUE(Runs("mkntfs -F -Q -q -c 4096 " + Quoted(target)));
    {
        const CLoopDevice sourceDevice(m_Volume);
        const CLoopDevice targetDevice(target);
        SKIP_WITHOUT_LOOP(sourceDevice);
        SKIP_WITHOUT_LOOP(targetDevice);
        CArchiveVirtualDiskFile source(VirtualProdType_Physical);
        CArchiveVirtualDiskFile written(VirtualProdType_Physical);
        CAutoMemory<char> metadata;
        CAutoMemory<char> block;
        Context_t from{};
        Context_t to{};
        ASSERT_OK(source.Open(sourceDevice.Path().c_str(), DiskType_NTFSVolume));
        ASSERT_OK(source.GetFirstBlock(metadata, 0, from));
        ASSERT_OK(written.Create(targetDevice.Path().c_str(), DiskType_NTFSVolume, metadata, 0, to));
        EXPECT_EQ(from.blockSectors, to.blockSectors);
        uint64_t number = 0;
        CZuError error = source.GetNextBlock(block, number, from);
        while (!error.IsErrorSet()) {
            ASSERT_OK(written.WriteBlock(block, number, to));
            error = source.GetNextBlock(block, number, from);
        }
        EXPECT_EQ(1, source.IsErrorEOF(error)) << error.ConvertToString();
        EXPECT_OK(written.Close());
        EXPECT_TRUE(targetDevice.Flush());
    }
    ExpectSameFiles(m_Volume, target);
}

TEST_F(NtfsVolumeSets, AMountedDeviceIsWarnedOfAsASourceAndRefusedAsATarget) {
    if (const std::string missing = WhatIsMissing(); !missing.empty())
        GTEST_SKIP() << missing;
    MakeFilled(64 * MiB, 4096);
    const CLoopDevice device(m_Volume);
    SKIP_WITHOUT_LOOP(device);
    const CNtfsMount mount(device.Path(), "rw");
    ASSERT_TRUE(mount.IsThere());
    const auto backup =
        JsonFrom(Diskstream("backup --json " + std::string(Type) + device.Path() + " " + Quoted(Set())));
    ASSERT_EQ(1U, backup["warnings"].size());
    EXPECT_NE(std::string::npos, backup["warnings"][0].get<std::string>().find("is mounted or in use"));
    std::string output;
    EXPECT_FALSE(RunProgram(Diskstream("restore -q --force " + Quoted(Set()) + " " + device.Path()), &output));
    EXPECT_NE(std::string::npos, output.find("busy")) << output;
    CAutoMemory<char> metadata;
    Context_t context{};
    CArchiveVirtualDiskFile core(VirtualProdType_Physical);
    ASSERT_OK(core.Open(device.Path().c_str(), DiskType_NTFSVolume));
    ASSERT_OK(core.GetFirstBlock(metadata, 0, context));
    CArchiveVirtualDiskFile target(VirtualProdType_Physical);
    EXPECT_SYSTEM_ERROR(target.Create(device.Path().c_str(), DiskType_NTFSVolume, metadata, 0, context), EBUSY);
}

TEST_F(NtfsVolumeSets, ACatalogueOfAVolumeListsAndRestoresItsFiles) {
    if (const std::string missing = WhatIsMissing(); !missing.empty())
        GTEST_SKIP() << missing;
    MakeFilled(64 * MiB, 4096);
    EXPECT_TRUE(Runs(Diskstream("backup -q --catalog " + std::string(Type) + Quoted(m_Volume) + " " + Quoted(Set()))));
    EXPECT_TRUE(Runs(CommandOn({{Set()}}, "cp", "-q -r / " + Quoted(m_Dir.File("copy")))));
    const CNtfsMount mount(m_Volume, ReadOptions);
    EXPECT_TRUE(Runs("diff -r " + Quoted(mount.Path()) + " " + Quoted(m_Dir.File("copy"))));
}

class NtfsVolumeSetsOfSamples : public NtfsVolumeSets, public testing::WithParamInterface<NtfsSample_t> {};

TEST_P(NtfsVolumeSetsOfSamples, ComeBackWithAllThatIsInUse) {
    if (const std::string missing = WhatIsMissing(); !missing.empty())
        GTEST_SKIP() << missing;
    VolumeAt_t at;
    if (!UnpackNtfsSample(GetParam(), m_Dir, at))
        GTEST_SKIP() << GetParam().archive << " isn't there";
    m_Volume = m_Dir.File("volume");
    ASSERT_TRUE(Runs(Diskstream("read -q" + WordsOf(at) + " > " + Quoted(m_Volume))));
    const ToldVolume_t told = Ask(m_Volume);
    ASSERT_TRUE(Runs(BackUpLine(m_Volume)));
    const auto list = JsonFrom(Diskstream("list --json " + Quoted(Set())));
    ExpectBlocksInUse(told, list["disk_bytes"].get<uint64_t>());
    ASSERT_TRUE(Runs(Diskstream("restore -q " + Quoted(Set()) + " " + Quoted(m_Dir.File("restored")))));
    ExpectSameClusters(told, m_Volume, m_Dir.File("restored"));
    EXPECT_TRUE(AreSameNames(NamesOfFls(m_Volume, 0), NamesOfFls(m_Dir.File("restored"), 0)));
}

constexpr NtfsSample_t VolumeSamples[] = {
    {"ntfs/large-dir-compressed", "ntfs.bin", nullptr, "Volume1", true},
    {"ntfs/links-reparse", "ntfs-links.dd"},
    {"ntfs/small-8m", "partition_image.raw"},
    {"ntfs/xp-russian", "ntfs.img"},
    {"ntfs/xp-undelete", "7-ntfs-undel.dd"},
    {"ntfs/ea-linux", "ntfs3.raw"},
    {"vhd/win10-dynamic-ntfs", "*.vhd"},
    {"vmdk/vmware-sparse-ntfs", "monolithicSparse.vmdk"},
};

INSTANTIATE_TEST_SUITE_P(Collected, NtfsVolumeSetsOfSamples, testing::ValuesIn(VolumeSamples), NameOfNtfsSample);

}  // namespace
