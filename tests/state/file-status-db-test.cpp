// The file status table: what other processes read to badge files in progress.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "foundation/log.h"
#include "state/file-status-db.h"
#include "state/sql-escape.h"
#include "support/temp-dir.h"

namespace {

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

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

    // Every (path, id) in the table, sorted by path, read over a connection of our own.
    std::vector<std::pair<std::string, long>> Rows() const {
        std::vector<std::pair<std::string, long>> rows;
        sqlite3* handle = nullptr;
        sqlite3_open(db().c_str(), &handle);
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(handle, "SELECT path, id FROM fstatinfo ORDER BY path", -1, &stmt,
                           nullptr);
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            rows.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)),
                              sqlite3_column_int64(stmt, 1));
        }
        sqlite3_finalize(stmt);
        sqlite3_close(handle);
        return rows;
    }

    std::vector<std::string> Paths() const {
        std::vector<std::string> paths;
        for (auto& row : Rows()) paths.push_back(row.first);
        return paths;
    }

    TempDir dir;
};

using PathList = std::vector<std::string>;

TEST(ZephTemplate, QuotesAndEscapesEachParameterWord) {
    auto sql = ZEPHDBEscapeStringEX3("a='@ZEPH:VAR' b=@ZEPH:INT c=@ZEPH:LLINT d=@ZEPH:NEVAR @x",
                                     "it's", -7, static_cast<int64_t>(1) << 40, "raw'");
    EXPECT_STREQ(sql.get(), "a='it''s' b=-7 c=1099511627776 d=raw' @x");
}

TEST(ZephTemplate, LikeParameterGetsTheEscapeClauseOnItsClosingQuote) {
    auto sql = ZEPHDBEscapeStringEX3(
        "x like '@ZEPH:LVAR/%%' and x not like '@ZEPH:LVAR/%%/%%' and y = '@ZEPH:VAR'",
        "50%_a\\b'c", "d", "e_");
    EXPECT_STREQ(sql.get(),
                 "x like '50\\%\\_a\\\\b''c/%%' escape '\\' and x not like 'd/%%/%%' escape '\\' "
                 "and y = 'e_'");
}

TEST(ZephTemplate, EmptyOrNullArgumentsAddNothing) {
    auto sql = ZEPHDBEscapeStringEX3("p like '@ZEPH:LVAR%' or q = '@ZEPH:VAR'", "", nullptr);
    EXPECT_STREQ(sql.get(), "p like '%' or q = ''");
    EXPECT_EQ(ZEPHDBEscapeStringEX3(nullptr), nullptr);
}

TEST(GlobText, MetacharactersBecomeLiteralClasses) {
    EXPECT_EQ(GlobLiteral("/a/[x]*?.txt"), "/a/[[]x][*][?].txt");
    EXPECT_EQ(GlobLiteral("plain/path"), "plain/path");
}

TEST_F(FileStatus, SetTwiceKeepsOneRowWithANewId) {
    Set("/home/u/sync/a.txt");
    auto first = Rows();
    Set("/home/u/sync/a.txt", 1);
    auto second = Rows();
    ASSERT_EQ(first.size(), 1u);
    ASSERT_EQ(second.size(), 1u);
    EXPECT_NE(first[0].second, second[0].second);

    FileStatusInfo info;
    ASSERT_EQ(FileStatusDB::getFileSyncStat("/home/u/sync/a.txt", &info), 1);
    EXPECT_EQ(info.syncStatus, 1);
    EXPECT_EQ(info.fileType, SFT_FILE);
    EXPECT_EQ(info.path, ustring("/home/u/sync/a.txt"));
    EXPECT_EQ(FileStatusDB::getFileSyncStat("/home/u/sync/b.txt", &info), 0);
    EXPECT_EQ(FileStatusDB::getFileSyncStat("/home/u/sync/a.txt", nullptr), -1);
}

