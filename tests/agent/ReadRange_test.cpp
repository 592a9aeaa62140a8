#include "agent/ReadRange.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/WholeDisks.h"
#include "tests/support/HardDisks.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/SameBytes.h"

namespace {

constexpr uint64_t DiskSectors = 8192;

class ReadRange : public testing::Test {
protected:
    // Numbered sectors under an MBR with an NTFS partition, a logical and another one.
    void SetUp() override {
        CPartitionTableBuilder disk;
        disk.Sectors(DiskSectors).Slot(0, 0x07, 63, 3000).Extended(1, 0x05, 4000, {{0, 0x83, 2, 1000}});
        m_Image.Put(0, NumberedSectors(0, DiskSectors));
        const std::string tables = disk.Image().Bytes();
        for (const uint64_t lba : {0U, 4000U})
            m_Image.Put(lba * 512, tables.substr(lba * 512, 512));
        m_Bytes = m_Image.Bytes();
        m_Paths = {m_Image.WriteTo(m_Dir, "disk")};
    }

    // Keeps what came in `m_Got`, also of a read that fails.
    CZuError Read(const ReadRange_t& range) {
        m_Got.clear();
        return ReadDiskRange(m_Paths, RawUnlessKnown(), range, [&](const char* bytes, uint32_t size) {
            m_Got.append(bytes, size);
            return m_Got.size() < m_Most;
        });
    }

    CTempDir m_Dir;
    CImageFile m_Image;
    std::string m_Bytes;
    std::vector<std::string> m_Paths;
    std::string m_Got;
    size_t m_Most = ~size_t{0};
};

TEST_F(ReadRange, OfADiskIsTheWholeDiskUnlessLimited) {
    ASSERT_OK(Read(ReadRange_t()));
    EXPECT_SAME_BYTES(m_Bytes, m_Got);
    for (const uint64_t offset : {uint64_t{0}, uint64_t{1}, uint64_t{1} << 20U, (uint64_t{1} << 20U) + 77}) {
        for (const uint64_t length : {uint64_t{0}, uint64_t{1}, uint64_t{512}, (uint64_t{2} << 20U) + 3}) {
            SCOPED_TRACE(testing::Message() << length << " at " << offset);
            ReadRange_t range;
            range.offset = offset;
            range.length = length;
            ASSERT_OK(Read(range));
            EXPECT_SAME_BYTES(m_Bytes.substr(offset, length), m_Got);
        }
    }
    ReadRange_t tail;
    tail.offset = m_Bytes.size() - 5;
    ASSERT_OK(Read(tail));
    EXPECT_EQ(m_Bytes.substr(m_Bytes.size() - 5), m_Got);
    tail.offset = m_Bytes.size();
    ASSERT_OK(Read(tail));
    EXPECT_EQ("", m_Got);
}

TEST_F(ReadRange, OfAPartitionIsItsSectors) {
    const struct {
        uint32_t number;
        uint64_t first;
        uint64_t sectors;
    } rows[] = {{1, 63, 3000}, {2, 4000, 1002}, {5, 4002, 1000}};
    for (const auto& row : rows) {
        ReadRange_t range;
        range.partition = row.number;
        ASSERT_OK(Read(range));
        EXPECT_SAME_BYTES(m_Bytes.substr(row.first * 512, row.sectors * 512), m_Got) << row.number;
        range.offset = 100;
        range.length = 1000;
        ASSERT_OK(Read(range));
        EXPECT_SAME_BYTES(m_Bytes.substr(row.first * 512 + 100, 1000), m_Got) << row.number;
    }
}

TEST_F(ReadRange, OfAVolumeGoesByItsName) {
    ReadRange_t range;
    range.volume = "Volume1";
    ASSERT_OK(Read(range));
    EXPECT_SAME_BYTES(m_Bytes.substr(63 * 512, 3000 * 512), m_Got);
    range.volume = "Disk1Partition5";
    ASSERT_OK(Read(range));
    EXPECT_SAME_BYTES(m_Bytes.substr(4002 * 512, 1000 * 512), m_Got);
}

TEST_F(ReadRange, WhatLeavesTheVolumeIsRefusedBeforeTheFirstByte) {
    const struct {
        uint64_t offset;
        std::optional<uint64_t> length;
    } rows[] = {
        {3000 * 512 + 1, std::nullopt}, {3000 * 512, 1}, {0, 3000 * 512 + 1}, {100, ~uint64_t{0}}, {~uint64_t{0}, 2},
        {~uint64_t{0}, std::nullopt}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.offset);
        ReadRange_t range;
        range.partition = 1;
        range.offset = row.offset;
        range.length = row.length;
        EXPECT_FAILS_SAYING(Read(range), "1536000 bytes", "--offset");
        EXPECT_EQ("", m_Got);
    }
}

