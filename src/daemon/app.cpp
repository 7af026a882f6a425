// app.cpp: the control thread, its queue and the dispatcher of control requests.
#include "daemon/app.h"

#include <cstdio>
#include <cstring>

#include "daemon/app-log.h"
#include "foundation/log.h"
#include "foundation/settings.h"
#include "runtime/task.h"
#include "transport/connection-pool.h"

Tarnbridge::Tarnbridge() = default;

Tarnbridge::~Tarnbridge() {
    if (msg_thread.joinable()) kill();
    if (g_pool.load() == m_pool.get()) g_pool = nullptr;
}

int Tarnbridge::run() {
    try {
        msg_thread = std::thread(&Tarnbridge::do_main_loop, this);
    } catch (const std::system_error& e) {
        Logger::LogMsg(Logger::L_ERR, kAppLog, "[ERROR] app(%d): pthread_create: %s (%d)\n",
                       __LINE__, e.what(), e.code().value());
        return -1;
    }
    return 0;
}

int Tarnbridge::send_message(const PObject& msg, PObject& result) {
    std::mutex mutex;
    std::condition_variable cond;
    bool done = false;
    // The private mutex is held from before the push until the wait, so the control
    // thread's signal can't come too early.
    std::unique_lock<std::mutex> mine(mutex);
    {
        std::lock_guard<std::mutex> guard(msg_lock);
        if (msg_queue.empty()) msg_cond.notify_one();
        msg_queue.push(msg_t{&msg, &result, &mutex, &cond, &done});
    }
    cond.wait(mine, [&] { return done; });
    return 0;
}

int Tarnbridge::send_message(const PObject& msg) {
    PObject result;
    return send_message(msg, result);
}

void Tarnbridge::kill() {
    PObject stop;
    stop["action"] = "stop";
    {
        std::lock_guard<std::mutex> guard(msg_lock);
        msg_queue.push(msg_t{&stop, nullptr, nullptr, nullptr, nullptr});
    }
    msg_cond.notify_one();
    if (msg_thread.joinable()) msg_thread.join();
}

void Tarnbridge::do_main_loop() {
    Logger::LogMsg(Logger::L_INFO, kAppLog,
                   "[INFO] app(%d): main thread starts receiving messages\n", __LINE__);
    while (app_running.load() != 0) {
        msg_t m;
        {
            std::unique_lock<std::mutex> lock(msg_lock);
            if (msg_queue.empty())
                Logger::LogMsg(Logger::L_DEBUG, kAppLog,
                               "[DEBUG] app(%d): waiting for instructions\n", __LINE__);
            msg_cond.wait(lock, [&] { return !msg_queue.empty(); });
            m = msg_queue.front();
            msg_queue.pop();
        }
        PObject unread;
        handle_control(*m.msg, m.result != nullptr ? *m.result : unread);
        if (m.result == nullptr || m.cond == nullptr || m.mutex == nullptr) continue;
        (*m.result)["ack"] = "ok";
        std::lock_guard<std::mutex> guard(*m.mutex);
        *m.done = true;
        m.cond->notify_one();
    }
    Logger::LogMsg(Logger::L_INFO, kAppLog, "[INFO] app(%d): main thread down\n", __LINE__);
}

void Tarnbridge::handle_control(const PObject& msg, PObject& result) {
    Logger::LogMsg(Logger::L_DEBUG, kAppLog, "[DEBUG] app(%d): >>> %s\n", __LINE__,
                   msg.toString().c_str_utf8());
    if (!msg.hasMember("action")) return;
    const ustring action = msg["action"].asString();
    if (action == "stop") {
        app_running.store(0);
        do_unlink(msg, result);
        return;
    }
    // Tested in this order; an action not listed gets its "ack" alone.
    if (action == "link") {
        do_link(msg, result);
    } else if (action == "unlink") {
        do_unlink(msg, result);
    } else if (action == "pause") {
        pause(msg, result);
    } else if (action == "resume") {
        resume(msg, result);
    } else if (action == "link_connection") {
        create_connections(msg, result);
    } else if (action == "reload_connection") {
        reload_connection(msg, result);
    } else if (action == "unlink_connection") {
        unlink_connection(msg, result);
    } else if (action == "reload_session") {
        reload_session(msg, result);
    } else if (action == "add_session") {
        add_session(msg, result);
    } else if (action == "remove_session") {
        remove_session(msg, result);
    } else if (action == "get_status") {
        get_status(msg, result);
    }
    Logger::LogMsg(Logger::L_DEBUG, kAppLog, "[DEBUG] app(%d): <<< %s\n", __LINE__,
                   result.toString().c_str_utf8());
}

void Tarnbridge::usage() {
    static const char* const kLines[] = {
        "* Controling application: ",
        "    Control <action>",
        "",
        "* Controling session: ",
        "    ControlSession <action> <session_id> ",
        "",
        "* Supported actions: ",
        "    stop",
        "    link",
        "    unlink",
        "    pause",
        "    resume",
        "    reload_setting",
        "    reload_session",
        "    add_session",
        "    remove_session",
        "",
    };
    for (const char* line : kLines) std::printf("%s\n", line);
    std::fflush(stdout);
}

void Tarnbridge::print_settings() {
    Settings& s = Settings::getInstance();
    auto line = [](const char* format, const char* value) {
        Logger::LogMsg(Logger::L_DEBUG, kAppLog, format, __LINE__, value);
    };
    Logger::LogMsg(Logger::L_DEBUG, kAppLog, "[DEBUG] app(%d): ======= Settings =======\n",
                   __LINE__);
    line("[DEBUG] app(%d): db_path: %s\n", s.getDbPath().c_str_utf8());
    line("[DEBUG] app(%d): pid_file_path: %s\n", s.getPidFilePath().c_str_utf8());
    line("[DEBUG] app(%d): log_file_path: %s\n", s.getLogFilePath().c_str_utf8());
    line("[DEBUG] app(%d): log_level_file_path: %s\n", s.getLogLevelFilePath().c_str_utf8());
    Logger::LogMsg(Logger::L_DEBUG, kAppLog, "[DEBUG] app(%d): worker_count: %u\n", __LINE__,
                   static_cast<unsigned>(s.getWorkerCount()));
    line("[DEBUG] app(%d): socket_path: %s\n", s.getSocketPath().c_str_utf8());
    line("[DEBUG] app(%d): is_daemon: %s\n", s.isDaemon() ? "true" : "false");
    line("[DEBUG] app(%d): fstat_db_path: %s\n", s.getFStatDbPath().c_str_utf8());
    line("[DEBUG] app(%d): filter_db_path: %s\n", s.getFilterDbPath().c_str_utf8());
}
