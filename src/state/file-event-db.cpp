// file-event-db.cpp: the per-session agreement database and its signature store.
//
// A commit that brings a new signature follows a small protocol so that the store never
// holds a signature that contradicts its row, even across a crash:
//   1. in one transaction: the row, its ancestors, and a marker "sign_pending/<id>";
//   2. before the commit, the new signature is renamed next to its final name
//      ("<name>.new"); a failure here rolls everything back;
//   3. commit; a failure renames the file back to where the caller had it;
//   4. rename "<name>.new" over the final name, then delete the marker.
// A crash after step 3 leaves the marker behind, and initialize finishes step 4.
#include "state/file-event-db.h"

#include <sqlite3.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "foundation/file-op.h"
#include "foundation/log.h"
#include "platform/clock.h"
#include "state/file-list.h"
#include "state/sql-escape.h"

#define EVENT_LOG(level, ...) Logger::LogMsg(level, "event_db_debug", __VA_ARGS__)

namespace {

const char* const kSchema =
    "PRAGMA journal_mode = WAL;PRAGMA synchronous = NORMAL;BEGIN;CREATE TABLE IF NOT EXISTS "
    "eventinfo ( id integer primary key, fileType integer NOT NULL, isExist integer NOT NULL, "
    "syncID NUMERIC NOT NULL, maxSyncID NUMERIC NOT NULL, pDirID NUMERIC default NULL, fileSize "
    "NUMERIC NOT NULL, fileModTime NUMERIC NOT NULL, fileCheckSum text NOT NULL, baseName text "
    "NOT NULL, path text unique NOT NULL, filePrivilege text default NULL, updateClient text NOT "
    "NULL, signPath text default NULL, macHash text default NULL, windowsHash text default NULL, "
    "linuxHash text default NULL, zephHash text default NULL, inode INTEGER, execBit INTEGER "
    "DEFAULT 0 ); CREATE TABLE IF NOT EXISTS config_table ( key VARCHAR PRIMARY KEY ON CONFLICT "
    "IGNORE, value VARCHAR NOT NULL );CREATE TABLE IF NOT EXISTS recycle_bin_table ( id integer "
    "primary key, path text unique NOT NULL, fileSize NUMERIC NOT NULL, fileCheckSum text NOT "
    "NULL, macHash text default NULL, time NUMERIC NOT NULL); CREATE INDEX IF NOT EXISTS "
    "eventinfo_syncID_idx on eventinfo(syncID); CREATE INDEX IF NOT EXISTS eventinfo_maxSyncID_idx "
    "on eventinfo(maxSyncID); CREATE INDEX IF NOT EXISTS eventinfo_baseName_idx on "
    "eventinfo(baseName); CREATE INDEX IF NOT EXISTS eventinfo_path_idx on eventinfo(path); "
    "CREATE INDEX IF NOT EXISTS eventinfo_updateClient_idx on eventinfo(updateClient); CREATE "
    "INDEX IF NOT EXISTS eventinfo_fileCheckSum_idx on eventinfo(fileCheckSum); CREATE INDEX IF "
    "NOT EXISTS eventinfo_macHash_idx on eventinfo(macHash); CREATE INDEX IF NOT EXISTS "
    "eventinfo_isExist_idx on eventinfo(isExist); CREATE INDEX IF NOT EXISTS "
    "recycle_bin_table_fileCheckSum_idx on recycle_bin_table(fileCheckSum); CREATE INDEX IF NOT "
    "EXISTS recycle_bin_table_macHash_idx on recycle_bin_table(macHash); CREATE INDEX IF NOT "
    "EXISTS recycle_bin_table_time_idx on recycle_bin_table(time); INSERT or IGNORE into "
    "config_table VALUES ('sync_id', '0'); INSERT or IGNORE into config_table VALUES ('version', "
    "7); CREATE TRIGGER IF NOT EXISTS eventinfo_delete_trigger AFTER DELETE ON eventinfo BEGIN "
    "UPDATE config_table SET value = '' WHERE rowid = remove_signature(OLD.id); END; COMMIT; ";

// Marker keys of signatures committed but maybe not yet in place.
const char* const kPendingPrefix = "sign_pending/";
// Suffix of a signature waiting beside its final name for its row's commit.
const char* const kStagedSuffix = ".new";

class SqlText {
  public:
    explicit SqlText(char* text) : m_text(text) {}
    ~SqlText() { sqlite3_free(m_text); }
    SqlText(const SqlText&) = delete;
    SqlText& operator=(const SqlText&) = delete;
    const char* get() const { return m_text; }
    explicit operator bool() const { return m_text != nullptr; }

