#include "agent/detail/SetDisks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VhdBuilder.h"
#include "tests/support/VmdkSparseBuilder.h"

namespace {

class SetDisks : public testing::Test {
protected:
    void Open(const std::string& image) {
        ASSERT_OK(BackUp(image, Set(), true));
        ASSERT_OK(m_Set.Open(Set()));
    }

    std::string Set() const { return m_Dir.File("set"); }

    static CZuError Read(CSetDisks& disks, uint64_t offset, std::string& bytes) {
        return disks.ReadDisk(0, offset, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }

    // At once, by each sector, anywhere, and not behind the end.
    void ExpectHolds(const std::string& content) {
        CSetDisks disks(m_Set);
        ASSERT_EQ(1U, disks.DiskCount());
        std::string all(content.size(), '?');
        ASSERT_OK(Read(disks, 0, all));
        EXPECT_SAME_BYTES(content, all);
        std::mt19937_64 random(content.size());
        for (int turn = 0; turn < 200; ++turn) {
            const uint64_t offset = random() % content.size();
            std::string bytes(1 + random() % std::min<uint64_t>(content.size() - offset, 20000), '?');
            ASSERT_OK(Read(disks, offset, bytes));
            EXPECT_SAME_BYTES(content.substr(offset, bytes.size()), bytes) << bytes.size() << " at " << offset;
        }
        std::string behind(2, '?');
        EXPECT_FAILS_SAYING(Read(disks, content.size() - 1, behind), Set(),
                            "has no byte " + std::to_string(content.size()));
        EXPECT_FAILS_SAYING(Read(disks, ~uint64_t{0} - 1, behind), "has no byte");
    }

    CTempDir m_Dir;
    CBackupSetReader m_Set;
};

TEST_F(SetDisks, HolesAreZerosInASparseDisk) {
    constexpr uint64_t sectors = 512;
    std::string content(sectors * 512, '\0');
    CVmdkSparseBuilder builder;
    builder.Capacity(sectors);
    for (const uint64_t grain : {uint64_t{0}, uint64_t{3}, uint64_t{4}, uint64_t{63}}) {
        builder.Grain(grain, PatternedBytes(4096, grain));
        PutBytes(content, grain * 4096, PatternedBytes(4096, grain));
    }
    Open(builder.WriteTo(m_Dir, "disk.vmdk"));
    ExpectHolds(content);
}

TEST_F(SetDisks, ExtentsFollowEachOther) {
    const std::string content = PatternedBytes(size_t{500} * 512);
    const uint64_t sectors[] = {1, 131, 368};
    CVmdkDescriptorBuilder descriptor;
    uint64_t first = 0;
    for (const uint64_t count : sectors) {
        const std::string name = "extent" + std::to_string(first);
        m_Dir.Write(name, content.substr(first * 512, count * 512));
        descriptor.Extent(count, "FLAT", name);
        first += count;
    }
    Open(descriptor.WriteTo(m_Dir));
    ExpectHolds(content);
}

TEST_F(SetDisks, SectorsWhoseBitIsClearAreZerosInAVhd) {
    constexpr uint64_t blockBytes = 8192;
    constexpr uint64_t blocks = 6;
    std::string content(blocks * blockBytes, '\0');
    CVhdBuilder builder = CVhdBuilder::Dynamic(blocks * blockBytes / 512);
    builder.BlockSize(blockBytes);
    for (const uint64_t block : {uint64_t{4}, uint64_t{1}, uint64_t{5}}) {
        builder.Block(block, PatternedBytes(blockBytes, block));
        PutBytes(content, block * blockBytes, PatternedBytes(blockBytes, block));
    }
    std::string bitmap(512, '\0');
    bitmap[0] = '\x5F';
    bitmap[1] = '\x81';
    builder.Bitmap(4, bitmap);
    for (const uint64_t sector : {0, 2, 9, 10, 11, 12, 13, 14})
        content.replace(4 * blockBytes + sector * 512, 512, 512, '\0');
    Open(builder.WriteTo(m_Dir));
    ExpectHolds(content);
}

TEST_F(SetDisks, AFixedVhdIsWhatItsDataAre) {
    const std::string content = PatternedBytes(size_t{300} * 512);
    Open(CVhdBuilder::Fixed(300).Data(0, content).WriteTo(m_Dir));
    ExpectHolds(content);
}

TEST_F(SetDisks, AVhdWhoseBlocksAreNotThoseOfItsRecordIsRefused) {
    CVhdBuilder builder = CVhdBuilder::Dynamic(64);
    builder.Block(1, 'b');
    ASSERT_OK(BackUp(builder.WriteTo(m_Dir), Set(), true));
    LooseSet_t set;
    set.ReadFrom(Set());
    set.streams[0].stream.blockSectors += 8;
    set.WriteTo(Set());
    ASSERT_OK(m_Set.Open(Set()));
    CSetDisks disks(m_Set);
    std::string bytes(512, '?');
    EXPECT_FAILS_SAYING(Read(disks, 4096, bytes), Set(), "isn't that of its record");
}

TEST_F(SetDisks, ABlockThatIsShorterThanItsPlaceIsNamed) {
    const std::string content = PatternedBytes(size_t{100} * 512);
    ASSERT_OK(BackUpAs(DiskType_PhysicalDisk, m_Dir.Write("disk", content), Set()));
    LooseSet_t set;
    set.ReadFrom(Set());
    ASSERT_EQ(1U, set.streams[0].blocks.size());
    ASSERT_LT(100U, set.streams[0].stream.blockSectors);
    set.disks[0].diskSectors = 101;
    set.streams[0].stream.diskSectors = 101;
    set.WriteTo(Set());
    ASSERT_OK(m_Set.Open(Set()));
    CSetDisks disks(m_Set);
    std::string bytes(512, '?');
    EXPECT_FAILS_SAYING(Read(disks, 99 * 512 + 1, bytes), Set(), "block 0 of disk");
}

TEST_F(SetDisks, ManyBlocksAreHeldForAWhileAndGivenRightly) {
    const std::string content = PatternedBytes(size_t{400} * 4096);
    CVmdkSparseBuilder builder;
    builder.Capacity(400 * 8);
    for (uint64_t grain = 0; grain < 400; ++grain)
        builder.Grain(grain, content.substr(grain * 4096, 4096));
    Open(builder.WriteTo(m_Dir, "disk.vmdk"));
    CSetDisks disks(m_Set);
    for (int turn = 0; turn < 2; ++turn) {
        for (uint64_t grain = 0; grain < 400; ++grain) {
            std::string bytes(4096, '?');
            ASSERT_OK(Read(disks, grain * 4096, bytes));
            EXPECT_SAME_BYTES(content.substr(grain * 4096, 4096), bytes) << grain;
        }
    }
}

}  // namespace
