#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/support/CowdBuilder.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VmdkSparseBuilder.h"

// A disk goes into a set and comes back: the same files, byte for byte, and the same content as a
// raw image.

namespace {

using Files_t = std::map<std::string, std::string>;

class RoundTrip : public testing::Test {
protected:
    Files_t FilesIn(const CTempDir& dir) const {
        Files_t files;
        for (const std::string& name : dir.Entries())
            files[name] = dir.Read(name);
        return files;
    }

    void ExpectSameFiles(const CTempDir& expected, const CTempDir& actual) const {
        ASSERT_EQ(expected.Entries(), actual.Entries());
        for (const std::string& name : expected.Entries())
            EXPECT_SAME_BYTES(expected.Read(name), actual.Read(name)) << name;
    }

    // Backs up, verifies, and compares what comes back as raw.
    void ExpectContent(const std::string& image, const std::string& content) {
        ASSERT_OK(BackUp(image, m_Sets.File("set"), true));
        ASSERT_OK(Verify(m_Sets.File("set")));
        std::vector<std::string> differences;
        ASSERT_OK(VerifyAgainst(m_Sets.File("set"), image, differences));
        EXPECT_EQ(std::vector<std::string>{}, differences);
        ASSERT_OK(RestoreRaw(m_Sets.File("set"), m_Sets.File("raw"), true));
        EXPECT_SAME_BYTES(content, m_Sets.Read("raw"));
    }

    void ExpectComesBack(const std::string& image, const std::string& content) {
        ExpectContent(image, content);
        const CTempDir restored;
        ASSERT_OK(Restore(m_Sets.File("set"), restored.Path()));
        ExpectSameFiles(m_Disks, restored);
    }

