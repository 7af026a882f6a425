// progress-syncer.cpp: the resume-condition puller's loop, request and error table.
#include "pulling/progress-syncer.h"

#include "events/event-generator.h"
#include "events/event-manager.h"
#include "filter/filter-utils.h"
#include "foundation/error-code.h"
#include "foundation/log.h"
#include "state/filter-db.h"

namespace {

const char* const kLog = "progress_syncer_debug";

using ull = unsigned long long;

const PullerTexts kTexts = {
    kLog,
    PROTO_RESP_PROGRESS_SYNCER,
    "[DEBUG] progress-syncer(%d): Syncer >>>: %s\n",
    "[DEBUG] progress-syncer(%d): Syncer <<<: %s\n",
    "[INFO] progress-syncer(%d): Syncer: request ssl channel\n",
    "[DEBUG] progress-syncer(%d): Syncer: Connect to server (%s:%d).\n",
    "[ERROR] progress-syncer(%d): Syncer: Failed to establish TCP connection to server (%s:%d). "
    "%s\n",
    "[ERROR] progress-syncer(%d): Syncer: failed to connect to server.\n",
    "[ERROR] progress-syncer(%d): Syncer: request SSL: %s\n",
    "[ERROR] progress-syncer(%d): Syncer: Convert to SSL channel failed (%d)\n",
    "[INFO] progress-syncer(%d): Syncer: channel is now encrypted using SSL\n",
    "[ERROR] progress-syncer(%d): Syncer: request channel: %s\n",
    "[INFO] progress-syncer(%d): Connect with Tarnbridge server build %lu\n",
    "[INFO] progress-syncer(%d): Syncer: connection refused by server.\n",
    "[ERROR] progress-syncer(%d): Syncer: RunProtocol(%s): failed to send request (%d)\n",
    "[ERROR] progress-syncer(%d): Syncer: RunProtocol(%s): failed to recv response (%d)\n",
    "[ERROR] progress-syncer(%d): PullEvent: fail to establish communication channel\n",
    "[ERROR] progress-syncer(%d): PullEvent: fail to pull events. %d.\n",
    "[ERROR] progress-syncer(%d): PullEvent: response: %s.\n",
    "[WARNING] progress-syncer(%d): session %llu is removed, events might be dropped\n",
    "[WARNING] progress-syncer(%d): Program stopped while syncing files ...\n",
    "[WARNING] progress-syncer(%d): session %llu is removed while there are events\n",
    "[NOTE] progress-syncer(%d): session %llu is paused while there are events\n",
    "[DEBUG] progress-syncer(%d): Wait for workers (still %d pending server events).\n",
};

// By -err, for 0 to -23.
constexpr int kActions[] = {0,  2,  1, 1,  -1, -1, 2, 1, -1, 1, 2, -1,
                            -1, -1, 2, -1, -1, -1, 2, 2, 2,  3, 0, 0};
constexpr int kActionRows = sizeof(kActions) / sizeof(kActions[0]);

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

// The "condition" map that asks the server for what `c` used to hide. False (logged) when
// the condition can't be put so; the request then goes without one.
bool ConditionFor(const ResumeCondition& c, PObject& condition) {
    uint64_t min = 0, max = 0;
    switch (c.filter_type) {
        case FILTER_EXT_SELECTIVE_SYNC:
            condition["extension"] = c.filter_desc;
            return true;
        case FILTER_PATH_PREFIX_SELECTIVE_SYNC:
            condition["prefix"] = c.filter_desc;
            return true;
        case FILTER_NAME_SELECTIVE_SYNC:
            condition["name"] = c.filter_desc;
            return true;
        case FILTER_FILE_SIZE_SELECTIVE_SYNC:
            if (DecodeResumeSizeFilterDesc(c.filter_desc, min, max) == 0) {
                condition["min_size"] = min;
                condition["max_size"] = max;
                return true;
            }
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] progress-syncer(%d): Failed to decode resume size filter "
                           "'%s'\n",
                           __LINE__, c.filter_desc.c_str_utf8());
            return false;
        default:
            Logger::LogMsg(Logger::L_WARNING, kLog,
                           "[WARNING] progress-syncer(%d): Unknow filter type '%d'.\n", __LINE__,
                           c.filter_type);
            return false;
    }
}

}  // namespace

ProgressSyncer::ProgressSyncer() : m_caller(kTexts, *this) {}

int ProgressSyncer::Pause() {
    SetAbortFlag(1);
    return Task::Pause();
}

int ProgressSyncer::Stop() {
    SetAbortFlag(1);
    return Task::Stop();
}

int ProgressSyncer::Resume() {
    SetAbortFlag(0);
    return Task::Resume();
}

void ProgressSyncer::DoTask() {
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] progress-syncer(%d): ProgressSyncer START.\n",
                   __LINE__);
    for (;;) {
        const State state = GetState();
        if (state == STOP) {
            Logger::LogMsg(Logger::L_DEBUG, kLog,
                           "[DEBUG] progress-syncer(%d): ProgressSyncer : stop working, now on "
                           "sess_id = %llu, sync_id = %llu.\n",
                           __LINE__, static_cast<ull>(context.progress_entry.condition.sess_id),
                           static_cast<ull>(context.progress_entry.condition.sync_id));
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
            Logger::LogMsg(Logger::L_CRIT, kLog, "[CRIT] progress-syncer(%d): abort()\n", __LINE__);
            action = 1;
        }
        ReleaseContext();
        Wait(WaitAfter(action));
    }
}

