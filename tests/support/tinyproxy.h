// tinyproxy.h: a real HTTP proxy for tests: Debian's tinyproxy, started in the foreground
// on a free loopback port with a throwaway configuration, optionally asking for Basic
// credentials, and killed with its process group when the object goes. Header-only.
#pragma once

#include <memory>
#include <string>

#include "support/loopback.h"
#include "support/process.h"
#include "support/temp-dir.h"

class Tinyproxy {
  public:
    static constexpr const char* kBinary = "/usr/bin/tinyproxy";

    // With a user name, only requests carrying that user's password pass.
    explicit Tinyproxy(const std::string& user = "", const std::string& password = "") {
        // The free port is chosen, then released for tinyproxy: another test may take it
        // in between, so a start that fails is tried again on a new one.
        for (int attempt = 0; attempt < 5 && !running(); ++attempt) {
            m_port = loopback::Listener().port();
            m_dir.write("tinyproxy.conf",
                        "Port " + std::to_string(m_port) +
                            "\nListen 127.0.0.1\nTimeout 60\nLogLevel Info\nMaxClients 64\n" +
                            (user.empty() ? "" : "BasicAuth " + user + " " + password + "\n"));
            m_child = std::make_unique<ChildProcess>(
                std::vector<std::string>{kBinary, "-d", "-c", m_dir / "tinyproxy.conf"},
                ChildProcess::Options{{}, m_dir / "tinyproxy.log", ""});
            if (!m_child->WaitForOutput("Accepting connections", 10)) m_child.reset();
        }
    }

    bool running() const { return m_child != nullptr; }
    int port() const { return m_port; }
    // What tinyproxy logged so far.
    std::string Log() const { return ReadFile(m_dir / "tinyproxy.log"); }

  private:
    TempDir m_dir;
    int m_port = 0;
    std::unique_ptr<ChildProcess> m_child;
};
