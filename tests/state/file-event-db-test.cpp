// The per-session agreement database: rows, their ancestors and signatures, the sync
// id, listings, the recycle records, commits that fail half-way, crashes and damage.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/log.h"
#include "peek.h"
#include "platform/clock.h"
#include "state/file-event-db.h"
#include "state/file-list.h"
#include "support/fail-each-op.h"
#include "support/fault-fs.h"
#include "support/temp-dir.h"

namespace {

// A file row as the workers commit it.
ClientFileEventInfo FileRow(const std::string& path, uint64_t sync_id, const std::string& sum,
                            const std::string& signature = "") {
    ClientFileEventInfo info;
    info.path = path.c_str();
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

// Every stored field of a row but its signature, as one line.
std::string Fields(const ClientFileEventInfo& i) {
    std::ostringstream os;
    os << i.path.str() << '|' << i.fileType << i.isExist << '|' << i.syncID << '|' << i.fileSize
       << '|' << i.fileModTime << '|' << i.execBit << '|' << i.fileCheckSum.str() << '|'
       << i.baseName.str() << '|' << i.filePrivilege.str() << '|' << i.updateClient.str() << '|'
       << i.macHash.str() << '|' << i.windowsHash.str() << '|' << i.linuxHash.str() << '|'
       << i.zephHash.str();
    return os.str();
}

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
        const std::string name = "db/sign/tmp-" + std::to_string(++m_temps);
        dir.write(name, content);
        return dir / name;
    }

    ClientFileEventInfo Read(const std::string& p) {
        ClientFileEventInfo info;
        EXPECT_EQ(db.getEventInfo(p.c_str(), info), 1) << p;
        return info;
    }

    TempDir dir;
    FileEventDB db;
    int m_temps = 0;
};

TEST(SignatureNames, FollowTheBytesOfTheRowId) {
    const std::pair<uint64_t, const char*> cases[] = {
        {0x123456, "12/34/.56"},
        {0x56, ".56"},
        {0x10000, "01/00/.00"},
        {0xff00000000000001ull, "ff/00/00/00/00/00/00/.01"}};
    for (auto [id, want] : cases) {
        char name[64];
        FileEventDB::path_convert(id, name);
        EXPECT_STREQ(name, want);
    }
}

TEST_F(EventDb, RowReadsBackWithOrWithoutItsSlash) {
    const std::string p = "/it's/Ünïcödé 文件.txt";
    ClientFileEventInfo info = FileRow(p, 42, "0123abcd");
    info.execBit = 1;
    info.macHash = "mac";
    info.windowsHash = "win";
    info.linuxHash = "lin";
    info.zephHash = "zeph";
    info.filePrivilege = "rw";
    info.baseName = "Ünïcödé 文件.txt";
    ASSERT_EQ(db.setEventInfo(info), 0);
    EXPECT_EQ(Fields(Read(p)), Fields(info));
    EXPECT_EQ(Fields(Read(p.substr(1))), Fields(info));

    FileEventDB::EventInfo found;
    ASSERT_EQ(db.contains(p.c_str(), found), 1);
    EXPECT_EQ(found.sync_id, 42u);
    char name[64];
    FileEventDB::path_convert(found.row_id, name);
    EXPECT_EQ(Read(p).signaturePath.str(), sign() + "/" + name);
    EXPECT_EQ(db.contains("/nothing", found), 0);
    ClientFileEventInfo none;
    EXPECT_EQ(db.getEventInfo("/nothing", none), 0);
    EXPECT_EQ(db.getEventInfo("/", none), -1);
}

