// The connection pool: lending order by keep-alive grant, blocking when all are lent, the
// reload that waits for borrowers while new borrowers wait for it, and the channel modes.
// Logins reused while a grant lasts are counted against the server in the Syncer's tests.
#include "transport/connection-pool.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "platform/clock.h"
#include "support/loopback.h"

namespace {

using namespace std::chrono_literals;

ConnectionInfo Info(int port) {
    ConnectionInfo info;
    info.server_ip = "127.0.0.1";
    info.server_port = port;
    return info;
}

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

TEST(ConnectionPool, ModeFollowsProxyAndTunnelAndAnUnreachableRelayReachesNoServer) {
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

    tunnel.tunnel_ip = "127.0.0.1";
    tunnel.tunnel_port = static_cast<uint16_t>(loopback::Listener().port());  // nobody there
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

}  // namespace
