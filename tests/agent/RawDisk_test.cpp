#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "agent/DiskImage.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"

// Files of a disk's plain bytes, for those who say that they are such.

namespace {

class RawDisk : public testing::Test {
protected:
    RawDisk() { m_Options.image.type = DiskType_PhysicalDisk; }

    std::string Set() const { return m_Sets.File("set"); }
    CZuError BackUpRaw(const std::string& image) const {
        BackupResult_t result;
        return BackUpDisk(image, Set(), m_Options, result);
    }

    CTempDir m_Dir;
    CTempDir m_Sets;
    BackupOptions_t m_Options;
};

TEST_F(RawDisk, EverySectorComesBack) {
    m_Options.force = true;
    for (const uint64_t sectors : {1U, 2U, 3U, 127U, 128U, 129U, 255U, 256U, 257U, 2047U, 2048U, 2049U}) {
        SCOPED_TRACE(sectors);
        const std::string content = DiskContent(sectors, sectors);
        const std::string disk = m_Dir.Write("disk.img", content);
        ASSERT_OK(BackUpRaw(disk));
        ASSERT_OK(Verify(Set()));
        std::vector<std::string> differences;
        ASSERT_OK(VerifyAgainst(Set(), disk, differences));
        EXPECT_EQ(std::vector<std::string>{}, differences);
        for (const bool asRaw : {false, true}) {
            const CTempDir restored;
            ASSERT_OK(asRaw ? RestoreRaw(Set(), restored.Path()) : Restore(Set(), restored.Path()));
            ASSERT_EQ(std::vector<std::string>{"disk.img"}, restored.Entries());
            EXPECT_SAME_BYTES(content, restored.Read("disk.img"));
        }
    }
}

// Whatever a file begins or ends with: these are a disk's bytes now.
TEST_F(RawDisk, BytesThatLookLikeAnotherKindComeBackToo) {
    m_Options.force = true;
    std::string vhd = DiskContent(10);
    vhd.replace(9 * 512, 8, "conectix");
    std::string sparse = DiskContent(10);
    sparse.replace(0, 4, "KDMV");
    std::string descriptor = DiskContent(10);
    descriptor.replace(0, 21, "# Disk DescriptorFile");
    for (const std::string& content : {vhd, sparse, descriptor}) {
        ASSERT_OK(BackUpRaw(m_Dir.Write("disk", content)));
        ASSERT_OK(Restore(Set(), m_Dir.File("back"), true));
        EXPECT_SAME_BYTES(content, m_Dir.Read("back"));
    }
}

TEST_F(RawDisk, AFileWithPartOfASectorIsRefused) {
    for (const size_t size : {1U, 511U, 513U, 5119U}) {
        SCOPED_TRACE(size);
        const std::string disk = m_Dir.Write("disk", std::string(size, 'x'));
        EXPECT_FAILS_SAYING(BackUpRaw(disk), disk, std::to_string(size), "whole sectors");
        EXPECT_FALSE(std::filesystem::exists(Set()));
    }
}

TEST_F(RawDisk, AnEmptyFileIsRefused) {
    const std::string disk = m_Dir.Write("disk", "");
    EXPECT_FAILS_SAYING(BackUpRaw(disk), disk, "is empty");
    EXPECT_FALSE(std::filesystem::exists(Set()));
}

TEST_F(RawDisk, WhatIsNoFileIsRefused) {
    EXPECT_FAILS_SAYING(BackUpRaw(m_Dir.File("gone")), m_Dir.File("gone"), "No such file");
    EXPECT_FAILS_SAYING(BackUpRaw(m_Dir.Path()), m_Dir.Path());
    EXPECT_FALSE(std::filesystem::exists(Set()));
}

TEST_F(RawDisk, AFileThatStandsThereIsReplacedOnlyByForce) {
    const std::string content = DiskContent(300);
    ASSERT_OK(BackUpRaw(m_Dir.Write("disk", content)));
    const std::string other = m_Dir.Write("other", "what was there");
    EXPECT_FAILS_SAYING(Restore(Set(), other), other, "exists already", "--force");
    EXPECT_EQ("what was there", m_Dir.Read("other"));
    ASSERT_OK(Restore(Set(), other, true));
    EXPECT_SAME_BYTES(content, m_Dir.Read("other"));
}

TEST_F(RawDisk, ZerosBecomeHolesOfTheRestoredFile) {
    constexpr uint64_t bytes = uint64_t{64} << 20U;
    m_Dir.WriteHole("disk", bytes - 512);
    std::filesystem::resize_file(m_Dir.File("disk"), bytes - 512);
    ASSERT_OK(BackUpRaw(m_Dir.File("disk")));
    RestoreOptions_t options;
    RestoreResult_t result;
    ASSERT_OK(RestoreDisk(Set(), m_Dir.File("back"), options, result));
    EXPECT_EQ(bytes - 512, result.diskBytes);
    EXPECT_EQ(0U, result.writtenBytes);
    EXPECT_EQ(bytes - 512, std::filesystem::file_size(m_Dir.File("back")));
}

TEST_F(RawDisk, ChangesAreToldBySector) {
    std::string content = DiskContent(300);
    ASSERT_OK(BackUpRaw(m_Dir.Write("disk", content)));
    content[299 * 512] = static_cast<char>(content[299 * 512] ^ 1);
    std::vector<std::string> differences;
    ASSERT_OK(VerifyAgainst(Set(), m_Dir.Write("disk", content), differences));
    ASSERT_EQ(1U, differences.size());
    EXPECT_NE(std::string::npos, differences[0].find("block 2 of disk")) << differences[0];
    ASSERT_OK(VerifyAgainst(Set(), m_Dir.Write("disk", DiskContent(300) + std::string(512, '\0')), differences));
    ASSERT_EQ(2U, differences.size()) << "the size, and the block that has one more sector";
    EXPECT_NE(std::string::npos, differences[0].find("size")) << differences[0];
}

TEST_F(RawDisk, ADamagedSetLeavesNothingAtTheTarget) {
    for (const char* damage : {"DELETE FROM block WHERE number = 2", "UPDATE block SET sectors = 1 WHERE number = 2",
                               "UPDATE block SET id = 3 WHERE number = 2"}) {
        SCOPED_TRACE(damage);
        m_Options.force = true;
        ASSERT_OK(BackUpRaw(m_Dir.Write("disk", DiskContent(300))));
        ASSERT_NO_FATAL_FAILURE(AlterSet(Set(), damage));
        EXPECT_FAILS_SAYING(Verify(Set()), "damaged");
        EXPECT_FAILS_SAYING(Restore(Set(), m_Dir.File("back")), "damaged");
        EXPECT_EQ(std::vector<std::string>{"disk"}, m_Dir.Entries());
    }
}

TEST_F(RawDisk, TheSetNeverReplacesTheDisk) {
    m_Options.force = true;
    const std::string disk = m_Dir.Write("disk", DiskContent(10));
    BackupResult_t result;
    EXPECT_FAILS_SAYING(BackUpDisk(disk, disk, m_Options, result), disk, "file of the image");
    EXPECT_SAME_BYTES(DiskContent(10), m_Dir.Read("disk"));
}

TEST_F(RawDisk, ASetOfPlainBytesIsThatOfAnImageWithTheSameDisk) {
    const std::string image = WriteFlatDisk(m_Dir, {DiskContent(128)});
    const std::string flat = m_Dir.File("disk-flat.vmdk");
    ASSERT_OK(BackUpRaw(flat));
    std::vector<std::string> differences;
    ASSERT_OK(VerifyAgainst(Set(), image, differences));
    EXPECT_EQ(std::vector<std::string>{}, differences);
}

}  // namespace
