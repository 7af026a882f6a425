// settings.h: the daemon's configuration, read once from the key-value file named on
// the command line. A process-wide singleton; every getter returns a copy under the lock.
#pragma once

#include <mutex>

#include "foundation/ustring.h"

class Settings {
  public:
    static Settings& getInstance();

    // Reads the file and sets every field whose key is present with a non-empty value.
    // 0, or -1 when the file can't be read or breaks the grammar (no field changes then).
    int loadConfigSettings(const ustring& path);

    ustring getDbPath() const;
    ustring getFStatDbPath() const;
    ustring getFilterDbPath() const;
    ustring getSystemFilterPath() const;
    ustring getPidFilePath() const;
    ustring getLogFilePath() const;
    ustring getLogLevelFilePath() const;
    size_t getWorkerCount() const;
    ustring getSocketPath() const;
    ustring getUISocketPath() const;
    int getUIPort() const;
    bool isDaemon() const;
    bool useSSL() const;
    // The server identity check of TLS connections ("ssl_ca_file": a PEM bundle;
    // "ssl_pin": the SHA-256 fingerprint of the server's certificate); empty when unset.
    ustring getSslCaFile() const;
    ustring getSslPin() const;
    int getServerPort() const;
    ustring getServerIp() const;
    ustring getSession() const;
    ustring getClientName() const;
    // Whether upload deltas find blocks again after inserts and deletes ("delta_realign",
    // false unless the text is exactly "true"); otherwise they keep the default form.
    bool useDeltaRealign() const;
    // The relay service's host name, sent as the Host of every tunnel request
    // ("relay_host").
    ustring getRelayHost() const;

    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;

  private:
    Settings() = default;

    mutable std::mutex lock;
    ustring db_path = "/tmp/db.sqlite";
    ustring pid_file_path = "/var/run/tarnbridge-daemon.pid";
    ustring log_file_path = "/var/log/tarnbridge-daemon.log";
    ustring log_level_file_path = "/var/log/tarnbridge-daemon.debug";
    ustring fstat_db_path = "/tmp/file-status.sqlite";
    ustring filter_db_path = "/tmp/filter.sqlite";
    ustring system_filter_path = "/tmp/filter";
    size_t worker_count = 3;
    ustring socket_path = "/tmp/tarnbridge-socket";
    ustring ui_sock_path = "/tmp/tarnbridge-ui-socket";
    int ui_port = 1024;
    bool is_daemon = true;
    ustring client_name = "user";
    bool use_ssl = false;
    ustring ssl_ca_file;
    ustring ssl_pin;
    ustring session = "InvalidSession";
    int server_port = 0;
    ustring server_ip = "InvalidAddress";
    bool delta_realign = false;
    ustring relay_host = "relay.tarnbridge.invalid";
};
