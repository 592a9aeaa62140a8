#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SectorWalk.h"

// The mapping of volumes and extents whose numbers nobody can have meant: it ends, and says why.

namespace {

constexpr char OutOfRange[] = "Offset out of range";
constexpr char OutOfPartition[] = "Offset out of range of partition";
constexpr char OutOfSparsePartition[] = "Offset out of range of sparse partition";
constexpr uint64_t AllOnes = ~uint64_t{0};
constexpr uint64_t WrapsToNoBytes = uint64_t{1} << 55U;  // sectors

LVM_Volume_t VolumeOf(uint64_t diskLba, uint64_t lastLba, size_t components = 1, uint64_t stripeSize = 0) {
    LVM_Component_t component;
    component.HardDiskIndex = 0;
    component.DiskLBAStart = diskLba;
    component.VolLBAEnd = lastLba;
    LVM_Volume_t volume;
    volume.Segments.resize(1);
    volume.Segments[0].Components.assign(components, component);
    volume.Segments[0].StripeSize = stripeSize;
    volume.Segments[0].LBAEnd = lastLba;
    return volume;
}

ExtentSparseInfo_t Flat(const std::string& name, uint64_t blockSize) {
    ExtentSparseInfo_t extent;
    extent.ExtentName = name;
    extent.ExtentEndLBA = AllOnes;
    extent.BlockSize = blockSize;
    extent.GrainSize = blockSize;
    return extent;
}

// With a bit of the top bitmap for the first bucket alone, all of whose eight grains are there.
ExtentSparseInfo_t Sparse(uint64_t grainSize, uint64_t grainsPerBucket, uint64_t bucketCount) {
    ExtentSparseInfo_t extent = Flat("sparse", grainSize);
    extent.GrainsPerBucket = grainsPerBucket;
    extent.BucketCount = bucketCount;
    extent.TopBitmap = BufferOf("\x80");
    extent.Buckets.push_back(BufferOf("\xFF"));
    return extent;
}

SparseInfo_t DiskOf(const std::vector<std::vector<ExtentSparseInfo_t>>& links) {
    return {links};
}

class LvmMappingHostile : public testing::Test {
protected:
    CZuError Map(uint64_t offset, uint64_t length, const LVM_Volume_t& volume, const SparseInfo_t& disks) {
        m_Runs.clear();
        return CLVM::ConvertVolumeOffsetToDiskExtents(offset, length, volume, disks, m_Runs);
    }

