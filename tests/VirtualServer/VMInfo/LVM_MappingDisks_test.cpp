#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/DriveOfFile.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/HardDisks.h"
#include "tests/support/LdmGroupBuilder.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VhdBuilder.h"
#include "tests/support/VmdkDescriptorBuilder.h"
#include "tests/support/VmdkSparseBuilder.h"

// Disks are backed up block by block, and dumped. What the dump alone tells of the bytes of their volumes, taken from
// the blocks, has to be what is read from the disks.

namespace {

constexpr uint64_t DiskSectors = 4096;
constexpr uint32_t FlatBlockSectors = 48;  // no divisor of a disk, nor of an extent
constexpr char NotOccupied[] = "Offset seems to be not occupied in the disk";

bool IsZeros(const std::string& bytes) {
    return bytes.find_first_not_of('\0') == std::string::npos;
}

std::string PlainDisk() {
    return CPartitionTableBuilder()
               .Sectors(DiskSectors)
               .Slot(0, 7, 63, 4000)
               .Ntfs(63)
               .Image()
               .Bytes()
               .substr(0, 32768) +
           NumberedSectors(64, DiskSectors - 64);
}

class LvmMappingDisks : public testing::Test {
protected:
    // Each makes a disk that holds these bytes, and keeps the blocks of its files.

    void AddFlat(const std::string& bytes) {
        const std::string name = NextName();
        LVM_HardDisk_t& disk = Add(VirtualProdType_VMware);
        disk.Disks = {FlatDescriptor(name, {bytes})};
        BackUp(VirtualProdType_VMware, name + "-f0", DiskType_MonolithicFlat, name + "_00000000");
    }

    void AddSplitFlat(const std::string& bytes) {
        const std::string name = NextName();
        LVM_HardDisk_t& disk = Add(VirtualProdType_VMware);
        const size_t cut = 960 * 512;
        disk.Disks = {FlatDescriptor(name, {bytes.substr(0, cut), bytes.substr(cut, cut), bytes.substr(2 * cut)})};
        for (const char index : {'0', '1', '2'})
            BackUp(VirtualProdType_VMware, name + "-f" + index, DiskType_MonolithicFlat, name + "_0000000" + index);
    }

    void AddSparse(const std::string& bytes) {
        const std::string name = NextName();
        LVM_HardDisk_t& disk = Add(VirtualProdType_VMware);
        disk.Disks = {SparseLink(name, bytes, 1)};
        BackUp(VirtualProdType_VMware, name, DiskType_MonolithicSparse, name + "_00000000");
    }

    // The second extent begins in the middle of a grain of the disk.
    void AddSplitSparse(const std::string& bytes) {
        const std::string name = NextName();
        const size_t cut = 1004 * 512;
        SparseOf(bytes.substr(0, cut), 1).WriteTo(m_Dir, name + "-s0");
        SparseOf(bytes.substr(cut), 1).WriteTo(m_Dir, name + "-s1");
        LVM_HardDisk_t& disk = Add(VirtualProdType_VMware);
        disk.Disks = {LinkOf(CVmdkDescriptorBuilder()
                                 .CreateType("twoGbMaxExtentSparse")
                                 .Extent(1004, "SPARSE", name + "-s0")
                                 .Extent(bytes.size() / 512 - 1004, "SPARSE", name + "-s1")
                                 .WriteTo(m_Dir, name),
                             DiskType_TwoGbMaxExtentSparse, name)};
        for (const char index : {'0', '1'})
            BackUp(VirtualProdType_VMware, name + "-s" + index, DiskType_MonolithicSparse, name + "_0000000" + index);
    }

    // Of three grains each link has one; the base has other bytes where a child hides them.
    void AddChain(const std::string& bytes) {
        const std::string name = NextName();
        std::string base = bytes;
        for (size_t grain = 0; grain * 4096 < base.size(); ++grain) {
            if (grain % 3 != 0)
                base.replace(grain * 4096, 4096, std::string(4096, 'h'));
        }
        LVM_HardDisk_t& disk = Add(VirtualProdType_VMware);
        disk.Disks = {FlatDescriptor(name, {base}), SparseLink(name + "-child", bytes, 3, 1),
                      SparseLink(name + "-top", bytes, 3, 2)};
        BackUp(VirtualProdType_VMware, name + "-f0", DiskType_MonolithicFlat, name + "_00000000");
        for (const char* const link : {"-child", "-top"})
            BackUp(VirtualProdType_VMware, name + link, DiskType_MonolithicSparse, name + link + "_00000000");
    }

