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
// Another process (an admin command) may hold the write lock for a while.
constexpr int kBusyTimeoutMs = 60000;
// Look-ups of paths this deep keep their statement on the connection; deeper ones are rare
// and prepared each time, so a hostile client cannot fill the connection with statements.
constexpr size_t kKeptLookUpDepth = 32;

// Paths compare byte for byte (BINARY collation), which is what the descendant ranges of
// server_path rely on: a directory's subtree is (path + "/", path + "0").
//
// Contents up to ContentStore::kInlineLimit keep their bytes in `data`; larger ones have
// NULL there and a file. Every file object's content also has the version row of the
// object's own sync id, so the versions alone tell whether a content is still used.
// Sync ids are unique in a view's objects, which lets a pull walk them in id order.
const char* const kSchema =
    "CREATE TABLE IF NOT EXISTS meta (key TEXT PRIMARY KEY, value TEXT NOT NULL);"
    "INSERT OR IGNORE INTO meta VALUES ('schema', '2');"
    "CREATE TABLE IF NOT EXISTS accounts (id INTEGER PRIMARY KEY, name TEXT NOT NULL,"
    " session TEXT NOT NULL UNIQUE);"
    "CREATE TABLE IF NOT EXISTS views (id INTEGER PRIMARY KEY, name TEXT NOT NULL,"
    " last_sync_id INTEGER NOT NULL DEFAULT 0);"
    "CREATE TABLE IF NOT EXISTS access (account_id INTEGER NOT NULL, view_id INTEGER NOT NULL,"
    " PRIMARY KEY (account_id, view_id));"
    "CREATE TABLE IF NOT EXISTS contents (id INTEGER PRIMARY KEY, md4 TEXT NOT NULL,"
    " size INTEGER NOT NULL, data BLOB, UNIQUE (md4, size));"
    "CREATE TABLE IF NOT EXISTS objects (view_id INTEGER NOT NULL, path TEXT NOT NULL,"
    " parent TEXT NOT NULL, is_dir INTEGER NOT NULL, sync_id INTEGER NOT NULL,"
    " max_id INTEGER NOT NULL, size INTEGER NOT NULL DEFAULT 0, md4 TEXT NOT NULL DEFAULT '',"
    " mtime INTEGER NOT NULL DEFAULT 0, exec_bit INTEGER NOT NULL DEFAULT 0,"
    " content_id INTEGER NOT NULL DEFAULT 0, PRIMARY KEY (view_id, path));"
    "CREATE UNIQUE INDEX IF NOT EXISTS objects_sync_id ON objects (view_id, sync_id);"
    "CREATE INDEX IF NOT EXISTS objects_parent ON objects (view_id, parent);"
    "CREATE TABLE IF NOT EXISTS tombstones (view_id INTEGER NOT NULL, path TEXT NOT NULL,"
    " parent TEXT NOT NULL, is_dir INTEGER NOT NULL, sync_id INTEGER NOT NULL,"
    " max_id INTEGER NOT NULL, PRIMARY KEY (view_id, path));"
    "CREATE INDEX IF NOT EXISTS tombstones_sync ON tombstones (view_id, sync_id);"
    "CREATE INDEX IF NOT EXISTS tombstones_parent ON tombstones (view_id, parent);"
    "CREATE TABLE IF NOT EXISTS versions (view_id INTEGER NOT NULL, sync_id INTEGER NOT NULL,"
    " path TEXT NOT NULL, content_id INTEGER NOT NULL, PRIMARY KEY (view_id, sync_id));"
    "CREATE INDEX IF NOT EXISTS versions_path ON versions (view_id, path, sync_id);"
    "CREATE INDEX IF NOT EXISTS versions_users ON versions (content_id, view_id);"
    "CREATE TABLE IF NOT EXISTS tokens (token TEXT PRIMARY KEY, account_id INTEGER NOT NULL,"
    " view_id INTEGER NOT NULL, created INTEGER NOT NULL, dl_path TEXT NOT NULL DEFAULT '',"
    " dl_file TEXT NOT NULL DEFAULT '', dl_content INTEGER NOT NULL DEFAULT 0,"
    " dl_sync_id INTEGER NOT NULL DEFAULT 0, dl_base INTEGER NOT NULL DEFAULT 0,"
    " dl_delta INTEGER NOT NULL DEFAULT 0);";