  private:
    char* m_text;
};

class Statement {
  public:
    Statement() = default;
    ~Statement() { sqlite3_finalize(m_stmt); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    sqlite3_stmt** out() { return &m_stmt; }
    sqlite3_stmt* get() const { return m_stmt; }

  private:
    sqlite3_stmt* m_stmt = nullptr;
};

ustring StripSlash(const ustring& path) {
    if (!path.empty() && path[0] == '/') return path.substr(1);
    return path;
}

ustring ColumnText(sqlite3_stmt* stmt, int column) {
    const unsigned char* text = sqlite3_column_text(stmt, column);
    return text != nullptr ? ustring(reinterpret_cast<const char*>(text)) : ustring();
}

ustring ParentOf(const ustring& path) {
    size_t slash = path.rfind('/');
    return slash == ustring::npos ? ustring() : path.substr(0, slash);
}

// The SQL function behind the delete trigger: removes the signature of a deleted row.
void SQLRemoveSignatureFunction(sqlite3_context* context, int argc, sqlite3_value** argv) {
    if (argc == 1) {
        const uint64_t id = static_cast<uint64_t>(sqlite3_value_int64(argv[0]));
        if (id != 0) {
            const ustring* sign_path = static_cast<const ustring*>(sqlite3_user_data(context));
            char name[64];
            FileEventDB::path_convert(id, name);
            FSRemove(*sign_path + "/" + name, false);
        }
    }
    sqlite3_result_int(context, 0);
}

}  // namespace

void ClientFileEventInfo::initEventInfo() {
    *this = ClientFileEventInfo();
}

void ClientFileEventInfo::copyEventInfo(const ClientFileEventInfo& other) {
    *this = other;
}

FileEventDB::~FileEventDB() {
    std::lock_guard<std::mutex> guard(m_dbMutex);
    closeLocked();
}

void FileEventDB::path_convert(uint64_t id, char* buffer) {
    int top = 7;
    while (top > 0 && ((id >> (top * 8)) & 0xff) == 0) --top;
    char* out = buffer;
    for (int i = top; i >= 0; --i) {
        if (i != top) *out++ = '/';
        if (i == 0) *out++ = '.';
        out += std::snprintf(out, 3, "%02x", static_cast<unsigned>((id >> (i * 8)) & 0xff));
    }
    *out = '\0';
}

ustring FileEventDB::signatureOf(uint64_t row_id) const {
    char name[64];
    path_convert(row_id, name);
    return m_signPath + "/" + name;
}

void FileEventDB::closeLocked() {
    if (m_db == nullptr) return;
    sqlite3_close(m_db);
    m_db = nullptr;
}

int FileEventDB::initialize(const ustring& path) {
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db != nullptr) {
        EVENT_LOG(Logger::L_INFO, "[INFO] event-db(%d): FileEventDB has been initialized (no-op)\n",
                  __LINE__);
        return 0;
    }
    sqlite3* db = nullptr;
    int rc = sqlite3_open(path.c_str_utf8(), &db);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR,
                  "[ERROR] event-db(%d): FileEventDB: Failed to open database at '%s'. [%d] %s\n",
                  __LINE__, path.c_str_utf8(), rc, sqlite3_errmsg(db));
        sqlite3_close(db);
        return -1;
    }
    // The function reads the store's location at call time, so set it before any delete.
    const size_t slash = path.rfind('/');
    m_signPath = slash == ustring::npos ? ustring("sign") : path.substr(0, slash) + "/sign";

    rc = sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        // A file that isn't a database (or is damaged) is reported and left untouched:
        // it holds the only record of what was agreed, and someone may want it back.
        EVENT_LOG(Logger::L_ERR,
                  "[ERROR] event-db(%d): FileEventDB: Failed to initialize database at '%s'. [%d] "
                  "%s\n",
                  __LINE__, path.c_str_utf8(), rc, sqlite3_errmsg(db));
        sqlite3_close(db);
        return -1;
    }
    rc = sqlite3_create_function(db, "remove_signature", 1, SQLITE_UTF8, &m_signPath,
                                 SQLRemoveSignatureFunction, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR,
                  "[ERROR] event-db(%d): FileEventDB: Failed to create function. %s (%d)\n",
                  __LINE__, sqlite3_errmsg(db), rc);
        sqlite3_close(db);
        return -1;
    }
    // Makes an INSERT OR REPLACE that deletes a row fire the delete trigger too.
    rc = sqlite3_exec(db, "PRAGMA recursive_triggers = true;", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(
            Logger::L_ERR,
            "[ERROR] event-db(%d): FileEventDB: Failed to enable recursive triggers. %s (%d)\n",
            __LINE__, sqlite3_errmsg(db), rc);
        sqlite3_close(db);
        return -1;
    }
    m_db = db;
    m_eventDBPath = path;
    EVENT_LOG(
        Logger::L_INFO,
        "[INFO] event-db(%d): FileEventDB::m_signPath has been initialized with location '%s'\n",
        __LINE__, m_signPath.c_str_utf8());
    if (recoverSignaturesLocked() < 0) {
        closeLocked();
        return -1;
    }
    return 0;
}

int FileEventDB::destroy() {
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr) {
        EVENT_LOG(Logger::L_INFO,
                  "[INFO] event-db(%d): FileEventDB has been deinitialzed (no-op)\n", __LINE__);
        return 0;
    }
    closeLocked();
    EVENT_LOG(Logger::L_INFO, "[INFO] event-db(%d): FileEventDB has been deinitialzed\n", __LINE__);
    return 0;
}

int FileEventDB::execLocked(const char* sql) {
    if (m_db == nullptr) return -1;
    int rc = sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_exec: [%d] %s\n", __LINE__, rc,
                  sqlite3_errmsg(m_db));
        return -1;
    }
    return 0;
}

