// removal.cpp: removals in both directions (RemoveLocal for the server's, RemoveRemote for
// the user's), the expansion of a directory's removal into its children's, and the
// primitives that move local objects into the session's recycle bin.
#include <ctime>

#include "events/event-generator.h"
#include "events/event-manager.h"
#include "filter/black-list-v2.h"
#include "filter/filter.h"
#include "foundation/error-code.h"
#include "state/file-list.h"
#include "state/filter-db.h"
#include "transport/proto-common.h"
#include "transport/proto-format.h"
#include "worker/worker-log.h"
#include "worker/worker.h"

namespace {

const char* Text(const ustring& s) {
    return s.c_str_utf8();
}

// True while the session's own folder is there. Without it every object in it looks
// removed, which is a missing disk or folder, never the user's deletion.
bool SessionRootExists(const ustring& root) {
    FILE_INFO info;
    return FSStat(root, info) == 0 && info.isExist && info.type == FT_DIR;
}

}  // namespace

// ---- a server removal ----

int Worker::RemoveLocal() {
    const Event& e = context.current_event;
    const ustring path = GetPath();
    const int passed = TestRemoveLocalFilter();
    if (passed != 1) {
        WorkerLog(Logger::L_WARNING,
                  "[WARNING] worker(%d): RemoveLocal: File '%s' cannot pass filter testing "
                  "'%d'.\n",
                  __LINE__, Text(path), passed);
        return passed;
    }
    // The view's root is never the server's to take, and a folder that is away (an
    // unmounted disk) is asked again once it is back.
    if (path == ustring("/")) return ERR_OK;
    if (!SessionRootExists(GetLocalWatch())) return ERR_INT;
    if (ReportLocked(isFileLocked(GetFullPath(), FS_GENERIC_WRITE | FS_DELETE), GetFullPath()))
        return ERR_LOCKED_FILE;
    FILE_INFO local;
    if (GetFilesystemInfo(local) < 0) {
        WorkerLog(Logger::L_WARNING,
                  "[WARNING] worker(%d): RemoveLocal: File '%s' cannot be removed\n", __LINE__,
                  Text(path));
        return ERR_SYS;
    }
    if (!local.isExist) {
        WorkerLog(Logger::L_INFO, "[INFO] worker(%d): RemoveLocal: '%s' has already been removed\n",
                  __LINE__, Text(path));
        RemoveDatabaseInfo();
        return ERR_OK;
    }
    const ClientFileEventInfo& db = context.database_record;
    if (db.maxSyncID > e.m_max_id) {
        WorkerLog(Logger::L_WARNING,
                  "[WARNING] worker(%d): RemoveLocal: Based sync id is change, can not remove "
                  "local [%s]. db max_id = '%llu', event max_id = '%llu'\n",
                  __LINE__, Text(path), static_cast<unsigned long long>(db.maxSyncID),
                  static_cast<unsigned long long>(e.m_max_id));
        if (local.type == FT_DIR) ExpandServerDeleteEvent(path, e.m_sess_id, e.m_sync_id);
        return ERR_OK;
    }
    if (db.syncID != 0 && !LocallyModified(local, db, ustring())) {
        const int changed = local.type == FT_DIR ? ChangedBelow(GetFullPath(), path) : 0;
        if (changed < 0) return IsAborted() ? ERR_INT : ERR_SYS;
        if (changed > 0) {
            // Moving the folder whole would take a change of the user's with it: its
            // members go one by one instead, each judged on its own.
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): RemoveLocal: '%s' holds local changes, removing its "
                      "members one by one\n",
                      __LINE__, Text(path));
            return ExpandServerDeleteEvent(path, e.m_sess_id, e.m_sync_id) < 0 ? ERR_INT : ERR_OK;
        }
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): Removing local '%s'\n", __LINE__,
                  Text(path));
        if (ProcessRenameRemoveLocal(local) < 0) return ERR_SYS;
        notify_event_type = NOTIFY_SERVER_REMOVE;
        return ERR_OK;
    }
    WorkerLog(Logger::L_INFO,
              "[INFO] worker(%d): RemoveLocal: Detect local modification to '%s', resolve "
              "conflict\n",
              __LINE__, Text(path));
    if (MoveAsideConflict() < 0) return ERR_SYS;
    if (RemoveDatabaseInfo() != 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): RemoveLocal: Failed to remove database record for "
                  "'%llu:%s'\n",
                  __LINE__, static_cast<unsigned long long>(e.m_sess_id), Text(path));
        return ERR_SYS;
    }
    notify_event_type = NOTIFY_SERVER_REMOVE;
    return ERR_OK;
}

