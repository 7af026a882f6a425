// event-generator.cpp: server records and forced transfers as events.
#include "events/event-generator.h"

#include "events/event-manager.h"
#include "events/event.h"
#include "foundation/file-op.h"
#include "foundation/log.h"
#include "state/file-event-db.h"

namespace {

constexpr const char* kLog = "worker_debug";

Event MakeEvent(const Registry::Entry& reg, Event::Type type, const ustring& path, bool isDir) {
    Event e;
    e.m_type = type;
    e.m_path = path;
    if (isDir) e.setDir();
    e.m_sess_id = reg.sess_id;
    return e;
}

// Reads the server's record into `e`.
void ReadServerRecord(const Registry::Entry& reg, const PObject& ref, Event& e) {
    e.m_mode = Event::F_SERVER;
    if (ref["is_dir"].asBool()) e.m_mode |= Event::F_DIR;
    // The server's record does not tell a creation from a modification.
    e.m_type = ref["is_removed"].asBool() ? Event::EV_REMOVE : Event::EV_CREATE;
    e.m_path = ref["path"].asString();
    e.m_sync_id = ref["sync_id"].asUInt64();
    e.m_max_id = ref.hasMember("max_id") ? ref["max_id"].asUInt64() : e.m_sync_id;
    if (ref.hasMember("file")) {
        e.m_data_hash = ref["file"]["hash"].asString();
        e.m_data_size = ref["file"]["size"].asUInt64();
    }
    if (ref.hasMember("common_attribute")) e.m_time = ref["common_attribute"]["mtime"].asUInt32();
    // The time stands under "mtime" twice over; when present it wins.
    if (ref.hasMember("mtime")) e.m_time = ref["mtime"]["mtime"].asUInt32();
    if (ref.hasMember("mac_attribute")) {
        e.m_mac_attr_hash = ref["mac_attribute"]["hash"].asString();
        e.m_mac_attr_size = ref["mac_attribute"]["size"].asUInt64();
    }
    if (ref.hasMember("exec_bit")) e.m_exec_bit = ref["exec_bit"].asUInt32();
    e.m_sess_id = reg.sess_id;
}

}  // namespace

bool IsUsableServerPath(const ustring& path) {
    if (path.empty() || path[0] != '/' || !ustring::is_valid(path)) return false;
    // A backslash would separate names where the other platform reads these paths, and a
    // NUL ends the name the system sees.
    for (size_t i = 0; i < path.size(); ++i)
        if (path[i] == '\\' || path[i] == '\0') return false;
    if (path.size() == 1) return true;
    size_t start = 1;
    for (;;) {
        size_t end = path.find('/', start);
        if (end == ustring::npos) end = path.size();
        const size_t len = end - start;
        if (len == 0) return false;
        if (len <= 2 && path.substr(start, len) == ustring(len == 1 ? "." : "..")) return false;
        // A drive ("C:") as the first name reads as an absolute path elsewhere.
        if (start == 1 && len == 2 && path[2] == ':') return false;
        if (end == path.size()) return true;
        start = end + 1;
    }
}

int PushEvent(Registry::Entry& reg, const PObject& ref) {
    Event e;
    ReadServerRecord(reg, ref, e);
    if (!IsUsableServerPath(e.m_path)) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] event-generator(%d): Server event with unusable path [%s] "
                       "dropped: %s\n",
                       __LINE__, e.m_path.c_str_utf8(), ref.toString().c_str_utf8());
        return 0;
    }

    // Most records after an upload are this client's own work coming back; they
    // must not cost a download.
    ClientFileEventInfo info;
    const int found = reg.event_db != nullptr ? reg.event_db->getEventInfo(e.m_path, info) : -1;
    if (found == 0 && e.m_type == Event::EV_REMOVE) {
        Logger::LogMsg(Logger::L_INFO, kLog,
                       "[INFO] event-generator(%d): Server delete event [%s] and "
                       "cannot find db "
                       "record (server echo).\n",
                       __LINE__, e.m_path.c_str_utf8());
        return 0;
    }
    if (found == 1 && e.m_sync_id <= info.syncID) {
        const ustring local = e.m_path == "/" ? reg.local_path : reg.local_path + e.m_path;
        FILE_INFO finfo;
        if (FSStat(local, finfo, true) == 0 && finfo.isExist) {
            Logger::LogMsg(Logger::L_INFO, kLog,
                           "[INFO] event-generator(%d): File [%s] is already up-to-date (server "
                           "echo).\n",
                           __LINE__, e.m_path.c_str_utf8());
            return 0;
        }
        // Missing on disk although the database is that far: the event restores it.
    }
    EventManager::getInstance().PushServerEvent(e);
    return 1;
}

int PushEvent(Registry::Entry& reg, const FilterLocalEvent& ref) {
    const bool isDir = ref.file_type != 0;
    if (ref.is_exist != 0) return PushUploadEvent(reg, ref.path, isDir);
    return PushDownloadEvent(reg, ref.path, isDir);
}

int PushServerRemoveEvent(Registry::Entry& reg, const ustring& path, bool isDir, uint64_t sync_id,
                          uint64_t max_id) {
    Event e = MakeEvent(reg, Event::EV_REMOVE, path, isDir);
    e.setServerEvent();
    e.m_sync_id = sync_id;
    e.m_max_id = max_id;
    EventManager::getInstance().PushServerEvent(e);
    return 1;
}

int PushUploadEvent(Registry::Entry& reg, const ustring& path, bool isDir) {
    EventManager::getInstance().PushLocalEvent(MakeEvent(reg, Event::EV_MODIFY, path, isDir));
    return 1;
}

int PushLocalRemoveEvent(Registry::Entry& reg, const ustring& path, bool isDir) {
    EventManager::getInstance().PushLocalEvent(MakeEvent(reg, Event::EV_REMOVE, path, isDir));
    return 1;
}

int PushDownloadEvent(Registry::Entry& reg, const ustring& path, bool isDir) {
    Event e = MakeEvent(reg, Event::EV_MODIFY, path, isDir);
    e.setServerEvent();
    e.m_sync_id = MAX_SYNC_ID;
    e.m_max_id = MAX_SYNC_ID;
    ClientFileEventInfo info;
    if (reg.event_db != nullptr && reg.event_db->getEventInfo(path, info) == 1) {
        e.m_time = info.fileModTime;
        e.m_data_size = info.fileSize;
        e.m_data_hash = info.fileCheckSum;
        e.m_mac_attr_hash = info.macHash;
        e.m_exec_bit = info.execBit;
    } else {
        Logger::LogMsg(Logger::L_WARNING, kLog,
                       "[WARNING] event-generator(%d): force download event (%s) missing "
                       "required info\n",
                       __LINE__, path.c_str_utf8());
    }
    EventManager::getInstance().PushServerEvent(e);
    return 1;
}
