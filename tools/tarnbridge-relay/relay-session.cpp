// relay-session.cpp: the upgrade exchange and the splice.
#include "relay-session.h"

#include <netdb.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <utility>

#include "foundation/log.h"
#include "transport/tunnel-crypto.h"
#include "transport/tunnel-format.h"

namespace tf = tunnel_format;

namespace {

const char* const kLog = "relay";
// How often a wait looks at the relay's stop.
constexpr int kSliceMs = 200;
// An upgrade request longer than this is not one.
constexpr size_t kMaxRequest = 8192;
constexpr size_t kSpliceBuffer = 64 * 1024;

long long NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string Trim(const std::string& s) {
    const size_t first = s.find_first_not_of(" \t");
    if (first == std::string::npos) return std::string();
    return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// The status line of an answer.
const char* StatusLine(int status) {
    switch (status) {
        case ZEPHTUNNEL_OK:
            return "HTTP/1.1 101 Switching Protocols";
        case ZEPHTUNNEL_ERR_BAD_TARGET:
            return "HTTP/1.1 403 Forbidden";
        case ZEPHTUNNEL_ERR_CONN_FAILED:
            return "HTTP/1.1 502 Bad Gateway";
        case ZEPHTUNNEL_ERR_CONN_TIMEOUT:
            return "HTTP/1.1 504 Gateway Timeout";
        default:
            return "HTTP/1.1 400 Bad Request";
    }
}

// One direction of the splice: bytes read from `from` wait in `buf` until `to` takes them.
struct Flow {
    int from;
    int to;
    std::unique_ptr<char[]> buf{new char[kSpliceBuffer]};
    size_t off = 0;
    size_t len = 0;
    bool ended = false;  // `from` closed or failed

    bool finished() const { return ended && len == 0; }
    void Fill() {
        const ssize_t n = ::recv(from, buf.get(), kSpliceBuffer, 0);
        if (n > 0) {
            off = 0;
            len = static_cast<size_t>(n);
        } else if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
            ended = true;
        }
    }
    // false when `to` failed.
    bool Drain() {
        const ssize_t n = ::send(to, buf.get() + off, len, MSG_NOSIGNAL);
        if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        off += static_cast<size_t>(n);
        len -= static_cast<size_t>(n);
        return true;
    }
};

}  // namespace

RelaySession::RelaySession(int fd, std::string peer, SSL_CTX* ctx, const RelayOptions& options,
                           const std::atomic<bool>& stopping)
    : m_fd(fd), m_peer(std::move(peer)), m_ctx(ctx), m_options(options), m_stopping(stopping) {}

RelaySession::~RelaySession() {
    if (m_ssl != nullptr) SSL_free(m_ssl);
    if (m_target >= 0) ::close(m_target);
    ::close(m_fd);
}

bool RelaySession::PollSlice(int fd, short events, int timeout_ms) const {
    pollfd p{fd, events, 0};
    return ::poll(&p, 1, timeout_ms) >= 0 && !m_stopping.load();
}

template <typename Op>
int RelaySession::SslCall(Op op, bool limited) {
    for (;;) {
        const int rc = op();
        if (rc > 0) return rc;
        const int err = SSL_get_error(m_ssl, rc);
        if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) return 0;
        if (limited && NowMs() > m_deadline_ms) return 0;
        if (!PollSlice(m_fd, err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, kSliceMs)) return 0;
    }
}

bool RelaySession::ReadRequest(std::string& text) {
    char buf[2048];
    while (text.find("\r\n\r\n") == std::string::npos) {
        if (text.size() > kMaxRequest) return false;
        const int n = SslCall([&] { return SSL_read(m_ssl, buf, sizeof buf); }, true);
        if (n <= 0) return false;
        text.append(buf, static_cast<size_t>(n));
    }
    return true;
}

int RelaySession::Parse(const std::string& text, Request& request) const {
    size_t at = text.find("\r\n");
    const std::string first = text.substr(0, at);
    if (first != std::string(tf::kMethod) + " " + tf::kPath + " " + tf::kVersion &&
        first != std::string(tf::kMethod) + " " + tf::kPath + " HTTP/1.0")
        return ZEPHTUNNEL_ERR_UNKNOWN;
    std::map<std::string, std::string> headers;
    for (size_t next; (next = text.find("\r\n", at + 2)) != std::string::npos && next > at + 2;
         at = next) {
        const std::string line = text.substr(at + 2, next - at - 2);
        const size_t colon = line.find(':');
        if (colon == std::string::npos) return ZEPHTUNNEL_ERR_UNKNOWN;
        headers[Lower(Trim(line.substr(0, colon)))] = Trim(line.substr(colon + 1));
    }
    if (Lower(headers[Lower(tf::kUpgradeHeader)]) != Lower(tf::kUpgrade))
        return ZEPHTUNNEL_ERR_UNKNOWN;
    request.host = headers[Lower(tf::kTargetHostHeader)];
    request.port_text = headers[Lower(tf::kTargetPortHeader)];
    request.token = headers[Lower(tf::kAuthTokenHeader)];
    char* end = nullptr;
    const long port = std::strtol(request.port_text.c_str(), &end, 10);
    if (request.host.empty() || request.token.empty() || request.port_text.empty() ||
        *end != '\0' || port <= 0 || port > 65535)
        return ZEPHTUNNEL_ERR_UNKNOWN;
    request.port = static_cast<int>(port);
    return ZEPHTUNNEL_OK;
}

