#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>
#include <string>

#include "tests/agent/AgentRuns.h"
#include "tests/agent/CatalogSets.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/ErrorAssertions.h"

// The digests of a set as its format has them, computed from its rows by SQL alone, as other readers do.

namespace {

std::string Hex(const BlockDigest_t& digest) {
    std::string hex;
    for (const uint8_t byte : digest) {
        hex += "0123456789ABCDEF"[byte >> 4U];
        hex += "0123456789ABCDEF"[byte & 15U];
    }
    return hex;
}

using TakeRow_t = std::function<void(sqlite3_stmt*)>;

void ForEachRow(const std::string& set, const std::string& sql, const TakeRow_t& take) {
    sqlite3* database = nullptr;
    sqlite3_stmt* rows = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open_v2(set.c_str(), &database, SQLITE_OPEN_READONLY, nullptr));
    EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(database, sql.c_str(), -1, &rows, nullptr)) << sql;
    while (sqlite3_step(rows) == SQLITE_ROW)
        take(rows);
    sqlite3_finalize(rows);
    sqlite3_close(database);
}

std::string Bytes(sqlite3_stmt* row, int column) {
    const auto size = static_cast<size_t>(sqlite3_column_bytes(row, column));
    return size != 0 ? std::string(static_cast<const char*>(sqlite3_column_blob(row, column)), size) : std::string();
}

uint64_t Number(sqlite3_stmt* row, int column) {
    return static_cast<uint64_t>(sqlite3_column_int64(row, column));
}

// Numbers as eight bytes, texts behind their lengths; columns named `...digest` as they are.
void AddColumns(sqlite3_stmt* row, CRunningDigest& digest) {
    for (int column = 0; column < sqlite3_column_count(row); ++column) {
        const std::string name = sqlite3_column_name(row, column);
        const std::string bytes = Bytes(row, column);
        if (name.find("digest") != std::string::npos)
            digest.Add(bytes.data(), bytes.size());
        else if (sqlite3_column_type(row, column) == SQLITE_INTEGER)
            digest.AddNumber(Number(row, column));
        else
            digest.AddText(bytes);
    }
}

void AddList(const std::string& set, const std::string& columns, const std::string& behind, CRunningDigest& digest) {
    ForEachRow(set, "SELECT count(*) FROM " + behind, [&](sqlite3_stmt* row) { digest.AddNumber(Number(row, 0)); });
    ForEachRow(set, "SELECT " + columns + " FROM " + behind, [&](sqlite3_stmt* row) { AddColumns(row, digest); });
}

class FormatOfASet : public CatalogOfASet {
protected:
    FormatOfASet() {
        WriteSet([](CBackupSetWriter& writer) {
            SetDisk_t second;
            second.id = 1;
            second.imageName = "link.vmdk";
            second.diskType = DiskType_MonolithicSparse;
            second.diskSectors = 256;
            second.hasParent = true;
            second.parentName = "base.vmdk";
            EXPECT_OK(writer.AddDisk(second));
            WriteStream(writer, 0, 0);
            WriteStream(writer, 1, 1);
            for (const char* name : {"b", "a"})
                EXPECT_OK(writer.AddFile({name, "bytes of a file", 1}));
            EXPECT_OK(AddPart(writer, "a part", std::string((2 << 20) + 5, 'p')));
            WriteVolume(writer, 0, 300);
            WriteVolume(writer, 7, 1);
        });
    }

    static void WriteStream(CBackupSetWriter& writer, int64_t id, int64_t disk) {
        SetStream_t stream = EmptyStream();
        stream.id = id;
        stream.disk = disk;
        stream.diskSectors = 128;
        stream.fileBytes = 65536 + static_cast<uint64_t>(id);
        EXPECT_OK(writer.BeginStream(stream, BufferOf("a record"), NoCompression));
        CBlockEncoder encoder(NoCompression);
        CAutoMemory<char> packed;
        for (const uint64_t number : {3U, 4U, 9U}) {
            const std::string bytes(4096, static_cast<char>('a' + number));
            SetBlock_t block;
            block.number = number;
            block.sectors = 8;
            encoder.Encode(bytes.data(), 4096, packed, block.encoded);
            EXPECT_OK(writer.AddBlock(block));
        }
        EXPECT_OK(writer.EndStream());
    }

