// The order in which the tree hands out events, and the life of a node: held, changed
// while held, done, given back.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "event-builders.h"
#include "events/event-list2.h"
#include "foundation/log.h"
#include "support/temp-dir.h"

using namespace evtest;

namespace {

std::string PopPath(EventList2& tree) {
    Event e;
    if (tree.Pop(e) != 0) return "(none)";
    return e.m_path.str();
}

TEST(NodeLife, ChangeWhileHeldIsRefusedThenRedoneMerged) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Make(Event::EV_MODIFY, "/f", LOCAL, FILE_NODE, 0, "first")), 0);
    Event held;
    ASSERT_EQ(tree.Pop(held), 0);
    ASSERT_EQ(tree.Push(Make(Event::EV_MODIFY, "/f", LOCAL, FILE_NODE, 0, "second")), 0);
    EXPECT_EQ(tree.Snapshot()[0].status, EventList2::RETRY);
    EXPECT_EQ(tree.GetLocalEventCount(), 1);

    Event none;
    EXPECT_EQ(tree.Pop(none), -1);  // a RETRY node is not handed out again
    EXPECT_EQ(tree.DoneEvent(held), -1);
    EXPECT_EQ(tree.Snapshot()[0].status, EventList2::RETRY);
    ASSERT_EQ(tree.Redo("/f"), 0);
    Event again;
    ASSERT_EQ(tree.Pop(again), 0);
    EXPECT_EQ(again.m_data_hash, ustring("second"));
    EXPECT_EQ(tree.DoneEvent(again), 0);
    EXPECT_TRUE(tree.IsEmpty());
    EXPECT_EQ(tree.GetLocalEventCount(), 0);
}

TEST(NodeLife, ServerChangeOverHeldLocalUploadIsAConflictDownload) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/f")), 0);
    Event held;
    ASSERT_EQ(tree.Pop(held), 0);
    ASSERT_EQ(tree.Push(Server(Event::EV_MODIFY, "/f", 9)), 0);
    EXPECT_EQ(tree.DoneEvent(held), -1);  // the node is now the server's
    Event back;
    ASSERT_EQ(tree.Pop("/f", false, back), 0);
    EXPECT_TRUE(back.isServerEvent());
    EXPECT_TRUE(back.isConflict());
    EXPECT_EQ(tree.GetServerEventCount(), 1);
    EXPECT_EQ(tree.GetLocalEventCount(), 0);
    EXPECT_EQ(tree.DoneEvent(back), 0);
    EXPECT_TRUE(tree.IsEmpty());
}

TEST(NodeLife, DoneIsRefusedForWrongSideUnknownPathOrWaitingNode) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/a/f")), 0);
    EXPECT_EQ(tree.DoneEvent(Local(Event::EV_MODIFY, "/a/f")), -1);  // not held yet
    Event held;
    ASSERT_EQ(tree.Pop(held), 0);
    EXPECT_EQ(tree.DoneEvent(Server(Event::EV_MODIFY, "/a/f", 1)), -1);
    EXPECT_EQ(tree.DoneEvent(Local(Event::EV_MODIFY, "/b/f")), -1);
    EXPECT_EQ(tree.DoneEvent(Local(Event::EV_MODIFY, "/a/g")), -1);
    EXPECT_EQ(tree.DoneEvent(Local(Event::EV_MODIFY, "/a/f", DIR_NODE)), -1);
    EXPECT_EQ(tree.DoneEvent(held), 0);
    EXPECT_EQ(tree.DoneEvent(held), -1);  // already retired
}

TEST(NodeLife, DeepPathLeavesNoStepsBehind) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/a/b/c/d/e/file")), 0);
    EXPECT_EQ(tree.Snapshot().size(), 6u);
    Event e;
    ASSERT_EQ(tree.Pop(e), 0);
    ASSERT_EQ(tree.DoneEvent(e), 0);
    EXPECT_TRUE(tree.IsEmpty());
}

