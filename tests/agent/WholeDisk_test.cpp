#include "agent/WholeDisk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/WholeDisks.h"
#include "tests/support/CowdBuilder.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VhdBuilder.h"
#include "tests/support/VmdkSparseBuilder.h"

namespace {

class WholeDisk : public testing::Test {
protected:
    // All at once, and in pieces that cross every boundary.
    void ExpectContent(const std::string& path, const std::string& content) {
        CWholeDisk disk;
        ASSERT_OK(disk.Open(path, m_Options));
        EXPECT_EQ(path, disk.Path());
        ASSERT_EQ(content.size() / 512, disk.TotalSectors());
        EXPECT_SAME_BYTES(content, ReadWhole(disk, 0, static_cast<uint32_t>(content.size())));
        constexpr uint64_t step = 1000;
        for (uint64_t offset = 0; offset < content.size(); offset += step) {
            const auto length = static_cast<uint32_t>(std::min<uint64_t>(step, content.size() - offset));
            ASSERT_TRUE(AreSameBytes(content.substr(offset, length), ReadWhole(disk, offset, length))) << offset;
        }
        char byte = 0;
        EXPECT_FAILS_SAYING(disk.Read(content.size(), &byte, 1), path + ": ");
        EXPECT_FAILS_SAYING(disk.Read(content.size() - 1, m_Room.data(), 2), path + ": ");
        EXPECT_FAILS_SAYING(disk.Read(~uint64_t{0}, &byte, 1), path + ": ");
    }

    CTempDir m_Dir;
    ImageOptions_t m_Options = RawUnlessKnown();
    std::string m_Room = std::string(16, '?');
};

TEST_F(WholeDisk, ARawFileReadsAsItIs) {
    for (const uint64_t sectors : {1U, 127U, 300U})
        ExpectContent(m_Dir.Write("raw", DiskContent(sectors)), DiskContent(sectors));
}

TEST_F(WholeDisk, AFlatDiskReadsAsItsExtents) {
    ExpectContent(WriteFlatDisk(m_Dir, {DiskContent(300)}), DiskContent(300));
    ExpectContent(WriteFlatDisk(m_Dir, {DiskContent(1, 1), DiskContent(127, 2), DiskContent(7, 3)}, "split"),
                  DiskContent(1, 1) + DiskContent(127, 2) + DiskContent(7, 3));
}

TEST_F(WholeDisk, ASparseDiskReadsAsItsGrains) {
    CVmdkSparseBuilder builder;
    builder.Grain(31, PatternedBytes(4096, 1)).Grain(2, PatternedBytes(4096, 2));
    std::string content(256 * 512, '\0');
    PutBytes(content, 31 * 4096, PatternedBytes(4096, 1));
    PutBytes(content, 2 * 4096, PatternedBytes(4096, 2));
    ExpectContent(builder.WriteTo(m_Dir), content);
    const std::string descriptor = CVmdkDescriptorBuilder()
                                       .CreateType("monolithicSparse")
                                       .Line("encoding=\"UTF-8\"")
                                       .Extent(256, "SPARSE", "sparse.vmdk")
                                       .WriteTo(m_Dir);
    ExpectContent(descriptor, content);
}

TEST_F(WholeDisk, ADescriptorWithSeveralSparseExtentsReadsAsOneDisk) {
    CVmdkSparseBuilder().Grain(0, 'a').WriteTo(m_Dir, "a");
    CVmdkSparseBuilder().Grain(31, 'b').WriteTo(m_Dir, "b");
    std::string content(512 * 512, '\0');
    PutBytes(content, 0, std::string(4096, 'a'));
    PutBytes(content, 63 * 4096, std::string(4096, 'b'));
    ExpectContent(CVmdkDescriptorBuilder()
                      .CreateType("twoGbMaxExtentSparse")
                      .Extent(256, "SPARSE", "a")
                      .Extent(256, "SPARSE", "b")
                      .WriteTo(m_Dir),
                  content);
}

TEST_F(WholeDisk, AVhdReadsAsItsBlocks) {
    ExpectContent(CVhdBuilder::Fixed(129).Data(0, DiskContent(129)).WriteTo(m_Dir), DiskContent(129));
    CVhdBuilder builder = CVhdBuilder::Dynamic(100);
    builder.Block(12, PatternedBytes(4096, 1)).Block(3, PatternedBytes(4096, 2)).Bitmap(3, "\xF0");
    std::string content(100 * 512, '\0');
    PutBytes(content, 12 * 4096, PatternedBytes(4096, 1).substr(0, 4 * 512));
    PutBytes(content, 3 * 4096, PatternedBytes(4096, 2).substr(0, 4 * 512));
    ExpectContent(builder.WriteTo(m_Dir), content);
}

TEST_F(WholeDisk, AFileOfNoKnownKindIsRawOnlyIfItMayBe) {
    m_Options.rawUnlessKnown = false;
    CWholeDisk disk;
    EXPECT_FAILS_SAYING(disk.Open(m_Dir.Write("raw", DiskContent(2)), m_Options), m_Dir.File("raw"), "--type raw");
}

// The core would take the second extent's place for the first one's tail.
TEST_F(WholeDisk, ExtentsLongerThanTheirPartOfTheDiskAreRefused) {
    m_Dir.Write("a", DiskContent(20));
    m_Dir.Write("b", DiskContent(20));
    CWholeDisk disk;
    const std::string path = CVmdkDescriptorBuilder().Extent(10, "FLAT", "a").Extent(20, "FLAT", "b").WriteTo(m_Dir);
    EXPECT_FAILS_SAYING(disk.Open(path, m_Options), m_Dir.File("a"), "20", "10");
}

TEST_F(WholeDisk, FlatAndSparseExtentsTogetherAreRefused) {
    m_Dir.Write("a", DiskContent(256));
    CVmdkSparseBuilder().WriteTo(m_Dir, "b");
    CWholeDisk disk;
    const std::string path = CVmdkDescriptorBuilder()
                                 .CreateType("custom")
                                 .Extent(256, "FLAT", "a")
                                 .Extent(256, "SPARSE", "b")
                                 .WriteTo(m_Dir);
    EXPECT_FAILS_SAYING(disk.Open(path, m_Options), path);
}

TEST_F(WholeDisk, FilesWithoutADirectoryInTheirNameAreFound) {
    WriteFlatDisk(m_Dir, {DiskContent(10)});
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(m_Dir.Path());
    CWholeDisk disk;
    EXPECT_OK(disk.Open("disk.vmdk", m_Options));
    std::filesystem::current_path(before);
    EXPECT_SAME_BYTES(DiskContent(10), ReadWhole(disk, 0, 5120));
}

}  // namespace
