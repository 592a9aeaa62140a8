#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/HardDisks.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkSparseBuilder.h"

// Chains of VMDK and VHD files as one run of bytes.

#define EXPECT_VMDK_OUT_OF_RANGE(expression) EXPECT_CONDITION_TEXT(expression, 7, 3001, 1, "Sector Out of Range")
#define EXPECT_VHD_OUT_OF_RANGE(expression) EXPECT_CONDITION_TEXT(expression, 7, 4001, 1, "Sector Out of Range")

namespace {

using Sectors_t = std::map<uint64_t, std::string>;  // by number, what is held

// A dynamic or differencing VHD of blocks of eight sectors: as much of one as a reader looks at.
class CSmallVhd {
public:
    CSmallVhd(uint64_t sectors, uint32_t type) : m_SectorCount(sectors), m_Type(type) {}

    CSmallVhd& Hold(uint64_t sector, const std::string& bytes) {
        m_Held[sector] = bytes;
        return *this;
    }

    // Its block is there, and the sector's bit is clear.
    CSmallVhd& AllocateOnly(uint64_t sector) {
        m_Allocated.push_back(sector / BlockSectors);
        return *this;
    }

    CSmallVhd& TableEntries(uint32_t count) {
        m_TableEntries = count;
        return *this;
    }

    std::string WriteTo(const CTempDir& dir, const std::string& name) const {
        std::string file = Footer() + Header();
        const size_t tableOffset = file.size();
        PutBytes(file, tableOffset, std::string(TableBytes(), '\xFF'));
        for (uint64_t block = (m_SectorCount + BlockSectors - 1) / BlockSectors; block-- > 0;)
            PutBlock(file, tableOffset, block);
        return dir.Write(name, file + Footer());
    }

private:
    static constexpr uint64_t BlockSectors = 8;

    uint32_t EntryCount() const {
        return m_TableEntries.value_or(static_cast<uint32_t>((m_SectorCount + BlockSectors - 1) / BlockSectors));
    }
    size_t TableBytes() const { return (EntryCount() * 4 + 511) / 512 * 512; }

    std::string Footer() const {
        std::string footer(512, '\0');
        PutBytes(footer, 0, "conectix");
        PutBe32(footer, 12, 0x00010000);
        PutBe64(footer, 16, 512);
        PutBe64(footer, 40, m_SectorCount * 512);
        PutBe64(footer, 48, m_SectorCount * 512);
        PutBe32(footer, 60, m_Type);
        return footer;
    }

    std::string Header() const {
        std::string header(1024, '\0');
        PutBytes(header, 0, "cxsparse");
        PutBe64(header, 8, ~uint64_t{0});
        PutBe64(header, 16, 1536);
        PutBe32(header, 24, 0x00010000);
        PutBe32(header, 28, EntryCount());
        PutBe32(header, 32, BlockSectors * 512);
        return header;
    }

    // The last block lies first, so that no run goes over a block by chance.
    void PutBlock(std::string& file, size_t tableOffset, uint64_t block) const {
        std::string bytes(512 + BlockSectors * 512, '\0');
        bool isThere = std::count(m_Allocated.begin(), m_Allocated.end(), block) != 0;
        for (uint64_t inBlock = 0; inBlock < BlockSectors; ++inBlock) {
            PutBytes(bytes, 512 + inBlock * 512, std::string(512, '!'));
            const auto held = m_Held.find(block * BlockSectors + inBlock);
            if (held == m_Held.end())
                continue;
            isThere = true;
            bytes[0] = static_cast<char>(static_cast<uint8_t>(bytes[0]) | (0x80U >> inBlock));
            PutBytes(bytes, 512 + inBlock * 512, held->second);
        }
        if (!isThere)
            return;
        PutBe32(file, tableOffset + block * 4, static_cast<uint32_t>(file.size() / 512));
        file += bytes;
    }

