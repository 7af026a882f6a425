// tool.h: what the sync-vs-peers bench asks of each synchroniser it drives (ours and the
// peers): start its server behind a counting relay, then sync one case of the shared data
// and report seconds, wire bytes and peak memory measured the same way for all. Also the
// data, the changes every tool's copy gets, and the client runner the peers share.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "harness/tree.h"

// Set by SIGINT or SIGTERM: every wait gives up, so that the folders and processes go.
extern std::atomic<bool> g_interrupted;

enum class Case {
    kSmallFirst,
    kSmallResync,
    kBigFirst,
    kEdit,
    kInsert,
    kInsertRealigned,  // ours only: the daemon restarted with realigned deltas first
    kEditRealigned,    // ours only, after kInsertRealigned
};

struct Figures {
    bool ok = false;
    double seconds = 0;
    uint64_t wire = 0;      // bytes through the relay, both ways
    uint64_t peak_kib = 0;  // sum of the peaks of client and server processes
};

// One case for a tool: the subfolder synced ("small" or "big"), what it must hold
// afterwards (paths relative to it), and the user's change, made in the tool's source
// folder; the clock starts when the change is made or, for the peers, when their client
// starts after it.
struct Step {
    Case what;
    std::string sub;
    Tree expect;
    std::function<bool()> change;
};

class Tool {
  public:
    virtual ~Tool() = default;
    virtual const char* Name() const = 0;
    // Starts the server side (and our daemon) under `root`; false with a message on stderr.
    virtual bool Start(const std::string& root) = 0;
    // The folder the user changes.
    virtual std::string Source() const = 0;
    // Carries out one step; Figures::ok false (with a message) when the sync failed, timed
    // out or left the target different from what was expected.
    virtual Figures Run(const Step& step) = 0;
};

// The changes made to every tool's copy of the large file. EditMiddle rewrites 1 MiB in the
// middle in place with bytes made from `seed` (another seed for another edit: bytes the
// server already holds would go as a copy); PrepareInsert writes one byte and then the file's
// content to `staged`, for the change to rename over the file. False when a file could not be
// written.
bool EditMiddle(const std::string& path, unsigned seed);
bool PrepareInsert(const std::string& path, const std::string& staged);
bool MoveOver(const std::string& from, const std::string& to);

// Copies a folder tree (files and folders only); false on failure.
bool CopyTree(const std::string& from, const std::string& to);

// A program that ran to its end: its exit status (-1 when it could not start or was
// interrupted) and its peak resident memory from wait4.
struct ClientRun {
    pid_t pid = -1;
    int status = -1;
    uint64_t peak_kib = 0;
};
// Runs `args` (args[0] a path) with `env` laid over the environment, its output appended to
// `log`, in a process group of its own; waits for its end unless interrupted.
ClientRun RunClient(const std::vector<std::string>& args, const std::vector<std::string>& env,
                    const std::string& log);

// Waits until `relay_total` stops moving for a moment (the relay may still carry a
// client's last bytes when the client is gone) and returns it.
uint64_t SettledBytes(const std::function<uint64_t()>& relay_total);

// A free port on 127.0.0.1 at the time of asking.
int FreePort();
// Waits until something accepts on `port`; false after `seconds` or when interrupted.
bool Accepts(int port, double seconds);
