// The command line as a person uses it: init prints a configuration to paste, the
// server-side commands change the tree, ls shows it, and mistakes get a clear refusal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>

#include "server-harness.h"
#include "support/process.h"

namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

// Runs the tool with a shell command line; the output (stdout and stderr) and exit status.
int RunTool(const std::string& args, std::string& out) {
    RunResult run = RunProgram({"/bin/sh", "-c", kServerBinary + " " + args});
    out = std::move(run.out);
    return run.status;
}

TEST(ServerCommandLine, InitPrintsAConfigurationAndTheTreeCommandsRefuseMistakes) {
    TempDir dir;
    std::string data = "--data " + dir.path() + "/data";
    std::string out;
    ASSERT_EQ(RunTool("init " + data + " --view docs --port 9000", out), 0) << out;
    EXPECT_THAT(out, HasSubstr("server_ip = 127.0.0.1\nserver_port = 9000\n"));
    EXPECT_THAT(out, ContainsRegex("\nsession = \"[0-9a-f]{32}\"\nview_id = 1\n"));

    // The tree commands by view number are the end-to-end harness's; here by view name.
    dir.write("local.txt", "hello");
    ASSERT_EQ(RunTool("put " + data + " docs " + dir.path() + "/local.txt /a/b.txt", out), 0)
        << out;
    EXPECT_EQ(RunTool("rm " + data + " docs /nothing", out), 1);
    EXPECT_NE(out.find("no such path"), std::string::npos) << out;
    EXPECT_EQ(RunTool("put " + data + " docs " + dir.path() + "/local.txt /a/b.txt/under", out), 1);
    EXPECT_EQ(RunTool("ls " + data + " nosuchview", out), 1);
    EXPECT_EQ(RunTool("ls", out), 2);
    EXPECT_NE(out.find("--data DIR is required"), std::string::npos) << out;
    EXPECT_EQ(RunTool(data + " --port 99999", out), 2);
}

TEST(ServerCommandLine, InitPinsTheCertificateItMakesOnceAndNoTlsPrintsAPlainSetup) {
    TempDir dir;
    const std::string data = dir.path() + "/data";
    std::string out, again;
    ASSERT_EQ(RunTool("init --data " + data, out), 0) << out;
    EXPECT_THAT(out, HasSubstr("\nuse_ssl = true\nssl_pin = "));
    RunResult openssl = RunProgram({"/usr/bin/openssl", "x509", "-in", data + "/tls/server.crt",
                                    "-noout", "-fingerprint", "-sha256"});
    const std::string pin = openssl.out.substr(openssl.out.find('=') + 1, 95);
    EXPECT_THAT(out, HasSubstr("ssl_pin = " + pin + "\n"));
    struct stat key {};
    ASSERT_EQ(::stat((data + "/tls/server.key").c_str(), &key), 0);
    EXPECT_EQ(key.st_mode & 0777, 0600u);

    ASSERT_EQ(RunTool("init --data " + data + " --account bob --view bobs", again), 0) << again;
    EXPECT_THAT(again, HasSubstr("ssl_pin = " + pin + "\n"));
    ASSERT_EQ(RunTool("init --data " + data + " --account carol --no-tls", again), 0) << again;
    EXPECT_THAT(again, HasSubstr("\nuse_ssl = false\n"));
    EXPECT_THAT(again, Not(HasSubstr("ssl_pin")));
}

}  // namespace
