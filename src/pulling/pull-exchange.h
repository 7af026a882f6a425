// pull-exchange.h: what the two pullers of server events share, written once: the
// "pull_event" request, its exchange on a borrowed connection (login, reply, the reply's
// error as a daemon code), the wait until the workers have carried out what was pushed,
// and the pullers' side of the server exchanges. The Syncer pulls a session from its own
// sync id; the ProgressSyncer pulls one resume condition from the condition's sync id.
// What differs is passed in: the extra request keys, and each puller's log lines, which
// carry the puller's file name and log component.
#pragma once

#include <cstdint>

#include "foundation/object.h"
#include "foundation/stream.h"
#include "runtime/registry.h"
#include "runtime/task.h"
#include "transport/exchange.h"

// One puller's log lines, each a format whose first argument is the source line.
struct PullerTexts {
    const char* component;
    ProtoRespCaller resp_caller;
    // The exchange: the request and the reply (%s the object).
    const char* request;
    const char* response;
    const char* tls_request;
    const char* connecting;      // %s ip, %d port
    const char* connect_failed;  // %s ip, %d port, %s the reason
    const char* no_connection;
    const char* tls_refused;  // %s the reply's error
    const char* tls_failed;   // %d
    const char* tls_done;
    const char* login_error;   // %s the reply's error
    const char* server_build;  // %lu
    const char* no_grant;
    const char* send_failed;  // %s action, %d code
    const char* recv_failed;  // %s action, %d code
    // The pull.
    const char* no_channel;
    const char* pull_failed;  // %d
    const char* reply_error;  // %s
    // The wait for the workers.
    const char* removed;  // %llu session
    const char* stopped;
    const char* removed_while;  // %llu session
    const char* paused_while;   // %llu session
    const char* waiting;        // %d pending
};

// A puller's side of the server exchanges: its log lines, its error table, its task's
// abort flag, and TLS asked for before the login.
class PullerCaller : public ServerCaller {
  public:
    // Both must outlive the caller.
    PullerCaller(const PullerTexts& texts, Task& task) : m_texts(texts), m_task(task) {}

    void Note(const ExchangeEvent& event) override;
    int ExchangeFailed(ExchangeStep step, const char* action, int code) override;
    int* CallerAbortFlag() override { return m_task.AbortFlag(); }
    ProtoRespCaller RespCaller() const override { return m_texts.resp_caller; }
    TlsStyle Tls() const override { return TLS_BEFORE_CONNECT; }

    const PullerTexts& texts() const { return m_texts; }

  private:
    const PullerTexts& m_texts;
    Task& m_task;
};

// The keys every pull of `entry` carries from `sync_id`, the agent's included; false
// (nothing built) while no server connection is linked.
bool BuildPullRequest(const Registry::Entry& entry, uint64_t sync_id, PObject& request);

// Logs in on a borrowed connection for the entry's view and sends `request`. 0 and the
// reply; -2 without a linked pool; the login's or the exchange's code (the connection is
// dropped); or the caller's daemon code for the reply's "error".
int PullFromServer(PullerCaller& caller, PStream& stream, const Registry::Entry& entry,
                   const PObject& request, PObject& response);

// Waits, a second at a time, until session `sess_id` has no pending server event. 0; -1
// when `task` stops, or the session is removed or paused meanwhile.
int WaitForPulledEvents(Task& task, uint64_t sess_id, const PullerTexts& texts);
