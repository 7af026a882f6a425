// connection-commands.cpp: the one server connection set (made, rebuilt, its sessions
// dropped) and the status report of sessions, connection and workers.
#include "daemon/app-log.h"
#include "daemon/app.h"
#include "daemon/request-keys.h"
#include "events/event-manager.h"
#include "foundation/log.h"
#include "foundation/settings.h"
#include "runtime/registry.h"
#include "runtime/task.h"
#include "transport/connection-pool.h"
#include "worker/worker.h"

namespace {

// The keys "link_connection" and "reload_connection" cannot do without, of the kinds
// the pool needs.
bool ValidConnectionRequest(const PObject& request) {
    return HasKey(request, "connection_id", KeyKind::INTEGER) &&
           HasKey(request, "server_ip", KeyKind::TEXT) &&
           HasKey(request, "server_port", KeyKind::PORT) &&
           HasKey(request, "session", KeyKind::TEXT);
}

// Logs and answers a request whose keys don't do. Always -1.
int InvalidConnectionRequest(PObject& reply) {
    Logger::LogMsg(Logger::L_ERR, kAppLog, "[ERROR] app(%d): invalid parameters.\n", __LINE__);
    reply["error"] = "Invalid parameters";
    return -1;
}

// Missing keys read as 0, false or empty.
void prepare_connection_info(const PObject& request, ConnectionInfo& info, ProxyInfo& proxy,
                             TunnelInfo& tunnel) {
    info.session = request["session"].asString();
    info.server_ip = request["server_ip"].asString();
    info.server_port = request["server_port"].asInt32();
    info.conn_id = request["connection_id"].asUInt64();
    info.c_mode = static_cast<ConnectionMode>(request["connection_mode"].asInt32());
    info.username = request["username"].asString();
    info.computer_name = request["computer_name"].asString();
    info.use_ssl = request["use_ssl"].asBool();
    info.package_version = request["package_version"].asInt32();
    proxy.use_proxy = request["use_proxy"].asBool();
    proxy.use_sys_proxy = request["use_sys_proxy"].asBool();
    proxy.proxy_ip = request["proxy_ip"].asString().str();
    proxy.proxy_port = request["proxy_port"].asUInt16();
    proxy.user_name = request["proxy_username"].asString().str();
    proxy.password = request["proxy_password"].asString().str();
    proxy.domain = request["proxy_domain"].asString().str();
    proxy.host = request["proxy_host"].asString().str();
    tunnel.use_tunnel = request["use_tunnel"].asBool();
    tunnel.tunnel_ip = request["tunnel_ip"].asString().str();
    tunnel.tunnel_port = request["tunnel_port"].asUInt16();
}

}  // namespace

int Tarnbridge::create_connections(const PObject& request, PObject& reply) {
    if (!ValidConnectionRequest(request)) return InvalidConnectionRequest(reply);
    if (!linked) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): no connection before the daemon is linked\n", __LINE__);
        reply["error"] = "Not linked.";
        return -1;
    }
    // Tasks may hold connections of the pool in place: it is rebuilt by
    // "reload_connection", never replaced.
    if (m_pool) {
        Logger::LogMsg(Logger::L_ERR, kAppLog,
                       "[ERROR] app(%d): the connection is linked already\n", __LINE__);
        reply["error"] = "Connection already linked.";
        return -1;
    }
    ConnectionInfo info;
    ProxyInfo proxy;
    TunnelInfo tunnel;
    prepare_connection_info(request, info, proxy, tunnel);
    // One connection for each worker, the syncer and the progress syncer.
    m_pool = std::make_unique<ConnectionPool>(info, proxy, tunnel,
                                              Settings::getInstance().getWorkerCount() + 1);
    g_pool.store(m_pool.get());
    return 0;
}

int Tarnbridge::reload_connection(const PObject& request, PObject& reply) {
    if (!ValidConnectionRequest(request)) return InvalidConnectionRequest(reply);
    if (!m_pool) {
        Logger::LogMsg(Logger::L_ERR, kAppLog, "[ERROR] app(%d): no connection to reload\n",
                       __LINE__);
        reply["error"] = "No connection linked.";
        return -1;
    }
    ConnectionInfo info;
    ProxyInfo proxy;
    TunnelInfo tunnel;
    prepare_connection_info(request, info, proxy, tunnel);
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
