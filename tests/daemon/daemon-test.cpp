// The daemon process end to end over real loopback sockets: the control requests,
// "stop", broken requests, the port walk, start-up failures; and its parts in process:
// the listener's port walk and the control queue under many senders. The port
// announcement's bytes are checked by independent-client.py.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "daemon/app.h"
#include "daemon/ipc.h"
#include "foundation/channel.h"
#include "foundation/object.h"
#include "foundation/stream.h"
#include "harness.h"
#include "state/file-status-db.h"
#include "support/loopback.h"

namespace {

using harness::DaemonHome;
using harness::kDaemon;
using harness::Process;

const ustring kAck("{\"ack\": \"ok\"}");

PObject action(const char* name) {
    PObject request;
    request["action"] = name;
    return request;
}

// A daemon started as the controlling process starts it, announcement received.
class RunningDaemon {
  public:
    explicit RunningDaemon(loopback::Listener& control)
        : m_process({kDaemon, home.config, std::to_string(control.port())}, home.dir / "out") {
        int fd = control.accept(10000);
        if (fd < 0) return;
        EXPECT_EQ(m_announce.Open(fd, true), 0);
        m_announce.SetTimeout(10);
        PStream ps;
        PObject report;
        EXPECT_EQ(ps.Recv(m_announce, report), 0);
        port = report["daemon_port"].asInt32();
    }

    // One request on a fresh connection, as the controller sends it.
    PObject Ask(const PObject& request) {
        Channel ch;
        PObject reply;
        EXPECT_EQ(ch.Open("127.0.0.1", port), 0);
        ch.SetTimeout(10);
        PStream ps;
        EXPECT_EQ(ps.Send(ch, request), 0);
        EXPECT_EQ(ps.Recv(ch, reply), 0) << request.toString().c_str_utf8();
        return reply;
    }

    // "stop" is never answered: its connection closes, then the process ends with 0.
    void Stop() {
        if (std::exchange(m_stopped, true)) return;
        Channel ch;
        ASSERT_EQ(ch.Open("127.0.0.1", port), 0);
        PStream ps;
        ASSERT_EQ(ps.Send(ch, action("stop")), 0);
        EXPECT_TRUE(loopback::closed_without_bytes(ch.GetSocket()));
        EXPECT_EQ(m_process.wait_exit(), 0);
    }

    DaemonHome home;
    int port = -1;

  private:
    Process m_process;
    Channel m_announce;
    bool m_stopped = false;
};

class DaemonControl : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_GT(daemon.port, control.port()); }
    void TearDown() override { daemon.Stop(); }

    loopback::Listener control;
    RunningDaemon daemon{control};
};

TEST_F(DaemonControl, EveryRequestButStopIsAckedAndLinkSetsUpTheEnvironment) {
    // A row left by a crash: "link" starts from an empty status database.
    ASSERT_EQ(FileStatusDB::initialize(daemon.home.dir / "fstat.sqlite"), 0);
    FileStatusInfo row;
    row.path = "/left/by/a/crash";
    ASSERT_EQ(FileStatusDB::setFileSyncStat(row), 0);
    ASSERT_EQ(FileStatusDB::getFileSyncStat("/left/by/a/crash", &row), 1);

    PObject no_action;
    no_action["session_id"] = uint64_t{3};
    for (const PObject& request :
         {action("link"), action("get_status"), action("reload_setting"), action("nonsense"),
          action("pause"), no_action, PObject("just text"), action("unlink")}) {
        EXPECT_EQ(daemon.Ask(request).toString(), kAck) << request.toString().c_str_utf8();
    }
    EXPECT_EQ(FileStatusDB::getFileSyncStat("/left/by/a/crash", &row), 0);
    FileStatusDB::destroy();

    ::unlink((daemon.home.dir / "system.filter").c_str());
    EXPECT_EQ(daemon.Ask(action("link"))["error"].asString(),
              ustring("Failed to initialize environment"));
    daemon.Stop();
    const std::string log = daemon.home.log_text();
    for (const char* text : {"recieve msg >>> {\"action\": \"nonsense\"}",
                             "======= Settings =======",  // "link" logged them
                             "Failed to load system filter from", "main thread down"}) {
        EXPECT_NE(log.find(text), std::string::npos) << text;
    }
}

