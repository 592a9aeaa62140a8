#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "agent/BackupSetReader.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VmdkSparseBuilder.h"

// What chance does to a set. Whatever it is, what comes back is right or is an error.

namespace {

using Names_t = std::vector<std::string>;

class DamagedSet : public testing::Test {
protected:
    DamagedSet() {
        const std::string disk = WriteFlatDisk(m_Disks, {DiskContent(600), DiskContent(129, 2)});
        m_Content = DiskContent(600) + DiskContent(129, 2);
        EXPECT_OK(BackUp(disk, m_Dir.File("sound")));
        m_Sound = m_Dir.Read("sound");
    }

    std::string Fresh() const { return m_Dir.Write("set", m_Sound); }

    // The proof fails, and the files aren't made again. A raw image needs less of a set; if it comes
    // back, it is right.
    void ExpectRefused(const std::string& set) const {
        EXPECT_FAILS_SAYING(Verify(set), set + ": ");
        EXPECT_FALSE(FilesAreRightOrRefused(set));
        IsRightOrRefused(set);
    }

    // Either way out is a good one, but the bytes are never wrong. Returns whether they came back.
    bool IsRightOrRefused(const std::string& set) const {
        const CTempDir target;
        const CZuError error = RestoreRaw(set, target.File("raw"));
        if (error.IsErrorSet()) {
            EXPECT_FAILS_SAYING(error, set + ": ");
            EXPECT_EQ(Names_t{}, target.Entries());
            return false;
        }
        EXPECT_SAME_BYTES(m_Content, target.Read("raw"));
        return true;
    }

    // The same for the image's own files.
    bool FilesAreRightOrRefused(const std::string& set) const {
        const CTempDir target;
        const CZuError error = Restore(set, target.Path());
        if (error.IsErrorSet()) {
            EXPECT_FAILS_SAYING(error, ": ");
            EXPECT_EQ(Names_t{}, target.Entries());
            return false;
        }
        EXPECT_EQ(m_Disks.Entries(), target.Entries());
        for (const std::string& name : m_Disks.Entries())
            EXPECT_SAME_BYTES(m_Disks.Read(name), target.Read(name)) << name;
        return true;
    }

    CTempDir m_Disks;
    CTempDir m_Dir;
    std::string m_Content;
    std::string m_Sound;
};

TEST_F(DamagedSet, ASoundOneComesBack) {
    EXPECT_TRUE(IsRightOrRefused(Fresh()));
    EXPECT_TRUE(FilesAreRightOrRefused(Fresh()));
    EXPECT_OK(Verify(Fresh()));
}

TEST_F(DamagedSet, EachColumnIsProved) {
    const struct {
        const char* table;
        const char* column;
        const char* value;
    } rows[] = {
        {"disk", "image_name", "image_name || 'x'"},
        {"disk", "product", "product + 1"},
        {"disk", "disk_type", "disk_type + 1"},
        {"disk", "disk_sectors", "disk_sectors + 1"},
        {"disk", "has_parent", "1"},
        {"disk", "parent_name", "'x'"},
        {"backup_set", "created_utc", "'x'"},
        {"backup_set", "writer", "'x'"},
        {"backup_set", "digest", "zeroblob(16)"},
        {"backup_set", "digest", "zeroblob(15)"},
        {"backup_set", "digest", "'text'"},
        {"backup_set", "digest", "1"},
        {"disk", "id", "id + 1"},
        {"disk", "id", "-1"},
        {"stream", "id", "id + 1000"},
        {"stream", "disk", "disk + 1"},
        {"stream", "disk", "-1"},
        {"stream", "file_name", "'x' || file_name"},
        {"stream", "disk_type", "disk_type + 1"},
        {"stream", "block_sectors", "block_sectors / 2"},
        {"stream", "block_sectors", "0"},
        {"stream", "block_sectors", "-1"},
        {"stream", "disk_sectors", "disk_sectors - 1"},
        {"stream", "disk_sectors", "-1"},
        {"stream", "disk_sectors", "4611686018427387904"},
        {"stream", "file_bytes", "file_bytes + 512"},
        {"stream", "file_bytes", "-512"},
        {"stream", "record_bytes", "record_bytes + 1"},
        {"stream", "record_bytes", "4294967296"},
        {"stream", "record_bytes", "-1"},
        {"stream", "record_digest", "zeroblob(16)"},
        {"stream", "record_digest", "x''"},
        {"stream", "block_count", "block_count - 1"},
        {"stream", "stored_bytes", "stored_bytes + 1"},
        {"stream", "digest", "zeroblob(16)"},
        {"stream", "digest", "zeroblob(17)"},
        {"record", "stream", "stream + 1000"},
        {"record", "size", "size - 1"},
        {"record", "size", "0"},
        {"record", "size", "-1"},
        {"record", "size", "1048577"},
        {"record", "size", "4611686018427387904"},
        {"record", "digest", "zeroblob(16)"},
        {"record", "encoding", "encoding + 1"},
        {"record", "encoding", "-1"},
        {"record", "data", "zeroblob(length(data))"},
        {"record", "data", "NULL"},
        {"block", "id", "id + (1000 << 40)"},
        {"block", "id", "id + 1000"},
        {"block", "id", "-1 - id"},
        {"block", "id", "4611686018427387904 + id"},
        {"block", "sectors", "sectors - 1"},
        {"block", "sectors", "0"},
        {"block", "sectors", "-1"},
        {"block", "sectors", "sectors + 4294967296"},
        {"block", "sectors", "129"},
        {"block", "digest", "zeroblob(16)"},
        {"block", "digest", "'sixteen letters!'"},
        {"block", "digest", "x'00'"},
        {"block", "encoding", "3"},
        {"block", "encoding", "-1"},
        {"block", "encoding", "4294967297"},
        {"block", "encoding", "2 - encoding"},
        {"block", "data", "NULL"},
        {"block", "data", "zeroblob(65536)"},
        {"block", "data", "zeroblob(60000000)"},
        {"block", "data", "'text'"},
        {"file", "disk", "disk + 1"},
        {"file", "disk", "-1"},
        {"file", "name", "name || 'x'"},
        {"file", "bytes", "zeroblob(length(bytes))"},
        {"file", "bytes", "x''"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.table) + "." + row.column + " = " + row.value);
        const std::string set = Fresh();
        AlterSet(set, std::string("UPDATE ") + row.table + " SET " + row.column + " = " + row.value);
        ExpectRefused(set);
    }
}

