// event-list2.h: EventList2, the pending events of one session as a tree shaped like
// the session's folders, one node per path. A later change to a path merges into the
// pending one instead of queueing behind it, and a directory's event always runs
// before anything below it. Owned and used only by EventManager (event-manager.h).
//
// Order of work (Pop): the files of a directory before its sub-directories, list order
// within each; a waiting directory before what lies under it; never a directory while
// a worker holds an event below it, and nothing under a directory that is itself held.
//
// Every public operation except the two count getters holds the tree's mutex for its
// whole length. Inside it the tree calls FileStatusDB (to drop the status rows of events
// a directory removal makes pointless), so the lock order is this mutex, then the
// status database's.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "events/event.h"
#include "foundation/mutex.h"
#include "foundation/ustring.h"

class EventList2 {
  public:
    enum Status {
        WAITING = 0,     // holds an event no worker has
        PROCESSING = 1,  // a worker holds the event
        DONE = 2,        // holds no event: only a step on the way to its children
        RETRY = 3,       // a worker holds an older version; the node's event changed since
    };

    // Reserved mode bit; the tree never sets it.
    static constexpr uint32_t F_FORCE = 2048;

    // The tree's own copy of an event, field for field.
    struct Attribute {
        int32_t type = Event::EV_EMPTY;
        uint32_t mode = 0;
        uint64_t syncID = 0;
        uint64_t maxSyncID = 0;
        uint64_t sessID = 0;
        ustring hash;
        ustring path;
        ustring opt;
        ustring mac_attr_hash;
        uint64_t size = 0;
        uint64_t mac_attr_size = 0;
        uint32_t time = 0;
        // Carried along; never taken from an event and never read by the tree.
        uint64_t nodeID = 0;
        uint32_t exec_bit = 0;
    };

    struct FileNode {
        ustring name;
        Status status = WAITING;
        Attribute attr;
    };

    struct DirNode {
        ustring name;
        DirNode* parent = nullptr;  // null only at the root
        Status status = DONE;
        Attribute attr;
        std::list<std::unique_ptr<DirNode>> dir;
        std::list<FileNode> file;
        // Events held by workers anywhere below this directory, by side.
        int refServerCount = 0;
        int refLocalCount = 0;
    };

    // One node as Snapshot shows it.
    struct NodeView {
        ustring path;  // "/a/b"
        bool is_dir = false;
        Status status = WAITING;
        Event event;  // EV_EMPTY for a DONE step
        int refServerCount = 0;
        int refLocalCount = 0;
    };

    EventList2();
    ~EventList2();
    EventList2(const EventList2&) = delete;
    EventList2& operator=(const EventList2&) = delete;

    // Merges `e` into the node of its path, creating the steps on the way. 0; -1 for an
    // empty path, a path ending in "/" or one longer than 4095 bytes (nothing changes).
    // `old_event` receives what the node held before (EV_EMPTY for a new node).
    int Push(const Event& e);
    int Push(const Event& e, Event& old_event);

    // The next runnable event, now held (PROCESSING): 0; -1 when none is runnable.
    int Pop(Event& e);
    // The event at `path` whatever its place in the order, now PROCESSING: how the
    // newer event of a path goes back to the worker that held the older one. Without a
    // kind a directory of that name is tried first, then a file; with one, that kind
    // first, then the other. A node another worker holds, or a DONE step, is never
    // taken. 0; -1 when there is nothing to take.
    int Pop(const ustring& path, Event& e);
    int Pop(const ustring& path, bool prefer_dir, Event& e);

    // Retires a held event: the node goes (with DONE steps above it that led nowhere
    // else), or becomes a DONE step when it still has children. 0; -1 when the tree
    // doesn't know the path, the node is of the other side, or it is not PROCESSING
    // (a RETRY node: its event changed while held; answer with Redo).
    int DoneEvent(const Event& e);

    // Makes a held event run again later: the node becomes WAITING and moves, with each
    // directory on its path, to the end of its list, so that a path that keeps failing
    // lets its siblings go first. 0; -1 when the path has no node. Without a kind a
    // directory of that name is tried first, then a file.
    int Redo(const ustring& path);
    int Redo(const ustring& path, bool is_dir);

