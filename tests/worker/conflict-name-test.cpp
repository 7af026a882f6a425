// The names a conflicting local file is moved aside to: where the suffix goes, how taken
// names are numbered, how long suffixes are cut, and that nothing is overwritten.
#include <gtest/gtest.h>
#include <time.h>

#include "foundation/log.h"
#include "platform/clock.h"
#include "support/temp-dir.h"
#include "worker/conflict-name.h"

namespace {

constexpr const char* kStamp = "Mar-05-1407-2013";

class ConflictNames : public ::testing::Test {
  protected:
    void SetUp() override {
        // Each test runs in its own process, so the zone may be set for all of it.
        ::setenv("TZ", "UTC", 1);
        ::tzset();
        dir.write("levels", "conflict_rename_debug = 7\n");
        ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, (dir / "log").c_str(),
                                     (dir / "levels").c_str(), 1),
                  0);
    }
    void TearDown() override { Logger::Destroy(); }

    TempDir dir;
    platform::ManualClock clock{1362492450};  // 2013-03-05 14:07:30 UTC
    platform::ScopedClock use_clock{clock};
};

TEST_F(ConflictNames, SuffixGoesBeforeTheExtensionAndTakenNamesAreNumberedFromOne) {
    EXPECT_EQ(ConflictTimeStamp(platform::Now()).str(), kStamp);
    const std::string first = dir / "report_PC1_Mar-05-1407-2013_conflict.doc";
    dir.write("report.doc", "one");
    ASSERT_EQ(ConflictRename((dir / "report.doc").c_str(), "PC1", "conflict"), 0);
    EXPECT_EQ(ReadFile(first), "one");
    dir.write("report.doc", "two");
    ASSERT_EQ(ConflictRename((dir / "report.doc").c_str(), "PC1", "conflict"), 0);
    EXPECT_EQ(ReadFile(dir / "report_PC1_Mar-05-1407-2013_conflict_1.doc"), "two");
    EXPECT_EQ(ReadFile(first), "one");
    EXPECT_EQ(CountIn(ReadFile(dir / "log"), "ConflictRename from ["), 2u);
}

TEST_F(ConflictNames, NamesWithoutExtensionsTakeTheSuffixAtTheEnd) {
    const std::string s = "_PC1_Mar-05-1407-2013_conflict";
    ASSERT_EQ(::mkdir((dir / "v1.d").c_str(), 0700), 0);
    for (const std::string name : {"plain", ".bashrc", "v1.d/notes"}) dir.write(name, name);
    for (const std::string name : {"plain", ".bashrc", "v1.d/notes"})
        ASSERT_EQ(ConflictRename((dir / name).c_str(), "PC1", "conflict"), 0) << name;
    EXPECT_EQ(ReadFile(dir / ("plain" + s)), "plain");
    EXPECT_EQ(ReadFile(dir / (s + ".bashrc")), ".bashrc");
    EXPECT_EQ(ReadFile(dir / ("v1.d/notes" + s)), "v1.d/notes");

    // A trailing dot stays ahead of the suffix at first, behind the number after.
    dir.write("note.", "a");
    ASSERT_EQ(ConflictRename((dir / "note.").c_str(), "PC1", "conflict"), 0);
    dir.write("note.", "b");
    ASSERT_EQ(ConflictRename((dir / "note.").c_str(), "PC1", "conflict"), 0);
    EXPECT_EQ(ReadFile(dir / ("note." + s)), "a");
    EXPECT_EQ(ReadFile(dir / ("note" + s + "_1.")), "b");
}

TEST_F(ConflictNames, AllNumbersTakenRefusesRatherThanOverwrite) {
    const std::string stem = "f_PC1_Mar-05-1407-2013_conflict";
    dir.write(stem + ".txt", "taken");
    for (int i = 1; i <= 99; ++i) dir.write(stem + "_" + std::to_string(i) + ".txt", "taken");
    dir.write("f.txt", "mine");
    EXPECT_LT(ConflictRename((dir / "f.txt").c_str(), "PC1", "conflict"), 0);
    EXPECT_EQ(ReadFile(dir / "f.txt"), "mine");
    EXPECT_EQ(ReadFile(dir / (stem + "_99.txt")), "taken");
    EXPECT_EQ(CountIn(ReadFile(dir / "log"), "ConflictRename failed."), 1u);
}

TEST_F(ConflictNames, LongSuffixIsCutToItsBufferWithoutSplittingACharacter) {
    // "_b" and then four-byte characters of two UTF-16 units each: the 1023rd unit is the
    // first half of a pair, so the cut keeps 510 of them.
    std::string client = "b";
    for (int i = 0; i < 1100; ++i) client += "\xF0\x9F\x98\x80";
    dir.write("a.txt", "a");
    EXPECT_LT(ConflictRename((dir / "a.txt").c_str(), client.c_str(), "conflict"), 0);
    const std::string log = ReadFile(dir / "log");
    const size_t to = log.find("To:[");
    ASSERT_NE(to, std::string::npos);
    const std::string target = log.substr(to + 4, log.find(']', to) - to - 4);
    const std::string kept = "_" + client.substr(0, 1 + 4 * 510);
    EXPECT_EQ(target, dir / ("a" + kept + ".txt"));
    EXPECT_EQ(ReadFile(dir / "a.txt"), "a");
}

TEST_F(ConflictNames, BlanksAroundANameAreTrimmedOrNumberedFromZero) {
    dir.write("  a.txt ", "first");
    ASSERT_EQ(WhiteSpaceConflictRename((dir / "  a.txt ").c_str(), "  a.txt ", "PC1"), 0);
    EXPECT_EQ(ReadFile(dir / "a.txt"), "first");

    const std::string stem = "a_PC1_Mar-05-1407-2013_WhiteSpaceConflict";
    for (const char* content : {"second", "third"}) {
        dir.write(" a.txt", content);
        ASSERT_EQ(WhiteSpaceConflictRename((dir / " a.txt").c_str(), " a.txt", "PC1"), 0);
    }
    EXPECT_EQ(ReadFile(dir / (stem + ".txt")), "second");
    EXPECT_EQ(ReadFile(dir / (stem + "_0.txt")), "third");
    EXPECT_EQ(ReadFile(dir / "a.txt"), "first");
}

}  // namespace
