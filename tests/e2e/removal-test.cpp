// Removals both ways against the real daemon and server: what the server removes lands in
// the session's recycle bin with its bytes, what the user removes leaves
// the server, a user's edit outlives the server's removal (a write that changed nothing
// does not), a removal the server refuses
// for a newer version brings that version back, and a sync folder that vanishes whole
// takes nothing from the server.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "harness/sync-world.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;

class Removal : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(world.ok());
        ASSERT_TRUE(world.Connect().isNull());
        ASSERT_EQ(world.AddSession(1)["error"].asString(), ustring());
        ASSERT_EQ(world.Resume(1)["error"].asString(), ustring());
    }
    std::string Local(const std::string& path) const { return world.Folder(1) + path; }
    bool Synced(double seconds = 40) {
        const bool same = WaitUntil([&] { return world.CompareTrees(1).empty(); }, seconds);
        if (!same) ADD_FAILURE() << world.CompareTrees(1) << world.daemon().Log();
        return same;
    }
    bool Logged(const std::string& text) {
        return world.daemon().Log().find(text) != std::string::npos;
    }
    // The contents of every file in the recycle bin, at any depth.
    std::multiset<std::string> BinContents() const {
        std::multiset<std::string> contents;
        const std::string bin = Local("/.ZephanorWorkingDirectory/#ZephRecycle");
        std::error_code ec;
        for (auto it = fs::recursive_directory_iterator(bin, ec);
             !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
            if (it->is_regular_file()) contents.insert(ReadFile(it->path().string()));
        return contents;
    }
    // Whether a file directly in the folder `dir` holds exactly `bytes`.
    bool SomeFileHolds(const std::string& dir, const std::string& bytes) const {
        std::error_code ec;
        for (const auto& entry : fs::directory_iterator(Local(dir), ec))
            if (entry.is_regular_file() && ReadFile(entry.path().string()) == bytes) return true;
        return false;
    }

    SyncWorld world;
};

TEST_F(Removal, ServerRemovalsMoveFilesAndTreesIntoTheBin) {
    ASSERT_TRUE(world.server().Put("/a.txt", "alpha"));
    ASSERT_TRUE(world.server().Put("/d/x", "x bytes"));
    ASSERT_TRUE(world.server().Put("/d/sub/y", "y bytes"));
    ASSERT_TRUE(Synced());

    ASSERT_TRUE(world.server().Rm("/a.txt"));
    ASSERT_TRUE(world.server().Rm("/d"));
    ASSERT_TRUE(WaitUntil([&] { return !fs::exists(Local("/a.txt")) && !fs::exists(Local("/d")); }))
        << world.daemon().Log();
    ASSERT_TRUE(Synced());
    const std::multiset<std::string> bin = BinContents();
    EXPECT_EQ(bin.count("alpha"), 1u);
    EXPECT_EQ(bin.count("x bytes"), 1u);
    EXPECT_EQ(bin.count("y bytes"), 1u);
}

TEST_F(Removal, LocalRemovalsOfAFileAndATreeReachTheServer) {
    ASSERT_TRUE(world.WriteLocal(1, "/f", "f"));
    ASSERT_TRUE(world.MkdirLocal(1, "/t"));
    ASSERT_TRUE(world.MkdirLocal(1, "/t/u"));
    ASSERT_TRUE(world.WriteLocal(1, "/t/u/v", "v"));
    ASSERT_TRUE(world.WriteLocal(1, "/t/w", "w"));
    ASSERT_TRUE(world.WriteLocal(1, "/stays", "s"));
    ASSERT_TRUE(Synced());

    ASSERT_TRUE(world.RemoveLocal(1, "/f"));
    ASSERT_TRUE(world.RemoveLocal(1, "/t"));
    ASSERT_TRUE(Synced());
    Tree server;
    ASSERT_TRUE(world.server().Listing(server));
    EXPECT_EQ(server.size(), 1u);
    EXPECT_EQ(server.count("/stays"), 1u);
    // What the user removed is the user's business: nothing of it is kept in the bin.
    EXPECT_TRUE(BinContents().empty());
}

