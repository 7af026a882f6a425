// commit-queue.cpp: the writer thread and its batches.
#include "commit-queue.h"

namespace {

// The log is folded into the database once it holds this many pages, as SQLite's own
// automatic checkpoint would (the queue takes that over in order to count its flushes).
constexpr int kCheckpointPages = 1000;

}  // namespace

int CommitQueue::Start(const std::string& data_dir, size_t versions_kept) {
    if (m_store.Open(data_dir, versions_kept) < 0) return -1;
    sqlite3_wal_hook(m_store.db().handle(), &CommitQueue::OnCommit, this);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_running = true;
    m_thread = std::thread([this] { Loop(); });
    return 0;
}

void CommitQueue::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_running) return;
        m_running = false;
    }
    m_wake.notify_all();
    m_thread.join();
}

int CommitQueue::Apply(uint64_t view_id, const Change& change) {
    Pending pending{view_id, &change};
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_running) return TREE_FAIL;
    m_pending.push_back(&pending);
    m_wake.notify_one();
    m_done.wait(lock, [&] { return pending.done; });
    return pending.result;
}

CommitQueue::Stats CommitQueue::stats() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stats;
}

void CommitQueue::Loop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [&] { return !m_pending.empty() || !m_running; });
        if (m_pending.empty()) return;
        std::deque<Pending*> batch;
        batch.swap(m_pending);
        lock.unlock();
        RunBatch(batch);
        lock.lock();
        m_stats.changes += batch.size();
        for (Pending* p : batch) p->done = true;
        m_done.notify_all();
    }
}

void CommitQueue::RunBatch(std::deque<Pending*>& batch) {
    WriteBatch txn(m_store);
    for (Pending* p : batch) {
        TreeWriter tree(txn, p->view_id);
        if (!tree.ok()) continue;
        p->result = (*p->change)(tree);
        if (p->result == TREE_OK && tree.Keep() != TREE_OK) p->result = TREE_FAIL;
    }
    if (txn.Commit() == 0) return;
    for (Pending* p : batch) p->result = TREE_FAIL;
}

int CommitQueue::OnCommit(void* self, sqlite3* db, const char* name, int pages) {
    CommitQueue* queue = static_cast<CommitQueue*>(self);
    int flushes = 1;
    if (pages >= kCheckpointPages &&
        sqlite3_wal_checkpoint_v2(db, name, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr) ==
            SQLITE_OK)
        flushes += 2;  // the log, then the database file
    std::lock_guard<std::mutex> lock(queue->m_mutex);
    queue->m_stats.log_flushes += flushes;
    if (flushes > 0) ++queue->m_stats.batches;
    return SQLITE_OK;
}