    uint64_t m_SectorCount;
    uint32_t m_Type;
    Sectors_t m_Held;
    std::vector<uint64_t> m_Allocated;
    std::optional<uint32_t> m_TableEntries;
};

constexpr uint32_t DynamicVhd = 3;
constexpr uint32_t DifferencingVhd = 4;

class HardDiskChain : public testing::Test {
protected:
    // Sparse files, base first. They have 256 sectors in grains of 8 unless they say otherwise.
    void OpenSparse(const std::vector<CVmdkSparseBuilder>& links) {
        std::vector<Disk_t> disks;
        for (const CVmdkSparseBuilder& link : links)
            disks.push_back(
                LinkOf(link.WriteTo(m_Dir, "link" + std::to_string(disks.size())), DiskType_MonolithicSparse));
        ASSERT_OK(m_Vmdk.OpenHardDisk(disks));
    }

    void OpenVhd(const std::vector<CSmallVhd>& links) {
        std::vector<Disk_t> disks;
        for (const CSmallVhd& link : links)
            disks.push_back(LinkOf(link.WriteTo(m_Dir, "link" + std::to_string(disks.size())),
                                   disks.empty() ? DiskType_VhdDynamic : DiskType_VhdDifferencing));
        ASSERT_OK(m_Vhd.OpenHardDisk(disks));
    }

