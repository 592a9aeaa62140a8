#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "tests/agent/AgentRuns.h"
#include "tests/interop/OtherPrograms.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"

// Disks that qemu-img made go through a set and come back as they were, in its own judgement too.

namespace {

struct QemuDisk_t {
    const char* subformat;
    uint64_t sizeBytes;
    int extents;  // stretches of data at random places
};

std::string Describe(const QemuDisk_t& disk) {
    return std::string(disk.subformat) + " of " + std::to_string(disk.sizeBytes) + " bytes";
}

class QemuImages : public testing::Test {
protected:
    void SetUp() override {
        if (!HasProgram("qemu-img"))
            GTEST_SKIP() << "qemu-img isn't installed";
    }

    // A raw disk with data at random places, its first and its last sector among them.
    void WriteRaw(const QemuDisk_t& disk) const {
        std::mt19937_64 random(disk.sizeBytes + static_cast<uint64_t>(disk.extents));
        m_Work.WriteHole("source.raw", disk.sizeBytes);
        std::fstream raw(m_Work.File("source.raw"), std::ios::in | std::ios::out | std::ios::binary);
        const auto put = [&](uint64_t offset, const std::string& bytes) {
            raw.seekp(static_cast<std::streamoff>(offset));
            raw.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        };
        for (int extent = 0; extent < disk.extents; ++extent) {
            const uint64_t sectors = random() % 600 + 1;
            const uint64_t first = random() % (disk.sizeBytes / 512 - sectors);
            put(first * 512, extent % 3 == 0 ? std::string(sectors * 512, 'r') : PatternedBytes(sectors * 512, first));
        }
        put(0, PatternedBytes(512, 1));
        put(disk.sizeBytes - 512, PatternedBytes(512, 2));
        raw.flush();
        ASSERT_TRUE(raw.good());
    }

    void Convert(const QemuDisk_t& disk) const {
        WriteRaw(disk);
        ASSERT_TRUE(Runs("qemu-img convert -f raw -O vmdk -o subformat=" + std::string(disk.subformat) + " '" +
                         m_Work.File("source.raw") + "' '" + m_Image.File("disk.vmdk") + "'"));
    }

    void ExpectComesBack() const {
        const CTempDir restored;
        const std::string image = m_Image.File("disk.vmdk");
        const std::string set = m_Work.File("set");
        ASSERT_OK(BackUp(image, set, true));
        std::vector<std::string> differences;
        ASSERT_OK(VerifyAgainst(set, image, differences));
        EXPECT_EQ(std::vector<std::string>{}, differences);
        ASSERT_OK(Restore(set, restored.Path()));
        EXPECT_TRUE(HoldSameFiles(m_Image.Path(), restored.Path()));
        EXPECT_TRUE(Runs("qemu-img compare '" + image + "' '" + restored.File("disk.vmdk") + "'"));
        EXPECT_TRUE(Runs("qemu-img check '" + restored.File("disk.vmdk") + "' || test $? -eq 63"));
        ASSERT_OK(RestoreRaw(set, m_Work.File("restored.raw"), true));
        EXPECT_TRUE(Runs("qemu-img compare -F raw '" + image + "' '" + m_Work.File("restored.raw") + "'"));
    }

    // What stood in an earlier round goes.
    void Clear() const {
        for (const std::string& name : m_Image.Entries())
            std::filesystem::remove(m_Image.File(name));
    }

    CTempDir m_Work;
    CTempDir m_Image;  // the image's files and nothing else
};

TEST_F(QemuImages, ComeBackByteForByte) {
    const QemuDisk_t disks[] = {
        {"monolithicSparse", 100 * MiB, 30},
        {"monolithicSparse", 100 * MiB + 512, 5},
        {"monolithicSparse", 1024 * MiB, 60},
        {"monolithicSparse", 4096 * MiB, 100},
        {"monolithicFlat", 100 * MiB, 30},
        {"monolithicFlat", 100 * MiB + 7 * 512, 5},
        {"twoGbMaxExtentSparse", 100 * MiB, 30},
        {"twoGbMaxExtentSparse", 2100 * MiB + 512, 40},
        {"twoGbMaxExtentSparse", 4096 * MiB, 60},
        {"twoGbMaxExtentFlat", 100 * MiB + 512, 30},
        {"twoGbMaxExtentFlat", 2048 * MiB + 512, 30},
    };
    for (const QemuDisk_t& disk : disks) {
        SCOPED_TRACE(Describe(disk));
        Clear();
        ASSERT_NO_FATAL_FAILURE(Convert(disk));
        ExpectComesBack();
        EXPECT_EQ(disk.sizeBytes, std::filesystem::file_size(m_Work.File("restored.raw")));
        EXPECT_TRUE(Runs("qemu-img compare -f raw -F raw '" + m_Work.File("source.raw") + "' '" +
                         m_Work.File("restored.raw") + "'"));
    }
}

TEST_F(QemuImages, ComeBackEmpty) {
    for (const char* subformat : {"monolithicSparse", "monolithicFlat", "twoGbMaxExtentSparse", "twoGbMaxExtentFlat"}) {
        SCOPED_TRACE(subformat);
        Clear();
        ASSERT_TRUE(Runs(std::string("qemu-img create -f vmdk -o subformat=") + subformat + " '" +
                         m_Image.File("disk.vmdk") + "' 105000448"));
        ExpectComesBack();
    }
}

TEST_F(QemuImages, ComeBackAfterWritesInPlace) {
    if (!HasProgram("qemu-io"))
        GTEST_SKIP() << "qemu-io isn't installed";
    ASSERT_TRUE(Runs("qemu-img create -f vmdk '" + m_Image.File("disk.vmdk") + "' 300M"));
    ASSERT_TRUE(Runs("qemu-io -c 'write -P 7 299M 1M' -c 'write -P 9 512 512' -c 'write -P 5 130M 3M' -c 'write -P 0 "
                     "131M 64k' '" +
                     m_Image.File("disk.vmdk") + "'"));
    ExpectComesBack();
}

TEST_F(QemuImages, ThatAreCompressedAreRefused) {
    WriteRaw({"streamOptimized", 10 * MiB, 5});
    ASSERT_TRUE(Runs("qemu-img convert -f raw -O vmdk -o subformat=streamOptimized '" + m_Work.File("source.raw") +
                     "' '" + m_Image.File("disk.vmdk") + "'"));
    const CZuError error = BackUp(m_Image.File("disk.vmdk"), m_Work.File("set"));
    ASSERT_TRUE(error.IsErrorSet());
    EXPECT_NE(std::string::npos, std::string(error.GetErrorText()).find("compressed"));
    EXPECT_FALSE(std::filesystem::exists(m_Work.File("set")));
}

// A set and what is made of it are written by us; that qemu-img reads it is what a user counts on.
TEST_F(QemuImages, OfAnotherNameAreReadByQemu) {
    ASSERT_NO_FATAL_FAILURE(Convert({"twoGbMaxExtentSparse", 100 * MiB, 10}));
    ASSERT_OK(BackUp(m_Image.File("disk.vmdk"), m_Work.File("set")));
    const CTempDir restored;
    ASSERT_OK(Restore(m_Work.File("set"), restored.File("other.vmdk")));
    EXPECT_TRUE(Runs("qemu-img compare '" + m_Image.File("disk.vmdk") + "' '" + restored.File("other.vmdk") + "'"));
}

}  // namespace
