// worker.cpp: the loop, the context, the routing and the fate of an event.
#include "worker/worker.h"

#include <cstdarg>

#include "events/detector.h"
#include "events/event-manager.h"
#include "events/ui-ipc.h"
#include "foundation/error-code.h"
#include "foundation/file-op.h"
#include "foundation/log.h"
#include "worker/worker-log.h"

namespace {

struct ErrorRule {
    int action;  // 0 done, 1 wait and retry, 2 give back, -1 unexpected
    Worker::ErrorType type;
};

// By -err, for 0 to -23.
constexpr ErrorRule kErrorTable[] = {
    {0, Worker::ERR_NONE},        // 0 success
    {2, Worker::ERR_NONE},        // -1 interrupted
    {1, Worker::ERR_NONE},        // -2 I/O
    {1, Worker::ERR_NONE},        // -3 system
    {-1, Worker::ERR_NONE},       // -4 invalid argument
    {-1, Worker::ERR_NONE},       // -5 protocol
    {2, Worker::ERR_CONNECTION},  // -6 authentication
    {1, Worker::ERR_NONE},        // -7 server
    {-1, Worker::ERR_NONE},       // -8 conflict
    {1, Worker::ERR_NONE},        // -9 time-out
    {2, Worker::ERR_CONNECTION},  // -10 version
    {-1, Worker::ERR_NONE},       // -11 no such entry
    {-1, Worker::ERR_NONE},       // -12 user
    {-1, Worker::ERR_NONE},       // -13 password
    {2, Worker::ERR_SESSION},     // -14 disabled
    {2, Worker::ERR_SESSION},     // -15 quota
    {2, Worker::ERR_SESSION},     // -16 server disk full
    {-1, Worker::ERR_NONE},       // -17 sync folder missing
    {2, Worker::ERR_SESSION},     // -18 view
    {2, Worker::ERR_SESSION},     // -19 permission
    {-1, Worker::ERR_NONE},       // -20 path in view
    {1, Worker::ERR_NONE},        // -21 aborted by the flag
    {2, Worker::ERR_SESSION},     // -22 local disk full
    {2, Worker::ERR_FILE},        // -23 locked file
};
static_assert(sizeof(kErrorTable) / sizeof(kErrorTable[0]) == -ERR_MAX);

// Three system errors in a row are retried; the fourth gives the event back.
constexpr int kSystemErrorLimit = 3;
// A download whose patch failed more often than this is dropped.
constexpr size_t kPatchErrorLimit = 2;

// What a non-recursive session syncs: the files directly under its root, and of the
// directories only the root itself.
bool IsOnlyTopLevel(const Event& e) {
    if (e.isDir()) return e.m_path == ustring("/");
    size_t slashes = 0;
    for (size_t i = 0; i < e.m_path.size(); ++i) slashes += e.m_path[i] == '/' ? 1 : 0;
    return slashes < 2;
}

// True when `path` names something inside `dir`: a received file of ours, never a name
// that climbs out of it.
bool IsInside(const ustring& dir, const ustring& path) {
    if (dir.empty()) return false;
    const std::string prefix = dir.str() + "/";
    const std::string name = path.str();
    if (name.compare(0, prefix.size(), prefix) != 0) return false;
    const std::string rest = "/" + name.substr(prefix.size()) + "/";
    return rest.find("/../") == std::string::npos;
}

// The path of the file behind a binary member, or empty.
ustring BinaryPath(const PObject& p, const char* member) {
    const PObject& data = p[member]["data"];
    return data.isBinary() ? data.asBinary().path : ustring();
}

const ustring& Component() {
    static const ustring component("worker_debug");
    return component;
}

}  // namespace

void WorkerLog(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Logger::LogMsg2(level, Component(), format, args);
    va_end(args);
}

bool WorkerLogOn(int level) {
    return Logger::Enabled(level, Component());
}

// ---- context ----

void Worker::EventContext::clear() {
    current_event.clear();
    root_entry.clear();
    database_record.Clear();
    working_directory.clear();
    sign_directory.clear();
    full_path.clear();
}

