// download.cpp: DownloadRemote, a server creation or change brought to the disk. The new
// object is received into the working directory, verified, and put in place by one rename;
// the row is committed only after that, and the user interface is told last.
#include "delta/delta-file-reader.h"
#include "delta/file-reader.h"
#include "events/event-generator.h"
#include "filter/black-list-v2.h"
#include "foundation/error-code.h"
#include "state/filter-db.h"
#include "transport/proto-format.h"
#include "worker/conflict-name.h"
#include "worker/worker-log.h"
#include "worker/worker.h"

namespace {

constexpr uint32_t kLockedAccess = FS_GENERIC_READ | FS_GENERIC_WRITE | FS_DELETE;
constexpr size_t kBlockSize = 2048;
constexpr size_t kStrongSumSize = 8;
// Sizes from 4 GiB up do not fit a FAT volume.
constexpr uint64_t kFatFileLimit = 0xFFFFFFFFull;

bool IsForceDownload(const Event& e) {
    return e.m_sync_id == MAX_SYNC_ID;
}

bool IsLegacyServer() {
    return g_server_version.load() == kLegacyServerBuild;
}

const char* Text(const ustring& s) {
    return s.c_str_utf8();
}

ustring ParentOf(const ustring& path) {
    const size_t slash = path.rfind('/');
    return slash == ustring::npos || slash == 0 ? ustring("/") : path.substr(0, slash);
}

// A reply's time, cleared of its lowest bit for a volume that keeps two-second times.
void AdjustMtimeForMSDOS(PObject& response) {
    PObject& holder =
        response.hasMember("mtime") ? response["mtime"] : response["common_attribute"];
    if (!holder.hasMember("mtime")) return;
    holder["mtime"] = holder["mtime"].asUInt64() & ~uint64_t{1};
}

// The new object of a reply, as the conflict table compares it.
struct NewObject {
    bool is_dir = false;
    uint64_t size = 0;
    ustring hash;
};

NewObject NewObjectOf(const PObject& response) {
    return {response["is_dir"].asBool(), response["file"]["size"].asUInt64(),
            response["file"]["hash"].asString()};
}

}  // namespace

int Worker::GetFilesystemInfo(FILE_INFO& info) {
    return FSStat(GetFullPath(), info) < 0 ? -1 : 0;
}

int Worker::DownloadRemote() {
    TempFile signature(GetSignDirectory());
    Event& e = context.current_event;
    // A name that climbs out of the folder, or that another platform reads as absolute, is
    // refused: nothing of it may touch the disk, and trying again would not change it.
    if (!IsUsableServerPath(e.m_path)) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): DownloadRemote: refused the server path '%s': not a "
                  "plain path inside the sync folder.\n",
                  __LINE__, Text(e.m_path));
        return ERR_OK;
    }
    const int passed = TestDownloadRemoteFilter();
    if (passed != 1) {
        WorkerLog(Logger::L_WARNING,
                  "[WARNING] worker(%d): DownloadRemote: File '%s' cannot pass filter testing "
                  "'%d'.\n",
                  __LINE__, Text(e.m_path), passed);
        return passed;
    }
    if (ReportLocked(isFileLocked(GetFullPath(), kLockedAccess), GetFullPath()))
        return ERR_LOCKED_FILE;
    SetCurrentProcessEventInfo(e.m_sess_id, e.m_path, W_TYPE_DOWNLOAD);
    ClientFileEventInfo base = GetDatabaseInfo();
    if (IsForceDownload(e) && !base.IsValid()) {
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): Force download '%s' but cannot find any record in event "
                  "DB, skipping....\n",
                  __LINE__, Text(e.m_path));
        return ERR_OK;
    }
    FILE_INFO local;
    if (GetFilesystemInfo(local) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): DownloadRemote: Failed to get local file info (%s)\n",
                  __LINE__, Text(GetFullPath()));
        return ERR_SYS;
    }
    if (IsForceDownload(e)) {
        if (local.isExist && !LocallyModified(local, base, ustring())) {
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): Force download event but NOT LocallyModified.\n",
                      __LINE__);
            return ERR_OK;
        }
        e.m_sync_id = IsLegacyServer() ? base.maxSyncID : base.syncID;
        e.m_max_id = base.maxSyncID;
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): (%d) Convert MAX_SYNC_ID  to target_sync_id [%llu]\n",
                  __LINE__, GetId(), static_cast<unsigned long long>(e.m_sync_id));
        // The whole object is asked for, and the conflict table sees no base.
        base.Clear();
        context.database_record.Clear();
    }
    if (base.IsValid() && base.IsFile() && !IsFileExist(base.signaturePath))
        WorkerLog(Logger::L_NOTICE,
                  "[NOTE] worker(%d): DownloadRemote: missing signature while downloading "
                  "'%s'.\n",
                  __LINE__, Text(e.m_path));
    if (!local.isExist) {
        base.Clear();
        if (e.isFile()) RemoveDatabaseInfo();
    }
    if (base.IsValid() && base.syncID >= e.m_sync_id) {
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): DownloadRemote: File '%s' is already up-to-date (server "
                  "echo).\n",
                  __LINE__, Text(e.m_path));
        return ERR_OK;
    }
    if (MergeEvent() == 0) {
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): DownloadRemote: '%s' is merged successfully\n", __LINE__,
                  Text(e.m_path));
        notify_event_type = NOTIFY_SERVER_MODIFY;
        return ERR_OK;
    }
    if (e.isFile()) {
        if (PrepareFileFromLocal() == 0) {
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): DownloadRemote: PreparFileFromLocal successfully.\n",
                      __LINE__);
            notify_event_type = NOTIFY_SERVER_MODIFY;
            return ERR_OK;
        }
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): DownloadRemote: Cannot PreparFileFromLocal, download from "
                  "server directly.\n",
                  __LINE__);
    }
    return FetchAndPlace(base, signature);
}

