// sync-world.h: one whole system for an end-to-end test: a reference server, a daemon
// linked to it, the notification port, and sessions pairing local folders with the
// server's view. It offers the steps of a scenario: change a file locally or on the
// server, wait until a condition holds, compare a session's folder with the server's
// tree, and kill the daemon and bring it back on the same configuration. Everything it
// starts and makes goes when it is destroyed.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "harness/daemon-process.h"
#include "harness/notifications.h"
#include "harness/server-process.h"
#include "harness/tree.h"
#include "support/eventually.h"
#include "support/temp-dir.h"

// Looks until `condition` holds; false when `seconds` passed first.
inline bool WaitUntil(const std::function<bool()>& condition, double seconds = 20) {
    return Eventually(condition, nullptr,
                      std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000)));
}

class SyncWorld {
  public:
    // The connection id the world links with.
    static constexpr uint64_t kConnectionId = 1;

    // Starts the server and the daemon (not yet linked); ok() tells whether both run.
    // `extra_config` lines go into the daemon's configuration.
    explicit SyncWorld(int worker_count = 3, const std::string& extra_config = "");
    ~SyncWorld();
    SyncWorld(const SyncWorld&) = delete;
    SyncWorld& operator=(const SyncWorld&) = delete;

    bool ok() const { return m_ok; }
    ServerProcess& server() { return m_server; }
    DaemonProcess& daemon() { return *m_daemon; }
    NotificationListener& notifications() { return m_notifications; }

    // "link" then "link_connection" to the server. The first reply holding "error", or
    // an empty map when both went well (a missing reply counts as an error).
    PObject Connect();
    // The "link_connection" request for the server, for tests that change a key.
    PObject ConnectionRequest() const;
    // Makes every later link name `port` instead of the server's own: a relay's in front of
    // it, say; 0 goes back to the server's.
    void LinkThrough(int port) { m_link_port = port; }
    // Makes the session's sync folder and configuration folder with its filter files;
    // `blacklist` replaces the default filter file (which filters nothing).
    void PrepareSession(uint64_t id, const std::string& blacklist = std::string());
    // PrepareSession, then "add_session" for the server's view; the reply.
    PObject AddSession(uint64_t id, const std::string& blacklist = std::string());
    // The "add_session" request of session `id`, whose folders exist.
    PObject SessionRequest(uint64_t id) const;
    // "resume" and "pause" of one session, remembered for Restart; the reply.
    PObject Resume(uint64_t id);
    PObject Pause(uint64_t id);
    // The session's sync folder and configuration folder.
    std::string Folder(uint64_t id) const;
    std::string ConfigFolder(uint64_t id) const;

    // Local changes in a session's folder; true when done. Paths are relative to the
    // folder, with a leading "/".
    bool WriteLocal(uint64_t id, const std::string& path, const std::string& bytes);
    bool MkdirLocal(uint64_t id, const std::string& path);
    bool RemoveLocal(uint64_t id, const std::string& path);
    bool MoveLocal(uint64_t id, const std::string& from, const std::string& to);

    // The session's entry of "get_status" ("status", "unfinished_files"); empty when the
    // session is not listed.
    PObject SessionStatus(uint64_t id);
    // The differences between the session's folder and the server's view; empty when they
    // hold the same paths, types, sizes and contents. "cannot list the server" when the
    // listing failed.
    std::string CompareTrees(uint64_t id);

    // The sync id the session's database holds, read beside the daemon; -1 when it can't
    // be read.
    int64_t StoredSyncId(uint64_t id) const;
    // Puts the session's sync id back to 0, the state a daemon stopped before its first
    // pull was whole leaves behind. Only while the daemon is down. False on failure.
    bool ForgetSyncId(uint64_t id) const;

    // Kills the daemon with SIGKILL (when `crash`) or stops it, runs `while_down`, starts
    // it again on the same configuration, connects, adds every session added so far
    // (their folders and databases as they are, with "sync_mode" true: the folders were
    // in step before, so what is missing from them was deleted) and resumes those that
    // were running. True when all of it was answered without an error.
    bool Restart(bool crash = true, const std::function<void()>& while_down = nullptr);

  private:
    TempDir m_dir;
    ServerProcess m_server;
    NotificationListener m_notifications;
    std::unique_ptr<DaemonProcess> m_daemon;
    bool m_ok = false;
    int m_link_port = 0;
    // The sessions added, and whether each was resumed.
    std::map<uint64_t, bool> m_sessions;
};
