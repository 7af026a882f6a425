// bench-support.h: what the benches measure and the data they make: a process's peak
// resident memory and CPU time read from /proc, the peaks of a whole family of child
// processes while they run, and large files of random bytes. Every bench links it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>

// Seconds on the steady clock since `start`.
double SecondsSince(std::chrono::steady_clock::time_point start);

// The peak resident memory (VmHWM) of `pid`, 0 meaning this process, in KiB; 0 when it
// can't be read (the process is gone).
uint64_t PeakKiB(pid_t pid = 0);
// Starts the process's peak over from what it holds now; false when refused (another
// user's process) or gone.
bool ResetPeak(pid_t pid = 0);
// User plus system CPU seconds of `pid` so far; 0 when it can't be read.
double CpuSeconds(pid_t pid);

// Writes `bytes` random bytes made from `seed` to `path`, replacing it. The generator runs
// on, so no two MiB of the file are alike and nothing can be matched by chance. False
// when the file can't be written.
bool WriteRandomFile(const std::string& path, uint64_t bytes, uint64_t seed);

// Follows every descendant of this process while it runs, sampling each one's VmHWM every
// 20 ms, and sums the last figure of each: the peak memory of a client and server family,
// forked helpers included. A process that lives less than one sample is missed; Add lets a
// caller put in the exact figure of a child it reaped itself (wait4's ru_maxrss).
class DescendantPeaks {
  public:
    DescendantPeaks();
    // Stops sampling.
    ~DescendantPeaks();
    DescendantPeaks(const DescendantPeaks&) = delete;
    DescendantPeaks& operator=(const DescendantPeaks&) = delete;

    // Counts `kib` for `pid` when it is more than was sampled.
    void Add(pid_t pid, uint64_t kib);
    // The sum over every process seen so far, in KiB.
    uint64_t TotalKiB();

  private:
    void Sample();

    std::mutex m_mutex;
    std::map<pid_t, uint64_t> m_peaks;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};
