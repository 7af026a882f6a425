// app.h: Tarnbridge, the daemon's application object. It owns the control thread and
// the queue between the socket loop (the process's first thread) and that thread, and
// dispatches every control request on it, one at a time. Built by the process entry.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>

#include "foundation/object.h"

class ConnectionPool;

// One queued request. All pointers belong to the sender. A message nobody waits for has
// null result, mutex, cond and done.
struct msg_t {
    const PObject* msg;
    PObject* result;                // where the reply is built
    std::mutex* mutex;              // the sender's private mutex
    std::condition_variable* cond;  // the sender's private condition
    bool* done;                     // set under `mutex` when the reply is complete
};

class Tarnbridge {
  public:
    Tarnbridge();
    // Stops the control thread if kill() has not.
    ~Tarnbridge();
    Tarnbridge(const Tarnbridge&) = delete;
    Tarnbridge& operator=(const Tarnbridge&) = delete;

    // Starts the control thread, which runs do_main_loop. 0, or -1 (logged) when the
    // thread can't be created.
    int run();
    // Queues `msg` for the control thread and returns when the reply in `result` is
    // complete ("ack": "ok" included). Both must stay valid until then. Gives 0.
    int send_message(const PObject& msg, PObject& result);
    // The same with a reply nobody reads.
    int send_message(const PObject& msg);
    // Queues a "stop" nobody waits for and joins the control thread. When the thread
    // has already left its loop, the queued stop is simply never taken.
    void kill();

    // The help text printed on every start.
    static void usage();
    // Logs the settings in use at debug level.
    void print_settings();

    // True until a "stop" has been handled.
    bool isRunning() const { return app_running.load() != 0; }

  private:
    void do_main_loop();
    // Dispatches on "action" and fills `result`; see the action table in the source.
    void handle_control(const PObject& msg, PObject& result);

    // The control commands. Each takes the request and fills the reply; failure is the
    // reply key "error" with a text, and the control loop adds "ack".
    //
    // do_link brings the environment up (filter database, status database emptied of
    // stale rows, system filter); do_unlink takes it down (also on "stop") and clears
    // the event manager and the session registry. The tasks that run between the two
    // come with the session and connection work.
    int do_link(const PObject& request, PObject& reply);
    int do_unlink(const PObject& request, PObject& reply);
    int init_env();
    void destroy_env();
    // "link_connection" makes the connection pool (one connection for each worker and
    // the two syncers) from the request's server, proxy and tunnel keys and publishes it
    // as g_pool; "reload_connection" rebuilds its connections for new keys once every
    // borrower has given its connection back. Both refuse a request without the keys
    // every connection needs ("Invalid parameters"); a second "link_connection" and a
    // "reload_connection" with nothing linked are refused too. do_unlink frees the pool.
    int create_connections(const PObject& request, PObject& reply);
    int reload_connection(const PObject& request, PObject& reply);
    // The remaining commands are filled by the session and connection work; until then
    // each leaves the reply empty, so the request gets its "ack" alone:
    // pause/resume one session ("session_id") or all.
    int pause(const PObject& request, PObject& reply);
    int resume(const PObject& request, PObject& reply);
    int unlink_connection(const PObject& request, PObject& reply);
    // Session life: filters reloaded, sessions added and removed.
    int reload_session(const PObject& request, PObject& reply);
    int add_session(const PObject& request, PObject& reply);
    int remove_session(const PObject& request, PObject& reply);
    // "session_list", "connection_list", "worker_list", each only when not empty.
    int get_status(const PObject& request, PObject& reply);

    // 1 from construction until "stop"; only the control thread writes it.
    std::atomic<int> app_running{1};
    std::queue<msg_t> msg_queue;
    // Guards msg_queue only; never held across handle_control.
    std::mutex msg_lock;
    std::condition_variable msg_cond;
    std::thread msg_thread;
    // The pool g_pool points to while linked; only the control thread changes it.
    std::unique_ptr<ConnectionPool> m_pool;
};