int RelaySession::CheckToken(const Request& request) const {
    unsigned char token[tf::kBufferSize];
    unsigned char plain[tf::kBufferSize];
    const size_t token_len =
        ZEPHCryptoBase64Decode(token, sizeof token, request.token.c_str(), request.token.size());
    const size_t plain_len = ZEPHCryptoDecrypt(plain, sizeof plain, token, token_len);
    // The client's text is "<host>:<port>" with its terminating zero.
    const std::string expected = request.host + ":" + std::to_string(request.port);
    const bool match = plain_len == expected.size() + 1 &&
                       std::memcmp(plain, expected.c_str(), expected.size() + 1) == 0;
    return match ? ZEPHTUNNEL_OK : ZEPHTUNNEL_ERR_BAD_TARGET;
}

int RelaySession::ConnectTarget(const Request& request) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(request.host.c_str(), request.port_text.c_str(), &hints, &found) != 0)
        return ZEPHTUNNEL_ERR_CONN_FAILED;
    m_target = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int rc = m_target < 0 ? -1 : ::connect(m_target, found->ai_addr, found->ai_addrlen);
    ::freeaddrinfo(found);
    if (rc == 0) return ZEPHTUNNEL_OK;
    if (m_target < 0 || errno != EINPROGRESS) return ZEPHTUNNEL_ERR_CONN_FAILED;
    const long long deadline = NowMs() + m_options.connect_timeout * 1000LL;
    pollfd p{m_target, POLLOUT, 0};
    while ((p.revents = 0, ::poll(&p, 1, kSliceMs)) == 0) {
        if (m_stopping.load()) return ZEPHTUNNEL_ERR_CONN_FAILED;
        if (NowMs() >= deadline) return ZEPHTUNNEL_ERR_CONN_TIMEOUT;
    }
    int err = 0;
    socklen_t len = sizeof err;
    if (::getsockopt(m_target, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0)
        return ZEPHTUNNEL_ERR_CONN_FAILED;
    return ZEPHTUNNEL_OK;
}

bool RelaySession::Answer(int status) {
    std::string answer = std::string(StatusLine(status)) + "\r\n";
    if (status == ZEPHTUNNEL_OK)
        answer +=
            std::string(tf::kUpgradeHeader) + ": " + tf::kUpgrade + "\r\nConnection: Upgrade\r\n";
    else
        answer += "Connection: close\r\nContent-Length: 0\r\n";
    answer += std::string(tf::kStatusHeader) + ": " + std::to_string(status) + "\r\n\r\n";
    return SslCall([&] { return SSL_write(m_ssl, answer.data(), static_cast<int>(answer.size())); },
                   false) > 0;
}

void RelaySession::Splice() {
    Flow up{m_fd, m_target};
    Flow down{m_target, m_fd};
    while (!up.finished() && !down.finished() && !m_stopping.load()) {
        pollfd p[2] = {{m_fd, 0, 0}, {m_target, 0, 0}};
        if (up.len == 0 && !up.ended) p[0].events |= POLLIN;
        if (down.len > 0) p[0].events |= POLLOUT;
        if (down.len == 0 && !down.ended) p[1].events |= POLLIN;
        if (up.len > 0) p[1].events |= POLLOUT;
        if (::poll(p, 2, kSliceMs) < 0) return;
        if ((p[0].revents | p[1].revents) & (POLLERR | POLLNVAL)) return;
        if (p[0].revents & (POLLIN | POLLHUP) && up.len == 0) up.Fill();
        if (p[1].revents & (POLLIN | POLLHUP) && down.len == 0) down.Fill();
        if (p[1].revents & POLLOUT && up.len > 0 && !up.Drain()) return;
        if (p[0].revents & POLLOUT && down.len > 0 && !down.Drain()) return;
    }
}

void RelaySession::Run() {
    m_deadline_ms = NowMs() + m_options.request_timeout * 1000LL;
    m_ssl = SSL_new(m_ctx);
    std::string text;
    Request request;
    if (m_ssl == nullptr || SSL_set_fd(m_ssl, m_fd) != 1 ||
        SslCall([&] { return SSL_accept(m_ssl); }, true) <= 0 || !ReadRequest(text)) {
        Logger::LogMsg(Logger::L_WARNING, kLog,
                       "[WARNING] relay(%d): %s: no upgrade request (TLS or request failed)\n",
                       __LINE__, m_peer.c_str());
        m_done.store(true);
        return;
    }
    int status = Parse(text, request);
    if (status == ZEPHTUNNEL_OK) status = CheckToken(request);
    if (status == ZEPHTUNNEL_OK) status = ConnectTarget(request);
    const bool answered = Answer(status);
    if (status == ZEPHTUNNEL_ERR_UNKNOWN) {
        Logger::LogMsg(Logger::L_WARNING, kLog,
                       "[WARNING] relay(%d): %s: not an upgrade request, refused with %d\n",
                       __LINE__, m_peer.c_str(), status);
    } else if (status != ZEPHTUNNEL_OK || !answered) {
        Logger::LogMsg(Logger::L_WARNING, kLog,
                       "[WARNING] relay(%d): %s -> %s:%s refused: X-Target-Status %d%s\n", __LINE__,
                       m_peer.c_str(), request.host.c_str(), request.port_text.c_str(), status,
                       answered ? "" : " (answer not sent)");
        SSL_shutdown(m_ssl);
        m_done.store(true);
        return;
    }
    Logger::LogMsg(Logger::L_INFO, kLog, "[INFO] relay(%d): %s -> %s:%s: tunnel open\n", __LINE__,
                   m_peer.c_str(), request.host.c_str(), request.port_text.c_str());
    // The client drops its TLS without a word; so does the relay, and the socket is raw.
    SSL_set_quiet_shutdown(m_ssl, 1);
    SSL_free(m_ssl);
    m_ssl = nullptr;
    Splice();
    m_done.store(true);
}