    void AddFixedVhd(const std::string& bytes) {
        const std::string name = NextName();
        CVhdBuilder::Fixed(bytes.size() / 512).Data(0, bytes).WriteTo(m_Dir, name);
        LVM_HardDisk_t& disk = Add(VirtualProdType_HyperV);
        disk.Disks = {LinkOf(m_Dir.File(name), DiskType_VhdFixed, name, FlatBlockSectors)};
        BackUp(VirtualProdType_HyperV, name, DiskType_VhdFixed, name);
    }

    // A base with other bytes in every fifth block, and a child that has those blocks, but for two sectors. The disk is
    // longer than its bytes: in a stream its last blocks never come.
    void AddVhdChain(const std::string& bytes) {
        const std::string name = NextName();
        const uint64_t sectors = bytes.size() / 512 + 300;
        CVhdBuilder base = CVhdBuilder::Dynamic(sectors).BlockSize(8192);
        CVhdBuilder child = CVhdBuilder::Differencing(sectors).BlockSize(8192);
        for (size_t block = 0; block < bytes.size() / 8192; ++block) {
            std::string part = bytes.substr(block * 8192, 8192);
            if (block % 5 == 4) {
                child.Block(block, part).Bitmap(block, std::string("\xF7\xFE") + std::string(510, '\0'));
                for (size_t at = 0; at < 8192; at += 512) {
                    if (at != 4 * 512 && at != 15 * 512)
                        part.replace(at, 512, std::string(512, 'h'));
                }
            }
            if (!IsZeros(part))
                base.Block(block, part);
        }
        base.WriteTo(m_Dir, name);
        child.WriteTo(m_Dir, name + "-child");
        LVM_HardDisk_t& disk = Add(VirtualProdType_HyperV);
        disk.Disks = {LinkOf(m_Dir.File(name), DiskType_VhdDynamic, name),
                      LinkOf(m_Dir.File(name + "-child"), DiskType_VhdDifferencing, name + "-child")};
        BackUp(VirtualProdType_HyperV, name, DiskType_VhdDynamic, name);
        BackUp(VirtualProdType_HyperV, name + "-child", DiskType_VhdDifferencing, name + "-child");
    }

    void AddRaw(const std::string& bytes) {
        const std::string name = NextName();
        m_Dir.Write(name, bytes);
        LVM_HardDisk_t& disk = Add(VirtualProdType_Physical);
        disk.Disks = {LinkOf(DriveOfFile(m_Dir.File(name)), DiskType_PhysicalDisk, name, FlatBlockSectors)};
        BackUp(VirtualProdType_Physical, "", DiskType_PhysicalDisk, name);
    }

    // Dumps the disks, and compares all volumes, sector by sector and in many longer pieces.
    void ExpectBlocksHoldTheVolumes(size_t volumes) {
        ASSERT_OK(m_Lvm.InitializeFromDisk(m_Disks));
        ASSERT_EQ(volumes, m_Lvm.GetVolumes().size());
        ASSERT_OK(m_Lvm.DumpVolumeInfoToFile(m_Dir.File("dump").c_str()));
        std::vector<LVM_Volume_t> dumped;
        SparseInfo_t disks;
        ASSERT_OK(CLVM::ReadVolumeInfoFromDump(m_Dir.File("dump").c_str(), dumped, &disks));
        for (size_t index = 0; index < volumes; ++index) {
            SCOPED_TRACE(m_Lvm.GetVolumes()[index].VolName);
            CompareVolume(m_Lvm.GetVolumes()[index], dumped.at(index), disks);
        }
    }

private:
    std::string NextName() const { return "disk" + std::to_string(m_Disks.size()); }

    LVM_HardDisk_t& Add(ProductType_t product) {
        LVM_HardDisk_t& disk = m_Disks.emplace_back();
        disk.ProductType = product;
        return disk;
    }

