// sqlite-db.h: a small RAII layer over SQLite for the server's state: one connection,
// prepared statements that finalise themselves, and a write transaction that rolls back
// unless committed. Used by server-store and everything that reads or writes through it.
// Errors are negative: -1 for any SQLite failure (logged with SQLite's message).
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>

class SqliteDb {
  public:
    SqliteDb() = default;
    ~SqliteDb();
    SqliteDb(const SqliteDb&) = delete;
    SqliteDb& operator=(const SqliteDb&) = delete;

    // Opens (creating) the file in WAL mode with full synchronisation and a long busy
    // wait, so that another process (the admin commands) can share it. 0 or -1.
    int Open(const std::string& path);
    void Close();
    sqlite3* handle() const { return m_db; }
    // Runs statements without results. 0 or -1.
    int Exec(const char* sql);
    int64_t LastInsertRowId() const;
    int Changes() const;

  private:
    sqlite3* m_db = nullptr;
};

// One prepared statement. Binding indexes start at 1, columns at 0.
class SqliteStmt {
  public:
    SqliteStmt(SqliteDb& db, const char* sql);
    ~SqliteStmt();
    SqliteStmt(const SqliteStmt&) = delete;
    SqliteStmt& operator=(const SqliteStmt&) = delete;

    bool ok() const { return m_stmt != nullptr; }
    SqliteStmt& Bind(int index, int64_t value);
    SqliteStmt& Bind(int index, uint64_t value) { return Bind(index, static_cast<int64_t>(value)); }
    SqliteStmt& Bind(int index, int value) { return Bind(index, static_cast<int64_t>(value)); }
    SqliteStmt& Bind(int index, uint32_t value) { return Bind(index, static_cast<int64_t>(value)); }
    SqliteStmt& Bind(int index, bool value) { return Bind(index, static_cast<int64_t>(value)); }
    SqliteStmt& Bind(int index, const std::string& text);
    // 1 a row is ready, 0 done, -1 failure.
    int Step();
    // Step for statements without rows, then Reset: 0 or -1.
    int Run();
    void Reset();

    int64_t Int(int column) const;
    uint64_t UInt(int column) const { return static_cast<uint64_t>(Int(column)); }
    std::string Text(int column) const;

  private:
    SqliteDb& m_db;
    sqlite3_stmt* m_stmt = nullptr;
};

// BEGIN IMMEDIATE (the write lock is taken at once, so commits are serialised in the
// order their transactions began); rolled back on destruction unless Commit succeeded.
class SqliteWriteTxn {
  public:
    explicit SqliteWriteTxn(SqliteDb& db);
    ~SqliteWriteTxn();
    SqliteWriteTxn(const SqliteWriteTxn&) = delete;
    SqliteWriteTxn& operator=(const SqliteWriteTxn&) = delete;
    bool ok() const { return m_open; }
    int Commit();

  private:
    SqliteDb& m_db;
    bool m_open = false;
};

// A read transaction: every statement inside sees one snapshot.
class SqliteReadTxn {
  public:
    explicit SqliteReadTxn(SqliteDb& db);
    ~SqliteReadTxn();
    SqliteReadTxn(const SqliteReadTxn&) = delete;
    SqliteReadTxn& operator=(const SqliteReadTxn&) = delete;
    bool ok() const { return m_open; }

  private:
    SqliteDb& m_db;
    bool m_open = false;
};
