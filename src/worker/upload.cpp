// upload.cpp: UploadLocal, a local creation or change carried to the server: whether
// anything has to go at all, the request (hash, new signature, delta or whole file, or a
// reference to what the server holds), the plain or resumable exchange, and the row
// committed from the answer.
#include "delta/file-reader.h"
#include "filter/black-list-v2.h"
#include "filter/filter.h"
#include "foundation/error-code.h"
#include "foundation/settings.h"
#include "state/filter-db.h"
#include "transport/exchange.h"
#include "transport/proto-common.h"
#include "transport/proto-format.h"
#include "worker/conflict-name.h"
#include "worker/worker-log.h"
#include "worker/worker.h"

namespace {

// Files up to this size are not worth the extra exchanges of the resumable form.
constexpr uint64_t kResumableAbove = 0x80000;
// Copy offsets of a delta are 32-bit: a larger file or base goes whole.
constexpr uint64_t kDeltaLimit = 0xFFFFFFFFull;
constexpr size_t kSignatureBlock = 2048;
constexpr size_t kSignatureHash = 8;
// The server generation that says nothing of itself and knows no max_id.
constexpr unsigned long kLegacyBuild = 2402;

// A link is never opened (it stays local), so whether its target is readable is moot.
bool LockedForReading(const ustring& path) {
    FILE_INFO info;
    if (FSStat(path, info) == 0 && info.type == FT_SLINK) return false;
    return isFileLocked(path, FS_GENERIC_READ);
}

// Times are kept to the second, so a rewrite of the same size within the second its row's
// bytes were read leaves size and time as the row has them. The row's signature was written
// while those bytes were read: a file whose time is not older than it may hide such a
// rewrite, and only its content can tell. No signature to compare with counts the same.
bool MayHideASameSecondWrite(const FILE_INFO& cur, const ClientFileEventInfo& row) {
    FILE_INFO signature;
    if (row.signaturePath.empty() || FSStat(row.signaturePath, signature) < 0 || !signature.isExist)
        return true;
    return cur.mtime >= signature.mtime;
}

bool IsLegacyServer() {
    return g_server_version.load() == kLegacyBuild;
}

ustring BaseName(const ustring& path) {
    const size_t slash = path.rfind('/');
    return slash == ustring::npos ? path : path.substr(slash + 1);
}

// A part that is absent or refers to the base.
bool Refers(const PObject& request, const char* key) {
    return !request.hasMember(key) || request[key]["refer"].asBool();
}

// The base row's part unless the request sent its own.
template <typename T>
T Sent(const PObject& part, const char* key, const T& base, T (PObject::*as)() const) {
    if (part.isMap() && !part["refer"].asBool()) return (part[key].*as)();
    return base;
}

}  // namespace

