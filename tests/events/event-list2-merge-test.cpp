// The tree's merges: a rename meeting another event on its path, and what a directory
// removal does to the events below it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "event-builders.h"
#include "events/event-list2.h"
#include "state/file-status-db.h"
#include "support/temp-dir.h"

using namespace evtest;

namespace {

constexpr uint32_t kNoFlag = 0;
constexpr uint32_t kConflict = Event::F_CONFLICT;
constexpr uint32_t kServerRemoved = Event::F_SERVER_REMOVED;  // with the removal's ids

struct Side_ {
    Event::Type type;
    Side side;
    uint64_t sync_id;
};

struct MergeCase {
    Kind kind;
    Side_ pending;
    Side_ arriving;
    char winner;     // 'P' pending, 'A' arriving
    uint32_t flags;  // bits the merge adds to the winner
};

const auto M = Event::EV_MODIFY;
const auto R = Event::EV_REMOVE;
const auto N = Event::EV_RENAME;

// The random runs in event-list2-property-test.cpp check every pairing of creations,
// changes and removals against a model; these rows are what they leave out: a rename,
// which must keep its target whichever event it meets.
const std::vector<MergeCase> kMergeTable = {
    {FILE_NODE, {N, LOCAL, 0}, {R, SERVER, 10}, 'P', kServerRemoved},
    {FILE_NODE, {N, LOCAL, 0}, {M, LOCAL, 0}, 'A', kNoFlag},
    {FILE_NODE, {N, LOCAL, 0}, {M, SERVER, 10}, 'A', kConflict},
    {FILE_NODE, {M, SERVER, 10}, {N, LOCAL, 0}, 'P', kConflict},
};

class MergeTable : public ::testing::TestWithParam<MergeCase> {};

TEST_P(MergeTable, OnePathKeepsTheRightEvent) {
    const MergeCase& c = GetParam();  // the row's index ends the test's name
    EventList2 tree;
    Event pending =
        Make(c.pending.type, "/top/x", c.pending.side, c.kind, c.pending.sync_id, "pending");
    if (c.pending.type == Event::EV_RENAME) pending.m_opt = "/top/y";
    Event arriving =
        Make(c.arriving.type, "/top/x", c.arriving.side, c.kind, c.arriving.sync_id, "arriving");
    if (c.arriving.type == Event::EV_RENAME) arriving.m_opt = "/top/z";
    ASSERT_EQ(tree.Push(pending), 0);
    Event old;
    ASSERT_EQ(tree.Push(arriving, old), 0);
    EXPECT_EQ(old.m_data_hash, ustring("pending"));

    const Event& winner = c.winner == 'P' ? pending : arriving;
    Event out;
    ASSERT_EQ(tree.Pop(out), 0);
    EXPECT_EQ(out.m_data_hash, winner.m_data_hash);
    EXPECT_EQ(out.m_type, winner.m_type);
    EXPECT_EQ(out.m_mode, winner.m_mode | c.flags);
    EXPECT_EQ(out.m_sync_id, c.flags == kServerRemoved ? arriving.m_sync_id : winner.m_sync_id);
    EXPECT_EQ(out.m_opt, winner.m_opt);
    Event none;
    EXPECT_EQ(tree.Pop(none), -1);  // one event for the path
}

INSTANTIATE_TEST_SUITE_P(PendingAgainstArriving, MergeTable, ::testing::ValuesIn(kMergeTable));

// ---- a directory removal with events below it ----

std::vector<std::string> PathsIn(const EventList2& tree) {
    std::vector<std::string> out;
    for (const EventList2::NodeView& v : tree.Snapshot()) out.push_back(v.path.str());
    return out;
}

constexpr uint32_t kStatBits =
    Event::F_LOCAL_SUBDIR_RESCAN_STAT | Event::F_SERVER_SUBDIR_RESCAN_STAT;

struct RemovalCase {
    const char* name;
    std::vector<Event> below;
    Event removal;
    std::vector<std::string> left;  // the tree's paths after the removal
    uint32_t stat;                  // the look-below mark the removal is handed out with
};

// A local removal drops the local events below it and keeps the server's; a
// server removal drops only older server events. What stays below must be looked
// at again after the removal, unless it is all removals itself.
TEST(DirectoryRemoval, DropsWhatItSupersedesAndMarksWhatStays) {
    const std::vector<RemovalCase> cases = {
        {"local over both sides",
         {Local(Event::EV_MODIFY, "/d/mine.txt"), Local(Event::EV_CREATE, "/d/sub", DIR_NODE),
          Local(Event::EV_MODIFY, "/d/sub/deep/x"), Server(Event::EV_MODIFY, "/d/theirs.txt", 40)},
         Local(Event::EV_REMOVE, "/d", DIR_NODE),
         {"/d", "/d/theirs.txt"},
         Event::F_LOCAL_SUBDIR_RESCAN_STAT},
        {"local over server removals",
         {Server(Event::EV_REMOVE, "/d/a", 90)},
         Local(Event::EV_REMOVE, "/d", DIR_NODE),
         {"/d", "/d/a"},
         0},
        {"server over newer server",
         {Server(Event::EV_CREATE, "/d/f", 150), Server(Event::EV_CREATE, "/d/s/g", 150)},
         Server(Event::EV_REMOVE, "/d", 100, DIR_NODE),
         {"/d", "/d/f", "/d/s", "/d/s/g"},
         Event::F_SERVER_SUBDIR_RESCAN_STAT},
    };
    for (const RemovalCase& c : cases) {
        SCOPED_TRACE(c.name);
        EventList2 tree;
        for (const Event& e : c.below) ASSERT_EQ(tree.Push(e), 0);
        ASSERT_EQ(tree.Push(c.removal), 0);
        EXPECT_EQ(PathsIn(tree), c.left);
        Event out, child;
        ASSERT_EQ(tree.Pop(out), 0);
        EXPECT_EQ(out.m_path, ustring("/d"));
        EXPECT_EQ(out.m_type, Event::EV_REMOVE);
        EXPECT_EQ(out.m_mode & kStatBits, c.stat);
        EXPECT_EQ(tree.Pop(child), -1);  // children wait for their held parent
        ASSERT_EQ(tree.DoneEvent(out), 0);
        EXPECT_EQ(tree.Pop(child), c.left.size() > 1 ? 0 : -1);
    }
}

TEST(DirectoryRemoval, HeldChildrenStayAndHoldTheDirectoryBack) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Server(Event::EV_MODIFY, "/d/busy", 5)), 0);
    Event held;
    ASSERT_EQ(tree.Pop(held), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/d/idle")), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_REMOVE, "/d", DIR_NODE)), 0);
    EXPECT_EQ(PathsIn(tree), (std::vector<std::string>{"/d", "/d/busy"}));

    Event out;
    EXPECT_EQ(tree.Pop(out), -1);  // a worker is busy below
    // A local removal waiting on a server download below must look again afterwards.
    EXPECT_TRUE(tree.Snapshot()[0].event.isLocalSubDirRescanWithStat());
    ASSERT_EQ(tree.DoneEvent(held), 0);
    ASSERT_EQ(tree.Pop(out), 0);
    EXPECT_EQ(out.m_path, ustring("/d"));
}

