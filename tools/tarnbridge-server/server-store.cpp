// server-store.cpp: schema, accounts, views, reads and tokens.
#include "server-store.h"

#include <openssl/rand.h>

#include <ctime>
#include <filesystem>
#include <set>
#include <system_error>

#include "foundation/log.h"
#include "server-path.h"

namespace {

const char* const kLog = "server_debug";

// Paths compare byte for byte (BINARY collation), which is what the descendant ranges of
// server_path rely on: a directory's subtree is (path + "/", path + "0").
const char* const kSchema =
    "CREATE TABLE IF NOT EXISTS meta (key TEXT PRIMARY KEY, value TEXT NOT NULL);"
    "INSERT OR IGNORE INTO meta VALUES ('schema', '1');"
    "CREATE TABLE IF NOT EXISTS accounts (id INTEGER PRIMARY KEY, name TEXT NOT NULL,"
    " session TEXT NOT NULL UNIQUE);"
    "CREATE TABLE IF NOT EXISTS views (id INTEGER PRIMARY KEY, name TEXT NOT NULL,"
    " last_sync_id INTEGER NOT NULL DEFAULT 0);"
    "CREATE TABLE IF NOT EXISTS access (account_id INTEGER NOT NULL, view_id INTEGER NOT NULL,"
    " PRIMARY KEY (account_id, view_id));"
    "CREATE TABLE IF NOT EXISTS contents (id INTEGER PRIMARY KEY, md4 TEXT NOT NULL,"
    " size INTEGER NOT NULL, UNIQUE (md4, size));"
    "CREATE TABLE IF NOT EXISTS objects (view_id INTEGER NOT NULL, path TEXT NOT NULL,"
    " parent TEXT NOT NULL, is_dir INTEGER NOT NULL, sync_id INTEGER NOT NULL,"
    " max_id INTEGER NOT NULL, size INTEGER NOT NULL DEFAULT 0, md4 TEXT NOT NULL DEFAULT '',"
    " mtime INTEGER NOT NULL DEFAULT 0, exec_bit INTEGER NOT NULL DEFAULT 0,"
    " content_id INTEGER NOT NULL DEFAULT 0, PRIMARY KEY (view_id, path));"
    "CREATE INDEX IF NOT EXISTS objects_sync ON objects (view_id, sync_id);"
    "CREATE INDEX IF NOT EXISTS objects_parent ON objects (view_id, parent);"
    "CREATE INDEX IF NOT EXISTS objects_content ON objects (content_id);"
    "CREATE TABLE IF NOT EXISTS tombstones (view_id INTEGER NOT NULL, path TEXT NOT NULL,"
    " parent TEXT NOT NULL, is_dir INTEGER NOT NULL, sync_id INTEGER NOT NULL,"
    " max_id INTEGER NOT NULL, PRIMARY KEY (view_id, path));"
    "CREATE INDEX IF NOT EXISTS tombstones_sync ON tombstones (view_id, sync_id);"
    "CREATE INDEX IF NOT EXISTS tombstones_parent ON tombstones (view_id, parent);"
    "CREATE TABLE IF NOT EXISTS versions (view_id INTEGER NOT NULL, sync_id INTEGER NOT NULL,"
    " path TEXT NOT NULL, content_id INTEGER NOT NULL, PRIMARY KEY (view_id, sync_id));"
    "CREATE INDEX IF NOT EXISTS versions_path ON versions (view_id, path, sync_id);"
    "CREATE INDEX IF NOT EXISTS versions_content ON versions (content_id);"
    "CREATE TABLE IF NOT EXISTS tokens (token TEXT PRIMARY KEY, account_id INTEGER NOT NULL,"
    " view_id INTEGER NOT NULL, created INTEGER NOT NULL, dl_path TEXT NOT NULL DEFAULT '',"
    " dl_file TEXT NOT NULL DEFAULT '', dl_content INTEGER NOT NULL DEFAULT 0,"
    " dl_sync_id INTEGER NOT NULL DEFAULT 0, dl_base INTEGER NOT NULL DEFAULT 0,"
    " dl_delta INTEGER NOT NULL DEFAULT 0);";

int64_t Now() {
    return static_cast<int64_t>(std::time(nullptr));
}

}  // namespace

