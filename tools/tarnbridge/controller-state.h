// controller-state.h: what the controller remembers beside a daemon's configuration, in
// CONFIG + ".state": the running daemon (its port and pid, while it runs), the server
// connection, and every session a person added, so that `tarnbridge start` brings them
// all back after the daemon or the machine stopped. Each session's own folder (its
// database and filter files) is CONFIG + ".sessions/" + its id.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct RecordedSession {
    std::string folder;  // the sync folder, absolute
    uint64_t view = 0;
    bool paused = false;  // paused by a person: brought back paused
};

struct ControllerState {
    int daemon_port = -1;  // -1 while no daemon is recorded
    int pid = -1;
    std::string server;   // HOST:PORT of the connection, empty when none
    std::string session;  // the account's session token
    // The connection's other options as `tarnbridge add` was given them (TLS, proxy,
    // relay), so that the daemon is connected the same way when the sessions come back.
    std::vector<std::string> connection_options;
    std::map<uint64_t, RecordedSession> sessions;
};

std::string StatePath(const std::string& config);
// The folder of session `id` of the daemon of `config`.
std::string SessionConfigFolder(const std::string& config, uint64_t id);

// Reads the state file; a missing file is an empty state. false with `error` when the file
// exists but can't be read or makes no sense.
bool ReadState(const std::string& config, ControllerState& state, std::string& error);
// Writes the state file (readable by its owner only, since it holds the session token),
// through a temporary file renamed into place; with no daemon and no session the file
// goes. false
// with `error` on failure, or when a folder name can't be written into the file.
bool WriteState(const std::string& config, const ControllerState& state, std::string& error);