Worker::Worker() {
    m_handlers.upload_local = &Worker::UploadLocal;
    m_handlers.download_remote = &Worker::DownloadRemote;
    m_handlers.remove_local = &Worker::RemoveLocal;
    m_handlers.remove_remote = &Worker::RemoveRemote;
    m_handlers.rescan = &Worker::Rescan;
    m_handlers.expand = &Worker::Expand;
    m_handlers.expand_delete_event = &Worker::ExpandDeleteEvent;
}

// The thread must end before the members it works on go.
Worker::~Worker() {
    Stop();
    Join();
}

ustring Worker::GetRecycleBinDir() const {
    return context.working_directory + "/" + Detector::kRecycleBin;
}

void Worker::ClearContext() {
    context.clear();
    notify_event_type = NOTIFY_NONE;
}

// ---- the loop ----

void Worker::DoTask() {
    WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): Worker (%d) up\n", __LINE__, GetId());
    for (;;) {
        NotifyAbortDone();
        const State state = GetState();
        if (state == STOP) {
            ClearCache();
            WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): Worker (%d) down\n", __LINE__, GetId());
            return;
        }
        if (state == PAUSE) {
            WaitWhilePaused(1000);
            continue;
        }
        if (GetEvent() < 0) {
            ClearCurrentProcessEventInfo();
            Wait(1);
            continue;
        }
        if (UpdateContext() < 0) continue;
        SetAbort(false);
        CarryOut();
    }
}

void Worker::CarryOutWalk() {
    const bool rescan = context.current_event.isRescan();
    const int rc = rescan ? m_handlers.rescan(*this) : m_handlers.expand(*this);
    m_walking_session = 0;
    // A walk that failed on its own is finished: what it pushed stands, and a later walk
    // is asked for anew. One a pause or a stop cut short goes back whole and runs again
    // when its session does; without waiting, so that the pause is answered at once.
    if (rc >= 0 || !IsAborted()) {
        DoneEvent();
        return;
    }
    if (EventManager::getInstance().RedoEvent(this, context.current_event) != 0)
        WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): Worker (%d): failed to redo event\n",
                  __LINE__, GetId());
    ClearCache();
    ClearContext();
}

void Worker::CarryOut() {
    if (context.current_event.isRescan() || context.current_event.isExpand()) {
        CarryOutWalk();
        return;
    }
    const int result = ProcessEvent();
    ClearCurrentProcessEventInfo();
    const int action = HandleError(result);
    switch (action) {
        case 0:
            DoneEvent();
            return;
        case 2:
            RedoEvent();
            return;
        case 1:
            Wait(3);
            return;
        default:
            if (action >= 0) return;
            // Retried for ever on purpose: the event keeps its place and its caches.
            WorkerLog(Logger::L_CRIT, "[CRIT] worker(%d): abort()\n", __LINE__);
            Wait(3);
    }
}

int Worker::Pause() {
    SetAbortFlag(1);
    return Task::Pause();
}

int Worker::Resume() {
    SetAbortFlag(0);
    return Task::Resume();
}

int Worker::Stop() {
    SetAbortFlag(1);
    return Task::Stop();
}

int Worker::SetAbort(bool abort) {
    SetAbortFlag(abort ? 1 : 0);
    return 0;
}

// ---- the event ----

int Worker::GetEvent() {
    Event& current = context.current_event;
    if (current.isValid()) {
        // A wait kept the event and its caches: the same transfer goes on.
        WorkerLog(Logger::L_INFO, "[INFO] worker(%d): current event is valid: %s\n", __LINE__,
                  current.toString().c_str_utf8());
        AdjustCurrentProcessEventInfo();
        return 0;
    }
    Event e;
    if (EventManager::getInstance().PullEvent(this, e) < 0) {
        ClearCache();
        ClearContext();
        return -1;
    }
    current = e;
    ClearCache();
    AdjustCurrentProcessEventInfo();
    if (WorkerLogOn(Logger::L_DEBUG))
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): Worker (%d): current event: %s\n", __LINE__,
                  GetId(), current.toString().c_str_utf8());
    return 0;
}