PObject Worker::DownloadRequest(const ClientFileEventInfo& base) {
    const Event& e = context.current_event;
    ConnectionPool* pool = g_pool.load();
    PObject request;
    request["_action"] = "resume_download";
    AppendAgent(request);
    request["session"] = pool != nullptr ? pool->getSession() : ustring();
    request["view_id"] = GetViewId();
    if (IsLegacyServer()) {
        request["sync_id"] = base.maxSyncID;
    } else {
        request["sync_id"] = base.syncID;
        request["max_id"] = base.maxSyncID;
    }
    request["target_sync_id"] = e.m_sync_id;
    const ustring& remote = GetRemoteWatch();
    request["path"] = remote.empty() || remote == ustring("/") ? GetPath() : remote + GetPath();
    for (const char* member : {"file", "mtime", "mac_attribute", "exec_bit"}) {
        const bool wanted = std::string(member) == "file" || std::string(member) == "mtime";
        request[member]["ignore"] = !wanted;
        request[member]["offset"] = uint64_t{0};
    }
    request["force_current_version"] = false;
    return request;
}

int Worker::FetchAndPlace(const ClientFileEventInfo& base, TempFile& signature) {
    PObject request, response;
    if (!cached_request.isEmpty()) {
        if (WorkerLogOn(Logger::L_DEBUG)) {
            WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): Worker (%d): cached_request %s\n",
                      __LINE__, GetId(), Text(cached_request.toString()));
            WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): Worker (%d): cached_response %s\n",
                      __LINE__, GetId(), Text(cached_response.toString()));
        }
        request = cached_request;
        const PObject& partial = cached_response["file"]["data"];
        if (partial.isBinary()) {
            // The bytes held go on from where the broken transfer stopped.
            request["file"]["offset"] = partial.asBinary().length;
            response["file"]["data"] = partial;
            WorkerLog(Logger::L_DEBUG,
                      "[DEBUG] worker(%d): Worker (%d): continue download file to %s, offset "
                      "%llu\n",
                      __LINE__, GetId(), Text(partial.asBinary().path),
                      static_cast<unsigned long long>(partial.asBinary().length));
        }
    } else {
        request = DownloadRequest(base);
        cached_request = request;
    }
    int rc = CallServer(
        [&](Channel& ch, PObject& reply) { return ProtoResumeDownloadObject(ch, request, reply); },
        response);
    if (rc < 0) {
        KeepPartialResponse(rc, response);
        return rc;
    }
    rc = SettleReply(base, request, response, signature);
    ClearPObject(response);
    ClearPObject(request);
    return rc;
}

void Worker::KeepPartialResponse(int rc, PObject& response) {
    WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): Worker (%d): failed to download '%s'. %s.\n",
              __LINE__, GetId(), Text(GetPath()), GetErrorString(rc));
    if (WorkerLogOn(Logger::L_DEBUG))
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): Worker (%d): partial response %s\n",
                  __LINE__, GetId(), Text(response.toString()));
    const PObject& partial = response["file"]["data"];
    if (!partial.isBinary()) return;
    WorkerLog(Logger::L_DEBUG,
              "[DEBUG] worker(%d): Worker (%d): partial file in response is stored (at '%s' with "
              "size %llu).\n",
              __LINE__, GetId(), Text(partial.asBinary().path),
              static_cast<unsigned long long>(partial.asBinary().length));
    // A cache cleared on the way (a failure that restarts the transfer) keeps nothing.
    if (cached_request.isEmpty()) {
        ClearPObject(response);
        return;
    }
    cached_response["file"]["data"] = partial;
}

