// The per-session agreement database: rows, their ancestors and signatures, the sync
// id, listings, the recycle records, commits that fail half-way, crashes and damage.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/log.h"
#include "platform/clock.h"
#include "state/file-event-db.h"
#include "state/file-list.h"
#include "support/fault-fs.h"
#include "support/temp-dir.h"

namespace {

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool Exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

// A file row as the workers commit it.
ClientFileEventInfo FileRow(const std::string& path, uint64_t sync_id, const std::string& sum,
                            const std::string& signature = "") {
    ClientFileEventInfo info;
    info.path = path.c_str();
    info.fileType = 0;
    info.isExist = 1;
    info.syncID = sync_id;
    info.maxSyncID = sync_id;
    info.fileSize = sum.size();
    info.fileModTime = 1600000000;
    info.fileCheckSum = sum.c_str();
    info.updateClient = "client";
    info.signaturePath = signature.c_str();
    return info;
}

// The listing of a FileList, in its own order, as "F path" and "D path" lines.
std::vector<std::string> Listing(const FileList& list) {
    std::vector<std::string> out;
    for (auto it = list.rbegin(); it != list.rend(); ++it) {
        out.push_back(std::string(it->is_dir() ? "D " : "F ") + it->path.str());
    }
    return out;
}

using Lines = std::vector<std::string>;

class EventDb : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(::mkdir((dir / "db").c_str(), 0700), 0);
        ASSERT_EQ(::mkdir(sign().c_str(), 0700), 0);
        ASSERT_EQ(db.initialize(path().c_str()), 0);
    }

    std::string path() const { return dir / "db/event-db.sqlite"; }
    std::string sign() const { return dir / "db/sign"; }

    // A fresh signature file in the sign folder, as a worker leaves it.
    std::string Signature(const std::string& content) {
        std::string file = sign() + "/tmp-" + std::to_string(++m_temps);
        WriteFile(file, content);
        return file;
    }

    ClientFileEventInfo Read(const std::string& p) {
        ClientFileEventInfo info;
        EXPECT_EQ(db.getEventInfo(p.c_str(), info), 1) << p;
        return info;
    }

    // One value of the database, over a connection of our own.
    std::string Query(const std::string& sql) {
        sqlite3* handle = nullptr;
        sqlite3_open(path().c_str(), &handle);
        sqlite3_stmt* stmt = nullptr;
        std::string value = "<none>";
        if (sqlite3_prepare_v2(handle, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK &&
            sqlite3_step(stmt) == SQLITE_ROW && sqlite3_column_text(stmt, 0) != nullptr) {
            value = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
        }
        sqlite3_finalize(stmt);
        sqlite3_close(handle);
        return value;
    }

    TempDir dir;
    FileEventDB db;
    int m_temps = 0;
};

TEST(SignatureNames, FollowTheBytesOfTheRowId) {
    char name[64];
    FileEventDB::path_convert(0x123456, name);
    EXPECT_STREQ(name, "12/34/.56");
    FileEventDB::path_convert(0x56, name);
    EXPECT_STREQ(name, ".56");
    FileEventDB::path_convert(0x10000, name);
    EXPECT_STREQ(name, "01/00/.00");
    FileEventDB::path_convert(0xff00000000000001ull, name);
    EXPECT_STREQ(name, "ff/00/00/00/00/00/00/.01");
}

