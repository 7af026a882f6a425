// daemon-commands.cpp: start, send and stop, the controller's commands for the daemon
// as a whole.
#include "daemon-commands.h"

#include <cstdio>
#include <string>
#include <vector>

#include "daemon-client.h"
#include "foundation/config.h"
#include "request-args.h"
#include "session-commands.h"

namespace {

struct Options {
    std::string config;
    int port = -1;
    std::vector<std::string> rest;  // words after the options
};

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
    o.config = config_path(o.config);
    return true;
}

// Where the daemon is: from --port, else from the configuration's state file.
bool find_daemon(const Options& o, ControllerState& state, std::string& error) {
    if (o.port > 0) {
        state.daemon_port = o.port;
        return true;
    }
    if (o.config.empty()) {
        error = "which daemon? give --config FILE (or TARNBRIDGE_CONFIG) or --port N";
        return false;
    }
    if (!ReadState(o.config, state, error)) return false;
    if (state.daemon_port > 0) return true;
    error = "no running daemon is recorded for " + o.config + " (no daemon in " +
            StatePath(o.config) + ")";
    return false;
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
    ControllerState state;
    if (!ReadState(o.config, state, error)) return failure(error);
    if (daemon_alive(state))
        return failure("a daemon already runs for " + o.config + " (pid " +
                       std::to_string(state.pid) + ", port " + std::to_string(state.daemon_port) +
                       ")");
    if (!start_daemon(o.config, o.port, state, error)) return failure(error);
    if (!WriteState(o.config, state, error))
        return failure("daemon runs (pid " + std::to_string(state.pid) + ", port " +
                       std::to_string(state.daemon_port) + ") but " + error);
    std::printf("%d\n", state.daemon_port);
    std::fflush(stdout);
    return restore_sessions(o.config, state);
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
    ControllerState state;
    if (!find_daemon(o, state, error)) return failure(error);
    PObject reply;
    if (exchange(state.daemon_port, request, reply, error) != 0) return failure(error);
    std::printf("%s\n", reply.toString().c_str_utf8());
    return reply.hasMember("error") ? 1 : 0;
}

int run_stop(int argc, char** argv) {
    Options o;
    std::string error;
    if (!parse_options(argc, argv, o, error)) return usage_error(error);
    if (!o.rest.empty()) return usage_error("unexpected '" + o.rest[0] + "'");
    ControllerState state;
    if (!find_daemon(o, state, error)) return failure(error);
    const bool stopped = stop_daemon(state, error);
    // The daemon is gone either way when it was not running; its sessions stay recorded.
    if (o.port <= 0 && (stopped || !daemon_alive(state))) {
        state.daemon_port = -1;
        state.pid = -1;
        std::string write_error;
        if (!WriteState(o.config, state, write_error)) return failure(write_error);
    }
    if (!stopped) return failure(error);
    std::printf("stopped\n");
    return 0;
}
