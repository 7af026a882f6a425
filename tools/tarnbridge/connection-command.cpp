// connection-command.cpp: link-connection and reload-connection, the connection requests
// written from options, with the proxy and relay a person may need between the daemon and
// its server.
#include "connection-command.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cstdlib>
#include <filesystem>

#include "daemon-commands.h"
#include "request-args.h"
#include "transport/connection-request.h"

namespace k = connection_keys;

namespace {

// "HOST:PORT" into an IPv4 address and a port; the host may be a name that resolves to one.
// false with a message when it is not that.
bool resolve_address(const std::string& option, const std::string& text, std::string& ip, int& port,
                     std::string& error) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || !parse_port(text.substr(colon + 1), port)) {
        error = option + " needs HOST:PORT, not '" + text + "'";
        return false;
    }
    const std::string host = text.substr(0, colon);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) {
        error = "the name '" + host + "' of " + option + " does not resolve to an IPv4 address";
        return false;
    }
    char buf[INET_ADDRSTRLEN];
    ::inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr, buf,
                sizeof buf);
    ::freeaddrinfo(found);
    ip = buf;
    return true;
}

// Options that take a value, and the request key each one fills as text.
const struct {
    const char* option;
    const char* key;
} kTextOptions[] = {
    {"--session", k::kSession},
    {"--proxy-user", k::kProxyUsername},
    {"--proxy-password", k::kProxyPassword},
    {"--proxy-domain", k::kProxyDomain},
    {"--proxy-host", k::kProxyHost},
    {"--computer-name", k::kComputerName},
    {"--ssl-pin", k::kSslPin},
};

// One option with its value; false with a message when it is unknown or its value bad.
bool add_option(const std::string& option, const std::string& value, PObject& request,
                std::string& error) {
    for (const auto& o : kTextOptions) {
        if (option != o.option) continue;
        request[o.key] = value.c_str();
        return true;
    }
    std::string ip;
    int port = 0;
    if (option == "--ssl-ca-file") {
        // The daemon runs elsewhere than the controller's working directory.
        std::error_code ec;
        request[k::kSslCaFile] = std::filesystem::absolute(value, ec).string().c_str();
        return true;
    }
    if (option == "--connection-id") {
        char* end = nullptr;
        const unsigned long long id = std::strtoull(value.c_str(), &end, 10);
        if (value.empty() || *end != '\0') {
            error = "bad connection id '" + value + "'";
            return false;
        }
        request[k::kConnectionId] = static_cast<uint64_t>(id);
        return true;
    }
    if (option != "--server" && option != "--proxy" && option != "--tunnel") {
        error = "unknown option " + option;
        return false;
    }
    if (!resolve_address(option, value, ip, port, error)) return false;
    const bool server = option == "--server";
    const bool proxy = option == "--proxy";
    request[server ? k::kServerIp : proxy ? k::kProxyIp : k::kTunnelIp] = ip.c_str();
    request[server  ? k::kServerPort
            : proxy ? k::kProxyPort
                    : k::kTunnelPort] = static_cast<uint64_t>(port);
    if (!server) request[proxy ? k::kUseProxy : k::kUseTunnel] = true;
    return true;
}

}  // namespace

bool build_connection_request(const std::vector<std::string>& words, PObject& request,
                              std::string& error) {
    request[k::kConnectionId] = kControllerConnectionId;
    request[k::kUseSsl] = true;
    request[k::kUseProxy] = false;
    request[k::kUseTunnel] = false;
    // A password on the command line is visible to every user of the machine.
    if (const char* password = std::getenv("TARNBRIDGE_PROXY_PASSWORD"))
        request[k::kProxyPassword] = password;
    for (size_t i = 0; i < words.size(); ++i) {
        if (words[i] == "--no-ssl") {
            request[k::kUseSsl] = false;
            continue;
        }
        if (i + 1 >= words.size()) {
            error = words[i] + " needs a value";
            return false;
        }
        if (!add_option(words[i], words[i + 1], request, error)) return false;
        ++i;
    }
    if (!has_connection_keys(request)) {
        error = "the server needs --server HOST:PORT and --session TOKEN";
        return false;
    }
    return true;
}

int run_link_connection(int argc, char** argv) {
    return run_built_request(argc, argv, [](const auto& words, PObject& request, auto& error) {
        request["action"] = "link_connection";
        return build_connection_request(words, request, error);
    });
}

int run_reload_connection(int argc, char** argv) {
    return run_built_request(argc, argv, [](const auto& words, PObject& request, auto& error) {
        request["action"] = "reload_connection";
        return build_connection_request(words, request, error);
    });
}
