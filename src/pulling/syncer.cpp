// syncer.cpp: the pulling loop, its error table and its side of the server exchanges.
#include "pulling/syncer.h"

#include "events/event-generator.h"
#include "events/event-manager.h"
#include "events/ui-ipc.h"
#include "foundation/error-code.h"
#include "foundation/log.h"
#include "platform/clock.h"
#include "pulling/progress-cache.h"
#include "state/file-event-db.h"
#include "state/file-list.h"
#include "transport/connection-pool.h"

namespace {

const char* const kLog = "syncer_debug";

const PullerTexts kTexts = {
    kLog,
    PROTO_RESP_SYNCER,
    "[DEBUG] syncer(%d): Syncer >>>: %s\n",
    "[DEBUG] syncer(%d): Syncer <<<: %s\n",
    "[INFO] syncer(%d): Syncer: request ssl channel\n",
    "[DEBUG] syncer(%d): Syncer: Connect to server (%s:%d).\n",
    "[ERROR] syncer(%d): Syncer: Failed to establish TCP connection to server (%s:%d). %s\n",
    "[ERROR] syncer(%d): Syncer: failed to connect to server.\n",
    "[ERROR] syncer(%d): Syncer: request SSL: %s\n",
    "[ERROR] syncer(%d): Syncer: Convert to SSL channel failed (%d)\n",
    "[INFO] syncer(%d): Syncer: channel is now encrypted using SSL\n",
    "[ERROR] syncer(%d): Syncer: request channel: %s\n",
    "[INFO] syncer(%d): Connect with Tarnbridge server build %lu\n",
    "[INFO] syncer(%d): Syncer: connection refused by server.\n",
    "[ERROR] syncer(%d): Syncer: RunProtocol(%s): failed to send request (%d)\n",
    "[ERROR] syncer(%d): Syncer: RunProtocol(%s): failed to recv response (%d)\n",
    "[ERROR] syncer(%d): PullEvent: fail to establish communication channel\n",
    "[ERROR] syncer(%d): PullEvent: fail to pull events. %d.\n",
    "[ERROR] syncer(%d): PullEvent: response: %s.\n",
    "[WARNING] syncer(%d): session %llu is removed, events might be dropped\n",
    "[WARNING] syncer(%d): Program stopped while syncing files ...\n",
    "[WARNING] syncer(%d): session %llu is removed while there are events\n",
    "[NOTE] syncer(%d): session %llu is paused while there are events\n",
    "[DEBUG] syncer(%d): Wait for workers (still %d pending server events).\n",
};

using ull = unsigned long long;

// Seconds to wait after a round, by HandleError's action.
int WaitAfter(int action) {
    switch (action) {
        case 0:
            return 0;
        case 2:
            return 120;
        default:
            return 3;
    }
}

struct ErrorRule {
    int action;
    Syncer::ErrorType type;
};

// By -err, for 0 to -20. The codes after the table's end are accepted and settled in
// RuleFor.
constexpr ErrorRule kErrorTable[] = {
    {0, Syncer::ERR_NONE},        // 0
    {1, Syncer::ERR_NONE},        // -1 interrupted
    {1, Syncer::ERR_NONE},        // -2 I/O
    {1, Syncer::ERR_NONE},        // -3 system
    {-1, Syncer::ERR_NONE},       // -4 invalid argument
    {-1, Syncer::ERR_NONE},       // -5 protocol
    {1, Syncer::ERR_CONNECTION},  // -6 authentication
    {1, Syncer::ERR_NONE},        // -7 server
    {-1, Syncer::ERR_NONE},       // -8 conflict
    {1, Syncer::ERR_NONE},        // -9 time-out
    {1, Syncer::ERR_CONNECTION},  // -10 version
    {-1, Syncer::ERR_NONE},       // -11 no such entry
    {-1, Syncer::ERR_NONE},       // -12 user
    {-1, Syncer::ERR_NONE},       // -13 password
    {1, Syncer::ERR_SESSION},     // -14 disabled
    {-1, Syncer::ERR_NONE},       // -15 quota
    {-1, Syncer::ERR_NONE},       // -16 disk full
    {-1, Syncer::ERR_NONE},       // -17 sync folder missing
    {1, Syncer::ERR_SESSION},     // -18 view
    {1, Syncer::ERR_SESSION},     // -19 permission
    {1, Syncer::ERR_NONE},        // -20 path in view
};
constexpr int kTableRows = sizeof(kErrorTable) / sizeof(kErrorTable[0]);

ErrorRule RuleFor(int err) {
    if (-err < kTableRows) return kErrorTable[-err];
    // Past the table: an aborted connection and a locked file go on at once, a full
    // local disk waits like a failure.
    return {err == ERR_LOCAL_DISKFULL ? 3 : 0, Syncer::ERR_NONE};
}

}  // namespace

// ---- the loop ----

Syncer::Syncer() : m_caller(kTexts, *this) {}

