#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VhdBuilder.h"

// A VHD goes into a set and comes back: the same file, byte for byte, and every sector of its disk
// as a raw image.

namespace {

constexpr uint64_t GiB = uint64_t{1} << 30U;

using Blocks_t = std::map<uint64_t, std::string>;  // by index

// The disk that blocks of `blockBytes` make; the last one may reach behind its end.
std::string ContentOf(uint64_t sectors, uint64_t blockBytes, const Blocks_t& blocks) {
    std::string content(static_cast<size_t>(sectors * 512), '\0');
    for (const auto& [index, bytes] : blocks) {
        if (index * blockBytes < content.size())
            PutBytes(content, static_cast<size_t>(index * blockBytes), bytes);
    }
    content.resize(static_cast<size_t>(sectors * 512));
    return content;
}

// A dynamic disk of small blocks, every one of which is there. They lie in the file from the last to
// the first.
CVhdBuilder FullDynamic(uint64_t sectors, Blocks_t& blocks, uint32_t blockBytes = 4096) {
    CVhdBuilder builder = CVhdBuilder::Dynamic(sectors);
    builder.BlockSize(blockBytes);
    for (uint64_t index = (sectors * 512 + blockBytes - 1) / blockBytes; index-- > 0;) {
        blocks[index] = PatternedBytes(blockBytes, sectors * 1000 + index);
        builder.Block(index, blocks[index]);
    }
    return builder;
}

std::string BytesAt(const std::string& path, uint64_t offset, size_t size) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(offset));
    std::string bytes(size, '?');
    file.read(bytes.data(), static_cast<std::streamsize>(size));
    EXPECT_TRUE(file.good()) << size << " bytes at " << offset << " of " << path;
    return bytes;
}

class VhdRoundTrip : public testing::Test {
protected:
    std::string Set() const { return m_Dir.File("set"); }

    void BackUpAndVerify(const std::string& image) const {
        ASSERT_OK(BackUp(image, Set(), true));
        ASSERT_OK(Verify(Set()));
        std::vector<std::string> differences;
        ASSERT_OK(VerifyAgainst(Set(), image, differences));
        EXPECT_EQ(std::vector<std::string>{}, differences);
    }

    void ExpectComesBack(const CVhdBuilder& builder, const std::string& content) const {
        const std::string image = builder.WriteTo(m_Dir);
        ASSERT_NO_FATAL_FAILURE(BackUpAndVerify(image));
        ASSERT_OK(Restore(Set(), m_Dir.File("back.vhd"), true));
        EXPECT_SAME_BYTES(builder.Bytes(), m_Dir.Read("back.vhd"));
        ASSERT_OK(RestoreRaw(Set(), m_Dir.File("raw"), true));
        EXPECT_SAME_BYTES(content, m_Dir.Read("raw"));
    }

    std::vector<std::string> DifferencesTo(const CVhdBuilder& other) const {
        std::vector<std::string> differences;
        EXPECT_OK(VerifyAgainst(Set(), other.WriteTo(m_Dir, "other.vhd"), differences));
        return differences;
    }

    // A set of the builder's file, changed by somebody who signs it again.
    template <typename Change> void ForgeSet(const CVhdBuilder& builder, Change change) const {
        ASSERT_OK(BackUp(builder.WriteTo(m_Dir), m_Dir.File("sound"), true));
        LooseSet_t loose;
        ASSERT_NO_FATAL_FAILURE(loose.ReadFrom(m_Dir.File("sound")));
        change(loose);
        ASSERT_NO_FATAL_FAILURE(loose.WriteTo(Set()));
    }

    void ExpectRestoreRefused(bool asRaw, const std::string& words) const {
        EXPECT_FAILS_SAYING(asRaw ? RestoreRaw(Set(), m_Dir.File("back")) : Restore(Set(), m_Dir.File("back")), words);
        EXPECT_FALSE(std::filesystem::exists(m_Dir.File("back")));
    }

    CTempDir m_Dir;
};

TEST_F(VhdRoundTrip, EverySectorOfAFixedDiskComesBack) {
    for (const uint64_t sectors : {1U, 2U, 127U, 128U, 129U, 255U, 256U, 257U, 2047U, 2048U, 2049U}) {
        SCOPED_TRACE(sectors);
        const std::string content = DiskContent(sectors, sectors);
        ExpectComesBack(CVhdBuilder::Fixed(sectors).Data(0, content), content);
    }
}

