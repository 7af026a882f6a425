// registry.h: the table of sessions, the one place that says which local folders are in
// sync, with which view, in which state, and holds each session's filter, white list and
// database. Read by every task (through copies), written by the control thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "foundation/mutex.h"
#include "foundation/ustring.h"

class BlackList2;
class WhiteListCpp;
class FileEventDB;

class Registry {
  public:
    // Counts the live copies of one stored entry, the table's own among them, so that
    // the table can tell whether anyone may still be using the session's objects. It
    // travels with every copy and assignment of an Entry; Entry::clear lets go.
    class CopyCount {
      public:
        CopyCount() = default;
        CopyCount(const CopyCount& other);
        CopyCount& operator=(const CopyCount& other);
        ~CopyCount();
        // Live copies sharing this count; 0 for an entry that was never in a table.
        int copies() const;

      private:
        friend class Registry;
        void Join(const std::shared_ptr<std::atomic<int>>& count);
        std::shared_ptr<std::atomic<int>> m_count;
    };

    // One session. A value: copies share the three objects but don't own them. Clear
    // frees them only when no copy of the entry is left outside the table, so a task
    // that holds a copy can use them until it lets go of it.
    struct Entry {
        uint64_t sess_id = 0;  // never 0: 0 means "all sessions" in commands
        uint64_t view_id = 0;
        uint64_t node_id = 0;
        uint32_t recycle_time = 0;  // oldest item of the recycle bin, 0 when none known
        bool recursive = false;
        ustring local_path;
        ustring remote_path;
        ustring config_path;
        bool isMSDOS = false;
        bool pause = false;
        // A session joining with content: its merging look at the root waits until its
        // first pull is up to date, so that equal files are known before any goes up.
        bool merge_pending = false;
        BlackList2* black_list = nullptr;
        WhiteListCpp* white_list = nullptr;
        FileEventDB* event_db = nullptr;
        // Set by the table: an entry built by hand and given to Set starts a new count.
        CopyCount copies;

        // Empties every field and lets go of the session; frees nothing.
        void clear() { *this = Entry(); }
    };

    // The process-wide table, made on first use.
    static Registry& getInstance();

    // An empty table of one's own (the daemon uses getInstance).
    Registry() = default;
    // Frees nothing: the objects belong to whoever Clears them.
    ~Registry() = default;
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    size_t Size() EXCLUDES(m_mutex);
    // The ids in the table, in order.
    std::vector<uint64_t> Ids() EXCLUDES(m_mutex);
    // 1 and a copy of the session's entry; 0 when absent.
    int Find(uint64_t sess_id, Entry& entry) EXCLUDES(m_mutex);
    // A circular walk in id order: the entry after `sess_id`, the first after the last,
    // and the first when `sess_id` isn't in the table. 1 unless the table is empty (0).
    // FindNext(0, e) starts a walk; it is over when it comes back to where it began.
    int FindNext(uint64_t sess_id, Entry& entry) EXCLUDES(m_mutex);
    // Inserts or overwrites the entry at entry.sess_id. Pointers it replaces are not
    // freed. To change one field: Find, change the copy, Set (not atomic as a whole).
    void Set(const Entry& entry) EXCLUDES(m_mutex);
    // Takes the entry out without freeing anything.
    void Remove(uint64_t sess_id) EXCLUDES(m_mutex);
    // Closes the session's database and deletes its database, white list and filter,
    // in that order, then takes the entry out. 0, also for an absent id. -1 (logged,
    // nothing freed, the entry stays) while a copy of the entry is held outside the
    // table: the caller's own copies count too, so let go of them (Entry::clear) first,
    // and try again once the task holding one has let go.
    int Clear(uint64_t sess_id) EXCLUDES(m_mutex);
    // The same for every entry. 0 and an empty table; -1 when some entry was held and
    // stays.
    int Clear() EXCLUDES(m_mutex);
    // True once for a session whose merge_pending was set, which it clears.
    bool TakeMergePending(uint64_t sess_id) EXCLUDES(m_mutex);
    // Sets recycle_time of entry.sess_id, when present.
    void UpdateRecycleTime(const Entry& entry, uint32_t time) EXCLUDES(m_mutex);
    // Sets recycle_time of entry.sess_id, when present, only if it is 0 or later than
    // `time`: the earliest known time wins.
    void InitRecycleTime(const Entry& entry, uint32_t time) EXCLUDES(m_mutex);

    // The table's mutex, for a caller that needs several steps in one go; no other
    // operation may be called while it is held.
    void lock() ACQUIRE(m_mutex) { m_mutex.lock(); }
    void unlock() RELEASE(m_mutex) { m_mutex.unlock(); }

  private:
    // Frees the objects of the stored `entry` unless a copy of it is held elsewhere.
    // True when freed (or there was nothing to free).
    static bool FreeObjects(Entry& entry);

    Mutex m_mutex;
    std::map<uint64_t, Entry> m_table GUARDED_BY(m_mutex);
};
