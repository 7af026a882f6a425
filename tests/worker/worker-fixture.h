// worker-fixture.h: workers on the process's EventManager and Registry, with real session
// folders and databases, a real status database and a log of the test's own; handlers
// that record what reached them; a worker whose inner state a test can reach.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "events/manager-fixture.h"
#include "state/file-event-db.h"
#include "support/eventually.h"
#include "worker/worker.h"

namespace wtest {

using evtest::DIR_NODE;
using evtest::FILE_NODE;

inline Event In(uint64_t sess, Event e) {
    e.m_sess_id = sess;
    return e;
}

class ProbeWorker : public Worker {
  public:
    using Worker::cached_request;
    using Worker::context;
    using Worker::patch_err_count;
    using Worker::sys_err_count;

    void Hold(const Event& e) { context.current_event = e; }
    // GetEvent past the empty turns a finished session may leave in the queue.
    int Pull() {
        for (int turn = 0; turn < 8; ++turn)
            if (GetEvent() == 0) return 0;
        return -1;
    }
    // Keeps a partly received download in `work`, the working directory; its path. The
    // kept request names a user's file beside `work`, which no clearing may delete.
    std::string KeepPartialDownload(const std::string& work) {
        ::mkdir(work.c_str(), 0700);
        context.working_directory = work.c_str();
        WriteFile(work + "/partial", "half");
        WriteFile(work + "/../user.txt", "mine");
        cached_response["file"]["data"] = PObject::binary_type{0, 4, (work + "/partial").c_str()};
        cached_request["file"]["data"] =
            PObject::binary_type{0, 4, (work + "/../user.txt").c_str()};
        return work + "/partial";
    }
};

// Handlers that record which of them got which path, and give `result`.
class Recorder {
  public:
    using Routes = std::multiset<std::pair<std::string, std::string>>;
    WorkerHandlers Handlers(int result) {
        auto record = [this, result](const char* route) {
            return [this, result, route](Worker& w) {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_routes.emplace(route, w.GetPath().str());
                return result;
            };
        };
        return {record("upload"),        record("download"), record("remove_local"),
                record("remove_remote"), record("rescan"),   record("expand"),
                record("expand_delete")};
    }
    Routes Taken() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_routes;
    }

  private:
    std::mutex m_mutex;
    Routes m_routes;
};

class WorkerFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        dir.write("levels", "worker_debug = 7\nsyncer_debug = 7\n");
        ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, (dir / "daemon.log").c_str(),
                                     (dir / "levels").c_str(), 2),
                  0);
        ASSERT_EQ(FileStatusDB::initialize((dir / "fstat.sqlite").c_str()), 0);
        evtest::SetUIPort(evtest::UnheardPort());
    }
    void TearDown() override {
        StopTasks();
        EventManager::getInstance().Clear();
        for (auto& [id, db] : dbs) Registry::getInstance().Remove(id);
        g_pool = nullptr;
        FileStatusDB::destroy();
        Logger::Destroy();
    }
    virtual void StopTasks() {
        for (ProbeWorker& w : workers) {
            w.Stop();
            w.Join();
        }
    }

    void AddSession(uint64_t id, bool recursive = true, bool paused = false, uint64_t view_id = 0) {
        ::mkdir(Root(id).c_str(), 0700);
        ::mkdir((Root(id) + "/.ZephanorWorkingDirectory").c_str(), 0700);
        dbs[id] = std::make_unique<FileEventDB>();
        ASSERT_EQ(dbs[id]->initialize((dir / ("db" + std::to_string(id))).c_str()), 0);
        Registry::Entry entry;
        entry.sess_id = id;
        entry.view_id = view_id;
        entry.recursive = recursive;
        entry.pause = paused;
        entry.local_path = Root(id).c_str();
        entry.event_db = dbs[id].get();
        Registry::getInstance().Set(entry);
    }
    void SetPaused(uint64_t id, bool paused) {
        Registry::Entry entry;
        ASSERT_EQ(Registry::getInstance().Find(id, entry), 1);
        entry.pause = paused;
        Registry::getInstance().Set(entry);
    }
    std::string Root(uint64_t id) const { return dir / ("root" + std::to_string(id)); }
    size_t LogCount(const std::string& text) { return CountIn(ReadFile(dir / "daemon.log"), text); }

    TempDir dir;
    std::map<uint64_t, std::unique_ptr<FileEventDB>> dbs;
    ProbeWorker workers[2];
    Recorder recorder;
};

}  // namespace wtest
