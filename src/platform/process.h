// process.h: starting and watching other processes, for the controller that starts
// and stops the daemon. Results: 0 or more on success, -1 on failure with the
// platform's error number in *err when err is not null.
#pragma once

#include <string>
#include <vector>

namespace platform {

// Starts `program` with `args` (without the program name) as a process of its own that
// outlives the caller: its own session, standard streams on the null device, current
// directory kept. `program` without a "/" is looked up in PATH. The new process's id
// in *pid; -1 when it could not be started (the reason of a failed exec included).
int spawn_detached(const std::string& program, const std::vector<std::string>& args, int* pid,
                   int* err = nullptr);

// True while a process of that id exists (a zombie counts until it is reaped).
bool process_alive(int pid);

// The directory of the running executable, or empty when the system won't tell.
std::string executable_dir();

// True for an existing file the caller may execute.
bool is_executable(const std::string& path);

// `path` made absolute against the current directory, with symbolic links and "."
// and ".." resolved when the file exists; empty on failure.
std::string absolute_path(const std::string& path);

}  // namespace platform
