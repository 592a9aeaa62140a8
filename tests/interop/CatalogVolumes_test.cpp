#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent/BackupSetReader.h"
#include "agent/CatalogVolume.h"
#include "tests/interop/Lvm2Programs.h"
#include "tests/interop/NtfsComparison.h"
#include "tests/interop/NtfsFill.h"
#include "tests/interop/NtfsMount.h"
#include "tests/interop/NtfsSampleList.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VmdkDescriptorBuilder.h"

// Volumes whose disks are gone: a backup set with a catalogue answers as the disks did, and gives the bytes that
// another driver shows of the files.

namespace {

namespace fs = std::filesystem;

constexpr uint64_t MostComparedBytes = 16 * MiB;  // longer streams are compared by the sums that are known of them

// A volume in a set, open in this process.
class COpenCatalog {
public:
    COpenCatalog(const std::string& set, const std::string& volume) {
        EXPECT_OK(m_Set.Open(set));
        for (const SetVolume_t& each : m_Set.Volumes()) {
            if (each.name == volume)
                m_IsOpen = !m_Volume.Open(m_Set, each).IsErrorSet();
        }
        EXPECT_TRUE(m_IsOpen) << volume;
    }

    bool IsOpen() const { return m_IsOpen; }
    CCatalogVolume& Volume() { return m_Volume; }

private:
    CBackupSetReader m_Set;
    CCatalogVolume m_Volume;
    bool m_IsOpen = false;
};

// A sum of bytes that is the same however they are cut into pieces (FNV-1a).
class CQuickSum {
public:
    void Put(const char* bytes, uint32_t size) {
        for (uint32_t at = 0; at < size; ++at)
            m_Sum = (m_Sum ^ static_cast<unsigned char>(bytes[at])) * 0x100000001B3;
        m_Size += size;
    }

    std::string Text() const { return std::to_string(m_Size) + " bytes " + std::to_string(m_Sum); }

private:
    uint64_t m_Size = 0;
    uint64_t m_Sum = 0xCBF29CE484222325;
};

// The sum of what `read` gives, or its error.
std::string SumOf(const std::function<CZuError(const TakeBytes_t&)>& read) {
    CQuickSum sum;
    const CZuError error = read([&](const char* bytes, uint32_t size) {
        sum.Put(bytes, size);
        return true;
    });
    return error.IsErrorSet() ? DescribeError(error) : sum.Text();
}

std::string TextOfStream(INtfsFiles& volume, uint64_t frn, const NtfsStreamInfo_t& stream) {
    std::string text = "  :" + stream.name + " " + std::to_string(stream.bytes) + " stored " +
                       std::to_string(stream.storedBytes) + (stream.isResident ? " resident" : "") +
                       (stream.isCompressed ? " compressed" : "") + (stream.isSparse ? " sparse" : "");
    if (stream.bytes <= MostComparedBytes)
        text += " " + SumOf([&](const TakeBytes_t& take) { return volume.ReadStream(frn, stream.name, take); });
    return text + "\n";
}

std::string FactsText(const NtfsFileInfo_t& file) {
    std::string text = std::to_string(file.frn) + (file.isDirectory ? " directory " : " file ");
    for (const uint64_t number : {file.bytes, file.creation, file.modification, file.recordChange, file.access,
                                  uint64_t{file.attributes}, uint64_t{file.links}, uint64_t{file.reparseTag}})
        text += std::to_string(number) + " ";
    return text + file.problem + "\n";
}

// All that can be asked about a file.
std::string AnswersOf(INtfsFiles& volume, const NtfsFileInfo_t& file) {
    std::string text;
    uint64_t longest = 0;
    for (const NtfsStreamInfo_t& stream : file.streams) {
        text += TextOfStream(volume, file.frn, stream);
        longest = std::max(longest, stream.bytes);
    }
    if (longest <= MostComparedBytes)
        text += "  backup " + SumOf([&](const TakeBytes_t& take) { return volume.ReadBackupStream(file.frn, take); }) +
                "\n";
    std::string descriptor;
    const CZuError error = volume.ReadSecurity(file.frn, descriptor);
    return text + "  security " + (error.IsErrorSet() ? DescribeError(error) : descriptor);
}

// The answers for all files of a volume that can be read, each a line or more, in the order of the listing.
std::vector<std::string> AnswersOf(INtfsFiles& volume) {
    std::vector<std::string> answers;
    NtfsListing_t listing;
    listing.isRecursive = true;
    std::map<uint64_t, bool> isAsked;
    uint64_t root = 0;
    EXPECT_OK(volume.Find("/", root));
    EXPECT_OK(volume.List(root, listing, [&](const NtfsEntry_t& entry) {
        if (!entry.file.problem.empty())
            return true;
        answers.push_back(entry.path + " " + FactsText(entry.file));
        NtfsFileInfo_t file;
        EXPECT_OK(volume.Describe(entry.file.frn, file)) << entry.path;
        if (!isAsked[entry.file.frn])
            answers.back() += AnswersOf(volume, file);
        isAsked[entry.file.frn] = true;
        return true;
    }));
    return answers;
}

void ExpectSame(const std::vector<std::string>& expected, const std::vector<std::string>& actual) {
    EXPECT_EQ(expected.size(), actual.size());
    const auto [one, other] = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    if (one != expected.end() && other != actual.end()) {
        EXPECT_EQ(*one, *other);
    }
}

class CatalogVolumes : public testing::Test {
protected:
    // Backs the disks up, whose files lie in their directory alone, and moves that away: from here on nothing but the
    // set is where it was. A catalogue that isn't whole makes the command fail.
    void BackUp(bool isWhole = true, const std::string& options = "") {
        std::string command = std::string(DISKSTREAM_COMMAND) + " backup -q --catalog " + options;
        if (m_Disk.type)
            command += std::string(" --type ") + DiskTypeName(*m_Disk.type);
        for (const std::string& disk : m_Disk.disks)
            command += " " + Quoted(disk);
        m_Set.disks = {m_Dir.File("set")};
        m_Set.volume = m_Disk.volume;
        EXPECT_EQ(isWhole, RunProgram(command + " " + Quoted(m_Set.disks[0]), &m_Said)) << command << ": " << m_Said;
        for (std::string& disk : m_Disk.disks)
            disk = m_Dir.File("away") + disk.substr(m_Disks.Path().size());
        fs::create_directory(m_Dir.File("away"));
        for (const auto& entry : fs::directory_iterator(m_Disks.Path()))
            fs::rename(entry.path(), m_Dir.File("away/" + entry.path().filename().string()));
    }

