// real-proxy.h: real HTTP proxies for tests, Debian's tinyproxy and squid, each started in
// the foreground on a free loopback port with a throwaway configuration in a folder of its
// own, optionally asking for Basic credentials, and killed with its process group when the
// object goes. Header-only.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/loopback.h"
#include "support/process.h"
#include "support/temp-dir.h"

class RealProxy {
  public:
    enum Kind { TINYPROXY, SQUID };

    // With a user name, only requests carrying that user's password pass.
    explicit RealProxy(Kind kind, const std::string& user = "", const std::string& password = "")
        : m_kind(kind) {
        // squid gives up root for its own user, which must reach the folder.
        ::chmod(m_dir.path().c_str(), 0777);
        if (!user.empty() && kind == SQUID) WritePasswords(user, password);
        // The free port is chosen, then released for the proxy: another test may take it
        // in between, so a start that fails is tried again on a new one.
        for (int attempt = 0; attempt < 5 && !running(); ++attempt) {
            m_port = loopback::Listener().port();
            const bool tiny = kind == TINYPROXY;
            m_dir.write("proxy.conf", tiny ? TinyproxyConfig(user, password) : SquidConfig(user));
            std::vector<std::string> args =
                tiny
                    ? std::vector<std::string>{"/usr/bin/tinyproxy", "-d", "-c",
                                               m_dir / "proxy.conf"}
                    : std::vector<std::string>{"/usr/sbin/squid", "-N", "-f", m_dir / "proxy.conf"};
            m_child = std::make_unique<ChildProcess>(
                args, ChildProcess::Options{{}, m_dir / "proxy.out", ""});
            if (!Ready()) m_child.reset();
        }
    }

    bool running() const { return m_child != nullptr; }
    int port() const { return m_port; }
    const char* name() const { return m_kind == TINYPROXY ? "tinyproxy" : "squid"; }
    // What the proxy logged so far (its requests included).
    std::string Log() const {
        return ReadFile(m_dir / (m_kind == TINYPROXY ? "proxy.out" : "access.log"));
    }

  private:
    bool Ready() {
        const std::string text =
            m_kind == TINYPROXY ? "Accepting connections" : "Accepting HTTP Socket connections";
        for (int i = 0; i < 1000 && m_child->Wait(0) == ChildProcess::kStillRunning; ++i) {
            if (ReadFile(m_dir / (m_kind == TINYPROXY ? "proxy.out" : "cache.log")).find(text) !=
                std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
    std::string TinyproxyConfig(const std::string& user, const std::string& password) const {
        return "Port " + std::to_string(m_port) +
               "\nListen 127.0.0.1\nTimeout 60\nLogLevel Info\nMaxClients 64\n" +
               (user.empty() ? "" : "BasicAuth " + user + " " + password + "\n");
    }
    std::string SquidConfig(const std::string& user) const {
        std::string auth = user.empty()
                               ? "http_access allow localhost\n"
                               : "auth_param basic program /usr/lib/squid/basic_ncsa_auth " +
                                     (m_dir / "passwd") +
                                     "\nacl authed proxy_auth REQUIRED\nhttp_access allow authed\n";
        return "http_port 127.0.0.1:" + std::to_string(m_port) + "\npid_filename " +
               (m_dir / "squid.pid") + "\ncache deny all\ncache_mem 8 MB\naccess_log " +
               (m_dir / "access.log") + "\ncache_log " + (m_dir / "cache.log") + "\ncoredump_dir " +
               m_dir.path() + "\nshutdown_lifetime 0 seconds\n" + auth + "http_access deny all\n";
    }
    void WritePasswords(const std::string& user, const std::string& password) {
        const RunResult hash = RunProgram({"/usr/bin/openssl", "passwd", "-apr1", password});
        m_dir.write("passwd", user + ":" + hash.out);
        ::chmod((m_dir / "passwd").c_str(), 0644);
    }

    Kind m_kind;
    TempDir m_dir;
    int m_port = 0;
    std::unique_ptr<ChildProcess> m_child;
};
