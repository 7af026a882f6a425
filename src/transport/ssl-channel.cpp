// ssl-channel.cpp: the conversion, the handshake loop, the TLS slices and the identity check.
#include "transport/ssl-channel.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>

#include "foundation/error-code.h"
#include "foundation/log.h"
#include "foundation/mutex.h"
#include "platform/fs.h"
#include "platform/net.h"

namespace {

const ustring& component() {
    static const ustring name("channel_debug");
    return name;
}

// Larger than any certificate bundle a system ships; a bigger file is not one.
constexpr uint64_t kMaxPemBytes = 16u << 20;

Mutex g_paths_mutex;
ustring g_cert_path GUARDED_BY(g_paths_mutex) = "/usr/zeph/etc/ssl/ssl.crt/server.crt";
ustring g_key_path GUARDED_BY(g_paths_mutex) = "/usr/zeph/etc/ssl/ssl.key/server.key";

ustring CertPath() {
    MutexLock guard(g_paths_mutex);
    return g_cert_path;
}

ustring KeyPath() {
    MutexLock guard(g_paths_mutex);
    return g_key_path;
}

struct BioFree {
    void operator()(BIO* b) const { BIO_free(b); }
};
struct X509Free {
    void operator()(X509* x) const { X509_free(x); }
};
struct PkeyFree {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;

// A PEM file's bytes in a memory BIO, read through the platform's file system; null (with
// the errno-style reason in `err`) when it can't be read or is too big to be PEM.
BioPtr ReadPem(const ustring& path, int& err) {
    platform::FileSystem& fs = platform::file_system();
    std::unique_ptr<platform::File> file;
    uint64_t size = 0;
    err = 0;
    if (fs.open(path.c_str_utf8(), platform::kOpenRead, file, &err) < 0 ||
        file->size(size, &err) < 0)
        return nullptr;
    if (size > kMaxPemBytes) {
        err = EFBIG;
        return nullptr;
    }
    std::string bytes(size, '\0');
    const int64_t got = platform::read_full(*file, bytes.data(), bytes.size(), &err);
    if (got < 0) return nullptr;
    bytes.resize(static_cast<size_t>(got));
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (bio && BIO_write(bio.get(), bytes.data(), static_cast<int>(bytes.size())) !=
                   static_cast<int>(bytes.size()))
        bio.reset();
    return bio;
}

// One wait of a TLS slice on the session's socket.
platform::WaitResult WaitSocket(SSL* ssl, bool for_write, int timeout_ms, int& err) {
    err = 0;
    return platform::wait_ready(SSL_get_fd(ssl), for_write, timeout_ms, &err);
}

bool WantsMore(int ssl_error) {
    return ssl_error == SSL_ERROR_WANT_READ || ssl_error == SSL_ERROR_WANT_WRITE;
}

// A TLS read that returned `n`: the count, or the code of the slice.
int ReadResult(SSL* ssl, int n) {
    if (n > 0) {
        Logger::LogMsg(Logger::L_DEBUG, component(), "[DEBUG] channel(%d): ReadFd: read %d bytes\n",
                       __LINE__, n);
        return n;
    }
    if (WantsMore(SSL_get_error(ssl, n))) {
        Logger::LogMsg(Logger::L_DEBUG, component(), "[DEBUG] channel(%d): SSL want read",
                       __LINE__);
        return ERR_TIMEOUT;
    }
    Logger::LogMsg(Logger::L_WARNING, component(),
                   "[WARNING] channel(%d): Diagnose: SSL_read failed\n", __LINE__);
    log_ssl();
    return ERR_IO;
}

// The pin as 64 upper-case hex digits, or empty when it is not a SHA-256 fingerprint.
std::string NormalisedPin(const std::string& text) {
    std::string hex;
    for (char c : text) {
        if (c == ':') continue;
        if (!std::isxdigit(static_cast<unsigned char>(c))) return std::string();
        hex += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return hex.size() == 64 ? hex : std::string();
}

// Makes the session refuse a chain that doesn't lead to the bundle, or a certificate
// that doesn't name the server. 0, or -6 when the bundle gives no certificate.
int RequireChain(SSL* ssl, SSL_CTX* ctx, const TlsIdentity& identity) {
    int err = 0;
    BioPtr pem = ReadPem(identity.ca_file, err);
    X509_STORE* store = SSL_CTX_get_cert_store(ctx);
    int loaded = 0;
    while (pem) {
        X509Ptr cert(PEM_read_bio_X509(pem.get(), nullptr, nullptr, nullptr));
        if (!cert) break;
        if (X509_STORE_add_cert(store, cert.get()) == 1) ++loaded;
    }
    ERR_clear_error();  // the end of the bundle reads as an error
    if (loaded == 0) {
        Logger::LogMsg(Logger::L_WARNING, component(),
                       "[WARNING] channel(%d): ssl_ca_file '%s' holds no certificate (%s)\n",
                       __LINE__, identity.ca_file.c_str_utf8(),
                       err != 0 ? platform::error_text(err) : "not PEM");
        return ERR_AUTH;
    }
    X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
    const char* host = identity.host.c_str_utf8();
    // An address must appear as an address in the certificate, a name as a name.
    if (X509_VERIFY_PARAM_set1_ip_asc(param, host) != 1) {
        ERR_clear_error();
        X509_VERIFY_PARAM_set1_host(param, host, 0);
    }
    SSL_set_verify(ssl, SSL_VERIFY_PEER, nullptr);
    return 0;
}

// After the handshake: 0 when the certificate has the pinned fingerprint, else -6.
int CheckPin(SSL* ssl, const TlsIdentity& identity) {
    const std::string want = NormalisedPin(identity.pin.str());
    if (want.empty()) {
        Logger::LogMsg(Logger::L_WARNING, component(),
                       "[WARNING] channel(%d): ssl_pin '%s' is not a SHA-256 fingerprint\n",
                       __LINE__, identity.pin.c_str_utf8());
        return ERR_AUTH;
    }
    X509Ptr cert(SSL_get1_peer_certificate(ssl));
    const std::string seen = cert ? NormalisedPin(CertificateFingerprint(cert.get())) : "";
    if (seen == want) return 0;
    Logger::LogMsg(Logger::L_WARNING, component(),
                   "[WARNING] channel(%d): server certificate %s does not match ssl_pin\n",
                   __LINE__, seen.empty() ? "(none)" : CertificateFingerprint(cert.get()).c_str());
    return ERR_AUTH;
}

// Why a handshake with a chain to check failed: -6 when the chain or name was refused.
int HandshakeFailure(SSL* ssl, const TlsIdentity& identity) {
    const long verdict = SSL_get_verify_result(ssl);
    if (identity.ca_file.empty() || verdict == X509_V_OK) return ERR_IO;
    Logger::LogMsg(Logger::L_WARNING, component(),
                   "[WARNING] channel(%d): server certificate refused by ssl_ca_file: %s\n",
                   __LINE__, X509_verify_cert_error_string(verdict));
    return ERR_AUTH;
}

// The client's checks around the handshake: 0, or -2/-6 as ConvertToSSLChannel gives.
int ClientHandshake(Channel& ch, SSL* ssl, SSL_CTX* ctx, const TlsIdentity& identity) {
    if (!identity.ca_file.empty()) {
        if (int rc = RequireChain(ssl, ctx, identity); rc < 0) return rc;
    }
    if (SSLHandshake(ssl, ch.WaitSliceMs(), ch.GetTimeout(), &ch) < 0) {
        const int rc = HandshakeFailure(ssl, identity);
        if (rc == ERR_IO)
            Logger::LogMsg(Logger::L_WARNING, component(),
                           "[WARNING] channel(%d): Open to SSL connect to server failed\n",
                           __LINE__);
        return rc;
    }
    return identity.pin.empty() ? 0 : CheckPin(ssl, identity);
}

}  // namespace

SslMode::~SslMode() {
    DeinitSSL(m_ssl, m_ctx, true);
}

int SslMode::read_(char* buf, size_t len, int timeout_ms) {
    return SSLReadFd(m_ssl, buf, len, timeout_ms);
}

int SslMode::write(const char* buf, size_t len, int timeout_ms) {
    return SSLWriteFd(m_ssl, buf, len, timeout_ms);
}

void SslMode::close() {
    Logger::LogMsg(Logger::L_DEBUG, component(), "[DEBUG] channel(%d): destroy ssl obj %p\n",
                   __LINE__, static_cast<void*>(m_ssl));
    const platform::socket_t fd = get_fd();
    DeinitSSL(m_ssl, m_ctx, false);
    ChannelOps::close();
    if (fd != platform::kInvalidSocket)
        Logger::LogMsg(Logger::L_DEBUG, component(),
                       "[DEBUG] channel(%d): Channel: socket %d closed\n", __LINE__, fd);
}

int ConvertToSSLChannel(Channel& ch, bool isServer, const TlsIdentity& identity) {
    if (ch.IsSSL()) {
        Logger::LogMsg(Logger::L_WARNING, component(),
                       "[WARNING] channel(%d): ConvertToSSLChannel: Channel is SSL channel, no "
                       "need to be converted\n",
                       __LINE__);
        return 0;
    }
    SSL* ssl = nullptr;
    SSL_CTX* ctx = nullptr;
    if (InitSSL(ssl, ctx, isServer) < 0) {
        Logger::LogMsg(Logger::L_WARNING, component(),
                       "[WARNING] channel(%d): Open: init ssl failed\n", __LINE__);
        return ERR_IO;
    }
    const platform::socket_t fd = ch.GetSocket();
    int rc = ERR_IO;
    if (fd == platform::kInvalidSocket || SSL_set_fd(ssl, fd) != 1) {
        Logger::LogMsg(Logger::L_WARNING, component(), "[WARNING] channel(%d): set fd failed\n",
                       __LINE__);
        log_ssl();
    } else if (isServer) {
        rc = SSLHandshake(ssl, ch.WaitSliceMs(), ch.GetTimeout(), &ch) < 0 ? ERR_IO : 0;
        if (rc < 0)
            Logger::LogMsg(Logger::L_WARNING, component(),
                           "[WARNING] channel(%d): Open to SSL connect to server failed\n",
                           __LINE__);
    } else {
        rc = ClientHandshake(ch, ssl, ctx, identity);
    }
    if (rc == 0 && ch.SwitchChannelOp(std::make_unique<SslMode>(ssl, ctx)) == 0) return 0;
    // A mode the channel refused has freed the session with itself.
    if (rc == 0) return ERR_IO;
    DeinitSSL(ssl, ctx, true);
    return rc == ERR_AUTH ? ERR_AUTH : ERR_IO;
}

int InitSSL(SSL*& ssl, SSL_CTX*& ctx, bool isServer) {
    ssl = nullptr;
    ctx = SSL_CTX_new(isServer ? TLS_server_method() : TLS_client_method());
    if (ctx == nullptr) {
        Logger::LogMsg(Logger::L_WARNING, component(),
                       "[WARNING] channel(%d): m_ssl_ctx created failed\n", __LINE__);
        log_ssl();
        return -1;
    }
    if (!isServer && SSL_CTX_set_cipher_list(ctx, "RC4-MD5") != 1) {
        // Current libraries carry no RC4 or MD5 suite: the default list stands.
        Logger::LogMsg(Logger::L_WARNING, component(),
                       "[WARNING] channel(%d): can't set cipher suit to "
                       "SSL3_TXT_RSA_RC4_128_MD5\n",
                       __LINE__);
        ERR_clear_error();
    }
    // A slice may send part of the ring, and the ring moves on between slices.
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    ssl = SSL_new(ctx);
    int rc = 0;
    if (ssl == nullptr) {
        Logger::LogMsg(Logger::L_WARNING, component(),
                       "[WARNING] channel(%d): m_ssl created failed\n", __LINE__);
        rc = -1;
    } else if (!isServer) {
        SSL_set_connect_state(ssl);
    } else if (InstallCERT(ssl) < 0) {
        Logger::LogMsg(Logger::L_WARNING, component(),
                       "[WARNING] channel(%d): Open: init ssl certificate failed\n", __LINE__);
        rc = -1;
    } else if (InstallPriKey(ssl) < 0) {
        Logger::LogMsg(Logger::L_WARNING, component(),
                       "[WARNING] channel(%d): Open: init ssl private key failed\n", __LINE__);
        rc = -1;
    } else {
        SSL_set_accept_state(ssl);
    }
    if (rc < 0) DeinitSSL(ssl, ctx, false);
    return rc;
}

void DeinitSSL(SSL*& ssl, SSL_CTX*& ctx, bool quiet) {
    if (ssl != nullptr) {
        if (quiet) SSL_set_quiet_shutdown(ssl, 1);
        // A session that never finished its handshake has nothing to close.
        if (SSL_is_init_finished(ssl)) SSL_shutdown(ssl);
        SSL_free(ssl);
        ssl = nullptr;
    }
    if (ctx != nullptr) {
        SSL_CTX_free(ctx);
        ctx = nullptr;
    }
    ERR_clear_error();
}

int SSLHandshake(SSL* ssl, int slice_ms, uint32_t channel_timeout, const Channel* abort_source) {
    int64_t silent_ms = 0;
    for (;;) {
        if (abort_source != nullptr && abort_source->Aborted()) return ERR_INT;
        ERR_clear_error();
        const int n = SSL_do_handshake(ssl);
        if (n == 1) return 0;
        const int ssl_error = SSL_get_error(ssl, n);
        if (n == 0 || !WantsMore(ssl_error)) {
            Logger::LogMsg(Logger::L_WARNING, component(),
                           "[WARNING] channel(%d): SSLHandshake: SSL error code: %d\n", __LINE__,
                           ssl_error);
            log_ssl();
            return ERR_IO;
        }
        int err = 0;
        switch (WaitSocket(ssl, ssl_error == SSL_ERROR_WANT_WRITE, slice_ms, err)) {
            case platform::WAIT_ERROR:
                Logger::LogMsg(Logger::L_WARNING, component(),
                               "[WARNING] channel(%d): SSLHandshake: select: Error Code: %d\n",
                               __LINE__, err);
                return ERR_SYS;
            case platform::WAIT_TIMEOUT:
                silent_ms += slice_ms;
                if (channel_timeout == 0 || silent_ms < int64_t{channel_timeout} * 1000) continue;
                Logger::LogMsg(Logger::L_WARNING, component(),
                               "[WARNING] channel(%d): SSLHandshake: timed out during connect (%d "
                               "seconds), abort anyway\n",
                               __LINE__, static_cast<int>(channel_timeout));
                return ERR_TIMEOUT;
            case platform::WAIT_NOT_READY:
                Logger::LogMsg(Logger::L_WARNING, component(),
                               "[WARNING] channel(%d): SSLHandshake: select returns but fd is not "
                               "set\n",
                               __LINE__);
                return ERR_SYS;
            case platform::WAIT_READY:
                Logger::LogMsg(Logger::L_DEBUG, component(),
                               "[DEBUG] channel(%d): SSLHandshake: reset timeout\n", __LINE__);
                silent_ms = 0;
                break;
        }
    }
}

void SetCERTPath(const ustring& path) {
    MutexLock guard(g_paths_mutex);
    g_cert_path = path;
}

void SetPriKeyPath(const ustring& path) {
    MutexLock guard(g_paths_mutex);
    g_key_path = path;
}

int InstallCERT(SSL* ssl) {
    int err = 0;
    BioPtr pem = ReadPem(CertPath(), err);
    X509Ptr cert(pem ? PEM_read_bio_X509(pem.get(), nullptr, nullptr, nullptr) : nullptr);
    if (cert && SSL_use_certificate(ssl, cert.get()) == 1) return 0;
    Logger::LogMsg(Logger::L_WARNING, component(),
                   "[WARNING] channel(%d): Install certificate failed\n", __LINE__);
    log_ssl();
    return -1;
}

int InstallPriKey(SSL* ssl) {
    int err = 0;
    BioPtr pem = ReadPem(KeyPath(), err);
    std::unique_ptr<EVP_PKEY, PkeyFree> key(
        pem ? PEM_read_bio_PrivateKey(pem.get(), nullptr, nullptr, nullptr) : nullptr);
    if (key && SSL_use_PrivateKey(ssl, key.get()) == 1) return 0;
    Logger::LogMsg(Logger::L_WARNING, component(),
                   "[WARNING] channel(%d): Install private key failed\n", __LINE__);
    log_ssl();
    return -1;
}

int SSLReadFd(SSL* ssl, char* buffer, size_t length, int timeout_ms) {
    if (length == 0) return 0;
    const int capped = static_cast<int>(std::min<size_t>(length, INT32_MAX));
    ERR_clear_error();
    const int pending = SSL_pending(ssl);
    if (pending > 0) return ReadResult(ssl, SSL_read(ssl, buffer, std::min(pending, capped)));
    int err = 0;
    switch (WaitSocket(ssl, false, timeout_ms, err)) {
        case platform::WAIT_ERROR:
            Logger::LogMsg(Logger::L_WARNING, component(),
                           "[WARNING] channel(%d): select: [%d] %s\n", __LINE__, err,
                           platform::error_text(err));
            return ERR_IO;
        case platform::WAIT_TIMEOUT:
            return ERR_TIMEOUT;
        case platform::WAIT_NOT_READY:
            Logger::LogMsg(Logger::L_WARNING, component(),
                           "[WARNING] channel(%d): ReadFd: select but fd [%d] not ready\n",
                           __LINE__, SSL_get_fd(ssl));
            return ERR_SYS;
        case platform::WAIT_READY:
            break;
    }
    return ReadResult(ssl, SSL_read(ssl, buffer, capped));
}

int SSLWriteFd(SSL* ssl, const char* buffer, size_t length, int timeout_ms) {
    int err = 0;
    switch (WaitSocket(ssl, true, timeout_ms, err)) {
        case platform::WAIT_ERROR:
            Logger::LogMsg(Logger::L_WARNING, component(), "[WARNING] channel(%d): select: %s\n",
                           __LINE__, platform::error_text(err));
            return ERR_IO;
        case platform::WAIT_TIMEOUT:
            Logger::LogMsg(Logger::L_DEBUG, component(), "[DEBUG] channel(%d): select: timeout\n",
                           __LINE__);
            return ERR_TIMEOUT;
        case platform::WAIT_NOT_READY:
            Logger::LogMsg(Logger::L_WARNING, component(),
                           "[WARNING] channel(%d): WriteFd: select but fd [%d] not ready\n",
                           __LINE__, SSL_get_fd(ssl));
            return ERR_SYS;
        case platform::WAIT_READY:
            break;
    }
    ERR_clear_error();
    errno = 0;
    const int n = SSL_write(ssl, buffer, static_cast<int>(std::min<size_t>(length, INT32_MAX)));
    if (n > 0) return n;
    const int ssl_error = SSL_get_error(ssl, n);
    const int sys_errno = errno;
    if (WantsMore(ssl_error)) {
        Logger::LogMsg(Logger::L_DEBUG, component(), "[DEBUG] channel(%d): SSL want write\n",
                       __LINE__);
        return ERR_TIMEOUT;
    }
    if (ssl_error == SSL_ERROR_SYSCALL) {
        Logger::LogMsg(Logger::L_WARNING, component(),
                       "[WARNING] channel(%d): syscall error: n = %d, ssl_ret = %d, errno = %d, "
                       "err = %s\n",
                       __LINE__, n, ssl_error, sys_errno, platform::error_text(sys_errno));
        log_ssl();
        return ERR_SYS;
    }
    Logger::LogMsg(Logger::L_WARNING, component(),
                   "[WARNING] channel(%d): misc error: n = %d, ssl_ret = %d, errno = %d\n",
                   __LINE__, n, ssl_error, sys_errno);
    log_ssl();
    return ERR_IO;
}

void log_ssl() {
    for (unsigned long e = ERR_get_error(); e != 0; e = ERR_get_error()) {
        char text[256];
        ERR_error_string_n(e, text, sizeof text);
        Logger::LogMsg(Logger::L_WARNING, component(), "[WARNING] channel(%d): ssl-errors: %s\n",
                       __LINE__, text);
    }
}

std::string CertificateFingerprint(X509* cert) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (cert == nullptr || X509_digest(cert, EVP_sha256(), md, &n) != 1) return std::string();
    static const char kHex[] = "0123456789ABCDEF";
    std::string text;
    for (unsigned int i = 0; i < n; ++i) {
        if (i > 0) text += ':';
        text += kHex[md[i] >> 4];
        text += kHex[md[i] & 0xF];
    }
    return text;
}
