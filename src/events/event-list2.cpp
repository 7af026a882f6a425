#include "events/event-list2.h"

#include <algorithm>
#include <utility>

#include "foundation/log.h"
#include "state/file-status-db.h"

namespace {

using Attribute = EventList2::Attribute;
using DirNode = EventList2::DirNode;
using FileNode = EventList2::FileNode;

// Whole paths are limited to what one path buffer of the platform holds, and each
// element to what one name buffer holds; longer elements are cut, not refused.
constexpr size_t kMaxPathBytes = 4095;
constexpr size_t kMaxNameBytes = 1023;

// Which node of a name Redo looks at.
enum Kind { KIND_DIR_FIRST = 0, KIND_DIR_ONLY = 1, KIND_FILE_ONLY = 2 };

const ustring& Category() {
    static const ustring category("event_list_debug");
    return category;
}

bool On(int level) {
    return Logger::Enabled(level, Category());
}

bool IsServer(const Attribute& attr) {
    return (attr.mode & Event::F_SERVER) != 0;
}
bool IsDir(const Attribute& attr) {
    return (attr.mode & Event::F_DIR) != 0;
}

std::list<FileNode>::iterator FindFile(DirNode* parent, const ustring& name) {
    return std::find_if(parent->file.begin(), parent->file.end(),
                        [&](const FileNode& f) { return f.name == name; });
}

std::list<std::unique_ptr<DirNode>>::iterator FindDir(DirNode* parent, const ustring& name) {
    return std::find_if(parent->dir.begin(), parent->dir.end(),
                        [&](const std::unique_ptr<DirNode>& d) { return d->name == name; });
}

std::list<std::unique_ptr<DirNode>>::iterator FindChild(DirNode* parent, const DirNode* child) {
    return std::find_if(parent->dir.begin(), parent->dir.end(),
                        [&](const std::unique_ptr<DirNode>& d) { return d.get() == child; });
}

bool HasChildren(const DirNode* node) {
    return !node->file.empty() || !node->dir.empty();
}

// Moves `it` to the end of `list` (a no-op when it is the last element already).
template <typename List, typename Iter>
void MoveToEnd(List& list, Iter it) {
    list.splice(list.end(), list, it);
}

}  // namespace

EventList2::EventList2() : root(std::make_unique<DirNode>()) {
    root->name = "/";
}

EventList2::~EventList2() = default;

void EventList2::ConvertEventToAttr(const Event& e, Attribute& attr) {
    attr.type = e.m_type;
    attr.mode = e.m_mode;
    attr.syncID = e.m_sync_id;
    attr.maxSyncID = e.m_max_id;
    attr.sessID = e.m_sess_id;
    attr.hash = e.m_data_hash;
    attr.path = e.m_path;
    attr.opt = e.m_opt;
    attr.mac_attr_hash = e.m_mac_attr_hash;
    attr.size = e.m_data_size;
    attr.mac_attr_size = e.m_mac_attr_size;
    attr.time = e.m_time;
    attr.exec_bit = e.m_exec_bit;
}

void EventList2::ConvertAttrToEvent(const Attribute& attr, Event& e) {
    e.m_type = static_cast<Event::Type>(attr.type);
    e.m_mode = attr.mode;
    e.m_sync_id = attr.syncID;
    e.m_max_id = attr.maxSyncID;
    e.m_sess_id = attr.sessID;
    e.m_data_hash = attr.hash;
    e.m_path = attr.path;
    e.m_opt = attr.opt;
    e.m_mac_attr_hash = attr.mac_attr_hash;
    e.m_data_size = attr.size;
    e.m_mac_attr_size = attr.mac_attr_size;
    e.m_time = attr.time;
    e.m_exec_bit = attr.exec_bit;
}

void EventList2::ClearAttribute(Attribute& attr) {
    attr.type = Event::EV_EMPTY;
    attr.mode = 0;
    attr.syncID = 0;
    attr.hash.clear();
    attr.path.clear();
}

void EventList2::SetWatchPath(const ustring& path) {
    MutexLock lock(mutex);
    watch_path = path;
}

// ---- walking paths ----

int EventList2::BaseName(const ustring& path, std::vector<std::string>& dirs, std::string& base) {
    const std::string s = path.str();
    if (s.empty() || s.size() > kMaxPathBytes || s.back() == '/') return -1;
    const size_t slash = s.rfind('/');
    const std::string dirname = slash == std::string::npos ? std::string() : s.substr(0, slash);
    base = slash == std::string::npos ? s : s.substr(slash + 1);
    if (base.size() > kMaxNameBytes) base.resize(kMaxNameBytes);
    dirs.clear();
    size_t start = 0;
    while (start <= dirname.size()) {
        size_t end = dirname.find('/', start);
        if (end == std::string::npos) end = dirname.size();
        if (end > start)
            dirs.push_back(dirname.substr(start, std::min(end - start, kMaxNameBytes)));
        start = end + 1;
    }
    return 0;
}

