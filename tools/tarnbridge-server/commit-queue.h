// commit-queue.h: the running server's one writer. Request threads hand it their changes;
// it applies every change that is pending in one WriteBatch, a savepoint each, commits once
// (one log flush for the lot) and only then tells each request how its change went, so
// that nothing is acknowledged before it is on disk. While a batch commits, the next one
// gathers; and since a client waits for each answer before it sends its next change, the
// queue waits a little (half the last commit's time, at most kMaxGather) for the
// connections that are writing to hand in their next change, rather than commit each one
// alone. Used by the upload and remove handlers of every connection of a Server.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "server-store.h"
#include "tree-writer.h"

class CommitQueue {
  public:
    // A change works on the writer it is given and returns TREE_OK to keep its work,
    // anything else to have it undone. It runs on the queue's thread while its caller waits.
    using Change = std::function<int(TreeWriter&)>;

    // Counts since Start.
    struct Stats {
        uint64_t changes = 0;      // changes applied, kept or not
        uint64_t batches = 0;      // transactions that wrote something
        uint64_t log_flushes = 0;  // commits and checkpoints of the database's log
    };

    // The longest a batch waits for the changes of connections that are writing.
    static constexpr std::chrono::microseconds kMaxGather{2000};

    CommitQueue() = default;
    ~CommitQueue() { Stop(); }
    CommitQueue(const CommitQueue&) = delete;
    CommitQueue& operator=(const CommitQueue&) = delete;

    // Opens the queue's own connection to the store and starts its thread. 0 or -1.
    int Start(const std::string& data_dir, size_t versions_kept);
    // Lets pending changes finish, then ends the thread. Idempotent.
    void Stop();
    // Runs the change in the next batch and returns once that batch has committed: what the
    // change returned, or TREE_FAIL when its writer could not begin, the batch could not
    // commit or the queue is stopped (nothing of the change stays then).
    int Apply(uint64_t view_id, const Change& change);
    Stats stats();
    // A connection starts or stops sending changes (its last request was one, or not).
    void Writing(bool starts);

  private:
    struct Pending {
        uint64_t view_id;
        const Change* change;
        int result = TREE_FAIL;
        bool done = false;
    };
    void Loop();
    // Waits, m_mutex held, for the changes that writing connections are about to hand in.
    void Gather(std::unique_lock<std::mutex>& lock);
    void RunBatch(std::deque<Pending*>& batch);
    // SQLite calls it after each commit on the queue's connection.
    static int OnCommit(void* self, sqlite3* db, const char* name, int pages);

    ServerStore m_store;
    std::mutex m_mutex;  // guards what follows
    std::condition_variable m_wake;
    std::condition_variable m_done;
    std::deque<Pending*> m_pending;
    bool m_running = false;
    size_t m_writing = 0;  // connections whose last request was a change
    std::chrono::steady_clock::duration m_last_commit{};
    Stats m_stats;
    std::thread m_thread;
};
