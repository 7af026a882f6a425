// The filter database on a real SQLite file: rules, size rules, resume conditions,
// held-back local events, restarts, and files that aren't databases or are damaged.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "filter/filter.h"
#include "foundation/log.h"
#include "peek.h"
#include "state/filter-db.h"
#include "support/temp-dir.h"

namespace {

bool Logged(const std::string& log, const std::string& text) {
    return ReadFile(log).find(text) != std::string::npos;
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

TEST_F(FilterDBFile, RulesAreKeptBySessionTypeAndTextAndComeBackByKind) {
    const struct {
        uint64_t sess, sync;
        int type;
        const char* desc;
    } rules[] = {
        {1, 10, FILTER_NAME_SELECTIVE_SYNC, "big.bin"},
        {1, 20, FILTER_NAME_SELECTIVE_SYNC, "big.bin"},  // the same rule: the first row stays
        {1, 30, FILTER_NAME_SELECTIVE_SYNC, "Big.bin"},  // case matters
        {1, 40, FILTER_EXT_SELECTIVE_SYNC, "big.bin"},
        {1, 1, FILTER_PATH_PREFIX_SELECTIVE_SYNC, "/Photos"},
        {1, 2, FILTER_PATH_PREFIX_SELECTIVE_SYNC, "/Music"},
        {1, 4, FILTER_EXT, "not-a-selective-kind"},
        {2, 50, FILTER_NAME_SELECTIVE_SYNC, "big.bin"},
        {2, 1, FILTER_PATH_PREFIX_SELECTIVE_SYNC, "/Photos"},
    };
    for (const auto& r : rules) ASSERT_EQ(db.setFilter(r.sess, r.sync, r.type, r.desc), 0);
    ASSERT_EQ(db.setSizeFilter(1, 5, 123), 0);
    EXPECT_EQ(db.rmFilter(1, FILTER_PATH_PREFIX_SELECTIVE_SYNC, "/Photos"), 0);
    EXPECT_EQ(db.rmFilter(1, FILTER_PATH_PREFIX_SELECTIVE_SYNC, "/absent"), 0);

    SelectiveSyncInfo one, two;
    ASSERT_EQ(db.ConvertFilterDBToSelectiveSyncInfo(1, one), 0);
    ASSERT_EQ(db.ConvertFilterDBToSelectiveSyncInfo(2, two), 0);
    EXPECT_EQ(descs(one.black_name), "Big.bin@30|big.bin@10");
    EXPECT_EQ(descs(one.black_ext), "big.bin@40");
    EXPECT_EQ(descs(one.black_prefix), "/Music@2");
    EXPECT_EQ(descs({one.black_size}), "123@5");
    EXPECT_TRUE(Logged(log(), "Unknow filter_type: 18446744073709551611"));
    EXPECT_EQ(descs(two.black_name), "big.bin@50");
    EXPECT_EQ(descs(two.black_prefix), "/Photos@1");
    EXPECT_TRUE(two.black_size.filter_desc.empty());
}

TEST_F(FilterDBFile, SizeRuleIsSetUpdatedAndRemovedOnlyByItsExactLimit) {
    FilterInfo size;
    ASSERT_EQ(db.setSizeFilter(1, 5, 100), 0);
    ASSERT_EQ(db.setSizeFilter(2, 6, 300), 0);
    ASSERT_EQ(db.updateSizeFilter(1, 100, 10737418240ull), 0);
    ASSERT_EQ(db.rmSizeFilter(1, 100), 0);  // no longer its limit
    ASSERT_EQ(db.getSizeFilter(1, size), 0);
    EXPECT_EQ(descs({size}), "10737418240@5");
    ASSERT_EQ(db.rmSizeFilter(1, 10737418240ull), 0);
    size = FilterInfo{7, "kept"};
    ASSERT_EQ(db.getSizeFilter(1, size), 0);
    EXPECT_EQ(size.filter_desc, ustring("kept"));
    ASSERT_EQ(db.getSizeFilter(2, size), 0);
    EXPECT_EQ(size.filter_desc, ustring("300"));
}

std::string Text(const ResumeCondition& c) {
    return std::to_string(c.sess_id) + "," + std::to_string(c.sync_id) + "," +
           std::to_string(c.filter_type) + "," + c.filter_desc.str();
}

TEST_F(FilterDBFile, ResumeConditionsOutliveARestartAndAreWorkedOff) {
    ResumeCondition cond;
    uint64_t id = 77, last = 0;
    ASSERT_EQ(db.getResumeCondition(id, cond), 0);
    EXPECT_EQ(id, 0u);
    std::map<uint64_t, std::string> want;
    for (const ResumeCondition& c :
         {ResumeCondition{1, 10, FILTER_EXT_SELECTIVE_SYNC, "iso"},
          ResumeCondition{2, 20, FILTER_NAME_SELECTIVE_SYNC, "it's"},
          ResumeCondition{1, 30, FILTER_FILE_SIZE_SELECTIVE_SYNC, "from=100,to=200"}}) {
        ASSERT_EQ(db.setResumeCondition(c, id), 0);
        EXPECT_GT(id, last);  // from 1 upward
        want[last = id] = Text(c);
    }
    ASSERT_EQ(db.updateResumeSyncId(last, 31), 0);
    want[last] = Text({1, 31, FILTER_FILE_SIZE_SELECTIVE_SYNC, "from=100,to=200"});
    ASSERT_EQ(db.destroy(), 0);
    EXPECT_EQ(db.destroy(), 0);  // closing twice is harmless
    ASSERT_EQ(db.initialize(path()), 0);
    EXPECT_EQ(db.initialize(path()), 0);  // already open: nothing happens

    std::list<std::pair<uint64_t, ResumeCondition>> list;
    ASSERT_EQ(db.getResumeConditionsBySession(1, list), 0);
    ASSERT_EQ(list.size(), 2u);
    for (const auto& [row, c] : list) EXPECT_EQ(Text(c), want[row]) << row;

    // Working them off one at a time empties the table.
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(db.getResumeCondition(id, cond), 0);
        EXPECT_EQ(Text(cond), want[id]) << id;
        ASSERT_EQ(db.rmResumeCondition(id), 0);
        want.erase(id);
    }
    EXPECT_TRUE(want.empty());
    ASSERT_EQ(db.getResumeCondition(id, cond), 0);
    EXPECT_EQ(id, 0u);
    // A new condition gets a new id, never one used before.
    ASSERT_EQ(db.setResumeCondition({3, 9, FILTER_EXT_SELECTIVE_SYNC, "x"}, id), 0);
    EXPECT_GT(id, last);
}

FilterLocalEvent event(uint64_t sess, const char* path, uint64_t size = 1) {
    return {.path = path,
            .file_checksum = "cafe",
            .base_name = "name",
            .win_hash = "w",
            .mac_hash = "m",
            .linux_hash = "l",
            .zeph_hash = "z",
            .sess_id = sess,
            .sync_id = 42,
            .file_size = size,
            .file_mod_time = 0xfffffff0u,
            .inode = 1ull << 40,
            .filtered_type = FILTER_FILE_SIZE_SELECTIVE_SYNC,
            .is_exist = 1};
}

std::string Text(const FilterLocalEvent& e) {
    std::ostringstream os;
    os << e.path.str() << '|' << e.file_checksum.str() << '|' << e.base_name.str() << '|'
       << e.win_hash.str() << '|' << e.mac_hash.str() << '|' << e.linux_hash.str() << '|'
       << e.zeph_hash.str() << '|' << e.sess_id << '|' << e.sync_id << '|' << e.file_size << '|'
       << e.event_type << '|' << e.file_mod_time << '|' << e.inode << '|' << e.file_type << '|'
       << e.filtered_type << '|' << e.is_exist;
    return os.str();
}

std::string Paths(FilterDB& db, uint64_t sess) {
    std::set<FilterLocalEvent> rows;
    EXPECT_EQ(db.dumpLocalFilteredEvent(sess, rows), 0);
    std::string paths;
    for (const auto& e : rows) paths += e.path.str() + " ";
    return paths;
}

TEST_F(FilterDBFile, FilteredLocalEventsAreStoredReplacedAndDumped) {
    FilterLocalEvent got;
    got.path = "stale";
    ASSERT_EQ(db.getLocalFilteredEventByPath(1, "/a.iso", got), 0);
    EXPECT_TRUE(got.path.empty());

    FilterLocalEvent first = event(1, "/a.iso", 100);
    first.event_type = 3;  // lives only in memory
    ASSERT_EQ(db.setLocalFilteredEvent(first), 0);
    ASSERT_EQ(db.setLocalFilteredEvent(event(1, "/a.iso", 200)), 0);  // replaces
    ASSERT_EQ(db.setLocalFilteredEvent(event(1, "/b/c.iso")), 0);
    ASSERT_EQ(db.setLocalFilteredEvent(event(2, "/a.iso", 300)), 0);
    ASSERT_EQ(db.getLocalFilteredEventByPath(1, "/a.iso", got), 0);
    EXPECT_EQ(Text(got), Text(event(1, "/a.iso", 200)));
    EXPECT_EQ(Paths(db, 1), "/a.iso /b/c.iso ");

    ASSERT_EQ(db.cleanLocalFilteredEventBySession(1), 0);
    EXPECT_EQ(Paths(db, 1), "");
    EXPECT_EQ(Paths(db, 2), "/a.iso ");
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
    EXPECT_EQ(Paths(db, 1), "/a /a/bc /q1/r /xy/z ");
    EXPECT_EQ(Paths(db, 2), "/a/b/c ");
}

TEST_F(FilterDBFile, EventOverflowIsAssumedUntilSet) {
    int overflow = -1;
    ASSERT_EQ(db.checkEventOverflow(overflow), 0);
    EXPECT_EQ(overflow, E_OVERFLOW);
    for (int value : {E_NOT_OVERFLOW, E_OVERFLOW}) {
        ASSERT_EQ(db.setConfigItem("event_overflow", std::to_string(value).c_str()), 0);
        ASSERT_EQ(db.checkEventOverflow(overflow), 0);
        EXPECT_EQ(overflow, value);
    }
}

TEST_F(FilterDBFile, FailedStatementIsLoggedAndTheDatabaseStaysOpen) {
    // Another process damages the schema behind our back.
    Rows(path(), "DROP TABLE filter_resume_table");

    ResumeCondition cond{1, 1, FILTER_EXT_SELECTIVE_SYNC, "mine"};
    uint64_t id = 9;
    EXPECT_EQ(db.getResumeCondition(id, cond), -1);
    EXPECT_EQ(id, 9u);
    EXPECT_EQ(cond.filter_desc, ustring("mine"));
    EXPECT_EQ(db.rmResumeCondition(id), -1);
    EXPECT_TRUE(
        Logged(log(), "FilterDB getResumeCondition fail: no such table: filter_resume_table"));
    EXPECT_EQ(db.setFilter(1, 1, FILTER_EXT_SELECTIVE_SYNC, "iso"), 0);
}

// A file that isn't a database is refused, every call on it fails and is logged.
TEST_F(FilterDBFile, NonDatabaseIsRefusedLoggedAndLeftAlone) {
    const std::string bad = dir / "bad.sqlite";
    const std::string text = "[File]\nblack_ext = \"tmp\"\n" + std::string(5000, '#') + "\n";
    dir.write("bad.sqlite", text);
    FilterDB refused;
    EXPECT_EQ(refused.initialize(bad), -1);
    EXPECT_TRUE(Logged(log(), "Failed to initialize database at '" + bad + "'"));
    EXPECT_TRUE(Logged(log(), "file is not a database"));
    uint64_t row = 0;
    SelectiveSyncInfo info;
    EXPECT_EQ(refused.setFilter(1, 1, FILTER_EXT_SELECTIVE_SYNC, "x"), -1);
    EXPECT_EQ(refused.setResumeCondition({1, 1, FILTER_EXT_SELECTIVE_SYNC, "x"}, row), -1);
    EXPECT_EQ(refused.ConvertFilterDBToSelectiveSyncInfo(1, info), -1);
    EXPECT_TRUE(Logged(log(), "FilterDB setFilter fail: database is not open"));
    EXPECT_EQ(ReadFile(bad), text);

    EXPECT_EQ(refused.initialize(dir / "no/such/dir/filter.sqlite"), -1);
    EXPECT_TRUE(Logged(log(), "Failed to open database at"));
}

TEST_F(FilterDBFile, DamagedFileIsRefusedOrFailsEachCallAndIsKept) {
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(db.setFilter(1, i, FILTER_NAME_SELECTIVE_SYNC, "name-" + std::to_string(i)), 0);
    db.destroy();
    // Scribble over every page but the first, which holds the schema.
    std::string bytes = ReadFile(path());
    ASSERT_GT(bytes.size(), 8192u);
    for (size_t i = 4096; i < bytes.size(); ++i) bytes[i] = static_cast<char>(0xa5 ^ (i * 7));
    dir.write("filter.sqlite", bytes);

    SelectiveSyncInfo info;
    EXPECT_TRUE(db.initialize(path()) != 0 || db.ConvertFilterDBToSelectiveSyncInfo(1, info) == -1);
    EXPECT_TRUE(info.black_name.empty());
    EXPECT_EQ(ReadFile(path()), bytes);
    EXPECT_TRUE(Logged(log(), "malformed"));
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
    EXPECT_EQ(descs({info.black_size}), "1048576@77");
    filter_destroy(&f);
}

using FilterDBConcurrency = FilterDBFile;

// Each thread finds its own rows under the ids it was given.
TEST_F(FilterDBConcurrency, ThreadsShareTheOneConnection) {
    constexpr int kThreads = 4, kEach = 40;
    auto desc = [](int t, uint64_t i) { return "t" + std::to_string(t) + "-" + std::to_string(i); };
    std::vector<std::set<uint64_t>> ids(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (uint64_t i = 0; i < kEach; ++i) {
                uint64_t id = 0;
                const ustring text(desc(t, i));
                EXPECT_EQ(
                    db.setResumeCondition({uint64_t(t), i, FILTER_NAME_SELECTIVE_SYNC, text}, id),
                    0);
                ids[t].insert(id);
                EXPECT_EQ(db.setFilter(t, i, FILTER_NAME_SELECTIVE_SYNC, text), 0);
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) {
        std::list<std::pair<uint64_t, ResumeCondition>> list;
        ASSERT_EQ(db.getResumeConditionsBySession(t, list), 0);
        EXPECT_EQ(list.size(), size_t(kEach));
        for (const auto& [id, c] : list) {
            EXPECT_EQ(c.filter_desc.str(), desc(t, c.sync_id));
            EXPECT_EQ(ids[t].count(id), 1u);
        }
    }
}

}  // namespace