TEST_F(EventDb, RowReadsBackWithOrWithoutItsSlash) {
    ClientFileEventInfo info = FileRow("/it's/Ünïcödé 文件.txt", 42, "0123abcd");
    info.execBit = 1;
    info.macHash = "mac";
    info.windowsHash = "win";
    info.linuxHash = "lin";
    info.zephHash = "zeph";
    info.filePrivilege = "rw";
    info.baseName = "Ünïcödé 文件.txt";
    ASSERT_EQ(db.setEventInfo(info), 0);

    ClientFileEventInfo got = Read("/it's/Ünïcödé 文件.txt");
    ClientFileEventInfo again = Read("it's/Ünïcödé 文件.txt");
    EXPECT_EQ(got.path, ustring("/it's/Ünïcödé 文件.txt"));
    EXPECT_EQ(again.path, got.path);
    EXPECT_EQ(got.syncID, 42u);
    EXPECT_EQ(got.fileCheckSum, ustring("0123abcd"));
    EXPECT_EQ(got.execBit, 1u);
    EXPECT_EQ(got.macHash, ustring("mac"));
    EXPECT_EQ(got.windowsHash, ustring("win"));
    EXPECT_EQ(got.linuxHash, ustring("lin"));
    EXPECT_EQ(got.zephHash, ustring("zeph"));
    EXPECT_EQ(got.filePrivilege, ustring("rw"));
    EXPECT_EQ(got.baseName, ustring("Ünïcödé 文件.txt"));
    EXPECT_EQ(got.fileModTime, 1600000000u);
    EXPECT_TRUE(got.IsFile());

    FileEventDB::EventInfo found;
    ASSERT_EQ(db.contains("/it's/Ünïcödé 文件.txt", found), 1);
    char name[64];
    FileEventDB::path_convert(found.row_id, name);
    EXPECT_EQ(got.signaturePath.str(), sign() + "/" + name);
    EXPECT_EQ(found.sync_id, 42u);
    EXPECT_EQ(db.contains("/it's", found), 1);
    EXPECT_EQ(db.contains("/nothing", found), 0);

    ClientFileEventInfo none;
    EXPECT_EQ(db.getEventInfo("/nothing", none), 0);
    EXPECT_EQ(db.getEventInfo("/", none), -1);
    EXPECT_EQ(db.getEventInfo("", none), -1);
}

TEST_F(EventDb, MissingAncestorsBecomeDirectoryRows) {
    ASSERT_EQ(db.setEventInfo(FileRow("/a/b/c", 7, "h")), 0);
    for (const char* p : {"/a", "/a/b"}) {
        ClientFileEventInfo dir_row = Read(p);
        EXPECT_TRUE(dir_row.IsDir()) << p;
        EXPECT_EQ(dir_row.isExist, 1);
        EXPECT_EQ(dir_row.execBit, 1u);
        EXPECT_EQ(dir_row.syncID, 7u);
        EXPECT_EQ(dir_row.maxSyncID, 7u);
        EXPECT_TRUE(dir_row.signaturePath.empty());
    }
    ASSERT_EQ(db.setEventInfo(FileRow("/a/x", 9, "h")), 0);
    EXPECT_EQ(Read("/a").maxSyncID, 9u);
    EXPECT_EQ(Read("/a/b").maxSyncID, 7u);
    ASSERT_EQ(db.setEventInfo(FileRow("/a/b/y", 3, "h")), 0);
    EXPECT_EQ(Read("/a").maxSyncID, 9u);  // never lowered
}

TEST_F(EventDb, ARowNeverGoesBackInTimeButStillLiftsItsAncestors) {
    const std::string first = Signature("sig-new");
    ASSERT_EQ(db.setEventInfo(FileRow("/q/f", 10, "new", first)), 0);
    sqlite3* handle = nullptr;
    sqlite3_open(path().c_str(), &handle);
    sqlite3_exec(handle, "UPDATE eventinfo SET maxSyncID = 1 WHERE path = 'q';", nullptr, nullptr,
                 nullptr);
    sqlite3_close(handle);

    const std::string stale = Signature("sig-old");
    EXPECT_EQ(db.setEventInfo(FileRow("/q/f", 5, "old", stale)), 0);
    ClientFileEventInfo row = Read("/q/f");
    EXPECT_EQ(row.syncID, 10u);
    EXPECT_EQ(row.fileCheckSum, ustring("new"));
    EXPECT_EQ(Slurp(row.signaturePath.str()), "sig-new");
    EXPECT_EQ(Slurp(stale), "sig-old");  // not taken: it belongs to no row
    EXPECT_EQ(Read("/q").maxSyncID, 5u);
}

TEST_F(EventDb, NamesDifferingInCaseAreDifferentRows) {
    ASSERT_EQ(db.setEventInfo(FileRow("/Docs/x", 1, "upper")), 0);
    ASSERT_EQ(db.setEventInfo(FileRow("/docs/x", 2, "lower")), 0);
    EXPECT_EQ(Read("/Docs/x").fileCheckSum, ustring("upper"));
    EXPECT_EQ(Read("/docs/x").fileCheckSum, ustring("lower"));
    ClientFileEventInfo none;
    EXPECT_EQ(db.getEventInfo("/DOCS/x", none), 0);

    StringBuffer sb;
    FileList list(sb);
    ASSERT_EQ(db.getFileListWithoutRecursive(&list, "/docs"), 0);
    EXPECT_EQ(Listing(list), (Lines{"F /x"}));

    EXPECT_EQ(db.rmEventInfo("/docs"), 0);
    EXPECT_EQ(db.getEventInfo("/docs/x", none), 0);
    EXPECT_EQ(Read("/Docs/x").fileCheckSum, ustring("upper"));
}

