// tunnel-client.h: the client's side of the relay's handshake, on a TLS session already
// set up with the relay (TunnelChannel's). It asks the relay, with a token only a matching
// relay can read, to connect it to the target, and reads the relay's answer. The socket
// under the session is non-blocking; every wait is one slice of `slice_ms`, and
// `channel_timeout` seconds of silence end it (0: never). When `abort_flag` is given and
// becomes non-zero, the wait gives up within a slice.
#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>

// Sends the upgrade request for `pszTargetHost`:`targetPort` (the Host header is the
// daemon's "relay_host") and reads the answer's lines up to the empty one. The relay's
// X-Target-Status (the header's name in any case; ZEPHTUNNEL_OK when the answer has none,
// or when the relay stays silent past the limit or closes before the empty line);
// -402 or -403 when the request can't be formed or sent (as ZEPHTunnelNonBlockingWrite);
// -1 when the abort flag was raised.
int ZEPHTunnelClientHandshake(SSL* ssl, const char* pszTargetHost, int targetPort, int slice_ms,
                              unsigned int channel_timeout, int* abort_flag = nullptr);

// Writes all `len` bytes through the session. 0; -402 when the socket fails or the session
// refuses; -403 after `channel_timeout` seconds without the socket taking bytes; -1 on abort.
int ZEPHTunnelNonBlockingWrite(SSL* ssl, const char* buffer, size_t len, int slice_ms,
                               uint32_t channel_timeout, int* abort_flag = nullptr);

// Waits until the session has bytes to read: at once when the library holds decrypted
// ones. 0; -402 when the socket fails; -403 after `channel_timeout` seconds of silence; -1
// on abort.
int SSL_read_timeout(SSL* ssl, int slice_ms, uint32_t channel_timeout, int* abort_flag = nullptr);