EventList2::DirNode* EventList2::WalkCreate(const std::vector<std::string>& dirs) {
    DirNode* node = root.get();
    for (const std::string& token : dirs) {
        const ustring name(token);
        auto it = FindDir(node, name);
        if (it == node->dir.end()) {
            auto step = std::make_unique<DirNode>();
            step->name = name;
            step->parent = node;
            node->dir.push_back(std::move(step));
            it = std::prev(node->dir.end());
        }
        node = it->get();
    }
    return node;
}

EventList2::DirNode* EventList2::WalkFind(const std::vector<std::string>& dirs) const {
    DirNode* node = root.get();
    for (const std::string& token : dirs) {
        auto it = FindDir(node, ustring(token));
        if (it == node->dir.end()) return nullptr;
        node = it->get();
    }
    return node;
}

ustring EventList2::DirPath(const DirNode* node) {
    std::vector<const DirNode*> chain;
    for (; node != nullptr && node->parent != nullptr; node = node->parent) chain.push_back(node);
    std::string path;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        path += '/';
        path += (*it)->name.c_str_utf8();
    }
    return ustring(path);
}

// ---- counters and status rows ----

void EventList2::CountEvent(bool is_server, int delta) {
    (is_server ? server_event_count : local_event_count)
        .fetch_add(delta, std::memory_order_relaxed);
}

void EventList2::IncreaseRefCount(DirNode* dir, bool is_server) {
    for (; dir != nullptr && dir->parent != nullptr; dir = dir->parent)
        ++(is_server ? dir->refServerCount : dir->refLocalCount);
}

void EventList2::DecreaseRefCount(DirNode* dir, bool is_server) {
    for (; dir != nullptr && dir->parent != nullptr; dir = dir->parent)
        --(is_server ? dir->refServerCount : dir->refLocalCount);
}

// A tree without a session root has no status rows to keep.
void EventList2::ForgetStatus(const ustring& rel_path) {
    if (watch_path.empty()) return;
    const ustring full = watch_path + rel_path;
    if (FileStatusDB::rmFileStatByPath(full) < 0)
        Logger::LogMsg(Logger::L_ERR, Category(),
                       "[ERROR] event-list2(%d): Failed to rm synced event from FStatDB [%s].\n",
                       __LINE__, full.c_str_utf8());
}

// ---- Push and the merge ----

int EventList2::Push(const Event& e) {
    if (On(Logger::L_INFO))
        Logger::LogMsg(Logger::L_INFO, Category(), "[INFO] event-list2(%d): [Push Event] = [%s]\n",
                       __LINE__, e.toString().c_str_utf8());
    Event scratch;
    return Push(e, scratch);
}

int EventList2::Push(const Event& e, Event& old_event) {
    std::vector<std::string> dirs;
    std::string base;
    if (e.m_type == Event::EV_EMPTY || BaseName(e.m_path, dirs, base) < 0) {
        Logger::LogMsg(Logger::L_WARNING, Category(),
                       "[WARNING] event-list2(%d): Refused event with an unusable path or no "
                       "type [%s]\n",
                       __LINE__, e.toString().c_str_utf8());
        return -1;
    }
    Attribute attr;
    ConvertEventToAttr(e, attr);
    Attribute old_attr;
    {
        MutexLock lock(mutex);
        DirNode* parent = WalkCreate(dirs);
        if (IsDir(attr))
            AddDirectoryNode(parent, ustring(base), attr, old_attr);
        else
            AddFileNode(parent, ustring(base), attr, old_attr);
    }
    old_event.clear();
    ConvertAttrToEvent(old_attr, old_event);
    return 0;
}

void EventList2::AddFileNode(DirNode* parent, const ustring& name, const Attribute& attr,
                             Attribute& old_attr) {
    auto it = FindFile(parent, name);
    if (it == parent->file.end()) {
        parent->file.push_back(FileNode{name, WAITING, attr});
        CountEvent(IsServer(attr), 1);
        return;
    }
    FileNode& node = *it;
    old_attr = node.attr;
    if (node.status == DONE) {
        node.attr = attr;
    } else {
        // The held copy is now out of date; its worker no longer blocks the parents.
        if (node.status == PROCESSING) DecreaseRefCount(parent, IsServer(old_attr));
        CountEvent(IsServer(old_attr), -1);
        node.attr = HandleConflict(old_attr, attr);
    }
    node.status = (node.status == PROCESSING || node.status == RETRY) ? RETRY : WAITING;
    CountEvent(IsServer(node.attr), 1);
}

