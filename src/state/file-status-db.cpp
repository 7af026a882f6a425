// file-status-db.cpp: open-per-operation access to the fstatinfo table.
#include "state/file-status-db.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "foundation/log.h"
#include "platform/clock.h"
#include "platform/fs.h"
#include "state/sql-escape.h"

namespace {

const char* const kLog = "fstat_db_debug";

const char* const kSchema =
    "PRAGMA journal_mode = WAL;PRAGMA synchronous = OFF; CREATE TABLE IF NOT EXISTS fstatinfo ( "
    "id INTEGER PRIMARY KEY AUTOINCREMENT, path text unique NOT NULL, fileType integer NOT "
    "NULL, syncStatus integer NOT NULL ); ";
const char* const kIndex = "CREATE INDEX IF NOT EXISTS fstatinfo_path_idx on fstatinfo(path);";
const char* const kPragmas = "PRAGMA journal_mode = WAL; PRAGMA synchronous = OFF;";
// The table's paths are compared byte for byte, as the file system does here; a LIKE
// would otherwise fold ASCII case and match a sibling spelled differently.
const char* const kCaseSensitiveLike = "PRAGMA case_sensitive_like = ON;";
// Long enough for any writer of another process to finish: the whole retry policy.
const int kBusyTimeoutMs = 300000;
// The separator of stored paths: the platform's own.
const char kSeparator = '/';

// Closing the last connection checkpoints the log under an exclusive lock, and with a
// connection per operation we are often the last: a reader of another process starting
// at that moment would be refused. Without it the log is still checkpointed by commits
// once it grows (SQLite's automatic checkpoint), which never shuts readers out.
void KeepReadersOutOfOurClose(sqlite3* db) {
    sqlite3_db_config(db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
}

std::mutex g_path_mutex;
ustring g_db_path;

ustring StoredPath() {
    std::lock_guard<std::mutex> guard(g_path_mutex);
    return g_db_path;
}

struct SqlText {
    char* text = nullptr;
    explicit SqlText(char* t) : text(t) {}
    ~SqlText() { sqlite3_free(text); }
    SqlText(const SqlText&) = delete;
    SqlText& operator=(const SqlText&) = delete;
};

// One connection for the length of one operation.
class Connection {
  public:
    Connection() = default;
    ~Connection() {
        if (m_db != nullptr) sqlite3_close(m_db);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Opens the stored database, ready for statements. 0; -1 (logged).
    int Open() {
        const ustring path = StoredPath();
        if (path.empty()) {
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] file-status-db(%d): fstat-db path is empty.\n", __LINE__);
            return -1;
        }
        int rc = sqlite3_open(path.c_str_utf8(), &m_db);
        if (rc != SQLITE_OK) {
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] file-status-db(%d): open db failed. db-path:[%s] errCode:[%d] "
                           "errmsg:[%s]\n",
                           __LINE__, path.c_str_utf8(), rc, sqlite3_errmsg(m_db));
            return -1;
        }
        // Before the pragmas: switching a new file to WAL needs a lock another process
        // may hold.
        sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
        KeepReadersOutOfOurClose(m_db);
        if (Exec(kPragmas) < 0 || Exec(kCaseSensitiveLike) < 0) return -1;
        return 0;
    }

    // Runs `sql`. 0; -1 (logged).
    int Exec(const char* sql) {
        char* error = nullptr;
        int rc = sqlite3_exec(m_db, sql, nullptr, nullptr, &error);
        if (rc != SQLITE_OK) {
            Logger::LogMsg(
                Logger::L_ERR, kLog,
                "[ERROR] file-status-db(%d): sqlite3_exec error. errCode:(%d) error:[%s]\n",
                __LINE__, rc, error != nullptr ? error : sqlite3_errmsg(m_db));
            sqlite3_free(error);
            return -1;
        }
        return 0;
    }

    // Runs a maintenance script, logging in the form those use. 0; -1.
    int ExecMaintenance(const char* sql) {
        char* error = nullptr;
        int rc = sqlite3_exec(m_db, sql, nullptr, nullptr, &error);
        if (rc != SQLITE_OK) {
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] file-status-db(%d): FileStatusDB: sqlite3_exec: %s  (%d)\n",
                           __LINE__, error != nullptr ? error : sqlite3_errmsg(m_db), rc);
            sqlite3_free(error);
            return -1;
        }
        return 0;
    }

    sqlite3* handle() const { return m_db; }

  private:
    sqlite3* m_db = nullptr;
};

// The result of sqlite3_get_table, freed on scope exit.
struct Table {
    char** cells = nullptr;
    int rows = 0;
    int cols = 0;
    ~Table() { sqlite3_free_table(cells); }
    // Cell (row, col) of the data, row 0 being the first row after the header.
    const char* at(int row, int col) const { return cells[(row + 1) * cols + col]; }
};

