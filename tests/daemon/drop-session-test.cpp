// The drop barrier of a pause, with real workers: the control thread returns only once
// the workers busy with the paused session have let go of their events, and a worker
// busy with another session is neither aborted nor waited for.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "daemon/worker-drop.h"
#include "foundation/error-code.h"
#include "worker/worker-fixture.h"

namespace {

using namespace wtest;

using DropBarrier = WorkerFixture;

TEST_F(DropBarrier, APauseWaitsForTheWorkersOfItsSessionAndLeavesTheOthersAtWork) {
    AddSession(7);
    AddSession(8);
    std::atomic<int> entered{0};
    std::atomic<int> let_go[9] = {};
    WorkerHandlers handlers = recorder.Handlers(0);
    // An upload under way until its worker is told to drop it.
    handlers.upload_local = [&](Worker& w) {
        const uint64_t session = w.GetEventDatabase() == dbs[7].get() ? 7 : 8;
        ++entered;
        while (!w.IsAborted()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ++let_go[session];
        return ERR_INT;
    };
    for (ProbeWorker& w : workers) w.SetHandlers(handlers);
    EventManager::getInstance().PushLocalEvent(In(7, evtest::Local(Event::EV_MODIFY, "/seven")));
    EventManager::getInstance().PushLocalEvent(In(8, evtest::Local(Event::EV_MODIFY, "/eight")));
    for (ProbeWorker& w : workers) ASSERT_EQ(w.Run(), 0);
    ASSERT_TRUE(Eventually([&] { return entered == 2; }));
    const std::vector<Worker*> all = {&workers[0], &workers[1]};

    SetPaused(8, true);
    DropSessionFromWorkers(all, 8);
    EXPECT_EQ(let_go[8], 1);
    EXPECT_EQ(let_go[7], 0);
    EXPECT_EQ(entered, 2);  // session 7's upload goes on, never restarted

    SetPaused(7, true);
    DropSessionFromWorkers(all, 0);
    EXPECT_EQ(let_go[7], 1);
    EXPECT_EQ(entered, 2);
}

}  // namespace