    // Makes a volume and has it filled. False, and the test skipped, where that can't be done.
    bool Make(uint64_t bytes, uint32_t clusterBytes, const std::string& options,
              const std::function<void(const CNtfsMount&)>& fill) {
        const std::string missing = WhatMountsLack();
        if (!missing.empty()) {
            Skip(missing);
            return false;
        }
        m_Disk.disks = {MakeNtfsVolume(m_Disks, bytes, clusterBytes)};
        m_Disk.type = DiskTypeFromName("raw");
        const CNtfsMount mount(m_Disk.disks[0], options);
        if (mount.IsThere())
            fill(mount);
        return mount.IsThere();
    }

    bool MakeSmallVolume() {
        return Make(24 * MiB, 4096, FillOptions, [](const CNtfsMount& mount) {
            AddPlainFiles(mount, 4096);
            AddSparseFiles(mount);
            AddCompressedFiles(mount);
            AddLinksAndStreams(mount);
        });
    }

    // Unpacks a sample's disks. False, and the test skipped, where it isn't there.
    bool Unpack(const NtfsSample_t& sample) {
        if (!UnpackNtfsSample(sample, m_Disks, m_Disk)) {
            Skip(std::string(sample.archive) + " isn't there");
            return false;
        }
        const std::string extension = fs::path(m_Disk.disks[0]).extension();
        if (extension == ".vhd" || extension == ".vmdk")
            return true;
        m_Disk.type = DiskTypeFromName("raw");
        const bool isLarge = fs::file_size(m_Disk.disks[0]) > 128 * MiB;
        return !isLarge || std::getenv("DISKSTREAM_LARGE_TESTS") != nullptr || LeaveHolesOut();
    }

    // A raw disk of many gigabytes is read whole, its holes too. Another form of it has none.
    bool LeaveHolesOut() {
        if (!HasProgram("qemu-img")) {
            Skip("qemu-img isn't installed");
            return false;
        }
        const std::string sparse = m_Disks.File("sparse.vmdk");
        EXPECT_TRUE(Runs("qemu-img convert -f raw -O vmdk " + Quoted(m_Disk.disks[0]) + " " + Quoted(sparse)));
        m_Disk.disks = {sparse};
        m_Disk.type.reset();
        return true;
    }

