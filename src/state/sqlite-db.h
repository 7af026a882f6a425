// sqlite-db.h: the one way this program talks to SQLite: a connection, prepared statements
// and formatted statement text that free themselves, and the usual query in one call.
// Used by the event, file status and filter databases; shaped for any other store that
// keeps statements on its connection for reuse.
//
// Nothing here logs: every database reports a failure in its own words, from failure().
// Results: 0 success, -1 failure; look-ups 1 found, 0 none, -1 failure. The failing call,
// SQLite's code and its message stay in the Database until the next failure.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "foundation/ustring.h"

namespace sqlite {

// The last SQLite call that failed on a connection.
struct Failure {
    const char* call = "";  // "sqlite3_prepare_v2", "sqlite3_step", "sqlite3_exec", ...
    int rc = SQLITE_OK;
    std::string message;
};

// Statement text made by sqlite3_mprintf (with its %q, %Q and %w), freed on scope exit.
class Text {
  public:
    explicit Text(char* text = nullptr) : m_text(text) {}
    // Formats as sqlite3_mprintf does; false (null) when memory ran out.
    static Text Format(const char* format, ...);
    ~Text() { sqlite3_free(m_text); }
    Text(Text&& other) noexcept : m_text(std::exchange(other.m_text, nullptr)) {}
    Text& operator=(Text&& other) noexcept;
    Text(const Text&) = delete;
    Text& operator=(const Text&) = delete;

    const char* get() const { return m_text; }
    explicit operator bool() const { return m_text != nullptr; }

  private:
    char* m_text;
};

class Database;

// One prepared statement, finalised on scope exit. Bind indexes start at 1, columns at 0.
// One that failed to prepare is not ok(): binding it does nothing and stepping it fails.
// Reset makes it ready to run again with new bindings.
class Statement {
  public:
    Statement() = default;
    ~Statement();
    Statement(Statement&& other) noexcept;
    Statement& operator=(Statement&& other) noexcept;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool ok() const { return m_stmt != nullptr; }

    // A failed bind is remembered and makes the next step fail with its code.
    Statement& Bind(int index, int64_t value);
    Statement& Bind(int index, uint64_t value) { return Bind(index, static_cast<int64_t>(value)); }
    Statement& Bind(int index, int value) { return Bind(index, static_cast<int64_t>(value)); }
    Statement& Bind(int index, uint32_t value) { return Bind(index, static_cast<int64_t>(value)); }
    Statement& Bind(int index, const char* text, size_t length);
    Statement& Bind(int index, const std::string& text) {
        return Bind(index, text.data(), text.size());
    }
    Statement& Bind(int index, const ustring& text) {
        return Bind(index, text.c_str_utf8(), text.length());
    }
    // Binds bytes as a blob (copied); a null `data` binds NULL.
    Statement& BindBlob(int index, const void* data, size_t length);
    // Binds each argument in turn, from index 1.
    template <typename... Args>
    Statement& BindAll(const Args&... args) {
        [[maybe_unused]] int index = 0;
        (Bind(++index, args), ...);
        return *this;
    }

    // 1 a row is ready, 0 done, -1 failure.
    int Step();
    // Calls row(*this) for every row, then rewinds. 0; -1.
    template <typename Fn>
    int ForEach(Fn&& row);
    // Calls row(*this) for the first row only, then rewinds. 1 found, 0 none, -1.
    template <typename Fn>
    int First(Fn&& row);
    // Steps a statement that gives no rows, then rewinds it. 0; -1.
    int Execute();
    // Rewinds and clears the bindings, for a run with new ones.
    void Reset();

    int Columns() const { return sqlite3_column_count(m_stmt); }
    int Int(int column) const { return sqlite3_column_int(m_stmt, column); }
    int64_t Int64(int column) const { return sqlite3_column_int64(m_stmt, column); }
    uint64_t UInt64(int column) const { return static_cast<uint64_t>(Int64(column)); }
    // The column's text, null for NULL; valid until the next step or reset.
    const char* Chars(int column) const {
        return reinterpret_cast<const char*>(sqlite3_column_text(m_stmt, column));
    }
    // The column's bytes, empty for NULL.
    std::string String(int column) const;
    // The column's bytes as a blob; false for NULL.
    bool Blob(int column, std::string& out) const;

  private:
    friend class Database;
    Statement(Database* db, sqlite3_stmt* stmt) : m_db(db), m_stmt(stmt) {}
    // Rewinds without touching the bindings, so a kept statement holds no lock.
    void Rewind();

