// TLS on a channel against a real peer outside our code (`openssl s_server`, started on a
// free port with a throwaway certificate): the conversion and the bytes after it, decrypted
// bytes read without a wait, the silence limit of the handshake against a silent peer and
// a slow one, and the server's identity checked by pin and by CA, before the login sends
// anything over the new channel.
#include "transport/ssl-channel.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <memory>
#include <thread>

#include "foundation/error-code.h"
#include "support/loopback.h"
#include "support/process.h"
#include "support/scripted-peer.h"
#include "transport/exchange.h"

namespace {

using namespace std::chrono_literals;

const std::string kOpenSsl = "/usr/bin/openssl";

// A self-signed certificate for 127.0.0.1 and its key, as dir/NAME.crt and dir/NAME.key.
void MakeCertificate(const TempDir& dir, const std::string& name) {
    RunResult made = RunProgram(
        {kOpenSsl, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
         "-keyout", dir / (name + ".key"), "-out", dir / (name + ".crt"), "-subj", "/CN=" + name,
         "-days", "1", "-addext", "subjectAltName=IP:127.0.0.1"});
    ASSERT_EQ(made.status, 0) << made.out;
}

// The fingerprint openssl itself gives for a certificate file, "AB:CD:...".
std::string FingerprintOf(const std::string& cert) {
    RunResult r = RunProgram({kOpenSsl, "x509", "-in", cert, "-noout", "-fingerprint", "-sha256"});
    const size_t eq = r.out.find('=');
    return eq == std::string::npos ? std::string() : r.out.substr(eq + 1, 95);
}

// `openssl s_server` answering each line with the line reversed.
class OpenSslPeer {
  public:
    OpenSslPeer() {
        MakeCertificate(dir, "peer");
        server = std::make_unique<ChildProcess>(
            std::vector<std::string>{kOpenSsl, "s_server", "-accept", "127.0.0.1:0", "-cert",
                                     dir / "peer.crt", "-key", dir / "peer.key", "-rev"});
        EXPECT_TRUE(server->WaitForOutput("ACCEPT ")) << server->Out();
        const std::string out = server->Out();
        port = std::atoi(out.c_str() + out.find(':', out.find("ACCEPT ")) + 1);
    }
    std::string cert() const { return dir / "peer.crt"; }

