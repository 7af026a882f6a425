// eventually.h: waiting in a test for a condition another thread brings about, with a
// deadline instead of a fixed sleep. Header-only.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

// Looks every 10 ms until `done` holds or `limit` passes, calling `tick` (when given)
// between looks. False when the time ran out.
inline bool Eventually(const std::function<bool()>& done,
                       const std::function<void()>& tick = nullptr,
                       std::chrono::milliseconds limit = std::chrono::seconds(15)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        if (tick) tick();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}