    // Every file of the volume: its facts, streams, backup stream and descriptor.
    void ExpectAnswersOfDisks() const {
        COpenNtfs disk(m_Disk);
        COpenCatalog catalog(m_Set.disks[0], m_Set.volume);
        ASSERT_TRUE(disk.IsOpen() && catalog.IsOpen());
        const std::vector<std::string> expected = AnswersOf(disk.Volume());
        ExpectSame(expected, AnswersOf(catalog.Volume()));
    }

    void ExpectSameOutput(const std::string& command, const std::string& arguments) const {
        EXPECT_SAME_BYTES(OutputOf(CommandOn(m_Disk, command, arguments)),
                          OutputOf(CommandOn(m_Set, command, arguments)))
            << command << " " << arguments;
    }

    void ExpectKnownStreams(const std::string& manifest, const std::string& volume) const {
        COpenCatalog catalog(m_Set.disks[0], volume);
        ASSERT_TRUE(catalog.IsOpen());
        const std::vector<KnownStream_t> streams =
            StreamsOf(std::string(DISKSTREAM_SAMPLES_DIR) + "/manifests/" + manifest + ".txt");
        ASSERT_FALSE(streams.empty());
        for (const KnownStream_t& known : streams) {
            SCOPED_TRACE(known.path + ":" + known.name);
            uint64_t frn = 0;
            if (known.path[0] != '$') {
                EXPECT_OK(catalog.Volume().Find(known.path, frn));
                EXPECT_EQ(known.frn, frn);
            }
            if (known.bytes <= MostComparedBytes || std::getenv("DISKSTREAM_LARGE_TESTS") != nullptr) {
                EXPECT_EQ(known.sha256, SumOfStream(catalog.Volume(), known.frn, known.name));
            }
        }
    }

