// The daemon killed with SIGKILL again and again while files go up, come down and are removed, and
// started again on the same configuration each time: after every kill no file stands under
// its final name with anything but a whole version, the session's database passes SQLite's
// own check, and at the end both sides agree and the last version of every file is there. Then the
// server killed in the middle of an upload.
#include <sqlite3.h>

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "harness/sync-world.h"
#include "support/files.h"

namespace {

// "ok" when the database at `path` passes its integrity check; else what it says.
std::string IntegrityOf(const std::string& path) {
    sqlite3* db = nullptr;
    std::string result = "cannot open";
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_busy_timeout(db, 5000);
        sqlite3_stmt* query = nullptr;
        if (sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &query, nullptr) == SQLITE_OK &&
            sqlite3_step(query) == SQLITE_ROW)
            result = reinterpret_cast<const char*>(sqlite3_column_text(query, 0));
        sqlite3_finalize(query);
    }
    sqlite3_close(db);
    return result;
}

class Crash : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(world.ok());
        ASSERT_TRUE(world.Connect().isNull());
        ASSERT_FALSE(world.AddSession(1).hasMember("error"));
        ASSERT_FALSE(world.Resume(1).hasMember("error"));
    }
    SyncWorld world;
    // Every version any file was ever given, by MD4, and the last one of each name.
    std::set<std::string> versions;
    std::map<std::string, std::string> last;
};

TEST_F(Crash, KillsDuringUploadsDownloadsAndRemovalsLoseNothing) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    for (int round = 0; round < 20; ++round) {
        const std::string up = "/u" + std::to_string(rng() % 3);
        const std::string down = "/d" + std::to_string(rng() % 3);
        const std::string up_bytes = RandomBytes((1 << 20) + rng() % (3 << 20), rng());
        const std::string down_bytes = RandomBytes((1 << 20) + rng() % (3 << 20), rng());
        for (const auto& [name, bytes] : {std::pair{up, up_bytes}, std::pair{down, down_bytes}}) {
            versions.insert(Md4OfBytes(bytes));
            last[name] = bytes;
        }
        ASSERT_TRUE(world.WriteLocal(1, up, up_bytes));
        ASSERT_TRUE(world.server().Put(down, down_bytes));
        // A name of each side removed in a round out of three, while the rest moves.
        const std::string gone_up = "/u" + std::to_string(rng() % 3);
        const std::string gone_down = "/d" + std::to_string(rng() % 3);
        if (rng() % 3 == 0 && gone_up != up && world.RemoveLocal(1, gone_up)) last.erase(gone_up);
        if (rng() % 3 == 0 && gone_down != down && world.server().Rm(gone_down))
            last.erase(gone_down);
        // The kill lands anywhere from before the first byte moves to after the commit.
        std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 600));
        world.daemon().Kill();

        for (const auto& [path, entry] : LocalTree(world.Folder(1)))
            if (!entry.is_dir) {
                EXPECT_EQ(versions.count(entry.md4), 1u) << "partial local file " << path;
            }
        Tree server;
        ASSERT_TRUE(world.server().Listing(server));
        for (const auto& [path, entry] : server) {
            EXPECT_EQ(versions.count(entry.md4), 1u) << "partial server file " << path;
        }
        EXPECT_EQ(IntegrityOf(world.ConfigFolder(1) + "/db/event-db.sqlite"), "ok");
        ASSERT_TRUE(world.Restart());
    }
    ASSERT_TRUE(WaitUntil([&] { return world.CompareTrees(1).empty(); }, 120))
        << world.CompareTrees(1) << world.daemon().Log();
    // A kill between the server's commit of an upload and the daemon's own leaves a server
    // version the daemon cannot tell from someone else's; the later local one is then kept
    // under a conflict name. Either way the last version of every name is there.
    std::set<std::string> present;
    for (const auto& [path, entry] : LocalTree(world.Folder(1))) present.insert(entry.md4);
    for (const auto& [name, bytes] : last) {
        EXPECT_EQ(present.count(Md4OfBytes(bytes)), 1u) << name;
    }
}

// The server killed while a file body is on its way up, and started again on its data:
// the upload starts over or goes on, and the server ends with the whole file.
TEST_F(Crash, AServerKilledMidUploadEndsWithTheWholeFile) {
    const std::string bytes = RandomBytes(48 << 20, 21);
    ASSERT_TRUE(world.WriteLocal(1, "/large.bin", bytes));
    ASSERT_TRUE(WaitUntil([&] {
        const PObject status = world.daemon().Ask("get_status");
        return status["worker_list"].isArray() &&
               status["worker_list"][0]["progress"].asUInt64() > 0;
    }));
    ASSERT_TRUE(world.server().Restart());
    ASSERT_TRUE(WaitUntil([&] { return world.CompareTrees(1).empty(); }, 120))
        << world.CompareTrees(1) << world.daemon().Log();
    Tree server;
    ASSERT_TRUE(world.server().Listing(server));
    EXPECT_EQ(server["/large.bin"].md4, Md4OfBytes(bytes));
}

}  // namespace
