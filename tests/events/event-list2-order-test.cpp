// The order in which the tree hands out events, the life of a node (held, done, given
// back, taken by path), and the names it keys them by. Merges are in
// event-list2-merge-test.cpp, random runs against a model in event-list2-property-test.cpp.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "event-builders.h"
#include "events/event-list2.h"

using namespace evtest;

namespace {

std::string PopPath(EventList2& tree) {
    Event e;
    if (tree.Pop(e) != 0) return "(none)";
    return e.m_path.str();
}

// Everything a single worker gets, finishing each event before taking the next:
// "/f", "dir /d".
std::vector<std::string> Drain(EventList2& tree) {
    std::vector<std::string> order;
    Event e;
    while (tree.Pop(e) == 0) {
        order.push_back((e.isDir() ? "dir " : "") + e.m_path.str());
        EXPECT_EQ(tree.DoneEvent(e), 0);
    }
    return order;
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

    // Only the file goes back: asked for the directory, which is still held, the
    // tree hands out the file.
    ASSERT_EQ(tree.Redo("/p/a", false), 0);
    ASSERT_EQ(tree.Pop("/p/a", true, e), 0);
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
    EXPECT_EQ(tree.Snapshot().size(), 3u);  // no step left to "/a"
    EXPECT_EQ(Drain(tree), (std::vector<std::string>{"/b/s1", "dir /c"}));
    ASSERT_EQ(tree.Push(Server(Event::EV_MODIFY, "/s", 5)), 0);
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

// One worker finishing each event before taking the next sees a pre-order walk: the
// files of a directory in arrival order, then each sub-directory followed by its
// contents.
TEST(PopOrder, GeneratedTreesComeOutParentsFirstFilesBeforeDirectories) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        std::map<std::string, std::vector<std::string>> files, dirs;  // by parent
        std::vector<std::string> all_dirs = {""};
        EventList2 tree;
        for (int i = 0; i < 200; ++i) {
            const std::string parent = all_dirs[rng() % all_dirs.size()];
            const std::string path = parent + "/n" + std::to_string(i);
            const bool is_dir = rng() % 3 == 0;
            (is_dir ? dirs : files)[parent].push_back(path);
            if (is_dir) all_dirs.push_back(path);
            ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, path, is_dir ? DIR_NODE : FILE_NODE)), 0);
        }
        std::vector<std::string> expected;
        std::function<void(const std::string&)> walk = [&](const std::string& dir) {
            for (const std::string& f : files[dir]) expected.push_back(f);
            for (const std::string& d : dirs[dir]) {
                expected.push_back("dir " + d);
                walk(d);
            }
        };
        walk("");
        EXPECT_EQ(Drain(tree), expected);
        EXPECT_TRUE(tree.IsEmpty());
    }
}

// Names: a file and a directory of one name are two nodes, case matters, a name too
// long for a node is cut but the event keeps its path, and an unusable path changes
// nothing.
TEST(PopOrder, NamesKeepTheirKindCaseAndLength) {
    EventList2 tree;
    ASSERT_EQ(tree.Push(Local(Event::EV_REMOVE, "/a")), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_CREATE, "/a", DIR_NODE)), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/Readme")), 0);
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, "/README")), 0);
    const std::string long_path = "/" + std::string(2000, 'd') + "/" + std::string(1500, 'f');
    ASSERT_EQ(tree.Push(Local(Event::EV_MODIFY, long_path)), 0);
    for (const std::string& bad :
         {std::string("/dir/"), std::string("/"), std::string(), "/" + std::string(4095, 'x')}) {
        Event old;
        EXPECT_EQ(tree.Push(Local(Event::EV_CREATE, bad), old), -1) << bad.size();
    }
    EXPECT_EQ(tree.Push(Local(Event::EV_EMPTY, "/b")), -1);
    EXPECT_EQ(tree.GetLocalEventCount(), 5);
    EXPECT_EQ(Drain(tree),
              (std::vector<std::string>{"/a", "/Readme", "/README", "dir /a", long_path}));
    EXPECT_TRUE(tree.IsEmpty());
}

}  // namespace
