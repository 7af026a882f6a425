// main.cpp: `tarnbridge-daemon CONFIG_FILE [PORT]`, the process entry of the daemon.
// It loads the settings, opens the log, starts the control thread, listens on the
// first free loopback port above PORT, tells the controlling process (which waits on
// PORT) that port under "daemon_port", and then serves one control request per
// connection until "stop".
#include <clocale>
#include <cstdio>
#include <cstdlib>

#include "daemon/app.h"
#include "daemon/ipc.h"
#include "foundation/channel.h"
#include "foundation/log.h"
#include "foundation/settings.h"
#include "foundation/stream.h"

namespace {

constexpr int kDefaultControlPort = 1024;

const ustring& component() {
    static const ustring name("client_debug");
    return name;
}

// Announces the port in use to the controlling process. The connection stays open
// until the daemon stops. 0, or -1 (logged).
int report_port(IPCSender& sender, int control_port, int daemon_port) {
    if (sender.connect(control_port) < 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] test(%d): Failed to connect to port : %d\n", __LINE__,
                       control_port);
        return -1;
    }
    PObject report;
    report["daemon_port"] = static_cast<uint64_t>(daemon_port);
    if (sender.send(report) < 0) {
        Logger::LogMsg(Logger::L_ERR, component(), "[ERROR] test(%d): Failed to send message.\n",
                       __LINE__);
        return -1;
    }
    return 0;
}

// Serves one request per pass; false after "stop", whose connection closes unanswered.
bool serve_one(IPCListener& listener, Tarnbridge& app) {
    Channel ch(Channel::kCapacity);
    PStream ps;
    PObject request;
    PObject reply;
    if (!listener.isReady()) return true;
    platform::socket_t s = listener.accept();
    if (s == platform::kInvalidSocket) return true;
    if (ch.Open(s, true) < 0) {
        IPCListener::CloseSocket(s);
        return true;
    }
    if (ps.Recv(ch, request) < 0) {
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] test(%d): Failed to recieve message from channel.\n", __LINE__);
        return true;
    }
    Logger::LogMsg(Logger::L_DEBUG, component(), "[DEBUG] test(%d): recieve msg >>> %s\n", __LINE__,
                   request.toString().c_str_utf8());
    app.send_message(request, reply);
    const PObject& asked = request;
    if (asked["action"].asString() == "stop") return false;
    Logger::LogMsg(Logger::L_DEBUG, component(), "[DEBUG] test(%d): send rsp <<< %s\n", __LINE__,
                   reply.toString().c_str_utf8());
    if (ps.Send(ch, reply) < 0)
        Logger::LogMsg(Logger::L_ERR, component(),
                       "[ERROR] test(%d): Failed to send message from channel.\n", __LINE__);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 3) return -1;
    // A peer that goes away must give an error code, not end the process.
    platform::net_init();
    std::setlocale(LC_ALL, "");

    int control_port = kDefaultControlPort;
    if (argc >= 2) {
        // A missing or malformed file leaves the defaults in force.
        Settings::getInstance().loadConfigSettings(ustring(argv[1]));
        if (argc == 3) control_port = std::atoi(argv[2]);
    }
    Settings& settings = Settings::getInstance();
    if (Logger::Initialize(Logger::FILE_LOGGER, settings.getLogFilePath(),
                           settings.getLogLevelFilePath(), 50) != 0) {
        std::fprintf(stderr, "Tarnbridge: client is not enabled %s %s\n",
                     settings.getLogLevelFilePath().c_str_utf8(),
                     settings.getLogFilePath().c_str_utf8());
        return -1;
    }
    Tarnbridge::usage();

    Tarnbridge app;
    app.run();
    {
        IPCListener listener;
        IPCSender sender;
        int daemon_port = listener.prepare(control_port + 1);
        if (daemon_port < 0) {
            Logger::LogMsg(Logger::L_ERR, component(),
                           "[ERROR] test(%d): failed to listen on port local_port.\n", __LINE__);
        } else if (report_port(sender, control_port, daemon_port) == 0) {
            while (serve_one(listener, app)) {
            }
            listener.close();
        }
    }
    app.kill();
    return 0;
}
