// The recycle bin rotation on real folders and databases with a hand-driven clock: items go
// at 1800 seconds and not before, a directory goes with the records below it, the bin and
// its table agree afterwards, a damaged record removes nothing outside the bin, nothing is
// touched while nothing is due, a session start empties both; and the task itself, one
// session a second, stopping at once.
#include "runtime/recycle-cleaner.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "platform/clock.h"
#include "runtime/session-folders.h"
#include "state/file-event-db.h"
#include "state/peek.h"
#include "support/eventually.h"
#include "support/temp-dir.h"
#include "support/watched-clock.h"

namespace {

using Names = std::set<std::string>;

class RecycleRotation : public ::testing::Test {
  protected:
    void TearDown() override {
        for (auto& [id, db] : dbs) Registry::getInstance().Remove(id);
    }

    void AddSession(uint64_t id) {
        const std::string root = Root(id);
        ::mkdir(root.c_str(), 0700);
        ASSERT_EQ(session_folders::ResetWorkingDirectory(root.c_str()), 0);
        auto& db = dbs[id];
        db = std::make_unique<FileEventDB>();
        ASSERT_EQ(db->initialize(Db(id).c_str()), 0);
        Registry::Entry entry;
        entry.sess_id = id;
        entry.local_path = root.c_str();
        entry.event_db = db.get();
        Registry::getInstance().Set(entry);
    }
    std::string Root(uint64_t id) const { return dir / ("root" + std::to_string(id)); }
    std::string Db(uint64_t id) const { return dir / ("db" + std::to_string(id) + ".sqlite"); }
    std::string Bin(uint64_t id) const {
        return session_folders::RecycleBinDir(Root(id).c_str()).str();
    }
    // Puts `name` (a file, or a directory with one file in it) into the bin now, as a
    // removal on the server's behalf does.
    void Recycle(uint64_t id, const std::string& name, bool directory = false) {
        const std::string path = Bin(id) + "/" + name;
        if (directory) {
            ::mkdir(path.c_str(), 0700);
            WriteFile(path + "/inner", "x");
            ASSERT_EQ(dbs[id]->addFileToRecycleBin(("/" + name + "/inner").c_str(), 1, "h", ""), 0);
        } else {
            WriteFile(path, "x");
        }
        ASSERT_EQ(dbs[id]->addFileToRecycleBin(("/" + name).c_str(), 1, "h", ""), 0);
        Registry::getInstance().InitRecycleTime(Session(id), static_cast<uint32_t>(clock.Now()));
    }
    Names InBin(uint64_t id) const {
        Names names;
        for (const auto& item : std::filesystem::directory_iterator(Bin(id)))
            names.insert(item.path().filename().string());
        return names;
    }
    Names Records(uint64_t id) const {
        const auto rows = Rows(Db(id), "SELECT path FROM recycle_bin_table;");
        return Names(rows.begin(), rows.end());
    }
    static Registry::Entry Session(uint64_t id) {
        Registry::Entry entry;
        Registry::getInstance().Find(id, entry);
        return entry;
    }
    uint32_t RecycleTime(uint64_t id) { return Session(id).recycle_time; }
    // One rotation of session `id` by a cleaner of the test's own.
    int RotateNow(uint64_t id) {
        RecycleCleaner cleaner;
        while (cleaner.GetContext().entry.sess_id != id) {
            if (cleaner.UpdateContext() < 0) return -100;
        }
        return cleaner.Rotate();
    }

    TempDir dir;
    WatchedClock clock;
    platform::ScopedClock use{clock};
    std::map<uint64_t, std::unique_ptr<FileEventDB>> dbs;
};

TEST_F(RecycleRotation, ItemsGoAtTheirAgeAndTheBinAndItsTableAgree) {
    AddSession(1);
    const uint32_t t0 = static_cast<uint32_t>(clock.Now());
    Recycle(1, "old.txt");
    Recycle(1, "olddir", true);
    Recycle(1, "..outside-looking");
    ASSERT_TRUE(WriteFile(session_folders::WorkingDirectory(Root(1).c_str()).str() + "/x", "mine"));
    // A damaged record that names the working directory itself.
    ASSERT_EQ(dbs[1]->addFileToRecycleBin("/..", 4, "h", ""), 0);
    clock.Advance(600 * 1000);
    Recycle(1, "new.txt");
    ASSERT_EQ(RecycleTime(1), t0);

    clock.Advance(1199 * 1000);  // the oldest are 1799 seconds old
    EXPECT_EQ(RotateNow(1), 0);
    EXPECT_EQ(InBin(1), (Names{"old.txt", "olddir", "..outside-looking", "new.txt"}));
    EXPECT_EQ(Records(1).size(), 6u);

    clock.Advance(1000);
    EXPECT_EQ(RotateNow(1), 0);
    EXPECT_EQ(InBin(1), Names{"new.txt"});
    EXPECT_EQ(Records(1), Names{"/new.txt"});
    EXPECT_EQ(RecycleTime(1), t0 + 600);
    EXPECT_EQ(ReadFile(session_folders::WorkingDirectory(Root(1).c_str()).str() + "/x"), "mine");

    clock.Advance(600 * 1000);
    EXPECT_EQ(RotateNow(1), 0);
    EXPECT_EQ(InBin(1), Names{});
    EXPECT_EQ(Records(1), Names{});
    EXPECT_EQ(RecycleTime(1), 0u);

    // While recycle_time says nothing is due, even an old item stays.
    Recycle(1, "kept", true);
    Registry::getInstance().UpdateRecycleTime(Session(1), 0);
    clock.Advance(7200 * 1000);
    EXPECT_EQ(RotateNow(1), 0);
    EXPECT_EQ(InBin(1), Names{"kept"});
    // A session's start empties the bin and its table together.
    ASSERT_EQ(session_folders::ResetWorkingDirectory(Root(1).c_str()), 0);
    ASSERT_EQ(dbs[1]->resetRecycleBin(), 0);
    EXPECT_EQ(InBin(1), Names{});
    EXPECT_EQ(Records(1), Names{});
}

TEST_F(RecycleRotation, TheTaskTakesOneSessionASecondAndStopsAtOnce) {
    AddSession(1);
    AddSession(2);
    Recycle(1, "a");
    Recycle(2, "b");
    clock.Advance(1800 * 1000);
    RecycleCleaner cleaner;
    ASSERT_EQ(cleaner.Run(), 0);
    ASSERT_TRUE(Eventually([&] { return InBin(1).empty(); }));
    // The task now waits a second of the clock, which only the test moves.
    ASSERT_TRUE(clock.WaitUntilSleeping());
    EXPECT_EQ(InBin(2), Names{"b"});
    clock.Advance(1000);
    // The bin empties before the session's record says so.
    EXPECT_TRUE(Eventually([&] { return InBin(2).empty() && RecycleTime(2) == 0; }));
    // Past the last session: a three-second wait, which Stop must end.
    cleaner.Stop();
    EXPECT_EQ(cleaner.Join(), 0);
    EXPECT_TRUE(cleaner.IsAborted());
}

}  // namespace
