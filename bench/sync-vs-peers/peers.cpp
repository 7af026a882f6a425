// peers.cpp: starting the peers' servers, running their clients, checking their targets.
#include "peers.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <optional>

#include "bench-support.h"
#include "support/files.h"

namespace fs = std::filesystem;

std::string FindProgram(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
    for (size_t start = 0; start <= dirs.size();) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        const std::string candidate = dirs.substr(start, end - start) + "/" + program;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
        start = end + 1;
    }
    return "";
}

bool PeerTool::Ready(ChildProcess&, int port) {
    return Accepts(port, 15);
}

bool PeerTool::Start(const std::string& root) {
    m_root = root;
    std::error_code ec;
    for (const char* sub : {"/src/small", "/src/big", "/dst/small", "/dst/big"})
        fs::create_directories(m_root + sub, ec);
    const int port = FreePort();
    std::vector<std::string> env;
    std::vector<std::string> command = ServerCommand(port, env);
    ChildProcess::Options options;
    options.env = env;
    options.out = m_root + "/server.log";
    m_server = std::make_unique<ChildProcess>(command, options);
    if (!m_server->started() || !Ready(*m_server, port)) {
        std::fprintf(stderr, "sync-vs-peers: the %s server did not start:\n%s\n", Name(),
                     m_server->Out().c_str());
        return false;
    }
    m_relay = std::make_unique<CountingRelay>(port);
    return true;
}

Figures PeerTool::Run(const Step& step) {
    Figures f;
    if (!step.change()) {
        std::fprintf(stderr, "sync-vs-peers: %s: the change could not be made\n", Name());
        return f;
    }
    std::vector<std::string> env;
    const std::vector<std::string> command = ClientCommand(step, m_relay->port(), env);
    const auto wire = [this] { return m_relay->Sent() + m_relay->Received(); };
    const uint64_t wire_before = wire();
    // The server lives across steps: its peak starts again from what it holds now.
    ResetPeak(m_server->pid());
    std::optional<DescendantPeaks> peaks(std::in_place);
    const auto start = std::chrono::steady_clock::now();
    const ClientRun run = RunClient(command, env, m_root + "/client.log");
    f.seconds = SecondsSince(start);
    peaks->Add(run.pid, run.peak_kib);
    f.peak_kib = peaks->TotalKiB();
    peaks.reset();
    f.wire = SettledBytes(wire) - wire_before;
    if (run.status != 0) {
        std::fprintf(stderr, "sync-vs-peers: %s ended with %d; its output:\n%s\n", Name(),
                     run.status, ReadFile(m_root + "/client.log").c_str());
        return f;
    }
    const std::string diff = TreeDiff(LocalTree(Target() + "/" + step.sub), step.expect);
    if (!diff.empty()) {
        std::fprintf(stderr, "sync-vs-peers: %s left the target different:\n%s", Name(),
                     diff.c_str());
        return f;
    }
    f.ok = true;
    return f;
}

std::vector<std::string> RsyncTool::ServerCommand(int port, std::vector<std::string>&) {
    // Files are written as the user running the bench, as a daemon of one's own would.
    WriteFile(m_root + "/rsyncd.conf", "use chroot = false\nuid = " + std::to_string(::getuid()) +
                                           "\ngid = " + std::to_string(::getgid()) +
                                           "\n[bench]\npath = " + Target() +
                                           "\nread only = false\n");
    return {FindProgram("rsync"),
            "--daemon",
            "--no-detach",
            "--address=127.0.0.1",
            "--port=" + std::to_string(port),
            "--config=" + m_root + "/rsyncd.conf",
            "--log-file=" + m_root + "/rsyncd.log"};
}

std::vector<std::string> RsyncTool::ClientCommand(const Step& step, int port,
                                                  std::vector<std::string>&) {
    std::vector<std::string> command = {FindProgram("rsync"), "-a"};
    // On loopback rsync would send whole files; the edits are there to measure deltas.
    if (step.what == Case::kEdit || step.what == Case::kInsert)
        command.push_back("--no-whole-file");
    command.push_back(Source() + "/" + step.sub + "/");
    command.push_back("rsync://127.0.0.1:" + std::to_string(port) + "/bench/" + step.sub + "/");
    return command;
}

bool UnisonTool::Ready(ChildProcess& server, int) {
    return server.WaitForOutput("server started", 15);
}

std::vector<std::string> UnisonTool::ServerCommand(int port, std::vector<std::string>& env) {
    fs::create_directories(m_root + "/server-archives");
    env = {"UNISON=" + m_root + "/server-archives", "HOME=" + m_root};
    return {FindProgram("unison"), "-socket", std::to_string(port), "-listen", "127.0.0.1"};
}

std::vector<std::string> UnisonTool::ClientCommand(const Step& step, int port,
                                                   std::vector<std::string>& env) {
    fs::create_directories(m_root + "/client-archives");
    env = {"UNISON=" + m_root + "/client-archives", "HOME=" + m_root};
    // "//" makes the server's root an absolute path.
    return {FindProgram("unison"), "-batch", "-auto", Source() + "/" + step.sub,
            "socket://127.0.0.1:" + std::to_string(port) + "/" + Target() + "/" + step.sub};
}
