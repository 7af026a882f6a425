// The relay's two ends. The token: new at every call, read back to the same text, refused
// when damaged. The client's handshake against scripted relays: the status header in any
// case, an answer without it, a relay that stays silent or is abandoned. tarnbridge-relay
// against real clients: a tunnel that carries bytes both ways once TLS is dropped, and
// the refusals of a token for another target, an unreachable or slow target, and a request
// that is not an upgrade.
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "relay.h"
#include "support/files.h"
#include "tls-peers.h"
#include "transport/tunnel-client.h"
#include "transport/tunnel-crypto.h"
#include "transport/tunnel-format.h"

namespace {

using Bytes = std::vector<unsigned char>;

std::string Token(const std::string& text) {
    Bytes token(ZEPHCryptoEncryptLength(text.size() + 1));
    const size_t len =
        ZEPHCryptoEncrypt(token.data(), token.size(),
                          reinterpret_cast<const unsigned char*>(text.c_str()), text.size() + 1);
    std::string b64(tunnel_format::kBufferSize, '\0');
    b64.resize(ZEPHCryptoBase64Encode(b64.data(), b64.size(), token.data(), len));
    return b64;
}

std::string Decrypt(const std::string& b64) {
    Bytes token(b64.size());
    token.resize(ZEPHCryptoBase64Decode(token.data(), token.size(), b64.c_str(), b64.size()));
    Bytes plain(token.size());
    plain.resize(ZEPHCryptoDecrypt(plain.data(), plain.size(), token.data(), token.size()));
    return std::string(plain.begin(), plain.end());
}

// The value of `name` in a request's headers.
std::string Header(const std::string& request, const std::string& name) {
    const size_t at = request.find("\r\n" + name + ": ");
    if (at == std::string::npos) return std::string();
    const size_t from = at + name.size() + 4;
    return request.substr(from, request.find("\r\n", from) - from);
}

TEST(TunnelToken, NewAtEveryCallSameTextBackAndDamageRefused) {
    const std::string a = Token("10.1.2.3:443");
    const std::string b = Token("10.1.2.3:443");
    EXPECT_NE(a, b);
    EXPECT_EQ(Decrypt(a), std::string("10.1.2.3:443", 13));
    EXPECT_EQ(Decrypt(b), Decrypt(a));

    Bytes token(64);
    token.resize(ZEPHCryptoBase64Decode(token.data(), token.size(), a.c_str(), a.size()));
    ASSERT_EQ(token.size(), 26u + 16u);
    Bytes plain(64);
    auto decrypt = [&](Bytes t) {
        return ZEPHCryptoDecrypt(plain.data(), plain.size(), t.data(), t.size());
    };
    EXPECT_EQ(decrypt(token), 13u);
    Bytes bad = token;
    bad[0] = 0x7F;  // marker
    EXPECT_EQ(decrypt(bad), 0u);
    bad = token;
    bad[3] = 2;  // a version from the future
    EXPECT_EQ(decrypt(bad), 0u);
    bad = token;
    bad[23] = 17;  // a payload longer than the input
    EXPECT_EQ(decrypt(bad), 0u);
    EXPECT_EQ(decrypt(Bytes(token.begin(), token.begin() + 26)), 0u);
    bad = token;
    bad[12] ^= 1;  // another seed is another key: the text does not come back
    const size_t len = decrypt(bad);
    EXPECT_FALSE(len == 13u && std::memcmp(plain.data(), "10.1.2.3:443", 13) == 0);
    EXPECT_EQ(ZEPHCryptoBase64Decode(token.data(), token.size(), "ab!d", 4), 0u);
    EXPECT_EQ(ZEPHCryptoBase64Decode(token.data(), token.size(), "abc", 3), 0u);
}

// One handshake through a scripted relay: its result.
int HandshakeWith(ScriptedRelay& relay, unsigned limit = 5, int* abort_flag = nullptr) {
    TlsClient client(relay.port());
    EXPECT_NE(client.ssl, nullptr);
    return ZEPHTunnelClientHandshake(client.ssl, "127.0.0.1", 4242, 100, limit, abort_flag);
}

TEST(TunnelHandshake, StatusHeaderInAnyCaseAndAnAnswerWithoutItIsSuccess) {
    ScriptedRelay lower("HTTP/1.1 502 Bad Gateway\r\nx-target-STATUS:402\r\n\r\n");
    EXPECT_EQ(HandshakeWith(lower), 402);
    const std::string request = lower.Request();
    EXPECT_EQ(request.substr(0, request.find("\r\n")), "GET /zeph-tunnel HTTP/1.1");
    EXPECT_EQ(Header(request, "Upgrade"), "ZephanorTunnel");
    EXPECT_EQ(Header(request, "X-Target-Host"), "127.0.0.1");
    EXPECT_EQ(Header(request, "X-Target-Port"), "4242");
    EXPECT_EQ(Decrypt(Header(request, "X-AuthToken")), std::string("127.0.0.1:4242", 15));

    ScriptedRelay zero("HTTP/1.1 101 Switching Protocols\r\nX-Target-Status: 0\r\n\r\n");
    EXPECT_EQ(HandshakeWith(zero), 0);
    ScriptedRelay bare("HTTP/1.1 101 Switching Protocols\r\nUpgrade: ZephanorTunnel\r\n\r\n");
    EXPECT_EQ(HandshakeWith(bare), 0);
    EXPECT_NE(Header(zero.Request(), "X-AuthToken"), Header(bare.Request(), "X-AuthToken"));
}

TEST(TunnelHandshake, SilentRelayEndsByTheSilenceLimitAndAnAbortFails) {
    ScriptedRelay silent("");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(HandshakeWith(silent, 1), 0);  // nothing said against it: it stands
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));

    ScriptedRelay abandoned("");
    int raised = 1;
    EXPECT_EQ(HandshakeWith(abandoned, 0, &raised), -1);
}

