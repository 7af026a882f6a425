// mutex.h: the mutex, scoped lock and condition variable of every thread in the daemon,
// annotated for clang's thread-safety analysis. A clang build then proves, function by
// function, that data marked GUARDED_BY is touched only with its lock held, that a function
// marked REQUIRES is called only with the lock and one marked EXCLUDES only without it,
// and that two locks held at once were taken in their declared order (ACQUIRED_BEFORE).
// Other compilers see plain std::mutex wrappers; the macros vanish.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define TB_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TB_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) TB_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY TB_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) TB_THREAD_ANNOTATION(guarded_by(x))
#define ACQUIRED_BEFORE(...) TB_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define REQUIRES(...) TB_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) TB_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TB_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) TB_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) TB_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS TB_THREAD_ANNOTATION(no_thread_safety_analysis)

// A non-recursive mutex the analysis can follow (libstdc++'s std::mutex carries no
// annotations). Also usable with std::unique_lock where a standard interface needs one.
class CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE() { m_mutex.lock(); }
    void unlock() RELEASE() { m_mutex.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

  private:
    friend class CondVar;
    std::mutex m_mutex;
};

// Holds a Mutex for the rest of the scope.
class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~MutexLock() RELEASE() { m_mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& m_mutex;
};

// A condition variable used with a Mutex the caller already holds.
class CondVar {
  public:
    // Releases `mutex` while waiting, up to `timeout`, for a notification (or a spurious
    // wake-up); holds it again on return. Callers re-check their condition.
    void WaitFor(Mutex& mutex, std::chrono::milliseconds timeout) REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.m_mutex, std::adopt_lock);
        m_cond.wait_for(lock, timeout);
        lock.release();
    }
    // The same without a limit: for waits that only a notification can end.
    void Wait(Mutex& mutex) REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.m_mutex, std::adopt_lock);
        m_cond.wait(lock);
        lock.release();
    }
    void NotifyOne() { m_cond.notify_one(); }
    void NotifyAll() { m_cond.notify_all(); }

  private:
    std::condition_variable m_cond;
};