TEST_F(Removal, AnEditMadeBeforeTheServerRemovedTheFileOrItsFolderSurvives) {
    ASSERT_TRUE(world.server().Put("/e.txt", "base"));
    ASSERT_TRUE(world.server().Put("/g/edited", "base g"));
    ASSERT_TRUE(world.server().Put("/g/untouched", "old g"));
    ASSERT_TRUE(Synced());
    ASSERT_EQ(world.Pause(1)["error"].asString(), ustring());
    ASSERT_TRUE(world.WriteLocal(1, "/e.txt", "my edit"));
    ASSERT_TRUE(world.WriteLocal(1, "/g/edited", "my edit in g"));
    ASSERT_TRUE(world.server().Rm("/e.txt"));
    ASSERT_TRUE(world.server().Rm("/g"));
    ASSERT_EQ(world.Resume(1)["error"].asString(), ustring());

    // Both edits end up on both sides, under their own names or conflict names.
    ASSERT_TRUE(WaitUntil(
        [&] {
            return SomeFileHolds("/", "my edit") && fs::is_directory(Local("/g")) &&
                   SomeFileHolds("/g", "my edit in g") && world.CompareTrees(1).empty();
        },
        60))
        << world.CompareTrees(1) << world.daemon().Log();
    EXPECT_FALSE(fs::exists(Local("/g/untouched")));
    const std::multiset<std::string> bin = BinContents();
    EXPECT_EQ(bin.count("my edit"), 0u);
    EXPECT_EQ(bin.count("my edit in g"), 0u);
    EXPECT_EQ(bin.count("old g"), 1u);
}

// A write that changed nothing (same bytes, same time), like the watcher's echo of a
// download, is still waiting when the server's removal of the file arrives, because the
// one worker is held by a slow upload: the removal must not be lost to it.
TEST(RemovalOneWorker, AWriteThatChangedNothingDoesNotHoldBackTheServersRemoval) {
    SyncWorld world(2);
    ASSERT_TRUE(world.ok());
    ASSERT_TRUE(world.Connect().isNull());
    ASSERT_FALSE(world.AddSession(1).hasMember("error"));
    ASSERT_FALSE(world.Resume(1).hasMember("error"));
    const std::string same = world.Folder(1) + "/same.txt";
    ASSERT_TRUE(world.server().Put("/same.txt", "same"));
    ASSERT_TRUE(WaitUntil([&] { return world.CompareTrees(1).empty(); }));

    world.server().WriteFaults("delay upload 7000 times=1\n");
    ASSERT_TRUE(world.WriteLocal(1, "/first", "held up at the server"));
    const fs::file_time_type when = fs::last_write_time(same);
    ASSERT_TRUE(WriteFile(same, "same"));
    fs::last_write_time(same, when);
    ASSERT_TRUE(world.server().Rm("/same.txt"));
    ASSERT_TRUE(WaitUntil([&] { return !fs::exists(same) && world.CompareTrees(1).empty(); }, 40))
        << world.CompareTrees(1) << world.daemon().Log();
}

TEST_F(Removal, ALocalRemovalRefusedForANewerServerVersionBringsThatVersionBack) {
    ASSERT_TRUE(world.server().Put("/r.txt", "old"));
    ASSERT_TRUE(Synced());
    // Pulls come late, so the removal reaches the server before the client learns of the
    // newer version.
    world.server().WriteFaults("delay pull_event 4000\n");
    ASSERT_TRUE(world.server().Put("/r.txt", "newer on the server"));
    ASSERT_TRUE(world.RemoveLocal(1, "/r.txt"));
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(Local("/r.txt")) == "newer on the server"; }, 60))
        << world.daemon().Log();
    EXPECT_TRUE(Logged("on the server is modified, abort anyway"));
    world.server().WriteFaults("");
    ASSERT_TRUE(Synced());
}

TEST_F(Removal, ASyncFolderDeletedWholeRemovesNothingOnTheServer) {
    ASSERT_TRUE(world.server().Put("/k1", "one"));
    ASSERT_TRUE(world.server().Put("/k2/k3", "three"));
    ASSERT_TRUE(Synced());
    Tree before;
    ASSERT_TRUE(world.server().Listing(before));

    fs::remove_all(world.Folder(1));
    ASSERT_TRUE(WaitUntil([&] { return Logged("is gone (removed, moved or unmounted)"); }));
    // Give the workers the time they would need to send removals: none may come.
    EXPECT_FALSE(WaitUntil(
        [&] {
            Tree now;
            return !world.server().Listing(now) || now != before;
        },
        6));
}

}  // namespace
