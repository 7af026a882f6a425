// The daemon's notifications (UI_IPC) as `tarnbridge watch`, a real process, receives
// them: one line each, readable or JSON; a garbled one is reported and the watch goes
// on; an interrupt ends it cleanly. Before anyone listens, a notification costs the
// caller nothing but a -1.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "foundation/error-code.h"
#include "manager-fixture.h"

extern char** environ;

using namespace evtest;

namespace {

const std::string kController = std::string(TB_BINARY_DIR) + "/tools/tarnbridge/tarnbridge";

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The controller watching, its output in files; killed if a test leaves it.
class Watcher {
  public:
    Watcher(const TempDir& dir, std::vector<std::string> options)
        : m_out(dir / "watch.out"), m_err(dir / "watch.err") {
        options.insert(options.begin(), {kController, "watch"});
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, m_out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_addopen(&actions, 2, m_err.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        std::vector<char*> args;
        for (std::string& a : options) args.push_back(a.data());
        args.push_back(nullptr);
        if (posix_spawn(&m_pid, kController.c_str(), &actions, nullptr, args.data(), environ) != 0)
            m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Watcher() {
        if (m_pid <= 0) return;
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }

    // Waits up to 5 seconds for `text` in the output file.
    bool WaitFor(const std::string& file, const std::string& text) {
        for (int i = 0; i < 250; ++i) {
            if (Slurp(file).find(text) != std::string::npos) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    bool Listening() { return m_pid > 0 && WaitFor(m_err, "watching notifications"); }
    std::vector<std::string> Lines() {
        std::vector<std::string> lines;
        std::istringstream in(Slurp(m_out));
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }
    // The exit status (after an interrupt when asked), or -1 when it did not end
    // within 5 seconds.
    int Exit(bool interrupt = false) {
        if (interrupt) ::kill(m_pid, SIGINT);
        for (int i = 0; i < 250; ++i) {
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return -1;
    }
    const std::string m_out, m_err;

  private:
    pid_t m_pid = -1;
};

class WatchCommand : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(::access(kController.c_str(), X_OK) == 0) << "build the tarnbridge tool first";
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
    Watcher watcher(dir, {"--config", dir / "daemon.conf"});
    ASSERT_TRUE(watcher.Listening()) << Slurp(watcher.m_err);
    ASSERT_EQ(UI_IPC::ReportFileSyncingEventToUI(e), 0);
    ASSERT_EQ(UI_IPC::ReportSessionErrorToUI(3, ERR_QUOTA), 0);
    ASSERT_EQ(UI_IPC::ReportFileLockedEventToUI(e, ERR_LOCKED_FILE), 0);
    ASSERT_EQ(UI_IPC::LastBreath(), 0);
    ASSERT_TRUE(watcher.WaitFor(watcher.m_out, "goodbye"));  // the last one

    const std::vector<std::string> lines = watcher.Lines();
    ASSERT_EQ(lines.size(), 4u);
    const std::string want[] = {"syncing  session 3  /docs/report.odt (file, modified)",
                                "error    session 3: " + std::string(GetErrorString(ERR_QUOTA)),
                                "locked   session 3  /docs/report.odt (file): file locked",
                                "goodbye"};
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_NE(lines[i].find(want[i]), std::string::npos) << lines[i];
        EXPECT_EQ(lines[i][4], '-') << lines[i];  // starts with the date
    }
    EXPECT_EQ(watcher.Exit(true), 0);
}

// Each JSON line is the whole notification map as the daemon sent it, keys in order,
// with the time the watch received it added last.
TEST_F(WatchCommand, JsonLinesShowEachNotificationWholeAndSurviveAGarbledOne) {
    Watcher watcher(dir, {"--port", std::to_string(port), "--json"});
    ASSERT_TRUE(watcher.Listening()) << Slurp(watcher.m_err);
    SetUIPort(port);

    {
        const int s = loopback::connect_to(port);
        ASSERT_GE(s, 0);
        loopback::write_all(s, std::string("\x42\x10\x00\x03key\x99", 8));  // a value with no tag
        ::close(s);
    }
    ASSERT_TRUE(watcher.WaitFor(watcher.m_err, "unreadable notification"));

    Event dir_event = Make(Event::EV_CREATE, "/old \"albums\"", LOCAL, DIR_NODE);
    dir_event.m_sess_id = 42;
    const Event file = Make(Event::EV_REMOVE, "/notes.txt", SERVER, FILE_NODE, 9);
    ASSERT_EQ(UI_IPC::ReportFileSyncingEventToUI(dir_event), 0);
    ASSERT_EQ(UI_IPC::ReportFileEventToUI(file), 0);
    ASSERT_EQ(UI_IPC::ReportFileLockedEventToUI(file, ERR_LOCKED_FILE), 0);
    ASSERT_EQ(UI_IPC::ReportSessionErrorToUI(7, ERR_QUOTA), 0);
    ASSERT_EQ(UI_IPC::ReportConnectionErrorToUI(-2, ERR_TIMEOUT), 0);
    ASSERT_EQ(UI_IPC::LastBreath(), 0);
    ASSERT_TRUE(watcher.WaitFor(watcher.m_out, "connection_terminate"));  // the last one

    const std::vector<std::string> lines = watcher.Lines();
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
    EXPECT_EQ(watcher.Exit(true), 0);
}

TEST_F(WatchCommand, RefusesABusyPort) {
    loopback::Listener busy;
    Watcher second(dir, {"--port", std::to_string(busy.port())});
    EXPECT_EQ(second.Exit(), 1);
    EXPECT_NE(Slurp(second.m_err).find("can't listen"), std::string::npos);
}

}  // namespace
