// sqlite-db.cpp: the RAII layer over SQLite.
#include "sqlite-db.h"

#include <mutex>

#include "foundation/log.h"

namespace {

const char* const kLog = "server_debug";
// Another process (an admin command) may hold the write lock for a while.
const int kBusyTimeoutMs = 60000;

// Writers of this process queue here rather than in SQLite's busy loop, which sleeps in
// growing steps and would make concurrent uploads slow for nothing.
std::mutex g_writer_mutex;

void LogSqlError(sqlite3* db, const char* what) {
    Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] sqlite-db(%d): %s: %s\n", __LINE__, what,
                   db ? sqlite3_errmsg(db) : "no database");
}

}  // namespace

SqliteDb::~SqliteDb() {
    Close();
}

int SqliteDb::Open(const std::string& path) {
    Close();
    int rc =
        sqlite3_open_v2(path.c_str(), &m_db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        LogSqlError(m_db, "open");
        Close();
        return -1;
    }
    sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
    // FULL: an acknowledged change must survive a power cut, not only a killed process.
    if (Exec("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;") < 0) {
        Close();
        return -1;
    }
    return 0;
}

void SqliteDb::Close() {
    if (m_db) sqlite3_close_v2(m_db);
    m_db = nullptr;
}

int SqliteDb::Exec(const char* sql) {
    char* err = nullptr;
    if (sqlite3_exec(m_db, sql, nullptr, nullptr, &err) != SQLITE_OK) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] sqlite-db(%d): exec: %s\n", __LINE__,
                       err ? err : "unknown");
        sqlite3_free(err);
        return -1;
    }
    return 0;
}

int64_t SqliteDb::LastInsertRowId() const {
    return sqlite3_last_insert_rowid(m_db);
}

int SqliteDb::Changes() const {
    return sqlite3_changes(m_db);
}

SqliteStmt::SqliteStmt(SqliteDb& db, const char* sql) : m_db(db) {
    if (sqlite3_prepare_v2(db.handle(), sql, -1, &m_stmt, nullptr) != SQLITE_OK) {
        LogSqlError(db.handle(), sql);
        m_stmt = nullptr;
    }
}

SqliteStmt::~SqliteStmt() {
    sqlite3_finalize(m_stmt);
}

SqliteStmt& SqliteStmt::Bind(int index, int64_t value) {
    if (m_stmt) sqlite3_bind_int64(m_stmt, index, value);
    return *this;
}

SqliteStmt& SqliteStmt::Bind(int index, const std::string& text) {
    if (m_stmt)
        sqlite3_bind_text(m_stmt, index, text.data(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT);
    return *this;
}

int SqliteStmt::Step() {
    if (!m_stmt) return -1;
    int rc = sqlite3_step(m_stmt);
    if (rc == SQLITE_ROW) return 1;
    if (rc == SQLITE_DONE) return 0;
    LogSqlError(m_db.handle(), "step");
    return -1;
}

int SqliteStmt::Run() {
    int rc = Step();
    Reset();
    return rc < 0 ? -1 : 0;
}

void SqliteStmt::Reset() {
    if (!m_stmt) return;
    sqlite3_reset(m_stmt);
    sqlite3_clear_bindings(m_stmt);
}

int64_t SqliteStmt::Int(int column) const {
    return sqlite3_column_int64(m_stmt, column);
}

std::string SqliteStmt::Text(int column) const {
    const unsigned char* text = sqlite3_column_text(m_stmt, column);
    if (!text) return std::string();
    return std::string(reinterpret_cast<const char*>(text),
                       static_cast<size_t>(sqlite3_column_bytes(m_stmt, column)));
}

SqliteWriteTxn::SqliteWriteTxn(SqliteDb& db) : m_db(db) {
    g_writer_mutex.lock();
    m_open = m_db.Exec("BEGIN IMMEDIATE;") == 0;
    if (!m_open) g_writer_mutex.unlock();
}

SqliteWriteTxn::~SqliteWriteTxn() {
    if (!m_open) return;
    m_db.Exec("ROLLBACK;");
    g_writer_mutex.unlock();
}

int SqliteWriteTxn::Commit() {
    if (!m_open) return -1;
    if (m_db.Exec("COMMIT;") < 0) return -1;
    m_open = false;
    g_writer_mutex.unlock();
    return 0;
}

SqliteReadTxn::SqliteReadTxn(SqliteDb& db) : m_db(db) {
    m_open = m_db.Exec("BEGIN;") == 0;
}

SqliteReadTxn::~SqliteReadTxn() {
    if (m_open) m_db.Exec("COMMIT;");
}
