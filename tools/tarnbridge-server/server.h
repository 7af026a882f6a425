// server.h: the listening server: opens the store (cleaning up after a crash, refusing a
// store whose records lack their contents), listens on the configured address and port,
// and serves each connection on a thread of its own; one commit queue makes every change
// and one timer sends every keep-alive. main runs one; tests run one in-process on a port
// the system picks. With TLS on, the data folder's certificate (made when missing) is what
// every TLS connection presents; it is process-wide, so servers sharing a process present
// the certificate of the one started last.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include "commit-queue.h"
#include "faults.h"
#include "keep-alive.h"
#include "server-options.h"

class Session;

class Server {
  public:
    explicit Server(const ServerOptions& options);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Prepares the data folder, binds and starts accepting. 0, or -1 (logged) when the
    // store can't be opened or the address can't be bound.
    int Start();
    // The bound port (the system's pick when the options said 0).
    int port() const { return m_port; }
    // Stops accepting, ends every connection and joins their threads. Idempotent.
    void Stop();
    // Connections being served now.
    size_t ConnectionCount();
    // The commit queue's counts, and the files and folders flushed for contents.
    CommitQueue::Stats CommitStats() { return m_queue.stats(); }
    // Connections accepted since Start: how often clients had to connect anew.
    size_t AcceptedCount() const { return m_accepted.load(); }

  private:
    struct Connection {
        std::unique_ptr<Session> session;
        std::thread thread;
    };
    // Makes sure the certificate exists and presents it. 0 or -1.
    int UseCertificate();
    void AcceptLoop();
    void Reap(bool all);

    ServerOptions m_options;
    Faults m_faults;
    CommitQueue m_queue;
    KeepAlive m_keep_alive;
    int m_listen_fd = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<size_t> m_accepted{0};
    std::thread m_acceptor;
    std::mutex m_mutex;  // guards m_connections
    std::list<Connection> m_connections;
};
