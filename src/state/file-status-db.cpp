// file-status-db.cpp: open-per-operation access to the fstatinfo table.
#include "state/file-status-db.h"

#include <algorithm>
#include <string>
#include <vector>

#include "foundation/log.h"
#include "foundation/mutex.h"
#include "platform/clock.h"
#include "platform/fs.h"
#include "state/file-status-db-schema.h"
#include "state/sql-escape.h"
#include "state/sqlite-db.h"

namespace {

const char* const kLog = "fstat_db_debug";

// The table's paths are compared byte for byte, as the file system does here; a LIKE
// would otherwise fold ASCII case and match a sibling spelled differently.
const char* const kCaseSensitiveLike = "PRAGMA case_sensitive_like = ON;";
// Long enough for any writer of another process to finish: the whole retry policy.
const int kBusyTimeoutMs = 300000;
// The separator of stored paths: the platform's own.
const char kSeparator = '/';

Mutex g_path_mutex;
ustring g_db_path GUARDED_BY(g_path_mutex);

ustring StoredPath() {
    MutexLock guard(g_path_mutex);
    return g_db_path;
}

// Opens the stored database for one operation, ready for statements. 0; -1 (logged).
int Open(sqlite::Database& db) {
    const ustring path = StoredPath();
    if (path.empty()) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] file-status-db(%d): fstat-db path is empty.\n",
                       __LINE__);
        return -1;
    }
    if (db.Open(path.c_str_utf8()) < 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-status-db(%d): open db failed. db-path:[%s] errCode:[%d] "
                       "errmsg:[%s]\n",
                       __LINE__, path.c_str_utf8(), db.failure().rc, db.failure().message.c_str());
        return -1;
    }
    // Before the pragmas: switching a new file to WAL needs a lock another process may hold.
    db.SetBusyTimeout(kBusyTimeoutMs);
    // Closing keeps SQLite's checkpoint of the last connection, which empties the log: every
    // operation opens anew, and a first opener rebuilds the log's index by reading all of it,
    // so a log left to grow would make each operation cost as much as the whole log.
    if (db.UseWal("OFF") < 0 || db.Exec(kCaseSensitiveLike) < 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-status-db(%d): sqlite3_exec error. errCode:(%d) error:[%s]\n",
                       __LINE__, db.failure().rc, db.failure().message.c_str());
        return -1;
    }
    return 0;
}

// Runs a maintenance script on a fresh connection, logging in the form those use. 0; -1.
int RunMaintenance(const char* sql) {
    sqlite::Database db;
    if (Open(db) < 0) return -1;
    if (db.Exec(sql) == 0) return 0;
    Logger::LogMsg(Logger::L_ERR, kLog,
                   "[ERROR] file-status-db(%d): FileStatusDB: sqlite3_exec: %s  (%d)\n", __LINE__,
                   db.failure().message.c_str(), db.failure().rc);
    return -1;
}

// Runs a query on a fresh connection, calling `row` for each row. 0; -1, logged with the
// statement.
template <typename Row>
int Query(const char* sql, Row row) {
    sqlite::Database db;
    if (Open(db) < 0) return -1;
    if (db.Query(sql, row) == 0) return 0;
    Logger::LogMsg(Logger::L_ERR, kLog,
                   "[ERROR] file-status-db(%d): get_table error. sql:[%s] errCode:[%d] "
                   "errmsg:[%s]\n",
                   __LINE__, sql, db.failure().rc, db.failure().message.c_str());
    return -1;
}

// Fills `info` from row number `index` of a "select *". 0; -1 for a table of another shape.
int ReadRow(const sqlite::Statement& row, int index, FileStatusInfo& info) {
    if (row.Columns() != fstatinfo::kColumnCount) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-status-db(%d): mismatched db output index. row-idx:[%d] "
                       "col-idx:[%d]\n",
                       __LINE__, index, row.Columns());
        return -1;
    }
    info.path = row.Chars(fstatinfo::kPath);
    info.fileType = row.Int(fstatinfo::kFileType);
    info.syncStatus = row.Int(fstatinfo::kSyncStatus);
    return 0;
}

