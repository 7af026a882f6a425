// process.h: programs run as people run them, for the tool tests and the end-to-end
// harness (tarnbridge-server, tarnbridge-daemon, the controller): a child with its
// arguments and environment, its output in files, waited for with a deadline, and never
// left behind: a test that forgets it kills its whole process group. Header-only.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/files.h"
#include "support/temp-dir.h"

extern char** environ;

// The programs of this tree, as a person (or the end-to-end harness) runs them.
inline const std::string kControllerBinary = TB_BINARY_DIR "/tools/tarnbridge/tarnbridge";
inline const std::string kDaemonBinary = TB_BINARY_DIR "/tools/tarnbridge-daemon/tarnbridge-daemon";
inline const std::string kServerBinary = TB_BINARY_DIR "/tools/tarnbridge-server/tarnbridge-server";

class ChildProcess {
  public:
    // What Wait gives when the child did not end in time.
    static constexpr int kStillRunning = -1;

    struct Options {
        // "NAME=value" entries laid over this process's environment.
        std::vector<std::string> env;
        // Where standard output and error go: files in a folder of the child's own,
        // removed with it, when empty; an empty `err` shares `out`'s file.
        std::string out;
        std::string err;
    };

    // Starts args[0] (a path) with the arguments that follow, standard input on the null
    // device, in a process group of its own. started() tells whether it began.
    explicit ChildProcess(std::vector<std::string> args, Options options = {})
        : m_options(std::move(options)) {
        if (m_options.out.empty()) m_options.out = m_own.path() + "/out";
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        const int flags = O_WRONLY | O_CREAT | O_TRUNC;
        posix_spawn_file_actions_addopen(&actions, 1, m_options.out.c_str(), flags, 0644);
        if (m_options.err.empty())
            posix_spawn_file_actions_adddup2(&actions, 1, 2);
        else
            posix_spawn_file_actions_addopen(&actions, 2, m_options.err.c_str(), flags, 0644);
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
        std::vector<std::string> env = Environment(m_options.env);
        m_started = posix_spawn(&m_pid, args[0].c_str(), &actions, &attr, Pointers(args).data(),
                                Pointers(env).data()) == 0;
        if (!m_started) m_pid = -1;
        posix_spawnattr_destroy(&attr);
        posix_spawn_file_actions_destroy(&actions);
    }
    ~ChildProcess() { Kill(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return m_started; }
    pid_t pid() const { return m_pid; }

    // Sends `sig` to the child alone (an interrupt, say), while it runs.
    void Signal(int sig) {
        if (m_pid > 0) ::kill(m_pid, sig);
    }
    // The exit code, or 128 + the signal that ended it; kStillRunning when it is still
    // running after `seconds` (or never started).
    int Wait(double seconds = 30) {
        const auto deadline = Deadline(seconds);
        while (m_pid > 0) {
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                break;
            }
            if (std::chrono::steady_clock::now() > deadline) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return m_status;
    }
    // Kills the child's whole group with `sig` and reaps the child; its status.
    int Kill(int sig = SIGKILL) {
        if (m_pid > 0) ::kill(-m_pid, sig);
        return Wait();
    }

    std::string Out() const { return ReadFile(m_options.out); }
    std::string Err() const { return ReadFile(m_options.err); }
    // Waits until `text` is in the output (the error file with `in_err`); false when it
    // isn't within `seconds` or the child ended without it.
    bool WaitForOutput(const std::string& text, double seconds = 10, bool in_err = false) {
        const auto deadline = Deadline(seconds);
        for (;;) {
            const bool ended = Wait(0) != kStillRunning;
            if ((in_err ? Err() : Out()).find(text) != std::string::npos) return true;
            if (ended || std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

  private:
    static std::chrono::steady_clock::time_point Deadline(double seconds) {
        return std::chrono::steady_clock::now() +
               std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                   std::chrono::duration<double>(seconds));
    }
    static std::vector<std::string> Environment(const std::vector<std::string>& overrides) {
        std::vector<std::string> env = overrides;
        for (char** e = environ; *e != nullptr; ++e) {
            const char* eq = std::strchr(*e, '=');
            const std::string name(*e, eq != nullptr ? eq - *e + 1 : std::strlen(*e));
            bool replaced = false;
            for (const std::string& o : overrides) replaced = replaced || o.rfind(name, 0) == 0;
            if (!replaced) env.emplace_back(*e);
        }
        return env;
    }
    static std::vector<char*> Pointers(std::vector<std::string>& strings) {
        std::vector<char*> out;
        for (std::string& s : strings) out.push_back(s.data());
        out.push_back(nullptr);
        return out;
    }

    TempDir m_own;
    Options m_options;
    bool m_started = false;
    pid_t m_pid = -1;
    int m_status = kStillRunning;
};

// A program run to its end: the exit status (as ChildProcess::Wait gives it) and what it
// wrote to both of its output streams.
struct RunResult {
    int status;
    std::string out;
};

// Runs `args`, killing it after `seconds`.
inline RunResult RunProgram(std::vector<std::string> args, double seconds = 30) {
    ChildProcess child(std::move(args));
    const int status = child.Wait(seconds);
    if (status == ChildProcess::kStillRunning) child.Kill();
    return {status, child.Out()};
}
