// commands.h: the sub-commands of the `tarnbridge` controller. Each takes the
// arguments after its own name and returns the process exit status.
#pragma once

struct ControllerCommand {
    const char* name;
    const char* usage;
    int (*run)(int argc, char** argv);
};

// The table main() dispatches on; each command group adds its rows in commands.cpp.
extern const ControllerCommand kControllerCommands[];
extern const int kControllerCommandCount;

int run_watch(int argc, char** argv);  // tarnbridge watch: watch-command.cpp
