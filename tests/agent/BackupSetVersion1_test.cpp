#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VhdBuilder.h"

// Sets of the first version, of one disk and nothing else. No writer makes them any more.

namespace {

using Names_t = std::vector<std::string>;

// The tables as they were, to the letter.
constexpr const char* TablesOfVersion1 =
    "PRAGMA page_size = 16384; PRAGMA application_id = 1146307121; PRAGMA user_version = 1;"
    "CREATE TABLE backup_set (image_name TEXT NOT NULL, product INTEGER NOT NULL, disk_type INTEGER NOT NULL, "
    "disk_sectors INTEGER NOT NULL, has_parent INTEGER NOT NULL, parent_name TEXT NOT NULL, "
    "created_utc TEXT NOT NULL, writer TEXT NOT NULL, digest BLOB NOT NULL);"
    "CREATE TABLE stream (id INTEGER PRIMARY KEY, file_name TEXT NOT NULL, disk_type INTEGER NOT NULL, "
    "block_sectors INTEGER NOT NULL, disk_sectors INTEGER NOT NULL, file_bytes INTEGER NOT NULL, "
    "record_bytes INTEGER NOT NULL, record_digest BLOB NOT NULL, block_count INTEGER NOT NULL, "
    "stored_bytes INTEGER NOT NULL, digest BLOB NOT NULL);"
    "CREATE TABLE record (stream INTEGER NOT NULL, piece INTEGER NOT NULL, size INTEGER NOT NULL, "
    "digest BLOB NOT NULL, encoding INTEGER NOT NULL, data BLOB, PRIMARY KEY (stream, piece)) WITHOUT ROWID;"
    "CREATE TABLE block (id INTEGER PRIMARY KEY, stream INTEGER AS (id >> 40), "
    "number INTEGER AS (id & 1099511627775), sectors INTEGER NOT NULL, digest BLOB NOT NULL, "
    "encoding INTEGER NOT NULL, data BLOB);"
    "CREATE TABLE file (name TEXT PRIMARY KEY, bytes BLOB NOT NULL) WITHOUT ROWID;";

constexpr const char* RowsOfVersion1 =
    "INSERT INTO backup_set SELECT image_name, product, disk_type, disk_sectors, has_parent, parent_name, "
    "created_utc, writer, zeroblob(16) FROM new.backup_set, new.disk;"
    "INSERT INTO stream SELECT id, file_name, disk_type, block_sectors, disk_sectors, file_bytes, record_bytes, "
    "record_digest, block_count, stored_bytes, digest FROM new.stream;"
    "INSERT INTO record SELECT * FROM new.record;"
    "INSERT INTO block SELECT id, sectors, digest, encoding, data FROM new.block;"
    "INSERT INTO file SELECT name, bytes FROM new.file;";

void AddNumbers(CRunningDigest& digest, std::initializer_list<uint64_t> numbers) {
    for (const uint64_t number : numbers)
        digest.AddNumber(number);
}

std::string AsHex(const BlockDigest_t& digest) {
    std::string hex;
    for (const uint8_t byte : digest) {
        hex += "0123456789abcdef"[byte >> 4U];
        hex += "0123456789abcdef"[byte & 15U];
    }
    return hex;
}

// What the first version signed, in its order.
std::string DigestOfVersion1(const std::string& newSet) {
    CBackupSetReader set;
    EXPECT_OK(set.Open(newSet));
    CRunningDigest digest;
    const SetDisk_t& disk = set.Disks().at(0);
    digest.AddText(disk.imageName);
    AddNumbers(digest, {uint64_t(disk.product), uint64_t(disk.diskType), disk.diskSectors, disk.hasParent ? 1U : 0U});
    for (const std::string& text : {disk.parentName, set.Info().createdUtc, set.Info().writer})
        digest.AddText(text);
    for (const SetStream_t& stream : set.Streams()) {
        AddNumbers(digest, {uint64_t(stream.id)});
        digest.AddText(stream.fileName);
        AddNumbers(digest, {uint64_t(stream.diskType), stream.blockSectors, stream.diskSectors, stream.fileBytes,
                            stream.recordBytes});
        digest.Add(stream.recordDigest.data(), stream.recordDigest.size());
        AddNumbers(digest, {stream.blockCount, stream.storedBytes});
        digest.Add(stream.digest.data(), stream.digest.size());
    }
    for (const SetFile_t& file : set.Files()) {
        digest.AddText(file.name);
        digest.AddText(file.bytes);
    }
    return AsHex(digest.Result());
}

class SetOfVersion1 : public testing::Test {
protected:
    // The same disk in the older form.
    std::string Convert(const std::string& newSet) const {
        const std::string path = m_Dir.Write("old", "");
        AlterSet(path, TablesOfVersion1);
        AlterSet(path, "ATTACH '" + newSet + "' AS new; BEGIN;" + RowsOfVersion1 + "UPDATE backup_set SET digest = x'" +
                           DigestOfVersion1(newSet) + "'; COMMIT");
        return path;
    }

    std::string BackedUp(const std::string& image) const {
        EXPECT_OK(BackUp(image, m_Dir.File("new"), true));
        return Convert(m_Dir.File("new"));
    }

