// bench-support.cpp: /proc readings and random files for the benches.
#include "bench-support.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <vector>

namespace {

std::string ProcPath(pid_t pid, const char* what) {
    return "/proc/" + (pid == 0 ? std::string("self") : std::to_string(pid)) + "/" + what;
}

// The children of every thread of `pid`: a multi-threaded program may fork from any thread.
std::vector<pid_t> ChildrenOf(pid_t pid) {
    std::vector<pid_t> out;
    const std::string tasks = ProcPath(pid, "task");
    DIR* dir = ::opendir(tasks.c_str());
    if (dir == nullptr) return out;
    while (const dirent* e = ::readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        std::ifstream in(tasks + "/" + e->d_name + "/children");
        for (pid_t child; in >> child;) out.push_back(child);
    }
    ::closedir(dir);
    return out;
}

}  // namespace

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

uint64_t PeakKiB(pid_t pid) {
    std::ifstream status(ProcPath(pid, "status"));
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::strtoull(line.c_str() + 6, nullptr, 10);
    return 0;
}

bool ResetPeak(pid_t pid) {
    std::ofstream out(ProcPath(pid, "clear_refs"));
    out << "5";
    return static_cast<bool>(out.flush());
}

double CpuSeconds(pid_t pid) {
    std::ifstream stat(ProcPath(pid, "stat"));
    const std::string text((std::istreambuf_iterator<char>(stat)), {});
    const size_t paren = text.rfind(')');
    if (paren == std::string::npos) return 0;
    // After the command's closing parenthesis, utime and stime are the 12th and 13th fields.
    std::istringstream rest(text.substr(paren + 2));
    std::string field;
    double ticks = 0;
    for (int i = 1; i <= 13 && rest >> field; ++i)
        if (i >= 12) ticks += std::strtod(field.c_str(), nullptr);
    return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

bool WriteRandomFile(const std::string& path, uint64_t bytes, uint64_t seed) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    std::mt19937_64 rng(seed);
    std::string piece(1 << 20, '\0');
    for (uint64_t left = bytes; left > 0 && out;) {
        for (size_t i = 0; i + 8 <= piece.size(); i += 8) {
            const uint64_t v = rng();
            std::memcpy(&piece[i], &v, 8);
        }
        const uint64_t n = std::min<uint64_t>(left, piece.size());
        out.write(piece.data(), static_cast<std::streamsize>(n));
        left -= n;
    }
    return static_cast<bool>(out.flush());
}

DescendantPeaks::DescendantPeaks() {
    Sample();
    m_thread = std::thread([this] {
        while (!m_stop) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            Sample();
        }
    });
}

DescendantPeaks::~DescendantPeaks() {
    m_stop = true;
    m_thread.join();
}

void DescendantPeaks::Add(pid_t pid, uint64_t kib) {
    std::lock_guard<std::mutex> lock(m_mutex);
    uint64_t& peak = m_peaks[pid];
    peak = std::max(peak, kib);
}

uint64_t DescendantPeaks::TotalKiB() {
    Sample();
    std::lock_guard<std::mutex> lock(m_mutex);
    uint64_t sum = 0;
    for (const auto& [pid, kib] : m_peaks) sum += kib;
    return sum;
}

void DescendantPeaks::Sample() {
    std::vector<pid_t> todo = ChildrenOf(::getpid());
    while (!todo.empty()) {
        const pid_t pid = todo.back();
        todo.pop_back();
        // VmHWM only grows while a process lives, so the last reading is the best one.
        const uint64_t kib = PeakKiB(pid);
        if (kib > 0) Add(pid, kib);
        for (pid_t child : ChildrenOf(pid)) todo.push_back(child);
    }
}
