// The `tarnbridge` controller driving a real daemon: start, requests built from the
// command line, stop.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <string>

#include "foundation/config.h"
#include "harness.h"

namespace {

using harness::DaemonHome;
using harness::slurp;

struct Result {
    int code;
    std::string out;
};

Result controller(const DaemonHome& home, std::vector<std::string> args) {
    args.insert(args.begin(), harness::kController);
    std::string out_path = home.dir / "controller.out";
    harness::Process p(args, out_path);
    int code = p.wait_exit(30);
    return {code, slurp(out_path)};
}

// Whatever happens in the test, no daemon outlives it.
struct DaemonReaper {
    std::string state_path;
    ~DaemonReaper() {
        Config::map_type state;
        if (Config::read(ustring(state_path.c_str()), state) != 0) return;
        int pid = Config::get_int(state[ustring("pid")]);
        if (pid <= 0) return;
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
};

TEST(ControllerEndToEnd, StartsDrivesAndStopsTheDaemon) {
    // The daemon leaves the controller's process tree on purpose; as subreaper this test
    // inherits it, can read its exit status and leaves no zombie.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    DaemonHome home;
    DaemonReaper reaper{home.config + ".state"};
    const int control_port = loopback::Listener().port();
    Result started = controller(
        home, {"start", "--config", home.config, "--port", std::to_string(control_port)});
    ASSERT_EQ(started.code, 0) << started.out;
    int port = std::stoi(started.out);
    EXPECT_GT(port, control_port);
    Config::map_type state;
    ASSERT_EQ(Config::read(ustring(reaper.state_path.c_str()), state), 0);
    EXPECT_EQ(Config::get_int(state[ustring("daemon_port")]), port);
    int pid = Config::get_int(state[ustring("pid")]);
    EXPECT_EQ(::kill(pid, 0), 0);

    Result link = controller(home, {"send", "--config", home.config, "link"});
    EXPECT_EQ(link.code, 0);
    EXPECT_EQ(link.out, "{\"ack\": \"ok\"}\n");

    Result typed = controller(home, {"send", "--config", home.config, "add_session",
                                     "x:={\"a\": [1, \"caf\\u00e9\", null, true, -1], \"m\": {}}",
                                     "n=42", "s=hello", "huge=99999999999999999999", "empty="});
    EXPECT_EQ(typed.code, 0) << typed.out;
    EXPECT_NE(
        home.log_text().find("recieve msg >>> {\"action\": \"add_session\", \"empty\": \"\", "
                             "\"huge\": \"99999999999999999999\", \"n\": 42, \"s\": \"hello\", "
                             "\"x\": {\"a\": [1, \"caf\xC3\xA9\", null, 1, "
                             "18446744073709551615], \"m\": {}}}"),
        std::string::npos)
        << home.log_text();

    EXPECT_EQ(controller(home, {"send", "--config", home.config, "link", "x:={"}).code, 2);
    EXPECT_EQ(controller(home, {"send", "--config", home.config, "link", "novalue"}).code, 2);
    EXPECT_EQ(controller(home, {"start", "--config", home.config}).code, 1);  // already running

    Result stopped = controller(home, {"stop", "--config", home.config});
    EXPECT_EQ(stopped.code, 0) << stopped.out;
    int status = -1;
    ASSERT_EQ(::waitpid(pid, &status, WNOHANG), pid);  // already ended when stop returned
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_FALSE(std::ifstream(reaper.state_path).good());
    EXPECT_EQ(controller(home, {"send", "--port", std::to_string(port), "link"}).code, 1);
}

TEST(ControllerEndToEnd, RefusesWhatItCannotUse) {
    DaemonHome home;
    home.dir.write("broken.conf", "key = two words\n");
    EXPECT_EQ(controller(home, {"start", "--config", home.dir / "broken.conf"}).code, 1);
    EXPECT_EQ(controller(home, {"start", "--config", home.dir / "missing.conf"}).code, 1);
    EXPECT_EQ(controller(home, {"start"}).code, 2);
    EXPECT_EQ(controller(home, {"send", "--config", home.config, "link"}).code, 1);  // not started
    EXPECT_EQ(controller(home, {"stop", "--port", "0"}).code, 2);
}

}  // namespace