// A store of the first schema: contents gain their inline bytes, the indexes that only
// served clean-up go, and sync ids become unique in the index pulls walk.
const char* const kUpgradeFrom1 =
    "BEGIN IMMEDIATE;"
    "ALTER TABLE contents ADD COLUMN data BLOB;"
    "DROP INDEX IF EXISTS objects_content;"
    "DROP INDEX IF EXISTS versions_content;"
    "DROP INDEX IF EXISTS objects_sync;"
    "UPDATE meta SET value = '2' WHERE key = 'schema';"
    "COMMIT;";

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

ServerObject ObjectFromRow(const sqlite::Statement& stmt, int first) {
    ServerObject obj;
    obj.path = stmt.String(first);
    obj.is_dir = stmt.Int(first + 1) != 0;
    obj.sync_id = stmt.UInt64(first + 2);
    obj.max_id = stmt.UInt64(first + 3);
    obj.size = stmt.UInt64(first + 4);
    obj.md4 = stmt.String(first + 5);
    obj.mtime = static_cast<uint32_t>(stmt.Int64(first + 6));
    obj.exec_bit = stmt.Int(first + 7) != 0;
    obj.content_id = stmt.Int64(first + 8);
    return obj;
}

std::string ParameterList(int first, size_t count) {
    std::string list;
    for (size_t i = 0; i < count; ++i) {
        if (i > 0) list += ", ";
        list += "?" + std::to_string(first + static_cast<int>(i));
    }
    return list;
}

std::vector<std::string> Ancestors(const std::string& path) {
    std::vector<std::string> out;
    for (std::string p = server_path::Parent(path); p != "/"; p = server_path::Parent(p))
        out.push_back(p);
    return out;
}

sqlite::Statement* ServerStore::ForDepth(const std::string& sql, size_t depth,
                                         sqlite::Statement& once) {
    if (depth <= kKeptLookUpDepth) return m_db.Reuse(sql.c_str());
    once = m_db.Prepare(sql.c_str());
    return once.ok() ? &once : nullptr;
}

int ServerStore::Fail(const char* what) {
    const sqlite::Failure& f = m_db.failure();
    Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] server-store(%d): %s: %s: %s\n", __LINE__, what,
                   f.call, f.message.c_str());
    return -1;
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
    std::string path = data_dir + "/server.db";
    if (m_db.Open(path.c_str(), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX) <
        0)
        return Fail("open");
    m_db.SetBusyTimeout(kBusyTimeoutMs);
    // FULL: an acknowledged change must survive a power cut, not only a killed process.
    if (m_db.UseWal("FULL") < 0) return Fail("journal");
    if (CreateSchema() < 0) return -1;
    return m_contents.Open(data_dir);
}

int ServerStore::CreateSchema() {
    // Each connection opens the store; only the first open of a new folder writes.
    std::string schema;
    int rc = m_db.QueryFirst("SELECT value FROM meta WHERE key = 'schema'",
                             [&](const sqlite::Statement& r) { schema = r.String(0); });
    if (rc == 1 && schema == "2") return 0;
    if (rc == 1 && schema == "1" && m_db.ExecAtomic(kUpgradeFrom1) < 0) return Fail("upgrade");
    if (m_db.ExecAtomic((std::string("BEGIN IMMEDIATE;") + kSchema + "COMMIT;").c_str()) < 0)
        return Fail("schema");
    return 0;
}

int ServerStore::CheckIntegrity() {
    // Objects whose content is unrecorded, or whose version row is missing.
    const char* const kUnbacked =
        "SELECT o.path FROM objects o LEFT JOIN contents c ON c.id = o.content_id WHERE "
        "o.is_dir = 0 AND (c.id IS NULL OR NOT EXISTS (SELECT 1 FROM versions v WHERE "
        "v.view_id = o.view_id AND v.sync_id = o.sync_id AND v.content_id = o.content_id)) "
        "LIMIT 1";
    std::string bad;
    int rc = m_db.QueryFirst(kUnbacked, [&](const sqlite::Statement& r) { bad = r.String(0); });
    if (rc < 0) return Fail("integrity check");
    if (rc == 0) {
        rc = m_db.Query(
            "SELECT id, size FROM contents WHERE data IS NULL", [&](const sqlite::Statement& r) {
                if (!bad.empty()) return;
                std::error_code ec;
                uint64_t size = std::filesystem::file_size(m_contents.PathOf(r.Int64(0)), ec);
                if (ec || size != r.UInt64(1)) bad = "content " + std::to_string(r.Int64(0));
            });
        if (rc < 0) return Fail("integrity check");
    }
    if (bad.empty()) return 0;
    Logger::LogMsg(Logger::L_ERR, kLog,
                   "[ERROR] server-store(%d): %s/server.db records content that is missing "
                   "(first: %s); refusing to serve this store\n",
                   __LINE__, m_data_dir.c_str(), bad.c_str());
    return -1;
}

