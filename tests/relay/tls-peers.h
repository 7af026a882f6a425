// tls-peers.h: the two ends of a relay's TLS for tests, written against OpenSSL directly:
// a client that connects and completes the handshake on a non-blocking socket (the way the
// daemon's tunnel leaves it), and a scripted relay that answers one upgrade request as told.
#pragma once

#include <fcntl.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "foundation/mutex.h"
#include "platform/net.h"
#include "relay-tls.h"
#include "support/loopback.h"

// A TLS client on a non-blocking socket; ssl is null when the handshake failed.
struct TlsClient {
    explicit TlsClient(int port) {
        fd = loopback::connect_to(port);
        ctx = SSL_CTX_new(TLS_client_method());
        ssl = SSL_new(ctx);
        SSL_set_fd(ssl, fd);
        ::fcntl(fd, F_SETFL, O_NONBLOCK);
        for (int rc; (rc = SSL_connect(ssl)) != 1;) {
            const int err = SSL_get_error(ssl, rc);
            pollfd p{fd, static_cast<short>(err == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN), 0};
            if ((err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) ||
                ::poll(&p, 1, 5000) <= 0) {
                SSL_free(ssl);
                ssl = nullptr;
                break;
            }
        }
    }
    ~TlsClient() {
        DropTls();
        SSL_CTX_free(ctx);
        if (fd >= 0) ::close(fd);
    }
    // Ends TLS without a close notification, as the tunnel does; the socket stays open.
    void DropTls() {
        if (ssl == nullptr) return;
        SSL_set_quiet_shutdown(ssl, 1);
        SSL_free(ssl);
        ssl = nullptr;
    }
    // Everything the relay sends until it closes (or 5 seconds pass).
    std::string ReadToEnd() {
        std::string text;
        char buf[1024];
        for (;;) {
            const int n = SSL_read(ssl, buf, sizeof buf);
            if (n > 0) {
                text.append(buf, static_cast<size_t>(n));
                continue;
            }
            pollfd p{fd, POLLIN, 0};
            if (SSL_get_error(ssl, n) != SSL_ERROR_WANT_READ || ::poll(&p, 1, 5000) <= 0)
                return text;
        }
    }

    int fd = -1;
    SSL_CTX* ctx = nullptr;
    SSL* ssl = nullptr;
};

// A relay that reads one upgrade request and sends `answer` (nothing when empty), then
// keeps the connection open until the client closes it or the object goes.
class ScriptedRelay {
  public:
    explicit ScriptedRelay(std::string answer) : m_answer(std::move(answer)) {
        platform::net_init();  // a client that hangs up must not end the test by a signal
        std::string error;
        m_ctx = MakeRelayContext(RelayOptions(), error);
        m_thread = std::thread([this] { Serve(); });
    }
    ~ScriptedRelay() {
        m_stop = true;
        m_thread.join();
        SSL_CTX_free(m_ctx);
    }
    int port() const { return m_listener.port(); }
    // The request as received; complete once the client has read the answer.
    std::string Request() {
        MutexLock lock(m_mutex);
        return m_request;
    }

  private:
    void Serve() {
        const int fd = m_listener.accept();
        SSL* ssl = SSL_new(m_ctx);
        SSL_set_fd(ssl, fd);
        if (SSL_accept(ssl) == 1) {
            char buf[2048];
            std::string request;
            for (int n; request.find("\r\n\r\n") == std::string::npos &&
                        (n = SSL_read(ssl, buf, sizeof buf)) > 0;)
                request.append(buf, static_cast<size_t>(n));
            {
                MutexLock lock(m_mutex);
                m_request = request;
            }
            if (!m_answer.empty())
                SSL_write(ssl, m_answer.data(), static_cast<int>(m_answer.size()));
            pollfd p{fd, POLLIN, 0};
            while (!m_stop && ::poll(&p, 1, 50) == 0) {
            }
        }
        SSL_free(ssl);
        ::close(fd);
    }

    std::string m_answer;
    loopback::Listener m_listener;
    SSL_CTX* m_ctx = nullptr;
    Mutex m_mutex;
    std::string m_request GUARDED_BY(m_mutex);
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};
