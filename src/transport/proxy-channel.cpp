// proxy-channel.cpp: the proxy's tunnel as the channel's mode.
#include "transport/proxy-channel.h"

#include <memory>

#include "foundation/error-code.h"
#include "foundation/log.h"
#include "transport/proxy-connect.h"

namespace {

const char* const kLog = "proxy_channel_debug";

// The mode of a socket the proxy tunnels: plain reads and writes, and a close that ends
// the tunnel the way it was opened.
class ProxyMode : public PlainMode {
  public:
    using PlainMode::PlainMode;
    void close() override { ZEPHProxyTunnelClose(get_fd()); }
};

}  // namespace

ProxyChannel::ProxyChannel(const ProxyInfo& proxy)
    : Channel(kCapacity),
      proxy_address(proxy.proxy_ip),
      proxy_port(proxy.proxy_port),
      user_name(proxy.user_name),
      user_password(proxy.password),
      user_domain(proxy.domain),
      user_host(proxy.host) {}

ProxyChannel::~ProxyChannel() = default;

int ProxyChannel::Open(const char* ip, int port) {
    if (!IsClosed()) {
        Logger::LogMsg(Logger::L_WARNING, kLog,
                       "[WARNING] proxy_channel(%d): Open: Channel already opened [%d]\n", __LINE__,
                       GetSocket());
        return ERR_IO;
    }
    const PROXY_SERVER_INFO server{proxy_address.c_str(), proxy_port};
    // A port out of range goes as 0, which the tunnel refuses with its reason logged.
    const PROXY_TARGET_INFO target{ip != nullptr ? ip : "",
                                   static_cast<uint16_t>(port > 0 && port <= 0xFFFF ? port : 0)};
    const PROXY_AUTH_INFO auth{user_name.c_str(), user_password.c_str(), user_domain.c_str(),
                               user_host.c_str(), PROXY_AUTH_BASIC};
    PROXY_WAIT_INFO wait;
    wait.SliceMs = WaitSliceMs();
    wait.SilenceLimit = channel_timeout;
    wait.AbortFlag = flag;
    const platform::socket_t socket = ZEPHProxyTunnelOpen(&server, &target, &auth, wait);
    ClearRead();
    ClearWrite();
    if (socket < 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] proxy_channel(%d): ProxyChannel::Open: fail to connect to proxy "
                       "server (%s:%d)\n",
                       __LINE__, proxy_address.c_str(), proxy_port);
        return socket == ERR_AUTH ? ERR_AUTH : ERR_IO;
    }
    Attach(std::make_unique<ProxyMode>(socket));
    Logger::LogMsg(Logger::L_WARNING, kLog,
                   "[WARNING] proxy_channel(%d): ProxyChannel::Open: socket %d has been connect "
                   "to proxy (%s:%d)\n",
                   __LINE__, socket, proxy_address.c_str(), proxy_port);
    return 0;
}