// Finishes commits whose signature was staged but maybe not yet moved into place. A
// marker exists only once its row committed, so the staged file is the row's.
int FileEventDB::recoverSignaturesLocked() {
    std::vector<uint64_t> pending;
    {
        Statement stmt;
        int rc = sqlite3_prepare_v2(m_db,
                                    "SELECT key FROM config_table WHERE key GLOB 'sign_pending/*';",
                                    -1, stmt.out(), nullptr);
        if (rc != SQLITE_OK) {
            EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_prepare_v2: [%d] %s\n",
                      __LINE__, rc, sqlite3_errmsg(m_db));
            return -1;
        }
        while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
            const ustring key = ColumnText(stmt.get(), 0);
            pending.push_back(
                std::strtoull(key.c_str_utf8() + std::strlen(kPendingPrefix), nullptr, 10));
        }
        if (rc != SQLITE_DONE) {
            EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_step: [%d] %s\n", __LINE__, rc,
                      sqlite3_errmsg(m_db));
            return -1;
        }
    }
    for (uint64_t id : pending) {
        const ustring final_path = signatureOf(id);
        const ustring staged = final_path + kStagedSuffix;
        if (IsFileExist(staged)) {
            EVENT_LOG(Logger::L_WARNING,
                      "[WARNING] event-db(%d): completing the signature of row %llu after an "
                      "interrupted commit\n",
                      __LINE__, static_cast<unsigned long long>(id));
            if (FSRename(staged, final_path, true) != 0) {
                EVENT_LOG(Logger::L_ERR,
                          "[ERROR] event-db(%d): Failed to rename from [%s] to [%s]\n.", __LINE__,
                          staged.c_str_utf8(), final_path.c_str_utf8());
                return -1;
            }
        }
        SqlText sql(sqlite3_mprintf("DELETE FROM config_table WHERE key = '%s%llu';",
                                    kPendingPrefix, static_cast<unsigned long long>(id)));
        if (!sql || execLocked(sql.get()) < 0) return -1;
    }
    return 0;
}

int FileEventDB::containsLocked(const ustring& path, EventInfo& info) {
    if (m_db == nullptr) return -1;
    Statement stmt;
    int rc = sqlite3_prepare_v2(m_db, "SELECT id, syncID FROM eventinfo WHERE path = ?;", -1,
                                stmt.out(), nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_prepare_v2: [%d] %s\n", __LINE__,
                  rc, sqlite3_errmsg(m_db));
        return -1;
    }
    rc = sqlite3_bind_text(stmt.get(), 1, path.c_str_utf8(), static_cast<int>(path.length()),
                           SQLITE_TRANSIENT);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_bind_text: [%d] %s\n", __LINE__, rc,
                  sqlite3_errmsg(m_db));
        return -1;
    }
    rc = sqlite3_step(stmt.get());
    if (rc == SQLITE_ROW) {
        info.row_id = static_cast<uint64_t>(sqlite3_column_int64(stmt.get(), 0));
        info.sync_id = static_cast<uint64_t>(sqlite3_column_int64(stmt.get(), 1));
        return 1;
    }
    if (rc == SQLITE_DONE) return 0;
    EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_step: [%d] %s\n", __LINE__, rc,
              sqlite3_errmsg(m_db));
    return -1;
}

int FileEventDB::contains(const ustring& path, EventInfo& info) {
    std::lock_guard<std::mutex> guard(m_dbMutex);
    return containsLocked(StripSlash(path), info);
}

int FileEventDB::getEventInfo(const ustring& path, ClientFileEventInfo& info) {
    const ustring relative = StripSlash(path);
    info.path.clear();
    if (relative.empty()) return -1;
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr) return -1;
    SqlText sql(sqlite3_mprintf("select * from eventinfo where path='%q'", relative.c_str_utf8()));
    if (!sql) return -1;
    Statement stmt;
    int rc = sqlite3_prepare_v2(m_db, sql.get(), -1, stmt.out(), nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_prepare_v2: [%d] %s\n", __LINE__,
                  rc, sqlite3_errmsg(m_db));
        return -1;
    }
    rc = sqlite3_step(stmt.get());
    if (rc == SQLITE_DONE) {
        EVENT_LOG(Logger::L_INFO, "[INFO] event-db(%d): No record for event-path: [%s]\n", __LINE__,
                  relative.c_str_utf8());
        return 0;
    }
    if (rc != SQLITE_ROW) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_step: [%d] %s\n", __LINE__, rc,
                  sqlite3_errmsg(m_db));
        return -1;
    }
    sqlite3_stmt* row = stmt.get();
    const uint64_t id = static_cast<uint64_t>(sqlite3_column_int64(row, 0));
    info.fileType = sqlite3_column_int(row, 1);
    info.isExist = sqlite3_column_int(row, 2);
    info.syncID = static_cast<uint64_t>(sqlite3_column_int64(row, 3));
    info.maxSyncID = static_cast<uint64_t>(sqlite3_column_int64(row, 4));
    info.pDirID = static_cast<uint64_t>(sqlite3_column_int64(row, 5));
    info.fileSize = static_cast<uint64_t>(sqlite3_column_int64(row, 6));
    info.fileModTime = static_cast<uint32_t>(sqlite3_column_int64(row, 7));
    info.fileCheckSum = ColumnText(row, 8);
    info.baseName = ColumnText(row, 9);
    info.path = "/" + ColumnText(row, 10);
    info.filePrivilege = ColumnText(row, 11);
    info.updateClient = ColumnText(row, 12);
    info.macHash = ColumnText(row, 14);
    info.windowsHash = ColumnText(row, 15);
    info.linuxHash = ColumnText(row, 16);
    info.zephHash = ColumnText(row, 17);
    info.execBit = static_cast<uint32_t>(sqlite3_column_int64(row, 19));
    info.signaturePath = info.fileType == 0 ? signatureOf(id) : ustring();
    EVENT_LOG(Logger::L_DEBUG, "[DEBUG] event-db(%d): file type = [%d], signaturePath = [%s]\n",
              __LINE__, info.fileType, info.signaturePath.c_str_utf8());
    return 1;
}

