#include "agent/detail/SetDatabase.h"

#include <sqlite3.h>

#include "agent/ErrorText.h"
#include "foundation/ZuFile.h"
#include "foundation/detail/ErrorHandling.h"
#include "platform/SystemError.h"

namespace {

constexpr int LargestValueBytes = 64 << 20;  // a block of the largest size and its row

// Where a file can't be made, SQLite tries to read it and then says that it isn't there.
CZuError MakeEmptyFile(const std::string& path) {
    constexpr int ownerReadsAndWrites = 384;  // it holds all that the disk holds
    CZuFile file;
    ZU_RETURN_IF_ERROR(
        file.Open(path.c_str(), OpenAsBinary | OpenNotInherited | OpenCreating | OpenForBoth, ownerReadsAndWrites));
    return file.Close();
}

}  // namespace

CSetDatabase::CSetDatabase() = default;

CSetDatabase::~CSetDatabase() {
    sqlite3_close_v2(m_Handle);
}

CZuError CSetDatabase::Create(const std::string& path, const std::string& shownName) {
    m_ShownName = shownName;
    ZU_RETURN_IF_ERROR(ErrorAt(shownName, MakeEmptyFile(path)));
    ZU_RETURN_IF_ERROR(Open(path, SQLITE_OPEN_READWRITE));
    return CZuError();
}

CZuError CSetDatabase::OpenForReading(const std::string& path) {
    m_ShownName = path;
    ZU_RETURN_IF_ERROR(Open(path, SQLITE_OPEN_READONLY));
    sqlite3_limit(m_Handle, SQLITE_LIMIT_LENGTH, LargestValueBytes);
    sqlite3_db_config(m_Handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    ZU_RETURN_IF_ERROR(Execute("PRAGMA trusted_schema = OFF"));
    ZU_RETURN_IF_ERROR(Execute("PRAGMA cell_size_check = ON"));
    return CZuError();
}

CZuError CSetDatabase::Open(const std::string& path, int flags) {
    const int result = sqlite3_open_v2(path.c_str(), &m_Handle, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    return result == SQLITE_OK ? CZuError() : LastError();
}

CZuError CSetDatabase::Close() {
    if (sqlite3_close(m_Handle) != SQLITE_OK)
        return LastError();
    m_Handle = nullptr;
    return CZuError();
}

CZuError CSetDatabase::Execute(const char* sql) {
    return sqlite3_exec(m_Handle, sql, nullptr, nullptr, nullptr) == SQLITE_OK ? CZuError() : LastError();
}

CZuError CSetDatabase::QueryNumber(const char* sql, int64_t& number) {
    CSetStatement statement;
    bool hasRow = false;
    ZU_RETURN_IF_ERROR(statement.Prepare(*this, sql));
    ZU_RETURN_IF_ERROR(statement.Step(hasRow));
    number = hasRow ? statement.Number(0) : 0;
    return CZuError();
}

CZuError CSetDatabase::Damaged(const std::string& what) const {
    return Refusal(m_ShownName + ": the set is damaged: " + what);
}

int CSetDatabase::Changes() const {
    return sqlite3_changes(m_Handle);
}

CZuError CSetDatabase::LastError() const {
    const int kind = sqlite3_errcode(m_Handle);
    if (kind == SQLITE_CORRUPT || kind == SQLITE_NOTADB)
        return Damaged(sqlite3_errmsg(m_Handle));
    std::string text = m_ShownName + ": " + sqlite3_errmsg(m_Handle);
    const int number = sqlite3_system_errno(m_Handle);
    if (number != 0 && (kind == SQLITE_IOERR || kind == SQLITE_CANTOPEN || kind == SQLITE_FULL))
        text += " (" + SystemErrorText(static_cast<uint32_t>(number)) + ")";
    return Refusal(text);
}

CSetStatement::~CSetStatement() {
    Finish();
}

CZuError CSetStatement::Prepare(CSetDatabase& database, const char* sql) {
    m_Database = &database;
    Finish();
    const int result = sqlite3_prepare_v2(database.Handle(), sql, -1, &m_Statement, nullptr);
    return result == SQLITE_OK ? CZuError() : database.LastError();
}

void CSetStatement::Bind(int index, int64_t number) {
    sqlite3_bind_int64(m_Statement, index, number);
}

void CSetStatement::Bind(int index, const std::string& text) {
    sqlite3_bind_text64(m_Statement, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

void CSetStatement::BindBytes(int index, const void* bytes, uint64_t size) {
    sqlite3_bind_blob64(m_Statement, index, bytes, size, SQLITE_STATIC);
}

void CSetStatement::BindNull(int index) {
    sqlite3_bind_null(m_Statement, index);
}

CZuError CSetStatement::Run() {
    const int result = sqlite3_step(m_Statement);
    CZuError error = result == SQLITE_DONE ? CZuError() : m_Database->LastError();
    sqlite3_reset(m_Statement);
    return error;
}

CZuError CSetStatement::Step(bool& hasRow) {
    const int result = sqlite3_step(m_Statement);
    hasRow = result == SQLITE_ROW;
    return hasRow || result == SQLITE_DONE ? CZuError() : m_Database->LastError();
}

void CSetStatement::Reset() {
    sqlite3_reset(m_Statement);
}

void CSetStatement::Finish() {
    sqlite3_finalize(m_Statement);
    m_Statement = nullptr;
}

int64_t CSetStatement::Number(int column) {
    return sqlite3_column_int64(m_Statement, column);
}

std::string CSetStatement::Text(int column) {
    uint32_t size = 0;
    const char* const bytes = Bytes(column, size);
    return bytes != nullptr ? std::string(bytes, size) : std::string();
}

const char* CSetStatement::Bytes(int column, uint32_t& size) {
    const char* const bytes = static_cast<const char*>(sqlite3_column_blob(m_Statement, column));
    size = static_cast<uint32_t>(sqlite3_column_bytes(m_Statement, column));
    return bytes;
}

bool CSetStatement::IsNumber(int column) {
    return sqlite3_column_type(m_Statement, column) == SQLITE_INTEGER;
}

bool CSetStatement::IsText(int column) {
    return sqlite3_column_type(m_Statement, column) == SQLITE_TEXT;
}

bool CSetStatement::IsBytes(int column) {
    return sqlite3_column_type(m_Statement, column) == SQLITE_BLOB;
}
