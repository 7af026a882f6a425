// server-process.cpp: starting the reference server and running its tree commands.
#include "harness/server-process.h"

#include <cstdio>
#include <regex>

ServerProcess::ServerProcess() {
    WriteFile(m_faults, "");
    std::string out;
    if (!Command("init", {"--port", "0"}, &out)) return;
    std::smatch match;
    if (!std::regex_search(out, match, std::regex("ssl_pin = (\\S+)\n"))) return;
    m_pin = match[1];
    if (!std::regex_search(out, match, std::regex("session = \"([0-9a-f]+)\"\nview_id = (\\d+)")))
        return;
    m_session = match[1];
    m_view_id = std::stoull(match[2]);
    Serve(0);
}

bool ServerProcess::Serve(int port) {
    m_process = std::make_unique<ChildProcess>(
        std::vector<std::string>{kServerBinary, "--data", m_data, "--port", std::to_string(port),
                                 "--faults", m_faults, "--trace"});
    if (!m_process->WaitForOutput(" port ", 15)) return false;
    std::smatch match;
    const std::string started = m_process->Out();
    if (!std::regex_search(started, match, std::regex("listening on \\S+ port (\\d+)")))
        return false;
    m_port = std::stoi(match[1]);
    return true;
}

bool ServerProcess::Restart() {
    if (m_process) m_process->Kill(SIGKILL);
    return Serve(m_port);
}

ServerProcess::~ServerProcess() {
    if (m_process) m_process->Kill(SIGTERM);
}

void ServerProcess::WriteFaults(const std::string& text) {
    // Written beside it and renamed, so the server never reads half a file.
    WriteFile(m_faults + ".new", text);
    std::rename((m_faults + ".new").c_str(), m_faults.c_str());
}

bool ServerProcess::Command(const std::string& verb, const std::vector<std::string>& args,
                            std::string* out) {
    std::vector<std::string> argv = {kServerBinary, verb, "--data", m_data};
    argv.insert(argv.end(), args.begin(), args.end());
    RunResult run = RunProgram(argv);
    if (out != nullptr) *out = run.out;
    return run.status == 0;
}

bool ServerProcess::Change(const std::string& verb, const std::vector<std::string>& args,
                           std::vector<std::string>* gone) {
    std::string out;
    if (!Command(verb, args, &out)) return false;
    const std::regex line("gone (\\S+) ");
    for (auto it = std::sregex_iterator(out.begin(), out.end(), line);
         gone != nullptr && it != std::sregex_iterator(); ++it)
        gone->push_back((*it)[1]);
    return true;
}

bool ServerProcess::Put(const std::string& path, const std::string& bytes,
                        std::vector<std::string>* gone) {
    const std::string local = m_dir / ("put-" + std::to_string(++m_puts));
    if (!WriteFile(local, bytes)) return false;
    const bool done = Change("put", {std::to_string(m_view_id), local, path}, gone);
    std::remove(local.c_str());
    return done;
}

bool ServerProcess::Mkdir(const std::string& path) {
    return Command("mkdir", {std::to_string(m_view_id), path});
}

bool ServerProcess::Rm(const std::string& path, std::vector<std::string>* gone) {
    return Change("rm", {std::to_string(m_view_id), path}, gone);
}

bool ServerProcess::Mv(const std::string& from, const std::string& to) {
    return Command("mv", {std::to_string(m_view_id), from, to});
}

bool ServerProcess::Listing(Tree& tree) {
    std::string out;
    if (!Command("ls", {std::to_string(m_view_id)}, &out)) return false;
    tree = ParseServerListing(out);
    return true;
}

std::string ServerProcess::Output() const {
    return m_process ? m_process->Out() : std::string();
}

std::vector<ServerProcess::Payload> ServerProcess::Payloads(const std::string& path) const {
    std::vector<Payload> found;
    const std::string out = Output();
    const std::regex line(" (\\S+): (\\d+) payload bytes from (\\d+) \\((delta|whole)\\)");
    for (auto it = std::sregex_iterator(out.begin(), out.end(), line); it != std::sregex_iterator();
         ++it) {
        if ((*it)[1] != path) continue;
        found.push_back({std::stoull((*it)[2]), std::stoull((*it)[3]), (*it)[4] == "delta"});
    }
    return found;
}