std::string RandomHexToken() {
    unsigned char bytes[16];
    if (RAND_bytes(bytes, sizeof bytes) != 1) return std::string();
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (unsigned char b : bytes) {
        out += kHex[b >> 4];
        out += kHex[b & 15];
    }
    return out;
}

ServerObject ObjectFromRow(const SqliteStmt& stmt, int first) {
    ServerObject obj;
    obj.path = stmt.Text(first);
    obj.is_dir = stmt.Int(first + 1) != 0;
    obj.sync_id = stmt.UInt(first + 2);
    obj.max_id = stmt.UInt(first + 3);
    obj.size = stmt.UInt(first + 4);
    obj.md4 = stmt.Text(first + 5);
    obj.mtime = static_cast<uint32_t>(stmt.Int(first + 6));
    obj.exec_bit = stmt.Int(first + 7) != 0;
    obj.content_id = stmt.Int(first + 8);
    return obj;
}

int ServerStore::Open(const std::string& data_dir, size_t versions_kept) {
    m_data_dir = data_dir;
    m_versions_kept = versions_kept == 0 ? 1 : versions_kept;
    std::error_code ec;
    std::filesystem::create_directories(data_dir, ec);
    if (ec) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] server-store(%d): mkdir %s: %s\n", __LINE__,
                       data_dir.c_str(), ec.message().c_str());
        return -1;
    }
    if (m_db.Open(data_dir + "/server.db") < 0) return -1;
    // Each connection opens the store; only the first open of a new folder writes.
    SqliteStmt probe(m_db, "SELECT 1 FROM sqlite_master WHERE name = 'tokens'");
    int rc = probe.Step();
    if (rc < 0) return -1;
    if (rc == 0 && m_db.Exec(kSchema) < 0) return -1;
    return m_contents.Open(data_dir);
}

int ServerStore::Recover() {
    if (ExpireTokens(Now()) < 0) return -1;
    std::set<int64_t> recorded;
    SqliteStmt all(m_db, "SELECT id FROM contents");
    int rc;
    while ((rc = all.Step()) == 1) recorded.insert(all.Int(0));
    if (rc < 0) return -1;
    std::set<std::string> tokens;
    SqliteStmt toks(m_db, "SELECT token FROM tokens");
    while ((rc = toks.Step()) == 1) tokens.insert(toks.Text(0));
    if (rc < 0) return -1;
    size_t removed = m_contents.Sweep(recorded);
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(m_contents.ResumeDir(), ec)) {
        std::string name = entry.path().filename().string();
        if (tokens.count(name.substr(0, name.find('.')))) continue;
        if (std::filesystem::remove(entry.path(), ec)) ++removed;
    }
    return static_cast<int>(removed);
}

int ServerStore::CreateAccount(const std::string& name, int64_t& account_id, std::string& session) {
    session = RandomHexToken();
    if (session.empty()) return -1;
    SqliteStmt ins(m_db, "INSERT INTO accounts (name, session) VALUES (?, ?)");
    if (ins.Bind(1, name).Bind(2, session).Run() < 0) return -1;
    account_id = m_db.LastInsertRowId();
    return 0;
}

int ServerStore::CreateView(const std::string& name, uint64_t& view_id) {
    SqliteStmt ins(m_db, "INSERT INTO views (name) VALUES (?)");
    if (ins.Bind(1, name).Run() < 0) return -1;
    view_id = static_cast<uint64_t>(m_db.LastInsertRowId());
    return 0;
}

int ServerStore::Grant(int64_t account_id, uint64_t view_id) {
    SqliteStmt ins(m_db, "INSERT OR IGNORE INTO access (account_id, view_id) VALUES (?, ?)");
    return ins.Bind(1, account_id).Bind(2, view_id).Run();
}

int ServerStore::FindView(const std::string& name, uint64_t& view_id) {
    SqliteStmt q(m_db, "SELECT id FROM views WHERE name = ? ORDER BY id LIMIT 1");
    int rc = q.Bind(1, name).Step();
    if (rc == 1) view_id = q.UInt(0);
    return rc;
}

