#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/VHDFileReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VhdBuilder.h"

#define EXPECT_SECTOR_OUT_OF_RANGE(expression) EXPECT_CONDITION_TEXT(expression, 7, 4001, 1, "Sector Out of Range")
#define EXPECT_SECTOR_NOT_FOUND(expression) EXPECT_CONDITION(expression, 3, 4001, 2)

namespace {

constexpr char NoOpenDisk[] = "Object is in invalid state. Make sure OpenDisk succeeded";

class VHDFileReaderRead : public testing::Test {
protected:
    void Open(const CVhdBuilder& file, DiskType_t type = DiskType_VhdDynamic) {
        ASSERT_OK(m_Reader.OpenDisk(file.WriteTo(m_Dir).c_str(), type));
    }

    CZuError Read(uint64_t sector, uint32_t size = 512) { return m_Reader.ReadSector(sector, m_Sector.data(), size); }

    std::string ReadSector(uint64_t sector) {
        EXPECT_OK(Read(sector)) << sector;
        return m_Sector;
    }

    // Of the reads that one call makes.
    std::vector<uint32_t> ReadsOf(uint64_t sector) {
        const CFaultyFiles counting;
        EXPECT_OK(Read(sector)) << sector;
        return counting.Sizes(FaultOp::Read);
    }