TEST_F(FileStatus, AwkwardNamesSurviveEveryStatement) {
    const std::vector<std::string> names = {"/s/it's",        "/s/50%",          "/s/a_b",
                                            "/s/back\\slash", "/s/Ünïcödé 文件", "/s/[x]*?"};
    for (auto& name : names) {
        Set(name, SFS_SYNCING, SFT_DIR);
        Set(name + "/child");
    }
    for (auto& name : names) {
        FileStatusInfo info;
        ASSERT_EQ(FileStatusDB::getFileSyncStat(name.c_str(), &info), 1) << name;
        EXPECT_EQ(info.path.str(), name);
        EXPECT_EQ(info.fileType, SFT_DIR);
        EXPECT_TRUE(FileStatusDB::isAnySubFileDirSyncing(name.c_str())) << name;
        int count = 0;
        auto children = FileStatusDB::getFileSyncStats(name.c_str(), 0, 10, count);
        ASSERT_EQ(count, 1) << name;
        EXPECT_EQ(children[0].path.str(), name + "/child");
    }
    ASSERT_EQ(FileStatusDB::rmFileStatByPath("/s/it's"), 0);
    FileStatusInfo info;
    EXPECT_EQ(FileStatusDB::getFileSyncStat("/s/it's", &info), 0);
    for (auto& name : names) {
        FileStatusInfo whole;
        whole.path = name.c_str();
        ASSERT_EQ(FileStatusDB::rmFileSyncStat(whole), 0) << name;
    }
    EXPECT_TRUE(Paths().empty());
}

TEST_F(FileStatus, LikeWildcardsAndCaseInAPathMatchOnlyThemselves) {
    Set("/d/x%");
    Set("/d/xyz");
    Set("/d/x_");
    Set("/d/xy");
    Set("/d/a");
    FileStatusInfo info;
    ASSERT_EQ(FileStatusDB::getFileSyncStat("/d/x%", &info), 1);
    EXPECT_EQ(info.path, ustring("/d/x%"));
    ASSERT_EQ(FileStatusDB::getFileSyncStat("/d/x_", &info), 1);
    EXPECT_EQ(info.path, ustring("/d/x_"));
    EXPECT_EQ(FileStatusDB::getFileSyncStat("/d/A", &info), 0);

    Set("/p_1/f");
    Set("/Q/f");
    EXPECT_FALSE(FileStatusDB::isAnySubFileDirSyncing("/pX1"));
    EXPECT_TRUE(FileStatusDB::isAnySubFileDirSyncing("/p_1"));
    EXPECT_FALSE(FileStatusDB::isAnySubFileDirSyncing("/q"));
    EXPECT_FALSE(FileStatusDB::isAnySubFileDirSyncing("/p_1/f"));  // itself isn't below itself
    EXPECT_FALSE(FileStatusDB::isAnySubFileDirSyncing(""));
}

TEST_F(FileStatus, SubtreeSyncingLooksOnlyAtSyncingRows) {
    Set("/r/done", 1);
    EXPECT_FALSE(FileStatusDB::isAnySubFileDirSyncing("/r"));
    Set("/r/deep/down/busy");
    EXPECT_TRUE(FileStatusDB::isAnySubFileDirSyncing("/r"));
}

TEST_F(FileStatus, ListingGivesDirectChildrenPageByPage) {
    for (const char* p : {"/v/a", "/v/b", "/v/c", "/v/c/inner", "/v/c/inner/x", "/vw/other", "/v"})
        Set(p);
    int count = -1;
    auto all = FileStatusDB::getFileSyncStats("/v", 0, 10, count);
    ASSERT_EQ(count, 3);
    std::vector<std::string> got;
    for (int i = 0; i < count; ++i) got.push_back(all[i].path.str());
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (PathList{"/v/a", "/v/b", "/v/c"}));

    auto page = FileStatusDB::getFileSyncStats("/v", 2, 10, count);
    EXPECT_EQ(count, 1);
    EXPECT_NE(page, nullptr);
    EXPECT_EQ(FileStatusDB::getFileSyncStats("/v", 3, 10, count), nullptr);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(FileStatusDB::getFileSyncStats("/nothing", 0, 10, count), nullptr);
    EXPECT_EQ(FileStatusDB::getFileSyncStats("", 0, 10, count), nullptr);
}

TEST_F(FileStatus, SubtreeRemovalSparesSiblingsSharingThePrefix) {
    for (const char* p : {"/a/b", "/a/b/c", "/a/b/c/d", "/a/bc", "/a/b.txt", "/a/B/c", "/a"})
        Set(p);
    FileStatusInfo info;
    info.path = "/a/b";
    ASSERT_EQ(FileStatusDB::rmFileSyncStat(info), 0);
    EXPECT_EQ(Paths(), (PathList{"/a", "/a/B/c", "/a/b.txt", "/a/bc"}));
}

