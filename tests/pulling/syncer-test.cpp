// The Syncer against the reference server, with a test worker that retires server events
// when the test lets it: whole tree and increments, the sync id stored only once every
// pushed event is done, a pause, a removal, a stop and a restart during that wait, faults
// from the server's fault file (a dropped connection, a reply delayed past keep-alives,
// access errors), logins reused or refused, and the pause when every session is up to
// date. Rounds are run on the test thread (PullEvent) or by the task's own loop.
#include "pulling/syncer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

#include "events/event-manager.h"
#include "events/manager-fixture.h"
#include "foundation/error-code.h"
#include "platform/clock.h"
#include "server-certificate.h"
#include "server/server-harness.h"
#include "state/file-event-db.h"
#include "state/file-status-db.h"
#include "support/eventually.h"

namespace {

using namespace std::chrono_literals;
using Paths = std::set<std::string>;

// Retires server events as a worker would once it has carried them out, as many as it is
// allowed (-1: no limit), and remembers their paths.
class TestWorker : public Task {
  public:
    void DoTask() override {
        EventManager& events = EventManager::getInstance();
        Event e;
        while (GetState() == RUN) {
            if (allowance.load() == 0 || events.PullEvent(this, e) != 0) {
                std::this_thread::sleep_for(5ms);
                continue;
            }
            do {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_done.insert(e.m_path.str());
            } while (events.DoneEvent(this, e) < 0);
            if (allowance.load() > 0) --allowance;
        }
    }
    // The paths retired since the last call.
    Paths Take() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_done, Paths());
    }
    std::atomic<int> allowance{-1};

  private:
    std::mutex m_mutex;
    Paths m_done;
};

// A hand-driven clock that counts its readings: a task inside Task::Wait reads it every
// tenth of a second, so a test can see that a wait has begun before it moves the time.
class WatchedClock : public platform::ManualClock {
  public:
    WatchedClock() : ManualClock(std::time(nullptr)) {}
    int64_t TickMs() override {
        ++m_reads;
        return ManualClock::TickMs();
    }
    bool WaitUntilSleeping() {
        const int before = m_reads.load();
        return Eventually([&] { return m_reads.load() >= before + 3; });
    }

  private:
    std::atomic<int> m_reads{0};
};

class SyncerConcurrency : public ::testing::Test {
  protected:
    void SetUp() override {
        dir.write("levels", "syncer_debug = 7\n");
        ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, (dir / "daemon.log").c_str(),
                                     (dir / "levels").c_str(), 2),
                  0);
        ASSERT_EQ(FileStatusDB::initialize((dir / "fstat.sqlite").c_str()), 0);
        evtest::SetUIPort(evtest::UnheardPort());
    }
    void TearDown() override {
        syncer.Stop();
        syncer.Join();
        worker.Stop();
        worker.Join();
        EventManager::getInstance().Clear();
        for (auto& [id, db] : dbs) Registry::getInstance().Remove(id);
        g_pool = nullptr;
        FileStatusDB::destroy();
        Logger::Destroy();
    }

    void StartServer(const std::function<void(ServerOptions&)>& tweak = nullptr,
                     const std::function<void(ConnectionInfo&)>& client = nullptr) {
        g_pool = nullptr;
        pool.reset();
        server = std::make_unique<ServerHarness>(tweak);
        MakePool(client);
    }
    // A new pool for the same server.
    void MakePool(const std::function<void(ConnectionInfo&)>& client) {
        g_pool = nullptr;
        pool.reset();
        pool = PoolFor(*server, client);
        g_pool = pool.get();
    }
    void AddSession(uint64_t id, uint64_t view_id = 0) {
        const std::string root = dir / ("root" + std::to_string(id));
        ::mkdir(root.c_str(), 0700);
        auto& db = dbs[id];
        if (!db) db = std::make_unique<FileEventDB>();
        ASSERT_EQ(db->initialize((dir / ("db" + std::to_string(id) + ".sqlite")).c_str()), 0);
        Registry::Entry entry;
        entry.sess_id = id;
        entry.view_id = view_id != 0 ? view_id : server->user.view_id;
        entry.remote_path = "/";
        entry.recursive = true;
        entry.local_path = root.c_str();
        entry.event_db = db.get();
        Registry::getInstance().Set(entry);
    }
    uint64_t SyncId(uint64_t id) {
        uint64_t value = 0;
        EXPECT_EQ(dbs[id]->getSyncId(value), 0);
        return value;
    }
    void Put(const std::string& path, const std::string& bytes) {
        ServerObject obj;
        ASSERT_EQ(admin::Put(server->store, server->user.view_id, server->LocalFile("src", bytes),
                             path, 1000, obj),
                  0);
    }
    // One round on the test thread, for the session after the current one.
    int PullOnce() {
        syncer.SetState(Task::RUN);
        if (syncer.UpdateContext() < 0) return -100;
        return syncer.PullEvent();
    }
    size_t LogCount(const std::string& text) { return CountIn(ReadFile(dir / "daemon.log"), text); }

    TempDir dir;
    std::unique_ptr<ServerHarness> server;
    std::unique_ptr<ConnectionPool> pool;
    std::map<uint64_t, std::unique_ptr<FileEventDB>> dbs;
    TestWorker worker;
    Syncer syncer;
};

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

TEST_F(SyncerConcurrency, PullsOverTlsAndRefusesAServerThatIsNotTheConfiguredOne) {
    std::string pin;
    const auto pinned = [&pin](ConnectionInfo& c) {
        c.use_ssl = true;
        c.ssl_pin = pin.c_str();
    };
    StartServer();
    ASSERT_EQ(server_certificate::Ensure(server->options.data_dir, "127.0.0.1", pin), 0);
    Put("/a.txt", "a");
    AddSession(1);
    ASSERT_EQ(worker.Run(), 0);
    MakePool(pinned);
    EXPECT_EQ(PullOnce(), 0);
    EXPECT_EQ(LogCount("Syncer: channel is now encrypted using SSL"), 1u);
    EXPECT_EQ(worker.Take(), Paths{"/a.txt"});

    loopback::Listener ui;
    evtest::SetUIPort(ui.port());
    pin = std::string(64, 'A');
    MakePool(pinned);
    const int rc = PullOnce();
    EXPECT_EQ(rc, ERR_AUTH);
    EXPECT_EQ(syncer.HandleError(rc), 1);
    const PObject notice = evtest::NextNotice(ui);
    EXPECT_EQ(notice["notify"].asString(), "error");
    EXPECT_TRUE(notice.hasMember("connection_id"));
    EXPECT_EQ(notice["error_type"].asInt32(), ERR_AUTH);
    EXPECT_EQ(LogCount("Syncer >>>: {\"_action\": \"connect\""), 1u);  // the good login only
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