int ServerStore::Recover() {
    if (ExpireTokens(Now()) < 0) return -1;
    std::set<int64_t> files;
    if (m_db.Query("SELECT id FROM contents WHERE data IS NULL",
                   [&](const sqlite::Statement& r) { files.insert(r.Int64(0)); }) < 0)
        return Fail("list contents");
    std::set<std::string> tokens;
    if (m_db.Query("SELECT token FROM tokens",
                   [&](const sqlite::Statement& r) { tokens.insert(r.String(0)); }) < 0)
        return Fail("list tokens");
    size_t removed = m_contents.Sweep(files);
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(m_contents.ResumeDir(), ec)) {
        std::string name = entry.path().filename().string();
        if (tokens.count(name.substr(0, name.find('.')))) continue;
        if (std::filesystem::remove(entry.path(), ec)) ++removed;
    }
    if (CheckIntegrity() < 0) return -1;
    return static_cast<int>(removed);
}

int ServerStore::CreateAccount(const std::string& name, int64_t& account_id, std::string& session) {
    session = RandomHexToken();
    if (session.empty()) return -1;
    if (m_db.Run("INSERT INTO accounts (name, session) VALUES (?, ?)", name, session) < 0)
        return Fail("create account");
    account_id = m_db.LastInsertRowId();
    return 0;
}

int ServerStore::CreateView(const std::string& name, uint64_t& view_id) {
    if (m_db.Run("INSERT INTO views (name) VALUES (?)", name) < 0) return Fail("create view");
    view_id = static_cast<uint64_t>(m_db.LastInsertRowId());
    return 0;
}

int ServerStore::Grant(int64_t account_id, uint64_t view_id) {
    if (m_db.Run("INSERT OR IGNORE INTO access (account_id, view_id) VALUES (?, ?)", account_id,
                 view_id) < 0)
        return Fail("grant");
    return 0;
}

int ServerStore::FindView(const std::string& name, uint64_t& view_id) {
    int rc = m_db.QueryFirst(
        "SELECT id FROM views WHERE name = ? ORDER BY id LIMIT 1",
        [&](const sqlite::Statement& r) { view_id = r.UInt64(0); }, name);
    return rc < 0 ? Fail("find view") : rc;
}

int ServerStore::ListViews(std::vector<std::pair<uint64_t, std::string>>& views) {
    views.clear();
    if (m_db.Query("SELECT id, name FROM views ORDER BY id", [&](const sqlite::Statement& r) {
            views.emplace_back(r.UInt64(0), r.String(1));
        }) < 0)
        return Fail("list views");
    return 0;
}

uint32_t ServerStore::Authorize(const std::string& session, uint64_t view_id, int64_t& account_id) {
    if (session.empty()) return 0x2001;
    sqlite::Statement* q = m_db.Reuse(
        "SELECT a.id, EXISTS (SELECT 1 FROM views WHERE id = ?2), EXISTS (SELECT 1 FROM access "
        "WHERE account_id = a.id AND view_id = ?2) FROM accounts a WHERE a.session = ?1");
    bool view = false, access = false;
    int rc = q ? q->BindAll(session, view_id).First([&](const sqlite::Statement& r) {
        account_id = r.Int64(0);
        view = r.Int(1) != 0;
        access = r.Int(2) != 0;
    })
               : -1;
    if (rc < 0) {
        Fail("authorize");
        return 0x7000;
    }
    if (rc == 0) return 0x2001;
    if (!view) return 0x3001;
    return access ? 0 : 0x3002;
}

int ServerStore::GetObject(uint64_t view_id, const std::string& path, ServerObject& obj) {
    sqlite::Statement* q =
        m_db.Reuse("SELECT " SERVER_OBJECT_COLUMNS " FROM objects WHERE view_id = ? AND path = ?");
    int rc = q ? q->BindAll(view_id, path).First([&](const sqlite::Statement& r) {
        obj = ObjectFromRow(r);
    })
               : -1;
    return rc < 0 ? Fail("get object") : rc;
}

