// Conformance of the wire: requests answer with the keys a client reads, every error code
// comes where it should, every reply grants "alive", and bad frames cost only their own
// connection.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "server-certificate.h"
#include "server-harness.h"
#include "transport/ssl-channel.h"

namespace {

TEST(ServerProtocol, ConnectDescribesTheServerUnlessInLegacyMode) {
    ServerHarness h;
    PObject reply = WireClient(h.port()).Ask(SCMD_REQUEST_CONNECT, h.Request("connect"));
    EXPECT_EQ(WireClient::Code(reply), 0u);
    EXPECT_EQ(reply["alive"].asUInt32(), 600u);
    EXPECT_EQ(reply["server"]["package_version"]["build"].asUInt64(), kServerBuild);
    ServerHarness legacy([](ServerOptions& o) { o.legacy_2402 = true; });
    reply = WireClient(legacy.port()).Ask(SCMD_REQUEST_CONNECT, legacy.Request("connect"));
    EXPECT_EQ(WireClient::Code(reply), 0u);
    EXPECT_FALSE(reply.hasMember("server"));
}

PObject With(PObject req, const char* key, const PObject& value) {
    req[key] = value;
    return req;
}

TEST(ServerProtocol, TlsIsAgreedBeforeOrWithTheLoginOnceAndRefusedWhenOff) {
    ServerHarness h;
    std::string pin;
    ASSERT_EQ(server_certificate::Ensure(h.options.data_dir, "127.0.0.1", pin), 0);
    TlsIdentity pinned;
    pinned.pin = pin.c_str();
    WireClient before(h.port());
    EXPECT_EQ(before.CodeOf(SCMD_REQUEST_SSL_2, h.Request("encrypt_channel")), 0u);
    ASSERT_EQ(ConvertToSSLChannel(before.ch, false, pinned), 0);
    EXPECT_EQ(before.CodeOf(SCMD_REQUEST_CONNECT, h.Request("connect")), 0u);
    EXPECT_EQ(before.CodeOf(SCMD_REQUEST_SSL_2, h.Request("encrypt_channel")), SPROTO_ERR_VERSION);
    WireClient with(h.port());
    EXPECT_EQ(with.CodeOf(SCMD_REQUEST_CONNECT, With(h.Request("connect"), "do_ssl", true)), 0u);
    ASSERT_EQ(ConvertToSSLChannel(with.ch, false, pinned), 0);
    EXPECT_EQ(with.CodeOf(SCMD_EVT_PULL, h.Request("pull_event")), 0u);

    ServerHarness plain([](ServerOptions& o) { o.tls = false; });
    WireClient refused(plain.port());
    EXPECT_EQ(refused.CodeOf(SCMD_REQUEST_SSL_2, plain.Request("encrypt_channel")),
              SPROTO_ERR_VERSION);
    EXPECT_EQ(refused.CodeOf(SCMD_REQUEST_CONNECT, With(plain.Request("connect"), "do_ssl", true)),
              SPROTO_ERR_VERSION);
    EXPECT_EQ(refused.CodeOf(SCMD_REQUEST_CONNECT, plain.Request("connect")), 0u);
}

TEST(ServerProtocol, EachErrorCodeComesWhereItShould) {
    ServerHarness h;
    admin::InitResult bob;
    ASSERT_EQ(admin::Init(h.store, "bob", "bobs", bob), 0);
    ServerObject obj;
    std::string local = h.LocalFile("local", "content");
    ASSERT_EQ(admin::Put(h.store, h.user.view_id, local, "/f", 1, obj), 0);
    WireClient c(h.port());
    // A good connect does not open the door for the requests after it.
    ASSERT_EQ(c.CodeOf(SCMD_REQUEST_CONNECT, h.Request("connect")), 0u);
    std::string token =
        c.Ask(SCMD_RESUME_TRANSFER, h.Request("resume_get_token"))["resume_token"].asString().str();
    PObject pull = h.Request("pull_event");
    PObject download = With(h.Request("resume_download"), "path", "/f");
    PObject resumed = With(download, "_resume_token", token.c_str());
    resumed["file"]["offset"] = uint64_t{5};
    PObject lie = UploadRequest(h.user, "/g", 0, local);
    lie["file"]["hash"] = Md4(h.LocalFile("other", "other")).c_str();
    const struct {
        const char* name;
        uint8_t cmd;
        PObject request;
        uint32_t code;
    } cases[] = {
        {"unknown session", SCMD_EVT_PULL, With(pull, "session", "not-a-session"),
         SPROTO_ERR_SESSION_MISS},
        {"unknown view", SCMD_EVT_PULL, With(pull, "view_id", uint64_t{999}),
         SPROTO_ERR_INVALID_VIEW_ID},
        {"another account's view", SCMD_EVT_PULL, With(pull, "view_id", bob.view_id),
         SPROTO_ERR_ACCESS_DENY},
        {"path climbing out", SCMD_EVT_PULL, With(pull, "path", "/a/../b"),
         SPROTO_ERR_VIEW_INVALID_PATH},
        {"action under the wrong command", SCMD_EVT_RECV_4, pull, SPROTO_ERR_VERSION},
        {"unknown action", SCMD_RESUME_TRANSFER, h.Request("format_disk"), SPROTO_ERR_VERSION},
        {"not a map", SCMD_EVT_PULL, PObject(uint64_t{7}), SPROTO_ERR_VERSION},
        {"download of nothing", SCMD_RESUME_TRANSFER, With(download, "path", "/gone"),
         SPROTO_ERR_DOWNLOAD_NOFILE},
        {"unknown token", SCMD_RESUME_TRANSFER, With(download, "_resume_token", "no-such"),
         SPROTO_ERR_RESUME_NOTOKEN},
        {"offset into a payload never given", SCMD_RESUME_TRANSFER, resumed, SPROTO_ERR_RESUME},
        {"delta with nothing to apply it to", SCMD_EVT_RECV_4,
         UploadRequest(h.user, "/h", 7, local, local, true), SPROTO_ERR_UPLOAD_NOBASE},
        {"content that does not match its hash", SCMD_EVT_RECV_4, lie, SPROTO_ERR_UPLOAD},
        {"file under a file", SCMD_EVT_RECV_4, UploadRequest(h.user, "/f/x", 0, local),
         SPROTO_ERR_CONFLICT},
        {"removal of nothing", SCMD_EVT_REMOVE, With(h.Request("remove"), "path", "/gone"),
         SPROTO_ERR_REMOVE_NOFILE},
        {"removal of the root", SCMD_EVT_REMOVE, With(h.Request("remove"), "path", "/"),
         SPROTO_ERR_REMOVE},
    };
    for (const auto& c_ : cases) EXPECT_EQ(c.CodeOf(c_.cmd, c_.request), c_.code) << c_.name;
    EXPECT_FALSE(h.Exists("/g"));
    EXPECT_FALSE(h.Exists("/h"));
    // The connection is still good for plain requests.
    EXPECT_EQ(c.CodeOf(SCMD_REQUEST_CONNECT, h.Request("connect")), 0u);
}

TEST(ServerProtocol, MalformedFramesCloseTheConnectionAndTheServerLivesOn) {
    ServerHarness h;
    const std::string good_header("\x25\x52\x18\x14\x3c\x06\x00\x00", 8);
    const std::string frames[] = {
        std::string("\x12\x34\x56\x78\x3c\x06\x00\x00", 8),          // wrong magic
        good_header + std::string("\x42\x01\x01\x05", 4),            // a map with an integer key
        good_header + std::string("\x42\x10\x00\x01x\x01\x09", 7) +  // an integer of 9 bytes
            std::string(9, '\x01'),
    };
    for (const std::string& frame : frames) {
        WireClient c(h.port());
        ASSERT_EQ(c.ch.Write(frame.data(), frame.size()), 0);
        ASSERT_GE(c.ch.FlushWrite(0), 0);
        EXPECT_TRUE(c.ClosedByPeer());
    }
    EXPECT_EQ(WireClient(h.port()).CodeOf(SCMD_REQUEST_CONNECT, h.Request("connect")), 0u);
}

// Keep-alives hold a slow request open; once answered, a connection idle longer than its
// grant is closed.
TEST(ServerProtocol, ASlowRequestIsKeptAliveAndAnIdleConnectionClosed) {
    ServerHarness h([](ServerOptions& o) {
        o.alive = 1;
        o.keepalive_seconds = 1;
    });
    h.WriteFaults("delay pull_event 2500 times=1\n");
    WireClient c(h.port());
    PObject reply = c.Ask(SCMD_EVT_PULL, h.Request("pull_event"));
    EXPECT_EQ(WireClient::Code(reply), 0u);
    EXPECT_EQ(reply["alive"].asUInt32(), 1u);
    EXPECT_GE(c.keep_alives, 2);
    EXPECT_TRUE(reply.hasMember("next_sync_id"));
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_TRUE(c.ClosedByPeer());
}

TEST(ServerFaults, FileAnswersChosenErrorsAndIsReReadWhenItChanges) {
    ServerHarness h;
    h.WriteFaults("error remove /a.txt 0x4002\nbad line here\n");
    WireClient c(h.port());
    PObject req = With(h.Request("remove"), "path", "/a.txt");
    EXPECT_EQ(c.CodeOf(SCMD_EVT_REMOVE, req), SPROTO_ERR_DISKFULL);
    EXPECT_EQ(c.CodeOf(SCMD_EVT_REMOVE, With(req, "path", "/b.txt")), SPROTO_ERR_REMOVE_NOFILE);
    h.WriteFaults("# nothing any more, but longer than before\n");
    EXPECT_EQ(c.CodeOf(SCMD_EVT_REMOVE, req), SPROTO_ERR_REMOVE_NOFILE);
}

}  // namespace