// Inserts or updates the row itself. `written` says whether it changed: an update from
// an older sync id matches nothing.
int FileEventDB::writeRowLocked(const ClientFileEventInfo& info, const ustring& path,
                                uint64_t& row_id, bool& written) {
    EventInfo existing;
    int found = containsLocked(path, existing);
    if (found < 0) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): error occurs while getting info of '%s'\n",
                  __LINE__, path.c_str_utf8());
        return -1;
    }
    char* text = nullptr;
    if (found == 1) {
        text = sqlite3_mprintf(
            "UPDATE eventinfo SET fileType = %d, syncID = %llu, maxSyncID = %llu, fileSize = %llu, "
            "fileModTime = %u, fileCheckSum = %Q, path = %Q, macHash = %Q, execBit = %u WHERE path "
            "= "
            "%Q AND syncID <= %llu;",
            info.fileType, static_cast<unsigned long long>(info.syncID),
            static_cast<unsigned long long>(info.maxSyncID),
            static_cast<unsigned long long>(info.fileSize), info.fileModTime,
            info.fileCheckSum.c_str_utf8(), path.c_str_utf8(), info.macHash.c_str_utf8(),
            info.execBit, path.c_str_utf8(), static_cast<unsigned long long>(info.syncID));
    } else {
        text = sqlite3_mprintf(
            "insert into eventinfo  (%s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, "
            "%s, %s, "
            "%s, %s) values(NULL, %d, %d, %llu, %llu, %llu, %llu, %u, '%q', '%q', '%q', '%q', "
            "'%q', '', "
            "'%q', '%q', '%q', '%q', %u);",
            "id", "fileType", "isExist", "syncID", "maxSyncID", "pDirID", "fileSize", "fileModTime",
            "fileCheckSum", "baseName", "path", "filePrivilege", "updateClient", "signPath",
            "macHash", "windowsHash", "linuxHash", "zephHash", "execBit", info.fileType,
            info.isExist, static_cast<unsigned long long>(info.syncID),
            static_cast<unsigned long long>(info.maxSyncID),
            static_cast<unsigned long long>(info.pDirID),
            static_cast<unsigned long long>(info.fileSize), info.fileModTime,
            info.fileCheckSum.c_str_utf8(), info.baseName.c_str_utf8(), path.c_str_utf8(),
            info.filePrivilege.c_str_utf8(), info.updateClient.c_str_utf8(),
            info.macHash.c_str_utf8(), info.windowsHash.c_str_utf8(), info.linuxHash.c_str_utf8(),
            info.zephHash.c_str_utf8(), info.execBit);
    }
    SqlText sql(text);
    if (!sql) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): insert/replace sqlite3_mprintf failed.\n",
                  __LINE__);
        return -1;
    }
    int rc = sqlite3_exec(m_db, sql.get(), nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR,
                  "[ERROR] event-db(%d): set event info ('%s') failed. Error code: %d.\n", __LINE__,
                  path.c_str_utf8(), rc);
        return -1;
    }
    if (found == 1) {
        row_id = existing.row_id;
        written = sqlite3_changes(m_db) > 0;
        return 0;
    }
    row_id = static_cast<uint64_t>(sqlite3_last_insert_rowid(m_db));
    written = true;
    // A row id can be handed out again after the highest row was deleted; a signature
    // its removal failed to delete must not pass for the new row's.
    if (FSRemove(signatureOf(row_id), false) != 0) {
        EVENT_LOG(Logger::L_ERR,
                  "[ERROR] event-db(%d): set event info ('%s') failed. Error code: %d.\n", __LINE__,
                  path.c_str_utf8(), -1);
        return -1;
    }
    return 0;
}

