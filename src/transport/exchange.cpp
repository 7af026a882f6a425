// exchange.cpp: one request and its reply, and the login of a pooled connection.
#include "transport/exchange.h"

#include "foundation/error-code.h"
#include "transport/ssl-channel.h"

std::atomic<unsigned long> g_server_version{0};

namespace {

// Puts the channel back at rest when an exchange ends, whichever way it ends.
class RestoreAtRest {
  public:
    explicit RestoreAtRest(Channel& ch) : m_ch(ch) {}
    ~RestoreAtRest() {
        m_ch.SetTimeout(kRestTimeout);
        m_ch.SetFlag(nullptr);
    }
    RestoreAtRest(const RestoreAtRest&) = delete;
    RestoreAtRest& operator=(const RestoreAtRest&) = delete;

  private:
    Channel& m_ch;
};

PObject AgentRequest(const char* action) {
    PObject request;
    request["_action"] = action;
    AppendAgent(request);
    return request;
}

// The separate request for TLS that precedes the login. 0, or a negative code.
int RequestTlsFirst(ServerCaller& caller, Channel& ch, PStream& stream) {
    caller.Note({NOTE_TLS_REQUEST});
    PObject reply;
    const int rc = ServerExchange(caller, ch, stream, SCMD_REQUEST_SSL_2,
                                  AgentRequest("encrypt_channel"), reply);
    if (rc < 0) return rc;
    if (reply.hasMember("error")) {
        caller.Note({NOTE_TLS_REFUSED, &reply});
        return ERR_IO;
    }
    return 0;
}

// The client's side of the handshake, which the caller's stop interrupts. 0; -6 when the
// server is not the one the pool names; -2.
int ConvertToTls(ServerCaller& caller, ConnectionPool& pool, Channel& ch) {
    ch.SetFlag(caller.CallerAbortFlag());
    const int rc = ConvertToSSLChannel(ch, false, pool.getTlsIdentity());
    ch.SetFlag(nullptr);
    if (rc < 0) {
        ExchangeEvent failed{NOTE_TLS_FAILED};
        failed.code = rc;
        caller.Note(failed);
        return rc == ERR_AUTH ? ERR_AUTH : ERR_IO;
    }
    caller.Note({NOTE_TLS_DONE});
    return 0;
}

// The build and grant of a connect reply without an error. 0 and the grant in `alive`, or
// -2 when the server grants none.
int ReadGrant(ServerCaller& caller, const PObject& reply, uint32_t& alive) {
    // The one server generation that doesn't describe itself is known by that silence.
    const unsigned long build = reply.hasMember("server")
                                    ? reply["server"]["package_version"]["build"].asUInt64()
                                    : kLegacyServerBuild;
    g_server_version = build;
    ExchangeEvent known{NOTE_SERVER_BUILD};
    known.build = build;
    caller.Note(known);
    alive = reply["alive"].asUInt32();
    if (alive == 0) {
        caller.Note({NOTE_NO_GRANT});
        return ERR_IO;
    }
    return 0;
}

}  // namespace

int ServerExchange(ServerCaller& caller, Channel& ch, PStream& stream, uint8_t cmd,
                   const PObject& request, PObject& response, bool abortable_wait) {
    const ustring action = request["_action"].asString();
    const char* name = action.c_str_utf8();
    caller.Note({NOTE_REQUEST, &request, name});
    RestoreAtRest at_rest(ch);
    ch.SetFlag(caller.CallerAbortFlag());
    int rc = ProtoWriteHeader(ch, 0, cmd);
    if (rc < 0) return caller.ExchangeFailed(EXCHANGE_HEADER, name, rc);
    rc = stream.Send(ch, request);
    if (rc < 0) return caller.ExchangeFailed(EXCHANGE_SEND, name, rc);
    ch.SetTimeout(kReplyTimeout);
    if (!abortable_wait) ch.SetFlag(nullptr);
    for (;;) {
        rc = stream.Recv(ch, response);
        if (rc < 0) return caller.ExchangeFailed(EXCHANGE_RECEIVE, name, rc);
        if (response["type"].asString() != "keep_alive") break;
        // The reply is received into the same object: the sign of life must not stay in it.
        response.asMap().erase("type");
        caller.Note({NOTE_KEEP_ALIVE, nullptr, name});
    }
    caller.Note({NOTE_RESPONSE, &response, name});
    return 0;
}

int ServerConnect(ServerCaller& caller, ConnectionPool& pool, Connection& conn) {
    const ustring ip = pool.getServerIp();
    ExchangeEvent event{NOTE_CONNECTING};
    event.ip = ip.c_str_utf8();
    event.port = pool.getServerPort();
    caller.Note(event);
    Channel& ch = *conn.GetChannel();
    ch.Close();
    event.code = ch.Open(event.ip, event.port);
    if (event.code == 0) return 0;
    event.note = NOTE_CONNECT_FAILED;
    caller.Note(event);
    return event.code;
}

int ServerLogin(ServerCaller& caller, ConnectionPool& pool, Connection& conn, uint64_t view_id) {
    if (conn.Ready()) return 0;
    int rc = ServerConnect(caller, pool, conn);
    if (rc != 0) return rc;
    Channel& ch = *conn.GetChannel();
    PStream stream;
    const bool tls = pool.useSSL();
    const bool tls_in_connect = tls && caller.Tls() == ServerCaller::TLS_IN_CONNECT;
    if (tls && !tls_in_connect) {
        if ((rc = RequestTlsFirst(caller, ch, stream)) < 0) return rc;
        if ((rc = ConvertToTls(caller, pool, ch)) < 0) return rc;
    }

    PObject request = AgentRequest("connect");
    request["session"] = pool.getSession();
    request["view_id"] = view_id;
    if (tls_in_connect) {
        caller.Note({NOTE_TLS_REQUEST});
        request["do_ssl"] = true;
    }
    PObject reply;
    if ((rc = ServerExchange(caller, ch, stream, SCMD_REQUEST_CONNECT, request, reply)) < 0)
        return rc;
    if (reply.hasMember("error")) {
        // Codes the caller's table counts as success leave the connection as it is.
        caller.Note({NOTE_LOGIN_ERROR, &reply});
        return ProtoResp2ErrorCode(reply["error"]["code"].asUInt32(), caller.RespCaller());
    }
    uint32_t alive = 0;
    if ((rc = ReadGrant(caller, reply, alive)) < 0) return rc;
    if (tls_in_connect && (rc = ConvertToTls(caller, pool, ch)) < 0) return rc;
    conn.Update(alive);
    return 0;
}
