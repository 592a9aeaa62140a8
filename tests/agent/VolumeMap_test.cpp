#include "agent/VolumeMap.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "agent/VolumeSet.h"
#include "tests/agent/WholeDisks.h"
#include "tests/support/HardDisks.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/SameBytes.h"

namespace {

constexpr uint32_t DiskCount = 5;
constexpr uint64_t DiskSectors = 2048;
constexpr uint64_t PerDisk = 1U << 20U;  // how far the numbers of two disks' sectors lie apart

LVM_Component_t ComponentOf(uint32_t disk, uint64_t diskLba, uint64_t volumeLba, uint64_t sectors) {
    LVM_Component_t component;
    component.HardDiskIndex = disk;
    component.DiskLBAStart = diskLba;
    component.DiskLBAEnd = diskLba + sectors - 1;
    component.VolLBAStart = volumeLba;
    component.VolLBAEnd = volumeLba + sectors - 1;
    return component;
}

// A volume with, beside it, the place of each of its sectors, put together sector by sector.
struct ModelledVolume_t {
    ModelledVolume_t() { volume.AllDiskFound = 1; }

    LVM_Volume_t volume;
    std::vector<std::pair<uint32_t, uint64_t>> sectors;  // disk and sector

    void AddSpan(const std::vector<LVM_Component_t>& components) {
        LVM_Segment_t segment;
        segment.LBAStart = sectors.size();
        segment.Components = components;
        for (const LVM_Component_t& component : components) {
            for (uint64_t lba = component.DiskLBAStart; lba <= component.DiskLBAEnd; ++lba)
                sectors.emplace_back(component.HardDiskIndex, lba);
        }
        segment.LBAEnd = sectors.size() - 1;
        volume.Segments.push_back(segment);
    }

    // Columns of `rows` stripes, one for each disk, which begin at sector 10 * (disk + 1).
    void AddStripes(const std::vector<uint32_t>& disks, uint64_t stripeSectors, uint64_t rows, bool isRaid5) {
        LVM_Segment_t segment;
        segment.LBAStart = sectors.size();
        segment.StripeSize = stripeSectors;
        for (size_t column = 0; column < disks.size(); ++column) {
            segment.Components.push_back(ComponentOf(disks[column], 10 * (disks[column] + 1), 0, stripeSectors * rows));
            segment.Components.back().ColumnIndex = static_cast<int32_t>(column);
        }
        volume.IsRaid5 = isRaid5 ? 1 : 0;
        // A row's parity lies in the last column at first, and moves one to the left from row to row. The
        // row's data begins behind it and goes round.
        size_t parity = disks.size() - 1;
        for (uint64_t row = 0; row < rows; ++row) {
            for (size_t turn = 0; turn < disks.size() - (isRaid5 ? 1 : 0); ++turn) {
                const size_t column = isRaid5 ? (parity + 1 + turn) % disks.size() : turn;
                for (uint64_t sector = 0; sector < stripeSectors; ++sector)
                    sectors.emplace_back(disks[column],
                                         segment.Components[column].DiskLBAStart + row * stripeSectors + sector);
            }
            parity = parity == 0 ? disks.size() - 1 : parity - 1;
        }
        segment.LBAEnd = sectors.size() - 1;
        volume.Segments.push_back(segment);
    }

    std::string Content() const {
        std::string content;
        for (const auto& [disk, lba] : sectors)
            content += NumberedSectors(disk * PerDisk + lba, 1);
        return content;
    }
};

class VolumeMap : public testing::Test {
protected:
    void SetUp() override {
        for (uint32_t disk = 0; disk < DiskCount; ++disk) {
            CImageFile image;
            image.Put(0, NumberedSectors(disk * PerDisk, DiskSectors));
            image.Put(0, CBootRecordBuilder().Bytes());
            m_Paths.push_back(image.WriteTo(m_Dir, "raw" + std::to_string(disk)));
            m_CoreDisks.push_back(FlatHardDisk(m_Dir, image, "disk" + std::to_string(disk)));
        }
        ASSERT_OK(m_Set.Open(m_Paths, RawUnlessKnown()));
    }

    // The whole volume at once, and pieces that begin and end anywhere.
    void ExpectReads(const ModelledVolume_t& model, uint64_t seed) {
        VolumeInfo_t info;
        info.name = "modelled";
        info.layout = model.volume;
        const std::string content = model.Content();
        ASSERT_EQ(model.sectors.size(), VolumeSectors(model.volume));
        EXPECT_SAME_BYTES(content, Read(info, 0, content.size()));
        std::mt19937_64 random(seed);
        for (int turn = 0; turn < 50; ++turn) {
            const uint64_t offset = random() % content.size();
            const uint64_t length = random() % (content.size() - offset) + 1;
            EXPECT_SAME_BYTES(content.substr(offset, length), Read(info, offset, length)) << length << " at " << offset;
        }
        char byte = 0;
        EXPECT_TRUE(m_Set.Read(info, content.size(), &byte, 1).IsErrorSet());
        EXPECT_TRUE(m_Set.Read(info, ~uint64_t{0}, &byte, 1).IsErrorSet());
        EXPECT_OK(m_Set.Read(info, content.size(), &byte, 0));
    }