TEST_F(EventDb, RemovalTakesTheSubtreeAndItsSignaturesOnly) {
    const std::vector<std::string> rows = {"/a/b", "/a/b/c", "/ab", "/a b/c", "/a/b/c/d"};
    std::map<std::string, std::string> signatures;
    for (auto& p : rows) {
        ASSERT_EQ(db.setEventInfo(FileRow(p, 1, "s", Signature("sig" + p))), 0);
        signatures[p] = Read(p).signaturePath.str();
        ASSERT_TRUE(Exists(signatures[p])) << p;
    }
    EXPECT_EQ(db.rmEventInfo("/a"), 0);
    ClientFileEventInfo none;
    for (const char* gone : {"/a", "/a/b", "/a/b/c", "/a/b/c/d"}) {
        EXPECT_EQ(db.getEventInfo(gone, none), 0) << gone;
    }
    for (const char* p : {"/a/b", "/a/b/c", "/a/b/c/d"}) EXPECT_FALSE(Exists(signatures[p])) << p;
    for (const char* kept : {"/ab", "/a b/c"}) {
        EXPECT_EQ(db.getEventInfo(kept, none), 1) << kept;
        EXPECT_EQ(Slurp(signatures[kept]), std::string("sig") + kept);
    }
    EXPECT_EQ(db.rmEventInfo(""), -1);
    EXPECT_EQ(db.rmEventInfo("/"), -1);
}

TEST_F(EventDb, RemovalOfNamesThatLookLikePatterns) {
    for (const char* p : {"/x[1]/f", "/x1/f", "/s*/f", "/so/f", "/d/q?/f", "/d/qq/f"}) {
        ASSERT_EQ(db.setEventInfo(FileRow(p, 1, "s")), 0);
    }
    EXPECT_EQ(db.rmEventInfo("/x[1]"), 0);
    EXPECT_EQ(db.rmEventInfoV3("/s*"), 0);
    EXPECT_EQ(db.rmEventInfoV3("/d/q?"), 0);
    ClientFileEventInfo none;
    for (const char* gone : {"/x[1]/f", "/s*/f", "/d/q?/f", "/d/q?"})
        EXPECT_EQ(db.getEventInfo(gone, none), 0);
    for (const char* kept : {"/x1/f", "/so/f", "/d/qq/f", "/d"})
        EXPECT_EQ(db.getEventInfo(kept, none), 1);
}

TEST_F(EventDb, RemovingAllFoldersKeepsTopLevelFiles) {
    for (const char* p : {"/top", "/dir/file", "/dir/sub/file"})
        ASSERT_EQ(db.setEventInfo(FileRow(p, 1, "s")), 0);
    ClientFileEventInfo dir_row = FileRow("/emptydir", 1, "");
    dir_row.fileType = 1;
    ASSERT_EQ(db.setEventInfo(dir_row), 0);
    EXPECT_EQ(db.rmAllFolders(), 0);
    StringBuffer sb;
    FileList list(sb);
    ASSERT_EQ(db.getFileList(&list, ""), 0);
    EXPECT_EQ(Listing(list), (Lines{"F /top"}));
}

TEST_F(EventDb, SyncIdIsKeptAcrossReopening) {
    uint64_t id = 99;
    ASSERT_EQ(db.getSyncId(id), 0);
    EXPECT_EQ(id, 0u);
    ASSERT_EQ(db.setSyncId(9223372036854775807ull), 0);
    EXPECT_EQ(db.destroy(), 0);
    EXPECT_EQ(db.getSyncId(id), -1);
    ASSERT_EQ(db.initialize(path().c_str()), 0);
    EXPECT_EQ(db.initialize(path().c_str()), 0);  // a second open is a no-op
    ASSERT_EQ(db.getSyncId(id), 0);
    EXPECT_EQ(id, 9223372036854775807ull);
}