    CTempDir m_Disks;
    CTempDir m_Dir;
};

TEST_F(SetOfVersion1, IsASetOfOneDiskWithoutACatalogue) {
    const std::string path = BackedUp(WriteFlatDisk(m_Disks, {DiskContent(600), DiskContent(129, 2)}));
    CBackupSetReader set;
    ASSERT_OK(set.Open(path));
    ASSERT_EQ(1U, set.Disks().size());
    EXPECT_EQ(0, set.Disks()[0].id);
    EXPECT_EQ("disk.vmdk", set.Disks()[0].imageName);
    EXPECT_EQ(VirtualProdType_VMware, set.Disks()[0].product);
    EXPECT_EQ(DiskType_TwoGbMaxExtentFlat, set.Disks()[0].diskType);
    EXPECT_EQ(729U, set.Disks()[0].diskSectors);
    EXPECT_FALSE(set.Disks()[0].hasParent);
    ASSERT_EQ(2U, set.StreamsOf(0).size());
    EXPECT_EQ("disk-f002.vmdk", set.StreamsOf(0)[1].fileName);
    EXPECT_EQ(1U, set.FilesOf(0).size());
    EXPECT_TRUE(set.Volumes().empty());
    EXPECT_TRUE(set.Parts().empty());
    EXPECT_EQ(nullptr, set.FindPart("blocks-0"));
}

TEST_F(SetOfVersion1, ComesBackAndIsProved) {
    const std::string images[] = {
        WriteFlatDisk(m_Disks, {DiskContent(600), DiskContent(129, 2)}),
        CVhdBuilder::Dynamic(64).Block(1, 'b').Block(7, 'h').WriteTo(m_Disks),
    };
    for (const std::string& image : images) {
        SCOPED_TRACE(image);
        const std::string path = BackedUp(image);
        EXPECT_OK(Verify(path));
        std::vector<std::string> differences;
        EXPECT_OK(VerifyAgainst(path, image, differences));
        EXPECT_EQ(Names_t{}, differences);
        const CTempDir old;
        const CTempDir current;
        for (const bool asRaw : {false, true}) {
            ASSERT_OK(asRaw ? RestoreRaw(path, old.Path()) : Restore(path, old.Path()));
            ASSERT_OK(asRaw ? RestoreRaw(m_Dir.File("new"), current.Path())
                            : Restore(m_Dir.File("new"), current.Path()));
        }
        ASSERT_EQ(current.Entries(), old.Entries());
        for (const std::string& name : old.Entries())
            EXPECT_SAME_BYTES(current.Read(name), old.Read(name)) << name;
        EXPECT_SAME_BYTES(ReadFileBytes(image), old.Read(std::filesystem::path(image).filename().string()));
    }
}

// It has no list of its blocks, so what has no row isn't there.
TEST_F(SetOfVersion1, GivesItsBlocksByTheirNumbers) {
    const std::string content = DiskContent(600);
    const std::string path = BackedUp(WriteFlatDisk(m_Disks, {content}));
    CBackupSetReader set;
    ASSERT_OK(set.Open(path));
    CAutoMemory<char> bytes;
    bool isThere = false;
    for (const uint64_t number : {4U, 0U, 1U}) {
        ASSERT_OK(set.ReadBlock(set.Streams()[0], number, bytes, isThere));
        EXPECT_TRUE(isThere);
        EXPECT_SAME_BYTES(content.substr(number * 65536, 65536), BytesOf(bytes));
    }
    ASSERT_OK(set.ReadBlock(set.Streams()[0], 5, bytes, isThere));
    EXPECT_FALSE(isThere);
    EXPECT_FAILS_SAYING(set.ForEachEntry(0, 5, [](SetEntry_t&) { return true; }), path);
}

TEST_F(SetOfVersion1, DamageIsNoticed) {
    const std::string path = BackedUp(WriteFlatDisk(m_Disks, {DiskContent(600)}));
    const std::string sound = m_Dir.Read("old");
    for (const char* sql :
         {"UPDATE backup_set SET image_name = 'x'", "UPDATE backup_set SET disk_sectors = 1",
          "INSERT INTO backup_set SELECT * FROM backup_set", "DELETE FROM backup_set",
          "UPDATE stream SET file_name = 'x'", "UPDATE stream SET block_sectors = 0", "DELETE FROM stream",
          "UPDATE record SET data = zeroblob(8)", "DELETE FROM block WHERE id = 2", "UPDATE block SET sectors = 1",
          "DELETE FROM file", "CREATE TABLE more (a)", "PRAGMA user_version = 2", "DROP TABLE file",
          "CREATE TABLE part (id INTEGER PRIMARY KEY, name TEXT NOT NULL, bytes INTEGER NOT NULL, "
          "digest BLOB NOT NULL)"}) {
        SCOPED_TRACE(sql);
        m_Dir.Write("old", sound);
        AlterSet(path, sql);
        EXPECT_FAILS_SAYING(Verify(path), path, "the set is damaged");
        const CTempDir target;
        EXPECT_FAILS_SAYING(Restore(path, target.Path()), path);
        EXPECT_EQ(Names_t{}, target.Entries());
    }
}

TEST_F(SetOfVersion1, ANewerSetIsNoneOfIt) {
    const std::string disk = WriteFlatDisk(m_Disks, {DiskContent(600)});
    ASSERT_OK(BackUp(disk, m_Dir.File("new")));
    AlterSet(m_Dir.File("new"), "PRAGMA user_version = 1");
    EXPECT_FAILS_SAYING(Verify(m_Dir.File("new")), "the set is damaged: its table");
}

}  // namespace
