// watched-clock.h: a hand-driven clock that counts its readings. A task inside Task::Wait
// reads the clock every tenth of a second, so a test can see that a wait has begun before
// it moves the time, instead of sleeping and hoping. Header-only.
#pragma once

#include <atomic>
#include <ctime>

#include "platform/clock.h"
#include "support/eventually.h"

class WatchedClock : public platform::ManualClock {
  public:
    WatchedClock() : ManualClock(std::time(nullptr)) {}
    int64_t TickMs() override {
        ++m_reads;
        return ManualClock::TickMs();
    }
    // True once the clock has been read a few more times, as by a task that waits on it.
    bool WaitUntilSleeping() {
        const int before = m_reads.load();
        return Eventually([&] { return m_reads.load() >= before + 3; });
    }

  private:
    std::atomic<int> m_reads{0};
};
