// Whole exchanges with a scripted server on a loopback port: the PObject request form,
// replies cut short or never sent, and the encryption service requests.
#include <gtest/gtest.h>

#include <chrono>

#include "foundation/error-code.h"
#include "support/loopback.h"
#include "support/scripted-peer.h"
#include "transport/proto-common.h"
#include "transport/proto-test-util.h"

namespace {

using prototest::be;
using prototest::bytes;
using prototest::var_section;

// What the server saw of one request.
struct Seen {
    int rc = -100;
    uint8_t cmd = 0;
    PObject request;
};

ScriptedPeer::Script answer_with(Seen& seen, PObject reply) {
    return [&seen, reply](PeerSession& s) {
        seen.rc = s.ReadRequest(seen.cmd, seen.request);
        if (seen.rc == 0) s.WriteObject(reply);
    };
}

PObject pull_request() {
    PObject request;
    request["_action"] = "pull_event";
    request["sync_id"] = uint64_t{41};
    request["session"] = "s-1";
    AppendAgent(request);
    return request;
}

TEST(ProtoExchangeConcurrency, RequestAndReplyRoundTrip) {
    Seen seen;
    PObject reply;
    reply["alive"] = uint64_t{30};
    reply["next_sync_id"] = uint64_t{42};
    reply["event_list"].asArray().push_back(PObject("/a"));
    ScriptedPeer peer(answer_with(seen, reply));
    ASSERT_NE(peer.port(), 0);

    Channel ch;
    ASSERT_EQ(ProtoConnect(ch, "127.0.0.1", peer.port()), 0);
    PStream stream;
    ASSERT_EQ(ProtoWriteObjectRequest(ch, stream, SCMD_EVT_PULL, pull_request()), 0);
    PObject got;
    ASSERT_EQ(ProtoReadObjectReply(ch, stream, got), 0);
    EXPECT_EQ(got["next_sync_id"].asUInt64(), 42u);
    ASSERT_EQ(got["event_list"].asArray().size(), 1u);
    EXPECT_EQ(got["event_list"].asArray()[0].asString(), ustring("/a"));
    ProtoDisconnect(ch);
    ASSERT_TRUE(peer.WaitForSessions(1));

    EXPECT_EQ(seen.rc, 0);
    EXPECT_EQ(seen.cmd, SCMD_EVT_PULL);
    // The server never sees the underscore that put "action" and "agent" first.
    EXPECT_EQ(seen.request["action"].asString(), ustring("pull_event"));
    EXPECT_FALSE(seen.request.hasMember("_action"));
    EXPECT_EQ(seen.request["sync_id"].asUInt64(), 41u);
    EXPECT_EQ(seen.request["agent"]["platform"].asString(), ustring(PROTO_AGENT_PLATFORM));
    EXPECT_EQ(seen.request["agent"]["version"]["build"].asUInt64(), PROTO_AGENT_BUILD);
}

TEST(ProtoExchangeConcurrency, RequestBeginsWithTheHeaderThenTheMap) {
    std::string wire;
    ScriptedPeer peer([&](PeerSession& s) { s.ReadToEnd(wire); });
    Channel ch;
    ASSERT_EQ(ProtoConnect(ch, "127.0.0.1", peer.port()), 0);
    PStream stream;
    PObject request;
    request["_action"] = "x";
    ASSERT_EQ(ProtoWriteObjectRequest(ch, stream, SCMD_EVT_REMOVE, request), 0);
    ProtoDisconnect(ch);
    ASSERT_TRUE(peer.WaitForSessions(1));
    EXPECT_EQ(wire, bytes({0x25, 0x52, 0x18, 0x14, 60, SCMD_EVT_REMOVE, 0, 0}) +
                        bytes({0x42, 0x10, 0, 6}) + "action" + bytes({0x10, 0, 1}) + "x" +
                        bytes({0x40}));
}

TEST(ProtoExchangeConcurrency, ServerClosingMidReplyIsAnIoError) {
    ScriptedPeer peer([](PeerSession& s) {
        uint8_t cmd;
        PObject request;
        if (s.ReadRequest(cmd, request) != 0) return;
        s.WriteBytes(bytes({0x42, 0x10, 0, 5}) + "alive" + bytes({0x01, 0x02, 0x01}));
        s.Close();
    });
    Channel ch;
    ASSERT_EQ(ProtoConnect(ch, "127.0.0.1", peer.port()), 0);
    PStream stream;
    ASSERT_EQ(ProtoWriteObjectRequest(ch, stream, SCMD_EVT_PULL, pull_request()), 0);
    PObject got;
    EXPECT_EQ(ProtoReadObjectReply(ch, stream, got), ERR_IO);
}

TEST(ProtoExchangeConcurrency, SilentServerTimesOut) {
    ScriptedPeer peer([](PeerSession& s) {
        uint8_t cmd;
        PObject request;
        if (s.ReadRequest(cmd, request) == 0) s.StaySilent();
    });
    Channel ch;
    ASSERT_EQ(ProtoConnect(ch, "127.0.0.1", peer.port()), 0);
    ch.SetTimeout(1);
    PStream stream;
    ASSERT_EQ(ProtoWriteObjectRequest(ch, stream, SCMD_EVT_PULL, pull_request()), 0);
    PObject got;
    auto t0 = std::chrono::steady_clock::now();
    // The stream reports any channel failure as an I/O error; the wait shows it was the
    // time-out that ended it.
    EXPECT_EQ(ProtoReadObjectReply(ch, stream, got), ERR_IO);
    double waited = loopback::seconds_since(t0);
    EXPECT_GE(waited, 0.9);
    EXPECT_LT(waited, 5.0);

    // The section grammar passes the channel's own code on.
    uint16_t len;
    uint8_t cmd, version;
    EXPECT_EQ(ProtoReadHeader(ch, len, cmd, version), ERR_TIMEOUT);
}

TEST(ProtoExchangeConcurrency, NobodyListeningFailsToConnect) {
    int port;
    {
        ScriptedPeer gone([](PeerSession&) {});
        port = gone.port();
    }
    Channel ch;
    EXPECT_EQ(ProtoConnect(ch, "127.0.0.1", port), -1);
}

// ---- encryption service requests ----

ScriptedPeer::Script section_ssl_server(std::string reply, std::string& seen) {
    return [reply, &seen](PeerSession& s) {
        // header 8, version section 3 + "1.2.3", option section 5
        if (s.ReadBytes(8 + 8 + 5, seen) == 0) s.WriteBytes(reply);
    };
}

std::string reply_header(int cmd) {
    return bytes({0x25, 0x52, 0x18, 0x14, 60, cmd, 0, 0});
}

TEST(ProtoServiceRequestConcurrency, SectionFormAgreed) {
    std::string seen;
    ScriptedPeer peer(section_ssl_server(
        reply_header(SCMD_REQUEST_SSL_2) +
            bytes({SPROTO_ID_RES, SPROTO_RES_OK, SPROTO_ID_SSL_RESPONSE_OPTION}) +
            be(0x0A0B0C0D, 4),
        seen));
    Channel ch;
    ASSERT_EQ(ProtoConnect(ch, "127.0.0.1", peer.port()), 0);
    SSLServiceResponse resp;
    EXPECT_EQ(ProtoWriteSSLServiceRequest2OLD(ch, SSLServiceReq{{1, 2, 3}, 5}, resp), 0);
    EXPECT_EQ(resp.response_code, SPROTO_RES_OK);
    EXPECT_EQ(resp.misc_response, 0x0A0B0C0Du);
    ProtoDisconnect(ch);
    ASSERT_TRUE(peer.WaitForSessions(1));
    EXPECT_EQ(seen, reply_header(SCMD_REQUEST_SSL_2) +
                        var_section(SPROTO_IDPROTO_VERSION_2, "1.2.3") +
                        bytes({SPROTO_ID_SSL_OPTION}) + be(5, 4));
}

TEST(ProtoServiceRequestConcurrency, SectionFormRefusals) {
    struct Case {
        std::string reply;
        int expected;
    };
    const Case cases[] = {
        // An upgrade demand carries no option section.
        {reply_header(SCMD_REQUEST_SSL_2) + bytes({SPROTO_ID_RES, SPROTO_RES_UPGRADE}),
         ERR_VERSION},
        {reply_header(SCMD_REQUEST_SSL_2) +
             bytes({SPROTO_ID_RES, SPROTO_RES_ERR, SPROTO_ID_SSL_RESPONSE_OPTION}) + be(0, 4),
         ERR_SERVER},
        {reply_header(SCMD_REQUEST_SSL_2) +
             bytes({SPROTO_ID_RES, SPROTO_RES_NOENT, SPROTO_ID_SSL_RESPONSE_OPTION}) + be(0, 4),
         ERR_SYS},
        {reply_header(SCMD_RESPONSE) + bytes({SPROTO_ID_RES, SPROTO_RES_OK}), ERR_PROTO},
        {reply_header(SCMD_REQUEST_SSL_2) + bytes({SPROTO_ID_TYPE, SPROTO_RES_OK}), ERR_PROTO},
    };
    for (const Case& c : cases) {
        std::string seen;
        ScriptedPeer peer(section_ssl_server(c.reply, seen));
        Channel ch;
        ASSERT_EQ(ProtoConnect(ch, "127.0.0.1", peer.port()), 0);
        SSLServiceResponse resp;
        EXPECT_EQ(ProtoWriteSSLServiceRequest2OLD(ch, SSLServiceReq{{1, 2, 3}, 0}, resp),
                  c.expected);
    }
}

TEST(ProtoServiceRequestConcurrency, ObjectFormAgreedOrRefused) {
    Seen seen;
    {
        PObject agreed;
        agreed.asMap();  // an empty map: no "error"
        ScriptedPeer peer(answer_with(seen, agreed));
        Channel ch;
        ASSERT_EQ(ProtoConnect(ch, "127.0.0.1", peer.port()), 0);
        EXPECT_EQ(ProtoWriteSSLServiceRequest2(ch, SSLServiceReq{{6, 0, 7}, 3}), 0);
        ProtoDisconnect(ch);
        ASSERT_TRUE(peer.WaitForSessions(1));
    }
    EXPECT_EQ(seen.cmd, SCMD_REQUEST_SSL_2);
    EXPECT_EQ(seen.request["action"].asString(), ustring("encrypt_channel"));
    EXPECT_EQ(seen.request["proto_ver"]["major"].asUInt64(), 6u);
    EXPECT_EQ(seen.request["proto_ver"]["build"].asUInt64(), 7u);
    EXPECT_EQ(seen.request["ssl_option"].asUInt64(), 3u);
    EXPECT_EQ(seen.request["agent"]["version"]["major"].asUInt64(), PROTO_AGENT_MAJOR);

    PObject refusal;
    refusal["error"]["code"] = uint64_t{SPROTO_ERR_ERR};
    Seen ignored;
    ScriptedPeer peer(answer_with(ignored, refusal));
    Channel ch;
    ASSERT_EQ(ProtoConnect(ch, "127.0.0.1", peer.port()), 0);
    EXPECT_EQ(ProtoWriteSSLServiceRequest2(ch, SSLServiceReq{}), ERR_SERVER);
}

TEST(ProtoServiceRequestConcurrency, ObjectFormWithoutAReplyIsAnIoError) {
    ScriptedPeer peer([](PeerSession& s) {
        uint8_t cmd;
        PObject request;
        s.ReadRequest(cmd, request);
        s.Close();
    });
    Channel ch;
    ASSERT_EQ(ProtoConnect(ch, "127.0.0.1", peer.port()), 0);
    EXPECT_EQ(ProtoWriteSSLServiceRequest2(ch, SSLServiceReq{}), ERR_IO);
}

TEST(ProtoServiceRequestConcurrency, OldestFormIsOnlyAHeader) {
    std::string wire;
    ScriptedPeer peer([&](PeerSession& s) { s.ReadToEnd(wire); });
    Channel ch;
    ASSERT_EQ(ProtoConnect(ch, "127.0.0.1", peer.port()), 0);
    ASSERT_EQ(ProtoWriteSSLServiceRequest(ch), 0);
    ProtoDisconnect(ch);
    ASSERT_TRUE(peer.WaitForSessions(1));
    EXPECT_EQ(wire, reply_header(SCMD_REQUEST_SSL));
}

}  // namespace
