// The event manager with one thread: turns between sessions, changes to held paths,
// walks, the status database and the notices.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "manager-fixture.h"

using namespace evtest;

namespace {

using Turns = ManagerFixture;

// Sessions take turns one event at a time; server events count until they are done,
// since the session's sync id must not move before they are carried out.
TEST_F(Turns, SessionsAlternateAndServerEventsCountUntilDone) {
    for (int i = 0; i < 10; ++i) {
        mgr.PushLocalEvent(In(1, Local(Event::EV_MODIFY, "/a" + std::to_string(i))));
        mgr.PushServerEvent(In(2, Server(Event::EV_MODIFY, "/b" + std::to_string(i), 5 + i)));
    }
    EXPECT_EQ(mgr.GetPendingServerEvent(1), 0);
    RecordingTask worker;
    std::vector<uint64_t> order;
    Event e;
    while (mgr.PullEvent(&worker, e) == 0) {
        order.push_back(e.m_sess_id);
        const int server_done = static_cast<int>(order.size() - 1) / 2;
        EXPECT_EQ(mgr.GetPendingServerEvent(2), 10 - server_done);
        ASSERT_EQ(mgr.DoneEvent(&worker, e), 0);
    }
    ASSERT_EQ(order.size(), 20u);
    for (size_t i = 0; i < order.size(); ++i) EXPECT_EQ(order[i], i % 2 == 0 ? 1u : 2u) << i;
    EXPECT_EQ(mgr.GetAllPendingEventCount(1) + mgr.GetAllPendingEventCount(2), 0);
    EXPECT_EQ(mgr.GetPendingServerEvent(2), 0);
}

TEST_F(Turns, UnknownSessionsBrokenPathsAndFileExpandsAreDropped) {
    mgr.PushLocalEvent(In(99, Local(Event::EV_MODIFY, "/x")));
    mgr.PushLocalEvent(In(1, Local(Event::EV_MODIFY, "/bad\xff\xfe")));
    mgr.PushServerEvent(In(1, Server(Event::EV_MODIFY, "/bad\xc3", 4)));
    Event expand = In(1, Local(Event::EV_CREATE, "/file.txt"));
    expand.setExpand();
    mgr.PushLocalEvent(expand);
    EXPECT_EQ(mgr.GetAllPendingEventCount(99), 0);
    EXPECT_EQ(mgr.GetAllPendingEventCount(1), 0);
    RecordingTask worker;
    Event e;
    EXPECT_EQ(mgr.PullEvent(&worker, e), -1);
    EXPECT_EQ(mgr.DoneEvent(&worker, e), 0);  // a task holding nothing is done at once
}

using HeldPaths = ManagerFixture;

// A local removal aborts the upload of its path; server changes never interrupt.
// Either way the newest change goes back to the task that holds the path.
TEST_F(HeldPaths, ChangesAreHandedBackAndOnlyALocalRemovalAborts) {
    mgr.PushLocalEvent(In(1, Local(Event::EV_MODIFY, "/big.iso")));
    mgr.PushLocalEvent(In(2, Local(Event::EV_MODIFY, "/doc")));
    RecordingTask uploader, worker, other;
    Event up, doc;
    ASSERT_EQ(mgr.PullEvent(&uploader, up), 0);
    ASSERT_EQ(mgr.PullEvent(&worker, doc), 0);
    mgr.PushLocalEvent(In(1, Local(Event::EV_REMOVE, "/big.iso")));
    mgr.PushServerEvent(In(2, Server(Event::EV_MODIFY, "/doc", 30)));
    mgr.PushServerEvent(In(2, Server(Event::EV_REMOVE, "/doc", 31)));
    EXPECT_TRUE(uploader.aborted);
    EXPECT_FALSE(worker.aborted);

    ASSERT_EQ(mgr.DoneEvent(&uploader, up), -1);
    EXPECT_EQ(up.m_type, Event::EV_REMOVE);
    ASSERT_EQ(mgr.DoneEvent(&worker, doc), -1);
    EXPECT_EQ(doc.m_sync_id, 31u);  // the newest server change, the removal
    Event none;
    EXPECT_EQ(mgr.PullEvent(&other, none), -1);  // the paths stay with their tasks
    ASSERT_EQ(mgr.DoneEvent(&uploader, up), 0);
    ASSERT_EQ(mgr.DoneEvent(&worker, doc), 0);
    EXPECT_EQ(mgr.GetAllPendingEventCount(1) + mgr.GetAllPendingEventCount(2), 0);
}

TEST_F(HeldPaths, ChangeToTheOtherKindAtThePathRetiresTheHeldNode) {
    mgr.PushLocalEvent(In(1, Local(Event::EV_REMOVE, "/a")));
    RecordingTask worker;
    Event e;
    ASSERT_EQ(mgr.PullEvent(&worker, e), 0);
    mgr.PushLocalEvent(In(1, Local(Event::EV_CREATE, "/a", DIR_NODE)));
    ASSERT_EQ(mgr.DoneEvent(&worker, e), -1);
    EXPECT_EQ(e.m_type, Event::EV_CREATE);         // the directory's
    EXPECT_EQ(mgr.GetAllPendingEventCount(1), 1);  // the file's removal is retired
    ASSERT_EQ(mgr.DoneEvent(&worker, e), 0);
    EXPECT_EQ(mgr.GetAllPendingEventCount(1), 0);
}

TEST_F(HeldPaths, RedoPutsTheEventBackForLater) {
    mgr.PushLocalEvent(In(1, Local(Event::EV_MODIFY, "/first")));
    mgr.PushLocalEvent(In(1, Local(Event::EV_MODIFY, "/second")));
    RecordingTask worker;
    Event e;
    ASSERT_EQ(mgr.PullEvent(&worker, e), 0);
    EXPECT_EQ(e.m_path, ustring("/first"));
    ASSERT_EQ(mgr.RedoEvent(&worker, e), 0);
    ASSERT_EQ(mgr.PullEvent(&worker, e), 0);
    EXPECT_EQ(e.m_path, ustring("/second"));
    EXPECT_EQ(mgr.RedoEvent(&worker, In(77, Local(Event::EV_MODIFY, "/first"))), -1);
    EXPECT_EQ(mgr.RedoEvent(&worker, In(1, Local(Event::EV_MODIFY, "/never"))), -1);
}

using Walks = ManagerFixture;

TEST_F(Walks, RootRescanReplacesWaitingWalksOthersQueue) {
    mgr.IssueExpand(1, "/a");
    mgr.IssueExpand(1, "/b");
    mgr.IssueRescan(1, "/sub", true);
    EXPECT_EQ(mgr.GetAllPendingEventCount(1), 3);
    mgr.IssueRescan(1, "/", false);
    EXPECT_EQ(mgr.GetAllPendingEventCount(1), 1);
    mgr.IssueRescan(2, "/", false);  // a session without events gets its pool
    EXPECT_EQ(mgr.GetAllPendingEventCount(2), 1);
    RecordingTask worker;
    Event e;
    ASSERT_EQ(mgr.PullEvent(&worker, e), 0);
    EXPECT_TRUE(e.isRescan());
    EXPECT_FALSE(e.isMerge());
    EXPECT_EQ(e.m_path, ustring("/"));
}

// Walks run when the tree has nothing runnable; a new walk of the path interrupts
// the one under way, and a change to the walked path goes to the walker.
TEST_F(Walks, WalksFillTheGapsAndGiveWayToChanges) {
    mgr.IssueExpand(1, "/d");
    mgr.PushLocalEvent(In(1, Local(Event::EV_MODIFY, "/f")));
    RecordingTask a, walker, other;
    Event first, e;
    ASSERT_EQ(mgr.PullEvent(&a, first), 0);
    EXPECT_EQ(first.m_path, ustring("/f"));
    ASSERT_EQ(mgr.PullEvent(&walker, e), 0);  // the tree's only event is held
    EXPECT_TRUE(e.isExpand());
    ASSERT_EQ(mgr.DoneEvent(&a, first), 0);

    mgr.IssueExpand(1, "/d");
    EXPECT_TRUE(walker.aborted);
    EXPECT_EQ(mgr.DoneEvent(&walker, e), 0);  // a walk is no change to hand back
    EXPECT_EQ(mgr.GetAllPendingEventCount(1), 1);

    ASSERT_EQ(mgr.PullEvent(&walker, e), 0);
    mgr.PushLocalEvent(In(1, Local(Event::EV_MODIFY, "/d", DIR_NODE)));
    ASSERT_EQ(mgr.DoneEvent(&walker, e), -1);
    EXPECT_FALSE(e.isExpand());
    EXPECT_EQ(e.m_type, Event::EV_MODIFY);
    Event none;
    EXPECT_EQ(mgr.PullEvent(&other, none), -1);  // taken out of the tree, not run twice
    ASSERT_EQ(mgr.DoneEvent(&walker, e), 0);
    EXPECT_EQ(mgr.GetAllPendingEventCount(1), 0);
}

using StatusAndNotices = ManagerFixture;

// Pending changes (not walks) are marked syncing and told to the listener.
TEST_F(StatusAndNotices, PendingPathsAreMarkedSyncingAndHeardOf) {
    loopback::Listener listener;
    SetUIPort(listener.port());
    mgr.PushLocalEvent(In(1, Local(Event::EV_MODIFY, "/docs/a.txt")));
    mgr.PushServerEvent(In(2, Server(Event::EV_REMOVE, "/pics", 8, DIR_NODE)));
    mgr.IssueExpand(1, "/walked");
    PObject first = NextNotice(listener);
    EXPECT_EQ(first["notify"].asString(), ustring("syncing_file"));
    EXPECT_EQ(first["session_id"].asUInt64(), 1u);
    EXPECT_EQ(first["path"].asString(), ustring("/docs/a.txt"));
    PObject second = NextNotice(listener);
    EXPECT_EQ(second["session_id"].asUInt64(), 2u);
    EXPECT_EQ(second["is_dir"].asUInt64(), 1u);
    EXPECT_EQ(second["event_type"].asUInt64(), static_cast<uint64_t>(Event::EV_REMOVE));

    FileStatusInfo info;
    ASSERT_EQ(FileStatusDB::getFileSyncStat((Root(1) + "/docs/a.txt").c_str(), &info), 1);
    EXPECT_EQ(info.syncStatus, SFS_SYNCING);
    EXPECT_EQ(info.fileType, SFT_FILE);
    ASSERT_EQ(FileStatusDB::getFileSyncStat((Root(2) + "/pics").c_str(), &info), 1);
    EXPECT_EQ(info.fileType, SFT_DIR);
    EXPECT_EQ(FileStatusDB::getFileSyncStat((Root(1) + "/walked").c_str(), &info), 0);
    EXPECT_EQ(EventManager::SyncedEvent2FStatDB((Root(1) + "/docs/a.txt").c_str()), 0);
    EXPECT_EQ(FileStatusDB::getFileSyncStat((Root(1) + "/docs/a.txt").c_str(), &info), 0);
}

TEST_F(StatusAndNotices, ClearForgetsEverything) {
    mgr.PushLocalEvent(In(1, Local(Event::EV_MODIFY, "/x")));
    RecordingTask worker;
    Event e;
    ASSERT_EQ(mgr.PullEvent(&worker, e), 0);
    mgr.Clear();
    EXPECT_EQ(mgr.GetAllPendingEventCount(1), 0);
    EXPECT_EQ(mgr.DoneEvent(&worker, e), 0);
    EXPECT_EQ(mgr.PullEvent(&worker, e), -1);
}

// A removed session's waiting work goes, held events included; the other session's
// stays and keeps its turn.
TEST_F(StatusAndNotices, RemovingASessionDropsOnlyItsWork) {
    mgr.PushLocalEvent(In(1, Local(Event::EV_MODIFY, "/held")));
    mgr.PushLocalEvent(In(1, Local(Event::EV_MODIFY, "/waiting")));
    mgr.PushServerEvent(In(2, Server(Event::EV_MODIFY, "/other", 3)));
    RecordingTask worker, other;
    Event held, e;
    ASSERT_EQ(mgr.PullEvent(&worker, held), 0);
    ASSERT_EQ(held.m_sess_id, 1u);
    mgr.RemoveSession(1);
    EXPECT_EQ(mgr.GetAllPendingEventCount(1), 0);
    EXPECT_EQ(mgr.DoneEvent(&worker, held), 0);
    ASSERT_EQ(mgr.PullEvent(&other, e), 0);
    EXPECT_EQ(e.m_path, ustring("/other"));
    ASSERT_EQ(mgr.DoneEvent(&other, e), 0);
    EXPECT_EQ(mgr.PullEvent(&other, e), -1);
}

}  // namespace