// Runs a query into `table`. 0; -1 (logged with the statement).
int GetTable(Connection& conn, const char* sql, Table& table) {
    char* error = nullptr;
    int rc = sqlite3_get_table(conn.handle(), sql, &table.cells, &table.rows, &table.cols, &error);
    if (rc != SQLITE_OK) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-status-db(%d): get_table error. sql:[%s] errCode:[%d] "
                       "errmsg:[%s]\n",
                       __LINE__, sql, rc, error != nullptr ? error : sqlite3_errmsg(conn.handle()));
        sqlite3_free(error);
        return -1;
    }
    return 0;
}

// Fills `info` from data row `row` (id, path, fileType, syncStatus). 0; -1 for a
// table of another shape.
int ReadRow(const Table& table, int row, FileStatusInfo& info) {
    if (table.cols != 4 || row >= table.rows) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-status-db(%d): mismatched db output index. row-idx:[%d] "
                       "col-idx:[%d]\n",
                       __LINE__, row, table.cols);
        return -1;
    }
    const char* path = table.at(row, 1);
    const char* type = table.at(row, 2);
    const char* status = table.at(row, 3);
    info.path = path != nullptr ? path : "";
    info.fileType = type != nullptr ? std::atoi(type) : SFT_FILE;
    info.syncStatus = status != nullptr ? std::atoi(status) : 0;
    return 0;
}

// Formats a statement and runs it on a fresh connection. 0; -1.
int RunStatement(char* sql, const ustring& path) {
    SqlText text(sql);
    if (text.text == nullptr) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-status-db(%d): sqlite3_mprintf error. path:[%s]\n", __LINE__,
                       path.c_str_utf8());
        return -1;
    }
    Connection conn;
    if (conn.Open() < 0) return -1;
    return conn.Exec(text.text);
}

// Moves a file that SQLite refuses as a database aside, with its journals, so that the
// status table, which is rebuilt at every start anyway, can begin afresh. The old file
// stays on disk under the logged name.
bool SetAsideUnreadable(const ustring& location) {
    const std::string stamp = ".unreadable-" + std::to_string(platform::Now());
    for (const char* suffix : {"", "-wal", "-shm"}) {
        const std::string from = location.str() + suffix;
        const std::string to = from + stamp;
        if (platform::file_system().rename_replace(from.c_str(), to.c_str(), nullptr) != 0 &&
            suffix[0] == '\0')
            return false;
    }
    Logger::LogMsg(Logger::L_ERR, kLog,
                   "[ERROR] file-status-db(%d): '%s' is not a usable database; kept as '%s%s', "
                   "starting a new one\n",
                   __LINE__, location.c_str_utf8(), location.c_str_utf8(), stamp.c_str());
    return true;
}

// Opens `location` and runs the schema. 0; -1; -2 when the file isn't a database.
int CreateSchema(const ustring& location) {
    sqlite3* db = nullptr;
    int rc = sqlite3_open(location.c_str_utf8(), &db);
    if (rc != SQLITE_OK) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-status-db(%d): open db failed. db-path:[%s] errmsg:[%s]\n",
                       __LINE__, location.c_str_utf8(), sqlite3_errmsg(db));
        sqlite3_close(db);
        return -1;
    }
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    int result = 0;
    for (const char* cmd : {kSchema, kIndex}) {
        char* error = nullptr;
        rc = sqlite3_exec(db, cmd, nullptr, nullptr, &error);
        if (rc != SQLITE_OK) {
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] file-status-db(%d): sqlite3_exec error. cmd:(%s)  error:(%s)\n",
                           __LINE__, cmd, error != nullptr ? error : sqlite3_errmsg(db));
            sqlite3_free(error);
            result = (rc == SQLITE_NOTADB || rc == SQLITE_CORRUPT) ? -2 : -1;
            break;
        }
    }
    sqlite3_close(db);
    return result;
}

}  // namespace

FileStatusDB::FileStatusDB(const ustring& location) {
    initialize(location);
}

int FileStatusDB::initialize(const ustring& location) {
    if (location.empty()) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] file-status-db(%d): fstat-db path is empty.\n",
                       __LINE__);
        return -1;
    }
    {
        std::lock_guard<std::mutex> guard(g_path_mutex);
        g_db_path = location;
    }
    int rc = CreateSchema(location);
    if (rc == -2 && SetAsideUnreadable(location)) rc = CreateSchema(location);
    return rc == 0 ? 0 : -1;
}

void FileStatusDB::destroy() {
    std::lock_guard<std::mutex> guard(g_path_mutex);
    g_db_path.clear();
}

