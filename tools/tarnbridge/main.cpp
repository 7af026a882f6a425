// main.cpp: `tarnbridge`, the controller for people. It plays the controlling
// process of the daemon: starts it, sends it requests, stops it.
#include <cstdio>
#include <cstring>

#include "commands.h"

namespace {
int usage() {
    std::fprintf(stderr, "usage: tarnbridge COMMAND [ARGS...]\n\ncommands:\n");
    for (int i = 0; i < kControllerCommandCount; ++i)
        std::fprintf(stderr, "  %s\n", kControllerCommands[i].usage);
    return 2;
}
}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    for (int i = 0; i < kControllerCommandCount; ++i)
        if (std::strcmp(argv[1], kControllerCommands[i].name) == 0)
            return kControllerCommands[i].run(argc - 2, argv + 2);
    std::fprintf(stderr, "tarnbridge: unknown command '%s'\n", argv[1]);
    return usage();
}
