// The filter database on a real SQLite file: rules, size rules, resume conditions,
// held-back local events, restarts, and files that aren't databases.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "filter/filter.h"
#include "foundation/log.h"
#include "state/filter-db.h"
#include "support/temp-dir.h"

namespace {

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

class FilterDBFile : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, log(), "", 5), 0);
        ASSERT_EQ(db.initialize(path()), 0);
    }
    void TearDown() override {
        db.destroy();
        Logger::Destroy();
    }
    std::string path() const { return dir / "filter.sqlite"; }
    std::string log() const { return dir / "daemon.log"; }

    TempDir dir;
    FilterDB db;
};

std::string descs(const std::set<FilterInfo>& set) {
    std::string out;
    for (const FilterInfo& f : set)
        out += (out.empty() ? "" : "|") + f.filter_desc.str() + "@" + std::to_string(f.sync_id);
    return out;
}

TEST_F(FilterDBFile, SameRuleStoredTwiceKeepsTheFirstRow) {
    EXPECT_EQ(db.setFilter(1, 10, FILTER_NAME_SELECTIVE_SYNC, "big.bin"), 0);
    EXPECT_EQ(db.setFilter(1, 20, FILTER_NAME_SELECTIVE_SYNC, "big.bin"), 0);
    // Case matters: another spelling is another rule.
    EXPECT_EQ(db.setFilter(1, 30, FILTER_NAME_SELECTIVE_SYNC, "Big.bin"), 0);
    // Same text, other type or session: separate rows.
    EXPECT_EQ(db.setFilter(1, 40, FILTER_EXT_SELECTIVE_SYNC, "big.bin"), 0);
    EXPECT_EQ(db.setFilter(2, 50, FILTER_NAME_SELECTIVE_SYNC, "big.bin"), 0);
    SelectiveSyncInfo info;
    ASSERT_EQ(db.ConvertFilterDBToSelectiveSyncInfo(1, info), 0);
    EXPECT_EQ(descs(info.black_name), "Big.bin@30|big.bin@10");
    EXPECT_EQ(descs(info.black_ext), "big.bin@40");
    EXPECT_TRUE(info.black_prefix.empty());
}

TEST_F(FilterDBFile, RulesAreRemovedBySessionTypeAndText) {
    db.setFilter(1, 1, FILTER_PATH_PREFIX_SELECTIVE_SYNC, "/Photos");
    db.setFilter(1, 1, FILTER_PATH_PREFIX_SELECTIVE_SYNC, "/Music");
    db.setFilter(2, 1, FILTER_PATH_PREFIX_SELECTIVE_SYNC, "/Photos");
    EXPECT_EQ(db.rmFilter(1, FILTER_PATH_PREFIX_SELECTIVE_SYNC, "/Photos"), 0);
    EXPECT_EQ(db.rmFilter(1, FILTER_PATH_PREFIX_SELECTIVE_SYNC, "/absent"), 0);
    SelectiveSyncInfo one, two;
    ASSERT_EQ(db.ConvertFilterDBToSelectiveSyncInfo(1, one), 0);
    ASSERT_EQ(db.ConvertFilterDBToSelectiveSyncInfo(2, two), 0);
    EXPECT_EQ(descs(one.black_prefix), "/Music@1");
    EXPECT_EQ(descs(two.black_prefix), "/Photos@1");
}

