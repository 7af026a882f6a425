// The daemon and its controller as real processes over loopback sockets: start past a
// busy port, the control requests, broken requests, start-up failures, stop; and the
// control queue in process under many senders. The bytes of the port announcement and
// of a reply are checked by independent-client.py.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
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
#include "support/temp-dir.h"

extern char** environ;

namespace {

const std::string kDaemon =
    std::string(TB_BINARY_DIR) + "/tools/tarnbridge-daemon/tarnbridge-daemon";
const std::string kController = std::string(TB_BINARY_DIR) + "/tools/tarnbridge/tarnbridge";
const ustring kAck("{\"ack\": \"ok\"}");

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// A child process with both output streams in one file; killed if a test leaves it.
class Process {
  public:
    Process(std::vector<std::string> argv, const std::string& out_path) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        std::vector<char*> args;
        for (std::string& a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        if (posix_spawn(&m_pid, args[0], &actions, nullptr, args.data(), environ) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Process() {
        if (m_pid <= 0) return;
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // The exit status, or -1000 when the process never started or did not end in time.
    int wait_exit(double seconds = 30) {
        auto t0 = std::chrono::steady_clock::now();
        while (m_pid > 0 && loopback::seconds_since(t0) < seconds) {
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return -1000;
    }

  private:
    pid_t m_pid = -1;
};

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
    std::string log_text() const { return slurp(log); }
};

struct Result {
    int code;
    std::string out;
};

Result controller(const DaemonHome& home, std::vector<std::string> args) {
    args.insert(args.begin(), kController);
    Process p(args, home.dir / "controller.out");
    int code = p.wait_exit();
    return {code, slurp(home.dir / "controller.out")};
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
        Result started = controller(
            home, {"start", "--config", home.config, "--port", std::to_string(control_port)});
        Config::map_type state;
        Config::read(ustring(state_path.c_str()), state);
        pid = Config::get_int(state[ustring("pid")]);
        ASSERT_EQ(started.code, 0) << started.out;
        port = std::stoi(started.out);
        EXPECT_EQ(Config::get_int(state[ustring("daemon_port")]), port);
    }
    // The daemon has ended, with 0, by the time the controller returns.
    void Stop() {
        Result stopped = controller(home, {"stop", "--config", home.config});
        EXPECT_EQ(stopped.code, 0) << stopped.out;
        int status = -1;
        ASSERT_EQ(::waitpid(pid, &status, WNOHANG), pid);
        pid = -1;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        EXPECT_FALSE(std::ifstream(state_path).good());
    }

    DaemonHome home;
    std::string state_path = home.config + ".state";
    int port = -1;
    int pid = -1;
};

TEST_F(ControlledDaemon, ControllerRefusesStartsPastABusyPortSendsRequestsAndStops) {
    // What the controller cannot use is refused with a code.
    home.dir.write("broken.conf", "key = two words\n");
    EXPECT_EQ(controller(home, {"start", "--config", home.dir / "broken.conf"}).code, 1);
    EXPECT_EQ(controller(home, {"start", "--config", home.dir / "missing.conf"}).code, 1);
    EXPECT_EQ(controller(home, {"start"}).code, 2);
    EXPECT_EQ(controller(home, {"send", "--config", home.config, "link"}).code, 1);  // not started
    EXPECT_EQ(controller(home, {"stop", "--port", "0"}).code, 2);

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

    Result link = controller(home, {"send", "--config", home.config, "link"});
    EXPECT_EQ(link.code, 0);
    EXPECT_EQ(link.out, "{\"ack\": \"ok\"}\n");
    Result typed = controller(home, {"send", "--config", home.config, "add_session",
                                     "x:={\"a\": [1, \"caf\\u00e9\", null, true, -1], \"m\": {}}",
                                     "n=42", "s=hello", "huge=99999999999999999999", "empty="});
    EXPECT_EQ(typed.code, 0) << typed.out;
    EXPECT_EQ(controller(home, {"send", "--config", home.config, "link", "x:={"}).code, 2);
    EXPECT_EQ(controller(home, {"send", "--config", home.config, "link", "novalue"}).code, 2);
    EXPECT_EQ(controller(home, {"start", "--config", home.config}).code, 1);  // already running
    Stop();
    ::close(busy);
    EXPECT_EQ(controller(home, {"send", "--port", std::to_string(port), "link"}).code, 1);
    const std::string log = home.log_text();
    EXPECT_NE(log.find("Bind port " + std::to_string(control + 1) + " failed, try next one"),
              std::string::npos);
    EXPECT_NE(log.find("recieve msg >>> {\"action\": \"add_session\", \"empty\": \"\", "
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
    for (const char* text : {"recieve msg >>> {\"action\": \"nonsense\"}",
                             "======= Settings =======",  // "link" logged them
                             "Failed to recieve message from channel.",
                             "Failed to load system filter from", "main thread down"}) {
        EXPECT_NE(log.find(text), std::string::npos) << text;
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
        std::vector<std::string> argv = {kDaemon, home.config};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        Process p(argv, home.dir / "out");
        EXPECT_EQ(p.wait_exit(), c.code);
        EXPECT_EQ(std::ifstream(home.log).good(), c.code == 0);
        const std::string text = home.log_text() + slurp(home.dir / "out");
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
