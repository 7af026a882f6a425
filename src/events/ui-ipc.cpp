#include "events/ui-ipc.h"

#include "foundation/log.h"
#include "foundation/settings.h"
#include "foundation/stream.h"

namespace {

const ustring& Category() {
    static const ustring category("channel_ui_debug");
    return category;
}

// The two error reports name the socket in their log line, the others the channel.
enum OpenFailureText { SOCKET_TEXT, CHANNEL_TEXT };

int Send(const PObject& obj, OpenFailureText text) {
    Channel channel(Channel::kCapacity);
    if (channel.Open("127.0.0.1", Settings::getInstance().getUIPort()) < 0) {
        if (text == SOCKET_TEXT)
            Logger::LogMsg(Logger::L_ERR, Category(), "[ERROR] ui-ipc(%d): Open ui socket failed\n",
                           __LINE__);
        else
            Logger::LogMsg(Logger::L_ERR, Category(),
                           "[ERROR] ui-ipc(%d): Open ui channel failed\n", __LINE__);
        return -1;
    }
    PStream stream;
    if (stream.Send(channel, obj) < 0) {
        Logger::LogMsg(Logger::L_ERR, Category(), "[ERROR] ui-ipc(%d): send req failed\n",
                       __LINE__);
        return -1;
    }
    return 0;
}

void FillFileKeys(PObject& obj, const Event& e) {
    obj["session_id"] = static_cast<uint64_t>(e.m_sess_id);
    obj["path"] = e.m_path;
    obj["is_dir"] = static_cast<uint64_t>(e.m_mode & Event::F_DIR);
}

// A notice about one file event: what it is, the file and the kind of change.
PObject FileEventNotice(const char* notify, const Event& e) {
    PObject obj;
    obj["notify"] = notify;
    FillFileKeys(obj, e);
    obj["event_type"] = static_cast<int32_t>(e.m_type);
    return obj;
}

}  // namespace

UI_IPC::UI_IPC() : m_channel(Channel::kCapacity) {}

UI_IPC::~UI_IPC() = default;

int UI_IPC::Open(platform::socket_t socket) {
    return m_channel.Open(socket, true);
}

int UI_IPC::Recv(PObject& obj) {
    PStream stream;
    return stream.Recv(m_channel, obj);
}

void UI_IPC::Destroy() {
    m_channel.Close();
}

int UI_IPC::ReportConnectionErrorToUI(int connection_id, int error) {
    PObject obj;
    obj["notify"] = "error";
    obj["connection_id"] = static_cast<int32_t>(connection_id);
    obj["error_type"] = static_cast<int32_t>(error);
    return Send(obj, SOCKET_TEXT);
}

int UI_IPC::ReportSessionErrorToUI(uint64_t sess_id, int error) {
    PObject obj;
    obj["notify"] = "error";
    obj["session_id"] = sess_id;
    obj["error_type"] = static_cast<int32_t>(error);
    return Send(obj, SOCKET_TEXT);
}

int UI_IPC::ReportFileLockedEventToUI(const Event& e, int err) {
    PObject obj;
    obj["notify"] = "locked_file";
    FillFileKeys(obj, e);
    PObject& detail = obj["error"];
    detail["reason"] = "file locked";
    detail["code"] = static_cast<int32_t>(err);
    return Send(obj, CHANNEL_TEXT);
}

int UI_IPC::ReportFileEventToUI(const Event& e) {
    return Send(FileEventNotice("recent_file", e), CHANNEL_TEXT);
}

int UI_IPC::ReportFileSyncingEventToUI(const Event& e) {
    return Send(FileEventNotice("syncing_file", e), CHANNEL_TEXT);
}

int UI_IPC::LastBreath() {
    PObject obj;
    obj["action"] = "connection_terminate";
    return Send(obj, CHANNEL_TEXT);
}
