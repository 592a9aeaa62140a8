#pragma once

#include <cstdint>

// The tables of a backup set, version 1. docs/backup-set.md describes them; a change here is a
// change of the format.

constexpr int64_t SetApplicationId = 0x44534231;  // "DSB1"
constexpr uint32_t RecordPieceBytes = 1U << 20U;

// More than the record of any disk whose tables the core takes into memory, those that it leaves
// out as zeros counted.
constexpr uint64_t LargestRecordBytes = uint64_t{3} << 29U;

// A block's id is its stream's times 2^40 plus its number in it. SQLite appends rows by one number
// several times as fast as by a key of two columns, which for people are there all the same.
constexpr unsigned BlockNumberBits = 40;
constexpr uint64_t BlockNumberEnd = uint64_t{1} << BlockNumberBits;
constexpr int64_t StreamEnd = int64_t{1} << 23;

struct SetTable_t {
    const char* name;
    const char* sql;
};

constexpr SetTable_t SetTables[] = {
    {"backup_set", "CREATE TABLE backup_set (image_name TEXT NOT NULL, product INTEGER NOT NULL, "
                   "disk_type INTEGER NOT NULL, disk_sectors INTEGER NOT NULL, has_parent INTEGER NOT NULL, "
                   "parent_name TEXT NOT NULL, created_utc TEXT NOT NULL, writer TEXT NOT NULL, "
                   "digest BLOB NOT NULL)"},
    {"stream", "CREATE TABLE stream (id INTEGER PRIMARY KEY, file_name TEXT NOT NULL, disk_type INTEGER NOT NULL, "
               "block_sectors INTEGER NOT NULL, disk_sectors INTEGER NOT NULL, file_bytes INTEGER NOT NULL, "
               "record_bytes INTEGER NOT NULL, record_digest BLOB NOT NULL, block_count INTEGER NOT NULL, stored_bytes "
               "INTEGER NOT NULL, "
               "digest BLOB NOT NULL)"},
    {"record", "CREATE TABLE record (stream INTEGER NOT NULL, piece INTEGER NOT NULL, size INTEGER NOT NULL, "
               "digest BLOB NOT NULL, encoding INTEGER NOT NULL, data BLOB, PRIMARY KEY (stream, piece)) "
               "WITHOUT ROWID"},
    {"block", "CREATE TABLE block (id INTEGER PRIMARY KEY, stream INTEGER AS (id >> 40), "
              "number INTEGER AS (id & 1099511627775), sectors INTEGER NOT NULL, digest BLOB NOT NULL, "
              "encoding INTEGER NOT NULL, data BLOB)"},
    {"file", "CREATE TABLE file (name TEXT PRIMARY KEY, bytes BLOB NOT NULL) WITHOUT ROWID"},
};
