#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VhdBuilder.h"
#include "tests/support/VmdkSparseBuilder.h"

// Blocks of a set, read by their numbers.

namespace {

using Runs_t = std::vector<std::pair<uint64_t, uint64_t>>;  // first block, count

constexpr uint64_t BlockEnd = uint64_t{1} << 40U;

class RandomBlocks : public testing::Test {
protected:
    // A raw disk of 163 sectors in blocks of 8 sectors. Block 20 is the last one, of 3 sectors.
    static std::map<uint64_t, std::string> SoundBlocks() {
        std::map<uint64_t, std::string> blocks;
        for (const uint64_t number : {0U, 1U, 2U, 5U, 9U, 10U})
            blocks[number] = PatternedBytes(4096, number);
        blocks[7] = std::string(4096, '\0');
        blocks[8] = std::string(4096, 'x');
        blocks[20] = PatternedBytes(1536);
        return blocks;
    }

    static SetStream_t SoundStream() {
        SetStream_t stream;
        stream.fileName = "disk.raw";
        stream.diskType = DiskType_PhysicalDisk;
        stream.blockSectors = 8;
        stream.diskSectors = 163;
        return stream;
    }

    std::string WriteSet(const std::map<uint64_t, std::string>& blocks) const {
        CBackupSetWriter writer;
        EXPECT_OK(writer.Create(m_Dir.File("set"), true));
        SetDisk_t disk;
        disk.imageName = "disk.raw";
        disk.product = VirtualProdType_Physical;
        disk.diskType = DiskType_PhysicalDisk;
        EXPECT_OK(writer.AddDisk(disk));
        EXPECT_OK(writer.BeginStream(SoundStream(), CAutoMemory<char>(), NoCompression));
        CBlockEncoder encoder(DefaultCompression);
        for (const auto& [number, bytes] : blocks)
            EXPECT_OK(AddBlock(writer, encoder, number, bytes));
        EXPECT_OK(writer.EndStream());
        EXPECT_OK(writer.Commit({"2026-01-31T12:00:00Z", "a test"}));
        return m_Dir.File("set");
    }

    static CZuError AddBlock(CBackupSetWriter& writer, CBlockEncoder& encoder, uint64_t number,
                             const std::string& bytes) {
        CAutoMemory<char> packed;
        SetBlock_t block;
        block.number = number;
        block.sectors = static_cast<uint32_t>(bytes.size() / 512);
        encoder.Encode(bytes.data(), static_cast<uint32_t>(bytes.size()), packed, block.encoded);
        return writer.AddBlock(block);
    }

    CZuError ReadBlock(uint64_t number, std::optional<std::string>& read) {
        CAutoMemory<char> bytes;
        bool isThere = false;
        CZuError error = m_Set.ReadBlock(m_Set.Streams()[0], number, bytes, isThere);
        read = isThere ? std::optional(BytesOf(bytes)) : std::nullopt;
        return error;
    }

    // Its bytes, or nothing where the disk has no such block.
    std::optional<std::string> Block(uint64_t number) {
        std::optional<std::string> read;
        EXPECT_OK(ReadBlock(number, read));
        return read;
    }

    void ExpectBlockFails(uint64_t number, const std::string& words) {
        std::optional<std::string> read;
        EXPECT_FAILS_SAYING(ReadBlock(number, read), m_Dir.File("set"), "the set is damaged: " + words);
    }

    // A sound set, changed by `sql` and opened.
    void OpenAltered(const std::string& sql) {
        AlterSet(WriteSet(SoundBlocks()), sql);
        ASSERT_OK(m_Set.Open(m_Dir.File("set")));
    }

