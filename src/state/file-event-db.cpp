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

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "foundation/file-op.h"
#include "foundation/log.h"
#include "platform/clock.h"
#include "state/file-event-db-schema.h"
#include "state/file-list.h"
#include "state/sql-escape.h"

#define EVENT_LOG(level, ...) Logger::LogMsg(level, "event_db_debug", __VA_ARGS__)

namespace {

// Marker keys of signatures committed but maybe not yet in place.
const char* const kPendingPrefix = "sign_pending/";
// Suffix of a signature waiting beside its final name for its row's commit.
const char* const kStagedSuffix = ".new";

ustring StripSlash(const ustring& path) {
    if (!path.empty() && path[0] == '/') return path.substr(1);
    return path;
}

ustring ParentOf(const ustring& path) {
    size_t slash = path.rfind('/');
    return slash == ustring::npos ? ustring() : path.substr(0, slash);
}

std::string PendingKey(uint64_t row_id) {
    return kPendingPrefix + std::to_string(row_id);
}

// "<call>: [<code>] <message>", the form of most failures here.
void LogSqlFailure(int line, const sqlite::Failure& failure) {
    EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): %s: [%d] %s\n", line, failure.call, failure.rc,
              failure.message.c_str());
}

// A failed look-up named after `what` when the statement didn't prepare, after the
// SQLite call otherwise.
void LogQueryFailure(int line, const char* what, const sqlite::Failure& failure) {
    if (std::strcmp(failure.call, "sqlite3_prepare_v2") == 0) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): %s failed : %s (%d).\n", line, what,
                  failure.message.c_str(), failure.rc);
        return;
    }
    EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): %s: %s (%d)\n", line, failure.call,
              failure.message.c_str(), failure.rc);
}

void ReadRow(const sqlite::Statement& row, ClientFileEventInfo& info) {
    using namespace eventinfo;
    info.fileType = row.Int(kFileType);
    info.isExist = row.Int(kIsExist);
    info.syncID = row.UInt64(kSyncID);
    info.maxSyncID = row.UInt64(kMaxSyncID);
    info.pDirID = row.UInt64(kPDirID);
    info.fileSize = row.UInt64(kFileSize);
    info.fileModTime = static_cast<uint32_t>(row.Int64(kFileModTime));
    info.fileCheckSum = row.Chars(kFileCheckSum);
    info.baseName = row.Chars(kBaseName);
    info.path = "/" + ustring(row.Chars(kPath));
    info.filePrivilege = row.Chars(kFilePrivilege);
    info.updateClient = row.Chars(kUpdateClient);
    info.macHash = row.Chars(kMacHash);
    info.windowsHash = row.Chars(kWindowsHash);
    info.linuxHash = row.Chars(kLinuxHash);
    info.zephHash = row.Chars(kZephHash);
    info.execBit = static_cast<uint32_t>(row.Int64(kExecBit));
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
    MutexLock guard(m_dbMutex);
    m_db.Close();
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

int FileEventDB::initialize(const ustring& path) {
    MutexLock guard(m_dbMutex);
    if (m_db.isOpen()) {
        EVENT_LOG(Logger::L_INFO, "[INFO] event-db(%d): FileEventDB has been initialized (no-op)\n",
                  __LINE__);
        return 0;
    }
    if (m_db.Open(path.c_str_utf8()) < 0) {
        EVENT_LOG(Logger::L_ERR,
                  "[ERROR] event-db(%d): FileEventDB: Failed to open database at '%s'. [%d] %s\n",
                  __LINE__, path.c_str_utf8(), m_db.failure().rc, m_db.failure().message.c_str());
        return -1;
    }
    // The function reads the store's location at call time, so set it before any delete.
    const size_t slash = path.rfind('/');
    m_signPath = slash == ustring::npos ? ustring("sign") : path.substr(0, slash) + "/sign";

    if (m_db.Exec(kFileEventDBSchema) < 0) {
        // A file that isn't a database (or is damaged) is reported and left untouched:
        // it holds the only record of what was agreed, and someone may want it back.
        EVENT_LOG(Logger::L_ERR,
                  "[ERROR] event-db(%d): FileEventDB: Failed to initialize database at '%s'. [%d] "
                  "%s\n",
                  __LINE__, path.c_str_utf8(), m_db.failure().rc, m_db.failure().message.c_str());
        m_db.Close();
        return -1;
    }
    int rc = sqlite3_create_function(m_db.handle(), "remove_signature", 1, SQLITE_UTF8, &m_signPath,
                                     SQLRemoveSignatureFunction, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        EVENT_LOG(Logger::L_ERR,
                  "[ERROR] event-db(%d): FileEventDB: Failed to create function. %s (%d)\n",
                  __LINE__, sqlite3_errmsg(m_db.handle()), rc);
        m_db.Close();
        return -1;
    }
    // Makes an INSERT OR REPLACE that deletes a row fire the delete trigger too.
    if (m_db.Exec("PRAGMA recursive_triggers = true;") < 0) {
        EVENT_LOG(
            Logger::L_ERR,
            "[ERROR] event-db(%d): FileEventDB: Failed to enable recursive triggers. %s (%d)\n",
            __LINE__, m_db.failure().message.c_str(), m_db.failure().rc);
        m_db.Close();
        return -1;
    }
    m_eventDBPath = path;
    EVENT_LOG(
        Logger::L_INFO,
        "[INFO] event-db(%d): FileEventDB::m_signPath has been initialized with location '%s'\n",
        __LINE__, m_signPath.c_str_utf8());
    if (recoverSignaturesLocked() < 0) {
        m_db.Close();
        return -1;
    }
    return 0;
}

int FileEventDB::destroy() {
    MutexLock guard(m_dbMutex);
    if (!m_db.isOpen()) {
        EVENT_LOG(Logger::L_INFO,
                  "[INFO] event-db(%d): FileEventDB has been deinitialzed (no-op)\n", __LINE__);
        return 0;
    }
    m_db.Close();
    EVENT_LOG(Logger::L_INFO, "[INFO] event-db(%d): FileEventDB has been deinitialzed\n", __LINE__);
    return 0;
}

int FileEventDB::execLocked(const char* sql) {
    if (m_db.Exec(sql) == 0) return 0;
    LogSqlFailure(__LINE__, m_db.failure());
    return -1;
}

int FileEventDB::execReportedLocked(const char* op, const char* sql, bool atomic) {
    if (sql == nullptr) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): FileEventDB: Failed to sqlite3_mprintf.\n",
                  __LINE__);
        return -1;
    }
    if ((atomic ? m_db.ExecAtomic(sql) : m_db.Exec(sql)) == 0) return 0;
    EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): %s fail: %s (%d).\n", __LINE__, op,
              m_db.failure().message.c_str(), m_db.failure().rc);
    return -1;
}

