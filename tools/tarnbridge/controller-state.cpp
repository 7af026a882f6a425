// controller-state.cpp: the state file, in the key = value grammar of the configuration.
#include "controller-state.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "foundation/config.h"

namespace {

std::string Key(uint64_t id, const char* field) {
    return "session_" + std::to_string(id) + "_" + field;
}

// A value in quotes the grammar can read back; false when none fits.
bool Quoted(const std::string& text, std::string& out) {
    for (unsigned char c : text)
        if (c < 0x20 || c == 0x7F) return false;
    const char quote = text.find('"') == std::string::npos ? '"' : '\'';
    if (text.find(quote) != std::string::npos) return false;
    out = quote + text + quote;
    return true;
}

std::string OptionKey(size_t n) {
    return "connection_option_" + std::to_string(n);
}

uint64_t Number(const ustring& text) {
    return std::strtoull(text.c_str_utf8(), nullptr, 10);
}

}  // namespace

std::string StatePath(const std::string& config) {
    return config + ".state";
}

std::string SessionConfigFolder(const std::string& config, uint64_t id) {
    return config + ".sessions/" + std::to_string(id);
}

bool ReadState(const std::string& config, ControllerState& state, std::string& error) {
    state = ControllerState();
    std::error_code ec;
    if (!std::filesystem::exists(StatePath(config), ec)) return true;
    Config::map_type values;
    if (Config::read(ustring(StatePath(config).c_str()), values) != 0) {
        error = StatePath(config) + " can't be read";
        return false;
    }
    if (values.count(ustring("daemon_port")) != 0) {
        state.daemon_port = Config::get_int(values[ustring("daemon_port")]);
        state.pid = Config::get_int(values[ustring("pid")]);
    }
    state.server = values[ustring("server")].str();
    state.session = values[ustring("session")].str();
    for (size_t n = 1; values.count(ustring(OptionKey(n).c_str())) != 0; ++n)
        state.connection_options.push_back(values[ustring(OptionKey(n).c_str())].str());
    for (const auto& [key, value] : values) {
        const std::string k = key.str();
        unsigned long long id = 0;
        int used = 0;
        if (std::sscanf(k.c_str(), "session_%llu_folder%n", &id, &used) != 1 ||
            used != static_cast<int>(k.size()) || id == 0)
            continue;
        RecordedSession& s = state.sessions[id];
        s.folder = value.str();
        s.view = Number(values[ustring(Key(id, "view").c_str())]);
        s.paused = values[ustring(Key(id, "paused").c_str())] == ustring("1");
    }
    return true;
}

bool WriteState(const std::string& config, const ControllerState& state, std::string& error) {
    const std::string path = StatePath(config);
    // Without a daemon or a session there is nothing to bring back, the server included.
    if (state.daemon_port < 0 && state.sessions.empty()) {
        std::remove(path.c_str());
        return true;
    }
    std::string text = "# written by tarnbridge; the sessions come back with tarnbridge start\n";
    if (state.daemon_port >= 0)
        text += "daemon_port = " + std::to_string(state.daemon_port) +
                "\npid = " + std::to_string(state.pid) + "\n";
    std::string quoted;
    if (!state.server.empty()) {
        if (!Quoted(state.session, quoted)) {
            error = "the session token can't be recorded";
            return false;
        }
        text += "server = " + state.server + "\nsession = " + quoted + "\n";
        for (size_t n = 0; n < state.connection_options.size(); ++n) {
            if (!Quoted(state.connection_options[n], quoted)) {
                error =
                    "the connection option " + state.connection_options[n] + " can't be recorded";
                return false;
            }
            text += OptionKey(n + 1) + " = " + quoted + "\n";
        }
    }
    for (const auto& [id, s] : state.sessions) {
        if (!Quoted(s.folder, quoted)) {
            error = "the folder name " + s.folder + " can't be recorded";
            return false;
        }
        text += Key(id, "folder") + " = " + quoted + "\n" + Key(id, "view") + " = " +
                std::to_string(s.view) + "\n" + Key(id, "paused") + " = " + (s.paused ? "1" : "0") +
                "\n";
    }
    const std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << text;
        if (!out.flush()) {
            error = tmp + " can't be written";
            return false;
        }
    }
    std::error_code ec;
    std::filesystem::permissions(
        tmp, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write, ec);
    if (ec || std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::remove(tmp.c_str());
        error = path + " can't be written";
        return false;
    }
    return true;
}
