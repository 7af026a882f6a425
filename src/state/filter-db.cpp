// filter-db.cpp: the filter database's statements over its one connection.
#include "state/filter-db.h"

#include "foundation/log.h"
#include "state/filter-db-schema.h"
#include "state/sql-escape.h"

namespace {

constexpr const char kLog[] = "filter_db_debug";

using ull = unsigned long long;

}  // namespace

FilterDB& FilterDB::getInstance() {
    static FilterDB instance;
    return instance;
}

FilterDB::~FilterDB() = default;

int FilterDB::initialize(const ustring& filter_db_path) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    if (m_db.isOpen()) {
        Logger::LogMsg(Logger::L_INFO, kLog,
                       "[INFO] filter-db(%d): FilterDB has been initialized (no-op)\n", __LINE__);
        return 0;
    }
    if (m_db.Open(filter_db_path.c_str_utf8()) < 0) {
        Logger::LogMsg(
            Logger::L_ERR, kLog,
            "[ERROR] filter-db(%d): FilterDB: Failed to open database at '%s'. [%d] %s\n", __LINE__,
            filter_db_path.c_str_utf8(), m_db.failure().rc, m_db.failure().message.c_str());
        return -1;
    }
    // Before the schema, so that a checkpoint of another process is waited for there too.
    m_db.SetBusyTimeout(300000);
    if (m_db.Exec(kFilterDBSchema) < 0) {
        // A file that isn't a database (or is damaged) is refused and left alone: it may be
        // something of the user's at a mistaken path.
        const char* why = m_db.failure().message.c_str();
        Logger::LogMsg(
            Logger::L_ERR, kLog,
            "[ERROR] filter-db(%d): FilterDB: Failed to initialize database at '%s'. [%d] %s\n",
            __LINE__, filter_db_path.c_str_utf8(), m_db.failure().rc, why);
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] filter-db(%d): FilterDB init fail %s\n",
                       __LINE__, why);
        m_db.Close();
        return -1;
    }
    m_filter_db_path = filter_db_path;
    Logger::LogMsg(Logger::L_INFO, kLog,
                   "[INFO] filter-db(%d): FilterDB has been initialized with location '%s'\n",
                   __LINE__, filter_db_path.c_str_utf8());
    return 0;
}

int FilterDB::destroy() {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    if (!m_db.isOpen()) {
        Logger::LogMsg(Logger::L_INFO, kLog,
                       "[INFO] filter-db(%d): FilterDB has been deinitialzed (no-op)\n", __LINE__);
        return 0;
    }
    m_db.Close();
    Logger::LogMsg(Logger::L_INFO, kLog, "[INFO] filter-db(%d): FilterDB has been deinitialzed\n",
                   __LINE__);
    return 0;
}

bool FilterDB::readyLocked(const char* op, const sqlite::Text& sql) {
    if (!sql) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] filter-db(%d): FilterDB: Failed to sqlite3_mprintf.\n", __LINE__);
        return false;
    }
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] filter-db(%d): %s sql : %s\n", __LINE__, op,
                   sql.get());
    return true;
}

void FilterDB::logFailureLocked(const char* op, bool with_call) {
    const sqlite::Failure& failure = m_db.failure();
    if (with_call) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] filter-db(%d): %s: %s (%d)\n", __LINE__,
                       failure.call, failure.message.c_str(), failure.rc);
    }
    Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] filter-db(%d): FilterDB %s fail: %s (%d).\n",
                   __LINE__, op, failure.message.c_str(), failure.rc);
}

int FilterDB::execLocked(const char* op, const sqlite::Text& sql) {
    if (!readyLocked(op, sql)) return -1;
    if (m_db.Exec(sql.get()) == 0) return 0;
    logFailureLocked(op, false);
    return -1;
}

template <typename Row>
int FilterDB::queryLocked(const char* op, const sqlite::Text& sql, Row row) {
    if (!readyLocked(op, sql)) return -1;
    if (m_db.Query(sql.get(), row) == 0) return 0;
    // A connection that isn't open fails before any SQLite call worth naming.
    logFailureLocked(op, m_db.isOpen());
    return -1;
}

int FilterDB::setConfigItem(const ustring& key, const ustring& value) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "setConfigItem",
        sqlite::Text::Format("INSERT OR REPLACE INTO config_table  (key, value) VALUES(%Q, %Q);",
                             key.c_str_utf8(), value.c_str_utf8()));
}