int Worker::SettleReply(const ClientFileEventInfo& base, const PObject& request, PObject& response,
                        TempFile& signature) {
    if (response.hasMember("error")) {
        ClearCache();
        const uint32_t code = response["error"]["code"].asUInt32();
        if (code == SPROTO_ERR_DOWNLOAD_NOFILE) {
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): DownloadRemote: Object %s is removed, fake event, abort "
                      "anyway\n",
                      __LINE__, Text(GetPath()));
            return RemoveLocal();
        }
        if ((code & SPROTO_ERR_CLASS_MASK) == SPROTO_ERR_RESUME) return ERR_INT;
        WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): DownloadRemote: Bad response: %s\n", __LINE__,
                  Text(response.toString()));
        return ProtoResp2ErrorCode(code, PROTO_RESP_WORKER);
    }
    if (IsMSDOS(GetLocalWatch())) AdjustMtimeForMSDOS(response);
    if (response["sync_id"].asUInt64() == request["sync_id"].asUInt64()) {
        WorkerLog(Logger::L_INFO, "[INFO] worker(%d): DownloadRemote: %s is already up to date\n",
                  __LINE__, Text(GetPath()));
        notify_event_type = NOTIFY_SERVER_MODIFY;
        return ERR_OK;
    }
    if (response["is_dir"].asBool()) {
        const int rc = ProcessDownloadDirectory(response);
        if (rc < 0) return rc;
    } else {
        const int rc = ProcessDownloadFile(response, signature);
        if (rc == -100) {
            WorkerLog(Logger::L_CRIT,
                      "[CRIT] worker(%d): ProcessDownloadFile : encounter MAX_PATH_ERR when "
                      "renaming '%s'.\n",
                      __LINE__, Text(GetFullPath()));
            return ERR_OK;
        }
        if (rc < 0) return rc;
    }
    const int rc = CommitDatabaseDownload(response, base, signature.getPath());
    if (rc < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): DownloadRemote: Failed to commit changes to '%s' into local "
                  "database. Error Code = %d\n",
                  __LINE__, Text(GetPath()), rc);
        return ERR_SYS;
    }
    notify_event_type = NOTIFY_SERVER_MODIFY;
    return ERR_OK;
}

int Worker::TestDownloadRemoteFilter() {
    const Event& e = context.current_event;
    notify_event_type = NOTIFY_NONE;
    uint64_t size = e.m_data_size;
    const int blocked = TestCommonFilter();
    if (blocked != 0) {
        WorkerLog(Logger::L_WARNING, "[WARNING] worker(%d): Filtered Event: '%s' (blocked: %d)\n",
                  __LINE__, Text(e.m_path), blocked);
        notify_event_type = NOTIFY_FILTERED;
        return 0;
    }
    if (IsForceDownload(e)) {
        if (!context.database_record.IsValid()) {
            WorkerLog(Logger::L_WARNING,
                      "[WARNING] worker(%d): Force download '%s' but cannot find any record in "
                      "event DB. file size filter will NOT work.\n",
                      __LINE__, Text(e.m_path));
            return 1;
        }
        size = context.database_record.fileSize;
    }
    for (BlackList2* list : {&BlackList2::getInstance(), GetBlackList()}) {
        const int rc = list != nullptr ? list->TestFileSize(size) : 0;
        if (rc == 0) continue;
        WorkerLog(Logger::L_WARNING, "[WARNING] worker(%d): Filtered Event: '%s' ((blocked: %d)\n",
                  __LINE__, Text(e.m_path), rc);
        notify_event_type = NOTIFY_FILTERED;
        return 0;
    }
    if (e.m_data_size >= kFatFileLimit && IsMSDOS(GetLocalWatch())) {
        WorkerLog(Logger::L_WARNING,
                  "[WARNING] worker(%d): Filtered Event: '%s' (file system is not support large "
                  "file)\n",
                  __LINE__, Text(e.m_path));
        return 0;
    }
    return 1;
}

