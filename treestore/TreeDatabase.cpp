#include "treestore/TreeDatabase.h"

#include <string>

namespace treestore {

namespace {

// Files come in the order of their FRN, so that the table grows at its end; the index over parents is made when all are
// there, which is quicker than keeping it up. A thread of SQLite's own sorts for it.
constexpr char BeginTable[] = "PRAGMA threads = 1;"
                              "BEGIN IMMEDIATE;"
                              "DROP TABLE IF EXISTS files;"
                              "CREATE TABLE files(frn INTEGER PRIMARY KEY, parent INTEGER NOT NULL, name TEXT NOT NULL,"
                              " is_directory INTEGER NOT NULL, bytes INTEGER NOT NULL, attributes INTEGER NOT NULL,"
                              " write_time INTEGER NOT NULL, access_time INTEGER NOT NULL,"
                              " creation_time INTEGER NOT NULL);";
constexpr char EndTable[] = "CREATE INDEX files_by_parent ON files(parent, name); COMMIT;";
constexpr char InsertFiles[] = "INSERT OR REPLACE INTO files VALUES";
constexpr char FileColumns[] = "(?, ?, ?, ?, ?, ?, ?, ?, ?)";
constexpr int ColumnCount = 9;

// Beginning and ending a statement takes as long as a file's row itself.
constexpr int FilesTogether = 32;

// SQLite's integers have a sign; the bits are kept.
sqlite3_int64 Bits(uint64_t number) {
    return static_cast<sqlite3_int64>(number);
}

void BindFile(sqlite3_stmt* insert, int firstColumn, const CFileBatch::File_t& file, const char* name) {
    int column = firstColumn;
    sqlite3_bind_int64(insert, column++, Bits(file.frn));
    sqlite3_bind_int64(insert, column++, Bits(file.parentFrn));
    sqlite3_bind_text(insert, column++, name, file.nameBytes, SQLITE_STATIC);
    sqlite3_bind_int(insert, column++, file.isDirectory != 0 ? 1 : 0);
    sqlite3_bind_int64(insert, column++, Bits(file.sizeBytes));
    sqlite3_bind_int64(insert, column++, file.fileAttributes);
    sqlite3_bind_int64(insert, column++, file.writeTime);
    sqlite3_bind_int64(insert, column++, file.accessTime);
    sqlite3_bind_int64(insert, column++, file.creationTime);
}

}  // namespace

bool CTreeDatabase::Open(const char* path) {
    constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    sqlite3* database = nullptr;
    const int opened = sqlite3_open_v2(path, &database, flags, nullptr);
    m_Database.reset(database);  // to be closed after a failure too
    if (opened != SQLITE_OK || !Run(BeginTable))
        return false;
    m_InsertMany = PrepareInsert(FilesTogether);
    m_InsertOne = PrepareInsert(1);
    return m_InsertMany != nullptr && m_InsertOne != nullptr;
}

bool CTreeDatabase::Insert(const CFileBatch& batch) {
    const CFileBatch::File_t* next = batch.begin();
    for (; batch.end() - next >= FilesTogether; next += FilesTogether) {
        if (!InsertTogether(m_InsertMany.get(), batch, next, FilesTogether))
            return false;
    }
    for (; next != batch.end(); ++next) {
        if (!InsertTogether(m_InsertOne.get(), batch, next, 1))
            return false;
    }
    return true;
}

bool CTreeDatabase::Finish() {
    m_InsertMany.reset();
    m_InsertOne.reset();
    if (Run(EndTable))
        return true;
    TakeBack();
    return false;
}

// A write that failed in the middle leaves a journal, which only the next one who reads would bring back.
void CTreeDatabase::TakeBack() {
    m_InsertMany.reset();
    m_InsertOne.reset();
    Run("ROLLBACK");  // which a failure may have done already
    Run("SELECT count(*) FROM sqlite_master");
}

bool CTreeDatabase::Run(const char* statements) {
    return sqlite3_exec(m_Database.get(), statements, nullptr, nullptr, nullptr) == SQLITE_OK;
}

CTreeDatabase::Statement_t CTreeDatabase::PrepareInsert(int files) {
    std::string text = std::string(InsertFiles) + FileColumns;
    for (int file = 1; file < files; ++file)
        text += std::string(",") + FileColumns;
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(m_Database.get(), text.c_str(), -1, &insert, nullptr);  // a failure gives none
    return Statement_t(insert);
}

bool CTreeDatabase::InsertTogether(sqlite3_stmt* insert, const CFileBatch& batch, const CFileBatch::File_t* first,
                                   int files) {
    for (int index = 0; index < files; ++index)
        BindFile(insert, index * ColumnCount + 1, first[index], batch.NameOf(first[index]));
    return sqlite3_step(insert) == SQLITE_DONE && sqlite3_reset(insert) == SQLITE_OK;
}

}  // namespace treestore