int FilterDB::setFilter(uint64_t sess_id, uint64_t sync_id, int filter_type,
                        const ustring& filter_desc) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "setFilter",
        sqlite::Text::Format("INSERT INTO filter_table  (sess_id, sync_id, filter_type, "
                             "filter_desc) VALUES (%llu, %llu, %d, %Q)",
                             ull(sess_id), ull(sync_id), filter_type, filter_desc.c_str_utf8()));
}

int FilterDB::rmFilter(uint64_t sess_id, int filter_type, const ustring& filter_desc) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked("rmFilter",
                      sqlite::Text::Format("DELETE FROM filter_table WHERE (sess_id = %llu AND "
                                           "filter_type = %d AND filter_desc = %Q)",
                                           ull(sess_id), filter_type, filter_desc.c_str_utf8()));
}

int FilterDB::setSizeFilter(uint64_t sess_id, uint64_t sync_id, uint64_t size) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked("setSizeFilter",
                      sqlite::Text::Format(
                          "INSERT INTO filter_range_table  (sess_id, sync_id, "
                          "filter_type, filter_desc) VALUES (%llu, %llu, %d, %llu)",
                          ull(sess_id), ull(sync_id), FILTER_FILE_SIZE_SELECTIVE_SYNC, ull(size)));
}

int FilterDB::rmSizeFilter(uint64_t sess_id, uint64_t size) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "rmSizeFilter",
        sqlite::Text::Format("DELETE FROM filter_range_table WHERE sess_id = %llu AND "
                             "filter_type = %d AND filter_desc = %llu;",
                             ull(sess_id), FILTER_FILE_SIZE_SELECTIVE_SYNC, ull(size)));
}

int FilterDB::updateSizeFilter(uint64_t sess_id, uint64_t orig_size, uint64_t new_size) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "updateSizeFilter",
        sqlite::Text::Format("UPDATE filter_range_table SET filter_desc = %llu WHERE "
                             "sess_id = %llu AND filter_type = %d AND filter_desc = %llu",
                             ull(new_size), ull(sess_id), FILTER_FILE_SIZE_SELECTIVE_SYNC,
                             ull(orig_size)));
}

int FilterDB::getSizeFilter(uint64_t sess_id, FilterInfo& finfo) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    bool found = false;
    FilterInfo row_info;
    int rc = queryLocked("getSizeFilter",
                         sqlite::Text::Format("SELECT filter_desc, sync_id FROM filter_range_table "
                                              "WHERE sess_id = %llu AND filter_type = %d;",
                                              ull(sess_id), FILTER_FILE_SIZE_SELECTIVE_SYNC),
                         [&](const sqlite::Statement& st) {
                             if (found) return;
                             found = true;
                             row_info.filter_desc = st.Chars(0);
                             row_info.sync_id = st.UInt64(1);
                         });
    if (rc == 0 && found) finfo = row_info;
    return rc;
}

int FilterDB::setResumeCondition(const ResumeCondition& r_info, uint64_t& row_id) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    int rc =
        execLocked("setResumeCondition",
                   sqlite::Text::Format("INSERT INTO filter_resume_table (sess_id, sync_id, "
                                        "filter_type, filter_desc) VALUES (%llu, %llu, %d, %Q);",
                                        ull(r_info.sess_id), ull(r_info.sync_id),
                                        r_info.filter_type, r_info.filter_desc.c_str_utf8()));
    if (rc == 0) row_id = static_cast<uint64_t>(m_db.LastInsertRowId());
    return rc;
}

int FilterDB::getResumeCondition(uint64_t& row_id, ResumeCondition& r_info) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    uint64_t id = 0;
    ResumeCondition cond;
    int rc =
        queryLocked("getResumeCondition",
                    sqlite::Text::Format("SELECT id, sess_id, sync_id, filter_type, filter_desc "
                                         "FROM filter_resume_table LIMIT 1;"),
                    [&](const sqlite::Statement& st) {
                        id = st.UInt64(0);
                        cond.sess_id = st.UInt64(1);
                        cond.sync_id = st.UInt64(2);
                        cond.filter_type = st.Int(3);
                        cond.filter_desc = st.Chars(4);
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
                         sqlite::Text::Format("SELECT id, sync_id, filter_type, filter_desc FROM "
                                              "filter_resume_table WHERE sess_id = %llu;",
                                              ull(sess_id)),
                         [&](const sqlite::Statement& st) {
                             ResumeCondition cond;
                             cond.sess_id = sess_id;
                             cond.sync_id = st.UInt64(1);
                             cond.filter_type = st.Int(2);
                             cond.filter_desc = st.Chars(3);
                             found.emplace_back(st.UInt64(0), cond);
                         });
    if (rc == 0) resume_list.splice(resume_list.end(), found);
    return rc;
}