void Syncer::DoTask() {
    for (;;) {
        const State state = GetState();
        if (state == STOP) {
            Logger::LogMsg(Logger::L_DEBUG, kLog,
                           "[DEBUG] syncer(%d): Syncer: stop working, now on view_id %llu, "
                           "sync_id %llu.\n",
                           __LINE__, static_cast<ull>(context.entry.view_id),
                           static_cast<ull>(context.sync_id));
            return;
        }
        if (state == PAUSE) {
            WaitWhilePaused(1000);
            continue;
        }
        if (UpdateContext() < 0 || !IsSessionReady()) {
            ReleaseContext();
            Wait(1);
            continue;
        }
        int action = HandleError(PullEvent());
        if (action < 0) {
            Logger::LogMsg(Logger::L_CRIT, kLog, "[CRIT] syncer(%d): abort()\n", __LINE__);
            action = 1;
        }
        ReleaseContext();
        Wait(WaitAfter(action));
    }
}

int Syncer::Pause() {
    SetAbortFlag(1);
    return Task::Pause();
}

int Syncer::Stop() {
    SetAbortFlag(1);
    return Task::Stop();
}

int Syncer::Resume() {
    SetAbortFlag(0);
    return Task::Resume();
}

int Syncer::UpdateContext() {
    if (Registry::getInstance().FindNext(context.entry.sess_id, context.entry) != 1) {
        context = Context();
        return -1;
    }
    context.sync_id = 0;
    return 0;
}

void Syncer::ReleaseContext() {
    Registry::Entry ids;
    ids.sess_id = context.entry.sess_id;
    ids.view_id = context.entry.view_id;
    context.entry = ids;
}

bool Syncer::IsSessionReady() {
    return !context.entry.pause &&
           !ProgressCache::getInstance().isInProgrssCache(context.entry.sess_id);
}

// ---- one pull ----

int Syncer::PullEvent() {
    m_round_start_ms = platform::TickMs();
    PObject response;
    const int rc = PullEventFromServer(response);
    return rc < 0 ? rc : ProcessEvents(response);
}

int Syncer::PullEventFromServer(PObject& response) {
    uint64_t sync_id = 0;
    if (context.entry.event_db == nullptr || context.entry.event_db->getSyncId(sync_id) < 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] syncer(%d): Syncer: failed to get base sync id ... starts from "
                       "0\n",
                       __LINE__);
        return ERR_SYS;
    }
    sync_id = PullMark(sync_id);
    context.sync_id = sync_id;
    PObject request;
    if (!BuildPullRequest(context.entry, sync_id, request)) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] syncer(%d): Syncer: no server connection is linked\n", __LINE__);
        return ERR_IO;
    }
    Logger::LogMsg(Logger::L_DEBUG, kLog,
                   "[DEBUG] syncer(%d): Syncer: pull event by session %llu (%llu:%s) since %llu\n",
                   __LINE__, static_cast<ull>(context.entry.sess_id),
                   static_cast<ull>(context.entry.view_id), context.entry.remote_path.c_str_utf8(),
                   static_cast<ull>(sync_id));
    return PullFromServer(m_caller, m_stream, context.entry, request, response);
}

int Syncer::ProtoPullEvent(Channel& ch, const PObject& request, PObject& response) {
    return RunProtocol(ch, SCMD_EVT_PULL, request, response);
}

int Syncer::RunProtocol(Channel& ch, uint8_t cmd, const PObject& request, PObject& response) {
    return ServerExchange(m_caller, ch, m_stream, cmd, request, response);
}

int Syncer::RequestChannel(Connection* conn) {
    ConnectionPool* pool = g_pool.load();
    if (pool == nullptr) return ERR_IO;
    return ServerLogin(m_caller, *pool, *conn, context.entry.view_id);
}

int Syncer::EstablishConnection(Connection* conn) {
    ConnectionPool* pool = g_pool.load();
    if (pool == nullptr) return ERR_IO;
    return ServerConnect(m_caller, *pool, *conn);
}

uint64_t Syncer::PullMark(uint64_t stored) {
    const uint64_t sess = context.entry.sess_id;
    if (stored != 0) {
        m_listings.erase(sess);
        return stored;
    }
    if (Listing* open = OpenListing()) return open->next;
    StringBuffer names;
    FileList rows(names);
    if (context.entry.event_db->getFileList(&rows, "/") < 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] syncer(%d): Syncer: cannot read the rows of session %llu; "
                       "removals made while it was down may be missed\n",
                       __LINE__, static_cast<ull>(sess));
        return 0;
    }
    Listing listing;
    for (auto row = rows.rbegin(); row != rows.rend(); ++row)
        listing.unseen.emplace(row->path, row->is_dir());
    if (!listing.unseen.empty()) m_listings.emplace(sess, std::move(listing));
    return 0;
}

Syncer::Listing* Syncer::OpenListing() {
    auto it = m_listings.find(context.entry.sess_id);
    return it == m_listings.end() ? nullptr : &it->second;
}