TEST_F(FilterDBFile, SizeRuleIsSetUpdatedAndRemoved) {
    FilterInfo size{99, "untouched"};
    ASSERT_EQ(db.getSizeFilter(1, size), 0);
    EXPECT_EQ(size.filter_desc, ustring("untouched"));

    ASSERT_EQ(db.setSizeFilter(1, 5, 100), 0);
    ASSERT_EQ(db.setSizeFilter(2, 6, 300), 0);
    ASSERT_EQ(db.getSizeFilter(1, size), 0);
    EXPECT_EQ(size.filter_desc, ustring("100"));
    EXPECT_EQ(size.sync_id, 5u);

    ASSERT_EQ(db.updateSizeFilter(1, 100, 10737418240ull), 0);
    ASSERT_EQ(db.getSizeFilter(1, size), 0);
    EXPECT_EQ(size.filter_desc, ustring("10737418240"));
    SelectiveSyncInfo info;
    ASSERT_EQ(db.ConvertFilterDBToSelectiveSyncInfo(1, info), 0);
    EXPECT_EQ(info.black_size.filter_desc, ustring("10737418240"));

    // Only the exact limit is removed.
    ASSERT_EQ(db.rmSizeFilter(1, 100), 0);
    ASSERT_EQ(db.getSizeFilter(1, size), 0);
    EXPECT_EQ(size.filter_desc, ustring("10737418240"));
    ASSERT_EQ(db.rmSizeFilter(1, 10737418240ull), 0);
    size = FilterInfo{7, "kept"};
    ASSERT_EQ(db.getSizeFilter(1, size), 0);
    EXPECT_EQ(size.filter_desc, ustring("kept"));
    ASSERT_EQ(db.getSizeFilter(2, size), 0);
    EXPECT_EQ(size.filter_desc, ustring("300"));
}

TEST_F(FilterDBFile, ResumeConditionsAreListedUpdatedAndWorkedOff) {
    uint64_t none = 77;
    ResumeCondition cond;
    ASSERT_EQ(db.getResumeCondition(none, cond), 0);
    EXPECT_EQ(none, 0u);

    uint64_t ids[3] = {};
    ASSERT_EQ(db.setResumeCondition({1, 10, FILTER_EXT_SELECTIVE_SYNC, "iso"}, ids[0]), 0);
    ASSERT_EQ(db.setResumeCondition({2, 20, FILTER_NAME_SELECTIVE_SYNC, "it's"}, ids[1]), 0);
    ASSERT_EQ(
        db.setResumeCondition({1, 30, FILTER_FILE_SIZE_SELECTIVE_SYNC, "from=100,to=200"}, ids[2]),
        0);
    EXPECT_GE(ids[0], 1u);
    EXPECT_LT(ids[0], ids[1]);
    EXPECT_LT(ids[1], ids[2]);

    ASSERT_EQ(db.updateResumeSyncId(ids[2], 31), 0);
    std::list<std::pair<uint64_t, ResumeCondition>> list;
    ASSERT_EQ(db.getResumeConditionsBySession(1, list), 0);
    ASSERT_EQ(list.size(), 2u);
    for (const auto& [id, c] : list) {
        EXPECT_EQ(c.sess_id, 1u);
        if (id == ids[2]) {
            EXPECT_EQ(c.sync_id, 31u);
            EXPECT_EQ(c.filter_type, FILTER_FILE_SIZE_SELECTIVE_SYNC);
            EXPECT_EQ(c.filter_desc, ustring("from=100,to=200"));
        } else {
            EXPECT_EQ(id, ids[0]);
            EXPECT_EQ(c.filter_desc, ustring("iso"));
        }
    }

    // Working them off one at a time empties the table.
    std::set<uint64_t> seen;
    for (int i = 0; i < 3; ++i) {
        uint64_t id = 0;
        ASSERT_EQ(db.getResumeCondition(id, cond), 0);
        ASSERT_NE(id, 0u);
        EXPECT_TRUE(seen.insert(id).second);
        if (id == ids[1]) {
            EXPECT_EQ(cond.filter_desc, ustring("it's"));
        }
        ASSERT_EQ(db.rmResumeCondition(id), 0);
    }
    uint64_t id = 5;
    ASSERT_EQ(db.getResumeCondition(id, cond), 0);
    EXPECT_EQ(id, 0u);
}