int FileEventDB::raiseAncestorsLocked(const ustring& path, uint64_t sync_id, uint32_t mtime) {
    for (ustring ancestor = ParentOf(path); !ancestor.empty(); ancestor = ParentOf(ancestor)) {
        EventInfo existing;
        int found = containsLocked(ancestor, existing);
        if (found < 0) {
            EVENT_LOG(Logger::L_ERR,
                      "[ERROR] event-db(%d): update parent info ('%s') failed. Error code: %d.\n",
                      __LINE__, ancestor.c_str_utf8(), found);
            return -1;
        }
        const unsigned long long id = static_cast<unsigned long long>(sync_id);
        SqlText sql(
            found == 1
                ? sqlite3_mprintf("UPDATE eventinfo SET maxSyncID = %llu WHERE path = %Q AND "
                                  "maxSyncID < %llu;",
                                  id, ancestor.c_str_utf8(), id)
                : sqlite3_mprintf("INSERT INTO eventinfo (fileType, isExist, syncID, maxSyncID, "
                                  "pDirID, fileSize, fileModTime, fileCheckSum, baseName, path, "
                                  "filePrivilege, updateClient, signPath, macHash, windowsHash, "
                                  "linuxHash, zephHash, inode, execBit) VALUES (1, 1, %llu, "
                                  "%llu, 0, 0, %u, '', '', %Q, '', '', '', '', '', '', '', 0, 1);",
                                  id, id, mtime, ancestor.c_str_utf8()));
        if (!sql) {
            EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite_mprintf: failed\n", __LINE__);
            return -1;
        }
        EVENT_LOG(Logger::L_DEBUG, "[DEBUG] event-db(%d): updating '%s' max sync_id to (%llu)\n",
                  __LINE__, ancestor.c_str_utf8(), id);
        int rc = sqlite3_exec(m_db, sql.get(), nullptr, nullptr, nullptr);
        if (rc != SQLITE_OK) {
            EVENT_LOG(Logger::L_ERR,
                      "[ERROR] event-db(%d): update parent info ('%s') failed. Error code: %d.\n",
                      __LINE__, ancestor.c_str_utf8(), rc);
            return -1;
        }
    }
    return 0;
}

// Inside the open transaction: records the pending signature and moves the caller's
// file beside its final name. `staged` is set only when the file was moved.
int FileEventDB::stageSignatureLocked(uint64_t row_id, const ustring& from, ustring& staged) {
    const ustring final_path = signatureOf(row_id);
    EVENT_LOG(Logger::L_DEBUG, "[DEBUG] event-db(%d): signPath = [%s]\n", __LINE__,
              final_path.c_str_utf8());
    const ustring parent = ParentOf(final_path);
    if (FSMKDir(parent, true) != 0) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): Failed to Create folder at [%s].\n",
                  __LINE__, parent.c_str_utf8());
        return -1;
    }
    SqlText marker(sqlite3_mprintf(
        "INSERT OR REPLACE INTO config_table (key, value) VALUES ('%s%llu', 'staged');",
        kPendingPrefix, static_cast<unsigned long long>(row_id)));
    if (!marker || execLocked(marker.get()) < 0) return -1;
    const ustring target = final_path + kStagedSuffix;
    if (FSRename(from, target, true) != 0) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): Failed to rename from [%s] to [%s]\n.",
                  __LINE__, from.c_str_utf8(), target.c_str_utf8());
        return -1;
    }
    staged = target;
    return 0;
}

int FileEventDB::setEventInfo(const ClientFileEventInfo& info) {
    const ustring path = StripSlash(info.path);
    if (path.empty()) return -1;
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr || execLocked("BEGIN IMMEDIATE;") < 0) return -1;

    uint64_t row_id = 0;
    bool written = false;
    ustring staged;
    int rc = writeRowLocked(info, path, row_id, written);
    if (rc == 0) rc = raiseAncestorsLocked(path, info.syncID, info.fileModTime);
    const bool moving = rc == 0 && written && info.fileType != 1 && !info.signaturePath.empty() &&
                        info.signaturePath != signatureOf(row_id);
    if (moving) rc = stageSignatureLocked(row_id, info.signaturePath, staged);
    if (rc == 0) rc = execLocked("COMMIT;");
    if (rc < 0) {
        if (!staged.empty() && FSRename(staged, info.signaturePath, true) != 0) {
            EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): Failed to rename from [%s] to [%s]\n.",
                      __LINE__, staged.c_str_utf8(), info.signaturePath.c_str_utf8());
        }
        if (sqlite3_get_autocommit(m_db) == 0)
            sqlite3_exec(m_db, "ROLLBACK;", nullptr, nullptr, nullptr);
        return -1;
    }
    if (!moving) return 0;

    const ustring final_path = signatureOf(row_id);
    if (FSRename(staged, final_path, true) != 0) {
        // The row is committed; the old signature must not stand for it. The marker stays,
        // and the next initialize moves the staged file into place.
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): Failed to rename from [%s] to [%s]\n.",
                  __LINE__, staged.c_str_utf8(), final_path.c_str_utf8());
        FSRemove(final_path, false);
        return 0;
    }
    SqlText done(sqlite3_mprintf("DELETE FROM config_table WHERE key = '%s%llu';", kPendingPrefix,
                                 static_cast<unsigned long long>(row_id)));
    if (done) execLocked(done.get());
    return 0;
}

int FileEventDB::rmEventInfo(const ustring& path) {
    const ustring relative = StripSlash(path);
    if (relative.empty()) {
        EVENT_LOG(Logger::L_ERR,
                  "[ERROR] event-db(%d): The input strPath for rmEventInfo is empty.\n", __LINE__);
        return -1;
    }
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr) return -1;
    const std::string glob = GlobLiteral(relative.str());
    SqlText sql(sqlite3_mprintf("delete from eventinfo where (path = %Q OR path GLOB '%q/*')",
                                relative.c_str_utf8(), glob.c_str()));
    if (!sql) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_mprintf error. path:[%s]\n",
                  __LINE__, relative.c_str_utf8());
        return -1;
    }
    int rc = sqlite3_exec(m_db, sql.get(), nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_exec: [%d] %s\n", __LINE__, rc,
                  sqlite3_errmsg(m_db));
    }
    return rc;
}

