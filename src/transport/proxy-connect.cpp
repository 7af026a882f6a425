// proxy-connect.cpp: the CONNECT exchange with the proxy, in slices on a non-blocking socket.
#include "transport/proxy-connect.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

#include "foundation/error-code.h"
#include "foundation/log.h"
#include "transport/tunnel-crypto.h"

namespace {

const char* const kLog = "proxy_channel_debug";
// A proxy's answer headers beyond this are not an answer we can use.
constexpr size_t kMaxAnswer = 8192;

// One attempt: the socket, the limits and the names for the log.
struct Attempt {
    platform::socket_t fd = platform::kInvalidSocket;
    const PROXY_WAIT_INFO& wait;
    const char* proxy;
    int proxy_port;
};

bool Aborted(const PROXY_WAIT_INFO& wait) {
    return wait.AbortFlag != nullptr &&
           std::atomic_ref<int>(*wait.AbortFlag).load(std::memory_order_relaxed) != 0;
}

// Waits in slices until the socket is ready: 0, ERR_INT, ERR_IO or ERR_TIMEOUT (logged).
int WaitReady(const Attempt& a, bool for_write, const char* waiting_for) {
    uint64_t silent_ms = 0;
    for (;;) {
        if (Aborted(a.wait)) {
            Logger::LogMsg(Logger::L_WARNING, kLog,
                           "[WARNING] proxy_channel(%d): proxy %s:%d: aborted while waiting "
                           "for %s\n",
                           __LINE__, a.proxy, a.proxy_port, waiting_for);
            return ERR_INT;
        }
        int err = 0;
        const platform::WaitResult w = platform::wait_ready(a.fd, for_write, a.wait.SliceMs, &err);
        if (w == platform::WAIT_READY) return 0;
        if (w != platform::WAIT_TIMEOUT) {
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] proxy_channel(%d): proxy %s:%d: waiting for %s failed: %s\n",
                           __LINE__, a.proxy, a.proxy_port, waiting_for, platform::error_text(err));
            return ERR_IO;
        }
        silent_ms += static_cast<uint64_t>(a.wait.SliceMs);
        if (a.wait.SilenceLimit != 0 && silent_ms >= uint64_t{a.wait.SilenceLimit} * 1000) {
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] proxy_channel(%d): proxy %s:%d: no %s in %u seconds\n",
                           __LINE__, a.proxy, a.proxy_port, waiting_for, a.wait.SilenceLimit);
            return ERR_TIMEOUT;
        }
    }
}

int ConnectToProxy(Attempt& a) {
    int err = 0;
    a.fd = platform::tcp_socket(&err);
    if (a.fd == platform::kInvalidSocket || platform::set_linger(a.fd, 1, &err) != 0 ||
        platform::set_nonblock(a.fd, &err) != 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] proxy_channel(%d): cannot make a socket for proxy %s:%d: %s\n",
                       __LINE__, a.proxy, a.proxy_port, platform::error_text(err));
        return ERR_SYS;
    }
    const int started = platform::connect_start(a.fd, a.proxy, a.proxy_port, &err);
    if (started < 0 && err == 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] proxy_channel(%d): proxy address '%s' is not an IPv4 address\n",
                       __LINE__, a.proxy);
        return ERR_INVAL;
    }
    if (started == 1) {
        if (int rc = WaitReady(a, true, "the connection"); rc != 0) return rc;
        if (platform::connect_result(a.fd, &err) == 0) return 0;
    } else if (started == 0) {
        return 0;
    }
    Logger::LogMsg(Logger::L_ERR, kLog,
                   "[ERROR] proxy_channel(%d): cannot connect to proxy %s:%d: %s\n", __LINE__,
                   a.proxy, a.proxy_port, platform::error_text(err));
    return ERR_IO;
}

// The credentials of the Basic scheme, "Basic " and base64 of "[DOMAIN\]user:password".
std::string BasicCredentials(const PROXY_AUTH_INFO& auth) {
    std::string plain;
    if (auth.szUserDomain != nullptr && *auth.szUserDomain != '\0')
        plain = std::string(auth.szUserDomain) + "\\";
    plain += std::string(auth.szUserName) + ":" + (auth.szUserPasswd ? auth.szUserPasswd : "");
    std::string encoded(plain.size() / 3 * 4 + 8, '\0');
    const size_t len =
        ZEPHCryptoBase64Encode(encoded.data(), encoded.size(),
                               reinterpret_cast<const unsigned char*>(plain.data()), plain.size());
    encoded.resize(len);
    return "Basic " + encoded;
}

std::string ConnectRequest(const PROXY_TARGET_INFO& target, const PROXY_AUTH_INFO& auth) {
    const std::string authority =
        std::string(target.szTargetAddress) + ":" + std::to_string(target.TargetPort);
    std::string request = "CONNECT " + authority + " HTTP/1.1\r\nHost: " + authority + "\r\n";
    if (auth.szUserName != nullptr && *auth.szUserName != '\0')
        request += "Proxy-Authorization: " + BasicCredentials(auth) + "\r\n";
    return request + "\r\n";
}

int SendAll(const Attempt& a, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        if (int rc = WaitReady(a, true, "room to send the request"); rc != 0) return rc;
        int err = 0;
        const long n = platform::send_some(a.fd, bytes.data() + sent, bytes.size() - sent, &err);
        if (n < 0 && platform::is_would_block(err)) continue;
        if (n <= 0) {
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] proxy_channel(%d): proxy %s:%d: sending the request failed: "
                           "%s\n",
                           __LINE__, a.proxy, a.proxy_port, platform::error_text(err));
            return ERR_IO;
        }
        sent += static_cast<size_t>(n);
    }
    return 0;
}