    CTempDir m_Dir;
    CTempDir m_Disks;
    VolumeAt_t m_Disk;
    VolumeAt_t m_Set;
    std::string m_Said;  // by the backup

private:
    static void Skip(const std::string& why) { GTEST_SKIP() << why; }
};

class CatalogVolumesOfClusters : public CatalogVolumes, public testing::WithParamInterface<uint32_t> {};

TEST_P(CatalogVolumesOfClusters, GiveTheNamesBytesAndTimesThatTheDriverShows) {
    const uint32_t clusterBytes = GetParam();
    if (!Make(64 * MiB, clusterBytes, FillOptions,
              [&](const CNtfsMount& mount) { AddFilesOfAllKinds(mount, clusterBytes); }))
        return;
    BackUp();
    {
        const CNtfsMount mount(m_Disk.disks[0], ReadOptions);
        EXPECT_TRUE(AreSameNames(NamesOfMount(mount), NamesOfLs(m_Set, "")));
    }
    ExpectCopyIsWhatIsMounted(m_Set, m_Disk.disks[0]);
    ExpectAnswersOfDisks();
    for (const char* const arguments : {"/ -r -l", "/ -r --json", "/links"})
        ExpectSameOutput("ls", arguments);
    for (const std::string& stream : {std::string("short"), std::string("long"), Character(0x1F600)})
        ExpectSameOutput("cat", "streams/file --stream " + Quoted(stream));
    for (const char* const command : {"stat", "streams", "security"})
        ExpectSameOutput(command, "sparse/holes");
    ExpectSameOutput("export-stream", "streams/file -");
    ExpectSameOutput("cat", "SPARSE/tail");
}

INSTANTIATE_TEST_SUITE_P(Bytes, CatalogVolumesOfClusters, testing::Values(512, 1024, 4096, 16384, 65536),
                         testing::PrintToStringParamName());

TEST_F(CatalogVolumes, AnMftAndFilesInManyPiecesAreRestoredWhole) {
    if (!Make(4 * MiB, 1024, "compression", FillWithGaps))
        return;
    BackUp();
    ExpectCopyIsWhatIsMounted(m_Set, m_Disk.disks[0]);
    ExpectAnswersOfDisks();
}

TEST_F(CatalogVolumes, ADirectoryOfThousandsOfFilesIsListedAndItsFilesAreFound) {
    const size_t files = std::getenv("DISKSTREAM_LARGE_TESTS") == nullptr ? 2000 : 50000;
    const bool isMade = Make(files / 1000 * 16 * MiB, 4096, "big_writes", [&](const CNtfsMount& mount) {
        fs::create_directory(mount.Path("wide"));
        for (size_t index = 0; index < files; ++index)
            WriteAt(mount.Path("wide/" + std::to_string(index)), 0, std::string(index % 1000, 'w'));
    });
    if (!isMade)
        return;
    BackUp();
    EXPECT_EQ(files, LinesOf(OutputOf(CommandOn(m_Set, "ls", "/wide"))).size());
    ExpectSameOutput("ls", "/ -r --json");
    EXPECT_EQ(files / 1000, LinesOf(OutputOf(CommandOn(m_Set, "find", "--min-size 999"))).size());
    ExpectSameOutput("find", "/wide --name '19?9' -l");
    ExpectCopyIsWhatIsMounted(m_Set, m_Disk.disks[0]);
}

// Forms of disks, each made of the raw one in `directory`; what is made gets the names of its files.
struct DiskForm_t {
    const char* name;
    std::function<std::vector<std::string>(const CTempDir& directory)> make;
};

std::vector<std::string> Converted(const CTempDir& directory, const std::string& format, const std::string& options,
                                   const std::string& name) {
    EXPECT_TRUE(Runs("qemu-img convert -O " + format + " -o " + options + " " + Quoted(directory.File("volume")) + " " +
                     Quoted(directory.File(name))));
    return {directory.File(name)};
}

// Extents that end inside of files, and one of them inside of a cluster.
constexpr uint64_t ExtentSectors[] = {9001, 16384, 12288};

// The last extent has what is left.
std::vector<std::string> InExtents(const CTempDir& directory, const std::string& type, const std::string& createType) {
    CVmdkDescriptorBuilder descriptor;
    descriptor.CreateType(createType);
    const std::string bytes = ReadFileBytes(directory.File("volume"));
    uint64_t first = 0;
    for (size_t index = 0; first * 512 < bytes.size(); ++index) {
        const uint64_t left = bytes.size() / 512 - first;
        const uint64_t sectors = index < std::size(ExtentSectors) ? std::min(ExtentSectors[index], left) : left;
        const std::string name = "extent" + std::to_string(index);
        const std::string piece = directory.Write(name, bytes.substr(first * 512, sectors * 512));
        if (type == "SPARSE") {
            const std::string sparse = directory.File("sparse-" + name);
            EXPECT_TRUE(Runs("qemu-img convert -f raw -O vmdk " + Quoted(piece) + " " + Quoted(sparse)));
            fs::rename(sparse, piece);
        }
        descriptor.Extent(sectors, type, name);
        first += sectors;
    }
    return {descriptor.WriteTo(directory)};
}

const DiskForm_t DiskForms[] = {
    {"VhdDynamic",
     [](const CTempDir& directory) { return Converted(directory, "vpc", "subformat=dynamic,force_size", "disk.vhd"); }},
    {"VhdFixed",
     [](const CTempDir& directory) { return Converted(directory, "vpc", "subformat=fixed,force_size", "disk.vhd"); }},
    {"VmdkSparse",
     [](const CTempDir& directory) { return Converted(directory, "vmdk", "subformat=monolithicSparse", "disk.vmdk"); }},
    {"VmdkFlatInExtents", [](const CTempDir& directory) { return InExtents(directory, "FLAT", "twoGbMaxExtentFlat"); }},
    {"VmdkSparseInExtents",
     [](const CTempDir& directory) { return InExtents(directory, "SPARSE", "twoGbMaxExtentSparse"); }},
};

class CatalogVolumesInDisks : public CatalogVolumes, public testing::WithParamInterface<DiskForm_t> {};

TEST_P(CatalogVolumesInDisks, GiveWhatTheDriverShowsOfTheRawDisk) {
    if (!HasProgram("qemu-img"))
        GTEST_SKIP() << "qemu-img isn't installed";
    if (!MakeSmallVolume())
        return;
    m_Disk.disks = GetParam().make(m_Disks);
    m_Disk.type.reset();
    BackUp();
    ExpectCopyIsWhatIsMounted(m_Set, m_Dir.File("away/volume"));
    ExpectAnswersOfDisks();
}

INSTANTIATE_TEST_SUITE_P(Forms, CatalogVolumesInDisks, testing::ValuesIn(DiskForms),
                         [](const auto& form) { return std::string(form.param.name); });

// Writes the blocks of `changed` that `base` hasn't into the disk `child`.
void WriteDifferences(const CTempDir& directory, const std::string& base, const std::string& changed,
                      const std::string& child) {
    constexpr size_t blockBytes = 65536;
    std::string command = "qemu-io";
    for (size_t at = 0; at < changed.size(); at += blockBytes) {
        const std::string block = changed.substr(at, blockBytes);
        if (block == base.substr(at, blockBytes))
            continue;
        const std::string piece = directory.Write("piece" + std::to_string(at), block);
        command += " -c 'write -s " + piece + " " + std::to_string(at) + " " + std::to_string(block.size()) + "'";
    }
    EXPECT_TRUE(Runs(command + " " + Quoted(child)));
}

TEST_F(CatalogVolumes, AChainIsRefusedUnlessItIsFlattened) {
    if (!HasProgram("qemu-io"))
        GTEST_SKIP() << "qemu-io isn't installed";
    if (!MakeSmallVolume())
        return;
    const std::string raw = m_Disk.disks[0];
    const std::string base = ReadFileBytes(raw);
    Converted(m_Disks, "vmdk", "subformat=monolithicSparse", "base.vmdk");
    {
        const CNtfsMount mount(raw, FillOptions);
        fs::create_directory(mount.Path("later"));
        WriteAt(mount.Path("later/file"), 0, MixedBytes(300000));
        WriteAt(mount.Path("plain/300000"), 70000, "written over");
        fs::remove(mount.Path("plain/case"));
    }
    const CTempDir pieces;
    const std::string child = m_Disks.File("child.vmdk");
    ASSERT_TRUE(Runs("cd " + Quoted(m_Disks.Path()) + " && qemu-img create -f vmdk -b base.vmdk -F vmdk child.vmdk"));
    WriteDifferences(pieces, base, ReadFileBytes(raw), child);
    std::string output;
    EXPECT_FALSE(RunProgram(std::string(DISKSTREAM_COMMAND) + " backup -q --catalog " + Quoted(child) + " " +
                                Quoted(m_Dir.File("set")),
                            &output));
    EXPECT_NE(std::string::npos, output.find("--flatten")) << output;
    EXPECT_FALSE(fs::exists(m_Dir.File("set")));
    m_Disk.disks = {child};
    m_Disk.type.reset();
    BackUp(true, "--flatten");
    ExpectCopyIsWhatIsMounted(m_Set, m_Dir.File("away/volume"));
    ExpectAnswersOfDisks();
}

class CatalogSamples : public CatalogVolumes, public testing::WithParamInterface<NtfsSample_t> {};

TEST_P(CatalogSamples, AnswerAsTheDisksDoAndHoldTheStreamsThatAreKnown) {
    if (!Unpack(GetParam()))
        return;
    BackUp();
    if (GetParam().manifest != nullptr)
        ExpectKnownStreams(GetParam().manifest, GetParam().volume);
    if (GetParam().hasStrayFile)
        return;
    ExpectAnswersOfDisks();
    ExpectSameOutput("ls", "/ -r -l");
    ExpectSameOutput("ls", "/ -r --json");
}

// Those that aren't on dynamic disks, which have a test of their own. One is a gigabyte without a hole.
std::vector<NtfsSample_t> SamplesOfOneDisk() {
    std::vector<NtfsSample_t> samples;
    std::copy_if(std::begin(KnownNtfsSamples), std::end(KnownNtfsSamples), std::back_inserter(samples),
                 [](const NtfsSample_t& sample) {
                     const std::string archive = sample.archive;
                     const bool isSlow = archive == "ntfs/ptrn" && std::getenv("DISKSTREAM_LARGE_TESTS") == nullptr;
                     return !isSlow && archive.rfind("ldm/", 0) != 0;
                 });
    return samples;
}

INSTANTIATE_TEST_SUITE_P(Ntfs, CatalogSamples, testing::ValuesIn(SamplesOfOneDisk()), NameOfNtfsSample);

// Ten disks in one set, or all but one.
class CatalogOfDynamicDisks : public CatalogVolumes, public testing::WithParamInterface<const char*> {
protected:
    // Those whose names hold `text` are left out.
    void LeaveOut(const std::string& text) {
        std::erase_if(m_Disk.disks, [&](const std::string& disk) { return disk.find(text) != std::string::npos; });
    }

