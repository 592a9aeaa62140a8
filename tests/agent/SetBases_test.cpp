#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/BackupSetReader.h"
#include "agent/BackupSetWriter.h"
#include "agent/Consolidate.h"
#include "agent/detail/SetDisks.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

// Sets that hold what changed, and the sets on which they build.

namespace {

constexpr uint32_t BlockSectors = 8;
constexpr uint32_t BlockBytes = BlockSectors * 512;
constexpr uint64_t DiskBlocks = 20;

// The blocks of a set: a letter for each block with data, and '=' for one that the base has.
using BlockLetters_t = std::map<uint64_t, char>;

class SetBases : public testing::Test {
protected:
    // Writes a set of one disk. With a base, it builds on that.
    std::string WriteSet(const std::string& name, const BlockLetters_t& blocks, const std::string& base = "",
                         uint64_t diskBlocks = DiskBlocks) {
        CBackupSetWriter writer;
        EXPECT_OK(writer.Create(m_Dir.File(name), true));
        if (!base.empty()) {
            EXPECT_OK(writer.BuildOn(BaseOf(base)));
        }
        SetDisk_t disk;
        disk.imageName = "disk";
        disk.diskType = DiskType_VMInfoDisk;
        disk.diskSectors = diskBlocks * BlockSectors;
        EXPECT_OK(writer.AddDisk(disk));
        SetStream_t stream;
        stream.fileName = "disk";
        stream.diskType = DiskType_VMInfoDisk;
        stream.blockSectors = BlockSectors;
        stream.diskSectors = disk.diskSectors;
        EXPECT_OK(writer.BeginStream(stream, BufferOf("the record of " + name), NoCompression));
        CBlockEncoder encoder(DefaultCompression);
        CAutoMemory<char> packed;
        for (const auto& [number, letter] : blocks) {
            SetBlock_t block;
            block.number = number;
            block.sectors = BlockSectors;
            block.isInherited = letter == '=';
            const std::string bytes(BlockBytes, letter);
            if (!block.isInherited)
                encoder.Encode(bytes.data(), BlockBytes, packed, block.encoded);
            EXPECT_OK(writer.AddBlock(block));
        }
        EXPECT_OK(writer.EndStream());
        EXPECT_OK(writer.AddFile({"a file of " + name, "its bytes", 0}));
        EXPECT_OK(writer.Commit({"2026-11-22T00:00:00Z", "test"}));
        return m_Dir.File(name);
    }

    SetBase_t BaseOf(const std::string& name) const {
        CBackupSetReader reader;
        EXPECT_OK(reader.Open(m_Dir.File(name)));
        return {name, reader.Identity(), "bitmap"};
    }

    // Three sets, each on the one before.
    void WriteChain() {
        WriteSet("one", {{0, 'a'}, {1, 'b'}, {2, 'c'}, {9, 'd'}, {19, 'e'}});
        WriteSet("two", {{0, '='}, {1, 'B'}, {2, '='}, {5, 'F'}, {19, '='}}, "one");
        WriteSet("three", {{0, '='}, {1, '='}, {3, 'G'}, {5, '='}, {19, 'E'}}, "two");
    }
    static BlockLetters_t AllOfThree() { return {{0, 'a'}, {1, 'B'}, {3, 'G'}, {5, 'F'}, {19, 'E'}}; }

    // What the set gives, in the order in which it gives it.
    BlockLetters_t Walk(CBackupSetReader& set) {
        BlockLetters_t letters;
        CBlockDecoder decoder;
        CAutoMemory<char> plain;
        EXPECT_OK(set.BeginBlocks(set.Streams().front()));
        for (std::optional<SetBlock_t> block;;) {
            const CZuError error = set.NextBlock(block);
            EXPECT_OK(error);
            if (error.IsErrorSet() || !block.has_value())
                return letters;
            EXPECT_TRUE(letters.empty() || letters.rbegin()->first < block->number);
            EXPECT_TRUE(decoder.Decode(block->encoded, block->sectors << 9U, plain));
            letters[block->number] = plain.GetPtr()[17];
        }
    }

