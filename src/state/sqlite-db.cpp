// sqlite-db.cpp: connections, statements and transactions over the SQLite C interface.
#include "state/sqlite-db.h"

#include <cstdarg>

namespace sqlite {

Text Text::Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    Text text(sqlite3_vmprintf(format, args));
    va_end(args);
    return text;
}

Text& Text::operator=(Text&& other) noexcept {
    if (this != &other) {
        sqlite3_free(m_text);
        m_text = std::exchange(other.m_text, nullptr);
    }
    return *this;
}

Statement::~Statement() {
    sqlite3_finalize(m_stmt);
}

Statement::Statement(Statement&& other) noexcept
    : m_db(other.m_db),
      m_stmt(std::exchange(other.m_stmt, nullptr)),
      m_bind_call(other.m_bind_call),
      m_bind_rc(other.m_bind_rc) {}

Statement& Statement::operator=(Statement&& other) noexcept {
    if (this != &other) {
        sqlite3_finalize(m_stmt);
        m_db = other.m_db;
        m_stmt = std::exchange(other.m_stmt, nullptr);
        m_bind_call = other.m_bind_call;
        m_bind_rc = other.m_bind_rc;
    }
    return *this;
}

Statement& Statement::Bind(int index, int64_t value) {
    if (m_stmt == nullptr || m_bind_rc != SQLITE_OK) return *this;
    m_bind_rc = sqlite3_bind_int64(m_stmt, index, value);
    m_bind_call = "sqlite3_bind_int64";
    return *this;
}

Statement& Statement::Bind(int index, const char* text, size_t length) {
    if (m_stmt == nullptr || m_bind_rc != SQLITE_OK) return *this;
    m_bind_rc = sqlite3_bind_text(m_stmt, index, text, static_cast<int>(length), SQLITE_TRANSIENT);
    m_bind_call = "sqlite3_bind_text";
    return *this;
}

Statement& Statement::BindBlob(int index, const void* data, size_t length) {
    if (m_stmt == nullptr || m_bind_rc != SQLITE_OK) return *this;
    m_bind_rc = data == nullptr
                    ? sqlite3_bind_null(m_stmt, index)
                    : sqlite3_bind_blob64(m_stmt, index, data, length, SQLITE_TRANSIENT);
    m_bind_call = "sqlite3_bind_blob64";
    return *this;
}

int Statement::Step() {
    if (m_stmt == nullptr) return -1;
    if (m_bind_rc != SQLITE_OK) return m_db->Fail(m_bind_call, m_bind_rc);
    const int rc = sqlite3_step(m_stmt);
    if (rc == SQLITE_ROW) return 1;
    if (rc == SQLITE_DONE) return 0;
    return m_db->Fail("sqlite3_step", rc);
}

int Statement::Execute() {
    const int rc = Step();
    Rewind();
    return rc < 0 ? -1 : 0;
}

void Statement::Rewind() {
    if (m_stmt != nullptr) sqlite3_reset(m_stmt);
}

void Statement::Reset() {
    if (m_stmt == nullptr) return;
    sqlite3_reset(m_stmt);
    sqlite3_clear_bindings(m_stmt);
    m_bind_rc = SQLITE_OK;
}

std::string Statement::String(int column) const {
    const char* text = Chars(column);
    if (text == nullptr) return std::string();
    return std::string(text, static_cast<size_t>(sqlite3_column_bytes(m_stmt, column)));
}

bool Statement::Blob(int column, std::string& out) const {
    if (sqlite3_column_type(m_stmt, column) == SQLITE_NULL) return false;
    const void* bytes = sqlite3_column_blob(m_stmt, column);
    const size_t length = static_cast<size_t>(sqlite3_column_bytes(m_stmt, column));
    out.assign(length == 0 ? "" : static_cast<const char*>(bytes), length);
    return true;
}

int Database::Open(const char* path, int flags) {
    Close();
    const int rc = sqlite3_open_v2(path, &m_db, flags, nullptr);
    if (rc == SQLITE_OK) return 0;
    Fail("sqlite3_open", rc);
    Close();
    return -1;
}

void Database::Close() {
    m_kept.clear();  // a connection with statements left would stay open
    if (m_db != nullptr) sqlite3_close(m_db);
    m_db = nullptr;
}

int Database::UseWal(const char* synchronous) {
    Text pragmas = Text::Format("PRAGMA journal_mode = WAL; PRAGMA synchronous = %s;", synchronous);
    if (!pragmas) return Fail("sqlite3_mprintf", SQLITE_NOMEM);
    return Exec(pragmas.get());
}

int Database::Exec(const char* sql) {
    if (m_db == nullptr) return Fail("sqlite3_exec", SQLITE_MISUSE);
    char* error = nullptr;
    const int rc = sqlite3_exec(m_db, sql, nullptr, nullptr, &error);
    if (rc == SQLITE_OK) return 0;
    Fail("sqlite3_exec", rc);
    if (error != nullptr) m_failure.message = error;
    sqlite3_free(error);
    return -1;
}

int Database::ExecAtomic(const char* sql) {
    if (Exec(sql) == 0) return 0;
    if (InTransaction()) sqlite3_exec(m_db, "ROLLBACK;", nullptr, nullptr, nullptr);
    return -1;
}

Statement Database::Prepare(const char* sql) {
    if (m_db == nullptr) {
        Fail("sqlite3_prepare_v2", SQLITE_MISUSE);
        return Statement();
    }
    sqlite3_stmt* stmt = nullptr;
    const int rc = sqlite3_prepare_v2(m_db, sql, -1, &stmt, nullptr);
    if (rc != SQLITE_OK) {
        Fail("sqlite3_prepare_v2", rc);
        sqlite3_finalize(stmt);
        return Statement();
    }
    return Statement(this, stmt);
}

Statement* Database::Reuse(const char* sql) {
    auto kept = m_kept.find(sql);
    if (kept != m_kept.end()) {
        kept->second.Reset();
        return &kept->second;
    }
    Statement st = Prepare(sql);
    if (!st.ok()) return nullptr;
    return &m_kept.emplace(sql, std::move(st)).first->second;
}

int Database::Fail(const char* call, int rc) {
    m_failure.call = call;
    m_failure.rc = rc;
    if (m_db == nullptr)
        m_failure.message = rc == SQLITE_MISUSE ? "database is not open" : sqlite3_errstr(rc);
    else
        m_failure.message = sqlite3_errmsg(m_db);
    return -1;
}

int DisableMemoryStatistics() {
    return sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0) == SQLITE_OK ? 0 : -1;
}

Transaction::Transaction(Database& db, const char* begin) : m_db(db) {
    m_open = m_db.Exec(begin) == 0;
}

Transaction::~Transaction() {
    if (m_open && m_db.InTransaction())
        sqlite3_exec(m_db.handle(), "ROLLBACK;", nullptr, nullptr, nullptr);
}

int Transaction::Commit() {
    if (!m_open || m_db.Exec("COMMIT;") < 0) return -1;
    m_open = false;
    return 0;
}

Savepoint::Savepoint(Database& db) : m_db(db) {
    m_open = m_db.Exec("SAVEPOINT change;") == 0;
}

Savepoint::~Savepoint() {
    if (!m_open) return;
    sqlite3_exec(m_db.handle(), "ROLLBACK TO change; RELEASE change;", nullptr, nullptr, nullptr);
}

int Savepoint::Release() {
    if (!m_open || m_db.Exec("RELEASE change;") < 0) return -1;
    m_open = false;
    return 0;
}

}  // namespace sqlite
