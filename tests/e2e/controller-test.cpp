// The controller's session verbs as a person uses them, against a real server and the
// daemon the controller starts: add a folder, see it in status, pause, stop and start
// again with the session brought back, watch, remove; change what a session syncs.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "foundation/config.h"
#include "harness/server-process.h"
#include "harness/sync-world.h"
#include "support/files.h"
#include "support/process.h"
#include "support/temp-dir.h"

namespace {

namespace fs = std::filesystem;

class ControllerVerbs : public ::testing::Test {
  protected:
    // The daemon leaves the controller's process tree; as subreaper this test inherits
    // it and can make sure it does not outlive the test.
    void SetUp() override {
        ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        ASSERT_TRUE(server.ok());
        dir.write("d.conf", "log_file_path = " + (dir / "daemon.log") + "\nlog_level_file_path = " +
                                (dir / "levels") + "\nfstat_db_path = " + (dir / "fstat.sqlite") +
                                "\nfilter_db_path = " + (dir / "filter.sqlite") +
                                "\nsystem_filter_path = " + (dir / "system.filter") +
                                "\nui_port = " + std::to_string(notifications.port()) + "\n");
        dir.write("levels", "client_debug = 7\n");
        dir.write("system.filter", "[Version]\nmajor = 1\nminor = 0\n");
        fs::create_directories(folder);
    }
    void TearDown() override {
        const int pid = Recorded("pid");
        if (pid > 0 && ::kill(pid, SIGKILL) == 0) ::waitpid(pid, nullptr, 0);
    }

    RunResult Run(std::vector<std::string> args) {
        args.insert(args.begin(), kControllerBinary);
        args.insert(args.begin() + 2, {"--config", config});
        return RunProgram(args);
    }
    RunResult Add(const std::string& target, const std::string& server_address,
                  std::vector<std::string> more = {}) {
        std::vector<std::string> args = {"add",
                                         "--folder",
                                         target,
                                         "--server",
                                         server_address,
                                         "--session",
                                         server.session(),
                                         "--view",
                                         std::to_string(server.view_id())};
        args.insert(args.end(), more.begin(), more.end());
        return Run(args);
    }
    int Recorded(const char* key) {
        Config::map_type state;
        Config::read(ustring((config + ".state").c_str()), state);
        return Config::get_int(state[ustring(key)]);
    }