int FileEventDB::rmEventInfoV3(const ustring& path) {
    const ustring relative = StripSlash(path);
    if (relative.find('/') == ustring::npos) return rmEventInfo(relative);
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr) return -1;
    const std::string glob = GlobLiteral(relative.str());
    SqlText sql(sqlite3_mprintf("DELETE FROM eventinfo WHERE (path = %Q OR path GLOB '%q/*');",
                                relative.c_str_utf8(), glob.c_str()));
    if (!sql) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_mprintf: out of memory\n",
                  __LINE__);
        return -1;
    }
    return execLocked(sql.get());
}

int FileEventDB::rmAllFolders() {
    std::lock_guard<std::mutex> guard(m_dbMutex);
    return execLocked("DELETE FROM eventinfo WHERE fileType = 1 OR path like '%%/%%';");
}

int FileEventDB::getSyncId(uint64_t& id) {
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr) return -1;
    Statement stmt;
    int rc = sqlite3_prepare_v2(m_db, "SELECT value FROM config_table WHERE key = 'sync_id';", -1,
                                stmt.out(), nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_prepare_v2: [%d] %s\n", __LINE__,
                  rc, sqlite3_errmsg(m_db));
        return -1;
    }
    rc = sqlite3_step(stmt.get());
    if (rc != SQLITE_ROW) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_step: [%d] %s\n", __LINE__, rc,
                  sqlite3_errmsg(m_db));
        return -1;
    }
    id = static_cast<uint64_t>(sqlite3_column_int64(stmt.get(), 0));
    return 0;
}

int FileEventDB::setSyncId(uint64_t id) {
    std::lock_guard<std::mutex> guard(m_dbMutex);
    SqlText sql(sqlite3_mprintf("UPDATE config_table SET value = '%llu' WHERE key = 'sync_id';",
                                static_cast<unsigned long long>(id)));
    if (!sql) return -1;
    return execLocked(sql.get());
}

// Streams the rows of `sql` (fileType, fileModTime, fileSize, path) into `list`, each
// path without its first `prefix_length` bytes. Called with the mutex held.
int FileEventDB::fillFileList(FileList* list, const char* sql, size_t prefix_length) {
    if (m_db == nullptr || list == nullptr || sql == nullptr) return -1;
    Statement stmt;
    int rc = sqlite3_prepare_v2(m_db, sql, -1, stmt.out(), nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_prepare_v2: [%d] %s\n", __LINE__,
                  rc, sqlite3_errmsg(m_db));
        return -1;
    }
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        const int type = sqlite3_column_int(stmt.get(), 0);
        const uint32_t mtime = static_cast<uint32_t>(sqlite3_column_int64(stmt.get(), 1));
        const uint64_t size = static_cast<uint64_t>(sqlite3_column_int64(stmt.get(), 2));
        const char* row_path = reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 3));
        if (row_path == nullptr || std::strlen(row_path) <= prefix_length) continue;
        const char* name = row_path + prefix_length;
        if (type == 0) {
            EVENT_LOG(Logger::L_DEBUG, "[DEBUG] event-db(%d): getFileList: AddFile '%s'\n",
                      __LINE__, name);
            list->AddFile(name, mtime, size);
        } else {
            EVENT_LOG(Logger::L_DEBUG, "[DEBUG] event-db(%d): getFileList: AddDirectory '%s'\n",
                      __LINE__, name);
            list->AddDirectory(name, mtime);
        }
    }
    if (rc != SQLITE_DONE) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_step: [%d] %s\n", __LINE__, rc,
                  sqlite3_errmsg(m_db));
        return -1;
    }
    return 0;
}

int FileEventDB::getFileList(FileList* list, const ustring& path) {
    const ustring relative = StripSlash(path);
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (relative.empty()) {
        return fillFileList(
            list, "SELECT fileType, fileModTime, fileSize, path FROM eventinfo WHERE isExist = 1;",
            0);
    }
    const std::string glob = GlobLiteral(relative.str());
    SqlText sql(sqlite3_mprintf(
        "SELECT fileType, fileModTime, fileSize, path FROM eventinfo WHERE path GLOB "
        "'%q/*' and isExist = 1;",
        glob.c_str()));
    return fillFileList(list, sql.get(), relative.length() + 1);
}

int FileEventDB::getFileListWithoutRecursive(FileList* list, const ustring& path) {
    const ustring relative = StripSlash(path);
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (relative.empty()) {
        return fillFileList(
            list,
            "SELECT fileType, fileModTime, fileSize, path FROM eventinfo WHERE isExist = 1 "
            "AND path LIKE '%' AND path NOT LIKE '%/%';",
            0);
    }
    // GLOB, not LIKE: names differ by case here, and "%" or "_" in a name is no wildcard.
    const std::string glob = GlobLiteral(relative.str());
    SqlText sql(sqlite3_mprintf(
        "SELECT fileType, fileModTime, fileSize, path FROM eventinfo WHERE isExist = 1 "
        "AND path GLOB '%q/*' AND path NOT GLOB '%q/*/*';",
        glob.c_str(), glob.c_str()));
    return fillFileList(list, sql.get(), relative.length() + 1);
}