int Worker::UploadLocal() {
    TempFile signature(GetSignDirectory());
    const ustring path = GetPath();
    int rc = TestUploadLocalFilter();
    if (rc != 1) {
        WorkerLog(Logger::L_WARNING,
                  "[WARNING] worker(%d): UploadLocal: File '%s' cannot pass filter testing "
                  "'%d'.\n",
                  __LINE__, path.c_str_utf8(), rc);
        return rc;
    }
    if (ReportLocked(LockedForReading(GetFullPath()), GetFullPath())) return ERR_LOCKED_FILE;
    SetCurrentProcessEventInfo(context.current_event.m_sess_id, path, W_TYPE_UPLOAD);
    FILE_INFO local;
    if (FSStat(GetFullPath(), local) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): UploadLocal: failed to get local file system info of "
                  "'%s'\n",
                  __LINE__, GetFullPath().c_str_utf8());
        return ERR_SYS;
    }
    if (IsUploadLocalFakeEvent(local)) return 0;
    rc = TestBaseNameConflict(BaseName(path));
    if (rc != 1) return rc;

    if (!cached_request.isEmpty() && (cached_request["mtime"]["mtime"].asUInt32() != local.mtime ||
                                      cached_request["file"]["size"].asUInt64() != local.size)) {
        // The file changed while its resumable upload was interrupted.
        WorkerLog(Logger::L_WARNING,
                  "[WARNING] worker(%d): cached_request is differ from local file system for file "
                  "'%s', just clear cache\n",
                  __LINE__, path.c_str_utf8());
        ClearCache();
    }
    PObject request;
    bool resumable = false;
    rc = BuildUploadRequest(local, signature, request, resumable);
    if (rc < 0) return rc;

    if (context.database_record.syncID != 0 && IsUploadLocalFakeRequest(request)) {
        if (request.hasMember("mtime") && !request["mtime"]["refer"].asBool()) {
            // Only the time differs: a touch is undone here and never uploaded.
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): UploadLocal: Dir attr of '%s' is not changed, adjust "
                      "mtime back\n",
                      __LINE__, path.c_str_utf8());
            const time_t base = context.database_record.fileModTime;
            FSUTime(GetFullPath(), base, base);
        }
        if (!resumable) ClearPObject(request);
        return 0;
    }
    PObject response;
    rc = SendUpload(request, response, resumable);
    if (rc < 0) {
        // A resumable request shares its files with the cache, which decides their fate.
        if (!resumable) ClearPObject(request);
        return rc;
    }
    return SettleUploadReply(request, response, resumable ? upload_sign_file : signature.getPath());
}

int Worker::BuildUploadRequest(const FILE_INFO& local, TempFile& signature, PObject& request,
                               bool& resumable) {
    if (!cached_request.isEmpty()) {
        request = cached_request;
        resumable = true;
        return 0;
    }
    const ClientFileEventInfo& db = context.database_record;
    ConnectionPool* pool = g_pool.load();
    request["session"] = pool != nullptr ? pool->getSession() : ustring();
    request["view_id"] = context.root_entry.view_id;
    if (IsLegacyServer()) {
        request["sync_id"] = db.maxSyncID;
    } else {
        request["sync_id"] = db.syncID;
        request["max_id"] = db.maxSyncID;
    }
    const ustring& remote = GetRemoteWatch();
    request["path"] = remote.empty() || remote == ustring("/") ? GetPath() : remote + GetPath();
    const bool is_dir = local.type == FT_DIR;
    request["is_dir"] = is_dir;
    request["common_attribute"]["mtime"] = local.mtime;
    const ustring name = GetPath();
    int rc = is_dir ? 0 : PrepareFileBlock(request, signature);
    if (rc < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): UploadLocal: failed to prepare file block for '%s'. %s\n",
                  __LINE__, name.c_str_utf8(), GetErrorString(rc));
        return rc;
    }
    if ((rc = PrepareMtime(local, db, request)) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): UploadLocal: Failed to PrepareMtime for '%s', retry ...\n",
                  __LINE__, name.c_str_utf8());
        return rc;
    }
    if ((rc = PrepareMacAttrFile(request)) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): UploadLocal: Failed to PrepareAttrFile for '%s', retry "
                  "...\n",
                  __LINE__, name.c_str_utf8());
        return rc;
    }
    if ((rc = PrepareExecBit(request)) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): UploadLocal: Failed to prepare exec bit for '%s'\n",
                  __LINE__, name.c_str_utf8());
        return rc;
    }
    resumable = !is_dir && local.size > kResumableAbove;
    request["_action"] = resumable ? "resume_upload" : "upload";
    AppendAgent(request);
    if (resumable) {
        cached_request = request;
        signature.convert_permanent();
        upload_sign_file = signature.getPath();
    }
    return 0;
}

int Worker::SendUpload(PObject& request, PObject& response, bool resumable) {
    return CallServer(
        [&](Channel& ch, PObject& reply) {
            return resumable ? ProtoResumeUploadObject(ch, request, reply)
                             : ProtoUploadObject(ch, request, reply);
        },
        response);
}

