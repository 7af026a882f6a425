// connection-pool.h: the daemon's small, fixed set of server connections. Workers and the
// syncers borrow one for a single operation and give it back; a connection the server
// agreed to keep alive stays open and logged in between borrowings, and is lent first.
// The control commands make the pool ("link_connection") and rebuild it
// ("reload_connection"); the login itself is in exchange.h.
//
// Borrowers follow one rule: pop (or BorrowedConnection), check Ready and log in again if
// it is not, do the work, Update with the reply's grant (Drop on a failure), push. A
// connection is its borrower's alone between pop and push; every path must give it back,
// or a reload waits for ever.
//
// Lock order: ConnectionPool::mutex, then a connection's m_conn_state_lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "foundation/channel.h"
#include "foundation/mutex.h"
#include "foundation/ustring.h"
#include "transport/proxy-tunnel-info.h"
#include "transport/ssl-channel.h"

// How the server's address was found.
enum ConnectionMode { CM_UNKNOW = 0, CM_IP = 1, CM_DDNS = 2, CM_SKYLOOP = 3 };

// What kind of channel a connection runs on.
enum ChannelMode {
    CHANNEL_NORMAL = 0,
    CHANNEL_PROXY = 1,
    CHANNEL_TUNNEL = 2,
    CHANNEL_PROXY_TUNNEL = 3,
    CHANNEL_UNKNOWN = 4,
};

enum ConnectionState { CONNECTED = 0, DISCONNECTED = 1 };

// The server and account of the pool, as the control message gives them.
struct ConnectionInfo {
    ConnectionMode c_mode = CM_UNKNOW;
    ustring server_name;
    ustring server_ip;
    int server_port = 0;
    ustring quickconn_mode;
    ustring username;
    ustring password;
    ustring ds_id;
    ustring session;
    int protocol_version = 0;
    uint64_t conn_id = 0;
    ustring computer_name;
    bool use_ssl = true;
    long package_version = 0;
    // The server's certificate must lead to this PEM bundle and name server_ip; empty:
    // no such check. From the connection request, else the daemon's configuration.
    ustring ssl_ca_file;
    // The SHA-256 fingerprint the server's certificate must have; empty: not pinned.
    ustring ssl_pin;
};

// One server connection and the keep-alive grant it holds.
class Connection {
  public:
    // A closed connection on a channel of `mode`: direct, through the proxy, through the
    // relay, or through the proxy to the relay.
    Connection(ChannelMode mode, const ProxyInfo& proxy, const TunnelInfo& tunnel, bool use_ssl);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    Channel* GetChannel() { return channel.get(); }
    void SetUsed(bool used) { m_used = used; }
    bool IsUsed() const { return m_used; }
    ConnectionState GetConnectionState();
    void SetConnectionState(ConnectionState state);

    // True while a grant runs: alive_value isn't 0 and no more than alive_value seconds
    // have passed since it was given. Such a connection is open and logged in.
    bool Ready() const;
    // Records the server's grant of `seconds`. 0 means the server won't keep the
    // connection: it is closed at once and marked DISCONNECTED; otherwise the grant
    // starts now and the connection is CONNECTED.
    void Update(uint32_t seconds);
    // Closes the channel and forgets the grant: the next borrower logs in anew.
    void Drop();
    // Opens the channel: Channel::Open's result (0, or a negative code).
    int Connect(const char* ip, int port);
    int Connect(const char* path);

    uint32_t last_access = 0;  // seconds since 1970 of the last grant
    uint32_t alive_value = 0;  // seconds the server promised; 0 none

  private:
    bool m_used = false;
    Mutex m_conn_state_lock;
    ConnectionState m_conn_state GUARDED_BY(m_conn_state_lock) = DISCONNECTED;
    std::unique_ptr<Channel> channel;
};

class ConnectionPool {
  public:
    // `size` closed connections of the mode getChannelMode gives for `proxy` and `tunnel`,
    // all available.
    ConnectionPool(const ConnectionInfo& info, const ProxyInfo& proxy, const TunnelInfo& tunnel,
                   size_t size);
    ~ConnectionPool();
    ConnectionPool(const ConnectionPool&) = delete;
    ConnectionPool& operator=(const ConnectionPool&) = delete;

    // Borrows a connection: the first free one in list order, so connections with a
    // running grant come first. Blocks while a reload runs and while all are lent.
    // Never null; the pool keeps ownership.
    Connection* pop();
    // Gives a connection back: to the front of the list while its grant runs, to the
    // back otherwise. A null or a connection of another pool is ignored.
    void push(Connection* conn);
    // True if any connection is CONNECTED.
    bool isConnected();

    ustring getSession();
    ustring getClientName();
    ustring getServerIp();
    int getServerPort();
    bool useSSL();
    // What a TLS login checks of the server: the info's ssl_ca_file and ssl_pin, with the
    // server's address as the name the certificate must carry.
    TlsIdentity getTlsIdentity();
    uint64_t getConnectionId();

    // Rebuilds every connection for a new address, port, TLS choice or check, proxy or tunnel:
    // waits until all borrowers have given theirs back (new borrowers wait meanwhile),
    // then replaces them all with closed connections. Session, client name and
    // connection id stay.
    void reloadConnection(const ConnectionInfo& info, const ProxyInfo& proxy,
                          const TunnelInfo& tunnel);

    // The channel mode for these settings; a proxy counts only with an address.
    static ChannelMode getChannelMode(const ProxyInfo& proxy, const TunnelInfo& tunnel);

  private:
    // The list operations, called with `mutex` held.
    Connection* GetAvailConn() REQUIRES(mutex);
    bool ReturnConn(Connection* conn) REQUIRES(mutex);
    void MakeConnections(const ProxyInfo& proxy, const TunnelInfo& tunnel) REQUIRES(mutex);

    Mutex mutex;
    std::list<std::unique_ptr<Connection>> pool GUARDED_BY(mutex);
    uint64_t m_conn_id GUARDED_BY(mutex) = 0;
    ustring m_client_name GUARDED_BY(mutex);
    ustring m_server_ip GUARDED_BY(mutex);
    ustring m_session GUARDED_BY(mutex);
    int m_server_port GUARDED_BY(mutex) = 0;
    bool m_use_ssl GUARDED_BY(mutex) = false;
    ustring m_ssl_ca_file GUARDED_BY(mutex);
    ustring m_ssl_pin GUARDED_BY(mutex);
    bool m_freeze GUARDED_BY(mutex) = false;
    size_t m_size GUARDED_BY(mutex) = 0;
    size_t m_avail_conn GUARDED_BY(mutex) = 0;
    CondVar cond;
    CondVar cond_all_conn_return;
    CondVar cond_leave_freeze;
};

// A borrowing for one scope: pops in the constructor and, in the destructor, clears the
// channel's abort flag (the borrower's flag must not outlive it) and pushes back.
class BorrowedConnection {
  public:
    explicit BorrowedConnection(ConnectionPool& pool) : m_pool(pool), m_conn(pool.pop()) {}
    ~BorrowedConnection() {
        m_conn->GetChannel()->SetFlag(nullptr);
        m_pool.push(m_conn);
    }
    BorrowedConnection(const BorrowedConnection&) = delete;
    BorrowedConnection& operator=(const BorrowedConnection&) = delete;

    Connection* get() const { return m_conn; }
    Connection* operator->() const { return m_conn; }

  private:
    ConnectionPool& m_pool;
    Connection* m_conn;
};

// The daemon's pool: published by "link_connection", taken away by "unlink" once the
// tasks that borrow from it have been joined. Null while none is linked. Not owned here.
extern std::atomic<ConnectionPool*> g_pool;
