#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/CatalogSets.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"

// Long parts of a set, read at random.

namespace {

constexpr size_t PieceBytes = 1 << 20;

// Each eight bytes of it tell where they are, so that no two pieces are alike.
std::string LongBytes(size_t size) {
    std::string bytes;
    bytes.reserve(size + 8);
    for (uint64_t at = 0; bytes.size() < size; at += 8)
        bytes += LittleEndianBytes(at * 0x9E3779B97F4A7C15U, 8);
    bytes.resize(size);
    return bytes;
}

CZuError Gone() {
    CZuError error;
    error.SetError(4, 1, 0, "the disk is gone", __FILE__, __LINE__);
    return error;
}

class PartsOfASet : public CatalogOfASet {};

TEST_F(PartsOfASet, AnySizeComesBack) {
    const size_t sizes[] = {0, 1, PieceBytes - 1, PieceBytes, PieceBytes + 1, 3 * PieceBytes};
    ASSERT_NO_FATAL_FAILURE(Open([&](CBackupSetWriter& writer) {
        for (const size_t size : sizes)
            EXPECT_OK(AddPart(writer, "part " + std::to_string(size), LongBytes(size)));
    }));
    ASSERT_EQ(std::size(sizes), m_Set.Parts().size());
    for (const size_t size : sizes) {
        SCOPED_TRACE(size);
        const std::string name = "part " + std::to_string(size);
        ASSERT_NE(nullptr, m_Set.FindPart(name));
        EXPECT_EQ(size, m_Set.FindPart(name)->bytes);
        EXPECT_SAME_BYTES(LongBytes(size), ReadPart(name, 0, static_cast<uint32_t>(size)));
        EXPECT_OK(m_Set.ProvePart(*m_Set.FindPart(name)));
    }
    EXPECT_EQ(nullptr, m_Set.FindPart("part"));
    EXPECT_EQ(nullptr, m_Set.FindPart("part 99"));
    EXPECT_OK(Verify(m_Dir.File("set")));
}

// More pieces than are kept decoded, in an order that has each of them go and come again.
TEST_F(PartsOfASet, AreReadAtAnyPlace) {
    const std::string bytes = LongBytes(11 * PieceBytes + 100);
    ASSERT_NO_FATAL_FAILURE(Open([&](CBackupSetWriter& writer) {
        EXPECT_OK(AddPart(writer, "long", bytes));
        EXPECT_OK(AddPart(writer, "other", bytes.substr(8)));
    }));
    for (size_t round = 0; round < 60; ++round) {
        const uint64_t offset = (round * 7 % 12) * PieceBytes + round;
        EXPECT_SAME_BYTES(bytes.substr(offset, 20), ReadPart("long", offset, 20));
        EXPECT_SAME_BYTES(bytes.substr(offset + 8, 20), ReadPart("other", offset, 20));
    }
    EXPECT_SAME_BYTES(bytes.substr(PieceBytes - 5, 3 * PieceBytes), ReadPart("long", PieceBytes - 5, 3 * PieceBytes));
}

TEST_F(PartsOfASet, ReadingBehindTheEndIsRefused) {
    ASSERT_NO_FATAL_FAILURE(Open([](CBackupSetWriter& writer) { EXPECT_OK(AddPart(writer, "ten", "0123456789")); }));
    EXPECT_EQ("9", ReadPart("ten", 9, 1));
    EXPECT_EQ("", ReadPart("ten", 10, 0));
    const struct {
        uint64_t offset;
        uint32_t size;
    } rows[] = {{0, 11}, {10, 1}, {11, 0}, {~uint64_t{0}, 1}, {~uint64_t{0}, 0}, {0, ~0U}, {PieceBytes, 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.size << " bytes at " << row.offset);
        char byte = 0;
        EXPECT_FAILS_SAYING(m_Set.ReadPart(*m_Set.FindPart("ten"), row.offset, &byte, row.size), m_Dir.File("set"),
                            "its part ten has 10 bytes");
    }
}

TEST_F(PartsOfASet, PiecesAreFilledUpHoweverLittleEachReadGives) {
    const std::string bytes = LongBytes(2 * PieceBytes + 3);
    ASSERT_NO_FATAL_FAILURE(Open([&](CBackupSetWriter& writer) { EXPECT_OK(AddPart(writer, "part", bytes, 4097)); }));
    EXPECT_EQ("1048576 1048576 3", AskSet(m_Dir.File("set"), "SELECT group_concat(size, ' ') FROM piece"));
    EXPECT_SAME_BYTES(bytes, ReadPart("part", 0, 2 * PieceBytes + 3));
}

TEST_F(PartsOfASet, AreKeptAsSmallAsTheirLevelSays) {
    const std::string bytes(PieceBytes, 'x');
    ASSERT_NO_FATAL_FAILURE(Open([&](CBackupSetWriter& writer) {
        EXPECT_OK(AddPart(writer, "plain", bytes, ~0U, NoCompression));
        EXPECT_OK(AddPart(writer, "small", bytes));
        EXPECT_OK(AddPart(writer, "zeros", std::string(PieceBytes, '\0')));
    }));
    EXPECT_EQ("1 2 0", AskSet(m_Dir.File("set"), "SELECT group_concat(encoding, ' ') FROM piece"));
    for (const char* name : {"plain", "small"})
        EXPECT_SAME_BYTES(bytes, ReadPart(name, 0, PieceBytes));
    EXPECT_SAME_BYTES(std::string(PieceBytes, '\0'), ReadPart("zeros", 0, PieceBytes));
}

TEST_F(PartsOfASet, OneThatCannotBeReadIsNotThere) {
    ASSERT_NO_FATAL_FAILURE(Open([](CBackupSetWriter& writer) {
        int pieces = 0;
        const ReadPart_t failing = [&](char* buffer, uint32_t room, uint32_t& got) {
            std::fill_n(buffer, room, 'x');
            got = room;
            return ++pieces < 4 ? CZuError() : Gone();
        };
        EXPECT_FAILS_SAYING(writer.AddPart("part", DefaultCompression, failing), "the disk is gone");
        EXPECT_FAILS_SAYING(writer.AddPart("never", DefaultCompression, failing), "the disk is gone");
        EXPECT_OK(AddPart(writer, "part", "its second try"));
    }));
    ASSERT_EQ(1U, m_Set.Parts().size());
    EXPECT_EQ("its second try", ReadPart("part", 0, 14));
    EXPECT_EQ("1", AskSet(m_Dir.File("set"), "SELECT count(*) FROM piece"));
}

TEST_F(PartsOfASet, TwoOfOneNameAreRefused) {
    ASSERT_NO_FATAL_FAILURE(Open([](CBackupSetWriter& writer) {
        EXPECT_OK(AddPart(writer, "part", "first"));
        EXPECT_FAILS_SAYING(AddPart(writer, "part", "second"), "the part part");
        EXPECT_OK(writer.BeginStream(EmptyStream(), CAutoMemory<char>(), NoCompression));
        EXPECT_FAILS_SAYING(AddPart(writer, "blocks-0", "blocks?"), "the part blocks-0");
        EXPECT_OK(writer.EndStream());
    }));
    EXPECT_EQ("first", ReadPart("part", 0, 5));
}

class DamagedParts : public CatalogOfASet {
protected:
    DamagedParts() {
        WriteSet([](CBackupSetWriter& writer) {
            EXPECT_OK(AddPart(writer, "long", LongBytes(2 * PieceBytes + 9)));
            EXPECT_OK(AddPart(writer, "other", LongBytes(2 * PieceBytes + 9).substr(8)));
        });
        m_Sound = m_Dir.Read("set");
    }

