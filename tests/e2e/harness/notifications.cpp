// notifications.cpp: the accept loop of the notification port.
#include "harness/notifications.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "foundation/channel.h"
#include "foundation/stream.h"
#include "support/loopback.h"

NotificationListener::NotificationListener() {
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = loopback::address(0);
    socklen_t len = sizeof addr;
    if (m_fd < 0 || ::bind(m_fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        ::listen(m_fd, 64) != 0 || ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len))
        throw std::runtime_error("notification listener");
    m_port = ntohs(addr.sin_port);
    m_thread = std::thread(&NotificationListener::Serve, this);
}

NotificationListener::~NotificationListener() {
    m_stop = true;
    m_thread.join();
    ::close(m_fd);
}

// One map per connection; a connection that says nothing readable is dropped.
void NotificationListener::Serve() {
    while (!m_stop) {
        pollfd p{m_fd, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) continue;
        const int peer = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (peer < 0) continue;
        Channel channel;
        if (channel.Open(peer, true) < 0) {
            ::close(peer);
            continue;
        }
        channel.SetTimeout(5);
        PStream stream;
        PObject notice;
        if (stream.Recv(channel, notice) < 0) continue;
        MutexLock lock(m_mutex);
        m_received.push_back(notice);
    }
}

size_t NotificationListener::Count(const std::function<bool(const PObject&)>& match) {
    MutexLock lock(m_mutex);
    size_t n = 0;
    for (const PObject& notice : m_received) n += match(notice) ? 1 : 0;
    return n;
}
