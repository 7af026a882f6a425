// filter-db.h: the process-wide filter database: the selective-sync rules each session
// last applied (so that a changed filter file can be compared with them), the loosened
// rules whose items must still be fetched (resume conditions), and local changes a
// filter held back. Used by the session commands, the filter reload, the puller of
// resume conditions and the workers.
//
// One SQLite connection, opened by initialize and serialised by m_db_mutex: any thread
// may call any operation. Operations give 0 or -1 unless said otherwise; a failure is
// logged with the operation's name and leaves the database open. A file that isn't a
// database is refused by initialize and left as it is.
#pragma once

#include <cstdint>
#include <list>
#include <mutex>
#include <set>
#include <utility>

#include "foundation/ustring.h"
#include "state/selective-sync.h"
#include "state/sqlite-db.h"

enum EVENT_OVERFLOW_STAT {
    E_NOT_OVERFLOW = 0,
    E_OVERFLOW = 1,
};

class FilterDB {
  public:
    // The process's instance. Tests may make their own.
    static FilterDB& getInstance();
    FilterDB() = default;
    ~FilterDB();
    FilterDB(const FilterDB&) = delete;
    FilterDB& operator=(const FilterDB&) = delete;

    // Opens (creating if need be) the database at `filter_db_path` and sets up its tables,
    // in WAL mode with synchronous NORMAL. 0, also when already open (nothing changes);
    // -1 when it can't be opened or isn't a database, with the connection closed.
    int initialize(const ustring& filter_db_path);
    // Closes the connection; later operations fail until initialize. 0.
    int destroy();

    // config_table: sets `key` to `value`.
    int setConfigItem(const ustring& key, const ustring& value);

    // filter_table: a folder, name or extension rule. Storing a rule that is there already
    // (same session, type and text) keeps the first row and succeeds.
    int setFilter(uint64_t sess_id, uint64_t sync_id, int filter_type, const ustring& filter_desc);
    int rmFilter(uint64_t sess_id, int filter_type, const ustring& filter_desc);

    // filter_range_table: the size rule, kept as its limit in bytes.
    int setSizeFilter(uint64_t sess_id, uint64_t sync_id, uint64_t size);
    int rmSizeFilter(uint64_t sess_id, uint64_t size);
    int updateSizeFilter(uint64_t sess_id, uint64_t orig_size, uint64_t new_size);
    // Fills finfo with the session's size rule; without one finfo is left as it was. 0, -1.
    int getSizeFilter(uint64_t sess_id, FilterInfo& finfo);

    // filter_resume_table. setResumeCondition gives the new row's id (1 or more) in row_id.
    int setResumeCondition(const ResumeCondition& r_info, uint64_t& row_id);
    // Any one condition, in no order; row_id 0 (and r_info untouched) when there is none.
    int getResumeCondition(uint64_t& row_id, ResumeCondition& r_info);
    // Appends the session's conditions as (row id, condition) pairs.
    int getResumeConditionsBySession(uint64_t sess_id,
                                     std::list<std::pair<uint64_t, ResumeCondition>>& resume_list);
    int rmResumeCondition(uint64_t row_id);
    int updateResumeSyncId(uint64_t row_id, uint64_t sync_id);

    // filtered_local_event_table: one row per (session, path); a second set replaces it.
    int setLocalFilteredEvent(const FilterLocalEvent& e);
    // Fills ev (with path and sess_id) when found; otherwise ev is left empty (empty path).
    // 0 either way, -1 on failure.
    int getLocalFilteredEventByPath(uint64_t sess_id, const ustring& path, FilterLocalEvent& ev);
    // Adds the session's rows to db_set.
    int dumpLocalFilteredEvent(uint64_t sess_id, std::set<FilterLocalEvent>& db_set);
    // Removes `path` and every row below it ("path/..."); characters of `path` are
    // matched literally.
    int rmLocalFilteredEventByPath(uint64_t sess_id, const ustring& path);
    int cleanLocalFilteredEventBySession(uint64_t sess_id);

    // Adds the session's stored rules to ss_info by kind; a row of an unknown type is
    // logged and skipped.
    int ConvertFilterDBToSelectiveSyncInfo(uint64_t sess_id, SelectiveSyncInfo& ss_info);

    // The "event_overflow" setting as an integer; E_OVERFLOW when it was never set.
    int checkEventOverflow(int& overflow);

  private:
    // Logs a statement, or the failure to format it (false).
    bool readyLocked(const char* op, const sqlite::Text& sql);
    // Logs the connection's last failure under the operation's name; `with_call` adds a
    // line naming the SQLite call that failed.
    void logFailureLocked(const char* op, bool with_call);
    // Runs a formatted statement. Caller holds m_db_mutex. 0; -1.
    int execLocked(const char* op, const sqlite::Text& sql);
    // Runs a formatted query, calling `row` with the statement for each row. 0; -1.
    template <typename Row>
    int queryLocked(const char* op, const sqlite::Text& sql, Row row);

    ustring m_filter_db_path;
    std::mutex m_db_mutex;
    sqlite::Database m_db;
};