TEST_F(VhdRoundTrip, TheLastSectorAloneOfAFixedDiskComesBack) {
    for (const uint64_t sectors : {1U, 2U, 128U, 129U, 256U}) {
        SCOPED_TRACE(sectors);
        std::string content(sectors * 512, '\0');
        content.replace(content.size() - 512, 512, PatternedBytes(512, sectors));
        ExpectComesBack(CVhdBuilder::Fixed(sectors).Data(0, content), content);
    }
}

// The disk may be smaller than the room in front of the footer.
TEST_F(VhdRoundTrip, AFixedDiskMayHaveRoomBehindIt) {
    const std::string content = DiskContent(129);
    CVhdBuilder builder = CVhdBuilder::Fixed(140);
    builder.CurrentSize(content.size()).Data(0, content);
    ExpectComesBack(builder, content);
}

TEST_F(VhdRoundTrip, EveryBlockOfADynamicDiskComesBack) {
    for (const uint64_t sectors : {1U, 2U, 7U, 8U, 9U, 15U, 16U, 17U, 71U, 72U, 73U, 80U, 81U, 90U, 577U, 2047U}) {
        SCOPED_TRACE(sectors);
        Blocks_t blocks;
        const CVhdBuilder builder = FullDynamic(sectors, blocks);
        ExpectComesBack(builder, ContentOf(sectors, 4096, blocks));
    }
}

TEST_F(VhdRoundTrip, BlocksOfAnySizeInUseComeBack) {
    for (const uint32_t blockBytes : {512U, 65536U, 512U << 10U, 2U << 20U, 4U << 20U}) {
        SCOPED_TRACE(blockBytes);
        Blocks_t blocks;
        const uint64_t sectors = uint64_t{2} * blockBytes / 512 + 1;
        const CVhdBuilder builder = FullDynamic(sectors, blocks, blockBytes);
        ExpectComesBack(builder, ContentOf(sectors, blockBytes, blocks));
    }
}

TEST_F(VhdRoundTrip, ADynamicDiskWithoutBlocksComesBackAsHoles) {
    for (const uint64_t sectors : {1U, 100U, 2048U}) {
        SCOPED_TRACE(sectors);
        ExpectComesBack(CVhdBuilder::Dynamic(sectors), std::string(sectors * 512, '\0'));
    }
}

TEST_F(VhdRoundTrip, EachBlockAloneComesBack) {
    constexpr uint64_t sectors = 100;
    for (uint64_t index = 0; index < 13; ++index) {
        SCOPED_TRACE(index);
        const Blocks_t blocks{{index, PatternedBytes(4096, index + 1)}};
        CVhdBuilder builder = CVhdBuilder::Dynamic(sectors);
        ExpectComesBack(builder.Block(index, blocks.at(index)), ContentOf(sectors, 4096, blocks));
    }
}

// A block whose bytes are zeros is there all the same: its bitmap says so.
TEST_F(VhdRoundTrip, BlocksOfZerosStayInTheFile) {
    CVhdBuilder builder = CVhdBuilder::Dynamic(100);
    builder.Block(0, '\0').Block(11, '\0').Block(12, '\0').Block(5, '\0').Bitmap(5, std::string(512, '\0'));
    ExpectComesBack(builder, std::string(51200, '\0'));
}

TEST_F(VhdRoundTrip, SectorsThatTheBitmapDoesNotHaveAreZerosInTheRawImage) {
    CVhdBuilder builder = CVhdBuilder::Dynamic(100);
    for (const uint64_t index : {1U, 12U})
        builder.Block(index, PatternedBytes(4096, index)).Bitmap(index, std::string(1, '\xB1'));
    std::string content(51200, '\0');
    for (const uint64_t index : {1U, 12U}) {
        for (const uint64_t sector : {0U, 2U, 3U, 7U}) {
            if (index * 8 + sector < 100)
                PutBytes(content, (index * 8 + sector) * 512, PatternedBytes(4096, index).substr(sector * 512, 512));
        }
    }
    ExpectComesBack(builder, content);
}

