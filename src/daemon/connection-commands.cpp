// connection-commands.cpp: the one server connection set (made, rebuilt, its sessions
// dropped) and the status report of sessions, connection and workers.
#include "daemon/app-log.h"
#include "daemon/app.h"
#include "events/event-manager.h"
#include "foundation/log.h"
#include "foundation/settings.h"
#include "runtime/registry.h"
#include "runtime/task.h"
#include "transport/connection-pool.h"
#include "transport/connection-request.h"
#include "worker/worker.h"

namespace {

// The request's records; false (logged, with the reply's error) when it lacks a key every
// connection needs, or holds one of the wrong kind.
bool ReadConnectionRequest(const PObject& request, PObject& reply, ConnectionInfo& info,
                           ProxyInfo& proxy, TunnelInfo& tunnel) {
    if (!has_connection_keys(request)) {
        Logger::LogMsg(Logger::L_ERR, kAppLog, "[ERROR] app(%d): invalid parameters.\n", __LINE__);
        reply["error"] = "Invalid parameters";
        return false;
    }
    prepare_connection_info(request, info, proxy, tunnel);
    // A server checked by the configuration stays checked unless the request says how.
    const Settings& settings = Settings::getInstance();
    if (!request.hasMember(connection_keys::kSslCaFile)) info.ssl_ca_file = settings.getSslCaFile();
    if (!request.hasMember(connection_keys::kSslPin)) info.ssl_pin = settings.getSslPin();
    return true;
}

}  // namespace

int Tarnbridge::create_connections(const PObject& request, PObject& reply) {
    ConnectionInfo info;
    ProxyInfo proxy;
    TunnelInfo tunnel;
    if (!ReadConnectionRequest(request, reply, info, proxy, tunnel)) return -1;
    if (!linked) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): no connection before the daemon is linked\n", __LINE__);
        reply["error"] = "Not linked.";
        return -1;
    }
    // Replacing a pool would free connections under the tasks that borrow them: it is
    // rebuilt in place by "reload_connection".
    if (m_pool) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): connection already linked; reload_connection changes "
                       "it\n",
                       __LINE__);
        reply["error"] = "Connection already linked.";
        return -1;
    }
    // One connection for each worker, the syncer and the progress syncer.
    m_pool = std::make_unique<ConnectionPool>(info, proxy, tunnel,
                                              Settings::getInstance().getWorkerCount() + 1);
    g_pool.store(m_pool.get());
    return 0;
}

int Tarnbridge::reload_connection(const PObject& request, PObject& reply) {
    ConnectionInfo info;
    ProxyInfo proxy;
    TunnelInfo tunnel;
    if (!ReadConnectionRequest(request, reply, info, proxy, tunnel)) return -1;
    if (!m_pool) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): reload_connection before link_connection\n", __LINE__);
        reply["error"] = "No connection linked.";
        return -1;
    }
    m_pool->reloadConnection(info, proxy, tunnel);
    return 0;
}

// The sessions go; the pool stays until "unlink".
int Tarnbridge::unlink_connection(const PObject&, PObject& reply) {
    PObject request;
    return remove_session(request, reply);
}

// Tasks are only stopped and joined by then, so nobody borrows from the pool.
void Tarnbridge::destroy_connections() {
    g_pool.store(nullptr);
    m_pool.reset();
}

int Tarnbridge::get_status(const PObject&, PObject& reply) {
    PObject::array_type sessions;
    for (uint64_t id : Registry::getInstance().Ids()) {
        const int pending = EventManager::getInstance().GetAllPendingEventCount(id);
        PObject item;
        item["session_id"] = id;
        item["status"] = pending == 0 ? "uptodate" : "syncing";
        item["unfinished_files"] = static_cast<uint32_t>(pending);
        sessions.push_back(item);
    }
    if (!sessions.empty()) reply["session_list"] = sessions;
    if (m_pool) {
        PObject item;
        item["connection_id"] = m_pool->getConnectionId();
        item["status"] = m_pool->isConnected() ? "connected" : "disconnected";
        reply["connection_list"] = PObject::array_type{item};
    }
    PObject::array_type working;
    for (Worker* w : workers()) {
        PObject item;
        uint64_t session_id = 0, progress = 0, total = 0;
        ustring path;
        Worker::WorkingType type = Worker::W_TYPE_NONE;
        w->GetWorkingStatus(session_id, path, type, progress, total);
        // A worker between files, or looking at a folder, has nothing to show.
        if (type == Worker::W_TYPE_NONE) continue;
        item["session_id"] = session_id;
        item["path"] = path;
        item["status"] = type == Worker::W_TYPE_UPLOAD ? "uploading" : "downloading";
        item["progress"] = progress;
        item["total_size"] = total;
        working.push_back(item);
    }
    if (!working.empty()) reply["worker_list"] = working;
    return 0;
}
