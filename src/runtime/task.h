// task.h: the base class of every long-lived thread of the daemon (detector, recycle
// cleaner, syncers, workers). It owns the thread, the RUN/PAUSE/STOP state and the one
// sleep tasks use, Wait, which a change of state interrupts at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "foundation/mutex.h"

// Declared for the constructor's sake only; the running daemon passes null for both.
class TaskManager;
class TaskContext;

class Task {
  public:
    enum State { RUN = 0, PAUSE = 1, STOP = 2 };

    // A task starts in STOP with id -1 and no thread.
    explicit Task(TaskManager* owner = nullptr, TaskContext* ctx = nullptr);
    // Asks the thread to stop (Task::Stop, not the override). A thread still running
    // is joined here so that it never outlives the object; callers should Join first,
    // since by now the derived part of the object is already gone.
    virtual ~Task();

    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    // Base: 0, nothing done.
    virtual int Init();
    // Set PAUSE, RUN, STOP and wake Wait; 0. Overrides must call these.
    virtual int Pause() EXCLUDES(m_state_mutex);
    virtual int Resume() EXCLUDES(m_state_mutex);
    virtual int Stop() EXCLUDES(m_state_mutex);
    // Base: 0, nothing done; tasks with transfers to interrupt override it.
    virtual int SetAbort(bool abort);
    // The work of the thread; returns when the task should end. Base does nothing.
    virtual void DoTask();

    // Sets RUN and starts the thread. 0; -1 when already started (id not -1) or the
    // thread can't be created (the state is then STOP). The id comes from CreateTaskId.
    int Run() EXCLUDES(m_state_mutex);
    // Waits for the thread to end and resets the id to -1, so the task can Run again.
    // 0; -1 when the task was never started.
    int Join();

    // GetState needs no lock, so it may also be called while LockState is held.
    State GetState() const;
    void SetState(State state) EXCLUDES(m_state_mutex);
    int GetId() const;

    // Holds the state lock for a caller that needs several steps in one go; while it
    // is held change the state with SetStateLocked, never SetState.
    void LockState() ACQUIRE(m_state_mutex);
    void UnlockState() RELEASE(m_state_mutex);
    void SetStateLocked(State state) REQUIRES(m_state_mutex);

    // Sleeps while the state is RUN. 0 when `seconds` have passed (at once for 0 or
    // less); -1 as soon as the state is anything but RUN, also on entry.
    int Wait(int seconds) EXCLUDES(m_state_mutex);
    // The sleep of a paused task: returns when `ms` have passed or as soon as the state
    // is no longer PAUSE (Resume or Stop), at once when it isn't PAUSE on entry. Gives
    // the state at return.
    State WaitWhilePaused(int64_t ms) EXCLUDES(m_state_mutex);

    // Process-wide ids from 0 upward, in the order tasks first ran.
    static int CreateTaskId() EXCLUDES(s_id_mutex);

    // The abort flag: an int that I/O loops (channels, file readers, directory walks)
    // poll without a lock while another thread sets it. Hand AbortFlag() to them; read
    // and write it only through these helpers or std::atomic_ref.
    int* AbortFlag() { return &m_abort_flag; }
    void SetAbortFlag(int value);
    bool IsAborted() const;

  protected:
    TaskManager* m_owner;
    TaskContext* m_ctx;

  private:
    static void Exec(Task* task);
    // Sleeps up to `ms` of the process clock while the state is `state`; false as soon
    // as it isn't, true when the time ran out.
    bool SleepWhile(State state, int64_t ms) EXCLUDES(m_state_mutex);

    // Taken by Run, and by the thread's own last SetState: never held across a join.
    Mutex m_state_mutex ACQUIRED_BEFORE(s_id_mutex);
    CondVar m_state_cond;
    // Written under m_state_mutex; atomic so that GetState can read it without the lock.
    std::atomic<State> m_state{STOP};
    // Started by Run and joined by Join, both on the thread that controls the task.
    std::thread m_tid;
    std::atomic<int> m_task_id{-1};
    alignas(std::atomic_ref<int>::required_alignment) int m_abort_flag = 0;

    static Mutex s_id_mutex;
    static int s_next_id GUARDED_BY(s_id_mutex);
};