    TempDir dir;
    std::unique_ptr<ChildProcess> server;
    int port = 0;
};

TEST(SslChannelConcurrency, ConvertsOnceInPlaceAndCarriesBytesBothWays) {
    OpenSslPeer peer;
    Channel ch;
    ASSERT_EQ(ch.Open("127.0.0.1", peer.port), 0);
    const platform::socket_t socket = ch.GetSocket();
    ASSERT_EQ(ConvertToSSLChannel(ch, false), 0);
    EXPECT_TRUE(ch.IsSSL());
    EXPECT_EQ(ch.GetSocket(), socket);
    EXPECT_EQ(ConvertToSSLChannel(ch, false), 0);  // already encrypted: nothing happens
    const std::string line(3000, 'a');
    ASSERT_EQ(ch.Write((line + "bc\n").data(), line.size() + 3), 0);
    ASSERT_GT(ch.FlushWrite(0), 0);
    std::string back(line.size() + 3, '\0');
    ASSERT_EQ(ch.Read(back.data(), back.size()), 0);
    EXPECT_EQ(back, "cb" + line + "\n");
    ch.Close();
    EXPECT_FALSE(ch.IsSSL());
}

TEST(SslChannelConcurrency, DecryptedBytesWaitingInTheLibraryAreReadWithoutAWait) {
    OpenSslPeer peer;
    Channel ch;
    ASSERT_EQ(ch.Open("127.0.0.1", peer.port), 0);
    SSL* ssl = nullptr;
    SSL_CTX* ctx = nullptr;
    ASSERT_EQ(InitSSL(ssl, ctx, false), 0);
    ASSERT_EQ(SSL_set_fd(ssl, ch.GetSocket()), 1);
    ASSERT_EQ(SSLHandshake(ssl, 1000, 10), 0);
    ASSERT_EQ(SSLWriteFd(ssl, "0123456789\n", 11, 1000), 11);
    char buf[64];
    int n = ERR_TIMEOUT;
    for (int i = 0; i < 50 && n == ERR_TIMEOUT; ++i) n = SSLReadFd(ssl, buf, 4, 100);
    ASSERT_EQ(n, 4);
    EXPECT_EQ(std::string(buf, 4), "9876");
    ASSERT_EQ(SSL_pending(ssl), 7);
    // The rest of the record is in the library; the socket has nothing to show.
    EXPECT_EQ(platform::wait_ready(ch.GetSocket(), false, 300), platform::WAIT_TIMEOUT);
    EXPECT_EQ(SSLReadFd(ssl, buf, sizeof buf, 2000), 7);
    EXPECT_EQ(std::string(buf, 7), "543210\n");
    DeinitSSL(ssl, ctx, true);
}

TEST(SslChannelConcurrency, ASilentPeerHitsTheLimitAndAFailedConversionStaysPlain) {
    loopback::Listener silent;  // the kernel completes the connection; nobody answers
    Channel ch;
    ASSERT_EQ(ch.Open("127.0.0.1", silent.port()), 0);
    SSL* ssl = nullptr;
    SSL_CTX* ctx = nullptr;
    ASSERT_EQ(InitSSL(ssl, ctx, false), 0);
    ASSERT_EQ(SSL_set_fd(ssl, ch.GetSocket()), 1);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(SSLHandshake(ssl, 500, 2), ERR_TIMEOUT);
    EXPECT_GE(loopback::seconds_since(t0), 1.9);
    DeinitSSL(ssl, ctx, true);
    ch.Close();

    loopback::Listener rude;
    ch.SetTimeout(5);
    ASSERT_EQ(ch.Open("127.0.0.1", rude.port()), 0);
    ::close(rude.accept());  // hangs up at once
    EXPECT_EQ(ConvertToSSLChannel(ch, false), ERR_IO);
    EXPECT_FALSE(ch.IsSSL());
}

// Relays one connection to `target`, handing on what the server sends `piece` bytes at a
// time, each after `delay`: a peer that is slow but never silent for long.
class SlowRelay {
  public:
    SlowRelay(int target, size_t piece, std::chrono::milliseconds delay)
        : m_thread([=, this] { Run(target, piece, delay); }) {}
    ~SlowRelay() {
        m_stop = true;
        m_thread.join();
    }
    int port() const { return m_listener.port(); }