int Worker::MergeEvent() {
    const Event& e = context.current_event;
    FILE_INFO local;
    if (GetFilesystemInfo(local) < 0) return -1;
    if (!local.isExist) {
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): MergeEvent: missing local file, merge failed\n", __LINE__);
        return -1;
    }
    TempFile signature(GetSignDirectory());
    uint32_t modify_time = local.mtime;
    if (local.type == FT_DIR) {
        if (e.isFile()) {
            WorkerLog(Logger::L_INFO, "[INFO] worker(%d): MergeEvent: type different 1\n",
                      __LINE__);
            return -1;
        }
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): MergeEvent: both sides are folders and ea not change.\n",
                  __LINE__);
    } else {
        if (e.isDir()) {
            WorkerLog(Logger::L_INFO, "[INFO] worker(%d): MergeEvent: type different 2\n",
                      __LINE__);
            return -1;
        }
        if (local.size != e.m_data_size) {
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): MergeEvent: local file is different in size, merge "
                      "failed\n",
                      __LINE__);
            return -1;
        }
        if (signature.create() < 0) {
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): MergeEvent: failed to create temp file'\n", __LINE__);
            return -1;
        }
        ustring hash;
        SimpleFileReader reader;
        reader.setAbortFlag(AbortFlag());
        reader.setFile(GetFullPath());
        reader.setHashString(hash);
        reader.setSignature(signature.getPath(), kBlockSize, kStrongSumSize);
        if (reader.readFile() != 0) {
            WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): MergeEvent: failed to read '%s'\n",
                      __LINE__, Text(GetFullPath()));
            return -1;
        }
        if (hash != e.m_data_hash) {
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): MergeEvent: local file is different in hash, merge "
                      "failed\n",
                      __LINE__);
            return -1;
        }
        modify_time = e.m_time != 0 ? e.m_time : local.mtime;
        if (IsMSDOS(GetLocalWatch())) modify_time &= ~1u;
        if (modify_time != local.mtime && FSUTime(GetFullPath(), modify_time, modify_time) < 0)
            WorkerLog(Logger::L_WARNING,
                      "[WARNING] worker(%d): MergeEvent: failed to set modified time\n", __LINE__);
    }
    ClientFileEventInfo row;
    row.syncID = e.m_sync_id;
    row.maxSyncID = e.m_max_id;
    row.path = e.m_path;
    row.fileType = e.isDir() ? 1 : 0;
    row.isExist = 1;
    row.fileSize = e.m_data_size;
    row.fileCheckSum = e.m_data_hash;
    row.fileModTime = modify_time;
    row.signaturePath = signature.getPath();
    row.macHash = e.m_mac_attr_hash;
    row.execBit = e.m_exec_bit;
    FileEventDB* db = GetEventDatabase();
    if (db == nullptr || db->setEventInfo(row) != 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): CommitDatabase: Failed to update local event database.\n",
                  __LINE__);
        return -1;
    }
    return ForgetFilteredPath();
}

int Worker::ForgetFilteredPath() {
    const uint64_t sess = context.current_event.m_sess_id;
    if (FilterDB::getInstance().rmLocalFilteredEventByPath(sess, GetPath()) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): CommitDatabase: Failed to remvoe filter db record for "
                  "session '%llu', path '%s' .\n",
                  __LINE__, static_cast<unsigned long long>(sess), Text(GetPath()));
        return -1;
    }
    return 0;
}

int Worker::FindLocalCopy(ustring& source, bool& from_recycle) {
    const Event& e = context.current_event;
    FileEventDB* db = GetEventDatabase();
    ustring found;
    // The recorded names are checked like the server's: a damaged database must not lead
    // a copy out of the folder.
    if (db->getFilePathByHashFromRecycle(e.m_data_hash, e.m_mac_attr_hash, found) == 1 &&
        IsUsableServerPath(found)) {
        source = GetRecycleBinDir() + found;
        from_recycle = true;
        WorkerLog(Logger::L_INFO, "[INFO] worker(%d): Copy file from recycle bin '%s'\n", __LINE__,
                  Text(source));
        return 0;
    }
    if (db->getFilePathByHash(e.m_data_hash, e.m_mac_attr_hash, found) == 1 &&
        IsUsableServerPath("/" + found)) {
        source = GetLocalWatch() + "/" + found;
        from_recycle = false;
        return 0;
    }
    return -1;
}

