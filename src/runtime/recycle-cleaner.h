// recycle-cleaner.h: RecycleCleaner, the task that empties the sessions' recycle bins of
// old copies. What a server change takes from the disk waits in the bin (with a record in
// the session's FileEventDB) so that a rename or move can be served from there without a
// transfer; after kRetentionSeconds it is removed, folder and records together. One
// session is looked at each second, with a pause of three seconds between rounds.
// Started and stopped with the daemon's other tasks; works on copies of the Registry's
// entries and through each session's FileEventDB, which lock for themselves.
#pragma once

#include <cstdint>

#include "foundation/ustring.h"
#include "runtime/registry.h"
#include "runtime/task.h"

class RecycleCleaner : public Task {
  public:
    // How long a copy stays in the bin.
    static constexpr uint32_t kRetentionSeconds = 1800;

    // The session being looked at; an entry with sess_id 0 means "before the first".
    struct Context {
        Registry::Entry entry;
        void clear() { entry.clear(); }
    };

    RecycleCleaner() = default;
    ~RecycleCleaner() override = default;

    // The loop: one session, a second's wait, the next; three seconds after the last one.
    // Errors never end it.
    void DoTask() override;
    // Each raises the abort flag before changing the state, so the loop's wait ends at once.
    int Pause() override;
    int Stop() override;
    // Lowers the abort flag, then resumes.
    int Resume() override;

    // Moves the context to the next session in id order. 0; -1 when the last one was
    // passed (or there is none), with the context cleared so the next call starts over.
    int UpdateContext();
    // Removes the current session's items older than kRetentionSeconds from its bin, then
    // their records, and stores the time of the oldest one left in the Registry (0 for
    // none). Nothing is touched while the entry's recycle_time says nothing is due. 0; -1
    // when a step failed (logged); the records of what could not be removed stay, so the
    // next round tries again.
    int Rotate();
    // The current session's recycle bin.
    ustring GetRecycleBinDir() const;

    const Context& GetContext() const { return context; }

  private:
    // Removes one item of the bin, named by its record's path. 0 or -1 (logged).
    int RemoveItem(const ustring& path);

    Context context;
};
