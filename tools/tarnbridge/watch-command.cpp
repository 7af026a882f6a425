// watch-command.cpp: `tarnbridge watch`, a listener on the daemon's notification port
// that prints each notification as it comes: files the daemon is synchronising, files
// it has finished, locked files and errors. It plays the controlling process's side of
// the notification socket: one connection per notification, one map, no reply.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "commands.h"
#include "foundation/channel.h"
#include "foundation/error-code.h"
#include "foundation/object.h"
#include "foundation/settings.h"
#include "foundation/stream.h"
#include "json-out.h"
#include "platform/net.h"
#include "request-args.h"

namespace {

// A sender that connects and then says nothing holds the watcher up at most this long.
constexpr uint32_t kReadTimeoutSeconds = 5;
// How often the accept loop looks at the interrupt flag.
constexpr int kPollMs = 500;

volatile sig_atomic_t g_interrupted = 0;

void on_signal(int) {
    g_interrupted = 1;
}

struct WatchOptions {
    std::string config;
    int port = -1;
    bool json = false;
};

int usage_error(const std::string& message) {
    std::fprintf(stderr,
                 "tarnbridge: %s\nusage: tarnbridge watch [--config FILE] [--port P] [--json]\n",
                 message.c_str());
    return 2;
}

bool parse_watch_options(int argc, char** argv, WatchOptions& o, std::string& error) {
    for (int i = 0; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--json") {
            o.json = true;
            continue;
        }
        if (word != "--config" && word != "--port") {
            error = "unexpected argument '" + word + "'";
            return false;
        }
        if (i + 1 >= argc) {
            error = word + " needs a value";
            return false;
        }
        const std::string value = argv[++i];
        if (word == "--config") {
            o.config = value;
        } else if (!parse_port(value, o.port)) {
            error = "bad port '" + value + "'";
            return false;
        }
    }
    if (o.config.empty()) {
        const char* env = std::getenv("TARNBRIDGE_CONFIG");
        if (env != nullptr) o.config = env;
    }
    return true;
}

// The port the daemon sends to: --port, else "ui_port" of the configuration, else the
// daemon's own default.
bool notification_port(const WatchOptions& o, int& port, std::string& error) {
    if (o.port > 0) {
        port = o.port;
        return true;
    }
    Settings& settings = Settings::getInstance();
    if (!o.config.empty() && settings.loadConfigSettings(ustring(o.config.c_str())) != 0) {
        error = "can't read the configuration " + o.config;
        return false;
    }
    port = settings.getUIPort();
    if (port < 1 || port > 65535) {
        error = "the configuration's ui_port " + std::to_string(port) + " is not a port";
        return false;
    }
    return true;
}

std::string now_text() {
    std::time_t t = std::time(nullptr);
    std::tm local{};
    localtime_r(&t, &local);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local);
    return buf;
}

// Daemon error codes travel as 64-bit two's complement.
long long signed_of(const PObject& value) {
    return static_cast<long long>(value.asInt64());
}

std::string event_word(long long type) {
    switch (type) {
        case 1:
            return "created";
        case 2:
            return "removed";
        case 3:
            return "modified";
        case 4:
            return "renamed";
        default:
            return "event " + std::to_string(type);
    }
}

std::string error_text(long long code) {
    return std::string(GetErrorString(static_cast<int>(code))) + " (" + std::to_string(code) + ")";
}

std::string file_part(const PObject& obj) {
    return "session " + std::to_string(obj["session_id"].asUInt64()) + "  " +
           obj["path"].asString().str() + " (" + (obj["is_dir"].asUInt64() != 0 ? "dir" : "file");
}

// One readable line: time, kind, session, and the path or the error's text.
std::string readable_line(const PObject& obj) {
    const std::string notify = obj["notify"].asString().str();
    std::string line = now_text() + "  ";
    if (notify == "syncing_file" || notify == "recent_file") {
        line += notify == "syncing_file" ? "syncing  " : "done     ";
        return line + file_part(obj) + ", " + event_word(signed_of(obj["event_type"])) + ")";
    }
    if (notify == "locked_file") {
        const PObject& detail = obj["error"];
        return line + "locked   " + file_part(obj) + "): " + detail["reason"].asString().str() +
               ", " + error_text(signed_of(detail["code"]));
    }
    if (notify == "error") {
        line += "error    ";
        if (obj.hasMember("connection_id"))
            line += "connection " + std::to_string(signed_of(obj["connection_id"]));
        else
            line += "session " + std::to_string(obj["session_id"].asUInt64());
        return line + ": " + error_text(signed_of(obj["error_type"]));
    }
    if (obj["action"].asString() == ustring("connection_terminate"))
        return line + "goodbye  the daemon ends its connection";
    return line + "unknown  " + obj.toString().str();
}

std::string json_line(const PObject& received) {
    PObject obj = received;
    if (!obj.isMap()) {
        PObject wrapped;
        wrapped["value"] = obj;
        obj = wrapped;
    }
    obj["time"] = ustring(now_text().c_str());
    std::string out;
    append_json(out, obj);
    return out;
}

// Reads the one notification of an accepted connection and prints it. A malformed
// one is reported on the error stream and the watch goes on.
void handle_connection(platform::socket_t peer, bool json) {
    Channel channel;
    if (channel.Open(peer, true) < 0) {
        platform::close_socket(peer);
        return;
    }
    channel.SetTimeout(kReadTimeoutSeconds);
    PStream stream;
    PObject obj;
    const int ret = stream.Recv(channel, obj);
    if (ret < 0) {
        std::fprintf(stderr, "tarnbridge: unreadable notification: %s\n", error_text(ret).c_str());
        return;
    }
    const std::string line = json ? json_line(obj) : readable_line(obj);
    std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
}

void install_interrupt_handlers() {
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

}  // namespace

int run_watch(int argc, char** argv) {
    WatchOptions options;
    std::string error;
    if (!parse_watch_options(argc, argv, options, error)) return usage_error(error);
    int port = -1;
    if (!notification_port(options, port, error)) {
        std::fprintf(stderr, "tarnbridge: %s\n", error.c_str());
        return 1;
    }
    platform::net_init();
    int err = 0;
    platform::socket_t listener = platform::tcp_socket(&err);
    if (listener == platform::kInvalidSocket || platform::bind_loopback(listener, port, &err) < 0 ||
        platform::listen_socket(listener, 64, &err) < 0 ||
        platform::set_nonblock(listener, &err) < 0) {
        std::fprintf(stderr, "tarnbridge: can't listen on 127.0.0.1:%d: %s\n", port,
                     platform::error_text(err));
        if (listener != platform::kInvalidSocket) platform::close_socket(listener);
        return 1;
    }
    install_interrupt_handlers();
    std::fprintf(stderr, "tarnbridge: watching notifications on 127.0.0.1:%d\n", port);
    while (g_interrupted == 0) {
        if (platform::wait_ready(listener, false, kPollMs) != platform::WAIT_READY) continue;
        platform::socket_t peer = platform::accept_socket(listener);
        if (peer != platform::kInvalidSocket) handle_connection(peer, options.json);
    }
    platform::close_socket(listener);
    return 0;
}
