// relay-session.h: one client of the relay, on the relay's thread for it. It completes the
// TLS handshake, reads the upgrade request, checks that the token vouches for the target
// asked for, connects to the target and answers with X-Target-Status. After a success both
// ends drop TLS without a close notification and the session copies bytes both ways until
// either side closes. Every wait is a slice short enough for the relay's stop to be seen.
#pragma once

#include <openssl/types.h>

#include <atomic>
#include <string>

#include "relay-options.h"

class RelaySession {
  public:
    // Takes ownership of the accepted socket `fd`; `ctx` and `stopping` outlive the session.
    RelaySession(int fd, std::string peer, SSL_CTX* ctx, const RelayOptions& options,
                 const std::atomic<bool>& stopping);
    // Closes both sockets and frees the TLS session if it still stands.
    ~RelaySession();
    RelaySession(const RelaySession&) = delete;
    RelaySession& operator=(const RelaySession&) = delete;

    // Serves the client to the end; done() is true afterwards.
    void Run();
    bool done() const { return m_done.load(); }

  private:
    struct Request {
        std::string host;
        std::string port_text;
        int port = 0;
        std::string token;
    };

    // Runs one TLS call until it completes: its positive result, or 0 on failure, stop
    // or, with `limited`, the request's deadline.
    template <typename Op>
    int SslCall(Op op, bool limited);
    // The upgrade request's header block. false when it can't be read or is too long.
    bool ReadRequest(std::string& text);
    // A relay result for the request: ZEPHTUNNEL_OK when it can be served.
    int Parse(const std::string& text, Request& request) const;
    int CheckToken(const Request& request) const;
    // Connects m_target to the target: ZEPHTUNNEL_OK, or the result to answer.
    int ConnectTarget(const Request& request);
    // The answer for `status`; false when it could not be sent.
    bool Answer(int status);
    // Copies bytes both ways until either side closes, or the relay stops.
    void Splice();
    // One wait for `events` on `fd`; false when the wait failed or the relay is stopping.
    bool PollSlice(int fd, short events, int timeout_ms) const;

    int m_fd;
    std::string m_peer;
    int m_target = -1;
    SSL* m_ssl = nullptr;
    SSL_CTX* m_ctx;
    const RelayOptions& m_options;
    const std::atomic<bool>& m_stopping;
    long long m_deadline_ms = 0;
    std::atomic<bool> m_done{false};
};
