// Tasks under real threads: start, pause, resume, stop, join, and the waits that a
// change of state must cut short.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "platform/clock.h"
#include "runtime/task.h"
#include "support/eventually.h"

namespace {

using Ms = std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;

int64_t ElapsedMs(SteadyClock::time_point since) {
    return std::chrono::duration_cast<Ms>(SteadyClock::now() - since).count();
}

// Spins while RUN, sleeps while PAUSE, ends on STOP: the shape of every daemon task.
class CountingTask : public Task {
  public:
    void DoTask() override {
        runs++;
        for (State state; (state = GetState()) != STOP;) {
            if (state == PAUSE) {
                WaitWhilePaused(1000);
                continue;
            }
            rounds++;
            Wait(0);
            std::this_thread::yield();
        }
    }
    std::atomic<int> runs{0};
    std::atomic<long> rounds{0};
};

// Sleeps in one long Wait and records what it gave.
class SleepingTask : public Task {
  public:
    explicit SleepingTask(int seconds) : m_seconds(seconds) {}
    void DoTask() override {
        entered = true;
        result = Wait(m_seconds);
        done = true;
    }
    std::atomic<bool> entered{false}, done{false};
    std::atomic<int> result{99};

  private:
    int m_seconds;
};

TEST(TaskConcurrency, RunStartsOneThreadAndJoinAllowsARestart) {
    Task fresh;
    EXPECT_EQ(fresh.GetState(), Task::STOP);
    EXPECT_EQ(fresh.Join(), -1);
    EXPECT_EQ(fresh.Wait(0), 0);  // at once, even in STOP
    fresh.SetState(Task::PAUSE);
    EXPECT_EQ(fresh.Wait(2), -1);  // at once: not running
    ASSERT_EQ(fresh.Run(), 0);     // the base DoTask returns at once
    ASSERT_EQ(fresh.Join(), 0);
    EXPECT_EQ(fresh.GetState(), Task::STOP);

    CountingTask task;
    ASSERT_EQ(task.Run(), 0);
    EXPECT_EQ(task.Run(), -1);
    const int first_id = task.GetId();
    ASSERT_TRUE(Eventually([&] { return task.rounds.load() > 0; }));
    task.Stop();
    ASSERT_EQ(task.Join(), 0);
    EXPECT_EQ(task.GetId(), -1);
    ASSERT_EQ(task.Run(), 0);
    EXPECT_GT(task.GetId(), first_id);  // every run takes a new id
    task.Stop();
    ASSERT_EQ(task.Join(), 0);
    EXPECT_EQ(task.runs.load(), 2);
}

// A three-second sleep that only its own time ended would fail the one-second bound.
TEST(TaskConcurrency, StopPauseOrDestructionCutsAWaitShort) {
    for (const std::string how : {"stop", "pause", "destroy"}) {
        SCOPED_TRACE(how);
        auto task = std::make_unique<SleepingTask>(3);
        ASSERT_EQ(task->Run(), 0);
        ASSERT_TRUE(Eventually([&] { return task->entered.load(); }));
        const auto start = SteadyClock::now();
        if (how != "destroy") {
            how == "stop" ? task->Stop() : task->Pause();
            EXPECT_TRUE(Eventually([&] { return task->done.load(); }, nullptr, Ms(1000)));
            EXPECT_EQ(task->result.load(), -1);
        }
        task.reset();  // the destructor stops and joins the thread
        EXPECT_LT(ElapsedMs(start), 1000);
    }
}

TEST(TaskConcurrency, WaitRunsItsTimeOnTheProcessClock) {
    platform::ManualClock clock;
    platform::ScopedClock use(clock);
    SleepingTask task(3600);
    ASSERT_EQ(task.Run(), 0);
    ASSERT_TRUE(Eventually([&] { return task.entered.load(); }));
    std::this_thread::sleep_for(Ms(150));
    EXPECT_FALSE(task.done.load());
    clock.Advance(3600 * 1000);
    EXPECT_TRUE(Eventually([&] { return task.done.load(); }, nullptr, Ms(1000)));
    EXPECT_EQ(task.result.load(), 0);
    EXPECT_EQ(task.Join(), 0);
}

TEST(TaskConcurrency, PausedTaskHoldsStillAndResumes) {
    CountingTask task;
    ASSERT_EQ(task.Run(), 0);
    ASSERT_TRUE(Eventually([&] { return task.rounds.load() > 0; }));
    task.Pause();
    std::this_thread::sleep_for(Ms(20));  // let a round in progress finish
    long frozen = task.rounds.load();
    std::this_thread::sleep_for(Ms(100));
    EXPECT_EQ(task.rounds.load(), frozen);

    task.Resume();
    EXPECT_TRUE(Eventually([&] { return task.rounds.load() > frozen; }, nullptr, Ms(1000)));
    task.Pause();
    auto start = SteadyClock::now();
    task.Stop();  // a stop while paused ends the pause sleep too
    ASSERT_EQ(task.Join(), 0);
    EXPECT_LT(ElapsedMs(start), 900);
}

}  // namespace
