// The daemon process end to end over real loopback sockets: its port announcement, the
// control requests, "stop", start-up failures; and its parts in process: the control
// queue under many senders, the listener's port walk.
#include <gtest/gtest.h>

#include <unistd.h>
#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
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
using harness::slurp;

// One control request on a fresh connection.
int ask(int port, const PObject& request, PObject& reply) {
    Channel ch;
    if (ch.Open("127.0.0.1", port) != 0) return -100;
    ch.SetTimeout(10);
    PStream ps;
    int rc = ps.Send(ch, request);
    return rc != 0 ? rc : ps.Recv(ch, reply);
}

PObject action(const char* name) {
    PObject request;
    request["action"] = name;
    return request;
}

// A daemon started as the controlling process starts it, announcement received.
class RunningDaemon {
  public:
    explicit RunningDaemon(loopback::Listener& control)
        : m_process({kDaemon, m_home.config, std::to_string(control.port())}, m_home.dir / "out") {
        int fd = control.accept(10000);
        if (fd < 0) return;
        EXPECT_EQ(m_announce.Open(fd, true), 0);
        m_announce.SetTimeout(10);
        PStream ps;
        EXPECT_EQ(ps.Recv(m_announce, m_report), 0);
        port = m_report["daemon_port"].asInt32();
    }

    const PObject& report() const { return m_report; }
    const DaemonHome& home() const { return m_home; }
    Process& process() { return m_process; }

    // Sends "stop"; true when the connection closed without a single byte.
    bool stop() {
        Channel ch;
        if (ch.Open("127.0.0.1", port) != 0) return false;
        PStream ps;
        if (ps.Send(ch, action("stop")) != 0) return false;
        return loopback::closed_without_bytes(ch.GetSocket());
    }

    int port = -1;

  private:
    DaemonHome m_home;
    Process m_process;
    Channel m_announce;
    PObject m_report;
};

TEST(DaemonControl, AnnouncesItsPortAboveTheControllingOne) {
    loopback::Listener control;
    RunningDaemon daemon(control);
    ASSERT_GT(daemon.port, control.port());
    EXPECT_TRUE(daemon.report()["daemon_port"].isInteger());
    EXPECT_EQ(daemon.report().asMap().size(), 1u);
    PObject reply;
    ASSERT_EQ(ask(daemon.port, action("link"), reply), 0);
    EXPECT_EQ(reply.toString(), ustring("{\"ack\": \"ok\"}"));
    EXPECT_TRUE(daemon.stop());
    EXPECT_EQ(daemon.process().wait_exit(), 0);
}

TEST(DaemonControl, EveryRequestButStopIsAnsweredWithAck) {
    loopback::Listener control;
    RunningDaemon daemon(control);
    ASSERT_GT(daemon.port, 0);
    PObject no_action;
    no_action["session_id"] = uint64_t{3};
    PObject not_a_map("just text");
    const PObject requests[] = {action("link"),     action("get_status"), action("reload_setting"),
                                action("nonsense"), action("pause"),      no_action,
                                not_a_map,          action("unlink")};
    for (const PObject& request : requests) {
        PObject reply;
        ASSERT_EQ(ask(daemon.port, request, reply), 0) << request.toString().c_str_utf8();
        EXPECT_EQ(reply.toString(), ustring("{\"ack\": \"ok\"}"))
            << request.toString().c_str_utf8();
    }
    EXPECT_TRUE(daemon.stop());
    EXPECT_EQ(daemon.process().wait_exit(), 0);
    std::string log = daemon.home().log_text();
    EXPECT_NE(log.find("recieve msg >>> {\"action\": \"nonsense\"}"), std::string::npos);
    EXPECT_NE(log.find("======= Settings ======="), std::string::npos);  // "link" logged them
    EXPECT_NE(log.find("main thread down"), std::string::npos);
}

TEST(DaemonControl, LinkEmptiesTheStatusDatabaseAndFailsWithoutASystemFilter) {
    loopback::Listener control;
    RunningDaemon daemon(control);
    ASSERT_GT(daemon.port, 0);
    std::string fstat = daemon.home().dir / "fstat.sqlite";
    ASSERT_EQ(FileStatusDB::initialize(fstat), 0);
    FileStatusInfo stale;
    stale.path = "/left/by/a/crash";
    ASSERT_EQ(FileStatusDB::setFileSyncStat(stale), 0);
    FileStatusInfo row;
    ASSERT_EQ(FileStatusDB::getFileSyncStat("/left/by/a/crash", &row), 1);

    PObject reply;
    ASSERT_EQ(ask(daemon.port, action("link"), reply), 0);
    EXPECT_EQ(reply.toString(), ustring("{\"ack\": \"ok\"}"));
    EXPECT_EQ(FileStatusDB::getFileSyncStat("/left/by/a/crash", &row), 0);

    ASSERT_EQ(ask(daemon.port, action("unlink"), reply), 0);
    ::unlink((daemon.home().dir / "system.filter").c_str());
    ASSERT_EQ(ask(daemon.port, action("link"), reply), 0);
    EXPECT_EQ(reply["error"].asString(), ustring("Failed to initialize environment"));
    EXPECT_TRUE(daemon.stop());
    EXPECT_EQ(daemon.process().wait_exit(), 0);
    FileStatusDB::destroy();
    EXPECT_NE(daemon.home().log_text().find("Failed to load system filter from"),
              std::string::npos);
}

