#pragma once

#include <cstdint>
#include <vector>

// The tables of a backup set. docs/backup-set.md describes them; a change here is a change of the
// format.

constexpr int64_t SetApplicationId = 0x44534231;  // "DSB1"
constexpr uint32_t RecordPieceBytes = 1U << 20U;
constexpr uint32_t PartPieceBytes = 1U << 20U;

// More than the record of any disk whose tables the core takes into memory, those that it leaves
// out as zeros counted.
constexpr uint64_t LargestRecordBytes = uint64_t{3} << 29U;

// A block's id is its stream's times 2^40 plus its number in it. SQLite appends rows by one number
// several times as fast as by a key of two columns, which for people are there all the same. The
// pieces of parts have ids of the same make.
constexpr unsigned BlockNumberBits = 40;
constexpr uint64_t BlockNumberEnd = uint64_t{1} << BlockNumberBits;
constexpr int64_t StreamEnd = int64_t{1} << 23;

// Of streams and their blocks, and of parts and their pieces.
inline int64_t FirstIdOf(int64_t owner) {
    return owner << BlockNumberBits;
}

constexpr size_t LargestFactsBytes = 16U << 20U;
constexpr size_t LargestEntryNameBytes = 1046 * 3;  // as many characters as a table of a tree can name

// The kind of an entry is the sum of these.
constexpr int64_t EntryIsDirectory = 1;
constexpr int64_t EntryIsFurtherName = 2;

struct SetTable_t {
    const char* name;
    const char* sql;
};

constexpr SetTable_t RecordTable = {
    "record", "CREATE TABLE record (stream INTEGER NOT NULL, piece INTEGER NOT NULL, size INTEGER NOT NULL, "
              "digest BLOB NOT NULL, encoding INTEGER NOT NULL, data BLOB, PRIMARY KEY (stream, piece)) "
              "WITHOUT ROWID"};

constexpr SetTable_t BlockTable = {
    "block", "CREATE TABLE block (id INTEGER PRIMARY KEY, stream INTEGER AS (id >> 40), "
             "number INTEGER AS (id & 1099511627775), sectors INTEGER NOT NULL, digest BLOB NOT NULL, "
             "encoding INTEGER NOT NULL, data BLOB)"};

// Version 1: one disk.
constexpr SetTable_t SetTables1[] = {
    {"backup_set", "CREATE TABLE backup_set (image_name TEXT NOT NULL, product INTEGER NOT NULL, "
                   "disk_type INTEGER NOT NULL, disk_sectors INTEGER NOT NULL, has_parent INTEGER NOT NULL, "
                   "parent_name TEXT NOT NULL, created_utc TEXT NOT NULL, writer TEXT NOT NULL, "
                   "digest BLOB NOT NULL)"},
    {"stream", "CREATE TABLE stream (id INTEGER PRIMARY KEY, file_name TEXT NOT NULL, disk_type INTEGER NOT NULL, "
               "block_sectors INTEGER NOT NULL, disk_sectors INTEGER NOT NULL, file_bytes INTEGER NOT NULL, "
               "record_bytes INTEGER NOT NULL, record_digest BLOB NOT NULL, block_count INTEGER NOT NULL, stored_bytes "
               "INTEGER NOT NULL, "
               "digest BLOB NOT NULL)"},
    RecordTable,
    BlockTable,
    {"file", "CREATE TABLE file (name TEXT PRIMARY KEY, bytes BLOB NOT NULL) WITHOUT ROWID"},
};

// Version 2: several disks, and a catalogue of their volumes.
constexpr SetTable_t SetTables2[] = {
    {"backup_set", "CREATE TABLE backup_set (created_utc TEXT NOT NULL, writer TEXT NOT NULL, digest BLOB NOT NULL)"},
    {"disk", "CREATE TABLE disk (id INTEGER PRIMARY KEY, image_name TEXT NOT NULL, product INTEGER NOT NULL, "
             "disk_type INTEGER NOT NULL, disk_sectors INTEGER NOT NULL, has_parent INTEGER NOT NULL, "
             "parent_name TEXT NOT NULL)"},
    {"stream", "CREATE TABLE stream (id INTEGER PRIMARY KEY, disk INTEGER NOT NULL, file_name TEXT NOT NULL, "
               "disk_type INTEGER NOT NULL, block_sectors INTEGER NOT NULL, disk_sectors INTEGER NOT NULL, "
               "file_bytes INTEGER NOT NULL, record_bytes INTEGER NOT NULL, record_digest BLOB NOT NULL, "
               "block_count INTEGER NOT NULL, stored_bytes INTEGER NOT NULL, digest BLOB NOT NULL)"},
    RecordTable,
    BlockTable,
    {"file", "CREATE TABLE file (disk INTEGER NOT NULL, name TEXT NOT NULL, bytes BLOB NOT NULL, "
             "PRIMARY KEY (disk, name)) WITHOUT ROWID"},
    {"volume", "CREATE TABLE volume (id INTEGER PRIMARY KEY, name TEXT NOT NULL, facts TEXT NOT NULL, "
               "entry_count INTEGER NOT NULL, entries_digest BLOB NOT NULL)"},
    {"part", "CREATE TABLE part (id INTEGER PRIMARY KEY, name TEXT NOT NULL, bytes INTEGER NOT NULL, "
             "digest BLOB NOT NULL)"},
    {"piece", "CREATE TABLE piece (id INTEGER PRIMARY KEY, part INTEGER AS (id >> 40), "
              "number INTEGER AS (id & 1099511627775), size INTEGER NOT NULL, digest BLOB NOT NULL, "
              "encoding INTEGER NOT NULL, data BLOB)"},
    {"entry", "CREATE TABLE entry (volume INTEGER NOT NULL, parent INTEGER NOT NULL, name BLOB NOT NULL, "
              "frn INTEGER NOT NULL, bytes INTEGER NOT NULL, modified INTEGER NOT NULL, accessed INTEGER NOT NULL, "
              "created INTEGER NOT NULL, record_changed INTEGER NOT NULL, attributes INTEGER NOT NULL, "
              "reparse_tag INTEGER NOT NULL, links INTEGER NOT NULL, kind INTEGER NOT NULL, "
              "PRIMARY KEY (volume, parent, name, frn)) WITHOUT ROWID"},
};

// Version 3: a set that builds on another one. All else is as in version 2.
constexpr SetTable_t BaseTable = {
    "base", "CREATE TABLE base (name TEXT NOT NULL, identity BLOB NOT NULL, changed_since TEXT NOT NULL)"};

inline std::vector<SetTable_t> TablesOfVersion(int64_t version) {
    if (version == 1)
        return {std::begin(SetTables1), std::end(SetTables1)};
    std::vector<SetTable_t> tables(std::begin(SetTables2), std::end(SetTables2));
    if (version == 3)
        tables.push_back(BaseTable);
    return tables;
}
