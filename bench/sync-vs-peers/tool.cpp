// tool.cpp: the changes, the copy, the client runner and the port helpers of the bench.
#include "tool.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/files.h"
#include "support/loopback.h"

extern char** environ;

std::atomic<bool> g_interrupted{false};

namespace fs = std::filesystem;

bool EditMiddle(const std::string& path, unsigned seed) {
    std::error_code ec;
    const uint64_t size = fs::file_size(path, ec);
    std::fstream f(path, std::ios::binary | std::ios::in | std::ios::out);
    if (ec || !f) return false;
    f.seekp(static_cast<std::streamoff>(size / 2));
    const std::string bytes = RandomBytes(1 << 20, seed);
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(f.flush());
}

bool PrepareInsert(const std::string& path, const std::string& staged) {
    std::ifstream in(path, std::ios::binary);
    std::ofstream out(staged, std::ios::binary | std::ios::trunc);
    out.put('+');
    out << in.rdbuf();
    return in && static_cast<bool>(out.flush());
}

bool MoveOver(const std::string& from, const std::string& to) {
    std::error_code ec;
    fs::rename(from, to, ec);
    return !ec;
}

bool CopyTree(const std::string& from, const std::string& to) {
    std::error_code ec;
    fs::copy(from, to, fs::copy_options::recursive, ec);
    return !ec;
}

ClientRun RunClient(const std::vector<std::string>& args, const std::vector<std::string>& env,
                    const std::string& log) {
    ClientRun run;
    std::vector<std::string> all = env;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        const std::string name = entry.substr(0, entry.find('=') + 1);
        bool replaced = false;
        for (const std::string& o : env) replaced = replaced || o.rfind(name, 0) == 0;
        if (!replaced) all.push_back(entry);
    }
    std::vector<char*> argv, envp;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    for (const std::string& e : all) envp.push_back(const_cast<char*>(e.c_str()));
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    const bool started =
        posix_spawn(&run.pid, argv[0], &actions, &attr, argv.data(), envp.data()) == 0;
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    if (!started) return run;
    for (;;) {
        int status = 0;
        rusage usage{};
        const pid_t done = ::wait4(run.pid, &status, WNOHANG, &usage);
        if (done == run.pid) {
            run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            run.peak_kib = static_cast<uint64_t>(usage.ru_maxrss);
            return run;
        }
        if (done < 0) return run;
        if (g_interrupted) ::kill(-run.pid, SIGKILL);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

uint64_t SettledBytes(const std::function<uint64_t()>& relay_total) {
    uint64_t last = relay_total();
    for (int i = 0; i < 40; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const uint64_t now = relay_total();
        if (now == last) return now;
        last = now;
    }
    return last;
}

int FreePort() {
    loopback::Listener listener;
    return listener.port();
}

bool Accepts(int port, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!g_interrupted && std::chrono::steady_clock::now() < end) {
        const int fd = loopback::connect_to(port);
        if (fd >= 0) {
            ::close(fd);
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}
