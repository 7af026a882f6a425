// Workers on their own threads against the reference server: a pause interrupts a reply
// wait and the transfer resumes with what it kept; two workers and the Syncer on one
// pool, where dropping one session leaves the other's worker alone and the sync id waits
// for the dropped event.
#include <optional>
#include <vector>

#include "foundation/error-code.h"
#include "pulling/syncer.h"
#include "server/server-harness.h"
#include "worker-fixture.h"

namespace wtest {
namespace {

struct Outcome {
    uint64_t session;
    int result;
    bool had_cache;
};

class WorkerConcurrency : public WorkerFixture {
  protected:
    void StopTasks() override {
        syncer.Stop();
        syncer.Join();
        WorkerFixture::StopTasks();
    }
    void StartServer(const std::function<void(ServerOptions&)>& tweak = nullptr) {
        server = std::make_unique<ServerHarness>(tweak);
        pool = PoolFor(*server);
        g_pool = pool.get();
    }
    // Transfers and uploads ask the server for a resume token, as a transfer begins, after
    // keeping a partial download on a first attempt.
    void AskServerOnTransfers(ProbeWorker& w) {
        auto ask = [this, &w](Worker&) {
            const bool had_cache = !w.cached_request.isEmpty();
            if (!had_cache) w.KeepPartialDownload(w.GetWorkingDirectory().str());
            const uint64_t sess = w.context.current_event.m_sess_id;
            w.SetCurrentProcessEventInfo(sess, w.GetPath(), Worker::W_TYPE_DOWNLOAD);
            const PObject request = server->Request("resume_get_token");
            PObject response;
            const int rc = w.CallServer(
                [&](Channel& ch, PObject& reply) {
                    return w.RunProtocol(ch, SCMD_RESUME_TRANSFER, request, reply);
                },
                response);
            std::lock_guard<std::mutex> lock(m_mutex);
            m_outcomes.push_back({sess, rc, had_cache});
            return rc;
        };
        WorkerHandlers handlers = recorder.Handlers(0);
        handlers.download_remote = handlers.upload_local = ask;
        w.SetHandlers(handlers);
    }
    std::optional<Outcome> Nth(size_t n, uint64_t sess = 0) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const Outcome& o : m_outcomes)
            if ((sess == 0 || o.session == sess) && n-- == 0) return o;
        return std::nullopt;
    }
    // The control thread's side of a session pause: the workers busy with the session are
    // aborted and it waits at the barrier until each has let go. How many there were.
    uint32_t DropSession(uint64_t sess) {
        std::vector<ProbeWorker*> busy;
        for (ProbeWorker& w : workers) {
            Worker::ProcessEvent_T info;
            w.GetCurrentProcessEventInfo(info);
            if (info.session_id == sess) busy.push_back(&w);
        }
        Worker::PauseType_T barrier(static_cast<uint32_t>(busy.size()));
        MutexLock lock(barrier.pause_mutex);
        for (ProbeWorker* w : busy) {
            w->setPauseInstance(&barrier);
            w->SetAbort(true);
        }
        barrier.WaitForAll();
        return static_cast<uint32_t>(busy.size());
    }
    uint64_t SyncId(uint64_t id) {
        uint64_t value = 0;
        EXPECT_EQ(dbs[id]->getSyncId(value), 0);
        return value;
    }

    std::unique_ptr<ServerHarness> server;
    std::unique_ptr<ConnectionPool> pool;
    Syncer syncer;
    std::mutex m_mutex;
    std::vector<Outcome> m_outcomes;
};

