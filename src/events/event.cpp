#include "events/event.h"

#include <string>
#include <utility>

void Event::swap(Event& other) noexcept {
    using std::swap;
    swap(m_type, other.m_type);
    swap(m_mode, other.m_mode);
    swap(m_sync_id, other.m_sync_id);
    swap(m_max_id, other.m_max_id);
    swap(m_data_size, other.m_data_size);
    swap(m_time, other.m_time);
    m_data_hash.swap(other.m_data_hash);
    m_path.swap(other.m_path);
    m_opt.swap(other.m_opt);
    m_mac_attr_hash.swap(other.m_mac_attr_hash);
    swap(m_mac_attr_size, other.m_mac_attr_size);
    swap(m_sess_id, other.m_sess_id);
    swap(m_exec_bit, other.m_exec_bit);
}

void Event::clear() {
    *this = Event();
}

bool Event::isSubDirRescan() const {
    return (m_mode & (F_LOCAL_SUBDIR_RESCAN | F_SERVER_SUBDIR_RESCAN | F_LOCAL_SUBDIR_RESCAN_STAT |
                      F_SERVER_SUBDIR_RESCAN_STAT)) != 0;
}

const char* Event::TypeText(int type) {
    switch (type) {
        case EV_EMPTY:
            return "EV_EMPTY";
        case EV_CREATE:
            return "EV_ADD";
        case EV_REMOVE:
            return "EV_REMOVE";
        case EV_MODIFY:
            return "EV_MODIFY";
        case EV_RENAME:
            return "EV_RENAME";
        default:
            return "EV_UNKNOWN";
    }
}

ustring Event::toString() const {
    std::string s = "Event<";
    s += isServerEvent() ? "server" : "local";
    s += isDir() ? ",dir" : ",file";
    if (isExpand()) s += ",expand";
    if (hasServerRemoval()) s += ",server-removed";
    s += ">: [";
    s += TypeText(m_type);
    s += "] ";
    if (m_type == EV_RENAME) {
        s += "from '";
        s += m_path.c_str_utf8();
        s += "', to '";
        s += m_opt.c_str_utf8();
        s += "'";
    } else {
        s += m_path.c_str_utf8();
    }
    s += " size = ";
    s += std::to_string(m_data_size);
    s += ", hash = ";
    s += m_data_hash.c_str_utf8();
    return ustring(s);
}