int Worker::SettleUploadReply(PObject& request, PObject& response, const ustring& sign_path) {
    if (response.hasMember("error")) {
        const int rc = HandleUploadError(response);
        ClearPObject(response);
        ClearPObject(request);
        return rc;
    }
    int rc = 0;
    if (CommitDatabaseUpload(request, response, context.database_record, sign_path) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): UploadLocal: Failed to update local event database.\n",
                  __LINE__);
        rc = ERR_SYS;
    } else {
        if (CheckLocalModification(request) < 0)
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): UploadLocal: Failed to CheckLocalModification.\n",
                      __LINE__);
        notify_event_type = NOTIFY_CLIENT_MODIFY;
    }
    ClearPObject(response);
    ClearPObject(request);
    return rc;
}

int Worker::HandleUploadError(const PObject& response) {
    const uint32_t code = response["error"]["code"].asUInt32();
    const ustring path = GetPath();
    ClearCache();
    switch (code) {
        case SPROTO_ERR_UPLOAD_NOBASE:
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): UploadFile: file is removed during transfer, try it "
                      "again.\n",
                      __LINE__);
            RemoveDatabaseInfo();
            return ERR_INT;
        case SPROTO_ERR_UPLOAD_BASE_CHANGED:
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): UploadFile: '%s' is changed on the server side, wait \n",
                      __LINE__, path.c_str_utf8());
            return 0;
        case SPROTO_ERR_CONFLICT_MAC_ATTR:
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): UploadFile: wait until '%s' is synced with server ... \n",
                      __LINE__, path.c_str_utf8());
            return 0;
        default:
            break;
    }
    if ((code & 0xF000) == SPROTO_ERR_CONFLICT) {
        WorkerLog(Logger::L_INFO, "[INFO] worker(%d): UploadFile: Pathname '%s' conflict.\n",
                  __LINE__, path.c_str_utf8());
        ConnectionPool* pool = g_pool.load();
        const ustring client = pool != nullptr ? pool->getClientName() : ustring();
        return ConflictRename(GetFullPath(), client, "Conflict") < 0 ? ERR_SYS : ERR_INT;
    }
    if ((code & 0xF000) == SPROTO_ERR_RESUME) return ERR_INT;  // the next try takes a new token
    WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): UploadFile: Bad response: %s\n", __LINE__,
              response["error"].toString().c_str_utf8());
    if (code == SPROTO_ERR_INTERNAL) {
        RemoveDatabaseInfo();
        return ERR_INT;
    }
    return ProtoResp2ErrorCode(code, PROTO_RESP_WORKER);
}

int Worker::TestUploadLocalFilter() {
    notify_event_type = NOTIFY_NONE;
    const Event& e = context.current_event;
    const ustring& full = GetFullPath();
    auto filtered = [&](int code) {
        WorkerLog(Logger::L_WARNING, "[WARNING] worker(%d): Filtered Event: '%s' (blocked: %d)\n",
                  __LINE__, e.m_path.c_str_utf8(), code);
        notify_event_type = NOTIFY_FILTERED;
        return 0;
    };
    int rc = TestCommonFilter();
    if (rc != 0) {
        if (rc == FILTER_EXT_SELECTIVE_SYNC || rc == FILTER_PATH_PREFIX_SELECTIVE_SYNC ||
            rc == FILTER_NAME_SELECTIVE_SYNC)
            AddFilteredEventToDB(e, rc);
        return filtered(rc);
    }
    if (ReportLocked(LockedForReading(full), full)) return ERR_LOCKED_FILE;
    FILE_INFO info;
    if (FSStat(full, info) < 0) {
        WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): Failed to get file status for '%s'.\n",
                  __LINE__, full.c_str_utf8());
        return ERR_SYS;
    }
    if (!info.isExist) return 1;
    if ((rc = BlackList2::getInstance().TestFileSize(info.size)) != 0) return filtered(rc);
    BlackList2* session = GetBlackList();
    if (session != nullptr && (rc = session->TestFileSize(info.size)) != 0) {
        if (rc == FILTER_FILE_SIZE_SELECTIVE_SYNC) AddFilteredEventToDB(e, rc);
        return filtered(rc);
    }
    return 1;
}

