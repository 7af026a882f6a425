// critical-section.h: a scoped lock over a Mutex that can be left and entered again
// within its scope, with the descriptor form kept for callers shared with platforms that
// lock files. Used by code that guards shared state for one scope of one thread.
#pragma once

#include "foundation/log.h"
#include "foundation/mutex.h"

class SCOPED_CAPABILITY CriticalSection {
  public:
    // Locks `mutex` (null: nothing to lock) until end() or destruction.
    explicit CriticalSection(Mutex* mutex) ACQUIRE(mutex) : lock_mutex(mutex) { start(); }
    // The descriptor form locks nothing on this platform (use_flock() is false).
    explicit CriticalSection(int fd) ACQUIRE(descriptor) : lock_fd(fd) { start(); }
    ~CriticalSection() RELEASE() { end(); }

    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    // Enters unless already inside; never locks twice.
    void start() ACQUIRE() {
        if (in_lock) return;
        if (lock_mutex != nullptr) lock_mutex->lock();
        if (use_flock() && lock_fd >= 0) lock(lock_fd);
        in_lock = true;
        Logger::LogMsg(Logger::L_DEBUG, "utility_debug",
                       "[DEBUG] utility(%d): entering critical section\n", __LINE__);
    }

    // Leaves if inside; safe to call more than once.
    void end() RELEASE() {
        if (!in_lock) return;
        Logger::LogMsg(Logger::L_DEBUG, "utility_debug",
                       "[DEBUG] utility(%d): leaving critical section\n", __LINE__);
        if (use_flock() && lock_fd >= 0) unlock(lock_fd);
        if (lock_mutex != nullptr) lock_mutex->unlock();
        in_lock = false;
    }

    static bool use_flock() { return false; }
    static int lock(int) { return 0; }
    static int unlock(int) { return 0; }

  private:
    // What the descriptor form holds as far as the analysis can tell: nothing is locked.
    struct CAPABILITY("file lock") NoLock {
    } descriptor;
    Mutex* lock_mutex = nullptr;
    int lock_fd = -1;
    bool in_lock = false;
};
