// RemoveLocal (and RemoveRemote where no server is needed) on one worker, with real folders and
// databases and no server: what the rows describe goes to the bin, a local change survives under a
// conflict name, a folder holding one is taken apart instead of moved, and a bin that refuses
// leaves all as it was.
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <set>

#include "filter/black-list-v2.h"
#include "foundation/error-code.h"
#include "state/filter-db.h"
#include "worker-fixture.h"

namespace wtest {
namespace {

namespace fs = std::filesystem;

class RemovalTest : public WorkerFixture {
  protected:
    void SetUp() override {
        WorkerFixture::SetUp();
        ASSERT_EQ(FilterDB::getInstance().initialize((dir / "filter.sqlite").c_str()), 0);
        AddSession(1);
        fs::create_directories(Bin());
    }
    void TearDown() override {
        EventManager::getInstance().Clear();
        WorkerFixture::TearDown();
        FilterDB::getInstance().destroy();
    }
    std::string Bin() const { return Root(1) + "/.ZephanorWorkingDirectory/#ZephRecycle"; }
    // A local object and the row that agrees with it, at sync id `id`.
    void Agreed(const std::string& path, const std::string* bytes, uint64_t id) {
        const std::string full = Root(1) + path;
        if (bytes != nullptr) {
            fs::create_directories(fs::path(full).parent_path());
            ASSERT_TRUE(WriteFile(full, *bytes));
        } else {
            fs::create_directories(full);
        }
        struct stat st {};
        ASSERT_EQ(::stat(full.c_str(), &st), 0);
        ClientFileEventInfo row;
        row.fileType = bytes == nullptr ? 1 : 0;
        row.isExist = 1;
        row.syncID = row.maxSyncID = id;
        row.fileSize = bytes == nullptr ? 0 : bytes->size();
        row.fileModTime = static_cast<uint32_t>(st.st_mtime);
        row.path = path.c_str();
        ASSERT_EQ(dbs[1]->setEventInfo(row), 0);
    }
    // The handler's result for a removal of `path` by the server (or, with `local`, by
    // the user).
    int Remove(const std::string& path, bool is_dir, uint64_t sync_id, bool local = false) {
        const evtest::Kind kind = is_dir ? DIR_NODE : FILE_NODE;
        w.Hold(In(1, local ? evtest::Local(Event::EV_REMOVE, path, kind)
                           : evtest::Server(Event::EV_REMOVE, path, sync_id, kind)));
        if (w.UpdateContext() < 0) return 1;
        const int rc = local ? w.RemoveRemote() : w.RemoveLocal();
        w.context.clear();
        return rc;
    }
    bool HasRow(const std::string& path) {
        ClientFileEventInfo row;
        return dbs[1]->getEventInfo(path.c_str(), row) == 1;
    }
    size_t BinItems() const {
        return static_cast<size_t>(std::distance(fs::directory_iterator(Bin()), {}));
    }