TEST(NodeLife, DoneDirectoryWithChildrenBecomesAStepThenGoes) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/d", DIR_NODE)), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/d/f")), 0);
    Event dir;
    ASSERT_EQ(tree.Pop(dir), 0);
    EXPECT_EQ(dir.m_path, ustring("/d"));
    ASSERT_EQ(tree.DoneEvent(dir), 0);
    EXPECT_EQ(tree.Snapshot()[0].status, EventList2::DONE);
    Event file;
    ASSERT_EQ(tree.Pop(file), 0);
    ASSERT_EQ(tree.DoneEvent(file), 0);
    EXPECT_TRUE(tree.IsEmpty());
}

TEST(NodeLife, RedoSendsAPathToTheBackOfItsLists) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/a/x")), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/b/y")), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/top1")), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/top2")), 0);
    Event e;
    ASSERT_EQ(tree.Pop(e), 0);
    EXPECT_EQ(e.m_path, ustring("/top1"));
    ASSERT_EQ(tree.Redo("/top1"), 0);
    EXPECT_EQ(PopPath(tree), "/top2");
    EXPECT_EQ(PopPath(tree), "/top1");
    // The DONE step "/a" goes behind "/b" when a path below it is given back.
    Event x;
    ASSERT_EQ(tree.Pop(x), 0);
    EXPECT_EQ(x.m_path, ustring("/a/x"));
    ASSERT_EQ(tree.Redo("/a/x"), 0);
    EXPECT_EQ(PopPath(tree), "/b/y");
    EXPECT_EQ(tree.Redo("/nowhere/x"), -1);
    EXPECT_EQ(tree.Redo("/a"), -1);  // a step holds nothing to run again
    EXPECT_EQ(tree.GetLocalEventCount(), 4);
}

TEST(NodeLife, RedoOfAKindLeavesTheOtherKindAlone) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Local(Event::EV_REMOVE, "/a")), 0);
    Event file;
    ASSERT_EQ(tree.Pop(file), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/a", DIR_NODE)), 0);
    ASSERT_EQ(tree.Redo("/a", false), 0);
    std::vector<EventList2::NodeView> nodes = tree.Snapshot();
    ASSERT_EQ(nodes.size(), 2u);
    EXPECT_EQ(nodes[0].status, EventList2::WAITING);
    EXPECT_FALSE(nodes[0].is_dir);
    EXPECT_EQ(nodes[1].status, EventList2::WAITING);
}

TEST(NodeLife, PopByPathTakesADirectoryFirstThenAFile) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/p/a")), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/p/a", DIR_NODE)), 0);
    Event e;
    ASSERT_EQ(tree.Pop("/p/a", e), 0);
    EXPECT_TRUE(e.isDir());
    ASSERT_EQ(tree.Pop("/p/a", e), 0);  // the directory is held now: never handed out twice
    EXPECT_TRUE(e.isFile());
    EXPECT_EQ(tree.Pop("/p/zz", e), -1);
    EXPECT_EQ(tree.Pop("/q/a", e), -1);
    Event none;
    EXPECT_EQ(tree.Pop(none), -1);
}

TEST(NodeLife, PopByPathPrefersAKindAndFallsBackToTheOther) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/f")), 0);
    Event held;
    ASSERT_EQ(tree.Pop(held), 0);
    Event e;
    EXPECT_EQ(tree.Pop("/f", false, e), -1);
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/f", DIR_NODE)), 0);
    ASSERT_EQ(tree.Pop("/f", false, e), 0);  // falls back to the other kind
    EXPECT_TRUE(e.isDir());
}