int ServerStore::LookUpPath(uint64_t view_id, const std::string& path, PathState& out) {
    std::vector<std::string> chain = Ancestors(path);
    chain.insert(chain.begin(), path);
    std::string sql = "SELECT " SERVER_OBJECT_COLUMNS
                      " FROM objects WHERE view_id = ?1 AND path IN (" +
                      ParameterList(2, chain.size()) + ")";
    sqlite::Statement once;
    sqlite::Statement* q = ForDepth(sql, chain.size(), once);
    if (!q) return Fail("look up path");
    q->Bind(1, view_id);
    for (size_t i = 0; i < chain.size(); ++i) q->Bind(static_cast<int>(i) + 2, chain[i]);
    out = PathState();
    std::set<std::string> present;
    int rc = q->ForEach([&](const sqlite::Statement& r) {
        ServerObject obj = ObjectFromRow(r);
        if (obj.path == path) {
            out.found = 1;
            out.obj = obj;
            return;
        }
        if (!obj.is_dir) out.under_file = true;
        present.insert(obj.path);
    });
    if (rc < 0) return Fail("look up path");
    for (size_t i = chain.size(); i-- > 1;) {
        if (!present.count(chain[i])) out.missing.push_back(chain[i]);
    }
    return 0;
}

int64_t ServerStore::LastSyncId(uint64_t view_id) {
    int64_t last = 0;
    sqlite::Statement* q = m_db.Reuse("SELECT last_sync_id FROM views WHERE id = ?");
    int rc =
        q ? q->BindAll(view_id).First([&](const sqlite::Statement& r) { last = r.Int64(0); }) : -1;
    return rc < 0 ? Fail("last sync id") : last;
}

int ServerStore::GetVersion(uint64_t view_id, const std::string& path, uint64_t sync_id,
                            ContentInfo& content) {
    sqlite::Statement* q = m_db.Reuse(
        "SELECT c.id, c.md4, c.size FROM versions v JOIN contents c ON c.id = v.content_id "
        "WHERE v.view_id = ? AND v.sync_id = ? AND v.path = ?");
    int rc = q ? q->BindAll(view_id, sync_id, path).First([&](const sqlite::Statement& r) {
        content = ContentInfo{r.Int64(0), r.String(1), r.UInt64(2)};
    })
               : -1;
    return rc < 0 ? Fail("get version") : rc;
}

int ServerStore::GetContent(int64_t content_id, ContentInfo& content) {
    sqlite::Statement* q = m_db.Reuse("SELECT id, md4, size FROM contents WHERE id = ?");
    int rc = q ? q->BindAll(content_id).First([&](const sqlite::Statement& r) {
        content = ContentInfo{r.Int64(0), r.String(1), r.UInt64(2)};
    })
               : -1;
    return rc < 0 ? Fail("get content") : rc;
}

int ServerStore::ContentUsedInView(uint64_t view_id, int64_t content_id) {
    // An object's content always has its version row, so the versions tell it all.
    sqlite::Statement* q =
        m_db.Reuse("SELECT 1 FROM versions WHERE content_id = ? AND view_id = ? LIMIT 1");
    int rc = q ? q->BindAll(content_id, view_id).First([](const sqlite::Statement&) {}) : -1;
    return rc < 0 ? Fail("content use") : rc;
}

int ServerStore::FindContentInView(uint64_t view_id, const std::string& md4, uint64_t size,
                                   ContentInfo& content) {
    int64_t id = 0;
    sqlite::Statement* q = m_db.Reuse("SELECT id FROM contents WHERE md4 = ? AND size = ?");
    int rc =
        q ? q->BindAll(md4, size).First([&](const sqlite::Statement& r) { id = r.Int64(0); }) : -1;
    if (rc <= 0) return rc < 0 ? Fail("find content") : 0;
    rc = ContentUsedInView(view_id, id);
    if (rc == 1) content = ContentInfo{id, md4, size};
    return rc;
}

int ServerStore::ListTree(uint64_t view_id, const std::string& root,
                          std::vector<ServerObject>& out) {
    out.clear();
    int rc = m_db.Query(
        "SELECT " SERVER_OBJECT_COLUMNS
        " FROM objects WHERE view_id = ? AND (path = ? OR (path > ? AND path < ?)) ORDER BY path",
        [&](const sqlite::Statement& r) { out.push_back(ObjectFromRow(r)); }, view_id, root,
        server_path::DescendantLow(root), server_path::DescendantHigh(root));
    return rc < 0 ? Fail("list tree") : 0;
}

