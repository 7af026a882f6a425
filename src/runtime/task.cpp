// task.cpp: thread ownership, state and the interruptible wait of every task.
#include "runtime/task.h"

#include <algorithm>
#include <chrono>
#include <system_error>

#include "foundation/log.h"
#include "platform/clock.h"

namespace {
// How often a waiting task re-reads the clock: a substituted clock may jump.
constexpr int64_t kWaitSliceMs = 100;
}  // namespace

Task::Task(TaskManager* owner, TaskContext* ctx) : m_owner(owner), m_ctx(ctx) {}

Task::~Task() {
    Task::Stop();
    if (m_tid.joinable()) m_tid.join();
}

int Task::Init() {
    return 0;
}

int Task::Pause() {
    SetState(PAUSE);
    return 0;
}

int Task::Resume() {
    SetState(RUN);
    return 0;
}

int Task::Stop() {
    SetState(STOP);
    return 0;
}

int Task::SetAbort(bool) {
    return 0;
}

void Task::DoTask() {}

void Task::Exec(Task* task) {
    task->DoTask();
    task->SetState(STOP);
}

int Task::Run() {
    MutexLock guard(m_state_mutex);
    if (m_task_id.load() > -1) return -1;
    m_state = RUN;
    try {
        m_tid = std::thread(&Task::Exec, this);
    } catch (const std::system_error& e) {
        m_state = STOP;
        Logger::LogMsg(Logger::L_ERR, "task_debug",
                       "[ERROR] task(%d): failed to start thread: %s\n", __LINE__, e.what());
        return -1;
    }
    m_task_id = CreateTaskId();
    return 0;
}

int Task::Join() {
    if (m_task_id.load() < 0) return -1;
    if (m_tid.joinable()) m_tid.join();
    m_task_id = -1;
    return 0;
}

Task::State Task::GetState() const {
    return m_state.load();
}

void Task::SetState(State state) {
    MutexLock guard(m_state_mutex);
    SetStateLocked(state);
}

void Task::SetStateLocked(State state) {
    m_state = state;
    m_state_cond.NotifyAll();
}

int Task::GetId() const {
    return m_task_id.load();
}

void Task::LockState() {
    m_state_mutex.lock();
}

void Task::UnlockState() {
    m_state_mutex.unlock();
}

int Task::Wait(int seconds) {
    if (seconds <= 0) return 0;
    return SleepWhile(RUN, static_cast<int64_t>(seconds) * 1000) ? 0 : -1;
}

Task::State Task::WaitWhilePaused(int64_t ms) {
    SleepWhile(PAUSE, ms);
    return GetState();
}

bool Task::SleepWhile(State state, int64_t ms) {
    MutexLock lock(m_state_mutex);
    const int64_t deadline = platform::TickMs() + ms;
    for (;;) {
        if (m_state.load() != state) return false;
        const int64_t left = deadline - platform::TickMs();
        if (left <= 0) return true;
        m_state_cond.WaitFor(m_state_mutex,
                             std::chrono::milliseconds(std::min(left, kWaitSliceMs)));
    }
}

Mutex Task::s_id_mutex;
int Task::s_next_id = 0;

int Task::CreateTaskId() {
    MutexLock guard(s_id_mutex);
    return s_next_id++;
}

void Task::SetAbortFlag(int value) {
    std::atomic_ref<int>(m_abort_flag).store(value, std::memory_order_release);
}

bool Task::IsAborted() const {
    return std::atomic_ref<int>(const_cast<int&>(m_abort_flag)).load(std::memory_order_acquire) !=
           0;
}
