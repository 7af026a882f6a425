// daemon-process.cpp: configuring, starting, asking and stopping the daemon.
#include "harness/daemon-process.h"

#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "foundation/stream.h"
#include "support/loopback.h"

namespace {

constexpr double kStartSeconds = 15;
constexpr uint32_t kReplySeconds = 60;

}  // namespace

DaemonProcess::DaemonProcess(int ui_port, int worker_count, const std::string& extra_config) {
    const TempDir& h = m_home;
    h.write("tarnbridge.conf",
            "log_file_path = " + (h / "daemon.log") + "\nlog_level_file_path = " + (h / "levels") +
                "\ndb_path = " + (h / "db.sqlite") + "\nfstat_db_path = " + (h / "fstat.sqlite") +
                "\nfilter_db_path = " + (h / "filter.sqlite") + "\nsystem_filter_path = " +
                (h / "system.filter") + "\nworker_count = " + std::to_string(worker_count) +
                "\nui_port = " + std::to_string(ui_port) + "\n" + extra_config);
    h.write("levels",
            "client_debug = 7\nipc = 6\nsyncer_debug = 7\nworker_debug = 7\nconflict_rename_debug "
            "= 6\n");
    h.write("system.filter", "[Version]\nmajor = 1\nminor = 0\n");
}

DaemonProcess::~DaemonProcess() {
    Kill();
}

bool DaemonProcess::Start() {
    loopback::Listener control;
    m_process = std::make_unique<ChildProcess>(
        std::vector<std::string>{kDaemonBinary, m_config, std::to_string(control.port())});
    const int fd = control.accept(static_cast<int>(kStartSeconds * 1000));
    if (fd < 0) return false;
    m_announce = std::make_unique<Channel>();
    if (m_announce->Open(fd, true) < 0) return false;
    m_announce->SetTimeout(static_cast<uint32_t>(kStartSeconds));
    PStream stream;
    PObject report;
    if (stream.Recv(*m_announce, report) < 0 || !report["daemon_port"].isInteger()) return false;
    m_port = report["daemon_port"].asInt32();
    return true;
}

bool DaemonProcess::Ask(const PObject& request, PObject& reply) {
    reply = PObject();
    Channel channel;
    if (channel.Open("127.0.0.1", m_port) != 0) return false;
    channel.SetTimeout(kReplySeconds);
    PStream stream;
    return stream.Send(channel, request) == 0 && stream.Recv(channel, reply) == 0;
}

PObject DaemonProcess::Ask(const char* action) {
    PObject request;
    request["action"] = action;
    PObject reply;
    Ask(request, reply);
    return reply;
}

PObject DaemonProcess::Ask(const char* action, uint64_t session_id) {
    PObject request;
    request["action"] = action;
    request["session_id"] = session_id;
    PObject reply;
    Ask(request, reply);
    return reply;
}

int DaemonProcess::Stop() {
    if (!m_process) return ChildProcess::kStillRunning;
    PObject request;
    request["action"] = "stop";
    Channel channel;
    if (channel.Open("127.0.0.1", m_port) == 0) {
        PStream stream;
        stream.Send(channel, request);
    }
    const int status = m_process->Wait(kReplySeconds);
    m_announce.reset();
    return status;
}

void DaemonProcess::Kill() {
    if (m_process) m_process->Kill(SIGKILL);
    m_announce.reset();
}

std::vector<std::string> DaemonProcess::OpenFiles() const {
    std::vector<std::string> targets;
    const std::string dir = "/proc/" + std::to_string(pid()) + "/fd";
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) return targets;
    while (dirent* entry = ::readdir(d)) {
        if (entry->d_name[0] == '.') continue;
        char target[4096];
        const ssize_t n = ::readlink((dir + "/" + entry->d_name).c_str(), target, sizeof target);
        if (n > 0) targets.emplace_back(target, static_cast<size_t>(n));
    }
    ::closedir(d);
    return targets;
}

std::string DaemonProcess::Log() const {
    return ReadFile(m_home / "daemon.log");
}
