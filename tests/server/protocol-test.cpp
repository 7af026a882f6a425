// Conformance of the wire: every request kind answers with the keys a client reads, every
// error code the client depends on comes where it should, and every reply grants "alive".
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "server-harness.h"

namespace {

TEST(ServerProtocol, ConnectDescribesTheServerAndGrantsAlive) {
    ServerHarness h;
    WireClient c(h.port());
    PObject reply;
    ASSERT_EQ(c.Call(SCMD_REQUEST_CONNECT, h.Request("connect"), reply), 0);
    EXPECT_EQ(WireClient::Code(reply), 0u);
    EXPECT_EQ(reply["alive"].asUInt32(), 600u);
    EXPECT_EQ(reply["server"]["package_version"]["build"].asUInt64(), kServerBuild);
}

TEST(ServerProtocol, LegacySwitchLeavesTheServerDescriptionOut) {
    ServerHarness h([](ServerOptions& o) { o.legacy_2402 = true; });
    WireClient c(h.port());
    PObject reply;
    ASSERT_EQ(c.Call(SCMD_REQUEST_CONNECT, h.Request("connect"), reply), 0);
    EXPECT_EQ(WireClient::Code(reply), 0u);
    EXPECT_FALSE(reply.hasMember("server"));
}

TEST(ServerProtocol, EncryptionAndSslConnectAreRefusedUntilTlsExists) {
    ServerHarness h;
    WireClient c(h.port());
    PObject req;
    req["_action"] = "encrypt_channel";
    req["ssl_option"] = static_cast<uint64_t>(1);
    PObject reply;
    ASSERT_EQ(c.Call(SCMD_REQUEST_SSL_2, req, reply), 0);
    EXPECT_EQ(WireClient::Code(reply), static_cast<uint32_t>(SPROTO_ERR_VERSION));
    PObject conn = h.Request("connect");
    conn["do_ssl"] = true;
    ASSERT_EQ(c.Call(SCMD_REQUEST_CONNECT, conn, reply), 0);
    EXPECT_EQ(WireClient::Code(reply), static_cast<uint32_t>(SPROTO_ERR_VERSION));
    // The connection is still good for plain requests.
    ASSERT_EQ(c.Call(SCMD_REQUEST_CONNECT, h.Request("connect"), reply), 0);
    EXPECT_EQ(WireClient::Code(reply), 0u);
}

TEST(ServerProtocol, SessionAndViewAreCheckedOnEveryRequest) {
    ServerHarness h;
    ServerStore other;
    ASSERT_EQ(other.Open(h.options.data_dir), 0);
    admin::InitResult bob;
    ASSERT_EQ(admin::Init(other, "bob", "bobs", bob), 0);
    WireClient c(h.port());
    PObject reply;
    // A good connect does not open the door for the requests after it.
    ASSERT_EQ(c.Call(SCMD_REQUEST_CONNECT, h.Request("connect"), reply), 0);
    ASSERT_EQ(WireClient::Code(reply), 0u);
    PObject pull = h.Request("pull_event");
    pull["session"] = "not-a-session";
    ASSERT_EQ(c.Call(SCMD_EVT_PULL, pull, reply), 0);
    EXPECT_EQ(WireClient::Code(reply), static_cast<uint32_t>(SPROTO_ERR_SESSION_MISS));
    pull = h.Request("pull_event");
    pull["view_id"] = static_cast<uint64_t>(999);
    ASSERT_EQ(c.Call(SCMD_EVT_PULL, pull, reply), 0);
    EXPECT_EQ(WireClient::Code(reply), static_cast<uint32_t>(SPROTO_ERR_INVALID_VIEW_ID));
    pull = h.Request("pull_event");
    pull["view_id"] = bob.view_id;
    ASSERT_EQ(c.Call(SCMD_EVT_PULL, pull, reply), 0);
    EXPECT_EQ(WireClient::Code(reply), static_cast<uint32_t>(SPROTO_ERR_ACCESS_DENY));
    pull = h.Request("pull_event");
    pull["path"] = "/missing";
    ASSERT_EQ(c.Call(SCMD_EVT_PULL, pull, reply), 0);
    EXPECT_EQ(WireClient::Code(reply), static_cast<uint32_t>(SPROTO_ERR_VIEW_INVALID_PATH));
    pull["path"] = "/a/../b";
    ASSERT_EQ(c.Call(SCMD_EVT_PULL, pull, reply), 0);
    EXPECT_EQ(WireClient::Code(reply), static_cast<uint32_t>(SPROTO_ERR_VIEW_INVALID_PATH));
}

TEST(ServerProtocol, AnActionUnderTheWrongCommandOrUnknownIsRefused) {
    ServerHarness h;
    WireClient c(h.port());
    PObject reply;
    ASSERT_EQ(c.Call(SCMD_EVT_RECV_4, h.Request("pull_event"), reply), 0);
    EXPECT_EQ(WireClient::Code(reply), static_cast<uint32_t>(SPROTO_ERR_VERSION));
    ASSERT_EQ(c.Call(SCMD_RESUME_TRANSFER, h.Request("format_disk"), reply), 0);
    EXPECT_EQ(WireClient::Code(reply), static_cast<uint32_t>(SPROTO_ERR_VERSION));
    // A value that isn't a map is read whole and answered.
    ASSERT_EQ(c.Call(SCMD_EVT_PULL, PObject(static_cast<uint64_t>(7)), reply), 0);
    EXPECT_EQ(WireClient::Code(reply), static_cast<uint32_t>(SPROTO_ERR_VERSION));
}

TEST(ServerProtocol, MalformedFramesCloseTheConnectionAndTheServerLivesOn) {
    ServerHarness h;
    {
        WireClient c(h.port());
        ASSERT_EQ(c.WriteRaw(std::string("\x12\x34\x56\x78\x3c\x06\x00\x00", 8)), 0);
        EXPECT_TRUE(c.ClosedByPeer());
    }
    {
        // A good header, then a map whose key is an integer.
        WireClient c(h.port());
        std::string frame("\x25\x52\x18\x14\x3c\x06\x00\x00", 8);
        frame += std::string("\x42\x01\x01\x05", 4);
        ASSERT_EQ(c.WriteRaw(frame), 0);
        EXPECT_TRUE(c.ClosedByPeer());
    }
    {
        // An unknown tag and an integer longer than 8 bytes.
        WireClient c(h.port());
        std::string frame("\x25\x52\x18\x14\x3c\x06\x00\x00", 8);
        frame += std::string("\x42\x10\x00\x01x\x01\x09", 7) + std::string(9, '\x01');
        ASSERT_EQ(c.WriteRaw(frame), 0);
        EXPECT_TRUE(c.ClosedByPeer());
    }
    WireClient c(h.port());
    PObject reply;
    ASSERT_EQ(c.Call(SCMD_REQUEST_CONNECT, h.Request("connect"), reply), 0);
    EXPECT_EQ(WireClient::Code(reply), 0u);
}

TEST(ServerProtocol, AConnectionIdleLongerThanItsGrantIsClosed) {
    ServerHarness h([](ServerOptions& o) { o.alive = 1; });
    WireClient c(h.port());
    PObject reply;
    ASSERT_EQ(c.Call(SCMD_REQUEST_CONNECT, h.Request("connect"), reply), 0);
    EXPECT_EQ(reply["alive"].asUInt32(), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_TRUE(c.ClosedByPeer());
}

TEST(ServerProtocol, ASlowRequestSendsKeepAlivesBeforeItsReply) {
    ServerHarness h([](ServerOptions& o) { o.keepalive_seconds = 1; });
    h.WriteFaults("delay pull_event 2500 times=1\n");
    WireClient c(h.port());
    PObject reply;
    ASSERT_EQ(c.Call(SCMD_EVT_PULL, h.Request("pull_event"), reply), 0);
    EXPECT_EQ(WireClient::Code(reply), 0u);
    EXPECT_GE(c.keep_alives, 2);
    EXPECT_TRUE(reply.hasMember("next_sync_id"));
}

TEST(ServerProtocol, FaultFileAnswersChosenErrorsAndIsReReadWhenItChanges) {
    ServerHarness h;
    h.WriteFaults("error remove /a.txt 0x4002\nbad line here\n");
    WireClient c(h.port());
    PObject req = h.Request("remove");
    req["path"] = "/a.txt";
    PObject reply;
    ASSERT_EQ(c.Call(SCMD_EVT_REMOVE, req, reply), 0);
    EXPECT_EQ(WireClient::Code(reply), static_cast<uint32_t>(SPROTO_ERR_DISKFULL));
    req["path"] = "/b.txt";
    ASSERT_EQ(c.Call(SCMD_EVT_REMOVE, req, reply), 0);
    EXPECT_EQ(WireClient::Code(reply), static_cast<uint32_t>(SPROTO_ERR_REMOVE_NOFILE));
    h.WriteFaults("# nothing any more, but longer than before\n");
    req["path"] = "/a.txt";
    ASSERT_EQ(c.Call(SCMD_EVT_REMOVE, req, reply), 0);
    EXPECT_EQ(WireClient::Code(reply), static_cast<uint32_t>(SPROTO_ERR_REMOVE_NOFILE));
}

TEST(ServerProtocol, FaultRulesParseStrictly) {
    int bad = 0;
    auto rules = Faults::Parse(
        "close-after upload 100 times=2\nerror * /x 0x3002\ndelay * 5\n"
        "close-after upload 0\nerror upload /../x 5\ndelay\nfly away\nerror upload /x 5 times=z\n",
        bad);
    ASSERT_EQ(rules.size(), 3u);
    EXPECT_EQ(bad, 5);
    EXPECT_EQ(rules[0].remaining, 2);
    EXPECT_EQ(rules[1].value, 0x3002u);
    EXPECT_EQ(rules[1].path, "/x");
}

}  // namespace