int Worker::PrepareFileFromLocal() {
    const Event& e = context.current_event;
    FileEventDB* db = GetEventDatabase();
    if (db == nullptr) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): PreparFileFromLocal: missing databasehandle\n", __LINE__);
        return -1;
    }
    ustring source;
    bool from_recycle = false;
    if (e.m_data_hash.empty() || FindLocalCopy(source, from_recycle) < 0) return -1;
    TempFile copy(GetWorkingDirectory());
    if (!from_recycle) {
        if (copy.create() < 0) {
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): PreparFileFromLocal: Failed to create temp file.\n",
                      __LINE__);
            return -1;
        }
        WorkerLog(Logger::L_INFO, "[INFO] worker(%d): Copy file from syncfolder '%s'.\n", __LINE__,
                  Text(source));
    }
    TempFile signature(GetSignDirectory());
    if (signature.create() < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): PreparFileFromLocal: Failed to create temp signature "
                  "file.\n",
                  __LINE__);
        return -1;
    }
    ustring hash;
    SimpleFileReader reader;
    reader.setAbortFlag(AbortFlag());
    reader.setFile(source);
    if (!from_recycle) reader.setCopyFile(copy.getPath());
    reader.setHashString(hash);
    reader.setSignature(signature.getPath(), kBlockSize, kStrongSumSize);
    const int read = reader.readFile();
    if (read != 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): PreparFileFromLocal: Failed to prepare file [%d].\n",
                  __LINE__, read);
        return -1;
    }
    if (hash != e.m_data_hash) {
        WorkerLog(Logger::L_WARNING,
                  "[WARNING] worker(%d): PreparFileFromLocal: File locally modification, can not "
                  "use local copy.\n",
                  __LINE__);
        return -1;
    }
    const ustring& moved = from_recycle ? source : copy.getPath();
    return PlaceLocalCopy(moved, from_recycle, source, signature);
}

int Worker::PlaceLocalCopy(const ustring& moved, bool from_recycle, const ustring& source,
                           TempFile& signature) {
    const Event& e = context.current_event;
    // A local file that changed since its last agreement is the user's: it moves aside
    // like any conflict before the copy takes its name.
    PObject expected;
    expected["is_dir"] = false;
    expected["file"]["size"] = e.m_data_size;
    expected["file"]["hash"] = e.m_data_hash;
    if (HandleDownloadConflict(expected) < 0) return -1;
    uint32_t time = e.m_time;
    if (IsMSDOS(GetLocalWatch())) time &= ~1u;
    FSUTime(moved, time, time);
    FSMKDir(ParentOf(GetFullPath()), true);
    if (FSRename(moved, GetFullPath(), true) != 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): PreparFileFromLocal: Cannot rename from %s -> %s\n",
                  __LINE__, Text(moved), Text(GetFullPath()));
        return -1;
    }
    if (from_recycle) {
        const ustring name = source.substr(GetRecycleBinDir().size());
        if (GetEventDatabase()->rmRecycleByPath(name) < 0)
            WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): Failed to rmRecycleByPath for '%s'\n",
                      __LINE__, Text(name));
    }
    ClientFileEventInfo row;
    row.syncID = e.m_sync_id;
    row.maxSyncID = e.m_max_id;
    row.fileType = 0;
    row.isExist = 1;
    row.path = e.m_path;
    row.signaturePath = signature.getPath();
    row.fileSize = e.m_data_size;
    row.fileCheckSum = e.m_data_hash;
    row.fileModTime = time;
    row.execBit = e.m_exec_bit;
    if (UpdateDatabaseInfo(row) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): CommitDatabase: Failed to update local event database.\n",
                  __LINE__);
        return -1;
    }
    return ForgetFilteredPath();
}

int Worker::ProcessDownloadFile(const PObject& response, TempFile& signature) {
    ustring new_path;
    int rc = PrepareDownloadFile(response, new_path, signature);
    if (rc >= 0) rc = UpdateAttribute(new_path, response);
    if (rc >= 0 && new_path == GetFullPath()) return 0;
    if (rc >= 0) {
        rc = HandleDownloadConflict(response);
        if (rc < 0)
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): ProcessDownloadFile: HandleDownloadConflict(%s) "
                      "failed\n",
                      __LINE__, Text(GetPath()));
    }
    if (rc >= 0 && FSMKDir(ParentOf(GetFullPath()), true) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): DownloadRemote: Cannot create parent directory of '%s'\n",
                  __LINE__, Text(GetFullPath()));
        rc = ERR_SYS;
    }
    if (rc >= 0) {
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): rename %s -> %s\n", __LINE__,
                  Text(new_path), Text(GetFullPath()));
        rc = FSRename(new_path, GetFullPath(), true);
        if (rc == 0) return 0;
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): DownloadRemote: Cannot rename from %s -> %s\n", __LINE__,
                  Text(new_path), Text(GetFullPath()));
        if (rc != -100) {
            // The verified bytes wait in the bin, where the retry finds them by hash.
            moveFileToRecycleBin(new_path, response["file"]["size"].asUInt64(),
                                 response["file"]["hash"].asString(),
                                 response["mac_attribute"]["hash"].asString());
            rc = ERR_SYS;
        }
    }
    // Never the user's file: only what was made in the working directory goes.
    if (!new_path.empty() && new_path != GetFullPath()) FSRemove(new_path);
    return rc;
}