    BlockLetters_t ReadAtRandom(CBackupSetReader& set) {
        BlockLetters_t letters;
        CAutoMemory<char> bytes;
        for (uint64_t number = DiskBlocks; number-- > 0;) {
            bool isThere = false;
            EXPECT_OK(set.ReadBlock(set.Streams().front(), number, bytes, isThere));
            if (isThere)
                letters[number] = bytes.GetPtr()[17];
        }
        return letters;
    }

    static std::string DiskOf(const BlockLetters_t& letters) {
        std::string disk(DiskBlocks * BlockBytes, '\0');
        for (const auto& [number, letter] : letters)
            disk.replace(number * BlockBytes, BlockBytes, BlockBytes, letter);
        return disk;
    }

    CZuError OpenWithBases(const std::string& name, CBackupSetReader& set,
                           const std::vector<std::string>& places = {}) {
        CZuError error = set.Open(m_Dir.File(name));
        return error.IsErrorSet() ? error : set.OpenBases(places);
    }

    CTempDir m_Dir;
};

TEST_F(SetBases, BlocksComeFromTheSetThatHasThem) {
    WriteChain();
    CBackupSetReader set;
    ASSERT_OK(OpenWithBases("three", set));
    EXPECT_EQ(AllOfThree(), Walk(set));
    EXPECT_EQ(AllOfThree(), ReadAtRandom(set));
    EXPECT_EQ(AllOfThree(), Walk(set)) << "a second time";
    CBackupSetReader two;
    ASSERT_OK(OpenWithBases("two", two));
    EXPECT_EQ((BlockLetters_t{{0, 'a'}, {1, 'B'}, {2, 'c'}, {5, 'F'}, {19, 'e'}}), Walk(two));
}

TEST_F(SetBases, ASetTellsWhichBlocksItHasWithoutItsBases) {
    WriteChain();
    const struct {
        const char* set;
        BlockLetters_t blocks;
    } rows[] = {{"one", {{0, 'a'}, {1, 'b'}, {2, 'c'}, {9, 'd'}, {19, 'e'}}},
                {"two", {{0, 'a'}, {1, 'B'}, {2, 'c'}, {5, 'F'}, {19, 'e'}}},
                {"three", AllOfThree()}};
    for (const auto& row : rows) {
        CBackupSetReader set;
        ASSERT_OK(set.Open(m_Dir.File(row.set)));
        for (uint64_t number = 0; number <= DiskBlocks; ++number) {
            SCOPED_TRACE(testing::Message() << "block " << number << " of " << row.set);
            bool isThere = number % 2 == 0;
            EXPECT_OK(set.HasBlock(set.Streams().front(), number, isThere));
            EXPECT_EQ(row.blocks.count(number) != 0, isThere);
        }
    }
}

TEST_F(SetBases, ABlockThatTheBaseNeverHadIsZeros) {
    WriteSet("one", {{0, 'a'}});
    WriteSet("two", {{0, '='}, {1, '='}, {2, 'c'}}, "one");
    CBackupSetReader set;
    ASSERT_OK(OpenWithBases("two", set));
    EXPECT_EQ((BlockLetters_t{{0, 'a'}, {2, 'c'}}), Walk(set));
    EXPECT_EQ((BlockLetters_t{{0, 'a'}, {2, 'c'}}), ReadAtRandom(set));
}

TEST_F(SetBases, TheDiskIsReadAndRestoredThroughAllSets) {
    WriteChain();
    CBackupSetReader set;
    ASSERT_OK(OpenWithBases("three", set));
    CSetDisks disks(set);
    std::string bytes(DiskBlocks * BlockBytes, '?');
    ASSERT_OK(disks.ReadDisk(0, 0, bytes.data(), static_cast<uint32_t>(bytes.size())));
    EXPECT_SAME_BYTES(DiskOf(AllOfThree()), bytes);
    ASSERT_OK(Restore(m_Dir.File("three"), m_Dir.File("raw")));
    EXPECT_SAME_BYTES(DiskOf(AllOfThree()), m_Dir.Read("raw"));
    EXPECT_OK(Verify(m_Dir.File("three")));
}

TEST_F(SetBases, AMissingBaseIsNamedAndNothingIsRestored) {
    WriteChain();
    std::filesystem::remove(m_Dir.File("one"));
    for (const char* const name : {"two", "three"}) {
        EXPECT_FAILS_SAYING(Restore(m_Dir.File(name), m_Dir.File("raw")), m_Dir.File("two"), "the set one (",
                            "is missing", "--base");
        EXPECT_FAILS_SAYING(Verify(m_Dir.File(name)), m_Dir.File("two"), "the set one (");
    }
    EXPECT_FALSE(std::filesystem::exists(m_Dir.File("raw")));
}

TEST_F(SetBases, AnotherSetOfThatNameIsNoBase) {
    WriteChain();
    WriteSet("one", {{0, 'z'}});
    EXPECT_FAILS_SAYING(Verify(m_Dir.File("two")), "the set one (", "is missing",
                        m_Dir.File("one") + " is another set");
}

TEST_F(SetBases, BasesAreFoundWhereTheyAreSaidToBe) {
    WriteChain();
    std::filesystem::create_directory(m_Dir.File("old"));
    std::filesystem::rename(m_Dir.File("one"), m_Dir.File("old/one"));
    std::filesystem::rename(m_Dir.File("two"), m_Dir.File("old/second"));
    const std::vector<std::vector<std::string>> places = {{m_Dir.File("old/second"), m_Dir.File("old")},
                                                          {m_Dir.File("old/one"), m_Dir.File("old/second")}};
    for (const std::vector<std::string>& each : places) {
        CBackupSetReader set;
        ASSERT_OK(OpenWithBases("three", set, each));
        EXPECT_EQ(AllOfThree(), Walk(set));
    }
    CBackupSetReader set;
    ASSERT_OK(OpenWithBases("three", set, {m_Dir.File("old/second")})) << "that one's base lies beside it";
    EXPECT_FAILS_SAYING(OpenWithBases("three", set, {m_Dir.File("old")}), "the set two (");
}

// The name comes from a set that anybody may have made.
TEST_F(SetBases, ANameThatLeadsOutOfTheDirectoryIsTakenForTheFileAlone) {
    WriteSet("one", {{0, 'a'}});
    SetBase_t base = BaseOf("one");
    std::filesystem::create_directory(m_Dir.File("in"));
    for (const char* const name : {"../one", "/one", ""}) {
        base.name = name;
        CBackupSetWriter writer;
        ASSERT_OK(writer.Create(m_Dir.File("in/two"), true));
        ASSERT_OK(writer.BuildOn(base));
        SetDisk_t disk;
        ASSERT_OK(writer.AddDisk(disk));
        ASSERT_OK(writer.Commit({"", ""}));
        CBackupSetReader set;
        EXPECT_FAILS_SAYING(OpenWithBases("in/two", set), "is missing");
    }
}

TEST_F(SetBases, WithoutItsBasesASetTellsWhatItIsButGivesNoBlocks) {
    WriteChain();
    std::filesystem::remove(m_Dir.File("two"));
    CBackupSetReader set;
    ASSERT_OK(set.Open(m_Dir.File("three")));
    ASSERT_TRUE(set.Info().base.has_value());
    EXPECT_EQ("two", set.Info().base->name);
    EXPECT_EQ("bitmap", set.Info().base->changedSince);
    EXPECT_EQ(nullptr, set.Base());
    EXPECT_EQ(2U, set.Streams().front().blockCount);
    EXPECT_FAILS_SAYING(set.BeginBlocks(set.Streams().front()), m_Dir.File("three"), "isn't open");
    CAutoMemory<char> bytes;
    bool isThere = false;
    EXPECT_OK(set.ReadBlock(set.Streams().front(), 3, bytes, isThere));
    EXPECT_TRUE(isThere) << "one of its own";
    EXPECT_FAILS_SAYING(set.ReadBlock(set.Streams().front(), 0, bytes, isThere), "isn't open");
}

TEST_F(SetBases, ABaseOfAnotherShapeIsRefused) {
    WriteSet("one", {{0, 'a'}}, "", DiskBlocks + 1);
    WriteSet("two", {{0, '='}}, "one");
    CBackupSetReader set;
    EXPECT_FAILS_SAYING(OpenWithBases("two", set), "damaged", "no such stream");
}

TEST_F(SetBases, DamageInAnySetIsFoundAndSaysInWhich) {
    WriteChain();
    AlterSet(m_Dir.File("one"), "UPDATE block SET data = zeroblob(length(data)) WHERE number = 0");
    EXPECT_FAILS_SAYING(Verify(m_Dir.File("three")), "block 0 of disk");
    WriteChain();
    AlterSet(m_Dir.File("one"), "DELETE FROM block WHERE number = 0");
    EXPECT_FAILS_SAYING(Verify(m_Dir.File("three")), m_Dir.File("one"), "damaged");
    EXPECT_FAILS_SAYING(Restore(m_Dir.File("three"), m_Dir.File("raw")), m_Dir.File("one"), "damaged");
    CBackupSetReader set;
    ASSERT_OK(OpenWithBases("three", set));
    CAutoMemory<char> bytes;
    bool isThere = false;
    EXPECT_FAILS_SAYING(set.ReadBlock(set.Streams().front(), 0, bytes, isThere), m_Dir.File("one"), "is lost");
}

TEST_F(SetBases, ChangesToWhatNamesTheBaseAreFound) {
    const char* const statements[] = {
        "UPDATE base SET name = 'another'",
        "UPDATE base SET identity = zeroblob(16)",
        "UPDATE base SET identity = 'text'",
        "UPDATE base SET identity = zeroblob(15)",
        "UPDATE base SET changed_since = ''",
        "UPDATE base SET name = 7",
        "INSERT INTO base SELECT * FROM base",
        "DELETE FROM base",
        "DROP TABLE base",
        "PRAGMA user_version = 2",
        "DELETE FROM part WHERE name = 'inherited-0'",
        "UPDATE part SET name = 'inherited-7' WHERE name = 'inherited-0'",
    };
    for (const char* const sql : statements) {
        SCOPED_TRACE(sql);
        WriteChain();
        AlterSet(m_Dir.File("two"), sql);
        CBackupSetReader set;
        EXPECT_FAILS_SAYING(set.Open(m_Dir.File("two")), m_Dir.File("two"), "damaged");
    }
}

TEST_F(SetBases, AWholeSetHasNoBaseAndKeepsItsVersion) {
    WriteChain();
    EXPECT_EQ("2", AskSet(m_Dir.File("one"), "PRAGMA user_version"));
    EXPECT_EQ("3", AskSet(m_Dir.File("two"), "PRAGMA user_version"));
    AlterSet(m_Dir.File("one"), "PRAGMA user_version = 3");
    CBackupSetReader set;
    EXPECT_FAILS_SAYING(set.Open(m_Dir.File("one")), "damaged", "tables are missing");
}

TEST_F(SetBases, ABlockOfTheBaseNeedsABase) {
    CBackupSetWriter writer;
    ASSERT_OK(writer.Create(m_Dir.File("set"), true));
    SetStream_t stream;
    stream.blockSectors = BlockSectors;
    ASSERT_OK(writer.BeginStream(stream, CAutoMemory<char>(), NoCompression));
    SetBlock_t block;
    block.isInherited = true;
    EXPECT_FAILS_SAYING(writer.AddBlock(block), "has no base");
}

TEST_F(SetBases, OwnAndInheritedBlocksComeInOneOrder) {
    WriteSet("one", {});
    CBackupSetWriter writer;
    ASSERT_OK(writer.Create(m_Dir.File("set"), true));
    ASSERT_OK(writer.BuildOn(BaseOf("one")));
    SetStream_t stream;
    stream.blockSectors = BlockSectors;
    ASSERT_OK(writer.BeginStream(stream, CAutoMemory<char>(), NoCompression));
    SetBlock_t own;
    own.number = 5;
    own.sectors = 1;
    SetBlock_t inherited = own;
    inherited.isInherited = true;
    ASSERT_OK(writer.AddBlock(own));
    EXPECT_FAILS_SAYING(writer.AddBlock(inherited), "block 5 comes behind");
    inherited.number = 6;
    ASSERT_OK(writer.AddBlock(inherited));
    own.number = 6;
    EXPECT_FAILS_SAYING(writer.AddBlock(own), "block 6 comes behind");
}

TEST_F(SetBases, AConsolidatedSetHoldsTheSameAndNeedsNoOther) {
    WriteChain();
    ConsolidateResult_t result;
    ASSERT_OK(ConsolidateSet(m_Dir.File("three"), m_Dir.File("whole"), ConsolidateOptions_t(), result));
    EXPECT_EQ(3U, result.setCount);
    EXPECT_EQ(AllOfThree().size(), result.blockCount);
    for (const char* const name : {"one", "two", "three"})
        std::filesystem::remove(m_Dir.File(name));
    CBackupSetReader set;
    ASSERT_OK(OpenWithBases("whole", set));
    EXPECT_FALSE(set.Info().base.has_value());
    EXPECT_EQ("2026-11-22T00:00:00Z", set.Info().createdUtc);
    EXPECT_EQ(AllOfThree(), Walk(set));
    EXPECT_EQ("a file of three", set.Files().front().name);
    CAutoMemory<char> record;
    ASSERT_OK(set.ReadRecord(set.Streams().front(), record));
    EXPECT_EQ("the record of three", BytesOf(record));
    EXPECT_OK(Verify(m_Dir.File("whole")));
}

TEST_F(SetBases, ConsolidationReplacesNoneOfItsSources) {
    WriteChain();
    ConsolidateOptions_t options;
    options.force = true;
    ConsolidateResult_t result;
    for (const char* const name : {"one", "two", "three"})
        EXPECT_FAILS_SAYING(ConsolidateSet(m_Dir.File("three"), m_Dir.File(name), options, result), m_Dir.File(name),
                            "another name");
    m_Dir.Write("other", "kept");
    options.force = false;
    EXPECT_FAILS_SAYING(ConsolidateSet(m_Dir.File("three"), m_Dir.File("other"), options, result), m_Dir.File("other"));
    EXPECT_EQ("kept", m_Dir.Read("other"));
}

TEST_F(SetBases, AConsolidationThatFailsOrIsCancelledLeavesNothing) {
    WriteChain();
    AlterSet(m_Dir.File("one"), "UPDATE block SET data = zeroblob(length(data)) WHERE number = 0");
    ConsolidateResult_t result;
    EXPECT_FAILS_SAYING(ConsolidateSet(m_Dir.File("three"), m_Dir.File("whole"), ConsolidateOptions_t(), result),
                        "block 0 of disk");
    EXPECT_FALSE(std::filesystem::exists(m_Dir.File("whole")));
    WriteChain();
    ConsolidateOptions_t options;
    options.progress = [](const Progress_t& /*progress*/) { return false; };
    EXPECT_FAILS_SAYING(ConsolidateSet(m_Dir.File("three"), m_Dir.File("whole"), options, result), "cancelled");
    EXPECT_EQ((std::vector<std::string>{"one", "three", "two"}), m_Dir.Entries());
}

TEST_F(SetBases, ManyGenerationsAreReadAsOne) {
    WriteSet("set-0", {{0, 'a'}, {7, 'h'}});
    for (int generation = 1; generation <= 30; ++generation) {
        const uint64_t changed = 1 + static_cast<uint64_t>(generation) % 5;
        BlockLetters_t blocks{{0, '='}, {7, '='}};
        for (uint64_t number = 1; number <= 5; ++number)
            blocks[number] = number == changed ? static_cast<char>('A' + generation % 26) : '=';
        WriteSet("set-" + std::to_string(generation), blocks, "set-" + std::to_string(generation - 1));
    }
    CBackupSetReader set;
    ASSERT_OK(OpenWithBases("set-30", set));
    const BlockLetters_t expected{
        {0, 'a'}, {1, 'A' + 30 % 26}, {2, 'A' + 26 % 26}, {3, 'A' + 27 % 26}, {4, 'A' + 28 % 26}, {5, 'A' + 29 % 26},
        {7, 'h'}};
    EXPECT_EQ(expected, Walk(set));
    EXPECT_EQ(expected, ReadAtRandom(set));
}

}  // namespace
