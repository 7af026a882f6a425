// progress-syncer.h: ProgressSyncer, the task that fetches what a loosened selective-sync
// rule used to hide. It works off the resume list (ProgressCache) head first, one
// condition at a time: it asks the server for the events that match the condition, from
// the condition's own sync id, hands them to the workers as server events, and once they
// are carried out stores the new sync id with the condition. When the server has nothing
// more for it the condition is retired. While a session has conditions open the Syncer
// leaves it alone, so the two never pull one session at once.
//
// Errors never end the task; it reports nothing to the user interface. Started with the
// other tasks by the daemon's "link"; uses g_pool, the Registry, the EventManager, the
// FilterDB and the ProgressCache, all of which lock for themselves.
#pragma once

#include <cstdint>

#include "foundation/mutex.h"
#include "foundation/object.h"
#include "foundation/stream.h"
#include "pulling/progress-cache.h"
#include "pulling/pull-exchange.h"
#include "runtime/registry.h"
#include "runtime/task.h"

class ProgressSyncer : public Task {
  public:
    enum ConnectionState { CONNECTED = 0, DISCONNECTED = 1, IDLE = 2 };
    // The condition being worked off and a copy of its session's entry.
    struct Context {
        uint64_t row_id = 0;
        ProgressCache::Entry progress_entry;
        Registry::Entry reg_entry;
    };

    ProgressSyncer();
    ~ProgressSyncer() override = default;

    // Each sets the abort flag first, so that a pull under way gives up within a second.
    int Pause() override;
    int Stop() override;
    // Clears the abort flag, then resumes.
    int Resume() override;
    // The loop: the head condition, when its session is ready, then the wait HandleError
    // chose.
    void DoTask() override;

    // One pull for the current condition and what follows from its reply. 0 or a code.
    int PullEvent();
    // The pull request of the current condition, with its "condition" map.
    bool PrepareRequest(PObject& request);
    // Retires the condition when the reply moved nothing; otherwise pushes its records,
    // waits for the workers and stores "next_sync_id" with the condition. 0; -1 when
    // interrupted (nothing stored: the batch is asked for again) or the id can't be stored.
    int ProcessEvents(const PObject& response);
    // Until the session has no pending server event: 0; -1 when the task stops, or the
    // session is removed or paused meanwhile.
    int WaitForWorkers();
    // Takes the head of the resume list and its session's entry. 0; -1 when the list is
    // empty or the session is unknown (the entry stays at the head).
    int UpdateContext();
    // False while the session is paused or still has pending server events.
    bool IsSessionReady();
    // The action for a result: 0 go on, 1 wait 3 s, 2 wait 120 s, 3 wait 3 s, -1
    // unexpected.
    int HandleError(int err);
    // Errors of this task are not the user's business. Always 0.
    int NotifyUI() { return 0; }
    void SetConnectionState(ConnectionState state);

  private:
    // Lets go of the session's objects between rounds, so the session can be removed.
    void ReleaseContext();

    Context context;
    Mutex conn_state_lock;
    ConnectionState conn_state GUARDED_BY(conn_state_lock) = DISCONNECTED;
    PStream m_stream;
    PullerCaller m_caller;
};
