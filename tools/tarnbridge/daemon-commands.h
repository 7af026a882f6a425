// daemon-commands.h: the controller's commands that start, drive and stop the daemon.
// The daemon's port and process id are kept in a state file next to the configuration
// (CONFIG + ".state"), so later commands find the daemon by its configuration.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "foundation/object.h"

// Turns the words after the options into a request: true, or false with a message.
using RequestBuilder = std::function<bool(const std::vector<std::string>& words, PObject& request,
                                          std::string& error)>;

// tarnbridge start --config FILE [--port P]: starts the daemon and brings back every
// session recorded for the configuration (session-commands.h).
int run_start(int argc, char** argv);
// tarnbridge send [--config FILE | --port N] ACTION [key=value | key:=JSON ...]
int run_send(int argc, char** argv);
// The send path of a command that builds its own request: [--config FILE | --port N]
// first, then the command's words; prints the reply. 0, 1 when the daemon answered with an
// error or could not be reached, 2 for words `build` refuses.
int run_built_request(int argc, char** argv, const RequestBuilder& build);
// tarnbridge stop [--config FILE | --port N]
int run_stop(int argc, char** argv);
