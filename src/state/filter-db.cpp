// filter-db.cpp: the filter database's statements over its one connection.
#include "state/filter-db.h"

#include <sqlite3.h>

#include "foundation/log.h"
#include "state/filter-db-schema.h"
#include "state/sql-escape.h"

namespace {

constexpr const char kLog[] = "filter_db_debug";

using ull = unsigned long long;

ustring column_text(sqlite3_stmt* st, int col) {
    const unsigned char* text = sqlite3_column_text(st, col);
    return text != nullptr ? ustring(reinterpret_cast<const char*>(text)) : ustring();
}

uint64_t column_u64(sqlite3_stmt* st, int col) {
    return static_cast<uint64_t>(sqlite3_column_int64(st, col));
}

}  // namespace

FilterDB& FilterDB::getInstance() {
    static FilterDB instance;
    return instance;
}

FilterDB::~FilterDB() {
    // No log here: the logger may already be gone at process exit.
    if (m_db != nullptr) sqlite3_close(m_db);
}

int FilterDB::initialize(const ustring& filter_db_path) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    if (m_db != nullptr) {
        Logger::LogMsg(Logger::L_INFO, kLog,
                       "[INFO] filter-db(%d): FilterDB has been initialized (no-op)\n", __LINE__);
        return 0;
    }
    sqlite3* db = nullptr;
    int rc = sqlite3_open(filter_db_path.c_str_utf8(), &db);
    if (rc != SQLITE_OK) {
        Logger::LogMsg(
            Logger::L_ERR, kLog,
            "[ERROR] filter-db(%d): FilterDB: Failed to open database at '%s'. [%d] %s\n", __LINE__,
            filter_db_path.c_str_utf8(), rc,
            db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
        sqlite3_close(db);
        return -1;
    }
    // Before the schema, so that a checkpoint of another process is waited for there too.
    sqlite3_busy_timeout(db, 300000);
    char* err = nullptr;
    rc = sqlite3_exec(db, kFilterDBSchema, nullptr, nullptr, &err);
    if (rc != SQLITE_OK) {
        // A file that isn't a database (or is damaged) is refused and left alone: it may be
        // something of the user's at a mistaken path.
        const char* why = err != nullptr ? err : sqlite3_errmsg(db);
        Logger::LogMsg(
            Logger::L_ERR, kLog,
            "[ERROR] filter-db(%d): FilterDB: Failed to initialize database at '%s'. [%d] %s\n",
            __LINE__, filter_db_path.c_str_utf8(), rc, why);
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] filter-db(%d): FilterDB init fail %s\n",
                       __LINE__, why);
        sqlite3_free(err);
        sqlite3_close(db);
        return -1;
    }
    m_db = db;
    m_filter_db_path = filter_db_path;
    Logger::LogMsg(Logger::L_INFO, kLog,
                   "[INFO] filter-db(%d): FilterDB has been initialized with location '%s'\n",
                   __LINE__, filter_db_path.c_str_utf8());
    return 0;
}

int FilterDB::destroy() {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    if (m_db == nullptr) {
        Logger::LogMsg(Logger::L_INFO, kLog,
                       "[INFO] filter-db(%d): FilterDB has been deinitialzed (no-op)\n", __LINE__);
        return 0;
    }
    sqlite3_close(m_db);
    m_db = nullptr;
    Logger::LogMsg(Logger::L_INFO, kLog, "[INFO] filter-db(%d): FilterDB has been deinitialzed\n",
                   __LINE__);
    return 0;
}

bool FilterDB::readyLocked(const char* op, char* sql) {
    if (sql == nullptr) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] filter-db(%d): FilterDB: Failed to sqlite3_mprintf.\n", __LINE__);
        return false;
    }
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] filter-db(%d): %s sql : %s\n", __LINE__, op,
                   sql);
    if (m_db == nullptr) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] filter-db(%d): FilterDB %s fail: %s (%d).\n",
                       __LINE__, op, "database is not open", SQLITE_MISUSE);
        sqlite3_free(sql);
        return false;
    }
    return true;
}

int FilterDB::execLocked(const char* op, char* sql) {
    if (!readyLocked(op, sql)) return -1;
    char* err = nullptr;
    int rc = sqlite3_exec(m_db, sql, nullptr, nullptr, &err);
    sqlite3_free(sql);
    if (rc != SQLITE_OK) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] filter-db(%d): FilterDB %s fail: %s (%d).\n",
                       __LINE__, op, err != nullptr ? err : sqlite3_errmsg(m_db), rc);
        sqlite3_free(err);
        return -1;
    }
    return 0;
}