    std::string Read(const VolumeInfo_t& info, uint64_t offset, uint64_t length) {
        std::string bytes(length, '?');
        EXPECT_OK(m_Set.Read(info, offset, bytes.data(), static_cast<uint32_t>(length)));
        return bytes;
    }

    // What the core reads where its rules allow: of each piece that lies together.
    void ExpectCoreAgrees(const ModelledVolume_t& model) {
        CLVM core;
        ASSERT_OK(core.InitializeFromDisk(m_CoreDisks));
        const std::string content = model.Content();
        for (uint64_t offset = 0; offset < content.size();) {
            VolumePiece_t piece;
            ASSERT_TRUE(FindVolumePiece(model.volume, offset, ~uint64_t{0}, piece)) << offset;
            ASSERT_NE(0U, piece.bytes);
            std::string bytes(piece.bytes, '?');
            uint32_t got = 0;
            ASSERT_OK(
                core.ReadVolumeData(model.volume, offset, bytes.data(), static_cast<uint32_t>(bytes.size()), &got));
            ASSERT_TRUE(AreSameBytes(content.substr(offset, bytes.size()), bytes)) << "at " << offset;
            offset += piece.bytes;
        }
    }

    CTempDir m_Dir;
    std::vector<std::string> m_Paths;
    std::vector<LVM_HardDisk_t> m_CoreDisks;
    CVolumeSet m_Set;
};

TEST_F(VolumeMap, PlainVolumes) {
    for (const uint64_t sectors : {1U, 7U, 1000U}) {
        ModelledVolume_t model;
        model.AddSpan({ComponentOf(2, 63, 0, sectors)});
        ExpectReads(model, sectors);
        ExpectCoreAgrees(model);
    }
}

TEST_F(VolumeMap, SpannedVolumes) {
    ModelledVolume_t model;
    model.AddSpan({ComponentOf(0, 100, 0, 1), ComponentOf(3, 10, 1, 200), ComponentOf(0, 50, 201, 17),
                   ComponentOf(1, 2000, 218, 48)});
    ExpectReads(model, 1);
    ExpectCoreAgrees(model);
}

TEST_F(VolumeMap, StripedVolumes) {
    for (uint32_t columns = 1; columns <= DiskCount; ++columns) {
        for (const uint64_t stripeSectors : {1U, 8U, 33U}) {
            SCOPED_TRACE(testing::Message() << columns << " columns of " << stripeSectors);
            ModelledVolume_t model;
            std::vector<uint32_t> disks;
            for (uint32_t disk = 0; disk < columns; ++disk)
                disks.push_back((disk + 2) % DiskCount);
            model.AddStripes(disks, stripeSectors, 11, false);
            ExpectReads(model, columns * 100 + stripeSectors);
            ExpectCoreAgrees(model);
        }
    }
}

TEST_F(VolumeMap, Raid5Volumes) {
    for (uint32_t columns = 2; columns <= DiskCount; ++columns) {
        for (const uint64_t stripeSectors : {1U, 8U, 33U}) {
            SCOPED_TRACE(testing::Message() << columns << " columns of " << stripeSectors);
            ModelledVolume_t model;
            std::vector<uint32_t> disks;
            for (uint32_t disk = 0; disk < columns; ++disk)
                disks.push_back(disk);
            model.AddStripes(disks, stripeSectors, 11, true);
            ExpectReads(model, columns * 100 + stripeSectors);
            ExpectCoreAgrees(model);
        }
    }
}

TEST_F(VolumeMap, SegmentsOfOneKindFollowOneAnother) {
    for (const bool isRaid5 : {false, true}) {
        SCOPED_TRACE(isRaid5 ? "RAID-5" : "striped");
        ModelledVolume_t model;
        model.AddStripes({0, 1, 2}, 8, 5, isRaid5);
        model.AddStripes({3, 4}, 16, 3, isRaid5);
        model.AddStripes({4, 0, 2, 1}, 1, 9, isRaid5);
        ExpectReads(model, isRaid5 ? 1 : 2);
    }
}

TEST_F(VolumeMap, SpannedAndStripedSegmentsFollowOneAnother) {
    ModelledVolume_t model;
    model.AddSpan({ComponentOf(0, 500, 0, 30)});
    model.AddStripes({0, 1, 2}, 8, 5, false);
    model.AddSpan({ComponentOf(1, 500, 0, 3), ComponentOf(2, 600, 3, 40)});
    ExpectReads(model, 3);
}

TEST_F(VolumeMap, RandomLayouts) {
    std::mt19937_64 random(20);
    for (int turn = 0; turn < 60; ++turn) {
        SCOPED_TRACE(turn);
        ModelledVolume_t model;
        const bool isRaid5 = random() % 3 == 0;
        for (uint64_t segments = random() % 4 + 1; segments > 0; --segments) {
            std::vector<uint32_t> disks;
            for (uint64_t columns = random() % 4 + 2; columns > 0; --columns)
                disks.push_back(static_cast<uint32_t>((random() % DiskCount)));
            if (isRaid5 || random() % 2 == 0) {
                model.AddStripes(disks, random() % 40 + 1, random() % 7 + 1, isRaid5);
                continue;
            }
            std::vector<LVM_Component_t> span;
            uint64_t at = 0;
            for (const uint32_t disk : disks) {
                const uint64_t sectors = random() % 90 + 1;
                span.push_back(ComponentOf(disk, random() % 1900 + 1, at, sectors));
                at += sectors;
            }
            model.AddSpan(span);
        }
        ExpectReads(model, static_cast<uint64_t>(turn));
        if (model.volume.Segments.size() == 1)
            ExpectCoreAgrees(model);
    }
}

TEST_F(VolumeMap, APieceIsNoLongerThanAskedFor) {
    ModelledVolume_t model;
    model.AddStripes({0, 1}, 8, 5, false);
    VolumePiece_t piece;
    ASSERT_TRUE(FindVolumePiece(model.volume, 100, 1, piece));
    EXPECT_EQ(1U, piece.bytes);
    ASSERT_TRUE(FindVolumePiece(model.volume, 100, 0, piece));
    EXPECT_EQ(1U, piece.bytes);
    ASSERT_TRUE(FindVolumePiece(model.volume, 100, 1U << 30U, piece));
    EXPECT_EQ(4096U - 100, piece.bytes);
    EXPECT_EQ(0U, piece.hardDiskIndex);
    EXPECT_EQ(10U * 512 + 100, piece.diskOffset);
}

TEST_F(VolumeMap, ADiskThatIsNotThereIsAFailureOfItsPartAlone) {
    ModelledVolume_t model;
    model.AddSpan({ComponentOf(0, 100, 0, 8), ComponentOf(NoHardDisk, 0, 8, 8)});
    VolumeInfo_t info;
    info.name = "Volume1";
    info.layout = model.volume;
    EXPECT_SAME_BYTES(NumberedSectors(100, 8), Read(info, 0, 4096));
    char byte = 0;
    EXPECT_REFUSED(m_Set.Read(info, 4096, &byte, 1), "Volume1: one of its disks isn't there");
}

TEST(VolumeMapHostile, LayoutsThatHoldNothingHaveNoPlace) {
    LVM_Volume_t nothing;
    LVM_Volume_t empty;
    empty.Segments.emplace_back();
    LVM_Volume_t parityAlone;
    parityAlone.IsRaid5 = 1;
    parityAlone.Segments.emplace_back().Components = {ComponentOf(0, 0, 0, 100)};
    parityAlone.Segments[0].StripeSize = 8;
    LVM_Volume_t noStripes = parityAlone;
    noStripes.Segments[0].StripeSize = 0;
    noStripes.Segments[0].Components.push_back(ComponentOf(1, 0, 0, 100));
    LVM_Volume_t hugeStripes = noStripes;
    hugeStripes.Segments[0].StripeSize = ~uint64_t{0};
    for (const LVM_Volume_t& volume : {nothing, empty, parityAlone, noStripes, hugeStripes}) {
        for (const uint64_t offset : {uint64_t{0}, uint64_t{511}, uint64_t{1} << 40U, ~uint64_t{0}}) {
            VolumePiece_t piece;
            EXPECT_FALSE(FindVolumePiece(volume, offset, 4096, piece));
        }
    }
}

// The last row of a column that holds no whole number of stripes isn't guessed at.
TEST(VolumeMapHostile, ColumnsThatEndInsideAStripeGiveNoOtherBytes) {
    LVM_Volume_t volume;
    volume.Segments.emplace_back().StripeSize = 8;
    volume.Segments[0].Components = {ComponentOf(0, 0, 0, 12), ComponentOf(1, 0, 0, 12)};
    VolumePiece_t piece;
    ASSERT_TRUE(FindVolumePiece(volume, 16 * 512, 65536, piece));
    EXPECT_EQ(4U * 512, piece.bytes);
    EXPECT_FALSE(FindVolumePiece(volume, 20 * 512, 1, piece));
}

}  // namespace