TEST_F(DamagedSet, OneBlockOfManyIsEnough) {
    for (const char* id : {"0", "4", "(1 << 40) + 1"}) {
        for (const char* value : {"digest = zeroblob(16)", "data = zeroblob(length(data))", "sectors = 0",
                                  "sectors = 200", "id = id + 100", "encoding = 7"}) {
            SCOPED_TRACE(std::string(id) + ": " + value);
            const std::string set = Fresh();
            AlterSet(set, std::string("UPDATE block SET ") + value + " WHERE id = " + id);
            ExpectRefused(set);
        }
    }
}

// The id of a block is its stream's times 2^40 and its number in it.
TEST_F(DamagedSet, RowsThatAreLostAddedOrElsewhereAreNoticed) {
    const struct {
        const char* name;
        const char* sql;
    } rows[] = {
        {"a block lost", "DELETE FROM block WHERE id = 2"},
        {"the last block lost", "DELETE FROM block WHERE id = (1 << 40) + 1"},
        {"a block of zeros lost", "DELETE FROM block WHERE id = 1"},
        {"all blocks lost", "DELETE FROM block"},
        {"a block twice", "INSERT INTO block SELECT 77, sectors, digest, encoding, data FROM block WHERE id = 2"},
        {"a block of zeros twice",
         "INSERT INTO block SELECT 77, sectors, digest, encoding, data FROM block WHERE id = 1"},
        {"two blocks swapped", "UPDATE block SET id = 99 WHERE id = 0; UPDATE block SET id = 0 WHERE id = 2; "
                               "UPDATE block SET id = 2 WHERE id = 99"},
        {"a block in another stream", "UPDATE block SET id = (1 << 40) + 5 WHERE id = 3"},
        {"streams swapped", "UPDATE block SET id = id + (9 << 40) WHERE id < 1 << 40; UPDATE block SET id = id - (1 << "
                            "40) WHERE id < 2 << 40; UPDATE block SET id = id - (8 << 40) WHERE id >= 9 << 40"},
        {"a block for another", "UPDATE block SET (digest, encoding, data) = (SELECT digest, encoding, data FROM block "
                                "WHERE id = 0) WHERE id = 3"},
        {"a stream lost", "DELETE FROM stream WHERE id = 1"},
        {"a stream added",
         "INSERT INTO stream SELECT 2, disk, 'more', disk_type, block_sectors, disk_sectors, file_bytes, "
         "record_bytes, record_digest, block_count, stored_bytes, digest FROM stream WHERE id = 1"},
        {"all streams lost", "DELETE FROM stream"},
        {"a record lost", "DELETE FROM record WHERE stream = 1"},
        {"a piece of a record added", "INSERT INTO record SELECT stream, piece + 1, size, digest, encoding, data FROM "
                                      "record"},
        {"records swapped", "UPDATE record SET stream = 9 WHERE stream = 0; UPDATE record SET stream = 0 WHERE stream "
                            "= 1; UPDATE record SET stream = 1 WHERE stream = 9"},
        {"a file lost", "DELETE FROM file"},
        {"a file added", "INSERT INTO file VALUES (0, 'more', x'00')"},
        {"a disk lost", "DELETE FROM disk"},
        {"a disk added", "INSERT INTO disk SELECT 1, image_name, product, disk_type, disk_sectors, has_parent, "
                         "parent_name FROM disk"},
        {"a part lost", "DELETE FROM part WHERE id = 1"},
        {"a part added", "INSERT INTO part SELECT 7, 'more', bytes, digest FROM part WHERE id = 1"},
        {"parts swapped", "UPDATE part SET name = iif(id = 0, 'blocks-1', 'blocks-0')"},
        {"a volume added", "INSERT INTO volume VALUES (0, 'C:', '{}', 0, zeroblob(16))"},
        {"its row twice", "INSERT INTO backup_set SELECT * FROM backup_set"},
        {"its row lost", "DELETE FROM backup_set"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string set = Fresh();
        AlterSet(set, row.sql);
        ExpectRefused(set);
    }
}

TEST_F(DamagedSet, OnlyItsOwnTablesAreIn) {
    const struct {
        const char* name;
        const char* sql;
    } rows[] = {
        {"a table", "CREATE TABLE more (a)"},
        {"a view", "CREATE VIEW more AS SELECT * FROM block"},
        {"a trigger", "CREATE TRIGGER more AFTER DELETE ON block BEGIN DELETE FROM stream; END"},
        {"an index", "CREATE INDEX more ON stream (file_name)"},
        {"a column", "ALTER TABLE stream ADD COLUMN more"},
        {"a virtual table", "CREATE TABLE t (a); DROP TABLE t; PRAGMA writable_schema = 1; INSERT INTO sqlite_schema "
                            "VALUES ('table', 'v', 'v', 0, 'CREATE VIRTUAL TABLE v USING fts3(a)')"},
        {"a table by another name", "ALTER TABLE file RENAME TO files"},
        {"a table lost", "DROP TABLE file"},
        {"a view for a table", "ALTER TABLE block RENAME TO b; CREATE VIEW block AS SELECT * FROM b"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string set = Fresh();
        AlterSet(set, row.sql);
        ExpectRefused(set);
    }
}

TEST_F(DamagedSet, ANewerVersionAsksForANewerProgram) {
    AlterSet(Fresh(), "PRAGMA user_version = 4");
    EXPECT_FAILS_SAYING(Verify(m_Dir.File("set")), m_Dir.File("set"), "format version 4", "up to 3", "newer");
    for (const char* version : {"0", "-1"}) {
        AlterSet(Fresh(), std::string("PRAGMA user_version = ") + version);
        EXPECT_FAILS_SAYING(Verify(m_Dir.File("set")), m_Dir.File("set"), version);
    }
}

TEST_F(DamagedSet, OtherFilesAreNoSets) {
    AlterSet(Fresh(), "PRAGMA application_id = 1");
    EXPECT_FAILS_SAYING(Verify(m_Dir.File("set")), m_Dir.File("set"), "no backup set");
    const std::string others[] = {"",
                                  "x",
                                  "SQLite format 3",
                                  "a text\n",
                                  std::string(100000, '\0'),
                                  std::string("SQLite format 2\0", 16),
                                  PatternedBytes(100000),
                                  m_Disks.Read("disk.vmdk")};
    for (const std::string& bytes : others) {
        SCOPED_TRACE(bytes.size());
        const std::string set = m_Dir.Write("set", bytes);
        EXPECT_FAILS_SAYING(Verify(set), set, "is no backup set");
        ExpectRefused(set);
    }
    EXPECT_FAILS_SAYING(Verify(m_Dir.File("none")), m_Dir.File("none"), "No such file");
    EXPECT_EQ((Names_t{"set", "sound"}), m_Dir.Entries());
}

TEST_F(DamagedSet, NothingButAHeaderIsRefused) {
    for (const size_t size : {16U, 17U, 99U, 100U, 101U, 512U, 16383U}) {
        SCOPED_TRACE(size);
        ExpectRefused(m_Dir.Write("set", m_Sound.substr(0, size)));
    }
    ExpectRefused(m_Dir.Write("set", m_Sound.substr(0, 100) + std::string(100000, '\0')));
}

TEST_F(DamagedSet, CutAnywhereItIsRefused) {
    constexpr size_t pageBytes = 16384;
    for (size_t size = 0; size < m_Sound.size() - pageBytes; size += 4091) {
        SCOPED_TRACE(size);
        const std::string set = m_Dir.Write("set", m_Sound.substr(0, size));
        ExpectRefused(set);
        if (size >= pageBytes) {
            EXPECT_FAILS_SAYING(Verify(set), set + ": the set is damaged: ");
        }
    }
    // The last page may end in bytes that nothing uses.
    for (size_t missing = 1; missing <= pageBytes; missing += 1021) {
        SCOPED_TRACE(testing::Message() << missing << " bytes are missing");
        const std::string set = m_Dir.Write("set", m_Sound.substr(0, m_Sound.size() - missing));
        IsRightOrRefused(set);
        FilesAreRightOrRefused(set);
    }
}

TEST_F(DamagedSet, BytesBehindItDoNotMatter) {
    EXPECT_TRUE(IsRightOrRefused(m_Dir.Write("set", m_Sound + "more")));
}

// A set of one small block, so that most of its bytes mean something.
class DamagedSmallSet : public DamagedSet {
protected:
    DamagedSmallSet() {
        for (const std::string& name : m_Disks.Entries())
            std::filesystem::remove(m_Disks.File(name));
        m_Content = std::string(2048, 'a') + PatternedBytes(512);
        EXPECT_OK(BackUp(WriteFlatDisk(m_Disks, {m_Content}), m_Dir.File("sound"), true));
        m_Sound = m_Dir.Read("sound");
    }
};

TEST_F(DamagedSmallSet, FlippedBitsAreRightOrRefused) {
    size_t used = 0;
    size_t refused = 0;
    size_t tried = 0;
    for (size_t at = 0; at < m_Sound.size(); ++at) {
        const bool isUsed = m_Sound[at] != '\0';
        used += isUsed ? 1 : 0;
        if (isUsed ? used % 5 != 0 : at % 1009 != 0)
            continue;
        std::string bytes = m_Sound;
        bytes[at] = static_cast<char>(bytes[at] ^ (1 << (tried % 8)));
        SCOPED_TRACE(testing::Message() << "byte " << at << ", bit " << tried % 8);
        const std::string set = m_Dir.Write("set", bytes);
        const bool asRaw = IsRightOrRefused(set);
        const bool asFiles = FilesAreRightOrRefused(set);
        refused += asRaw && asFiles ? 0 : 1;
        ++tried;
    }
    EXPECT_GT(tried, 200U);
    EXPECT_GT(refused, tried / 3);
    EXPECT_EQ((Names_t{"set", "sound"}), m_Dir.Entries());
}

TEST_F(DamagedSmallSet, EveryByteOfTheFileHeaderMayBeAnything) {
    for (size_t at = 0; at < 108; ++at) {
        for (const int value : {0x00, 0x01, 0x02, 0x7F, 0x80, 0xFF}) {
            std::string bytes = m_Sound;
            bytes[at] = static_cast<char>(value);
            SCOPED_TRACE(testing::Message() << "byte " << at << " becomes " << value);
            IsRightOrRefused(m_Dir.Write("set", bytes));
        }
    }
    EXPECT_EQ((Names_t{"set", "sound"}), m_Dir.Entries());
}

// Many blocks, so that the list of blocks has inner pages and batches end before it does.
class DamagedLargeSet : public DamagedSet {
protected:
    DamagedLargeSet() {
        CVmdkSparseBuilder builder;
        builder.Capacity(2000);
        m_Content.assign(2000 * 512, '\0');
        for (uint64_t grain = 0; grain < 250; ++grain) {
            builder.Grain(grain, PatternedBytes(4096, grain));
            PutBytes(m_Content, grain * 4096, PatternedBytes(4096, grain));
        }
        for (const std::string& name : m_Disks.Entries())
            std::filesystem::remove(m_Disks.File(name));
        EXPECT_OK(BackUp(builder.WriteTo(m_Disks), m_Dir.File("sound"), true));
        m_Sound = m_Dir.Read("sound");
    }
};

// A list that can't be read to its end must end the walk over it, too.
TEST_F(DamagedLargeSet, APageThatIsLostIsRefused) {
    constexpr size_t pageBytes = 16384;
    for (size_t at = pageBytes; at < m_Sound.size(); at += 5 * pageBytes) {
        for (const size_t damagedBytes : {8U, 16384U}) {
            SCOPED_TRACE(testing::Message() << damagedBytes << " bytes of page " << at / pageBytes);
            std::string bytes = m_Sound;
            bytes.replace(at, damagedBytes, damagedBytes, '\0');
            EXPECT_FALSE(IsRightOrRefused(m_Dir.Write("set", bytes)));
        }
    }
}

TEST_F(DamagedLargeSet, ABlockThatIsRefusedInTheMiddleEndsTheRestore) {
    for (const char* change : {"sectors = 0", "digest = x''", "encoding = 9", "data = zeroblob(70000000)",
                               "data = zeroblob(4096), encoding = 2"}) {
        SCOPED_TRACE(change);
        const std::string set = Fresh();
        AlterSet(set, std::string("UPDATE block SET ") + change + " WHERE id = 133");
        ExpectRefused(set);
    }
}

}  // namespace