TEST_F(DaemonControl, BrokenRequestsCloseTheirConnectionAndServingGoesOn) {
    for (const std::string& junk : {std::string("\x07\x07", 2),
                                    std::string("\x42\x10\x00\x06"
                                                "ac",
                                                6),
                                    std::string("\x42\x01\x01\x01\x40", 5), std::string()}) {
        int fd = loopback::connect_to(daemon.port);
        ASSERT_GE(fd, 0);
        loopback::write_all(fd, junk);
        ::shutdown(fd, SHUT_WR);
        EXPECT_TRUE(loopback::closed_without_bytes(fd, 10000));
        ::close(fd);
    }
    EXPECT_EQ(daemon.Ask(action("get_status")).toString(), kAck);
    daemon.Stop();
    EXPECT_NE(daemon.home.log_text().find("Failed to recieve message from channel."),
              std::string::npos);
}

TEST(DaemonStartup, BusyPortAboveTheControllingOneIsSkipped) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        // A controlling port whose next port a listener of ours holds.
        loopback::Listener control;
        int busy = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr = loopback::address(control.port() + 1);
        if (control.port() >= 65535 ||
            ::bind(busy, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            ::listen(busy, 1) != 0) {
            ::close(busy);
            continue;
        }
        RunningDaemon daemon(control);
        EXPECT_GT(daemon.port, control.port() + 1);
        EXPECT_EQ(daemon.Ask(action("get_status")).toString(), kAck);
        daemon.Stop();
        EXPECT_NE(daemon.home.log_text().find("Bind port " + std::to_string(control.port() + 1) +
                                              " failed, try next one"),
                  std::string::npos);
        ::close(busy);
        return;
    }
    FAIL() << "no free pair of adjacent ports";
}

TEST(DaemonStartup, FailuresBeforeServingEndTheProcess) {
    int gone;
    {
        loopback::Listener listener;
        gone = listener.port();
    }
    struct Case {
        const char* name;
        std::vector<std::string> args;
        int code;
        std::vector<std::string> texts;  // in the log or the output
        bool log_made = true;
        std::string log_path = "";
    };
    const Case cases[] = {
        {"too many arguments, nothing set up", {"2000", "extra"}, 255, {}, false},
        {"controller unreachable",
         {std::to_string(gone)},
         0,
         {"Failed to connect to port : " + std::to_string(gone)}},
        {"log cannot open",
         {"1"},
         255,
         {"Tarnbridge: client is not enabled"},
         false,
         "/nonexistent-dir/daemon.log"},
        {"port walk ends at the top",
         {"65535"},
         0,
         {"Port number exceeds 65536", "failed to listen on port local_port."}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        DaemonHome home(c.log_path);
        std::vector<std::string> argv = {kDaemon, home.config};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        Process p(argv, home.dir / "out");
        EXPECT_EQ(p.wait_exit(), c.code);
        EXPECT_EQ(std::ifstream(home.log).good(), c.log_made);
        const std::string text = home.log_text() + harness::slurp(home.dir / "out");
        for (const std::string& t : c.texts) EXPECT_NE(text.find(t), std::string::npos) << t;
    }
}

TEST(IPCListenerPorts, WalksPastBusyPortsAndStopsAtTheTop) {
    loopback::Listener held;
    IPCListener listener;
    EXPECT_EQ(listener.OpenSocket(held.port()), -1);
    int port = listener.prepare(held.port());
    EXPECT_GT(port, held.port());
    int client = loopback::connect_to(port);
    ASSERT_GE(client, 0);
    EXPECT_TRUE(listener.isReady());
    platform::socket_t accepted = listener.accept();
    EXPECT_NE(accepted, platform::kInvalidSocket);
    EXPECT_EQ(IPCListener::CloseSocket(accepted), 0);
    ::close(client);
    EXPECT_EQ(listener.prepare(65536), -1);
    EXPECT_FALSE(listener.isReady());  // no socket after a failure: false at once
    EXPECT_EQ(IPCListener::CloseSocket(platform::kInvalidSocket), -1);
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
