// daemon-process.h: tarnbridge-daemon as a child process for the end-to-end tests. The
// harness plays the controlling process: it listens where the daemon reports its port,
// sends one request per connection with the project's own encoder, and can stop the
// daemon, kill it with SIGKILL and start it again on the same configuration.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "foundation/channel.h"
#include "foundation/object.h"
#include "support/process.h"
#include "support/temp-dir.h"

class DaemonProcess {
  public:
    // A configuration in a folder of its own (log, databases, system filter), telling the
    // daemon to send notifications to `ui_port` and to run `worker_count` - 1 workers;
    // `extra_config` lines are appended to it as they are.
    DaemonProcess(int ui_port, int worker_count = 3, const std::string& extra_config = "");
    // Kills the daemon if it still runs.
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    // Starts the daemon and learns its port. False when it did not report one in time.
    bool Start();
    // One request and its reply. False when no reply came (the reply is then empty).
    bool Ask(const PObject& request, PObject& reply);
    // A request of `action` alone, or with a session id; the reply, empty on failure.
    PObject Ask(const char* action);
    PObject Ask(const char* action, uint64_t session_id);
    // Sends "stop" and waits for the process to end; its exit status, or
    // ChildProcess::kStillRunning when it did not end in time.
    int Stop();
    // Ends the process with SIGKILL, as a crash or a power cut would.
    void Kill();

    pid_t pid() const { return m_process ? m_process->pid() : -1; }
    int port() const { return m_port; }
    const std::string& home() const { return m_home.path(); }
    const std::string& config() const { return m_config; }
    // What the daemon's open descriptors point at (/proc/PID/fd), files and sockets.
    std::vector<std::string> OpenFiles() const;
    std::string Log() const;

  private:
    TempDir m_home;
    std::string m_config = m_home / "tarnbridge.conf";
    std::unique_ptr<ChildProcess> m_process;
    // The daemon's announcement connection, which it keeps open until it stops.
    std::unique_ptr<Channel> m_announce;
    int m_port = -1;
};