    CTempDir m_Dir;
    CBackupSetReader m_Set;
};

std::string HexOf(const std::string& bytes) {
    std::string hex;
    for (const char byte : bytes) {
        hex += "0123456789abcdef"[static_cast<uint8_t>(byte) >> 4U];
        hex += "0123456789abcdef"[static_cast<uint8_t>(byte) & 15U];
    }
    return "x'" + hex + "'";
}

std::string TextOf(const BlockDigest_t& digest) {
    return {digest.begin(), digest.end()};
}

// Makes `bytes` the list of the blocks of a set of one stream, signed.
void ForgeList(const std::string& set, const std::string& bytes) {
    const BlockDigest_t pieceDigest = DigestOf(bytes.data(), bytes.size());
    CRunningDigest digest;
    if (!bytes.empty())
        digest.Add(pieceDigest.data(), pieceDigest.size());
    std::string sql = "DELETE FROM piece; UPDATE part SET bytes = " + std::to_string(bytes.size()) +
                      ", digest = " + HexOf(TextOf(digest.Result()));
    if (!bytes.empty())
        sql += "; INSERT INTO piece VALUES (0, " + std::to_string(bytes.size()) + ", " + HexOf(TextOf(pieceDigest)) +
               ", 1, " + HexOf(bytes) + ")";
    AlterAndSign(set, sql, [&](SetLists_t& lists) {
        lists.parts[0].bytes = bytes.size();
        lists.parts[0].digest = digest.Result();
    });
}

std::string BytesOfRuns(const Runs_t& runs) {
    std::string bytes;
    for (const auto& [first, count] : runs)
        bytes += LittleEndianBytes(first, 8) + LittleEndianBytes(count, 8);
    return bytes;
}

TEST_F(RandomBlocks, ComeInAnyOrder) {
    const std::map<uint64_t, std::string> blocks = SoundBlocks();
    ASSERT_OK(m_Set.Open(WriteSet(blocks)));
    for (size_t step = 0; step < 46; ++step) {
        const uint64_t number = step * 10 % 23;
        SCOPED_TRACE(number);
        const std::optional<std::string> read = Block(number);
        ASSERT_EQ(blocks.count(number) != 0, read.has_value());
        if (read.has_value()) {
            EXPECT_SAME_BYTES(blocks.at(number), *read);
        }
    }
    for (const uint64_t number : {uint64_t{21}, BlockEnd - 1, BlockEnd, ~uint64_t{0}})
        EXPECT_EQ(std::nullopt, Block(number));
}

TEST_F(RandomBlocks, TheSetListsThemAsRuns) {
    ASSERT_OK(m_Set.Open(WriteSet(SoundBlocks())));
    const SetPart_t* const part = m_Set.FindPart("blocks-0");
    ASSERT_NE(nullptr, part);
    EXPECT_TRUE(IsListOfBlocks(*part));
    std::string bytes(static_cast<size_t>(part->bytes), '?');
    ASSERT_OK(m_Set.ReadPart(*part, 0, bytes.data(), static_cast<uint32_t>(bytes.size())));
    EXPECT_SAME_BYTES(BytesOfRuns({{0, 3}, {5, 1}, {7, 4}, {20, 1}}), bytes);
}

TEST_F(RandomBlocks, ADiskWithoutBlocksHasNone) {
    ASSERT_OK(m_Set.Open(WriteSet({})));
    EXPECT_EQ(0U, m_Set.FindPart("blocks-0")->bytes);
    EXPECT_EQ(std::nullopt, Block(0));
    EXPECT_OK(Verify(m_Dir.File("set")));
}

// More runs than one piece of the list holds.
TEST_F(RandomBlocks, AListMayBeLong) {
    constexpr uint64_t runs = 66000;
    std::map<uint64_t, std::string> blocks;
    for (uint64_t run = 0; run < runs; ++run)
        blocks.emplace_hint(blocks.end(), 2 * run + 1, std::string(512, '\0'));
    {
        CBackupSetWriter writer;
        ASSERT_OK(writer.Create(m_Dir.File("set"), true));
        ASSERT_OK(writer.AddDisk(SetDisk_t()));
        SetStream_t stream = SoundStream();
        stream.blockSectors = 1;
        stream.diskSectors = 2 * runs;
        ASSERT_OK(writer.BeginStream(stream, CAutoMemory<char>(), DefaultCompression));
        CBlockEncoder encoder(DefaultCompression);
        for (const auto& [number, bytes] : blocks)
            ASSERT_OK(AddBlock(writer, encoder, number, bytes));
        ASSERT_OK(writer.EndStream());
        ASSERT_OK(writer.Commit({"2026-01-31T12:00:00Z", "a test"}));
    }
    ASSERT_OK(m_Set.Open(m_Dir.File("set")));
    EXPECT_EQ(runs * 16, m_Set.FindPart("blocks-0")->bytes);
    for (const uint64_t run : {0U, 1U, 32768U, 65535U, 65536U, 65999U}) {
        SCOPED_TRACE(run);
        EXPECT_EQ(std::nullopt, Block(2 * run));
        EXPECT_EQ(512U, Block(2 * run + 1).value().size());
    }
    EXPECT_EQ(std::nullopt, Block(2 * runs));
    EXPECT_OK(Verify(m_Dir.File("set")));
}

TEST_F(RandomBlocks, BlocksGoIntoASetInTheirOrder) {
    CBackupSetWriter writer;
    ASSERT_OK(writer.Create(m_Dir.File("set"), false));
    ASSERT_OK(writer.BeginStream(SoundStream(), CAutoMemory<char>(), DefaultCompression));
    CBlockEncoder encoder(DefaultCompression);
    const std::string bytes(4096, 'x');
    ASSERT_OK(AddBlock(writer, encoder, 3, bytes));
    ASSERT_OK(AddBlock(writer, encoder, 4, bytes));
    for (const uint64_t number : {0U, 2U, 3U, 4U})
        EXPECT_FAILS_SAYING(AddBlock(writer, encoder, number, bytes), m_Dir.File("set"),
                            "block " + std::to_string(number) + " comes behind");
    EXPECT_FAILS_SAYING(AddBlock(writer, encoder, BlockEnd, bytes), "beyond what a set can number");
    EXPECT_OK(AddBlock(writer, encoder, BlockEnd - 1, bytes));
}

// By its number, each block is what it is in its turn; so every size that a disk's blocks have is taken for possible.
TEST_F(RandomBlocks, OfEachKindOfDiskAreThoseOfAWalk) {
    const CTempDir disks;
    CVhdBuilder dynamic = CVhdBuilder::Dynamic(133);
    for (const uint64_t index : {0U, 3U, 16U})
        dynamic.Block(index, static_cast<char>('a' + index));
    const std::string images[] = {
        WriteFlatDisk(disks, {DiskContent(600), DiskContent(129, 2)}),
        CVmdkSparseBuilder().Grain(0, 'A').Grain(3, 'B').Grain(31, 'C').WriteTo(disks, "sparse.vmdk"),
        CVmdkSparseBuilder().Capacity(253).Grain(2, 'A').Grain(31, 'C').WriteTo(disks, "odd.vmdk"),
        CVhdBuilder::Fixed(131).Data(0, DiskContent(131)).WriteTo(disks, "fixed.vhd"),
        dynamic.WriteTo(disks, "dynamic.vhd"),
    };
    for (const std::string& image : images) {
        SCOPED_TRACE(image);
        ASSERT_OK(BackUp(image, m_Dir.File("set"), true));
        LooseSet_t walked;
        ASSERT_NO_FATAL_FAILURE(walked.ReadFrom(m_Dir.File("set")));
        ASSERT_OK(m_Set.Open(m_Dir.File("set")));
        for (const LooseSet_t::Stream_t& stream : walked.streams) {
            ASSERT_FALSE(stream.blocks.empty());
            for (const LooseSet_t::Block_t& block : stream.blocks) {
                CAutoMemory<char> bytes;
                bool isThere = false;
                ASSERT_OK(m_Set.ReadBlock(stream.stream, block.block.number, bytes, isThere));
                EXPECT_TRUE(isThere);
                EXPECT_EQ(block.block.sectors * 512, bytes.GetSize());
                EXPECT_EQ(block.block.encoded.digest, DigestOf(bytes.GetPtr(), bytes.GetSize()));
            }
        }
    }
}

TEST_F(RandomBlocks, ALostBlockIsNoHole) {
    ASSERT_NO_FATAL_FAILURE(OpenAltered("DELETE FROM block WHERE number = 5"));
    ExpectBlockFails(5, "block 5 of disk.raw is lost");
    EXPECT_EQ(std::nullopt, Block(6));
    EXPECT_TRUE(Block(9).has_value());
}

TEST_F(RandomBlocks, ARowThatTheListDoesNotHaveIsNoBlock) {
    ASSERT_NO_FATAL_FAILURE(
        OpenAltered("INSERT INTO block SELECT 6, sectors, digest, encoding, data FROM block WHERE id = 5"));
    EXPECT_EQ(std::nullopt, Block(6));
}

TEST_F(RandomBlocks, OfAnotherSizeThanTheirPlaceHasAreLost) {
    const struct {
        uint64_t number;
        const char* sectors;
    } rows[] = {{9, "7"},   {9, "0"},     {9, "-1"},    {9, "9"},          {9, "'x'"},
                {9, "8.5"}, {9, "x'08'"}, {9, "65544"}, {9, "4294967304"}, {20, "2"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.sectors);
        const std::string number = std::to_string(row.number);
        ASSERT_NO_FATAL_FAILURE(
            OpenAltered(std::string("UPDATE block SET sectors = ") + row.sectors + " WHERE number = " + number));
        ExpectBlockFails(row.number, "block " + number + " of disk.raw is lost");
        EXPECT_TRUE(Block(10).has_value());
    }
}

TEST_F(RandomBlocks, EachIsProved) {
    for (const char* change :
         {"digest = zeroblob(16)", "digest = x'00'", "digest = 'text'", "encoding = 9", "encoding = 0", "encoding = 2",
          "data = NULL", "data = zeroblob(4096)", "data = 'text'", "data = zeroblob(60000000)", "sectors = 3"}) {
        SCOPED_TRACE(change);
        ASSERT_NO_FATAL_FAILURE(OpenAltered(std::string("UPDATE block SET ") + change + " WHERE number = 9"));
        ExpectBlockFails(9, "block 9 of disk.raw");
        EXPECT_TRUE(Block(10).has_value());
    }
}

TEST_F(RandomBlocks, ADamagedListIsNotBelieved) {
    for (const char* sql : {"UPDATE piece SET data = zeroblob(length(data))", "UPDATE piece SET digest = zeroblob(16)",
                            "UPDATE piece SET size = 48", "DELETE FROM piece", "UPDATE piece SET id = 1"}) {
        SCOPED_TRACE(sql);
        ASSERT_NO_FATAL_FAILURE(OpenAltered(sql));
        for (const uint64_t number : {0U, 6U, 9U})
            ExpectBlockFails(number, "its part blocks-0");
    }
}

TEST_F(RandomBlocks, AListThatNoWriterMakesIsRefused) {
    const struct {
        const char* name;
        std::string bytes;
    } rows[] = {
        {"unsorted", BytesOfRuns({{5, 1}, {0, 3}})},
        {"twice", BytesOfRuns({{0, 3}, {0, 3}})},
        {"overlapping", BytesOfRuns({{0, 3}, {2, 3}})},
        {"an empty run", BytesOfRuns({{0, 3}, {5, 0}})},
        {"behind the end", BytesOfRuns({{0, 3}, {BlockEnd, 1}})},
        {"over the end", BytesOfRuns({{0, 3}, {BlockEnd - 1, 2}})},
        {"endless", BytesOfRuns({{0, ~uint64_t{0}}})},
        {"wrapping", BytesOfRuns({{8, ~uint64_t{0} - 7}})},
        {"far away", BytesOfRuns({{~uint64_t{0}, 1}})},
        {"cut", BytesOfRuns({{0, 3}, {5, 1}}).substr(0, 31)},
        {"one byte", "x"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ForgeList(WriteSet(SoundBlocks()), row.bytes);
        ASSERT_OK(m_Set.Open(m_Dir.File("set")));
        for (const uint64_t number : {0U, 6U, 9U})
            ExpectBlockFails(number, "the list of the blocks of disk.raw");
        EXPECT_FAILS_SAYING(Verify(m_Dir.File("set")), "the list of the blocks of disk.raw");
    }
}

// In order, but not what the stream has.
TEST_F(RandomBlocks, AListOfOtherBlocksIsFoundOutByTheProof) {
    const struct {
        const char* name;
        Runs_t runs;
    } rows[] = {
        {"none", {}},
        {"all", {{0, 21}}},
        {"one less", {{0, 3}, {5, 1}, {7, 4}}},
        {"one more", {{0, 3}, {5, 1}, {7, 4}, {20, 2}}},
        {"elsewhere", {{0, 3}, {5, 1}, {7, 4}, {19, 1}}},
        {"in other runs", {{0, 1}, {1, 2}, {5, 1}, {7, 4}, {20, 1}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ForgeList(WriteSet(SoundBlocks()), BytesOfRuns(row.runs));
        EXPECT_FAILS_SAYING(Verify(m_Dir.File("set")), "the list of the blocks of disk.raw");
        EXPECT_OK(RestoreRaw(m_Dir.File("set"), m_Dir.File("raw"), true));
    }
    ForgeList(WriteSet(SoundBlocks()), BytesOfRuns({{0, 3}, {5, 1}, {7, 4}, {20, 1}}));
    EXPECT_OK(Verify(m_Dir.File("set")));
}

TEST_F(RandomBlocks, AStreamWithoutAListIsRefusedAtOnce) {
    const std::string set = WriteSet(SoundBlocks());
    AlterAndSign(set, "UPDATE part SET name = 'blocks-1'", [](SetLists_t& lists) { lists.parts[0].name = "blocks-1"; });
    EXPECT_FAILS_SAYING(m_Set.Open(set), set, "the list of the blocks of disk.raw is missing");
}

}  // namespace
