#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/interop/NtfsSampleList.h"

// NTFS volumes that Windows and drivers of others wrote, for machines that have the collection. What their streams hold
// is known; which names they have is asked of another program.

namespace {

namespace fs = std::filesystem;

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
        if (!UnpackNtfsSample(sample, m_Dir, m_At))
            GTEST_SKIP() << sample.archive << " isn't there";
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

INSTANTIATE_TEST_SUITE_P(Ntfs, DamagedNtfsSamples, testing::ValuesIn(DamagedNtfsImages), NameOfNtfsSample);

}  // namespace
