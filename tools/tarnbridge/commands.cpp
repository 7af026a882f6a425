// commands.cpp: the controller's command table, one row per command.
#include "commands.h"

#include "daemon-commands.h"
#include "session-commands.h"

// filter-command.cpp
int cmd_filter(int argc, char** argv);

const ControllerCommand kControllerCommands[] = {
    {"start", "start --config FILE [--port P]", run_start},
    {"send", "send [--config FILE | --port N] ACTION [key=value | key:=JSON ...]", run_send},
    {"stop", "stop [--config FILE | --port N]", run_stop},
    {"add",
     "add --config FILE --folder DIR --server HOST:PORT --session TOKEN --view ID "
     "[--session-id N] [--json]",
     run_add},
    {"status", "status [--config FILE] [--watch] [--json]", run_status},
    {"pause", "pause [--config FILE] [--session-id N]", run_pause},
    {"resume", "resume [--config FILE] [--session-id N]", run_resume},
    {"remove", "remove [--config FILE] [--session-id N]", run_remove},
    {"filter", "filter check FILE [PATH ...]", cmd_filter},
    {"watch", "watch [--config FILE] [--port P] [--json]", run_watch},
};

const int kControllerCommandCount = sizeof kControllerCommands / sizeof kControllerCommands[0];