    // Removes everything.
    void Clear();
    // Removes all local events. Only for when no worker holds a local event: it does
    // not touch the held counts.
    void ClearLocalEvent();
    // True when the root has no files and no directories.
    bool IsEmpty() const;
    // Writes the whole tree to the log (category "event_list_debug").
    void TraverseTree();
    // Every node in tree order (depth first, files before sub-directories), for
    // diagnosis and tests.
    std::vector<NodeView> Snapshot() const;

    // Events in the tree, waiting or held. Read without the mutex; may be out of date.
    int GetServerEventCount() const { return server_event_count.load(std::memory_order_relaxed); }
    int GetLocalEventCount() const { return local_event_count.load(std::memory_order_relaxed); }

    // The session's local root; joined with an event's path it names the status row.
    void SetWatchPath(const ustring& path);

    static void ConvertEventToAttr(const Event& e, Attribute& attr);
    static void ConvertAttrToEvent(const Attribute& attr, Event& e);
    // Resets type, mode, syncID, hash and path; the other fields stay.
    static void ClearAttribute(Attribute& attr);

  private:
    using FileIter = std::list<FileNode>::iterator;
    using DirIter = std::list<std::unique_ptr<DirNode>>::iterator;

    static int BaseName(const ustring& path, std::vector<std::string>& dirs, std::string& base);
    DirNode* WalkCreate(const std::vector<std::string>& dirs) REQUIRES(mutex);
    DirNode* WalkFind(const std::vector<std::string>& dirs) const REQUIRES(mutex);

    void AddFileNode(DirNode* parent, const ustring& name, const Attribute& attr,
                     Attribute& old_attr);
    void AddDirectoryNode(DirNode* parent, const ustring& name, const Attribute& attr,
                          Attribute& old_attr) REQUIRES(mutex);
    static Attribute HandleConflict(const Attribute& old_attr, const Attribute& new_attr);
    static Attribute HandleTypeConflict(const Attribute& server, const Attribute& local);
    // Two local events of a file: the newer, still carrying a server removal the older
    // had absorbed (unless the newer is a removal itself).
    static Attribute KeepServerRemoval(const Attribute& older, const Attribute& newer);

    void RemoveSubNode(DirNode* node, bool is_server, int& refCount, uint64_t base_sync_id)
        REQUIRES(mutex);
    void RemoveSubFileNode(DirNode* node, bool is_server, int& refCount, uint64_t base_sync_id)
        REQUIRES(mutex);
    void RemoveLocalEventNode(DirNode* node, int& refCount);
    void RemoveSubFileLocalEventNode(DirNode* node, int& refCount);

    int GetFirstWaiting(DirNode* node, Attribute& attr);
    bool IsAllSubNodeAreDeleteEvent(const DirNode* node) const;
    bool IsAllSubProcessingNodeAreDeleteEvent(const DirNode* node) const;
    static void IncreaseRefCount(DirNode* dir, bool is_server);
    static void DecreaseRefCount(DirNode* dir, bool is_server);

    int UpdateDirDoneEvent(const Attribute& attr) REQUIRES(mutex);
    int UpdateFileDoneEvent(const Attribute& attr) REQUIRES(mutex);
    void RemoveDoneEventDir(std::unique_ptr<DirNode> node);
    int SetWaitingStatusByPath(const ustring& path, int kind) REQUIRES(mutex);
    int TakeNode(const ustring& path, bool dir_first, Attribute& attr) REQUIRES(mutex);

    void CountEvent(bool is_server, int delta);
    void ForgetStatus(const ustring& rel_path) REQUIRES(mutex);
    static ustring DirPath(const DirNode* node);
    void TraverseDir(const DirNode* node);
    void SnapshotDir(const DirNode* node, std::vector<NodeView>& out) const;

    // The manager names this mutex in its lock order.
    friend class EventManager;
    mutable Mutex mutex;
    std::unique_ptr<DirNode> root GUARDED_BY(mutex);
    std::atomic<int> server_event_count{0};
    std::atomic<int> local_event_count{0};
    ustring watch_path GUARDED_BY(mutex);
};
