// daemon-commands.cpp: start, send and stop, the controller's side of the daemon's
// control socket. The controller plays the controlling process: it listens on a
// loopback port, starts the daemon with that port, and learns the daemon's own port
// from the "daemon_port" map the daemon sends there.
#include "daemon-commands.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "foundation/channel.h"
#include "foundation/config.h"
#include "foundation/object.h"
#include "foundation/stream.h"
#include "platform/net.h"
#include "platform/process.h"
#include "request-args.h"

namespace {

constexpr int kDefaultControlPort = 1024;
// How long the daemon may take to announce its port, to answer, and to go away.
constexpr auto kStartLimit = std::chrono::seconds(15);
constexpr uint32_t kReplyTimeout = 120;
constexpr auto kStopLimit = std::chrono::seconds(60);

using clock_type = std::chrono::steady_clock;

struct Options {
    std::string config;
    int port = -1;
    std::vector<std::string> rest;  // words after the options
};

int usage_error(const std::string& message) {
    std::fprintf(stderr, "tarnbridge: %s\n", message.c_str());
    return 2;
}

int failure(const std::string& message) {
    std::fprintf(stderr, "tarnbridge: %s\n", message.c_str());
    return 1;
}

// Options come first; the first word that is not one ends them.
bool parse_options(int argc, char** argv, Options& o, std::string& error) {
    int i = 0;
    for (; i < argc; ++i) {
        std::string word = argv[i];
        if (word != "--config" && word != "--port") break;
        if (i + 1 >= argc) {
            error = word + " needs a value";
            return false;
        }
        std::string value = argv[++i];
        if (word == "--config") {
            o.config = value;
        } else if (!parse_port(value, o.port)) {
            error = "bad port '" + value + "'";
            return false;
        }
    }
    for (; i < argc; ++i) o.rest.emplace_back(argv[i]);
    if (o.config.empty()) {
        const char* env = std::getenv("TARNBRIDGE_CONFIG");
        if (env != nullptr) o.config = env;
    }
    // The state file sits beside the configuration whatever the current directory.
    if (!o.config.empty()) o.config = platform::absolute_path(o.config);
    return true;
}

std::string state_path(const std::string& config) {
    return config + ".state";
}

struct DaemonState {
    int port = -1;
    int pid = -1;
};

bool read_state(const std::string& config, DaemonState& state) {
    Config::map_type values;
    if (Config::read(ustring(state_path(config).c_str()), values) != 0) return false;
    state.port = Config::get_int(values[ustring("daemon_port")]);
    state.pid = Config::get_int(values[ustring("pid")]);
    return state.port > 0;
}

// Written beside the configuration and renamed into place, so a reader never sees half.
bool write_state(const std::string& config, const DaemonState& state) {
    std::string path = state_path(config);
    std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << "# written by tarnbridge start\n"
            << "daemon_port = " << state.port << "\n"
            << "pid = " << state.pid << "\n";
        if (!out) return false;
    }
    return std::rename(tmp.c_str(), path.c_str()) == 0;
}

// Where the daemon is: from --port, else from the configuration's state file.
bool find_daemon(const Options& o, DaemonState& state, std::string& error) {
    if (o.port > 0) {
        state.port = o.port;
        return true;
    }
    if (o.config.empty()) {
        error = "which daemon? give --config FILE (or TARNBRIDGE_CONFIG) or --port N";
        return false;
    }
    if (!read_state(o.config, state)) {
        error =
            "no running daemon is recorded for " + o.config + " (no " + state_path(o.config) + ")";
        return false;
    }
    return true;
}

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

// One request on a fresh connection. 0 with `reply` filled; -1 when the daemon can't be
// reached (message in `error`); -2 when the connection closed without a reply.
int exchange(int port, const PObject& request, PObject& reply, std::string& error) {
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

bool wait_until_gone(const DaemonState& state) {
    auto deadline = clock_type::now() + kStopLimit;
    while (clock_type::now() < deadline) {
        bool gone = state.pid > 0 ? !platform::process_alive(state.pid) : [&] {
            Channel probe;
            return probe.Open("127.0.0.1", state.port) != 0;
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

int run_start(int argc, char** argv) {
    Options o;
    std::string error;
    if (!parse_options(argc, argv, o, error)) return usage_error(error);
    if (o.config.empty()) return usage_error("start needs --config FILE");
    if (!o.rest.empty()) return usage_error("unexpected '" + o.rest[0] + "'");
    // The daemon would fall back to its defaults without a word; say it here instead.
    Config::map_type values;
    if (Config::read(ustring(o.config.c_str()), values) != 0)
        return failure("cannot read the configuration " + o.config);
    const std::string& config = o.config;
    DaemonState state;
    if (read_state(config, state) && state.pid > 0 && platform::process_alive(state.pid))
        return failure("a daemon already runs for " + o.config + " (pid " +
                       std::to_string(state.pid) + ", port " + std::to_string(state.port) + ")");

    platform::net_init();
    int control_port = -1;
    platform::socket_t listener =
        listen_from(o.port > 0 ? o.port : kDefaultControlPort, control_port);
    if (listener == platform::kInvalidSocket) return failure("no free loopback port to listen on");
    int pid = -1;
    int err = 0;
    std::string program = daemon_program();
    if (platform::spawn_detached(program, {config, std::to_string(control_port)}, &pid, &err) !=
        0) {
        platform::close_socket(listener);
        return failure("cannot start " + program + ": " + platform::error_text(err));
    }
    int port = receive_daemon_port(listener, pid, error);
    platform::close_socket(listener);
    if (port < 0) return failure(error);
    state.port = port;
    state.pid = pid;
    if (!write_state(config, state))
        return failure("daemon runs (pid " + std::to_string(pid) + ", port " +
                       std::to_string(port) + ") but " + state_path(config) +
                       " could not be written");
    std::printf("%d\n", port);
    return 0;
}

int run_send(int argc, char** argv) {
    return run_built_request(
        argc, argv,
        [](const std::vector<std::string>& words, PObject& request, std::string& error) {
            if (words.empty()) {
                error = "send needs an ACTION";
                return false;
            }
            request["action"] = words[0].c_str();
            for (size_t i = 1; i < words.size(); ++i)
                if (!add_request_arg(words[i], request, error)) return false;
            return true;
        });
}

int run_built_request(int argc, char** argv, const RequestBuilder& build) {
    Options o;
    std::string error;
    if (!parse_options(argc, argv, o, error)) return usage_error(error);
    PObject request;
    if (!build(o.rest, request, error)) return usage_error(error);
    DaemonState state;
    if (!find_daemon(o, state, error)) return failure(error);
    platform::net_init();
    PObject reply;
    if (exchange(state.port, request, reply, error) != 0) return failure(error);
    std::printf("%s\n", reply.toString().c_str_utf8());
    return reply.hasMember("error") ? 1 : 0;
}

int run_stop(int argc, char** argv) {
    Options o;
    std::string error;
    if (!parse_options(argc, argv, o, error)) return usage_error(error);
    if (!o.rest.empty()) return usage_error("unexpected '" + o.rest[0] + "'");
    DaemonState state;
    if (!find_daemon(o, state, error)) return failure(error);
    platform::net_init();
    if (!send_stop(state.port, error)) {
        if (state.pid > 0 && !platform::process_alive(state.pid)) {
            std::remove(state_path(o.config).c_str());
            return failure("the daemon was not running");
        }
        return failure(error);
    }
    if (!wait_until_gone(state)) return failure("the daemon did not exit in time");
    if (o.port <= 0) std::remove(state_path(o.config).c_str());
    std::printf("stopped\n");
    return 0;
}