    // The part can't be read where it was changed, nor proved; the other one can.
    void ExpectLongDamaged() {
        ASSERT_OK(m_Set.Open(m_Dir.File("set")));
        std::string bytes(PieceBytes, '?');
        EXPECT_FAILS_SAYING(m_Set.ReadPart(*m_Set.FindPart("long"), PieceBytes, bytes.data(), PieceBytes),
                            m_Dir.File("set"), "the set is damaged: its part long");
        EXPECT_FAILS_SAYING(m_Set.ProvePart(*m_Set.FindPart("long")), "its part long");
        EXPECT_OK(m_Set.ProvePart(*m_Set.FindPart("other")));
        EXPECT_OK(m_Set.ReadPart(*m_Set.FindPart("other"), PieceBytes, bytes.data(), PieceBytes));
        EXPECT_FAILS_SAYING(Verify(m_Dir.File("set")), "its part long");
    }

    std::string m_Sound;
};

TEST_F(DamagedParts, EachColumnOfAPieceIsProved) {
    for (const char* change : {"size = size - 1",
                               "size = 0",
                               "size = -1",
                               "size = 1048577",
                               "size = 'x'",
                               "size = 1048576.5",
                               "size = size + 4294967296",
                               "digest = zeroblob(16)",
                               "digest = x''",
                               "digest = 'text'",
                               "encoding = 7",
                               "encoding = -1",
                               "encoding = 3 - encoding",
                               "encoding = 4294967296",
                               "data = NULL",
                               "data = zeroblob(8)",
                               "data = zeroblob(60000000)",
                               "data = 'text'",
                               "id = id + 1000",
                               "id = -1 - id",
                               "id = id + (7 << 40)",
                               "(digest, encoding, data) = (SELECT digest, encoding, data FROM piece WHERE id = 0)"}) {
        SCOPED_TRACE(change);
        m_Dir.Write("set", m_Sound);
        AlterSet(m_Dir.File("set"), std::string("UPDATE piece SET ") + change + " WHERE id = 1");
        ExpectLongDamaged();
    }
}

TEST_F(DamagedParts, PiecesThatAreLostAddedOrElsewhereAreNoticed) {
    for (const char* sql :
         {"DELETE FROM piece WHERE id = 1", "DELETE FROM piece WHERE id = 2", "DELETE FROM piece WHERE part = 0",
          "INSERT INTO piece SELECT 3, size, digest, encoding, data FROM piece WHERE id = 2",
          "UPDATE piece SET id = 9 WHERE id = 0; UPDATE piece SET id = 0 WHERE id = 1; UPDATE piece SET id = 1 WHERE "
          "id = 9"}) {
        SCOPED_TRACE(sql);
        m_Dir.Write("set", m_Sound);
        AlterSet(m_Dir.File("set"), sql);
        ExpectLongDamaged();
    }
}

// A piece that goes bad after the part was looked at first.
TEST_F(DamagedParts, APieceIsProvedEachTimeItIsDecoded) {
    AlterSet(m_Dir.File("set"), "UPDATE piece SET data = zeroblob(length(data)) WHERE id = 1");
    ASSERT_OK(m_Set.Open(m_Dir.File("set")));
    for (int round = 0; round < 3; ++round) {
        std::string bytes(8, '?');
        EXPECT_OK(m_Set.ReadPart(*m_Set.FindPart("long"), 8, bytes.data(), 8));
        EXPECT_SAME_BYTES(LongBytes(16).substr(8), bytes);
        EXPECT_FAILS_SAYING(m_Set.ReadPart(*m_Set.FindPart("long"), PieceBytes, bytes.data(), 8), "its part long");
    }
}

TEST_F(DamagedParts, RowsThatNoWriterMakesAreRefusedAtOnce) {
    for (const char* change : {"name = x'6162'", "bytes = -1", "bytes = 'x'", "bytes = (1 << 60) + 1", "digest = x'00'",
                               "id = -1", "id = 8388608", "name = 'other'"}) {
        SCOPED_TRACE(change);
        m_Dir.Write("set", m_Sound);
        AlterSet(m_Dir.File("set"), std::string("UPDATE part SET ") + change + " WHERE id = 0");
        const bool isDouble = std::string(change) == "name = 'other'";
        EXPECT_FAILS_SAYING(m_Set.Open(m_Dir.File("set")), "the set is damaged",
                            isDouble ? "two parts named other" : "its row of the part");
    }
}

// What a part promises costs nothing; it is as long as the pieces that are there.
TEST_F(DamagedParts, APartThatPromisesMoreThanItHasIsRefused) {
    for (const uint64_t promised : {uint64_t{2 * PieceBytes + 10}, uint64_t{1} << 60U}) {
        SCOPED_TRACE(promised);
        m_Dir.Write("set", m_Sound);
        AlterAndSign(m_Dir.File("set"), "UPDATE part SET bytes = " + std::to_string(promised) + " WHERE id = 0",
                     [&](SetLists_t& lists) { lists.parts[0].bytes = promised; });
        ExpectLongDamaged();
    }
}

}  // namespace
