// ssl-channel.h: TLS on a Channel. An open plain channel turns encrypted in place
// (ConvertToSSLChannel): the same object, rings and socket, with an SslMode put over the
// plain mode, so that everything written for channels runs over TLS unchanged. The
// syncers and workers convert as clients once the server has agreed (exchange.h); the
// reference server converts as the server. The handshake and every TLS read and write wait
// on the socket in the channel's slices, so the silence limit and the abort flag work as
// on a plain channel. The pieces below the conversion are public for the channels that
// reach the server through a relay and run a TLS session of their own on the socket first.
//
// Results follow the channel's: 0 or a count on success, -2 I/O failure, -3 system
// failure, -9 time-out (the caller's loop waits again), and -6 when the server is not the
// one the configuration names. Details go to the log ("channel_debug").
#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "foundation/channel.h"
#include "foundation/ustring.h"

// What a client checks of the server's certificate. Empty, nothing is checked: the link is
// encrypted but anyone who can answer on the server's address is believed.
struct TlsIdentity {
    // A PEM bundle: the certificate's chain must lead to one of these, and the certificate
    // must name `host`.
    ustring ca_file;
    // The SHA-256 fingerprint the certificate must have: 64 hex digits, with or without
    // ':' between the pairs, in either case.
    ustring pin;
    // The server's address as configured (a dotted quad or a DNS name); used with ca_file.
    ustring host;

    bool empty() const { return ca_file.empty() && pin.empty(); }
};

// The mode of an encrypted channel: bytes go through its TLS session over the socket of
// the mode it replaced (its carrier). It owns the session and its context.
class SslMode : public ChannelOps {
  public:
    // Takes ownership of both.
    SslMode(SSL* ssl, SSL_CTX* ctx) : m_ssl(ssl), m_ctx(ctx) {}
    // Frees the session without a close notification and leaves the socket open.
    ~SslMode() override;

    int read_(char* buf, size_t len, int timeout_ms) override;
    int write(const char* buf, size_t len, int timeout_ms) override;
    // The session's close notification, the session freed, then the socket closed.
    void close() override;
    int kind() const override { return Channel::CHANNEL_SSL_MODE; }

  private:
    SSL* m_ssl;
    SSL_CTX* m_ctx;
};

// Turns the open plain channel `ch` into TLS in place, as the server (`isServer`) or as the
// client, which then checks `identity`. Nothing may wait in the rings: the caller has read
// the reply that agreed to TLS and flushed before. 0 (also, with a warning, for a channel
// that is already encrypted); -6 when the server's certificate does not match `identity`
// (or the CA bundle can't be read); -2 for any other failure, after which the channel is a
// plain socket in an unknown state that the caller must drop.
int ConvertToSSLChannel(Channel& ch, bool isServer, const TlsIdentity& identity = TlsIdentity());

// A new context and session for one connection: the client asks for the RC4-MD5 suite and
// takes the library's default list when that is refused; the server presents the
// certificate and key of SetCERTPath and SetPriKeyPath. 0, or -1 with both null.
int InitSSL(SSL*& ssl, SSL_CTX*& ctx, bool isServer);
// Frees the session and context and nulls both; with `quiet` no close notification goes
// out. The socket is left open.
void DeinitSSL(SSL*& ssl, SSL_CTX*& ctx, bool quiet);
// Runs the handshake on the session's non-blocking socket, waiting `slice_ms` at a time.
// `channel_timeout` seconds of silence give up (0: never); each sign of life from the peer
// starts them again. When `abort_source` is given, its abort flag is seen every slice.
// 0; -1 aborted; -2 the handshake failed; -3 the wait failed; -9 the peer stayed silent.
int SSLHandshake(SSL* ssl, int slice_ms, uint32_t channel_timeout,
                 const Channel* abort_source = nullptr);

// The server role's certificate and private key, PEM files read at each conversion; never
// read by a client. Process-wide.
void SetCERTPath(const ustring& path);
void SetPriKeyPath(const ustring& path);
// Loads them into a session. 0, or -1 (logged).
int InstallCERT(SSL* ssl);
int InstallPriKey(SSL* ssl);

// One slice of TLS reading: decrypted bytes the library already holds are taken without a
// wait (the socket can't show them); otherwise one wait of `timeout_ms` and one read. The
// count; -9 nothing yet (also when the library needs more bytes first); -2 or -3.
int SSLReadFd(SSL* ssl, char* buffer, size_t length, int timeout_ms);
// One wait for the socket to take bytes and one write: the count, -9, -2 or -3.
int SSLWriteFd(SSL* ssl, const char* buffer, size_t length, int timeout_ms);

// Moves the library's queued errors into the log, one line each.
void log_ssl();

// The SHA-256 fingerprint of a certificate as people compare it: 32 upper-case hex pairs
// joined by ':'. Empty when it can't be computed.
std::string CertificateFingerprint(X509* cert);