void EventList2::AddDirectoryNode(DirNode* parent, const ustring& name, const Attribute& attr,
                                  Attribute& old_attr) {
    auto it = FindDir(parent, name);
    if (it == parent->dir.end()) {
        auto node = std::make_unique<DirNode>();
        node->name = name;
        node->parent = parent;
        node->status = WAITING;
        node->attr = attr;
        parent->dir.push_back(std::move(node));
        CountEvent(IsServer(attr), 1);
        return;
    }
    DirNode* node = it->get();
    old_attr = node->attr;
    if (node->status == DONE) {
        node->attr = attr;
    } else {
        if (node->status == PROCESSING) DecreaseRefCount(parent, IsServer(old_attr));
        CountEvent(IsServer(old_attr), -1);
        node->attr = HandleConflict(old_attr, attr);
    }
    node->status = (node->status == PROCESSING || node->status == RETRY) ? RETRY : WAITING;
    CountEvent(IsServer(node->attr), 1);
    if (node->attr.type == Event::EV_REMOVE) {
        int kept = 0;
        RemoveSubNode(node, IsServer(node->attr), kept, node->attr.syncID);
    }
}

EventList2::Attribute EventList2::HandleConflict(const Attribute& old_attr,
                                                 const Attribute& new_attr) {
    if (old_attr.type == Event::EV_EMPTY) return new_attr;
    if (new_attr.type == Event::EV_EMPTY) return old_attr;
    const bool old_server = IsServer(old_attr);
    const bool new_server = IsServer(new_attr);
    // A pending forced event (no real sync id) yields to any other server event.
    const bool arriving_is_newer =
        old_attr.syncID < new_attr.syncID || old_attr.syncID == MAX_SYNC_ID;

    if (IsDir(new_attr)) {
        Attribute out = (old_server && new_server && !arriving_is_newer) ? old_attr : new_attr;
        // A pending removal was overridden: what it would have cleared below the
        // directory may still be there, so look at it again.
        if (old_attr.type == Event::EV_REMOVE && out.type != Event::EV_REMOVE) {
            if (old_server) {
                out.mode |= Event::F_SERVER_SUBDIR_RESCAN;
                Logger::LogMsg(
                    Logger::L_INFO, Category(),
                    "[INFO] event-list2(%d): Mark node to be ServerSubDirRescan(pre-event "
                    "dir delete) [%s].\n",
                    __LINE__, out.path.c_str_utf8());
            } else {
                out.mode |= Event::F_LOCAL_SUBDIR_RESCAN;
                Logger::LogMsg(
                    Logger::L_INFO, Category(),
                    "[INFO] event-list2(%d): Mark node to be LocalSubDirRescan(pre-event "
                    "dir delete) [%s].\n",
                    __LINE__, out.path.c_str_utf8());
            }
        }
        return out;
    }
    if (!old_server && !new_server) return KeepServerRemoval(old_attr, new_attr);
    if (old_server && new_server) return arriving_is_newer ? new_attr : old_attr;
    if (new_server) return HandleTypeConflict(new_attr, old_attr);
    return HandleTypeConflict(old_attr, new_attr);
}

// A file changed on both sides, whichever arrived first: a local removal yields to the
// server, a local change survives a server removal, and two changes become a download
// marked as a conflict (the worker keeps the local copy under a conflict name).
EventList2::Attribute EventList2::HandleTypeConflict(const Attribute& server,
                                                     const Attribute& local) {
    if (local.type == Event::EV_REMOVE) return server;
    if (server.type == Event::EV_REMOVE) {
        // The local event may be no change at all (the watcher's echo of a download):
        // the removal rides along, for the worker to carry out if so.
        Attribute out = local;
        out.mode |= Event::F_SERVER_REMOVED;
        out.syncID = server.syncID;
        out.maxSyncID = server.maxSyncID;
        return out;
    }
    Attribute out = server;
    out.mode |= Event::F_CONFLICT;
    return out;
}

EventList2::Attribute EventList2::KeepServerRemoval(const Attribute& older,
                                                    const Attribute& newer) {
    if (!(older.mode & Event::F_SERVER_REMOVED) || newer.type == Event::EV_REMOVE ||
        (newer.mode & Event::F_SERVER_REMOVED))
        return newer;
    Attribute out = newer;
    out.mode |= Event::F_SERVER_REMOVED;
    out.syncID = older.syncID;
    out.maxSyncID = older.maxSyncID;
    return out;
}

// ---- what a directory removal supersedes ----

