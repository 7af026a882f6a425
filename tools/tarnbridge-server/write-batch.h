// write-batch.h: one write transaction on the server's store, shared by the changes made
// in it (each a TreeWriter with a savepoint of its own). It takes this process's writer
// lock and SQLite's write lock for its whole life, keeps each view's newest sync id as the
// changes hand them out, and at Commit does what must happen once per transaction: the
// views' ids are stored, contents nobody uses any more are forgotten, the folders that
// received content files are flushed, the log is flushed by the commit, and only then are
// the forgotten contents' files deleted. Used by the commit queue (many changes a batch)
// and the admin commands (one).
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "server-store.h"

class WriteBatch {
  public:
    // Waits for the other writers of this process, then begins (BEGIN IMMEDIATE, so that
    // another process's writer is waited for here too). Check ok().
    explicit WriteBatch(ServerStore& store);
    // Rolls back unless committed.
    ~WriteBatch() = default;
    WriteBatch(const WriteBatch&) = delete;
    WriteBatch& operator=(const WriteBatch&) = delete;

    bool ok() const { return m_txn.ok(); }
    ServerStore& store() { return m_store; }

    // The view's newest sync id as this batch has it; -1 on failure.
    int64_t LastId(uint64_t view_id);
    // A change that kept its work hands on the newest id it used.
    void SetLastId(uint64_t view_id, uint64_t last) { m_views[view_id].last = last; }
    // A content that may have lost its last user.
    void MayDrop(int64_t content_id) { m_dropped.insert(content_id); }
    // A folder that received a content file in this batch.
    void Touch(const std::string& folder) { m_folders.insert(folder); }

    // 0, or -1 with nothing of the batch kept (files adopted for it are then orphans that
    // the next start sweeps).
    int Commit();

  private:
    struct ViewIds {
        uint64_t first = 0;  // as the batch began
        uint64_t last = 0;
    };
    // Forgets unused contents; the ids of those that had files go to `files`.
    int ForgetUnused(std::set<int64_t>& files);

    ServerStore& m_store;
    std::unique_lock<std::mutex> m_lock;
    sqlite::Transaction m_txn;
    std::map<uint64_t, ViewIds> m_views;
    std::set<int64_t> m_dropped;
    std::set<std::string> m_folders;
};
