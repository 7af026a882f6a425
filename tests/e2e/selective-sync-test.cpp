// Selective sync against the real daemon and server: rules added hide what they name from
// then on (a hidden folder leaves the disk, but never a file changed since the last
// agreement, and never anything on the server); rules dropped bring back exactly what they
// hid, the local changes they held back included; reloads of running sessions are
// refused; a restart finishes what a dropped rule still had to fetch.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "harness/sync-world.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;

const std::string kNoRules = "[Version]\nmajor = 1\nminor = 0\n";
const std::string kNarrow = kNoRules +
                            "[Common]\nblack_path_prefix_selective_sync = \"/photos\"\n"
                            "[File]\nblack_ext_selective_sync = \"iso\"\n"
                            "max_size_selective_sync = 1000\n";

// A running session in step with a server that holds a bit of everything the rules name.
class SelectiveSync : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(world.ok());
        ASSERT_TRUE(world.Connect().isNull());
        ASSERT_EQ(world.AddSession(1)["error"].asString(), ustring());
        ASSERT_EQ(world.Resume(1)["error"].asString(), ustring());
        for (const char* path :
             {"/docs/a.txt", "/docs/b.iso", "/photos/p1.jpg", "/photos/sub/p2.jpg"})
            ASSERT_TRUE(world.server().Put(path, path));
        ASSERT_TRUE(world.server().Put("/big.bin", std::string(3000, 'b')));
        ASSERT_TRUE(Synced()) << world.CompareTrees(1);
    }
    // Pause, new rules, reload, and "resume" unless told not to; the reload's error.
    std::string Refilter(const std::string& rules, bool resume = true) {
        world.Pause(1);
        WriteFile(world.ConfigFolder(1) + "/conf/blacklist.filter", rules);
        const std::string error = world.daemon().Ask("reload_session", 1)["error"].asString().str();
        if (resume) world.Resume(1);
        return error;
    }
    std::string Local(const std::string& path) { return world.Folder(1) + path; }
    bool Synced(double seconds = 30) {
        return WaitUntil([&] { return world.CompareTrees(1).empty(); }, seconds);
    }
    bool OnServer(const std::string& path) {
        Tree tree;
        return world.server().Listing(tree) && tree.count(path) != 0;
    }
    // A change on each side that passes the rules, to know both directions have moved on.
    bool RoundTrip(const std::string& tag) {
        return world.server().Put("/docs/" + tag + "-down.txt", tag) &&
               world.WriteLocal(1, "/docs/" + tag + "-up.txt", tag) && WaitUntil([&] {
                   return fs::exists(Local("/docs/" + tag + "-down.txt")) &&
                          OnServer("/docs/" + tag + "-up.txt");
               });
    }

    SyncWorld world;
};

TEST_F(SelectiveSync, NarrowingHidesAndWideningBringsBackExactlyWhatWasHidden) {
    // Changed while paused, so the change is not yet agreed with the server when the rule
    // comes: it must stay on disk.
    world.Pause(1);
    ASSERT_TRUE(world.WriteLocal(1, "/photos/p1.jpg", "edited here"));
    ASSERT_EQ(Refilter(kNarrow), "");
    EXPECT_FALSE(fs::exists(Local("/photos/sub")));
    EXPECT_EQ(ReadFile(Local("/photos/p1.jpg")), "edited here");
    EXPECT_TRUE(fs::exists(Local("/docs/b.iso")));  // only a folder rule takes files away

    // While hidden nothing named by a rule moves either way.
    ASSERT_TRUE(world.server().Put("/docs/c.iso", "c"));
    ASSERT_TRUE(world.server().Put("/photos/p3.jpg", "p3"));
    ASSERT_TRUE(world.server().Put("/big2.bin", std::string(2000, 'c')));
    ASSERT_TRUE(world.WriteLocal(1, "/docs/local.iso", "made while hidden"));
    ASSERT_TRUE(RoundTrip("narrowed")) << world.daemon().Log();
    for (const char* path : {"/docs/c.iso", "/photos/p3.jpg", "/big2.bin"})
        EXPECT_FALSE(fs::exists(Local(path))) << path;
    EXPECT_FALSE(OnServer("/docs/local.iso"));
    EXPECT_TRUE(OnServer("/photos/sub/p2.jpg"));  // nothing is removed on the server

    // Dropping every rule brings it all together, the edit made before the rule included,
    // and normal sync goes on afterwards.
    ASSERT_EQ(Refilter(kNoRules), "");
    ASSERT_TRUE(Synced()) << world.CompareTrees(1) << world.daemon().Log();
    EXPECT_EQ(ReadFile(Local("/photos/p1.jpg")), "edited here");
    EXPECT_TRUE(RoundTrip("widened"));
    EXPECT_TRUE(Synced()) << world.CompareTrees(1);
}

TEST_F(SelectiveSync, ReloadIsRefusedForARunningUnknownOrUnreadableSessionAndChangesNothing) {
    WriteFile(world.ConfigFolder(1) + "/conf/blacklist.filter", kNarrow);
    EXPECT_EQ(world.daemon().Ask("reload_session", 1)["error"].asString().str(),
              "Reload session without puase");
    EXPECT_EQ(world.daemon().Ask("reload_session", 9)["error"].asString().str(),
              "Invalid session.");
    EXPECT_EQ(Refilter("[Version]\nmajor = 1\n[Common]\nno_such_key = 1\n"),
              "Failed to load black list.");
    // Neither the running session's refused reload nor the unreadable file hid anything.
    EXPECT_TRUE(fs::exists(Local("/photos/sub/p2.jpg")));
    ASSERT_TRUE(world.server().Put("/photos/new.iso", "new"));
    EXPECT_TRUE(Synced()) << world.CompareTrees(1);
}

TEST_F(SelectiveSync, ARestartFinishesWhatADroppedRuleStillHadToFetch) {
    ASSERT_EQ(Refilter(kNarrow), "");
    ASSERT_TRUE(world.server().Put("/docs/late.iso", "late"));
    ASSERT_TRUE(world.server().Put("/photos/late.jpg", "late"));
    ASSERT_TRUE(RoundTrip("hidden"));
    // The rules go while the session is paused, so the fetch is still open at the crash.
    ASSERT_EQ(Refilter(kNoRules, false), "");
    ASSERT_TRUE(world.Restart());
    ASSERT_EQ(world.Resume(1)["error"].asString(), ustring());
    EXPECT_TRUE(Synced()) << world.CompareTrees(1) << world.daemon().Log();
}

}  // namespace