int Worker::PrepareDownloadFile(const PObject& response, ustring& new_path, TempFile& signature) {
    const PObject& file = response["file"];
    if (!response.hasMember("file") || file["refer"].asBool()) {
        new_path = GetFullPath();
        return 0;
    }
    if (signature.create() < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): PrepareDownloadFile: failed to prepare temporary file\n",
                  __LINE__);
        return ERR_SYS;
    }
    const ustring received = file["data"].isBinary() ? file["data"].asBinary().path : ustring();
    ustring hash;
    if (file["is_delta"].asBool()) {
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): PrepareDownloadFile: download patch file\n",
                  __LINE__);
        if (FSMktemp(GetWorkingDirectory(), new_path) < 0) {
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): PrepareDownloadFile: failed to prepare temporary "
                      "file\n",
                      __LINE__);
            return ERR_SYS;
        }
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): new file will be generated at %s\n",
                  __LINE__, Text(new_path));
        DeltaFileReader reader;
        reader.setAbortFlag(AbortFlag());
        reader.setFile(received, GetFullPath());
        reader.setNewFile(new_path);
        reader.setHashString(hash);
        reader.setSignature(signature.getPath(), kBlockSize, kStrongSumSize);
        if (reader.readFile() != 0 || reader.getPatchResult() != 0) {
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): PrepareDownloadFile: Check basis file of (%s) after "
                      "patching failure ...\n",
                      __LINE__, Text(GetPath()));
            return SettlePatchError(response, new_path);
        }
    } else {
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): PrepareDownloadFile: download whole file\n",
                  __LINE__);
        new_path = received;
        SimpleFileReader reader;
        reader.setAbortFlag(AbortFlag());
        reader.setFile(received);
        reader.setHashString(hash);
        reader.setSignature(signature.getPath(), kBlockSize, kStrongSumSize);
        if (received.empty() || reader.readFile() != 0) {
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): PrepareDownloadFile: Failed to verify new file, try it "
                      "again\n",
                      __LINE__);
            return ERR_SYS;
        }
    }
    FILE_INFO made;
    if (hash == file["hash"].asString() && FSStat(new_path, made) == 0 &&
        made.size == file["size"].asUInt64())
        return 0;
    WorkerLog(Logger::L_INFO,
              "[INFO] worker(%d): PrepareDownloadFile: Check basis file of (%s) after incorrect "
              "patch file ...\n",
              __LINE__, Text(GetPath()));
    return SettlePatchError(response, new_path);
}

int Worker::SettlePatchError(const PObject& response, ustring& new_path) {
    const int rc = HandleDownloadPatchError(response);
    // What was made is not the new file: it goes, whatever the verdict.
    if (new_path != GetFullPath()) FSRemove(new_path);
    if (rc < 0) {
        new_path.clear();
        return rc;
    }
    WorkerLog(Logger::L_INFO,
              "[INFO] worker(%d): PrepareDownloadFile: basis file is the same as the new file...\n",
              __LINE__);
    new_path = GetFullPath();
    return 0;
}

int Worker::HandleDownloadPatchError(const PObject& response) {
    FILE_INFO local;
    if (GetFilesystemInfo(local) < 0) return ERR_SYS;
    if (!local.isExist) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): Worker (%d): HandleDownloadPatchError: Basis unchanged but "
                  "cannot prepare file (basis removed)\n",
                  __LINE__, GetId());
        return ERR_INT;
    }
    const int verdict = TestDownloadConflict(local, context.database_record, response);
    if (verdict < 0) return verdict;
    switch (verdict) {
        case CONFLICT_NONE:
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): Worker(%d): HandleDownloadPatchError: Basis unchanged "
                      "but cannot prepare file (incorrect patch file)\n",
                      __LINE__, GetId());
            ++patch_err_count;
            return ERR_SYS;
        case CONFLICT_RETRY:
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): Worker (%d): HandleDownloadPatchError: Basis changed, "
                      "try to resolve conflict\n",
                      __LINE__, GetId());
            return MoveAsideConflict() == 0 ? ERR_INT : ERR_SYS;
        default:
            return 0;
    }
}

int Worker::MoveAsideConflict() {
    ConnectionPool* pool = g_pool.load();
    const ustring client = pool != nullptr ? pool->getClientName() : ustring();
    return ConflictRename(GetFullPath(), client, "Conflict");
}

