// `tarnbridge filter check` run as a user would: the verdict and rule for each path, and a
// filter file that doesn't parse reported with its line and a failing exit.
#include <gtest/gtest.h>
#include <string>

#include "support/process.h"
#include "support/temp-dir.h"

namespace {

// The controller's filter command: its exit status and standard output.
RunResult check(const std::string& args) {
    ChildProcess run({"/bin/sh", "-c", kControllerBinary + " filter " + args},
                     {{}, {}, "/dev/null"});
    return {run.Wait(), run.Out()};
}

TEST(FilterCheckCommand, NamesTheRuleThatHoldsEachPathBack) {
    TempDir dir;
    dir.write("good",
              "[Version]\nmajor = 1\nminor = 0\n[File]\nblack_ext = \"tmp\"\n"
              "[Directory]\nblack_name = \".git\"\n");
    RunResult run = check("check " + (dir / "good") + " /a/x.txt /a/x.tmp /.git/ /.git");
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
    RunResult bad = check("check " + (dir / "bad") + " /a.tmp");
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.out.find("error: VALUE_NUMERIC_ILLEGAL_SYNTAX at line 3\n"), std::string::npos);
    EXPECT_NE(bad.out.find("empty filter, which synchronises everything"), std::string::npos);
    EXPECT_NE(bad.out.find("/a.tmp: synchronised\n"), std::string::npos);

    EXPECT_EQ(check("check " + (dir / "absent")).status, 1);
    EXPECT_EQ(check("list " + (dir / "bad")).status, 2);
}

}  // namespace