TEST_F(FileStatus, SubtreeRemovalOfAPathThatLooksLikeAPattern) {
    for (const char* p : {"/a/[x]", "/a/[x]/f", "/a/x/f", "/a/*", "/a/*/g", "/a/y/g"}) Set(p);
    FileStatusInfo info;
    info.path = "/a/[x]";
    ASSERT_EQ(FileStatusDB::rmFileSyncStat(info), 0);
    info.path = "/a/*";
    ASSERT_EQ(FileStatusDB::rmFileSyncStat(info), 0);
    EXPECT_EQ(Paths(), (PathList{"/a/x/f", "/a/y/g"}));
}

TEST_F(FileStatus, BulkOperations) {
    Set("/m/one");
    Set("/m/two");
    Set("/m/three", 5);
    ASSERT_EQ(FileStatusDB::updateAllSyncingEntry(), 0);
    FileStatusInfo info;
    ASSERT_EQ(FileStatusDB::getFileSyncStat("/m/one", &info), 1);
    EXPECT_EQ(info.syncStatus, 1);
    ASSERT_EQ(FileStatusDB::getFileSyncStat("/m/three", &info), 1);
    EXPECT_EQ(info.syncStatus, 5);
    EXPECT_FALSE(FileStatusDB::isAnySubFileDirSyncing("/m"));

    Set("/m/again");
    EXPECT_FALSE(FileStatusDB::isAnyFileSyncing());  // its statement is broken by design
    ASSERT_EQ(FileStatusDB::removeAllEntry(), 0);
    EXPECT_TRUE(Paths().empty());
}

TEST_F(FileStatus, NothingWorksAfterDestroyOrWithoutAPath) {
    FileStatusDB::destroy();
    FileStatusInfo info;
    info.path = "/x";
    EXPECT_EQ(FileStatusDB::setFileSyncStat(info), -1);
    EXPECT_EQ(FileStatusDB::removeAllEntry(), -1);
    EXPECT_EQ(FileStatusDB::initialize(""), -1);
    EXPECT_EQ(FileStatusDB::initialize(db().c_str()), 0);
    EXPECT_EQ(FileStatusDB::setFileSyncStat(info), 0);
}

TEST(FileStatusDamage, AFileThatIsNoDatabaseIsKeptAsideAndReplaced) {
    TempDir dir;
    const std::string path = dir / "fstat.sqlite";
    const std::string junk(8192, 'J');
    dir.write("fstat.sqlite", junk);
    const std::string log = dir / "daemon.log";
    ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, log.c_str(), "", 50), 0);
    EXPECT_EQ(FileStatusDB::initialize(path.c_str()), 0);
    Logger::Destroy();

    FileStatusInfo info;
    info.path = "/ok";
    EXPECT_EQ(FileStatusDB::setFileSyncStat(info), 0);
    FileStatusDB::destroy();

    const std::string text = Slurp(log);
    EXPECT_NE(text.find("'" + path + "' is not a usable database"), std::string::npos) << text;
    const size_t kept = text.find("kept as '");
    ASSERT_NE(kept, std::string::npos);
    const std::string aside = text.substr(kept + 9, text.find('\'', kept + 9) - kept - 9);
    EXPECT_EQ(Slurp(aside), junk);
}

// Another process (the sqlite3 shell, without any busy timeout) reads the table the
// whole time we write, remove and compact it.
TEST_F(FileStatus, AnotherProcessReadsWhileWeWrite) {
    const int kQueries = 2000;
    const std::string script = dir / "reader.sql";
    {
        std::ofstream out(script);
        for (int i = 0; i < kQueries; ++i) out << "SELECT count(*) FROM fstatinfo;\n";
    }
    const std::string errors = dir / "reader.err";
    const std::string command =
        "sqlite3 -bail '" + db() + "' < '" + script + "' 2> '" + errors + "'";
    FILE* reader = ::popen(command.c_str(), "r");
    ASSERT_NE(reader, nullptr);

    // The writer starts once the reader is connected: its own first open can meet ours
    // setting up the shared index, which only a busy timeout on its side would absorb.
    char buffer[64];
    ASSERT_NE(std::fgets(buffer, sizeof buffer, reader), nullptr);
    int lines = 1;
    std::atomic<bool> reader_done{false};
    int writes = 0;
    std::thread writer([&] {
        for (int i = 0; !reader_done.load() || i < 60; ++i, ++writes) {
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
    while (std::fgets(buffer, sizeof buffer, reader) != nullptr) ++lines;
    reader_done = true;
    writer.join();
    const int status = ::pclose(reader);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << Slurp(errors);
    EXPECT_EQ(lines, kQueries);
    EXPECT_EQ(Slurp(errors), "");
}

}  // namespace
