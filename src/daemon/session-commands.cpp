// session-commands.cpp: linking and unlinking the daemon, and the life of a session:
// added (paused, its root rescan queued), paused, resumed, removed.
#include <chrono>
#include <thread>

#include "daemon/app-log.h"
#include "daemon/app.h"
#include "daemon/filter-reload.h"
#include "daemon/worker-drop.h"
#include "events/detector.h"
#include "events/event-generator.h"
#include "events/event-manager.h"
#include "filter/black-list-v2.h"
#include "filter/white-list-cpp.h"
#include "foundation/file-op.h"
#include "foundation/log.h"
#include "foundation/policy.h"
#include "foundation/request-keys.h"
#include "foundation/settings.h"
#include "pulling/progress-cache.h"
#include "pulling/progress-syncer.h"
#include "pulling/syncer.h"
#include "runtime/recycle-cleaner.h"
#include "runtime/registry.h"
#include "runtime/session-folders.h"
#include "state/file-event-db.h"
#include "state/file-status-db.h"
#include "state/filter-db.h"
#include "transport/connection-pool.h"
#include "worker/worker.h"

namespace {

using ull = unsigned long long;

// More workers than this would only queue on the disk and the server; a larger count in
// the configuration is a mistake, not a wish.
constexpr size_t kMaxWorkerCount = 64;

// How long "remove_session" waits for the tasks to let go of a paused session's objects
// (the syncer between two rounds, a worker giving an event back).
constexpr auto kReleaseLimit = std::chrono::seconds(15);

// A folder path as the session keeps it: without a trailing "/" (the root stays "/"),
// since event paths that begin with "/" are appended to it.
ustring Folder(const ustring& path) {
    std::string s = path.str();
    while (s.size() > 1 && s.back() == '/') s.pop_back();
    return ustring(s.c_str());
}

bool IsFolder(const ustring& path) {
    FILE_INFO info;
    return FSStat(path, info) == 0 && info.isExist && info.type == FT_DIR;
}

// `inner` is `outer` or lies below it.
bool IsWithin(const ustring& inner, const ustring& outer) {
    const std::string a = inner.str();
    const std::string b = outer.str();
    if (a.compare(0, b.size(), b) != 0) return false;
    return a.size() == b.size() || b == "/" || a[b.size()] == '/';
}

// Two sessions on one folder, or one inside the other, would each take the other's
// changes for their own. True (logged) when `local_path` meets a session's folder.
bool OverlapsASession(const ustring& local_path) {
    for (uint64_t id : Registry::getInstance().Ids()) {
        Registry::Entry entry;
        if (Registry::getInstance().Find(id, entry) != 1) continue;
        if (!IsWithin(local_path, entry.local_path) && !IsWithin(entry.local_path, local_path))
            continue;
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): sync folder (%s) overlaps the folder of session %llu\n",
                       __LINE__, local_path.c_str_utf8(), static_cast<ull>(id));
        return true;
    }
    return false;
}

// True while some task other than the caller still holds a copy of the session's entry.
bool SessionInUse(uint64_t sess_id) {
    Registry::Entry entry;
    if (Registry::getInstance().Find(sess_id, entry) != 1) return false;
    // The table's own and the one just made.
    return entry.copies.copies() > 2;
}

// Marks one session, or every one for 0, paused or running; an unknown id does nothing.
// Tasks see it at their next look at the entry.
void SetPaused(uint64_t sess_id, bool paused) {
    Registry& registry = Registry::getInstance();
    const std::vector<uint64_t> ids =
        sess_id == 0 ? registry.Ids() : std::vector<uint64_t>{sess_id};
    for (uint64_t id : ids) {
        Registry::Entry entry;
        if (registry.Find(id, entry) != 1) continue;
        Logger::LogMsg(Logger::L_INFO, kAppLog,
                       paused ? "[INFO] app(%d): pause session %llu\n"
                              : "[INFO] app(%d): resume session %llu\n",
                       __LINE__, static_cast<ull>(id));
        entry.pause = paused;
        registry.Set(entry);
    }
}

