// sync-world.cpp: a server, a daemon and their sessions, set up and driven as the
// controlling process does it.
#include "harness/sync-world.h"

#include <cstdio>
#include <filesystem>

#include <sqlite3.h>

#include "support/files.h"

namespace fs = std::filesystem;

namespace {

const char* const kWhiteList = "[Version]\nmajor = 1\nminor = 0\n\n[File]\nwhite_ext = \"*\"\n";
const char* const kBlackList = "[Version]\nmajor = 1\nminor = 0\n";

bool Failed(const PObject& reply) {
    return !reply.hasMember("ack") || reply.hasMember("error");
}

}  // namespace

SyncWorld::SyncWorld(int worker_count, const std::string& extra_config)
    : m_daemon(
          std::make_unique<DaemonProcess>(m_notifications.port(), worker_count, extra_config)) {
    m_ok = m_server.ok() && m_daemon->Start();
}

SyncWorld::~SyncWorld() = default;

PObject SyncWorld::ConnectionRequest() const {
    PObject request;
    request["action"] = "link_connection";
    request["connection_id"] = kConnectionId;
    request["server_ip"] = "127.0.0.1";
    request["server_port"] =
        static_cast<uint64_t>(m_link_port != 0 ? m_link_port : m_server.port());
    request["session"] = m_server.session().c_str();
    request["use_ssl"] = false;
    return request;
}

PObject SyncWorld::Connect() {
    PObject reply = m_daemon->Ask("link");
    if (Failed(reply)) return reply;
    m_daemon->Ask(ConnectionRequest(), reply);
    return Failed(reply) ? reply : PObject();
}

std::string SyncWorld::Folder(uint64_t id) const {
    return m_dir / ("sync-" + std::to_string(id));
}

std::string SyncWorld::ConfigFolder(uint64_t id) const {
    return m_dir / ("config-" + std::to_string(id));
}

PObject SyncWorld::SessionRequest(uint64_t id) const {
    PObject request;
    request["action"] = "add_session";
    request["connection_id"] = kConnectionId;
    request["session_id"] = id;
    request["view_id"] = m_server.view_id();
    request["config_path"] = ConfigFolder(id).c_str();
    request["sync_folder"] = Folder(id).c_str();
    return request;
}

void SyncWorld::PrepareSession(uint64_t id, const std::string& blacklist) {
    fs::create_directories(Folder(id));
    fs::create_directories(ConfigFolder(id) + "/conf");
    WriteFile(ConfigFolder(id) + "/conf/blacklist.filter",
              blacklist.empty() ? kBlackList : blacklist);
    WriteFile(ConfigFolder(id) + "/conf/whitelist.filter", kWhiteList);
}

PObject SyncWorld::AddSession(uint64_t id, const std::string& blacklist) {
    PrepareSession(id, blacklist);
    PObject reply;
    m_daemon->Ask(SessionRequest(id), reply);
    if (!Failed(reply)) m_sessions[id] = false;
    return reply;
}

PObject SyncWorld::Resume(uint64_t id) {
    PObject reply = m_daemon->Ask("resume", id);
    if (!Failed(reply) && m_sessions.count(id) != 0) m_sessions[id] = true;
    return reply;
}

PObject SyncWorld::Pause(uint64_t id) {
    PObject reply = m_daemon->Ask("pause", id);
    if (!Failed(reply) && m_sessions.count(id) != 0) m_sessions[id] = false;
    return reply;
}

bool SyncWorld::WriteLocal(uint64_t id, const std::string& path, const std::string& bytes) {
    return WriteFile(Folder(id) + path, bytes);
}

bool SyncWorld::MkdirLocal(uint64_t id, const std::string& path) {
    std::error_code ec;
    return fs::create_directory(Folder(id) + path, ec);
}

bool SyncWorld::RemoveLocal(uint64_t id, const std::string& path) {
    std::error_code ec;
    return fs::remove_all(Folder(id) + path, ec) > 0;
}

bool SyncWorld::MoveLocal(uint64_t id, const std::string& from, const std::string& to) {
    std::error_code ec;
    fs::rename(Folder(id) + from, Folder(id) + to, ec);
    return !ec;
}

PObject SyncWorld::SessionStatus(uint64_t id) {
    const PObject status = m_daemon->Ask("get_status");
    for (const PObject& session : status["session_list"].asArray())
        if (session["session_id"].asUInt64() == id) return session;
    return PObject();
}

std::string SyncWorld::CompareTrees(uint64_t id) {
    Tree server;
    if (!m_server.Listing(server)) return "cannot list the server";
    return TreeDiff(LocalTree(Folder(id)), server);
}

int64_t SyncWorld::StoredSyncId(uint64_t id) const {
    const std::string path = ConfigFolder(id) + "/db/event-db.sqlite";
    sqlite3* db = nullptr;
    int64_t value = -1;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_stmt* query = nullptr;
        sqlite3_busy_timeout(db, 5000);
        if (sqlite3_prepare_v2(db, "SELECT value FROM config_table WHERE key = 'sync_id'", -1,
                               &query, nullptr) == SQLITE_OK &&
            sqlite3_step(query) == SQLITE_ROW)
            value = sqlite3_column_int64(query, 0);
        sqlite3_finalize(query);
    }
    sqlite3_close(db);
    return value;
}

bool SyncWorld::ForgetSyncId(uint64_t id) const {
    const std::string path = ConfigFolder(id) + "/db/event-db.sqlite";
    sqlite3* db = nullptr;
    bool done = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
                sqlite3_exec(db, "UPDATE config_table SET value = '0' WHERE key = 'sync_id'",
                             nullptr, nullptr, nullptr) == SQLITE_OK &&
                sqlite3_changes(db) == 1;
    sqlite3_close(db);
    return done;
}

bool SyncWorld::Restart(bool crash, const std::function<void()>& while_down) {
    // Says on the test's output which step failed, with the daemon's answer.
    auto failed = [](const char* step, const PObject& reply) {
        std::fprintf(stderr, "restart: %s failed: %s\n", step, reply.toString().c_str_utf8());
        return false;
    };
    if (crash)
        m_daemon->Kill();
    else if (m_daemon->Stop() != 0)
        return failed("stop", PObject());
    if (while_down) while_down();
    if (!m_daemon->Start()) return failed("start", PObject());
    if (PObject reply = Connect(); !reply.isNull()) return failed("connect", reply);
    for (const auto& [id, running] : m_sessions) {
        PObject request = SessionRequest(id), reply;
        request["sync_mode"] = true;
        if (!m_daemon->Ask(request, reply) || Failed(reply)) return failed("add_session", reply);
        if (running && Failed(reply = m_daemon->Ask("resume", id))) return failed("resume", reply);
    }
    return true;
}