int ServerStore::ReadContent(int64_t content_id, std::string& bytes) {
    bool inline_data = false;
    sqlite::Statement* q = m_db.Reuse("SELECT data FROM contents WHERE id = ?");
    int rc = q ? q->BindAll(content_id).First([&](const sqlite::Statement& r) {
        inline_data = r.Blob(0, bytes);
    })
               : -1;
    if (rc <= 0) return rc < 0 ? Fail("read content") : 0;
    if (inline_data) return 1;
    return m_contents.ReadFile(m_contents.PathOf(content_id), bytes) < 0 ? -1 : 1;
}

int ServerStore::ContentFile(int64_t content_id, std::string& path, std::string& scratch) {
    std::string bytes;
    bool inline_data = false;
    sqlite::Statement* q = m_db.Reuse("SELECT data FROM contents WHERE id = ?");
    int rc = q ? q->BindAll(content_id).First([&](const sqlite::Statement& r) {
        inline_data = r.Blob(0, bytes);
    })
               : -1;
    if (rc <= 0) return rc < 0 ? Fail("content file") : 0;
    if (!inline_data) {
        path = m_contents.PathOf(content_id);
        return 1;
    }
    scratch = m_contents.NewSpoolPath();
    if (m_contents.WriteFile(scratch, bytes) < 0) return -1;
    path = scratch;
    return 1;
}

int ServerStore::CreateToken(int64_t account_id, uint64_t view_id, std::string& token) {
    token = RandomHexToken();
    if (token.empty()) return -1;
    if (m_db.Run("INSERT INTO tokens (token, account_id, view_id, created) VALUES (?, ?, ?, ?)",
                 token, account_id, view_id, Now()) < 0)
        return Fail("create token");
    return 0;
}

int ServerStore::TokenExists(const std::string& token) {
    sqlite::Statement* q = m_db.Reuse("SELECT 1 FROM tokens WHERE token = ? AND created >= ?");
    int rc =
        q ? q->BindAll(token, Now() - kTokenLifetime).First([](const sqlite::Statement&) {}) : -1;
    return rc < 0 ? Fail("token") : rc;
}

int ServerStore::GetToken(const std::string& token, int64_t account_id, uint64_t view_id,
                          ResumeToken& out) {
    sqlite::Statement* q = m_db.Reuse(
        "SELECT account_id, view_id, created, dl_path, dl_file, dl_content, dl_sync_id,"
        " dl_base, dl_delta FROM tokens WHERE token = ?");
    int rc = q ? q->BindAll(token).First([&](const sqlite::Statement& r) {
        out.token = token;
        out.account_id = r.Int64(0);
        out.view_id = r.UInt64(1);
        out.created = r.Int64(2);
        out.dl_path = r.String(3);
        out.dl_file = r.String(4);
        out.dl_content = r.Int64(5);
        out.dl_sync_id = r.UInt64(6);
        out.dl_base = r.UInt64(7);
        out.dl_delta = r.Int(8) != 0;
    })
               : -1;
    if (rc <= 0) return rc < 0 ? Fail("get token") : 0;
    if (out.account_id != account_id || out.view_id != view_id) return 0;
    return out.created + kTokenLifetime < Now() ? 0 : 1;
}

int ServerStore::SaveDownloadPin(const ResumeToken& token) {
    if (m_db.Run("UPDATE tokens SET dl_path = ?, dl_file = ?, dl_content = ?, dl_sync_id = ?,"
                 " dl_base = ?, dl_delta = ? WHERE token = ?",
                 token.dl_path, token.dl_file, token.dl_content, token.dl_sync_id, token.dl_base,
                 static_cast<int>(token.dl_delta), token.token) < 0)
        return Fail("save download pin");
    return 0;
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
    if (m_db.Run("DELETE FROM tokens WHERE token = ?", token) < 0) return Fail("drop token");
    return 0;
}

int ServerStore::ExpireTokens(int64_t now) {
    std::vector<std::string> old;
    if (m_db.Query(
            "SELECT token FROM tokens WHERE created < ?",
            [&](const sqlite::Statement& r) { old.push_back(r.String(0)); },
            now - kTokenLifetime) < 0)
        return Fail("expire tokens");
    for (const std::string& token : old) DropToken(token);
    return static_cast<int>(old.size());
}
