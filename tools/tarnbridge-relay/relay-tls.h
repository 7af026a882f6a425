// relay-tls.h: the relay's TLS server context, with the certificate of the options or a
// throwaway self-signed one. Used by Relay at start.
#pragma once

#include <openssl/types.h>

#include <string>

#include "relay-options.h"

// A server context for TLS 1.2 and up, without session tickets (the tunnel's TLS ends
// after one exchange). The caller owns it (SSL_CTX_free). Null, with the reason in
// `error`, when the certificate or key can't be loaded or made, or don't match.
SSL_CTX* MakeRelayContext(const RelayOptions& options, std::string& error);
