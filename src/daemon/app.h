// app.h: Tarnbridge, the daemon's application object. It owns the control thread and
// the queue between the socket loop (the process's first thread) and that thread,
// dispatches every control request on it, one at a time, and owns what the commands
// bring up: the tasks and the connection pool. Built by the process entry.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include "foundation/object.h"
#include "foundation/ustring.h"
#include "runtime/registry.h"

class ConnectionPool;
class Detector;
class Task;
class Worker;

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
    // The parameters of a session being added.
    struct Session {
        uint64_t sess_id = 0;
        uint64_t view_id = 0;
        uint64_t node_id = 0;
        bool recursive = true;
        ustring config_path;
        ustring local_path;
        ustring remote_path;
        uint32_t create_time = 0;
    };

    // Task slots: the fixed tasks by position, then the workers to the end.
    static constexpr size_t kDetectorSlot = 0;
    static constexpr size_t kRecycleCleanerSlot = 1;
    static constexpr size_t kSyncerSlot = 2;
    static constexpr size_t kProgressSyncerSlot = 3;
    static constexpr size_t kFirstWorkerSlot = 4;

    void do_main_loop();
    // Dispatches on "action" and fills `result`; see the action table in the source.
    void handle_control(const PObject& msg, PObject& result);

    // The control commands. Each takes the request and fills the reply; failure is the
    // reply key "error" with a text, and the control loop adds "ack". They run on the
    // control thread only, which alone touches the task array and the pool.
    //
    // "link": databases and system filter up, tasks made and started. A second "link",
    // or one that fails half-way, leaves the daemon as it was before it.
    int do_link(const PObject& request, PObject& reply);
    // "unlink" (and "stop"): tasks stopped and joined, then deleted; the pool, the
    // databases, the pending events and the sessions go.
    int do_unlink(const PObject& request, PObject& reply);
    int init_env();
    void destroy_env();
    // The task array: slot 0 the detector, 1 the recycle cleaner, 2 the syncer, 3 the
    // progress syncer, 4 to the end the workers. -1 (logged) for a worker count the daemon cannot
    // run with.
    int init_tasks();
    void start_all();
    void stop_all();
    void destroy_members();
    void destroy_connections();

    // Sessions: "add_session", "remove_session", "pause", "resume".
    int add_session(const PObject& request, PObject& reply);
    int remove_session(const PObject& request, PObject& reply);
    int pause(const PObject& request, PObject& reply);
    int resume(const PObject& request, PObject& reply);
    // "reload_session": a paused session takes up its changed filter files. The lists are
    // reloaded (a file that doesn't parse changes nothing), the selective-sync rules are
    // compared with those last applied (reload_filter), and the local changes the filters
    // held back are queued again. -1 with "error" for a running or unknown session.
    int reload_session(const PObject& request, PObject& reply);
    // Queues every local change the filter database says a filter held back: uploads for
    // what exists, downloads for what doesn't. The workers filter them again.
    void reload_local_events(Registry::Entry& entry);
    // Makes the session's objects and folders, watches it and puts it in the Registry,
    // paused, with a rescan of its root queued. 0; -1 (logged) with nothing in the table.
    int create_registry_entry(const Session& session, bool do_merge);
    // Checks the sync folder and the config folder, makes the signature folder, and wipes
    // and makes again the working directory with the recycle bin in it. 0; -1 (logged).
    int create_session_environment(const ustring& local_path, const ustring& config_path);
    // The session's open selective-sync resumptions, into the progress cache. 0; -1.
    int load_resume_condition(uint64_t sess_id);
    // Takes a paused session out of the table and stops watching it. 0; -1 with "error"
    // in `reply`.
    int remove_one_session(uint64_t sess_id, PObject& reply);
    // Sets or clears `pause` of one session, or of all for 0; an unknown id does nothing.
    void pauseRegistry(uint64_t sess_id);
    void resumeRegistry(uint64_t sess_id);
    // Returns once no worker is busy with the session (any session for 0).
    void drop_session(uint64_t sess_id);
    // The task of slot 0; null while unlinked.
    Detector* detector() const;
    // The tasks of slots 4 up; none while unlinked.
    std::vector<Worker*> workers() const;

    // "link_connection" makes the connection pool (one connection for each worker and
    // the two syncers) from the request's server, proxy and tunnel keys and publishes it
    // as g_pool; "reload_connection" rebuilds its connections for new keys once every
    // borrower has given its connection back. Both refuse a request without the keys
    // every connection needs, or with one of the wrong kind ("Invalid parameters"); a
    // second "link_connection" and a "reload_connection" with nothing linked are refused
    // too. "unlink_connection" takes every (paused) session away; the pool stays.
    int create_connections(const PObject& request, PObject& reply);
    int reload_connection(const PObject& request, PObject& reply);
    int unlink_connection(const PObject& request, PObject& reply);
    // "session_list", "connection_list", "worker_list", each only when not empty.
    int get_status(const PObject& request, PObject& reply);

    // Made by "link_connection" and published as g_pool until "unlink". Declared before
    // the tasks, so that it outlives them.
    std::unique_ptr<ConnectionPool> m_pool;
    // The tasks by slot; empty while unlinked. The progress syncer's slot stays empty
    // until that task exists.
    std::vector<std::unique_ptr<Task>> task;
    // Between a "link" that succeeded and the next "unlink".
    bool linked = false;

    // 1 from construction until "stop"; only the control thread writes it.
    std::atomic<int> app_running{1};
    std::queue<msg_t> msg_queue;
    // Guards msg_queue only; never held across handle_control.
    std::mutex msg_lock;
    std::condition_variable msg_cond;
    std::thread msg_thread;
};
