// The connection pool: lending order by keep-alive grant, blocking when all are lent, the
// reload that waits for borrowers while new borrowers wait for it, and logins reused against
// the reference server while their grant lasts.
#include "transport/connection-pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <vector>

#include "platform/clock.h"
#include "server/server-harness.h"
#include "support/loopback.h"
#include "transport/exchange.h"

namespace {

using namespace std::chrono_literals;

ConnectionInfo Info(int port, bool use_ssl = false) {
    ConnectionInfo info;
    info.server_ip = "127.0.0.1";
    info.server_port = port;
    info.session = "token";
    info.use_ssl = use_ssl;
    info.conn_id = 7;
    return info;
}

// A caller that keeps what it was told, with the worker's or the syncer's TLS style.
class RecordingCaller : public ServerCaller {
  public:
    explicit RecordingCaller(TlsStyle tls = TLS_BEFORE_CONNECT) : m_tls(tls) {}
    void Note(const ExchangeEvent& event) override { notes.push_back(event.note); }
    int ExchangeFailed(ExchangeStep, const char*, int code) override { return code; }
    int* CallerAbortFlag() override { return nullptr; }
    ProtoRespCaller RespCaller() const override {
        return m_tls == TLS_IN_CONNECT ? PROTO_RESP_WORKER : PROTO_RESP_SYNCER;
    }
    TlsStyle Tls() const override { return m_tls; }
    bool Heard(ExchangeNote note) const {
        return std::find(notes.begin(), notes.end(), note) != notes.end();
    }

    std::vector<ExchangeNote> notes;

