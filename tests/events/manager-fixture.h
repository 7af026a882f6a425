// manager-fixture.h: a real loopback listener standing in for the controlling
// process's notification port; and an EventManager on a Registry of its own, with real
// session folders, a real status database, a notification port nobody listens on and a
// log file of its own.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "event-builders.h"
#include "events/event-manager.h"
#include "events/ui-ipc.h"
#include "foundation/log.h"
#include "foundation/settings.h"
#include "platform/net.h"
#include "runtime/registry.h"
#include "runtime/task.h"
#include "state/file-status-db.h"
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

// A task that only records being told to abort.
class RecordingTask : public Task {
  public:
    int SetAbort(bool abort) override {
        aborted = abort;
        return 0;
    }
    std::atomic<bool> aborted{false};
};

class ManagerFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        // Every push reports to the unheard port; that goes to a log of the test's own.
        ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, (dir / "daemon.log").c_str(), "", 2), 0);
        ASSERT_EQ(FileStatusDB::initialize((dir / "fstat.sqlite").c_str()), 0);
        int closed_port;
        {
            UIListener gone;
            closed_port = gone.port();
        }
        SetUIPort(closed_port);
        AddSession(1);
        AddSession(2);
    }
    void TearDown() override {
        FileStatusDB::destroy();
        Logger::Destroy();
    }

    void AddSession(uint64_t id) {
        Registry::Entry entry;
        entry.sess_id = id;
        entry.local_path = Root(id).c_str();
        registry.Set(entry);
    }
    std::string Root(uint64_t id) const { return dir / ("session" + std::to_string(id)); }

    static Event In(uint64_t sess, Event e) {
        e.m_sess_id = sess;
        return e;
    }

    TempDir dir;
    Registry registry;
    EventManager mgr{registry};
};

}  // namespace evtest
