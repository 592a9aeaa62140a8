#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/HardDisks.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

// Volumes made by hand over disks whose sectors tell where they lie.

namespace {

constexpr char OutOfRange[] = "Offset out of range";
constexpr uint64_t DiskSectors = 4096;
constexpr uint64_t PerDisk = 1'000'000;  // what a disk's number counts in the content of its sectors

LVM_Component_t PieceOf(uint32_t disk, uint64_t diskLba, uint64_t volumeLba, uint64_t sectors) {
    LVM_Component_t component;
    component.HardDiskIndex = disk;
    component.DiskLBAStart = diskLba;
    component.DiskLBAEnd = diskLba + sectors - 1;
    component.VolLBAStart = volumeLba;
    component.VolLBAEnd = volumeLba + sectors - 1;
    return component;
}

LVM_Volume_t Spanned(const std::vector<LVM_Component_t>& components) {
    LVM_Segment_t segment;
    segment.Components = components;
    segment.LBAEnd = components.empty() ? 0 : components.back().VolLBAEnd;
    LVM_Volume_t volume;
    volume.AllDiskFound = 1;
    volume.Segments = {segment};
    return volume;
}

// Columns of `columnSectors` on disks 0, 1, ..., each at sector 100 times its number and 10 more.
LVM_Volume_t Striped(uint32_t columns, uint64_t stripeSectors, uint64_t columnSectors) {
    LVM_Volume_t volume = Spanned({});
    for (uint32_t column = 0; column < columns; ++column) {
        volume.Segments[0].Components.push_back(PieceOf(column, 100 * column + 10, 0, columnSectors));
        volume.Segments[0].Components.back().ColumnIndex = static_cast<int32_t>(column);
    }
    volume.Segments[0].StripeSize = stripeSectors;
    volume.Segments[0].LBAEnd = columns * columnSectors - 1;
    return volume;
}

LVM_Volume_t Raid5(uint32_t columns, uint64_t stripeSectors, uint64_t columnSectors) {
    LVM_Volume_t volume = Striped(columns, stripeSectors, columnSectors);
    volume.IsRaid5 = 1;
    volume.Segments[0].LBAEnd = (columns - 1) * columnSectors - 1;
    return volume;
}

std::string SectorsOf(uint32_t disk, uint64_t lba, uint64_t count) {
    return NumberedSectors(disk * PerDisk + lba, count);
}

class LvmRead : public testing::Test {
protected:
    void SetUp() override {
        std::vector<LVM_HardDisk_t> disks;
        for (uint32_t disk = 0; disk < 5; ++disk) {
            CImageFile image;
            image.Put(0, SectorsOf(disk, 0, DiskSectors));
            image.Put(0, CBootRecordBuilder().Bytes());
            disks.push_back(FlatHardDisk(m_Dir, image, "disk" + std::to_string(disk)));
        }
        ASSERT_OK(m_Lvm.InitializeFromDisk(disks));
        ASSERT_TRUE(m_Lvm.GetVolumes().empty());
    }

    std::string Read(const LVM_Volume_t& volume, uint64_t offset, uint32_t length) {
        std::string bytes(length, '?');
        uint32_t got = 77;
        EXPECT_OK(m_Lvm.ReadVolumeData(volume, offset, bytes.data(), length, &got)) << length << " at " << offset;
        EXPECT_EQ(length, got);
        return bytes;
    }

    CZuError TryRead(const LVM_Volume_t& volume, uint64_t offset, uint32_t length) {
        std::string bytes(length, '?');
        m_Got = 77;
        return m_Lvm.ReadVolumeData(volume, offset, bytes.data(), length, &m_Got);
    }