    CTempDir m_Disks;  // holds the image's files and nothing else
    CTempDir m_Sets;
};

constexpr uint64_t EdgeSizes[] = {1, 7, 127, 128, 129, 2047, 2048, 2049};

TEST_F(RoundTrip, EverySectorOfAFlatDiskComesBack) {
    for (const uint64_t sectors : EdgeSizes) {
        SCOPED_TRACE(sectors);
        ExpectComesBack(WriteFlatDisk(m_Disks, {DiskContent(sectors)}), DiskContent(sectors));
    }
}

TEST_F(RoundTrip, EverySectorOfASplitFlatDiskComesBack) {
    const std::vector<uint64_t> splits[] = {{1, 1},     {1, 127, 1},     {127, 129, 7},
                                            {128, 128}, {2047, 1, 2049}, {129, 2048}};
    for (const std::vector<uint64_t>& sizes : splits) {
        SCOPED_TRACE(testing::PrintToString(sizes));
        std::vector<std::string> extents;
        std::string whole;
        for (size_t index = 0; index < sizes.size(); ++index) {
            extents.push_back(DiskContent(sizes[index], index + 1));
            whole += extents.back();
        }
        for (const std::string& name : m_Disks.Entries())
            std::filesystem::remove(m_Disks.File(name));
        ExpectComesBack(WriteFlatDisk(m_Disks, extents), whole);
    }
}

TEST_F(RoundTrip, EveryTailOfAFlatDiskComesBack) {
    for (uint64_t sectors = 128; sectors < 256; sectors += 5) {
        SCOPED_TRACE(sectors);
        ExpectComesBack(WriteFlatDisk(m_Disks, {DiskContent(sectors, sectors)}), DiskContent(sectors, sectors));
    }
}

TEST_F(RoundTrip, WhatAFlatExtentHasBehindTheDiskComesBackButNotAsRaw) {
    m_Disks.Write("disk-flat.vmdk", DiskContent(300));
    const std::string disk =
        CVmdkDescriptorBuilder().CreateType("monolithicFlat").Extent(130, "FLAT", "disk-flat.vmdk").WriteTo(m_Disks);
    ExpectComesBack(disk, DiskContent(300).substr(0, 130 * 512));
}

TEST_F(RoundTrip, AFlatDiskOfZerosIsAllHolesAndComesBackWhole) {
    ExpectComesBack(WriteFlatDisk(m_Disks, {std::string(2049 * 512, '\0')}), std::string(2049 * 512, '\0'));
    BackupResult_t result;
    ASSERT_OK(BackUpDisk(m_Disks.File("disk.vmdk"), m_Sets.File("again"), BackupOptions_t(), result));
    EXPECT_EQ(17U, result.blockCount);
    EXPECT_EQ(17U, result.zeroBlocks);
    EXPECT_EQ(0U, result.storedBytes);
}

TEST_F(RoundTrip, ALoneFlatFileComesBackWithoutADescriptor) {
    const std::string flat = m_Disks.Write("disk-flat.vmdk", DiskContent(1000));
    ASSERT_OK(BackUpAs(DiskType_MonolithicFlat, flat, m_Sets.File("set")));
    const CTempDir restored;
    ASSERT_OK(Restore(m_Sets.File("set"), restored.Path()));
    ExpectSameFiles(m_Disks, restored);
}

// A sparse extent of `sectors` sectors whose last one has data, and its content.
CVmdkSparseBuilder SparseDisk(uint64_t sectors, uint64_t grainSectors, std::string& content) {
    CVmdkSparseBuilder builder;
    builder.Capacity(sectors).GrainSize(grainSectors);
    content.assign(sectors * 512, '\0');
    const uint64_t grains = (sectors + grainSectors - 1) / grainSectors;
    for (uint64_t grain = 0; grain < grains; ++grain) {
        if (grain % 3 == 1 && grain + 1 != grains)
            continue;
        std::string bytes = PatternedBytes(grainSectors * 512, grain + 1);
        const uint64_t at = grain * grainSectors * 512;
        PutBytes(content, at, bytes.substr(0, std::min<uint64_t>(bytes.size(), content.size() - at)));
        builder.Grain(grain, bytes);
    }
    return builder;
}

TEST_F(RoundTrip, EverySectorOfASparseDiskComesBack) {
    for (const uint64_t sectors : EdgeSizes) {
        for (const uint64_t grainSectors : {8U, 16U, 128U}) {
            SCOPED_TRACE(testing::Message() << sectors << " in grains of " << grainSectors);
            std::string content;
            const std::string disk = SparseDisk(sectors, grainSectors, content).WriteTo(m_Disks);
            ExpectComesBack(disk, content);
        }
    }
}

// The writers of such files end them with the disk's last sector.
TEST_F(RoundTrip, ASparseFileThatEndsInsideItsLastGrainComesBack) {
    for (const uint64_t sectors : EdgeSizes) {
        for (const uint64_t grainSectors : {8U, 128U}) {
            if (sectors % grainSectors == 0)
                continue;
            SCOPED_TRACE(testing::Message() << sectors << " in grains of " << grainSectors);
            std::string content;
            CVmdkSparseBuilder builder = SparseDisk(sectors, grainSectors, content);
            const uint64_t missing = grainSectors - sectors % grainSectors;
            builder.CutTo(builder.Bytes().size() - missing * 512);
            ExpectComesBack(builder.WriteTo(m_Disks), content);
        }
    }
}

TEST_F(RoundTrip, ASparseFileCutInsideADataSectorIsRefused) {
    std::string content;
    for (const uint64_t cutBytes : {1U, 512U, 5000U}) {
        SCOPED_TRACE(cutBytes);
        CVmdkSparseBuilder builder = SparseDisk(256, 8, content);
        builder.CutTo(builder.Bytes().size() - cutBytes);
        const std::string disk = builder.WriteTo(m_Disks);
        EXPECT_FAILS_SAYING(BackUp(disk, m_Sets.File("set")), disk);
        EXPECT_EQ(std::vector<std::string>{}, m_Sets.Entries());
    }
}

TEST_F(RoundTrip, GrainsBehindTheCapacityDoNotReachTheDisk) {
    for (const uint64_t sectors : {20U, 24U}) {
        for (const uint64_t behind : {3U, 4U, 100U, 511U}) {
            SCOPED_TRACE(testing::Message() << "grain " << behind << " of a disk of " << sectors);
            std::string content;
            const std::string disk = SparseDisk(sectors, 8, content).Grain(behind, 'z').WriteTo(m_Disks);
            ExpectContent(disk, content);
            // The same file comes back, or an error says what is in the way.
            const CTempDir restored;
            if (!Restore(m_Sets.File("set"), restored.Path()).IsErrorSet())
                ExpectSameFiles(m_Disks, restored);
        }
    }
}

TEST_F(RoundTrip, SparseDisksOfEveryShapeComeBack) {
    const std::string descriptor = CVmdkDescriptorBuilder()
                                       .CreateType("monolithicSparse")
                                       .Line("encoding=\"UTF-8\"")
                                       .Extent(256, "SPARSE", "sparse.vmdk")
                                       .Text();
    std::string content(256 * 512, '\0');
    content.replace(3 * 4096, 4096, 4096, 'x');
    content.replace(31 * 4096, 4096, 4096, 'y');
    const auto grains = [](CVmdkSparseBuilder builder) { return builder.Grain(3, 'x').Grain(31, 'y'); };
    const struct {
        const char* name;
        CVmdkSparseBuilder file;
    } rows[] = {
        {"plain", grains(CVmdkSparseBuilder())},
        {"descriptor", grains(CVmdkSparseBuilder().Descriptor(descriptor))},
        {"redundant tables are active", grains(CVmdkSparseBuilder().RedundantIsActive())},
        {"no flag at all", grains(CVmdkSparseBuilder().Flags(0))},
        {"gaps between tables", grains(CVmdkSparseBuilder().GapBetweenTables(3))},
        {"grains in reverse", CVmdkSparseBuilder().Grain(31, 'y').Grain(3, 'x')},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ExpectComesBack(row.file.WriteTo(m_Disks), content);
    }
}

TEST_F(RoundTrip, ASparseDiskOfSeveralTablesComesBack) {
    std::string content(8192 * 512, '\0');
    content.replace(4096 * 512, 512, 512, 'x');
    content.replace(8191 * 512, 512, 512, 'y');
    const CVmdkSparseBuilder several =
        CVmdkSparseBuilder().Capacity(8192).GrainSize(1).Grain(4096, 'x').Grain(8191, 'y');
    ExpectComesBack(several.WriteTo(m_Disks), content);
    ExpectComesBack(CVmdkSparseBuilder(several).TablesInReverse().WriteTo(m_Disks), content);
}

TEST_F(RoundTrip, AnEmptySparseDiskComesBack) {
    ExpectComesBack(CVmdkSparseBuilder().WriteTo(m_Disks), std::string(256 * 512, '\0'));
}

TEST_F(RoundTrip, ASplitSparseDiskComesBack) {
    std::string whole;
    CVmdkDescriptorBuilder descriptor;
    descriptor.CreateType("twoGbMaxExtentSparse");
    for (const uint64_t sectors : {129U, 128U, 7U}) {
        std::string content;
        const std::string name = "disk-s" + std::to_string(sectors) + ".vmdk";
        SparseDisk(sectors, 16, content).WriteTo(m_Disks, name);
        descriptor.Extent(sectors, "SPARSE", name);
        whole += content;
    }
    ExpectComesBack(descriptor.WriteTo(m_Disks), whole);
}

TEST_F(RoundTrip, ASparseExtentThatIsLargerThanItsPartOfTheDiskEndsThereAsRaw) {
    std::string content;
    SparseDisk(256, 8, content).WriteTo(m_Disks, "a");
    m_Disks.Write("b", DiskContent(10));
    const std::string disk = CVmdkDescriptorBuilder()
                                 .CreateType("twoGbMaxExtentSparse")
                                 .Extent(101, "SPARSE", "a")
                                 .Extent(10, "FLAT", "b")
                                 .WriteTo(m_Disks);
    ExpectComesBack(disk, content.substr(0, 101 * 512) + DiskContent(10));
}

// What the core can't make again: the content comes back as raw, and nothing else is tried.
class NotMadeAgain : public RoundTrip {
protected:
    void ExpectRawOnly(const std::string& image, const std::string& content, const char* reason) {
        ExpectContent(image, content);
        const CTempDir restored;
        EXPECT_FAILS_SAYING(Restore(m_Sets.File("set"), restored.Path()), m_Sets.File("set"), reason, "--as raw");
        EXPECT_EQ(std::vector<std::string>{}, restored.Entries());
        const std::string standing = restored.Write("disk.vmdk", "stands here");
        EXPECT_FAILS_SAYING(Restore(m_Sets.File("set"), standing, true), reason);
        EXPECT_EQ("stands here", restored.Read("disk.vmdk"));
    }
};

TEST_F(NotMadeAgain, CowdExtents) {
    std::string content(64 * 512, '\0');
    content.replace(5 * 512, 512, 512, 'x');
    content.replace(63 * 512, 512, 512, 'y');
    ExpectRawOnly(CCowdBuilder().Grain(5, 'x').Grain(63, 'y').WriteTo(m_Disks), content, "COWD");
}

TEST_F(NotMadeAgain, CowdExtentsWhoseLastGrainIsCut) {
    std::string content(100 * 512, '\0');
    content.replace(96 * 512, 4 * 512, 4 * 512, 'y');
    CCowdBuilder builder = CCowdBuilder().Capacity(100).GrainSize(8).Grain(12, 'y');
    ExpectRawOnly(builder.WriteTo(m_Disks), content, "COWD");
    builder.CutTo(builder.Bytes().size() - 4 * 512);
    ExpectRawOnly(builder.WriteTo(m_Disks), content, "COWD");
}

TEST_F(NotMadeAgain, CowdExtentsWithoutATable) {
    std::string content(3 * 4096 * 512, '\0');
    content.replace(4096 * 512, 512, 512, 'x');
    const CCowdBuilder builder = CCowdBuilder().Capacity(3 * 4096).NoTable(0).NoTable(2).Grain(4096, 'x');
    ExpectRawOnly(builder.WriteTo(m_Disks), content, "COWD");
}

TEST_F(NotMadeAgain, SparseExtentsWithEmptyDirectoryEntries) {
    std::string content(8192 * 512, '\0');
    content.replace(4096 * 512, 512, 512, 'x');
    for (const TableCopy_t copy : {TableCopy_t::Both, TableCopy_t::Redundant, TableCopy_t::Primary}) {
        SCOPED_TRACE(int(copy));
        const CVmdkSparseBuilder builder =
            CVmdkSparseBuilder().Capacity(8192).GrainSize(1).NoTable(3, copy).Grain(4096, 'x');
        ExpectRawOnly(builder.WriteTo(m_Disks), content, "empty entries");
    }
}

}  // namespace
