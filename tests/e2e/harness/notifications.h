// notifications.h: the controlling process's notification port for the end-to-end tests.
// A thread accepts the daemon's connections on a loopback port the system picks and keeps
// every map received ("notify": "error", "syncing_file", "recent_file", "locked_file").
#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "foundation/mutex.h"
#include "foundation/object.h"

class NotificationListener {
  public:
    // Listens at once; port() is where the daemon's "ui_port" must point.
    NotificationListener();
    // Stops the thread and closes the port.
    ~NotificationListener();
    NotificationListener(const NotificationListener&) = delete;
    NotificationListener& operator=(const NotificationListener&) = delete;

    int port() const { return m_port; }
    // How many received maps satisfy `match`.
    size_t Count(const std::function<bool(const PObject&)>& match) EXCLUDES(m_mutex);

  private:
    void Serve();

    int m_fd = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    Mutex m_mutex;
    std::vector<PObject> m_received GUARDED_BY(m_mutex);
    std::thread m_thread;
};