    CTempDir m_Dir;
    CVHDFileReader m_Reader;
    std::string m_Sector = std::string(512, '?');
};

TEST_F(VHDFileReaderRead, EverySectorOfAFixedDiskIsAtItsPlace) {
    const std::string bytes = PatternedBytes(24 * 512);
    Open(CVhdBuilder::Fixed(24).Data(0, bytes), DiskType_VhdFixed);
    for (uint64_t sector = 0; sector < 24; ++sector)
        EXPECT_SAME_BYTES(bytes.substr(sector * 512, 512), ReadSector(sector));
}

TEST_F(VHDFileReaderRead, EverySectorOfADynamicDiskIsAtItsPlace) {
    const std::string first = PatternedBytes(4096, 1);
    const std::string last = PatternedBytes(4096, 2);
    Open(CVhdBuilder::Dynamic(40).Block(4, last).Block(0, first));
    for (uint64_t sector = 0; sector < 8; ++sector) {
        EXPECT_SAME_BYTES(first.substr(sector * 512, 512), ReadSector(sector));
        EXPECT_SAME_BYTES(last.substr(sector * 512, 512), ReadSector(32 + sector));
    }
}

TEST_F(VHDFileReaderRead, ASectorOfABlockThatIsNotAllocatedIsNotFound) {
    Open(CVhdBuilder::Dynamic(40).Block(1, 'x'));
    for (const uint64_t sector : {0U, 7U, 16U, 39U}) {
        const CZuError error = Read(sector);
        EXPECT_SECTOR_NOT_FOUND(error);
        EXPECT_EQ(1, m_Reader.IsErrorSectorNotFound(error));
        EXPECT_EQ(0, m_Reader.IsErrorEOF(error));
    }
    EXPECT_SAME_BYTES(std::string(512, 'x'), ReadSector(8));
}

TEST_F(VHDFileReaderRead, ASectorWhoseBitIsClearIsNotFound) {
    Open(CVhdBuilder::Differencing(40).Block(1, 'x').Bitmap(1, "\x81"), DiskType_VhdDifferencing);
    EXPECT_SAME_BYTES(std::string(512, 'x'), ReadSector(8)) << "the first sector has the highest bit";
    for (uint64_t sector = 9; sector < 15; ++sector)
        EXPECT_SECTOR_NOT_FOUND(Read(sector));
    EXPECT_SAME_BYTES(std::string(512, 'x'), ReadSector(15));
}

TEST_F(VHDFileReaderRead, EachBitOfALongBitmapCounts) {
    constexpr uint64_t sectors = 4096;
    const std::string bitmap = PatternedBytes(512, 9);
    Open(CVhdBuilder::Dynamic(sectors).BlockSize(2 << 20).Block(0, 'x').Bitmap(0, bitmap));
    for (uint64_t sector = 0; sector < sectors; ++sector) {
        const bool isSet = (static_cast<unsigned char>(bitmap[sector / 8]) & (0x80U >> sector % 8)) != 0;
        ASSERT_EQ(isSet, !Read(sector).IsErrorSet()) << sector;
    }
}

// The bitmap is taken for one sector where the published form has two, so the data is too.
TEST_F(VHDFileReaderRead, ABitmapThatIsNoWholeNumberOfSectorsIsTakenTooSmall) {
    constexpr uint32_t blockBytes = 3 << 20;
    Open(CVhdBuilder::Dynamic(6144)
             .BlockSize(blockBytes)
             .BitmapSectors(1)
             .Block(0, 'x')
             .Bitmap(0, std::string(512, '\xFF')));
    EXPECT_SAME_BYTES(std::string(512, 'x'), ReadSector(0));
    EXPECT_SAME_BYTES(std::string(512, 'x'), ReadSector(4095));
    EXPECT_SECTOR_NOT_FOUND(Read(4096)) << "its bit would lie behind the bitmap";
    EXPECT_SECTOR_NOT_FOUND(Read(6143));

    Open(CVhdBuilder::Dynamic(6144).BlockSize(blockBytes).Block(0, 'x'));
    EXPECT_SAME_BYTES(std::string(256, '\xFF') + std::string(256, '\0'), ReadSector(0)) << "the bitmap's second sector";
}

TEST_F(VHDFileReaderRead, ABitmapOfSeveralSectorsLiesBeforeTheData) {
    Open(CVhdBuilder::Dynamic(16384).BlockSize(4 << 20).Block(1, PatternedBytes(4 << 20)));
    EXPECT_SAME_BYTES(PatternedBytes(4 << 20).substr(0, 512), ReadSector(8192));
    EXPECT_SAME_BYTES(PatternedBytes(4 << 20).substr((4 << 20) - 512), ReadSector(16383));
}

TEST_F(VHDFileReaderRead, AShorterReadGetsTheFirstBytes) {
    const std::string bytes = PatternedBytes(4096);
    Open(CVhdBuilder::Dynamic(8).Block(0, bytes));
    EXPECT_OK(Read(2, 100));
    EXPECT_SAME_BYTES(bytes.substr(1024, 100) + std::string(412, '?'), m_Sector);
    EXPECT_OK(Read(2, 0));
}

TEST_F(VHDFileReaderRead, MoreThanASectorIsRefusedBeforeAllElse) {
    EXPECT_REFUSED(Read(0, 513), "Cannot read more than sector size") << "also when closed";
    EXPECT_REFUSED(Read(0), NoOpenDisk);
    Open(CVhdBuilder::Fixed(8), DiskType_VhdFixed);
    EXPECT_REFUSED(Read(99, 513), "Cannot read more than sector size") << "also out of range";
}

// Callers tell it from the end of a stream of blocks.
TEST_F(VHDFileReaderRead, TheSectorBehindTheLastIsOutOfRangeWhichIsNoEnd) {
    const std::pair<CVhdBuilder, DiskType_t> disks[] = {
        {CVhdBuilder::Fixed(24), DiskType_VhdFixed},
        {CVhdBuilder::Dynamic(24).Block(2, 'x').Entries(8), DiskType_VhdDynamic},
    };
    for (const auto& [file, type] : disks) {
        Open(file, type);
        EXPECT_OK(Read(23));
        for (const uint64_t sector : {uint64_t{24}, uint64_t{25}, uint64_t{1} << 55U, ~uint64_t{0}}) {
            const CZuError error = Read(sector);
            EXPECT_SECTOR_OUT_OF_RANGE(error);
            EXPECT_EQ(0, m_Reader.IsErrorEOF(error));
            EXPECT_EQ(0, m_Reader.IsErrorSectorNotFound(error));
        }
    }
}

TEST_F(VHDFileReaderRead, ADiskOfOneSectorCanBeRead) {
    Open(CVhdBuilder::Fixed(1).Data(0, std::string(512, 'x')), DiskType_VhdFixed);
    EXPECT_SAME_BYTES(std::string(512, 'x'), ReadSector(0));
    EXPECT_SECTOR_OUT_OF_RANGE(Read(1));
}

TEST_F(VHDFileReaderRead, ADiskOfNoSectorsHasNone) {
    for (const uint64_t size : {0U, 511U}) {
        Open(CVhdBuilder::Fixed(8).CurrentSize(size), DiskType_VhdFixed);
        EXPECT_SECTOR_OUT_OF_RANGE(Read(0));
        EXPECT_SECTOR_OUT_OF_RANGE(Read(~uint64_t{0}));
        Open(CVhdBuilder::Dynamic(8).Block(0, 'x').CurrentSize(size));
        EXPECT_SECTOR_OUT_OF_RANGE(Read(0));
    }
}

TEST_F(VHDFileReaderRead, ATableShorterThanTheDiskEndsIt) {
    Open(CVhdBuilder::Dynamic(40).Entries(2).Block(1, 'x'));
    EXPECT_OK(Read(15));
    for (const uint64_t sector : {16U, 39U}) {
        const CZuError error = Read(sector);
        EXPECT_CONDITION(error, 3, 4001, 1);
        EXPECT_EQ(1, m_Reader.IsErrorEOF(error));
    }
    EXPECT_SECTOR_OUT_OF_RANGE(Read(40));
}

TEST_F(VHDFileReaderRead, ABlockSizeBelowASectorHasNoSectors) {
    for (const uint32_t blockBytes : {0U, 1U, 511U}) {
        Open(CVhdBuilder::Dynamic(8).Entries(8).Header(32, BigEndianBytes(blockBytes, 4)));
        EXPECT_REFUSED(Read(0), NoOpenDisk) << blockBytes;
        EXPECT_SECTOR_OUT_OF_RANGE(Read(8));
    }
}

TEST_F(VHDFileReaderRead, AFileShorterThanItsDiskFailsInTheRead) {
    Open(CVhdBuilder::Fixed(24).CurrentSize(48 * 512), DiskType_VhdFixed);
    EXPECT_SAME_BYTES(CVhdBuilder::Fixed(24).CurrentSize(48 * 512).FooterBytes(), ReadSector(24)) << "it ends the file";
    const CZuError error = Read(25);
    EXPECT_FAILURE(error);
    EXPECT_EQ(0, m_Reader.IsErrorEOF(error));
}

TEST_F(VHDFileReaderRead, EachBitmapIsReadOnceAndAHoleReadsNothing) {
    Open(CVhdBuilder::Dynamic(40).Block(1, 'x').Block(3, 'y').Bitmap(3, "\x40"));
    EXPECT_EQ((std::vector<uint32_t>{512, 512}), ReadsOf(8)) << "bitmap and sector";
    EXPECT_EQ((std::vector<uint32_t>{512}), ReadsOf(9));
    EXPECT_EQ((std::vector<uint32_t>{512, 512}), ReadsOf(25)) << "another block has another bitmap";
    EXPECT_EQ((std::vector<uint32_t>{512}), ReadsOf(8));
    const CFaultyFiles counting;
    EXPECT_SECTOR_NOT_FOUND(Read(0));
    EXPECT_SECTOR_NOT_FOUND(Read(24));
    EXPECT_EQ(0U, counting.Calls(FaultOp::Read));
}

TEST_F(VHDFileReaderRead, ABitmapThatCouldNotBeReadIsTriedAgain) {
    Open(CVhdBuilder::Dynamic(40).Block(1, 'x'));
    {
        const CFaultyFiles faulty(Fault_t{FaultOp::Read, 0, EIO});
        EXPECT_SYSTEM_ERROR(Read(8), EIO);
    }
    EXPECT_EQ((std::vector<uint32_t>{512, 512}), ReadsOf(8));
}

TEST_F(VHDFileReaderRead, ClosingForgetsTheBitmaps) {
    Open(CVhdBuilder::Dynamic(40).Block(1, 'x'));
    EXPECT_OK(Read(9));
    Open(CVhdBuilder::Dynamic(40).Block(1, 'y').Bitmap(1, "\x80"));
    EXPECT_SECTOR_NOT_FOUND(Read(9));
}

TEST_F(VHDFileReaderRead, TheParentIsNeverFollowed) {
    const CVhdBuilder parent = CVhdBuilder::Dynamic(40).Block(0, 'p').Block(1, 'p');
    parent.WriteTo(m_Dir, "parent.vhd");
    const std::string name("p\0a\0r\0e\0n\0t\0.\0v\0h\0d\0", 20);
    Open(CVhdBuilder::Differencing(40).Block(1, 'c').Bitmap(1, "\x80").Locator(0, "W2ru", name),
         DiskType_VhdDifferencing);
    EXPECT_SECTOR_NOT_FOUND(Read(0));
    EXPECT_SECTOR_NOT_FOUND(Read(9));
    EXPECT_SAME_BYTES(std::string(512, 'c'), ReadSector(8));
}

TEST_F(VHDFileReaderRead, EveryFailureReachesTheCaller) {
    const std::string path = CVhdBuilder::Dynamic(40).Block(1, 'x').WriteTo(m_Dir);
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read}) {
        ASSERT_OK(m_Reader.OpenDisk(path.c_str(), DiskType_VhdDynamic));
        // Each run starts with a copy that has no bitmap yet.
        EXPECT_EQ(2U, WalkFailures(op, [&] {
                      CVHDFileReader fresh = m_Reader;
                      return fresh.ReadSector(8, m_Sector.data(), 512);
                  }));
    }
    Open(CVhdBuilder::Fixed(8), DiskType_VhdFixed);
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return Read(3); }));
}

TEST_F(VHDFileReaderRead, OnlyItsOwnTriplesAreTheConditions) {
    const struct {
        int type;
        unsigned long module;
        unsigned long code;
        int isEnd;
        int isNotFound;
    } rows[] = {
        {3, 4001, 1, 1, 0}, {3, 4001, 2, 0, 1}, {3, 4001, 3, 0, 0}, {7, 4001, 1, 0, 0},
        {7, 4001, 2, 0, 0}, {3, 1001, 1, 0, 0}, {3, 1001, 2, 0, 0}, {4, 4001, 1, 0, 0},
    };
    for (const auto& row : rows) {
        CZuError error;
        error.SetError(row.type, row.module, row.code, "x", __FILE__, __LINE__);
        EXPECT_EQ(row.isEnd, m_Reader.IsErrorEOF(error)) << row.type << "/" << row.module << "/" << row.code;
        EXPECT_EQ(row.isNotFound, m_Reader.IsErrorSectorNotFound(error))
            << row.type << "/" << row.module << "/" << row.code;
    }
    EXPECT_EQ(0, m_Reader.IsErrorEOF(CZuError()));
    EXPECT_EQ(0, m_Reader.IsErrorSectorNotFound(CZuError()));
}

}  // namespace
