#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "foundation/ZuError.h"

struct sqlite3;
struct sqlite3_stmt;

// The SQLite database of a backup set: a thin cover that turns its results into errors that name
// the file.
class CSetDatabase {
public:
    CSetDatabase();
    CSetDatabase(const CSetDatabase&) = delete;
    CSetDatabase& operator=(const CSetDatabase&) = delete;
    ~CSetDatabase();

    // Makes the file `path`. `shownName` stands in errors.
    CZuError Create(const std::string& path, const std::string& shownName);

    // Opens `path` for reading alone, distrusting what it holds.
    CZuError OpenForReading(const std::string& path);

    CZuError Close();
    CZuError Execute(const char* sql);
    CZuError QueryNumber(const char* sql, int64_t& number);

    // The failure of a set whose bytes aren't what they were.
    CZuError Damaged(const std::string& what) const;

    // Rows that the last statement wrote or took away.
    int Changes() const;

    // An error with SQLite's own words for what happened last.
    CZuError LastError() const;
    const std::string& ShownName() const { return m_ShownName; }
    sqlite3* Handle() { return m_Handle; }

private:
    CZuError Open(const std::string& path, int flags);

    sqlite3* m_Handle = nullptr;
    std::string m_ShownName;
};

// A statement, prepared once and run often.
class CSetStatement {
public:
    CSetStatement() = default;
    CSetStatement(const CSetStatement&) = delete;
    CSetStatement& operator=(const CSetStatement&) = delete;
    ~CSetStatement();

    CZuError Prepare(CSetDatabase& database, const char* sql);
    bool IsPrepared() const { return m_Statement != nullptr; }

    // Parameters count from 1. Bytes and texts stay the caller's until the next `Run` or `Step`.
    void Bind(int index, int64_t number);
    void Bind(int index, const std::string& text);
    void BindBytes(int index, const void* bytes, uint64_t size);
    void BindNull(int index);

    // Runs a statement that gives no rows, and makes it ready for the next time.
    CZuError Run();

    // Ends a walk over rows, and makes the statement ready for the next one.
    void Reset();

    // Lets go of the statement, so that its database can be closed.
    void Finish();

    // Goes to the next row; `hasRow` is false behind the last one.
    CZuError Step(bool& hasRow);

    // Columns of the current row count from 0. Bytes live until the next `Step`.
    int64_t Number(int column);
    std::string Text(int column);
    const char* Bytes(int column, uint32_t& size);

    // What the column really holds, whatever its table says of it.
    bool IsNumber(int column);
    bool IsText(int column);
    bool IsBytes(int column);

private:
    CSetDatabase* m_Database = nullptr;
    sqlite3_stmt* m_Statement = nullptr;
};

// Makes a statement ready for the next walk, however this one ends.
class CSetStatementUse {
public:
    explicit CSetStatementUse(CSetStatement& statement) : m_Statement(statement) {}
    CSetStatementUse(const CSetStatementUse&) = delete;
    CSetStatementUse& operator=(const CSetStatementUse&) = delete;
    ~CSetStatementUse() { m_Statement.Reset(); }

private:
    CSetStatement& m_Statement;
};
