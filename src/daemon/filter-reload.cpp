// filter-reload.cpp: the comparison of a filter file's selective-sync rules with the
// filter database, and what each difference does.
#include "daemon/filter-reload.h"

#include <cstdlib>
#include <string>

#include "daemon/app-log.h"
#include "foundation/file-op.h"
#include "foundation/log.h"
#include "platform/fs.h"
#include "pulling/progress-cache.h"
#include "state/file-event-db.h"
#include "state/filter-db.h"

namespace {

using ull = unsigned long long;

const char* Text(const ustring& s) {
    return s.c_str_utf8();
}

// The file is as the last agreement with the server left it: taking it off the disk
// loses nothing the server doesn't hold.
bool IsAgreed(FileEventDB* event_db, const ustring& rel, const DIR_ENTRY& entry) {
    ClientFileEventInfo row;
    return event_db != nullptr && event_db->getEventInfo(rel, row) == 1 && row.IsFile() &&
           row.isExist != 0 && row.fileSize == entry.size &&
           FSTimeEqual(row.fileModTime, entry.mtime);
}

// Forgets the path, then takes it off the disk. The row goes first: the detector reports
// the removal as a local change, and a path the database doesn't know is never removed on
// the server, however late that report is carried out (after the rule is dropped again,
// say). When the rule goes, the path is fetched as new. `remove` gives 0 on success.
template <typename Remove>
bool ForgetAndRemove(FileEventDB* event_db, const ustring& rel, Remove remove) {
    return event_db->rmEventInfo(rel) == 0 && remove() == 0;
}

// Takes off the disk what lies in the folder `rel` (below `root`) as the last agreement
// left it, then the folder when nothing else is left in it. True when the folder went.
bool RemoveAgreed(const ustring& root, const ustring& rel, FileEventDB* event_db) {
    const ustring dir = root + rel;
    DIR_HANDLE dh;
    FSOpenDir(dir, 1, dh);
    DIR_ENTRY entry;
    bool keep = false;
    int rc;
    while ((rc = FSReadDir(dh, entry)) == 1) {
        if (entry.name == ustring(".") || entry.name == ustring("..")) continue;
        const ustring child = rel + "/" + entry.name;
        if (entry.type == FT_DIR)
            keep = !RemoveAgreed(root, child, event_db) || keep;
        else if (entry.type == FT_FILE && IsAgreed(event_db, child, entry))
            keep =
                !ForgetAndRemove(event_db, child, [&] { return FSRemove(root + child); }) || keep;
        else
            keep = true;
    }
    FSCloseDir(dh);
    if (rc < 0 || keep || event_db == nullptr) return false;
    // Never a tree removal: a file that arrived during the walk must stay.
    return ForgetAndRemove(event_db, rel, [&] {
        int err = 0;
        return platform::file_system().remove_dir(Text(dir), &err);
    });
}

void RemoveHiddenFolder(uint64_t sess_id, const ustring& sync_folder, const ustring& prefix,
                        FileEventDB* event_db) {
    Logger::LogMsg(Logger::L_INFO, kAppLog, "[INFO] filter-utils(%d): Remove dir (%llu)[%s].\n",
                   __LINE__, static_cast<ull>(sess_id), Text(prefix));
    FILE_INFO info;
    const ustring path = sync_folder + prefix;
    if (FSStat(path, info) != 0 || !info.isExist) return;
    if (info.type != FT_DIR || !RemoveAgreed(sync_folder, prefix, event_db))
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] filter-utils(%d): Failed to remove path '%s'\n", __LINE__,
                       Text(path));
}

// Stores a resume condition and queues it. 0; -1 when the database refused it.
int AddResumeCondition(const ResumeCondition& condition) {
    uint64_t row_id = 0;
    if (FilterDB::getInstance().setResumeCondition(condition, row_id) < 0) return -1;
    ProgressCache::getInstance().addProgressEntry(row_id, condition);
    return 0;
}