    static void WriteVolume(CBackupSetWriter& writer, int64_t id, uint64_t entries) {
        SetVolume_t volume;
        volume.id = id;
        volume.name = "volume";
        volume.facts = "{}";
        EXPECT_OK(writer.AddVolume(volume));
        for (uint64_t frn = 0; frn < entries; ++frn) {
            SetEntry_t entry;
            entry.parent = frn / 10;
            entry.frn = frn;
            entry.bytes = frn << 40U;
            entry.modified = frn + 1;
            entry.accessed = frn + 2;
            entry.created = frn + 3;
            entry.recordChanged = frn + 4;
            entry.attributes = 0x20;
            entry.reparseTag = 0xA0000003;
            entry.links = 1;
            entry.isDirectory = frn % 2 == 0;
            entry.isFurtherName = frn % 3 == 0;
            entry.name = "name " + std::to_string(frn);
            EXPECT_OK(writer.AddEntry(entry));
        }
    }

    std::string Set() const { return m_Dir.File("set"); }
    std::string Ask(const std::string& sql) const { return AskSet(Set(), sql); }
};

TEST_F(FormatOfASet, ItsDigestRunsOverAllLists) {
    CRunningDigest digest;
    ForEachRow(Set(), "SELECT created_utc, writer FROM backup_set",
               [&](sqlite3_stmt* row) { AddColumns(row, digest); });
    AddList(Set(), "id, image_name, product, disk_type, disk_sectors, has_parent, parent_name", "disk ORDER BY id",
            digest);
    AddList(Set(),
            "id, file_name, disk_type, block_sectors, disk_sectors, file_bytes, record_bytes, record_digest, "
            "block_count, stored_bytes, digest, disk",
            "stream ORDER BY id", digest);
    AddList(Set(), "disk, name, bytes", "file ORDER BY disk, name", digest);
    AddList(Set(), "id, name, facts, entry_count, entries_digest", "volume ORDER BY id", digest);
    AddList(Set(), "id, name, bytes, digest", "part ORDER BY name", digest);
    EXPECT_EQ(Ask("SELECT hex(digest) FROM backup_set"), Hex(digest.Result()));
    EXPECT_EQ("a part blocks-0 blocks-1",
              Ask("SELECT group_concat(name, ' ') FROM (SELECT name FROM part ORDER BY name)"));
    EXPECT_EQ("2", Ask("SELECT count(*) FROM file"));
}

TEST_F(FormatOfASet, TheDigestOfASetThatBuildsOnAnotherEndsWithItsBase) {
    CBackupSetReader base;
    ASSERT_OK(base.Open(Set()));
    EXPECT_EQ(Ask("SELECT hex(digest) FROM backup_set"), Hex(base.Identity()));
    const std::string set = m_Dir.File("building");
    CBackupSetWriter writer;
    ASSERT_OK(writer.Create(set, true));
    ASSERT_OK(writer.BuildOn({"set", base.Identity(), "a bitmap"}));
    ASSERT_OK(writer.AddDisk(base.Disks().front()));
    SetStream_t stream = EmptyStream();
    stream.diskSectors = 128;
    ASSERT_OK(writer.BeginStream(stream, BufferOf("a record"), NoCompression));
    for (const uint64_t number : {0U, 1U, 5U}) {
        SetBlock_t block;
        block.number = number;
        block.isInherited = true;
        ASSERT_OK(writer.AddBlock(block));
    }
    ASSERT_OK(writer.EndStream());
    ASSERT_OK(writer.Commit({"2026-11-22T12:00:00Z", "a test"}));

    CRunningDigest digest;
    ForEachRow(set, "SELECT created_utc, writer FROM backup_set", [&](sqlite3_stmt* row) { AddColumns(row, digest); });
    AddList(set, "id, image_name, product, disk_type, disk_sectors, has_parent, parent_name", "disk ORDER BY id",
            digest);
    AddList(set,
            "id, file_name, disk_type, block_sectors, disk_sectors, file_bytes, record_bytes, record_digest, "
            "block_count, stored_bytes, digest, disk",
            "stream ORDER BY id", digest);
    AddList(set, "disk, name, bytes", "file ORDER BY disk, name", digest);
    AddList(set, "id, name, facts, entry_count, entries_digest", "volume ORDER BY id", digest);
    AddList(set, "id, name, bytes, digest", "part ORDER BY name", digest);
    ForEachRow(set, "SELECT name, identity AS identity_digest, changed_since FROM base",
               [&](sqlite3_stmt* row) { AddColumns(row, digest); });
    EXPECT_EQ(AskSet(set, "SELECT hex(digest) FROM backup_set"), Hex(digest.Result()));
    EXPECT_EQ(std::string("00000000000000000200000000000000") + "05000000000000000100000000000000",
              AskSet(set, "SELECT hex(data) FROM piece JOIN part ON part = part.id WHERE name = 'inherited-0'"));
}