bool Worker::IsUploadLocalFakeEvent(const FILE_INFO& local) {
    if (!local.isExist) {
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): UploadLocal: '%s' cannot be uploaded (vanish)\n", __LINE__,
                  GetPath().c_str_utf8());
        return true;
    }
    if (local.type != FT_FILE && local.type != FT_DIR) {
        // Links and special files stay local: a link is never followed out of the folder.
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): UploadLocal: '%s' cannot be uploaded (unsupported file)\n",
                  __LINE__, GetPath().c_str_utf8());
        notify_event_type = NOTIFY_FILTERED;
        return true;
    }
    return false;
}

bool Worker::IsUploadLocalFakeRequest(const PObject& request) {
    const bool is_dir = request["is_dir"].asBool();
    if (!is_dir && (!request.hasMember("file") || !request["file"]["refer"].asBool())) return false;
    if (!Refers(request, "mac_attribute") || !Refers(request, "exec_bit")) return false;
    WorkerLog(Logger::L_INFO, "[INFO] worker(%d): upload fake request\n", __LINE__);
    return true;
}

int Worker::PrepareFileBlock(PObject& request, TempFile& signature) {
    const ustring& full = GetFullPath();
    const ClientFileEventInfo& db = context.database_record;
    FILE_INFO first;
    if (FSStat(full, first) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): PrepareFileBlock: Failed to get file status for '%s', "
                  "redo\n",
                  __LINE__, full.c_str_utf8());
        return ERR_SYS;
    }
    PObject& file = request["file"];
    file["size"] = first.size;
    if (db.syncID != 0 && !LocallyModified(first, db, ustring()) &&
        !MayHideASameSecondWrite(first, db)) {
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): PrepareFileBlock: File '%s' is not modified (weak check)\n",
                  __LINE__, full.c_str_utf8());
        file["hash"] = db.fileCheckSum;
        file["refer"] = true;
        return 0;
    }
    if (signature.create() < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): PrepareFileBlock: Failed to create signature \n", __LINE__);
        return ERR_SYS;
    }
    ustring hash;
    SimpleFileReader reader;
    reader.setAbortFlag(AbortFlag());
    reader.setFile(full);
    reader.setHashString(hash);
    reader.setSignature(signature.getPath(), kSignatureBlock, kSignatureHash);
    TempFile delta(GetWorkingDirectory());
    const bool use_delta = db.syncID != 0 && db.IsFile() && db.fileSize != 0 &&
                           db.fileSize <= kDeltaLimit && first.size <= kDeltaLimit &&
                           !db.signaturePath.empty() && IsFileExist(db.signaturePath);
    if (use_delta) {
        if (delta.create() < 0) {
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): PrepareFileBlock: Failed to create temporary delta "
                      "file, try it again\n",
                      __LINE__);
            return ERR_SYS;
        }
        WorkerLog(Logger::L_DEBUG,
                  "[DEBUG] worker(%d): PrepareFileBlock: prepare delta file at '%s'\n", __LINE__,
                  delta.getPath().c_str_utf8());
        const DeltaMode mode =
            Settings::getInstance().useDeltaRealign() ? DeltaMode::REALIGNED : DeltaMode::CHUNKED;
        reader.setDelta(delta.getPath(), db.signaturePath, mode);
    } else {
        WorkerLog(Logger::L_DEBUG,
                  "[DEBUG] worker(%d): PrepareFileBlock: Cannot retrieve base event info for file "
                  "'%s'\n",
                  __LINE__, full.c_str_utf8());
    }
    const int read = reader.readFile();
    // A pause or a stop ends the read: that is the loop's business, not a failure.
    if (read == FileReader::ERROR_ABORT) return streamErr2DaemonErr(ERR_INT);
    if (read != 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): PrepareFileBlock: Failed to read file for '%s', try it "
                  "again\n",
                  __LINE__, full.c_str_utf8());
        return ERR_SYS;
    }
    file["hash"] = hash;
    if (db.syncID != 0 && hash == db.fileCheckSum) {
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): PrepareFileBlock: File content of '%s' is not changed, do "
                  "refer\n",
                  __LINE__, full.c_str_utf8());
        file["refer"] = true;
        return 0;
    }
    FILE_INFO second;
    if (FSStat(full, second) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): PrepareFileBlock: Failed to get file status for '%s', "
                  "undo\n",
                  __LINE__, full.c_str_utf8());
        return ERR_SYS;
    }
    if (first != second) {
        // The hash may not match the bytes that would be sent.
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): PrepareFileBlock: File '%s' is modified while preparing "
                  "upload (file system), try it again\n",
                  __LINE__, full.c_str_utf8());
        return ERR_INT;
    }
    file["refer"] = false;
    file["is_delta"] = use_delta;
    PObject::binary_type data;
    if (!use_delta) {
        data.path = full;
        data.length = second.size;
        file["data"] = data;
        return 0;
    }
    delta.convert_permanent();
    FILE_INFO made;
    const int rc = FSStat(delta.getPath(), made);
    if (rc < 0 || !made.isExist) {
        WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): PrepareFileBlock: FSStat(%s) returns %d\n",
                  __LINE__, delta.getPath().c_str_utf8(), rc);
        FSRemove(delta.getPath());
        return ERR_SYS;
    }
    data.path = delta.getPath();
    data.length = made.size;
    file["data"] = data;
    return 0;
}