void EventList2::RemoveSubNode(DirNode* node, bool is_server, int& refCount,
                               uint64_t base_sync_id) {
    for (auto it = node->dir.begin(); it != node->dir.end();) {
        DirNode* child = it->get();
        int refTemp = 0;
        RemoveSubNode(child, is_server, refTemp, base_sync_id);
        const ustring path = DirPath(child);
        const bool same_side = IsServer(child->attr) == is_server;
        const bool superseded = child->status == WAITING && same_side &&
                                (!is_server || child->attr.syncID < base_sync_id);
        if (refTemp == 0 && (child->status == DONE || superseded)) {
            Logger::LogMsg(Logger::L_DEBUG, Category(),
                           "[DEBUG] event-list2(%d): [Remove Dir Node] = [%s]\n", __LINE__,
                           path.c_str_utf8());
            if (child->status == WAITING) CountEvent(IsServer(child->attr), -1);
            ForgetStatus(path);
            it = node->dir.erase(it);
            continue;
        }
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-list2(%d): [Cannot Remove Dir Node] = [%s],refTemp = "
                       "[%d],status = [%d], event_mode_equal[%d]\n",
                       __LINE__, path.c_str_utf8(), refTemp, static_cast<int>(child->status),
                       same_side ? 1 : 0);
        if (superseded) {
            // Its own event is dropped; it stays as the step to what is left below it.
            CountEvent(IsServer(child->attr), -1);
            child->status = DONE;
            ForgetStatus(path);
            ClearAttribute(child->attr);
        }
        refCount += refTemp + 1;
        ++it;
    }
    RemoveSubFileNode(node, is_server, refCount, base_sync_id);
}

void EventList2::RemoveSubFileNode(DirNode* node, bool is_server, int& refCount,
                                   uint64_t base_sync_id) {
    const ustring dir_path = DirPath(node);
    for (auto it = node->file.begin(); it != node->file.end();) {
        const FileNode& file = *it;
        const ustring path = dir_path + "/" + file.name;
        const bool keep = file.status == PROCESSING || file.status == RETRY ||
                          IsServer(file.attr) != is_server ||
                          (is_server && file.attr.syncID >= base_sync_id);
        if (keep) {
            Logger::LogMsg(Logger::L_DEBUG, Category(),
                           "[DEBUG] event-list2(%d): [Cannot Remove File Node] = [%s]\n", __LINE__,
                           path.c_str_utf8());
            ++refCount;
            ++it;
            continue;
        }
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-list2(%d): [Remove File Node] = [%s]\n", __LINE__,
                       path.c_str_utf8());
        if (file.status == WAITING) CountEvent(IsServer(file.attr), -1);
        ForgetStatus(path);
        it = node->file.erase(it);
    }
}

// ---- Pop ----

int EventList2::Pop(Event& e) {
    Attribute attr;
    {
        MutexLock lock(mutex);
        if (GetFirstWaiting(root.get(), attr) < 0) return -1;
    }
    e.clear();
    ConvertAttrToEvent(attr, e);
    return 0;
}

