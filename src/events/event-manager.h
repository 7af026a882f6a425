// event-manager.h: EventManager, the process-wide switchboard between the producers of
// events (the change detector, the syncers, workers that issue rescans) and the
// workers. It keeps one event_pool per session, serves the sessions in turn, remembers
// which task holds which event, and notices when a path changes while a task is busy
// with it. Pending paths are marked "syncing" in FileStatusDB and told to the UI.
//
// Lock order: m_lock, then a tree's mutex, then the locks inside FileStatusDB; the
// session Registry is read with m_lock held, so neither may call back into here. UI
// notices are sent after m_lock is released: a slow listener never holds up a worker.
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>

#include "events/event-list2.h"
#include "events/event.h"
#include "foundation/mutex.h"
#include "foundation/ustring.h"

class Registry;
class Task;

class EventManager {
  public:
    // What one task is working on.
    struct registry_entry_t {
        Event processing;  // the event the task holds
        Event waiting;     // the latest change to the same path since; EV_EMPTY when none
        bool is_dirty() const { return waiting.m_type != Event::EV_EMPTY; }
    };

    // The pending work of one session.
    class event_pool {
      public:
        // `local_path` is the session's root, the tree's watch path.
        explicit event_pool(const ustring& local_path);

        // An expand goes to the expand list (a rescan of "/" first drops the others,
        // which it includes); anything else to the tree. True when the event was queued
        // or merged; false for EV_EMPTY, an expand of a file, or a path the tree refuses.
        bool push(const Event& e);
        // 1 and the next event: from the tree when it has a runnable one, else the
        // oldest expand. 0 when there is none.
        int pop(Event& e);
        // Events in the tree (waiting or held) plus waiting expands.
        size_t size() const;
        int get_server_event_count() const { return event_tree.GetServerEventCount(); }
        bool is_empty() const { return size() == 0; }
        void clear();

        EventList2 event_tree;
        std::list<Event> expand_events;
    };

    // The process's manager, on the process's session Registry.
    static EventManager& getInstance();
    // A manager of one's own that finds sessions in `registry` (not owned).
    explicit EventManager(Registry& registry);
    ~EventManager();
    EventManager(const EventManager&) = delete;
    EventManager& operator=(const EventManager&) = delete;

    // Queues a local event or an expand. An invalid UTF-8 path or an unknown session
    // drops the event (logged). A task holding the same path is told of the change; an
    // upload of a file now removed, or a walk of a directory asked again, is aborted.
    void PushLocalEvent(const Event& e) EXCLUDES(m_lock);
    // Queues a server event (F_SERVER is set here). A task holding the same path is told
    // of the change but never interrupted.
    void PushServerEvent(const Event& e) EXCLUDES(m_lock);

    // 0 and the next event for `task`, the sessions taking turns one event at a time;
    // -1 when the session whose turn it is has nothing runnable at this moment.
    int PullEvent(Task* task, Event& e) EXCLUDES(m_lock);
    // 0 when `task` is finished with its path (also for a task that holds nothing). -1
    // when the path changed meanwhile: `e` then holds the newer event, which the task
    // now holds and must carry out next.
    int DoneEvent(Task* task, Event& e) EXCLUDES(m_lock);
    // Gives the task's event back to its session, to run again later. 0; -1 when the
    // session or the path is not known (the event is then lost to the task).
    int RedoEvent(Task* task, const Event& e) EXCLUDES(m_lock);

    // Queues a walk of directory `path` of session `key`.
    void IssueExpand(uint64_t key, const ustring& path) EXCLUDES(m_lock);
    // Queues a comparison of `path` with the database; `do_merge` merges instead of
    // replacing.
    void IssueRescan(uint64_t sess_id, const ustring& path, bool do_merge) EXCLUDES(m_lock);

    // Server events of the session in its tree, waiting or held; 0 for an unknown one.
    int GetPendingServerEvent(uint64_t sess_id) EXCLUDES(m_lock);
    // All pending work of the session; 0 for an unknown one (logged).
    int GetAllPendingEventCount(uint64_t sess_id) EXCLUDES(m_lock);

    // The status row's path of an event's `path` in the session rooted at `local_path`:
    // the path the manager writes when the event is queued and the worker clears when it
    // is done. The root is the session folder itself.
    static ustring StatusPath(const ustring& local_path, const ustring& path);
    // Marks the absolute `path` as syncing in FileStatusDB. 0; -1.
    static int SyncingEvent2FStatDB(const ustring& path, bool is_dir);
    // Drops the status row of the absolute `path`: it is in sync. 0; -1.
    static int SyncedEvent2FStatDB(const ustring& path);

    // Frees the pool of a removed session: its pending work is not carried out. A task
    // still holding one of its events lets go of it as of a session that is gone.
    void RemoveSession(uint64_t sess_id) EXCLUDES(m_lock);
    // Frees every pool and forgets every task.
    void Clear() EXCLUDES(m_lock);

  private:
    // Which tasks see a change to a path they hold, and what is done to them.
    void NoteChangeToHeldPath(const Event& e, bool may_abort) REQUIRES(m_lock);
    // Steps shared by both pushes once the task table has been looked at. False when the
    // session is unknown; otherwise `accepted` says whether the pool took the event and
    // `full_path` is the event's status path.
    bool PushToPool(const Event& e, bool is_server, bool& accepted, ustring& full_path)
        REQUIRES(m_lock);
    event_pool* FindPool(uint64_t sess_id) REQUIRES(m_lock);

    Registry& m_registry;
    // The detector names m_lock in its lock order.
    friend class Detector;
    Mutex m_lock ACQUIRED_BEFORE(EventList2::mutex);
    std::map<Task*, registry_entry_t> registry GUARDED_BY(m_lock);
    std::map<uint64_t, std::unique_ptr<event_pool>> pool_index GUARDED_BY(m_lock);
    std::deque<event_pool*> ready_queue GUARDED_BY(m_lock);
};
