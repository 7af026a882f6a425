// connection-command.cpp: link-connection and reload-connection, the connection requests
// written from options, with the proxy and relay a person may need between the daemon and
// its server.
#include "connection-command.h"

#include <cstdlib>

#include "daemon-commands.h"
#include "request-args.h"
#include "transport/connection-request.h"

namespace k = connection_keys;

namespace {

// "IP:PORT" into its two halves. false when it is not that.
bool split_address(const std::string& text, std::string& ip, int& port) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) return false;
    ip = text.substr(0, colon);
    return parse_port(text.substr(colon + 1), port);
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
    if (!split_address(value, ip, port)) {
        error = option + " needs IP:PORT, not '" + value + "'";
        return false;
    }
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
    request[k::kConnectionId] = uint64_t{1};
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
        error = "the server needs --server IP:PORT and --session TOKEN";
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