TEST(NodeLife, ClearLocalEventKeepsServerEventsAndTheirSteps) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/a/l1")), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/b", DIR_NODE)), 0);
    ASSERT_EQ(tree.Push(Server(Event::EV_MODIFY, "/b/s1", 3)), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/b/l2")), 0);
    ASSERT_EQ(tree.Push(Server(Event::EV_CREATE, "/c", 4, DIR_NODE)), 0);
    tree.ClearLocalEvent();
    EXPECT_EQ(tree.GetLocalEventCount(), 0);
    EXPECT_EQ(tree.GetServerEventCount(), 2);
    std::vector<EventList2::NodeView> nodes = tree.Snapshot();
    ASSERT_EQ(nodes.size(), 3u);
    EXPECT_EQ(nodes[0].path, ustring("/b"));
    EXPECT_EQ(nodes[0].status, EventList2::DONE);
    EXPECT_EQ(nodes[1].path, ustring("/b/s1"));
    EXPECT_EQ(nodes[2].path, ustring("/c"));
    tree.Clear();
    EXPECT_TRUE(tree.IsEmpty());
    EXPECT_EQ(tree.GetServerEventCount(), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/again")), 0);
    EXPECT_EQ(PopPath(tree), "/again");
}

// ---- order ----

TEST(PopOrder, WaitingDirectoryIsNotPoppedWhileAChildIsHeld) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/d/f")), 0);
    Event child;
    ASSERT_EQ(tree.Pop(child), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/d", DIR_NODE)), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/later")), 0);
    EXPECT_EQ(PopPath(tree), "/later");
    EXPECT_EQ(PopPath(tree), "(none)");
    ASSERT_EQ(tree.DoneEvent(child), 0);
    EXPECT_EQ(PopPath(tree), "/d");
}

TEST(PopOrder, ChildrenOfAHeldDirectoryWait) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/d", DIR_NODE)), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/d/f")), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/e/g")), 0);
    Event dir;
    ASSERT_EQ(tree.Pop(dir), 0);
    EXPECT_EQ(dir.m_path, ustring("/d"));
    EXPECT_EQ(PopPath(tree), "/e/g");
    EXPECT_EQ(PopPath(tree), "(none)");
    ASSERT_EQ(tree.DoneEvent(dir), 0);
    EXPECT_EQ(PopPath(tree), "/d/f");
}

TEST(PopOrder, WaitingFirstDirectoryDoesNotHideSiblingsButADoneOneDoes) {
    {
        EventList2 tree;
        ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/a/held")), 0);
        Event held;
        ASSERT_EQ(tree.Pop(held), 0);
        ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/a", DIR_NODE)), 0);
        ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/b/x")), 0);
        EXPECT_EQ(PopPath(tree), "/b/x");
    }
    {
        EventList2 tree;
        ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/a/held")), 0);
        Event held;
        ASSERT_EQ(tree.Pop(held), 0);
        ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/b/x")), 0);
        EXPECT_EQ(PopPath(tree), "(none)");
        // Giving the held path back lets the sibling go first.
        ASSERT_EQ(tree.Redo("/a/held"), 0);
        EXPECT_EQ(PopPath(tree), "/b/x");
    }
}

// A single worker that finishes each event before taking the next sees a pre-order
// walk: the files of a directory in arrival order, then each sub-directory's own event
// followed by its contents.
struct GenNode {
    std::vector<std::string> files;
    std::vector<std::string> dirs;  // in arrival order
};

void ExpectedOrder(const std::map<std::string, GenNode>& nodes, const std::string& dir,
                   std::vector<std::string>& out) {
    auto it = nodes.find(dir);
    if (it == nodes.end()) return;
    for (const std::string& f : it->second.files) out.push_back(f);
    for (const std::string& d : it->second.dirs) {
        out.push_back(d);
        ExpectedOrder(nodes, d, out);
    }
}

