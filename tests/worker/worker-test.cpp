// The worker's decisions: what each handler result and each stream failure does to the
// event, the counters, the caches and the user interface; where the rescan-below flags
// go; and the events settled before any handler runs.
#include "foundation/error-code.h"
#include "worker-fixture.h"

namespace wtest {
namespace {

using evtest::Local;
using evtest::Server;

class WorkerErrors : public WorkerFixture {};
class WorkerEvents : public WorkerFixture {};

struct ErrorRow {
    int code;
    int action;
    const char* heard;  // the notice's kind: "" none, "session", "connection", "file"
    bool clears_caches;
};
constexpr ErrorRow kErrorRows[] = {
    {0, 0, "", false},          {-1, 2, "", false},         {-2, 1, "", false},
    {-3, 1, "", true},          {-4, -1, "", false},        {-5, -1, "", false},
    {-6, 2, "connection", 0},   {-7, 1, "", false},         {-8, -1, "", false},
    {-9, 1, "", false},         {-10, 2, "connection", 0},  {-11, -1, "", false},
    {-12, -1, "", false},       {-13, -1, "", false},       {-14, 2, "session", false},
    {-15, 2, "session", false}, {-16, 2, "session", false}, {-17, -1, "", false},
    {-18, 2, "session", false}, {-19, 2, "session", false}, {-20, -1, "", false},
    {-21, 1, "", false},        {-22, 2, "session", true},  {-23, 2, "file", false},
    {1, -1, "", false},         {-24, -1, "", false},  // outside the table
};

TEST_F(WorkerErrors, EachCodeActsCountsReportsAndKeepsCachesByItsRow) {
    loopback::Listener ui;
    evtest::SetUIPort(ui.port());
    ConnectionInfo info;
    info.conn_id = 77;
    ConnectionPool pool(info, ProxyInfo(), TunnelInfo(), 1);
    g_pool = &pool;
    for (const ErrorRow& row : kErrorRows) {
        SCOPED_TRACE(row.code);
        ProbeWorker w;
        w.Hold(In(7, Local(Event::EV_MODIFY, "/docs/a.txt")));
        const std::string partial = w.KeepPartialDownload(dir / "work");
        w.sys_err_count = 2;
        w.patch_err_count = 1;
        EXPECT_EQ(w.HandleError(row.code), row.action);
        EXPECT_EQ(Exists(partial), !row.clears_caches);
        EXPECT_TRUE(Exists(dir / "user.txt"));
        EXPECT_EQ(w.cached_request.isEmpty(), row.clears_caches);
        // -3 counts; other handled codes restart both counts; the rest move nothing.
        const bool handled = row.action >= 0 && row.code <= 0;
        EXPECT_EQ(w.sys_err_count, row.code == ERR_SYS ? 3 : handled ? 0 : 2);
        EXPECT_EQ(w.patch_err_count, row.code == ERR_SYS || !handled ? 1u : 0u);

        const PObject heard = evtest::NextNotice(ui, 0);
        const std::string kind = row.heard;
        if (kind.empty()) {
            EXPECT_FALSE(heard.isMap()) << heard.toString().c_str_utf8();
            continue;
        }
        EXPECT_EQ(heard["notify"].asString(), kind == "file" ? "locked_file" : "error");
        EXPECT_EQ(heard[kind == "connection" ? "connection_id" : "session_id"].asUInt64(),
                  kind == "connection" ? 77u : 7u);
        EXPECT_EQ((kind == "file" ? heard["error"]["code"] : heard["error_type"]).asInt32(),
                  row.code);
        EXPECT_EQ(heard["path"].asString(), kind == "file" ? "/docs/a.txt" : "");
    }
}

TEST_F(WorkerErrors, TheFourthSystemErrorGivesTheEventBackAndTheThirdPatchFailureDropsIt) {
    ProbeWorker w;
    for (int expected : {1, 1, 1, 2, 1}) EXPECT_EQ(w.HandleError(ERR_SYS), expected);
    EXPECT_EQ(w.HandleError(ERR_IO), 1);  // another code in between restarts the count
    for (int expected : {1, 1, 1}) EXPECT_EQ(w.HandleError(ERR_SYS), expected);
    w.patch_err_count = 2;  // two failed patches are retried from scratch
    EXPECT_EQ(w.HandleError(ERR_SYS), 2);
    for (int expected : {1, 1, 1}) EXPECT_EQ(w.HandleError(ERR_SYS), expected);
    w.patch_err_count = 3;  // the third is dropped, even where a give-back was due
    EXPECT_EQ(w.HandleError(ERR_SYS), 0);
    EXPECT_EQ(w.patch_err_count, 0u);
}

TEST_F(WorkerErrors, StreamFailuresResumeOnlyAfterAConnectionLossOrAPause) {
    struct Row {
        int stream;
        bool aborted;
        Task::State state;
        int code;
        bool clears_caches;
    };
    const Row rows[] = {
        {-1, false, Task::RUN, ERR_SYS, true},             // a binary's file failed
        {-5, false, Task::RUN, ERR_SYS, true},             // malformed input
        {-4, false, Task::RUN, ERR_LOCAL_DISKFULL, true},  // no space for a received file
        {-2, false, Task::RUN, ERR_IO, false},             // channel failure
        {-9, false, Task::RUN, ERR_IO, false},             // time-out
        {-7, false, Task::RUN, ERR_SYS, true},             // nothing the stream gives
        {0, false, Task::RUN, ERR_OK, false},
        {-2, true, Task::RUN, ERR_INT, true},  // aborted, not paused
        {-2, true, Task::PAUSE, ERR_CH_CONNECTION_ABORT, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << row.stream << (row.aborted ? " aborted" : ""));
        ProbeWorker w;
        const std::string partial = w.KeepPartialDownload(dir / "work");
        w.SetState(row.state);
        w.SetAbort(row.aborted);
        EXPECT_EQ(w.streamErr2DaemonErr(row.stream), row.code);
        EXPECT_EQ(Exists(partial), !row.clears_caches);
        EXPECT_TRUE(Exists(dir / "user.txt"));
        EXPECT_FALSE(w.IsAborted());
    }
}

TEST_F(WorkerEvents, RescanBelowFlagsComeFirstAndTheDirectoryItselfFollows) {
    AddSession(1);
    ProbeWorker& w = workers[0];
    w.SetHandlers(recorder.Handlers(0));
    for (uint32_t flag : {Event::F_LOCAL_SUBDIR_RESCAN, Event::F_SERVER_SUBDIR_RESCAN,
                          Event::F_LOCAL_SUBDIR_RESCAN_STAT, Event::F_SERVER_SUBDIR_RESCAN_STAT}) {
        for (Event e : {Server(Event::EV_REMOVE, "/d", 5, DIR_NODE),
                        Local(Event::EV_CREATE, "/d", DIR_NODE)}) {
            e.m_mode |= flag;
            w.Hold(e);
            EXPECT_EQ(w.ProcessEvent(), 0);
        }
    }
    EXPECT_EQ(recorder.Taken().count({"expand_delete", "/d"}), 8u);

    Event e = Server(Event::EV_CREATE, "/d", 5, DIR_NODE);
    e.setLocalSubDirRescan();
    w.Hold(e);
    ASSERT_EQ(w.UpdateContext(), 0);
    EXPECT_EQ(w.DoneEvent(), 0);
    evtest::RecordingTask reader;
    Event next;
    ASSERT_EQ(EventManager::getInstance().PullEvent(&reader, next), 0);
    EXPECT_EQ(next.m_path, ustring("/d"));
    EXPECT_EQ(next.m_mode, static_cast<uint32_t>(Event::F_DIR));
}

TEST_F(WorkerEvents, RemovedPausedAndNonRecursiveSessionsSettleEventsBeforeAnyHandler) {
    AddSession(1, false);
    AddSession(2, true, true);
    AddSession(3);
    AddSession(4, true, true);
    EventManager& events = EventManager::getInstance();
    ProbeWorker& w = workers[0];

    // A removed session's event is finished without a word to the user.
    events.PushLocalEvent(In(3, Local(Event::EV_MODIFY, "/x.txt")));
    Registry::getInstance().Remove(3);
    loopback::Listener ui;
    evtest::SetUIPort(ui.port());
    ASSERT_EQ(w.Pull(), 0);
    EXPECT_EQ(w.UpdateContext(), -1);
    EXPECT_EQ(events.GetAllPendingEventCount(3), 0);
    EXPECT_FALSE(evtest::NextNotice(ui, 0).isMap());

    // A paused session's changes and walks alike go back to wait.
    events.IssueRescan(4, "/", false);
    events.PushLocalEvent(In(2, Local(Event::EV_MODIFY, "/p.txt")));
    for (uint64_t sess : {4, 2}) {
        ASSERT_EQ(w.Pull(), 0);
        EXPECT_EQ(w.UpdateContext(), -1);
        EXPECT_EQ(events.GetAllPendingEventCount(sess), 1);
        EXPECT_FALSE(w.context.current_event.isValid());
    }

    // A non-recursive session takes files at the top and no directory but its root.
    for (auto [path, kind, taken] : {std::tuple{"/a", FILE_NODE, true},
                                     {"/a/b", FILE_NODE, false},
                                     {"/", DIR_NODE, true},
                                     {"/a", DIR_NODE, false}}) {
        w.Hold(In(1, Local(Event::EV_CREATE, path, kind)));
        EXPECT_EQ(w.UpdateContext(), taken ? 0 : -1) << path << kind;
        w.context.clear();
    }
}

}  // namespace
}  // namespace wtest
