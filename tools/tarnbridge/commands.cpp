// commands.cpp: the controller's command table, one row per command.
#include "commands.h"

#include "connection-command.h"
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
     "[--session-id N] [--json]\n"
     "      [the connection options of link-connection]",
     run_add},
    {"status", "status [--config FILE] [--watch] [--json]", run_status},
    {"pause", "pause [--config FILE] [--session-id N]", run_pause},
    {"resume", "resume [--config FILE] [--session-id N]", run_resume},
    {"remove", "remove [--config FILE] [--session-id N]", run_remove},
    {"link-connection",
     "link-connection [--config FILE | --port N] --server HOST:PORT --session TOKEN\n"
     "      [--connection-id N] [--no-ssl] [--ssl-pin SHA256] [--ssl-ca-file PEM]\n"
     "      [--computer-name NAME] [--proxy HOST:PORT [--proxy-user NAME]\n"
     "      [--proxy-password PASS] [--proxy-domain DOMAIN] [--proxy-host HOST]]\n"
     "      [--tunnel HOST:PORT]",
     run_link_connection},
    {"reload-connection",
     "reload-connection [--config FILE | --port N] ...the options of link-connection",
     run_reload_connection},
    {"filter",
     "filter check FILE [PATH ...]\n"
     "  filter show --config FILE --session-id N\n"
     "  filter edit --config FILE --session-id N [--hide-ext X] [--show-ext X]\n"
     "      [--hide-name X] [--show-name X] [--hide-folder /P] [--show-folder /P]\n"
     "      [--max-size BYTES (0: none)]",
     cmd_filter},
    {"watch", "watch [--config FILE] [--port P] [--json]", run_watch},
};

const int kControllerCommandCount = sizeof kControllerCommands / sizeof kControllerCommands[0];
