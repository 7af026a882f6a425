// The Syncer's pull, a whole protocol exchange through the pool, over the roads to the
// server other than a direct connection: through a real HTTP proxy with its account,
// through tarnbridge-relay alone and reached through the proxy, with the server's own TLS
// inside the tunnel; a wrong proxy password that the user hears of and that reaches no
// server; a relay that can't reach the server; and the pool rebuilt from direct to proxy
// and back while a pull holds a connection.
#include <future>
#include <thread>

#include "pulling/syncer-fixture.h"
#include "relay.h"
#include "server-certificate.h"
#include "support/real-proxy.h"

namespace {

using namespace syncertest;
using namespace std::chrono_literals;

class SyncerRoutes : public SyncerConcurrency {
  protected:
    static ProxyInfo Proxy(const RealProxy& proxy, const std::string& password) {
        ProxyInfo p;
        p.use_proxy = true;
        p.proxy_ip = "127.0.0.1";
        p.proxy_port = static_cast<uint16_t>(proxy.port());
        p.user_name = "alice";
        p.password = password;
        return p;
    }
    static TunnelInfo Tunnel(int port) {
        TunnelInfo t;
        t.use_tunnel = true;
        t.tunnel_ip = "127.0.0.1";
        t.tunnel_port = static_cast<uint16_t>(port);
        return t;
    }
    // How many tunnels to `port` (the server's by default) the proxy has been asked for.
    size_t ProxiedConnects(const RealProxy& proxy, int port = 0) const {
        return CountIn(proxy.Log(),
                       "CONNECT 127.0.0.1:" + std::to_string(port ? port : server->port()));
    }
    ConnectionInfo Info() const {
        ConnectionInfo info;
        info.server_ip = "127.0.0.1";
        info.server_port = server->port();
        info.use_ssl = false;
        return info;
    }
};

TEST_F(SyncerRoutes, PullThroughTheRelayAloneAndThroughTheProxyWithTlsInside) {
    RealProxy proxy(RealProxy::TINYPROXY, "alice", "s3cret");
    ASSERT_TRUE(proxy.running());
    RelayOptions options;
    options.listen = "127.0.0.1";
    Relay relay(options);
    std::string error;
    ASSERT_EQ(relay.Start(error), 0) << error;
    const auto tls = [](ConnectionInfo& c) { c.use_ssl = true; };
    ASSERT_EQ(worker.Run(), 0);
    for (const uint64_t session : {1, 2}) {  // the relay alone, then through the proxy
        const bool via_proxy = session == 2;
        StartServer(nullptr, tls, via_proxy ? Proxy(proxy, "s3cret") : ProxyInfo(),
                    Tunnel(relay.port()));
        std::string pin;
        ASSERT_EQ(server_certificate::Ensure(server->options.data_dir, "127.0.0.1", pin), 0);
        Put("/a.txt", "a");
        Registry::getInstance().Remove(1);
        AddSession(session);
        ASSERT_EQ(PullOnce(), 0);
        EXPECT_EQ(SyncId(session), 1u);
        EXPECT_EQ(worker.Take(), (Paths{"/a.txt"}));
        EXPECT_EQ(server->server->AcceptedCount(), 1u);
        EXPECT_EQ(relay.AcceptedCount(), session);
    }
    EXPECT_EQ(LogCount("Syncer: channel is now encrypted using SSL"), 2u);
    EXPECT_EQ(ProxiedConnects(proxy, relay.port()), 1u);
    EXPECT_EQ(ProxiedConnects(proxy), 0u);  // the proxy saw the relay only

    // The relay can't reach a server that is gone: the pull fails and says why.
    const ConnectionInfo info = Info();
    server.reset();
    pool->reloadConnection(info, ProxyInfo(), Tunnel(relay.port()));
    EXPECT_EQ(PullOnce(), ERR_IO);
    EXPECT_EQ(LogCount("ZEPHTunnelClientHandshake: failed, code: 402"), 1u);
}

TEST_F(SyncerRoutes, WrongProxyPasswordIsAConnectionErrorTheUserHearsAndReachesNoServer) {
    RealProxy proxy(RealProxy::TINYPROXY, "alice", "s3cret");
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
    RealProxy proxy(RealProxy::TINYPROXY, "alice", "s3cret");
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