    CTempDir m_Dir;
    CLVM m_Lvm;
    uint32_t m_Got = 0;
};

TEST_F(LvmRead, ALengthOf0IsRefusedFirst) {
    LVM_Volume_t volume = Spanned({PieceOf(0, 10, 0, 10)});
    EXPECT_REFUSED(TryRead(volume, 0, 0), "Invalid input parameter");
    volume.AllDiskFound = 0;
    EXPECT_REFUSED(TryRead(volume, 0, 0), "Invalid input parameter");
}

TEST_F(LvmRead, AVolumeWithoutAllItsDisksIsRefusedBeforeAnyDiskIsTouched) {
    LVM_Volume_t volume = Spanned({PieceOf(0, 10, 0, 10), PieceOf(NoHardDisk, 0, 10, 10)});
    volume.AllDiskFound = 0;
    const CFaultyFiles counting;
    EXPECT_REFUSED(TryRead(volume, 0, 512), "Not all disks where found for this volume.");
    EXPECT_EQ(0U, counting.Calls(FaultOp::Read));
}

TEST_F(LvmRead, AComponentWithoutADiskIsRefused) {
    for (const uint32_t index : {NoHardDisk, 5U}) {
        EXPECT_REFUSED(TryRead(Spanned({PieceOf(index, 10, 0, 10)}), 0, 512),
                       "Volume component is not point to any harddisk object");
        EXPECT_EQ(0U, m_Got);
    }
}

TEST_F(LvmRead, AFailureLeavesTheBytesDoneByThen) {
    const LVM_Volume_t half = Spanned({PieceOf(0, 10, 0, 10), PieceOf(NoHardDisk, 0, 10, 10)});
    EXPECT_REFUSED(TryRead(half, 5 * 512 + 100, 8 * 512), "Volume component is not point to any harddisk object");
    EXPECT_EQ(5U * 512 - 100, m_Got);

    const CFaultyFiles faulty(Fault_t{FaultOp::Read, 1, EIO});
    EXPECT_SYSTEM_ERROR(TryRead(Spanned({PieceOf(0, 10, 0, 10), PieceOf(1, 100, 10, 10)}), 9 * 512, 1024), EIO);
    EXPECT_EQ(512U, m_Got);
}

TEST_F(LvmRead, BytesReadMayBeNull) {
    std::string bytes(512, '?');
    EXPECT_OK(m_Lvm.ReadVolumeData(Spanned({PieceOf(2, 10, 0, 10)}), 1024, bytes.data(), 512, nullptr));
    EXPECT_SAME_BYTES(SectorsOf(2, 12, 1), bytes);
}

TEST_F(LvmRead, APlainPartitionReadsToItsLastByte) {
    LVM_Volume_t volume = Spanned({PieceOf(1, 63, 0, 100)});
    volume.Segments[0].LBAEnd = 100;
    EXPECT_SAME_BYTES(SectorsOf(1, 63, 100), Read(volume, 0, 51200));
    EXPECT_SAME_BYTES(SectorsOf(1, 63, 100).substr(700, 10000), Read(volume, 700, 10000));
    EXPECT_SAME_BYTES(SectorsOf(1, 162, 1).substr(511), Read(volume, 51199, 1));
    EXPECT_REFUSED(TryRead(volume, 51200, 1), OutOfRange);
    EXPECT_EQ(0U, m_Got);
    EXPECT_REFUSED(TryRead(volume, 51199, 2), OutOfRange);
    EXPECT_EQ(1U, m_Got);
}

TEST_F(LvmRead, ASpannedVolumeFindsTheComponentOfEachPlace) {
    const LVM_Volume_t volume = Spanned({PieceOf(0, 10, 0, 10), PieceOf(2, 500, 10, 5), PieceOf(1, 20, 15, 10)});
    EXPECT_SAME_BYTES(SectorsOf(0, 19, 1), Read(volume, 9 * 512, 512));
    EXPECT_SAME_BYTES(SectorsOf(2, 500, 5), Read(volume, 10 * 512, 5 * 512));
    EXPECT_SAME_BYTES(SectorsOf(1, 20, 10).substr(100), Read(volume, 15 * 512 + 100, 10 * 512 - 100));
    EXPECT_REFUSED(TryRead(volume, 25 * 512, 1), OutOfRange);
}

TEST_F(LvmRead, TheFirstComponentThatHoldsAPlaceGivesIt) {
    const LVM_Volume_t volume = Spanned({PieceOf(0, 10, 0, 10), PieceOf(1, 10, 5, 10)});
    EXPECT_SAME_BYTES(SectorsOf(0, 17, 1), Read(volume, 7 * 512, 512));
    EXPECT_SAME_BYTES(SectorsOf(1, 15, 1), Read(volume, 10 * 512, 512));
}

TEST_F(LvmRead, SegmentsThatBeginBehindOrHaveNoComponentThereArePassedOver) {
    LVM_Volume_t volume = Spanned({PieceOf(0, 10, 0, 10)});
    volume.Segments.push_back(Spanned({PieceOf(1, 10, 10, 10)}).Segments[0]);
    volume.Segments.push_back(Spanned({PieceOf(2, 10, 0, 30)}).Segments[0]);
    volume.Segments[1].LBAStart = 12;
    EXPECT_SAME_BYTES(SectorsOf(0, 10, 10), Read(volume, 0, 5120));
    EXPECT_SAME_BYTES(SectorsOf(2, 21, 1), Read(volume, 11 * 512, 512)) << "the second segment begins at 12";
    EXPECT_SAME_BYTES(SectorsOf(1, 12, 1), Read(volume, 12 * 512, 512));
    EXPECT_SAME_BYTES(SectorsOf(2, 30, 1), Read(volume, 20 * 512, 512));
    EXPECT_REFUSED(TryRead(volume, 30 * 512, 512), OutOfRange);
}

// Callers rely on the place being worked out from the request's start in every pass: behind a component's end
// the sectors in front of the next component's start come.
TEST_F(LvmRead, BehindAComponentsEndASpannedReadGoesOnInFrontOfTheNextOnesStart) {
    const LVM_Volume_t volume = Spanned({PieceOf(0, 10, 0, 10), PieceOf(1, 1000, 10, 10), PieceOf(2, 2000, 20, 10)});
    EXPECT_SAME_BYTES(SectorsOf(0, 18, 2) + SectorsOf(1, 998, 2), Read(volume, 8 * 512, 4 * 512));
    // The second pass has the component's ten sectors and the two before them at once.
    EXPECT_SAME_BYTES(SectorsOf(0, 18, 2) + SectorsOf(1, 998, 12), Read(volume, 8 * 512, 14 * 512));
    // The third pass begins at sector 8 of the volume again, 12 in front of the last component.
    EXPECT_SAME_BYTES(SectorsOf(0, 18, 2) + SectorsOf(1, 998, 12) + SectorsOf(2, 1988, 2),
                      Read(volume, 8 * 512, 16 * 512));
    EXPECT_SAME_BYTES(SectorsOf(0, 19, 1).substr(100) + SectorsOf(1, 999, 1).substr(100, 50),
                      Read(volume, 9 * 512 + 100, 412 + 50));
}

TEST_F(LvmRead, AContinuationInFrontOfTheDiskIsAReadFailure) {
    EXPECT_FAILURE(TryRead(Spanned({PieceOf(0, 10, 0, 10), PieceOf(1, 0, 10, 10)}), 9 * 512, 1024));
    EXPECT_EQ(512U, m_Got);
}

TEST_F(LvmRead, AStripedVolumesStripesTakeTurns) {
    const LVM_Volume_t two = Striped(2, 8, 64);
    // Stripe 5 lies in row 2 of column 1.
    EXPECT_SAME_BYTES(SectorsOf(1, 110 + 2 * 8, 8), Read(two, 5 * 4096, 4096));
    for (uint32_t columns = 1; columns <= 5; ++columns) {
        const LVM_Volume_t volume = Striped(columns, 8, 64);
        for (uint64_t stripe = 0; stripe < 8 * columns; ++stripe) {
            const auto column = static_cast<uint32_t>(stripe % columns);
            EXPECT_SAME_BYTES(SectorsOf(column, 100 * column + 10 + stripe / columns * 8, 8).substr(300, 3000),
                              Read(volume, stripe * 4096 + 300, 3000))
                << columns << " columns, stripe " << stripe;
        }
        EXPECT_REFUSED(TryRead(volume, 64 * columns * 512, 1), OutOfRange);
    }
}

TEST_F(LvmRead, Raid5OfThreeColumns) {
    const LVM_Volume_t volume = Raid5(3, 128, 512);
    const struct {
        uint64_t row;
        uint32_t column;
    } stripes[] = {{0, 0}, {0, 1}, {1, 2}, {1, 0}, {2, 1}, {2, 2}, {3, 0}, {3, 1}};
    uint64_t offset = 0;
    for (const auto& stripe : stripes) {
        EXPECT_SAME_BYTES(SectorsOf(stripe.column, 100 * stripe.column + 10 + stripe.row * 128, 128),
                          Read(volume, offset, 65536))
            << "stripe " << offset / 65536;
        offset += 65536;
    }
    EXPECT_REFUSED(TryRead(volume, offset, 1), OutOfRange);
    EXPECT_REFUSED(TryRead(volume, ~uint64_t{0}, 1), OutOfRange);
}

// Row by row: parity moves one column to the left, the data begins to the right of it and wraps.
TEST_F(LvmRead, Raid5OfAnyNumberOfColumns) {
    for (uint32_t columns = 2; columns <= 5; ++columns) {
        const LVM_Volume_t volume = Raid5(columns, 4, 48);
        uint32_t parity = columns - 1;
        uint64_t stripe = 0;
        for (uint64_t row = 0; row < 12; ++row) {
            for (uint32_t turn = 1; turn < columns; ++turn, ++stripe) {
                const uint32_t column = (parity + turn) % columns;
                EXPECT_SAME_BYTES(SectorsOf(column, 100 * column + 10 + row * 4, 4).substr(513, 700),
                                  Read(volume, stripe * 2048 + 513, 700))
                    << columns << " columns, row " << row;
            }
            parity = parity == 0 ? columns - 1 : parity - 1;
        }
    }
}

TEST_F(LvmRead, WithinAStripeThereIsOneReadOfADisk) {
    for (const LVM_Volume_t& volume : {Striped(2, 8, 64), Raid5(3, 8, 64)}) {
        const CFaultyFiles counting;
        Read(volume, 4096 + 512, 1024);
        EXPECT_EQ(1U, counting.Calls(FaultOp::Read));
        Read(volume, 8192, 4096);
        EXPECT_EQ(2U, counting.Calls(FaultOp::Read)) << "up to the stripe's end";
        Read(volume, 12288, 4096 + 1024);
        EXPECT_EQ(4U, counting.Calls(FaultOp::Read)) << "over it";
    }
}

// Callers rely on it: each pass begins where the request did.
TEST_F(LvmRead, BehindAStripesEndAReadBeginsAnew) {
    for (const LVM_Volume_t& volume : {Striped(3, 8, 64), Raid5(4, 8, 64)}) {
        const std::string first = Read(volume, 3 * 512 + 10, 5 * 512 - 10);
        EXPECT_SAME_BYTES(SectorsOf(0, 13, 5).substr(10), first);
        EXPECT_SAME_BYTES(first + first + first.substr(0, 7), Read(volume, 3 * 512 + 10, 10 * 512 - 13));
    }
}

TEST_F(LvmRead, TheEndIsAskedForEachPass) {
    LVM_Volume_t volume = Striped(2, 8, 64);
    volume.Segments[0].LBAEnd = 15;
    EXPECT_REFUSED(TryRead(volume, 12 * 512, 5 * 512), OutOfRange);
    EXPECT_EQ(4U * 512, m_Got);
    EXPECT_SAME_BYTES(SectorsOf(1, 114, 4), Read(volume, 12 * 512, 4 * 512));
}

TEST_F(LvmRead, OfStripedSegmentsTheFirstThatBeginsBeforeThePlaceIsTaken) {
    LVM_Volume_t volume = Striped(2, 8, 64);
    volume.Segments.push_back(Striped(3, 8, 64).Segments[0]);
    volume.Segments[1].LBAStart = 16;
    volume.Segments[1].LBAEnd = 63;
    EXPECT_SAME_BYTES(SectorsOf(1, 110 + 8, 8), Read(volume, 24 * 512, 4096)) << "not the second";
    EXPECT_REFUSED(TryRead(volume, 64 * 512, 1), OutOfRange) << "the end is the last one's";
    volume.Segments[0].LBAStart = 20;
    volume.Segments[1].LBAStart = 8;
    EXPECT_SAME_BYTES(SectorsOf(1, 110, 8), Read(volume, 8 * 512, 4096)) << "of three columns";
    EXPECT_SAME_BYTES(SectorsOf(1, 118, 8), Read(volume, 24 * 512, 4096)) << "of two";
    EXPECT_REFUSED(TryRead(volume, 0, 1), OutOfRange) << "none begins so early";
}

TEST_F(LvmRead, TheFirstSegmentsStripesDecideTheLayout) {
    LVM_Volume_t volume = Spanned({PieceOf(0, 10, 0, 10)});
    volume.Segments.push_back(Striped(2, 8, 64).Segments[0]);
    EXPECT_REFUSED(TryRead(volume, 20 * 512 * 100, 1), OutOfRange) << "spanned: no component there";
    volume.Segments[1].Components[0].VolLBAStart = 10;
    EXPECT_SAME_BYTES(SectorsOf(0, 10, 2), Read(volume, 10 * 512, 1024));
}

TEST_F(LvmRead, StripesThatCannotBeWorkedOutAreOutOfRange) {
    LVM_Volume_t nothing = Spanned({});
    nothing.Segments.clear();
    LVM_Volume_t noStripes = Raid5(3, 0, 64);
    LVM_Volume_t noColumns = Striped(0, 8, 64);
    noColumns.Segments[0].LBAEnd = 100;
    LVM_Volume_t noDataColumns = Raid5(1, 8, 64);
    noDataColumns.Segments[0].LBAEnd = 100;
    LVM_Volume_t emptyRaid5 = noColumns;
    emptyRaid5.IsRaid5 = 1;
    const struct {
        const char* name;
        LVM_Volume_t volume;
    } rows[] = {
        {"no segment", nothing},
        {"no component", Spanned({})},
        {"RAID-5 without stripes", noStripes},
        {"stripes without columns", noColumns},
        {"RAID-5 of one column", noDataColumns},
        {"RAID-5 of none", emptyRaid5},
        {"stripes of 2^64 bytes", Striped(2, uint64_t{1} << 55U, 64)},
        {"stripes that wrap to 512 bytes", Striped(2, (uint64_t{1} << 55U) + 1, 64)},
        {"a component of 2^64 bytes", Spanned({PieceOf(0, 10, 0, uint64_t{1} << 55U)})},
        {"a component of all sectors", Spanned({PieceOf(0, 10, 0, 0)})},
    };
    for (const auto& row : rows) {
        EXPECT_REFUSED(TryRead(row.volume, 0, 512), OutOfRange) << row.name;
        EXPECT_EQ(0U, m_Got) << row.name;
    }
}

// Whatever a database of volumes says, a read ends, stays in the caller's buffer and tells what it did.
TEST_F(LvmRead, ReadsOfArbitraryVolumesEnd) {
    std::mt19937_64 random(11);
    const uint64_t numbers[] = {0,
                                1,
                                7,
                                8,
                                100,
                                DiskSectors,
                                uint64_t{1} << 32U,
                                uint64_t{1} << 54U,
                                uint64_t{1} << 55U,
                                uint64_t{1} << 63U,
                                ~uint64_t{0} - 1,
                                ~uint64_t{0}};
    const auto number = [&] { return numbers[random() % std::size(numbers)]; };
    for (int turn = 0; turn < 20'000; ++turn) {
        LVM_Volume_t volume;
        volume.AllDiskFound = 1;
        volume.IsRaid5 = static_cast<int32_t>(random() % 2);
        volume.Segments.resize(random() % 3);
        for (LVM_Segment_t& segment : volume.Segments) {
            segment.StripeSize = random() % 3 == 0 ? 0 : number();
            segment.LBAStart = random() % 2 == 0 ? 0 : number();
            segment.LBAEnd = number();
            segment.Components.resize(random() % 4);
            for (LVM_Component_t& component : segment.Components) {
                component.HardDiskIndex = static_cast<uint32_t>(random() % 6);
                component.DiskLBAStart = number();
                component.VolLBAStart = random() % 2 == 0 ? 0 : number();
                component.VolLBAEnd = number();
            }
        }
        std::string bytes(2000 + 16, '?');
        uint32_t got = 77;
        const uint64_t offset = number() * (random() % 2 == 0 ? 1 : 512) + random() % 600;
        const CZuError error = m_Lvm.ReadVolumeData(volume, offset, bytes.data(), 2000, &got);
        ASSERT_EQ(!error.IsErrorSet(), got == 2000) << turn;
        ASSERT_LE(got, 2000U) << turn;
        ASSERT_EQ(std::string(16, '?'), bytes.substr(2000)) << turn;
    }
}

}  // namespace