TEST(DirectoryRemoval, DroppedEventsLoseTheirStatusRows) {
    TempDir dir;
    ASSERT_EQ(FileStatusDB::initialize((dir / "fstat.sqlite").c_str()), 0);
    const std::string root = dir / "root";
    for (const char* rel : {"/d/gone.txt", "/d/sub", "/d/kept.txt"}) {
        FileStatusInfo info;
        info.path = (root + rel).c_str();
        info.syncStatus = SFS_SYNCING;
        ASSERT_EQ(FileStatusDB::setFileSyncStat(info), 0);
    }
    EventList2 tree;
    tree.SetWatchPath(root.c_str());
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/d/gone.txt")), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/d/sub", DIR_NODE)), 0);
    ASSERT_EQ(tree.Push(Server(Event::EV_MODIFY, "/d/kept.txt", 3)), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_REMOVE, "/d", DIR_NODE)), 0);

    FileStatusInfo info;
    EXPECT_EQ(FileStatusDB::getFileSyncStat((root + "/d/gone.txt").c_str(), &info), 0);
    EXPECT_EQ(FileStatusDB::getFileSyncStat((root + "/d/sub").c_str(), &info), 0);
    EXPECT_EQ(FileStatusDB::getFileSyncStat((root + "/d/kept.txt").c_str(), &info), 1);
    FileStatusDB::destroy();
}

}  // namespace
