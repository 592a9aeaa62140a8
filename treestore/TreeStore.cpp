#include "treestore/TreeStore.h"

#include <sqlite3.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

namespace {

static_assert(sizeof(TreeStoreEntry_t) == 1088 && offsetof(TreeStoreEntry_t, name) == 41);

// Files come in the order of their FRN, so that the table grows at its end; the index over parents is made when all are
// there, which is quicker than keeping it up.
constexpr char BeginTable[] = "BEGIN IMMEDIATE;"
                              "DROP TABLE IF EXISTS files;"
                              "CREATE TABLE files(frn INTEGER PRIMARY KEY, parent INTEGER NOT NULL, name TEXT NOT NULL,"
                              " is_directory INTEGER NOT NULL, bytes INTEGER NOT NULL, attributes INTEGER NOT NULL,"
                              " write_time INTEGER NOT NULL, access_time INTEGER NOT NULL,"
                              " creation_time INTEGER NOT NULL);";
constexpr char EndTable[] = "CREATE INDEX files_by_parent ON files(parent, name); COMMIT;";
constexpr char InsertFile[] = "INSERT OR REPLACE INTO files VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)";

struct CloseDatabase_t {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
};
struct FinishStatement_t {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

// SQLite's integers have a sign; the bits are kept.
sqlite3_int64 Bits(uint64_t number) {
    return static_cast<sqlite3_int64>(number);
}

class CTreeTable {
public:
    bool Open(const char* path) {
        sqlite3* database = nullptr;
        const int opened = sqlite3_open(path, &database);
        m_Database.reset(database);  // to be closed after a failure too
        return opened == SQLITE_OK && Run(BeginTable) && Prepare();
    }

    bool Add(const TreeStoreEntry_t& entry) {
        if (m_HasFailed || std::memchr(entry.name, 0, sizeof(entry.name)) == nullptr)
            return Fail();
        sqlite3_stmt* const insert = m_Insert.get();
        sqlite3_bind_int64(insert, 1, Bits(entry.frn));
        sqlite3_bind_int64(insert, 2, Bits(entry.parentFrn));
        sqlite3_bind_text(insert, 3, entry.name, -1, SQLITE_STATIC);
        sqlite3_bind_int(insert, 4, entry.isDirectory != 0 ? 1 : 0);
        sqlite3_bind_int64(insert, 5, Bits(entry.sizeBytes));
        sqlite3_bind_int64(insert, 6, entry.fileAttributes);
        sqlite3_bind_int64(insert, 7, entry.writeTime);
        sqlite3_bind_int64(insert, 8, entry.accessTime);
        sqlite3_bind_int64(insert, 9, entry.creationTime);
        const bool isAdded = sqlite3_step(insert) == SQLITE_DONE && sqlite3_reset(insert) == SQLITE_OK;
        return isAdded || Fail();
    }

    bool Close() {
        m_Insert.reset();
        return !m_HasFailed && Run(EndTable);
    }

private:
    bool Fail() {
        m_HasFailed = true;
        return false;
    }

    bool Run(const char* statements) {
        return sqlite3_exec(m_Database.get(), statements, nullptr, nullptr, nullptr) == SQLITE_OK;
    }

    bool Prepare() {
        sqlite3_stmt* insert = nullptr;
        const int result = sqlite3_prepare_v2(m_Database.get(), InsertFile, -1, &insert, nullptr);
        m_Insert.reset(insert);
        return result == SQLITE_OK;
    }

    std::unique_ptr<sqlite3, CloseDatabase_t> m_Database;
    std::unique_ptr<sqlite3_stmt, FinishStatement_t> m_Insert;  // goes before the database
    bool m_HasFailed = false;
};

}  // namespace

void* tsImageTableOpen(const char* path) {
    if (path == nullptr)
        return nullptr;
    std::unique_ptr<CTreeTable> table(new (std::nothrow) CTreeTable);
    return table != nullptr && table->Open(path) ? table.release() : nullptr;
}

int tsImageTableAdd(void* table, const TreeStoreEntry_t* entry) {
    if (table == nullptr || entry == nullptr)
        return 1;
    return static_cast<CTreeTable*>(table)->Add(*entry) ? 0 : 1;
}

int tsImageTableClose(void* table) {
    const std::unique_ptr<CTreeTable> closed(static_cast<CTreeTable*>(table));
    return closed != nullptr && closed->Close() ? 0 : 1;
}