TEST_F(ReadRange, WhatIsNotThereIsNamed) {
    ReadRange_t range;
    for (const uint32_t number : {0U, 3U, 4U, 6U, 0xFFFFFFFFU}) {
        range.partition = number;
        EXPECT_FAILS_SAYING(Read(range), m_Paths[0], "no partition " + std::to_string(number));
    }
    range.partition.reset();
    for (const char* name : {"Volume2", "volume1", "", "Disk1"}) {
        range.volume = name;
        EXPECT_FAILS_SAYING(Read(range), "no volume of the disks has that name");
    }
    m_Paths.push_back(m_Image.WriteTo(m_Dir, "second"));
    EXPECT_FAILS_SAYING(Read(ReadRange_t()), "--volume");
    range.volume = "Volume2";
    EXPECT_OK(Read(range));
}

TEST_F(ReadRange, EndsWhenNoMoreIsWanted) {
    m_Most = 1;
    ASSERT_OK(Read(ReadRange_t()));
    EXPECT_SAME_BYTES(m_Bytes.substr(0, m_Got.size()), m_Got);
    EXPECT_LT(m_Got.size(), m_Bytes.size());
}

TEST_F(ReadRange, TellsItsProgressAndCanBeCancelled) {
    ReadRange_t range;
    std::vector<uint64_t> done;
    range.offset = 1000;
    range.progress = [&](const Progress_t& progress) {
        done.push_back(progress.doneBytes);
        EXPECT_EQ(m_Bytes.size() - 1000, progress.totalBytes);
        return true;
    };
    ASSERT_OK(Read(range));
    ASSERT_LE(2U, done.size());
    EXPECT_EQ(m_Bytes.size() - 1000, done.back());
    range.progress = [](const Progress_t&) { return false; };
    EXPECT_FAILS_SAYING(Read(range), "cancelled");
}

// A size in bytes that doesn't fit into 64 bits is no small one.
TEST_F(ReadRange, OfAPartitionLargerThanAnyDiskIsRefused) {
    for (const uint64_t last : {(uint64_t{1} << 55U) + 39, (uint64_t{1} << 55U) + 40, ~uint64_t{0}}) {
        SCOPED_TRACE(last);
        CGptBuilder gpt;
        CPartitionTableBuilder disk;
        disk.Sectors(DiskSectors).Gpt(gpt.Entry(0, BasicDataGuid, 40, last));
        m_Paths = {disk.Image().WriteTo(m_Dir, "gpt")};
        ReadRange_t range;
        range.partition = 1;
        EXPECT_FAILS_SAYING(Read(range), "Disk1Partition1: claims " + std::to_string(last - 39) + " sectors");
        range.length = 512;
        EXPECT_FAILS_SAYING(Read(range), "more than a disk can have");
        EXPECT_EQ("", m_Got);
    }
}

// A partition that leaves its disk gives what is there and then a failure, never other bytes.
TEST_F(ReadRange, OfAPartitionThatLeavesItsDiskFailsAtTheDisksEnd) {
    m_Image.Put(0, CBootRecordBuilder().Slot(0, 0x83, 8000, 1000).Bytes());
    m_Paths = {m_Image.WriteTo(m_Dir, "disk")};
    ReadRange_t range;
    range.partition = 1;
    EXPECT_FAILS_SAYING(Read(range), m_Paths[0]);
    EXPECT_SAME_BYTES(m_Bytes.substr(8000 * 512).substr(0, m_Got.size()), m_Got);
    range.length = 192 * 512;
    ASSERT_OK(Read(range));
    EXPECT_SAME_BYTES(m_Bytes.substr(8000 * 512), m_Got);
}

}  // namespace