TEST_F(VhdRoundTrip, EntriesBehindTheDisksEndDoNotMatter) {
    CVhdBuilder builder = CVhdBuilder::Dynamic(100);
    const Blocks_t blocks{{0, PatternedBytes(4096, 1)}, {12, PatternedBytes(4096, 2)}};
    builder.Entries(300).Block(0, blocks.at(0)).Block(12, blocks.at(12)).Block(13, 'x').Block(299, 'y');
    ASSERT_NO_FATAL_FAILURE(BackUpAndVerify(builder.WriteTo(m_Dir)));
    ASSERT_OK(RestoreRaw(Set(), m_Dir.File("raw")));
    EXPECT_SAME_BYTES(ContentOf(100, 4096, blocks), m_Dir.Read("raw"));
    ASSERT_OK(Restore(Set(), m_Dir.File("back.vhd")));
    ASSERT_NO_FATAL_FAILURE(BackUpAndVerify(m_Dir.File("back.vhd")));
    ASSERT_OK(RestoreRaw(Set(), m_Dir.File("again")));
    EXPECT_SAME_BYTES(ContentOf(100, 4096, blocks), m_Dir.Read("again"));
}

// With blocks of 2 MiB a bitmap takes one sector: 4 097 for each block. The product of a block's number
// and this size passes the last of the disk's 41 943 040 sectors from block 10 238 on.
class VhdOf20GiB : public VhdRoundTrip {
protected:
    static constexpr uint64_t DiskBytes = 20 * GiB;
    static constexpr uint32_t BlockBytes = 2U << 20U;
    static constexpr uint64_t FirstLeftOut = 10238;
    static constexpr uint64_t LastBlock = 10239;

    static CVhdBuilder Builder() {
        CVhdBuilder builder = CVhdBuilder::Dynamic(DiskBytes / 512);
        builder.BlockSize(BlockBytes);
        for (const uint64_t index : {LastBlock, uint64_t{0}, FirstLeftOut, FirstLeftOut - 1})
            builder.Block(index, Bytes(index));
        return builder;
    }
    static std::string Bytes(uint64_t index) { return PatternedBytes(BlockBytes, index + 1); }
};

TEST_F(VhdOf20GiB, HasEveryBlockOfItsOwnInItsSet) {
    ASSERT_OK(BackUp(Builder().WriteTo(m_Dir), Set()));
    EXPECT_EQ("4", AskSet(Set(), "SELECT count(*) FROM block"));
    EXPECT_EQ("10239", AskSet(Set(), "SELECT max(number) FROM block"));
    EXPECT_EQ("2", AskSet(Set(), "SELECT count(*) FROM block WHERE number >= 10238"));
}

TEST_F(VhdOf20GiB, ComesBackAsTheSameFile) {
    ASSERT_NO_FATAL_FAILURE(BackUpAndVerify(Builder().WriteTo(m_Dir)));
    ASSERT_OK(Restore(Set(), m_Dir.File("back.vhd")));
    EXPECT_SAME_BYTES(Builder().Bytes(), m_Dir.Read("back.vhd"));
}

TEST_F(VhdOf20GiB, ComesBackAsARawImageWithHoles) {
    ASSERT_OK(BackUp(Builder().WriteTo(m_Dir), Set()));
    const std::string raw = m_Dir.File("raw");
    RestoreOptions_t options;
    options.asRaw = true;
    RestoreResult_t result;
    ASSERT_OK(RestoreDisk(Set(), raw, options, result));
    ASSERT_EQ(DiskBytes, std::filesystem::file_size(raw));
    EXPECT_EQ(DiskBytes, result.diskBytes);
    for (const uint64_t index : {uint64_t{0}, FirstLeftOut - 1, FirstLeftOut, LastBlock})
        EXPECT_SAME_BYTES(Bytes(index), BytesAt(raw, index * BlockBytes, BlockBytes)) << index;
    for (const uint64_t index : {uint64_t{1}, uint64_t{5000}, FirstLeftOut - 2})
        EXPECT_SAME_BYTES(std::string(BlockBytes, '\0'), BytesAt(raw, index * BlockBytes, BlockBytes)) << index;
}

