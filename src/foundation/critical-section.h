// critical-section.h: a scoped lock over a mutex, with the descriptor form kept for
// callers shared with platforms that lock files. Used by code that guards shared
// state for one scope of one thread.
#pragma once

#include <mutex>

#include "foundation/log.h"

class CriticalSection {
  public:
    // Locks `mutex` (null: nothing to lock) until end() or destruction.
    explicit CriticalSection(std::mutex* mutex) : lock_mutex(mutex) { start(); }
    // The descriptor form locks nothing on this platform (use_flock() is false).
    explicit CriticalSection(int fd) : lock_fd(fd) { start(); }
    ~CriticalSection() { end(); }

    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    // Enters unless already inside; never locks twice.
    void start() {
        if (in_lock) return;
        if (lock_mutex != nullptr) lock_mutex->lock();
        in_lock = true;
        Logger::LogMsg(Logger::L_DEBUG, "utility_debug",
                       "[DEBUG] utility(%d): entering critical section\n", __LINE__);
    }

    // Leaves if inside; safe to call more than once.
    void end() {
        if (!in_lock) return;
        Logger::LogMsg(Logger::L_DEBUG, "utility_debug",
                       "[DEBUG] utility(%d): leaving critical section\n", __LINE__);
        if (lock_mutex != nullptr) lock_mutex->unlock();
        in_lock = false;
    }

    static bool use_flock() { return false; }
    static int lock(int) { return 0; }
    static int unlock(int) { return 0; }

  private:
    std::mutex* lock_mutex = nullptr;
    int lock_fd = -1;
    bool in_lock = false;
};