int RuleRemoved(uint64_t sess_id, int filter_type, const FilterInfo& rule) {
    const ResumeCondition condition{sess_id, rule.sync_id, filter_type, rule.filter_desc};
    if (AddResumeCondition(condition) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] filter-utils(%d): Failed to setResumeCondition (%llu)[%s].\n",
                       __LINE__, static_cast<ull>(sess_id), Text(rule.filter_desc));
        return -1;
    }
    if (FilterDB::getInstance().rmFilter(sess_id, filter_type, rule.filter_desc) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] filter-utils(%d): Failed to rmFilter (%llu)[%s].\n", __LINE__,
                       static_cast<ull>(sess_id), Text(rule.filter_desc));
        return -1;
    }
    Logger::LogMsg(Logger::L_INFO, kAppLog, "[INFO] filter-utils(%d): RESUME filter: (%llu)[%s].\n",
                   __LINE__, static_cast<ull>(sess_id), Text(rule.filter_desc));
    return 0;
}

int RuleAdded(uint64_t sess_id, int filter_type, const FilterInfo& rule, const ustring& sync_folder,
              FileEventDB* event_db) {
    const bool folder = filter_type == FILTER_PATH_PREFIX_SELECTIVE_SYNC;
    // A folder rule starts from nothing: when it goes, the folder's whole present state is
    // fetched. A name or extension rule only hid what changed after it came.
    const uint64_t sync_id = folder ? 0 : static_cast<uint64_t>(static_cast<int32_t>(rule.sync_id));
    if (FilterDB::getInstance().setFilter(sess_id, sync_id, filter_type, rule.filter_desc) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] filter-utils(%d): Failed to setFilter (%llu)[%s].\n", __LINE__,
                       static_cast<ull>(sess_id), Text(rule.filter_desc));
        return -1;
    }
    if (folder) RemoveHiddenFolder(sess_id, sync_folder, rule.filter_desc, event_db);
    Logger::LogMsg(Logger::L_INFO, kAppLog, "[INFO] filter-utils(%d): NEW filter: (%llu)[%s].\n",
                   __LINE__, static_cast<ull>(sess_id), Text(rule.filter_desc));
    return 0;
}

uint64_t SizeOf(const FilterInfo& info) {
    return std::strtoull(info.filter_desc.str().c_str(), nullptr, 10);
}

}  // namespace

int CompareFilterList(uint64_t sess_id, int filter_type, const std::set<FilterInfo>& db_set,
                      const std::set<FilterInfo>& file_set, const ustring& sync_folder,
                      FileEventDB* event_db) {
    auto db = db_set.begin();
    auto file = file_set.begin();
    while (db != db_set.end() && file != file_set.end()) {
        if (db->filter_desc == file->filter_desc) {
            Logger::LogMsg(Logger::L_INFO, kAppLog,
                           "[INFO] filter-utils(%d): filter: (%llu)[%s] didn't change, "
                           "skipping...\n",
                           __LINE__, static_cast<ull>(sess_id), Text(db->filter_desc));
            ++db;
            ++file;
        } else if (db->filter_desc < file->filter_desc) {
            if (RuleRemoved(sess_id, filter_type, *db++) < 0) return -1;
        } else if (RuleAdded(sess_id, filter_type, *file++, sync_folder, event_db) < 0) {
            return -1;
        }
    }
    for (; db != db_set.end(); ++db)
        if (RuleRemoved(sess_id, filter_type, *db) < 0) return -1;
    for (; file != file_set.end(); ++file)
        if (RuleAdded(sess_id, filter_type, *file, sync_folder, event_db) < 0) return -1;
    return 0;
}

