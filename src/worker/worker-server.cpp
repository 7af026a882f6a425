// worker-server.cpp: the worker's side of the server exchanges: its stream error table, its
// requests on a pooled connection, and its log lines for the shared exchange and login.
#include "foundation/error-code.h"
#include "worker/worker-log.h"
#include "worker/worker.h"

int Worker::streamErr2DaemonErr(int err) {
    if (IsAborted()) {
        SetAbortFlag(0);
        // A pause keeps what was transferred, to go on once resumed.
        if (GetState() == PAUSE) return ERR_CH_CONNECTION_ABORT;
        ClearCache();
        return ERR_INT;
    }
    if (err >= 0) return ERR_OK;
    switch (err) {
        case ERR_IO:  // the channel failed or was closed
        case ERR_TIMEOUT:
            // The connection, not the data, failed: what arrived stays, so the transfer resumes.
            return ERR_IO;
        case ERR_INVAL:  // no space left for a received file
            ClearCache();
            return ERR_LOCAL_DISKFULL;
        default:
            // A binary's file failed (-1), the input was malformed (-5), or a failure no
            // one foresaw: nothing kept can be trusted, so the transfer starts over.
            ClearCache();
            return ERR_SYS;
    }
}

int Worker::RunProtocol(Channel& ch, uint8_t cmd, const PObject& request, PObject& response) {
    trans_stream.SetDefaultRecvLocation(context.working_directory);
    const ustring action = request["_action"].asString();
    // Once an upload's data is all on the wire, the server's answer is worth waiting for.
    const bool abortable = action != ustring("upload") && action != ustring("resume_upload");
    return ServerExchange(*this, ch, trans_stream, cmd, request, response, abortable);
}

int Worker::RequestChannel(Connection* conn) {
    ConnectionPool* pool = g_pool.load();
    if (pool == nullptr) return ERR_IO;
    return ServerLogin(*this, *pool, *conn, context.root_entry.view_id);
}

int Worker::EstablishConnection(Connection* conn) {
    ConnectionPool* pool = g_pool.load();
    if (pool == nullptr) return ERR_IO;
    return ServerConnect(*this, *pool, *conn);
}

int Worker::CallServer(const std::function<int(Channel&, PObject&)>& exchange, PObject& response) {
    ConnectionPool* pool = g_pool.load();
    if (pool == nullptr) return ERR_IO;
    BorrowedConnection conn(*pool);
    int rc = RequestChannel(conn.get());
    if (rc >= 0) rc = exchange(*conn->GetChannel(), response);
    if (rc < 0) {
        // The stream's position is lost: the next borrower starts with a fresh login.
        conn->Drop();
        return rc;
    }
    conn->Update(response["alive"].asUInt32());
    return rc;
}

void Worker::Note(const ExchangeEvent& event) {
    const int id = GetId();
    switch (event.note) {
        case NOTE_REQUEST:
        case NOTE_RESPONSE:
            // A reply may hold a long listing: build its text only when it is logged.
            if (!WorkerLogOn(Logger::L_DEBUG)) return;
            if (event.note == NOTE_REQUEST)
                WorkerLog(Logger::L_DEBUG,
                          "[DEBUG] worker(%d): Worker (%d): RunProtocol(%s) <<< %s\n", __LINE__, id,
                          event.action, event.object->toString().c_str_utf8());
            else
                WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): Worker (%d): RunProtocol >>> %s\n",
                          __LINE__, id, event.object->toString().c_str_utf8());
            return;
        case NOTE_KEEP_ALIVE:
            WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): Worker (%d): get keepalive message\n",
                      __LINE__, id);
            return;
        case NOTE_CONNECTING:
            WorkerLog(Logger::L_DEBUG,
                      "[DEBUG] worker(%d): Worker (%d): Connect to server (%s:%d).\n", __LINE__, id,
                      event.ip, event.port);
            return;
        case NOTE_CONNECT_FAILED:
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): Worker (%d): Failed to establish TCP connection to "
                      "server. %s\n",
                      __LINE__, id, GetErrorString(event.code));
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): Worker (%d): failed to connect to server.\n", __LINE__,
                      id);
            return;
        case NOTE_TLS_REQUEST:
            WorkerLog(Logger::L_INFO, "[INFO] worker(%d): Worker (%d): request ssl channel\n",
                      __LINE__, id);
            return;
        case NOTE_TLS_FAILED:
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): Worker (%d): Convert to SSL channel failed (%d)\n",
                      __LINE__, id, event.code);
            return;
        case NOTE_LOGIN_ERROR:
            WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): Worker (%d): request channel: %s\n",
                      __LINE__, id, (*event.object)["error"].toString().c_str_utf8());
            return;
        case NOTE_SERVER_BUILD:
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): Connect with Tarnbridge server build %lu\n", __LINE__,
                      event.build);
            return;
        case NOTE_NO_GRANT:
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): Worker (%d): connection refused by server.\n", __LINE__,
                      id);
            return;
        case NOTE_TLS_REFUSED:  // TLS is asked for inside the login, never on its own
        case NOTE_TLS_DONE:
            return;
    }
}

int Worker::ExchangeFailed(ExchangeStep step, const char* action, int code) {
    const int id = GetId();
    switch (step) {
        case EXCHANGE_HEADER:
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): Worker (%d): RunProtocol(%s): failed to send header, "
                      "stream error code = %d.\n",
                      __LINE__, id, action, code);
            return ERR_IO;
        case EXCHANGE_SEND:
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): Worker (%d): RunProtocol(%s): failed to send request. "
                      "stream error code = %d.\n",
                      __LINE__, id, action, code);
            break;
        case EXCHANGE_RECEIVE:
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): Worker (%d): RunProtocol(%s): failed to recv "
                      "response. stream error code = %d.\n",
                      __LINE__, id, action, code);
            break;
    }
    return streamErr2DaemonErr(code);
}