TEST_F(EventDb, ListingsAreRelativeAndSkipRemovedRows) {
    for (const char* p : {"/r/a", "/r/sub/b", "/r/sub/deep/c", "/r_x/n", "/other"}) {
        ASSERT_EQ(db.setEventInfo(FileRow(p, 5, "s")), 0);
    }
    ASSERT_EQ(db.setEventInfo(FileRow("/r/late", 50, "s")), 0);
    ClientFileEventInfo removed = FileRow("/r/removed", 1, "s");
    removed.isExist = 0;
    ASSERT_EQ(db.setEventInfo(removed), 0);

    StringBuffer sb;
    FileList all(sb), below(sb), level(sb), early(sb), root(sb);
    ASSERT_EQ(db.getFileList(&all, ""), 0);
    EXPECT_EQ(Listing(all),
              (Lines{"F /r_x/n", "D /r_x", "F /r/sub/deep/c", "D /r/sub/deep", "F /r/sub/b",
                     "D /r/sub", "F /r/late", "F /r/a", "D /r", "F /other"}));
    ASSERT_EQ(db.getFileList(&below, "/r"), 0);
    EXPECT_EQ(Listing(below),
              (Lines{"F /sub/deep/c", "D /sub/deep", "F /sub/b", "D /sub", "F /late", "F /a"}));
    ASSERT_EQ(db.getFileListWithoutRecursive(&level, "/r"), 0);
    EXPECT_EQ(Listing(level), (Lines{"D /sub", "F /late", "F /a"}));
    ASSERT_EQ(db.getFileListWithoutRecursive(&early, "r", 5), 0);
    EXPECT_EQ(Listing(early), (Lines{"D /sub", "F /a"}));
    ASSERT_EQ(db.getFileListWithoutRecursive(&root, "/"), 0);
    EXPECT_EQ(Listing(root), (Lines{"D /r_x", "D /r", "F /other"}));
}

TEST_F(EventDb, ContentIsFoundByHashOnlyAsWritten) {
    ASSERT_EQ(db.setEventInfo(FileRow("/a/file", 1, "abc123")), 0);
    ASSERT_EQ(db.addFileToRecycleBin("/binned", 3, "def456", ""), 0);
    ustring found;
    EXPECT_EQ(db.getFilePathByHash("abc123", "", found), 1);
    EXPECT_EQ(found, ustring("a/file"));
    EXPECT_EQ(db.getFilePathByHash("def456", "", found), 0);
    EXPECT_EQ(db.getFilePathByHashFromRecycle("def456", "", found), 1);
    EXPECT_EQ(found, ustring("/binned"));
    EXPECT_EQ(db.getFilePathByHash("x' OR '1'='1", "", found), 0);
    EXPECT_EQ(db.getFilePathByHash("", "", found), 0);  // directories have an empty hash
}

TEST_F(EventDb, RecycleRecordsFollowTheProcessClock) {
    platform::ManualClock clock(1000);
    platform::ScopedClock use(clock);
    uint32_t oldest = 77;
    ASSERT_EQ(db.getOldestRecyleTime(oldest), 0);
    EXPECT_EQ(oldest, 0u);

    const std::string sig = Signature("sig");
    ASSERT_EQ(db.setEventInfo(FileRow("/d/f1", 1, "h1", sig)), 0);
    const std::string store = Read("/d/f1").signaturePath.str();
    ASSERT_EQ(db.setEventInfo(FileRow("/d/sub/f2", 1, "h2")), 0);
    ASSERT_EQ(db.setEventInfo(FileRow("/loose", 1, "h3")), 0);

    ASSERT_EQ(db.dumpFileToRecycleBin("/loose-1", "/loose"), 0);
    clock.Advance(500 * 1000);
    ASSERT_EQ(db.dumpDirToRecycleBin("/d-1", "/d"), 0);
    ClientFileEventInfo none;
    EXPECT_EQ(db.getEventInfo("/loose", none), 0);
    EXPECT_EQ(db.getEventInfo("/d", none), 0);
    EXPECT_EQ(db.getEventInfo("/d/sub/f2", none), 0);
    EXPECT_FALSE(Exists(store));
    ustring found;
    EXPECT_EQ(db.getFilePathByHashFromRecycle("h2", "", found), 1);
    EXPECT_EQ(found, ustring("/d-1/sub/f2"));
    EXPECT_EQ(Query("SELECT time FROM recycle_bin_table WHERE path = '/loose-1'"), "1000");
    EXPECT_EQ(Query("SELECT fileSize FROM recycle_bin_table WHERE path = '/d-1'"), "0");

    ASSERT_EQ(db.getOldestRecyleTime(oldest), 0);
    EXPECT_EQ(oldest, 1000u);
    std::set<ustring> due;
    ASSERT_EQ(db.getRotateList(1000, due), 0);
    EXPECT_EQ(due, (std::set<ustring>{"/loose-1"}));
    due.clear();
    ASSERT_EQ(db.getRotateList(1500, due), 0);
    EXPECT_EQ(due, (std::set<ustring>{"/loose-1", "/d-1"}));
    ASSERT_EQ(db.rmRotateRecords(1000), 0);
    ASSERT_EQ(db.getOldestRecyleTime(oldest), 0);
    EXPECT_EQ(oldest, 1500u);
    ASSERT_EQ(db.rmRecycleByPath("/d-1/f1"), 0);
    EXPECT_EQ(db.getFilePathByHashFromRecycle("h1", "", found), 0);
    ASSERT_EQ(db.resetRecycleBin(), 0);
    ASSERT_EQ(db.getOldestRecyleTime(oldest), 0);
    EXPECT_EQ(oldest, 0u);
}

