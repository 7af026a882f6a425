// The file status table: what other processes read to badge files in progress.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "foundation/log.h"
#include "peek.h"
#include "state/file-status-db.h"
#include "support/files.h"
#include "support/process.h"
#include "support/temp-dir.h"

namespace {

class FileStatus : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(FileStatusDB::initialize(db()), 0); }
    void TearDown() override { FileStatusDB::destroy(); }

    std::string db() const { return dir / "fstat.sqlite"; }

    static void Set(const std::string& path, int status = SFS_SYNCING, int type = SFT_FILE) {
        FileStatusInfo info;
        info.path = path.c_str();
        info.fileType = type;
        info.syncStatus = status;
        ASSERT_EQ(FileStatusDB::setFileSyncStat(info), 0) << path;
    }

    // One page of the rows directly below `dir`, sorted.
    static std::vector<std::string> Children(const char* dir, int offset, int limit) {
        int count = -1;
        auto rows = FileStatusDB::getFileSyncStats(dir, offset, limit, count);
        EXPECT_EQ(rows == nullptr, count == 0);
        std::vector<std::string> out;
        for (int i = 0; i < count; ++i) out.push_back(rows[i].path.str());
        std::sort(out.begin(), out.end());
        return out;
    }

    TempDir dir;
};

using PathList = std::vector<std::string>;

TEST_F(FileStatus, SetReplacesTheRowWithANewId) {
    Set("/home/u/sync/a.txt");
    const auto first = Rows(db(), "SELECT id FROM fstatinfo");
    Set("/home/u/sync/a.txt", SFS_SYNCED_PENDING, SFT_DIR);
    const auto second = Rows(db(), "SELECT id FROM fstatinfo");
    ASSERT_EQ(second.size(), 1u);
    EXPECT_NE(first, second);

    FileStatusInfo info;
    ASSERT_EQ(FileStatusDB::getFileSyncStat("/home/u/sync/a.txt", &info), 1);
    EXPECT_EQ(info.syncStatus, SFS_SYNCED_PENDING);
    EXPECT_EQ(info.fileType, SFT_DIR);
    EXPECT_EQ(info.path, ustring("/home/u/sync/a.txt"));
    EXPECT_EQ(FileStatusDB::getFileSyncStat("/home/u/sync/b.txt", &info), 0);
    EXPECT_EQ(FileStatusDB::getFileSyncStat("/home/u/sync/a.txt", nullptr), -1);
    // Every operation opens anew and rebuilds the log's index from the whole log, so the
    // log must not outlive the operation that wrote it.
    EXPECT_FALSE(Exists(db() + "-wal"));
}

// Each awkward name has a decoy that its text would match as a LIKE or GLOB pattern (or
// without regard to case); every statement must find the name and leave the decoy.
TEST_F(FileStatus, UserPathsMatchOnlyThemselves) {
    const PathList names = {"/s/it's", "/s/50%",          "/s/a_b",  "/s/back\\slash",
                            "/s/Q",    "/s/Ünïcödé 文件", "/s/[x]*?"};
    const PathList decoys = {"/s/50xyz", "/s/aXb", "/s/a_bc", "/s/backslash",
                             "/s/q",     "/s/Qc",  "/s/xab"};
    PathList left;
    for (auto& decoy : decoys) {
        Set(decoy);
        Set(decoy + "/child");
        left.insert(left.end(), {decoy, decoy + "/child"});
    }
    for (auto& name : names) {
        Set(name, SFS_SYNCING, SFT_DIR);
        Set(name + "/child");
    }
    for (auto& name : names) {
        SCOPED_TRACE(name);
        FileStatusInfo info;
        ASSERT_EQ(FileStatusDB::getFileSyncStat(name.c_str(), &info), 1);
        EXPECT_EQ(info.path.str(), name);
        EXPECT_EQ(info.fileType, SFT_DIR);
        EXPECT_TRUE(FileStatusDB::isAnySubFileDirSyncing(name.c_str()));
        EXPECT_EQ(Children(name.c_str(), 0, 10), PathList{name + "/child"});
        Set(name + "/child", SFS_SYNCED_PENDING);  // only syncing rows count
        EXPECT_FALSE(FileStatusDB::isAnySubFileDirSyncing(name.c_str()));
    }
    EXPECT_FALSE(FileStatusDB::isAnySubFileDirSyncing(""));
    ASSERT_EQ(FileStatusDB::rmFileStatByPath("/s/a_b"), 0);  // that row alone
    FileStatusInfo info;
    EXPECT_EQ(FileStatusDB::getFileSyncStat("/s/a_b", &info), 0);
    EXPECT_EQ(FileStatusDB::getFileSyncStat("/s/a_b/child", &info), 1);
    for (auto& name : names) {
        info.path = name.c_str();
        ASSERT_EQ(FileStatusDB::rmFileSyncStat(info), 0) << name;
    }
    std::sort(left.begin(), left.end());
    EXPECT_EQ(Rows(db(), "SELECT path FROM fstatinfo ORDER BY path"), left);
}

