// pull-exchange.cpp: the pullers' shared request, exchange and wait.
#include "pulling/pull-exchange.h"

#include "events/event-manager.h"
#include "foundation/error-code.h"
#include "foundation/log.h"
#include "transport/connection-pool.h"

namespace {
using ull = unsigned long long;
}  // namespace

void PullerCaller::Note(const ExchangeEvent& event) {
    const PullerTexts& t = m_texts;
    switch (event.note) {
        case NOTE_REQUEST:
        case NOTE_RESPONSE:
            // A reply may hold thousands of records: build its text only when it is logged.
            if (!Logger::Enabled(Logger::L_DEBUG, t.component)) return;
            Logger::LogMsg(Logger::L_DEBUG, t.component,
                           event.note == NOTE_REQUEST ? t.request : t.response, __LINE__,
                           event.object->toString().c_str_utf8());
            return;
        case NOTE_KEEP_ALIVE:
            return;
        case NOTE_TLS_REQUEST:
            Logger::LogMsg(Logger::L_INFO, t.component, t.tls_request, __LINE__);
            return;
        case NOTE_CONNECTING:
            Logger::LogMsg(Logger::L_DEBUG, t.component, t.connecting, __LINE__, event.ip,
                           event.port);
            return;
        case NOTE_CONNECT_FAILED:
            Logger::LogMsg(Logger::L_ERR, t.component, t.connect_failed, __LINE__, event.ip,
                           event.port, GetErrorString(event.code));
            Logger::LogMsg(Logger::L_ERR, t.component, t.no_connection, __LINE__);
            return;
        case NOTE_TLS_REFUSED:
            Logger::LogMsg(Logger::L_ERR, t.component, t.tls_refused, __LINE__,
                           (*event.object)["error"].toString().c_str_utf8());
            return;
        case NOTE_TLS_FAILED:
            Logger::LogMsg(Logger::L_ERR, t.component, t.tls_failed, __LINE__, event.code);
            return;
        case NOTE_TLS_DONE:
            Logger::LogMsg(Logger::L_INFO, t.component, t.tls_done, __LINE__);
            return;
        case NOTE_LOGIN_ERROR:
            Logger::LogMsg(Logger::L_ERR, t.component, t.login_error, __LINE__,
                           (*event.object)["error"].toString().c_str_utf8());
            return;
        case NOTE_SERVER_BUILD:
            Logger::LogMsg(Logger::L_INFO, t.component, t.server_build, __LINE__, event.build);
            return;
        case NOTE_NO_GRANT:
            Logger::LogMsg(Logger::L_INFO, t.component, t.no_grant, __LINE__);
            return;
    }
}

int PullerCaller::ExchangeFailed(ExchangeStep step, const char* action, int code) {
    Logger::LogMsg(Logger::L_ERR, m_texts.component,
                   step == EXCHANGE_RECEIVE ? m_texts.recv_failed : m_texts.send_failed, __LINE__,
                   action, code);
    return ERR_IO;
}

bool BuildPullRequest(const Registry::Entry& entry, uint64_t sync_id, PObject& request) {
    ConnectionPool* pool = g_pool.load();
    if (pool == nullptr) return false;
    request["_action"] = "pull_event";
    request["sync_id"] = sync_id;
    request["session"] = pool->getSession();
    request["path"] = entry.remote_path;
    request["view_id"] = entry.view_id;
    request["node_id"] = entry.node_id;
    request["recursive"] = entry.recursive;
    AppendAgent(request);
    return true;
}

int PullFromServer(PullerCaller& caller, PStream& stream, const Registry::Entry& entry,
                   const PObject& request, PObject& response) {
    const PullerTexts& t = caller.texts();
    ConnectionPool* pool = g_pool.load();
    if (pool == nullptr) return ERR_IO;
    BorrowedConnection conn(*pool);
    conn->GetChannel()->SetFlag(caller.CallerAbortFlag());
    int rc = ServerLogin(caller, *pool, *conn.get(), entry.view_id);
    if (rc < 0) {
        Logger::LogMsg(Logger::L_ERR, t.component, t.no_channel, __LINE__);
        conn->Drop();
        return rc;
    }
    rc = ServerExchange(caller, *conn->GetChannel(), stream, SCMD_EVT_PULL, request, response);
    if (rc < 0) {
        Logger::LogMsg(Logger::L_ERR, t.component, t.pull_failed, __LINE__, rc);
        conn->Drop();
        return rc;
    }
    // A reply without a grant ends the connection's use; the next pull logs in anew.
    const uint32_t alive = response["alive"].asUInt32();
    if (alive != 0)
        conn->Update(alive);
    else
        conn->Drop();
    if (!response.hasMember("error")) return 0;
    Logger::LogMsg(Logger::L_ERR, t.component, t.reply_error, __LINE__,
                   response["error"].toString().c_str_utf8());
    return ProtoResp2ErrorCode(response["error"]["code"].asUInt32(), t.resp_caller);
}

int WaitForPulledEvents(Task& task, uint64_t sess_id, const PullerTexts& t) {
    const ull sess = sess_id;
    for (;;) {
        const int pending = EventManager::getInstance().GetPendingServerEvent(sess_id);
        Registry::Entry fresh;
        const bool exists = Registry::getInstance().Find(sess_id, fresh) == 1;
        if (pending <= 0) {
            if (exists) return 0;
            Logger::LogMsg(Logger::L_WARNING, t.component, t.removed, __LINE__, sess);
            return -1;
        }
        const Task::State state = task.GetState();
        if (state == Task::STOP) {
            Logger::LogMsg(Logger::L_WARNING, t.component, t.stopped, __LINE__);
            return -1;
        }
        if (state == Task::PAUSE) {
            task.WaitWhilePaused(1000);
            continue;
        }
        if (!exists) {
            Logger::LogMsg(Logger::L_WARNING, t.component, t.removed_while, __LINE__, sess);
            return -1;
        }
        if (fresh.pause) {
            Logger::LogMsg(Logger::L_NOTICE, t.component, t.paused_while, __LINE__, sess);
            return -1;
        }
        Logger::LogMsg(Logger::L_DEBUG, t.component, t.waiting, __LINE__, pending);
        task.Wait(1);
    }
}