int Worker::UpdateContext() {
    const Event& e = context.current_event;
    Registry::Entry entry;
    if (Registry::getInstance().Find(e.m_sess_id, entry) != 1) {
        WorkerLog(Logger::L_NOTICE,
                  "[NOTE] worker(%d): registry entry (with session %llu) is removed\n", __LINE__,
                  static_cast<unsigned long long>(e.m_sess_id));
        ClearCurrentProcessEventInfo();
        DoneEvent();
        return -1;
    }
    context.root_entry = entry;
    context.working_directory = entry.local_path + "/" + Detector::kWorkingDirectory;
    context.sign_directory = entry.config_path + "/db/sign";
    context.full_path = e.m_path == ustring("/") ? entry.local_path : entry.local_path + e.m_path;
    // Walks wait too: a paused session does no work on its folder, and a long walk is.
    if (entry.pause) {
        WorkerLog(Logger::L_DEBUG,
                  "[DEBUG] worker(%d): Worker (%d): session %llu is paused, process this event "
                  "(%s) later\n",
                  __LINE__, GetId(), static_cast<unsigned long long>(entry.sess_id),
                  e.m_path.c_str_utf8());
        ClearCurrentProcessEventInfo();
        RedoEvent();
        return -1;
    }
    if (WorkerLogOn(Logger::L_INFO))
        WorkerLog(Logger::L_INFO, "[INFO] worker(%d): Worker (%d): current event: %s\n", __LINE__,
                  GetId(), e.toString().c_str_utf8());
    if (!entry.recursive && !IsOnlyTopLevel(e)) {
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): filter out recursive events (%s, %s)\n",
                  __LINE__, e.m_path.c_str_utf8(), e.isDir() ? "dir" : "file");
        ClearCurrentProcessEventInfo();
        DoneEvent();
        return -1;
    }
    ClientFileEventInfo info;
    if (entry.event_db == nullptr || entry.event_db->getEventInfo(e.m_path, info) != 1)
        info.Clear();
    context.database_record = info;
    return 0;
}

int Worker::ProcessEvent() {
    const Event& e = context.current_event;
    if (WorkerLogOn(Logger::L_DEBUG))
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): Worker (%d): processEvent %s...\n",
                  __LINE__, GetId(), e.toString().c_str_utf8());
    // The rescan-below flags come first: such an event is about the children, whatever
    // its own side and type.
    if (e.isSubDirRescan()) return m_handlers.expand_delete_event(*this);
    const bool removal = e.m_type == Event::EV_REMOVE;
    if (e.isServerEvent())
        return removal ? m_handlers.remove_local(*this) : m_handlers.download_remote(*this);
    if (!removal && ServerRemovalStands()) return m_handlers.remove_local(*this);
    return removal ? m_handlers.remove_remote(*this) : m_handlers.upload_local(*this);
}

bool Worker::ServerRemovalStands() {
    const Event& e = context.current_event;
    const ClientFileEventInfo& db = context.database_record;
    if (!e.hasServerRemoval() || e.isDir() || db.syncID == 0) return false;
    FILE_INFO local;
    if (GetFilesystemInfo(local) < 0 || !local.isExist || local.type != FT_FILE) return false;
    if (LocallyModified(local, db, ustring())) return false;
    WorkerLog(Logger::L_INFO,
              "[INFO] worker(%d): '%s' is unchanged since its row: the server's removal it "
              "held back goes ahead\n",
              __LINE__, e.m_path.c_str_utf8());
    return true;
}