// Runs a formatted statement on a fresh connection. 0; -1.
int RunStatement(const sqlite::Text& sql, const ustring& path) {
    if (!sql) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-status-db(%d): sqlite3_mprintf error. path:[%s]\n", __LINE__,
                       path.c_str_utf8());
        return -1;
    }
    sqlite::Database db;
    if (Open(db) < 0) return -1;
    if (db.Exec(sql.get()) == 0) return 0;
    Logger::LogMsg(Logger::L_ERR, kLog,
                   "[ERROR] file-status-db(%d): sqlite3_exec error. errCode:(%d) error:[%s]\n",
                   __LINE__, db.failure().rc, db.failure().message.c_str());
    return -1;
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
    sqlite::Database db;
    if (db.Open(location.c_str_utf8()) < 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-status-db(%d): open db failed. db-path:[%s] errmsg:[%s]\n",
                       __LINE__, location.c_str_utf8(), db.failure().message.c_str());
        return -1;
    }
    db.SetBusyTimeout(kBusyTimeoutMs);
    for (const char* cmd : {kFileStatusDBSchema, kFileStatusDBIndex}) {
        if (db.Exec(cmd) == 0) continue;
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-status-db(%d): sqlite3_exec error. cmd:(%s)  error:(%s)\n",
                       __LINE__, cmd, db.failure().message.c_str());
        const int rc = db.failure().rc;
        return rc == SQLITE_NOTADB || rc == SQLITE_CORRUPT ? -2 : -1;
    }
    return 0;
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
        MutexLock guard(g_path_mutex);
        g_db_path = location;
    }
    int rc = CreateSchema(location);
    if (rc == -2 && SetAsideUnreadable(location)) rc = CreateSchema(location);
    return rc == 0 ? 0 : -1;
}

void FileStatusDB::destroy() {
    MutexLock guard(g_path_mutex);
    g_db_path.clear();
}

int FileStatusDB::setFileSyncStat(const FileStatusInfo& info) {
    return RunStatement(
        sqlite::Text::Format("insert or replace into fstatinfo  (id, path, fileType, "
                             "syncStatus)  values(NULL, '%q', %d, %d);",
                             info.path.c_str_utf8(), info.fileType, info.syncStatus),
        info.path);
}

int FileStatusDB::rmFileStatByPath(const ustring& path) {
    return RunStatement(
        sqlite::Text::Format("delete from fstatinfo where path = %Q;", path.c_str_utf8()), path);
}

int FileStatusDB::rmFileSyncStat(const FileStatusInfo& info) {
    const char* path = info.path.c_str_utf8();
    const std::string glob = GlobLiteral(info.path.str());
    return RunStatement(
        sqlite::Text::Format(
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
    sqlite::Database db;
    if (Open(db) < 0) return -1;
    int read = 0;
    const int found = db.QueryFirst(
        sql.get(), [&](const sqlite::Statement& row) { read = ReadRow(row, 0, *out); });
    if (found < 0) {
        Logger::LogMsg(
            Logger::L_ERR, kLog,
            "[ERROR] file-status-db(%d): get fstat info failed. file-path:[%s] errCode:[%d] "
            "errmsg:[%s]\n",
            __LINE__, path.c_str_utf8(), db.failure().rc, db.failure().message.c_str());
        return -1;
    }
    return found == 0 ? 0 : read == 0 ? 1 : -1;
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
    std::vector<FileStatusInfo> rows;
    bool shaped = true;
    if (Query(sql.get(),
              [&](const sqlite::Statement& row) {
                  rows.emplace_back();
                  shaped =
                      shaped && ReadRow(row, static_cast<int>(rows.size()) - 1, rows.back()) == 0;
              }) < 0 ||
        !shaped || rows.empty())
        return nullptr;
    auto entries = std::make_unique<FileStatusInfo[]>(rows.size());
    std::move(rows.begin(), rows.end(), entries.get());
    count = static_cast<int>(rows.size());
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
    bool any = false;
    return Query(sql.get(), [&](const sqlite::Statement&) { any = true; }) == 0 && any;
}

bool FileStatusDB::isAnyFileSyncing() {
    const sqlite::Text sql =
        sqlite::Text::Format("select * from fstatinfo where syncStatuc=%d limit 2", SFS_SYNCING);
    if (!sql) return false;
    bool any = false;
    return Query(sql.get(), [&](const sqlite::Statement&) { any = true; }) == 0 && any;
}

int FileStatusDB::updateAllSyncingEntry() {
    return RunMaintenance("UPDATE fstatinfo SET syncStatus = 1 WHERE syncStatus = 2");
}

int FileStatusDB::removeAllEntry() {
    return RunMaintenance("DELETE FROM fstatinfo;ANALYZE;VACUUM;");
}
