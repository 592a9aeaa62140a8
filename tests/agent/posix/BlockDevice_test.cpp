#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"
#include "tests/support/posix/LoopDevice.h"

// Block devices go into sets and come back, over what another device held.

namespace {

class BlockDevice : public testing::Test {
protected:
    std::string Set() const { return m_Dir.File("set"); }

    // The device's file is read behind its back, so what the device holds back is written first.
    std::string ContentOf(const CLoopDevice& device, const std::string& file) const {
        EXPECT_TRUE(device.Flush());
        return m_Dir.Read(file);
    }

    CTempDir m_Dir;
};

TEST_F(BlockDevice, EverySectorOfADeviceOfAnOddSizeComesBack) {
    for (const uint64_t sectors : {1U, 127U, 129U, 2047U, 2049U}) {
        SCOPED_TRACE(sectors);
        const std::string content = DiskContent(sectors, sectors);
        const CLoopDevice source(m_Dir.Write("source", content));
        SKIP_WITHOUT_LOOP(source);
        ASSERT_OK(BackUp(source.Path(), Set(), true));
        ASSERT_OK(Verify(Set()));
        std::vector<std::string> differences;
        ASSERT_OK(VerifyAgainst(Set(), source.Path(), differences));
        EXPECT_EQ(std::vector<std::string>{}, differences);
        ASSERT_OK(Restore(Set(), m_Dir.File("raw"), true));
        EXPECT_SAME_BYTES(content, m_Dir.Read("raw"));

        const CLoopDevice target(m_Dir.Write("target", PatternedBytes(sectors * 512, 99)));
        SKIP_WITHOUT_LOOP(target);
        ASSERT_OK(Restore(Set(), target.Path(), true));
        EXPECT_SAME_BYTES(content, ContentOf(target, "target"));
    }
}

// What a device held lies there until it is written over, and a hole writes nothing of itself.
TEST_F(BlockDevice, WhatWasThereIsZeroedWhereTheDiskHasHoles) {
    constexpr uint64_t sectors = 8193;
    std::string content(sectors * 512, '\0');
    PutBytes(content, size_t{3} << 20U, "data in the middle");
    m_Dir.Write("flat-flat.vmdk", content);
    const std::string disk = CVmdkDescriptorBuilder()
                                 .CreateType("monolithicFlat")
                                 .Extent(sectors, "FLAT", "flat-flat.vmdk")
                                 .WriteTo(m_Dir, "flat.vmdk");
    ASSERT_OK(BackUp(disk, Set()));
    const CLoopDevice target(m_Dir.Write("target", PatternedBytes((sectors + 5) * 512, 99)));
    SKIP_WITHOUT_LOOP(target);
    ASSERT_OK(RestoreRaw(Set(), target.Path(), true));
    const std::string held = ContentOf(target, "target");
    EXPECT_SAME_BYTES(content, held.substr(0, content.size()));
    EXPECT_SAME_BYTES(PatternedBytes((sectors + 5) * 512, 99).substr(content.size()), held.substr(content.size()));
}

TEST_F(BlockDevice, ADeviceIsOverwrittenOnlyByForce) {
    ASSERT_OK(BackUp(WriteFlatDisk(m_Dir, {DiskContent(100)}), Set()));
    const std::string before = PatternedBytes(100 * 512, 5);
    const CLoopDevice target(m_Dir.Write("target", before));
    SKIP_WITHOUT_LOOP(target);
    EXPECT_FAILS_SAYING(RestoreRaw(Set(), target.Path()), target.Path(), "--force");
    EXPECT_SAME_BYTES(before, ContentOf(target, "target"));
}

TEST_F(BlockDevice, ADeviceThatIsTooSmallIsRefusedUntouched) {
    ASSERT_OK(BackUp(WriteFlatDisk(m_Dir, {DiskContent(100)}), Set()));
    const std::string before = PatternedBytes(99 * 512, 5);
    const CLoopDevice target(m_Dir.Write("target", before));
    SKIP_WITHOUT_LOOP(target);
    EXPECT_FAILS_SAYING(RestoreRaw(Set(), target.Path(), true), target.Path(), std::to_string(99 * 512),
                        std::to_string(100 * 512));
    EXPECT_SAME_BYTES(before, ContentOf(target, "target"));
}

class CMount {
public:
    CMount(const std::string& device, const std::string& directory)
        : m_Directory(directory), m_IsThere(mount(device.c_str(), directory.c_str(), "ext4", 0, nullptr) == 0) {}
    CMount(const CMount&) = delete;
    CMount& operator=(const CMount&) = delete;
    ~CMount() {
        if (m_IsThere)
            umount2(m_Directory.c_str(), MNT_DETACH);
    }
    bool IsThere() const { return m_IsThere; }

private:
    const std::string m_Directory;
    const bool m_IsThere;
};

TEST_F(BlockDevice, AMountedDeviceIsRefusedUntouched) {
    ASSERT_OK(BackUp(WriteFlatDisk(m_Dir, {DiskContent(100)}), Set()));
    const CLoopDevice target(m_Dir.WriteHole("target", 4U << 20U));
    SKIP_WITHOUT_LOOP(target);
    if (std::system(("mkfs.ext4 -q -F '" + target.Path() + "' >'" + m_Dir.File("mkfs") + "' 2>&1").c_str()) != 0)
        GTEST_SKIP() << "mkfs.ext4 isn't installed";
    std::filesystem::create_directory(m_Dir.File("mounted"));
    {
        const CMount mounted(target.Path(), m_Dir.File("mounted"));
        if (!mounted.IsThere())
            GTEST_SKIP() << "a file system can't be mounted here; run as root to prove this";
        EXPECT_FAILS_SAYING(RestoreRaw(Set(), target.Path(), true), target.Path(), "busy");
        EXPECT_TRUE(std::filesystem::exists(m_Dir.File("mounted/lost+found")));
    }
    EXPECT_EQ("\x53\xEF", ContentOf(target, "target").substr(1024 + 56, 2));
    ASSERT_OK(RestoreRaw(Set(), target.Path(), true));
    EXPECT_SAME_BYTES(DiskContent(100), ContentOf(target, "target").substr(0, 100 * 512));
}

// The set's damage shows in the middle: a device can't be taken back, but the failure is told.
TEST_F(BlockDevice, AFailureOnTheWayIsToldForADeviceToo) {
    ASSERT_OK(BackUp(WriteFlatDisk(m_Dir, {DiskContent(600)}), Set()));
    const std::string sound = m_Dir.Read("set");
    for (const bool isInFirstBlock : {true, false}) {
        std::string set = sound;
        const size_t at = set.find(DiskContent(600).substr(isInFirstBlock ? 1000 : 3 * 65536 + 1000, 64));
        ASSERT_NE(std::string::npos, at);
        set[at] = static_cast<char>(set[at] ^ 1);
        m_Dir.Write("set", set);
        const CLoopDevice target(m_Dir.WriteHole("target", 600 * 512));
        SKIP_WITHOUT_LOOP(target);
        const CZuError error = RestoreRaw(Set(), target.Path(), true);
        EXPECT_FAILS_SAYING(error, "damaged");
        const std::string overwritten =
            "; " + target.Path() + " has a part of the disk only, and no more what was there before";
        EXPECT_EQ(!isInFirstBlock, DescribeError(error).find(overwritten) != std::string::npos) << DescribeError(error);
    }
}

TEST_F(BlockDevice, ASetIsNeverTheDeviceThatItIsMadeFrom) {
    const CLoopDevice source(m_Dir.Write("source", DiskContent(100)));
    SKIP_WITHOUT_LOOP(source);
    EXPECT_FAILS_SAYING(BackUp(source.Path(), source.Path(), true), source.Path());
    EXPECT_SAME_BYTES(DiskContent(100), ContentOf(source, "source"));
}

}  // namespace
