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

// The ways a worker's answer can be wrong: the node is still waiting, of the other
// side or kind, unknown, or already retired.
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

TEST(NodeLife, RedoSendsAPathToTheBackOfItsLists) {
    EventList2 tree;
    for (const char* path : {"/a/x", "/b/y", "/top1", "/top2"})
        ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, path)), 0);
    EXPECT_EQ(PopPath(tree), "/top1");
    ASSERT_EQ(tree.Redo("/top1"), 0);
    EXPECT_EQ(PopPath(tree), "/top2");
    EXPECT_EQ(PopPath(tree), "/top1");
    // The DONE step "/a" goes behind "/b" when a path below it is given back.
    EXPECT_EQ(PopPath(tree), "/a/x");
    ASSERT_EQ(tree.Redo("/a/x"), 0);
    EXPECT_EQ(PopPath(tree), "/b/y");
    EXPECT_EQ(tree.Redo("/nowhere/x"), -1);
    EXPECT_EQ(tree.Redo("/a"), -1);  // a step holds nothing to run again
    EXPECT_EQ(tree.GetLocalEventCount(), 4);
}

// Taking and giving back by path: a directory before a file of the same name unless
// a kind is asked for, the other kind when that one is held, never a held node twice.
TEST(NodeLife, PopAndRedoByPathChooseTheKind) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/p/a")), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/p/a", DIR_NODE)), 0);
    Event e;
    ASSERT_EQ(tree.Pop("/p/a", e), 0);
    EXPECT_TRUE(e.isDir());
    ASSERT_EQ(tree.Pop("/p/a", e), 0);
    EXPECT_TRUE(e.isFile());
    EXPECT_EQ(tree.Pop("/p/a", e), -1);
    EXPECT_EQ(tree.Pop("/p/zz", e), -1);
    EXPECT_EQ(tree.Pop("/q/a", e), -1);
    EXPECT_EQ(PopPath(tree), "(none)");

    ASSERT_EQ(tree.Redo("/p/a", false), 0);
    std::vector<EventList2::NodeView> nodes = tree.Snapshot();
    ASSERT_EQ(nodes.size(), 3u);
    EXPECT_TRUE(nodes[1].path == ustring("/p/a") && !nodes[1].is_dir);
    EXPECT_EQ(nodes[1].status, EventList2::WAITING);
    EXPECT_EQ(nodes[2].status, EventList2::PROCESSING);  // the directory stays held
    ASSERT_EQ(tree.Pop("/p/a", true, e), 0);  // the directory is held: the file instead
    EXPECT_TRUE(e.isFile());
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

// A held node blocks only what lies on its own line: a waiting directory above it
// and everything below it; a sibling still goes, unless the held node sits under a
// DONE step that comes first.
TEST(PopOrder, HeldNodesBlockOnlyTheirOwnLine) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/a/f")), 0);
    Event child;
    ASSERT_EQ(tree.Pop(child), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/a", DIR_NODE)), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/a/g")), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/b/x")), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/later")), 0);
    EXPECT_EQ(PopPath(tree), "/later");
    EXPECT_EQ(PopPath(tree), "/b/x");
    EXPECT_EQ(PopPath(tree), "(none)");
    ASSERT_EQ(tree.DoneEvent(child), 0);
    Event dir;
    ASSERT_EQ(tree.Pop(dir), 0);
    EXPECT_EQ(dir.m_path, ustring("/a"));
    EXPECT_EQ(PopPath(tree), "(none)");  // /a/g waits for its held parent
    ASSERT_EQ(tree.DoneEvent(dir), 0);
    EXPECT_EQ(PopPath(tree), "/a/g");

    EventList2 stepped;
    ASSERT_EQ(stepped.Push(Local(Event::EV_MODIFY, "/a/held")), 0);
    ASSERT_EQ(stepped.Pop(child), 0);
    ASSERT_EQ(stepped.Push(Local(Event::EV_MODIFY, "/b/x")), 0);
    EXPECT_EQ(PopPath(stepped), "(none)");
    // Giving the held path back lets the sibling go first.
    ASSERT_EQ(stepped.Redo("/a/held"), 0);
    EXPECT_EQ(PopPath(stepped), "/b/x");
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

TEST(EventRecord, LogTextsAndClearing) {
    Event e = Server(Event::EV_CREATE, "/x/y", 77, DIR_NODE);
    e.setExpand();
    e.m_data_size = 12;
    e.m_data_hash = "abc";
    EXPECT_EQ(e.toString(),
              ustring("Event<server,dir,expand>: [EV_ADD] /x/y size = 12, hash = abc"));
    Event rename = Local(Event::EV_RENAME, "/old.txt");
    rename.m_opt = "/new.txt";
    EXPECT_EQ(rename.toString(), ustring("Event<local,file>: [EV_RENAME] from '/old.txt', to "
                                         "'/new.txt' size = 0, hash = "));
    EXPECT_STREQ(Event::TypeText(99), "EV_UNKNOWN");
    e.clear();
    EXPECT_FALSE(e.isValid());
    EXPECT_EQ(e.m_mode, 0u);
    EXPECT_TRUE(e.m_path.empty());

    EventList2::Attribute attr;
    EventList2::ConvertEventToAttr(rename, attr);
    attr.nodeID = 5;
    EventList2::ClearAttribute(attr);
    EXPECT_EQ(attr.type, Event::EV_EMPTY);
    EXPECT_TRUE(attr.path.empty());
    EXPECT_EQ(attr.sessID, 1u);  // the rest stays
    EXPECT_EQ(attr.nodeID, 5u);
}

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
