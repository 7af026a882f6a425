// Folders that already hold something when they are paired with the view, and changes
// made while the daemon was down, against the real daemon and server: what the comparison
// of the disk with the database sends, fetches, merges and keeps, and a long comparison
// that a pause interrupts.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "harness/counting-relay.h"
#include "harness/sync-world.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;

// Session 1 prepared but not yet added, its connection through a counting relay.
class Join : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(world.ok());
        PObject reply = world.daemon().Ask("link");
        ASSERT_FALSE(reply.hasMember("error"));
        PObject request = world.ConnectionRequest();
        request["server_port"] = static_cast<uint64_t>(relay.port());
        ASSERT_TRUE(world.daemon().Ask(request, reply));
        ASSERT_FALSE(reply.hasMember("error")) << reply.toString().c_str_utf8();
        world.PrepareSession(1);
    }
    void Start(const std::string& blacklist = std::string()) {
        ASSERT_FALSE(world.AddSession(1, blacklist).hasMember("error"));
        ASSERT_FALSE(world.Resume(1).hasMember("error"));
    }
    bool Synced(double seconds = 60) {
        const bool same = WaitUntil([&] { return world.CompareTrees(1).empty(); }, seconds);
        if (!same) ADD_FAILURE() << world.CompareTrees(1) << world.daemon().Log();
        return same;
    }
    std::string Local(const std::string& path) const { return world.Folder(1) + path; }
    bool Logged(const std::string& text) {
        return world.daemon().Log().find(text) != std::string::npos;
    }

    SyncWorld world;
    CountingRelay relay{world.server().port()};
};

TEST_F(Join, BothSidesEndWithTheUnionAndEqualFilesCrossNeitherWay) {
    // Above the size from which uploads first ask whether the server holds the content,
    // and below it, where only the server's own listing can tell the copies are equal.
    const std::string big = RandomBytes(600000, 3);
    const std::string small = RandomBytes(300000, 4);
    ServerProcess& server = world.server();
    for (const char* dir : {"/shared", "/shared/deep", "/ldir", "/lempty"})
        ASSERT_TRUE(world.MkdirLocal(1, dir));
    for (const char* dir : {"/shared", "/shared/deep", "/sdir", "/sempty"})
        ASSERT_TRUE(server.Mkdir(dir));
    for (const auto& [path, bytes] : {std::pair<std::string, std::string>{"/same.txt", "same"},
                                      {"/shared/deep/same.bin", big},
                                      {"/shared/small.bin", small}}) {
        ASSERT_TRUE(world.WriteLocal(1, path, bytes));
        ASSERT_TRUE(server.Put(path, bytes));
    }
    ASSERT_TRUE(world.WriteLocal(1, "/local.txt", "local"));
    ASSERT_TRUE(world.WriteLocal(1, "/ldir/inner.txt", "local inner"));
    ASSERT_TRUE(server.Put("/server.txt", "server"));
    ASSERT_TRUE(server.Put("/sdir/inner.txt", "server inner"));
    ASSERT_TRUE(world.WriteLocal(1, "/differ.txt", "mine"));
    ASSERT_TRUE(server.Put("/differ.txt", "theirs, longer"));

    Start();
    ASSERT_TRUE(Synced());
    EXPECT_TRUE(fs::is_directory(Local("/sempty")));
    EXPECT_TRUE(server.Payloads("/same.txt").empty());
    EXPECT_TRUE(server.Payloads("/shared/deep/same.bin").empty());
    EXPECT_LT(relay.Sent(), small.size() / 2);
    // Both versions of the file that differs stay, one under a conflict name.
    std::multiset<std::string> versions;
    for (const auto& entry : fs::directory_iterator(world.Folder(1))) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("differ", 0) == 0) versions.insert(ReadFile(entry.path().string()));
    }
    EXPECT_EQ(versions, (std::multiset<std::string>{"mine", "theirs, longer"}));
}

