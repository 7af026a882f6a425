// The Syncer against the reference server, with a test worker that retires server events
// when the test lets it: whole tree and increments, the sync id stored only once every
// pushed event is done, a pause, a removal, a stop and a restart during that wait, faults
// from the server's fault file (a dropped connection, a reply delayed past keep-alives,
// access errors), logins reused or refused, and the pause when every session is up to
// date. Rounds are run on the test thread (PullEvent) or by the task's own loop.
#include <thread>

#include "pulling/syncer-fixture.h"

namespace {

using namespace syncertest;
using namespace std::chrono_literals;

TEST_F(SyncerConcurrency, WholeTreeIsStoredOnlyOnceTheWorkersHaveDoneEveryEvent) {
    StartServer();
    ServerObject d;
    ASSERT_EQ(admin::MakeDir(server->store, server->user.view_id, "/docs", 1000, d), 0);
    Put("/docs/a.txt", "a");
    Put("/b.txt", "b");
    AddSession(1);
    worker.allowance = 0;
    ASSERT_EQ(worker.Run(), 0);
    ASSERT_EQ(syncer.Run(), 0);

    ASSERT_TRUE(Eventually([&] { return LogCount("Wait for workers (still 3 pending") > 0; }));
    EXPECT_EQ(SyncId(1), 0u);
    worker.allowance = 2;
    ASSERT_TRUE(Eventually([&] { return LogCount("Wait for workers (still 1 pending") > 0; }));
    EXPECT_EQ(SyncId(1), 0u);
    worker.allowance = -1;
    ASSERT_TRUE(Eventually([&] { return SyncId(1) == 3; }));
    EXPECT_EQ(worker.Take(), (Paths{"/docs", "/docs/a.txt", "/b.txt"}));
    EXPECT_EQ(LogCount("session 1: 3 server changes, 3 carried out, sync id 0 -> 3"), 1u);
}

TEST_F(SyncerConcurrency, IncrementalPullPushesOnlyTheChangesAndARestartLosesNothing) {
    StartServer([](ServerOptions& o) { o.keepalive_seconds = 1; });
    server->WriteFaults("delay pull_event 2500 times=1\n");  // past two keep-alives
    Put("/a.txt", "a");
    Put("/b.txt", "b");
    AddSession(1);
    ASSERT_EQ(worker.Run(), 0);
    ASSERT_EQ(PullOnce(), 0);
    EXPECT_EQ(SyncId(1), 2u);
    EXPECT_EQ(worker.Take(), (Paths{"/a.txt", "/b.txt"}));

    Put("/a.txt", "a2");
    Put("/c.txt", "c");
    worker.allowance = 0;
    std::thread round([&] { EXPECT_EQ(PullOnce(), -1); });
    ASSERT_TRUE(
        Eventually([&] { return EventManager::getInstance().GetPendingServerEvent(1) == 2; }));
    syncer.Stop();  // the daemon goes down while the workers are busy
    round.join();
    EXPECT_EQ(SyncId(1), 2u);
    EXPECT_EQ(LogCount("Program stopped while syncing files"), 1u);

    // A new process: nothing pending in memory, the database reopened, a new Syncer.
    EventManager::getInstance().Clear();
    dbs[1]->destroy();
    AddSession(1);
    worker.allowance = -1;
    Syncer restarted;
    restarted.SetState(Task::RUN);
    ASSERT_EQ(restarted.UpdateContext(), 0);
    EXPECT_EQ(restarted.PullEvent(), 0);
    EXPECT_EQ(SyncId(1), 4u);
    EXPECT_EQ(worker.Take(), (Paths{"/a.txt", "/c.txt"}));
    EXPECT_EQ(server->server->AcceptedCount(), 1u);  // one login while the grant lasted
    restarted.Stop();
}

TEST_F(SyncerConcurrency, PauseOrRemovalDuringTheWaitStoresNothing) {
    StartServer();
    Put("/a.txt", "a");
    AddSession(1);
    worker.allowance = 0;
    ASSERT_EQ(worker.Run(), 0);
    for (const bool remove : {false, true}) {
        const size_t waits = LogCount("Wait for workers");
        std::thread round([&] { EXPECT_EQ(PullOnce(), -1); });
        ASSERT_TRUE(Eventually([&] { return LogCount("Wait for workers") > waits; }));
        Registry::Entry entry;
        ASSERT_EQ(Registry::getInstance().Find(1, entry), 1);
        entry.pause = true;
        if (remove)
            Registry::getInstance().Remove(1);
        else
            Registry::getInstance().Set(entry);
        round.join();
        EXPECT_EQ(SyncId(1), 0u);
        entry.pause = false;
        Registry::getInstance().Set(entry);
    }
    EXPECT_EQ(LogCount("session 1 is paused while there are events"), 1u);
    EXPECT_EQ(LogCount("session 1 is removed while there are events"), 1u);
}

TEST_F(SyncerConcurrency, ConnectionClosedBeforeTheReplyIsDroppedAndRetriedAfterThreeSeconds) {
    StartServer();
    server->WriteFaults("close-after pull_event 20 times=1\n");
    Put("/a.txt", "a");
    Put("/b.txt", "b");
    AddSession(1);
    WatchedClock clock;
    platform::ScopedClock use(clock);
    ASSERT_EQ(worker.Run(), 0);
    ASSERT_EQ(syncer.Run(), 0);

    ASSERT_TRUE(Eventually([&] { return LogCount("failed to recv response") == 1; }));
    // The failure is logged before the connection is dropped.
    EXPECT_TRUE(Eventually([&] { return !pool->isConnected(); }));
    ASSERT_TRUE(clock.WaitUntilSleeping());
    clock.Advance(2999);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(LogCount("pull event by session"), 1u);
    clock.Advance(1);
    ASSERT_TRUE(Eventually([&] { return SyncId(1) == 2; }, [&] { clock.Advance(100); }));
    EXPECT_EQ(worker.Take(), (Paths{"/a.txt", "/b.txt"}));
}

TEST_F(SyncerConcurrency, AccessDeniedAndInvalidViewAreSessionErrorsTheUserHears) {
    StartServer();
    server->WriteFaults("error pull_event * 0x3002\n");
    AddSession(1);
    AddSession(2, 999);
    loopback::Listener ui;
    evtest::SetUIPort(ui.port());
    for (const auto& [sess, code] : {std::pair<uint64_t, int>{1, ERR_PERMISS}, {2, ERR_VIEW}}) {
        const int rc = PullOnce();
        EXPECT_EQ(rc, code);
        EXPECT_EQ(syncer.HandleError(rc), 1);
        const PObject notice = evtest::NextNotice(ui);
        EXPECT_EQ(notice["notify"].asString(), "error");
        EXPECT_EQ(notice["session_id"].asUInt64(), sess);
        EXPECT_EQ(notice["error_type"].asInt32(), code);
    }
    EXPECT_EQ(SyncId(1), 0u);
}

TEST_F(SyncerConcurrency, LoginOutcomes) {
    StartServer([](ServerOptions& o) { o.legacy_2402 = true; });
    Put("/a.txt", "a");
    AddSession(1);
    ASSERT_EQ(worker.Run(), 0);
    EXPECT_EQ(PullOnce(), 0);
    EXPECT_EQ(g_server_version.load(), kLegacyServerBuild);

    StartServer([](ServerOptions& o) { o.alive = 0; });
    EXPECT_EQ(PullOnce(), ERR_IO);
    EXPECT_EQ(LogCount("Syncer: connection refused by server."), 1u);
    EXPECT_FALSE(pool->isConnected());

    StartServer([](ServerOptions& o) { o.tls = false; },
                [](ConnectionInfo& c) { c.use_ssl = true; });
    EXPECT_EQ(PullOnce(), ERR_IO);
    EXPECT_EQ(LogCount("Syncer: request ssl channel"), 1u);
    EXPECT_EQ(LogCount("Syncer: request SSL: "), 1u);
    EXPECT_EQ(server->server->AcceptedCount(), 1u);
}

TEST_F(SyncerConcurrency, SessionsAllUpToDateSleepOnceForFiveSeconds) {
    StartServer();
    for (uint64_t id : {1, 2, 3}) AddSession(id);
    WatchedClock clock;
    platform::ScopedClock use(clock);
    ASSERT_EQ(syncer.Run(), 0);
    ASSERT_TRUE(Eventually([&] { return LogCount("all session is uptodate") == 1; }));
    ASSERT_TRUE(clock.WaitUntilSleeping());
    clock.Advance(4999);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(LogCount("pull event by session"), 3u);
    clock.Advance(1);
    ASSERT_TRUE(Eventually([&] { return LogCount("all session is uptodate") == 2; }));
    EXPECT_EQ(LogCount("pull event by session"), 6u);
}

}  // namespace
