// tunnel-format.h: the relay's wire format, written once for both of its ends: the
// daemon's tunnel client (tunnel-client.h, tunnel-crypto.h) and tarnbridge-relay. The
// upgrade request and its answer, the relay's result codes, the layout of the
// authentication token and the fixed values of its key derivation. A relay and a client
// agree only when they are built from the same values.
#pragma once

#include <cstddef>
#include <cstdint>

// The relay's results, sent as the value of the X-Target-Status header. The client's own
// failures during the exchange are the negatives of the last two.
enum {
    ZEPHTUNNEL_OK = 0,
    ZEPHTUNNEL_ERR_UNKNOWN = 400,       // a request the relay could not read
    ZEPHTUNNEL_ERR_BAD_TARGET = 401,    // the token does not vouch for the target asked for
    ZEPHTUNNEL_ERR_CONN_FAILED = 402,   // the target refused or could not be reached
    ZEPHTUNNEL_ERR_CONN_TIMEOUT = 403,  // the target did not answer the connection in time
};

namespace tunnel_format {

// The upgrade request, one line each, every line ended by CR LF, then an empty line:
//   GET <kPath> HTTP/1.1
//   Host: <the relay's host name, the daemon's "relay_host">
//   Upgrade: <kUpgrade>
//   X-Target-Host: <host>
//   X-Target-Port: <port>
//   X-AuthToken: <base64 of the token over "<host>:<port>" and its terminating zero byte>
// The answer is an HTTP status line and headers, ended by an empty line; X-Target-Status
// carries one of the results above. After an answer of ZEPHTUNNEL_OK both ends drop TLS
// without a close notification and the socket carries the target's bytes.
inline constexpr char kMethod[] = "GET";
inline constexpr char kPath[] = "/zeph-tunnel";
inline constexpr char kVersion[] = "HTTP/1.1";
inline constexpr char kUpgrade[] = "ZephanorTunnel";
inline constexpr char kHostHeader[] = "Host";
inline constexpr char kUpgradeHeader[] = "Upgrade";
inline constexpr char kTargetHostHeader[] = "X-Target-Host";
inline constexpr char kTargetPortHeader[] = "X-Target-Port";
inline constexpr char kAuthTokenHeader[] = "X-AuthToken";
inline constexpr char kStatusHeader[] = "X-Target-Status";
// Every buffer of the client's side of the exchange: the target text, the token, the
// request. A longer request can't be formed.
constexpr size_t kBufferSize = 1024;

// The authentication token; integers big-endian. Fields not listed are random filler.
//   0  2  marker, kTokenMarker
//   2  2  format version, at most kTokenVersion
//   10 4  seed of the key, random
//   20 4  payload length n
//   24 n  payload: Triple DES in CBC mode with PKCS padding, key from the seed
//   24+n 2 random filler
constexpr uint16_t kTokenMarker = 0xFFFF;
constexpr uint16_t kTokenVersion = 1;
constexpr size_t kMarkerOffset = 0;
constexpr size_t kVersionOffset = 2;
constexpr size_t kSeedOffset = 10;
constexpr size_t kLengthOffset = 20;
constexpr size_t kPayloadOffset = 24;
constexpr size_t kTrailerSize = 2;
// The bytes of a token around its payload.
constexpr size_t kTokenOverhead = kPayloadOffset + kTrailerSize;
// How much a token may exceed its plain text: the overhead and a whole block of padding.
constexpr size_t kTokenBoundExtra = 34;

// The key: the seed put through seed * kSeedMultiplier + kSeedIncrement (modulo 2^32), the
// SHA-1 digest of those 4 bytes big-endian, then as much of their MD5 digest as fills it.
constexpr uint32_t kSeedMultiplier = 0x9E3779B1u;
constexpr uint32_t kSeedIncrement = 0x7F4A7C15u;
constexpr size_t kKeySize = 24;
constexpr size_t kBlockSize = 8;
inline constexpr unsigned char kIv[kBlockSize] = {0x3A, 0x91, 0x5C, 0x07, 0xE4, 0x28, 0xB6, 0x1F};

}  // namespace tunnel_format