TEST_F(EventDb, AFailedRecycleMoveKeepsTheRow) {
    ASSERT_EQ(db.setEventInfo(FileRow("/f", 1, "h")), 0);
    ASSERT_EQ(db.addFileToRecycleBin("/taken", 1, "x", ""), 0);
    EXPECT_EQ(db.dumpFileToRecycleBin("/taken", "/f"), -1);  // the name is in use
    ClientFileEventInfo row;
    EXPECT_EQ(db.getEventInfo("/f", row), 1);
    EXPECT_EQ(db.setEventInfo(FileRow("/g", 1, "h")), 0);  // no transaction left open
}

TEST_F(EventDb, NothingWorksAfterDestroy) {
    EXPECT_EQ(db.destroy(), 0);
    EXPECT_EQ(db.destroy(), 0);
    ClientFileEventInfo row;
    EXPECT_EQ(db.setEventInfo(FileRow("/f", 1, "h")), -1);
    EXPECT_EQ(db.getEventInfo("/f", row), -1);
    EXPECT_EQ(db.rmEventInfo("/f"), -1);
    EXPECT_EQ(db.resetRecycleBin(), -1);
    EXPECT_EQ(db.getPathByInode(1, row.path), -1);
}

TEST_F(EventDb, CommitMovesTheSignatureIntoTheStore) {
    const std::string first = Signature("first");
    ASSERT_EQ(db.setEventInfo(FileRow("/doc", 1, "h1", first)), 0);
    const std::string store = Read("/doc").signaturePath.str();
    EXPECT_EQ(Slurp(store), "first");
    EXPECT_FALSE(Exists(first));

    const std::string second = Signature("second");
    ASSERT_EQ(db.setEventInfo(FileRow("/doc", 2, "h2", second)), 0);
    EXPECT_EQ(Read("/doc").signaturePath.str(), store);
    EXPECT_EQ(Slurp(store), "second");
    EXPECT_FALSE(Exists(store + ".new"));
    EXPECT_EQ(Query("SELECT count(*) FROM config_table"), "2");  // no marker left

    // A commit without a new signature names the stored one, which stays.
    ASSERT_EQ(db.setEventInfo(FileRow("/doc", 3, "h2", store)), 0);
    EXPECT_EQ(Slurp(store), "second");
}

TEST_F(EventDb, FailedStagingLeavesRowStoreAndFileAsTheyWere) {
    ASSERT_EQ(db.setEventInfo(FileRow("/doc", 1, "old", Signature("old-sig"))), 0);
    const std::string store = Read("/doc").signaturePath.str();
    const std::string fresh = Signature("new-sig");
    {
        tbtest::FaultFileSystem faults;
        tbtest::ScopedFileSystem use(faults);
        faults.FailNth(tbtest::FsOp::kRenameReplace, 1, EIO);
        EXPECT_EQ(db.setEventInfo(FileRow("/doc", 2, "new", fresh)), -1);
        EXPECT_EQ(db.setEventInfo(FileRow("/fresh/row", 2, "new", fresh)), 0);  // healed after one
    }
    ClientFileEventInfo row = Read("/doc");
    EXPECT_EQ(row.syncID, 1u);
    EXPECT_EQ(row.fileCheckSum, ustring("old"));
    EXPECT_EQ(Slurp(store), "old-sig");
    EXPECT_EQ(Read("/fresh/row").syncID, 2u);
}