int Worker::TestRemoveLocalFilter() {
    notify_event_type = NOTIFY_NONE;
    const int blocked = TestCommonFilter();
    if (blocked == 0) return 1;
    WorkerLog(Logger::L_WARNING, "[WARNING] worker(%d): Filtered Event: '%s' (blocked: %d)\n",
              __LINE__, Text(GetPath()), blocked);
    notify_event_type = NOTIFY_FILTERED;
    return 0;
}

int Worker::ChangedBelow(const ustring& dir, const ustring& path) {
    FileEventDB* db = GetEventDatabase();
    if (db == nullptr) return -1;
    DIR_HANDLE dh;
    FSOpenDir(dir, 1, dh);
    DIR_ENTRY entry;
    int rc = 0;
    int read = 0;
    while (rc == 0 && (read = FSReadDir(dh, entry)) > 0) {
        if (entry.name == ustring(".") || entry.name == ustring("..")) continue;
        if (IsAborted()) {
            rc = -1;
            break;
        }
        // Links and special files are never synced: the bin may take them along.
        if (entry.type != FT_FILE && entry.type != FT_DIR) continue;
        const ustring child = path + "/" + entry.name;
        ClientFileEventInfo row;
        const int found = db->getEventInfo(child, row);
        if (found < 0) {
            rc = -1;
        } else if (found == 0 || row.IsDir() != (entry.type == FT_DIR)) {
            rc = 1;
        } else if (entry.type == FT_FILE) {
            rc = entry.size != row.fileSize || !FSTimeEqual(entry.mtime, row.fileModTime) ? 1 : 0;
        } else {
            rc = ChangedBelow(dir + "/" + entry.name, child);
        }
    }
    FSCloseDir(dh);
    if (rc == 1)
        WorkerLog(Logger::L_INFO, "[INFO] worker(%d): RemoveLocal: local change below '%s'\n",
                  __LINE__, Text(path));
    return read < 0 ? -1 : rc;
}

// ---- a local removal ----

