// server-store.h: the server's state in DIR: one SQLite database (accounts, views and who
// may use them, the objects of each view with their sync ids, tombstones of what was
// removed, the kept versions of file contents, content records, transfer tokens), with
// small contents inside it and larger ones as files beside it. Each connection thread opens
// its own ServerStore for reading; every change goes through a WriteBatch and TreeWriter
// (the running server's one writer, or an admin command).
//
// Results: 0 or more on success, -1 on a database or file failure (logged). Look-ups give
// 1 found, 0 not found, -1 failure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "content-store.h"
#include "state/sqlite-db.h"

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

// What stands at a path and above it, read in one look-up.
struct PathState {
    int found = 0;     // 1 when an object stands at the path
    ServerObject obj;  // that object
    bool under_file = false;
    // Ancestors with no object, the root excluded, nearest the root first.
    std::vector<std::string> missing;
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

    // Opens DIR/server.db (creating or upgrading the schema) and the content store. 0 or -1.
    int Open(const std::string& data_dir, size_t versions_kept = kDefaultVersionsKept);
    // Start-up clean-up of a server that may have been killed: spooled binaries, half-made
    // contents and content files without a record go, expired tokens with their files.
    // Returns the number of files removed, or -1 (logged), also when a record lacks its
    // content: such a store is not to be served.
    int Recover();

    sqlite::Database& db() { return m_db; }
    ContentStore& contents() { return m_contents; }
    const std::string& data_dir() const { return m_data_dir; }
    size_t versions_kept() const { return m_versions_kept; }
    // Logs the connection's last failure with what was being done. Always -1.
    int Fail(const char* what);
    // A statement whose text depends on a path's depth: kept on the connection for the
    // usual depths, prepared into `once` for deeper ones, so that a hostile client cannot
    // fill the connection with statements. Null when it can't be prepared.
    sqlite::Statement* ForDepth(const std::string& sql, size_t depth, sqlite::Statement& once);

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
    // The object at `path` and the state of its ancestors. 0 or -1.
    int LookUpPath(uint64_t view_id, const std::string& path, PathState& out);
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
    // The bytes of a content, wherever they are kept. 1, 0 for no such content, -1.
    int ReadContent(int64_t content_id, std::string& bytes);
    // A file holding the content: its own file, or for a content kept in the database a
    // new temporary written from it, named in `scratch` for the caller to delete. 1 with
    // `path` set, 0 for no such content, -1.
    int ContentFile(int64_t content_id, std::string& path, std::string& scratch);

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
    int CreateSchema();
    // -1 (logged) when an object's content has no record or no file, or a file lacks the
    // version row that keeps its content counted as used.
    int CheckIntegrity();

    sqlite::Database m_db;
    ContentStore m_contents;
    std::string m_data_dir;
    size_t m_versions_kept = kDefaultVersionsKept;
};

// A random token of 32 hex digits from the system's generator; empty on failure.
std::string RandomHexToken();

// Reads one object row from a statement whose columns are, from `first` on: path, is_dir,
// sync_id, max_id, size, md4, mtime, exec_bit, content_id.
ServerObject ObjectFromRow(const sqlite::Statement& stmt, int first = 0);
// "?first, ?first+1, ..." for `count` parameters.
std::string ParameterList(int first, size_t count);
// The ancestors of a path, nearest first, without the root.
std::vector<std::string> Ancestors(const std::string& path);
// The column list that ObjectFromRow reads.
#define SERVER_OBJECT_COLUMNS \
    "path, is_dir, sync_id, max_id, size, md4, mtime, exec_bit, content_id"
