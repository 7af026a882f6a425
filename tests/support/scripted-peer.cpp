// scripted-peer.cpp: the listener thread and the building blocks of a session.
#include "support/scripted-peer.h"

#include <algorithm>
#include <atomic>

#include "foundation/error-code.h"
#include "transport/proto-common.h"

namespace {
// How often waits look at the stop flag.
constexpr int kPollMs = 50;
}  // namespace

PeerSession::PeerSession(platform::socket_t socket, int* abort_flag,
                         const std::atomic<bool>& stopping)
    : m_stopping(stopping) {
    if (m_ch.Open(socket, true) != 0) platform::shutdown_close(socket);
    m_ch.SetTimeout(kReadTimeout);
    m_ch.SetFlag(abort_flag);
}

int PeerSession::ReadBytes(size_t n, std::string& out) {
    out.assign(n, '\0');
    size_t got = 0;
    int rc = n == 0 ? 0 : m_ch.Read(out.data(), n, got);
    out.resize(rc < 0 ? got : n);
    return rc < 0 ? rc : 0;
}

int PeerSession::ReadToEnd(std::string& out) {
    char buf[4096];
    for (;;) {
        size_t got = 0;
        int rc = m_ch.Read(buf, sizeof(buf), got);
        out.append(buf, got);
        if (rc == ERR_IO) return 0;
        if (rc < 0) return rc;
    }
}

int PeerSession::ReadHeader(uint8_t& cmd) {
    uint16_t pkt_len = 0;
    uint8_t version = 0;
    int rc = ProtoReadHeader(m_ch, pkt_len, cmd, version);
    // The header shortens the time-out for the rest of a message; a test peer keeps its own.
    m_ch.SetTimeout(kReadTimeout);
    return rc;
}

int PeerSession::ReadRequest(uint8_t& cmd, PObject& request) {
    int rc = ReadHeader(cmd);
    return rc < 0 ? rc : m_stream.Recv(m_ch, request);
}

int PeerSession::WriteBytes(const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        size_t piece = std::min(bytes.size() - done, Channel::kCapacity);
        int rc = m_ch.Write(bytes.data() + done, piece);
        if (rc < 0) return rc;
        done += piece;
    }
    int rc = m_ch.FlushWrite(0);
    return rc < 0 ? rc : 0;
}

int PeerSession::WriteObject(const PObject& reply) {
    return m_stream.Send(m_ch, reply);
}

void PeerSession::Close() {
    m_ch.Close();
}

void PeerSession::StaySilent() {
    char scratch[4096];
    while (!m_stopping.load()) {
        platform::socket_t fd = m_ch.GetSocket();
        if (fd == platform::kInvalidSocket) return;
        int err = 0;
        platform::WaitResult ready = platform::wait_ready(fd, false, kPollMs, &err);
        if (ready == platform::WAIT_TIMEOUT) continue;
        if (ready != platform::WAIT_READY) return;
        long n = platform::recv_some(fd, scratch, sizeof(scratch), &err);
        if (n == 0 || (n < 0 && !platform::is_would_block(err))) return;
    }
}

ScriptedPeer::ScriptedPeer(Script script) : m_script(std::move(script)) {
    platform::net_init();
    m_listener = platform::tcp_socket();
    if (m_listener == platform::kInvalidSocket) return;
    if (platform::bind_loopback(m_listener, 0) != 0 ||
        platform::listen_socket(m_listener, 8) != 0) {
        platform::close_socket(m_listener);
        m_listener = platform::kInvalidSocket;
        return;
    }
    m_port = platform::local_port(m_listener);
    m_thread = std::thread([this] { Serve(); });
}

ScriptedPeer::~ScriptedPeer() {
    Stop();
}

void ScriptedPeer::Serve() {
    while (!m_stopping.load()) {
        if (platform::wait_ready(m_listener, false, kPollMs) != platform::WAIT_READY) continue;
        platform::socket_t s = platform::accept_socket(m_listener);
        if (s == platform::kInvalidSocket) continue;
        {
            PeerSession session(s, &m_abort, m_stopping);
            m_script(session);
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_done;
        m_done_cond.notify_all();
    }
}

bool ScriptedPeer::WaitForSessions(int n, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_done_cond.wait_for(lock, limit, [&] { return m_done >= n; });
}

void ScriptedPeer::Stop() {
    m_stopping.store(true);
    std::atomic_ref<int>(m_abort).store(1);
    if (m_thread.joinable()) m_thread.join();
    if (m_listener != platform::kInvalidSocket) platform::close_socket(m_listener);
    m_listener = platform::kInvalidSocket;
}
