// tunnel-client.cpp: the upgrade request, its answer read line by line, and the waits.
#include "transport/tunnel-client.h"

#include <openssl/ssl.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/error-code.h"
#include "foundation/settings.h"
#include "platform/net.h"
#include "transport/tunnel-crypto.h"
#include "transport/tunnel-format.h"

namespace tf = tunnel_format;

namespace {

constexpr int kFailed = -ZEPHTUNNEL_ERR_CONN_FAILED;
constexpr int kTimedOut = -ZEPHTUNNEL_ERR_CONN_TIMEOUT;
// The longest line read at once; a longer one is read as several.
constexpr size_t kLineSize = 1023;

bool Raised(int* flag) {
    return flag != nullptr && std::atomic_ref<int>(*flag).load(std::memory_order_relaxed) != 0;
}

// Waits in slices until the session's socket is ready: 0, ERR_INT, kFailed or kTimedOut.
int WaitSocket(SSL* ssl, bool for_write, int slice_ms, uint32_t limit, int* flag) {
    const platform::socket_t fd = SSL_get_fd(ssl);
    uint64_t elapsed_ms = 0;
    for (;;) {
        if (Raised(flag)) return ERR_INT;
        switch (platform::wait_ready(fd, for_write, slice_ms)) {
            case platform::WAIT_READY:
                return 0;
            case platform::WAIT_TIMEOUT:
                break;
            default:
                return kFailed;
        }
        elapsed_ms += static_cast<uint64_t>(slice_ms);
        if (limit != 0 && elapsed_ms >= uint64_t{limit} * 1000) return kTimedOut;
    }
}

bool StartsWithNoCase(const char* text, const char* prefix) {
    for (; *prefix != '\0'; ++text, ++prefix)
        if (std::tolower(static_cast<unsigned char>(*text)) !=
            std::tolower(static_cast<unsigned char>(*prefix)))
            return false;
    return true;
}

// "X-Target-Status: %d" with the name in any case; false leaves `status` alone.
bool ScanStatus(const char* line, int& status) {
    if (!StartsWithNoCase(line, tf::kStatusHeader)) return false;
    const char* p = line + std::strlen(tf::kStatusHeader);
    while (*p == ' ' || *p == '\t') ++p;
    if (*p++ != ':') return false;
    char* end = nullptr;
    const long value = std::strtol(p, &end, 10);
    if (end == p) return false;
    status = static_cast<int>(value);
    return true;
}

// Takes the next line (through its newline, or what there is) into `line`: its length;
// 0 when the relay has closed; -1 when the session needs more bytes first.
int TakeLine(SSL* ssl, char* line) {
    const int peeked = SSL_peek(ssl, line, static_cast<int>(kLineSize - 1));
    if (peeked <= 0) {
        const int err = SSL_get_error(ssl, peeked);
        return err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE ? -1 : 0;
    }
    const char* newline = static_cast<const char*>(std::memchr(line, '\n', peeked));
    const int want = newline != nullptr ? static_cast<int>(newline - line) + 1 : peeked;
    const int got = SSL_read(ssl, line, want);
    if (got <= 0) return 0;
    line[got] = '\0';
    return got;
}

// Reads the answer's lines into `status` until the empty line, the silence limit or a
// close. 0, or ERR_INT on abort.
int ReadAnswer(SSL* ssl, int slice_ms, uint32_t limit, int* flag, int& status) {
    char line[kLineSize];
    for (;;) {
        const int ready = SSL_read_timeout(ssl, slice_ms, limit, flag);
        if (ready == ERR_INT) return ERR_INT;
        if (ready < 0) return 0;
        const int len = TakeLine(ssl, line);
        if (len < 0) continue;
        if (len == 0 || line[0] == '\r' || line[0] == '\n') return 0;
        ScanStatus(line, status);
    }
}

}  // namespace

int ZEPHTunnelClientHandshake(SSL* ssl, const char* pszTargetHost, int targetPort, int slice_ms,
                              unsigned int channel_timeout, int* abort_flag) {
    char text[tf::kBufferSize];
    unsigned char token[tf::kBufferSize];
    const int target_len = std::snprintf(text, sizeof text, "%s:%d", pszTargetHost, targetPort);
    if (target_len < 0 || static_cast<size_t>(target_len) >= sizeof text) return kFailed;
    // The terminating zero is part of what the relay checks.
    const size_t token_len =
        ZEPHCryptoEncrypt(token, sizeof token, reinterpret_cast<const unsigned char*>(text),
                          static_cast<size_t>(target_len) + 1);
    if (token_len == 0 || ZEPHCryptoBase64Encode(text, sizeof text, token, token_len) == 0)
        return kFailed;
    char* request = reinterpret_cast<char*>(token);
    const ustring relay_host = Settings::getInstance().getRelayHost();
    const int request_len = std::snprintf(
        request, sizeof token, "%s %s %s\r\n%s: %s\r\n%s: %s\r\n%s: %s\r\n%s: %d\r\n%s: %s\r\n\r\n",
        tf::kMethod, tf::kPath, tf::kVersion, tf::kHostHeader, relay_host.c_str_utf8(),
        tf::kUpgradeHeader, tf::kUpgrade, tf::kTargetHostHeader, pszTargetHost,
        tf::kTargetPortHeader, targetPort, tf::kAuthTokenHeader, text);
    if (request_len < 0 || static_cast<size_t>(request_len) >= sizeof token) return kFailed;
    const int sent = ZEPHTunnelNonBlockingWrite(ssl, request, static_cast<size_t>(request_len),
                                                slice_ms, channel_timeout, abort_flag);
    if (sent < 0) return sent;
    int status = ZEPHTUNNEL_OK;
    if (ReadAnswer(ssl, slice_ms, channel_timeout, abort_flag, status) == ERR_INT) return ERR_INT;
    return status;
}

int ZEPHTunnelNonBlockingWrite(SSL* ssl, const char* buffer, size_t len, int slice_ms,
                               uint32_t channel_timeout, int* abort_flag) {
    bool for_write = true;
    for (;;) {
        const int ready = WaitSocket(ssl, for_write, slice_ms, channel_timeout, abort_flag);
        if (ready < 0) return ready;
        const int n = SSL_write(ssl, buffer, static_cast<int>(len));
        if (n > 0) return 0;
        const int err = SSL_get_error(ssl, n);
        if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) return kFailed;
        for_write = err == SSL_ERROR_WANT_WRITE;
    }
}

int SSL_read_timeout(SSL* ssl, int slice_ms, uint32_t channel_timeout, int* abort_flag) {
    if (SSL_pending(ssl) > 0) return 0;
    return WaitSocket(ssl, false, slice_ms, channel_timeout, abort_flag);
}