    CTempDir m_Dir;
    CHardDiskReader m_Vmdk{VirtualProdType_VMware};
    CHardDiskReader m_Vhd{VirtualProdType_HyperV};
    char m_Buffer[4096] = {};
};

TEST_F(HardDiskChain, TheNewestLinkThatHoldsASectorGivesIt) {
    OpenSparse({CVmdkSparseBuilder().Grain(0, 'a').Grain(1, 'b').Grain(2, 'c'),
                CVmdkSparseBuilder().Grain(1, 'B').Grain(2, 'C'), CVmdkSparseBuilder().Grain(2, '3')});
    EXPECT_SAME_BYTES(std::string(4096, 'a') + std::string(4096, 'B') + std::string(4096, '3') + std::string(4096, 0),
                      ReadDisk(m_Vmdk, 0, 16384));
    EXPECT_EQ(std::string("aB"), ReadDisk(m_Vmdk, 4095, 2));
    EXPECT_EQ(std::string("3") + '\0', ReadDisk(m_Vmdk, 12287, 2));
}

TEST_F(HardDiskChain, ADifferencingDisksSectorsLieOverItsParents) {
    CSmallVhd base(16, DynamicVhd);
    for (uint64_t sector = 0; sector < 8; ++sector)
        base.Hold(sector, std::string(512, static_cast<char>('a' + sector)));
    OpenVhd({base, CSmallVhd(16, DifferencingVhd).Hold(1, std::string(512, 'B')).Hold(6, std::string(512, 'G')),
             CSmallVhd(16, DifferencingVhd).Hold(6, std::string(512, '7')).AllocateOnly(9)});
    std::string expected;
    for (const char fill : {'a', 'B', 'c', 'd', 'e', 'f', '7', 'h', '\0', '\0'})
        expected += std::string(512, fill);
    EXPECT_SAME_BYTES(expected, ReadDisk(m_Vhd, 0, 5120));
}

TEST_F(HardDiskChain, WhatNoLinkHoldsIsZerosAndNoFailure) {
    OpenSparse({CVmdkSparseBuilder(), CVmdkSparseBuilder()});
    const CFaultyFiles counting;
    EXPECT_SAME_BYTES(std::string(256 * 512, '\0'), ReadDisk(m_Vmdk, 0, 256 * 512));
    EXPECT_SAME_BYTES(std::string(10, '\0'), ReadDisk(m_Vmdk, 700, 10));
    EXPECT_SAME_BYTES(std::string(10, '\0'), ReadDisk(m_Vmdk, 705, 10));
    EXPECT_EQ(0U, counting.Calls(FaultOp::Read));
}

TEST_F(HardDiskChain, ASecondReadOfASectorTouchesNoFile) {
    OpenSparse({CVmdkSparseBuilder().Grain(0, NumberedSectors(0, 8))});
    const CFaultyFiles counting;
    EXPECT_SAME_BYTES(NumberedSectors(3, 1).substr(0, 100), ReadDisk(m_Vmdk, 3 * 512, 100));
    EXPECT_EQ((std::vector<uint32_t>{512}), counting.Sizes(FaultOp::Read)) << "the whole sector is kept";
    EXPECT_SAME_BYTES(NumberedSectors(3, 1).substr(300), ReadDisk(m_Vmdk, 3 * 512 + 300, 212));
    EXPECT_SAME_BYTES(NumberedSectors(3, 1), ReadDisk(m_Vmdk, 3 * 512, 512));
    EXPECT_EQ(1U, counting.Calls(FaultOp::Read));
    EXPECT_SAME_BYTES(NumberedSectors(4, 1), ReadDisk(m_Vmdk, 4 * 512, 512));
    EXPECT_SAME_BYTES(NumberedSectors(4, 1).substr(8), ReadDisk(m_Vmdk, 4 * 512 + 8, 504));
    EXPECT_EQ(2U, counting.Calls(FaultOp::Read)) << "a whole first sector is kept too";
}

TEST_F(HardDiskChain, AReadOverASectorsEndTakesTheRestStraight) {
    OpenSparse({CVmdkSparseBuilder().Grain(0, NumberedSectors(0, 8))});
    const CFaultyFiles counting;
    EXPECT_SAME_BYTES(NumberedSectors(0, 2).substr(500, 100), ReadDisk(m_Vmdk, 500, 100));
    EXPECT_EQ((std::vector<uint32_t>{512, 88}), counting.Sizes(FaultOp::Read));
}

// The cache stays on the first sector of a request, so that the ones behind it come from the file again.
TEST_F(HardDiskChain, OnlyTheFirstSectorOfARequestIsKept) {
    OpenSparse({CVmdkSparseBuilder().Grain(0, NumberedSectors(0, 8))});
    const CFaultyFiles counting;
    EXPECT_SAME_BYTES(NumberedSectors(1, 3), ReadDisk(m_Vmdk, 512, 1536));
    const unsigned int before = counting.Calls(FaultOp::Read);
    EXPECT_SAME_BYTES(NumberedSectors(1, 1).substr(0, 8), ReadDisk(m_Vmdk, 512, 8));
    EXPECT_EQ(before, counting.Calls(FaultOp::Read));
    EXPECT_SAME_BYTES(NumberedSectors(2, 1).substr(0, 8), ReadDisk(m_Vmdk, 1024, 8));
    EXPECT_EQ(before + 1, counting.Calls(FaultOp::Read));
    EXPECT_SAME_BYTES(NumberedSectors(2, 3), ReadDisk(m_Vmdk, 1024, 1536));
    EXPECT_EQ((std::vector<uint32_t>{1536, 512, 1024}), counting.Sizes(FaultOp::Read));
}

TEST_F(HardDiskChain, AReadOfNothingStillLoadsTheSector) {
    OpenSparse({CVmdkSparseBuilder().Grain(0, NumberedSectors(0, 8))});
    const CFaultyFiles counting;
    EXPECT_OK(m_Vmdk.ReadHardDiskData(600, nullptr, 0));
    EXPECT_EQ(1U, counting.Calls(FaultOp::Read));
    EXPECT_SAME_BYTES(NumberedSectors(1, 1), ReadDisk(m_Vmdk, 512, 512));
    EXPECT_EQ(1U, counting.Calls(FaultOp::Read));
    EXPECT_VMDK_OUT_OF_RANGE(m_Vmdk.ReadHardDiskData(256 * 512, nullptr, 0));
}

TEST_F(HardDiskChain, AHoleIsKeptLikeASector) {
    OpenVhd({CSmallVhd(16, DynamicVhd).Hold(0, NumberedSectors(0, 1))});
    EXPECT_SAME_BYTES(std::string(8, '\0'), ReadDisk(m_Vhd, 512, 8));
    const CFaultyFiles counting;
    EXPECT_SAME_BYTES(std::string(500, '\0'), ReadDisk(m_Vhd, 520, 500));
    EXPECT_EQ(0U, counting.Calls(FaultOp::Read));
    EXPECT_SAME_BYTES(NumberedSectors(0, 1), ReadDisk(m_Vhd, 0, 512)) << "the zeros didn't stay for another sector";
}

TEST_F(HardDiskChain, ALongReadOfOneGrainIsOneReadOfTheFile) {
    OpenSparse({CVmdkSparseBuilder().GrainSize(128).Capacity(1024).Grain(3, NumberedSectors(384, 128))});
    const CFaultyFiles counting;
    EXPECT_SAME_BYTES(NumberedSectors(384, 128), ReadDisk(m_Vmdk, 384 * 512, 65536));
    EXPECT_EQ((std::vector<uint32_t>{65536}), counting.Sizes(FaultOp::Read));
}

TEST_F(HardDiskChain, ClosingEmptiesTheCache) {
    OpenSparse({CVmdkSparseBuilder().Grain(0, 'a')});
    EXPECT_EQ("a", ReadDisk(m_Vmdk, 0, 1));
    EXPECT_OK(m_Vmdk.CloseHardDisk());
    OpenSparse({CVmdkSparseBuilder().Grain(0, 'b')});
    EXPECT_EQ("b", ReadDisk(m_Vmdk, 0, 1));
}

TEST_F(HardDiskChain, AFailureAtTheFirstSectorLeavesNoStaleCache) {
    OpenSparse({CVmdkSparseBuilder().Grain(0, NumberedSectors(0, 8))});
    for (const uint32_t length : {8U, 512U, 2048U}) {
        EXPECT_EQ(NumberedSectors(0, 1).substr(0, 8), ReadDisk(m_Vmdk, 0, 8));
        {
            const CFaultyFiles faulty(Fault_t{FaultOp::Read, 0, EIO});
            EXPECT_SYSTEM_ERROR(m_Vmdk.ReadHardDiskData(512, m_Buffer, length), EIO);
        }
        const CFaultyFiles counting;
        EXPECT_EQ(NumberedSectors(1, 1).substr(0, 8), ReadDisk(m_Vmdk, 512, 8)) << length;
        EXPECT_EQ(NumberedSectors(0, 1).substr(0, 8), ReadDisk(m_Vmdk, 0, 8)) << length;
        EXPECT_EQ(2U, counting.Calls(FaultOp::Read)) << length;
    }
}

TEST_F(HardDiskChain, AFailureAtALaterSectorEmptiesTheCache) {
    OpenSparse({CVmdkSparseBuilder().Grain(0, NumberedSectors(0, 8))});
    EXPECT_EQ(NumberedSectors(0, 1).substr(0, 8), ReadDisk(m_Vmdk, 0, 8));
    {
        const CFaultyFiles faulty(Fault_t{FaultOp::Read, 0, EIO});
        EXPECT_SYSTEM_ERROR(m_Vmdk.ReadHardDiskData(0, m_Buffer, 600), EIO);
        EXPECT_EQ((std::vector<uint32_t>{88}), faulty.Sizes(FaultOp::Read)) << "the first came from the cache";
    }
    const CFaultyFiles counting;
    EXPECT_EQ(NumberedSectors(0, 1).substr(0, 8), ReadDisk(m_Vmdk, 0, 8));
    EXPECT_EQ(1U, counting.Calls(FaultOp::Read));
}

TEST_F(HardDiskChain, EveryFailureOfAReadReachesTheCaller) {
    OpenVhd({CSmallVhd(32, DynamicVhd).Hold(3, NumberedSectors(3, 1)).Hold(17, NumberedSectors(17, 1)),
             CSmallVhd(32, DifferencingVhd).Hold(2, NumberedSectors(2, 1)).AllocateOnly(20)});
    for (const FaultOp op : {FaultOp::Read, FaultOp::Seek}) {
        for (unsigned int failAt = 0;; ++failAt) {
            CFaultyFiles faulty(Fault_t{op, failAt, EIO});
            const CZuError error = m_Vhd.ReadHardDiskData(512, m_Buffer, 4096);
            EXPECT_EQ(faulty.Fired(), error.IsErrorSet()) << "call " << failAt;
            if (!faulty.Fired())
                break;
        }
    }
    EXPECT_SAME_BYTES(NumberedSectors(2, 2), std::string(m_Buffer + 512, 1024));
    EXPECT_SAME_BYTES(std::string(512, '\0'), std::string(m_Buffer, 512));
}

TEST_F(HardDiskChain, AFailureOfANewerLinkIsNoReasonToAskTheOlder) {
    OpenSparse({CVmdkSparseBuilder().Grain(0, 'a'), CVmdkSparseBuilder().Grain(0, 'B')});
    {
        const CFaultyFiles faulty(Fault_t{FaultOp::Read, 0, EIO});
        EXPECT_SYSTEM_ERROR(m_Vmdk.ReadHardDiskData(0, m_Buffer, 512), EIO);
        EXPECT_EQ(1U, faulty.Calls(FaultOp::Read));
    }
    EXPECT_EQ("B", ReadDisk(m_Vmdk, 0, 1));
}

// Each link answers for itself: the newest one's end ends the disk, an older one's end is a failure where
// nothing newer holds the sector.
TEST_F(HardDiskChain, LinksOfDifferentSizesEndWhereTheirAnswersDo) {
    OpenSparse({CVmdkSparseBuilder().Capacity(16).Grain(1, 'a'),
                CVmdkSparseBuilder().Capacity(32).Grain(0, 'B').Grain(2, 'C')});
    EXPECT_SAME_BYTES(std::string(4096, 'B') + std::string(4096, 'a') + std::string(4096, 'C'),
                      ReadDisk(m_Vmdk, 0, 3 * 4096));
    EXPECT_VMDK_OUT_OF_RANGE(m_Vmdk.ReadHardDiskData(24 * 512, m_Buffer, 1));
    EXPECT_VMDK_OUT_OF_RANGE(m_Vmdk.ReadHardDiskData(23 * 512, m_Buffer, 513));
    EXPECT_VMDK_OUT_OF_RANGE(m_Vmdk.ReadHardDiskData(32 * 512, m_Buffer, 1));
    EXPECT_OK(m_Vmdk.CloseHardDisk());
    OpenSparse({CVmdkSparseBuilder().Capacity(32).Grain(3, 'a'), CVmdkSparseBuilder().Capacity(16)});
    EXPECT_VMDK_OUT_OF_RANGE(m_Vmdk.ReadHardDiskData(24 * 512, m_Buffer, 1)) << "the newest has no such sector";
}

TEST_F(HardDiskChain, ReadsBehindTheEndFailAndEmptyTheCache) {
    OpenVhd({CSmallVhd(12, DynamicVhd).Hold(11, NumberedSectors(11, 1))});
    EXPECT_EQ(NumberedSectors(11, 1), ReadDisk(m_Vhd, 11 * 512, 512));
    EXPECT_VHD_OUT_OF_RANGE(m_Vhd.ReadHardDiskData(11 * 512, m_Buffer, 513));
    EXPECT_VHD_OUT_OF_RANGE(m_Vhd.ReadHardDiskData(12 * 512, m_Buffer, 1));
    EXPECT_VHD_OUT_OF_RANGE(m_Vhd.ReadHardDiskData(~uint64_t{0}, m_Buffer, 1));
    EXPECT_VHD_OUT_OF_RANGE(m_Vhd.ReadHardDiskData(~uint64_t{0}, m_Buffer, 2)) << "no place wraps to the front";
    const CFaultyFiles counting;
    EXPECT_EQ(NumberedSectors(11, 1), ReadDisk(m_Vhd, 11 * 512, 512));
    EXPECT_EQ(1U, counting.Calls(FaultOp::Read));
}

TEST_F(HardDiskChain, AVhdWhoseTableIsTooShortFailsBehindIt) {
    OpenVhd({CSmallVhd(16, DynamicVhd).Hold(0, NumberedSectors(0, 1)).TableEntries(1)});
    EXPECT_CONDITION(m_Vhd.ReadHardDiskData(8 * 512, m_Buffer, 1), 3, 4001, 1);
    EXPECT_CONDITION(m_Vhd.ReadHardDiskData(512, m_Buffer, 4096), 3, 4001, 1);
}

TEST_F(HardDiskChain, FlatFilesAreLinksToo) {
    CImageFile base;
    base.Put(0, NumberedSectors(0, 64));
    std::vector<Disk_t> disks = {FlatLink(m_Dir, base)};
    disks.push_back(LinkOf(CVmdkSparseBuilder().Capacity(64).Grain(2, 'C').WriteTo(m_Dir), DiskType_MonolithicSparse));
    ASSERT_OK(m_Vmdk.OpenHardDisk(disks));
    EXPECT_SAME_BYTES(NumberedSectors(8, 8) + std::string(4096, 'C') + NumberedSectors(24, 40),
                      ReadDisk(m_Vmdk, 4096, 56 * 512));
}

TEST_F(HardDiskChain, HolesAreCountedOverAllLinks) {
    OpenSparse({CVmdkSparseBuilder().Grain(2, 'a'), CVmdkSparseBuilder().Grain(5, 'B')});
    const struct {
        uint64_t offset;
        uint64_t most;
        uint64_t expected;
    } rows[] = {
        {0, 100, 100},
        {0, 8192, 8192},
        {0, 1 << 20, 8192},
        {100, 1 << 20, 8092},
        {8191, 1, 1},
        {8191, 100, 1},
        {8192, 100, 0},
        {12287, 1, 0},
        {12288, ~uint64_t{0}, 8192},
        {24576, ~uint64_t{0}, 256 * 512 - 24576},
        {0, 0, 0},
        {256 * 512, 100, 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, m_Vmdk.CountHoleBytes(row.offset, row.most)) << row.offset << ", " << row.most;
}

TEST_F(HardDiskChain, AFailureIsNoHole) {
    OpenVhd({CSmallVhd(16, DynamicVhd).AllocateOnly(0)});
    {
        const CFaultyFiles faulty(Fault_t{FaultOp::Read, 0, EIO});
        EXPECT_EQ(0U, m_Vhd.CountHoleBytes(0, 512));
        EXPECT_TRUE(faulty.Fired());
    }
    EXPECT_EQ(512U, m_Vhd.CountHoleBytes(0, 512));
}

// The disk that the links make together, sector by sector: nothing of a sector that fails.
struct ChainModel_t {
    struct Link_t {
        uint64_t sectors;
        Sectors_t held;
    };

    std::vector<Link_t> links;

    std::optional<std::string> Sector(uint64_t number) const {
        for (size_t index = links.size(); index-- > 0;) {
            if (number >= links[index].sectors)
                return std::nullopt;
            const auto found = links[index].held.find(number);
            if (found != links[index].held.end())
                return found->second;
        }
        return std::string(512, '\0');
    }

    std::optional<std::string> Read(uint64_t offset, uint32_t length) const {
        std::string bytes;
        const uint64_t last = (offset + std::max<uint32_t>(length, 1) - 1) / 512;
        for (uint64_t sector = offset / 512; sector <= last; ++sector) {
            const std::optional<std::string> part = Sector(sector);
            if (!part)
                return std::nullopt;
            bytes += *part;
        }
        return bytes.substr(offset % 512, length);
    }
};

// Random requests, some behind the end, read as the model has them.
void CompareWithModel(CHardDiskReader& disk, const ChainModel_t& model, std::mt19937& random) {
    for (int request = 0; request < 200; ++request) {
        const uint64_t offset = random() % (80 * 512);
        const auto length = static_cast<uint32_t>(random() % (random() % 3 == 0 ? 700 : 40 * 512));
        const std::optional<std::string> expected = model.Read(offset, length);
        std::string read(length + 16, '?');
        const CZuError error = disk.ReadHardDiskData(offset, read.data(), length);
        ASSERT_EQ(expected.has_value(), !error.IsErrorSet()) << length << " bytes at " << offset;
        EXPECT_EQ(std::string(16, '?'), read.substr(length)) << "nothing is written behind what was asked for";
        if (!expected)
            continue;
        EXPECT_SAME_BYTES(*expected, read.substr(0, length)) << length << " bytes at " << offset;
    }
}

// What is told to be a hole is one, and ends in front of a sector that is held or that nobody has.
void CompareHolesWithModel(CHardDiskReader& disk, const ChainModel_t& model) {
    for (uint64_t sector = 0; sector < 80; ++sector) {
        const uint64_t holes = disk.CountHoleBytes(sector * 512, 80 * 512) / 512;
        const std::optional<std::string> first = model.Sector(sector);
        if (first && *first == std::string(512, '\0')) {
            EXPECT_GE(holes, 1U) << sector;
        }
        for (uint64_t at = sector; at < sector + holes; ++at)
            EXPECT_EQ(std::string(512, '\0'), model.Sector(at).value_or("none")) << at;
    }
}

TEST_F(HardDiskChain, SparseChainsReadAsTheirModel) {
    for (uint32_t seed = 0; seed < 40; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        ChainModel_t model;
        std::vector<CVmdkSparseBuilder> links;
        for (size_t count = 1 + random() % 4; links.size() < count;) {
            const uint64_t grainSize = uint64_t{1} << random() % 4U;
            const uint64_t sectors = random() % 4 == 0 ? 40 + random() % 24 : 64;
            CVmdkSparseBuilder link;
            link.Capacity(sectors).GrainSize(grainSize);
            ChainModel_t::Link_t told{sectors, {}};
            std::vector<uint64_t> grains;
            for (uint64_t grain = 0; grain * grainSize < sectors; ++grain) {
                if (random() % 5 < 2)
                    grains.push_back(grain);
            }
            if (random() % 2 == 0)
                std::shuffle(grains.begin(), grains.end(), random);
            for (const uint64_t grain : grains) {
                const std::string bytes = PatternedBytes(grainSize * 512, links.size() * 1000 + grain + 1);
                link.Grain(grain, bytes);
                for (uint64_t inGrain = 0; inGrain < grainSize; ++inGrain)
                    told.held[grain * grainSize + inGrain] = bytes.substr(inGrain * 512, 512);
            }
            links.push_back(link);
            model.links.push_back(told);
        }
        ASSERT_OK(m_Vmdk.CloseHardDisk());
        OpenSparse(links);
        CompareWithModel(m_Vmdk, model, random);
        CompareHolesWithModel(m_Vmdk, model);
    }
}

TEST_F(HardDiskChain, VhdChainsReadAsTheirModel) {
    for (uint32_t seed = 0; seed < 40; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        ChainModel_t model;
        std::vector<CSmallVhd> links;
        for (size_t count = 1 + random() % 4; links.size() < count;) {
            const uint64_t sectors = random() % 4 == 0 ? 40 + random() % 24 : 64;
            CSmallVhd link(sectors, links.empty() ? DynamicVhd : DifferencingVhd);
            ChainModel_t::Link_t told{sectors, {}};
            for (uint64_t sector = 0; sector < sectors; ++sector) {
                if (random() % 16 == 0)
                    link.AllocateOnly(sector);
                if (sector / 8 % 3 == links.size() % 3 || random() % 3 != 0)
                    continue;
                told.held[sector] = PatternedBytes(512, links.size() * 1000 + sector + 1);
                link.Hold(sector, told.held[sector]);
            }
            links.push_back(link);
            model.links.push_back(told);
        }
        ASSERT_OK(m_Vhd.CloseHardDisk());
        OpenVhd(links);
        CompareWithModel(m_Vhd, model, random);
        CompareHolesWithModel(m_Vhd, model);
    }
}

}  // namespace
