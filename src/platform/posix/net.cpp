// net.cpp (POSIX): TCP socket primitives of the platform seam.
#include "platform/net.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <mutex>

namespace platform {

namespace {

int fail(int* err) {
    if (err != nullptr) *err = errno;
    return -1;
}

bool loopback_address(int port, sockaddr_in& addr) {
    if (port < 0 || port > 65535) return false;
    std::memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return true;
}

}  // namespace

void net_init() {
    static std::once_flag once;
    std::call_once(once, [] { std::signal(SIGPIPE, SIG_IGN); });
}

socket_t tcp_socket(int* err) {
    int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) fail(err);
    return s < 0 ? kInvalidSocket : s;
}

int set_linger(socket_t s, int seconds, int* err) {
    linger value{};
    value.l_onoff = 1;
    value.l_linger = seconds;
    if (::setsockopt(s, SOL_SOCKET, SO_LINGER, &value, sizeof value) != 0) return fail(err);
    return 0;
}

int set_nonblock(socket_t s, int* err) {
    int flags = ::fcntl(s, F_GETFL);
    if (flags < 0 || ::fcntl(s, F_SETFL, flags | O_NONBLOCK) != 0) return fail(err);
    return 0;
}

int connect_start(socket_t s, const char* ip, int port, int* err) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    if (ip == nullptr || port < 0 || port > 65535 ||
        ::inet_pton(AF_INET, ip, &addr.sin_addr) != 1) {
        if (err != nullptr) *err = 0;
        return -1;
    }
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (::connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return 0;
    // An interrupted connect goes on in the background, like one under way.
    if (errno == EINPROGRESS || errno == EINTR) return 1;
    return fail(err);
}

int connect_result(socket_t s, int* err) {
    int code = 0;
    socklen_t len = sizeof code;
    if (::getsockopt(s, SOL_SOCKET, SO_ERROR, &code, &len) != 0) return fail(err);
    if (code == 0) return 0;
    if (err != nullptr) *err = code;
    return -1;
}

WaitResult wait_ready(socket_t s, bool for_write, int timeout_ms, int* err) {
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::milliseconds(timeout_ms);
    pollfd p{};
    p.fd = s;
    p.events = for_write ? POLLOUT : POLLIN;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now());
        int n = ::poll(&p, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            fail(err);
            return WAIT_ERROR;
        }
        if (n == 0) return WAIT_TIMEOUT;
        if ((p.revents & (p.events | POLLERR | POLLHUP)) != 0) return WAIT_READY;
        return WAIT_NOT_READY;
    }
}

long send_some(socket_t s, const void* buf, size_t len, int* err) {
    for (;;) {
        ssize_t n = ::send(s, buf, len, MSG_NOSIGNAL);
        if (n >= 0) return n;
        if (errno != EINTR) return fail(err);
    }
}

long recv_some(socket_t s, void* buf, size_t len, int* err) {
    for (;;) {
        ssize_t n = ::recv(s, buf, len, 0);
        if (n >= 0) return n;
        if (errno != EINTR) return fail(err);
    }
}

long peek_some(socket_t s, void* buf, size_t len, int* err) {
    for (;;) {
        ssize_t n = ::recv(s, buf, len, MSG_PEEK | MSG_DONTWAIT);
        if (n >= 0) return n;
        if (errno != EINTR) return fail(err);
    }
}

bool is_would_block(int err) {
    return err == EAGAIN || err == EWOULDBLOCK;
}

int shutdown_close(socket_t s) {
    if (s < 0) return -1;
    ::shutdown(s, SHUT_RDWR);
    return ::close(s);
}

int close_socket(socket_t s) {
    if (s < 0) return -1;
    return ::close(s);
}

int bind_loopback(socket_t s, int port, int* err) {
    sockaddr_in addr{};
    if (!loopback_address(port, addr)) {
        if (err != nullptr) *err = EINVAL;
        return -1;
    }
    // Lets a restarted daemon take its old port while connections of the last run sit
    // in TIME_WAIT; a port another socket listens on is still refused.
    int on = 1;
    ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return fail(err);
    return 0;
}

int listen_socket(socket_t s, int backlog, int* err) {
    if (::listen(s, backlog) != 0) return fail(err);
    return 0;
}

int local_port(socket_t s, int* err) {
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    if (::getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len) != 0) return fail(err);
    return ntohs(addr.sin_port);
}

socket_t accept_socket(socket_t s, int* err) {
    for (;;) {
        int c = ::accept4(s, nullptr, nullptr, SOCK_CLOEXEC);
        if (c >= 0) return c;
        if (errno != EINTR) {
            fail(err);
            return kInvalidSocket;
        }
    }
}

const char* error_text(int err) {
    return std::strerror(err);
}

}  // namespace platform
