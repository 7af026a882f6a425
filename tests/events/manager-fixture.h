// manager-fixture.h: an EventManager on a Registry of its own, with real session
// folders, a real status database, a notification port nobody listens on and a log
// file of its own.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "event-builders.h"
#include "events/event-manager.h"
#include "foundation/log.h"
#include "runtime/registry.h"
#include "runtime/task.h"
#include "state/file-status-db.h"
#include "support/temp-dir.h"
#include "ui-listener.h"

namespace evtest {

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