int ProgressSyncer::UpdateContext() {
    if (!ProgressCache::getInstance().getProgressEntry(context.progress_entry)) {
        context = Context();
        return -1;
    }
    const ResumeCondition& c = context.progress_entry.condition;
    context.row_id = context.progress_entry.row_id;
    if (Registry::getInstance().Find(c.sess_id, context.reg_entry) != 1) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] progress-syncer(%d): Cannot find corresponding registry entry for "
                       "sess_id '%llu'.\n",
                       __LINE__, static_cast<ull>(c.sess_id));
        context = Context();
        return -1;
    }
    Logger::LogMsg(Logger::L_DEBUG, kLog,
                   "[DEBUG] progress-syncer(%d): Find an resume_condition (%llu): sess_id (%llu), "
                   "sync_id (%llu), type (%d), desc [%s].\n",
                   __LINE__, static_cast<ull>(context.row_id), static_cast<ull>(c.sess_id),
                   static_cast<ull>(c.sync_id), c.filter_type, c.filter_desc.c_str_utf8());
    return 0;
}

void ProgressSyncer::ReleaseContext() {
    context.reg_entry = Registry::Entry();
}

bool ProgressSyncer::IsSessionReady() {
    const ull sess = context.reg_entry.sess_id;
    if (context.reg_entry.pause) {
        Logger::LogMsg(Logger::L_DEBUG, kLog,
                       "[DEBUG] progress-syncer(%d): session (%llu) is under pause status.\n",
                       __LINE__, sess);
        return false;
    }
    const int pending = EventManager::getInstance().GetPendingServerEvent(sess);
    if (pending == 0) return true;
    Logger::LogMsg(Logger::L_DEBUG, kLog,
                   "[DEBUG] progress-syncer(%d): session (%llu) still has '%d' pending server "
                   "events.\n",
                   __LINE__, sess, pending);
    return false;
}

bool ProgressSyncer::PrepareRequest(PObject& request) {
    const ResumeCondition& c = context.progress_entry.condition;
    if (!BuildPullRequest(context.reg_entry, c.sync_id, request)) return false;
    PObject condition;
    if (ConditionFor(c, condition)) request["condition"] = condition;
    return true;
}

int ProgressSyncer::PullEvent() {
    PObject request, response;
    if (!PrepareRequest(request)) return ERR_IO;
    SetConnectionState(CONNECTED);
    const int rc = PullFromServer(m_caller, m_stream, context.reg_entry, request, response);
    if (rc < 0) {
        SetConnectionState(DISCONNECTED);
        return rc;
    }
    if (ProcessEvents(response) < 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] progress-syncer(%d): PullEvent: fail to process event.\n",
                       __LINE__);
        return -1;
    }
    return 0;
}

int ProgressSyncer::ProcessEvents(const PObject& response) {
    const uint64_t next = response["next_sync_id"].asUInt64();
    const uint64_t row_id = context.row_id;
    if (next == context.progress_entry.condition.sync_id) {
        Logger::LogMsg(Logger::L_DEBUG, kLog,
                       "[DEBUG] progress-syncer(%d): already uptodate for current event pull "
                       "condition.\n",
                       __LINE__);
        if (FilterDB::getInstance().rmResumeCondition(row_id) < 0)
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] progress-syncer(%d): ProcessEvents: fail to remove resume "
                           "condition for row_id(%llu)\n",
                           __LINE__, static_cast<ull>(row_id));
        ProgressCache::getInstance().rmProgressEntry(row_id);
        return 0;
    }
    for (const PObject& record : response["event_list"].asArray())
        PushEvent(context.reg_entry, record);
    if (WaitForWorkers() < 0) {
        Logger::LogMsg(Logger::L_NOTICE, kLog,
                       "[NOTE] progress-syncer(%d): ProcessEvents: interrupted while waiting "
                       "events being done ...\n",
                       __LINE__);
        return -1;
    }
    if (FilterDB::getInstance().updateResumeSyncId(row_id, next) < 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] progress-syncer(%d): ProcessEvents: faile to update sync_id "
                       "(%llu) to filter_resume_table for row_id(%llu)\n",
                       __LINE__, static_cast<ull>(next), static_cast<ull>(row_id));
        return -1;
    }
    ProgressCache::getInstance().updateProgressSyncId(row_id, next);
    return 0;
}

int ProgressSyncer::WaitForWorkers() {
    SetConnectionState(IDLE);
    return WaitForPulledEvents(*this, context.reg_entry.sess_id, kTexts);
}

int ProgressSyncer::HandleError(int err) {
    if (err > 0 || -err >= kActionRows) {
        Logger::LogMsg(Logger::L_CRIT, kLog,
                       "[CRIT] progress-syncer(%d): ProgressSyncer: unknown error code [%d].\n",
                       __LINE__, err);
        return -1;
    }
    const int action = kActions[-err];
    if (action < 0)
        Logger::LogMsg(Logger::L_CRIT, kLog,
                       "[CRIT] progress-syncer(%d): ProgressSyncer: unexpected error code [%d].\n",
                       __LINE__, err);
    return action;
}

void ProgressSyncer::SetConnectionState(ConnectionState state) {
    MutexLock lock(conn_state_lock);
    conn_state = state;
}
