#include "events/event-manager.h"

#include "events/ui-ipc.h"
#include "foundation/log.h"
#include "runtime/registry.h"
#include "runtime/task.h"
#include "state/file-status-db.h"

namespace {

const ustring& Category() {
    static const ustring category("event_mgr_debug");
    return category;
}

bool On(int level) {
    return Logger::Enabled(level, Category());
}

}  // namespace

// ---- event_pool ----

EventManager::event_pool::event_pool(const ustring& local_path) {
    event_tree.SetWatchPath(local_path);
}

bool EventManager::event_pool::push(const Event& e) {
    if (e.m_type == Event::EV_EMPTY) return false;
    if (!e.isExpand()) return event_tree.Push(e) == 0;
    if (!e.isDir()) return false;
    if (e.isRescan() && e.m_path == ustring("/")) {
        // A rescan of the root includes every other walk.
        Logger::LogMsg(Logger::L_INFO, Category(),
                       "[INFO] event-manager(%d): Merging expand event.\n", __LINE__);
        expand_events.clear();
    }
    if (On(Logger::L_DEBUG))
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-manager(%d): Push expand event [%s].\n", __LINE__,
                       e.toString().c_str_utf8());
    expand_events.push_back(e);
    return true;
}

int EventManager::event_pool::pop(Event& e) {
    if (!event_tree.IsEmpty() && event_tree.Pop(e) == 0) {
        if (On(Logger::L_DEBUG))
            Logger::LogMsg(Logger::L_DEBUG, Category(),
                           "[DEBUG] event-manager(%d): event_pool: Pop an event [%s]\n", __LINE__,
                           e.toString().c_str_utf8());
        return 1;
    }
    // Walks fill the gaps: they run when the tree has nothing runnable.
    if (expand_events.empty()) return 0;
    e = expand_events.front();
    expand_events.pop_front();
    if (On(Logger::L_DEBUG))
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-manager(%d): event_pool: Pop an expand event [%s]\n",
                       __LINE__, e.toString().c_str_utf8());
    return 1;
}

size_t EventManager::event_pool::size() const {
    return static_cast<size_t>(event_tree.GetServerEventCount() + event_tree.GetLocalEventCount()) +
           expand_events.size();
}

void EventManager::event_pool::clear() {
    event_tree.Clear();
    expand_events.clear();
}

// ---- EventManager ----

EventManager& EventManager::getInstance() {
    static EventManager instance(Registry::getInstance());
    return instance;
}

EventManager::EventManager(Registry& registry) : m_registry(registry) {}

EventManager::~EventManager() = default;

EventManager::event_pool* EventManager::FindPool(uint64_t sess_id) {
    auto it = pool_index.find(sess_id);
    return it == pool_index.end() ? nullptr : it->second.get();
}

void EventManager::NoteChangeToHeldPath(const Event& e, bool may_abort) {
    for (auto& [task, entry] : registry) {
        const Event& held = entry.processing;
        if (held.m_sess_id != e.m_sess_id || held.m_path != e.m_path) continue;
        if (!e.isExpand()) entry.waiting = e;
        if (!may_abort) continue;
        if (held.isLocalEvent() &&
            (held.m_type == Event::EV_CREATE || held.m_type == Event::EV_MODIFY) &&
            e.m_type == Event::EV_REMOVE) {
            // An upload of something that is gone is given up at once.
            Logger::LogMsg(Logger::L_INFO, Category(),
                           "[INFO] event-manager(%d): old event is UploadLocal but new event is "
                           "RemoveRemote, abort UploadLocal progress '%s'.\n",
                           __LINE__, e.m_path.c_str_utf8());
            task->SetAbort(true);
        }
        if (e.isExpand() && held.m_mode == e.m_mode) {
            // A new walk of the same path replaces the one under way.
            Logger::LogMsg(Logger::L_INFO, Category(),
                           "[INFO] event-manager(%d): interrupt previous expander\n", __LINE__);
            task->SetAbort(true);
        }
    }
}

bool EventManager::PushToPool(const Event& e, bool is_server, bool& accepted, ustring& full_path) {
    Registry::Entry entry;
    if (m_registry.Find(e.m_sess_id, entry) != 1) {
        // The session is gone, and its event with it.
        Logger::LogMsg(Logger::L_ERR, Category(),
                       "[ERROR] event-manager(%d): Can not find registry by session %llu.\n",
                       __LINE__, static_cast<unsigned long long>(e.m_sess_id));
        return false;
    }
    std::unique_ptr<event_pool>& pool = pool_index[e.m_sess_id];
    if (!pool) pool = std::make_unique<event_pool>(entry.local_path);
    accepted = pool->push(e);
    if (On(Logger::L_DEBUG)) {
        if (is_server)
            Logger::LogMsg(Logger::L_DEBUG, Category(),
                           "[DEBUG] event-manager(%d): EventManager::PushServerEvent = [%s].\n",
                           __LINE__, e.toString().c_str_utf8());
        else
            Logger::LogMsg(Logger::L_DEBUG, Category(),
                           "[DEBUG] event-manager(%d): EventManager::PushLocalEvent = [%s].\n",
                           __LINE__, e.toString().c_str_utf8());
    }
    if (pool->size() == 1) ready_queue.push_back(pool.get());
    full_path = StatusPath(entry.local_path, e.m_path);
    return true;
}

