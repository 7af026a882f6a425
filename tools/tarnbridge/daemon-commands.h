// daemon-commands.h: the controller's commands that start, drive and stop the daemon.
// The daemon's port and process id are kept in a state file next to the configuration
// (CONFIG + ".state"), so later commands find the daemon by its configuration.
#pragma once

// tarnbridge start --config FILE [--port P]: starts the daemon and brings back every
// session recorded for the configuration (session-commands.h).
int run_start(int argc, char** argv);
// tarnbridge send [--config FILE | --port N] ACTION [key=value | key:=JSON ...]
int run_send(int argc, char** argv);
// tarnbridge stop [--config FILE | --port N]
int run_stop(int argc, char** argv);