int Worker::RemoveRemote() {
    const ustring path = GetPath();
    const uint64_t sess = context.current_event.m_sess_id;
    const int passed = TestRemoveRemoteFilter();
    if (passed != 1) {
        WorkerLog(Logger::L_WARNING,
                  "[WARNING] worker(%d): RemoveRemote: File '%s' cannot pass filter testing "
                  "'%d'.\n",
                  __LINE__, Text(path), passed);
        return passed;
    }
    // Objects vanish with their folder when a disk goes away; that is nothing the server
    // must repeat. The row stays, and the rescan that greets the folder's return brings
    // back whatever is still missing then.
    if (path == ustring("/") || !SessionRootExists(GetLocalWatch())) {
        WorkerLog(Logger::L_WARNING,
                  "[WARNING] worker(%d): RemoveRemote: sync folder '%s' is missing, '%s' is not "
                  "removed on the server\n",
                  __LINE__, Text(GetLocalWatch()), Text(path));
        return ERR_OK;
    }
    if (ReportLocked(isFileLocked(GetFullPath(), FS_GENERIC_READ), GetFullPath()))
        return ERR_LOCKED_FILE;
    FILE_INFO local;
    if (GetFilesystemInfo(local) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): Worker (%d): RemoveRemote: Failed to get filesystem into "
                  "for %s\n",
                  __LINE__, GetId(), Text(GetFullPath()));
        return ERR_SYS;
    }
    if (local.isExist) {
        WorkerLog(Logger::L_WARNING,
                  "[WARNING] worker(%d): Worker (%d): RemoveRemote: Path '%s' exists\n", __LINE__,
                  GetId(), Text(path));
        if (local.type == FT_DIR) {
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): Worker (%d) RemoveRemote: Need ExpandLocalDeleteEvent at "
                      "'%s'.\n",
                      __LINE__, GetId(), Text(path));
            ExpandLocalDeleteEvent(path);
        }
        return ERR_OK;
    }
    const ClientFileEventInfo& db = context.database_record;
    if (db.syncID == 0) {
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): Worker (%d): RemoveRemote: '%llu:%s' cannot be removed (no "
                  "record).\n",
                  __LINE__, GetId(), static_cast<unsigned long long>(sess), Text(path));
        return ERR_OK;
    }
    PObject request = RemoveRequest(db);
    PObject response;
    const int rc = CallServer(
        [&](Channel& ch, PObject& reply) { return ProtoRemoveObject(ch, request, reply); },
        response);
    if (rc < 0) {
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): Worker (%d): RemoveRemote: failed to remove object (%s). "
                  "%s.\n",
                  __LINE__, GetId(), Text(path), GetErrorString(rc));
        return rc;
    }
    if (response.hasMember("error")) {
        const int settled = SettleRemoveError(response["error"]["code"].asUInt32(), db.IsDir());
        if (settled <= 0) return settled;
    }
    const int forgotten = RemoveDatabaseInfo();
    if (forgotten != 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): RemoveRemote: Failed to update local event database. "
                  "Error code = %d\n",
                  __LINE__, forgotten);
        return ERR_SYS;
    }
    notify_event_type = NOTIFY_CLIENT_REMOVE;
    return ERR_OK;
}

PObject Worker::RemoveRequest(const ClientFileEventInfo& db) {
    PObject request;
    request["_action"] = "remove";
    AppendAgent(request);
    ConnectionPool* pool = g_pool.load();
    request["session"] = pool != nullptr ? pool->getSession() : ustring();
    request["view_id"] = context.root_entry.view_id;
    if (g_server_version.load() == kLegacyServerBuild) {
        request["sync_id"] = db.maxSyncID;
    } else {
        request["sync_id"] = db.syncID;
        request["max_id"] = db.maxSyncID;
    }
    const ustring& remote = GetRemoteWatch();
    request["path"] = remote.empty() || remote == ustring("/") ? GetPath() : remote + GetPath();
    return request;
}

int Worker::SettleRemoveError(uint32_t code, bool is_dir) {
    const ustring path = GetPath();
    switch (code) {
        case SPROTO_ERR_REMOVE_NOFILE:
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): RemoveRemote: Fake event on '%s' ... how did you do "
                      "that? remove local entry anyway.\n",
                      __LINE__, Text(path));
            return 1;
        case SPROTO_ERR_REMOVE_MODIFIED:
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): RemoveRemote: Object '%s' on the server is modified, "
                      "abort anyway\n",
                      __LINE__, Text(path));
            // A file's newer version comes down as a download once the row is gone; a
            // folder's changed members are found by looking at it again.
            if (!is_dir) return 1;
            WorkerLog(Logger::L_INFO, "[INFO] worker(%d): RemoveRemote: rescan directory '%s'\n",
                      __LINE__, Text(path));
            EventManager::getInstance().IssueRescan(context.current_event.m_sess_id, path, false);
            return ERR_OK;
        default: {
            const int rc = ProtoResp2ErrorCode(code, PROTO_RESP_WORKER);
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): RemoveRemote: Failed to remove '%s'. %s\n", __LINE__,
                      Text(path), GetErrorString(rc));
            return rc;
        }
    }
}

int Worker::ProtoRemoveObject(Channel& ch, const PObject& request, PObject& response) {
    return RunProtocol(ch, SCMD_EVT_REMOVE, request, response);
}