int FileEventDB::clearMarkerLocked(uint64_t row_id) {
    if (m_db.Run("DELETE FROM config_table WHERE key = ?;", PendingKey(row_id)) == 0) return 0;
    LogSqlFailure(__LINE__, m_db.failure());
    return -1;
}

// Finishes commits whose signature was staged but maybe not yet moved into place. A
// marker exists only once its row committed, so the staged file is the row's.
int FileEventDB::recoverSignaturesLocked() {
    std::vector<uint64_t> pending;
    const int rc = m_db.Query("SELECT key FROM config_table WHERE key GLOB 'sign_pending/*';",
                              [&](const sqlite::Statement& row) {
                                  pending.push_back(std::strtoull(
                                      row.Chars(0) + std::strlen(kPendingPrefix), nullptr, 10));
                              });
    if (rc < 0) {
        LogSqlFailure(__LINE__, m_db.failure());
        return -1;
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
        if (clearMarkerLocked(id) < 0) return -1;
    }
    return 0;
}

int FileEventDB::containsLocked(const ustring& path, EventInfo& info) {
    // Kept on the connection: a commit asks this once for the path and once per ancestor.
    sqlite::Statement* st = m_db.Reuse("SELECT id, syncID FROM eventinfo WHERE path = ?;");
    const int found = st == nullptr ? -1 : st->Bind(1, path).First([&](const auto& row) {
        info.row_id = row.UInt64(0);
        info.sync_id = row.UInt64(1);
    });
    if (found < 0) LogSqlFailure(__LINE__, m_db.failure());
    return found;
}

int FileEventDB::contains(const ustring& path, EventInfo& info) {
    MutexLock guard(m_dbMutex);
    return containsLocked(StripSlash(path), info);
}

