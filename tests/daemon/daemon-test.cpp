// The daemon and its controller as real processes over loopback sockets: start past a
// busy port, the control requests, broken requests, start-up failures, stop; and the
// control queue in process under many senders. The bytes of the port announcement and
// of a reply are checked by independent-client.py.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "daemon/app.h"
#include "foundation/channel.h"
#include "foundation/config.h"
#include "foundation/object.h"
#include "foundation/stream.h"
#include "state/file-status-db.h"
#include "support/loopback.h"
#include "support/process.h"
#include "support/temp-dir.h"

namespace {

const ustring kAck("{\"ack\": \"ok\"}");

// A temporary folder with a configuration whose log and databases all live in it.
struct DaemonHome {
    TempDir dir;
    std::string config = dir / "tarnbridge.conf";
    std::string log = dir / "daemon.log";

    explicit DaemonHome(const std::string& log_path = "") {
        dir.write("tarnbridge.conf",
                  "log_file_path = " + (log_path.empty() ? log : log_path) +
                      "\nlog_level_file_path = " + (dir / "levels") + "\ndb_path = " +
                      (dir / "db.sqlite") + "\nfstat_db_path = " + (dir / "fstat.sqlite") +
                      "\nfilter_db_path = " + (dir / "filter.sqlite") +
                      "\nsystem_filter_path = " + (dir / "system.filter") + "\n");
        dir.write("levels", "client_debug = 7\nipc = 7\n");
        dir.write("system.filter", "[Version]\nmajor = 1\nminor = 0\n");
    }
    std::string log_text() const { return ReadFile(log); }
};

RunResult controller(std::vector<std::string> args) {
    args.insert(args.begin(), kControllerBinary);
    return RunProgram(args);
}

PObject action(const char* name) {
    PObject request;
    request["action"] = name;
    return request;
}

// One request on a fresh connection, as the controller sends it.
PObject ask(int port, const PObject& request) {
    Channel ch;
    PObject reply;
    EXPECT_EQ(ch.Open("127.0.0.1", port), 0);
    ch.SetTimeout(10);
    PStream ps;
    EXPECT_EQ(ps.Send(ch, request), 0);
    EXPECT_EQ(ps.Recv(ch, reply), 0) << request.toString().c_str_utf8();
    return reply;
}

// A daemon started and stopped through the controller, as people do it.
class ControlledDaemon : public ::testing::Test {
  protected:
    // The daemon leaves the controller's process tree on purpose; as subreaper this
    // test inherits it, can read its exit status and leaves no zombie.
    void SetUp() override { ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0); }
    // Whatever happens in the test, no daemon outlives it.
    void TearDown() override {
        if (pid > 0 && ::kill(pid, SIGKILL) == 0) ::waitpid(pid, nullptr, 0);
    }

    void Start(int control_port = loopback::Listener().port()) {
        RunResult started =
            controller({"start", "--config", home.config, "--port", std::to_string(control_port)});
        Config::map_type state;
        Config::read(ustring(state_path.c_str()), state);
        pid = Config::get_int(state[ustring("pid")]);
        ASSERT_EQ(started.status, 0) << started.out;
        port = std::stoi(started.out);
        EXPECT_EQ(Config::get_int(state[ustring("daemon_port")]), port);
    }
    // The daemon has ended, with 0, by the time the controller returns.
    void Stop() {
        RunResult stopped = controller({"stop", "--config", home.config});
        EXPECT_EQ(stopped.status, 0) << stopped.out;
        int status = -1;
        ASSERT_EQ(::waitpid(pid, &status, WNOHANG), pid);
        pid = -1;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        EXPECT_FALSE(Exists(state_path));
    }

    DaemonHome home;
    std::string state_path = home.config + ".state";
    int port = -1;
    int pid = -1;
};