TEST_F(VhdOf20GiB, IsToldFromOneThatDiffersInABlockThatTheStreamLeavesOut) {
    ASSERT_OK(BackUp(Builder().WriteTo(m_Dir), Set()));
    for (const uint64_t index : {FirstLeftOut, LastBlock}) {
        SCOPED_TRACE(index);
        CVhdBuilder other = Builder();
        const uint64_t lastByte = other.BlockSector(index) * 512 + 512 + BlockBytes - 1;
        const std::vector<std::string> differences = DifferencesTo(other.PutAt(lastByte, "#"));
        ASSERT_EQ(1U, differences.size());
        EXPECT_NE(std::string::npos, differences[0].find("block " + std::to_string(index))) << differences[0];
    }
}

TEST_F(VhdRoundTrip, DifferencesOfTheLastSectorsAreTold) {
    const std::string content = DiskContent(129);
    ASSERT_OK(BackUp(CVhdBuilder::Fixed(129).Data(0, content).WriteTo(m_Dir), Set()));
    EXPECT_EQ(0U, DifferencesTo(CVhdBuilder::Fixed(129).Data(0, content)).size());
    EXPECT_EQ(1U, DifferencesTo(CVhdBuilder::Fixed(129).Data(0, content).Data(128, "x")).size());
    EXPECT_EQ(1U, DifferencesTo(CVhdBuilder::Fixed(129).Data(0, content).Data(127, "x")).size());
}

TEST_F(VhdRoundTrip, BlocksThatOnlyOneSideHasAreTold) {
    const auto sound = [] { return CVhdBuilder::Dynamic(100).Block(0, 'a').Block(12, 'b'); };
    ASSERT_OK(BackUp(sound().WriteTo(m_Dir), Set()));
    EXPECT_EQ(0U, DifferencesTo(sound()).size());
    EXPECT_EQ(1U, DifferencesTo(sound().Block(11, 'c')).size());
    EXPECT_EQ(1U, DifferencesTo(sound().Block(5, 'c')).size());
    EXPECT_EQ(1U, DifferencesTo(CVhdBuilder::Dynamic(100).Block(0, 'a')).size());
    EXPECT_EQ(1U, DifferencesTo(CVhdBuilder::Dynamic(100).Block(12, 'b')).size());
    EXPECT_EQ(2U, DifferencesTo(CVhdBuilder::Dynamic(100)).size());
}

TEST_F(VhdRoundTrip, BlocksOfZerosThatOnlyOneSideHasAreTheSame) {
    const auto with = [] { return CVhdBuilder::Dynamic(100).Block(0, 'a').Block(5, '\0').Block(12, '\0'); };
    const auto without = [] { return CVhdBuilder::Dynamic(100).Block(0, 'a'); };
    ASSERT_OK(BackUp(with().WriteTo(m_Dir), Set()));
    EXPECT_EQ(0U, DifferencesTo(without()).size());
    ASSERT_OK(BackUp(without().WriteTo(m_Dir), Set(), true));
    EXPECT_EQ(0U, DifferencesTo(with()).size());
}

// They hide what the older links hold.
TEST_F(VhdRoundTrip, BlocksOfZerosThatOnlyOneDifferencingDiskHasAreTold) {
    const auto with = [] { return CVhdBuilder::Differencing(100).Block(0, 'a').Block(5, '\0').Block(12, '\0'); };
    const auto without = [] { return CVhdBuilder::Differencing(100).Block(0, 'a'); };
    ASSERT_OK(BackUp(with().WriteTo(m_Dir), Set()));
    EXPECT_EQ(2U, DifferencesTo(without()).size());
    ASSERT_OK(BackUp(without().WriteTo(m_Dir), Set(), true));
    EXPECT_EQ(2U, DifferencesTo(with()).size());
}