TEST(PopOrder, GeneratedTreesComeOutParentsFirstFilesBeforeDirectories) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        std::map<std::string, GenNode> nodes;
        std::vector<std::string> dirs = {""};
        std::vector<Event> pushes;
        for (int i = 0; i < 200; ++i) {
            const std::string parent = dirs[rng() % dirs.size()];
            const std::string path = parent + "/n" + std::to_string(i);
            if (rng() % 3 == 0) {
                dirs.push_back(path);
                nodes[parent].dirs.push_back(path);
                pushes.push_back(Local(Event::EV_CREATE, path, DIR_NODE));
            } else {
                nodes[parent].files.push_back(path);
                pushes.push_back(Local(Event::EV_CREATE, path));
            }
        }
        EventList2 tree;
        for (const Event& e : pushes) ASSERT_EQ(tree.Push(e), 0);
        std::vector<std::string> expected;
        ExpectedOrder(nodes, "", expected);
        std::vector<std::string> got;
        Event e;
        while (tree.Pop(e) == 0) {
            got.push_back(e.m_path.str());
            ASSERT_EQ(tree.DoneEvent(e), 0);
        }
        EXPECT_EQ(got, expected);
        EXPECT_TRUE(tree.IsEmpty());
    }
}

TEST(EventRecord, FlagsTextsAndCopies) {
    Event e = Server(Event::EV_CREATE, "/x/y", 77, DIR_NODE);
    e.setExpand();
    e.m_data_size = 12;
    e.m_data_hash = "abc";
    EXPECT_EQ(e.toString(),
              ustring("Event<server,dir,expand>: [EV_ADD] /x/y size = 12, hash = abc"));
    EXPECT_FALSE(e.isSubDirRescan());
    e.setServerSubDirRescanWithStat();
    EXPECT_TRUE(e.isSubDirRescan());
    e.setFile();
    EXPECT_TRUE(e.isFile());
    EXPECT_TRUE(e.isServerEvent());

    Event other = Local(Event::EV_REMOVE, "/z");
    e.swap(other);
    EXPECT_EQ(e.m_path, ustring("/z"));
    EXPECT_EQ(other.m_sync_id, 77u);
    other.clear();
    EXPECT_FALSE(other.isValid());
    EXPECT_EQ(other.m_mode, 0u);
    EXPECT_TRUE(other.m_path.empty());
    EXPECT_STREQ(Event::TypeText(Event::EV_EMPTY), "EV_EMPTY");
    EXPECT_STREQ(Event::TypeText(Event::EV_MODIFY), "EV_MODIFY");
    EXPECT_STREQ(Event::TypeText(99), "EV_UNKNOWN");

    EventList2::Attribute attr;
    EventList2::ConvertEventToAttr(e, attr);
    attr.nodeID = 5;
    EventList2::ClearAttribute(attr);
    EXPECT_EQ(attr.type, Event::EV_EMPTY);
    EXPECT_TRUE(attr.path.empty());
    EXPECT_EQ(attr.sessID, 1u);  // the rest stays
    EXPECT_EQ(attr.nodeID, 5u);
}

}  // namespace

namespace {

TEST(TreeDump, TraverseTreeWritesEveryNodeToTheLog) {
    TempDir dir;
    dir.write("levels", "event_list_debug = 6\n");
    ASSERT_EQ(
        Logger::Initialize(Logger::FILE_LOGGER, (dir / "log").c_str(), (dir / "levels").c_str(), 2),
        0);
    EventList2 tree;
    ASSERT_EQ(tree.Push(Server(Event::EV_CREATE, "/d", 4, DIR_NODE)), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/d/f")), 0);
    tree.TraverseTree();
    Logger::Destroy();
    std::ifstream in(dir / "log");
    std::stringstream text;
    text << in.rdbuf();
    const std::string log = text.str();
    EXPECT_NE(log.find("TraverseTree , server_event_count = [1], local_event_count=[1]"),
              std::string::npos);
    EXPECT_NE(log.find("[Dir] server=[1],Conflict=[0],SubDirRescan=[0],name=[d],status =[0],"
                       "type[1],refSerCount=[0],refLocCount=[0],path=[/d]"),
              std::string::npos);
    EXPECT_NE(log.find("[File] server=[0],Conflict=[0],SubDirRescan=[0],name=[f],status=[0],"
                       "type=[3],path=[/d/f]"),
              std::string::npos);
}

}  // namespace
