// progress-cache.h: the in-memory list of resume conditions still to be worked off, in
// arrival order, each with its row in the filter database. The session commands and the
// filter reload add to it, the puller of resume conditions works it off head first, and
// the syncer leaves out of normal pulling any session that has an entry here.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "state/selective-sync.h"

class ProgressCache {
  public:
    struct Entry {
        uint64_t row_id = 0;  // the condition's row in the filter database
        ResumeCondition condition;
    };

    // The process's list. Tests may make their own.
    static ProgressCache& getInstance();
    ProgressCache() = default;
    ProgressCache(const ProgressCache&) = delete;
    ProgressCache& operator=(const ProgressCache&) = delete;

    // Appends an entry.
    void addProgressEntry(uint64_t row_id, const ResumeCondition& condition);
    // Copies the first entry into `entry` and gives true; false when the list is empty.
    // The entry stays in the list.
    bool getProgressEntry(Entry& entry);
    // Sets the sync id of the entries of `row_id`.
    void updateProgressSyncId(uint64_t row_id, uint64_t sync_id);
    // Removes the entries of `row_id`; the others keep their order.
    void rmProgressEntry(uint64_t row_id);
    // True when an entry belongs to session `sess_id` (a session id, not a row id).
    bool isInProgrssCache(uint64_t sess_id);

    // Holds the list across several calls (the lock is recursive, so the calls above may
    // be made in between). Every Lock needs its Unlock on the same thread.
    void Lock();
    void Unlock();

  private:
    std::vector<Entry> cache_list;
    std::recursive_mutex m_mutex;
};