int ServerStore::ListViews(std::vector<std::pair<uint64_t, std::string>>& views) {
    views.clear();
    SqliteStmt q(m_db, "SELECT id, name FROM views ORDER BY id");
    int rc;
    while ((rc = q.Step()) == 1) views.emplace_back(q.UInt(0), q.Text(1));
    return rc;
}

uint32_t ServerStore::Authorize(const std::string& session, uint64_t view_id, int64_t& account_id) {
    if (session.empty()) return 0x2001;
    SqliteStmt acc(m_db, "SELECT id FROM accounts WHERE session = ?");
    int rc = acc.Bind(1, session).Step();
    if (rc < 0) return 0x7000;
    if (rc == 0) return 0x2001;
    account_id = acc.Int(0);
    SqliteStmt view(m_db, "SELECT id FROM views WHERE id = ?");
    rc = view.Bind(1, view_id).Step();
    if (rc < 0) return 0x7000;
    if (rc == 0) return 0x3001;
    SqliteStmt access(m_db, "SELECT 1 FROM access WHERE account_id = ? AND view_id = ?");
    rc = access.Bind(1, account_id).Bind(2, view_id).Step();
    if (rc < 0) return 0x7000;
    return rc == 1 ? 0 : 0x3002;
}

int ServerStore::GetObject(uint64_t view_id, const std::string& path, ServerObject& obj) {
    std::string sql =
        std::string("SELECT ") + kObjectColumns + " FROM objects WHERE view_id = ? AND path = ?";
    SqliteStmt q(m_db, sql.c_str());
    int rc = q.Bind(1, view_id).Bind(2, path).Step();
    if (rc == 1) obj = ObjectFromRow(q);
    return rc;
}

int64_t ServerStore::LastSyncId(uint64_t view_id) {
    SqliteStmt q(m_db, "SELECT last_sync_id FROM views WHERE id = ?");
    int rc = q.Bind(1, view_id).Step();
    if (rc < 0) return -1;
    return rc == 1 ? q.Int(0) : 0;
}

int ServerStore::GetVersion(uint64_t view_id, const std::string& path, uint64_t sync_id,
                            ContentInfo& content) {
    SqliteStmt q(m_db,
                 "SELECT c.id, c.md4, c.size FROM versions v JOIN contents c ON c.id = "
                 "v.content_id WHERE v.view_id = ? AND v.sync_id = ? AND v.path = ?");
    int rc = q.Bind(1, view_id).Bind(2, sync_id).Bind(3, path).Step();
    if (rc == 1) content = ContentInfo{q.Int(0), q.Text(1), q.UInt(2)};
    return rc;
}

int ServerStore::GetContent(int64_t content_id, ContentInfo& content) {
    SqliteStmt q(m_db, "SELECT id, md4, size FROM contents WHERE id = ?");
    int rc = q.Bind(1, content_id).Step();
    if (rc == 1) content = ContentInfo{q.Int(0), q.Text(1), q.UInt(2)};
    return rc;
}

int ServerStore::ContentUsedInView(uint64_t view_id, int64_t content_id) {
    SqliteStmt q(m_db,
                 "SELECT 1 WHERE EXISTS (SELECT 1 FROM objects WHERE content_id = ?1 AND view_id "
                 "= ?2) OR EXISTS (SELECT 1 FROM versions WHERE content_id = ?1 AND view_id = ?2)");
    return q.Bind(1, content_id).Bind(2, view_id).Step();
}

int ServerStore::FindContentInView(uint64_t view_id, const std::string& md4, uint64_t size,
                                   ContentInfo& content) {
    SqliteStmt q(m_db, "SELECT id FROM contents WHERE md4 = ? AND size = ?");
    int rc = q.Bind(1, md4).Bind(2, size).Step();
    if (rc <= 0) return rc;
    int64_t id = q.Int(0);
    rc = ContentUsedInView(view_id, id);
    if (rc == 1) content = ContentInfo{id, md4, size};
    return rc;
}