// "session_id" may be left out (all sessions) but, when given, must be an integer: any
// other value would read as 0 and reach every session. False with the reply's "error".
bool SessionIdOrAll(const PObject& request, PObject& reply) {
    if (OptionalKey(request, "session_id", KeyKind::INTEGER)) return true;
    Logger::LogMsg(Logger::L_ERR, kAppLog, "[ERROR] app(%d): Invalid parameters.\n", __LINE__);
    reply["error"] = "Invalid parameters.";
    return false;
}

}  // namespace

// ---- link and unlink ----

int Tarnbridge::do_link(const PObject&, PObject& reply) {
    if (linked) {
        Logger::LogMsg(Logger::L_ERR, kAppLog, "[ERROR] app(%d): the daemon is already linked\n",
                       __LINE__);
        reply["error"] = "Already linked.";
        return -1;
    }
    Logger::LogMsg(Logger::L_INFO, kAppLog, "[INFO] app(%d): upload delta mode: %s\n", __LINE__,
                   Settings::getInstance().useDeltaRealign() ? "realigned" : "chunked");
    if (init_env() != 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): failed to initialize environment\n", __LINE__);
        reply["error"] = "Failed to initialize environment";
        destroy_env();
        return -1;
    }
    if (init_tasks() != 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog, "[ERROR] app(%d): failed to initialize members\n",
                       __LINE__);
        reply["error"] = "Failed to initialize members";
        destroy_members();
        destroy_env();
        return -1;
    }
    start_all();
    linked = true;
    return 0;
}

int Tarnbridge::do_unlink(const PObject&, PObject&) {
    Logger::LogMsg(Logger::L_INFO, kAppLog, "[INFO] app(%d): unlink daemon\n", __LINE__);
    stop_all();
    destroy_members();
    destroy_env();
    linked = false;
    return 0;
}

int Tarnbridge::init_env() {
    print_settings();
    Settings& s = Settings::getInstance();
    ustring filter_db = s.getFilterDbPath();
    if (FilterDB::getInstance().initialize(filter_db) != 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): Failed to init filter DB at [%s]\n", __LINE__,
                       filter_db.c_str_utf8());
        return -1;
    }
    // Per-file status always starts empty: badges left by a crash must not linger.
    FileStatusDB::initialize(s.getFStatDbPath());
    FileStatusDB::removeAllEntry();
    ustring system_filter = s.getSystemFilterPath();
    if (BlackList2::getInstance().Load(system_filter) != 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): Failed to load system filter from %s.\n", __LINE__,
                       system_filter.c_str_utf8());
        return -1;
    }
    return 0;
}

void Tarnbridge::destroy_env() {
    FilterDB::getInstance().destroy();
    FileStatusDB::destroy();
    BlackList2::getInstance().Destroy();
    EventManager::getInstance().Clear();
    Registry::getInstance().Clear();
}

int Tarnbridge::init_tasks() {
    const size_t worker_count = Settings::getInstance().getWorkerCount();
    // The fixed tasks take the first four slots, so the count must leave room for them.
    if (worker_count < 1 || worker_count > kMaxWorkerCount) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): worker_count %zu is out of range, it must be 1 to %zu\n",
                       __LINE__, worker_count, kMaxWorkerCount);
        return -1;
    }
    task.resize(worker_count + 3);
    task[kDetectorSlot] = std::make_unique<Detector>();
    task[kRecycleCleanerSlot] = std::make_unique<RecycleCleaner>();
    task[kSyncerSlot] = std::make_unique<Syncer>();
    task[kProgressSyncerSlot] = std::make_unique<ProgressSyncer>();
    for (size_t slot = kFirstWorkerSlot; slot < task.size(); ++slot)
        task[slot] = std::make_unique<Worker>();
    Logger::LogMsg(Logger::L_DEBUG, kAppLog, "[DEBUG] app(%d): totally %lu tasks\n", __LINE__,
                   static_cast<unsigned long>(task.size()));
    return 0;
}

void Tarnbridge::start_all() {
    for (auto& t : task)
        if (t) t->Run();
}