// Reads the answer's headers and no byte past them: those belong to the target. 0 with the
// headers in `answer`, or a code (logged).
int ReadAnswer(const Attempt& a, std::string& answer) {
    char buf[kMaxAnswer];
    while (answer.size() < kMaxAnswer) {
        if (int rc = WaitReady(a, false, "answer"); rc != 0) return rc;
        int err = 0;
        const long peeked = platform::peek_some(a.fd, buf, kMaxAnswer - answer.size(), &err);
        if (peeked < 0 && platform::is_would_block(err)) continue;
        if (peeked <= 0) {
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] proxy_channel(%d): proxy %s:%d closed the connection before "
                           "answering the tunnel request\n",
                           __LINE__, a.proxy, a.proxy_port);
            return ERR_IO;
        }
        const size_t from = answer.size() < 3 ? 0 : answer.size() - 3;
        const size_t before = answer.size();
        answer.append(buf, static_cast<size_t>(peeked));
        const size_t end = answer.find("\r\n\r\n", from);
        const size_t take = end == std::string::npos ? answer.size() : end + 4;
        answer.resize(take);
        if (platform::recv_some(a.fd, buf, take - before, &err) != static_cast<long>(take - before))
            return ERR_IO;
        if (end != std::string::npos) return 0;
    }
    Logger::LogMsg(Logger::L_ERR, kLog,
                   "[ERROR] proxy_channel(%d): proxy %s:%d: answer headers exceed %d bytes\n",
                   __LINE__, a.proxy, a.proxy_port, static_cast<int>(kMaxAnswer));
    return ERR_IO;
}

// The first line of the answer, made safe to log.
std::string FirstLine(const std::string& answer) {
    std::string line = answer.substr(0, std::min(answer.find('\r'), size_t{120}));
    for (char& c : line)
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7E) c = '?';
    return line;
}

// 0 for a 2xx answer; ERR_AUTH when the proxy wants other credentials; otherwise ERR_IO;
// the reason logged.
int CheckAnswer(const Attempt& a, const PROXY_TARGET_INFO& target, const PROXY_AUTH_INFO& auth,
                const std::string& answer) {
    int minor = 0;
    int status = 0;
    if (std::sscanf(answer.c_str(), "HTTP/1.%d %3d", &minor, &status) != 2) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] proxy_channel(%d): proxy %s:%d did not answer in HTTP: '%s'\n",
                       __LINE__, a.proxy, a.proxy_port, FirstLine(answer).c_str());
        return ERR_IO;
    }
    if (status >= 200 && status < 300) return 0;
    const bool has_user = auth.szUserName != nullptr && *auth.szUserName != '\0';
    // Some proxies answer wrong credentials with 401 rather than 407.
    const bool auth_refused = status == 407 || status == 401;
    const char* why = auth_refused    ? (has_user ? "the proxy refused the account's credentials"
                                                  : "the proxy asks for an account")
                      : status == 403 ? "the proxy forbids this target"
                      : status == 502 ? "the proxy could not reach the target"
                                      : "the proxy refused";
    Logger::LogMsg(
        Logger::L_ERR, kLog,
        "[ERROR] proxy_channel(%d): proxy %s:%d refused the tunnel to %s:%d: %s ('%s')\n", __LINE__,
        a.proxy, a.proxy_port, target.szTargetAddress, target.TargetPort, why,
        FirstLine(answer).c_str());
    return auth_refused ? ERR_AUTH : ERR_IO;
}

bool Usable(const PROXY_SERVER_INFO* server, const PROXY_TARGET_INFO* target,
            const PROXY_AUTH_INFO* auth) {
    if (server == nullptr || target == nullptr || auth == nullptr ||
        server->szProxyAddress == nullptr || target->szTargetAddress == nullptr ||
        auth->szUserName == nullptr || *target->szTargetAddress == '\0' || server->ProxyPort == 0 ||
        target->TargetPort == 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] proxy_channel(%d): a tunnel needs a proxy and a target with "
                       "their ports\n",
                       __LINE__);
        return false;
    }
    if (auth->AuthType != PROXY_AUTH_BASIC) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] proxy_channel(%d): proxy authentication type %d is not "
                       "supported\n",
                       __LINE__, auth->AuthType);
        return false;
    }
    return true;
}

}  // namespace

platform::socket_t ZEPHProxyTunnelOpen(const PROXY_SERVER_INFO* server,
                                       const PROXY_TARGET_INFO* target, const PROXY_AUTH_INFO* auth,
                                       const PROXY_WAIT_INFO& wait) {
    if (!Usable(server, target, auth)) return ERR_INVAL;
    Attempt a{platform::kInvalidSocket, wait, server->szProxyAddress, server->ProxyPort};
    std::string answer;
    int rc = ConnectToProxy(a);
    if (rc == 0) rc = SendAll(a, ConnectRequest(*target, *auth));
    if (rc == 0) rc = ReadAnswer(a, answer);
    if (rc == 0) rc = CheckAnswer(a, *target, *auth, answer);
    if (rc == 0) return a.fd;
    if (a.fd != platform::kInvalidSocket) platform::close_socket(a.fd);
    return rc;
}

void ZEPHProxyTunnelClose(platform::socket_t socket) {
    platform::shutdown_close(socket);
}