int EventList2::GetFirstWaiting(DirNode* node, Attribute& attr) {
    for (FileNode& file : node->file) {
        if (file.status != WAITING) continue;
        attr = file.attr;
        file.status = PROCESSING;
        IncreaseRefCount(node, IsServer(attr));
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-list2(%d): [Pop File Event] = [%s], server = [%d], type = "
                       "[%d], path = [%s]\n",
                       __LINE__, file.name.c_str_utf8(), IsServer(attr) ? 1 : 0, attr.type,
                       attr.path.c_str_utf8());
        return 0;
    }
    for (const std::unique_ptr<DirNode>& owned : node->dir) {
        DirNode* child = owned.get();
        switch (child->status) {
            case PROCESSING:
            case RETRY:
                continue;  // children wait for their parent
            case DONE:
                // Deliberately the end of this list's scan, runnable or not: Redo and
                // the retiring of events are what move the queue on.
                return GetFirstWaiting(child, attr);
            case WAITING:
                break;
        }
        const bool is_server = IsServer(child->attr);
        const bool is_remove = child->attr.type == Event::EV_REMOVE;
        if (child->refServerCount == 0 && child->refLocalCount == 0) {
            if (is_remove && HasChildren(child) && !IsAllSubNodeAreDeleteEvent(child)) {
                if (is_server) {
                    child->attr.mode |= Event::F_SERVER_SUBDIR_RESCAN_STAT;
                    Logger::LogMsg(Logger::L_INFO, Category(),
                                   "[INFO] event-list2(%d): Mark node to be "
                                   "SetServerSubDirRescanWithStat(sub-node not empty) [%s].\n",
                                   __LINE__, child->attr.path.c_str_utf8());
                } else {
                    child->attr.mode |= Event::F_LOCAL_SUBDIR_RESCAN_STAT;
                    Logger::LogMsg(Logger::L_INFO, Category(),
                                   "[INFO] event-list2(%d): Mark node to be "
                                   "SetLocalSubDirRescanWithStat(sub-node not empty) [%s].\n",
                                   __LINE__, child->attr.path.c_str_utf8());
                }
            }
            attr = child->attr;
            child->status = PROCESSING;
            IncreaseRefCount(node, is_server);
            Logger::LogMsg(Logger::L_INFO, Category(),
                           "[INFO] event-list2(%d): [Pop Dir Event] = [%s], server = [%d], type "
                           "= [%d], path = [%s]\n",
                           __LINE__, child->name.c_str_utf8(), is_server ? 1 : 0, attr.type,
                           attr.path.c_str_utf8());
            return 0;
        }
        // A worker is busy below: the directory waits. A removal whose held children
        // are not all removals will find something left, so it must look again.
        if (is_remove && !IsAllSubProcessingNodeAreDeleteEvent(child)) {
            if (is_server && child->refLocalCount > 0) {
                child->attr.mode |= Event::F_SERVER_SUBDIR_RESCAN_STAT;
                Logger::LogMsg(Logger::L_INFO, Category(),
                               "[INFO] event-list2(%d): Mark node to be "
                               "SetServerSubDirRescanWithStat(sub-node processing) [%s].\n",
                               __LINE__, child->attr.path.c_str_utf8());
            } else if (!is_server && child->refServerCount > 0) {
                child->attr.mode |= Event::F_LOCAL_SUBDIR_RESCAN_STAT;
                Logger::LogMsg(Logger::L_INFO, Category(),
                               "[INFO] event-list2(%d): Mark node to be "
                               "SetLocalSubDirRescanWithStat(sub-node processing) [%s].\n",
                               __LINE__, child->attr.path.c_str_utf8());
            }
        }
    }
    return -1;
}

bool EventList2::IsAllSubNodeAreDeleteEvent(const DirNode* node) const {
    for (const FileNode& file : node->file)
        if (file.status != DONE && file.attr.type != Event::EV_REMOVE) return false;
    for (const std::unique_ptr<DirNode>& child : node->dir) {
        if (child->status != DONE && child->attr.type != Event::EV_REMOVE) return false;
        if (!IsAllSubNodeAreDeleteEvent(child.get())) return false;
    }
    return true;
}

bool EventList2::IsAllSubProcessingNodeAreDeleteEvent(const DirNode* node) const {
    for (const FileNode& file : node->file) {
        if (file.status == PROCESSING && file.attr.type != Event::EV_REMOVE) {
            Logger::LogMsg(Logger::L_INFO, Category(),
                           "[INFO] event-list2(%d): file '%s' is processing with event type [%d]\n",
                           __LINE__, file.attr.path.c_str_utf8(), file.attr.type);
            return false;
        }
    }
    for (const std::unique_ptr<DirNode>& child : node->dir) {
        if (child->status == PROCESSING && child->attr.type != Event::EV_REMOVE) {
            Logger::LogMsg(Logger::L_INFO, Category(),
                           "[INFO] event-list2(%d): Dir '%s' is processing with event type [%d]\n",
                           __LINE__, child->attr.path.c_str_utf8(), child->attr.type);
            return false;
        }
        if (!IsAllSubProcessingNodeAreDeleteEvent(child.get())) {
            Logger::LogMsg(Logger::L_INFO, Category(),
                           "[INFO] event-list2(%d): AllSubProcessingNode are not Delete Event "
                           "'%s'.\n",
                           __LINE__, DirPath(child.get()).c_str_utf8());
            return false;
        }
    }
    return true;
}

int EventList2::Pop(const ustring& path, Event& e) {
    return Pop(path, true, e);
}

int EventList2::Pop(const ustring& path, bool prefer_dir, Event& e) {
    Logger::LogMsg(Logger::L_DEBUG, Category(),
                   "[DEBUG] event-list2(%d): Event tree current status local_evnet: %d, "
                   "server_event:%d.\n",
                   __LINE__, GetLocalEventCount(), GetServerEventCount());
    Attribute attr;
    {
        MutexLock lock(mutex);
        if (TakeNode(path, prefer_dir, attr) < 0) return -1;
    }
    e.clear();
    ConvertAttrToEvent(attr, e);
    if (On(Logger::L_INFO))
        Logger::LogMsg(Logger::L_INFO, Category(), "[INFO] event-list2(%d): [Pop Event] = [%s]\n",
                       __LINE__, e.toString().c_str_utf8());
    return 0;
}