class RelayTest : public ::testing::Test {
  protected:
    void SetUp() override {
        options.listen = "127.0.0.1";
        options.connect_timeout = 1;
    }
    void StartRelay() {
        relay = std::make_unique<Relay>(options);
        std::string error;
        ASSERT_EQ(relay->Start(error), 0) << error;
    }
    // The relay's whole answer to a raw request.
    std::string AnswerTo(const std::string& request) {
        TlsClient client(relay->port());
        EXPECT_EQ(ZEPHTunnelNonBlockingWrite(client.ssl, request.data(), request.size(), 100, 5),
                  0);
        return client.ReadToEnd();
    }
    static std::string Upgrade(const std::string& host, int port, const std::string& token) {
        return "GET /zeph-tunnel HTTP/1.1\r\nHost: relay\r\nUpgrade: ZephanorTunnel\r\n"
               "X-Target-Host: " +
               host + "\r\nX-Target-Port: " + std::to_string(port) + "\r\nX-AuthToken: " + token +
               "\r\n\r\n";
    }

    RelayOptions options;
    std::unique_ptr<Relay> relay;
};

// Bulk bytes both ways are carried end to end in the transport scenarios; here, what
// follows the answer is raw, and the tunnel ends with its target.
TEST_F(RelayTest, TunnelCarriesRawBytesAfterTheAnswerAndEndsWithItsTarget) {
    StartRelay();
    loopback::Listener target;
    TlsClient client(relay->port());
    ASSERT_NE(client.ssl, nullptr);
    ASSERT_EQ(ZEPHTunnelClientHandshake(client.ssl, "127.0.0.1", target.port(), 100, 5), 0);
    client.DropTls();
    const int far = target.accept();
    ASSERT_GE(far, 0);
    const std::string bytes = PatternBytes(1000);
    ASSERT_EQ(::send(client.fd, bytes.data(), bytes.size(), 0), 1000);
    std::string got(1000, '\0');
    ASSERT_EQ(::recv(far, got.data(), 1000, MSG_WAITALL), 1000);
    EXPECT_EQ(got, bytes);
    ::close(far);
    ::fcntl(client.fd, F_SETFL, 0);
    char byte;
    EXPECT_EQ(::recv(client.fd, &byte, 1, 0), 0);
}

TEST_F(RelayTest, BadTokenUnreachableOrSlowTargetAndNonsenseAreRefused) {
    StartRelay();
    loopback::Listener target;
    const int open_port = target.port();
    const int closed_port = loopback::Listener().port();
    // A listener whose queue is full lets further connections hang: a slow target.
    loopback::Listener full(0);
    const int queued = loopback::connect_to(full.port());
    const struct {
        std::string request;
        const char* status_line;
        int status;
    } cases[] = {
        {Upgrade("127.0.0.1", open_port, Token("127.0.0.1:1")), "HTTP/1.1 403 Forbidden", 401},
        {Upgrade("127.0.0.1", open_port, "bm90IGEgdG9rZW4="), "HTTP/1.1 403 Forbidden", 401},
        {Upgrade("127.0.0.1", closed_port, Token("127.0.0.1:" + std::to_string(closed_port))),
         "HTTP/1.1 502 Bad Gateway", 402},
        {Upgrade("127.0.0.1", full.port(), Token("127.0.0.1:" + std::to_string(full.port()))),
         "HTTP/1.1 504 Gateway Timeout", 403},
        {"GET / HTTP/1.1\r\nHost: relay\r\n\r\n", "HTTP/1.1 400 Bad Request", 400},
    };
    for (const auto& c : cases) {
        const std::string answer = AnswerTo(c.request);
        EXPECT_EQ(answer.substr(0, answer.find("\r\n")), c.status_line) << c.request;
        EXPECT_NE(answer.find("X-Target-Status: " + std::to_string(c.status) + "\r\n"),
                  std::string::npos)
            << answer;
    }
    EXPECT_EQ(target.accept(100), -1);  // the refused tokens reached nobody
    ::close(queued);
}

}  // namespace