    Disk_t FlatDescriptor(const std::string& name, const std::vector<std::string>& extents) {
        CVmdkDescriptorBuilder descriptor;
        descriptor.CreateType(extents.size() > 1 ? "twoGbMaxExtentFlat" : "monolithicFlat");
        for (size_t index = 0; index < extents.size(); ++index) {
            const std::string file = name + "-f" + std::to_string(index);
            m_Dir.Write(file, extents[index]);
            descriptor.Extent(extents[index].size() / 512, "FLAT", file);
        }
        return LinkOf(descriptor.WriteTo(m_Dir, name),
                      extents.size() > 1 ? DiskType_TwoGbMaxExtentFlat : DiskType_MonolithicFlat, name,
                      FlatBlockSectors);
    }

    // The grains that hold something, of every `step` of them the one of number `first`.
    static CVmdkSparseBuilder SparseOf(const std::string& bytes, size_t step, size_t first = 0) {
        CVmdkSparseBuilder sparse;
        sparse.Capacity(bytes.size() / 512);
        for (size_t grain = first; grain * 4096 < bytes.size(); grain += step) {
            const std::string part = bytes.substr(grain * 4096, 4096);
            if (step != 1 || !IsZeros(part))
                sparse.Grain(grain, part);
        }
        return sparse;
    }

    Disk_t SparseLink(const std::string& name, const std::string& bytes, size_t step, size_t first = 0) {
        return LinkOf(SparseOf(bytes, step, first).WriteTo(m_Dir, name), DiskType_MonolithicSparse, name);
    }

    // An empty file name stands for the disk that was added last.
    void BackUp(ProductType_t product, const std::string& file, DiskType_t type, const std::string& extentName) {
        const std::string path = file.empty() ? m_Disks.back().Disks.back().FileName.c_str() : m_Dir.File(file);
        CArchiveVirtualDiskFile stream(product);
        ASSERT_OK(stream.Open(path.c_str(), type));
        CAutoMemory<char> record;
        Context_t context{};
        ASSERT_OK(stream.GetFirstBlock(record, FlatBlockSectors, context));
        std::map<uint64_t, std::string>& blocks = m_Blocks[extentName];
        for (;;) {
            CAutoMemory<char> block;
            uint64_t number = 0;
            if (stream.GetNextBlock(block, number, context).IsErrorSet())
                return;  // the end, or a disk's tail, which no volume here reaches
            blocks[number] = block.GetSize() != 0 ? std::string(block.GetPtr(), block.GetSize()) : std::string();
        }
    }

    // What the disks give, each read within what lies together.
    std::string ReadVolume(const LVM_Volume_t& volume, uint64_t offset, uint64_t length) {
        std::string bytes(length, '?');
        for (uint64_t done = 0; done < length;) {
            const uint32_t piece =
                CLVM::CountBytesTogether(volume, offset + done, static_cast<uint32_t>(length - done));
            EXPECT_OK(m_Lvm.ReadVolumeData(volume, offset + done, bytes.data() + done, piece, nullptr));
            done += piece;
        }
        return bytes;
    }

    std::string TakeFromBlocks(const std::vector<LVM_Disk_Offset_Len_t>& runs) {
        std::string bytes;
        for (const LVM_Disk_Offset_Len_t& run : runs) {
            const auto extent = m_Blocks.find(run.ExtentName.c_str());
            if (extent == m_Blocks.end() || extent->second.count(run.BlockNumber) == 0) {
                ADD_FAILURE() << "no block " << run.BlockNumber << " of " << run.ExtentName.c_str();
                return bytes;
            }
            const std::string& block = extent->second[run.BlockNumber];
            if (run.BlockOffset + run.Length > block.size()) {
                ADD_FAILURE() << "a block of " << block.size() << " bytes";
                return bytes;
            }
            bytes += block.substr(run.BlockOffset, run.Length);
        }
        return bytes;
    }

