// settings.cpp: loading and reading the daemon's configuration.
#include "foundation/settings.h"

#include <type_traits>

#include "foundation/config.h"

Settings& Settings::getInstance() {
    static Settings instance;
    return instance;
}

int Settings::loadConfigSettings(const ustring& path) {
    std::lock_guard<std::mutex> guard(lock);
    Config::map_type values;
    if (Config::read(path, values) != 0) return -1;
    auto text = [&](const char* key, ustring& field) {
        auto it = values.find(key);
        if (it != values.end() && !it->second.empty()) field = it->second;
    };
    auto number = [&](const char* key, auto& field) {
        auto it = values.find(key);
        if (it != values.end() && !it->second.empty())
            field =
                static_cast<std::remove_reference_t<decltype(field)>>(Config::get_int(it->second));
    };
    auto flag = [&](const char* key, bool& field) {
        auto it = values.find(key);
        if (it != values.end() && !it->second.empty()) field = it->second == "true";
    };
    text("db_path", db_path);
    text("fstat_db_path", fstat_db_path);
    text("filter_db_path", filter_db_path);
    text("system_filter_path", system_filter_path);
    text("pid_file_path", pid_file_path);
    text("log_file_path", log_file_path);
    text("log_level_file_path", log_level_file_path);
    number("worker_count", worker_count);
    text("socket_path", socket_path);
    text("ui_sock_path", ui_sock_path);
    number("ui_port", ui_port);
    flag("is_daemon", is_daemon);
    text("client_name", client_name);
    flag("use_ssl", use_ssl);
    text("ssl_ca_file", ssl_ca_file);
    text("ssl_pin", ssl_pin);
    text("session", session);
    number("server_port", server_port);
    text("server_ip", server_ip);
    flag("delta_realign", delta_realign);
    text("relay_host", relay_host);
    return 0;
}

#define TB_GETTER(type, name, field)             \
    type Settings::name() const {                \
        std::lock_guard<std::mutex> guard(lock); \
        return field;                            \
    }

TB_GETTER(ustring, getDbPath, db_path)
TB_GETTER(ustring, getFStatDbPath, fstat_db_path)
TB_GETTER(ustring, getFilterDbPath, filter_db_path)
TB_GETTER(ustring, getSystemFilterPath, system_filter_path)
TB_GETTER(ustring, getPidFilePath, pid_file_path)
TB_GETTER(ustring, getLogFilePath, log_file_path)
TB_GETTER(ustring, getLogLevelFilePath, log_level_file_path)
TB_GETTER(size_t, getWorkerCount, worker_count)
TB_GETTER(ustring, getSocketPath, socket_path)
TB_GETTER(ustring, getUISocketPath, ui_sock_path)
TB_GETTER(int, getUIPort, ui_port)
TB_GETTER(bool, isDaemon, is_daemon)
TB_GETTER(bool, useSSL, use_ssl)
TB_GETTER(ustring, getSslCaFile, ssl_ca_file)
TB_GETTER(ustring, getSslPin, ssl_pin)
TB_GETTER(int, getServerPort, server_port)
TB_GETTER(ustring, getServerIp, server_ip)
TB_GETTER(ustring, getSession, session)
TB_GETTER(ustring, getClientName, client_name)
TB_GETTER(bool, useDeltaRealign, delta_realign)
TB_GETTER(ustring, getRelayHost, relay_host)

#undef TB_GETTER