int FilterDB::rmResumeCondition(uint64_t row_id) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "rmResumeCondition",
        sqlite::Text::Format("DELETE FROM filter_resume_table WHERE id = %llu;", ull(row_id)));
}

int FilterDB::updateResumeSyncId(uint64_t row_id, uint64_t sync_id) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "updateResumeSyncId",
        sqlite::Text::Format("UPDATE filter_resume_table SET sync_id = %llu WHERE id = %llu;",
                             ull(sync_id), ull(row_id)));
}

int FilterDB::setLocalFilteredEvent(const FilterLocalEvent& e) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "setLocalFilteredEvent",
        sqlite::Text::Format(
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
void read_filtered_event(const sqlite::Statement& st, int first, FilterLocalEvent& ev) {
    ev.file_type = st.Int(first);
    ev.sync_id = st.UInt64(first + 1);
    ev.file_size = st.UInt64(first + 2);
    ev.file_mod_time = static_cast<uint32_t>(st.Int64(first + 3));
    ev.file_checksum = st.Chars(first + 4);
    ev.base_name = st.Chars(first + 5);
    ev.win_hash = st.Chars(first + 6);
    ev.mac_hash = st.Chars(first + 7);
    ev.linux_hash = st.Chars(first + 8);
    ev.zeph_hash = st.Chars(first + 9);
    ev.inode = st.UInt64(first + 10);
    ev.filtered_type = st.Int(first + 11);
    ev.is_exist = st.Int(first + 12);
}
}  // namespace

int FilterDB::getLocalFilteredEventByPath(uint64_t sess_id, const ustring& path,
                                          FilterLocalEvent& ev) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    FilterLocalEvent found;
    int rc =
        queryLocked("getLocalFilteredEventByPath",
                    sqlite::Text::Format(
                        "SELECT file_type, sync_id, file_size, file_mod_time, file_checksum, "
                        "base_name, win_hash, mac_hash, linux_hash, zeph_hash, inode, "
                        "filtered_type, is_exist FROM filtered_local_event_table WHERE sess_id = "
                        "%llu AND path = %Q;",
                        ull(sess_id), path.c_str_utf8()),
                    [&](const sqlite::Statement& st) {
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
        sqlite::Text::Format("SELECT path, file_type, sync_id, file_size, file_mod_time, "
                             "file_checksum, base_name, win_hash, mac_hash, linux_hash, zeph_hash, "
                             "inode, filtered_type, is_exist FROM filtered_local_event_table WHERE "
                             "sess_id = %llu;",
                             ull(sess_id)),
        [&](const sqlite::Statement& st) {
            FilterLocalEvent ev;
            ev.path = st.Chars(0);
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
                      sqlite::Text::Format("DELETE FROM filtered_local_event_table WHERE sess_id = "
                                           "%llu AND (path = %Q OR path GLOB '%q/*');",
                                           ull(sess_id), path.c_str_utf8(), below.c_str()));
}

int FilterDB::cleanLocalFilteredEventBySession(uint64_t sess_id) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    return execLocked(
        "cleanLocalFilteredEventBySession",
        sqlite::Text::Format("DELETE FROM filtered_local_event_table WHERE sess_id = %llu;",
                             ull(sess_id)));
}

int FilterDB::ConvertFilterDBToSelectiveSyncInfo(uint64_t sess_id, SelectiveSyncInfo& ss_info) {
    std::lock_guard<std::mutex> guard(m_db_mutex);
    SelectiveSyncInfo found = ss_info;
    int rc =
        queryLocked("ConvertFilterDBToSelectiveSyncInfo",
                    sqlite::Text::Format(
                        "SELECT filter_type, sync_id, filter_desc FROM filter_table WHERE sess_id "
                        "= %llu  UNION ALL SELECT filter_type, sync_id, filter_desc FROM "
                        "filter_range_table WHERE sess_id = %llu;",
                        ull(sess_id), ull(sess_id)),
                    [&](const sqlite::Statement& st) {
                        sqlite3_int64 type = st.Int64(0);
                        FilterInfo info{st.UInt64(1), st.Chars(2)};
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
                                               "[ERROR] filter-db(%d): Unknow filter_type: %llu\n",
                                               __LINE__, ull(type));
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
                         sqlite::Text::Format("SELECT value FROM config_table WHERE key = "
                                              "'event_overflow';"),
                         [&](const sqlite::Statement& st) {
                             found = true;
                             value = st.Int(0);
                         });
    if (rc == 0) overflow = found ? value : E_OVERFLOW;
    return rc;
}