TEST_F(FileStatus, ListingGivesDirectChildrenPageByPage) {
    for (const char* p : {"/v/a", "/v/b", "/v/c", "/v/c/inner", "/v/c/inner/x", "/vw/other", "/v"})
        Set(p);
    EXPECT_EQ(Children("/v", 0, 10), (PathList{"/v/a", "/v/b", "/v/c"}));
    EXPECT_EQ(Children("/v", 2, 10).size(), 1u);
    EXPECT_EQ(Children("/v", 0, 2).size(), 2u);
    EXPECT_TRUE(Children("/v", 3, 10).empty());
}

TEST_F(FileStatus, BulkOperations) {
    Set("/m/one");
    Set("/m/two");
    Set("/m/three", 5);
    ASSERT_EQ(FileStatusDB::updateAllSyncingEntry(), 0);
    EXPECT_EQ(Rows(db(), "SELECT syncStatus FROM fstatinfo ORDER BY path"),
              (PathList{"1", "5", "1"}));
    ASSERT_EQ(FileStatusDB::removeAllEntry(), 0);
    EXPECT_TRUE(Rows(db(), "SELECT path FROM fstatinfo").empty());
}

TEST(FileStatusDamage, AFileThatIsNoDatabaseIsKeptAsideAndReplaced) {
    TempDir dir;
    const std::string path = dir / "fstat.sqlite", log = dir / "daemon.log", junk(8192, 'J');
    dir.write("fstat.sqlite", junk);
    ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, log.c_str(), "", 50), 0);
    EXPECT_EQ(FileStatusDB::initialize(path.c_str()), 0);
    Logger::Destroy();

    FileStatusInfo info;
    info.path = "/ok";
    EXPECT_EQ(FileStatusDB::setFileSyncStat(info), 0);
    FileStatusDB::destroy();
    EXPECT_EQ(FileStatusDB::setFileSyncStat(info), -1);  // forgotten until the next initialize
    EXPECT_EQ(FileStatusDB::initialize(""), -1);

    const std::string text = ReadFile(log);
    EXPECT_NE(text.find("'" + path + "' is not a usable database"), std::string::npos) << text;
    const size_t kept = text.find("kept as '");
    ASSERT_NE(kept, std::string::npos);
    const std::string aside = text.substr(kept + 9, text.find('\'', kept + 9) - kept - 9);
    EXPECT_EQ(ReadFile(aside), junk);
}

// Another process (the sqlite3 shell, without any busy timeout) reads the table the
// whole time we write, remove and compact it.
TEST_F(FileStatus, AnotherProcessReadsWhileWeWrite) {
    const int kQueries = 2000;
    const std::string command = "yes 'SELECT count(*) FROM fstatinfo;' | head -n " +
                                std::to_string(kQueries) + " | sqlite3 -bail '" + db() + "'";
    ChildProcess reader({"/bin/sh", "-c", command}, {{}, dir / "reader.out", dir / "reader.err"});

    // The writer starts once the reader is connected: its own first open can meet ours
    // setting up the shared index, which only a busy timeout on its side would absorb.
    ASSERT_TRUE(reader.WaitForOutput("\n")) << reader.Err();
    std::atomic<bool> reader_done{false};
    std::thread writer([&] {
        for (int i = 0; !reader_done.load() || i < 60; ++i) {
            FileStatusInfo info;
            info.path = ("/w/file" + std::to_string(i % 40)).c_str();
            info.syncStatus = SFS_SYNCING;
            ASSERT_EQ(FileStatusDB::setFileSyncStat(info), 0);
            if (i % 3 == 0) {
                ASSERT_EQ(FileStatusDB::rmFileStatByPath(info.path), 0);
            }
            if (i % 50 == 49) {
                ASSERT_EQ(FileStatusDB::removeAllEntry(), 0);
            }
        }
    });
    const int status = reader.Wait(60);
    reader_done = true;
    writer.join();
    EXPECT_EQ(status, 0) << reader.Err();
    EXPECT_EQ(Lines(reader.Out()).size(), static_cast<size_t>(kQueries));
}

}  // namespace