int FileEventDB::getEventInfo(const ustring& path, ClientFileEventInfo& info) {
    const ustring relative = StripSlash(path);
    info.path.clear();
    if (relative.empty()) return -1;
    MutexLock guard(m_dbMutex);
    uint64_t id = 0;
    const int found = m_db.QueryFirst(
        "select * from eventinfo where path = ?;",
        [&](const sqlite::Statement& row) {
            id = row.UInt64(eventinfo::kId);
            ReadRow(row, info);
        },
        relative);
    if (found < 0) {
        LogSqlFailure(__LINE__, m_db.failure());
        return -1;
    }
    if (found == 0) {
        EVENT_LOG(Logger::L_INFO, "[INFO] event-db(%d): No record for event-path: [%s]\n", __LINE__,
                  relative.c_str_utf8());
        return 0;
    }
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
    sqlite::Text sql;
    if (found == 1) {
        sql = sqlite::Text::Format(
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
        sql = sqlite::Text::Format(
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
    if (!sql) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): insert/replace sqlite3_mprintf failed.\n",
                  __LINE__);
        return -1;
    }
    if (m_db.Exec(sql.get()) < 0) {
        EVENT_LOG(Logger::L_ERR,
                  "[ERROR] event-db(%d): set event info ('%s') failed. Error code: %d.\n", __LINE__,
                  path.c_str_utf8(), m_db.failure().rc);
        return -1;
    }
    if (found == 1) {
        row_id = existing.row_id;
        written = m_db.Changes() > 0;
        return 0;
    }
    row_id = static_cast<uint64_t>(m_db.LastInsertRowId());
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
        const sqlite::Text sql =
            found == 1 ? sqlite::Text::Format(
                             "UPDATE eventinfo SET maxSyncID = %llu WHERE path = %Q AND "
                             "maxSyncID < %llu;",
                             id, ancestor.c_str_utf8(), id)
                       : sqlite::Text::Format(
                             "INSERT INTO eventinfo (fileType, isExist, syncID, maxSyncID, "
                             "pDirID, fileSize, fileModTime, fileCheckSum, baseName, path, "
                             "filePrivilege, updateClient, signPath, macHash, windowsHash, "
                             "linuxHash, zephHash, inode, execBit) VALUES (1, 1, %llu, "
                             "%llu, 0, 0, %u, '', '', %Q, '', '', '', '', '', '', '', 0, 1);",
                             id, id, mtime, ancestor.c_str_utf8());
        if (!sql) {
            EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite_mprintf: failed\n", __LINE__);
            return -1;
        }
        EVENT_LOG(Logger::L_DEBUG, "[DEBUG] event-db(%d): updating '%s' max sync_id to (%llu)\n",
                  __LINE__, ancestor.c_str_utf8(), id);
        if (m_db.Exec(sql.get()) < 0) {
            EVENT_LOG(Logger::L_ERR,
                      "[ERROR] event-db(%d): update parent info ('%s') failed. Error code: %d.\n",
                      __LINE__, ancestor.c_str_utf8(), m_db.failure().rc);
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
    if (m_db.Run("INSERT OR REPLACE INTO config_table (key, value) VALUES (?, 'staged');",
                 PendingKey(row_id)) < 0) {
        LogSqlFailure(__LINE__, m_db.failure());
        return -1;
    }
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
    MutexLock guard(m_dbMutex);
    sqlite::Transaction txn(m_db);
    if (!txn.ok()) {
        LogSqlFailure(__LINE__, m_db.failure());
        return -1;
    }
    uint64_t row_id = 0;
    bool written = false;
    ustring staged;
    int rc = writeRowLocked(info, path, row_id, written);
    if (rc == 0) rc = raiseAncestorsLocked(path, info.syncID, info.fileModTime);
    const bool moving = rc == 0 && written && info.fileType != 1 && !info.signaturePath.empty() &&
                        info.signaturePath != signatureOf(row_id);
    if (moving) rc = stageSignatureLocked(row_id, info.signaturePath, staged);
    if (rc == 0 && txn.Commit() < 0) {
        LogSqlFailure(__LINE__, m_db.failure());
        rc = -1;
    }
    if (rc < 0) {
        // The transaction rolls back as it goes out of scope; the file goes back first.
        if (!staged.empty() && FSRename(staged, info.signaturePath, true) != 0) {
            EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): Failed to rename from [%s] to [%s]\n.",
                      __LINE__, staged.c_str_utf8(), info.signaturePath.c_str_utf8());
        }
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
    clearMarkerLocked(row_id);
    return 0;
}