TEST_F(FilterDBFile, EverythingIsFoundAgainAfterARestart) {
    uint64_t row = 0;
    ASSERT_EQ(db.setResumeCondition({3, 8, FILTER_PATH_PREFIX_SELECTIVE_SYNC, "/Old"}, row), 0);
    ASSERT_EQ(db.setFilter(3, 8, FILTER_EXT_SELECTIVE_SYNC, "mkv"), 0);
    ASSERT_EQ(db.setSizeFilter(3, 8, 4096), 0);
    ASSERT_EQ(db.destroy(), 0);
    EXPECT_EQ(db.destroy(), 0);  // closing twice is harmless

    FilterDB reopened;
    ASSERT_EQ(reopened.initialize(path()), 0);
    EXPECT_EQ(reopened.initialize(path()), 0);  // already open: nothing happens
    std::list<std::pair<uint64_t, ResumeCondition>> list;
    ASSERT_EQ(reopened.getResumeConditionsBySession(3, list), 0);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list.front().first, row);
    EXPECT_EQ(list.front().second.filter_desc, ustring("/Old"));
    SelectiveSyncInfo info;
    ASSERT_EQ(reopened.ConvertFilterDBToSelectiveSyncInfo(3, info), 0);
    EXPECT_EQ(descs(info.black_ext), "mkv@8");
    EXPECT_EQ(info.black_size.filter_desc, ustring("4096"));
    // A new condition gets a new id, never one used before.
    uint64_t next = 0;
    ASSERT_EQ(reopened.rmResumeCondition(row), 0);
    ASSERT_EQ(reopened.setResumeCondition({3, 9, FILTER_EXT_SELECTIVE_SYNC, "x"}, next), 0);
    EXPECT_GT(next, row);
    reopened.destroy();

    // The file is in WAL mode with its version row.
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(path().c_str(), &raw), SQLITE_OK);
    char** table = nullptr;
    int rows = 0, cols = 0;
    ASSERT_EQ(sqlite3_get_table(raw,
                                "PRAGMA journal_mode; SELECT value FROM config_table WHERE "
                                "key = 'version';",
                                &table, &rows, &cols, nullptr),
              SQLITE_OK);
    ASSERT_EQ(rows, 2);
    EXPECT_STREQ(table[1], "wal");
    EXPECT_STREQ(table[2], "1");
    sqlite3_free_table(table);
    sqlite3_close(raw);
}

FilterLocalEvent event(uint64_t sess, const char* path, uint64_t size = 1) {
    FilterLocalEvent e;
    e.sess_id = sess;
    e.path = path;
    e.file_size = size;
    e.file_type = 0;
    e.is_exist = 1;
    e.sync_id = 42;
    e.file_mod_time = 0xfffffff0u;
    e.file_checksum = "cafe";
    e.base_name = "name";
    e.win_hash = "w";
    e.mac_hash = "m";
    e.linux_hash = "l";
    e.zeph_hash = "z";
    e.inode = 1ull << 40;
    e.filtered_type = FILTER_FILE_SIZE_SELECTIVE_SYNC;
    e.event_type = 3;
    return e;
}

