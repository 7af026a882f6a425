// Removals on one worker with real folders and databases and no server linked (reaching for
// one would give -2): what the rows describe goes to the bin, anything else survives, a
// refusing bin or a missing sync folder leaves all as it was, and a removal selective sync
// hides is only recorded.
#include <sys/stat.h>

#include <filesystem>

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
        WorkerFixture::TearDown();
        FilterDB::getInstance().destroy();
    }
    std::string Bin() const { return Root(1) + "/.ZephanorWorkingDirectory/#ZephRecycle"; }
    // A file (a folder when `bytes` is empty) and the row that agrees with it.
    void Agreed(const std::string& path, const std::string& bytes, uint64_t id) {
        const std::string full = Root(1) + path;
        fs::create_directories(bytes.empty() ? full : fs::path(full).parent_path().string());
        ASSERT_TRUE(bytes.empty() || WriteFile(full, bytes));
        struct stat st {};
        ASSERT_EQ(::stat(full.c_str(), &st), 0);
        ClientFileEventInfo row;
        row.fileType = bytes.empty() ? 1 : 0;
        row.isExist = 1;
        row.syncID = row.maxSyncID = id;
        row.fileSize = bytes.size();
        row.fileModTime = static_cast<uint32_t>(st.st_mtime);
        row.path = path.c_str();
        ASSERT_EQ(dbs[1]->setEventInfo(row), 0);
    }
    // The handler's result for the server's removal at `sync_id`, or with `local` the user's.
    int Remove(const std::string& path, bool is_dir, uint64_t sync_id, bool local = false) {
        const evtest::Kind kind = is_dir ? DIR_NODE : FILE_NODE;
        w.Hold(In(1, local ? evtest::Local(Event::EV_REMOVE, path, kind)
                           : evtest::Server(Event::EV_REMOVE, path, sync_id, kind)));
        const int rc = w.UpdateContext() < 0 ? 1 : local ? w.RemoveRemote() : w.RemoveLocal();
        w.context.clear();
        return rc;
    }
    bool HasRow(const std::string& path) {
        ClientFileEventInfo row;
        return dbs[1]->getEventInfo(path.c_str(), row) == 1;
    }
    size_t BinItems() const { return std::distance(fs::directory_iterator(Bin()), {}); }

    ProbeWorker w;
};

TEST_F(RemovalTest, OnlyWhatTheRowsDescribeGoesToTheBin) {
    Agreed("/f", "kept", 5);
    Agreed("/d/in", "kept", 6);
    Agreed("/m", "kept", 7);
    ASSERT_TRUE(WriteFile(Root(1) + "/m", "edited locally"));
    Agreed("/c/sub/old", "b", 6);
    ASSERT_TRUE(WriteFile(Root(1) + "/c/sub/new", "not on the server yet"));
    Agreed("/n", "newer here", 20);

    ASSERT_EQ(Remove("/f", false, 10), 0);
    ASSERT_EQ(Remove("/d", true, 10), 0);
    EXPECT_FALSE(fs::exists(Root(1) + "/f") || fs::exists(Root(1) + "/d"));
    EXPECT_FALSE(HasRow("/f") || HasRow("/d") || HasRow("/d/in"));
    EXPECT_EQ(BinItems(), 2u);
    std::set<ustring> records;
    ASSERT_EQ(dbs[1]->getRotateList(UINT32_MAX, records), 0);
    EXPECT_EQ(records.size(), 2u);

    // An edit moves aside under a conflict name, and its row goes.
    ASSERT_EQ(Remove("/m", false, 10), 0);
    EXPECT_FALSE(fs::exists(Root(1) + "/m") || HasRow("/m"));
    size_t conflicts = 0;
    for (const auto& entry : fs::directory_iterator(Root(1)))
        if (entry.path().filename().string().rfind("m_", 0) == 0)
            conflicts += ReadFile(entry.path().string()) == "edited locally";
    EXPECT_EQ(conflicts, 1u);
    // A folder holding something new stays; only its members' removals are queued.
    ASSERT_EQ(Remove("/c", true, 10), 0);
    EXPECT_TRUE(fs::exists(Root(1) + "/c/sub/new") && HasRow("/c/sub/old"));
    EXPECT_EQ(EventManager::getInstance().GetPendingServerEvent(1), 1);
    // The server removed an older state than the one here.
    ASSERT_EQ(Remove("/n", false, 10), 0);
    EXPECT_TRUE(fs::exists(Root(1) + "/n") && HasRow("/n"));
    EXPECT_EQ(BinItems(), 2u);
}

TEST_F(RemovalTest, ARefusingBinOrAMissingSyncFolderRemovesNothing) {
    Agreed("/p", "precious", 5);
    fs::remove_all(Bin());
    EXPECT_EQ(Remove("/p", false, 10), ERR_SYS);
    EXPECT_EQ(ReadFile(Root(1) + "/p"), "precious");
    fs::rename(Root(1), Root(1) + ".away");
    EXPECT_EQ(Remove("/p", false, 0, true), 0);
    EXPECT_EQ(Remove("/p", false, 10), ERR_INT);
    EXPECT_TRUE(HasRow("/p"));
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
    Agreed("/sel/a.txt", "on the server", 5);
    Agreed("/known.txt", "on the server", 5);
    fs::remove(Root(1) + "/sel/a.txt");
    fs::remove(Root(1) + "/known.txt");

    EXPECT_EQ(Remove("/sel/a.txt", false, 0, true), 0);
    FilterLocalEvent record;
    ASSERT_EQ(FilterDB::getInstance().getLocalFilteredEventByPath(1, "/sel/a.txt", record), 0);
    EXPECT_EQ(record.filtered_type, FILTER_PATH_PREFIX_SELECTIVE_SYNC);
    EXPECT_EQ(record.is_exist, 0);
    EXPECT_EQ(record.base_name, ustring("a.txt"));
    // A path already known as filtered keeps its record, which now says it is gone here.
    record.path = "/known.txt";
    record.is_exist = 1;
    ASSERT_GE(FilterDB::getInstance().setLocalFilteredEvent(record), 0);
    EXPECT_EQ(Remove("/known.txt", false, 0, true), 0);
    ASSERT_EQ(FilterDB::getInstance().getLocalFilteredEventByPath(1, "/known.txt", record), 0);
    EXPECT_EQ(record.is_exist, 0);
    EXPECT_TRUE(HasRow("/known.txt"));
}

}  // namespace
}  // namespace wtest