// Every task is asked first and joined after, so they wind down side by side.
void Tarnbridge::stop_all() {
    for (auto& t : task)
        if (t) t->Stop();
    for (auto& t : task)
        if (t) t->Join();
}

void Tarnbridge::destroy_members() {
    task.clear();
    destroy_connections();
}

std::vector<Worker*> Tarnbridge::workers() const {
    std::vector<Worker*> list;
    for (size_t slot = kFirstWorkerSlot; slot < task.size(); ++slot)
        list.push_back(static_cast<Worker*>(task[slot].get()));
    return list;
}

Detector* Tarnbridge::detector() const {
    return task.size() > kDetectorSlot ? static_cast<Detector*>(task[kDetectorSlot].get())
                                       : nullptr;
}

// ---- sessions ----

int Tarnbridge::add_session(const PObject& request, PObject& reply) {
    const bool valid =
        request.hasMember("connection_id") && HasKey(request, "session_id", KeyKind::INTEGER) &&
        request["session_id"].asUInt64() != 0 && HasKey(request, "view_id", KeyKind::INTEGER) &&
        HasKey(request, "config_path", KeyKind::TEXT) &&
        HasKey(request, "sync_folder", KeyKind::TEXT) &&
        OptionalKey(request, "node_id", KeyKind::INTEGER) &&
        OptionalKey(request, "recursive", KeyKind::INTEGER) &&
        OptionalKey(request, "remote_path", KeyKind::TEXT) &&
        OptionalKey(request, "create_time", KeyKind::INTEGER) &&
        OptionalKey(request, "sync_mode", KeyKind::INTEGER);
    if (!valid) {
        Logger::LogMsg(Logger::L_ERR, kAppLog, "[ERROR] app(%d): Invalid parameters.\n", __LINE__);
        reply["error"] = "Invalid parameters.";
        return -1;
    }
    Session session;
    session.sess_id = request["session_id"].asUInt64();
    session.view_id = request["view_id"].asUInt64();
    session.node_id =
        request.hasMember("node_id") ? request["node_id"].asUInt64() : session.view_id;
    session.recursive = !request.hasMember("recursive") || request["recursive"].asBool();
    session.remote_path = request["remote_path"].asString();
    session.create_time = request["create_time"].asUInt32();
    session.config_path = Folder(request["config_path"].asString());
    session.local_path = Folder(request["sync_folder"].asString());
    const bool do_merge = !request["sync_mode"].asBool();

    if (!linked) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): session %llu is not added, the daemon is not linked\n",
                       __LINE__, static_cast<ull>(session.sess_id));
        reply["error"] = "Not linked.";
        return -1;
    }
    Registry::Entry existing;
    if (Registry::getInstance().Find(session.sess_id, existing) == 1) {
        // Replacing it would leave the first session's database open and watched.
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): session %llu is not added, it exists already\n", __LINE__,
                       static_cast<ull>(session.sess_id));
        reply["error"] = "Session already exists.";
        return -1;
    }
    existing.clear();
    if (OverlapsASession(session.local_path)) {
        reply["error"] = "Failed to create registry entry.";
        return -1;
    }
    Logger::LogMsg(Logger::L_INFO, kAppLog,
                   "[INFO] app(%d): rescan syncfolder for session '%llu' do_merge[%d].\n", __LINE__,
                   static_cast<ull>(session.sess_id), do_merge ? 1 : 0);
    if (create_registry_entry(session, do_merge) < 0) {
        Logger::LogMsg(Logger::L_WARNING, kAppLog,
                       "[WARNING] app(%d): session %llu is not added, failed to create registry "
                       "entry\n",
                       __LINE__, static_cast<ull>(session.sess_id));
        reply["error"] = "Failed to create registry entry.";
        return -1;
    }
    return 0;
}