int ServerStore::ListTree(uint64_t view_id, const std::string& root,
                          std::vector<ServerObject>& out) {
    out.clear();
    std::string sql = std::string("SELECT ") + kObjectColumns +
                      " FROM objects WHERE view_id = ? AND (path = ? OR (path > ? AND path < ?))"
                      " ORDER BY path";
    SqliteStmt q(m_db, sql.c_str());
    q.Bind(1, view_id)
        .Bind(2, root)
        .Bind(3, server_path::DescendantLow(root))
        .Bind(4, server_path::DescendantHigh(root));
    int rc;
    while ((rc = q.Step()) == 1) out.push_back(ObjectFromRow(q));
    return rc;
}

int ServerStore::CreateToken(int64_t account_id, uint64_t view_id, std::string& token) {
    token = RandomHexToken();
    if (token.empty()) return -1;
    SqliteStmt ins(m_db,
                   "INSERT INTO tokens (token, account_id, view_id, created) VALUES (?, ?, ?, ?)");
    return ins.Bind(1, token).Bind(2, account_id).Bind(3, view_id).Bind(4, Now()).Run();
}

int ServerStore::TokenExists(const std::string& token) {
    SqliteStmt q(m_db, "SELECT 1 FROM tokens WHERE token = ? AND created >= ?");
    return q.Bind(1, token).Bind(2, Now() - kTokenLifetime).Step();
}

int ServerStore::GetToken(const std::string& token, int64_t account_id, uint64_t view_id,
                          ResumeToken& out) {
    SqliteStmt q(m_db,
                 "SELECT account_id, view_id, created, dl_path, dl_file, dl_content, dl_sync_id,"
                 " dl_base, dl_delta FROM tokens WHERE token = ?");
    int rc = q.Bind(1, token).Step();
    if (rc <= 0) return rc;
    out.token = token;
    out.account_id = q.Int(0);
    out.view_id = q.UInt(1);
    out.created = q.Int(2);
    out.dl_path = q.Text(3);
    out.dl_file = q.Text(4);
    out.dl_content = q.Int(5);
    out.dl_sync_id = q.UInt(6);
    out.dl_base = q.UInt(7);
    out.dl_delta = q.Int(8) != 0;
    if (out.account_id != account_id || out.view_id != view_id) return 0;
    return out.created + kTokenLifetime < Now() ? 0 : 1;
}

int ServerStore::SaveDownloadPin(const ResumeToken& token) {
    SqliteStmt up(m_db,
                  "UPDATE tokens SET dl_path = ?, dl_file = ?, dl_content = ?, dl_sync_id = ?,"
                  " dl_base = ?, dl_delta = ? WHERE token = ?");
    return up.Bind(1, token.dl_path)
        .Bind(2, token.dl_file)
        .Bind(3, token.dl_content)
        .Bind(4, token.dl_sync_id)
        .Bind(5, token.dl_base)
        .Bind(6, token.dl_delta)
        .Bind(7, token.token)
        .Run();
}

std::string ServerStore::UploadSpoolOf(const std::string& token) const {
    return m_contents.ResumeDir() + "/" + token + ".up";
}

std::string ServerStore::DownloadPayloadOf(const std::string& token) const {
    return m_contents.ResumeDir() + "/" + token + ".dl";
}

int ServerStore::DropToken(const std::string& token) {
    std::error_code ec;
    std::filesystem::remove(UploadSpoolOf(token), ec);
    std::filesystem::remove(DownloadPayloadOf(token), ec);
    SqliteStmt del(m_db, "DELETE FROM tokens WHERE token = ?");
    return del.Bind(1, token).Run();
}

int ServerStore::ExpireTokens(int64_t now) {
    std::vector<std::string> old;
    {
        SqliteStmt q(m_db, "SELECT token FROM tokens WHERE created < ?");
        q.Bind(1, now - kTokenLifetime);
        int rc;
        while ((rc = q.Step()) == 1) old.push_back(q.Text(0));
        if (rc < 0) return -1;
    }
    for (const std::string& token : old) DropToken(token);
    return static_cast<int>(old.size());
}
