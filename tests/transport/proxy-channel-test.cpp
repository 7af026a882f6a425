// ProxyChannel through real HTTP proxies (tinyproxy and squid, with and without Basic
// credentials)
// to a loopback target, and through scripted proxies that refuse, close, babble, stay
// silent or are abandoned: a refused account is -6, every other failure -2, each with its
// reason in the log, and nothing reaches the target unless the proxy let the tunnel through.
#include "transport/proxy-channel.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "foundation/log.h"
#include "support/loopback.h"
#include "support/real-proxy.h"
#include "support/scripted-peer.h"
#include "support/temp-dir.h"

namespace {

class ProxyChannelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir.write("levels", "proxy_channel_debug = 7\n");
        ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, dir / "log", dir / "levels", 2), 0);
    }
    void TearDown() override { Logger::Destroy(); }

    ProxyInfo Proxy(int port, const std::string& user = "", const std::string& password = "") {
        ProxyInfo p;
        p.use_proxy = true;
        p.proxy_ip = "127.0.0.1";
        p.proxy_port = static_cast<uint16_t>(port);
        p.user_name = user;
        p.password = password;
        return p;
    }
    std::string Log() const { return ReadFile(dir / "log"); }

    TempDir dir;
};

// Reads what the client sends up to the end of its headers.
std::string ReadHead(PeerSession& s) {
    std::string head;
    std::string byte;
    while (head.find("\r\n\r\n") == std::string::npos && s.ReadBytes(1, byte) == 0) head += byte;
    return head;
}

TEST_F(ProxyChannelTest, RealProxiesCarryBytesBothWaysAndCheckTheAccount) {
    for (const RealProxy::Kind kind : {RealProxy::TINYPROXY, RealProxy::SQUID}) {
        for (const bool with_account : {false, true}) {
            RealProxy proxy(kind, with_account ? "alice" : "", "s3cret");
            ASSERT_TRUE(proxy.running()) << proxy.name();
            loopback::Listener target;
            ProxyChannel ch(Proxy(proxy.port(), with_account ? "alice" : "", "s3cret"));
            ASSERT_EQ(ch.Open("127.0.0.1", target.port()), 0) << proxy.name() << Log();
            const int far = target.accept();
            ASSERT_GE(far, 0);
            ASSERT_EQ(ch.Write("ping", 4), 0);
            ASSERT_EQ(ch.FlushWrite(0), 4);
            char got[4];
            ASSERT_EQ(::read(far, got, 4), 4);
            EXPECT_EQ(std::string(got, 4), "ping");
            ASSERT_EQ(::write(far, "pong", 4), 4);
            ASSERT_EQ(ch.Read(got, 4), 0);
            EXPECT_EQ(std::string(got, 4), "pong");
            ch.Close();  // ends the tunnel: the target sees the end
            EXPECT_EQ(::read(far, got, 1), 0);
            ::close(far);
            if (!with_account) continue;
            // The same proxy with a wrong password, and with none: nothing gets through.
            for (const char* user : {"alice", ""}) {
                ProxyChannel wrong(Proxy(proxy.port(), user, "wrong"));
                EXPECT_EQ(wrong.Open("127.0.0.1", target.port()), -6) << proxy.name();
                EXPECT_TRUE(wrong.IsClosed());
            }
            EXPECT_EQ(target.accept(200), -1) << proxy.name();
        }
    }
    const std::string log = Log();
    EXPECT_NE(log.find("has been connect to proxy (127.0.0.1:"), std::string::npos);
    for (const char* answer : {"HTTP/1.0 401", "HTTP/1.1 407"})  // tinyproxy's, squid's
        EXPECT_NE(log.find(std::string("the proxy refused the account's credentials ('") + answer),
                  std::string::npos)
            << log;
    EXPECT_NE(log.find("the proxy asks for an account ('HTTP/1.0 407"), std::string::npos);
    EXPECT_NE(log.find("the proxy asks for an account ('HTTP/1.1 407"), std::string::npos);
}

TEST_F(ProxyChannelTest, RefusalsClosesAndGarbageAreErrorsWithTheirReason) {
    const std::pair<std::string, std::string> cases[] = {
        {"HTTP/1.1 403 Forbidden\r\n\r\n", "the proxy forbids this target ('HTTP/1.1 403"},
        {"HTTP/1.1 502 Bad Gateway\r\n\r\n", "the proxy could not reach the target"},
        {"HTTP/1.1 301 Moved\r\nLocation: x\r\n\r\n", "the proxy refused ('HTTP/1.1 301 Moved')"},
        {"SSH-2.0-OpenSSH\r\n\r\n", "did not answer in HTTP: 'SSH-2.0-OpenSSH'"},
        {"HTTP/1.1 200 OK\r\n", "closed the connection before answering"},
        {std::string(9000, 'x'), "answer headers exceed 8192 bytes"},
    };
    for (const auto& [answer, reason] : cases) {
        std::string request;
        ScriptedPeer proxy([&, answer = answer](PeerSession& s) {
            request = ReadHead(s);
            s.WriteBytes(answer);
        });
        ProxyChannel ch(Proxy(proxy.port(), "bob", "pw"));
        ch.SetTimeout(5);
        EXPECT_EQ(ch.Open("127.0.0.1", 4242), -2) << answer;
        EXPECT_NE(Log().find(reason), std::string::npos) << reason;
        ASSERT_TRUE(proxy.WaitForSessions(1));
        // base64 of "bob:pw"
        EXPECT_EQ(request,
                  "CONNECT 127.0.0.1:4242 HTTP/1.1\r\nHost: 127.0.0.1:4242\r\n"
                  "Proxy-Authorization: Basic Ym9iOnB3\r\n\r\n");
    }
}

TEST_F(ProxyChannelTest, SilentProxyHitsTheSilenceLimitAndAnAbortEndsTheWait) {
    ScriptedPeer proxy([](PeerSession& s) { s.StaySilent(); });
    ProxyChannel ch(Proxy(proxy.port()));
    ch.SetTimeout(1);
    EXPECT_EQ(ch.Open("127.0.0.1", 4242), -2);
    EXPECT_NE(Log().find("no answer in 1 seconds"), std::string::npos);

    int abort_flag = 1;
    ch.SetTimeout(0);  // no limit: only the flag can end it
    ch.SetFlag(&abort_flag);
    EXPECT_EQ(ch.Open("127.0.0.1", 4242), -2);
    EXPECT_NE(Log().find("aborted while waiting"), std::string::npos);

    ProxyChannel nowhere(Proxy(loopback::Listener().port()));  // nobody listens there
    EXPECT_EQ(nowhere.Open("127.0.0.1", 4242), -2);
    EXPECT_NE(Log().find("cannot connect to proxy 127.0.0.1:"), std::string::npos);
}

}  // namespace
