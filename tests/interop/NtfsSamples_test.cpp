#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/interop/NtfsComparison.h"

// NTFS volumes that Windows and drivers of others wrote, for machines that have the collection. What their streams hold
// is known; which names they have is asked of another program.

namespace {

namespace fs = std::filesystem;

constexpr uint64_t LongestContent = uint64_t{512} << 20U;  // longer ones take their time

struct NtfsSample_t {
    const char* archive;
    const char* files;               // of the archive, with an asterisk for any letters
    const char* manifest = nullptr;  // null where the streams aren't known
    const char* volume = "Volume1";
    bool isRaw = false;    // told to be, since its end looks like another kind's
    bool isWhole = false;  // nothing that can be reached from the root is damaged
};

// A line of a manifest.
struct KnownStream_t {
    std::string sha256;
    uint64_t bytes = 0;
    uint64_t frn = 0;
    std::string path;
    std::string name;
};

KnownStream_t StreamOfLine(const std::string& line) {
    KnownStream_t stream;
    std::istringstream fields(line);
    fields >> stream.sha256 >> stream.bytes >> stream.frn;
    std::string rest;
    std::getline(fields, rest);
    const std::string path = rest.substr(rest.find(' ') + 1);
    const size_t colon = path.find(':');
    stream.path = path.substr(0, colon);
    stream.name = colon == std::string::npos ? std::string() : path.substr(colon + 1);
    return stream;
}

std::vector<KnownStream_t> StreamsOf(const std::string& manifest) {
    std::vector<KnownStream_t> streams;
    for (const std::string& line : LinesOf(ReadFileBytes(manifest))) {
        if (line.front() != '#')
            streams.push_back(StreamOfLine(line));
    }
    return streams;
}

// The stream as the file's description has it; one of no bytes under another name where it has none.
NtfsStreamInfo_t DescribedStream(CNtfsVolume& volume, const KnownStream_t& known) {
    NtfsFileInfo_t file;
    EXPECT_OK(volume.Describe(known.frn, file));
    for (const NtfsStreamInfo_t& stream : file.streams) {
        if (stream.name == known.name)
            return stream;
    }
    ADD_FAILURE() << "there is no such stream";
    return NtfsStreamInfo_t{"?"};
}

class NtfsSamples : public testing::Test {
protected:
    // Unpacks the sample; the test is skipped where it isn't there.
    void Unpack(const NtfsSample_t& sample) {
        const std::string archive = std::string(DISKSTREAM_SAMPLES_DIR) + "/" + sample.archive + ".tar.xz";
        if (!fs::exists(archive))
            GTEST_SKIP() << archive << " isn't there";
        ASSERT_TRUE(Runs("tar -C " + Quoted(m_Dir.Path()) + " -xf " + Quoted(archive)));
        const std::string folder = m_Dir.File(fs::path(sample.archive).filename());
        m_At.disks = LinesOf(OutputOf("ls -d " + folder + "/" + sample.files));
        m_At.volume = sample.volume;
        if (sample.isRaw)
            m_At.type = DiskTypeFromName("raw");
    }

    void ExpectKnownStreams(const std::string& manifest) const {
        COpenNtfs ntfs(m_At);
        ASSERT_TRUE(ntfs.IsOpen());
        const std::vector<KnownStream_t> streams =
            StreamsOf(std::string(DISKSTREAM_SAMPLES_DIR) + "/manifests/" + manifest + ".txt");
        ASSERT_FALSE(streams.empty());
        for (const KnownStream_t& known : streams) {
            SCOPED_TRACE(known.path + ":" + known.name);
            ExpectFound(ntfs, known);
            EXPECT_EQ(known.bytes, DescribedStream(ntfs.Volume(), known).bytes);
            if (known.bytes <= LongestContent || std::getenv("DISKSTREAM_LARGE_TESTS") != nullptr) {
                EXPECT_EQ(known.sha256, SumOfStream(ntfs.Volume(), known.frn, known.name));
            }
        }
    }

    // One file of the collection stands in no index: nothing but the number of its record leads to it.
    static void ExpectFound(COpenNtfs& ntfs, const KnownStream_t& known) {
        const bool hasName = known.path != "test/1.txt";
        EXPECT_EQ(hasName ? known.frn : ~uint64_t{0}, ntfs.Find(known.path));
    }

    // What the volume holds, as a file from its `firstSector` on, for programs that know disks of no other form.
    std::string PlainImage(uint64_t& firstSector) const {
        const COpenNtfs ntfs(m_At);
        firstSector = ntfs.Info().startSector;
        const std::string extension = fs::path(m_At.disks.front()).extension();
        if (ntfs.Info().manager == VolumeManager_t::None && extension != ".vhd" && extension != ".vmdk")
            return m_At.disks.front();
        firstSector = 0;
        const std::string plain = m_Dir.File("plain");
        const std::string read = std::string(DISKSTREAM_COMMAND) + " read -q" + WordsOf(m_At);
        EXPECT_TRUE(Runs(read + " | dd of=" + Quoted(plain) + " bs=1M iflag=fullblock conv=sparse status=none"));
        return plain;
    }

