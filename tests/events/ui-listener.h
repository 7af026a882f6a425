// ui-listener.h: a real loopback listener standing in for the controlling process's
// notification port, and a way to point the daemon's settings at it.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "events/ui-ipc.h"
#include "foundation/settings.h"
#include "platform/net.h"
#include "support/temp-dir.h"

namespace evtest {

// Points the process's "ui_port" setting at `port` through a real configuration file.
inline void SetUIPort(int port) {
    TempDir dir;
    dir.write("daemon.conf", "ui_port = " + std::to_string(port) + "\n");
    ASSERT_EQ(Settings::getInstance().loadConfigSettings((dir / "daemon.conf").c_str()), 0);
    ASSERT_EQ(Settings::getInstance().getUIPort(), port);
}

class UIListener {
  public:
    UIListener() {
        platform::net_init();
        m_socket = platform::tcp_socket();
        if (m_socket == platform::kInvalidSocket || platform::bind_loopback(m_socket, 0) < 0 ||
            platform::listen_socket(m_socket, 64) < 0)
            ADD_FAILURE() << "can't listen on loopback";
        m_port = platform::local_port(m_socket);
    }
    ~UIListener() { Close(); }
    UIListener(const UIListener&) = delete;
    UIListener& operator=(const UIListener&) = delete;

    int port() const { return m_port; }
    void Close() {
        if (m_socket != platform::kInvalidSocket) platform::close_socket(m_socket);
        m_socket = platform::kInvalidSocket;
    }

    // Accepts the next notification and decodes it; a null object when none can be read.
    PObject Next() {
        PObject obj;
        platform::socket_t peer = platform::accept_socket(m_socket);
        if (peer == platform::kInvalidSocket) return obj;
        UI_IPC ipc;
        if (ipc.Open(peer) < 0) {
            platform::close_socket(peer);
            return obj;
        }
        if (ipc.Recv(obj) < 0) obj.clear();
        ipc.Destroy();
        return obj;
    }

  private:
    platform::socket_t m_socket = platform::kInvalidSocket;
    int m_port = -1;
};

}  // namespace evtest