int Worker::TestRemoveRemoteFilter() {
    const Event& e = context.current_event;
    notify_event_type = NOTIFY_NONE;
    int blocked = TestCommonFilter();
    if (blocked != 0) {
        WorkerLog(Logger::L_WARNING, "[WARNING] worker(%d): Filtered Event: '%s' ((blocked: %d)\n",
                  __LINE__, Text(e.m_path), blocked);
        if (blocked == FILTER_EXT_SELECTIVE_SYNC || blocked == FILTER_PATH_PREFIX_SELECTIVE_SYNC ||
            blocked == FILTER_NAME_SELECTIVE_SYNC)
            AddFilteredEventToDB(e, blocked);
        notify_event_type = NOTIFY_FILTERED;
        return 0;
    }
    const ClientFileEventInfo& db = context.database_record;
    if (e.isDir() || db.syncID == 0) return 1;
    FilterLocalEvent fe;
    FilterDB& filters = FilterDB::getInstance();
    // The look-up leaves the record without a path when there is none.
    if (filters.getLocalFilteredEventByPath(e.m_sess_id, e.m_path, fe) == 0 && !fe.path.empty()) {
        // Known as filtered: the record now says the local file is gone, and the server's
        // copy is left alone.
        WorkerLog(Logger::L_WARNING, "[WARNING] worker(%d): Filtered Event: '%s' ((blocked: %d)\n",
                  __LINE__, Text(e.m_path), fe.filtered_type);
        ConvertToFilteredEvent(e, 0, fe);
        if (filters.setLocalFilteredEvent(fe) < 0) {
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): Failed to setLocalFilteredEvent for session '%llu', "
                      "path '%s' .\n",
                      __LINE__, static_cast<unsigned long long>(e.m_sess_id), Text(e.m_path));
            return -1;
        }
        notify_event_type = NOTIFY_FILTERED;
        return 0;
    }
    BlackList2* list = GetBlackList();
    blocked = list != nullptr ? list->TestFileSize(db.fileSize) : 0;
    if (blocked == 0) return 1;
    WorkerLog(Logger::L_WARNING, "[WARNING] worker(%d): Filtered Event: '%s' ((blocked: %d)\n",
              __LINE__, Text(e.m_path), blocked);
    if (blocked == FILTER_FILE_SIZE_SELECTIVE_SYNC) AddFilteredEventToDB(e, blocked);
    notify_event_type = NOTIFY_FILTERED;
    return 0;
}

int Worker::ConvertToFilteredEvent(const Event& ev, int filter_type, FilterLocalEvent& out) {
    if (WorkerLogOn(Logger::L_DEBUG))
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): ConvertToFilteredEvent: event = %s\n",
                  __LINE__, ev.toString().c_str_utf8());
    out.sess_id = ev.m_sess_id;
    out.file_type = ev.isDir() ? 1 : 0;
    out.path = ev.m_path;
    out.event_type = ev.m_type;
    out.file_size = ev.m_data_size;
    out.file_mod_time = ev.m_time;
    out.file_checksum = ev.m_data_hash;
    out.filtered_type = filter_type;
    out.is_exist = ev.m_type == Event::EV_REMOVE ? 0 : 1;
    out.base_name.clear();
    if (ev.isFile()) {
        const size_t slash = ev.m_path.rfind('/');
        out.base_name = slash == ustring::npos ? ev.m_path : ev.m_path.substr(slash + 1);
    }
    return 0;
}

// ---- directory removals taken apart ----

int Worker::ExpandDeleteEvent() {
    const Event& e = context.current_event;
    if (e.isLocalSubDirRescan() || e.isLocalSubDirRescanWithStat()) {
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): ExpandLocalDeleteEvent event: %s\n",
                  __LINE__, e.toString().c_str_utf8());
        if (ExpandLocalDeleteEvent(e.m_path) < 0) return ERR_INT;
    }
    if (e.isServerSubDirRescan() || e.isServerSubDirRescanWithStat()) {
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): ExpandServerDeleteEvent event: %s\n",
                  __LINE__, e.toString().c_str_utf8());
        if (ExpandServerDeleteEvent(e.m_path, e.m_sess_id, e.m_sync_id) < 0) return ERR_INT;
    }
    return ERR_OK;
}