int CompareSizeFilter(uint64_t sess_id, const FilterInfo& db_finfo, const FilterInfo& file_finfo) {
    FilterDB& filters = FilterDB::getInstance();
    const uint64_t d = SizeOf(db_finfo);
    const uint64_t f = SizeOf(file_finfo);
    const ull sess = sess_id;
    if (d == 0 && db_finfo.sync_id == 0) {
        if (f != 0 && filters.setSizeFilter(sess_id, file_finfo.sync_id, f) < 0) {
            Logger::LogMsg(Logger::L_ERR, kAppLog,
                           "[ERROR] filter-utils(%d): Failed to setSizeFilter (%llu)[%llu]\n",
                           __LINE__, sess, static_cast<ull>(f));
            return -1;
        }
        Logger::LogMsg(Logger::L_INFO, kAppLog, "[INFO] filter-utils(%d): NEW filter (%llu)[%s]\n",
                       __LINE__, sess, Text(file_finfo.filter_desc));
        return 0;
    }
    // "No limit" is stored as the largest limit, so it must read as unchanged against it.
    if (d == f || (f == 0 && d == kUnlimitedResumeSize)) {
        Logger::LogMsg(Logger::L_INFO, kAppLog,
                       "[INFO] filter-utils(%d): size filter (%llu)[%s] didn't change, "
                       "skipping...\n",
                       __LINE__, sess, Text(file_finfo.filter_desc));
        return 0;
    }
    if (f != 0 && f < d) {
        if (filters.updateSizeFilter(sess_id, d, f) < 0) {
            Logger::LogMsg(Logger::L_ERR, kAppLog,
                           "[ERROR] filter-utils(%d): Failed to updateSizeFilter (%llu)[%s]\n",
                           __LINE__, sess, Text(file_finfo.filter_desc));
            return -1;
        }
        Logger::LogMsg(Logger::L_INFO, kAppLog,
                       "[INFO] filter-utils(%d): size filter is more stringent, just update DB "
                       "(%llu)from %llu to %llu. \n",
                       __LINE__, sess, static_cast<ull>(d), static_cast<ull>(f));
        return 0;
    }
    const uint64_t upper = f == 0 ? kUnlimitedResumeSize : f;
    ResumeCondition condition{sess_id, db_finfo.sync_id, FILTER_FILE_SIZE_SELECTIVE_SYNC,
                              ustring()};
    EncodeResumeSizeFilterDesc(d, upper, condition.filter_desc);
    if (AddResumeCondition(condition) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] filter-utils(%d): Failed to setResumeCondition (%llu)[%s]\n",
                       __LINE__, sess, Text(condition.filter_desc));
        return -1;
    }
    if (filters.updateSizeFilter(sess_id, d, upper) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] filter-utils(%d): Failed to updateSizeFilter (%llu)from [%llu] to "
                       "[%llu].\n",
                       __LINE__, sess, static_cast<ull>(d), static_cast<ull>(upper));
        return -1;
    }
    Logger::LogMsg(Logger::L_INFO, kAppLog,
                   "[INFO] filter-utils(%d): size filter is more loosely, update DB and resume "
                   "(%llu)[%s].\n",
                   __LINE__, sess, Text(condition.filter_desc));
    return 0;
}

int reload_filter(uint64_t sess_id, uint64_t sync_id, const ustring& filter_path,
                  const ustring& sync_folder, FileEventDB* event_db) {
    Filter filter;
    if (filter_init(&filter) != 0 || filter_read(&filter, Text(filter_path)) != 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog, "[ERROR] app(%d): Failed to read filter [%s]\n",
                       __LINE__, Text(filter_path));
        filter_destroy(&filter);
        return -1;
    }
    SelectiveSyncInfo file_info, db_info;
    ConvertFilterFileToSelectiveSyncInfo(sess_id, sync_id, filter, file_info);
    filter_destroy(&filter);
    if (FilterDB::getInstance().ConvertFilterDBToSelectiveSyncInfo(sess_id, db_info) < 0) return -1;
    if (CompareFilterList(sess_id, FILTER_PATH_PREFIX_SELECTIVE_SYNC, db_info.black_prefix,
                          file_info.black_prefix, sync_folder, event_db) < 0 ||
        CompareFilterList(sess_id, FILTER_NAME_SELECTIVE_SYNC, db_info.black_name,
                          file_info.black_name, sync_folder, event_db) < 0 ||
        CompareFilterList(sess_id, FILTER_EXT_SELECTIVE_SYNC, db_info.black_ext,
                          file_info.black_ext, sync_folder, event_db) < 0)
        return -1;
    return CompareSizeFilter(sess_id, db_info.black_size, file_info.black_size);
}