    Database* m_db = nullptr;
    sqlite3_stmt* m_stmt = nullptr;
    // The first failed bind since the last reset.
    const char* m_bind_call = "";
    int m_bind_rc = SQLITE_OK;
};

// One connection. Its owner serialises the calls (a mutex, or a connection per operation).
class Database {
  public:
    Database() = default;
    ~Database() { Close(); }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Opens the file at `path` (created when missing, by default). 0; -1, closed again.
    int Open(const char* path, int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    // Finalises the kept statements and closes. Nothing happens when not open.
    void Close();
    bool isOpen() const { return m_db != nullptr; }
    sqlite3* handle() const { return m_db; }

    // How long a statement waits for a lock that another connection holds.
    void SetBusyTimeout(int milliseconds) { sqlite3_busy_timeout(m_db, milliseconds); }
    // Write-ahead logging, so that readers elsewhere go on beside a writer, with the
    // given synchronous level ("OFF", "NORMAL", "FULL"). 0; -1.
    int UseWal(const char* synchronous);

    // Runs statements that give no rows. 0; -1.
    int Exec(const char* sql);
    // Runs a script that opens its own transaction; a failure part-way rolls back what
    // it began. 0; -1.
    int ExecAtomic(const char* sql);
    // One statement, not ok() when it can't be prepared.
    Statement Prepare(const char* sql);
    // A statement kept on this connection, found by its text: prepared on first use,
    // reset with its bindings cleared on every later one. Owned by the connection, valid
    // until Close; null when it can't be prepared.
    Statement* Reuse(const char* sql);

    // Prepares `sql`, binds `args` from index 1 and calls row(statement) for each row. 0; -1.
    template <typename Fn, typename... Args>
    int Query(const char* sql, Fn&& row, const Args&... args) {
        return Prepare(sql).BindAll(args...).ForEach(row);
    }
    // The same for the first row only: 1 found, 0 none, -1.
    template <typename Fn, typename... Args>
    int QueryFirst(const char* sql, Fn&& row, const Args&... args) {
        return Prepare(sql).BindAll(args...).First(row);
    }
    // One statement that gives no rows, `args` bound from index 1. 0; -1.
    template <typename... Args>
    int Run(const char* sql, const Args&... args) {
        Statement st = Prepare(sql);
        return st.BindAll(args...).Step() < 0 ? -1 : 0;
    }

    int64_t LastInsertRowId() const { return sqlite3_last_insert_rowid(m_db); }
    int Changes() const { return sqlite3_changes(m_db); }
    bool InTransaction() const { return m_db != nullptr && sqlite3_get_autocommit(m_db) == 0; }

    const Failure& failure() const { return m_failure; }
    // Records that `call` failed with `rc`, with the connection's message. Always -1.
    int Fail(const char* call, int rc);

  private:
    sqlite3* m_db = nullptr;
    std::map<std::string, Statement> m_kept;
    Failure m_failure;
};

// Turns off SQLite's accounting of its memory, which takes a process-wide lock on every
// allocation. Process-wide and only before any connection opens: 0; -1 when too late.
int DisableMemoryStatistics();

// A transaction, rolled back on scope exit unless committed.
class Transaction {
  public:
    // `begin` opens it: "BEGIN IMMEDIATE;" takes the write lock at once, "BEGIN;" when
    // the first write comes.
    explicit Transaction(Database& db, const char* begin = "BEGIN IMMEDIATE;");
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    bool ok() const { return m_open; }
    // 0; -1 when it can't commit, and then it is rolled back on scope exit.
    int Commit();

  private:
    Database& m_db;
    bool m_open = false;
};

// A savepoint inside an open transaction: on scope exit, unless released, what was done
// since it began is undone and the transaction goes on without it.
class Savepoint {
  public:
    explicit Savepoint(Database& db);
    ~Savepoint();
    Savepoint(const Savepoint&) = delete;
    Savepoint& operator=(const Savepoint&) = delete;

    bool ok() const { return m_open; }
    // Keeps the changes as part of the transaction. 0; -1 (then undone on scope exit).
    int Release();

  private:
    Database& m_db;
    bool m_open = false;
};

template <typename Fn>
int Statement::ForEach(Fn&& row) {
    int rc;
    while ((rc = Step()) == 1) row(*this);
    Rewind();
    return rc;
}

template <typename Fn>
int Statement::First(Fn&& row) {
    const int rc = Step();
    if (rc == 1) row(*this);
    Rewind();
    return rc;
}

}  // namespace sqlite