  private:
    void Run(int target, size_t piece, std::chrono::milliseconds delay) {
        const int client = m_listener.accept();
        const int server = loopback::connect_to(target);
        char buf[4096];
        while (!m_stop && client >= 0 && server >= 0) {
            pollfd p[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
            if (::poll(p, 2, 50) <= 0) continue;
            const int from = p[0].revents ? client : server;
            const ssize_t n = ::recv(from, buf, from == client ? sizeof buf : piece, 0);
            if (n <= 0) break;
            if (from == server) std::this_thread::sleep_for(delay);
            loopback::write_all(from == client ? server : client, std::string(buf, n));
        }
        if (client >= 0) ::close(client);
        if (server >= 0) ::close(server);
    }
    loopback::Listener m_listener;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

TEST(SslChannelConcurrency, ASlowPeerThatKeepsAnsweringNeverTimesOut) {
    OpenSslPeer peer;
    SlowRelay relay(peer.port, 500, 1300ms);
    Channel ch;
    ch.SetTimeout(2);  // less than the whole handshake takes, more than each silence
    ASSERT_EQ(ch.Open("127.0.0.1", relay.port()), 0);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(ConvertToSSLChannel(ch, false), 0);
    EXPECT_GT(loopback::seconds_since(t0), 2.5);
}

TEST(SslChannelConcurrency, TheServerMustCarryThePinOrLeadToTheCa) {
    OpenSslPeer peer;
    TempDir other;
    MakeCertificate(other, "stranger");
    const std::string pin = FingerprintOf(peer.cert());
    ASSERT_EQ(pin.size(), 95u);
    std::string bare;  // the same pin without colons, in lower case
    for (char c : pin)
        if (c != ':') bare += static_cast<char>(std::tolower(c));
    const struct {
        const char* name;
        TlsIdentity identity;
        int expected;
    } cases[] = {
        {"pinned", {"", pin.c_str(), ""}, 0},
        {"pinned, written otherwise", {"", bare.c_str(), ""}, 0},
        {"another pin", {"", FingerprintOf(other / "stranger.crt").c_str(), ""}, ERR_AUTH},
        {"not a pin", {"", "AB:CD", ""}, ERR_AUTH},
        {"its CA, its address", {peer.cert().c_str(), "", "127.0.0.1"}, 0},
        {"its CA, another address", {peer.cert().c_str(), "", "10.1.2.3"}, ERR_AUTH},
        {"another CA", {(other / "stranger.crt").c_str(), "", "127.0.0.1"}, ERR_AUTH},
        {"no CA file", {(other / "missing.pem").c_str(), "", "127.0.0.1"}, ERR_AUTH},
    };
    for (const auto& c : cases) {
        Channel ch;
        ASSERT_EQ(ch.Open("127.0.0.1", peer.port), 0) << c.name;
        EXPECT_EQ(ConvertToSSLChannel(ch, false, c.identity), c.expected) << c.name;
        EXPECT_EQ(ch.IsSSL(), c.expected == 0) << c.name;
    }
}

// The login's side of the exchanges, counting nothing: the test looks at the peer.
class QuietCaller : public ServerCaller {
  public:
    explicit QuietCaller(TlsStyle style) : m_style(style) {}
    void Note(const ExchangeEvent&) override {}
    int ExchangeFailed(ExchangeStep, const char*, int) override { return ERR_IO; }
    int* CallerAbortFlag() override { return nullptr; }
    ProtoRespCaller RespCaller() const override { return PROTO_RESP_SYNCER; }
    TlsStyle Tls() const override { return m_style; }

  private:
    TlsStyle m_style;
};

TEST(SslChannelConcurrency, LoginSendsNothingOverTlsToAServerThatFailsTheCheck) {
    TempDir dir;
    MakeCertificate(dir, "server");
    SetCERTPath((dir / "server.crt").c_str());
    SetPriKeyPath((dir / "server.key").c_str());
    PObject granted;
    granted["alive"] = uint64_t{600};
    for (auto style : {ServerCaller::TLS_BEFORE_CONNECT, ServerCaller::TLS_IN_CONNECT}) {
        for (bool right_pin : {true, false}) {
            SCOPED_TRACE(std::to_string(style) + (right_pin ? " right pin" : " wrong pin"));
            // Agrees to TLS, then keeps the action of what comes over it.
            std::string after_tls = "(nothing)";
            ScriptedPeer peer([&](PeerSession& s) {
                uint8_t cmd = 0;
                PObject first, request;
                if (s.ReadRequest(cmd, first) != 0 || s.WriteObject(granted) != 0 ||
                    ConvertToSSLChannel(s.channel(), true) != 0)
                    return;
                if (s.ReadRequest(cmd, request) != 0) return;
                after_tls = request["action"].asString().str();
                s.WriteObject(granted);
                s.ReadRequest(cmd, request);  // until the client hangs up
            });
            ConnectionInfo info;
            info.server_ip = "127.0.0.1";
            info.server_port = peer.port();
            info.session = "secret";
            info.ssl_pin = right_pin ? FingerprintOf(dir / "server.crt") : std::string(64, '0');
            ConnectionPool pool(info, ProxyInfo(), TunnelInfo(), 1);
            QuietCaller caller(style);
            BorrowedConnection conn(pool);
            EXPECT_EQ(ServerLogin(caller, pool, *conn.get(), 1), right_pin ? 0 : ERR_AUTH);
            if (right_pin && style == ServerCaller::TLS_IN_CONNECT) {
                PObject pull, reply;
                pull["_action"] = "pull_event";
                PStream stream;
                EXPECT_EQ(
                    ServerExchange(caller, *conn->GetChannel(), stream, SCMD_EVT_PULL, pull, reply),
                    0);
            }
            conn->Drop();
            ASSERT_TRUE(peer.WaitForSessions(1));
            const char* expected =
                style == ServerCaller::TLS_BEFORE_CONNECT ? "connect" : "pull_event";
            EXPECT_EQ(after_tls, right_pin ? expected : "(nothing)");
        }
    }
}

}  // namespace