int Tarnbridge::create_registry_entry(const Session& session, bool do_merge) {
    const ull id = session.sess_id;
    auto event_db = std::make_unique<FileEventDB>();
    auto black_list = std::make_unique<BlackList2>();
    auto white_list = std::make_unique<WhiteListCpp>();
    Detector* watcher = detector();
    const ustring conf = session.config_path + "/conf";
    if (create_session_environment(session.local_path, session.config_path) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): Failed to initiailize session environment for sesion "
                       "%llu\n",
                       __LINE__, id);
        return -1;
    }
    Logger::LogMsg(Logger::L_DEBUG, kAppLog,
                   "[DEBUG] app(%d): session environment of session %llu is done\n", __LINE__, id);
    if (event_db->initialize(session.config_path + "/db" + "/event-db.sqlite") < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): Failed to initiailize event database for session %llu\n",
                       __LINE__, id);
        return -1;
    }
    // The bin's folder was just emptied, so its table must be too.
    if (event_db->resetRecycleBin() < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): Failed to resetRecycleBin table for session %llu\n",
                       __LINE__, id);
        return -1;
    }
    if (black_list->Load(conf + "/blacklist.filter") != 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): Failed to load black list filter for session %llu\n",
                       __LINE__, id);
        return -1;
    }
    if (white_list->Load(conf + "/whitelist.filter") != 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): Failed to load white list filter for session %llu\n",
                       __LINE__, id);
        return -1;
    }
    if (watcher == nullptr || watcher->AddWatch(session.local_path, session.sess_id) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): Failed to add watch for session %llu at '%s'\n", __LINE__,
                       id, session.local_path.c_str_utf8());
        return -1;
    }

    Registry::Entry entry;
    entry.sess_id = session.sess_id;
    entry.view_id = session.view_id;
    entry.node_id = session.node_id;
    entry.recursive = session.recursive;
    entry.local_path = session.local_path;
    entry.remote_path = session.remote_path;
    entry.config_path = session.config_path;
    entry.isMSDOS = IsMSDOS(session.local_path);
    entry.pause = true;
    entry.merge_pending = do_merge;
    // From here the table owns them; Registry::Clear frees them.
    entry.event_db = event_db.release();
    entry.black_list = black_list.release();
    entry.white_list = white_list.release();
    Registry::getInstance().Set(entry);

    // Failures from here on leave a usable session in the table.
    uint64_t sync_id = 0;
    if (entry.event_db->getSyncId(sync_id) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): Failed to get sync_id for session %llu\n", __LINE__, id);
        return 0;
    }
    Logger::LogMsg(Logger::L_DEBUG, kAppLog,
                   "[DEBUG] app(%d): reload_filter for session '%llu', current sync_id [%llu]\n",
                   __LINE__, id, static_cast<ull>(sync_id));
    if (reload_filter(session.sess_id, sync_id, conf + "/blacklist.filter", entry.local_path,
                      entry.event_db) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): failed to reload_filter for session '%llu'.\n", __LINE__,
                       id);
        return 0;
    }
    if (load_resume_condition(session.sess_id) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): Failed to load_resume_condition for session '%llu'.\n",
                       __LINE__, id);
        return 0;
    }
    // The first action of any session is a look at its whole root. A merging one waits
    // for the server's listing: only the database can tell a small file already on both
    // sides from a new one, and without it the file would go up whole.
    if (!do_merge) EventManager::getInstance().IssueRescan(session.sess_id, "/", false);
    Logger::LogMsg(Logger::L_INFO, kAppLog,
                   "[INFO] app(%d): Folder '%s' is ready (with view %llu at %s)\n", __LINE__,
                   session.local_path.c_str_utf8(), static_cast<ull>(session.view_id),
                   session.remote_path.c_str_utf8());
    return 0;
}

int Tarnbridge::create_session_environment(const ustring& local_path, const ustring& config_path) {
    if (!IsValidSyncFolder(local_path)) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): local watch folder (%s) is not a directory\n", __LINE__,
                       local_path.c_str_utf8());
        return -1;
    }
    if (!IsFolder(config_path)) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): local config folder (%s) is not a directory\n", __LINE__,
                       config_path.c_str_utf8());
        return -1;
    }
    // The database inside the folder it describes would be watched and uploaded.
    if (IsWithin(config_path, local_path)) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): local config folder (%s) lies in the sync folder\n",
                       __LINE__, config_path.c_str_utf8());
        return -1;
    }
    const ustring sign = config_path + "/db/sign";
    if (FSMKDir(sign, true) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog, "[ERROR] app(%d): Failed to create folder %s\n",
                       __LINE__, sign.c_str_utf8());
        return -1;
    }
    if (session_folders::ResetWorkingDirectory(local_path) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): Failed to create recycle bin directory.\n", __LINE__);
        return -1;
    }
    return 0;
}