    void ExpectVolume(const NtfsSample_t& sample) {
        SCOPED_TRACE(sample.volume);
        m_Disk.volume = m_Set.volume = sample.volume;
        ExpectAnswersOfDisks();
        ExpectKnownStreams(sample.manifest, sample.volume);
        ExpectSameOutput("ls", "/ -r -l");
    }
};

TEST_P(CatalogOfDynamicDisks, VolumesAnswerAsTheDisksDo) {
    const std::string missing = GetParam();
    std::vector<NtfsSample_t> samples;
    std::copy_if(std::begin(KnownNtfsSamples), std::end(KnownNtfsSamples), std::back_inserter(samples),
                 [](const NtfsSample_t& sample) { return std::string(sample.archive) == "ldm/2003r2"; });
    if (!Unpack(samples.front()))
        return;
    if (missing != "none")
        LeaveOut(missing);
    BackUp();
    for (const NtfsSample_t& sample : samples)
        ExpectVolume(sample);
}

INSTANTIATE_TEST_SUITE_P(Missing, CatalogOfDynamicDisks, testing::Values("none", "mirrored-1", "raid5-3"),
                         [](const auto& missing) {
                             std::string name = missing.param;
                             std::erase(name, '-');
                             return name;
                         });

TEST_F(CatalogOfDynamicDisks, AVolumeThatLacksADiskIsNamedAndTheOthersAreInTheSet) {
    if (!Unpack({"ldm/2003r2", "*"}))
        return;
    LeaveOut("striped-2");  // a spanned volume goes on there, too
    BackUp();
    for (const std::string volume : {"Volume3", "Volume4"}) {
        EXPECT_NE(std::string::npos, m_Said.find(volume + ": a disk of it is missing")) << m_Said;
        m_Set.volume = volume;
        EXPECT_FALSE(RunProgram(CommandOn(m_Set, "ls")));
    }
    for (const NtfsSample_t& sample : KnownNtfsSamples) {
        const bool isThere = std::string(sample.volume) != "Volume3" && std::string(sample.volume) != "Volume4";
        if (std::string(sample.archive) == "ldm/2003r2" && isThere)
            ExpectVolume(sample);
    }
}

TEST_F(CatalogOfDynamicDisks, AVolumeSpansAnMbrDiskAndAGptDisk) {
    const NtfsSample_t sample = {"ldm/2008r2-spanned", "*", "ldm-2008r2-E-spanned", "Volume2"};
    if (!Unpack(sample))
        return;
    BackUp();
    EXPECT_NE(std::string::npos, m_Said.find("Volume1: disks of it are missing")) << m_Said;
    ExpectVolume(sample);
}

struct DamagedSample_t {
    NtfsSample_t sample;
    bool isWhole;            // nothing that a file record tells is damaged
    bool hasNamesOfIndexes;  // what the directories tell is what the records tell
    std::vector<std::string> named;
};

class CatalogOfDamagedSamples : public CatalogVolumes, public testing::WithParamInterface<DamagedSample_t> {};

// Names come from the file records: what an index alone tells isn't there.
TEST_P(CatalogOfDamagedSamples, HasWhatCanBeReadAndNamesTheRest) {
    const DamagedSample_t& damaged = GetParam();
    if (!Unpack(damaged.sample))
        return;
    BackUp(damaged.isWhole);
    for (const std::string& text : damaged.named)
        EXPECT_NE(std::string::npos, m_Said.find("Volume1: " + text)) << text << " isn't in " << m_Said;
    COpenNtfs disk(m_Disk);
    COpenCatalog catalog(m_Set.disks[0], m_Set.volume);
    ASSERT_TRUE(disk.IsOpen() && catalog.IsOpen());
    size_t compared = 0;
    NtfsListing_t listing;
    listing.isRecursive = true;
    EXPECT_OK(disk.Volume().List(disk.Find("/"), listing, [&](const NtfsEntry_t& entry) {
        if (!entry.file.problem.empty())
            return true;
        NtfsFileInfo_t file;
        EXPECT_OK(catalog.Volume().Describe(entry.file.frn, file)) << entry.path;
        EXPECT_EQ(AnswersOf(disk.Volume(), entry.file), AnswersOf(catalog.Volume(), file)) << entry.path;
        uint64_t frn = 0;
        EXPECT_NE(damaged.hasNamesOfIndexes, catalog.Volume().Find(entry.path, frn).IsErrorSet()) << entry.path;
        EXPECT_EQ(damaged.hasNamesOfIndexes ? entry.file.frn : 0, frn) << entry.path;
        ++compared;
        return true;
    }));
    EXPECT_LE(5U, compared);
}

const DamagedSample_t DamagedSamples[] = {
    {DamagedNtfsImages[0],
     false,
     false,
     {"file record 54: Value Out Of Range", "file record 961: File Record is Corrupted", "57 names can't be listed"}},
    {DamagedNtfsImages[1], false, true, {"3 names can't be listed"}},
    {DamagedNtfsImages[2], true, true, {}},
};

INSTANTIATE_TEST_SUITE_P(Ntfs, CatalogOfDamagedSamples, testing::ValuesIn(DamagedSamples), [](const auto& damaged) {
    return NameOfNtfsSample({damaged.param.sample, damaged.index});
});

// Puts a volume's bytes on the disks of its group: stripes turn by turn, behind the first MiB of each disk.
void PutOnStripes(const std::string& volume, const std::vector<std::string>& disks, uint64_t stripeBytes) {
    const std::string bytes = ReadFileBytes(volume);
    std::vector<std::string> columns(disks.size());
    for (size_t at = 0; at < bytes.size(); at += stripeBytes)
        columns[at / stripeBytes % disks.size()] += bytes.substr(at, stripeBytes);
    for (size_t index = 0; index < disks.size(); ++index)
        WriteAt(disks[index], MiB, columns[index]);
}

class CatalogOfLvm2 : public CatalogVolumes {
protected:
    // Moves the volume that was made to a logical volume on so many disks. False, and the test skipped, where there are
    // no devices for them.
    bool MoveTo(size_t disks, const std::string& options, uint64_t stripeBytes) {
        std::vector<std::unique_ptr<CLosetup>> devices;
        std::vector<std::string> paths;
        const std::string volume = m_Dir.File("volume");
        fs::rename(m_Disk.disks[0], volume);
        m_Disk.disks.clear();
        for (size_t disk = 0; disk < disks; ++disk) {
            m_Disk.disks.push_back(m_Disks.WriteHole("disk" + std::to_string(disk), 40 * MiB));
            devices.push_back(std::make_unique<CLosetup>(m_Disk.disks.back(), 0, 40 * MiB));
            paths.push_back(devices.back()->Path());
            if (!devices.back()->IsThere())
                return false;
        }
        std::string all;
        for (const std::string& path : paths)
            all += " " + path;
        for (const std::string& line : {"pvcreate -q --dataalignment 1m" + all, "vgcreate -q -s 1M vg" + all,
                                        "lvcreate -q -an -Zn -Wn -n files -l 24 " + options + " vg"})
            EXPECT_TRUE(Runs(Lvm2Line(line, paths)));
        devices.clear();
        PutOnStripes(volume, m_Disk.disks, stripeBytes);
        m_Disk.volume = "vg-files";
        return true;
    }

    void ExpectRestored(size_t disks, const std::string& options, uint64_t stripeBytes) {
        const std::string missing = WhatLvm2Lacks();
        if (!missing.empty())
            GTEST_SKIP() << missing;
        if (!MakeSmallVolume())
            return;
        if (!MoveTo(disks, options, stripeBytes))
            GTEST_SKIP() << "loop devices can't be had here";
        BackUp();
        ExpectCopyIsWhatIsMounted(m_Set, m_Dir.File("volume"));
        ExpectAnswersOfDisks();
    }
};

TEST_F(CatalogOfLvm2, ALinearVolumeGivesWhatTheDriverShows) {
    ExpectRestored(1, "", 24 * MiB);
}

TEST_F(CatalogOfLvm2, AVolumeStripedOverTwoDisksGivesWhatTheDriverShows) {
    ExpectRestored(2, "-i 2 -I 64k", 65536);
}

}  // namespace
