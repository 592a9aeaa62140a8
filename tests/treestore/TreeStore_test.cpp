#include "treestore/TreeStore.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/TempDir.h"

namespace {

TreeStoreEntry_t File(uint64_t frn, uint64_t parent, const std::string& name) {
    TreeStoreEntry_t entry{};
    entry.frn = frn;
    entry.parentFrn = parent;
    std::memcpy(entry.name, name.data(), name.size());
    return entry;
}

// All rows of what `query` asks, with bars between the columns.
std::vector<std::string> Rows(const std::string& path, const std::string& query) {
    std::vector<std::string> rows;
    sqlite3* database = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READONLY, nullptr));
    const auto take = [](void* context, int count, char** values, char** /*names*/) {
        std::string row;
        for (int column = 0; column < count; ++column)
            row += (column == 0 ? "" : "|") + std::string(values[column] != nullptr ? values[column] : "null");
        static_cast<std::vector<std::string>*>(context)->push_back(row);
        return 0;
    };
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(database, query.c_str(), take, &rows, nullptr)) << query;
    sqlite3_close(database);
    return rows;
}

constexpr char AllNames[] = "SELECT name FROM files ORDER BY frn";

class TreeStore : public testing::Test {
protected:
    int Keep(const std::vector<TreeStoreEntry_t>& files) {
        void* const table = tsImageTableOpen(m_Path.c_str());
        EXPECT_NE(nullptr, table);
        for (const TreeStoreEntry_t& file : files)
            EXPECT_EQ(0, tsImageTableAdd(table, &file));
        return tsImageTableClose(table);
    }

    CTempDir m_Dir;
    const std::string m_Path = m_Dir.File("tree");
};

TEST_F(TreeStore, KeepsARowForEachFile) {
    TreeStoreEntry_t entry = File(64, 5, "n\u00E4me");
    entry.sizeBytes = 0xFFFFFFFFFF;
    entry.writeTime = 0xFFFFFFFF;
    entry.fileAttributes = 0x80000020;
    entry.accessTime = 2;
    entry.creationTime = 3;
    entry.isDirectory = 1;
    ASSERT_EQ(0, Keep({entry}));
    EXPECT_EQ(std::vector<std::string>{"64|5|n\u00E4me|1|1099511627775|2147483680|4294967295|2|3"},
              Rows(m_Path, "SELECT frn, parent, name, is_directory, bytes, attributes, write_time, access_time,"
                           " creation_time FROM files"));
}

TEST_F(TreeStore, TheFilesOfADirectoryAreFoundByAnIndex) {
    ASSERT_EQ(0, Keep({File(64, 5, "b"), File(65, 64, "inner"), File(66, 5, "a")}));
    EXPECT_EQ((std::vector<std::string>{"a", "b"}),
              Rows(m_Path, "SELECT name FROM files WHERE parent = 5 ORDER BY name"));
    const std::vector<std::string> plan =
        Rows(m_Path, "EXPLAIN QUERY PLAN SELECT name FROM files WHERE parent = 5 ORDER BY name");
    ASSERT_EQ(1U, plan.size());
    EXPECT_NE(std::string::npos, plan[0].find("files_by_parent")) << plan[0];
}

TEST_F(TreeStore, AFileOfTheSameNumberTakesThePlaceOfTheEarlierOne) {
    ASSERT_EQ(0, Keep({File(64, 5, "old"), File(64, 5, "new")}));
    EXPECT_EQ(std::vector<std::string>{"new"}, Rows(m_Path, AllNames));
}

TEST_F(TreeStore, TheLastOfManyFilesOfTheSameNumberStays) {
    std::vector<TreeStoreEntry_t> files;
    for (int turn = 0; turn < 100; ++turn)
        files.push_back(File(64 + turn % 2, 5, "turn " + std::to_string(turn)));
    ASSERT_EQ(0, Keep(files));
    EXPECT_EQ((std::vector<std::string>{"turn 98", "turn 99"}), Rows(m_Path, AllNames));
}

TEST_F(TreeStore, ManyFilesAreKeptWithNamesOfAnyLength) {
    constexpr uint64_t count = 5000;
    const size_t longest = sizeof(TreeStoreEntry_t::name) - 1;
    std::vector<TreeStoreEntry_t> files;
    std::vector<std::string> expected;
    for (uint64_t index = 0; index < count; ++index) {
        // As many as the short names of a large directory, then as long as names get.
        const size_t length = index < count / 2 ? index % 20 : longest - index % 50;
        const std::string name(length, static_cast<char>('a' + index % 26));
        files.push_back(File(count - index, index, name));
        expected.push_back(std::to_string(count - index) + "|" + std::to_string(index) + "|" + name);
    }
    ASSERT_EQ(0, Keep(files));
    EXPECT_EQ(expected, Rows(m_Path, "SELECT frn, parent, name FROM files ORDER BY frn DESC"));
}

TEST_F(TreeStore, ATableWithoutFilesIsATable) {
    ASSERT_EQ(0, Keep({}));
    EXPECT_EQ(std::vector<std::string>{"0"}, Rows(m_Path, "SELECT count(*) FROM files"));
}

TEST_F(TreeStore, ATableThatIsMadeAgainHoldsTheNewFilesAlone) {
    ASSERT_EQ(0, Keep({File(64, 5, "old")}));
    ASSERT_EQ(0, Keep({File(65, 5, "new")}));
    EXPECT_EQ(std::vector<std::string>{"new"}, Rows(m_Path, AllNames));
}

TEST_F(TreeStore, ANameWithoutAnEndIsRefusedAndWhatStoodThereStays) {
    ASSERT_EQ(0, Keep({File(64, 5, "old")}));
    void* const table = tsImageTableOpen(m_Path.c_str());
    ASSERT_NE(nullptr, table);
    const TreeStoreEntry_t good = File(65, 5, "new");
    const TreeStoreEntry_t endless = File(66, 5, std::string(sizeof(good.name), 'n'));
    EXPECT_EQ(0, tsImageTableAdd(table, &good));
    EXPECT_NE(0, tsImageTableAdd(table, &endless));
    EXPECT_NE(0, tsImageTableAdd(table, &good));
    EXPECT_NE(0, tsImageTableClose(table));
    EXPECT_EQ(std::vector<std::string>{"old"}, Rows(m_Path, AllNames));
}

TEST_F(TreeStore, WhatSomebodyReadsStaysAndClosingFails) {
    ASSERT_EQ(0, Keep({File(64, 5, "old")}));
    sqlite3* reader = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(m_Path.c_str(), &reader));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(reader, "BEGIN; SELECT * FROM files", nullptr, nullptr, nullptr));
    EXPECT_NE(0, Keep({File(65, 5, "new")}));
    sqlite3_close(reader);
    EXPECT_EQ(std::vector<std::string>{"old"}, Rows(m_Path, AllNames));
}

TEST_F(TreeStore, WhatCantBeOpenedIsNull) {
    EXPECT_EQ(nullptr, tsImageTableOpen(m_Dir.File("nowhere/tree").c_str()));
    EXPECT_EQ(nullptr, tsImageTableOpen(nullptr));
    EXPECT_EQ(nullptr, tsImageTableOpen(m_Dir.Write("text", "This is no database, whatever its name says.").c_str()));
    EXPECT_NE(0, tsImageTableAdd(nullptr, nullptr));
    EXPECT_NE(0, tsImageTableClose(nullptr));
}

}  // namespace