int FileEventDB::rmEventInfo(const ustring& path) {
    const ustring relative = StripSlash(path);
    if (relative.empty()) {
        EVENT_LOG(Logger::L_ERR,
                  "[ERROR] event-db(%d): The input strPath for rmEventInfo is empty.\n", __LINE__);
        return -1;
    }
    MutexLock guard(m_dbMutex);
    if (!m_db.isOpen()) return -1;
    const std::string glob = GlobLiteral(relative.str());
    const sqlite::Text sql =
        sqlite::Text::Format("delete from eventinfo where (path = %Q OR path GLOB '%q/*')",
                             relative.c_str_utf8(), glob.c_str());
    if (!sql) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_mprintf error. path:[%s]\n",
                  __LINE__, relative.c_str_utf8());
        return -1;
    }
    return execLocked(sql.get()) == 0 ? 0 : m_db.failure().rc;
}

int FileEventDB::rmEventInfoV3(const ustring& path) {
    const ustring relative = StripSlash(path);
    if (relative.find('/') == ustring::npos) return rmEventInfo(relative);
    MutexLock guard(m_dbMutex);
    const std::string glob = GlobLiteral(relative.str());
    const sqlite::Text sql =
        sqlite::Text::Format("DELETE FROM eventinfo WHERE (path = %Q OR path GLOB '%q/*');",
                             relative.c_str_utf8(), glob.c_str());
    if (!sql) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_mprintf: out of memory\n",
                  __LINE__);
        return -1;
    }
    return execLocked(sql.get());
}

int FileEventDB::rmAllFolders() {
    MutexLock guard(m_dbMutex);
    return execLocked("DELETE FROM eventinfo WHERE fileType = 1 OR path like '%%/%%';");
}

int FileEventDB::getSyncId(uint64_t& id) {
    MutexLock guard(m_dbMutex);
    const int found = m_db.QueryFirst("SELECT value FROM config_table WHERE key = 'sync_id';",
                                      [&](const sqlite::Statement& row) { id = row.UInt64(0); });
    if (found < 0) LogSqlFailure(__LINE__, m_db.failure());
    if (found == 0) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): sqlite3_step: [%d] %s\n", __LINE__,
                  SQLITE_DONE, "no sync_id row");
    }
    return found == 1 ? 0 : -1;
}

int FileEventDB::setSyncId(uint64_t id) {
    MutexLock guard(m_dbMutex);
    const sqlite::Text sql =
        sqlite::Text::Format("UPDATE config_table SET value = '%llu' WHERE key = 'sync_id';",
                             static_cast<unsigned long long>(id));
    if (!sql) return -1;
    return execLocked(sql.get());
}

// Streams the rows of `query` (fileType, fileModTime, fileSize, path) into `list`, each
// path without its first `prefix_length` bytes.
int FileEventDB::fillFileList(FileList* list, const char* query, size_t prefix_length) {
    if (list == nullptr || query == nullptr) return -1;
    const int rc = m_db.Query(query, [&](const sqlite::Statement& row) {
        const char* row_path = row.Chars(3);
        if (row_path == nullptr || std::strlen(row_path) <= prefix_length) return;
        const char* name = row_path + prefix_length;
        if (row.Int(0) == 0) {
            EVENT_LOG(Logger::L_DEBUG, "[DEBUG] event-db(%d): getFileList: AddFile '%s'\n",
                      __LINE__, name);
            list->AddFile(name, static_cast<uint32_t>(row.Int64(1)), row.UInt64(2));
        } else {
            EVENT_LOG(Logger::L_DEBUG, "[DEBUG] event-db(%d): getFileList: AddDirectory '%s'\n",
                      __LINE__, name);
            list->AddDirectory(name, static_cast<uint32_t>(row.Int64(1)));
        }
    });
    if (rc < 0) LogSqlFailure(__LINE__, m_db.failure());
    return rc;
}