int Worker::PrepareMtime(const FILE_INFO& local, const ClientFileEventInfo& db, PObject& request) {
    request["mtime"]["refer"] = db.syncID != 0 && FSTimeEqual(db.fileModTime, local.mtime);
    request["mtime"]["mtime"] = local.mtime;
    return 0;
}

// Neither extended attributes nor an execute bit are sent from this platform.
int Worker::PrepareMacAttrFile(PObject& request) {
    request["mac_attribute"]["refer"] = true;
    return 0;
}

int Worker::PrepareExecBit(PObject& request) {
    request["exec_bit"]["refer"] = true;
    return 0;
}

int Worker::ProtoUploadObject(Channel& ch, PObject& request, PObject& response) {
    const int rc = RunProtocol(ch, SCMD_EVT_RECV_4, request, response);
    return rc > 0 ? 0 : rc;
}

int Worker::ProtoResumeUploadObject(Channel& ch, PObject& request, PObject& response) {
    PObject ask, answer;
    ask["session"] = request["session"];
    ask["view_id"] = request["view_id"];
    AppendAgent(ask);
    if (!request.hasMember("_resume_token")) {
        ask["_action"] = "resume_get_token";
        int rc = RunProtocol(ch, SCMD_RESUME_TRANSFER, ask, answer);
        if (rc < 0) return rc;
        if (answer.hasMember("error")) {
            response = answer;
            return 0;
        }
        request["_resume_token"] = answer["resume_token"];
        cached_request["_resume_token"] = answer["resume_token"];

        PObject dry = request, dry_answer;
        dry["_action"] = "upload";
        dry["dry_run"] = true;
        dry.asMap().erase("_resume_token");
        if (dry.hasMember("file")) dry["file"].asMap().erase("data");
        if (dry.hasMember("mac_attribute")) dry["mac_attribute"].asMap().erase("data");
        rc = RunProtocol(ch, SCMD_EVT_RECV_4, dry, dry_answer);
        if (rc < 0) return rc;
        if (dry_answer.hasMember("error")) {
            WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): Worker (%d): upload file: %s\n", __LINE__,
                      GetId(), dry_answer["error"].toString().c_str_utf8());
            response = dry_answer;
            return 0;
        }
        const uint64_t file_id = dry_answer["file"]["file_id"].asUInt64();
        if (file_id != 0) {
            // The server holds this content already: the upload names it instead of sending it.
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): Server side has same file hash '%s' in file_id "
                      "'%llu'.\n",
                      __LINE__, request["file"]["hash"].asString().c_str_utf8(),
                      static_cast<unsigned long long>(file_id));
            request["file"]["refer"] = true;
            request["file"]["file_id"] = file_id;
            request["file"].asMap().erase("data");
        }
    } else {
        ask["_action"] = "resume_get_status";
        ask["_resume_token"] = request["_resume_token"];
        const int rc = RunProtocol(ch, SCMD_RESUME_TRANSFER, ask, answer);
        if (rc < 0) return rc;
        if (answer.hasMember("error")) {
            response = answer;
            return 0;
        }
        if (answer.hasMember("file") && request["file"]["data"].isBinary()) {
            const uint64_t offset = answer["file"]["offset"].asUInt64();
            WorkerLog(Logger::L_DEBUG,
                      "[DEBUG] worker(%d): Worker (%d): adjust upload file offset to %llu\n",
                      __LINE__, GetId(), static_cast<unsigned long long>(offset));
            PObject::binary_type& data = request["file"]["data"].asBinary();
            // The total stays that of the cached request: the offset counts from its start.
            const uint64_t total = cached_request["file"]["data"].asBinary().length;
            data.offset = offset < total ? offset : total;
            data.length = total - data.offset;
        }
    }
    const int rc = RunProtocol(ch, SCMD_RESUME_TRANSFER, request, response);
    return rc > 0 ? 0 : rc;
}