int Worker::DoneEvent() {
    if (notify_event_type > NOTIFY_FILTERED) NotifyEvent(notify_event_type);
    notify_event_type = NOTIFY_NONE;
    Event newer;
    if (EventManager::getInstance().DoneEvent(this, newer) < 0) {
        WorkerLog(Logger::L_DEBUG,
                  "[DEBUG] worker(%d): Worker (%d): processing event '%s' not yet done.\n",
                  __LINE__, GetId(), context.current_event.m_path.c_str_utf8());
        context.current_event = newer;
        ClearCache();
        return -1;
    }
    const Event& e = context.current_event;
    // The row was written under the session root when the event was queued; a session
    // that is gone left no root to find it by.
    if (!context.root_entry.local_path.empty())
        EventManager::SyncedEvent2FStatDB(
            EventManager::StatusPath(context.root_entry.local_path, e.m_path));
    if (e.isSubDirRescan()) CreateDirSelfEvent();
    WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): Worker (%d): processing event '%s' done\n",
              __LINE__, GetId(), e.m_path.c_str_utf8());
    ClearCache();
    ClearContext();
    return 0;
}

void Worker::RedoEvent() {
    if (EventManager::getInstance().RedoEvent(this, context.current_event) != 0)
        WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): Worker (%d): failed to redo event\n",
                  __LINE__, GetId());
    ClearCache();
    ClearContext();
    Wait(2);
}

// ---- errors and what the user hears ----

int Worker::HandleError(int err) {
    if (err > 0 || err <= ERR_MAX) {
        WorkerLog(Logger::L_CRIT, "[CRIT] worker(%d): worker: unknown error code [%d].\n", __LINE__,
                  err);
        return -1;
    }
    WorkerLog(Logger::L_INFO, "[INFO] worker(%d): Worker (%d): HandleError: %s.\n", __LINE__,
              GetId(), GetErrorString(err));
    const ErrorRule rule = kErrorTable[-err];
    int action = rule.action;
    if (action < 0) {
        WorkerLog(Logger::L_CRIT, "[CRIT] worker(%d): Worker (%d): unexpected error code [%d].\n",
                  __LINE__, GetId(), err);
        return action;
    }
    if (err == ERR_SYS) {
        ClearCache();
        if (++sys_err_count > kSystemErrorLimit) {
            sys_err_count = 0;
            action = 2;
        }
        // A patch that keeps failing on an unchanged basis will not fit next time either.
        if (patch_err_count > kPatchErrorLimit) {
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): Worker (%d): patch error count has reached limit, "
                      "event will be dropped.\n",
                      __LINE__, GetId());
            patch_err_count = 0;
            action = 0;
            // The server's copy stays out of reach: the user must hear of it.
            UI_IPC::ReportSessionErrorToUI(context.current_event.m_sess_id, err);
        }
    } else {
        sys_err_count = 0;
        patch_err_count = 0;
    }
    if (err == ERR_LOCAL_DISKFULL) {
        WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): get disk full\n", __LINE__);
        ClearCache();
    }
    ReportError(rule.type, err);
    return action;
}

void Worker::ReportError(ErrorType type, int err) {
    const Event& current = context.current_event;
    switch (type) {
        case ERR_SESSION:
            UI_IPC::ReportSessionErrorToUI(current.m_sess_id, err);
            return;
        case ERR_CONNECTION: {
            ConnectionPool* pool = g_pool.load();
            UI_IPC::ReportConnectionErrorToUI(
                static_cast<int>(pool != nullptr ? pool->getConnectionId() : 0), err);
            return;
        }
        case ERR_FILE: {
            Event e;
            e.m_path = current.m_path;
            e.m_sess_id = current.m_sess_id;
            e.m_mode = current.m_mode;
            UI_IPC::ReportFileLockedEventToUI(e, err);
            return;
        }
        case ERR_NONE:
            WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): No type for error: %d\n", __LINE__,
                      err);
            return;
    }
}

