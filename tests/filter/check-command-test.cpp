// `tarnbridge filter check` run as a user would: the verdict and rule for each path, and a
// filter file that doesn't parse reported with its line and a failing exit.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "support/temp-dir.h"

namespace {

const std::string kController = std::string(TB_BINARY_DIR) + "/tools/tarnbridge/tarnbridge";

struct CheckRun {
    int status = -1;
    std::string out;
};

CheckRun check(const std::string& args) {
    CheckRun run;
    FILE* pipe = ::popen((kController + " filter " + args + " 2>/dev/null").c_str(), "r");
    if (pipe == nullptr) return run;
    char buf[512];
    size_t n = 0;
    while ((n = std::fread(buf, 1, sizeof buf, pipe)) > 0) run.out.append(buf, n);
    int raw = ::pclose(pipe);
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return run;
}

TEST(FilterCheckCommand, NamesTheRuleThatHoldsEachPathBack) {
    TempDir dir;
    dir.write("good",
              "[Version]\nmajor = 1\nminor = 0\n[File]\nblack_ext = \"tmp\"\n"
              "[Directory]\nblack_name = \".git\"\n");
    CheckRun run = check("check " + (dir / "good") + " /a/x.txt /a/x.tmp /.git/ /.git");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, dir / "good" + ": ok, version 1.0\n" +
                           "/a/x.txt: synchronised\n"
                           "/a/x.tmp: not synchronised: FILTER_EXT, File.black_ext \"tmp\" "
                           "(matched \"tmp\")\n"
                           "/.git/: not synchronised: FILTER_NAME, Directory.black_name \".git\" "
                           "(matched \".git\")\n"
                           "/.git: synchronised\n");
}

TEST(FilterCheckCommand, BrokenOrMissingFileFailsWithItsLineAndSaysEverythingWouldSync) {
    TempDir dir;
    dir.write("bad", "[File]\nblack_ext = \"tmp\"\nmax_size = 12kb\n");
    CheckRun bad = check("check " + (dir / "bad") + " /a.tmp");
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.out.find("error: VALUE_NUMERIC_ILLEGAL_SYNTAX at line 3\n"), std::string::npos);
    EXPECT_NE(bad.out.find("empty filter, which synchronises everything"), std::string::npos);
    EXPECT_NE(bad.out.find("/a.tmp: synchronised\n"), std::string::npos);

    EXPECT_EQ(check("check " + (dir / "absent")).status, 1);
    EXPECT_EQ(check("list " + (dir / "bad")).status, 2);
}

}  // namespace