    ServerProcess server;
    NotificationListener notifications;
    TempDir dir;
    std::string config = dir / "d.conf";
    std::string folder = dir / "Documents";
    std::string address = "localhost:" + std::to_string(server.port());
};

TEST_F(ControllerVerbs, AFolderIsAddedShownPausedBroughtBackAfterAStopAndRemoved) {
    // Mistakes are refused before anything starts.
    EXPECT_EQ(Add(folder, "nocolon").status, 2);
    EXPECT_EQ(Add(folder, "localhost:99999").status, 2);
    EXPECT_EQ(Add(folder, address, {"--session-id", "0"}).status, 2);
    EXPECT_EQ(Add(dir / "missing", address).status, 1);
    EXPECT_EQ(Run({"status"}).status, 1);  // no daemon yet
    EXPECT_FALSE(Exists(config + ".state"));

    EXPECT_EQ(Add(folder, address, {"--proxy", "nocolon"}).status, 2);
    const RunResult added = Add(folder, address, {"--json", "--ssl-pin", server.pin()});
    ASSERT_EQ(added.status, 0) << added.out << ReadFile(dir / "daemon.log");
    EXPECT_NE(added.out.find("\"session_id\":1"), std::string::npos) << added.out;
    // The connection's options are kept for the start after a stop, and a later add may
    // not change them.
    EXPECT_NE(ReadFile(config + ".state").find(server.pin()), std::string::npos);
    fs::create_directories(dir / "Music");
    EXPECT_EQ(Add(dir / "Music", address, {"--no-ssl"}).status, 1);
    EXPECT_TRUE(Exists(config + ".sessions/1/conf/whitelist.filter"));
    EXPECT_EQ(fs::status(config + ".state").permissions() & fs::perms::others_read,
              fs::perms::none);
    // One server account per configuration; no folder synchronised twice.
    fs::create_directories(folder + "/inner");
    EXPECT_EQ(Add(folder + "/inner", address).status, 1);
    fs::create_directories(dir / "Other");
    EXPECT_EQ(Add(dir / "Other", "127.0.0.2:" + std::to_string(server.port())).status, 1);

    ASSERT_TRUE(WaitUntil([&] {
        const RunResult status = Run({"status", "--json"});
        return status.out.find("\"status\":\"connected\"") != std::string::npos;
    }));
    RunResult status = Run({"status"});
    EXPECT_EQ(status.status, 0);
    EXPECT_NE(status.out.find("session 1: "), std::string::npos) << status.out;
    EXPECT_NE(status.out.find(folder), std::string::npos) << status.out;

    EXPECT_EQ(Run({"pause", "--session-id", "2"}).status, 1);
    EXPECT_EQ(Run({"pause", "--session-id", "1"}).status, 0);
    EXPECT_EQ(Run({"stop"}).status, 0);
    EXPECT_TRUE(Exists(config + ".state"));  // the session stays recorded
    RunResult started = Run({"start"});
    ASSERT_EQ(started.status, 0) << started.out;
    status = Run({"status"});
    EXPECT_NE(status.out.find("session 1: paused"), std::string::npos) << status.out;
    EXPECT_EQ(Run({"resume"}).status, 0);
    EXPECT_EQ(Run({"status"}).out.find("paused"), std::string::npos);

    // A watch refreshes until it is interrupted.
    ChildProcess watch({kControllerBinary, "status", "--config", config, "--watch", "--json"});
    EXPECT_TRUE(WaitUntil([&] { return Lines(watch.Out()).size() >= 2; }));
    watch.Signal(SIGINT);
    EXPECT_EQ(watch.Wait(10), 0);

    WriteFile(folder + "/mine.txt", "mine");
    EXPECT_EQ(Run({"remove"}).status, 0);
    EXPECT_FALSE(Exists(config + ".sessions/1"));
    EXPECT_EQ(ReadFile(folder + "/mine.txt"), "mine");
    status = Run({"status", "--json"});
    EXPECT_NE(status.out.find("\"sessions\":[]"), std::string::npos) << status.out;
    EXPECT_EQ(Run({"stop"}).status, 0);
    EXPECT_FALSE(Exists(config + ".state"));
}

TEST_F(ControllerVerbs, FilterEditHidesAndBringsBackAFolderOfARunningSession) {
    ASSERT_TRUE(server.Put("/photos/a.jpg", "a"));
    ASSERT_EQ(Add(folder, address, {"--ssl-pin", server.pin()}).status, 0);
    ASSERT_TRUE(WaitUntil([&] { return Exists(folder + "/photos/a.jpg"); }));

    EXPECT_EQ(Run({"filter", "edit", "--session-id", "1", "--hide-folder", "photos"}).status, 2);
    const RunResult hidden = Run(
        {"filter", "edit", "--session-id", "1", "--hide-folder", "/photos", "--max-size", "100"});
    ASSERT_EQ(hidden.status, 0) << hidden.out << ReadFile(dir / "daemon.log");
    EXPECT_FALSE(Exists(folder + "/photos"));
    const RunResult shown = Run({"filter", "show", "--session-id", "1"});
    EXPECT_NE(shown.out.find("hidden folders: /photos\n"), std::string::npos) << shown.out;
    EXPECT_NE(shown.out.find("size limit: 100 bytes"), std::string::npos) << shown.out;

    // Dropping the rule at once brings the folder back: the removal it made on disk is
    // never carried to the server. The session was left running.
    EXPECT_EQ(Run({"filter", "edit", "--session-id", "1", "--show-folder", "/photos"}).status, 0);
    EXPECT_TRUE(WaitUntil([&] { return Exists(folder + "/photos/a.jpg"); }))
        << ReadFile(dir / "daemon.log");
    Tree tree;
    EXPECT_TRUE(server.Listing(tree) && tree.count("/photos/a.jpg") == 1);
    EXPECT_EQ(Run({"status"}).out.find("paused"), std::string::npos);
}

}  // namespace