TEST_F(Join, ChangesMadeWhileTheDaemonWasDownAreFoundOnBothSides) {
    Start();
    for (const char* path :
         {"/edit-local.txt", "/edit-server.txt", "/gone-local.txt", "/gone-server.txt"})
        ASSERT_TRUE(world.WriteLocal(1, path, "v1"));
    ASSERT_TRUE(world.MkdirLocal(1, "/folder"));
    ASSERT_TRUE(world.WriteLocal(1, "/folder/a.txt", "a"));
    ASSERT_TRUE(world.MkdirLocal(1, "/old-name"));
    ASSERT_TRUE(world.WriteLocal(1, "/old-name/moved.txt", "moved"));
    ASSERT_TRUE(Synced());
    // The eight changes that went up have come back in a pull: the session knows where the
    // server stands before it goes down.
    ASSERT_TRUE(WaitUntil([&] { return world.StoredSyncId(1) >= 8; }, 30));

    ASSERT_TRUE(world.Restart(false, [&] {
        world.WriteLocal(1, "/edit-local.txt", "v2, edited here");
        world.WriteLocal(1, "/folder/b.txt", "b");
        world.MkdirLocal(1, "/new-dir");
        world.WriteLocal(1, "/new-dir/c.txt", "c");
        world.RemoveLocal(1, "/gone-local.txt");
        world.MoveLocal(1, "/old-name", "/new-name");
        world.server().Put("/edit-server.txt", "v2, edited there");
        world.server().Put("/folder/d.txt", "d");
        world.server().Rm("/gone-server.txt");
    }));
    ASSERT_TRUE(Synced());
    EXPECT_EQ(ReadFile(Local("/edit-server.txt")), "v2, edited there");
    EXPECT_EQ(ReadFile(Local("/edit-local.txt")), "v2, edited here");
    EXPECT_EQ(ReadFile(Local("/folder/d.txt")), "d");
    // The database remembered both removed files: neither came back, and the one the
    // server removed is in the bin.
    EXPECT_FALSE(fs::exists(Local("/gone-local.txt")));
    EXPECT_FALSE(fs::exists(Local("/gone-server.txt")));
    EXPECT_EQ(ReadFile(Local("/new-name/moved.txt")), "moved");
    std::set<std::string> binned;
    for (const auto& entry :
         fs::recursive_directory_iterator(Local("/.ZephanorWorkingDirectory/#ZephRecycle")))
        if (entry.is_regular_file()) binned.insert(ReadFile(entry.path().string()));
    EXPECT_EQ(binned.count("v1"), 1u);
}

TEST_F(Join, AServerRemovalIsSeenWhenNoPullWasWholeBeforeTheStop) {
    Start();
    ASSERT_TRUE(world.WriteLocal(1, "/kept.txt", "kept"));
    ASSERT_TRUE(world.WriteLocal(1, "/gone.txt", "gone"));
    ASSERT_TRUE(Synced());
    // The rows are there but not the mark: the next pull from 0 lists only what lives.
    bool forgot = false;
    ASSERT_TRUE(world.Restart(false, [&] {
        forgot = world.ForgetSyncId(1);
        world.server().Rm("/gone.txt");
    }));
    ASSERT_TRUE(forgot);
    ASSERT_TRUE(Synced());
    EXPECT_FALSE(fs::exists(Local("/gone.txt")));
    EXPECT_EQ(ReadFile(Local("/kept.txt")), "kept");
}

TEST_F(Join, APauseStopsALongComparisonAndResumeRunsItWhole) {
    // Many names the filter keeps back make a long comparison that sends nothing; the
    // sentinel comes last in the comparison's order.
    constexpr int kFiles = 2000;
    for (int d = 0; d < 20; ++d) {
        const std::string dir = "/bulk" + std::to_string(d);
        ASSERT_TRUE(world.MkdirLocal(1, dir));
        for (int f = 0; f < kFiles / 20; ++f)
            ASSERT_TRUE(world.WriteLocal(1, dir + "/" + std::to_string(f) + ".skip", ""));
    }
    ASSERT_TRUE(world.WriteLocal(1, "/0-sentinel.txt", "last"));
    Start("[Version]\nmajor = 1\nminor = 0\n\n[File]\nblack_ext = \"skip\"\n");
    auto told = [&] {
        return world.notifications().Count(
            [](const PObject& n) { return n["notify"].asString() == ustring("syncing_file"); });
    };
    ASSERT_TRUE(WaitUntil([&] { return told() > 100; }));
    ASSERT_FALSE(world.Pause(1).hasMember("error"));
    EXPECT_TRUE(WaitUntil([&] { return Logged("interrupted while rescaning '/'"); }, 5))
        << world.daemon().Log();
    EXPECT_LT(told(), size_t{kFiles});

    ASSERT_FALSE(world.Resume(1).hasMember("error"));
    EXPECT_TRUE(WaitUntil(
        [&] {
            Tree server;
            return world.server().Listing(server) && server.count("/0-sentinel.txt") == 1;
        },
        60));
}

}  // namespace
