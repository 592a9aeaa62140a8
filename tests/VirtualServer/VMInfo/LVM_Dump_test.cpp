#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "tests/support/CowdBuilder.h"
#include "tests/support/DriveOfFile.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/HardDisks.h"
#include "tests/support/LdmGroupBuilder.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VhdBuilder.h"
#include "tests/support/VmdkDescriptorBuilder.h"
#include "tests/support/VmdkSparseBuilder.h"
#include "tests/support/VolumeDumpBuilder.h"

// What `CLVM` writes of its volumes and disks, for a machine that has neither.

namespace {

constexpr uint64_t DiskSectors = 4096;

// A record's field: the text and zeros up to its width.
std::string Field(const std::string& text, size_t width) {
    std::string field = text;
    field.resize(width, '\0');
    return field;
}

// The disk that all kinds of files hold here: a partition with NTFS, and numbers in every other sector.
const std::string& SectorsOfDisk() {
    static const std::string sectors = CPartitionTableBuilder()
                                           .Sectors(DiskSectors)
                                           .Slot(0, 7, 63, 4000)
                                           .Ntfs(63)
                                           .Image()
                                           .Bytes()
                                           .substr(0, 64 * 512) +
                                       NumberedSectors(64, DiskSectors - 64);
    return sectors;
}

LVM_HardDisk_t HardDisk(ProductType_t product, const std::vector<Disk_t>& links) {
    LVM_HardDisk_t disk;
    disk.ProductType = product;
    disk.Disks = links;
    return disk;
}

DumpedVolume_t DumpedOf(const LVM_Volume_t& volume) {
    DumpedVolume_t dumped;
    dumped.name = volume.VolName;
    dumped.guid = FormatGuidText(volume.VolGUID).c_str();
    dumped.isRaid5 = volume.IsRaid5 != 0 ? '1' : '0';
    dumped.allDiskFound = volume.AllDiskFound != 0 ? '1' : '0';
    for (const LVM_Segment_t& segment : volume.Segments) {
        DumpedSegment_t& to = dumped.segments.emplace_back();
        to.stripeSize = segment.StripeSize;
        to.lbaStart = segment.LBAStart;
        to.lbaEnd = segment.LBAEnd;
        for (const LVM_Component_t& component : segment.Components)
            to.components.push_back({component.HardDiskIndex, component.DiskLBAStart, component.DiskLBAEnd,
                                     component.VolLBAStart, component.VolLBAEnd,
                                     static_cast<uint32_t>(component.ColumnIndex),
                                     FormatGuidText(component.DiskGUID).c_str()});
    }
    return dumped;
}

// What reading makes of the ends: the sectors of the components on top.
std::vector<LVM_Volume_t> AsRead(std::vector<LVM_Volume_t> volumes) {
    for (LVM_Volume_t& volume : volumes) {
        for (LVM_Segment_t& segment : volume.Segments) {
            for (const LVM_Component_t& component : segment.Components)
                segment.LBAEnd += component.VolLBAEnd - component.VolLBAStart + 1;
        }
    }
    return volumes;
}

class LvmDump : public testing::Test {
protected:
    // Opens the disks and returns the dump of them.
    std::string Dump(std::vector<LVM_HardDisk_t> disks) {
        EXPECT_OK(m_Lvm.InitializeFromDisk(disks));
        EXPECT_OK(m_Lvm.DumpVolumeInfoToFile(Path().c_str()));
        return m_Dir.Read("dump");
    }

    std::string Path() const { return m_Dir.File("dump"); }

    // What the disk itself writes of its extents, taken apart.
    std::string SparseTextOf(LVM_HardDisk_t disk) {
        CHardDiskReader reader(disk.ProductType);
        EXPECT_OK(reader.OpenHardDisk(disk.Disks));
        CZuFile out;
        EXPECT_OK(out.Open(m_Dir.File("sparse").c_str(), OpenCreating | OpenTruncating | OpenForWriting, 384));
        EXPECT_OK(reader.DumpSparseInfo(out));
        EXPECT_OK(out.Close());
        std::string bytes = m_Dir.Read("sparse");
        std::string text = "disk\n";
        for (uint64_t links = TakeCount(bytes); links > 0; --links) {
            DumpedLink_t link;
            for (uint64_t extents = TakeCount(bytes); extents > 0; --extents)
                link.push_back(TakeSparseDump(bytes));
            text += TextOf(link);
        }
        EXPECT_EQ("", bytes);
        return text;
    }