    std::vector<LVM_Disk_Offset_Len_t> m_Runs;
};

TEST_F(LvmMappingHostile, AVolumeThatCannotHaveStripesIsOutOfRange) {
    const SparseInfo_t disks = DiskOf({{Flat("disk", 100)}});
    const struct {
        const char* name;
        bool isRaid5;
        size_t columns;
        uint64_t stripeSize;
        const char* text;  // null where it can have them
    } rows[] = {
        {"no columns", false, 0, 8, OutOfRange},
        {"one column", false, 1, 8, nullptr},
        {"a stripe of more bytes than there are", false, 2, WrapsToNoBytes, OutOfRange},
        {"a stripe of a number that wraps", false, 2, WrapsToNoBytes + 1, OutOfRange},
        {"RAID-5 without columns", true, 0, 8, OutOfRange},
        {"RAID-5 of one column", true, 1, 8, OutOfRange},
        {"RAID-5 of two columns", true, 2, 8, nullptr},
        {"RAID-5 without a stripe size", true, 3, 0, OutOfRange},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        LVM_Volume_t volume = VolumeOf(10, 99, row.columns, row.stripeSize);
        volume.IsRaid5 = row.isRaid5 ? 1 : 0;
        if (row.text != nullptr) {
            EXPECT_REFUSED(Map(0, 1, volume, disks), row.text);
        } else {
            EXPECT_OK(Map(0, 1, volume, disks));
        }
    }
}

TEST_F(LvmMappingHostile, AVolumeWithoutSegmentsOrComponentsIsOutOfRange) {
    LVM_Volume_t volume;
    const SparseInfo_t disks = DiskOf({{Flat("disk", 100)}});
    for (const int32_t isRaid5 : {0, 1}) {
        volume.IsRaid5 = isRaid5;
        EXPECT_REFUSED(Map(0, 1, volume, disks), OutOfRange);
    }
    EXPECT_REFUSED(Map(0, 1, VolumeOf(0, 99, 0), disks), OutOfRange);
}

TEST_F(LvmMappingHostile, AComponentWhoseSpanWrapsToNothingIsOutOfRange) {
    const SparseInfo_t disks = DiskOf({{Flat("disk", 1U << 20U)}});
    EXPECT_REFUSED(Map(0, 1, VolumeOf(0, AllOnes), disks), OutOfRange);
    EXPECT_REFUSED(Map(0, 1, VolumeOf(0, WrapsToNoBytes - 1), disks), OutOfRange);
    EXPECT_OK(Map(0, 1, VolumeOf(0, WrapsToNoBytes), disks));
}

TEST_F(LvmMappingHostile, SizesThatAre0OrWrapTo0AreRefused) {
    const LVM_Volume_t volume = VolumeOf(0, 99);
    for (const uint64_t size : {uint64_t{0}, WrapsToNoBytes, 2 * WrapsToNoBytes}) {
        EXPECT_REFUSED(Map(0, 1, volume, DiskOf({{Flat("disk", size)}})), OutOfSparsePartition);
        ExtentSparseInfo_t extent = Sparse(8, 8, 1);
        extent.GrainSize = size;
        EXPECT_REFUSED(Map(0, 1, volume, DiskOf({{extent}})), OutOfSparsePartition);
        extent = Sparse(8, 8, 1);
        extent.BlockSize = size;
        EXPECT_REFUSED(Map(0, 1, volume, DiskOf({{extent}})), OutOfSparsePartition);
    }
}

// Each would be found for ever, in steps of nothing.
TEST_F(LvmMappingHostile, ACountOfBucketsUpToTheLastNumberEnds) {
    for (const uint64_t buckets : {AllOnes, AllOnes - 1, uint64_t{1} << 63U}) {
        for (const uint64_t grainsPerBucket : {uint64_t{1}, uint64_t{8}, AllOnes}) {
            ExtentSparseInfo_t child = Sparse(8, grainsPerBucket, buckets);
            child.TopBitmap.Free();
            const SparseInfo_t disks = DiskOf({{Flat("base", 1000)}, {child}});
            EXPECT_OK(Map(0, 99 * 512, VolumeOf(0, 99), disks));
            EXPECT_EQ("50688 bytes at 0: base block 0 + 0\n", TextOf(m_Runs));
        }
    }
}

TEST_F(LvmMappingHostile, BitsBehindABitmapAreHoles) {
    const LVM_Volume_t volume = VolumeOf(0, 999);
    ExtentSparseInfo_t child = Sparse(1, 20, 100);
    EXPECT_OK(Map(6 * 512, 4 * 512, volume, DiskOf({{Flat("base", 1000)}, {child}})));
    EXPECT_EQ("512 bytes at 3072: sparse block 6 + 0\n"
              "512 bytes at 3584: sparse block 7 + 0\n"
              "1024 bytes at 4096: base block 0 + 4096\n",
              TextOf(m_Runs));
    child.TopBitmap = BufferOf("\xFF");
    EXPECT_OK(Map(20 * 512, 512, volume, DiskOf({{Flat("base", 1000)}, {child}}))) << "a bucket that isn't there";
    EXPECT_EQ("512 bytes at 10240: base block 0 + 10240\n", TextOf(m_Runs));
    EXPECT_OK(Map(160 * 512, 512, volume, DiskOf({{Flat("base", 1000)}, {child}}))) << "behind the top bitmap";
    EXPECT_EQ("512 bytes at 81920: base block 0 + 81920\n", TextOf(m_Runs));
}

TEST_F(LvmMappingHostile, ADiskThatIsNotThereIsOutOfRange) {
    LVM_Volume_t volume = VolumeOf(0, 99);
    EXPECT_REFUSED(Map(0, 1, volume, SparseInfo_t()), OutOfPartition);
    volume.Segments[0].Components[0].HardDiskIndex = 0x80000000;
    EXPECT_REFUSED(Map(0, 1, volume, DiskOf({{Flat("disk", 8)}})), OutOfPartition);
}

// A sector's place is counted in 64 bits that wrap, as that of a read is.
TEST_F(LvmMappingHostile, APlaceBehindTheLastByteGoesOnAtTheFirst) {
    const LVM_Volume_t volume = VolumeOf(WrapsToNoBytes - 2, 99);
    const SparseInfo_t disks = DiskOf({{Flat("disk", WrapsToNoBytes / 2)}});
    EXPECT_OK(Map(512, 1024, volume, disks));
    EXPECT_EQ("512 bytes at 18446744073709551104: disk block 1 + 9223372036854775296\n"
              "512 bytes at 0: disk block 0 + 0\n",
              TextOf(m_Runs));
    ExtentSparseInfo_t beginning = Flat("beginning", 8);
    beginning.ExtentEndLBA = 7;
    EXPECT_REFUSED(Map(512, 1, volume, DiskOf({{beginning}})), OutOfPartition);
}

// Of a volume as large as numbers go no sector is looked at for its own sake.
TEST_F(LvmMappingHostile, ALongWayIsTakenInLongSteps) {
    const uint64_t exbibyte = uint64_t{1} << 60U;
    EXPECT_OK(Map(0, 4 * exbibyte, VolumeOf(0, WrapsToNoBytes - 2), DiskOf({{Flat("disk", WrapsToNoBytes / 2)}})));
    EXPECT_EQ(std::to_string(4 * exbibyte) + " bytes at 0: disk block 0 + 0\n", TextOf(m_Runs));
    // Eight grains, then holes up to the end of the one bucket.
    ExtentSparseInfo_t child = Sparse(1U << 30U, uint64_t{1} << 20U, 1);
    EXPECT_OK(
        Map(0, exbibyte / 8, VolumeOf(0, WrapsToNoBytes - 2), DiskOf({{Flat("base", WrapsToNoBytes / 2)}, {child}})));
    ASSERT_EQ(9U, m_Runs.size());
    EXPECT_STREQ("base", m_Runs[8].ExtentName);
    EXPECT_EQ(exbibyte / 8 - (uint64_t{8} << 39U), m_Runs[8].Length);
}

}  // namespace