int Worker::CommitDatabaseUpload(const PObject& request, const PObject& response,
                                 const ClientFileEventInfo& base, const ustring& sign_path) {
    ClientFileEventInfo row;
    row.syncID = response["sync_id"].asUInt64();
    row.maxSyncID = IsLegacyServer() ? row.syncID : response["max_id"].asUInt64();
    row.fileType = response["is_dir"].asBool() ? 1 : 0;
    row.isExist = 1;
    row.path = GetPath();
    row.baseName = BaseName(row.path);
    if (row.IsFile()) {
        const PObject& answered = response["file"];
        const bool sent = request.hasMember("file") &&
                          (!answered["refer"].asBool() || answered["file_id"].asUInt64() != 0);
        row.fileSize = sent ? request["file"]["size"].asUInt64() : base.fileSize;
        row.fileCheckSum = sent ? request["file"]["hash"].asString() : base.fileCheckSum;
    }
    row.fileModTime = Sent(request["mtime"], "mtime", base.fileModTime, &PObject::asUInt32);
    row.macHash = Sent(request["mac_attribute"], "hash", base.macHash, &PObject::asString);
    row.execBit = Sent(request["exec_bit"], "exec_bit", base.execBit, &PObject::asUInt32);
    row.signaturePath = !sign_path.empty() ? sign_path : base.signaturePath;
    if (UpdateDatabaseInfo(row) != 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): CommitDatabase: Failed to update local event database. "
                  "Error code = %d\n",
                  __LINE__, -1);
        return -1;
    }
    const uint64_t sess = context.current_event.m_sess_id;
    if (FilterDB::getInstance().rmLocalFilteredEventByPath(sess, row.path) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): CommitDatabase: Failed to remvoe filter db record for "
                  "session '%llu', path '%s' .\n",
                  __LINE__, static_cast<unsigned long long>(sess), row.path.c_str_utf8());
        return -1;
    }
    return 0;
}

int Worker::CheckLocalModification(const PObject& request) {
    FILE_INFO info;
    if (FSStat(GetFullPath(), info) < 0) {
        WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): Failed to get local file info at '%s'.\n",
                  __LINE__, GetFullPath().c_str_utf8());
        return -1;
    }
    if (!info.isExist) {
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): File removed during upload progress, add event remove for "
                  "'%s'\n",
                  __LINE__, GetPath().c_str_utf8());
        PushRemoveEvent(GetPath(), request["is_dir"].asBool());
    }
    return 0;
}
