// The size rule across reloads: a limit raised or dropped asks for exactly the sizes it
// hid, a limit lowered asks for nothing, and "no limit" read again changes nothing.
#include <gtest/gtest.h>

#include <list>
#include <string>
#include <vector>

#include "daemon/filter-reload.h"
#include "pulling/progress-cache.h"
#include "state/filter-db.h"
#include "support/temp-dir.h"

namespace {

class SizeRuleReload : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(FilterDB::getInstance().initialize((dir / "filter.sqlite").c_str()), 0);
    }
    void TearDown() override { FilterDB::getInstance().destroy(); }
    // Reloads a filter file with the size limit `limit`; the conditions stored so far.
    std::vector<std::string> Reload(uint64_t limit) {
        dir.write("f.filter",
                  "[Version]\nmajor = 1\nminor = 0\n[File]\nmax_size_selective_sync = " +
                      std::to_string(limit) + "\n");
        EXPECT_EQ(
            reload_filter(kSession, 40, (dir / "f.filter").c_str(), dir.path().c_str(), nullptr),
            0);
        std::list<std::pair<uint64_t, ResumeCondition>> rows;
        EXPECT_EQ(FilterDB::getInstance().getResumeConditionsBySession(kSession, rows), 0);
        std::vector<std::string> texts;
        for (const auto& [id, c] : rows) texts.push_back(c.filter_desc.str());
        return texts;
    }
    static constexpr uint64_t kSession = 3;
    TempDir dir;
};

TEST_F(SizeRuleReload, OnlyALooserLimitAsksForWhatItHid) {
    EXPECT_TRUE(Reload(100).empty());
    EXPECT_EQ(Reload(200), (std::vector<std::string>{"from=100,to=200"}));
    EXPECT_EQ(Reload(150).size(), 1u);
    EXPECT_EQ(Reload(0), (std::vector<std::string>{"from=100,to=200", "from=150,to=10737418240"}));
    EXPECT_EQ(Reload(0).size(), 2u);
    EXPECT_TRUE(ProgressCache::getInstance().isInProgrssCache(kSession));

    uint64_t low = 7, high = 7;
    EXPECT_EQ(DecodeResumeSizeFilterDesc("from=100", low, high), -1);
    EXPECT_EQ(DecodeResumeSizeFilterDesc("from=1,to=2x", low, high), -1);
    EXPECT_EQ(low, 7u);
    EXPECT_EQ(DecodeResumeSizeFilterDesc("from=150,to=10737418240", low, high), 0);
    EXPECT_EQ(high, kUnlimitedResumeSize);
}

}  // namespace
