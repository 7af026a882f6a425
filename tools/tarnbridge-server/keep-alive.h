// keep-alive.h: one timer thread that keeps every slow request's connection alive. While a
// connection's request is being worked on, the connection is busy here, and each time
// another interval passes without a reply the timer sends {"type": "keep_alive"} (with the
// grant) on it. Only the timer writes to a busy connection and only its own thread to an
// idle one, so the two never write at once. Used by the Server's sessions.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>

#include "foundation/channel.h"
#include "foundation/object.h"
#include "foundation/stream.h"

class KeepAlive {
  public:
    KeepAlive(uint32_t interval_seconds, uint32_t alive);
    // Stops the timer; no connection may be busy any more.
    ~KeepAlive();
    KeepAlive(const KeepAlive&) = delete;
    KeepAlive& operator=(const KeepAlive&) = delete;

    // A request on `channel` is being worked on from now: keep-alives go out on it.
    void Busy(Channel& channel);
    // The work is done; none goes out after this returns. 0, or -1 when one could not be
    // sent (the connection is broken).
    int Idle(Channel& channel);

  private:
    using Clock = std::chrono::steady_clock;
    struct Busyness {
        Clock::time_point due;
        bool failed = false;
    };
    void Loop();

    const Clock::duration m_interval;
    PObject m_message;
    PStream m_stream;    // the timer thread's own
    std::mutex m_mutex;  // guards what follows, and the busy channels' writes
    std::condition_variable m_wake;
    std::map<Channel*, Busyness> m_busy;
    bool m_stop = false;
    std::thread m_thread;
};