    ProbeWorker w;
};

TEST_F(RemovalTest, TheBinTakesWhatTheRowsDescribeAndAnEditSurvivesUnderAConflictName) {
    const std::string kept = "kept", edited = "edited locally";
    Agreed("/f", &kept, 5);
    Agreed("/d", nullptr, 6);
    Agreed("/d/in", &kept, 6);
    Agreed("/m", &kept, 7);
    ASSERT_TRUE(WriteFile(Root(1) + "/m", edited));

    ASSERT_EQ(Remove("/f", false, 10), 0);
    ASSERT_EQ(Remove("/d", true, 10), 0);
    EXPECT_FALSE(fs::exists(Root(1) + "/f"));
    EXPECT_FALSE(fs::exists(Root(1) + "/d"));
    EXPECT_EQ(BinItems(), 2u);
    EXPECT_FALSE(HasRow("/f") || HasRow("/d") || HasRow("/d/in"));
    std::set<ustring> records;
    ASSERT_EQ(dbs[1]->getRotateList(UINT32_MAX, records), 0);
    EXPECT_EQ(records.size(), 2u);

    // The edit is not the server's to take: it moves aside and its row goes.
    ASSERT_EQ(Remove("/m", false, 10), 0);
    EXPECT_FALSE(fs::exists(Root(1) + "/m"));
    EXPECT_FALSE(HasRow("/m"));
    EXPECT_EQ(BinItems(), 2u);
    size_t conflicts = 0;
    for (const auto& entry : fs::directory_iterator(Root(1))) {
        if (entry.path().filename().string().rfind("m_", 0) != 0) continue;
        ++conflicts;
        EXPECT_EQ(ReadFile(entry.path().string()), edited);
    }
    EXPECT_EQ(conflicts, 1u);
}

TEST_F(RemovalTest, AFolderWithAChangeBelowOrANewerRowIsNotMovedWhole) {
    const std::string bytes = "b";
    Agreed("/d", nullptr, 6);
    Agreed("/d/sub", nullptr, 6);
    Agreed("/d/sub/old", &bytes, 6);
    ASSERT_TRUE(WriteFile(Root(1) + "/d/sub/new", "not on the server yet"));
    // Its members' removals are queued instead, to be judged one by one.
    ASSERT_EQ(Remove("/d", true, 10), 0);
    EXPECT_TRUE(fs::exists(Root(1) + "/d/sub/new"));
    EXPECT_TRUE(HasRow("/d/sub/old"));
    EXPECT_EQ(BinItems(), 0u);
    EXPECT_EQ(EventManager::getInstance().GetPendingServerEvent(1), 1);

    // The server removed an older state than the one here.
    Agreed("/n", &bytes, 20);
    ASSERT_EQ(Remove("/n", false, 10), 0);
    EXPECT_TRUE(fs::exists(Root(1) + "/n") && HasRow("/n"));
}

TEST_F(RemovalTest, ABinThatCannotTakeTheObjectLeavesItAndItsRow) {
    const std::string bytes = "precious";
    Agreed("/p", &bytes, 5);
    fs::remove_all(Bin());
    EXPECT_EQ(Remove("/p", false, 10), ERR_SYS);
    EXPECT_EQ(ReadFile(Root(1) + "/p"), bytes);
    EXPECT_TRUE(HasRow("/p"));
}

TEST_F(RemovalTest, WhatVanishesWithTheWholeFolderIsRemovedOnNeitherSide) {
    const std::string bytes = "on the server";
    Agreed("/k", &bytes, 5);
    fs::rename(Root(1), Root(1) + ".away");
    // No server is linked: an attempt to reach one would give -2.
    EXPECT_EQ(Remove("/k", false, 0, true), 0);
    EXPECT_EQ(Remove("/k", false, 10), ERR_INT);
    EXPECT_TRUE(HasRow("/k"));
    fs::rename(Root(1) + ".away", Root(1));
}

TEST_F(RemovalTest, ARemovalSelectiveSyncHidesIsRecordedAsFilteredAndNotSent) {
    BlackList2 rules;
    BlackList2::InsertFilter(&rules.GetFilter()->Common, FILTER_PATH_PREFIX_SELECTIVE_SYNC,
                             ustring("/sel"));
    rules.ReturnFilter();
    Registry::Entry entry;
    ASSERT_EQ(Registry::getInstance().Find(1, entry), 1);
    entry.black_list = &rules;
    Registry::getInstance().Set(entry);
    const std::string bytes = "kept on the server";
    Agreed("/sel/a.txt", &bytes, 5);
    Agreed("/other.txt", &bytes, 5);
    fs::remove(Root(1) + "/sel/a.txt");
    fs::remove(Root(1) + "/other.txt");

    // No server is linked: an attempt to reach one would give -2.
    EXPECT_EQ(Remove("/sel/a.txt", false, 0, true), 0);
    FilterLocalEvent record;
    ASSERT_EQ(FilterDB::getInstance().getLocalFilteredEventByPath(1, "/sel/a.txt", record), 0);
    ASSERT_EQ(record.path, ustring("/sel/a.txt"));
    EXPECT_EQ(record.filtered_type, FILTER_PATH_PREFIX_SELECTIVE_SYNC);
    EXPECT_EQ(record.is_exist, 0);
    EXPECT_EQ(record.base_name, ustring("a.txt"));

    // A path known as filtered keeps its record, now saying the file is gone here.
    record.path = "/other.txt";
    record.is_exist = 1;
    ASSERT_GE(FilterDB::getInstance().setLocalFilteredEvent(record), 0);
    EXPECT_EQ(Remove("/other.txt", false, 0, true), 0);
    record = FilterLocalEvent();
    ASSERT_EQ(FilterDB::getInstance().getLocalFilteredEventByPath(1, "/other.txt", record), 0);
    EXPECT_EQ(record.filtered_type, 0);
    EXPECT_EQ(record.is_exist, 0);
    EXPECT_TRUE(HasRow("/other.txt"));
}

}  // namespace
}  // namespace wtest
