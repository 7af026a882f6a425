// commands.cpp: the controller's command table, one row per command.
#include "commands.h"

#include "connection-command.h"
#include "daemon-commands.h"

// filter-command.cpp
int cmd_filter(int argc, char** argv);

const ControllerCommand kControllerCommands[] = {
    {"start", "start --config FILE [--port P]", run_start},
    {"send", "send [--config FILE | --port N] ACTION [key=value | key:=JSON ...]", run_send},
    {"stop", "stop [--config FILE | --port N]", run_stop},
    {"link-connection",
     "link-connection [--config FILE | --port N] --server IP:PORT --session TOKEN [--no-ssl]\n"
     "      [--connection-id N] [--proxy IP:PORT [--proxy-user NAME] [--proxy-password PASS]\n"
     "      [--proxy-domain DOMAIN] [--proxy-host HOST]] [--tunnel IP:PORT]",
     run_link_connection},
    {"reload-connection",
     "reload-connection [--config FILE | --port N] ...the options of link-connection",
     run_reload_connection},
    {"filter", "filter check FILE [PATH ...]", cmd_filter},
    {"watch", "watch [--config FILE] [--port P] [--json]", run_watch},
};

const int kControllerCommandCount = sizeof kControllerCommands / sizeof kControllerCommands[0];
