// session-commands.cpp: add, status, pause, resume and remove, each turned into the
// control requests of the daemon, with the sessions recorded in the state file.
#include "session-commands.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include "connection-command.h"
#include "daemon-client.h"
#include "filter/filter.h"
#include "foundation/config.h"
#include "json-out.h"
#include "request-args.h"

namespace fs = std::filesystem;

namespace {

const char* const kDefaultBlackList = "[Version]\nmajor = 1\nminor = 0\n";
const char* const kDefaultWhiteList =
    "[Version]\nmajor = 1\nminor = 0\n\n[File]\nwhite_ext = \"*\"\n";

volatile sig_atomic_t g_interrupted = 0;

void on_signal(int) {
    g_interrupted = 1;
}

// Options of the form --name VALUE and --flag, in any order, and the words left for
// another reader.
struct Args {
    std::map<std::string, std::string> values;
    std::set<std::string> flags;
    std::vector<std::string> rest;

    bool has(const std::string& name) const { return values.count(name) != 0; }
    std::string get(const std::string& name) const {
        auto it = values.find(name);
        return it == values.end() ? std::string() : it->second;
    }
};

// Words that are neither go to `args.rest` when `keep_rest`, else they are an error.
bool parse_args(int argc, char** argv, const std::set<std::string>& value_options,
                const std::set<std::string>& flag_options, Args& args, std::string& error,
                bool keep_rest = false) {
    for (int i = 0; i < argc; ++i) {
        const std::string word = argv[i];
        if (flag_options.count(word) != 0) {
            args.flags.insert(word);
        } else if (value_options.count(word) != 0) {
            if (i + 1 >= argc) {
                error = word + " needs a value";
                return false;
            }
            args.values[word] = argv[++i];
        } else if (keep_rest) {
            args.rest.push_back(word);
        } else {
            error = "unexpected '" + word + "'";
            return false;
        }
    }
    return true;
}

// A decimal number above 0, every character a digit.
bool parse_id(const std::string& text, uint64_t& id) {
    if (text.empty() || text.size() > 19 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    id = std::stoull(text);
    return id != 0;
}

// The words of the connection request of `state`'s server, as the person gave them.
std::vector<std::string> connection_words(const std::string& server, const std::string& token,
                                          const std::vector<std::string>& options) {
    std::vector<std::string> words = {"--server", server, "--session", token};
    words.insert(words.end(), options.begin(), options.end());
    return words;
}

// The configuration a command works on: given, readable, with its state. false with a
// message (the exit status in `code`).
bool load(const Args& args, std::string& config, ControllerState& state, int& code) {
    std::string error;
    config = config_path(args.get("--config"));
    if (config.empty()) {
        code = usage_error("which daemon? give --config FILE (or TARNBRIDGE_CONFIG)");
        return false;
    }
    if (!ReadState(config, state, error)) {
        code = failure(error);
        return false;
    }
    return true;
}

// Sends `action` (with "session_id" when `id` is not 0); true when the daemon took it.
bool send_action(const ControllerState& state, const char* action, uint64_t id,
                 std::string& error) {
    PObject request;
    request["action"] = action;
    if (id != 0) request["session_id"] = id;
    PObject reply;
    return ask(state.daemon_port, request, reply, error);
}

// The daemon's status, or false with `error` when it can't be had.
bool get_status(const ControllerState& state, PObject& status, std::string& error) {
    PObject request;
    request["action"] = "get_status";
    return ask(state.daemon_port, request, status, error);
}

// The session's folder of filter files, with default files where none are yet; a file a
// person edited stays as it is. false with `error`.
bool prepare_session_folder(const std::string& folder, std::string& error) {
    std::error_code ec;
    fs::create_directories(folder + "/conf", ec);
    if (ec) {
        error = "cannot make " + folder + "/conf: " + ec.message();
        return false;
    }
    for (const auto& [name, text] : {std::pair{"blacklist.filter", kDefaultBlackList},
                                     std::pair{"whitelist.filter", kDefaultWhiteList}}) {
        const std::string path = folder + "/conf/" + name;
        if (fs::exists(path, ec)) continue;
        std::ofstream out(path);
        out << text;
        if (!out.flush()) {
            error = "cannot write " + path;
            return false;
        }
    }
    return true;
}

// Links the daemon unless it is, and makes its connection to the state's server unless
// one is there. false with `error`.
bool ensure_connected(const ControllerState& state, std::string& error) {
    PObject status;
    if (!get_status(state, status, error)) return false;
    if (status.hasMember("connection_list")) return true;
    PObject request;
    request["action"] = "link";
    PObject reply;
    if (exchange(state.daemon_port, request, reply, error) != 0) return false;
    if (reply.hasMember("error") && reply["error"].asString() != ustring("Already linked.")) {
        error = "the daemon refused link: " + reply["error"].asString().str();
        return false;
    }
    request = PObject();
    if (!build_connection_request(
            connection_words(state.server, state.session, state.connection_options), request,
            error))
        return false;
    request["action"] = "link_connection";
    return ask(state.daemon_port, request, reply, error);
}

bool add_to_daemon(const std::string& config, const ControllerState& state, uint64_t id,
                   const RecordedSession& session, std::string& error) {
    const std::string folder = SessionConfigFolder(config, id);
    if (!prepare_session_folder(folder, error)) return false;
    PObject request;
    request["action"] = "add_session";
    request["connection_id"] = kControllerConnectionId;
    request["session_id"] = id;
    request["view_id"] = session.view;
    request["config_path"] = folder.c_str();
    request["sync_folder"] = session.folder.c_str();
    PObject reply;
    if (!ask(state.daemon_port, request, reply, error)) return false;
    return session.paused || send_action(state, "resume", id, error);
}

// One folder inside the other, or the same.
bool overlaps(const std::string& a, const std::string& b) {
    const std::string x = a + "/";
    const std::string y = b + "/";
    return x.compare(0, y.size(), y) == 0 || y.compare(0, x.size(), x) == 0;
}

// The connection options `add` is given, as they must read when the daemon is started
// again from elsewhere and without this environment: the CA file's path absolute, the
// proxy password from the environment written out.
std::vector<std::string> given_options(const Args& args) {
    std::vector<std::string> options = args.rest;
    auto ca = std::find(options.begin(), options.end(), "--ssl-ca-file");
    std::error_code ec;
    if (ca != options.end() && ca + 1 != options.end()) ca[1] = fs::absolute(ca[1], ec).string();
    const char* password = std::getenv("TARNBRIDGE_PROXY_PASSWORD");
    if (password != nullptr &&
        std::find(options.begin(), options.end(), "--proxy-password") == options.end())
        options.insert(options.end(), {"--proxy-password", password});
    return options;
}

// What `add` is asked for, checked before anything is changed; the connection's options
// are those given, or the recorded ones when none are. The exit status when it can't be
// done, else 0.
int check_add(const Args& args, const ControllerState& state, uint64_t& id,
              RecordedSession& session, ControllerState& connection) {
    for (const char* required : {"--folder", "--server", "--session", "--view"})
        if (!args.has(required)) return usage_error(std::string("add needs ") + required);
    std::string error;
    connection.server = args.get("--server");
    connection.session = args.get("--session");
    connection.connection_options =
        args.rest.empty() && !state.server.empty() ? state.connection_options : given_options(args);
    PObject request;
    if (!build_connection_request(
            connection_words(connection.server, connection.session, connection.connection_options),
            request, error))
        return usage_error(error);
    if (!parse_id(args.get("--view"), session.view))
        return usage_error("--view wants a view id, not '" + args.get("--view") + "'");
    if (args.has("--session-id") && !parse_id(args.get("--session-id"), id))
        return usage_error("--session-id wants a number above 0");
    if (!args.has("--session-id"))
        id = state.sessions.empty() ? 1 : state.sessions.rbegin()->first + 1;
    std::error_code ec;
    session.folder = fs::weakly_canonical(fs::absolute(args.get("--folder"), ec), ec).string();
    if (ec || !fs::is_directory(session.folder, ec))
        return failure(args.get("--folder") + " is not a folder");
    if (!state.server.empty() &&
        (state.server != connection.server || state.session != connection.session))
        return failure("this daemon is connected to " + state.server +
                       " already; one configuration serves one server account");
    if (!state.server.empty() && state.connection_options != connection.connection_options)
        return failure("this daemon is connected to " + state.server +
                       " with other options; give none to use the recorded ones");
    if (state.sessions.count(id) != 0)
        return failure("session " + std::to_string(id) + " is recorded already, for " +
                       state.sessions.at(id).folder);
    for (const auto& [other, recorded] : state.sessions)
        if (overlaps(recorded.folder, session.folder))
            return failure(session.folder + " overlaps " + recorded.folder + " of session " +
                           std::to_string(other));
    return 0;
}

std::string size_text(uint64_t bytes) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    double v = static_cast<double>(bytes);
    int u = 0;
    while (v >= 1024 && u < 4) {
        v /= 1024;
        ++u;
    }
    char buf[32];
    std::snprintf(buf, sizeof buf, u == 0 ? "%.0f %s" : "%.1f %s", v, units[u]);
    return buf;
}

std::string progress_bar(uint64_t done, uint64_t total) {
    constexpr int kWidth = 20;
    const int filled = total == 0 ? 0 : static_cast<int>(done * kWidth / total);
    return "[" + std::string(filled, '#') + std::string(kWidth - filled, '-') + "]";
}

// One worker's transfer between two refreshes, for its rate.
struct Sample {
    uint64_t progress = 0;
    std::chrono::steady_clock::time_point when;
};

// The daemon's status joined with what is recorded: sessions with their folders and
// pause, workers with their rate when an earlier sample of the same file exists.
PObject status_view(const PObject& status, const ControllerState& state,
                    std::map<std::string, Sample>& samples) {
    PObject view;
    view["sessions"] = PObject::array_type();
    view["workers"] = PObject::array_type();
    if (status.hasMember("connection_list")) {
        view["connection"] = status["connection_list"][0];
        view["connection"]["server"] = state.server.c_str();
    }
    std::set<uint64_t> listed;
    for (const PObject& s : status["session_list"].asArray()) {
        const uint64_t id = s["session_id"].asUInt64();
        listed.insert(id);
        PObject item = s;
        auto recorded = state.sessions.find(id);
        if (recorded != state.sessions.end()) {
            item["folder"] = recorded->second.folder.c_str();
            item["paused"] = recorded->second.paused;
        }
        view["sessions"].asArray().push_back(item);
    }
    for (const auto& [id, recorded] : state.sessions) {
        if (listed.count(id) != 0) continue;
        PObject item;
        item["session_id"] = id;
        item["folder"] = recorded.folder.c_str();
        item["status"] = "absent";
        view["sessions"].asArray().push_back(item);
    }
    std::map<std::string, Sample> next;
    const auto now = std::chrono::steady_clock::now();
    for (const PObject& w : status["worker_list"].asArray()) {
        PObject item = w;
        const std::string key =
            std::to_string(w["session_id"].asUInt64()) + ":" + w["path"].asString().str();
        const uint64_t progress = w["progress"].asUInt64();
        auto before = samples.find(key);
        if (before != samples.end() && progress >= before->second.progress) {
            const double seconds = std::chrono::duration<double>(now - before->second.when).count();
            if (seconds > 0)
                item["bytes_per_second"] =
                    static_cast<uint64_t>((progress - before->second.progress) / seconds);
        }
        next[key] = Sample{progress, now};
        view["workers"].asArray().push_back(item);
    }
    samples = std::move(next);
    return view;
}

void print_view(const PObject& view) {
    const PObject& conn = view["connection"];
    if (conn.isNull())
        std::printf("connection: none\n");
    else
        std::printf("connection %lld: %s (%s)\n",
                    static_cast<long long>(conn["connection_id"].asInt64()),
                    conn["status"].asString().c_str_utf8(), conn["server"].asString().c_str_utf8());
    for (const PObject& s : view["sessions"].asArray()) {
        std::string what = s["status"].asString().str();
        const uint64_t files = s["unfinished_files"].asUInt64();
        if (what == "uptodate") what = "up to date";
        if (what == "syncing") what = "syncing, " + std::to_string(files) + " to go";
        if (what == "absent") what = "not in the daemon (tarnbridge start brings it back)";
        if (s["paused"].asBool()) what = "paused, " + std::to_string(files) + " to go";
        std::printf("session %llu: %s  %s\n",
                    static_cast<unsigned long long>(s["session_id"].asUInt64()), what.c_str(),
                    s["folder"].asString().c_str_utf8());
    }
    if (view["workers"].asArray().empty()) std::printf("no file in transfer\n");
    for (const PObject& w : view["workers"].asArray()) {
        const uint64_t done = w["progress"].asUInt64();
        const uint64_t total = w["total_size"].asUInt64();
        std::string line = "session " + std::to_string(w["session_id"].asUInt64()) + " " +
                           w["status"].asString().str() + " " + w["path"].asString().str() + "  " +
                           progress_bar(done, total) + " " + size_text(done) + " of " +
                           size_text(total);
        if (w.hasMember("bytes_per_second"))
            line += ", " + size_text(w["bytes_per_second"].asUInt64()) + "/s";
        std::printf("%s\n", line.c_str());
    }
}

// A pause that ends early on an interrupt.
void sleep_interruptibly(int ms) {
    for (int waited = 0; waited < ms && g_interrupted == 0; waited += 100)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

// pause or resume: the daemon first, then the record. `paused` is what they become.
int run_pause_or_resume(int argc, char** argv, bool paused) {
    Args args;
    std::string error, config;
    if (!parse_args(argc, argv, {"--config", "--session-id"}, {}, args, error))
        return usage_error(error);
    ControllerState state;
    int code = 0;
    if (!load(args, config, state, code)) return code;
    uint64_t id = 0;
    if (args.has("--session-id") && !parse_id(args.get("--session-id"), id))
        return usage_error("--session-id wants a number above 0");
    if (!daemon_alive(state)) return failure("no daemon runs for " + config);
    PObject status;
    if (!get_status(state, status, error)) return failure(error);
    bool known = id == 0;
    for (const PObject& s : status["session_list"].asArray())
        known = known || s["session_id"].asUInt64() == id;
    if (!known) return failure("the daemon has no session " + std::to_string(id));
    if (!send_action(state, paused ? "pause" : "resume", id, error)) return failure(error);
    for (auto& [recorded_id, recorded] : state.sessions)
        if (id == 0 || recorded_id == id) recorded.paused = paused;
    if (!WriteState(config, state, error)) return failure(error);
    const std::string which = id == 0 ? "every session" : "session " + std::to_string(id);
    std::printf("%s %s\n", paused ? "paused" : "resumed", which.c_str());
    return 0;
}

// The session of `args` as the daemon of the configuration knows it, with the path of its
// filter file; false with a message (the exit status in `code`).
bool load_session(const Args& args, std::string& config, ControllerState& state, uint64_t& id,
                  std::string& filter_file, int& code) {
    if (!load(args, config, state, code)) return false;
    if (!parse_id(args.get("--session-id"), id)) {
        code = usage_error("--session-id wants a number above 0");
        return false;
    }
    if (state.sessions.count(id) == 0) {
        code = failure("no session " + std::to_string(id) + " is recorded for " + config);
        return false;
    }
    filter_file = SessionConfigFolder(config, id) + "/conf/blacklist.filter";
    return true;
}

// A size in bytes, every character a digit; 0 is no limit.
bool parse_size(const std::string& text, uint64_t& size) {
    if (text.empty() || text.size() > 19 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    size = std::stoull(text);
    return true;
}

void print_rules(const char* what, const value_type_string_set& set) {
    std::printf("%s:", what);
    for (size_t i = 0; i < set.used; ++i) std::printf(" %s", set.set[i]);
    std::printf(set.used == 0 ? " none\n" : "\n");
}

// One change of an edit: the option, and what it does to the filter. false when the
// value can't be taken.
bool apply_edit(Filter& f, const std::string& option, const std::string& value) {
    const char* v = value.c_str();
    if (option == "--hide-ext")
        return vt_string_set_insert(&f.File.black_ext_selective_sync, v) >= 0;
    if (option == "--show-ext")
        return vt_string_set_remove(&f.File.black_ext_selective_sync, v) >= 0;
    if (option == "--hide-name")
        return vt_string_set_insert(&f.File.black_name_selective_sync, v) >= 0;
    if (option == "--show-name")
        return vt_string_set_remove(&f.File.black_name_selective_sync, v) >= 0;
    if (option == "--max-size") return parse_size(value, f.File.max_size_selective_sync);
    // A folder is named from the view's root, as the daemon's paths are.
    if (value.size() < 2 || value[0] != '/' || value.back() == '/') return false;
    value_type_string_set* folders = &f.Common.black_path_prefix_selective_sync;
    return (option == "--hide-folder" ? vt_string_set_insert(folders, v)
                                      : vt_string_set_remove(folders, v)) >= 0;
}

// Pause, reload, and resume unless a person had paused the session. false with `error`;
// a running session is resumed even when the reload failed.
bool reload_session(const ControllerState& state, uint64_t id, std::string& error) {
    if (!send_action(state, "pause", id, error)) return false;
    const bool reloaded = send_action(state, "reload_session", id, error);
    std::string resume_error;
    if (!state.sessions.at(id).paused && !send_action(state, "resume", id, resume_error) &&
        reloaded) {
        error = resume_error;
        return false;
    }
    return reloaded;
}

}  // namespace

int restore_sessions(const std::string& config, const ControllerState& state) {
    if (state.server.empty()) return 0;
    std::string error;
    if (!ensure_connected(state, error)) return failure(error);
    int code = 0;
    for (const auto& [id, session] : state.sessions) {
        if (add_to_daemon(config, state, id, session, error)) continue;
        code = failure("session " + std::to_string(id) + " (" + session.folder +
                       ") was not brought back: " + error);
    }
    return code;
}

int run_add(int argc, char** argv) {
    Args args;
    std::string error, config;
    if (!parse_args(argc, argv,
                    {"--config", "--folder", "--server", "--session", "--view", "--session-id"},
                    {"--json"}, args, error, true))
        return usage_error(error);
    ControllerState state;
    int code = 0;
    if (!load(args, config, state, code)) return code;
    uint64_t id = 0;
    RecordedSession session;
    ControllerState connection;
    if ((code = check_add(args, state, id, session, connection)) != 0) return code;

    if (!daemon_alive(state)) {
        Config::map_type values;
        if (Config::read(ustring(config.c_str()), values) != 0)
            return failure("cannot read the configuration " + config);
        if (!start_daemon(config, 0, state, error)) return failure(error);
        if (!WriteState(config, state, error)) return failure(error);
        restore_sessions(config, state);
    }
    state.server = connection.server;
    state.session = connection.session;
    state.connection_options = connection.connection_options;
    if (!ensure_connected(state, error)) return failure(error);
    const std::string folder = SessionConfigFolder(config, id);
    std::error_code ec;
    const bool fresh = !fs::exists(folder, ec);
    if (!add_to_daemon(config, state, id, session, error)) {
        // A folder made for this attempt goes with it; one of an earlier session stays.
        if (fresh) fs::remove_all(folder, ec);
        return failure(error);
    }
    state.sessions[id] = session;
    if (!WriteState(config, state, error))
        return failure("session " + std::to_string(id) + " runs but " + error);
    if (args.flags.count("--json") != 0) {
        PObject out;
        out["session_id"] = id;
        out["folder"] = session.folder.c_str();
        out["view_id"] = session.view;
        out["server"] = state.server.c_str();
        out["config_path"] = folder.c_str();
        std::string json;
        append_json(json, out);
        std::printf("%s\n", json.c_str());
    } else {
        std::printf("session %llu: %s with view %llu on %s\n", static_cast<unsigned long long>(id),
                    session.folder.c_str(), static_cast<unsigned long long>(session.view),
                    state.server.c_str());
    }
    return 0;
}

int run_status(int argc, char** argv) {
    Args args;
    std::string error, config;
    if (!parse_args(argc, argv, {"--config"}, {"--watch", "--json"}, args, error))
        return usage_error(error);
    ControllerState state;
    int code = 0;
    if (!load(args, config, state, code)) return code;
    if (!daemon_alive(state)) return failure("no daemon runs for " + config);
    const bool watch = args.flags.count("--watch") != 0;
    const bool json = args.flags.count("--json") != 0;
    const bool clear = watch && !json && ::isatty(STDOUT_FILENO) != 0;
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::map<std::string, Sample> samples;
    do {
        PObject status;
        if (!get_status(state, status, error)) return failure(error);
        const PObject view = status_view(status, state, samples);
        if (clear) std::printf("\033[H\033[J");
        if (json) {
            std::string line;
            append_json(line, view);
            std::printf("%s\n", line.c_str());
        } else {
            print_view(view);
            if (watch && !clear) std::printf("\n");
        }
        std::fflush(stdout);
        if (watch) sleep_interruptibly(1000);
    } while (watch && g_interrupted == 0);
    return 0;
}

int run_pause(int argc, char** argv) {
    return run_pause_or_resume(argc, argv, true);
}

int run_resume(int argc, char** argv) {
    return run_pause_or_resume(argc, argv, false);
}

// A session is paused before it is removed, as the daemon requires. Its database and
// filter files go; the sync folder stays as it is.
int run_remove(int argc, char** argv) {
    Args args;
    std::string error, config;
    if (!parse_args(argc, argv, {"--config", "--session-id"}, {}, args, error))
        return usage_error(error);
    ControllerState state;
    int code = 0;
    if (!load(args, config, state, code)) return code;
    uint64_t only = 0;
    if (args.has("--session-id") && !parse_id(args.get("--session-id"), only))
        return usage_error("--session-id wants a number above 0");
    std::set<uint64_t> in_daemon;
    const bool running = daemon_alive(state);
    if (running) {
        PObject status;
        if (!get_status(state, status, error)) return failure(error);
        for (const PObject& s : status["session_list"].asArray())
            in_daemon.insert(s["session_id"].asUInt64());
    }
    std::set<uint64_t> ids = in_daemon;
    for (const auto& [id, recorded] : state.sessions) ids.insert(id);
    if (only != 0) {
        if (ids.count(only) == 0) return failure("there is no session " + std::to_string(only));
        ids = {only};
    }
    for (uint64_t id : ids) {
        if (in_daemon.count(id) != 0 && (!send_action(state, "pause", id, error) ||
                                         !send_action(state, "remove_session", id, error)))
            return failure(error);
        std::error_code ec;
        fs::remove_all(SessionConfigFolder(config, id), ec);
        std::string line = "removed session " + std::to_string(id);
        if (state.sessions.count(id) != 0)
            line += " (" + state.sessions[id].folder + " is left as it is)";
        state.sessions.erase(id);
        if (!WriteState(config, state, error)) return failure(error);
        std::printf("%s\n", line.c_str());
    }
    return 0;
}

// tarnbridge filter show|edit: the session's selective-sync rules, and changes to them
// that take effect at once.
int run_filter_session(int argc, char** argv, bool edit) {
    Args args;
    std::string error, config, filter_file;
    const std::set<std::string> edits = {"--hide-ext",  "--show-ext",    "--hide-name",
                                         "--show-name", "--hide-folder", "--show-folder",
                                         "--max-size"};
    std::set<std::string> options = {"--config", "--session-id"};
    if (edit) options.insert(edits.begin(), edits.end());
    // The edit options may repeat, so they are read in order from the words themselves.
    std::vector<std::pair<std::string, std::string>> changes;
    for (int i = 0; edit && i + 1 < argc; ++i)
        if (edits.count(argv[i]) != 0) changes.emplace_back(argv[i], argv[i + 1]), ++i;
    if (!parse_args(argc, argv, options, {}, args, error)) return usage_error(error);
    ControllerState state;
    uint64_t id = 0;
    int code = 0;
    if (!load_session(args, config, state, id, filter_file, code)) return code;
    Filter filter;
    parse_report report;
    if (filter_init(&filter) < 0) return failure("out of memory");
    if (filter_read(&filter, filter_file.c_str(), &report) != 0)
        return failure(filter_file + ": " + report.message);
    for (const auto& [option, value] : changes) {
        if (apply_edit(filter, option, value)) continue;
        filter_destroy(&filter);
        return usage_error(option + " cannot take '" + value +
                           "' (folders begin with '/', sizes are bytes)");
    }
    if (edit && filter_write(&filter, filter_file.c_str()) != 0) {
        filter_destroy(&filter);
        return failure("cannot write " + filter_file);
    }
    print_rules("hidden folders", filter.Common.black_path_prefix_selective_sync);
    print_rules("hidden names", filter.File.black_name_selective_sync);
    print_rules("hidden extensions", filter.File.black_ext_selective_sync);
    const unsigned long long limit = filter.File.max_size_selective_sync;
    filter_destroy(&filter);
    if (limit == 0)
        std::printf("size limit: none\n");
    else
        std::printf("size limit: %llu bytes\n", limit);
    if (!edit) return 0;
    if (!daemon_alive(state)) {
        std::printf("no daemon runs: the rules take effect when it starts\n");
        return 0;
    }
    if (!reload_session(state, id, error))
        return failure("the daemon did not take the rules: " + error);
    std::printf("session %llu follows the new rules\n", static_cast<unsigned long long>(id));
    return 0;
}
