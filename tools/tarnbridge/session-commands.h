// session-commands.h: the controller's commands for sessions, so that a person can run a
// sync without writing control maps: add a folder, see how things stand, pause, resume
// and remove; and the bringing back of the recorded sessions when the daemon starts.
#pragma once

#include <string>

#include "controller-state.h"

// tarnbridge add --config FILE --folder DIR --server HOST:PORT --session TOKEN --view ID
//                [--session-id N] [--json] [CONNECTION OPTIONS]
// The connection options are those of link-connection (connection-command.h); they are
// recorded with the server, and a later add gives the same or none.
int run_add(int argc, char** argv);
// tarnbridge status [--config FILE] [--watch] [--json]
int run_status(int argc, char** argv);
// tarnbridge pause|resume|remove [--config FILE] [--session-id N]
int run_pause(int argc, char** argv);
int run_resume(int argc, char** argv);
int run_remove(int argc, char** argv);
// tarnbridge filter show --config FILE --session-id N
// tarnbridge filter edit --config FILE --session-id N [--hide-ext X] [--show-ext X]
//     [--hide-name X] [--show-name X] [--hide-folder /P] [--show-folder /P] [--max-size B]
// Shows the session's selective-sync rules; an edit rewrites its filter file and has the
// daemon take it up (pause, reload, resume as it was). The words come without the verb.
int run_filter_session(int argc, char** argv, bool edit);

// Links the daemon just started (`state` holds its port), connects it to the recorded
// server, adds every recorded session and resumes those a person did not pause. 0; 1 when
// any step failed, each failure told on the error stream (the rest is still done).
int restore_sessions(const std::string& config, const ControllerState& state);