// Handing out a node another worker holds would run one path twice at once and count
// that worker twice in the held counts above it, blocking those directories for good.
int EventList2::TakeNode(const ustring& path, bool dir_first, Attribute& attr) {
    std::vector<std::string> dirs;
    std::string base;
    if (BaseName(path, dirs, base) < 0) return -1;
    DirNode* parent = WalkFind(dirs);
    if (parent == nullptr) return -1;
    const ustring name(base);
    for (bool want_dir : {dir_first, !dir_first}) {
        Status* status = nullptr;
        Attribute* node_attr = nullptr;
        if (want_dir) {
            auto it = FindDir(parent, name);
            if (it == parent->dir.end()) continue;
            status = &(*it)->status;
            node_attr = &(*it)->attr;
        } else {
            auto it = FindFile(parent, name);
            if (it == parent->file.end()) continue;
            status = &it->status;
            node_attr = &it->attr;
        }
        if (*status == DONE || *status == PROCESSING) continue;
        attr = *node_attr;
        *status = PROCESSING;
        IncreaseRefCount(parent, IsServer(attr));
        return 0;
    }
    return -1;
}

// ---- retiring events ----

int EventList2::DoneEvent(const Event& e) {
    Attribute attr;
    ConvertEventToAttr(e, attr);
    int ret;
    {
        MutexLock lock(mutex);
        ret = IsDir(attr) ? UpdateDirDoneEvent(attr) : UpdateFileDoneEvent(attr);
    }
    if (On(Logger::L_DEBUG)) {
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-list2(%d): DoneEvent ret = [%d], %s.\n", __LINE__, ret,
                       e.toString().c_str_utf8());
        Logger::LogMsg(
            Logger::L_DEBUG, Category(),
            "[DEBUG] event-list2(%d): DoneEvent local event = [%d], server event = [%d]\n",
            __LINE__, GetLocalEventCount(), GetServerEventCount());
    }
    return ret;
}

int EventList2::UpdateDirDoneEvent(const Attribute& attr) {
    std::vector<std::string> dirs;
    std::string base;
    DirNode* parent = BaseName(attr.path, dirs, base) < 0 ? nullptr : WalkFind(dirs);
    if (parent == nullptr) {
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-list2(%d): Failed to UpdateDirDoneEvent(parent not found) "
                       "[%s].\n",
                       __LINE__, attr.path.c_str_utf8());
        return -1;
    }
    auto it = FindDir(parent, ustring(base));
    if (it == parent->dir.end()) {
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-list2(%d): Failed to UpdateDirDoneEvent(DirNode not found) "
                       "[%s].\n",
                       __LINE__, attr.path.c_str_utf8());
        return -1;
    }
    DirNode* node = it->get();
    const bool is_server = IsServer(node->attr);
    if (is_server != IsServer(attr)) {
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-list2(%d): Failed to UpdateDirDoneEvent(attr mode is diff) "
                       "[%s].\n",
                       __LINE__, attr.path.c_str_utf8());
        return -1;
    }
    if (node->status != PROCESSING) {
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-list2(%d): Failed to UpdateDirDoneEvent(NOT PROCESSING) [%s] "
                       "in status[%d].\n",
                       __LINE__, attr.path.c_str_utf8(), static_cast<int>(node->status));
        return -1;
    }
    DecreaseRefCount(parent, is_server);
    if (HasChildren(node)) {
        node->status = DONE;
        ClearAttribute(node->attr);
    } else {
        std::unique_ptr<DirNode> owned = std::move(*it);
        parent->dir.erase(it);
        RemoveDoneEventDir(std::move(owned));
    }
    CountEvent(is_server, -1);
    return 0;
}

int EventList2::UpdateFileDoneEvent(const Attribute& attr) {
    std::vector<std::string> dirs;
    std::string base;
    DirNode* parent = BaseName(attr.path, dirs, base) < 0 ? nullptr : WalkFind(dirs);
    if (parent == nullptr) {
        Logger::LogMsg(Logger::L_ERR, Category(),
                       "[ERROR] event-list2(%d): Failed to UpdateFileDoneEvent(parent not found) "
                       "[%s]\n",
                       __LINE__, attr.path.c_str_utf8());
        return -1;
    }
    auto it = FindFile(parent, ustring(base));
    if (it == parent->file.end()) {
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-list2(%d): Failed to UpdateFileDoneEvent(FileNode not found) "
                       "[%s].\n",
                       __LINE__, attr.path.c_str_utf8());
        return -1;
    }
    const bool is_server = IsServer(it->attr);
    if (is_server != IsServer(attr)) {
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-list2(%d): Failed to UpdateFileDoneEvent(attr mode is diff) "
                       "[%s].\n",
                       __LINE__, attr.path.c_str_utf8());
        return -1;
    }
    if (it->status != PROCESSING) {
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-list2(%d): Failed to UpdateFileDoneEvent(NOT PROCESSING) "
                       "[%s] in status[%d].\n",
                       __LINE__, attr.path.c_str_utf8(), static_cast<int>(it->status));
        return -1;
    }
    DecreaseRefCount(parent, is_server);
    parent->file.erase(it);
    if (!HasChildren(parent) && parent->status == DONE && parent->parent != nullptr) {
        auto self = FindChild(parent->parent, parent);
        std::unique_ptr<DirNode> owned = std::move(*self);
        parent->parent->dir.erase(self);
        RemoveDoneEventDir(std::move(owned));
    }
    CountEvent(is_server, -1);
    return 0;
}