int Tarnbridge::load_resume_condition(uint64_t sess_id) {
    std::list<std::pair<uint64_t, ResumeCondition>> conditions;
    if (FilterDB::getInstance().getResumeConditionsBySession(sess_id, conditions) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): Failed to get resume condition for session '%llu'\n",
                       __LINE__, static_cast<ull>(sess_id));
        return -1;
    }
    for (const auto& [row_id, condition] : conditions) {
        Logger::LogMsg(Logger::L_INFO, kAppLog,
                       "[INFO] app(%d): Add row_id '%llu' to progress_cache.\n", __LINE__,
                       static_cast<ull>(row_id));
        ProgressCache::getInstance().addProgressEntry(row_id, condition);
    }
    return 0;
}

int Tarnbridge::remove_session(const PObject& request, PObject& reply) {
    if (!SessionIdOrAll(request, reply)) return -1;
    if (request.hasMember("session_id"))
        return remove_one_session(request["session_id"].asUInt64(), reply);
    // All of them, and only when all are paused: a running session would never leave.
    const std::vector<uint64_t> ids = Registry::getInstance().Ids();
    for (uint64_t id : ids) {
        Registry::Entry entry;
        if (Registry::getInstance().Find(id, entry) == 1 && !entry.pause) {
            Logger::LogMsg(Logger::L_ERR, kAppLog,
                           "[ERROR] app(%d): remove session %llu without pause, stop remove\n",
                           __LINE__, static_cast<ull>(id));
            reply["error"] = "Remove session without puase";
            return -1;
        }
    }
    for (uint64_t id : ids)
        if (remove_one_session(id, reply) < 0) return -1;
    return 0;
}

int Tarnbridge::remove_one_session(uint64_t sess_id, PObject& reply) {
    Logger::LogMsg(Logger::L_INFO, kAppLog, "[INFO] app(%d): remove_one_session '%llu'.\n",
                   __LINE__, static_cast<ull>(sess_id));
    bool paused = false;
    {
        Registry::Entry entry;
        if (Registry::getInstance().Find(sess_id, entry) != 1) {
            Logger::LogMsg(Logger::L_ERR, kAppLog,
                           "[ERROR] app(%d): invalid session %llu, stop remove\n", __LINE__,
                           static_cast<ull>(sess_id));
            reply["error"] = "Invalid session.";
            return -1;
        }
        paused = entry.pause;
    }
    if (!paused) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): remove session %llu without pause, stop remove\n",
                       __LINE__, static_cast<ull>(sess_id));
        reply["error"] = "Remove session without puase";
        return -1;
    }
    // A paused session's objects are let go of within a round of the task that holds them;
    // one may take a copy again between the look and the Clear, which then refuses.
    const auto deadline = std::chrono::steady_clock::now() + kReleaseLimit;
    bool cleared = false;
    while (!cleared && std::chrono::steady_clock::now() < deadline) {
        if (SessionInUse(sess_id))
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        else
            cleared = Registry::getInstance().Clear(sess_id) == 0;
    }
    if (!cleared) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): session %llu is still in use, stop remove\n", __LINE__,
                       static_cast<ull>(sess_id));
        reply["error"] = "Session is in use.";
        return -1;
    }
    if (Detector* watcher = detector()) watcher->RemoveWatch(sess_id);
    // Its pending work must not be carried out against a later session of the same id.
    EventManager::getInstance().RemoveSession(sess_id);
    Logger::LogMsg(Logger::L_INFO, kAppLog, "[INFO] app(%d): session '%llu' is removed.\n",
                   __LINE__, static_cast<ull>(sess_id));
    return 0;
}

