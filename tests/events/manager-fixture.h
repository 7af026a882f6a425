// manager-fixture.h: notifications read from a real loopback listener standing in for
// the controlling process's port; and an EventManager on a Registry of its own, with real
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
#include "runtime/registry.h"
#include "runtime/task.h"
#include "state/file-status-db.h"
#include "support/loopback.h"
#include "support/temp-dir.h"

namespace evtest {

// Points the process's "ui_port" setting at `port` through a real configuration file.
inline void SetUIPort(int port) {
    TempDir dir;
    dir.write("daemon.conf", "ui_port = " + std::to_string(port) + "\n");
    ASSERT_EQ(Settings::getInstance().loadConfigSettings((dir / "daemon.conf").c_str()), 0);
}

// A port nothing listens on: notifications to it are refused at once.
inline int UnheardPort() {
    return loopback::Listener().port();
}

// Accepts the next notification on `listener` within `timeout_ms` and decodes it; a null
// object when none can be read. A notice is sent before its report returns, so 0 asks
// whether one was sent.
inline PObject NextNotice(loopback::Listener& listener, int timeout_ms = 5000) {
    PObject obj;
    UI_IPC ipc;
    const int peer = listener.accept(timeout_ms);
    if (peer < 0) return obj;
    if (ipc.Open(peer) < 0)
        ::close(peer);
    else if (ipc.Recv(obj) < 0)
        obj.clear();
    ipc.Destroy();
    return obj;
}

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
        SetUIPort(UnheardPort());
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
