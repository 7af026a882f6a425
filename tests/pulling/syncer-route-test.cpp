// The Syncer's pull through a real HTTP proxy with an account: a wrong password is a
// connection error that the user hears of and that reaches no server. The roads that
// work are carried end to end in the transport scenarios.
#include "pulling/syncer-fixture.h"
#include "support/real-proxy.h"

namespace {

using namespace syncertest;

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
};

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

}  // namespace
