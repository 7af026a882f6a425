// commands.cpp: the controller's command table, one row per command.
#include "commands.h"

#include "daemon-commands.h"

// filter-command.cpp
int cmd_filter(int argc, char** argv);

const ControllerCommand kControllerCommands[] = {
    {"start", "start --config FILE [--port P]", run_start},
    {"send", "send [--config FILE | --port N] ACTION [key=value | key:=JSON ...]", run_send},
    {"stop", "stop [--config FILE | --port N]", run_stop},
    {"filter", "filter check FILE [PATH ...]", cmd_filter},
    {"watch", "watch [--config FILE] [--port P] [--json]", run_watch},
};

const int kControllerCommandCount = sizeof kControllerCommands / sizeof kControllerCommands[0];