TEST_F(VhdRoundTrip, ADifferencingDiskAloneComesBackWithAWarning) {
    CVhdBuilder builder = CVhdBuilder::Differencing(100);
    builder.Header(64, std::string("\0b\0a\0s\0e\0.\0v\0h\0d", 16))
        .Header(40, PatternedBytes(16, 40))
        .Locator(0, "W2ru", std::string("b\0a\0s\0e\0.\0v\0h\0d\0", 16))
        .Block(12, PatternedBytes(4096, 1))
        .Block(1, PatternedBytes(4096, 2))
        .Bitmap(1, std::string(1, '\x80'));
    BackupResult_t backup;
    ASSERT_OK(BackUpDisk(builder.WriteTo(m_Dir), Set(), BackupOptions_t(), backup));
    ASSERT_EQ(1U, backup.warnings.size());
    EXPECT_NE(std::string::npos, backup.warnings[0].find("base.vhd")) << backup.warnings[0];
    EXPECT_NE(std::string::npos, backup.warnings[0].find("--flatten")) << backup.warnings[0];

    std::string content(51200, '\0');
    PutBytes(content, 8 * 512, PatternedBytes(4096, 2).substr(0, 512));
    PutBytes(content, 96 * 512, PatternedBytes(4096, 1).substr(0, 4 * 512));
    ExpectComesBack(builder, content);
    RestoreOptions_t options;
    options.asRaw = true;
    options.force = true;
    RestoreResult_t restore;
    ASSERT_OK(RestoreDisk(Set(), m_Dir.File("raw"), options, restore));
    ASSERT_EQ(1U, restore.warnings.size());
    EXPECT_NE(std::string::npos, restore.warnings[0].find("older links")) << restore.warnings[0];
}

TEST_F(VhdRoundTrip, WrongChecksumsAreWarningsAndComeBack) {
    CVhdBuilder builder = CVhdBuilder::Dynamic(100);
    builder.Block(3, 'x').PutEndFooter(64, std::string(4, '\0'));
    const std::string image = builder.WriteTo(m_Dir);
    BackupResult_t result;
    ASSERT_OK(BackUpDisk(image, Set(), BackupOptions_t(), result));
    ASSERT_EQ(1U, result.warnings.size());
    EXPECT_NE(std::string::npos, result.warnings[0].find(image)) << result.warnings[0];
    EXPECT_NE(std::string::npos, result.warnings[0].find("checksum")) << result.warnings[0];
    ASSERT_OK(RestoreRaw(Set(), m_Dir.File("raw")));
    EXPECT_SAME_BYTES(ContentOf(100, 4096, {{3, std::string(4096, 'x')}}), m_Dir.Read("raw"));
}

// The core reads the footer at the end, and makes the file anew by the copy at its start.
TEST_F(VhdRoundTrip, FootersThatTellOfDifferentDisksComeBackAsRawAlone) {
    const struct {
        const char* name;
        size_t offset;
        std::string bytes;
        bool canBeMadeAgain;
    } rows[] = {{"its header's place", 16, BigEndianBytes(1024, 8), false},
                {"its size", 48, BigEndianBytes(8 * 512, 8), false},
                {"its type", 60, BigEndianBytes(4, 4), false},
                {"its time", 24, "late", true},
                {"its original size", 40, BigEndianBytes(8 * 512, 8), true}};
    const Blocks_t blocks{{0, PatternedBytes(4096, 1)}, {12, PatternedBytes(4096, 2)}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CVhdBuilder builder = CVhdBuilder::Dynamic(100);
        builder.Block(0, blocks.at(0)).Block(12, blocks.at(12)).PutAt(row.offset, row.bytes);
        if (row.canBeMadeAgain) {
            ExpectComesBack(builder, ContentOf(100, 4096, blocks));
            continue;
        }
        ASSERT_NO_FATAL_FAILURE(BackUpAndVerify(builder.WriteTo(m_Dir)));
        ExpectRestoreRefused(false, "--as raw");
        ASSERT_OK(RestoreRaw(Set(), m_Dir.File("raw"), true));
        EXPECT_SAME_BYTES(ContentOf(100, 4096, blocks), m_Dir.Read("raw"));
    }
}

// Block 12 lies behind those that the core streams.
TEST_F(VhdRoundTrip, ABlockOutsideTheFileIsAFailureThatNamesTheFile) {
    for (const uint64_t index : {3U, 12U}) {
        for (const uint32_t sector : {uint32_t{1000}, uint32_t{0xFFFFFFFE}}) {
            SCOPED_TRACE(testing::Message() << index << " at " << sector);
            CVhdBuilder builder = CVhdBuilder::Dynamic(100);
            const std::string image = builder.Block(index, 'x').PutEntry(index, sector).WriteTo(m_Dir);
            EXPECT_FAILS_SAYING(BackUp(image, Set()), image);
            EXPECT_FALSE(std::filesystem::exists(Set()));
        }
    }
}

