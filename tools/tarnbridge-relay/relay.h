// relay.h: tarnbridge-relay's listener. It accepts TLS clients on the configured address
// and serves each on a thread of its own (relay-session.h). main runs one; tests run one
// in-process on a port the system picks.
#pragma once

#include <openssl/types.h>

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "foundation/mutex.h"
#include "relay-options.h"

class RelaySession;

class Relay {
  public:
    explicit Relay(RelayOptions options);
    // Stop().
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    // Makes the TLS context, binds and starts accepting. 0, or -1 with the reason in
    // `error`.
    int Start(std::string& error);
    // The bound port (the system's pick when the options said 0).
    int port() const { return m_port; }
    // Stops accepting, ends every session within a fraction of a second and joins their
    // threads. Idempotent.
    void Stop();
    // Clients accepted since Start.
    size_t AcceptedCount() const { return m_accepted.load(); }

  private:
    struct Served {
        std::unique_ptr<RelaySession> session;
        std::thread thread;
    };
    void AcceptLoop();
    // Joins the threads of finished sessions, or of all with `all`.
    void Reap(bool all) EXCLUDES(m_mutex);

    RelayOptions m_options;
    SSL_CTX* m_ctx = nullptr;
    int m_listen_fd = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<size_t> m_accepted{0};
    std::thread m_acceptor;
    Mutex m_mutex;
    std::list<Served> m_sessions GUARDED_BY(m_mutex);
};
