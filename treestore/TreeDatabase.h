#pragma once

#include <sqlite3.h>

#include <memory>

#include "treestore/FileBatch.h"

namespace treestore {

// The table as an SQLite database. All that is done with it is one transaction: what stood there before stays until
// `Finish`. Several threads may use it one after the other.
class CTreeDatabase {
public:
    bool Open(const char* path);

    // After a failure there is only `TakeBack`.
    bool Insert(const CFileBatch& batch);

    // Makes the index and commits. The files are on the medium then. After a failure what stood there before is back.
    bool Finish();

    // Brings back what stood there before.
    void TakeBack();

private:
    struct CloseDatabase_t {
        void operator()(sqlite3* database) const { sqlite3_close(database); }
    };
    struct FinishStatement_t {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    using Statement_t = std::unique_ptr<sqlite3_stmt, FinishStatement_t>;

    bool Run(const char* statements);
    Statement_t PrepareInsert(int files);
    static bool InsertTogether(sqlite3_stmt* insert, const CFileBatch& batch, const CFileBatch::File_t* first,
                               int files);

    std::unique_ptr<sqlite3, CloseDatabase_t> m_Database;
    Statement_t m_InsertMany;  // both go before the database
    Statement_t m_InsertOne;
};

}  // namespace treestore
