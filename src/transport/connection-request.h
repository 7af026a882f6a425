// connection-request.h: the keys of the control messages that make and change the server
// connection ("link_connection", "reload_connection"), written once for both ends: the
// daemon reads a request into the pool's records, the controller writes the keys.
#pragma once

#include "foundation/object.h"
#include "transport/connection-pool.h"

namespace connection_keys {
inline constexpr char kSession[] = "session";
inline constexpr char kServerIp[] = "server_ip";
inline constexpr char kServerPort[] = "server_port";
inline constexpr char kConnectionId[] = "connection_id";
inline constexpr char kConnectionMode[] = "connection_mode";
inline constexpr char kUsername[] = "username";
inline constexpr char kComputerName[] = "computer_name";
inline constexpr char kUseSsl[] = "use_ssl";
inline constexpr char kPackageVersion[] = "package_version";
inline constexpr char kUseProxy[] = "use_proxy";
inline constexpr char kUseSysProxy[] = "use_sys_proxy";
inline constexpr char kProxyIp[] = "proxy_ip";
inline constexpr char kProxyPort[] = "proxy_port";
inline constexpr char kProxyUsername[] = "proxy_username";
inline constexpr char kProxyPassword[] = "proxy_password";
inline constexpr char kProxyDomain[] = "proxy_domain";
inline constexpr char kProxyHost[] = "proxy_host";
inline constexpr char kUseTunnel[] = "use_tunnel";
inline constexpr char kTunnelIp[] = "tunnel_ip";
inline constexpr char kTunnelPort[] = "tunnel_port";
// The server identity check of TLS connections; when the request leaves them out, the
// daemon's configuration keys of the same names apply.
inline constexpr char kSslCaFile[] = "ssl_ca_file";
inline constexpr char kSslPin[] = "ssl_pin";
}  // namespace connection_keys

// Whether `request` carries the keys every connection request needs, each of its kind:
// "connection_id" (an integer), "server_ip" and "session" (text, not empty), "server_port"
// (1 to 65535); and "ssl_ca_file" and "ssl_pin", when present, as text. A value of another
// kind would be read as 0 or empty and reach the pool as a server that can't be right.
bool has_connection_keys(const PObject& request);

// Reads the request's keys into the three records, each with its kind's reading: a missing
// or mistyped key gives 0, false or empty, and a proxy or tunnel port is cut to 16 bits.
void prepare_connection_info(const PObject& request, ConnectionInfo& info, ProxyInfo& proxy,
                             TunnelInfo& tunnel);
