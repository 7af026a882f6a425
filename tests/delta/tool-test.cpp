// The tarnbridge-delta command-line tool: each command end to end, and what it does with bad
// input: a clear message, a non-zero exit, and nothing left under the output's name.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "delta-test-support.h"
#include "support/temp-dir.h"

using namespace deltatest;

namespace {

struct ToolRun {
    int status;
    std::string output;  // standard output and standard error together, kept in dir/output
};

class DeltaTool : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!Exists(TB_DELTA_TOOL)) GTEST_SKIP() << "tarnbridge-delta is not built";
    }

    // Runs the tool with `command` as given, then each of `files` as a path in the test folder.
    ToolRun tool(const std::string& command, const std::vector<std::string>& files = {}) {
        std::string line = std::string(TB_DELTA_TOOL) + " " + command;
        for (const std::string& f : files) line += " " + (dir / f);
        int status = std::system((line + " >" + (dir / "output") + " 2>&1").c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(dir / "output")};
    }

    size_t entries() {
        namespace fs = std::filesystem;
        return std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator());
    }

    TempDir dir;
};

}  // namespace

TEST_F(DeltaTool, SignatureDeltaPatchAndHashEndToEnd) {
    std::string old = RandomBytes(1500000, 71);
    std::string next = old.substr(0, 4096) + "new bytes" + old.substr(4096);
    WriteFile(dir / "old", old);
    WriteFile(dir / "new", next);
    WriteFile(dir / "sig", "previous signature, replaced");
    EXPECT_EQ(tool("signature", {"old", "sig"}).status, 0);
    EXPECT_EQ(tool("delta", {"sig", "new", "delta"}).status, 0);
    ToolRun patched = tool("patch", {"old", "delta", "rebuilt", "reverse"});
    EXPECT_EQ(patched.status, 0) << patched.output;
    EXPECT_TRUE(ReadFile(dir / "rebuilt") == next);
    EXPECT_EQ(tool("patch", {"rebuilt", "reverse", "back"}).status, 0);
    EXPECT_TRUE(ReadFile(dir / "back") == old);
    ToolRun hash = tool("hash", {"new"});
    EXPECT_EQ(hash.status, 0);
    EXPECT_EQ(hash.output, md4Hex(next) + "\n");
    // A realigned delta of a copy shifted by one byte still copies nearly all of it.
    WriteFile(dir / "new", "!" + next);
    EXPECT_EQ(tool("delta --realign", {"sig", "new", "delta"}).status, 0);
    EXPECT_LT(std::filesystem::file_size(dir / "delta"), 20000u);
    EXPECT_EQ(entries(), 8u);  // nothing but the inputs, the outputs and the tool's output
}

TEST_F(DeltaTool, BadInputIsRefusedWithAMessageAndNoOutput) {
    const std::string zero_block("\x72\x73\x01\x36\x00\x00\x00\x00\x00\x00\x00\x08", 12);
    const std::string full = DeltaWriter().literal("abc").copy(0, 5000).end();
    struct Case {
        std::string sig, delta, command;
        std::vector<std::string> files;
        int status;
        const char* message;
    };
    const Case cases[] = {
        {zero_block, "", "delta", {"sig", "basis", "out"}, 1, "block size"},
        {"short", "", "delta", {"sig", "basis", "out"}, 1, "not a signature"},
        {"", full.substr(0, full.size() - 1), "patch", {"basis", "delta", "out", "rev"}, 1, ""},
        {"", DeltaWriter().copy(9000, 2000).end(), "patch", {"basis", "delta", "out"}, 1, ""},
        {"", DeltaWriter().raw("\x60").end(), "patch", {"basis", "delta", "out"}, 1, ""},
        {"", "not a delta at all", "patch", {"basis", "delta", "out"}, 1, ""},
        {"", "", "signature", {"missing", "out"}, 1, "cannot read"},
        {"", "", "hash", {""}, 1, ""},
        {"", "", "", {}, 2, ""},
        {"", "", "patch", {"basis", "delta"}, 2, ""},
        {"", "", "delta --realign", {"sig", "basis"}, 2, ""},
        {"", "", "frobnicate", {"basis", "delta"}, 2, ""},
    };
    WriteFile(dir / "basis", RandomBytes(10000, 72));
    for (const Case& c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases));
        WriteFile(dir / "sig", c.sig);
        WriteFile(dir / "delta", c.delta);
        WriteFile(dir / "out", "keep me");
        ToolRun run = tool(c.command, c.files);
        EXPECT_EQ(run.status, c.status);
        EXPECT_NE(run.output.find(c.status == 1 ? "tarnbridge-delta: " : "usage"),
                  std::string::npos);
        EXPECT_NE(run.output.find(c.message), std::string::npos) << run.output;
        EXPECT_EQ(ReadFile(dir / "out"), "keep me");
        EXPECT_EQ(entries(), 5u);
    }
}