TEST_F(ControlledDaemon, ControllerRefusesStartsPastABusyPortSendsRequestsAndStops) {
    // What the controller cannot use is refused with a code.
    home.dir.write("broken.conf", "key = two words\n");
    EXPECT_EQ(controller({"start", "--config", home.dir / "broken.conf"}).status, 1);
    EXPECT_EQ(controller({"start", "--config", home.dir / "missing.conf"}).status, 1);
    EXPECT_EQ(controller({"start"}).status, 2);
    EXPECT_EQ(controller({"send", "--config", home.config, "link"}).status, 1);  // not started
    EXPECT_EQ(controller({"stop", "--port", "0"}).status, 2);

    // A free controlling port whose next port a socket of ours holds.
    int control = -1;
    int busy = -1;
    for (int attempt = 0; attempt < 50 && busy < 0; ++attempt) {
        control = loopback::Listener().port();
        busy = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr = loopback::address(control + 1);
        if (control < 65535 && ::bind(busy, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
            ::listen(busy, 1) == 0)
            break;
        ::close(busy);
        busy = -1;
    }
    ASSERT_GE(busy, 0) << "no free pair of adjacent ports";
    Start(control);
    EXPECT_GT(port, control + 1);

    RunResult link = controller({"send", "--config", home.config, "link"});
    EXPECT_EQ(link.status, 0);
    EXPECT_EQ(link.out, "{\"ack\": \"ok\"}\n");
    RunResult typed = controller({"send", "--config", home.config, "reload_setting",
                                  "x:={\"a\": [1, \"caf\\u00e9\", null, true, -1], \"m\": {}}",
                                  "n=42", "s=hello", "huge=99999999999999999999", "empty="});
    EXPECT_EQ(typed.status, 0) << typed.out;
    EXPECT_EQ(controller({"send", "--config", home.config, "link", "x:={"}).status, 2);
    EXPECT_EQ(controller({"send", "--config", home.config, "link", "novalue"}).status, 2);
    EXPECT_EQ(controller({"start", "--config", home.config}).status, 1);  // already running
    Stop();
    ::close(busy);
    EXPECT_EQ(controller({"send", "--port", std::to_string(port), "link"}).status, 1);
    const std::string log = home.log_text();
    EXPECT_NE(log.find("Bind port " + std::to_string(control + 1) + " failed, try next one"),
              std::string::npos);
    EXPECT_NE(log.find("recieve msg >>> {\"action\": \"reload_setting\", \"empty\": \"\", "
                       "\"huge\": \"99999999999999999999\", \"n\": 42, \"s\": \"hello\", "
                       "\"x\": {\"a\": [1, \"caf\xC3\xA9\", null, 1, "
                       "18446744073709551615], \"m\": {}}}"),
              std::string::npos)
        << log;
}

TEST_F(ControlledDaemon, RequestsAreAckedBrokenOnesDroppedAndLinkSetsUpTheEnvironment) {
    Start();
    // A row left by a crash: "link" starts from an empty status database.
    ASSERT_EQ(FileStatusDB::initialize(home.dir / "fstat.sqlite"), 0);
    FileStatusInfo row;
    row.path = "/left/by/a/crash";
    ASSERT_EQ(FileStatusDB::setFileSyncStat(row), 0);
    ASSERT_EQ(FileStatusDB::getFileSyncStat("/left/by/a/crash", &row), 1);
    PObject no_action;
    no_action["session_id"] = uint64_t{3};
    for (const PObject& request :
         {action("link"), action("get_status"), action("reload_setting"), action("nonsense"),
          action("pause"), no_action, PObject("just text"), action("unlink")}) {
        EXPECT_EQ(ask(port, request).toString(), kAck) << request.toString().c_str_utf8();
    }
    EXPECT_EQ(FileStatusDB::getFileSyncStat("/left/by/a/crash", &row), 0);
    FileStatusDB::destroy();

    // Bytes that are no request close their connection unanswered; serving goes on.
    for (const std::string& junk : {std::string("\x07\x07", 2),
                                    std::string("\x42\x10\x00\x06"
                                                "ac",
                                                6),
                                    std::string("\x42\x01\x01\x01\x40", 5), std::string()}) {
        int fd = loopback::connect_to(port);
        ASSERT_GE(fd, 0);
        loopback::write_all(fd, junk);
        ::shutdown(fd, SHUT_WR);
        EXPECT_TRUE(loopback::closed_without_bytes(fd, 10000));
        ::close(fd);
    }
    ::unlink((home.dir / "system.filter").c_str());
    EXPECT_EQ(ask(port, action("link"))["error"].asString(),
              ustring("Failed to initialize environment"));
    Stop();
    const std::string log = home.log_text();
    for (const char* text :
         {"recieve msg >>> {\"action\": \"nonsense\"}",
          "======= Settings =======",  // "link" logged them
          "upload delta mode: chunked", "Failed to recieve message from channel.",
          "Failed to load system filter from", "main thread down"}) {
        EXPECT_NE(log.find(text), std::string::npos) << text;
    }
}

TEST_F(ControlledDaemon, ConnectionVerbsCarryTheProxyAndTunnelKeysAndRefuseBadOptions) {
    home.dir.write("levels", "client_debug = 7\nconnection_debug = 7\n");
    Start();
    auto run = [&](std::vector<std::string> words) {
        words.insert(words.begin() + 1, {"--config", home.config});
        return controller(words);
    };
    const std::vector<std::string> server = {"--server", "127.0.0.1:7620", "--session", "tok"};
    auto with_server = [&](std::vector<std::string> words) {
        words.insert(words.begin() + 1, server.begin(), server.end());
        return run(words);
    };
    EXPECT_EQ(run({"send", "link"}).status, 0);
    EXPECT_EQ(run({"link-connection", "--session", "tok"}).status, 2);
    EXPECT_EQ(run({"link-connection", "--server", "127.0.0.1", "--session", "t"}).status, 2);
    RunResult linked = with_server({"link-connection", "--proxy", "127.0.0.1:3128", "--proxy-user",
                                    "alice", "--tunnel", "127.0.0.1:8443"});
    EXPECT_EQ(linked.status, 0) << linked.out;
    EXPECT_EQ(with_server({"reload-connection", "--proxy", "127.0.0.1:3128"}).status, 0);
    EXPECT_EQ(with_server({"reload-connection"}).status, 0);
    Stop();
    const std::string log = home.log_text();
    size_t at = 0;
    for (const char* text :
         {"\"proxy_ip\": \"127.0.0.1\", \"proxy_port\": 3128, \"proxy_username\": \"alice\"",
          "Create CHANNEL_PROXY_TUNNEL connection pool", "Create CHANNEL_PROXY connection pool",
          "Create CHANNEL_NORMAL connection pool"}) {
        at = log.find(text, at);
        EXPECT_NE(at, std::string::npos) << text << "\n" << log;
    }
}

TEST(DaemonStartup, FailuresBeforeServingEndTheProcess) {
    const std::string gone = std::to_string(loopback::Listener().port());
    struct Case {
        const char* name;
        std::vector<std::string> args;
        int code;  // 0 when the log was opened, which the others must not create
        std::vector<std::string> texts;  // in the log or the output
        bool bad_log = false;
    };
    const Case cases[] = {
        {"too many arguments", {"2000", "extra"}, 255, {}},
        {"controller unreachable", {gone}, 0, {"Failed to connect to port : " + gone}},
        {"log cannot open", {"1"}, 255, {"Tarnbridge: client is not enabled"}, true},
        {"port walk ends at the top",
         {"65535"},
         0,
         {"Port number exceeds 65536", "failed to listen on port local_port."}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        DaemonHome home(c.bad_log ? "/nonexistent-dir/daemon.log" : "");
        std::vector<std::string> argv = {kDaemonBinary, home.config};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        const RunResult run = RunProgram(argv);
        EXPECT_EQ(run.status, c.code);
        EXPECT_EQ(Exists(home.log), c.code == 0);
        const std::string text = home.log_text() + run.out;
        for (const std::string& t : c.texts) EXPECT_NE(text.find(t), std::string::npos) << t;
    }
}

TEST(TarnbridgeConcurrency, ManySendersAreAllAnsweredAndStopEndsTheLoop) {
    Tarnbridge app;
    ASSERT_EQ(app.run(), 0);
    std::atomic<int> acked{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t)
        senders.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                PObject reply;
                app.send_message(action(i % 2 == 0 ? "get_status" : "nonsense"), reply);
                if (reply.toString() == kAck) ++acked;
            }
        });
    for (std::thread& s : senders) s.join();
    EXPECT_EQ(acked.load(), 200);
    EXPECT_TRUE(app.isRunning());
    PObject reply;
    app.send_message(action("stop"), reply);
    EXPECT_FALSE(app.isRunning());
    auto t0 = std::chrono::steady_clock::now();
    app.kill();  // the queued stop is never taken; the join returns at once
    EXPECT_LT(loopback::seconds_since(t0), 1.0);
}

}  // namespace
