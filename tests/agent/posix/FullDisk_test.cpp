#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "agent/detail/StagedFile.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/posix/SmallDisk.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VmdkSparseBuilder.h"

namespace {

using Names_t = std::vector<std::string>;

constexpr uint64_t SizesKiB[] = {4, 16, 64, 96, 128, 256, 512, 1024, 2048};

class FullDisk : public testing::Test {
protected:
    // Two MiB that don't shrink, flat and sparse.
    void MakeImages() {
        m_Flat = WriteFlatDisk(m_Disks, {PatternedBytes(2 << 20)});
        CVmdkSparseBuilder sparse;
        sparse.Capacity(4096).GrainSize(128);
        for (uint64_t grain = 0; grain < 32; ++grain)
            sparse.Grain(grain, PatternedBytes(65536, grain));
        m_Sparse = sparse.WriteTo(m_Disks);
    }

    CTempDir m_Disks;
    CTempDir m_Sets;
    std::string m_Flat;
    std::string m_Sparse;
};

TEST_F(FullDisk, ABackupSaysSoAndLeavesNothing) {
    MakeImages();
    for (const uint64_t sizeKiB : SizesKiB) {
        SCOPED_TRACE(sizeKiB);
        const CSmallDisk full(sizeKiB);
        SKIP_WITHOUT(full);
        const std::string set = full.Dir().File("set");
        EXPECT_FAILS_SAYING(BackUp(m_Flat, set), set + ": ", "full");
        EXPECT_EQ(Names_t{}, full.Dir().Entries());
        EXPECT_FAILS_SAYING(BackUp(m_Sparse, set), set + ": ", "full");
        EXPECT_EQ(Names_t{}, full.Dir().Entries());
    }
}

TEST_F(FullDisk, ABackupKeepsTheSetThatItCouldNotReplace) {
    MakeImages();
    const CSmallDisk full(512);
    SKIP_WITHOUT(full);
    full.Dir().Write("set", "stands here");
    EXPECT_FAILS_SAYING(BackUp(m_Flat, full.Dir().File("set"), true), "full");
    EXPECT_EQ(Names_t{"set"}, full.Dir().Entries());
    EXPECT_EQ("stands here", full.Dir().Read("set"));
}

TEST_F(FullDisk, ARestoreSaysSoAndLeavesNothing) {
    MakeImages();
    for (const std::string& disk : {m_Flat, m_Sparse}) {
        ASSERT_OK(BackUp(disk, m_Sets.File("set"), true));
        for (const uint64_t sizeKiB : SizesKiB) {
            SCOPED_TRACE(testing::Message() << disk << " to " << sizeKiB << " KiB");
            const CSmallDisk full(sizeKiB);
            SKIP_WITHOUT(full);
            if (sizeKiB < 2048 || disk == m_Sparse) {
                EXPECT_FAILS_SAYING(Restore(m_Sets.File("set"), full.Dir().Path()), full.Dir().Path(),
                                    "No space left on device");
                EXPECT_EQ(Names_t{}, full.Dir().Entries());
            }
            if (sizeKiB < 2048) {
                EXPECT_FAILS_SAYING(RestoreRaw(m_Sets.File("set"), full.Dir().File("raw")), full.Dir().File("raw"),
                                    "No space left on device");
                EXPECT_EQ(Names_t{}, full.Dir().Entries());
            }
        }
    }
}

TEST_F(FullDisk, ATargetThatCannotBeWrittenToSaysSo) {
    MakeImages();
    ASSERT_OK(BackUp(m_Flat, m_Sets.File("set")));
    const CSmallDisk disk(65536);
    SKIP_WITHOUT(disk);
    disk.Dir().Write("standing", "stands here");
    ASSERT_TRUE(disk.ForbidWrites());
    const std::string target = disk.Dir().File("new");
    EXPECT_FAILS_SAYING(BackUp(m_Flat, target), target + ": ", "Read-only file system");
    EXPECT_FAILS_SAYING(Restore(m_Sets.File("set"), disk.Dir().Path()), disk.Dir().Path(), "Read-only file system");
    EXPECT_FAILS_SAYING(RestoreRaw(m_Sets.File("set"), target), target + ": ", "Read-only file system");
    EXPECT_FAILS_SAYING(BackUp(m_Flat, disk.Dir().File("standing"), true), "Read-only file system");
    EXPECT_EQ(Names_t{"standing"}, disk.Dir().Entries());
}

// Special files where images, sets and targets are expected.

class SpecialFiles : public FullDisk {
protected:
    std::string Fifo(const std::string& name) const {
        EXPECT_EQ(0, mkfifo(m_Disks.File(name).c_str(), 0600));
        return m_Disks.File(name);
    }
};

// Opening a FIFO that nobody writes to would wait for ever.
TEST_F(SpecialFiles, AFifoIsNeverWaitedFor) {
    const std::string fifo = Fifo("fifo");
    EXPECT_FAILS_SAYING(BackUp(fifo, m_Sets.File("set")), fifo);
    EXPECT_FAILS_SAYING(BackUpAs(DiskType_MonolithicFlat, fifo, m_Sets.File("set")), fifo);
    const std::string disk =
        CVmdkDescriptorBuilder().CreateType("monolithicFlat").Extent(10, "FLAT", "fifo").WriteTo(m_Disks);
    EXPECT_FAILS_SAYING(BackUp(disk, m_Sets.File("set")), fifo);
    EXPECT_FAILS_SAYING(Verify(fifo), fifo);
    EXPECT_FAILS_SAYING(Restore(fifo, m_Sets.Path()), fifo);
    EXPECT_EQ(Names_t{}, m_Sets.Entries());
}

TEST_F(SpecialFiles, DevicesAreNoImagesAndNoSets) {
    for (const char* device : {"/dev/null", "/dev/zero", "/dev/tty"}) {
        SCOPED_TRACE(device);
        EXPECT_FAILS_SAYING(BackUp(device, m_Sets.File("set")), device);
        EXPECT_FAILS_SAYING(Verify(device), device);
    }
    EXPECT_EQ(Names_t{}, m_Sets.Entries());
}

TEST_F(SpecialFiles, TargetsThatAreNoRegularFilesAreRefused) {
    MakeImages();
    const std::string fifo = Fifo("fifo");
    const std::string link = m_Disks.File("link");
    const std::string dangling = m_Disks.File("dangling");
    m_Disks.Write("behind", "stands here");
    std::filesystem::create_symlink("behind", link);
    std::filesystem::create_symlink("nowhere", dangling);
    for (const std::string& target : {fifo, link, dangling, std::string("/dev/null")}) {
        for (const bool force : {false, true}) {
            SCOPED_TRACE(testing::Message() << target << " " << force);
            CStagedFile file;
            EXPECT_FAILS_SAYING(file.Begin(target, force), target, "no regular file");
            EXPECT_FAILS_SAYING(BackUp(m_Flat, target, force), target, "no regular file");
        }
    }
    EXPECT_EQ("stands here", m_Disks.Read("behind"));
    EXPECT_FALSE(std::filesystem::exists(m_Disks.File("nowhere")));
}

TEST_F(SpecialFiles, ATemporaryNameThatIsALinkIsPassedOver) {
    std::string before;
    {
        CStagedFile file;
        ASSERT_OK(file.Begin(m_Sets.File("set"), false));
        before = file.TemporaryName();
    }
    const size_t hyphen = before.rfind('-');
    const unsigned long counter = std::stoul(before.substr(hyphen + 1));
    for (unsigned long next = counter + 1; next < counter + 4; ++next)
        std::filesystem::create_symlink("victim", before.substr(0, hyphen + 1) + std::to_string(next) + ".partial");
    CStagedFile file;
    ASSERT_OK(file.Begin(m_Sets.File("set"), false));
    EXPECT_FALSE(std::filesystem::is_symlink(file.TemporaryName()));
}

}  // namespace
