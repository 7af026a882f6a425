// process.cpp (POSIX): detached process start, liveness and executable paths.
#include "platform/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace platform {

namespace {

bool read_full(int fd, void* buf, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = ::read(fd, static_cast<char*>(buf) + done, len - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

void write_full(int fd, const void* buf, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = ::write(fd, static_cast<const char*>(buf) + done, len - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

// In the grandchild: standard streams on the null device, then exec. Only returns
// on failure, after reporting errno through `report`.
[[noreturn]] void exec_child(const std::string& program, const std::vector<std::string>& args,
                             int report) {
    int null_fd = ::open("/dev/null", O_RDWR);
    if (null_fd >= 0) {
        ::dup2(null_fd, 0);
        ::dup2(null_fd, 1);
        ::dup2(null_fd, 2);
        if (null_fd > 2) ::close(null_fd);
    }
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execvp(program.c_str(), argv.data());
    int code = errno;
    write_full(report, &code, sizeof code);
    ::_exit(127);
}

}  // namespace

int spawn_detached(const std::string& program, const std::vector<std::string>& args, int* pid,
                   int* err) {
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) {
        if (err != nullptr) *err = errno;
        return -1;
    }
    pid_t first = ::fork();
    if (first < 0) {
        if (err != nullptr) *err = errno;
        ::close(report[0]);
        ::close(report[1]);
        return -1;
    }
    if (first == 0) {
        // The intermediate child leads a new session and leaves at once, so the daemon
        // belongs to no terminal and is nobody's child to reap.
        ::close(report[0]);
        ::setsid();
        pid_t second = ::fork();
        if (second == 0) exec_child(program, args, report[1]);
        int id = second;
        int code = second < 0 ? errno : 0;
        write_full(report[1], &id, sizeof id);
        if (second < 0) write_full(report[1], &code, sizeof code);
        ::_exit(0);
    }
    ::close(report[1]);
    int status = 0;
    while (::waitpid(first, &status, 0) < 0 && errno == EINTR) {
    }
    int id = -1;
    int code = 0;
    bool have_id = read_full(report[0], &id, sizeof id);
    // The write end closes on a successful exec; an error number means it failed.
    bool failed = read_full(report[0], &code, sizeof code);
    ::close(report[0]);
    if (!have_id || id < 0 || failed) {
        if (err != nullptr) *err = failed ? code : ECHILD;
        return -1;
    }
    *pid = id;
    return 0;
}

bool process_alive(int pid) {
    if (pid <= 0 || (::kill(pid, 0) != 0 && errno != EPERM)) return false;
    // A process that has ended but waits to be reaped still answers kill; where the
    // reaper is slow or absent (some containers), its state tells. Its first thread shows
    // that state as soon as it has ended, while the others may still be winding down: the
    // process has gone only when that thread is the last one counted.
    std::string stat_path = "/proc/" + std::to_string(pid) + "/stat";
    FILE* fp = std::fopen(stat_path.c_str(), "re");
    if (fp == nullptr) return true;
    char buf[512];
    size_t n = std::fread(buf, 1, sizeof buf - 1, fp);
    std::fclose(fp);
    std::string stat(buf, n);
    size_t close_paren = stat.rfind(") ");
    if (close_paren == std::string::npos || close_paren + 2 >= stat.size()) return true;
    std::istringstream fields(stat.substr(close_paren + 2));
    char state = 0;
    std::string field;
    fields >> state;
    // num_threads comes 17 fields after the state.
    for (int i = 0; i < 16 && fields >> field; ++i) {
    }
    long threads = 1;
    fields >> threads;
    return (state != 'Z' && state != 'X') || threads > 1;
}

std::string executable_dir() {
    char buf[PATH_MAX];
    ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return std::string();
    std::string path(buf, static_cast<size_t>(n));
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

bool is_executable(const std::string& path) {
    return ::access(path.c_str(), X_OK) == 0;
}

std::string absolute_path(const std::string& path) {
    char buf[PATH_MAX];
    if (::realpath(path.c_str(), buf) != nullptr) return std::string(buf);
    if (!path.empty() && path[0] == '/') return path;
    if (::getcwd(buf, sizeof buf) == nullptr) return std::string();
    return std::string(buf) + "/" + path;
}

}  // namespace platform
