// The daemon's notifications (UI_IPC) as `tarnbridge watch`, a real process, receives
// them: one line each, readable or JSON; a garbled one is reported and the watch goes
// on; an interrupt ends it cleanly. Before anyone listens, a notification costs the
// caller nothing but a -1.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "foundation/error-code.h"
#include "manager-fixture.h"
#include "support/process.h"

using namespace evtest;

namespace {

// The controller watching, its two output streams in files of `dir`.
ChildProcess Watch(const TempDir& dir, std::vector<std::string> options) {
    options.insert(options.begin(), {kControllerBinary, "watch"});
    return ChildProcess(options, {{}, dir / "watch.out", dir / "watch.err"});
}

bool Listening(ChildProcess& watcher) {
    return watcher.WaitForOutput("watching notifications", 5, true);
}

// The exit status after an interrupt.
int Interrupt(ChildProcess& watcher) {
    watcher.Signal(SIGINT);
    return watcher.Wait(5);
}

class WatchCommand : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(::access(kControllerBinary.c_str(), X_OK) == 0)
            << "build the tarnbridge tool first";
        port = UnheardPort();
    }
    TempDir dir;
    int port = -1;
};

TEST_F(WatchCommand, PrintsOneReadableLinePerNotificationOnThePortOfTheConfiguration) {
    Event e = Make(Event::EV_MODIFY, "/docs/report.odt", LOCAL);
    e.m_sess_id = 3;
    // Before anyone listens each notification is refused at once: a stall would be a
    // second or more, in the caller's own thread.
    SetUIPort(port);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 5; ++i) EXPECT_EQ(UI_IPC::ReportFileSyncingEventToUI(e), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));

    dir.write("daemon.conf", "worker_count = 3\nui_port = " + std::to_string(port) + "\n");
    ChildProcess watcher = Watch(dir, {"--config", dir / "daemon.conf"});
    ASSERT_TRUE(Listening(watcher)) << watcher.Err();
    ASSERT_EQ(UI_IPC::ReportFileSyncingEventToUI(e), 0);
    ASSERT_EQ(UI_IPC::ReportSessionErrorToUI(3, ERR_QUOTA), 0);
    ASSERT_EQ(UI_IPC::ReportFileLockedEventToUI(e, ERR_LOCKED_FILE), 0);
    ASSERT_EQ(UI_IPC::LastBreath(), 0);
    ASSERT_TRUE(watcher.WaitForOutput("goodbye"));  // the last one

    const std::vector<std::string> lines = Lines(watcher.Out());
    ASSERT_EQ(lines.size(), 4u);
    const std::string want[] = {"syncing  session 3  /docs/report.odt (file, modified)",
                                "error    session 3: " + std::string(GetErrorString(ERR_QUOTA)),
                                "locked   session 3  /docs/report.odt (file): file locked",
                                "goodbye"};
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_NE(lines[i].find(want[i]), std::string::npos) << lines[i];
        EXPECT_EQ(lines[i][4], '-') << lines[i];  // starts with the date
    }
    EXPECT_EQ(Interrupt(watcher), 0);
}

// Each JSON line is the whole notification map as the daemon sent it, keys in order,
// with the time the watch received it added last.
TEST_F(WatchCommand, JsonLinesShowEachNotificationWholeAndSurviveAGarbledOne) {
    ChildProcess watcher = Watch(dir, {"--port", std::to_string(port), "--json"});
    ASSERT_TRUE(Listening(watcher)) << watcher.Err();
    SetUIPort(port);

    {
        const int s = loopback::connect_to(port);
        ASSERT_GE(s, 0);
        loopback::write_all(s, std::string("\x42\x10\x00\x03key\x99", 8));  // a value with no tag
        ::close(s);
    }
    ASSERT_TRUE(watcher.WaitForOutput("unreadable notification", 5, true));

    Event dir_event = Make(Event::EV_CREATE, "/old \"albums\"", LOCAL, DIR_NODE);
    dir_event.m_sess_id = 42;
    const Event file = Make(Event::EV_REMOVE, "/notes.txt", SERVER, FILE_NODE, 9);
    ASSERT_EQ(UI_IPC::ReportFileSyncingEventToUI(dir_event), 0);
    ASSERT_EQ(UI_IPC::ReportFileEventToUI(file), 0);
    ASSERT_EQ(UI_IPC::ReportFileLockedEventToUI(file, ERR_LOCKED_FILE), 0);
    ASSERT_EQ(UI_IPC::ReportSessionErrorToUI(7, ERR_QUOTA), 0);
    ASSERT_EQ(UI_IPC::ReportConnectionErrorToUI(-2, ERR_TIMEOUT), 0);
    ASSERT_EQ(UI_IPC::LastBreath(), 0);
    ASSERT_TRUE(watcher.WaitForOutput("connection_terminate"));  // the last one

    const std::vector<std::string> lines = Lines(watcher.Out());
    const std::vector<std::string> want = {
        R"({"event_type":1,"is_dir":1,"notify":"syncing_file","path":"/old \"albums\"","session_id":42,)",
        R"({"event_type":2,"is_dir":0,"notify":"recent_file","path":"/notes.txt","session_id":1,)",
        R"({"error":{"code":)" + std::to_string(ERR_LOCKED_FILE) +
            R"(,"reason":"file locked"},"is_dir":0,"notify":"locked_file","path":"/notes.txt","session_id":1,)",
        R"({"error_type":)" + std::to_string(ERR_QUOTA) + R"(,"notify":"error","session_id":7,)",
        R"({"connection_id":-2,"error_type":-9,"notify":"error",)",
        R"({"action":"connection_terminate",)"};
    ASSERT_EQ(lines.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i)
        EXPECT_EQ(lines[i].rfind(want[i] + R"("time":")", 0), 0u) << lines[i];
    EXPECT_EQ(Interrupt(watcher), 0);
}

TEST_F(WatchCommand, RefusesABusyPort) {
    loopback::Listener busy;
    ChildProcess second = Watch(dir, {"--port", std::to_string(busy.port())});
    EXPECT_EQ(second.Wait(5), 1);
    EXPECT_NE(second.Err().find("can't listen"), std::string::npos);
}

}  // namespace
