// tree-writer.h: every change to a view's tree goes through one TreeWriter, a write
// transaction on the view. It hands out the view's sync ids in order (they become visible
// all at once at Commit, and commits are serialised, so a reader never sees id n+1
// without n), keeps each directory's max_id equal to the highest sync id of what exists
// in its subtree, writes tombstones for removals, keeps the last versions of each file as
// delta bases and forgets contents nobody uses any more. Used by the upload and remove
// handlers and by the admin commands.
//
// Sync ids: every created, replaced or moved-in object gets an id of its own; a removal
// is one id for its tombstone (a directory's whole subtree goes with it); a move is one id
// shared by the tombstone of the old path and the object at the new path, then one id for
// each descendant, parents first.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "server-store.h"

enum TreeResult {
    TREE_OK = 0,
    TREE_FAIL = -1,    // database or file failure
    TREE_CLASH = -2,   // a file where a directory is needed, or the reverse
    TREE_NOENT = -3,   // the path doesn't exist
    TREE_EXISTS = -4,  // the target of a move or mkdir exists already
};

// A content as an object refers to it.
struct FileContent {
    int64_t content_id = 0;
    std::string md4;
    uint64_t size = 0;
};

class TreeWriter {
  public:
    // Begins the transaction (waiting for other writers). Check ok().
    TreeWriter(ServerStore& store, uint64_t view_id);
    TreeWriter(const TreeWriter&) = delete;
    TreeWriter& operator=(const TreeWriter&) = delete;

    bool ok() const { return m_ok; }
    // The view's newest sync id as this transaction sees it.
    uint64_t last_sync_id() const { return m_last; }

    // 1 found, 0 not, -1.
    int Get(const std::string& path, ServerObject& obj);
    // Records a temporary file as a content (synced and renamed into the store), or finds
    // the stored one with the same hash and size (then the temporary is deleted).
    int ImportContent(const std::string& temp_path, const std::string& md4, uint64_t size,
                      FileContent& out);
    // Creates every missing directory above `path`; TREE_CLASH when one of them is a file.
    int EnsureParents(const std::string& path, uint32_t mtime);
    // Creates or replaces the file at `path` (creating missing parents). TREE_CLASH when a
    // directory stands there or above it is a file. `out` is the new object.
    int PutFile(const std::string& path, const FileContent& content, uint32_t mtime, bool exec_bit,
                ServerObject& out);
    // Creates a directory (and missing parents). TREE_EXISTS with `out` filled when a
    // directory is there already; TREE_CLASH when a file is.
    int MakeDir(const std::string& path, uint32_t mtime, ServerObject& out);
    // Removes the object and everything below it, leaving one tombstone.
    // TREE_NOENT when nothing is there.
    int Remove(const std::string& path, uint64_t& removal_id);
    // Moves an object with its subtree. TREE_NOENT (no source), TREE_EXISTS (the target is
    // taken), TREE_CLASH (the target lies inside the source, or above it is a file).
    int Move(const std::string& from, const std::string& to);

    // Commits, then deletes the files of contents that lost their last user.
    // TREE_OK or TREE_FAIL (nothing is changed then).
    int Commit();

  private:
    uint64_t NextId() { return ++m_last; }
    int Insert(const ServerObject& obj);
    int AddVersion(const std::string& path, uint64_t sync_id, int64_t content_id);
    int PruneVersions(const std::string& path);
    int DropVersions(const std::string& path);
    int RaiseAncestors(const std::string& path, uint64_t id);
    int RecomputeAncestors(const std::string& path);
    int Tombstone(const ServerObject& obj, uint64_t id);
    int DeleteSubtree(const std::string& path);

    ServerStore& m_store;
    uint64_t m_view;
    SqliteWriteTxn m_txn;
    bool m_ok = false;
    uint64_t m_last = 0;
    uint64_t m_first_last = 0;
    std::set<int64_t> m_dropped;  // contents that may have lost their last user
};