TEST_F(EventDb, AncestorsAreMadeAndLiftedButARowNeverGoesBackInTime) {
    ASSERT_EQ(db.setEventInfo(FileRow("/a/b/c", 7, "h")), 0);
    for (const char* p : {"/a", "/a/b"}) {
        ClientFileEventInfo dir_row = Read(p);
        EXPECT_TRUE(dir_row.IsDir() && dir_row.isExist == 1 && dir_row.execBit == 1) << p;
        EXPECT_EQ(dir_row.syncID, 7u);
        EXPECT_EQ(dir_row.maxSyncID, 7u);
        EXPECT_TRUE(dir_row.signaturePath.empty());
    }
    const std::string sig = Signature("sig-9");
    ASSERT_EQ(db.setEventInfo(FileRow("/a/x", 9, "new", sig)), 0);
    ASSERT_EQ(db.setEventInfo(FileRow("/a/b/y", 3, "h")), 0);
    EXPECT_EQ(Read("/a").maxSyncID, 9u);  // never lowered
    EXPECT_EQ(Read("/a/b").maxSyncID, 7u);

    // An older version of /a/x changes nothing of the row, yet still lifts /a.
    Rows(path(), "UPDATE eventinfo SET maxSyncID = 1 WHERE path = 'a'");
    const std::string stale = Signature("sig-old");
    EXPECT_EQ(db.setEventInfo(FileRow("/a/x", 5, "old", stale)), 0);
    ClientFileEventInfo row = Read("/a/x");
    EXPECT_EQ(row.syncID, 9u);
    EXPECT_EQ(row.fileCheckSum, ustring("new"));
    EXPECT_EQ(ReadFile(row.signaturePath.str()), "sig-9");
    EXPECT_EQ(ReadFile(stale), "sig-old");  // not taken: it belongs to no row
    EXPECT_EQ(Read("/a").maxSyncID, 5u);
}

// Names that only share a prefix, differ in case or read as GLOB patterns are not below.
TEST_F(EventDb, RemovalTakesTheSubtreeAndItsSignaturesOnly) {
    const Lines gone = {"/a/b", "/a/b/c", "/a/b/c/d", "/x[1]/f", "/s*/f", "/d/q?/f"};
    const Lines kept = {"/ab", "/a b/c", "/A/b", "/x1/f", "/so/f", "/d/qq/f"};
    std::map<std::string, std::string> signatures;
    for (const Lines* rows : {&gone, &kept}) {
        for (auto& p : *rows) {
            ASSERT_EQ(db.setEventInfo(FileRow(p, 1, "s", Signature("sig" + p))), 0);
            signatures[p] = Read(p).signaturePath.str();
        }
    }
    EXPECT_EQ(db.rmEventInfo("/a"), 0);
    EXPECT_EQ(db.rmEventInfo("/x[1]"), 0);
    EXPECT_EQ(db.rmEventInfoV3("/s*"), 0);
    EXPECT_EQ(db.rmEventInfoV3("/d/q?"), 0);
    ClientFileEventInfo none;
    for (auto& p : gone) {
        EXPECT_EQ(db.getEventInfo(p.c_str(), none), 0) << p;
        EXPECT_FALSE(Exists(signatures[p])) << p;
    }
    for (auto& p : kept) {
        EXPECT_EQ(db.getEventInfo(p.c_str(), none), 1) << p;
        EXPECT_EQ(ReadFile(signatures[p]), "sig" + p);
    }
    EXPECT_EQ(db.getEventInfo("/d/q?", none), 0);
    EXPECT_EQ(db.getEventInfo("/d", none), 1);
    EXPECT_EQ(db.rmEventInfo(""), -1);
    EXPECT_EQ(db.rmEventInfo("/"), -1);
}

TEST_F(EventDb, SyncIdOutlivesReopeningAndNothingWorksWhileClosed) {
    uint64_t id = 99;
    ASSERT_EQ(db.getSyncId(id), 0);
    EXPECT_EQ(id, 0u);
    ASSERT_EQ(db.setSyncId(9223372036854775807ull), 0);
    EXPECT_EQ(db.destroy(), 0);
    EXPECT_EQ(db.destroy(), 0);
    ClientFileEventInfo row;
    EXPECT_EQ(db.getSyncId(id), -1);
    EXPECT_EQ(db.setEventInfo(FileRow("/f", 1, "h")), -1);
    EXPECT_EQ(db.getEventInfo("/f", row), -1);
    EXPECT_EQ(db.rmEventInfo("/f"), -1);
    EXPECT_EQ(db.resetRecycleBin(), -1);
    ASSERT_EQ(db.initialize(path().c_str()), 0);
    EXPECT_EQ(db.initialize(path().c_str()), 0);  // a second open is a no-op
    ASSERT_EQ(db.getSyncId(id), 0);
    EXPECT_EQ(id, 9223372036854775807ull);
}

