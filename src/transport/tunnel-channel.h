// tunnel-channel.h: channels that reach the server through the relay. Open connects to the
// relay (directly, or through an HTTP proxy), runs a TLS session with it only long enough
// to ask, with a token, to be connected to the server, and then drops that session without
// a word: from there the socket carries the server's bytes, and the protocol (with its own
// TLS, if the pool asks for it) runs as on a direct connection. Made by the connection
// pool for the tunnel modes.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/channel.h"
#include "transport/proxy-channel.h"
#include "transport/proxy-tunnel-info.h"

class TunnelChannel : public Channel {
  public:
    explicit TunnelChannel(const TunnelInfo& tunnel);
    ~TunnelChannel() override;

    using Channel::Open;
    // Opens a connection to `ip`:`port` through the relay. The silence limit and the abort
    // flag apply to every step. 0 when connected; 0 too, with nothing tried and the channel
    // closed, for a null `ip` or a negative `port`; -2 for every failure (the relay's
    // status or the step that failed is in the log), after which the channel is closed.
    int Open(const char* ip, int port) override;

  protected:
    std::string tunnel_address;
    uint16_t tunnel_port;
};

// The relay reached through an HTTP proxy.
class ProxyTunnelChannel : public ProxyChannel {
  public:
    ProxyTunnelChannel(const ProxyInfo& proxy, const TunnelInfo& tunnel);
    ~ProxyTunnelChannel() override;

    using ProxyChannel::Open;
    // As TunnelChannel::Open, the relay reached through the proxy; -6 when the proxy
    // refuses the account, as ProxyChannel::Open.
    int Open(const char* ip, int port) override;

  protected:
    std::string tunnel_address;
    uint16_t tunnel_port;
};
