// daemon-client.h: the controller's side of the daemon's control socket, shared by its
// commands: starting the daemon the way a controlling process does (listen, spawn, learn
// "daemon_port"), one request per connection, and "stop".
#pragma once

#include <string>

#include "controller-state.h"
#include "foundation/object.h"

// Prints "tarnbridge: MESSAGE" on the error stream; 2 for a usage mistake, 1 otherwise.
int usage_error(const std::string& message);
int failure(const std::string& message);

// The configuration named by --config, else TARNBRIDGE_CONFIG, as an absolute path (so
// that the state file sits beside it whatever the current directory); empty when neither.
std::string config_path(const std::string& given);

// True when the state records a daemon whose process still runs.
bool daemon_alive(const ControllerState& state);

// Starts tarnbridge-daemon on `config`, the controller listening from `port` upward (1024
// when 0). The daemon's port and pid go into `state`. false with `error`.
bool start_daemon(const std::string& config, int port, ControllerState& state, std::string& error);

// One request on a fresh connection. 0 with `reply` filled; -1 when the daemon can't be
// reached (message in `error`); -2 when the connection closed without a reply.
int exchange(int port, const PObject& request, PObject& reply, std::string& error);
// The same, and a reply holding "error" is a failure too: true when all went well.
bool ask(int port, const PObject& request, PObject& reply, std::string& error);

// Sends "stop" and waits until the daemon has gone. false with `error`.
bool stop_daemon(const ControllerState& state, std::string& error);
