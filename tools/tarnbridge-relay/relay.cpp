// relay.cpp: the listener and the sessions' threads.
#include "relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "foundation/log.h"
#include "platform/net.h"
#include "relay-session.h"
#include "relay-tls.h"

namespace {
// How often the accept loop looks at the stop flag.
constexpr int kAcceptSliceMs = 200;
}  // namespace

Relay::Relay(RelayOptions options) : m_options(std::move(options)) {}

Relay::~Relay() {
    Stop();
}

int Relay::Start(std::string& error) {
    // TLS writes to a client that has gone must fail, not raise a signal that ends us.
    platform::net_init();
    m_ctx = MakeRelayContext(m_options, error);
    if (m_ctx == nullptr) return -1;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(m_options.port));
    if (inet_pton(AF_INET, m_options.listen.c_str(), &addr.sin_addr) != 1) {
        error = "'" + m_options.listen + "' is not an IPv4 address";
        return -1;
    }
    m_listen_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    if (m_listen_fd < 0 ||
        ::setsockopt(m_listen_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
        ::bind(m_listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(m_listen_fd, 64) != 0) {
        error = "cannot listen on " + m_options.listen + ":" + std::to_string(m_options.port) +
                ": " + std::strerror(errno);
        return -1;
    }
    socklen_t len = sizeof addr;
    ::getsockname(m_listen_fd, reinterpret_cast<sockaddr*>(&addr), &len);
    m_port = ntohs(addr.sin_port);
    m_acceptor = std::thread([this] { AcceptLoop(); });
    return 0;
}

void Relay::AcceptLoop() {
    while (!m_stop.load()) {
        pollfd p{m_listen_fd, POLLIN, 0};
        if (::poll(&p, 1, kAcceptSliceMs) <= 0) {
            Reap(false);
            continue;
        }
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        const int fd = ::accept4(m_listen_fd, reinterpret_cast<sockaddr*>(&peer), &len,
                                 SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) continue;
        ++m_accepted;
        char ip[INET_ADDRSTRLEN] = "?";
        inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof ip);
        auto session = std::make_unique<RelaySession>(
            fd, std::string(ip) + ":" + std::to_string(ntohs(peer.sin_port)), m_ctx, m_options,
            m_stop);
        RelaySession* raw = session.get();
        MutexLock lock(m_mutex);
        m_sessions.push_back(Served{std::move(session), std::thread([raw] { raw->Run(); })});
    }
}

void Relay::Reap(bool all) {
    std::list<Served> finished;
    {
        MutexLock lock(m_mutex);
        for (auto it = m_sessions.begin(); it != m_sessions.end();) {
            auto next = std::next(it);
            if (all || it->session->done()) finished.splice(finished.end(), m_sessions, it);
            it = next;
        }
    }
    for (Served& s : finished) s.thread.join();
}

void Relay::Stop() {
    m_stop.store(true);
    if (m_acceptor.joinable()) m_acceptor.join();
    Reap(true);
    if (m_listen_fd >= 0) ::close(m_listen_fd);
    m_listen_fd = -1;
    if (m_ctx != nullptr) SSL_CTX_free(m_ctx);
    m_ctx = nullptr;
}