int FileEventDB::getFileList(FileList* list, const ustring& path) {
    const ustring relative = StripSlash(path);
    MutexLock guard(m_dbMutex);
    if (relative.empty()) {
        return fillFileList(
            list, "SELECT fileType, fileModTime, fileSize, path FROM eventinfo WHERE isExist = 1;",
            0);
    }
    const std::string glob = GlobLiteral(relative.str());
    const sqlite::Text sql = sqlite::Text::Format(
        "SELECT fileType, fileModTime, fileSize, path FROM eventinfo WHERE path GLOB "
        "'%q/*' and isExist = 1;",
        glob.c_str());
    return fillFileList(list, sql.get(), relative.length() + 1);
}

int FileEventDB::getFileListWithoutRecursive(FileList* list, const ustring& path) {
    const ustring relative = StripSlash(path);
    MutexLock guard(m_dbMutex);
    if (relative.empty()) {
        return fillFileList(
            list,
            "SELECT fileType, fileModTime, fileSize, path FROM eventinfo WHERE isExist = 1 "
            "AND path LIKE '%' AND path NOT LIKE '%/%';",
            0);
    }
    // GLOB, not LIKE: names differ by case here, and "%" or "_" in a name is no wildcard.
    const std::string glob = GlobLiteral(relative.str());
    const sqlite::Text sql = sqlite::Text::Format(
        "SELECT fileType, fileModTime, fileSize, path FROM eventinfo WHERE isExist = 1 "
        "AND path GLOB '%q/*' AND path NOT GLOB '%q/*/*';",
        glob.c_str(), glob.c_str());
    return fillFileList(list, sql.get(), relative.length() + 1);
}

int FileEventDB::getFileListWithoutRecursive(FileList* list, const ustring& path,
                                             uint64_t sync_id) {
    const ustring relative = StripSlash(path);
    const unsigned long long limit = static_cast<unsigned long long>(sync_id);
    MutexLock guard(m_dbMutex);
    if (relative.empty()) {
        const sqlite::Text sql = sqlite::Text::Format(
            "SELECT fileType, fileModTime, fileSize, path FROM eventinfo WHERE isExist = "
            "1 AND syncID <= %llu AND path LIKE '%%' AND path NOT LIKE '%%/%%';",
            limit);
        return fillFileList(list, sql.get(), 0);
    }
    const std::string glob = GlobLiteral(relative.str());
    const sqlite::Text sql = sqlite::Text::Format(
        "SELECT fileType, fileModTime, fileSize, path FROM eventinfo WHERE isExist = 1 "
        "AND syncID <= %llu AND path GLOB '%q/*' AND path NOT GLOB '%q/*/*';",
        limit, glob.c_str(), glob.c_str());
    return fillFileList(list, sql.get(), relative.length() + 1);
}

int FileEventDB::getPathByHashFrom(const char* select, const char* tail, const ustring& file_hash,
                                   ustring& path) {
    if (file_hash.empty()) return 0;
    MutexLock guard(m_dbMutex);
    // Quoted although hashes are hexadecimal: a malformed hash must not become SQL.
    const sqlite::Text sql =
        sqlite::Text::Format("%s'%q' %s", select, file_hash.c_str_utf8(), tail);
    if (!sql) return -1;
    const int found =
        m_db.QueryFirst(sql.get(), [&](const sqlite::Statement& row) { path = row.Chars(0); });
    if (found < 0) LogQueryFailure(__LINE__, "getFilePathByHash", m_db.failure());
    return found;
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
    MutexLock guard(m_dbMutex);
    return execReportedLocked(
        "FileEventDB addFileToRecycleBin",
        sqlite::Text::Format(
            "INSERT INTO recycle_bin_table (path, fileSize, fileCheckSum, macHash, time) "
            "VALUES ('%q', %llu, '%q', '%q', %lu);",
            unique_path.c_str_utf8(), static_cast<unsigned long long>(file_size),
            file_hash.c_str_utf8(), mac_hash.c_str_utf8(),
            static_cast<unsigned long>(platform::Now()))
            .get());
}

int FileEventDB::dumpFileToRecycleBin(const ustring& unique_path, const ustring& path) {
    const ustring relative = StripSlash(path);
    MutexLock guard(m_dbMutex);
    // The record's time comes from the process clock, as every other recycle time does.
    return execReportedLocked(
        "FileEventDB dumpFileToRecycleBin",
        sqlite::Text::Format(
            "BEGIN TRANSACTION;INSERT INTO recycle_bin_table (path, fileSize, fileCheckSum, "
            "macHash, time) SELECT (%Q), fileSize, fileCheckSum, macHash, %lu FROM eventinfo "
            "WHERE path = %Q;DELETE FROM eventinfo WHERE path = %Q;END TRANSACTION;",
            unique_path.c_str_utf8(), static_cast<unsigned long>(platform::Now()),
            relative.c_str_utf8(), relative.c_str_utf8())
            .get(),
        true);
}