int Syncer::CloseListing(Listing& listing) {
    const uint64_t sess = context.entry.sess_id;
    Logger::LogMsg(Logger::L_INFO, kLog,
                   "[INFO] syncer(%d): Syncer: session %llu: %zu known objects are no longer on "
                   "the server\n",
                   __LINE__, static_cast<ull>(sess), listing.unseen.size());
    for (const auto& [path, is_dir] : listing.unseen)
        PushServerRemoveEvent(context.entry, path, is_dir, listing.next, listing.next);
    if (!listing.unseen.empty() && WaitForWorkers() < 0) return -1;
    if (context.entry.event_db->setSyncId(listing.next) < 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] syncer(%d): Syncer: failed to store sync id %llu of session %llu\n",
                       __LINE__, static_cast<ull>(listing.next), static_cast<ull>(sess));
        return ERR_SYS;
    }
    m_listings.erase(sess);
    return 0;
}

// ---- after the pull ----

int Syncer::ProcessEvents(const PObject& response) {
    const uint64_t next = response["next_sync_id"].asUInt64();
    const uint64_t sess = context.entry.sess_id;
    Listing* listing = OpenListing();
    if (next == context.sync_id) {
        if (listing != nullptr) {
            const int rc = CloseListing(*listing);
            if (rc < 0) return rc;
        }
        uptodate_set.insert(sess);
        Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] syncer(%d): session '%llu' is uptodate.\n",
                       __LINE__, static_cast<ull>(sess));
        if (Registry::getInstance().TakeMergePending(sess))
            EventManager::getInstance().IssueRescan(sess, "/", true);
        // A removed session may linger in the set; it can only make the pause come early.
        if (uptodate_set.size() >= Registry::getInstance().Size()) {
            Logger::LogMsg(Logger::L_DEBUG, kLog,
                           "[DEBUG] syncer(%d): all session is uptodate, wait for 5 seconds.\n",
                           __LINE__);
            uptodate_set.clear();
            ReleaseContext();
            Wait(5);
        }
        return 0;
    }
    uptodate_set.erase(sess);

    const PObject::array_type& records = response["event_list"].asArray();
    size_t pushed = 0;
    for (const PObject& record : records) {
        pushed += PushEvent(context.entry, record) == 1 ? 1 : 0;
        if (listing != nullptr) listing->unseen.erase(record["path"].asString());
    }
    if (WaitForWorkers() < 0) {
        Logger::LogMsg(Logger::L_NOTICE, kLog,
                       "[NOTE] syncer(%d): ProcessEvents: interrupted while waiting events being "
                       "done ...\n",
                       __LINE__);
        return -1;
    }
    if (listing != nullptr) {
        listing->next = next;
    } else if (context.entry.event_db->setSyncId(next) < 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] syncer(%d): Syncer: failed to store sync id %llu of session %llu\n",
                       __LINE__, static_cast<ull>(next), static_cast<ull>(sess));
        return ERR_SYS;
    }
    ReportRound(records.size(), pushed, next);
    return 0;
}

void Syncer::ReportRound(size_t records, size_t pushed, uint64_t next) const {
    const double seconds = static_cast<double>(platform::TickMs() - m_round_start_ms) / 1000.0;
    Logger::LogMsg(Logger::L_INFO, kLog,
                   "[INFO] syncer(%d): Syncer: session %llu: %zu server changes, %zu carried out, "
                   "sync id %llu -> %llu, %.1f s\n",
                   __LINE__, static_cast<ull>(context.entry.sess_id), records, pushed,
                   static_cast<ull>(context.sync_id), static_cast<ull>(next), seconds);
}

int Syncer::WaitForWorkers() {
    return WaitForPulledEvents(*this, context.entry.sess_id, kTexts);
}

// ---- errors ----

int Syncer::HandleError(int err) {
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] syncer(%d): Syncer: HandleError: %d.\n",
                   __LINE__, err);
    if (err > 0 || err <= ERR_MAX) {
        Logger::LogMsg(Logger::L_CRIT, kLog,
                       "[CRIT] syncer(%d): Syncer: unknown error code [%d].\n", __LINE__, err);
        return -1;
    }
    const ErrorRule rule = RuleFor(err);
    switch (rule.type) {
        case ERR_SESSION:
            UI_IPC::ReportSessionErrorToUI(context.entry.sess_id, err);
            break;
        case ERR_CONNECTION: {
            ConnectionPool* pool = g_pool.load();
            UI_IPC::ReportConnectionErrorToUI(
                static_cast<int>(pool != nullptr ? pool->getConnectionId() : 0), err);
            break;
        }
        case ERR_NONE:
            Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] syncer(%d): No type for error: %d\n",
                           __LINE__, err);
            break;
    }
    if (rule.action < 0)
        Logger::LogMsg(Logger::L_CRIT, kLog,
                       "[CRIT] syncer(%d): Syncer: unexpected error code [%d].\n", __LINE__, err);
    return rule.action;
}
