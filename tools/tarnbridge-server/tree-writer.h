// tree-writer.h: every change to a view's tree is one TreeWriter, a savepoint inside a
// WriteBatch. It hands out the view's sync ids in order (they become visible all at once at
// the batch's commit, and commits are serialised, so a reader never sees id n+1 without
// n), keeps each directory's max_id equal to the highest sync id of what exists in its
// subtree, writes tombstones for removals, keeps the last versions of each file as delta
// bases and tells the batch which contents may have lost their last user. A writer that
// is not kept leaves nothing behind: its savepoint is rolled back and its ids are reused.
// Used by the upload and remove handlers (through the commit queue) and the admin commands.
//
// Sync ids: every created, replaced or moved-in object gets an id of its own; a removal
// is one id for its tombstone (a directory's whole subtree goes with it); a move is one id
// shared by the tombstone of the old path and the object at the new path, then one id for
// each descendant, parents first.
//
// Every file object has the version row of its own sync id: that is what keeps its
// content counted as used.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "server-store.h"
#include "write-batch.h"

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

// A content a change brings: its bytes (up to ContentStore::kInlineLimit), or a flushed
// temporary file of the content store in `temp`.
struct NewContent {
    std::string md4;
    uint64_t size = 0;
    std::string bytes;
    std::string temp;
};

class TreeWriter {
  public:
    // Opens the change's savepoint in the batch. Check ok().
    TreeWriter(WriteBatch& batch, uint64_t view_id);
    TreeWriter(const TreeWriter&) = delete;
    TreeWriter& operator=(const TreeWriter&) = delete;

    bool ok() const { return m_ok; }
    uint64_t view_id() const { return m_view; }
    // The view's newest sync id as this change sees it.
    uint64_t last_sync_id() const { return m_last; }

    // 1 found, 0 not, -1.
    int Get(const std::string& path, ServerObject& obj);
    // The object at the path and what is above it. 0 or -1.
    int LookUp(const std::string& path, PathState& state);
    // Records a content, or finds the stored one with the same hash and size. A temporary
    // file is taken over either way (renamed into the store, or deleted), and `content.temp`
    // cleared.
    int ImportContent(NewContent& content, FileContent& out);
    // Creates or replaces the file at `path`, whose look-up is `state` (missing parents are
    // created). TREE_CLASH when a directory stands there or above it is a file. `out` is
    // the new object.
    int PutFile(const std::string& path, const PathState& state, const FileContent& content,
                uint32_t mtime, bool exec_bit, ServerObject& out);
    // Creates a directory (and missing parents). TREE_EXISTS with `out` filled when a
    // directory is there already; TREE_CLASH when a file is.
    int MakeDir(const std::string& path, uint32_t mtime, ServerObject& out);
    // Removes the object and everything below it, leaving one tombstone.
    // TREE_NOENT when nothing is there.
    int Remove(const std::string& path, uint64_t& removal_id);
    // Moves an object with its subtree. TREE_NOENT (no source), TREE_EXISTS (the target is
    // taken), TREE_CLASH (the target lies inside the source, or above it is a file).
    int Move(const std::string& from, const std::string& to);

    // Makes the change part of the batch. TREE_OK or TREE_FAIL (then it is undone).
    int Keep();

  private:
    uint64_t NextId() { return ++m_last; }
    sqlite::Statement* Kept(const char* sql);
    int Insert(const ServerObject& obj);
    int MakeParents(const std::vector<std::string>& missing, uint32_t mtime);
    int AddVersion(const std::string& path, uint64_t sync_id, int64_t content_id, bool prune);
    int DropVersions(const std::string& path);
    int RaiseAncestors(const std::string& path, uint64_t id);
    int RecomputeAncestors(const std::string& path);
    int Tombstone(const ServerObject& obj, uint64_t id);
    int DeleteSubtree(const std::string& path);

    WriteBatch& m_batch;
    ServerStore& m_store;
    uint64_t m_view;
    sqlite::Savepoint m_savepoint;
    bool m_ok = false;
    uint64_t m_last = 0;
};
