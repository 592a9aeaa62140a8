#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/BackupSetReader.h"
#include "agent/BackupSetWriter.h"
#include "agent/detail/SetDigest.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"

// Changes to a set that no writer makes: those of chance, and those of somebody who knows the format.

// Runs `sql` on the set, from outside.
inline void AlterSet(const std::string& set, const std::string& sql) {
    sqlite3* database = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open_v2(set.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr)) << set;
    sqlite3_exec(database, "PRAGMA journal_mode = OFF", nullptr, nullptr, nullptr);
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr))
        << sql << ": " << sqlite3_errmsg(database);
    EXPECT_EQ(SQLITE_OK, sqlite3_close(database));
}

// The first column of the first row that `sql` gives.
inline std::string AskSet(const std::string& set, const std::string& sql) {
    sqlite3* database = nullptr;
    sqlite3_stmt* statement = nullptr;
    std::string answer = "nothing";
    EXPECT_EQ(SQLITE_OK, sqlite3_open_v2(set.c_str(), &database, SQLITE_OPEN_READONLY, nullptr)) << set;
    EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(database, sql.c_str(), -1, &statement, nullptr)) << sql;
    if (sqlite3_step(statement) == SQLITE_ROW && sqlite3_column_bytes(statement, 0) != 0)
        answer.assign(static_cast<const char*>(sqlite3_column_blob(statement, 0)),
                      static_cast<size_t>(sqlite3_column_bytes(statement, 0)));
    sqlite3_finalize(statement);
    sqlite3_close(database);
    return answer;
}

// A set in memory. Writing it signs whatever it holds.
struct LooseSet_t {
    struct Block_t {
        SetBlock_t block;
        std::string bytes;  // as stored
    };
    struct Stream_t {
        SetStream_t stream;
        std::string record;
        std::vector<Block_t> blocks;
    };

    SetInfo_t info;
    std::vector<SetDisk_t> disks;
    std::vector<Stream_t> streams;
    std::vector<SetFile_t> files;

    void ReadFrom(const std::string& path) {
        CBackupSetReader reader;
        ASSERT_OK(reader.Open(path));
        info = reader.Info();
        disks = reader.Disks();
        files = reader.Files();
        for (const SetStream_t& stream : reader.Streams()) {
            Stream_t& read = streams.emplace_back();
            read.stream = stream;
            CAutoMemory<char> record;
            ASSERT_OK(reader.ReadRecord(stream, record));
            read.record = BytesOf(record);
            ReadBlocks(reader, read);
        }
    }

    void WriteTo(const std::string& path) const {
        CBackupSetWriter writer;
        ASSERT_OK(writer.Create(path, true));
        for (const SetDisk_t& disk : disks)
            ASSERT_OK(writer.AddDisk(disk));
        for (const Stream_t& stream : streams) {
            ASSERT_OK(writer.BeginStream(stream.stream, BufferOf(stream.record), DefaultCompression));
            for (const Block_t& each : stream.blocks) {
                SetBlock_t block = each.block;
                block.encoded.data = each.bytes.data();
                block.encoded.sizeBytes = static_cast<uint32_t>(each.bytes.size());
                ASSERT_OK(writer.AddBlock(block));
            }
            ASSERT_OK(writer.EndStream());
        }
        for (const SetFile_t& file : files)
            ASSERT_OK(writer.AddFile(file));
        ASSERT_OK(writer.Commit(info));
    }

private:
    static void ReadBlocks(CBackupSetReader& reader, Stream_t& read) {
        ASSERT_OK(reader.BeginBlocks(read.stream));
        for (;;) {
            std::optional<SetBlock_t> block;
            ASSERT_OK(reader.NextBlock(block));
            if (!block.has_value())
                return;
            const EncodedBlock_t& encoded = block->encoded;
            read.blocks.push_back({*block, encoded.sizeBytes != 0 ? std::string(encoded.data, encoded.sizeBytes) : ""});
        }
    }
};

// Signs the lists of a set again after `sql` has changed its database and `change` the same in memory.
inline void AlterAndSign(const std::string& set, const std::string& sql,
                         const std::function<void(SetLists_t&)>& change) {
    SetLists_t lists;
    {
        CSetDatabase database;
        ASSERT_OK(database.OpenForReading(set));
        ASSERT_OK(ReadSetLists(database, lists));
    }
    change(lists);
    std::string hex;
    for (const uint8_t byte : DigestOfSet(lists)) {
        hex += "0123456789abcdef"[byte >> 4U];
        hex += "0123456789abcdef"[byte & 15U];
    }
    AlterSet(set, sql + "; UPDATE backup_set SET digest = x'" + hex + "'");
}