TEST_F(EventDb, BusyDatabaseRefusesTheCommitAndTouchesNothing) {
    ASSERT_EQ(db.setEventInfo(FileRow("/doc", 1, "old", Signature("old-sig"))), 0);
    const std::string store = Read("/doc").signaturePath.str();
    const std::string fresh = Signature("new-sig");
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(path().c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE;", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(db.setEventInfo(FileRow("/doc", 2, "new", fresh)), -1);
    sqlite3_exec(other, "ROLLBACK;", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    EXPECT_EQ(Slurp(fresh), "new-sig");
    EXPECT_EQ(Slurp(store), "old-sig");
    EXPECT_EQ(Read("/doc").fileCheckSum, ustring("old"));
}

// The commit itself fails (its log can't grow: the file size limit stands in for a
// full disk) after the signature was staged: the file goes back to the caller.
TEST_F(EventDb, FailedCommitGivesTheSignatureBack) {
    ASSERT_EQ(db.setEventInfo(FileRow("/doc", 1, "old", Signature("old-sig"))), 0);
    const std::string store = Read("/doc").signaturePath.str();
    const std::string fresh = Signature("new-sig");
    ASSERT_EQ(db.destroy(), 0);  // closing checkpoints and drops the log
    ASSERT_EQ(db.initialize(path().c_str()), 0);

    struct sigaction ignore {
    }, previous{};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGXFSZ, &ignore, &previous);
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    rlimit none = saved;
    none.rlim_cur = 0;
    tbtest::FaultFileSystem counting;
    tbtest::ScopedFileSystem use(counting);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
    const int result = db.setEventInfo(FileRow("/doc", 2, "new", fresh));
    ::setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_EQ(counting.Calls(tbtest::FsOp::kRenameReplace), 2);  // staged, then given back
    ::sigaction(SIGXFSZ, &previous, nullptr);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(Slurp(fresh), "new-sig");
    EXPECT_FALSE(Exists(store + ".new"));
    EXPECT_EQ(Slurp(store), "old-sig");
    EXPECT_EQ(Read("/doc").fileCheckSum, ustring("old"));
    EXPECT_EQ(db.setEventInfo(FileRow("/doc", 3, "newer", fresh)), 0);
    EXPECT_EQ(Slurp(store), "new-sig");
}

TEST_F(EventDb, AnInterruptedMoveIsFinishedOnTheNextOpen) {
    ASSERT_EQ(db.setEventInfo(FileRow("/doc", 1, "old", Signature("old-sig"))), 0);
    const std::string store = Read("/doc").signaturePath.str();
    {
        tbtest::FaultFileSystem faults;
        tbtest::ScopedFileSystem use(faults);
        faults.FailNth(tbtest::FsOp::kRenameReplace, 2, EIO);  // the move after the commit
        EXPECT_EQ(db.setEventInfo(FileRow("/doc", 2, "new", Signature("new-sig"))), 0);
    }
    EXPECT_EQ(Read("/doc").fileCheckSum, ustring("new"));
    EXPECT_FALSE(Exists(store));  // never the old signature under the new row
    ASSERT_EQ(db.destroy(), 0);
    ASSERT_EQ(db.initialize(path().c_str()), 0);
    EXPECT_EQ(Slurp(store), "new-sig");
    EXPECT_FALSE(Exists(store + ".new"));
    EXPECT_EQ(Query("SELECT count(*) FROM config_table"), "2");
}

TEST_F(EventDb, AReusedRowIdNeverInheritsAStaleSignature) {
    ASSERT_EQ(db.setEventInfo(FileRow("/last", 1, "h", Signature("sig"))), 0);
    const std::string store = Read("/last").signaturePath.str();
    {
        tbtest::FaultFileSystem faults;
        tbtest::ScopedFileSystem use(faults);
        faults.FailNth(tbtest::FsOp::kRemoveFile, 1, EIO);
        ASSERT_EQ(db.rmEventInfo("/last"), 0);  // the trigger could not delete the file
    }
    ASSERT_TRUE(Exists(store));
    ASSERT_EQ(db.setEventInfo(FileRow("/next", 1, "other")), 0);
    ASSERT_EQ(Read("/next").signaturePath.str(), store);  // the same id came back
    EXPECT_FALSE(Exists(store));
}

TEST(EventDbDamage, AFileThatIsNoDatabaseIsReportedAndLeftAlone) {
    TempDir dir;
    const std::string path = dir / "event-db.sqlite";
    const std::string junk(10000, 'Z');
    WriteFile(path, junk);
    const std::string log = dir / "daemon.log";
    ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, log.c_str(), "", 50), 0);
    FileEventDB db;
    EXPECT_EQ(db.initialize(path.c_str()), -1);
    ClientFileEventInfo row;
    EXPECT_EQ(db.getEventInfo("/x", row), -1);
    Logger::Destroy();
    const std::string text = Slurp(log);
    EXPECT_NE(text.find("Failed to initialize database at '" + path + "'"), std::string::npos)
        << text;
    EXPECT_NE(text.find("not a database"), std::string::npos) << text;
    EXPECT_EQ(Slurp(path), junk);
}