sqlite3_stmt* FilterDB::prepareLocked(const char* op, char* sql) {
    if (!readyLocked(op, sql)) return nullptr;
    sqlite3_stmt* stmt = nullptr;
    int rc = sqlite3_prepare_v2(m_db, sql, -1, &stmt, nullptr);
    sqlite3_free(sql);
    if (rc != SQLITE_OK) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] filter-db(%d): sqlite3_prepare_v2: %s (%d)\n",
                       __LINE__, sqlite3_errmsg(m_db), rc);
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] filter-db(%d): FilterDB %s fail: %s (%d).\n",
                       __LINE__, op, sqlite3_errmsg(m_db), rc);
        sqlite3_finalize(stmt);
        return nullptr;
    }
    return stmt;
}

template <typename Row>
int FilterDB::queryLocked(const char* op, char* sql, Row row) {
    sqlite3_stmt* stmt = prepareLocked(op, sql);
    if (stmt == nullptr) return -1;
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) row(stmt);
    sqlite3_finalize(stmt);
    if (rc != SQLITE_DONE) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] filter-db(%d): sqlite3_step: %s (%d)\n",
                       __LINE__, sqlite3_errmsg(m_db), rc);
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] filter-db(%d): FilterDB %s fail: %s (%d).\n",
                       __LINE__, op, sqlite3_errmsg(m_db), rc);
        return -1;
    }
    return 0;
}

int FilterDB::setConfigItem(const ustring& key, const ustring& value) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "setConfigItem",
        sqlite3_mprintf("INSERT OR REPLACE INTO config_table  (key, value) VALUES(%Q, %Q);",
                        key.c_str_utf8(), value.c_str_utf8()));
}

int FilterDB::setFilter(uint64_t sess_id, uint64_t sync_id, int filter_type,
                        const ustring& filter_desc) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "setFilter",
        sqlite3_mprintf("INSERT INTO filter_table  (sess_id, sync_id, filter_type, "
                        "filter_desc) VALUES (%llu, %llu, %d, %Q)",
                        ull(sess_id), ull(sync_id), filter_type, filter_desc.c_str_utf8()));
}

int FilterDB::rmFilter(uint64_t sess_id, int filter_type, const ustring& filter_desc) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked("rmFilter",
                      sqlite3_mprintf("DELETE FROM filter_table WHERE (sess_id = %llu AND "
                                      "filter_type = %d AND filter_desc = %Q)",
                                      ull(sess_id), filter_type, filter_desc.c_str_utf8()));
}

int FilterDB::setSizeFilter(uint64_t sess_id, uint64_t sync_id, uint64_t size) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "setSizeFilter",
        sqlite3_mprintf("INSERT INTO filter_range_table  (sess_id, sync_id, "
                        "filter_type, filter_desc) VALUES (%llu, %llu, %d, %llu)",
                        ull(sess_id), ull(sync_id), FILTER_FILE_SIZE_SELECTIVE_SYNC, ull(size)));
}

int FilterDB::rmSizeFilter(uint64_t sess_id, uint64_t size) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked("rmSizeFilter",
                      sqlite3_mprintf("DELETE FROM filter_range_table WHERE sess_id = %llu AND "
                                      "filter_type = %d AND filter_desc = %llu;",
                                      ull(sess_id), FILTER_FILE_SIZE_SELECTIVE_SYNC, ull(size)));
}

int FilterDB::updateSizeFilter(uint64_t sess_id, uint64_t orig_size, uint64_t new_size) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked("updateSizeFilter",
                      sqlite3_mprintf("UPDATE filter_range_table SET filter_desc = %llu WHERE "
                                      "sess_id = %llu AND filter_type = %d AND filter_desc = %llu",
                                      ull(new_size), ull(sess_id), FILTER_FILE_SIZE_SELECTIVE_SYNC,
                                      ull(orig_size)));
}

int FilterDB::getSizeFilter(uint64_t sess_id, FilterInfo& finfo) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    bool found = false;
    FilterInfo row_info;
    int rc = queryLocked("getSizeFilter",
                         sqlite3_mprintf("SELECT filter_desc, sync_id FROM filter_range_table "
                                         "WHERE sess_id = %llu AND filter_type = %d;",
                                         ull(sess_id), FILTER_FILE_SIZE_SELECTIVE_SYNC),
                         [&](sqlite3_stmt* st) {
                             if (found) return;
                             found = true;
                             row_info.filter_desc = column_text(st, 0);
                             row_info.sync_id = column_u64(st, 1);
                         });
    if (rc == 0 && found) finfo = row_info;
    return rc;
}