// Same content: the new object is a file of the local size, the local object is a regular
// file, and its MD4 is the new hash.
int Worker::SameContent(const FILE_INFO& local, const PObject& response) {
    const NewObject next = NewObjectOf(response);
    if (next.is_dir || local.type != FT_FILE || local.size != next.size) return 0;
    ustring hash;
    if (CalculateMD4(GetFullPath(), hash) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): CheckBasisFile: Failed to calculate checksum for basis "
                  "file\n",
                  __LINE__);
        return ERR_SYS;
    }
    return hash == next.hash ? 1 : 0;
}

namespace {

void LogBasis(const char* text) {
    WorkerLog(Logger::L_INFO, "[INFO] worker(%d): CheckBasisFile: %s", __LINE__, text);
}

// The verdict when the local object differs from the row: the same content as the new
// object makes nothing to do, anything else is a conflict.
int ByContent(int same) {
    if (same < 0) return same;
    return same == 1 ? Worker::CONFLICT_IGNORE : Worker::CONFLICT_RETRY;
}

}  // namespace

int Worker::TestDownloadConflict(const FILE_INFO& local, const ClientFileEventInfo& db,
                                 const PObject& response) {
    const bool new_dir = response["is_dir"].asBool();
    const bool local_dir = local.type == FT_DIR;
    if (!db.IsValid()) {
        if (!local.isExist) {
            LogBasis("Basis is not changed (vanish).\n");
            return CONFLICT_NONE;
        }
        LogBasis("Basis does not appear in database.\n");
        if (local_dir) return new_dir ? CONFLICT_IGNORE : CONFLICT_RETRY;
        const int same = SameContent(local, response);
        if (same == 1) LogBasis("Basis file is the same as the remote file, we are done.\n");
        return ByContent(same);
    }
    if (!local.isExist) {
        LogBasis("Basis file vanished.\n");
        return CONFLICT_REMOVED;
    }
    if (db.IsDir()) {
        if (local_dir) {
            LogBasis("Basis file is unchanged (dir)\n");
            return CONFLICT_NONE;
        }
        LogBasis("Basis appears as DIR in database, but now it is a file\n");
        return ByContent(SameContent(local, response));
    }
    if (local_dir) {
        LogBasis("Basis file appears as FILE in database, but now it is a directory\n");
        return new_dir ? CONFLICT_IGNORE : CONFLICT_RETRY;
    }
    if (local.size != db.fileSize) {
        LogBasis("Basis file is modified (size not match) \n");
        return ByContent(SameContent(local, response));
    }
    if (local.type != FT_FILE) return CONFLICT_NONE;
    ustring hash;
    if (CalculateMD4(GetFullPath(), hash) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): CheckBasisFile: Failed to calculate checksum for basis "
                  "file\n",
                  __LINE__);
        return ERR_SYS;
    }
    if (hash == db.fileCheckSum) return CONFLICT_NONE;
    LogBasis("Basis file is locally modified\n");
    return hash == NewObjectOf(response).hash && !new_dir ? CONFLICT_IGNORE : CONFLICT_RETRY;
}

int Worker::HandleDownloadConflict(const PObject& response) {
    FILE_INFO local;
    if (GetFilesystemInfo(local) < 0) return ERR_SYS;
    if (!local.isExist) return 0;
    const int verdict = TestDownloadConflict(local, context.database_record, response);
    if (verdict < 0) return verdict;
    if (verdict == CONFLICT_RETRY) {
        WorkerLog(Logger::L_DEBUG,
                  "[DEBUG] worker(%d): Worker (%d): HandleDownloadConflict: conflict occurs, "
                  "resolve conflict first\n",
                  __LINE__, GetId());
        return MoveAsideConflict() == 0 ? 0 : ERR_SYS;
    }
    if (verdict != CONFLICT_NONE) {
        WorkerLog(Logger::L_DEBUG,
                  "[DEBUG] worker(%d): Worker (%d): HandleDownloadConflict: no conflict, keep "
                  "going\n",
                  __LINE__, GetId());
        return 0;
    }
    const bool local_dir = local.type == FT_DIR;
    if (local_dir == response["is_dir"].asBool()) return 0;
    WorkerLog(Logger::L_DEBUG,
              "[DEBUG] worker(%d): Worker (%d): HandleDownloadConflict: no conflict with type "
              "jump\n",
              __LINE__, GetId());
    // The base of the other type goes to the recycle bin, never straight to deletion: a
    // folder may hold files nobody has looked at since.
    if (ProcessRenameRemoveLocal(local) == 0) return 0;
    if (local_dir)
        WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): RemoveDirectory: Failed to remove '%s'\n",
                  __LINE__, Text(GetFullPath()));
    else
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): DownloadRemote: type jump, but can not remove basis.\n",
                  __LINE__);
    return ERR_SYS;
}