TEST_F(WorkerConcurrency, PauseInterruptsTheReplyWaitAndTheTransferResumesWithWhatItKept) {
    StartServer([](ServerOptions& o) { o.keepalive_seconds = 1; });
    server->WriteFaults("delay resume_get_token 3000 times=1\n");
    AddSession(1, true, false, server->user.view_id);
    EventManager::getInstance().PushServerEvent(evtest::Server(Event::EV_CREATE, "/a.txt", 4));
    // Shown as syncing until its event is finished.
    const std::string shown = Root(1) + "/a.txt";
    FileStatusInfo row;
    ASSERT_EQ(FileStatusDB::getFileSyncStat(shown.c_str(), &row), 1);
    ProbeWorker& w = workers[0];
    AskServerOnTransfers(w);
    ASSERT_EQ(w.Run(), 0);

    // In the reply wait, kept alive by the server, with no file body moving.
    ASSERT_TRUE(Eventually([&] { return LogCount("get keepalive message") > 0; }));
    uint64_t sess = 0, sent = 1, total = 1;
    ustring path;
    Worker::WorkingType type = Worker::W_TYPE_NONE;
    w.GetWorkingStatus(sess, path, type, sent, total);
    EXPECT_EQ(sess, 1u);
    EXPECT_EQ(path, ustring("/a.txt"));
    EXPECT_EQ(type, Worker::W_TYPE_DOWNLOAD);
    EXPECT_EQ(sent + total, 0u);

    w.Pause();
    ASSERT_TRUE(Eventually([&] { return Nth(0).has_value(); }));
    EXPECT_EQ(Nth(0)->result, ERR_CH_CONNECTION_ABORT);
    EXPECT_EQ(LogCount("RunProtocol(resume_get_token): failed to recv response"), 1u);
    const std::string partial = Root(1) + "/.ZephanorWorkingDirectory/partial";
    EXPECT_TRUE(Exists(partial));

    w.Resume();
    ASSERT_TRUE(Eventually([&] { return Nth(1).has_value(); }));
    EXPECT_EQ(Nth(1)->result, 0);
    EXPECT_TRUE(Nth(1)->had_cache);
    ASSERT_TRUE(
        Eventually([&] { return EventManager::getInstance().GetAllPendingEventCount(1) == 0; }));
    EXPECT_TRUE(Eventually([&] { return !Exists(partial); }));  // a finished event lets go
    EXPECT_TRUE(
        Eventually([&] { return FileStatusDB::getFileSyncStat(shown.c_str(), &row) == 0; }));
}

TEST_F(WorkerConcurrency, DroppingOneSessionLeavesTheOtherWorkerAloneAndTheSyncIdWaits) {
    StartServer();
    server->WriteFaults("delay resume_get_token 4000 times=2\n");
    ServerObject obj;
    ASSERT_EQ(admin::Put(server->store, server->user.view_id, server->LocalFile("src", "a"),
                         "/a.txt", 1000, obj),
              0);
    AddSession(1, true, false, server->user.view_id);
    AddSession(2, true, false, server->user.view_id);
    EventManager::getInstance().PushLocalEvent(In(2, evtest::Local(Event::EV_CREATE, "/b.txt")));
    for (ProbeWorker& w : workers) {
        AskServerOnTransfers(w);
        ASSERT_EQ(w.Run(), 0);
    }
    ASSERT_EQ(syncer.Run(), 0);  // session 1 first: its server change goes to the other worker
    ASSERT_TRUE(Eventually([&] { return LogCount("RunProtocol(resume_get_token) <<<") == 2; }));

    SetPaused(1, true);
    EXPECT_EQ(DropSession(1), 1u);
    EXPECT_EQ(LogCount("signal the command thread"), 1u);
    ASSERT_TRUE(Eventually([&] { return Nth(0, 1) && Nth(0, 2); }));
    EXPECT_EQ(Nth(0, 1)->result, ERR_INT);  // interrupted: the event went back to its session
    EXPECT_EQ(Nth(0, 2)->result, 0);        // the other session's request was answered
    ASSERT_TRUE(Eventually([&] { return LogCount("session 1 is paused while there are events"); }));
    EXPECT_EQ(SyncId(1), 0u);

    SetPaused(1, false);
    ASSERT_TRUE(Eventually([&] { return SyncId(1) == 1 && SyncId(2) == 1; }, nullptr,
                           std::chrono::seconds(30)));
}

}  // namespace
}  // namespace wtest
