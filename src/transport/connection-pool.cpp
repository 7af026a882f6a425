// connection-pool.cpp: connections with their keep-alive grants, and the pool that lends them.
#include "transport/connection-pool.h"

#include <algorithm>

#include "foundation/log.h"
#include "platform/clock.h"
#include "transport/proxy-channel.h"
#include "transport/tunnel-channel.h"

std::atomic<ConnectionPool*> g_pool{nullptr};

namespace {

const char* const kLog = "connection_debug";

const char* ModeName(ChannelMode mode) {
    switch (mode) {
        case CHANNEL_NORMAL:
            return "CHANNEL_NORMAL";
        case CHANNEL_PROXY:
            return "CHANNEL_PROXY";
        case CHANNEL_TUNNEL:
            return "CHANNEL_TUNNEL";
        case CHANNEL_PROXY_TUNNEL:
            return "CHANNEL_PROXY_TUNNEL";
        default:
            return "CHANNEL_UNKNOWN";
    }
}

std::unique_ptr<Channel> MakeChannel(ChannelMode mode, const ProxyInfo& proxy,
                                     const TunnelInfo& tunnel) {
    switch (mode) {
        case CHANNEL_PROXY:
            return std::make_unique<ProxyChannel>(proxy);
        case CHANNEL_TUNNEL:
            return std::make_unique<TunnelChannel>(tunnel);
        case CHANNEL_PROXY_TUNNEL:
            return std::make_unique<ProxyTunnelChannel>(proxy, tunnel);
        default:
            return std::make_unique<Channel>(Channel::kCapacity);
    }
}

}  // namespace

// ---- Connection ----

Connection::Connection(ChannelMode mode, const ProxyInfo& proxy, const TunnelInfo& tunnel, bool)
    : channel(MakeChannel(mode, proxy, tunnel)) {}

Connection::~Connection() = default;

ConnectionState Connection::GetConnectionState() {
    MutexLock lock(m_conn_state_lock);
    return m_conn_state;
}

void Connection::SetConnectionState(ConnectionState state) {
    MutexLock lock(m_conn_state_lock);
    m_conn_state = state;
}

bool Connection::Ready() const {
    if (alive_value == 0) return false;
    const int64_t age = platform::Now() - static_cast<int64_t>(last_access);
    return age <= static_cast<int64_t>(alive_value);
}

void Connection::Update(uint32_t seconds) {
    alive_value = seconds;
    if (seconds == 0) {
        last_access = 0;
        channel->Close();
        SetConnectionState(DISCONNECTED);
        return;
    }
    last_access = static_cast<uint32_t>(platform::Now());
    SetConnectionState(CONNECTED);
}

void Connection::Drop() {
    channel->Close();
    last_access = 0;
    alive_value = 0;
    SetConnectionState(DISCONNECTED);
}

int Connection::Connect(const char* ip, int port) {
    return channel->Open(ip, port);
}

int Connection::Connect(const char* path) {
    return channel->Open(path);
}

// ---- ConnectionPool ----

ConnectionPool::ConnectionPool(const ConnectionInfo& info, const ProxyInfo& proxy,
                               const TunnelInfo& tunnel, size_t size)
    : m_conn_id(info.conn_id),
      m_client_name(info.computer_name),
      m_server_ip(info.server_ip),
      m_session(info.session),
      m_server_port(info.server_port),
      m_use_ssl(info.use_ssl),
      m_ssl_ca_file(info.ssl_ca_file),
      m_ssl_pin(info.ssl_pin),
      m_size(size),
      m_avail_conn(size) {
    MutexLock lock(mutex);
    MakeConnections(proxy, tunnel);
}

ConnectionPool::~ConnectionPool() = default;

void ConnectionPool::MakeConnections(const ProxyInfo& proxy, const TunnelInfo& tunnel) {
    const ChannelMode mode = getChannelMode(proxy, tunnel);
    for (size_t i = 0; i < m_size; ++i)
        pool.push_back(std::make_unique<Connection>(mode, proxy, tunnel, m_use_ssl));
}

