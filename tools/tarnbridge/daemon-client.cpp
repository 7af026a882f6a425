// daemon-client.cpp: starting the daemon, asking it, stopping it. The controller plays
// the controlling process: it listens on a loopback port, starts the daemon with that
// port, and learns the daemon's own port from the "daemon_port" map sent there.
#include "daemon-client.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "foundation/channel.h"
#include "foundation/stream.h"
#include "platform/net.h"
#include "platform/process.h"

namespace {

constexpr int kDefaultControlPort = 1024;
// How long the daemon may take to announce its port, to answer, and to go away.
constexpr auto kStartLimit = std::chrono::seconds(15);
constexpr uint32_t kReplyTimeout = 120;
constexpr auto kStopLimit = std::chrono::seconds(60);

using clock_type = std::chrono::steady_clock;

// A loopback listener from `port` upward; the socket, with the port in `bound`.
platform::socket_t listen_from(int port, int& bound) {
    for (int p = port; p <= 65535; ++p) {
        platform::socket_t s = platform::tcp_socket();
        if (s == platform::kInvalidSocket) return s;
        if (platform::bind_loopback(s, p) == 0 && platform::listen_socket(s, 8) == 0) {
            bound = p;
            return s;
        }
        platform::close_socket(s);
    }
    return platform::kInvalidSocket;
}

// The daemon executable: beside this program (installed), in the build tree's sibling
// folder, or else by name in PATH.
std::string daemon_program() {
    std::string dir = platform::executable_dir();
    if (!dir.empty()) {
        for (const std::string& candidate :
             {dir + "/tarnbridge-daemon", dir + "/../tarnbridge-daemon/tarnbridge-daemon"})
            if (platform::is_executable(candidate)) return candidate;
    }
    return "tarnbridge-daemon";
}

// Waits for the daemon's connection and reads its "daemon_port". The port, or -1.
int receive_daemon_port(platform::socket_t listener, int pid, std::string& error) {
    auto deadline = clock_type::now() + kStartLimit;
    while (clock_type::now() < deadline) {
        if (platform::wait_ready(listener, false, 200) != platform::WAIT_READY) {
            if (!platform::process_alive(pid)) {
                error = "the daemon ended before announcing its port (see its log file)";
                return -1;
            }
            continue;
        }
        platform::socket_t s = platform::accept_socket(listener);
        if (s == platform::kInvalidSocket) continue;
        Channel ch;
        if (ch.Open(s, true) < 0) {
            platform::close_socket(s);
            continue;
        }
        ch.SetTimeout(5);
        PStream ps;
        PObject report;
        if (ps.Recv(ch, report) != 0 || !report["daemon_port"].isInteger()) {
            error = "the daemon's announcement was not understood";
            return -1;
        }
        return report["daemon_port"].asInt32();
    }
    error = "the daemon did not announce its port in time";
    return -1;
}

// Waits for the first byte of a reply; false when the connection closed without one
// (a "stop" is never answered) or nothing came in time.
bool wait_for_bytes(platform::socket_t s) {
    char byte;
    return platform::wait_ready(s, false, static_cast<int>(kReplyTimeout) * 1000) ==
               platform::WAIT_READY &&
           platform::peek_some(s, &byte, 1) == 1;
}

bool wait_until_gone(const ControllerState& state) {
    auto deadline = clock_type::now() + kStopLimit;
    while (clock_type::now() < deadline) {
        bool gone = state.pid > 0 ? !platform::process_alive(state.pid) : [&] {
            Channel probe;
            return probe.Open("127.0.0.1", state.daemon_port) != 0;
        }();
        if (gone) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

// Sends "stop" and waits for the daemon to close the connection, which it does without
// a reply. true when it closed silently.
bool send_stop(int port, std::string& error) {
    Channel ch;
    if (ch.Open("127.0.0.1", port) != 0) {
        error = "cannot reach the daemon on port " + std::to_string(port);
        return false;
    }
    PObject request;
    request["action"] = "stop";
    PStream ps;
    if (ps.Send(ch, request) != 0) {
        error = "the request could not be sent";
        return false;
    }
    platform::socket_t s = ch.GetSocket();
    char byte;
    if (platform::wait_ready(s, false, static_cast<int>(kReplyTimeout) * 1000) !=
            platform::WAIT_READY ||
        platform::peek_some(s, &byte, 1) != 0) {
        error = "the daemon did not close the connection as a stop does";
        return false;
    }
    return true;
}

}  // namespace

int usage_error(const std::string& message) {
    std::fprintf(stderr, "tarnbridge: %s\n", message.c_str());
    return 2;
}

int failure(const std::string& message) {
    std::fprintf(stderr, "tarnbridge: %s\n", message.c_str());
    return 1;
}

std::string config_path(const std::string& given) {
    std::string config = given;
    if (config.empty()) {
        const char* env = std::getenv("TARNBRIDGE_CONFIG");
        if (env != nullptr) config = env;
    }
    return config.empty() ? config : platform::absolute_path(config);
}

bool daemon_alive(const ControllerState& state) {
    return state.daemon_port > 0 && state.pid > 0 && platform::process_alive(state.pid);
}

bool start_daemon(const std::string& config, int port, ControllerState& state, std::string& error) {
    platform::net_init();
    int control_port = -1;
    platform::socket_t listener = listen_from(port > 0 ? port : kDefaultControlPort, control_port);
    if (listener == platform::kInvalidSocket) {
        error = "no free loopback port to listen on";
        return false;
    }
    int pid = -1;
    int err = 0;
    std::string program = daemon_program();
    if (platform::spawn_detached(program, {config, std::to_string(control_port)}, &pid, &err) !=
        0) {
        platform::close_socket(listener);
        error = "cannot start " + program + ": " + platform::error_text(err);
        return false;
    }
    const int daemon_port = receive_daemon_port(listener, pid, error);
    platform::close_socket(listener);
    if (daemon_port < 0) return false;
    state.daemon_port = daemon_port;
    state.pid = pid;
    return true;
}

int exchange(int port, const PObject& request, PObject& reply, std::string& error) {
    platform::net_init();
    Channel ch;
    if (ch.Open("127.0.0.1", port) != 0) {
        error = "cannot reach the daemon on port " + std::to_string(port);
        return -1;
    }
    ch.SetTimeout(kReplyTimeout);
    PStream ps;
    if (ps.Send(ch, request) != 0) {
        error = "the request could not be sent";
        return -1;
    }
    if (!wait_for_bytes(ch.GetSocket()) || ps.Recv(ch, reply) != 0) {
        error = "no reply came";
        return -2;
    }
    return 0;
}

bool ask(int port, const PObject& request, PObject& reply, std::string& error) {
    if (exchange(port, request, reply, error) != 0) return false;
    if (!reply.hasMember("error")) return true;
    error = "the daemon refused " + request["action"].asString().str() + ": " +
            reply["error"].asString().str();
    return false;
}

bool stop_daemon(const ControllerState& state, std::string& error) {
    platform::net_init();
    if (!send_stop(state.daemon_port, error)) {
        if (state.pid > 0 && !platform::process_alive(state.pid))
            error = "the daemon was not running";
        return false;
    }
    if (wait_until_gone(state)) return true;
    error = "the daemon did not exit in time";
    return false;
}
