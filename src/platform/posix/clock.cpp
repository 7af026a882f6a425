// clock.cpp (POSIX): the system clocks behind the time seam.
#include "platform/clock.h"

#include <cerrno>
#include <ctime>

namespace platform {
namespace {

class PosixClock : public Clock {
  public:
    int64_t Now() override {
        timespec ts{};
        ::clock_gettime(CLOCK_REALTIME, &ts);
        return ts.tv_sec;
    }
    int64_t TickMs() override {
        timespec ts{};
        ::clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
    }
    void SleepMs(int64_t ms) override {
        if (ms <= 0) return;
        timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
        // A signal handler may cut the sleep short; sleep out the remainder.
        while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
        }
    }
};

std::atomic<Clock*> g_clock{nullptr};

}  // namespace

Clock& SystemClock() {
    static PosixClock clock;
    return clock;
}

void SetClock(Clock* clock) {
    g_clock.store(clock);
}

Clock& CurrentClock() {
    Clock* clock = g_clock.load();
    return clock != nullptr ? *clock : SystemClock();
}

int64_t Now() {
    return CurrentClock().Now();
}
int64_t TickMs() {
    return CurrentClock().TickMs();
}
void SleepMs(int64_t ms) {
    CurrentClock().SleepMs(ms);
}

}  // namespace platform