Connection* ConnectionPool::pop() {
    MutexLock lock(mutex);
    while (m_freeze) cond_leave_freeze.Wait(mutex);
    Connection* conn = nullptr;
    while ((conn = GetAvailConn()) == nullptr) cond.Wait(mutex);
    --m_avail_conn;
    return conn;
}

void ConnectionPool::push(Connection* conn) {
    if (conn == nullptr) return;
    MutexLock lock(mutex);
    if (ReturnConn(conn)) ++m_avail_conn;
    cond.NotifyOne();
    if (m_avail_conn == m_size) cond_all_conn_return.NotifyAll();
}

Connection* ConnectionPool::GetAvailConn() {
    for (const std::unique_ptr<Connection>& conn : pool) {
        if (conn->IsUsed()) continue;
        conn->SetUsed(true);
        return conn.get();
    }
    return nullptr;
}

bool ConnectionPool::ReturnConn(Connection* conn) {
    auto it = std::find_if(pool.begin(), pool.end(), [conn](const std::unique_ptr<Connection>& c) {
        return c.get() == conn;
    });
    if (it == pool.end() || !conn->IsUsed()) return false;
    conn->SetUsed(false);
    // Connections that need no new login go first, so the next pop saves one.
    pool.splice(conn->Ready() ? pool.begin() : pool.end(), pool, it);
    return true;
}

bool ConnectionPool::isConnected() {
    MutexLock lock(mutex);
    return std::any_of(pool.begin(), pool.end(), [](const std::unique_ptr<Connection>& conn) {
        return conn->GetConnectionState() == CONNECTED;
    });
}

ustring ConnectionPool::getSession() {
    MutexLock lock(mutex);
    return m_session;
}

ustring ConnectionPool::getClientName() {
    MutexLock lock(mutex);
    return m_client_name;
}

ustring ConnectionPool::getServerIp() {
    MutexLock lock(mutex);
    return m_server_ip;
}

int ConnectionPool::getServerPort() {
    MutexLock lock(mutex);
    return m_server_port;
}

bool ConnectionPool::useSSL() {
    MutexLock lock(mutex);
    return m_use_ssl;
}

TlsIdentity ConnectionPool::getTlsIdentity() {
    MutexLock lock(mutex);
    TlsIdentity identity;
    identity.ca_file = m_ssl_ca_file;
    identity.pin = m_ssl_pin;
    identity.host = m_server_ip;
    return identity;
}

uint64_t ConnectionPool::getConnectionId() {
    MutexLock lock(mutex);
    return m_conn_id;
}

void ConnectionPool::reloadConnection(const ConnectionInfo& info, const ProxyInfo& proxy,
                                      const TunnelInfo& tunnel) {
    MutexLock lock(mutex);
    m_freeze = true;
    // A connection still lent would be destroyed under its borrower: wait for all.
    while (m_avail_conn != m_size) cond_all_conn_return.Wait(mutex);
    pool.clear();
    m_server_ip = info.server_ip;
    m_server_port = info.server_port;
    m_use_ssl = info.use_ssl;
    m_ssl_ca_file = info.ssl_ca_file;
    m_ssl_pin = info.ssl_pin;
    MakeConnections(proxy, tunnel);
    m_freeze = false;
    cond_leave_freeze.NotifyAll();
}

ChannelMode ConnectionPool::getChannelMode(const ProxyInfo& proxy, const TunnelInfo& tunnel) {
    const bool has_proxy = proxy.use_proxy && !proxy.proxy_ip.empty();
    ChannelMode mode = CHANNEL_NORMAL;
    if (has_proxy)
        mode = tunnel.use_tunnel ? CHANNEL_PROXY_TUNNEL : CHANNEL_PROXY;
    else if (tunnel.use_tunnel)
        mode = CHANNEL_TUNNEL;
    Logger::LogMsg(Logger::L_DEBUG, kLog,
                   "[DEBUG] connection(%d): ConnectionPool: Create %s connection pool\n", __LINE__,
                   ModeName(mode));
    return mode;
}