// One level of a folder the user removed: what is still on disk against the rows, so each
// member the disk no longer has becomes its own removal and what is still there stays.
int Worker::ExpandLocalDeleteEvent(const ustring& path) {
    const ustring root = path == ustring("/") ? GetLocalWatch() : GetLocalWatch() + path;
    FileEventDB* db = GetEventDatabase();
    StringBuffer names;
    FileList db_list(names);
    FileList fs_list(names);
    // A folder that is gone has nothing left on disk; a sync folder that is gone says
    // nothing about its members, so that waits until it is back.
    FILE_INFO folder, top;
    int rc = FSStat(root, folder) == 0 && FSStat(GetLocalWatch(), top) == 0 && top.isExist ? 0 : -1;
    if (rc >= 0 && db != nullptr) rc = db->getFileListWithoutRecursive(&db_list, path);
    if (rc >= 0 && db == nullptr) rc = -1;
    if (rc >= 0 && folder.isExist) rc = BuildLocalFileListWithoutResursive(root, fs_list);
    if (rc >= 0) rc = CompareFileList(path, fs_list, db_list, false);
    if (rc < 0) {
        WorkerLog(Logger::L_NOTICE,
                  "[NOTE] worker(%d): interrupted while expanding local delete event (%s)\n",
                  __LINE__, Text(path));
        return -1;
    }
    return 0;
}

int Worker::ExpandServerDeleteEvent(const ustring& path, [[maybe_unused]] uint64_t sess_id,
                                    uint64_t sync_id) {
    FileEventDB* db = GetEventDatabase();
    StringBuffer names;
    FileList list(names);
    if (db == nullptr || db->getFileListWithoutRecursive(&list, path, sync_id) < 0) return -1;
    const ustring prefix = path == ustring("/") ? ustring() : path;
    for (auto it = list.rbegin(); it != list.rend(); ++it) {
        if (IsAborted()) {
            WorkerLog(Logger::L_NOTICE,
                      "[NOTE] worker(%d): interrupted while expanding server delete event (%s)\n",
                      __LINE__, Text(path));
            return -1;
        }
        const ustring child = prefix + it->path;
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): ExpandServerDeleteEvent: %s.\n", __LINE__,
                  Text(child));
        PushServerRemoveEvent(context.root_entry, child, it->is_dir(), sync_id, sync_id);
    }
    return 0;
}

int Worker::RemoveDatabaseInfo() {
    FileEventDB* db = GetEventDatabase();
    if (db == nullptr) {
        WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): RemoveDatabaseInfo: missing databasehandle\n",
                  __LINE__);
        return -1;
    }
    context.database_record.Clear();
    const int rc = db->rmEventInfoV3(GetPath());
    if (rc != 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): RemoveDatabaseInfo: failed to update database, error code "
                  "%d\n",
                  __LINE__, rc);
        return -1;
    }
    const uint64_t sess = context.current_event.m_sess_id;
    if (FilterDB::getInstance().rmLocalFilteredEventByPath(sess, GetPath()) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): RemoveDatabaseInfo : failed to rmLocalFilteredEventByPath "
                  "for session '%llu', path '%s' .\n",
                  __LINE__, static_cast<unsigned long long>(sess), GetPath().c_str_utf8());
        return -1;
    }
    return 0;
}

int Worker::ProcessRenameRemoveLocal(const FILE_INFO& local) {
    const uint32_t now = static_cast<uint32_t>(std::time(nullptr));
    const int rc = local.type == FT_DIR ? RenameRemoveDirectory() : RenameRemoveFile();
    if (rc != 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): ProcessRenameRemoveLocal: Failed to remove '%s'\n", __LINE__,
                  GetFullPath().c_str_utf8());
        return ERR_SYS;
    }
    Registry::getInstance().InitRecycleTime(context.root_entry, now);
    return 0;
}