    // A hole is a failure here, and zeros there.
    void CompareRange(const LVM_Volume_t& volume, uint64_t offset, uint64_t length, const LVM_Volume_t& dumped,
                      const SparseInfo_t& disks) {
        const std::string expected = ReadVolume(volume, offset, length);
        std::vector<LVM_Disk_Offset_Len_t> runs;
        const CZuError error = CLVM::ConvertVolumeOffsetToDiskExtents(offset, length, dumped, disks, runs);
        const std::string found = TakeFromBlocks(runs);
        if (!error.IsErrorSet()) {
            EXPECT_SAME_BYTES(expected, found);
            return;
        }
        EXPECT_STREQ(NotOccupied, error.GetErrorText());
        EXPECT_SAME_BYTES(expected.substr(0, found.size()), found);
        EXPECT_TRUE(IsZeros(expected.substr(found.size(), 512 - (offset + found.size()) % 512)));
        ++m_Holes;
    }

    void CompareVolume(const LVM_Volume_t& volume, const LVM_Volume_t& dumped, const SparseInfo_t& disks) {
        uint64_t sectors = 0;
        for (const LVM_Segment_t& segment : volume.Segments)
            sectors = std::max(sectors, segment.LBAEnd);  // of a plain partition one more, which nothing holds
        const uint64_t bytes = sectors * 512;
        for (uint64_t at = 0; at < bytes && !HasFailure(); at += 512)
            CompareRange(volume, at, 512, dumped, disks);
        std::minstd_rand random(1);
        for (int turn = 0; turn < 60 && !HasFailure(); ++turn) {
            const uint64_t offset = random() % bytes;
            CompareRange(volume, offset, std::min<uint64_t>(bytes - offset, 1 + random() % 60'000), dumped, disks);
        }
    }

protected:
    CTempDir m_Dir;
    CLVM m_Lvm;
    std::vector<LVM_HardDisk_t> m_Disks;
    std::map<std::string, std::map<uint64_t, std::string>> m_Blocks;  // by extent and number
    int m_Holes = 0;
};

TEST_F(LvmMappingDisks, PartitionsOnFlatDisks) {
    AddFlat(PlainDisk());
    AddSplitFlat(PlainDisk());
    AddFixedVhd(PlainDisk());
    ExpectBlocksHoldTheVolumes(3);
    EXPECT_EQ(0, m_Holes);
}

TEST_F(LvmMappingDisks, APartitionOnADrive) {
    SKIP_UNLESS_A_FILE_CAN_BE_A_DRIVE(m_Dir.Write("file", PlainDisk()));
    AddRaw(PlainDisk());
    ExpectBlocksHoldTheVolumes(1);
    EXPECT_EQ(0, m_Holes);
}

TEST_F(LvmMappingDisks, PartitionsOnSparseDisks) {
    std::string bytes = PlainDisk();
    for (const size_t sector : {200U, 1000U, 3000U})
        bytes.replace(sector * 512, 100 * 512, std::string(100 * 512, '\0'));
    AddSparse(bytes);
    AddSplitSparse(bytes);
    AddVhdChain(bytes);
    ExpectBlocksHoldTheVolumes(3);
    EXPECT_LT(3 * 3 * 80, m_Holes);
}

TEST_F(LvmMappingDisks, APartitionOnAChain) {
    AddChain(PlainDisk());
    ExpectBlocksHoldTheVolumes(1);
    EXPECT_EQ(0, m_Holes);
}

TEST_F(LvmMappingDisks, VolumesAcrossDisksOfDifferentKinds) {
    const CLdmGroupBuilder group = CLdmGroupBuilder(4)
                                       .Volume(LdmRaid5(8, {{0, 0, 240}, {1, 0, 240}, {2, 16, 240}, {3, 0, 240}}))
                                       .Volume(LdmStriped(24, {{3, 300, 240}, {1, 250, 240}, {0, 500, 240}}))
                                       .Volume(LdmSpanned({{2, 500, 33}, {0, 800, 100}, {3, 700, 7}}))
                                       .Volume(LdmSimple({1, 1000, 500}));
    AddFlat(group.Image(0).Bytes());
    AddSparse(group.Image(1).Bytes());
    AddVhdChain(group.Image(2).Bytes());
    AddChain(group.Image(3).Bytes());
    ExpectBlocksHoldTheVolumes(4);
}

}  // namespace
