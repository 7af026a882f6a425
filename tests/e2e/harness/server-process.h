// server-process.h: the reference server as a child process for the end-to-end tests: its
// own data folder with one account and view, a port the system picks, a fault file, and
// the server-side changes and listing of its command line.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "harness/tree.h"
#include "support/process.h"
#include "support/temp-dir.h"

class ServerProcess {
  public:
    // Makes the account and view and starts the server; ok() tells whether it serves.
    ServerProcess();
    // Stops the server.
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    bool ok() const { return m_port > 0; }
    int port() const { return m_port; }
    // The server's process id; -1 when it does not run.
    pid_t pid() const { return m_process ? m_process->pid() : -1; }
    // The account's session token and its view, as a daemon logs in with them.
    const std::string& session() const { return m_session; }
    uint64_t view_id() const { return m_view_id; }
    // The SHA-256 fingerprint of the server's TLS certificate.
    const std::string& pin() const { return m_pin; }
    const std::string& data_dir() const { return m_data; }

    // Ends the server with SIGKILL, as a crash or a power cut would, and starts it again
    // on the same data and port; false when it did not serve again in time.
    bool Restart();

    // Replaces the fault file, which the server reads again when it changes.
    void WriteFaults(const std::string& text);

    // Changes made on the server's side, as another client would. Each gets sync ids and
    // shows in pulls. True when the command succeeded. `gone`, when given, receives the MD4
    // of every file version the change took off the tree.
    bool Put(const std::string& path, const std::string& bytes,
             std::vector<std::string>* gone = nullptr);
    bool Mkdir(const std::string& path);
    bool Rm(const std::string& path, std::vector<std::string>* gone = nullptr);
    bool Mv(const std::string& from, const std::string& to);
    // The view's tree now, into `tree`; false when it could not be listed.
    bool Listing(Tree& tree);

    // The output of the server so far.
    std::string Output() const;
    // The file payloads the server has sent for `path` so far, in order: bytes, offset and
    // whether each was a delta.
    struct Payload {
        uint64_t bytes = 0;
        uint64_t offset = 0;
        bool delta = false;
    };
    std::vector<Payload> Payloads(const std::string& path) const;

  private:
    // Runs a command of the server's command line on the data folder; true for exit 0.
    bool Command(const std::string& verb, const std::vector<std::string>& args,
                 std::string* out = nullptr);
    // Command, collecting the MD4s of its "gone" lines into `gone` (when given).
    bool Change(const std::string& verb, const std::vector<std::string>& args,
                std::vector<std::string>* gone);
    // Starts the server on `port` (0: one the system picks) and learns the port.
    bool Serve(int port);

    TempDir m_dir;
    std::string m_data = m_dir / "data";
    std::string m_faults = m_dir / "faults";
    std::string m_session;
    std::string m_pin;
    uint64_t m_view_id = 0;
    int m_port = -1;
    int m_puts = 0;  // names the local files that Put sends
    std::unique_ptr<ChildProcess> m_process;
};