int FilterDB::setResumeCondition(const ResumeCondition& r_info, uint64_t& row_id) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    int rc = execLocked("setResumeCondition",
                        sqlite3_mprintf("INSERT INTO filter_resume_table (sess_id, sync_id, "
                                        "filter_type, filter_desc) VALUES (%llu, %llu, %d, %Q);",
                                        ull(r_info.sess_id), ull(r_info.sync_id),
                                        r_info.filter_type, r_info.filter_desc.c_str_utf8()));
    if (rc == 0) row_id = static_cast<uint64_t>(sqlite3_last_insert_rowid(m_db));
    return rc;
}

int FilterDB::getResumeCondition(uint64_t& row_id, ResumeCondition& r_info) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    uint64_t id = 0;
    ResumeCondition cond;
    int rc = queryLocked("getResumeCondition",
                         sqlite3_mprintf("SELECT id, sess_id, sync_id, filter_type, filter_desc "
                                         "FROM filter_resume_table LIMIT 1;"),
                         [&](sqlite3_stmt* st) {
                             id = column_u64(st, 0);
                             cond.sess_id = column_u64(st, 1);
                             cond.sync_id = column_u64(st, 2);
                             cond.filter_type = sqlite3_column_int(st, 3);
                             cond.filter_desc = column_text(st, 4);
                         });
    if (rc != 0) return rc;
    row_id = id;
    if (id != 0) r_info = cond;
    return 0;
}

int FilterDB::getResumeConditionsBySession(
    uint64_t sess_id, std::list<std::pair<uint64_t, ResumeCondition>>& resume_list) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    std::list<std::pair<uint64_t, ResumeCondition>> found;
    int rc = queryLocked("getResumeConditionsBySession",
                         sqlite3_mprintf("SELECT id, sync_id, filter_type, filter_desc FROM "
                                         "filter_resume_table WHERE sess_id = %llu;",
                                         ull(sess_id)),
                         [&](sqlite3_stmt* st) {
                             ResumeCondition cond;
                             cond.sess_id = sess_id;
                             cond.sync_id = column_u64(st, 1);
                             cond.filter_type = sqlite3_column_int(st, 2);
                             cond.filter_desc = column_text(st, 3);
                             found.emplace_back(column_u64(st, 0), cond);
                         });
    if (rc == 0) resume_list.splice(resume_list.end(), found);
    return rc;
}

int FilterDB::rmResumeCondition(uint64_t row_id) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "rmResumeCondition",
        sqlite3_mprintf("DELETE FROM filter_resume_table WHERE id = %llu;", ull(row_id)));
}

int FilterDB::updateResumeSyncId(uint64_t row_id, uint64_t sync_id) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "updateResumeSyncId",
        sqlite3_mprintf("UPDATE filter_resume_table SET sync_id = %llu WHERE id = %llu;",
                        ull(sync_id), ull(row_id)));
}

int FilterDB::setLocalFilteredEvent(const FilterLocalEvent& e) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "setLocalFilteredEvent",
        sqlite3_mprintf(
            "INSERT OR REPLACE INTO filtered_local_event_table  (sess_id, file_type, is_exist, "
            "sync_id, path, file_size, file_mod_time, file_checksum, base_name, win_hash, "
            "mac_hash, linux_hash, zeph_hash, inode, filtered_type) VALUES (%llu, %d, %d, %llu, "
            "%Q, %llu, %lu, %Q, %Q, %Q, %Q, %Q, %Q, %llu, %d)",
            ull(e.sess_id), e.file_type, e.is_exist, ull(e.sync_id), e.path.c_str_utf8(),
            ull(e.file_size), static_cast<unsigned long>(e.file_mod_time),
            e.file_checksum.c_str_utf8(), e.base_name.c_str_utf8(), e.win_hash.c_str_utf8(),
            e.mac_hash.c_str_utf8(), e.linux_hash.c_str_utf8(), e.zeph_hash.c_str_utf8(),
            ull(e.inode), e.filtered_type));
}

namespace {
// Columns from file_type on, in the order both filtered-event queries select them.
void read_filtered_event(sqlite3_stmt* st, int first, FilterLocalEvent& ev) {
    ev.file_type = sqlite3_column_int(st, first);
    ev.sync_id = column_u64(st, first + 1);
    ev.file_size = column_u64(st, first + 2);
    ev.file_mod_time = static_cast<uint32_t>(sqlite3_column_int64(st, first + 3));
    ev.file_checksum = column_text(st, first + 4);
    ev.base_name = column_text(st, first + 5);
    ev.win_hash = column_text(st, first + 6);
    ev.mac_hash = column_text(st, first + 7);
    ev.linux_hash = column_text(st, first + 8);
    ev.zeph_hash = column_text(st, first + 9);
    ev.inode = column_u64(st, first + 10);
    ev.filtered_type = sqlite3_column_int(st, first + 11);
    ev.is_exist = sqlite3_column_int(st, first + 12);
}
}  // namespace

