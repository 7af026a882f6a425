// connection-request.cpp: a connection request read into the pool's records.
#include "transport/connection-request.h"

#include "foundation/request-keys.h"

namespace k = connection_keys;

bool has_connection_keys(const PObject& request) {
    return HasKey(request, k::kConnectionId, KeyKind::INTEGER) &&
           HasKey(request, k::kServerIp, KeyKind::TEXT) &&
           HasKey(request, k::kServerPort, KeyKind::PORT) &&
           HasKey(request, k::kSession, KeyKind::TEXT) &&
           OptionalKey(request, k::kSslCaFile, KeyKind::TEXT) &&
           OptionalKey(request, k::kSslPin, KeyKind::TEXT);
}

void prepare_connection_info(const PObject& request, ConnectionInfo& info, ProxyInfo& proxy,
                             TunnelInfo& tunnel) {
    info.session = request[k::kSession].asString();
    info.server_ip = request[k::kServerIp].asString();
    info.server_port = request[k::kServerPort].asInt32();
    info.conn_id = request[k::kConnectionId].asUInt64();
    info.c_mode = static_cast<ConnectionMode>(request[k::kConnectionMode].asInt32());
    info.username = request[k::kUsername].asString();
    info.computer_name = request[k::kComputerName].asString();
    info.use_ssl = request[k::kUseSsl].asBool();
    info.package_version = static_cast<long>(request[k::kPackageVersion].asInt64());
    info.ssl_ca_file = request[k::kSslCaFile].asString();
    info.ssl_pin = request[k::kSslPin].asString();
    proxy.use_proxy = request[k::kUseProxy].asBool();
    proxy.use_sys_proxy = request[k::kUseSysProxy].asBool();
    proxy.proxy_ip = request[k::kProxyIp].asString().str();
    proxy.proxy_port = request[k::kProxyPort].asUInt16();
    proxy.user_name = request[k::kProxyUsername].asString().str();
    proxy.password = request[k::kProxyPassword].asString().str();
    proxy.domain = request[k::kProxyDomain].asString().str();
    proxy.host = request[k::kProxyHost].asString().str();
    tunnel.use_tunnel = request[k::kUseTunnel].asBool();
    tunnel.tunnel_ip = request[k::kTunnelIp].asString().str();
    tunnel.tunnel_port = request[k::kTunnelPort].asUInt16();
}