int FileEventDB::getFileListWithoutRecursive(FileList* list, const ustring& path,
                                             uint64_t sync_id) {
    const ustring relative = StripSlash(path);
    const unsigned long long limit = static_cast<unsigned long long>(sync_id);
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (relative.empty()) {
        SqlText sql(sqlite3_mprintf(
            "SELECT fileType, fileModTime, fileSize, path FROM eventinfo WHERE isExist = "
            "1 AND syncID <= %llu AND path LIKE '%%' AND path NOT LIKE '%%/%%';",
            limit));
        return fillFileList(list, sql.get(), 0);
    }
    const std::string glob = GlobLiteral(relative.str());
    SqlText sql(sqlite3_mprintf(
        "SELECT fileType, fileModTime, fileSize, path FROM eventinfo WHERE isExist = 1 "
        "AND syncID <= %llu AND path GLOB '%q/*' AND path NOT GLOB '%q/*/*';",
        limit, glob.c_str(), glob.c_str()));
    return fillFileList(list, sql.get(), relative.length() + 1);
}

int FileEventDB::getPathByHashFrom(const char* select, const char* tail, const ustring& file_hash,
                                   ustring& path) {
    if (file_hash.empty()) return 0;
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr) return -1;
    // Quoted although hashes are hexadecimal: a malformed hash must not become SQL.
    SqlText sql(sqlite3_mprintf("%s'%q' %s", select, file_hash.c_str_utf8(), tail));
    if (!sql) return -1;
    Statement stmt;
    int rc = sqlite3_prepare_v2(m_db, sql.get(), -1, stmt.out(), nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): getFilePathByHash failed : %s (%d).\n",
                  __LINE__, sqlite3_errmsg(m_db), rc);
        return -1;
    }
    rc = sqlite3_step(stmt.get());
    if (rc == SQLITE_ROW) {
        path = ColumnText(stmt.get(), 0);
        return 1;
    }
    if (rc == SQLITE_DONE) return 0;
    EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_step: %s (%d)\n", __LINE__,
              sqlite3_errmsg(m_db), rc);
    return -1;
}

int FileEventDB::getFilePathByHash(const ustring& file_hash, const ustring&, ustring& path) {
    return getPathByHashFrom("SELECT path FROM eventinfo WHERE fileCheckSum = ",
                             " AND isExist = 1 LIMIT 1;", file_hash, path);
}

int FileEventDB::getFilePathByHashFromRecycle(const ustring& file_hash, const ustring&,
                                              ustring& path) {
    return getPathByHashFrom(
        "SELECT path FROM recycle_bin_table WHERE fileCheckSum = ", " LIMIT 1;", file_hash, path);
}

int FileEventDB::addFileToRecycleBin(const ustring& unique_path, uint64_t file_size,
                                     const ustring& file_hash, const ustring& mac_hash) {
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr) return -1;
    SqlText sql(sqlite3_mprintf(
        "INSERT INTO recycle_bin_table (path, fileSize, fileCheckSum, macHash, time) "
        "VALUES ('%q', %llu, '%q', '%q', %lu);",
        unique_path.c_str_utf8(), static_cast<unsigned long long>(file_size),
        file_hash.c_str_utf8(), mac_hash.c_str_utf8(),
        static_cast<unsigned long>(platform::Now())));
    if (!sql) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): FileEventDB: Failed to sqlite3_mprintf.\n",
                  __LINE__);
        return -1;
    }
    int rc = sqlite3_exec(m_db, sql.get(), nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR,
                  "[ERROR] event-db(%d): FileEventDB addFileToRecycleBin fail: %s (%d).\n",
                  __LINE__, sqlite3_errmsg(m_db), rc);
        return -1;
    }
    return 0;
}

// Runs a BEGIN ... END script; a failure part-way rolls the whole script back.
static int RunAtomicScript(sqlite3* db, const char* sql, const char* name) {
    int rc = sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) return 0;
    EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): FileEventDB %s fail: %s (%d).\n", __LINE__,
              name, sqlite3_errmsg(db), rc);
    if (sqlite3_get_autocommit(db) == 0) sqlite3_exec(db, "ROLLBACK;", nullptr, nullptr, nullptr);
    return -1;
}

int FileEventDB::dumpFileToRecycleBin(const ustring& unique_path, const ustring& path) {
    const ustring relative = StripSlash(path);
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr) return -1;
    // The record's time comes from the process clock, as every other recycle time does.
    SqlText sql(sqlite3_mprintf(
        "BEGIN TRANSACTION;INSERT INTO recycle_bin_table (path, fileSize, fileCheckSum, "
        "macHash, time) SELECT (%Q), fileSize, fileCheckSum, macHash, %lu FROM eventinfo "
        "WHERE path = %Q;DELETE FROM eventinfo WHERE path = %Q;END TRANSACTION;",
        unique_path.c_str_utf8(), static_cast<unsigned long>(platform::Now()),
        relative.c_str_utf8(), relative.c_str_utf8()));
    if (!sql) return -1;
    return RunAtomicScript(m_db, sql.get(), "dumpFileToRecycleBin");
}