int Tarnbridge::pause(const PObject& request, PObject& reply) {
    if (!SessionIdOrAll(request, reply)) return -1;
    const uint64_t id = request["session_id"].asUInt64();
    pauseRegistry(id);
    drop_session(id);
    return 0;
}

int Tarnbridge::resume(const PObject& request, PObject& reply) {
    if (!SessionIdOrAll(request, reply)) return -1;
    resumeRegistry(request["session_id"].asUInt64());
    return 0;
}

int Tarnbridge::reload_session(const PObject& request, PObject& reply) {
    if (!HasKey(request, "session_id", KeyKind::INTEGER)) {
        Logger::LogMsg(Logger::L_ERR, kAppLog, "[ERROR] app(%d): Invalid parameter\n.", __LINE__);
        reply["error"] = "Invalid parameter";
        return -1;
    }
    const ull id = request["session_id"].asUInt64();
    Registry::Entry entry;
    if (Registry::getInstance().Find(id, entry) != 1) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): invalid session %llu, stop reload\n", __LINE__, id);
        reply["error"] = "Invalid session.";
        return -1;
    }
    if (!entry.pause) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): reload session %llu without pause, stop reload\n",
                       __LINE__, id);
        reply["error"] = "Reload session without puase";
        return -1;
    }
    const ustring conf = entry.config_path + "/conf";
    const ustring filter_file = conf + "/blacklist.filter";
    // A list that fails to load is left empty, which would let everything through: the
    // file is tried on a spare list first, so a malformed one changes nothing.
    BlackList2 trial;
    if (trial.Load(filter_file) != 0 || entry.black_list->Load(filter_file) != 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): failed to reload black list filter for sesion %llu\n",
                       __LINE__, id);
        reply["error"] = "Failed to load black list.";
        return -1;
    }
    WhiteListCpp white_trial;
    const ustring white_file = conf + "/whitelist.filter";
    if (white_trial.Load(white_file) != 0 || entry.white_list->Load(white_file) != 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): failed to reload white klist filter for sesion %llu\n",
                       __LINE__, id);
        reply["error"] = "Failed to load white list.";
        return -1;
    }
    uint64_t sync_id = 0;
    if (entry.event_db->getSyncId(sync_id) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): Failed to get sync_id for session %llu\n", __LINE__, id);
        reply["error"] = "Failed to get current sync_id.";
        return -1;
    }
    Logger::LogMsg(Logger::L_INFO, kAppLog,
                   "[INFO] app(%d): Reload session (%llu), current sync_id [%llu]\n", __LINE__, id,
                   static_cast<ull>(sync_id));
    if (reload_filter(id, sync_id, filter_file, entry.local_path, entry.event_db) < 0) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): failed to reload_filter for sess (%llu)\n", __LINE__, id);
        reply["error"] = "Failed to reload filter.";
        return -1;
    }
    reload_local_events(entry);
    return 0;
}

void Tarnbridge::reload_local_events(Registry::Entry& entry) {
    const ull id = entry.sess_id;
    Logger::LogMsg(Logger::L_INFO, kAppLog,
                   "[INFO] app(%d): reload local filtered events from database for session "
                   "'%llu'\n",
                   __LINE__, id);
    std::set<FilterLocalEvent> held;
    if (FilterDB::getInstance().dumpLocalFilteredEvent(id, held) < 0) {
        Logger::LogMsg(Logger::L_WARNING, kAppLog,
                       "[WARNING] app(%d): failed to dump resume items for session '%llu'... \n",
                       __LINE__, id);
        return;
    }
    // What the new rules still hold back is filtered again by the worker and recorded anew.
    for (const FilterLocalEvent& item : held) PushEvent(entry, item);
}

void Tarnbridge::pauseRegistry(uint64_t sess_id) {
    SetPaused(sess_id, true);
}

void Tarnbridge::resumeRegistry(uint64_t sess_id) {
    SetPaused(sess_id, false);
}

void Tarnbridge::drop_session(uint64_t sess_id) {
    DropSessionFromWorkers(workers(), sess_id);
}