    static uint64_t TakeCount(std::string& bytes) {
        const uint64_t count = std::stoull(bytes.substr(0, 8), nullptr, 16);
        bytes.erase(0, 8);
        return count;
    }

    LVM_HardDisk_t FlatDisk() {
        CImageFile image;
        image.Put(0, SectorsOfDisk());
        return FlatHardDisk(m_Dir, image, "flat");
    }

    std::string SparseFile(const std::string& name, const std::vector<uint64_t>& grains) {
        CVmdkSparseBuilder sparse;
        sparse.Capacity(DiskSectors);
        for (const uint64_t grain : grains)
            sparse.Grain(grain, SectorsOfDisk().substr(grain * 4096, 4096));
        return sparse.WriteTo(m_Dir, name);
    }

    LVM_HardDisk_t SparseDisk() {
        return HardDisk(VirtualProdType_VMware,
                        {LinkOf(SparseFile("sparse.vmdk", {0, 7, 100, 511}), DiskType_MonolithicSparse, "sparse")});
    }

    // Two sparse extents behind a descriptor, one of which has a directory entry without a table.
    LVM_HardDisk_t SplitDisk() {
        CVmdkSparseBuilder first;
        first.Capacity(2048).Grain(0, SectorsOfDisk().substr(0, 4096)).Grain(7, SectorsOfDisk().substr(7 * 4096, 4096));
        first.WriteTo(m_Dir, "split-1");
        CVmdkSparseBuilder().Capacity(40960).Grain(600, 'x').NoTable(3).WriteTo(m_Dir, "split-2");
        return HardDisk(VirtualProdType_VMware, {LinkOf(CVmdkDescriptorBuilder()
                                                            .CreateType("twoGbMaxExtentSparse")
                                                            .Extent(2048, "SPARSE", "split-1")
                                                            .Extent(40960, "SPARSE", "split-2")
                                                            .WriteTo(m_Dir, "split.vmdk"),
                                                        DiskType_TwoGbMaxExtentSparse, "split")});
    }

    LVM_HardDisk_t Chain() {
        LVM_HardDisk_t disk = FlatDisk();
        disk.Disks[0].DumpName = "base";
        disk.Disks.push_back(LinkOf(SparseFile("child.vmdk", {9}), DiskType_MonolithicSparse, "child"));
        disk.Disks.push_back(LinkOf(SparseFile("grandchild.vmdk", {10, 11}), DiskType_VmfsSparse, "grandchild"));
        return disk;
    }

    LVM_HardDisk_t FixedVhd() {
        return HardDisk(VirtualProdType_HyperV,
                        {LinkOf(CVhdBuilder::Fixed(DiskSectors).Data(0, SectorsOfDisk()).WriteTo(m_Dir, "fixed.vhd"),
                                DiskType_VhdFixed, "fixed", 0x40)});
    }

    // A dynamic base without its last block, and a child of two blocks.
    LVM_HardDisk_t VhdChain() {
        CVhdBuilder base = CVhdBuilder::Dynamic(DiskSectors).BlockSize(65536);
        for (uint64_t block = 0; block < DiskSectors / 128 - 1; ++block)
            base.Block(block, SectorsOfDisk().substr(block * 65536, 65536));
        CVhdBuilder child = CVhdBuilder::Differencing(DiskSectors);
        child.Block(20, 'c').Bitmap(20, Field("\x41", 512)).Block(30, 'd');
        return HardDisk(VirtualProdType_HyperV,
                        {LinkOf(base.WriteTo(m_Dir, "base.vhd"), DiskType_VhdDynamic, "dynamic"),
                         LinkOf(child.WriteTo(m_Dir, "child.vhd"), DiskType_VhdDifferencing, "differencing")});
    }

    LVM_HardDisk_t RawDisk(const std::string& path) {
        return HardDisk(VirtualProdType_Physical, {LinkOf(DriveOfFile(path), DiskType_PhysicalDisk, "raw", 0x12345)});
    }

    // Dumps the disks, each of one partition, and compares what is read back with what they are.
    void ExpectReadsBackEqual(const std::vector<LVM_HardDisk_t>& disks, SparseInfo_t& sparse) {
        Dump(disks);
        ASSERT_EQ(disks.size(), m_Lvm.GetVolumes().size()) << "each disk has its partition";
        std::string expectedSparse;
        for (const LVM_HardDisk_t& disk : disks)
            expectedSparse += SparseTextOf(disk);

        std::vector<LVM_Volume_t> volumes;
        ASSERT_OK(CLVM::ReadVolumeInfoFromDump(Path().c_str(), volumes, &sparse));
        EXPECT_EQ(TextOf(AsRead(m_Lvm.GetVolumes())), TextOf(volumes));
        EXPECT_EQ(expectedSparse, TextOf(sparse));
        ASSERT_EQ(disks.size(), sparse.size());
    }