TEST_F(VhdRoundTrip, ASetThatLostOneOfItsBlocksIsDamaged) {
    CVhdBuilder builder = CVhdBuilder::Dynamic(100);
    builder.Block(0, 'a').Block(11, 'b').Block(12, PatternedBytes(4096));
    for (const char* damage : {"DELETE FROM block WHERE number = 0", "DELETE FROM block WHERE number = 11",
                               "DELETE FROM block WHERE number = 12", "UPDATE block SET id = 10 WHERE number = 11",
                               "UPDATE block SET sectors = 8 WHERE number = 12",
                               "UPDATE block SET data = zeroblob(length(data)) WHERE number = 12"}) {
        SCOPED_TRACE(damage);
        ASSERT_OK(BackUp(builder.WriteTo(m_Dir), Set(), true));
        ASSERT_NO_FATAL_FAILURE(AlterSet(Set(), damage));
        EXPECT_FAILS_SAYING(Verify(Set()), Set(), "damaged");
        ExpectRestoreRefused(false, "damaged");
        ExpectRestoreRefused(true, "damaged");
    }
}

TEST_F(VhdRoundTrip, ASetWhoseBlocksHaveNoPlaceIsDamaged) {
    const CVhdBuilder builder = CVhdBuilder::Dynamic(100).Block(0, 'a').Block(11, 'b').Block(12, 'c');
    for (const uint64_t number : {uint64_t{13}, uint64_t{20}, uint64_t{1} << 31U, (uint64_t{1} << 40U) - 1}) {
        SCOPED_TRACE(number);
        ASSERT_NO_FATAL_FAILURE(
            ForgeSet(builder, [&](LooseSet_t& set) { set.streams[0].blocks.back().block.number = number; }));
        ExpectRestoreRefused(false, "damaged");
    }
}

TEST_F(VhdRoundTrip, ASetWhoseRecordIsNotThatOfItsStreamIsDamaged) {
    const CVhdBuilder builder = CVhdBuilder::Dynamic(100).Block(0, 'a').Block(12, 'c');
    const std::string record = builder.Record();
    const std::pair<const char*, std::string> records[] = {
        {"nothing", ""},
        {"a head alone", record.substr(0, 28)},
        {"cut in the table", record.substr(0, record.size() - 540)},
        {"of a fixed disk", CVhdBuilder::Fixed(100).Record()},
        {"of larger blocks", CVhdBuilder::Dynamic(100).BlockSize(65536).Record()},
        {"of no kind", std::string(record.size(), 'x')},
    };
    for (const auto& [name, bytes] : records) {
        SCOPED_TRACE(name);
        ASSERT_NO_FATAL_FAILURE(ForgeSet(builder, [&, record = bytes](LooseSet_t& set) {
            set.streams[0].record = record;
            set.streams[0].stream.recordBytes = record.size();
        }));
        ExpectRestoreRefused(false, Set());
        ExpectRestoreRefused(true, Set());
    }
}

TEST_F(VhdRoundTrip, ASetWithShortBlocksIsRefused) {
    const CVhdBuilder builder = CVhdBuilder::Dynamic(100).Block(0, 'a').Block(12, 'c');
    for (const uint64_t number : {0U, 12U}) {
        for (const uint32_t sectors : {1U, 2U, 8U}) {
            SCOPED_TRACE(testing::Message() << sectors << " sectors of block " << number);
            ASSERT_NO_FATAL_FAILURE(ForgeSet(builder, [&](LooseSet_t& set) {
                LooseSet_t::Block_t& block = set.streams[0].blocks[number == 0 ? 0 : 1];
                CBlockEncoder encoder(NoCompression);
                CAutoMemory<char> unused;
                block.bytes = builder.BlockBytes(number).substr(0, sectors * 512);
                encoder.Encode(block.bytes.data(), sectors * 512, unused, block.block.encoded);
                block.block.sectors = sectors;
            }));
            ExpectRestoreRefused(false, Set());
            ExpectRestoreRefused(true, Set());
        }
    }
}

}  // namespace
