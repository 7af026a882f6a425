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

class DeltaTool : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!exists(TB_DELTA_TOOL)) GTEST_SKIP() << "tarnbridge-delta is not built";
    }

    // Runs the tool with `command` as given, then each of `files` as a path in the test folder.
    ToolRun tool(const std::string& command, std::initializer_list<std::string> files = {}) {
        std::string line = std::string(TB_DELTA_TOOL) + " " + command;
        for (const std::string& f : files) line += " " + (dir / f);
        ToolRun run{-1, ""};
        FILE* pipe = ::popen((line + " 2>&1").c_str(), "r");
        if (pipe == nullptr) return run;
        std::array<char, 4096> buf;
        size_t n;
        while ((n = std::fread(buf.data(), 1, buf.size(), pipe)) > 0)
            run.output.append(buf.data(), n);
        int status = ::pclose(pipe);
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return run;
    }

    size_t entries() {
        size_t count = 0;
        if (DIR* d = ::opendir(dir.path().c_str())) {
            while (dirent* e = ::readdir(d))
                count += std::string(".") != e->d_name && std::string("..") != e->d_name;
            ::closedir(d);
        }
        return count;
    }

    TempDir dir;
};

}  // namespace

TEST_F(DeltaTool, SignatureDeltaPatchAndHashEndToEnd) {
    std::string old = randomBytes(1500000, 71);
    std::string next = old.substr(0, 4096) + "new bytes" + old.substr(4096);
    writeFile(dir / "old", old);
    writeFile(dir / "new", next);
    writeFile(dir / "sig", "previous signature, replaced");
    EXPECT_EQ(tool("signature", {"old", "sig"}).status, 0);
    EXPECT_EQ(tool("delta", {"sig", "new", "delta"}).status, 0);
    ToolRun patched = tool("patch", {"old", "delta", "rebuilt", "reverse"});
    EXPECT_EQ(patched.status, 0) << patched.output;
    EXPECT_TRUE(readFile(dir / "rebuilt") == next);
    EXPECT_EQ(tool("patch", {"rebuilt", "reverse", "back"}).status, 0);
    EXPECT_TRUE(readFile(dir / "back") == old);
    ToolRun hash = tool("hash", {"new"});
    EXPECT_EQ(hash.status, 0);
    EXPECT_EQ(hash.output, md4Hex(next) + "\n");
    EXPECT_EQ(entries(), 7u);  // nothing but the inputs and outputs
}

TEST_F(DeltaTool, MalformedSignatureIsRefusedWithNoOutput) {
    writeFile(dir / "new", "some new contents");
    writeFile(dir / "sig", std::string("\x72\x73\x01\x36\x00\x00\x00\x00\x00\x00\x00\x08", 12));
    ToolRun run = tool("delta", {"sig", "new", "delta"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("block size"), std::string::npos) << run.output;
    writeFile(dir / "sig", "short");
    run = tool("delta", {"sig", "new", "delta"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("not a signature"), std::string::npos) << run.output;
    EXPECT_EQ(entries(), 2u);
}

TEST_F(DeltaTool, BadDeltaIsRefusedAndLeavesExistingOutputAlone) {
    writeFile(dir / "basis", randomBytes(10000, 72));
    std::string full = DeltaWriter().literal("abc").copy(0, 5000).end();
    for (const std::string& bad :
         {full.substr(0, full.size() - 1), full.substr(0, 10), DeltaWriter().copy(9000, 2000).end(),
          DeltaWriter().raw("\x60").end(), std::string("not a delta at all")}) {
        writeFile(dir / "delta", bad);
        writeFile(dir / "new", "keep me");
        ToolRun run = tool("patch", {"basis", "delta", "new", "reverse"});
        EXPECT_EQ(run.status, 1) << run.output;
        EXPECT_NE(run.output.find("tarnbridge-delta: "), std::string::npos);
        EXPECT_EQ(readFile(dir / "new"), "keep me");
        EXPECT_EQ(entries(), 3u);
    }
}

TEST_F(DeltaTool, UnreadableInputsAndUsage) {
    ToolRun run = tool("signature", {"missing", "sig"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("cannot read"), std::string::npos) << run.output;
    EXPECT_EQ(tool("hash " + dir.path()).status, 1);
    EXPECT_EQ(tool("signature", {"missing", "no-dir/sig"}).status, 1);
    EXPECT_EQ(tool("").status, 2);
    EXPECT_EQ(tool("patch only-two args").status, 2);
    EXPECT_EQ(tool("frobnicate a b").status, 2);
    EXPECT_EQ(entries(), 0u);
}