int Worker::NotifyEvent(NotifyEventType type) {
    Event e;
    switch (type) {
        case NOTIFY_SERVER_MODIFY:
        case NOTIFY_CLIENT_MODIFY:
            e.m_type = Event::EV_MODIFY;
            break;
        case NOTIFY_SERVER_REMOVE:
        case NOTIFY_CLIENT_REMOVE:
            e.m_type = Event::EV_REMOVE;
            break;
        case NOTIFY_NONE:
        case NOTIFY_FILTERED:
            e.m_type = Event::EV_EMPTY;
            break;
    }
    e.m_path = context.current_event.m_path;
    e.m_sess_id = context.current_event.m_sess_id;
    e.m_mode = context.current_event.m_mode;
    WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): event type = %d, path = %s\n", __LINE__,
              static_cast<int>(e.m_type), e.m_path.c_str_utf8());
    if (e.m_type != Event::EV_EMPTY) UI_IPC::ReportFileEventToUI(e);
    return 0;
}

// ---- what an interrupted transfer keeps ----

void Worker::ClearCache() {
    ClearPObject(cached_response);
    ClearPObject(cached_request);
    if (!upload_sign_file.empty()) FSRemove(upload_sign_file);
    upload_sign_file.clear();
}

void Worker::ClearPObject(PObject& p) {
    // A request names the user's own file as its data; only what we received is ours.
    const ustring data = BinaryPath(p, "file");
    if (IsInside(context.working_directory, data)) FSRemove(data);
    const ustring attributes = BinaryPath(p, "mac_attribute");
    if (!attributes.empty()) FSRemove(attributes);
    p.clear();
}

// ---- status and the drop barrier ----

void Worker::GetWorkingStatus(uint64_t& session_id, ustring& path, WorkingType& w_type,
                              uint64_t& sent, uint64_t& total_size) {
    session_id = 0;
    path.clear();
    w_type = W_TYPE_NONE;
    sent = 0;
    total_size = 0;
    if (GetState() != RUN) return;
    ustring history;
    trans_stream.GetStatus(history, sent, total_size);
    // Only a file body counts as progress; the rest of a request is bookkeeping. The
    // stream's key path is then the "data" value of the message's "file" member, both ways.
    if (history != ustring("file.data")) {
        sent = 0;
        total_size = 0;
    }
    ProcessEvent_T info;
    GetCurrentProcessEventInfo(info);
    session_id = info.session_id;
    path = info.path;
    w_type = info.working_type;
}

void Worker::SetCurrentProcessEventInfo(uint64_t sess_id, const ustring& path, WorkingType w_type) {
    MutexLock lock(worker_state_lock);
    m_current_event.session_id = sess_id;
    m_current_event.path = path;
    m_current_event.working_type = w_type;
}

void Worker::GetCurrentProcessEventInfo(ProcessEvent_T& info) {
    MutexLock lock(worker_state_lock);
    info = m_current_event;
}

void Worker::ClearCurrentProcessEventInfo() {
    MutexLock lock(worker_state_lock);
    m_current_event = ProcessEvent_T();
    m_walking_session = 0;
}

void Worker::AdjustCurrentProcessEventInfo() {
    const Event& e = context.current_event;
    if (e.isExpand() || e.isRescan()) {
        ClearCurrentProcessEventInfo();
        m_walking_session = e.m_sess_id;
        return;
    }
    SetCurrentProcessEventInfo(e.m_sess_id, e.m_path, W_TYPE_NONE);
}

void Worker::PauseType_T::WaitForAll() {
    while (count > 0) pause_cond.WaitFor(pause_mutex, std::chrono::milliseconds(1000));
}

void Worker::setPauseInstance(PauseType_T* instance) {
    pause_instance.store(instance);
}

void Worker::NotifyAbortDone() {
    // Taken, not read: each installed barrier hears from this worker once.
    PauseType_T* barrier = pause_instance.exchange(nullptr);
    if (barrier == nullptr) return;
    MutexLock lock(barrier->pause_mutex);
    if (barrier->count > 0) --barrier->count;
    WorkerLog(Logger::L_INFO, "[INFO] worker(%d): worker %d done abort\n", __LINE__, GetId());
    if (barrier->count != 0) return;
    WorkerLog(Logger::L_INFO, "[INFO] worker(%d): worker %d signal the command thread\n", __LINE__,
              GetId());
    barrier->pause_cond.NotifyAll();
}
