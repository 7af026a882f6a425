// The sync scenarios over each way to the server: TLS with the server's pin, an HTTP proxy,
// the relay's tunnel, and these combined: an upload and a download, each broken mid-file
// and resumed. Then the
// way changed under running transfers, from direct to a proxy and back.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "harness/counting-relay.h"
#include "harness/sync-world.h"
#include "relay.h"
#include "support/files.h"
#include "support/real-proxy.h"

namespace {

struct Way {
    const char* name;
    bool tls;
    bool proxy;
    bool tunnel;
};

class Ways : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(world.ok());
        ASSERT_TRUE(proxy.running());
        std::string error;
        ASSERT_EQ(relay.Start(error), 0) << error;
        ASSERT_EQ(ErrorOf(world.daemon().Ask("link")), "");
    }
    // Links the connection as `way` says, with the server reached at `server_port`.
    std::string Link(const char* action, const Way& way, int server_port) {
        PObject request = world.ConnectionRequest();
        request["action"] = action;
        request["server_port"] = static_cast<uint64_t>(server_port);
        request["use_ssl"] = way.tls;
        if (way.tls) request["ssl_pin"] = world.server().pin().c_str();
        request["use_proxy"] = way.proxy;
        if (way.proxy) {
            request["proxy_ip"] = "127.0.0.1";
            request["proxy_port"] = static_cast<uint64_t>(proxy.port());
        }
        request["use_tunnel"] = way.tunnel;
        if (way.tunnel) {
            request["tunnel_ip"] = "127.0.0.1";
            request["tunnel_port"] = static_cast<uint64_t>(relay.port());
        }
        PObject reply;
        if (!world.daemon().Ask(request, reply)) return "no reply";
        return ErrorOf(reply);
    }
    static std::string ErrorOf(const PObject& reply) {
        return reply.hasMember("error") ? reply["error"].asString().c_str_utf8() : "";
    }
    bool Synced(double seconds = 60) {
        const bool same = WaitUntil([&] { return world.CompareTrees(1).empty(); }, seconds);
        if (!same) ADD_FAILURE() << world.CompareTrees(1) << world.daemon().Log();
        return same;
    }
    size_t ProxiedConnections() {
        size_t count = 0;
        const std::string log = proxy.Log();
        for (size_t at = log.find("CONNECT"); at != std::string::npos;
             at = log.find("CONNECT", at + 1))
            ++count;
        return count;
    }

    static RelayOptions OnLoopback() {
        RelayOptions options;
        options.listen = "127.0.0.1";
        return options;
    }

    SyncWorld world;
    RealProxy proxy{RealProxy::TINYPROXY};
    Relay relay{OnLoopback()};
};

class Transport : public Ways, public ::testing::WithParamInterface<Way> {};

TEST_P(Transport, UploadsAndDownloadsResumeAfterACut) {
    const Way way = GetParam();
    ASSERT_EQ(Link("link_connection", way, world.server().port()), "");
    ASSERT_EQ(ErrorOf(world.AddSession(1)), "");
    ASSERT_EQ(ErrorOf(world.Resume(1)), "");
    world.server().WriteFaults(
        "close-after resume_upload 4194304 times=1\ncut-reply resume_download 4194304 times=1\n");
    ASSERT_TRUE(world.WriteLocal(1, "/up.bin", RandomBytes(8 << 20, 1)));
    ASSERT_TRUE(world.server().Put("/down.bin", RandomBytes(8 << 20, 2)));
    ASSERT_TRUE(Synced());

    const auto payloads = world.server().Payloads("/down.bin");
    ASSERT_EQ(payloads.size(), 2u);
    EXPECT_GT(payloads[1].offset, 0u);
    if (way.proxy) {
        EXPECT_GE(ProxiedConnections(), 2u) << proxy.Log();
    }
    if (way.tunnel) {
        EXPECT_GE(relay.AcceptedCount(), 2u);
    }
    if (way.tls) {
        // The workers asked for TLS in their logins and the Syncer turned its channel.
        const std::string log = world.daemon().Log();
        EXPECT_NE(log.find("request ssl channel"), std::string::npos);
        EXPECT_NE(log.find("channel is now encrypted using SSL"), std::string::npos);
        EXPECT_EQ(log.find("Convert to SSL channel failed"), std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(Ways, Transport,
                         ::testing::Values(Way{"Tls", true, false, false},
                                           Way{"Proxy", false, true, false},
                                           Way{"TlsThroughProxy", true, true, false},
                                           Way{"Tunnel", false, false, true},
                                           Way{"TlsInATunnelThroughProxy", true, true, true}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(Ways, TheWayChangesUnderARunningTransfer) {
    CountingRelay relay{world.server().port()};
    const Way direct{"Direct", false, false, false};
    ASSERT_EQ(Link("link_connection", direct, relay.port()), "");
    ASSERT_EQ(ErrorOf(world.AddSession(1)), "");
    ASSERT_EQ(ErrorOf(world.Resume(1)), "");

    // A body held half-way in the relay when the connection is reloaded onto the proxy.
    relay.Hold(relay.Sent() + (4 << 20));
    ASSERT_TRUE(world.WriteLocal(1, "/held.bin", RandomBytes(16 << 20, 3)));
    ASSERT_TRUE(WaitUntil([&] { return relay.Sent() >= (4u << 20); }));
    std::future<std::string> reload = std::async(std::launch::async, [&] {
        return Link("reload_connection", {"Proxy", false, true, false}, world.server().port());
    });
    // The reload waits for the worker to give its connection back.
    EXPECT_EQ(reload.wait_for(std::chrono::milliseconds(500)), std::future_status::timeout);
    relay.Release();
    EXPECT_EQ(reload.get(), "");
    ASSERT_TRUE(world.WriteLocal(1, "/via-proxy", "p"));
    ASSERT_TRUE(Synced());
    EXPECT_GE(ProxiedConnections(), 1u);

    // And back to the direct way: the next change goes through the relay again.
    ASSERT_EQ(Link("reload_connection", direct, relay.port()), "");
    const uint64_t before = relay.Sent();
    ASSERT_TRUE(world.WriteLocal(1, "/direct.bin", RandomBytes(1 << 20, 4)));
    ASSERT_TRUE(Synced());
    EXPECT_GT(relay.Sent() - before, uint64_t{1 << 20});
}

}  // namespace