void EventManager::PushLocalEvent(const Event& e) {
    if (!ustring::is_valid(e.m_path)) {
        Logger::LogMsg(Logger::L_WARNING, Category(),
                       "[WARNING] event-manager(%d): File path is not valid, drop it.\n", __LINE__);
        return;
    }
    bool notify = false;
    {
        MutexLock lock(m_lock);
        NoteChangeToHeldPath(e, true);
        bool accepted = false;
        ustring full_path;
        if (!PushToPool(e, false, accepted, full_path)) return;
        notify = accepted && !e.isExpand();
        if (notify) SyncingEvent2FStatDB(full_path, e.isDir());
    }
    if (notify) UI_IPC::ReportFileSyncingEventToUI(e);
}

void EventManager::PushServerEvent(const Event& e) {
    Event new_ev = e;
    new_ev.setServerEvent();
    if (!ustring::is_valid(new_ev.m_path)) {
        Logger::LogMsg(Logger::L_WARNING, Category(),
                       "[WARNING] event-manager(%d): File path is not valid, drop it.\n", __LINE__);
        return;
    }
    bool notify = false;
    {
        MutexLock lock(m_lock);
        // A server change never interrupts a task: it sees the change when it is done.
        if (!new_ev.isExpand()) NoteChangeToHeldPath(new_ev, false);
        bool accepted = false;
        ustring full_path;
        if (!PushToPool(new_ev, true, accepted, full_path)) return;
        notify = accepted;
        if (notify) SyncingEvent2FStatDB(full_path, new_ev.isDir());
    }
    if (notify) UI_IPC::ReportFileSyncingEventToUI(new_ev);
}

int EventManager::PullEvent(Task* task, Event& e) {
    MutexLock lock(m_lock);
    if (ready_queue.empty()) return -1;
    event_pool* pool = ready_queue.front();
    ready_queue.pop_front();
    int result = -1;
    if (pool->pop(e) == 1) {
        registry[task] = registry_entry_t{e, Event()};
        if (On(Logger::L_DEBUG))
            Logger::LogMsg(Logger::L_DEBUG, Category(),
                           "[DEBUG] event-manager(%d): EventManager::PullEvent [%s]\n", __LINE__,
                           e.toString().c_str_utf8());
        result = 0;
    }
    // One event per turn: a session with more goes to the back of the line.
    if (pool->size() != 0) ready_queue.push_back(pool);
    return result;
}

int EventManager::DoneEvent(Task* task, Event& e) {
    MutexLock lock(m_lock);
    auto it = registry.find(task);
    if (it == registry.end()) return 0;
    registry_entry_t& entry = it->second;
    event_pool* pool = FindPool(entry.processing.m_sess_id);
    if (!entry.is_dirty()) {
        if (On(Logger::L_DEBUG))
            Logger::LogMsg(
                Logger::L_DEBUG, Category(),
                "[DEBUG] event-manager(%d): EventManager::DoneEvent unregistry for [%s]\n",
                __LINE__, entry.processing.toString().c_str_utf8());
        // A tree that refuses is not reported: the task lets go all the same.
        if (!entry.processing.isExpand() && pool != nullptr)
            pool->event_tree.DoneEvent(entry.processing);
        registry.erase(it);
        return 0;
    }
    if (On(Logger::L_DEBUG))
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-manager(%d): EventManager::DoneEvent is dirty, waiting for "
                       "[%s]\n",
                       __LINE__, entry.waiting.toString().c_str_utf8());
    if (pool != nullptr) {
        // The held node is retired if the change went elsewhere (the node of the other
        // kind at this path); a node changed while held refuses and is taken back below.
        if (!entry.processing.isExpand()) pool->event_tree.DoneEvent(entry.processing);
        const Event& changed = entry.processing.isExpand() ? entry.waiting : entry.processing;
        Event next;
        if (pool->event_tree.Pop(changed.m_path, changed.isDir(), next) == 0) {
            entry.processing = next;
            entry.waiting.clear();
            e = next;
            return -1;
        }
    }
    // Nothing newer is left to hand back: the change was merged away or another task
    // has it.
    registry.erase(it);
    return 0;
}