TEST_F(FilterDBFile, FilteredLocalEventsAreStoredReplacedAndDumped) {
    FilterLocalEvent got;
    got.path = "stale";
    ASSERT_EQ(db.getLocalFilteredEventByPath(1, "/a.iso", got), 0);
    EXPECT_TRUE(got.path.empty());

    ASSERT_EQ(db.setLocalFilteredEvent(event(1, "/a.iso", 100)), 0);
    ASSERT_EQ(db.setLocalFilteredEvent(event(1, "/a.iso", 200)), 0);  // replaces
    ASSERT_EQ(db.setLocalFilteredEvent(event(1, "/b/c.iso")), 0);
    ASSERT_EQ(db.setLocalFilteredEvent(event(2, "/a.iso", 300)), 0);

    ASSERT_EQ(db.getLocalFilteredEventByPath(1, "/a.iso", got), 0);
    FilterLocalEvent want = event(1, "/a.iso", 200);
    EXPECT_EQ(got.path, want.path);
    EXPECT_EQ(got.sess_id, 1u);
    EXPECT_EQ(got.file_size, 200u);
    EXPECT_EQ(got.sync_id, 42u);
    EXPECT_EQ(got.file_mod_time, want.file_mod_time);
    EXPECT_EQ(got.file_checksum, want.file_checksum);
    EXPECT_EQ(got.base_name, want.base_name);
    EXPECT_EQ(got.win_hash, want.win_hash);
    EXPECT_EQ(got.mac_hash, want.mac_hash);
    EXPECT_EQ(got.linux_hash, want.linux_hash);
    EXPECT_EQ(got.zeph_hash, want.zeph_hash);
    EXPECT_EQ(got.inode, want.inode);
    EXPECT_EQ(got.filtered_type, want.filtered_type);
    EXPECT_EQ(got.is_exist, 1);
    EXPECT_EQ(got.event_type, 0u);  // lives only in memory

    std::set<FilterLocalEvent> all;
    ASSERT_EQ(db.dumpLocalFilteredEvent(1, all), 0);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all.begin()->path, ustring("/a.iso"));
    EXPECT_EQ(all.rbegin()->path, ustring("/b/c.iso"));

    ASSERT_EQ(db.cleanLocalFilteredEventBySession(1), 0);
    all.clear();
    ASSERT_EQ(db.dumpLocalFilteredEvent(1, all), 0);
    EXPECT_TRUE(all.empty());
    ASSERT_EQ(db.dumpLocalFilteredEvent(2, all), 0);
    EXPECT_EQ(all.size(), 1u);
}

TEST_F(FilterDBFile, RemovingAPathTakesItsSubtreeAndNothingElse) {
    for (const char* p : {"/a/b", "/a/b/c", "/a/b/c/d", "/a/bc", "/a", "/x*", "/x*/in", "/xy/z",
                          "/q[1]/r", "/q1/r"})
        ASSERT_EQ(db.setLocalFilteredEvent(event(1, p)), 0);
    ASSERT_EQ(db.setLocalFilteredEvent(event(2, "/a/b/c")), 0);

    ASSERT_EQ(db.rmLocalFilteredEventByPath(1, "/a/b"), 0);
    // Wildcard characters in a path are its own characters.
    ASSERT_EQ(db.rmLocalFilteredEventByPath(1, "/x*"), 0);
    ASSERT_EQ(db.rmLocalFilteredEventByPath(1, "/q[1]"), 0);
    std::set<FilterLocalEvent> left;
    ASSERT_EQ(db.dumpLocalFilteredEvent(1, left), 0);
    std::string paths;
    for (const auto& e : left) paths += e.path.str() + " ";
    EXPECT_EQ(paths, "/a /a/bc /q1/r /xy/z ");
    left.clear();
    ASSERT_EQ(db.dumpLocalFilteredEvent(2, left), 0);
    EXPECT_EQ(left.size(), 1u);
}

TEST_F(FilterDBFile, SelectiveSyncInfoComesBackByKindAndUnknownTypesAreSkipped) {
    db.setFilter(4, 1, FILTER_PATH_PREFIX_SELECTIVE_SYNC, "/P");
    db.setFilter(4, 2, FILTER_NAME_SELECTIVE_SYNC, "n");
    db.setFilter(4, 3, FILTER_EXT_SELECTIVE_SYNC, "e");
    db.setFilter(4, 4, FILTER_EXT, "not-a-selective-kind");
    db.setSizeFilter(4, 5, 123);
    SelectiveSyncInfo info;
    ASSERT_EQ(db.ConvertFilterDBToSelectiveSyncInfo(4, info), 0);
    EXPECT_EQ(descs(info.black_prefix), "/P@1");
    EXPECT_EQ(descs(info.black_name), "n@2");
    EXPECT_EQ(descs(info.black_ext), "e@3");
    EXPECT_EQ(info.black_size.filter_desc, ustring("123"));
    EXPECT_EQ(info.black_size.sync_id, 5u);
    EXPECT_NE(slurp(log()).find("Unknow filter_type: 18446744073709551611"), std::string::npos);
}