namespace {

// The words one kind of object logs while it moves to the bin.
struct RecycleTexts {
    const char* rename_failed;  // object, destination
    const char* no_database;
    const char* dump_failed;    // path
    const char* filter_failed;  // session, path
};

constexpr RecycleTexts kFileTexts = {
    "[ERROR] worker(%d): RenameRemoveFile: failed to remove directory '%s'.\n",
    "[ERROR] worker(%d): RenameRemoveFile: missing databasehandle\n",
    "[ERROR] worker(%d): RenameRemoveFile: failed to dumpDirToRecycleBin '%s'.\n",
    "[ERROR] worker(%d): RenameRemoveFile : failed to rmLocalFilteredEventByPath for session "
    "'%llu', path '%s' .\n",
};

constexpr RecycleTexts kDirTexts = {
    "[ERROR] worker(%d): RenameRemoveDirectory: failed remove directory from '%s' to '%s'.\n",
    "[ERROR] worker(%d): RenameRemoveDirectory: missing databasehandle\n",
    "[ERROR] worker(%d): RenameRemoveDirectory: failed to dumpDirToRecycleBin '%s'.\n",
    "[ERROR] worker(%d): RenameRemoveDirectory : failed to rmLocalFilteredEventByPath for "
    "session '%llu', path '%s' .\n",
};

}  // namespace

int Worker::RenameRemoveFile() {
    return MoveToRecycleBin(false);
}

int Worker::RenameRemoveDirectory() {
    return MoveToRecycleBin(true);
}

int Worker::MoveToRecycleBin(bool is_dir) {
    const RecycleTexts& texts = is_dir ? kDirTexts : kFileTexts;
    // Without its record an object in the bin could never be found or rotated: it stays.
    FileEventDB* db = GetEventDatabase();
    if (db == nullptr) {
        WorkerLog(Logger::L_ERR, texts.no_database, __LINE__);
        return -1;
    }
    ustring name;
    if (FSCreateTempPath("", name) < 0) return -1;
    const ustring destination = GetRecycleBinDir() + name;
    // One rename, however large the tree: a bin on another volume refuses it, and then
    // the object stays where it is.
    if (FSRename(GetFullPath(), destination) != 0) {
        // The file's line names only the object.
        WorkerLog(Logger::L_ERR, texts.rename_failed, __LINE__, GetFullPath().c_str_utf8(),
                  destination.c_str_utf8());
        return -1;
    }
    const int dumped = is_dir ? db->dumpDirToRecycleBin(name, GetPath())
                              : db->dumpFileToRecycleBin(name, GetPath());
    if (dumped < 0) {
        WorkerLog(Logger::L_ERR, texts.dump_failed, __LINE__, GetPath().c_str_utf8());
        FSRename(destination, GetFullPath());
        return -1;
    }
    context.database_record.Clear();
    const uint64_t sess = context.current_event.m_sess_id;
    if (FilterDB::getInstance().rmLocalFilteredEventByPath(sess, GetPath()) < 0) {
        WorkerLog(Logger::L_ERR, texts.filter_failed, __LINE__,
                  static_cast<unsigned long long>(sess), GetPath().c_str_utf8());
        return -1;
    }
    return 0;
}

int Worker::moveFileToRecycleBin(const ustring& src, uint64_t size, const ustring& hash,
                                 const ustring& mac_hash) {
    FileEventDB* db = GetEventDatabase();
    if (db == nullptr)
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): moveFileToRecycleBin: missing databasehandle\n", __LINE__);
    ustring name;
    if (db != nullptr && FSCreateTempPath("", name) == 0) {
        const ustring destination = GetRecycleBinDir() + name;
        if (FSRename(src, destination) != 0) {
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): moveFileToRecycleBin: failed to move from '%s' to "
                      "'%s'.\n",
                      __LINE__, src.c_str_utf8(), destination.c_str_utf8());
        } else if (db->addFileToRecycleBin(name, size, hash, mac_hash) < 0) {
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): moveFileToRecycleBin: failed to addFileToRecycleBin "
                      "'%s'.\n",
                      __LINE__, name.c_str_utf8());
            FSRemove(destination);
        } else {
            return 0;
        }
    }
    // Only ever a file received into the working directory: nothing of the user's.
    FSRemove(src);
    return -1;
}
