// The tarnbridge-delta command-line tool: each command end to end, and what it does with bad
// input: a clear message, a non-zero exit, and nothing left under the output's name.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

#include "delta-test-support.h"
#include "support/temp-dir.h"

using namespace deltatest;

namespace {

struct ToolRun {
    int status;
    std::string output;  // standard output and standard error together
};

ToolRun tool(const std::string& args) {
    std::string command = std::string(TB_DELTA_TOOL) + " " + args + " 2>&1";
    ToolRun run{-1, ""};
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return run;
    std::array<char, 4096> buf;
    size_t n;
    while ((n = std::fread(buf.data(), 1, buf.size(), pipe)) > 0) run.output.append(buf.data(), n);
    int status = ::pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

size_t entriesIn(const std::string& path) {
    size_t count = 0;
    if (DIR* d = ::opendir(path.c_str())) {
        while (dirent* e = ::readdir(d)) {
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") ++count;
        }
        ::closedir(d);
    }
    return count;
}

class DeltaTool : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!exists(TB_DELTA_TOOL)) GTEST_SKIP() << "tarnbridge-delta is not built";
    }
    TempDir dir;
};

}  // namespace

TEST_F(DeltaTool, SignatureDeltaPatchAndHashEndToEnd) {
    std::string old = randomBytes(1500000, 71);
    std::string next = old.substr(0, 4096) + "new bytes" + old.substr(4096);
    writeFile(dir / "old", old);
    writeFile(dir / "new", next);
    EXPECT_EQ(tool("signature " + (dir / "old") + " " + (dir / "sig")).status, 0);
    EXPECT_EQ(tool("delta " + (dir / "sig") + " " + (dir / "new") + " " + (dir / "delta")).status,
              0);
    ToolRun patched = tool("patch " + (dir / "old") + " " + (dir / "delta") + " " +
                           (dir / "rebuilt") + " " + (dir / "reverse"));
    EXPECT_EQ(patched.status, 0) << patched.output;
    EXPECT_TRUE(readFile(dir / "rebuilt") == next);
    EXPECT_EQ(
        tool("patch " + (dir / "rebuilt") + " " + (dir / "reverse") + " " + (dir / "back")).status,
        0);
    EXPECT_TRUE(readFile(dir / "back") == old);
    ToolRun hash = tool("hash " + (dir / "new"));
    EXPECT_EQ(hash.status, 0);
    EXPECT_EQ(hash.output, md4Hex(next) + "\n");
    EXPECT_EQ(entriesIn(dir.path()), 7u);  // nothing but the inputs and outputs
}

TEST_F(DeltaTool, ExistingOutputIsReplacedOnlyOnSuccess) {
    writeFile(dir / "old", "old contents");
    writeFile(dir / "sig", "previous signature");
    EXPECT_EQ(tool("signature " + (dir / "old") + " " + (dir / "sig")).status, 0);
    EXPECT_EQ(readFile(dir / "sig").size(), 24u);
    writeFile(dir / "bad-delta", "not a delta at all");
    writeFile(dir / "out", "keep me");
    EXPECT_NE(
        tool("patch " + (dir / "old") + " " + (dir / "bad-delta") + " " + (dir / "out")).status, 0);
    EXPECT_EQ(readFile(dir / "out"), "keep me");
}

TEST_F(DeltaTool, MalformedSignatureIsRefusedWithNoOutput) {
    writeFile(dir / "new", "some new contents");
    writeFile(dir / "sig", std::string("\x72\x73\x01\x36\x00\x00\x00\x00\x00\x00\x00\x08", 12));
    ToolRun run = tool("delta " + (dir / "sig") + " " + (dir / "new") + " " + (dir / "delta"));
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("block size"), std::string::npos) << run.output;
    writeFile(dir / "sig", "short");
    run = tool("delta " + (dir / "sig") + " " + (dir / "new") + " " + (dir / "delta"));
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("not a signature"), std::string::npos) << run.output;
    EXPECT_FALSE(exists(dir / "delta"));
    EXPECT_EQ(entriesIn(dir.path()), 2u);
}

TEST_F(DeltaTool, TruncatedOrOverreachingDeltaIsRefusedWithNoOutput) {
    std::string basis = randomBytes(10000, 72);
    writeFile(dir / "basis", basis);
    std::string full = DeltaWriter().literal("abc").copy(0, 5000).end().bytes();
    for (const std::string& bad :
         {full.substr(0, full.size() - 1), full.substr(0, 10),
          DeltaWriter().copy(9000, 2000).end().bytes(), DeltaWriter().raw("\x60").end().bytes()}) {
        writeFile(dir / "delta", bad);
        ToolRun run = tool("patch " + (dir / "basis") + " " + (dir / "delta") + " " +
                           (dir / "new") + " " + (dir / "reverse"));
        EXPECT_EQ(run.status, 1) << run.output;
        EXPECT_NE(run.output.find("tarnbridge-delta: "), std::string::npos);
        EXPECT_FALSE(exists(dir / "new"));
        EXPECT_FALSE(exists(dir / "reverse"));
        EXPECT_EQ(entriesIn(dir.path()), 2u);
    }
}

TEST_F(DeltaTool, UnreadableInputsAndUsage) {
    ToolRun run = tool("signature " + (dir / "missing") + " " + (dir / "sig"));
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("cannot read"), std::string::npos) << run.output;
    EXPECT_EQ(tool("hash " + dir.path()).status, 1);
    EXPECT_EQ(tool("signature " + (dir / "missing") + " " + (dir / "no-dir/sig")).status, 1);
    EXPECT_EQ(tool("").status, 2);
    EXPECT_EQ(tool("patch only-two args").status, 2);
    EXPECT_EQ(tool("frobnicate a b").status, 2);
    EXPECT_EQ(entriesIn(dir.path()), 0u);
}
