// connection-command.h: the controller's commands for the daemon's server connection.
// Every option of the connection, the proxy and the relay tunnel becomes the key the
// daemon reads (transport/connection-request.h); the session commands that set up a
// connection as part of their work build their request the same way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/object.h"

// The connection id the controller gives the daemon's one connection unless told another.
constexpr uint64_t kControllerConnectionId = 1;

// Fills `request` from the options in `words`:
//   --server HOST:PORT --session TOKEN [--connection-id N] [--no-ssl] [--ssl-pin SHA256]
//   [--ssl-ca-file PEM] [--computer-name NAME]
//   [--proxy HOST:PORT [--proxy-user NAME] [--proxy-password PASS] [--proxy-domain DOMAIN]
//    [--proxy-host HOST]] [--tunnel HOST:PORT]
// Host names are resolved here, since the daemon takes IPv4 addresses. Without --proxy or
// --tunnel the request turns them off; without --ssl-pin and --ssl-ca-file the daemon's
// configuration says how the server is checked. The proxy password may come from
// TARNBRIDGE_PROXY_PASSWORD instead. true, or false with a message in `error`.
bool build_connection_request(const std::vector<std::string>& words, PObject& request,
                              std::string& error);

// tarnbridge link-connection [--config FILE | --port N] OPTIONS...
int run_link_connection(int argc, char** argv);
// tarnbridge reload-connection [--config FILE | --port N] OPTIONS...
int run_reload_connection(int argc, char** argv);
