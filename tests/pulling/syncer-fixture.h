// syncer-fixture.h: the Syncer against an in-process reference server, for the Syncer's
// tests: a pool on the server's port (directly, or through a proxy the test gives),
// sessions with real databases, a test worker that retires server events when the test
// lets it, a watched manual clock, and the daemon log to look into.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "events/event-manager.h"
#include "events/manager-fixture.h"
#include "foundation/error-code.h"
#include "platform/clock.h"
#include "pulling/syncer.h"
#include "server/server-harness.h"
#include "state/file-event-db.h"
#include "state/file-status-db.h"
#include "support/eventually.h"
#include "support/files.h"
#include "support/watched-clock.h"
#include "transport/proxy-tunnel-info.h"

namespace syncertest {

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

    // A new server, and a new pool reaching it through `proxy` when it is in use.
    void StartServer(const std::function<void(ServerOptions&)>& tweak = nullptr,
                     const std::function<void(ConnectionInfo&)>& client = nullptr,
                     const ProxyInfo& proxy = ProxyInfo()) {
        g_pool = nullptr;
        pool.reset();
        server = std::make_unique<ServerHarness>(tweak);
        pool = PoolFor(*server, client, proxy);
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

}  // namespace syncertest
