// exchange.h: how a task talks to the server on a pooled connection, written once for the
// syncers and the workers: one request and its reply with the server's keep-alive messages
// in between (ServerExchange), and the login that makes a connection usable for a view
// (ServerLogin). What differs between the tasks is passed in through ServerCaller: the log
// lines (each task keeps its own texts and component), how a failed step becomes a daemon
// code, the table for the server's error codes, and where TLS is asked for.
#pragma once

#include <atomic>
#include <cstdint>

#include "foundation/channel.h"
#include "foundation/object.h"
#include "foundation/stream.h"
#include "foundation/ustring.h"
#include "transport/connection-pool.h"
#include "transport/proto-common.h"

// The last build number a server announced at login; kLegacyServerBuild for a server too
// old to say. Written by every login, read by the transfer code.
extern std::atomic<unsigned long> g_server_version;
constexpr unsigned long kLegacyServerBuild = 2402;

// Seconds of silence allowed while a reply is awaited (each keep-alive restarts them), and
// the channel's time-out at rest.
constexpr uint32_t kReplyTimeout = 90;
constexpr uint32_t kRestTimeout = 60;

// The step of an exchange that failed.
enum ExchangeStep { EXCHANGE_HEADER, EXCHANGE_SEND, EXCHANGE_RECEIVE };

// Something a caller may want to log, in the order it happens.
enum ExchangeNote {
    NOTE_REQUEST,         // a request is about to go: `object`, `action`
    NOTE_KEEP_ALIVE,      // a keep-alive message came instead of the reply: `action`
    NOTE_RESPONSE,        // the reply: `object`, `action`
    NOTE_CONNECTING,      // the TCP connection is being made: `ip`, `port`
    NOTE_CONNECT_FAILED,  // it could not be made: `ip`, `port`, `code`
    NOTE_TLS_REQUEST,     // TLS is being asked for
    NOTE_TLS_REFUSED,     // the server answered the request for TLS with an error: `object`
    NOTE_TLS_FAILED,      // the conversion of the channel failed: `code`
    NOTE_TLS_DONE,        // the channel is now encrypted
    NOTE_LOGIN_ERROR,     // the connect reply carries an error: `object` (the reply)
    NOTE_SERVER_BUILD,    // the server's build: `build` (kLegacyServerBuild when unsaid)
    NOTE_NO_GRANT,        // the connect reply grants no keep-alive: the server refuses
};

struct ExchangeEvent {
    ExchangeNote note;
    const PObject* object = nullptr;
    const char* action = "";
    const char* ip = "";
    int port = 0;
    int code = 0;
    unsigned long build = 0;
};

// The task's side of the exchanges.
class ServerCaller {
  public:
    // Where TLS is asked for: a request of its own ("encrypt_channel") before the login,
    // or a flag in the login whose reply is followed by the handshake.
    enum TlsStyle { TLS_BEFORE_CONNECT, TLS_IN_CONNECT };

    virtual ~ServerCaller() = default;
    // Writes the caller's log line for `event`.
    virtual void Note(const ExchangeEvent& event) = 0;
    // Logs a failed step and gives the daemon code the exchange returns for it.
    virtual int ExchangeFailed(ExchangeStep step, const char* action, int code) = 0;
    // The flag channels poll while this caller waits; null for none.
    virtual int* CallerAbortFlag() = 0;
    // Whose table turns the server's error codes into daemon codes.
    virtual ProtoRespCaller RespCaller() const = 0;
    virtual TlsStyle Tls() const = 0;
};

// Sends `request` under `cmd` (the header, then the map through `stream`) and reads the
// reply into `response`, reading again while the server sends {"type": "keep_alive"}: a
// slow server's sign of life. While the reply is awaited the channel allows kReplyTimeout
// seconds of silence and polls the caller's abort flag, unless `abortable_wait` is false
// (a request whose data is all on the wire is not abandoned). Afterwards, on every path
// after the header, the time-out is back at kRestTimeout and the flag is cleared.
// `response` is received into as it stands (a prepared binary receives its file); only
// the keep-alive's "type" is taken out of it. 0, or the caller's code for the failed step;
// after a failure the connection must be dropped.
int ServerExchange(ServerCaller& caller, Channel& ch, PStream& stream, uint8_t cmd,
                   const PObject& request, PObject& response, bool abortable_wait = true);

// Makes a borrowed connection usable for `view_id`: nothing when its grant still runs;
// otherwise a new TCP connection to the pool's server, TLS when the pool asks for it (in
// the caller's style, the server's certificate checked against the pool's TlsIdentity
// before anything more is sent), and "connect" with the pool's session. The server's build
// goes to g_server_version. 0 with the grant recorded; the TCP connection's code; -6 when
// the server's certificate does not match; -2 when TLS fails otherwise or the server grants
// no keep-alive; the exchange's code; or, for an error in the connect reply, the code the
// caller's table gives (0 for the codes it counts as success, with no grant recorded). On
// failure the caller drops the connection.
int ServerLogin(ServerCaller& caller, ConnectionPool& pool, Connection& conn, uint64_t view_id);

// Closes the connection's channel and opens it to the pool's server. 0, or the channel's
// code (logged through the caller).
int ServerConnect(ServerCaller& caller, ConnectionPool& pool, Connection& conn);