TEST_F(FilterDBFile, EventOverflowIsAssumedUntilSet) {
    int overflow = -1;
    ASSERT_EQ(db.checkEventOverflow(overflow), 0);
    EXPECT_EQ(overflow, E_OVERFLOW);
    ASSERT_EQ(db.setConfigItem("event_overflow", "0"), 0);
    ASSERT_EQ(db.checkEventOverflow(overflow), 0);
    EXPECT_EQ(overflow, E_NOT_OVERFLOW);
    ASSERT_EQ(db.setConfigItem("event_overflow", "1"), 0);
    ASSERT_EQ(db.checkEventOverflow(overflow), 0);
    EXPECT_EQ(overflow, E_OVERFLOW);
}

TEST(FilterDBBadFile, NonDatabaseIsRefusedLoggedAndLeftAlone) {
    TempDir dir;
    ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, dir / "log", "", 5), 0);
    const std::string text = "[File]\nblack_ext = \"tmp\"\n" + std::string(5000, '#') + "\n";
    dir.write("filter.sqlite", text);
    FilterDB db;
    EXPECT_EQ(db.initialize(dir / "filter.sqlite"), -1);
    EXPECT_EQ(slurp(dir / "filter.sqlite"), text);
    std::string log = slurp(dir / "log");
    EXPECT_NE(log.find("Failed to initialize database at '" + (dir / "filter.sqlite") + "'"),
              std::string::npos);
    EXPECT_NE(log.find("file is not a database"), std::string::npos);

    // Nothing works on a database that isn't open, and each refusal is logged.
    uint64_t row = 0;
    EXPECT_EQ(db.setFilter(1, 1, FILTER_EXT_SELECTIVE_SYNC, "x"), -1);
    EXPECT_EQ(db.setResumeCondition({1, 1, FILTER_EXT_SELECTIVE_SYNC, "x"}, row), -1);
    SelectiveSyncInfo info;
    EXPECT_EQ(db.ConvertFilterDBToSelectiveSyncInfo(1, info), -1);
    EXPECT_NE(slurp(dir / "log").find("FilterDB setFilter fail: database is not open"),
              std::string::npos);
    EXPECT_EQ(slurp(dir / "filter.sqlite"), text);

    EXPECT_EQ(db.initialize(dir / "no/such/dir/filter.sqlite"), -1);
    EXPECT_NE(slurp(dir / "log").find("Failed to open database at"), std::string::npos);
    Logger::Destroy();
}

TEST(FilterDBBadFile, DamagedFileIsRefusedOrFailsEachCallAndIsKept) {
    TempDir dir;
    ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, dir / "log", "", 5), 0);
    const std::string path = dir / "filter.sqlite";
    {
        FilterDB db;
        ASSERT_EQ(db.initialize(path), 0);
        for (int i = 0; i < 200; ++i)
            ASSERT_EQ(db.setFilter(1, i, FILTER_NAME_SELECTIVE_SYNC,
                                   ustring(("name-" + std::to_string(i)).c_str())),
                      0);
        db.destroy();
    }
    // Scribble over every page but the first, which holds the schema.
    std::string bytes = slurp(path);
    ASSERT_GT(bytes.size(), 8192u);
    for (size_t i = 4096; i < bytes.size(); ++i) bytes[i] = static_cast<char>(0xa5 ^ (i * 7));
    dir.write("filter.sqlite", bytes);

    FilterDB db;
    SelectiveSyncInfo info;
    if (db.initialize(path) == 0) {
        EXPECT_EQ(db.ConvertFilterDBToSelectiveSyncInfo(1, info), -1);
    }
    EXPECT_TRUE(info.black_name.empty());
    EXPECT_EQ(slurp(path), bytes);
    EXPECT_NE(slurp(dir / "log").find("malformed"), std::string::npos);
    db.destroy();
    Logger::Destroy();
}