    CTempDir m_Dir;
    CLVM m_Lvm;
};

TEST_F(LvmDump, OfNothingHas36Bytes) {
    EXPECT_OK(m_Lvm.DumpVolumeInfoToFile(Path().c_str()));
    EXPECT_EQ("LVMDUMP1.10000000000000000LVMDUMP1.1", m_Dir.Read("dump"));
    std::vector<LVM_Volume_t> volumes(2);
    SparseInfo_t sparse(3);
    EXPECT_OK(CLVM::ReadVolumeInfoFromDump(Path().c_str(), volumes, &sparse));
    EXPECT_TRUE(volumes.empty());
    EXPECT_TRUE(sparse.empty());
}

TEST_F(LvmDump, OfOnePartitionIsThisByteForByte) {
    const std::string zeroGuid = Field("{00000000-0000-0000-0000-000000000000}", 39);
    const std::string volume = zeroGuid + Field("Volume1", 100) + "0" + Field("07", 3) + "1" + Field("00000001", 9);
    const std::string segment = Field("0000000000000000", 17) + Field("0000000000000000", 17) +
                                Field("0000000000000fa0", 17) + Field("00000001", 9);
    const std::string component = zeroGuid + Field("000000000000003f", 17) + Field("0000000000000fde", 17) +
                                  Field("0000000000000000", 17) + Field("0000000000000f9f", 17) + Field("00000000", 9) +
                                  Field("00000000", 9);
    const std::string extent = Field("link_00000000", 1024) + Field("0000000000000000", 17) +
                               Field("0000000000000fff", 17) + Field("0000000000000080", 17) +
                               Field("0000000000000080", 17) + Field("00000000", 9) + Field("0000000000000000", 17) +
                               Field("0000000000000000", 17) + Field("00000000", 9) + Field("00000000", 9);
    ASSERT_EQ(153U, volume.size());
    ASSERT_EQ(60U, segment.size());
    ASSERT_EQ(125U, component.size());
    ASSERT_EQ(1153U, extent.size());
    EXPECT_SAME_BYTES("LVMDUMP1.1"
                      "00000001" +
                          volume + segment + component +
                          "00000001"
                          "00000001"
                          "00000001" +
                          extent + "LVMDUMP1.1",
                      Dump({FlatDisk()}));
}

TEST_F(LvmDump, VolumesSegmentsAndComponentsStandInTheirOrder) {
    const CLdmGroupBuilder group = CLdmGroupBuilder(3)
                                       .Volume(LdmRaid5(8, {{0, 0, 480}, {1, 0, 480}, {2, 0, 480}}))
                                       .Volume(LdmSpanned({{2, 500, 100}, {0, 500, 50}, {1, 500, 200}}))
                                       .Volume(LdmStriped(16, {{1, 800, 160}, {0, 800, 160}}))
                                       .Volume(LdmSimple({0, 1000, 10}));
    std::vector<LVM_HardDisk_t> disks;
    for (size_t index = 0; index < 2; ++index)  // the third isn't there
        disks.push_back(FlatHardDisk(m_Dir, group.Image(index), "disk" + std::to_string(index)));
    const std::string bytes = Dump(disks);

    ASSERT_EQ(4U, m_Lvm.GetVolumes().size());
    CVolumeDumpBuilder expected;
    for (const LVM_Volume_t& volume : m_Lvm.GetVolumes())
        expected.Volume(DumpedOf(volume));
    for (size_t index = 0; index < 2; ++index)
        expected.Disk({{DumpedFlatExtent("link_00000000", 0, DiskSectors - 1, 128)}});
    EXPECT_SAME_BYTES(expected.Bytes(), bytes);
    EXPECT_NE(std::string::npos, bytes.find(Field("ffffffff", 9))) << "a component whose disk isn't there";
}

TEST_F(LvmDump, TheTypeOfAVolumeIsTwoUpperCaseCharacters) {
    LdmVolume_t volume = LdmSimple({0, 0, 10});
    volume.partitionType = 0xAF;
    const std::string bytes = Dump({FlatHardDisk(m_Dir, CLdmGroupBuilder(1).Volume(volume).Image(0))});
    EXPECT_EQ(Field("AF", 3), bytes.substr(18 + 140, 3));
    std::vector<LVM_Volume_t> volumes;
    ASSERT_OK(CLVM::ReadVolumeInfoFromDump(Path().c_str(), volumes, nullptr));
    EXPECT_EQ(0xAF, volumes.at(0).SystemID);
}

TEST_F(LvmDump, OfDisksOfEveryKindReadsBackEqual) {
    SparseInfo_t sparse;
    ASSERT_NO_FATAL_FAILURE(
        ExpectReadsBackEqual({FlatDisk(), SparseDisk(), SplitDisk(), Chain(), FixedVhd(), VhdChain()}, sparse));
    // The kinds are what they were meant to be.
    EXPECT_EQ(2U, sparse[2][0].size());
    EXPECT_EQ(3U, sparse[3].size());
    EXPECT_EQ(DiskSectors / 128, sparse[5][0][0].Buckets.size());
    EXPECT_EQ(DiskSectors / 8, sparse[5][1][0].Buckets.size());
}

TEST_F(LvmDump, OfADriveAmongOtherDisksReadsBackEqual) {
    const std::string path = m_Dir.Write("raw", SectorsOfDisk());
    SKIP_UNLESS_A_FILE_CAN_BE_A_DRIVE(path);
    SparseInfo_t sparse;
    ASSERT_NO_FATAL_FAILURE(ExpectReadsBackEqual({FlatDisk(), RawDisk(path), SparseDisk()}, sparse));
    EXPECT_EQ(~uint64_t{0}, sparse[1][0][0].ExtentEndLBA);
}

// Its header is of another kind, and its tables are larger.
TEST_F(LvmDump, OfAnOlderSparseDiskReadsBackEqual) {
    CCowdBuilder cowd;
    cowd.Capacity(DiskSectors).Grain(4095, 'e');
    for (uint64_t sector = 0; sector < 64; ++sector)
        cowd.Grain(sector, SectorsOfDisk().substr(sector * 512, 512));
    const LVM_HardDisk_t disk =
        HardDisk(VirtualProdType_VMware, {LinkOf(cowd.WriteTo(m_Dir), DiskType_VmfsSparse, "cowd")});
    Dump({disk});
    std::vector<LVM_Volume_t> volumes;
    SparseInfo_t sparse;
    ASSERT_OK(CLVM::ReadVolumeInfoFromDump(Path().c_str(), volumes, &sparse));
    EXPECT_EQ(1U, volumes.size());
    EXPECT_EQ(SparseTextOf(disk), TextOf(sparse));
}

TEST_F(LvmDump, NoPathIsRefused) {
    EXPECT_REFUSED(m_Lvm.DumpVolumeInfoToFile(nullptr), "Invalid parameter");
}

TEST_F(LvmDump, AFileThatIsThereIsReplaced) {
    m_Dir.Write("dump", std::string(100'000, 'x'));
    EXPECT_OK(m_Lvm.DumpVolumeInfoToFile(Path().c_str()));
    EXPECT_EQ(36U, m_Dir.Read("dump").size());
}

// A dump without its end can't be taken for a whole one.
TEST_F(LvmDump, AFailedWriteReachesTheCallerAndLeavesNoWholeFile) {
    std::vector<LVM_HardDisk_t> disks = {SplitDisk(), VhdChain()};
    ASSERT_OK(m_Lvm.InitializeFromDisk(disks));
    bool hasFailed = false;
    const unsigned int writes = WalkFailures(FaultOp::Write, [&] {
        CZuError error = m_Lvm.DumpVolumeInfoToFile(Path().c_str());
        hasFailed = error.IsErrorSet();
        std::vector<LVM_Volume_t> volumes;
        EXPECT_EQ(hasFailed, CLVM::ReadVolumeInfoFromDump(Path().c_str(), volumes, nullptr).IsErrorSet());
        return error;
    });
    EXPECT_FALSE(hasFailed);
    EXPECT_LT(20U, writes);
}

TEST_F(LvmDump, OtherFailuresOfTheMachineReachTheCallerToo) {
    std::vector<LVM_HardDisk_t> disks = {FlatDisk()};
    ASSERT_OK(m_Lvm.InitializeFromDisk(disks));
    for (const FaultOp op : {FaultOp::Open, FaultOp::Close})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return m_Lvm.DumpVolumeInfoToFile(Path().c_str()); }));
    EXPECT_SYSTEM_ERROR(m_Lvm.DumpVolumeInfoToFile(m_Dir.File("nowhere/dump").c_str()), ENOENT);
}

}  // namespace