int Worker::ProcessDownloadDirectory(const PObject& response) {
    // A file in the folder's place is settled like any replaced object first.
    FILE_INFO local;
    if (GetFilesystemInfo(local) < 0) return ERR_SYS;
    if (local.isExist && local.type != FT_DIR) {
        const int rc = HandleDownloadConflict(response);
        if (rc < 0) return rc;
    }
    if (FSMKDir(GetFullPath(), true) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): ProcessDownloadDirectory: Cannot create directory %s\n",
                  __LINE__, Text(GetFullPath()));
        return ERR_SYS;
    }
    const int rc = UpdateAttribute(GetFullPath(), response);
    if (rc < 0)
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): ProcessDownloadDirectory: Cannot apply attribute for %s\n",
                  __LINE__, Text(GetFullPath()));
    return rc;
}

int Worker::UpdateAttribute(const ustring& full_path, const PObject& response) {
    uint64_t time = 0;
    if (response.hasMember("mtime")) {
        if (response["mtime"]["refer"].asBool()) {
            WorkerLog(Logger::L_INFO, "[INFO] worker(%d): last motify time is not changed\n",
                      __LINE__);
            return 0;
        }
        time = response["mtime"]["mtime"].asUInt64();
    } else if (response.hasMember("common_attribute")) {
        time = response["common_attribute"]["mtime"].asUInt64();
    } else {
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): last motify time is not provided, might be out of sync\n",
                  __LINE__);
        return 0;
    }
    FSUTime(full_path, static_cast<time_t>(time), static_cast<time_t>(time));
    return 0;
}

int Worker::ProtoResumeDownloadObject(Channel& ch, PObject& request, PObject& response) {
    if (!request.hasMember("_resume_token")) {
        PObject ask, answer;
        ask["_action"] = "resume_get_token";
        ask["session"] = request["session"];
        ask["view_id"] = request["view_id"];
        AppendAgent(ask);
        const int rc = RunProtocol(ch, SCMD_RESUME_TRANSFER, ask, answer);
        if (rc < 0) return rc;
        if (answer.hasMember("error")) {
            response["error"] = answer["error"];
            return 0;
        }
        request["_resume_token"] = answer["resume_token"];
        cached_request["_resume_token"] = answer["resume_token"];
    }
    const int rc = RunProtocol(ch, SCMD_RESUME_TRANSFER, request, response);
    return rc > 0 ? 0 : rc;
}

int Worker::CommitDatabaseDownload(const PObject& response, const ClientFileEventInfo& base,
                                   const ustring& sign_path) {
    ClientFileEventInfo row;
    row.syncID = response["sync_id"].asUInt64();
    row.maxSyncID = IsLegacyServer() ? row.syncID : response["max_id"].asUInt64();
    row.fileType = response["is_dir"].asBool() ? 1 : 0;
    row.isExist = 1;
    row.path = GetPath();
    const PObject& file = response["file"];
    if (row.IsFile()) {
        const bool sent = response.hasMember("file") && !file["refer"].asBool();
        row.fileSize = sent ? file["size"].asUInt64() : base.fileSize;
        row.fileCheckSum = sent ? file["hash"].asString() : base.fileCheckSum;
    }
    if (response.hasMember("mtime"))
        row.fileModTime = response["mtime"]["refer"].asBool()
                              ? base.fileModTime
                              : response["mtime"]["mtime"].asUInt32();
    else
        row.fileModTime = response.hasMember("common_attribute")
                              ? response["common_attribute"]["mtime"].asUInt32()
                              : base.fileModTime;
    const PObject& mac = response["mac_attribute"];
    row.macHash = mac.isMap() && !mac["refer"].asBool() ? mac["hash"].asString() : base.macHash;
    const PObject& exec = response["exec_bit"];
    row.execBit =
        exec.isMap() && !exec["refer"].asBool() ? exec["exec_bit"].asUInt32() : base.execBit;
    row.signaturePath = !sign_path.empty() ? sign_path : base.signaturePath;
    const int rc = UpdateDatabaseInfo(row);
    if (rc < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): CommitDatabase: Failed to update local event database. "
                  "Error code = %d\n",
                  __LINE__, rc);
        return -1;
    }
    return ForgetFilteredPath();
}