  private:
    TlsStyle m_tls;
};

TEST(ConnectionPool, GrantedConnectionsAreLentFirstUntilTheGrantRunsOut) {
    platform::ManualClock clock;
    platform::ScopedClock use(clock);
    ConnectionPool pool(Info(1), ProxyInfo(), TunnelInfo(), 3);
    Connection* x = pool.pop();
    Connection* y = pool.pop();
    Connection* z = pool.pop();
    y->Update(600);
    pool.push(x);  // no grant: to the back
    pool.push(y);  // granted: to the front
    pool.push(z);
    EXPECT_EQ(pool.pop(), y);
    EXPECT_TRUE(pool.isConnected());

    y->Update(10);
    clock.Advance(11000);
    EXPECT_FALSE(y->Ready());
    pool.push(y);  // expired: behind x and z
    EXPECT_EQ(pool.pop(), x);
    EXPECT_EQ(pool.pop(), z);
    EXPECT_EQ(pool.pop(), y);
}

TEST(ConnectionPool, ModeFollowsProxyAndTunnelAndMissingModesRefuseToOpen) {
    ProxyInfo proxy;
    TunnelInfo tunnel;
    proxy.use_proxy = true;  // without an address it is no proxy
    EXPECT_EQ(ConnectionPool::getChannelMode(proxy, tunnel), CHANNEL_NORMAL);
    proxy.proxy_ip = "10.0.0.1";
    EXPECT_EQ(ConnectionPool::getChannelMode(proxy, tunnel), CHANNEL_PROXY);
    tunnel.use_tunnel = true;
    EXPECT_EQ(ConnectionPool::getChannelMode(proxy, tunnel), CHANNEL_PROXY_TUNNEL);
    proxy.use_proxy = false;
    EXPECT_EQ(ConnectionPool::getChannelMode(proxy, tunnel), CHANNEL_TUNNEL);

    loopback::Listener server;
    ConnectionPool pool(Info(server.port()), proxy, tunnel, 1);
    BorrowedConnection conn(pool);
    EXPECT_EQ(conn->Connect("127.0.0.1", server.port()), -2);
    EXPECT_EQ(server.accept(200), -1);  // nothing reached the server directly
}

TEST(ConnectionPoolConcurrency, AFourthBorrowerWaitsForAReturn) {
    ConnectionPool pool(Info(1), ProxyInfo(), TunnelInfo(), 3);
    Connection* lent[] = {pool.pop(), pool.pop(), pool.pop()};
    auto fourth = std::async(std::launch::async, [&pool] { return pool.pop(); });
    EXPECT_EQ(fourth.wait_for(200ms), std::future_status::timeout);
    int stranger = 0;
    pool.push(reinterpret_cast<Connection*>(&stranger));  // not the pool's: frees nothing
    EXPECT_EQ(fourth.wait_for(200ms), std::future_status::timeout);
    pool.push(lent[1]);
    ASSERT_EQ(fourth.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(fourth.get(), lent[1]);
}

TEST(ConnectionPoolConcurrency, ReloadWaitsForBorrowersAndBorrowersWaitForTheReload) {
    ConnectionPool pool(Info(1), ProxyInfo(), TunnelInfo(), 2);
    Connection* lent = pool.pop();
    lent->Update(600);
    auto reload = std::async(
        std::launch::async, [&pool] { pool.reloadConnection(Info(2), ProxyInfo(), TunnelInfo()); });
    EXPECT_EQ(reload.wait_for(200ms), std::future_status::timeout);
    // The pool is frozen now: even with a free connection, a borrower waits.
    auto borrower = std::async(std::launch::async, [&pool] {
        Connection* conn = pool.pop();
        const int port = pool.getServerPort();
        pool.push(conn);
        return port;
    });
    EXPECT_EQ(borrower.wait_for(200ms), std::future_status::timeout);
    pool.push(lent);
    ASSERT_EQ(reload.wait_for(5s), std::future_status::ready);
    ASSERT_EQ(borrower.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(borrower.get(), 2);
    EXPECT_FALSE(pool.isConnected());  // every connection is new and closed
}

TEST(ConnectionPoolConcurrency, LoginIsReusedWhileTheGrantLasts) {
    ServerHarness server([](ServerOptions& o) { o.alive = 30; });
    platform::ManualClock clock(std::time(nullptr));
    platform::ScopedClock use(clock);
    ConnectionInfo info = Info(server.port());
    info.session = server.user.session.c_str();
    ConnectionPool pool(info, ProxyInfo(), TunnelInfo(), 2);
    RecordingCaller caller;
    PStream stream;
    auto pull = [&](Connection& conn) {
        EXPECT_EQ(ServerLogin(caller, pool, conn, server.user.view_id), 0);
        PObject request = server.Request("pull_event");
        PObject reply;
        EXPECT_EQ(ServerExchange(caller, *conn.GetChannel(), stream, SCMD_EVT_PULL, request, reply),
                  0);
        conn.Update(reply["alive"].asUInt32());
        return reply.hasMember("next_sync_id");
    };

    for (int round = 0; round < 3; ++round) {
        BorrowedConnection conn(pool);
        EXPECT_TRUE(pull(*conn.get()));
    }
    EXPECT_EQ(server.server->AcceptedCount(), 1u);
    EXPECT_EQ(g_server_version.load(), kServerBuild);

    clock.Advance(31000);  // the grant has run out: log in anew
    {
        BorrowedConnection conn(pool);
        EXPECT_TRUE(pull(*conn.get()));
    }
    EXPECT_EQ(server.server->AcceptedCount(), 2u);
}

TEST(ConnectionPoolConcurrency, TlsRefusedByTheServerFailsTheLoginInEitherStyle) {
    ServerHarness server;
    ConnectionInfo info = Info(server.port(), true);
    info.session = server.user.session.c_str();
    ConnectionPool pool(info, ProxyInfo(), TunnelInfo(), 1);

    RecordingCaller first(ServerCaller::TLS_BEFORE_CONNECT);
    BorrowedConnection conn(pool);
    EXPECT_EQ(ServerLogin(first, pool, *conn.get(), server.user.view_id), -2);
    EXPECT_TRUE(first.Heard(NOTE_TLS_REFUSED));
    EXPECT_FALSE(first.Heard(NOTE_SERVER_BUILD));  // "connect" never went out

    RecordingCaller in_connect(ServerCaller::TLS_IN_CONNECT);
    EXPECT_EQ(ServerLogin(in_connect, pool, *conn.get(), server.user.view_id), -10);
    EXPECT_TRUE(in_connect.Heard(NOTE_LOGIN_ERROR));
    EXPECT_FALSE(conn->Ready());
}

}  // namespace