// `node` is already unlinked; DONE steps above it that now lead nowhere go with it.
void EventList2::RemoveDoneEventDir(std::unique_ptr<DirNode> node) {
    DirNode* parent = node->parent;
    if (parent == nullptr) return;
    if (!HasChildren(parent) && parent->status == DONE && parent->parent != nullptr) {
        auto self = FindChild(parent->parent, parent);
        std::unique_ptr<DirNode> owned = std::move(*self);
        parent->parent->dir.erase(self);
        RemoveDoneEventDir(std::move(owned));
    }
}

// ---- Redo ----

int EventList2::Redo(const ustring& path) {
    MutexLock lock(mutex);
    return SetWaitingStatusByPath(path, KIND_DIR_FIRST);
}

int EventList2::Redo(const ustring& path, bool is_dir) {
    MutexLock lock(mutex);
    return SetWaitingStatusByPath(path, is_dir ? KIND_DIR_ONLY : KIND_FILE_ONLY);
}

int EventList2::SetWaitingStatusByPath(const ustring& path, int kind) {
    std::vector<std::string> dirs;
    std::string base;
    if (BaseName(path, dirs, base) < 0) return -1;
    DirNode* parent = WalkFind(dirs);
    if (parent == nullptr) return -1;
    const ustring name(base);
    auto dir_it = FindDir(parent, name);
    auto file_it = FindFile(parent, name);
    // A DONE step holds nothing to run again.
    const bool dir_ok = dir_it != parent->dir.end() && (*dir_it)->status != DONE;
    const bool file_ok = file_it != parent->file.end() && file_it->status != DONE;
    bool use_dir;
    if (kind == KIND_DIR_ONLY)
        use_dir = true;
    else if (kind == KIND_FILE_ONLY)
        use_dir = false;
    else
        use_dir = dir_ok || !file_ok;
    if (use_dir ? !dir_ok : !file_ok) return -1;

    // The path's directories go to the back of their lists, so its siblings go first.
    for (DirNode* step = parent; step->parent != nullptr; step = step->parent)
        MoveToEnd(step->parent->dir, FindChild(step->parent, step));

    Status& status = use_dir ? (*dir_it)->status : file_it->status;
    const Attribute& attr = use_dir ? (*dir_it)->attr : file_it->attr;
    if (status == PROCESSING) DecreaseRefCount(parent, IsServer(attr));
    status = WAITING;
    if (use_dir)
        MoveToEnd(parent->dir, dir_it);
    else
        MoveToEnd(parent->file, file_it);
    return 0;
}

// ---- clearing ----

void EventList2::Clear() {
    MutexLock lock(mutex);
    Logger::LogMsg(Logger::L_INFO, Category(), "[INFO] event-list2(%d): ========Clear=========\n",
                   __LINE__);
    if (On(Logger::L_DEBUG)) {
        std::vector<NodeView> nodes;
        SnapshotDir(root.get(), nodes);
        for (const NodeView& view : nodes)
            if (view.is_dir)
                Logger::LogMsg(Logger::L_DEBUG, Category(),
                               "[DEBUG] event-list2(%d): [Remove Dir] = [%s]\n", __LINE__,
                               view.path.c_str_utf8());
    }
    root = std::make_unique<DirNode>();
    root->name = "/";
    server_event_count = 0;
    local_event_count = 0;
}

void EventList2::ClearLocalEvent() {
    MutexLock lock(mutex);
    Logger::LogMsg(Logger::L_INFO, Category(),
                   "[INFO] event-list2(%d): ========RemoveLocalEvent=========\n", __LINE__);
    int kept = 0;
    RemoveLocalEventNode(root.get(), kept);
    local_event_count = 0;
}

