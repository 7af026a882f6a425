// server-store.h: the server's state in DIR: one SQLite database (accounts, views and who
// may use them, the objects of each view with their sync ids, tombstones of what was
// removed, the kept versions of file contents, content records, transfer tokens) and the
// content files beside it. Each connection thread opens its own ServerStore; writes go
// through TreeWriter, whose transactions give each view one commit order.
//
// Results: 0 or more on success, -1 on a database or file failure (logged). Look-ups give
// 1 found, 0 not found, -1 failure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "content-store.h"
#include "sqlite-db.h"

// One object of a view, as stored.
struct ServerObject {
    std::string path;  // view path, "/a/b"
    bool is_dir = false;
    uint64_t sync_id = 0;  // the change that made the object what it is
    uint64_t max_id = 0;   // highest sync id of the object and of what exists below it
    uint64_t size = 0;
    std::string md4;  // 32 lower-case hex digits; empty for a directory
    uint32_t mtime = 0;
    bool exec_bit = false;
    int64_t content_id = 0;  // 0 for a directory
};

// A stored content.
struct ContentInfo {
    int64_t id = 0;
    std::string md4;
    uint64_t size = 0;
};

// A transfer token (resumable uploads and downloads).
struct ResumeToken {
    std::string token;
    int64_t account_id = 0;
    uint64_t view_id = 0;
    int64_t created = 0;
    // The payload a download of this token serves, so that a resumed download gets the
    // same bytes: the token's own file (a delta) or a content.
    std::string dl_path;  // view path downloaded
    std::string dl_file;  // the token's own payload file, or empty
    int64_t dl_content = 0;
    uint64_t dl_sync_id = 0;
    uint64_t dl_base = 0;
    bool dl_delta = false;
};

class ServerStore {
  public:
    static constexpr size_t kDefaultVersionsKept = 8;
    // Tokens older than this are forgotten, with what they hold.
    static constexpr int64_t kTokenLifetime = 24 * 3600;

    ServerStore() = default;
    ServerStore(const ServerStore&) = delete;
    ServerStore& operator=(const ServerStore&) = delete;

    // Opens DIR/server.db (creating the schema) and the content store. 0 or -1.
    int Open(const std::string& data_dir, size_t versions_kept = kDefaultVersionsKept);
    // Start-up clean-up of a server that may have been killed: spooled binaries, half-made
    // contents and content files without a record go, expired tokens with their files.
    // Returns the number of files removed, or -1.
    int Recover();

    SqliteDb& db() { return m_db; }
    ContentStore& contents() { return m_contents; }
    const std::string& data_dir() const { return m_data_dir; }
    size_t versions_kept() const { return m_versions_kept; }

    // ---- Accounts and views ----
    // A new account with a fresh random session token. 0 or -1.
    int CreateAccount(const std::string& name, int64_t& account_id, std::string& session);
    int CreateView(const std::string& name, uint64_t& view_id);
    int Grant(int64_t account_id, uint64_t view_id);
    // 1 and the id when a view of that name exists, 0 when none, -1.
    int FindView(const std::string& name, uint64_t& view_id);
    int ListViews(std::vector<std::pair<uint64_t, std::string>>& views);
    // Who may use the view: 0 with the account, or the reply's error code: 0x2001 for an
    // unknown or empty session, 0x3001 for an unknown view, 0x3002 when the account has no
    // access, 0x7000 when the database fails.
    uint32_t Authorize(const std::string& session, uint64_t view_id, int64_t& account_id);

    // ---- Reads (each its own snapshot unless a transaction is open on this store) ----
    int GetObject(uint64_t view_id, const std::string& path, ServerObject& obj);
    // The view's highest sync id; -1 on failure (0 for an empty or unknown view).
    int64_t LastSyncId(uint64_t view_id);
    // The content a file had at `sync_id`, if that version is still kept.
    int GetVersion(uint64_t view_id, const std::string& path, uint64_t sync_id,
                   ContentInfo& content);
    int GetContent(int64_t content_id, ContentInfo& content);
    // A content with this hash and size that some object or kept version of the view uses.
    int FindContentInView(uint64_t view_id, const std::string& md4, uint64_t size,
                          ContentInfo& content);
    // 1 when an object or kept version of the view uses the content.
    int ContentUsedInView(uint64_t view_id, int64_t content_id);
    // All objects of the view within `root` (itself included), in path order.
    int ListTree(uint64_t view_id, const std::string& root, std::vector<ServerObject>& out);

    // ---- Tokens ----
    int CreateToken(int64_t account_id, uint64_t view_id, std::string& token);
    // 1 when the token exists and is young enough, whoever it belongs to.
    int TokenExists(const std::string& token);
    // 1 when the token exists, is young enough and belongs to this account and view.
    int GetToken(const std::string& token, int64_t account_id, uint64_t view_id, ResumeToken& out);
    int SaveDownloadPin(const ResumeToken& token);
    // Forgets a token and deletes its files.
    int DropToken(const std::string& token);
    // The spool file of a token's resumable upload, and the payload file of its download.
    std::string UploadSpoolOf(const std::string& token) const;
    std::string DownloadPayloadOf(const std::string& token) const;
    // Drops expired tokens. The count, or -1.
    int ExpireTokens(int64_t now);

  private:
    SqliteDb m_db;
    ContentStore m_contents;
    std::string m_data_dir;
    size_t m_versions_kept = kDefaultVersionsKept;
};

// A random token of 32 hex digits from the system's generator; empty on failure.
std::string RandomHexToken();

// Reads one object row from a statement whose columns are, from `first` on: path, is_dir,
// sync_id, max_id, size, md4, mtime, exec_bit, content_id.
ServerObject ObjectFromRow(const SqliteStmt& stmt, int first = 0);
// The column list that ObjectFromRow reads.
constexpr const char* kObjectColumns =
    "path, is_dir, sync_id, max_id, size, md4, mtime, exec_bit, content_id";
