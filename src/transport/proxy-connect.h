// proxy-connect.h: a tunnel through an HTTP proxy. It connects to the proxy, asks it with
// CONNECT to open a TCP connection to the target, authenticating with Basic when a user
// name is given, and hands back the socket, which from then on carries the target's bytes.
// ProxyChannel and ProxyTunnelChannel open their sockets with it. Safe to call from
// several threads at once, on different sockets.
#pragma once

#include <cstdint>

#include "platform/net.h"

// Where the proxy listens: a dotted-quad IPv4 address.
struct PROXY_SERVER_INFO {
    const char* szProxyAddress;
    uint16_t ProxyPort;
};

// What the proxy is to connect to; the address goes to the proxy as written.
struct PROXY_TARGET_INFO {
    const char* szTargetAddress;
    uint16_t TargetPort;
};

// The proxy account. An empty user name sends no credentials; a domain goes with the
// name as DOMAIN\name. The host is what a challenge-response scheme would name as the
// workstation; Basic has no place for it.
struct PROXY_AUTH_INFO {
    const char* szUserName;
    const char* szUserPasswd;
    const char* szUserDomain;
    const char* szUserHost;
    int AuthType;
};

// The one authentication type there is: Basic when a user name is given, else none.
constexpr int PROXY_AUTH_BASIC = 4;

// How long the exchange with the proxy may wait. Each wait is one slice of SliceMs; the
// proxy may stay silent SilenceLimit seconds at a time (0: for ever); a non-zero value at
// AbortFlag, which another thread may set, ends the attempt within a slice.
struct PROXY_WAIT_INFO {
    int SliceMs = 1000;
    uint32_t SilenceLimit = 60;
    int* AbortFlag = nullptr;
};

// Opens the tunnel. The connected socket (non-blocking, linger 1 second), which the caller
// owns and ends with ZEPHProxyTunnelClose; or, every cause logged ("proxy_channel_debug"),
// -1 when aborted, -2 when the proxy can't be reached, refuses (403, 502 and every other
// non-2xx answer), closes or answers something other than HTTP, -3 when a socket can't be
// made, -4 for arguments it can't use, -6 when the proxy refuses the credentials or asks
// for some (407, or 401 as some proxies answer), -9 when the proxy stays silent too long.
platform::socket_t ZEPHProxyTunnelOpen(const PROXY_SERVER_INFO* server,
                                       const PROXY_TARGET_INFO* target, const PROXY_AUTH_INFO* auth,
                                       const PROXY_WAIT_INFO& wait = PROXY_WAIT_INFO());

// Ends a tunnel ZEPHProxyTunnelOpen opened and frees what it holds: the socket is shut
// down both ways and closed.
void ZEPHProxyTunnelClose(platform::socket_t socket);