TEST_F(EventDb, ListingsAreRelativeAndSkipRemovedRows) {
    for (const char* p : {"/r/a", "/r/sub/b", "/r/sub/deep/c", "/r_x/n", "/other", "/R/x"})
        ASSERT_EQ(db.setEventInfo(FileRow(p, 5, "s")), 0);
    ASSERT_EQ(db.setEventInfo(FileRow("/r/late", 50, "s")), 0);
    ClientFileEventInfo removed = FileRow("/r/removed", 1, "s");
    removed.isExist = 0;
    ASSERT_EQ(db.setEventInfo(removed), 0);
    ClientFileEventInfo empty_dir = FileRow("/empty", 1, "");
    empty_dir.fileType = 1;
    ASSERT_EQ(db.setEventInfo(empty_dir), 0);

    StringBuffer sb;
    FileList all(sb), below(sb), level(sb), early(sb), root(sb), files(sb);
    ASSERT_EQ(db.getFileList(&all, ""), 0);
    EXPECT_EQ(Listing(all), (Lines{"F /r_x/n", "D /r_x", "F /r/sub/deep/c", "D /r/sub/deep",
                                   "F /r/sub/b", "D /r/sub", "F /r/late", "F /r/a", "D /r",
                                   "F /other", "D /empty", "F /R/x", "D /R"}));
    ASSERT_EQ(db.getFileList(&below, "/r"), 0);
    EXPECT_EQ(Listing(below),
              (Lines{"F /sub/deep/c", "D /sub/deep", "F /sub/b", "D /sub", "F /late", "F /a"}));
    ASSERT_EQ(db.getFileListWithoutRecursive(&level, "/r"), 0);
    EXPECT_EQ(Listing(level), (Lines{"D /sub", "F /late", "F /a"}));
    ASSERT_EQ(db.getFileListWithoutRecursive(&early, "r", 5), 0);
    EXPECT_EQ(Listing(early), (Lines{"D /sub", "F /a"}));
    ASSERT_EQ(db.getFileListWithoutRecursive(&root, "/"), 0);
    EXPECT_EQ(Listing(root), (Lines{"D /r_x", "D /r", "F /other", "D /empty", "D /R"}));
    // Dropping every folder keeps the top-level files alone.
    EXPECT_EQ(db.rmAllFolders(), 0);
    ASSERT_EQ(db.getFileList(&files, ""), 0);
    EXPECT_EQ(Listing(files), (Lines{"F /other"}));
}

TEST_F(EventDb, RecycleRecordsAndContentByHash) {
    platform::ManualClock clock(1000);
    platform::ScopedClock use(clock);
    ASSERT_EQ(db.setEventInfo(FileRow("/d/f1", 1, "h1", Signature("sig"))), 0);
    const std::string store = Read("/d/f1").signaturePath.str();
    ASSERT_EQ(db.setEventInfo(FileRow("/d/sub/f2", 1, "h2")), 0);
    ASSERT_EQ(db.setEventInfo(FileRow("/loose", 1, "h3")), 0);
    ustring found;
    EXPECT_EQ(db.getFilePathByHash("h2", "", found), 1);
    EXPECT_EQ(found, ustring("d/sub/f2"));
    EXPECT_EQ(db.getFilePathByHash("x' OR '1'='1", "", found), 0);
    EXPECT_EQ(db.getFilePathByHash("", "", found), 0);  // directories have an empty hash

    ASSERT_EQ(db.dumpFileToRecycleBin("/loose-1", "/loose"), 0);
    EXPECT_EQ(db.dumpFileToRecycleBin("/loose-1", "/d/f1"), -1);  // the name is in use
    ClientFileEventInfo none;
    EXPECT_EQ(db.getEventInfo("/d/f1", none), 1);
    clock.Advance(500 * 1000);
    ASSERT_EQ(db.dumpDirToRecycleBin("/d-1", "/d"), 0);  // no transaction was left open
    for (const char* gone : {"/loose", "/d", "/d/sub/f2"})
        EXPECT_EQ(db.getEventInfo(gone, none), 0) << gone;
    EXPECT_FALSE(Exists(store));
    EXPECT_EQ(db.getFilePathByHash("h2", "", found), 0);
    EXPECT_EQ(db.getFilePathByHashFromRecycle("h2", "", found), 1);
    EXPECT_EQ(found, ustring("/d-1/sub/f2"));
    // Each record is stamped with the time of its own dump: rotation goes by that.
    EXPECT_EQ(Rows(path(),
                   "SELECT path || ' ' || time || ' ' || fileSize FROM recycle_bin_table "
                   "WHERE path IN ('/loose-1', '/d-1') ORDER BY path"),
              (Lines{"/d-1 1500 0", "/loose-1 1000 2"}));

    // The oldest of several records; which ones are due by age is the recycle cleaner's
    // test, on this same database.
    uint32_t oldest = 0;
    ASSERT_EQ(db.getOldestRecyleTime(oldest), 0);
    EXPECT_EQ(oldest, 1000u);
    ASSERT_EQ(db.rmRecycleByPath("/d-1/f1"), 0);
    EXPECT_EQ(db.getFilePathByHashFromRecycle("h1", "", found), 0);
    ASSERT_EQ(db.addFileToRecycleBin("/added", 3, "h4", ""), 0);
    EXPECT_EQ(db.getFilePathByHashFromRecycle("h4", "", found), 1);
}

