// loopback.h: real TCP sockets on 127.0.0.1 for tests, written against the system's
// socket calls directly so that a test can check our socket code from the outside.
// Header-only.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

namespace loopback {

inline sockaddr_in address(int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

// A listening socket on a port the system picks; port() tells which.
class Listener {
  public:
    explicit Listener(int backlog = 8) {
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr = address(0);
        if (m_fd < 0 || ::bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            ::listen(m_fd, backlog) != 0)
            throw std::runtime_error("loopback listener");
        socklen_t len = sizeof addr;
        ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len);
        m_port = ntohs(addr.sin_port);
    }
    ~Listener() { close(); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    int port() const { return m_port; }
    int fd() const { return m_fd; }
    void close() {
        if (m_fd >= 0) ::close(m_fd);
        m_fd = -1;
    }
    // An accepted connection, or -1 when none came within `timeout_ms`.
    int accept(int timeout_ms = 5000) {
        pollfd p{m_fd, POLLIN, 0};
        if (::poll(&p, 1, timeout_ms) <= 0) return -1;
        return ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
    }

  private:
    int m_fd = -1;
    int m_port = 0;
};

// A blocking client connection, or -1 when refused.
inline int connect_to(int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = address(port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Two connected ends; each is closed by the destructor unless taken.
struct Pair {
    int a = -1;
    int b = -1;
    Pair() {
        Listener l;
        a = connect_to(l.port());
        b = l.accept();
        if (a < 0 || b < 0) throw std::runtime_error("loopback pair");
    }
    ~Pair() {
        if (a >= 0) ::close(a);
        if (b >= 0) ::close(b);
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;
    int take_a() { return std::exchange(a, -1); }
    int take_b() { return std::exchange(b, -1); }
};

inline void write_all(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0) throw std::runtime_error("loopback write");
        done += static_cast<size_t>(n);
    }
}

// Reads until the peer closes, `max` bytes have come, or nothing arrives for
// `timeout_ms`.
inline std::string read_some(int fd, size_t max = SIZE_MAX, int timeout_ms = 5000) {
    std::string out;
    char buf[65536];
    while (out.size() < max) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, timeout_ms) <= 0) break;
        ssize_t n = ::recv(fd, buf, std::min(sizeof buf, max - out.size()), 0);
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

// True when the peer closed the connection without sending anything more.
inline bool closed_without_bytes(int fd, int timeout_ms = 5000) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, timeout_ms) <= 0) return false;
    char c;
    return ::recv(fd, &c, 1, 0) == 0;
}

inline double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace loopback