int FileEventDB::dumpDirToRecycleBin(const ustring& unique_prefix, const ustring& path) {
    const ustring relative = StripSlash(path);
    const unsigned long now = static_cast<unsigned long>(platform::Now());
    const std::string glob = GlobLiteral(relative.str());
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr) return -1;
    SqlText sql(sqlite3_mprintf(
        "BEGIN TRANSACTION;INSERT INTO recycle_bin_table (path, fileSize, fileCheckSum, macHash, "
        "time) VALUES "
        "(%Q, 0, '', '', %lu);INSERT INTO recycle_bin_table (path, fileSize, fileCheckSum, "
        "macHash, time) "
        "SELECT (%Q || substr(path, length(%Q)+1)), fileSize, fileCheckSum, macHash, %lu FROM "
        "eventinfo WHERE "
        "fileType = 0 AND (path GLOB '%q/*') ;DELETE FROM eventinfo WHERE (path = %Q OR path GLOB "
        "'%q/*');END TRANSACTION;",
        unique_prefix.c_str_utf8(), now, unique_prefix.c_str_utf8(), relative.c_str_utf8(), now,
        glob.c_str(), relative.c_str_utf8(), glob.c_str()));
    if (!sql) return -1;
    return RunAtomicScript(m_db, sql.get(), "dumpDirToRecycleBin");
}

int FileEventDB::rmRecycleByPath(const ustring& path) {
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr) return -1;
    SqlText sql(
        sqlite3_mprintf("DELETE FROM recycle_bin_table WHERE path = '%q';", path.c_str_utf8()));
    if (!sql) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): FilterDB: Failed to sqlite3_mprintf.\n",
                  __LINE__);
        return -1;
    }
    EVENT_LOG(Logger::L_DEBUG, "[DEBUG] event-db(%d): rmRecycleByPath sql : %s\n", __LINE__,
              sql.get());
    int rc = sqlite3_exec(m_db, sql.get(), nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): FilterDB rmRecycleByPath fail: %s (%d).\n",
                  __LINE__, sqlite3_errmsg(m_db), rc);
        return -1;
    }
    return 0;
}

int FileEventDB::resetRecycleBin() {
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr) return -1;
    int rc = sqlite3_exec(m_db, "DELETE FROM recycle_bin_table;", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR,
                  "[ERROR] event-db(%d): FileEventDB resetRecycleBin fail: %s (%d).\n", __LINE__,
                  sqlite3_errmsg(m_db), rc);
        return -1;
    }
    return 0;
}

int FileEventDB::getRotateList(uint32_t criteria_time, std::set<ustring>& rotate_list) {
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr) return -1;
    SqlText sql(sqlite3_mprintf(
        "SELECT path FROM recycle_bin_table WHERE path NOT LIKE '/%%/%%' AND time <= %lu;",
        static_cast<unsigned long>(criteria_time)));
    if (!sql) return -1;
    Statement stmt;
    int rc = sqlite3_prepare_v2(m_db, sql.get(), -1, stmt.out(), nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): rotateRecycleBin failed : %s (%d).\n",
                  __LINE__, sqlite3_errmsg(m_db), rc);
        return -1;
    }
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW)
        rotate_list.insert(ColumnText(stmt.get(), 0));
    if (rc != SQLITE_DONE) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_step: %s (%d)\n", __LINE__,
                  sqlite3_errmsg(m_db), rc);
        return -1;
    }
    return 0;
}

int FileEventDB::rmRotateRecords(uint32_t criteria_time) {
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr) return -1;
    SqlText sql(sqlite3_mprintf("DELETE FROM recycle_bin_table WHERE time <= %lu;",
                                static_cast<unsigned long>(criteria_time)));
    if (!sql) return -1;
    int rc = sqlite3_exec(m_db, sql.get(), nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR,
                  "[ERROR] event-db(%d): FileEventDB : rmRotateRecords fail: %s (%d).\n", __LINE__,
                  sqlite3_errmsg(m_db), rc);
        return -1;
    }
    return 0;
}

int FileEventDB::getOldestRecyleTime(uint32_t& time) {
    std::lock_guard<std::mutex> guard(m_dbMutex);
    if (m_db == nullptr) return -1;
    Statement stmt;
    int rc = sqlite3_prepare_v2(m_db, "SELECT MIN(time) FROM recycle_bin_table;", -1, stmt.out(),
                                nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): rotateRecycleBin failed : %s (%d).\n",
                  __LINE__, sqlite3_errmsg(m_db), rc);
        return -1;
    }
    rc = sqlite3_step(stmt.get());
    if (rc == SQLITE_ROW) {
        time = static_cast<uint32_t>(sqlite3_column_int64(stmt.get(), 0));
        return 0;
    }
    if (rc == SQLITE_DONE) return 0;
    EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_step: %s (%d)\n", __LINE__,
              sqlite3_errmsg(m_db), rc);
    return -1;
}

int FileEventDB::getPathByInode(uint64_t, ustring&) {
    return -1;
}

int FileEventDB::setPathInode(const ustring&, uint64_t) {
    return -1;
}