int EventManager::RedoEvent(Task* task, const Event& e) {
    int ret = 0;
    {
        MutexLock lock(m_lock);
        event_pool* pool = FindPool(e.m_sess_id);
        if (pool == nullptr) {
            Logger::LogMsg(Logger::L_ERR, Category(),
                           "[ERROR] event-manager(%d): Can not find event pool\n", __LINE__);
            ret = -1;
        } else if (e.isExpand()) {
            pool->push(e);
            if (pool->size() == 1) ready_queue.push_back(pool);
        } else if (pool->event_tree.Redo(e.m_path, e.isDir()) < 0) {
            Logger::LogMsg(Logger::L_ERR, Category(),
                           "[ERROR] event-manager(%d): Failed to Reset event status to watting in "
                           "event tree '%s'.\n",
                           __LINE__, e.m_path.c_str_utf8());
            ret = -1;
        }
        if (ret == 0) registry.erase(task);
    }
    if (On(Logger::L_INFO))
        Logger::LogMsg(Logger::L_INFO, Category(),
                       "[INFO] event-manager(%d): EventManager::RedoEvent = [%s], ret= [%d]\n",
                       __LINE__, e.toString().c_str_utf8(), ret);
    return ret;
}

void EventManager::IssueExpand(uint64_t key, const ustring& path) {
    Event e;
    e.m_type = Event::EV_CREATE;
    e.m_path = path;
    e.m_sess_id = key;
    e.m_mode = Event::F_DIR | Event::F_EXPAND;
    PushLocalEvent(e);
    if (On(Logger::L_DEBUG))
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-manager(%d): EventManager::IssueExpand at [%llu], ev=[%s]\n",
                       __LINE__, static_cast<unsigned long long>(key), e.toString().c_str_utf8());
}

void EventManager::IssueRescan(uint64_t sess_id, const ustring& path, bool do_merge) {
    Event e;
    e.m_type = Event::EV_CREATE;
    e.m_path = path;
    e.m_sess_id = sess_id;
    e.m_mode = Event::F_DIR | Event::F_EXPAND | Event::F_RESCAN;
    if (do_merge) e.setMerge();
    PushLocalEvent(e);
    if (On(Logger::L_DEBUG))
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-manager(%d): EventManager::IssueRescan at [%llu], ev=[%s]\n",
                       __LINE__, static_cast<unsigned long long>(sess_id),
                       e.toString().c_str_utf8());
}

int EventManager::GetPendingServerEvent(uint64_t sess_id) {
    MutexLock lock(m_lock);
    event_pool* pool = FindPool(sess_id);
    return pool == nullptr ? 0 : pool->get_server_event_count();
}

int EventManager::GetAllPendingEventCount(uint64_t sess_id) {
    MutexLock lock(m_lock);
    event_pool* pool = FindPool(sess_id);
    if (pool == nullptr) {
        Logger::LogMsg(
            Logger::L_ERR, Category(),
            "[ERROR] event-manager(%d): ========= no id found <%llu>====================\n",
            __LINE__, static_cast<unsigned long long>(sess_id));
        return 0;
    }
    return static_cast<int>(pool->size());
}

// Status rows take the platform's own separator; on POSIX systems the session root
// joined with an event's path already has it.
ustring EventManager::StatusPath(const ustring& local_path, const ustring& path) {
    return path == ustring("/") ? local_path : local_path + path;
}

int EventManager::SyncingEvent2FStatDB(const ustring& path, bool is_dir) {
    Logger::LogMsg(Logger::L_DEBUG, Category(),
                   "[DEBUG] event-manager(%d): Syncing event to fstatdb at path [%s].\n", __LINE__,
                   path.c_str_utf8());
    FileStatusInfo info;
    info.path = path;
    info.fileType = is_dir ? SFT_DIR : SFT_FILE;
    info.syncStatus = SFS_SYNCING;
    if (FileStatusDB::setFileSyncStat(info) < 0) {
        Logger::LogMsg(Logger::L_ERR, Category(),
                       "[ERROR] event-manager(%d): Failed to set syncing event into FStatDB at "
                       "path [%s].\n",
                       __LINE__, path.c_str_utf8());
        return -1;
    }
    return 0;
}

int EventManager::SyncedEvent2FStatDB(const ustring& path) {
    if (FileStatusDB::rmFileStatByPath(path) < 0) {
        Logger::LogMsg(Logger::L_ERR, Category(),
                       "[ERROR] event-manager(%d): Failed to rm synced event from FStatDB by path "
                       "[%s].\n",
                       __LINE__, path.c_str_utf8());
        return -1;
    }
    return 0;
}

void EventManager::RemoveSession(uint64_t sess_id) {
    MutexLock lock(m_lock);
    auto it = pool_index.find(sess_id);
    if (it == pool_index.end()) return;
    std::erase(ready_queue, it->second.get());
    pool_index.erase(it);
}

void EventManager::Clear() {
    MutexLock lock(m_lock);
    registry.clear();
    ready_queue.clear();
    pool_index.clear();
}
