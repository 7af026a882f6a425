// tunnel-channel.cpp: the relay's TLS exchange over an open socket, written once for the
// relay reached directly and through a proxy.
#include "transport/tunnel-channel.h"

#include <openssl/ssl.h>

#include "foundation/error-code.h"
#include "foundation/log.h"
#include "transport/ssl-channel.h"
#include "transport/tunnel-client.h"

namespace {

// The log lines of one kind of tunnel channel.
struct RelayTexts {
    const char* component;
    const char* init_failed;
    const char* set_fd_failed;
    const char* tls_failed;
    const char* relay_refused;
};

const RelayTexts kTunnelTexts = {
    "tunnel_channel_debug",
    "[ERROR] tunnel_channel(%d): Open: init ssl failed\n",
    "[ERROR] tunnel_channel(%d): set fd failed\n",
    "[ERROR] tunnel_channel(%d): Open to SSL connect to tunnel failed\n",
    "[ERROR] tunnel_channel(%d): ZEPHTunnelClientHandshake: failed, code: %d\n",
};

const RelayTexts kProxyTunnelTexts = {
    "proxy_tunnel_channel_debug",
    "[ERROR] proxy_tunnel_channel(%d): Open: init ssl failed\n",
    "[ERROR] proxy_tunnel_channel(%d): set fd failed\n",
    "[ERROR] proxy_tunnel_channel(%d): Open to SSL connect to tunnel failed\n",
    "[ERROR] proxy_tunnel_channel(%d): ZEPHTunnelClientHandshake: failed, code: %d\n",
};

// On the open socket of `ch`, connected to the relay: a TLS session, the request to be
// connected to `ip`:`port`, and the session dropped without a close notification so the
// socket stays open for the server's bytes. 0, or -2 with the step that failed logged
// (the caller closes the channel).
int AskRelay(Channel& ch, int* abort_flag, const RelayTexts& texts, const char* ip, int port) {
    SSL* ssl = nullptr;
    SSL_CTX* ctx = nullptr;
    int rc = 0;
    if (InitSSL(ssl, ctx, false) != 0) {
        Logger::LogMsg(Logger::L_ERR, texts.component, texts.init_failed, __LINE__);
        return ERR_IO;
    }
    if (SSL_set_fd(ssl, ch.GetSocket()) != 1) {
        Logger::LogMsg(Logger::L_ERR, texts.component, texts.set_fd_failed, __LINE__);
        log_ssl();
        rc = ERR_IO;
    } else if (SSLHandshake(ssl, ch.WaitSliceMs(), ch.GetTimeout(), &ch) != 0) {
        Logger::LogMsg(Logger::L_ERR, texts.component, texts.tls_failed, __LINE__);
        rc = ERR_IO;
    } else if (const int status = ZEPHTunnelClientHandshake(ssl, ip, port, ch.WaitSliceMs(),
                                                            ch.GetTimeout(), abort_flag);
               status != 0) {
        Logger::LogMsg(Logger::L_ERR, texts.component, texts.relay_refused, __LINE__, status);
        rc = ERR_IO;
    }
    DeinitSSL(ssl, ctx, true);
    return rc;
}

// What an Open through the relay ends with: the rings emptied after a success, the channel
// closed after a failure.
int Finish(Channel& ch, int rc) {
    if (rc != 0 && !ch.IsClosed()) ch.Close();
    ch.ClearRead();
    ch.ClearWrite();
    return rc;
}

}  // namespace

TunnelChannel::TunnelChannel(const TunnelInfo& tunnel)
    : Channel(kCapacity), tunnel_address(tunnel.tunnel_ip), tunnel_port(tunnel.tunnel_port) {}

TunnelChannel::~TunnelChannel() = default;

int TunnelChannel::Open(const char* ip, int port) {
    if (ip == nullptr || port < 0) {  // nothing to connect to: the channel is left closed
        Close();
        return Finish(*this, 0);
    }
    if (Channel::Open(tunnel_address.c_str(), tunnel_port) != 0) {
        Logger::LogMsg(Logger::L_ERR, kTunnelTexts.component,
                       "[ERROR] tunnel_channel(%d): Connect failed", __LINE__);
        return Finish(*this, ERR_IO);
    }
    return Finish(*this, AskRelay(*this, flag, kTunnelTexts, ip, port));
}

ProxyTunnelChannel::ProxyTunnelChannel(const ProxyInfo& proxy, const TunnelInfo& tunnel)
    : ProxyChannel(proxy), tunnel_address(tunnel.tunnel_ip), tunnel_port(tunnel.tunnel_port) {}

ProxyTunnelChannel::~ProxyTunnelChannel() = default;

int ProxyTunnelChannel::Open(const char* ip, int port) {
    int rc = 0;
    platform::socket_t socket = platform::kInvalidSocket;
    if (ip == nullptr || port < 0) {
        Close();
    } else if (const int opened = ProxyChannel::Open(tunnel_address.c_str(), tunnel_port);
               opened != 0) {
        Logger::LogMsg(Logger::L_ERR, kProxyTunnelTexts.component,
                       "[ERROR] proxy_tunnel_channel(%d): Open proxy failed\n", __LINE__);
        rc = opened == ERR_AUTH ? ERR_AUTH : ERR_IO;
    } else {
        socket = GetSocket();
        rc = AskRelay(*this, flag, kProxyTunnelTexts, ip, port);
    }
    Logger::LogMsg(Logger::L_ERR, kProxyTunnelTexts.component,
                   "[ERROR] proxy_tunnel_channel(%d): ProxyTunnelChannel[%d]: ret = %d\n", __LINE__,
                   socket, rc);
    return Finish(*this, rc);
}
