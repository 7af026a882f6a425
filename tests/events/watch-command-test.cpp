// `tarnbridge watch` as a real process: notifications sent by the daemon's reporting
// code come out as one line each, readable or JSON; a garbled one is reported and the
// watch goes on; an interrupt ends it cleanly.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "event-builders.h"
#include "events/ui-ipc.h"
#include "foundation/error-code.h"
#include "ui-listener.h"

extern char** environ;

using namespace evtest;

namespace {

const std::string kController = std::string(TB_BINARY_DIR) + "/tools/tarnbridge/tarnbridge";

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// The controller watching a port, its output in files; killed if a test leaves it.
class Watcher {
  public:
    Watcher(const TempDir& dir, int port, bool json)
        : Watcher(dir, json ? std::vector<std::string>{"--port", std::to_string(port), "--json"}
                            : std::vector<std::string>{"--port", std::to_string(port)}) {}
    Watcher(const TempDir& dir, const std::vector<std::string>& options)
        : m_out(dir / "watch.out"), m_err(dir / "watch.err") {
        std::vector<std::string> argv = {kController, "watch"};
        argv.insert(argv.end(), options.begin(), options.end());
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, m_out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_addopen(&actions, 2, m_err.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        std::vector<char*> args;
        for (std::string& a : argv) args.push_back(a.data());
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

    bool WaitFor(const std::string& file, const std::string& text, size_t count = 1) {
        for (int i = 0; i < 250; ++i) {
            const std::string content = Slurp(file);
            size_t found = 0;
            for (size_t at = content.find(text); at != std::string::npos;
                 at = content.find(text, at + 1))
                ++found;
            if (found >= count) return true;
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
    // The exit status after an interrupt, or -1 when it did not end within 5 seconds.
    int Interrupt() {
        ::kill(m_pid, SIGINT);
        return Exit();
    }
    // The exit status, or -1 when it did not end within 5 seconds.
    int Exit() {
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
    const std::string& out() const { return m_out; }
    const std::string& err() const { return m_err; }

  private:
    std::string m_out, m_err;
    pid_t m_pid = -1;
};

int FreePort() {
    UIListener probe;
    return probe.port();
}

TEST(WatchCommand, PrintsOneReadableLinePerNotification) {
    ASSERT_TRUE(::access(kController.c_str(), X_OK) == 0) << "build the tarnbridge tool first";
    TempDir dir;
    const int port = FreePort();
    Watcher watcher(dir, port, false);
    ASSERT_TRUE(watcher.Listening()) << Slurp(watcher.err());
    SetUIPort(port);

    Event e = Make(Event::EV_MODIFY, "/docs/report.odt", LOCAL);
    e.m_sess_id = 3;
    ASSERT_EQ(UI_IPC::ReportFileSyncingEventToUI(e), 0);
    ASSERT_EQ(UI_IPC::ReportSessionErrorToUI(3, ERR_QUOTA), 0);
    ASSERT_EQ(UI_IPC::ReportFileLockedEventToUI(e, ERR_LOCKED_FILE), 0);
    ASSERT_TRUE(watcher.WaitFor(watcher.out(), "\n", 3));

    const std::vector<std::string> lines = watcher.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("syncing  session 3  /docs/report.odt (file, modified)"),
              std::string::npos)
        << lines[0];
    EXPECT_NE(lines[1].find(std::string("error    session 3: ") + GetErrorString(ERR_QUOTA)),
              std::string::npos)
        << lines[1];
    EXPECT_NE(lines[2].find("locked   session 3  /docs/report.odt (file): file locked"),
              std::string::npos)
        << lines[2];
    EXPECT_EQ(lines[0][4], '-');  // starts with the date
    EXPECT_EQ(watcher.Interrupt(), 0);
}

TEST(WatchCommand, JsonLinesSurviveAGarbledNotification) {
    ASSERT_TRUE(::access(kController.c_str(), X_OK) == 0) << "build the tarnbridge tool first";
    TempDir dir;
    const int port = FreePort();
    Watcher watcher(dir, port, true);
    ASSERT_TRUE(watcher.Listening()) << Slurp(watcher.err());
    SetUIPort(port);

    {
        platform::socket_t s = platform::tcp_socket();
        int started = platform::connect_start(s, "127.0.0.1", port);
        if (started == 1 && platform::wait_ready(s, true, 2000) == platform::WAIT_READY)
            started = platform::connect_result(s);
        ASSERT_EQ(started, 0);
        const char garbage[] = "\x42\x10\x00\x03key\x99";  // a map whose value has no tag
        ASSERT_EQ(platform::send_some(s, garbage, sizeof garbage - 1), long(sizeof garbage - 1));
        platform::shutdown_close(s);
    }
    ASSERT_TRUE(watcher.WaitFor(watcher.err(), "unreadable notification"));

    Event dir_event = Make(Event::EV_REMOVE, "/old \"albums\"", SERVER, DIR_NODE, 12);
    dir_event.m_sess_id = 7;
    ASSERT_EQ(UI_IPC::ReportFileEventToUI(dir_event), 0);
    ASSERT_EQ(UI_IPC::ReportConnectionErrorToUI(-2, ERR_TIMEOUT), 0);
    ASSERT_TRUE(watcher.WaitFor(watcher.out(), "\n", 2));

    const std::vector<std::string> lines = watcher.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("{\"event_type\":2,\"is_dir\":1,\"notify\":\"recent_file\",\"path\":"
                             "\"/old \\\"albums\\\"\",\"session_id\":7,\"time\":\"",
                             0),
              0u)
        << lines[0];
    EXPECT_EQ(lines[1].rfind("{\"connection_id\":-2,\"error_type\":-9,\"notify\":\"error\"", 0), 0u)
        << lines[1];
    EXPECT_EQ(watcher.Interrupt(), 0);
}

TEST(WatchCommand, FindsItsPortInTheDaemonConfiguration) {
    ASSERT_TRUE(::access(kController.c_str(), X_OK) == 0) << "build the tarnbridge tool first";
    TempDir dir;
    const int port = FreePort();
    dir.write("daemon.conf", "worker_count = 3\nui_port = " + std::to_string(port) + "\n");
    Watcher watcher(dir, {"--config", dir / "daemon.conf"});
    ASSERT_TRUE(watcher.Listening()) << Slurp(watcher.err());
    EXPECT_NE(Slurp(watcher.err()).find("127.0.0.1:" + std::to_string(port)), std::string::npos);
    SetUIPort(port);
    ASSERT_EQ(UI_IPC::LastBreath(), 0);
    ASSERT_TRUE(watcher.WaitFor(watcher.out(), "goodbye"));
    EXPECT_EQ(watcher.Interrupt(), 0);
}

TEST(WatchCommand, RefusesABadPortAndABusyOne) {
    ASSERT_TRUE(::access(kController.c_str(), X_OK) == 0) << "build the tarnbridge tool first";
    TempDir dir;
    {
        Watcher bad_port(dir, 0, false);
        EXPECT_EQ(bad_port.Exit(), 2);
    }
    UIListener busy;
    Watcher second(dir, busy.port(), false);
    EXPECT_EQ(second.Exit(), 1);
    EXPECT_NE(Slurp(second.err()).find("can't listen"), std::string::npos);
}

}  // namespace