void EventList2::RemoveLocalEventNode(DirNode* node, int& refCount) {
    for (auto it = node->dir.begin(); it != node->dir.end();) {
        DirNode* child = it->get();
        int count = 0;
        RemoveLocalEventNode(child, count);
        const ustring path = DirPath(child);
        const bool is_server = IsServer(child->attr);
        if (count == 0 && !is_server) {
            Logger::LogMsg(Logger::L_DEBUG, Category(),
                           "[DEBUG] event-list2(%d): [Remove Dir Node] = [%s]\n", __LINE__,
                           path.c_str_utf8());
            it = node->dir.erase(it);
            continue;
        }
        Logger::LogMsg(Logger::L_DEBUG, Category(),
                       "[DEBUG] event-list2(%d): [Cannot Remove Dir Node] = [%s],refTemp = [%d]\n",
                       __LINE__, path.c_str_utf8(), count);
        if (!is_server) {
            child->status = DONE;
            ClearAttribute(child->attr);
        }
        refCount += count + 1;
        ++it;
    }
    RemoveSubFileLocalEventNode(node, refCount);
}

void EventList2::RemoveSubFileLocalEventNode(DirNode* node, int& refCount) {
    for (auto it = node->file.begin(); it != node->file.end();) {
        if (IsServer(it->attr)) {
            ++refCount;
            ++it;
        } else {
            it = node->file.erase(it);
        }
    }
}

// ---- looking at the tree ----

bool EventList2::IsEmpty() const {
    MutexLock lock(mutex);
    return !HasChildren(root.get());
}

void EventList2::TraverseTree() {
    MutexLock lock(mutex);
    Logger::LogMsg(Logger::L_INFO, Category(),
                   "[INFO] event-list2(%d): ========TraverseTree , server_event_count = [%d], "
                   "local_event_count=[%d] =========\n",
                   __LINE__, GetServerEventCount(), GetLocalEventCount());
    TraverseDir(root.get());
}

void EventList2::TraverseDir(const DirNode* node) {
    const auto flag = [](uint32_t mode, uint32_t bit) { return (mode & bit) != 0 ? 1 : 0; };
    const uint32_t rescan_bits = Event::F_LOCAL_SUBDIR_RESCAN | Event::F_SERVER_SUBDIR_RESCAN |
                                 Event::F_LOCAL_SUBDIR_RESCAN_STAT |
                                 Event::F_SERVER_SUBDIR_RESCAN_STAT;
    const ustring dir_path = DirPath(node);
    Logger::LogMsg(Logger::L_INFO, Category(),
                   "[INFO] event-list2(%d): [Dir] server=[%d],Conflict=[%d],SubDirRescan=[%d],"
                   "name=[%s],status =[%d],type[%d],refSerCount=[%d],refLocCount=[%d],path=[%s]\n",
                   __LINE__, flag(node->attr.mode, Event::F_SERVER),
                   flag(node->attr.mode, Event::F_CONFLICT), flag(node->attr.mode, rescan_bits),
                   node->name.c_str_utf8(), static_cast<int>(node->status), node->attr.type,
                   node->refServerCount, node->refLocalCount, dir_path.c_str_utf8());
    for (const FileNode& file : node->file) {
        const ustring path = dir_path + "/" + file.name;
        Logger::LogMsg(Logger::L_INFO, Category(),
                       "[INFO] event-list2(%d): [File] server=[%d],Conflict=[%d],SubDirRescan=[%d],"
                       "name=[%s],status=[%d],type=[%d],path=[%s]\n",
                       __LINE__, flag(file.attr.mode, Event::F_SERVER),
                       flag(file.attr.mode, Event::F_CONFLICT), flag(file.attr.mode, rescan_bits),
                       file.name.c_str_utf8(), static_cast<int>(file.status), file.attr.type,
                       path.c_str_utf8());
    }
    for (const std::unique_ptr<DirNode>& child : node->dir) TraverseDir(child.get());
}

std::vector<EventList2::NodeView> EventList2::Snapshot() const {
    MutexLock lock(mutex);
    std::vector<NodeView> out;
    SnapshotDir(root.get(), out);
    return out;
}

void EventList2::SnapshotDir(const DirNode* node, std::vector<NodeView>& out) const {
    const ustring dir_path = DirPath(node);
    for (const FileNode& file : node->file) {
        NodeView view;
        view.path = dir_path + "/" + file.name;
        view.status = file.status;
        ConvertAttrToEvent(file.attr, view.event);
        out.push_back(std::move(view));
    }
    for (const std::unique_ptr<DirNode>& child : node->dir) {
        NodeView view;
        view.path = DirPath(child.get());
        view.is_dir = true;
        view.status = child->status;
        ConvertAttrToEvent(child->attr, view.event);
        view.refServerCount = child->refServerCount;
        view.refLocalCount = child->refLocalCount;
        out.push_back(std::move(view));
        SnapshotDir(child.get(), out);
    }
}