// A row "/doc" with "old-sig" in the store, and "new-sig" in the sign folder waiting to be
// committed with the row's next version.
class EventDbCommit : public EventDb {
  protected:
    void SetUp() override {
        EventDb::SetUp();
        ASSERT_EQ(db.setEventInfo(FileRow("/doc", 1, "old", Signature("old-sig"))), 0);
        store = Read("/doc").signaturePath.str();
        fresh = Signature("new-sig");
    }
    int CommitNew() { return db.setEventInfo(FileRow("/doc", 2, "new", fresh)); }
    // What a refused commit leaves: the row, the store and the caller's file as they were.
    void ExpectNothingChanged() {
        EXPECT_EQ(Read("/doc").fileCheckSum, ustring("old"));
        EXPECT_EQ(ReadFile(store), "old-sig");
        EXPECT_EQ(ReadFile(fresh), "new-sig");
        EXPECT_FALSE(Exists(store + ".new"));
    }

    std::string store, fresh;
};

TEST_F(EventDbCommit, MovesTheSignatureIntoTheStore) {
    ASSERT_EQ(CommitNew(), 0);
    EXPECT_EQ(Read("/doc").signaturePath.str(), store);
    EXPECT_EQ(ReadFile(store), "new-sig");
    EXPECT_FALSE(Exists(fresh));
    EXPECT_FALSE(Exists(store + ".new"));
    EXPECT_EQ(Rows(path(), "SELECT count(*) FROM config_table"), Lines{"2"});  // no marker left
    // A commit without a new signature names the stored one, which stays.
    ASSERT_EQ(db.setEventInfo(FileRow("/doc", 3, "h3", store)), 0);
    EXPECT_EQ(ReadFile(store), "new-sig");
}

// The commit itself fails (its log can't grow: the file size limit stands in for a
// full disk) after the signature was staged: the file goes back to the caller.
TEST_F(EventDbCommit, FailedCommitGivesTheSignatureBack) {
    ASSERT_EQ(db.destroy(), 0);  // closing checkpoints and drops the log
    ASSERT_EQ(db.initialize(path().c_str()), 0);
    const auto previous = ::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    rlimit none = saved;
    none.rlim_cur = 0;
    tbtest::FaultFileSystem counting;
    tbtest::ScopedFileSystem use(counting);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
    const int result = CommitNew();
    ::setrlimit(RLIMIT_FSIZE, &saved);
    ::signal(SIGXFSZ, previous);
    EXPECT_EQ(counting.Calls(tbtest::FsOp::kRenameReplace), 2);  // staged, then given back
    EXPECT_EQ(result, -1);
    ExpectNothingChanged();
    EXPECT_EQ(CommitNew(), 0);
    EXPECT_EQ(ReadFile(store), "new-sig");
}

TEST_F(EventDbCommit, AReusedRowIdNeverInheritsAStaleSignature) {
    {
        tbtest::FaultFileSystem faults;
        tbtest::ScopedFileSystem use(faults);
        faults.FailNth(tbtest::FsOp::kRemoveFile, 1, EIO);
        ASSERT_EQ(db.rmEventInfo("/doc"), 0);  // the trigger could not delete the file
    }
    ASSERT_TRUE(Exists(store));
    ASSERT_EQ(db.setEventInfo(FileRow("/next", 1, "other")), 0);
    ASSERT_EQ(Read("/next").signaturePath.str(), store);  // the same id came back
    EXPECT_FALSE(Exists(store));
}

