// counting-relay.cpp: one thread accepts, one thread per connection copies both ways with poll.
#include "harness/counting-relay.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <numeric>

CountingRelay::CountingRelay(int target_port) : m_target(target_port) {
    // Kept from children: a daemon started later must not hold the write end open.
    if (::pipe2(m_wake, O_CLOEXEC) != 0) throw std::runtime_error("relay pipe");
    m_acceptor = std::thread([this] { Accept(); });
}

CountingRelay::~CountingRelay() {
    ::close(m_wake[1]);
    m_acceptor.join();
    for (std::thread& t : m_threads) t.join();
    ::close(m_wake[0]);
}

uint64_t CountingRelay::Sent() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::accumulate(m_sent.begin(), m_sent.end(), uint64_t{0});
}

std::vector<uint64_t> CountingRelay::SentPerConnection() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sent;
}

uint64_t CountingRelay::Received() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
}

void CountingRelay::Hold(uint64_t bytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_hold_at = bytes;
}

bool CountingRelay::Held() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::accumulate(m_sent.begin(), m_sent.end(), uint64_t{0}) >= m_hold_at;
}

void CountingRelay::Accept() {
    for (;;) {
        pollfd p[2] = {{m_listener.fd(), POLLIN, 0}, {m_wake[0], POLLIN, 0}};
        if (::poll(p, 2, -1) < 0 || p[1].revents != 0) return;
        const int client = m_listener.accept(0);
        if (client < 0) continue;
        const int server = loopback::connect_to(m_target);
        if (server < 0) {
            ::close(client);
            continue;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sent.push_back(0);
        const size_t slot = m_sent.size() - 1;
        m_threads.emplace_back([this, client, server, slot] { Pump(client, server, slot); });
    }
}

void CountingRelay::Pump(int client, int server, size_t slot) {
    char buf[65536];
    for (bool open = true; open;) {
        // While held, the daemon's side is looked at again every few milliseconds.
        const bool held = Held();
        pollfd p[3] = {{client, static_cast<short>(held ? 0 : POLLIN), 0},
                       {server, POLLIN, 0},
                       {m_wake[0], POLLIN, 0}};
        if (::poll(p, 3, held ? 20 : -1) < 0 || p[2].revents != 0) break;
        for (int side = 0; side < 2 && open; ++side) {
            if (p[side].revents == 0) continue;
            const ssize_t n = ::read(p[side].fd, buf, sizeof buf);
            if (n <= 0) {
                open = false;
                break;
            }
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                (side == 0 ? m_sent[slot] : m_received) += static_cast<uint64_t>(n);
            }
            for (ssize_t done = 0; done < n && open;) {
                // A peer that went away must end the copy, not the test process.
                const ssize_t w =
                    ::send(p[1 - side].fd, buf + done, static_cast<size_t>(n - done), MSG_NOSIGNAL);
                open = w > 0;
                done += w > 0 ? w : 0;
            }
        }
    }
    ::close(client);
    ::close(server);
}
