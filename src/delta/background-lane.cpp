#include "delta/background-lane.h"

BackgroundLane::~BackgroundLane() {
    wait();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_work.notify_one();
    if (m_thread.joinable()) m_thread.join();
}

void BackgroundLane::start(size_t slices, const SliceFn& fn, bool background) {
    if (slices == 0) return;
    if (!background) {
        for (size_t i = 0; i < slices; ++i) fn(i);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_fn = &fn;
        m_total = slices;
        m_finished = 0;
        m_next.store(0, std::memory_order_relaxed);
        ++m_job;
        m_open = true;
    }
    if (!m_thread.joinable()) {
        m_thread = std::thread(&BackgroundLane::run, this);
    } else {
        m_work.notify_one();
    }
}

size_t BackgroundLane::claimSlices(const SliceFn& fn, size_t total) {
    size_t done = 0;
    for (size_t i = m_next.fetch_add(1, std::memory_order_relaxed); i < total;
         i = m_next.fetch_add(1, std::memory_order_relaxed)) {
        fn(i);
        ++done;
    }
    return done;
}

void BackgroundLane::wait() {
    const SliceFn* fn;
    size_t total;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_fn == nullptr) return;
        fn = m_fn;
        total = m_total;
    }
    size_t done = claimSlices(*fn, total);
    std::unique_lock<std::mutex> lock(m_mutex);
    m_finished += done;
    // Once every slice is done the helper must not pick this job up any more, and if it is
    // inside it we wait for it to leave, so that the next start can reset the counters.
    m_open = false;
    m_done.wait(lock, [this] { return m_finished == m_total && !m_busy; });
    m_fn = nullptr;
}

void BackgroundLane::run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_work.wait(lock, [this] { return m_stop || (m_open && m_taken != m_job); });
        if (m_stop) return;
        m_taken = m_job;
        m_busy = true;
        const SliceFn* fn = m_fn;
        size_t total = m_total;
        lock.unlock();
        size_t done = claimSlices(*fn, total);
        lock.lock();
        m_finished += done;
        m_busy = false;
        m_done.notify_all();
    }
}