// Each file operation of a commit that moves a signature fails once in turn. A refused
// commit leaves the row, the store and the caller's file as they were; an accepted one
// never shows the old signature under the new row; reopening and retrying always ends
// with the new row and its signature in the store.
TEST(EventDbFaults, EveryFailedFileOperationOfACommitLosesNothing) {
    TempDir dir;
    FileEventDB db;
    int runs = 0;
    std::string base, store, fresh;
    auto commit = [&] { return db.setEventInfo(FileRow("/doc", 2, "new", fresh)); };
    auto sum = [&] {
        ClientFileEventInfo info;
        EXPECT_EQ(db.getEventInfo("/doc", info), 1);
        return info.fileCheckSum.str();
    };
    auto reopen = [&] {
        ASSERT_EQ(db.destroy(), 0);
        ASSERT_EQ(db.initialize((base + "/event-db.sqlite").c_str()), 0);
    };
    tbtest::FaultScenario scenario;
    scenario.prepare = [&] {
        base = dir / ("run-" + std::to_string(++runs));
        ASSERT_EQ(::mkdir(base.c_str(), 0700), 0);
        ASSERT_EQ(::mkdir((base + "/sign").c_str(), 0700), 0);
        reopen();
        dir.write("run-" + std::to_string(runs) + "/sign/old", "old-sig");
        ASSERT_EQ(db.setEventInfo(FileRow("/doc", 1, "old", base + "/sign/old")), 0);
        ClientFileEventInfo info;
        ASSERT_EQ(db.getEventInfo("/doc", info), 1);
        store = info.signaturePath.str();
        fresh = base + "/sign/new";
        dir.write("run-" + std::to_string(runs) + "/sign/new", "new-sig");
    };
    scenario.act = commit;
    scenario.after_fault = [&](int result) {
        if (result < 0) {
            EXPECT_EQ(sum(), "old");
            EXPECT_EQ(ReadFile(store), "old-sig");
            EXPECT_EQ(ReadFile(fresh), "new-sig");
            EXPECT_FALSE(Exists(store + ".new"));
            return;
        }
        EXPECT_EQ(sum(), "new");
        EXPECT_NE(ReadFile(store), "old-sig");
        EXPECT_EQ(ReadFile(Exists(store) ? store : store + ".new"), "new-sig");
    };
    scenario.recover = [&] {
        reopen();
        if (sum() == "old") {
            ASSERT_EQ(commit(), 0);
        }
        EXPECT_EQ(sum(), "new");
        EXPECT_EQ(ReadFile(store), "new-sig");
        EXPECT_FALSE(Exists(fresh));
        EXPECT_FALSE(Exists(store + ".new"));
        EXPECT_EQ(Rows(base + "/event-db.sqlite", "SELECT count(*) FROM config_table"), Lines{"2"});
    };
    EXPECT_GE(tbtest::FailEachOperation(scenario), 2);
}

TEST(EventDbDamage, AFileThatIsNoDatabaseIsReportedAndLeftAlone) {
    TempDir dir;
    const std::string path = dir / "event-db.sqlite", log = dir / "daemon.log";
    const std::string junk(10000, 'Z');
    dir.write("event-db.sqlite", junk);
    ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, log.c_str(), "", 50), 0);
    FileEventDB db;
    EXPECT_EQ(db.initialize(path.c_str()), -1);
    ClientFileEventInfo row;
    EXPECT_EQ(db.getEventInfo("/x", row), -1);
    EXPECT_EQ(db.initialize((dir / "missing/event-db.sqlite").c_str()), -1);
    EXPECT_EQ(db.initialize(dir.path().c_str()), -1);  // a folder
    Logger::Destroy();
    const std::string text = ReadFile(log);
    EXPECT_NE(text.find("Failed to initialize database at '" + path + "'"), std::string::npos)
        << text;
    EXPECT_NE(text.find("not a database"), std::string::npos) << text;
    EXPECT_EQ(ReadFile(path), junk);
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
            const std::string p = "/d" + std::to_string(i % 5) + "/f" + std::to_string(i % 23);
            if (child_db.setEventInfo(FileRow(p, i, sum, Signature(sum))) != 0) _exit(3);
            if (::write(fd, &i, sizeof i) != sizeof i) _exit(4);
        }
    }

    void CheckConsistent(const std::map<std::string, int>& acked) {
        FileEventDB check;
        ASSERT_EQ(check.initialize(path().c_str()), 0);
        EXPECT_EQ(Rows(path(), "PRAGMA integrity_check"), Lines{"ok"});
        for (auto& [p, i] : acked) {
            ClientFileEventInfo row;
            ASSERT_EQ(check.getEventInfo(p.c_str(), row), 1) << p;
            const int stored = std::stoi(row.fileCheckSum.str().substr(4));
            EXPECT_GE(stored, i) << p;
            EXPECT_EQ(static_cast<int>(row.syncID), stored);
            EXPECT_EQ(ReadFile(row.signaturePath.str()), row.fileCheckSum.str()) << p;
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
    EXPECT_GE(acked.size(), 10u);
}

}  // namespace
