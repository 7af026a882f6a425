// write-batch.cpp: the transaction that changes are made in.
#include "write-batch.h"

namespace {

// Writers of this process queue here rather than in SQLite's busy loop, which sleeps in
// growing steps and would make an admin change beside a running server slow for nothing.
std::mutex& WriterMutex() {
    static std::mutex mutex;
    return mutex;
}

}  // namespace

WriteBatch::WriteBatch(ServerStore& store)
    : m_store(store), m_lock(WriterMutex()), m_txn(store.db(), "BEGIN IMMEDIATE;") {
    if (!m_txn.ok()) m_store.Fail("begin");
}

int64_t WriteBatch::LastId(uint64_t view_id) {
    auto known = m_views.find(view_id);
    if (known != m_views.end()) return static_cast<int64_t>(known->second.last);
    int64_t last = m_store.LastSyncId(view_id);
    if (last < 0) return -1;
    uint64_t id = static_cast<uint64_t>(last);
    m_views[view_id] = ViewIds{id, id};
    return last;
}

int WriteBatch::ForgetUnused(std::set<int64_t>& files) {
    sqlite::Statement* forget = m_store.db().Reuse(
        "DELETE FROM contents WHERE id = ?1 AND NOT EXISTS (SELECT 1 FROM versions WHERE "
        "content_id = ?1) RETURNING data IS NULL");
    if (!forget) return m_store.Fail("forget contents");
    for (int64_t id : m_dropped) {
        if (id == 0) continue;
        bool had_file = false;
        int rc = forget->BindAll(id).First(
            [&](const sqlite::Statement& r) { had_file = r.Int(0) != 0; });
        forget->Reset();
        if (rc < 0) return m_store.Fail("forget contents");
        if (had_file) files.insert(id);
    }
    return 0;
}

int WriteBatch::Commit() {
    if (!m_txn.ok()) return -1;
    sqlite::Statement* up = m_store.db().Reuse("UPDATE views SET last_sync_id = ? WHERE id = ?");
    for (const auto& [view, ids] : m_views) {
        if (ids.last == ids.first) continue;
        if (!up || up->BindAll(ids.last, view).Execute() < 0) return m_store.Fail("store sync id");
    }
    std::set<int64_t> files;
    if (ForgetUnused(files) < 0) return -1;
    for (const std::string& folder : m_folders) {
        if (ContentStore::SyncFolder(folder) < 0) return -1;
    }
    if (m_txn.Commit() < 0) return m_store.Fail("commit");
    // Files go only after the commit: a crash in between leaves files without records,
    // which the next start sweeps, never records without files.
    for (int64_t id : files) m_store.contents().Release(id);
    return 0;
}
