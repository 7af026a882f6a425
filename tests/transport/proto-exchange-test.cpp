// Whole exchanges with a scripted server on a loopback port: the encryption service
// requests in both forms, their refusals, and replies cut short or never sent.
#include <gtest/gtest.h>

#include "foundation/error-code.h"
#include "support/scripted-peer.h"
#include "transport/proto-common.h"
#include "transport/proto-test-util.h"

namespace {

using namespace prototest;

// A connection to a scripted server.
struct Dialled {
    ScriptedPeer peer;
    Channel ch;
    explicit Dialled(ScriptedPeer::Script script) : peer(std::move(script)) {
        EXPECT_EQ(ProtoConnect(ch, "127.0.0.1", peer.port()), 0);
    }
    // Hangs up and waits for the script to end, so that what it recorded can be read.
    void Finish() {
        ProtoDisconnect(ch);
        EXPECT_TRUE(peer.WaitForSessions(1));
    }
};

// Answers one request with `reply`, after keeping what the server saw of it.
ScriptedPeer::Script answer_with(uint8_t& cmd, PObject& request, PObject reply) {
    return [&cmd, &request, reply](PeerSession& s) {
        if (s.ReadRequest(cmd, request) == 0) s.WriteObject(reply);
    };
}

TEST(ProtoServiceRequestConcurrency, SectionFormAgreedOrRefused) {
    const std::string agreed = header(SCMD_REQUEST_SSL_2) + bytes({SPROTO_ID_RES, SPROTO_RES_OK});
    const std::string option = bytes({SPROTO_ID_SSL_RESPONSE_OPTION}) + be(0x0A0B0C0D, 4);
    const std::pair<std::string, int> cases[] = {
        {agreed + option, 0},
        // An upgrade demand carries no option section.
        {header(SCMD_REQUEST_SSL_2) + bytes({SPROTO_ID_RES, SPROTO_RES_UPGRADE}), ERR_VERSION},
        {header(SCMD_RESPONSE) + bytes({SPROTO_ID_RES, SPROTO_RES_OK}) + option, ERR_PROTO},
        {header(SCMD_REQUEST_SSL_2) + bytes({SPROTO_ID_TYPE, SPROTO_RES_OK}) + option, ERR_PROTO},
    };
    for (const auto& [reply, expected] : cases) {
        SCOPED_TRACE(expected);
        std::string seen;
        Dialled d([&seen, reply = reply](PeerSession& s) {
            // header 8, version section 3 + "1.2.3", option section 5
            if (s.ReadBytes(8 + 8 + 5, seen) == 0) s.WriteBytes(reply);
        });
        SSLServiceResponse resp;
        EXPECT_EQ(ProtoWriteSSLServiceRequest2OLD(d.ch, SSLServiceReq{{1, 2, 3}, 5}, resp),
                  expected);
        if (expected == 0) {
            EXPECT_EQ(resp.misc_response, 0x0A0B0C0Du);
        }
        d.Finish();
        EXPECT_EQ(seen, header(SCMD_REQUEST_SSL_2) +
                            var_section(SPROTO_IDPROTO_VERSION_2, "1.2.3") +
                            bytes({SPROTO_ID_SSL_OPTION}) + be(5, 4));
    }
}

TEST(ProtoServiceRequestConcurrency, ObjectFormAgreedRefusedOrUnanswered) {
    PObject agreed;
    agreed.asMap();  // an empty map: no "error"
    PObject refusal;
    refusal["error"]["code"] = uint64_t{SPROTO_ERR_ERR};
    uint8_t cmd = 0, ignored_cmd;
    PObject seen, ignored;
    const std::pair<ScriptedPeer::Script, int> cases[] = {
        {answer_with(cmd, seen, agreed), 0},
        {answer_with(ignored_cmd, ignored, refusal), ERR_SERVER},
        // A reply cut short: a map that announces a key and ends.
        {[](PeerSession& s) {
             uint8_t any_cmd;
             PObject request;
             if (s.ReadRequest(any_cmd, request) == 0)
                 s.WriteBytes(bytes({0x42, 0x10, 0, 5}) + "alive" + bytes({0x01, 0x02}));
             s.Close();
         },
         ERR_IO},
    };
    for (const auto& [script, expected] : cases) {
        Dialled d(script);
        EXPECT_EQ(ProtoWriteSSLServiceRequest2(d.ch, SSLServiceReq{{6, 0, 7}, 3}), expected);
        d.Finish();
    }
    EXPECT_EQ(cmd, SCMD_REQUEST_SSL_2);
    // The server never sees the underscore that put "action" and "agent" first.
    EXPECT_EQ(seen["action"].asString(), ustring("encrypt_channel"));
    EXPECT_EQ(seen["proto_ver"]["major"].asUInt64(), 6u);
    EXPECT_EQ(seen["proto_ver"]["build"].asUInt64(), 7u);
    EXPECT_EQ(seen["ssl_option"].asUInt64(), 3u);
    EXPECT_EQ(seen["agent"]["platform"].asString(), ustring(PROTO_AGENT_PLATFORM));
    EXPECT_EQ(seen["agent"]["version"]["major"].asUInt64(), PROTO_AGENT_MAJOR);
    EXPECT_EQ(seen["agent"]["version"]["build"].asUInt64(), PROTO_AGENT_BUILD);
}

}  // namespace