    void ExpectNamesOfFls(const Names_t& names) const {
        if (!HasProgram("fls"))
            GTEST_SKIP() << "fls isn't installed";
        uint64_t firstSector = 0;
        const std::string image = PlainImage(firstSector);
        EXPECT_TRUE(AreSameNames(NamesOfFls(image, firstSector), names));
    }

    CTempDir m_Dir;
    VolumeAt_t m_At;
};

class NtfsSamplesOfOthers : public NtfsSamples, public testing::WithParamInterface<NtfsSample_t> {};

TEST_P(NtfsSamplesOfOthers, HoldTheNamesAndStreamsThatAreKnown) {
    Unpack(GetParam());
    if (IsSkipped() || HasFatalFailure())
        return;
    if (GetParam().manifest != nullptr)
        ExpectKnownStreams(GetParam().manifest);
    ExpectNamesOfFls(NamesOfLs(m_At, "--all"));
}

constexpr NtfsSample_t KnownNtfsSamples[] = {
    {"ntfs/attrlist-ads", "charlie.dd", "ntfs-attrlist-ads", "Volume1", true},
    {"ntfs/disk-64g", "ntfs.raw", "ntfs-disk-64g"},
    {"ntfs/ea-linux", "ntfs3.raw", "ntfs-ea-linux"},
    {"ntfs/gpt-vss", "vss_1_vol.raw", "ntfs-gpt-vss"},
    {"ntfs/large-dir-compressed", "ntfs.bin", "ntfs-large-dir-compressed", "Volume1", true},
    {"ntfs/links-reparse", "ntfs-links.dd", "ntfs-links-reparse"},
    {"ntfs/ptrn", "ntfs-ptrn.raw", "ntfs-ptrn"},
    {"ntfs/small-8m", "partition_image.raw", "ntfs-small-8m"},
    {"ntfs/win2003-vss", "vss_2003.raw", "ntfs-win2003-vss"},
    {"ntfs/xp-russian", "ntfs.img", "ntfs-xp-russian"},
    {"ntfs/xp-undelete", "7-ntfs-undel.dd", "ntfs-xp-undelete"},
    {"vhd/win10-dynamic-ntfs", "*.vhd", "vhd-win10-dynamic-ntfs"},
    {"vmdk/vmware-sparse-ntfs", "monolithicSparse.vmdk", "vmdk-vmware-sparse-ntfs"},
    {"vmdk/vmware-flat", "monolithicFlat.vmdk", "vmdk-vmware-sparse-ntfs"},
    {"ldm/2003r2", "*", "ldm-2003r2-F-spanned", "Volume1"},
    {"ldm/2003r2", "*", "ldm-2003r2-E-simple", "Volume2"},
    {"ldm/2003r2", "*", "ldm-2003r2-J-spanned", "Volume3"},
    {"ldm/2003r2", "*", "ldm-2003r2-G-striped", "Volume4"},
    {"ldm/2003r2", "*", "ldm-2003r2-I-raid5", "Volume5"},
    {"ldm/2003r2", "*", "ldm-2003r2-H-mirror1", "Volume6"},
    {"ldm/2008r2-spanned", "*", "ldm-2008r2-E-spanned", "Volume2"},
    {"lvm2/gpt-vg-test-3lv", "lvm2.raw", nullptr, "test-ntfs"},
};

std::string NameOfNtfsSample(const testing::TestParamInfo<NtfsSample_t>& sample) {
    std::string name = std::string(sample.param.archive) + "_" + sample.param.volume;
    for (char& character : name)
        character = std::isalnum(static_cast<unsigned char>(character)) != 0 ? character : '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(Ntfs, NtfsSamplesOfOthers, testing::ValuesIn(KnownNtfsSamples), NameOfNtfsSample);

// Torn records, indexes whose names lead to records that aren't in use: what is left has to be listed, and what isn't
// told of.
class DamagedNtfsSamples : public NtfsSamples, public testing::WithParamInterface<NtfsSample_t> {};

TEST_P(DamagedNtfsSamples, AreListedAsFarAsTheyGo) {
    Unpack(GetParam());
    if (IsSkipped() || HasFatalFailure())
        return;
    COpenNtfs ntfs(m_At);
    ASSERT_TRUE(ntfs.IsOpen());
    Names_t names;
    NtfsListing_t listing;
    listing.isRecursive = true;
    listing.withMetadata = true;
    size_t unreadable = 0;
    EXPECT_OK(ntfs.Volume().List(ntfs.Find("/"), listing, [&](const NtfsEntry_t& entry) {
        names.insert(entry.path);
        unreadable += entry.file.problem.empty() ? 0 : 1;
        return true;
    }));
    EXPECT_EQ(GetParam().isWhole, unreadable + listing.problems.size() == 0);
    ExpectNamesOfFls(names);
}

constexpr NtfsSample_t DamagedNtfsImages[] = {
    {"ntfs/torn-records", "ntfs.img"},
    {"ntfs/broken-directory", "ntfs.img", nullptr, "Volume1", false, true},
    {"ntfs/metadata-2000-files", "ntfs.img"},
};

INSTANTIATE_TEST_SUITE_P(Ntfs, DamagedNtfsSamples, testing::ValuesIn(DamagedNtfsImages), NameOfNtfsSample);

}  // namespace
