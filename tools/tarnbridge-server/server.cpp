// server.cpp: listener and connection threads.
#include "server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/log.h"
#include "platform/net.h"
#include "server-certificate.h"
#include "server-store.h"
#include "session.h"
#include "transport/ssl-channel.h"

namespace {

const char* const kLog = "server_debug";
// How often the accept loop looks at the stop flag.
constexpr int kAcceptPollMs = 100;

}  // namespace

Server::Server(const ServerOptions& options)
    : m_options(options),
      m_faults(options.faults_path),
      m_keep_alive(options.keepalive_seconds, options.alive) {}

Server::~Server() {
    Stop();
}

int Server::Start() {
    platform::net_init();
    {
        ServerStore store;
        if (store.Open(m_options.data_dir, m_options.versions_kept) < 0) return -1;
        int removed = store.Recover();
        if (removed < 0) return -1;
        if (removed > 0)
            Logger::LogMsg(Logger::L_NOTICE, kLog,
                           "[NOTICE] server(%d): removed %d file(s) left by an earlier run\n",
                           __LINE__, removed);
    }
    if (m_options.tls && UseCertificate() < 0) return -1;
    if (m_queue.Start(m_options.data_dir, m_options.versions_kept) < 0) return -1;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(m_options.port));
    if (inet_pton(AF_INET, m_options.listen.c_str(), &addr.sin_addr) != 1) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] server(%d): not an IPv4 address: %s\n",
                       __LINE__, m_options.listen.c_str());
        return -1;
    }
    m_listen_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    if (m_listen_fd < 0 ||
        ::setsockopt(m_listen_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
        ::bind(m_listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(m_listen_fd, 64) != 0) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] server(%d): cannot listen on %s:%d: %s\n",
                       __LINE__, m_options.listen.c_str(), m_options.port, std::strerror(errno));
        if (m_listen_fd >= 0) ::close(m_listen_fd);
        m_listen_fd = -1;
        return -1;
    }
    socklen_t len = sizeof addr;
    ::getsockname(m_listen_fd, reinterpret_cast<sockaddr*>(&addr), &len);
    m_port = ntohs(addr.sin_port);
    m_acceptor = std::thread([this] { AcceptLoop(); });
    return 0;
}

int Server::UseCertificate() {
    std::string fingerprint;
    if (server_certificate::Ensure(m_options.data_dir, m_options.listen, fingerprint) < 0)
        return -1;
    SetCERTPath(server_certificate::CertificatePath(m_options.data_dir).c_str());
    SetPriKeyPath(server_certificate::KeyPath(m_options.data_dir).c_str());
    Logger::LogMsg(Logger::L_INFO, kLog, "[INFO] server(%d): TLS certificate %s\n", __LINE__,
                   fingerprint.c_str());
    return 0;
}

void Server::AcceptLoop() {
    while (!m_stop) {
        pollfd p{m_listen_fd, POLLIN, 0};
        int ready = ::poll(&p, 1, kAcceptPollMs);
        Reap(false);
        if (ready <= 0) continue;
        int fd = ::accept4(m_listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        ++m_accepted;
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stop) {
            ::close(fd);
            break;
        }
        m_connections.emplace_back();
        Connection& conn = m_connections.back();
        conn.session = std::make_unique<Session>(m_options, m_faults, m_queue, m_keep_alive);
        Session* session = conn.session.get();
        conn.thread = std::thread([session, fd] { session->Run(fd); });
    }
}

void Server::Reap(bool all) {
    std::list<Connection> done;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto it = m_connections.begin(); it != m_connections.end();) {
            if (all) it->session->Stop();
            if (all || it->session->finished()) {
                done.splice(done.end(), m_connections, it++);
            } else {
                ++it;
            }
        }
    }
    for (Connection& conn : done) conn.thread.join();
}

void Server::Stop() {
    if (m_stop.exchange(true)) return;
    if (m_acceptor.joinable()) m_acceptor.join();
    if (m_listen_fd >= 0) ::close(m_listen_fd);
    m_listen_fd = -1;
    Reap(true);
    m_queue.Stop();
}

size_t Server::ConnectionCount() {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t live = 0;
    for (const Connection& conn : m_connections) live += conn.session->finished() ? 0 : 1;
    return live;
}
