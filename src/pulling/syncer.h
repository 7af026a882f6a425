// syncer.h: Syncer, the task that keeps asking the server what has changed. It visits the
// sessions of the Registry in turn; for each it sends one "pull_event" from the session's
// saved sync id on a pooled connection, turns the reply's records into server events for
// the EventManager, waits until the workers have carried all of them out, and only then
// stores the new sync id. The sync id on disk therefore never runs ahead of what has been
// done: a crash or a pause repeats work and loses none.
//
// Errors never end the task: HandleError turns a result into a wait (0, 3 or 120 seconds)
// and tells the user interface of session and connection errors. Started by the daemon's
// "link" with the other tasks; uses g_pool, the Registry, the EventManager, ProgressCache
// and each session's FileEventDB, all of which lock for themselves.
#pragma once

#include <cstdint>
#include <map>
#include <set>

#include "foundation/object.h"
#include "foundation/stream.h"
#include "pulling/pull-exchange.h"
#include "runtime/registry.h"
#include "runtime/task.h"

class Syncer : public Task {
  public:
    // The session being pulled: a copy of its entry and the sync id pulled from.
    struct Context {
        Registry::Entry entry;
        uint64_t sync_id = 0;
    };
    // Whom the user interface is told of an error.
    enum ErrorType { ERR_NONE = 0, ERR_SESSION = 1, ERR_CONNECTION = 2 };

    Syncer();
    ~Syncer() override = default;

    // The loop: one session per turn, then the wait HandleError chose.
    void DoTask() override;
    // Each sets the abort flag first, so that a pull under way gives up within a second.
    int Pause() override;
    int Stop() override;
    // Clears the abort flag, then resumes.
    int Resume() override;

    // PullEventFromServer, then ProcessEvents on its reply when it succeeded. 0 or a code.
    int PullEvent();
    // Sends "pull_event" for the current session from its stored sync id. 0 and the reply;
    // -3 when the sync id can't be read (nothing is sent); -2 without a linked pool; the
    // login's or the exchange's code (the connection is dropped); or the daemon code of
    // the reply's "error".
    int PullEventFromServer(PObject& response);
    // The "pull_event" exchange. 0 or -2.
    int ProtoPullEvent(Channel& ch, const PObject& request, PObject& response);
    // One request and its reply, keep-alives skipped. 0 or -2.
    int RunProtocol(Channel& ch, uint8_t cmd, const PObject& request, PObject& response);
    // Makes a borrowed connection usable for the current session's view. 0 or a code.
    int RequestChannel(Connection* conn);
    // Opens the connection anew to the pool's server. 0 or the channel's code.
    int EstablishConnection(Connection* conn);

    // Moves to the next session, wrapping round. 0; -1 when there is none.
    int UpdateContext();
    // Lets go of the session's objects between rounds, keeping its ids for the walk and the log, so
    // that the session can be removed while the task sleeps.
    void ReleaseContext();
    // False while the session is paused or a selective-sync resumption runs for it.
    bool IsSessionReady();
    // The action for a result (0 go on, 1 wait 3 s, 2 wait 120 s, above 2 wait 3 s, -1
    // unexpected), after telling the user interface by the error's type.
    int HandleError(int err);
    // Until the session has no pending server event: 0; -1 when the task stops, or the
    // session is removed or paused meanwhile.
    int WaitForWorkers();
    // Pushes the reply's records and stores its "next_sync_id" once they are all done. A
    // reply that moves nothing marks the session up to date (and starts the merging look at
    // the root of a session that joined with content); when every session is, the
    // task sleeps 5 seconds. 0; -1 when interrupted while waiting (nothing stored); -3
    // when the sync id can't be stored.
    int ProcessEvents(const PObject& response);

  private:
    // A pull from 0 over a session whose database already holds rows, as a daemon stopped
    // before its first pull was whole leaves it: the server lists only what lives, so a
    // row the whole listing never names was removed there meanwhile. Until the listing is
    // whole its mark is kept here and nothing is stored, so that a crash starts it over.
    struct Listing {
        uint64_t next = 0;
        std::map<ustring, bool> unseen;  // rows not named yet; true for a folder
    };
    // The mark to pull from given the stored one, opening a Listing when that is 0 and
    // the database has rows. A database that can't be read opens none (logged).
    uint64_t PullMark(uint64_t stored);
    // The session's open Listing, or null.
    Listing* OpenListing();
    // Removes on disk, through server removals, what the whole listing never named, then
    // stores its mark. 0; -1 when interrupted (the listing stays open); -3 when the mark
    // can't be stored.
    int CloseListing(Listing& listing);

    // Logs what one round changed, for people reading the log.
    void ReportRound(size_t records, size_t pushed, uint64_t next) const;

    Context context;
    std::set<uint64_t> uptodate_set;         // sessions last found up to date
    std::map<uint64_t, Listing> m_listings;  // by session
    PStream m_stream;
    PullerCaller m_caller;  // the syncer's log lines and tables in the exchanges
    int64_t m_round_start_ms = 0;
};
