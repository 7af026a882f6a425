// ui-ipc.h: UI_IPC, the notifications the daemon sends on its own to the controlling
// process: errors, files being synchronised, files done, files locked. Called by the
// event manager (files being synchronised) and by the workers and syncers (errors,
// files done).
//
// Fire and forget: each notification is a fresh loopback connection to the "ui_port"
// setting, one PObject map in PStream encoding, and no reply. A lost notification is
// lost; there is no retry and no queue. The report operations share nothing, so any
// thread may call them at any time without a lock. With nobody listening the connect is
// refused at once on loopback, so a missing listener never holds up the caller.
#pragma once

#include <cstdint>

#include "events/event.h"
#include "foundation/channel.h"
#include "foundation/object.h"
#include "platform/net.h"

class UI_IPC {
  public:
    UI_IPC();
    ~UI_IPC();
    UI_IPC(const UI_IPC&) = delete;
    UI_IPC& operator=(const UI_IPC&) = delete;

    // Adopts an accepted notification socket (linger and non-blocking mode are set).
    // 0; a negative channel code, and then the caller keeps the socket.
    int Open(platform::socket_t socket);
    // Reads one notification from the adopted socket. 0; a negative code.
    int Recv(PObject& obj);
    // Closes the adopted socket.
    void Destroy();

    // Each sends one map and gives 0, or -1 when the listener can't be reached or the
    // map can't be sent (logged under "channel_ui_debug").

    // {"notify": "error", "connection_id", "error_type"}; only the low 32 bits of the
    // connection's id survive.
    static int ReportConnectionErrorToUI(int connection_id, int error);
    // {"notify": "error", "session_id", "error_type"}.
    static int ReportSessionErrorToUI(uint64_t sess_id, int error);
    // {"notify": "locked_file", "session_id", "path", "is_dir",
    //  "error": {"reason": "file locked", "code": err}}.
    static int ReportFileLockedEventToUI(const Event& e, int err);
    // {"notify": "recent_file", "session_id", "path", "is_dir", "event_type"}: a change
    // carried out.
    static int ReportFileEventToUI(const Event& e);
    // {"notify": "syncing_file", ...the same keys}: a change now pending.
    static int ReportFileSyncingEventToUI(const Event& e);
    // {"action": "connection_terminate"}.
    static int LastBreath();

  private:
    Channel m_channel;
};
