// background-lane.h: one helper thread that runs a job, cut into slices, while its owner goes
// on with other work; the owner takes the slices still unclaimed when it comes to wait.
// Used by the asynchronous writes of the file layer and by the hashing handlers, so that a
// chunk's output and its checksums are produced while the other handlers see the same chunk.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>

class BackgroundLane {
  public:
    using SliceFn = std::function<void(size_t slice)>;

    BackgroundLane() = default;
    // Waits for a job still running, then stops and joins the thread.
    ~BackgroundLane();
    BackgroundLane(const BackgroundLane&) = delete;
    BackgroundLane& operator=(const BackgroundLane&) = delete;

    // Runs fn(0) .. fn(slices - 1), each exactly once, in any order and on either thread.
    // With `background` false (small jobs, where a thread hand-off costs more than the work)
    // every slice runs here before start returns. `fn` must outlive the matching wait(). One
    // job at a time: every start is followed by a wait before the next start.
    void start(size_t slices, const SliceFn& fn, bool background);

    // Runs the slices nobody has claimed yet on the calling thread, then waits until every
    // slice has finished. Everything the slices wrote is visible to the caller afterwards.
    void wait();

  private:
    void run();
    size_t claimSlices(const SliceFn& fn, size_t total);

    std::mutex m_mutex;
    std::condition_variable m_work;
    std::condition_variable m_done;
    std::thread m_thread;
    const SliceFn* m_fn = nullptr;  // the current job, null when idle
    size_t m_total = 0;
    size_t m_finished = 0;
    std::atomic<size_t> m_next{0};  // next unclaimed slice
    unsigned long m_job = 0;        // bumped by every background start
    unsigned long m_taken = 0;      // last job the helper picked up
    bool m_open = false;            // the helper may still pick up the current job
    bool m_busy = false;            // the helper is inside the current job
    bool m_stop = false;
};