int FileStatusDB::setFileSyncStat(const FileStatusInfo& info) {
    return RunStatement(sqlite3_mprintf("insert or replace into fstatinfo  (id, path, fileType, "
                                        "syncStatus)  values(NULL, '%q', %d, %d);",
                                        info.path.c_str_utf8(), info.fileType, info.syncStatus),
                        info.path);
}

int FileStatusDB::rmFileStatByPath(const ustring& path) {
    return RunStatement(
        sqlite3_mprintf("delete from fstatinfo where path = %Q;", path.c_str_utf8()), path);
}

int FileStatusDB::rmFileSyncStat(const FileStatusInfo& info) {
    const char* path = info.path.c_str_utf8();
    const std::string glob = GlobLiteral(info.path.str());
    return RunStatement(
        sqlite3_mprintf(
            "delete from fstatinfo where (path = %Q OR path GLOB '%q/*' OR path GLOB '%q\\*');",
            path, glob.c_str(), glob.c_str()),
        info.path);
}

int FileStatusDB::getFileSyncStat(const ustring& path, FileStatusInfo* out) {
    if (out == nullptr) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-status-db(%d): FileStatusInfo  is NULL.\n", __LINE__);
        return -1;
    }
    std::unique_ptr<char[]> sql = ZEPHDBEscapeStringEX3(
        "select * from fstatinfo where path like '@ZEPH:LVAR'", path.c_str_utf8());
    Connection conn;
    if (conn.Open() < 0) return -1;
    Table table;
    char* error = nullptr;
    int rc =
        sqlite3_get_table(conn.handle(), sql.get(), &table.cells, &table.rows, &table.cols, &error);
    if (rc != SQLITE_OK) {
        Logger::LogMsg(
            Logger::L_ERR, kLog,
            "[ERROR] file-status-db(%d): get fstat info failed. file-path:[%s] errCode:[%d] "
            "errmsg:[%s]\n",
            __LINE__, path.c_str_utf8(), rc,
            error != nullptr ? error : sqlite3_errmsg(conn.handle()));
        sqlite3_free(error);
        return -1;
    }
    if (table.rows == 0) return 0;
    return ReadRow(table, 0, *out) == 0 ? 1 : -1;
}

std::unique_ptr<FileStatusInfo[]> FileStatusDB::getFileSyncStats(const ustring& dirpath, int offset,
                                                                 int limit, int& count) {
    count = 0;
    if (dirpath.empty()) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] file-status-db(%d): dirpath is empty.\n",
                       __LINE__);
        return nullptr;
    }
    std::unique_ptr<char[]> sql = ZEPHDBEscapeStringEX3(
        "select * from fstatinfo where path like '@ZEPH:LVAR/%%' and path not like "
        "'@ZEPH:LVAR/%%/%%' limit @ZEPH:INT, @ZEPH:INT ",
        dirpath.c_str_utf8(), dirpath.c_str_utf8(), offset, limit);
    Connection conn;
    if (conn.Open() < 0) return nullptr;
    Table table;
    if (GetTable(conn, sql.get(), table) < 0 || table.rows == 0) return nullptr;
    auto entries = std::make_unique<FileStatusInfo[]>(table.rows);
    for (int row = 0; row < table.rows; ++row) {
        if (ReadRow(table, row, entries[row]) < 0) return nullptr;
    }
    count = table.rows;
    return entries;
}

bool FileStatusDB::isAnySubFileDirSyncing(const ustring& path) {
    if (path.empty()) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-status-db(%d): prefix dirpath is empty.\n", __LINE__);
        return false;
    }
    const ustring prefix = path + kSeparator;
    std::unique_ptr<char[]> sql = ZEPHDBEscapeStringEX3(
        "select * from fstatinfo where path like '@ZEPH:LVAR%' and syncStatus=@ZEPH:INT limit 2",
        prefix.c_str_utf8(), static_cast<int>(SFS_SYNCING));
    Connection conn;
    if (conn.Open() < 0) return false;
    Table table;
    if (GetTable(conn, sql.get(), table) < 0) return false;
    return table.rows > 0;
}

bool FileStatusDB::isAnyFileSyncing() {
    SqlText sql(
        sqlite3_mprintf("select * from fstatinfo where syncStatuc=%d limit 2", SFS_SYNCING));
    if (sql.text == nullptr) return false;
    Connection conn;
    if (conn.Open() < 0) return false;
    Table table;
    if (GetTable(conn, sql.text, table) < 0) return false;
    return table.rows > 0;
}

int FileStatusDB::updateAllSyncingEntry() {
    Connection conn;
    if (conn.Open() < 0) return -1;
    return conn.ExecMaintenance("UPDATE fstatinfo SET syncStatus = 1 WHERE syncStatus = 2");
}

int FileStatusDB::removeAllEntry() {
    Connection conn;
    if (conn.Open() < 0) return -1;
    return conn.ExecMaintenance("DELETE FROM fstatinfo;ANALYZE;VACUUM;");
}
