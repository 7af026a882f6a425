// clock.h: the time seam. Every wait, age check and time stamp of the daemon reads
// time through here, so that tests can substitute a clock they drive by hand.
// Used by tasks (interruptible waits), the recycle bin rotation and the databases.
#pragma once

#include <atomic>
#include <cstdint>

namespace platform {

// A source of time. Implementations must be callable from any thread.
class Clock {
  public:
    virtual ~Clock() = default;
    // Wall-clock seconds since 1970-01-01 UTC.
    virtual int64_t Now() = 0;
    // Milliseconds from an arbitrary origin; never goes backwards.
    virtual int64_t TickMs() = 0;
    // Blocks the caller for `ms` milliseconds of this clock's time.
    virtual void SleepMs(int64_t ms) = 0;
};

// The operating system's clocks: realtime for Now, monotonic for TickMs.
Clock& SystemClock();

// Replaces the process-wide clock; null restores the system clock. The caller keeps
// ownership and must keep the clock alive until it is replaced again.
void SetClock(Clock* clock);
// The clock in force.
Clock& CurrentClock();

// Shorthands for CurrentClock().
int64_t Now();
int64_t TickMs();
void SleepMs(int64_t ms);

// A clock that only moves when told to. SleepMs advances it instead of blocking, so
// code that sleeps runs at once under test. Thread-safe.
class ManualClock : public Clock {
  public:
    explicit ManualClock(int64_t now_seconds = 1700000000, int64_t tick_ms = 0)
        : m_now_ms(now_seconds * 1000), m_tick_ms(tick_ms) {}

    int64_t Now() override { return m_now_ms.load() / 1000; }
    int64_t TickMs() override { return m_tick_ms.load(); }
    void SleepMs(int64_t ms) override { Advance(ms); }

    // Moves both the wall clock and the tick forward by `ms`.
    void Advance(int64_t ms) {
        m_now_ms += ms;
        m_tick_ms += ms;
    }

  private:
    std::atomic<int64_t> m_now_ms;
    std::atomic<int64_t> m_tick_ms;
};

// Installs a clock for the life of a scope and restores the system clock after it.
class ScopedClock {
  public:
    explicit ScopedClock(Clock& clock) { SetClock(&clock); }
    ~ScopedClock() { SetClock(nullptr); }
    ScopedClock(const ScopedClock&) = delete;
    ScopedClock& operator=(const ScopedClock&) = delete;
};

}  // namespace platform
