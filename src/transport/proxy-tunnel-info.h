// proxy-tunnel-info.h: how the server is reached when a direct connection won't do: through
// an HTTP proxy, through a relay, or through both. The control messages fill these records;
// the connection pool picks the kind of channel from them and hands them to each channel.
#pragma once

#include <cstdint>
#include <string>

// An HTTP proxy and the account it asks for. An empty user name means no authentication.
// Strings are UTF-8 bytes.
struct ProxyInfo {
    bool use_proxy = false;
    // The operating system's proxy setting; no channel reads it.
    bool use_sys_proxy = false;
    std::string proxy_ip;
    uint16_t proxy_port = 0;
    std::string user_name;
    std::string password;
    std::string domain;
    // The workstation name a challenge-response scheme would send.
    std::string host;

    bool operator==(const ProxyInfo&) const = default;
};

// A relay on the internet that connects the client to the server on request.
struct TunnelInfo {
    bool use_tunnel = false;
    std::string tunnel_ip;
    uint16_t tunnel_port = 0;

    bool operator==(const TunnelInfo&) const = default;
};
