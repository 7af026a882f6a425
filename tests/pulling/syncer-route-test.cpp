// The Syncer's pull, a whole protocol exchange through the pool, over the roads to the
// server other than a direct connection: through a real HTTP proxy with its account, a
// wrong proxy password that the user hears of and that reaches no server, and the pool
// rebuilt from direct to proxy and back while a pull holds a connection.
#include <future>
#include <thread>

#include "pulling/syncer-fixture.h"
#include "support/tinyproxy.h"

namespace {

using namespace syncertest;
using namespace std::chrono_literals;

class SyncerRoutes : public SyncerConcurrency {
  protected:
    static ProxyInfo Proxy(const Tinyproxy& proxy, const std::string& password) {
        ProxyInfo p;
        p.use_proxy = true;
        p.proxy_ip = "127.0.0.1";
        p.proxy_port = static_cast<uint16_t>(proxy.port());
        p.user_name = "alice";
        p.password = password;
        return p;
    }
    // How many tunnels to the server the proxy has been asked for.
    size_t ProxiedConnects(const Tinyproxy& proxy) const {
        const std::string log = proxy.Log();
        const std::string text = "CONNECT 127.0.0.1:" + std::to_string(server->port());
        size_t n = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
        return n;
    }
    ConnectionInfo Info() const {
        ConnectionInfo info;
        info.server_ip = "127.0.0.1";
        info.server_port = server->port();
        info.use_ssl = false;
        return info;
    }
};

TEST_F(SyncerRoutes, PullThroughAProxyWithItsAccount) {
    Tinyproxy proxy("alice", "s3cret");
    ASSERT_TRUE(proxy.running());
    StartServer(nullptr, nullptr, Proxy(proxy, "s3cret"));
    Put("/a.txt", "a");
    AddSession(1);
    ASSERT_EQ(worker.Run(), 0);
    ASSERT_EQ(PullOnce(), 0);
    EXPECT_EQ(SyncId(1), 1u);
    EXPECT_EQ(worker.Take(), (Paths{"/a.txt"}));
    EXPECT_EQ(ProxiedConnects(proxy), 1u);
    EXPECT_EQ(LogCount("has been connect to proxy (127.0.0.1:"), 1u);
}

TEST_F(SyncerRoutes, WrongProxyPasswordIsAConnectionErrorTheUserHearsAndReachesNoServer) {
    Tinyproxy proxy("alice", "s3cret");
    ASSERT_TRUE(proxy.running());
    StartServer(nullptr, nullptr, Proxy(proxy, "guess"));
    AddSession(1);
    loopback::Listener ui;
    evtest::SetUIPort(ui.port());
    const int rc = PullOnce();
    EXPECT_EQ(rc, ERR_AUTH);
    EXPECT_EQ(syncer.HandleError(rc), 1);
    const PObject notice = evtest::NextNotice(ui);
    EXPECT_EQ(notice["notify"].asString(), "error");
    EXPECT_TRUE(notice.hasMember("connection_id"));
    EXPECT_EQ(notice["error_type"].asInt32(), ERR_AUTH);
    EXPECT_EQ(server->server->AcceptedCount(), 0u);
    EXPECT_FALSE(pool->isConnected());
}

TEST_F(SyncerRoutes, ReloadFromDirectToProxyAndBackWaitsForTheBorrowerAndSyncingGoesOn) {
    Tinyproxy proxy("alice", "s3cret");
    ASSERT_TRUE(proxy.running());
    StartServer();
    server->WriteFaults("delay pull_event 1500 times=1\n");
    Put("/a.txt", "a");
    AddSession(1);
    ASSERT_EQ(worker.Run(), 0);
    auto pull = std::async(std::launch::async, [&] { return PullOnce(); });
    ASSERT_TRUE(Eventually([&] { return LogCount("\"_action\": \"pull_event\"") == 1; }));
    auto reload = std::async(std::launch::async, [&] {
        pool->reloadConnection(Info(), Proxy(proxy, "s3cret"), TunnelInfo());
    });
    EXPECT_EQ(reload.wait_for(300ms), std::future_status::timeout);  // the pull holds one
    EXPECT_EQ(pull.get(), 0);
    ASSERT_EQ(reload.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(SyncId(1), 1u);
    EXPECT_EQ(ProxiedConnects(proxy), 0u);

    Put("/b.txt", "b");
    EXPECT_EQ(PullOnce(), 0);
    EXPECT_EQ(ProxiedConnects(proxy), 1u);

    pool->reloadConnection(Info(), ProxyInfo(), TunnelInfo());
    Put("/c.txt", "c");
    EXPECT_EQ(PullOnce(), 0);
    EXPECT_EQ(SyncId(1), 3u);
    EXPECT_EQ(worker.Take(), (Paths{"/a.txt", "/b.txt", "/c.txt"}));
    EXPECT_EQ(ProxiedConnects(proxy), 1u);
    EXPECT_EQ(server->server->AcceptedCount(), 3u);  // one login per road
}

}  // namespace
