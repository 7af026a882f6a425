// harness.h: running the daemon and the controller as real processes in tests: a
// child process with its output in a file, and a temporary home with a configuration
// whose log and databases all live in it.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/loopback.h"
#include "support/temp-dir.h"

extern char** environ;

namespace harness {

inline const std::string kDaemon =
    std::string(TB_BINARY_DIR) + "/tools/tarnbridge-daemon/tarnbridge-daemon";
inline const std::string kController = std::string(TB_BINARY_DIR) + "/tools/tarnbridge/tarnbridge";

inline std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// A child process with both output streams in one file; killed if a test leaves it.
class Process {
  public:
    Process(std::vector<std::string> argv, const std::string& out_path) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        std::vector<char*> args;
        for (std::string& a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        if (posix_spawn(&m_pid, args[0], &actions, nullptr, args.data(), environ) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Process() {
        if (m_pid <= 0) return;
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // The exit status (minus the signal for a killed process), or -1000 when the
    // process was never started or did not end in time.
    int wait_exit(double seconds = 10) {
        auto t0 = std::chrono::steady_clock::now();
        while (m_pid > 0 && loopback::seconds_since(t0) < seconds) {
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return -1000;
    }

  private:
    pid_t m_pid = -1;
};

// A temporary folder with a configuration whose log and databases all live in it.
struct DaemonHome {
    TempDir dir;
    std::string config = dir / "tarnbridge.conf";
    std::string log = dir / "daemon.log";

    explicit DaemonHome(const std::string& log_path = "") {
        dir.write("tarnbridge.conf",
                  "log_file_path = " + (log_path.empty() ? log : log_path) +
                      "\nlog_level_file_path = " + (dir / "levels") + "\ndb_path = " +
                      (dir / "db.sqlite") + "\nfstat_db_path = " + (dir / "fstat.sqlite") +
                      "\nfilter_db_path = " + (dir / "filter.sqlite") +
                      "\nsystem_filter_path = " + (dir / "system.filter") + "\n");
        dir.write("levels", "client_debug = 7\nipc = 7\n");
        dir.write("system.filter", "[Version]\nmajor = 1\nminor = 0\n");
    }
    std::string log_text() const { return slurp(log); }
};

}  // namespace harness
