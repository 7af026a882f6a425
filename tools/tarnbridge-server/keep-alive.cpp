// keep-alive.cpp: the timer thread.
#include "keep-alive.h"

#include <algorithm>

KeepAlive::KeepAlive(uint32_t interval_seconds, uint32_t alive)
    : m_interval(std::chrono::seconds(std::max<uint32_t>(1, interval_seconds))) {
    m_message["type"] = "keep_alive";
    m_message["alive"] = alive;
    m_thread = std::thread([this] { Loop(); });
}

KeepAlive::~KeepAlive() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void KeepAlive::Busy(Channel& channel) {
    std::lock_guard<std::mutex> lock(m_mutex);
    bool was_idle = m_busy.empty();
    m_busy[&channel] = Busyness{Clock::now() + m_interval, false};
    // Otherwise the timer is already waiting for an earlier moment than this one's.
    if (was_idle) m_wake.notify_all();
}

int KeepAlive::Idle(Channel& channel) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_busy.find(&channel);
    if (it == m_busy.end()) return 0;
    bool failed = it->second.failed;
    m_busy.erase(it);
    return failed ? -1 : 0;
}

void KeepAlive::Loop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop) {
        Clock::time_point next = Clock::time_point::max();
        Clock::time_point now = Clock::now();
        for (auto& [channel, busy] : m_busy) {
            if (busy.failed) continue;
            if (busy.due <= now) {
                busy.failed = m_stream.Send(*channel, m_message) < 0;
                // Every interval from the start, unless the timer fell behind.
                busy.due += m_interval;
                if (busy.due <= now) busy.due = now + m_interval;
            }
            next = std::min(next, busy.due);
        }
        if (next == Clock::time_point::max())
            m_wake.wait(lock);
        else
            m_wake.wait_until(lock, next);
    }
}