TEST(EventDbDamage, AnUnopenablePathIsReported) {
    TempDir dir;
    FileEventDB db;
    EXPECT_EQ(db.initialize((dir / "missing/event-db.sqlite").c_str()), -1);
    EXPECT_EQ(db.initialize(dir.path().c_str()), -1);  // a folder
}

// A child commits rows with signatures in a loop and reports each commit that returned;
// it is killed at a random moment. Whatever it acknowledged must be there, and no
// signature may contradict its row.
class EventDbCrash : public EventDb {
  protected:
    [[noreturn]] void Child(int fd, int first) {
        FileEventDB child_db;
        if (child_db.initialize(path().c_str()) != 0) _exit(2);
        for (int i = first;; ++i) {
            const std::string sum = "sum-" + std::to_string(i);
            std::string sig = sign() + "/tmp-" + std::to_string(i);
            WriteFile(sig, sum);
            const std::string p = "/d" + std::to_string(i % 5) + "/f" + std::to_string(i % 23);
            if (child_db.setEventInfo(FileRow(p, i, sum, sig)) != 0) _exit(3);
            if (::write(fd, &i, sizeof i) != sizeof i) _exit(4);
        }
    }

    void CheckConsistent(const std::map<std::string, int>& acked) {
        FileEventDB check;
        ASSERT_EQ(check.initialize(path().c_str()), 0);
        EXPECT_EQ(Query("PRAGMA integrity_check"), "ok");
        for (auto& [p, i] : acked) {
            ClientFileEventInfo row;
            ASSERT_EQ(check.getEventInfo(p.c_str(), row), 1) << p;
            const int stored = std::stoi(row.fileCheckSum.str().substr(4));
            EXPECT_GE(stored, i) << p;
            EXPECT_EQ(static_cast<int>(row.syncID), stored);
            EXPECT_EQ(Slurp(row.signaturePath.str()), row.fileCheckSum.str()) << p;
            ClientFileEventInfo parent;
            ASSERT_EQ(check.getEventInfo(p.substr(0, p.rfind('/')).c_str(), parent), 1);
            EXPECT_GE(parent.maxSyncID, row.syncID);
        }
        check.destroy();
    }
};

TEST_F(EventDbCrash, KilledWriterLosesNoAcknowledgedCommit) {
    db.destroy();
    std::mt19937 random(12345);
    std::map<std::string, int> acked;
    int next = 1;
    int kills_mid_run = 0;
    for (int round = 0; round < 30; ++round) {
        int fds[2];
        ASSERT_EQ(::pipe(fds), 0);
        pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            ::close(fds[0]);
            Child(fds[1], next);
        }
        ::close(fds[1]);
        auto record = [&](int i) {
            acked["/d" + std::to_string(i % 5) + "/f" + std::to_string(i % 23)] = i;
            next = i + 1;
        };
        int i = 0;
        // Most rounds let the child get going first, so that the kill lands among
        // commits rather than while it opens the database; disks vary in speed.
        if (round % 5 != 0 && ::read(fds[0], &i, sizeof i) == sizeof i) record(i);
        ::usleep(random() % 15000);
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
        if (WIFSIGNALED(status)) ++kills_mid_run;
        while (::read(fds[0], &i, sizeof i) == sizeof i) record(i);
        ::close(fds[0]);
        next += 1;  // an unacknowledged commit may have landed: never reuse its number
        CheckConsistent(acked);
        if (HasFatalFailure()) return;
    }
    EXPECT_EQ(kills_mid_run, 30);
    RecordProperty("acknowledged_paths", static_cast<int>(acked.size()));
    RecordProperty("commits", next);
    EXPECT_GE(acked.size(), 10u);
}

}  // namespace
