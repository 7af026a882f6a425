// proxy-channel.h: ProxyChannel, a Channel whose Open goes through an HTTP proxy: the proxy
// opens a TCP tunnel to the server and the channel adopts the socket, so that the protocol,
// and TLS over it, run as on a direct connection. Made by the connection pool for proxy
// modes; ProxyTunnelChannel reaches its relay with it.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/channel.h"
#include "transport/proxy-tunnel-info.h"

class ProxyChannel : public Channel {
  public:
    explicit ProxyChannel(const ProxyInfo& proxy);
    ~ProxyChannel() override;

    using Channel::Open;
    // Opens a tunnel through the proxy to `ip`:`port` (the channel must be closed). The
    // silence limit and the abort flag apply while the proxy is reached and answers. 0;
    // -6 when the proxy refuses the account (so that the user hears of it as of a refused
    // login); -2 for every other failure. The cause is in the log. Closing the channel
    // ends the tunnel.
    int Open(const char* ip, int port) override;

  protected:
    std::string proxy_address;
    uint16_t proxy_port;
    std::string user_name;
    std::string user_password;
    std::string user_domain;
    std::string user_host;
};
