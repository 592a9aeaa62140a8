#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "agent/ErrorText.h"
#include "tests/agent/AgentRuns.h"
#include "tests/interop/OtherPrograms.h"
#include "tests/support/ErrorAssertions.h"

// Disks of real hypervisors, for machines that have the collection.

namespace {

constexpr char NtfsContent[] = "a3bcf05f07a1c06a3380eeca8571f0efb2b85afafa1e21662b8cad436d1f7727";

class SampleImages : public testing::Test {
protected:
    // Unpacks the archive `name`; its files lie in a folder of that name.
    void Unpack(const std::string& name) {
        const std::string archive = std::string(DISKSTREAM_SAMPLES_DIR) + "/vmdk/" + name + ".tar.xz";
        if (!std::filesystem::exists(archive))
            GTEST_SKIP() << archive << " isn't there";
        ASSERT_TRUE(Runs("tar -C '" + m_Dir.Path() + "' -xf '" + archive + "'"));
        m_Folder = m_Dir.File(name);
        ASSERT_TRUE(std::filesystem::is_directory(m_Folder)) << m_Folder;
    }

    std::string Image(const std::string& name) const { return m_Folder + "/" + name; }

    void ExpectRefused(const std::string& image, const std::vector<std::string>& texts) const {
        const CZuError error = BackUp(image, m_Dir.File("set"));
        ASSERT_TRUE(error.IsErrorSet());
        for (const std::string& text : texts)
            EXPECT_NE(std::string::npos, DescribeError(error).find(text)) << DescribeError(error);
        EXPECT_FALSE(std::filesystem::exists(m_Dir.File("set")));
    }

    // Through a set to the same files, and to a raw disk of this content.
    void ExpectComesBack(const std::string& image, const std::string& contentSha256) const {
        const CTempDir restored;
        const std::string set = m_Dir.File("set");
        ASSERT_OK(BackUp(image, set));
        std::vector<std::string> differences;
        ASSERT_OK(VerifyAgainst(set, image, differences));
        EXPECT_EQ(std::vector<std::string>{}, differences);
        ASSERT_OK(RestoreRaw(set, m_Dir.File("raw")));
        EXPECT_EQ(contentSha256, FirstWordOf("sha256sum '" + m_Dir.File("raw") + "'"));
        ASSERT_OK(Restore(set, restored.Path()));
        for (const std::string& name : restored.Entries())
            EXPECT_TRUE(Runs("cmp '" + Image(name) + "' '" + restored.File(name) + "'"));
        const std::string main = restored.File(std::filesystem::path(image).filename().string());
        ASSERT_TRUE(std::filesystem::exists(main));
        if (HasProgram("qemu-img")) {
            EXPECT_TRUE(Runs("qemu-img compare '" + image + "' '" + main + "'"));
        }
    }

    CTempDir m_Dir;
    std::string m_Folder;
};

struct Sample_t {
    const char* archive;
    const char* image;
    const char* contentSha256;
};

class SampleImagesThatComeBack : public SampleImages, public testing::WithParamInterface<Sample_t> {};

TEST_P(SampleImagesThatComeBack, WithTheirContent) {
    Unpack(GetParam().archive);
    if (IsSkipped() || HasFatalFailure())
        return;
    ExpectComesBack(Image(GetParam().image), GetParam().contentSha256);
}

constexpr Sample_t Samples[] = {
    {"vmware-sparse-ntfs", "monolithicSparse.vmdk", NtfsContent},
    {"vmware-server1-sparse", "JNode.vmdk", "0e52c012dcf7d869e56730828c45b9a205e43b1ac85e4d6e5c37bff3a2634236"},
    {"vmware-sparse-fat32", "Filesystem.vmdk", "6f67cc1c4c8f2655229895dce5d86df216aae59df746113f0f366ebfaae08e01"},
    {"vmware-server-sparse-empty", "hda.vmdk", "a6d72ac7690f53be6ae46ba88506bd97302a093f7108472bd9efc3cefda06484"},
    {"qemu-sparse-ext2", "ext2.vmdk", "a6c2f0e39afe6c6ab432ca5465349fcefe8dc944398e97b2d957d3f89dbb5d80"},
    {"vmware-split-sparse", "twoGbMaxExtentSparse.vmdk", NtfsContent},
    {"vmware-flat", "monolithicFlat.vmdk", NtfsContent},
    {"esx-vmfs", "vmfs_thick.vmdk", "8d43c795d24bce01b49f92744f934c1072210dcac170bb1c83a5aa56df46ab7d"},
};

std::string NameOfSample(const testing::TestParamInfo<Sample_t>& sample) {
    std::string name = sample.param.archive;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Vmdk, SampleImagesThatComeBack, testing::ValuesIn(Samples), NameOfSample);

TEST_F(SampleImages, AStreamOptimizedExtentIsRefused) {
    Unpack("stream-optimized");
    if (IsSkipped() || HasFatalFailure())
        return;
    ExpectRefused(Image("streamOptimized.vmdk"), {"streamOptimized.vmdk", "compressed", "qemu-img convert"});
}

TEST_F(SampleImages, ASnapshotWithoutItsDeltaIsRefused) {
    Unpack("esx-vmfs");
    if (IsSkipped() || HasFatalFailure())
        return;
    ExpectRefused(Image("vmfs_thick-000001.vmdk"), {"vmfs_thick-000001", "No such file or directory"});
}

}  // namespace