TEST_F(FormatOfASet, TheDigestOfAStreamRunsOverItsBlocks) {
    for (const std::string stream : {"0", "1"}) {
        CRunningDigest digest;
        ForEachRow(Set(), "SELECT number, sectors, digest FROM block WHERE stream = " + stream + " ORDER BY number",
                   [&](sqlite3_stmt* row) { AddColumns(row, digest); });
        EXPECT_EQ(Ask("SELECT hex(digest) FROM stream WHERE id = " + stream), Hex(digest.Result()));
    }
}

TEST_F(FormatOfASet, TheDigestOfAPartRunsOverThoseOfItsPieces) {
    for (const std::string name : {"a part", "blocks-1"}) {
        CRunningDigest digest;
        ForEachRow(Set(),
                   "SELECT piece.digest FROM piece JOIN part ON part = part.id WHERE name = '" + name +
                       "' ORDER BY number",
                   [&](sqlite3_stmt* row) { AddColumns(row, digest); });
        EXPECT_EQ(Ask("SELECT hex(digest) FROM part WHERE name = '" + name + "'"), Hex(digest.Result()));
    }
    EXPECT_EQ(std::string("03000000000000000200000000000000") + "09000000000000000100000000000000",
              Ask("SELECT hex(data) FROM piece JOIN part ON part = part.id WHERE name = 'blocks-1'"));
}

// The sum of digests, as big-endian numbers, added byte by byte as by hand.
TEST_F(FormatOfASet, TheDigestOfEntriesIsASum) {
    for (const std::string volume : {"0", "7"}) {
        BlockDigest_t sum{};
        ForEachRow(Set(),
                   "SELECT parent, frn, bytes, modified, accessed, created, record_changed, attributes, reparse_tag, "
                   "links, kind, name FROM entry WHERE volume = " +
                       volume,
                   [&](sqlite3_stmt* row) {
                       std::string bytes;
                       for (int column = 0; column < 11; ++column)
                           bytes += LittleEndianBytes(Number(row, column), column < 7 ? 8 : column < 10 ? 4 : 1);
                       bytes += Bytes(row, 11);
                       const BlockDigest_t digest = DigestOf(bytes.data(), bytes.size());
                       unsigned carry = 0;
                       for (size_t at = sum.size(); at-- > 0;) {
                           carry += unsigned{sum[at]} + digest[at];
                           sum[at] = static_cast<uint8_t>(carry);
                           carry >>= 8U;
                       }
                   });
        EXPECT_EQ(Ask("SELECT hex(entries_digest) FROM volume WHERE id = " + volume), Hex(sum));
    }
    EXPECT_EQ("300", Ask("SELECT entry_count FROM volume WHERE id = 0"));
    EXPECT_EQ("3", Ask("SELECT max(kind) FROM entry"));
}

TEST_F(FormatOfASet, IsWhatAReaderTakes) {
    EXPECT_OK(Verify(Set()));
}

}  // namespace