TEST(DaemonControl, BrokenRequestsCloseTheirConnectionAndServingGoesOn) {
    loopback::Listener control;
    RunningDaemon daemon(control);
    ASSERT_GT(daemon.port, 0);
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
    PObject reply;
    ASSERT_EQ(ask(daemon.port, action("get_status"), reply), 0);
    EXPECT_EQ(reply.toString(), ustring("{\"ack\": \"ok\"}"));
    EXPECT_TRUE(daemon.stop());
    EXPECT_EQ(daemon.process().wait_exit(), 0);
    EXPECT_NE(daemon.home().log_text().find("Failed to recieve message from channel."),
              std::string::npos);
}

TEST(DaemonControl, BusyPortIsSkipped) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        // A controlling port whose next port a listener of ours holds.
        loopback::Listener control;
        if (control.port() >= 65535) continue;
        int busy = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr = loopback::address(control.port() + 1);
        if (::bind(busy, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            ::listen(busy, 1) != 0) {
            ::close(busy);
            continue;
        }
        RunningDaemon daemon(control);
        EXPECT_GT(daemon.port, control.port() + 1);
        PObject reply;
        EXPECT_EQ(ask(daemon.port, action("get_status"), reply), 0);
        EXPECT_TRUE(daemon.stop());
        EXPECT_EQ(daemon.process().wait_exit(), 0);
        EXPECT_NE(daemon.home().log_text().find("Bind port " + std::to_string(control.port() + 1) +
                                                " failed, try next one"),
                  std::string::npos);
        ::close(busy);
        return;
    }
    FAIL() << "no free pair of adjacent ports";
}

TEST(DaemonStartup, TooManyArgumentsFailBeforeAnySetUp) {
    DaemonHome home;
    Process p({kDaemon, home.config, "2000", "extra"}, home.dir / "out");
    ASSERT_TRUE(p.started());
    EXPECT_EQ(p.wait_exit(), 255);
    EXPECT_FALSE(std::ifstream(home.log).good());
}

TEST(DaemonStartup, UnreachableControllerEndsNormally) {
    int port;
    {
        loopback::Listener gone;
        port = gone.port();
    }
    DaemonHome home;
    Process p({kDaemon, home.config, std::to_string(port)}, home.dir / "out");
    EXPECT_EQ(p.wait_exit(), 0);
    EXPECT_NE(home.log_text().find("Failed to connect to port : " + std::to_string(port)),
              std::string::npos);
}

TEST(DaemonStartup, LogThatCannotOpenEndsWithAnError) {
    DaemonHome home(std::string("/nonexistent-dir/daemon.log"));
    Process p({kDaemon, home.config, "1"}, home.dir / "out");
    EXPECT_EQ(p.wait_exit(), 255);
    EXPECT_NE(slurp(home.dir / "out").find("Tarnbridge: client is not enabled"), std::string::npos);
}

TEST(DaemonStartup, PortWalkStopsAt65535) {
    DaemonHome home;
    Process p({kDaemon, home.config, "65535"}, home.dir / "out");
    EXPECT_EQ(p.wait_exit(), 0);
    std::string log = home.log_text();
    EXPECT_NE(log.find("Port number exceeds 65536"), std::string::npos);
    EXPECT_NE(log.find("failed to listen on port local_port."), std::string::npos);
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

TEST(TarnbridgeConcurrency, ManySendersEachGetTheirOwnReply) {
    Tarnbridge app;
    ASSERT_EQ(app.run(), 0);
    std::atomic<int> acked{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t)
        senders.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) {
                PObject request = action(i % 2 == 0 ? "get_status" : "nonsense");
                request["sender"] = static_cast<uint64_t>(t);
                PObject reply;
                app.send_message(request, reply);
                if (reply.toString() == ustring("{\"ack\": \"ok\"}")) ++acked;
            }
        });
    for (std::thread& s : senders) s.join();
    EXPECT_EQ(acked.load(), 200);
    app.kill();
    EXPECT_FALSE(app.isRunning());
}

TEST(TarnbridgeConcurrency, StopEndsTheControlLoop) {
    Tarnbridge app;
    ASSERT_EQ(app.run(), 0);
    EXPECT_TRUE(app.isRunning());
    PObject reply;
    app.send_message(action("stop"), reply);
    EXPECT_FALSE(app.isRunning());
    auto t0 = std::chrono::steady_clock::now();
    app.kill();  // the queued stop is never taken; the join returns at once
    EXPECT_LT(loopback::seconds_since(t0), 1.0);
}

}  // namespace