TEST_F(FilterDBFile, FailedStatementIsLoggedAndTheDatabaseStaysOpen) {
    uint64_t row = 0;
    ASSERT_EQ(db.setResumeCondition({1, 1, FILTER_EXT_SELECTIVE_SYNC, "iso"}, row), 0);
    // Another process damages the schema behind our back.
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(path().c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "DROP TABLE filter_resume_table;", nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(other);

    ResumeCondition cond;
    cond.filter_desc = "mine";
    uint64_t id = 9;
    EXPECT_EQ(db.getResumeCondition(id, cond), -1);
    EXPECT_EQ(id, 9u);
    EXPECT_EQ(cond.filter_desc, ustring("mine"));
    EXPECT_EQ(db.rmResumeCondition(row), -1);
    std::string text = slurp(log());
    EXPECT_NE(text.find("FilterDB getResumeCondition fail: no such table: filter_resume_table"),
              std::string::npos);
    EXPECT_NE(text.find("FilterDB rmResumeCondition fail: no such table"), std::string::npos);
    EXPECT_EQ(db.setFilter(1, 1, FILTER_EXT_SELECTIVE_SYNC, "iso"), 0);
}

TEST(SelectiveSyncConversion, FilterFileRulesByKindWithRepeatsCollapsed) {
    Filter f;
    ASSERT_EQ(filter_init(&f), 0);
    vt_string_set_insert(&f.Common.black_path_prefix_selective_sync, "/Photos");
    vt_string_set_insert(&f.Common.black_path_prefix_selective_sync, "/Photos");
    vt_string_set_insert(&f.Common.black_prefix, "~$");  // not a selective-sync rule
    vt_string_set_insert(&f.File.black_name_selective_sync, "big.bin");
    vt_string_set_insert(&f.File.black_ext_selective_sync, "iso");
    vt_string_set_insert(&f.File.black_ext_selective_sync, "ISO");
    f.File.max_size_selective_sync = 1048576;
    SelectiveSyncInfo info;
    ConvertFilterFileToSelectiveSyncInfo(1, 77, f, info);
    EXPECT_EQ(descs(info.black_prefix), "/Photos@77");
    EXPECT_EQ(descs(info.black_name), "big.bin@77");
    EXPECT_EQ(descs(info.black_ext), "ISO@77|iso@77");
    EXPECT_EQ(info.black_size.filter_desc, ustring("1048576"));
    EXPECT_EQ(info.black_size.sync_id, 77u);
    filter_destroy(&f);
}

TEST(FilterDBConcurrency, ThreadsShareTheOneConnection) {
    TempDir dir;
    FilterDB db;
    ASSERT_EQ(db.initialize(dir / "filter.sqlite"), 0);
    constexpr int kThreads = 4, kEach = 40;
    std::vector<std::vector<uint64_t>> ids(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                uint64_t id = 0;
                ustring desc(("t" + std::to_string(t) + "-" + std::to_string(i)).c_str());
                EXPECT_EQ(db.setResumeCondition(
                              {uint64_t(t), uint64_t(i), FILTER_NAME_SELECTIVE_SYNC, desc}, id),
                          0);
                ids[t].push_back(id);
                EXPECT_EQ(db.setFilter(t, i, FILTER_NAME_SELECTIVE_SYNC, desc), 0);
            }
        });
    }
    for (auto& th : threads) th.join();
    std::set<uint64_t> unique;
    for (const auto& v : ids) unique.insert(v.begin(), v.end());
    EXPECT_EQ(unique.size(), size_t(kThreads * kEach));
    EXPECT_EQ(unique.count(0), 0u);
    for (int t = 0; t < kThreads; ++t) {
        std::list<std::pair<uint64_t, ResumeCondition>> list;
        ASSERT_EQ(db.getResumeConditionsBySession(t, list), 0);
        EXPECT_EQ(list.size(), size_t(kEach));
        for (const auto& [id, c] : list)
            EXPECT_EQ(c.filter_desc,
                      ustring(("t" + std::to_string(t) + "-" + std::to_string(c.sync_id)).c_str()));
    }
    db.destroy();
}

}  // namespace