int FilterDB::getLocalFilteredEventByPath(uint64_t sess_id, const ustring& path,
                                          FilterLocalEvent& ev) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    FilterLocalEvent found;
    int rc = queryLocked(
        "getLocalFilteredEventByPath",
        sqlite3_mprintf("SELECT file_type, sync_id, file_size, file_mod_time, file_checksum, "
                        "base_name, win_hash, mac_hash, linux_hash, zeph_hash, inode, "
                        "filtered_type, is_exist FROM filtered_local_event_table WHERE sess_id = "
                        "%llu AND path = %Q;",
                        ull(sess_id), path.c_str_utf8()),
        [&](sqlite3_stmt* st) {
            read_filtered_event(st, 0, found);
            found.path = path;
            found.sess_id = sess_id;
        });
    if (rc == 0) ev = found;
    return rc;
}

int FilterDB::dumpLocalFilteredEvent(uint64_t sess_id, std::set<FilterLocalEvent>& db_set) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    std::set<FilterLocalEvent> found;
    int rc = queryLocked(
        "dumpLocalFilteredEvent",
        sqlite3_mprintf("SELECT path, file_type, sync_id, file_size, file_mod_time, "
                        "file_checksum, base_name, win_hash, mac_hash, linux_hash, zeph_hash, "
                        "inode, filtered_type, is_exist FROM filtered_local_event_table WHERE "
                        "sess_id = %llu;",
                        ull(sess_id)),
        [&](sqlite3_stmt* st) {
            FilterLocalEvent ev;
            ev.path = column_text(st, 0);
            ev.sess_id = sess_id;
            read_filtered_event(st, 1, ev);
            found.insert(ev);
        });
    if (rc == 0) db_set.merge(found);
    return rc;
}

int FilterDB::rmLocalFilteredEventByPath(uint64_t sess_id, const ustring& path) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    // The subtree half is a GLOB pattern: the path's own '*', '?' and '[' must not act as
    // wildcards there, or rows of unrelated paths would go with it.
    const std::string below = GlobLiteral(path.str());
    return execLocked("rmLocalFilteredEventByPath",
                      sqlite3_mprintf("DELETE FROM filtered_local_event_table WHERE sess_id = "
                                      "%llu AND (path = %Q OR path GLOB '%q/*');",
                                      ull(sess_id), path.c_str_utf8(), below.c_str()));
}

int FilterDB::cleanLocalFilteredEventBySession(uint64_t sess_id) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "cleanLocalFilteredEventBySession",
        sqlite3_mprintf("DELETE FROM filtered_local_event_table WHERE sess_id = %llu;",
                        ull(sess_id)));
}

int FilterDB::ConvertFilterDBToSelectiveSyncInfo(uint64_t sess_id, SelectiveSyncInfo& ss_info) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    SelectiveSyncInfo found = ss_info;
    int rc = queryLocked(
        "ConvertFilterDBToSelectiveSyncInfo",
        sqlite3_mprintf("SELECT filter_type, sync_id, filter_desc FROM filter_table WHERE sess_id "
                        "= %llu  UNION ALL SELECT filter_type, sync_id, filter_desc FROM "
                        "filter_range_table WHERE sess_id = %llu;",
                        ull(sess_id), ull(sess_id)),
        [&](sqlite3_stmt* st) {
            sqlite3_int64 type = sqlite3_column_int64(st, 0);
            FilterInfo info{column_u64(st, 1), column_text(st, 2)};
            switch (type) {
                case FILTER_NAME_SELECTIVE_SYNC:
                    found.black_name.insert(info);
                    break;
                case FILTER_PATH_PREFIX_SELECTIVE_SYNC:
                    found.black_prefix.insert(info);
                    break;
                case FILTER_EXT_SELECTIVE_SYNC:
                    found.black_ext.insert(info);
                    break;
                case FILTER_FILE_SIZE_SELECTIVE_SYNC:
                    found.black_size = info;
                    break;
                default:
                    Logger::LogMsg(Logger::L_ERR, kLog,
                                   "[ERROR] filter-db(%d): Unknow filter_type: %llu\n", __LINE__,
                                   ull(type));
            }
        });
    if (rc == 0) ss_info = std::move(found);
    return rc;
}

int FilterDB::checkEventOverflow(int& overflow) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    bool found = false;
    int value = 0;
    int rc = queryLocked("checkEventOverflow",
                         sqlite3_mprintf("SELECT value FROM config_table WHERE key = "
                                         "'event_overflow';"),
                         [&](sqlite3_stmt* st) {
                             found = true;
                             value = sqlite3_column_int(st, 0);
                         });
    if (rc == 0) overflow = found ? value : E_OVERFLOW;
    return rc;
}