int FileEventDB::dumpDirToRecycleBin(const ustring& unique_prefix, const ustring& path) {
    const ustring relative = StripSlash(path);
    const unsigned long now = static_cast<unsigned long>(platform::Now());
    const std::string glob = GlobLiteral(relative.str());
    MutexLock guard(m_dbMutex);
    return execReportedLocked(
        "FileEventDB dumpDirToRecycleBin",
        sqlite::Text::Format(
            "BEGIN TRANSACTION;INSERT INTO recycle_bin_table (path, fileSize, fileCheckSum, "
            "macHash, time) VALUES "
            "(%Q, 0, '', '', %lu);INSERT INTO recycle_bin_table (path, fileSize, fileCheckSum, "
            "macHash, time) "
            "SELECT (%Q || substr(path, length(%Q)+1)), fileSize, fileCheckSum, macHash, %lu FROM "
            "eventinfo WHERE "
            "fileType = 0 AND (path GLOB '%q/*') ;DELETE FROM eventinfo WHERE (path = %Q OR path "
            "GLOB '%q/*');END TRANSACTION;",
            unique_prefix.c_str_utf8(), now, unique_prefix.c_str_utf8(), relative.c_str_utf8(), now,
            glob.c_str(), relative.c_str_utf8(), glob.c_str())
            .get(),
        true);
}

int FileEventDB::rmRecycleByPath(const ustring& path) {
    MutexLock guard(m_dbMutex);
    const sqlite::Text sql =
        sqlite::Text::Format("DELETE FROM recycle_bin_table WHERE path = '%q';", path.c_str_utf8());
    if (!sql) {
        EVENT_LOG(Logger::L_ERR, "[ERROR] event-db(%d): FilterDB: Failed to sqlite3_mprintf.\n",
                  __LINE__);
        return -1;
    }
    EVENT_LOG(Logger::L_DEBUG, "[DEBUG] event-db(%d): rmRecycleByPath sql : %s\n", __LINE__,
              sql.get());
    return execReportedLocked("FilterDB rmRecycleByPath", sql.get());
}

int FileEventDB::resetRecycleBin() {
    MutexLock guard(m_dbMutex);
    return execReportedLocked("FileEventDB resetRecycleBin", "DELETE FROM recycle_bin_table;");
}

int FileEventDB::getRotateList(uint32_t criteria_time, std::set<ustring>& rotate_list) {
    MutexLock guard(m_dbMutex);
    const sqlite::Text sql = sqlite::Text::Format(
        "SELECT path FROM recycle_bin_table WHERE path NOT LIKE '/%%/%%' AND time <= %lu;",
        static_cast<unsigned long>(criteria_time));
    if (!sql) return -1;
    const int rc = m_db.Query(
        sql.get(), [&](const sqlite::Statement& row) { rotate_list.insert(row.Chars(0)); });
    if (rc < 0) LogQueryFailure(__LINE__, "rotateRecycleBin", m_db.failure());
    return rc;
}

int FileEventDB::rmRotateRecords(uint32_t criteria_time) {
    MutexLock guard(m_dbMutex);
    return execReportedLocked(
        "FileEventDB : rmRotateRecords",
        sqlite::Text::Format("DELETE FROM recycle_bin_table WHERE time <= %lu;",
                             static_cast<unsigned long>(criteria_time))
            .get());
}

int FileEventDB::getOldestRecyleTime(uint32_t& time) {
    MutexLock guard(m_dbMutex);
    const int found = m_db.QueryFirst(
        "SELECT MIN(time) FROM recycle_bin_table;",
        [&](const sqlite::Statement& row) { time = static_cast<uint32_t>(row.Int64(0)); });
    if (found < 0) LogQueryFailure(__LINE__, "rotateRecycleBin", m_db.failure());
    return found < 0 ? -1 : 0;
}

int FileEventDB::getPathByInode(uint64_t, ustring&) {
    return -1;
}

int FileEventDB::setPathInode(const ustring&, uint64_t) {
    return -1;
}
