// The session table: the circular walk, recycle times of unknown sessions, what Remove
// and Clear do with a session's objects, how copies held by tasks keep those objects
// alive, and readers and writers on many threads.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "filter/black-list-v2.h"
#include "filter/white-list-cpp.h"
#include "runtime/registry.h"
#include "state/file-event-db.h"
#include "support/temp-dir.h"

namespace {

Registry::Entry MakeEntry(uint64_t id) {
    Registry::Entry entry;
    entry.sess_id = id;
    entry.local_path = ("/sync/" + std::to_string(id)).c_str();
    entry.pause = true;
    return entry;
}

TEST(Registry, FindNextWalksInIdOrderAndTimesAreKeptOnlyForKnownSessions) {
    Registry table;
    Registry::Entry e;
    EXPECT_EQ(table.FindNext(0, e), 0);
    for (uint64_t id : {7, 3, 11}) table.Set(MakeEntry(id));
    // An unknown id starts from the first entry, not from the one after it.
    const std::pair<uint64_t, uint64_t> steps[] = {{0, 3}, {4, 3}, {3, 7}, {7, 11}, {11, 3}};
    for (auto [from, next] : steps) {
        ASSERT_EQ(table.FindNext(from, e), 1);
        EXPECT_EQ(e.sess_id, next) << "after " << from;
    }
    // Bin times are kept only for known sessions. (How they move is the recycle
    // cleaner's test.)
    Registry::Entry gone = MakeEntry(99);
    table.UpdateRecycleTime(gone, 5);
    table.InitRecycleTime(gone, 5);
    EXPECT_EQ(table.Find(99, gone), 0);
}

// Remove lets a session's objects live on; Clear closes the database and frees all.
TEST(RegistryObjects, RemoveLeavesTheDatabaseOpenClearClosesIt) {
    TempDir dir;
    auto db_path = [&](uint64_t id) { return dir / ("db" + std::to_string(id)); };
    // An open database in WAL mode keeps its log file; the last close removes it.
    auto open = [&](uint64_t id) { return ::access((db_path(id) + "-wal").c_str(), F_OK) == 0; };
    Registry table;
    std::vector<Registry::Entry> sessions;
    for (uint64_t id = 1; id <= 3; ++id) {
        Registry::Entry e = MakeEntry(id);
        e.event_db = new FileEventDB();
        EXPECT_EQ(e.event_db->initialize(db_path(id).c_str()), 0);
        e.black_list = new BlackList2();
        e.white_list = new WhiteListCpp();
        table.Set(e);
        sessions.push_back(e);
    }
    table.Remove(1);
    EXPECT_EQ(table.Size(), 2u);
    EXPECT_TRUE(open(1));
    table.Set(sessions[0]);  // back, for the last Clear to close and free

    table.Clear(2);
    EXPECT_FALSE(open(2));
    EXPECT_TRUE(open(3));
    table.Clear(2);  // absent: nothing happens
    table.Clear();
    EXPECT_FALSE(open(1));
    EXPECT_FALSE(open(3));
    EXPECT_EQ(table.Size(), 0u);
}

// A task's copy of an entry, and any copy made of it, keeps the session's objects: Clear
// refuses until every one is let go, and frees them then.
TEST(RegistryObjects, ClearRefusesWhileACopyIsHeld) {
    TempDir dir;
    const std::string db_path = dir / "db";
    Registry table;
    Registry::Entry e = MakeEntry(1);
    e.event_db = new FileEventDB();
    ASSERT_EQ(e.event_db->initialize(db_path.c_str()), 0);
    e.white_list = new WhiteListCpp();
    table.Set(e);
    Registry::Entry held;
    ASSERT_EQ(table.Find(1, held), 1);
    Registry::Entry passed_on = held;
    held.clear();
    EXPECT_EQ(table.Clear(1), -1);
    EXPECT_EQ(table.Clear(), -1);
    EXPECT_EQ(table.Size(), 1u);
    uint64_t sync_id = 1;
    EXPECT_EQ(passed_on.event_db->getSyncId(sync_id), 0);  // still open
    passed_on.clear();
    EXPECT_EQ(table.Clear(1), 0);
    EXPECT_EQ(table.Size(), 0u);
    EXPECT_NE(::access((db_path + "-wal").c_str(), F_OK), 0);  // closed
}

TEST(RegistryConcurrency, ReadersAlwaysSeeWholeEntries) {
    Registry table;
    std::atomic<bool> stop{false};
    std::atomic<long> torn{0}, reads{0};
    // Every field of an entry written by a writer carries the same generation; entries
    // come and go by Remove and by Clear.
    auto writer = [&](uint64_t base) {
        for (uint64_t gen = 1; gen <= 3000; ++gen) {
            Registry::Entry e;
            e.sess_id = base + gen % 4;
            e.view_id = e.node_id = gen;
            e.local_path = ("/sync/" + std::to_string(gen)).c_str();
            e.remote_path = ("/view/" + std::to_string(gen)).c_str();
            e.pause = gen % 2 == 0;
            table.Set(e);
            if (gen % 7 == 0) table.Remove(e.sess_id);
            if (gen % 11 == 0) table.Clear(e.sess_id);
            if (gen % 5 == 0) table.InitRecycleTime(e, static_cast<uint32_t>(gen));
        }
    };
    auto check = [&](const Registry::Entry& e) {
        const std::string gen = std::to_string(e.view_id);
        if (e.node_id != e.view_id || e.local_path.str() != "/sync/" + gen ||
            e.remote_path.str() != "/view/" + gen || e.pause != (e.view_id % 2 == 0))
            ++torn;
        ++reads;
    };
    auto reader = [&] {
        Registry::Entry e;
        uint64_t cursor = 0;
        // Writers may be done before a reader first runs: the last entries stay to be read.
        while (!stop.load() || reads.load() == 0) {
            if (table.FindNext(cursor, e) == 1) {
                check(e);
                cursor = e.sess_id;
            }
            if (table.Find(101, e) == 1) check(e);
        }
    };
    std::thread r1(reader), r2(reader), w1(writer, 100), w2(writer, 200);
    w1.join();
    w2.join();
    stop = true;
    r1.join();
    r2.join();
    EXPECT_EQ(torn.load(), 0);
}

}  // namespace
