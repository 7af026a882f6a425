// event.h: Event, the record of one change waiting to be synchronised, from either
// side. Made by the detector, the server event generator and rescans; merged in the
// per-session tree (event-list2.h); carried out by the workers.
#pragma once

#include <cstdint>

#include "foundation/ustring.h"

// The sync id of a server event that stands for no real server change (a forced
// download). A pending event with this id always yields to any other server event.
constexpr uint64_t MAX_SYNC_ID = 9223372036854775807ULL;

class Event {
  public:
    enum Type : int32_t {
        EV_EMPTY = 0,  // no event
        EV_CREATE = 1,
        EV_REMOVE = 2,
        EV_MODIFY = 3,
        EV_RENAME = 4,  // m_path is the source, m_opt the target
    };

    // Flag bits of m_mode.
    enum : uint32_t {
        F_DIR = 1,     // a directory; clear means a file
        F_SERVER = 2,  // came from the server; clear means local
        F_EXPAND = 4,  // a request to walk into a directory
        F_RESCAN = 8,  // a request to compare a path with the database
        F_MERGE = 16,  // a rescan that merges instead of replacing
        F_EXCEP = 32,  // reserved; never set
        F_LOCAL_SUBDIR_RESCAN = 64,
        F_SERVER_SUBDIR_RESCAN = 128,
        F_LOCAL_SUBDIR_RESCAN_STAT = 256,
        F_SERVER_SUBDIR_RESCAN_STAT = 512,
        F_CONFLICT = 1024,  // a server event that overrode a pending local change
        // A local file event that took the place of a server removal; m_sync_id and
        // m_max_id are the removal's, so the worker can still carry it out when the
        // local event turns out to have changed nothing.
        F_SERVER_REMOVED = 2048,
    };

    Event() = default;
    Event(const Event&) = default;
    Event(Event&&) noexcept = default;
    Event& operator=(const Event&) = default;
    Event& operator=(Event&&) noexcept = default;

    void swap(Event& other) noexcept;
    // Back to the empty state: EV_EMPTY, every number 0, every text empty.
    void clear();

    bool isValid() const { return m_type != EV_EMPTY; }

    void setDir() { m_mode |= F_DIR; }
    void setFile() { m_mode &= ~static_cast<uint32_t>(F_DIR); }
    bool isDir() const { return (m_mode & F_DIR) != 0; }
    bool isFile() const { return !isDir(); }

    void setServerEvent() { m_mode |= F_SERVER; }
    bool isServerEvent() const { return (m_mode & F_SERVER) != 0; }
    bool isLocalEvent() const { return !isServerEvent(); }

    void setExpand() { m_mode |= F_EXPAND; }
    bool isExpand() const { return (m_mode & F_EXPAND) != 0; }
    void setRescan() { m_mode |= F_RESCAN; }
    bool isRescan() const { return (m_mode & F_RESCAN) != 0; }
    void setMerge() { m_mode |= F_MERGE; }
    bool isMerge() const { return (m_mode & F_MERGE) != 0; }

    void setLocalSubDirRescan() { m_mode |= F_LOCAL_SUBDIR_RESCAN; }
    bool isLocalSubDirRescan() const { return (m_mode & F_LOCAL_SUBDIR_RESCAN) != 0; }
    void setServerSubDirRescan() { m_mode |= F_SERVER_SUBDIR_RESCAN; }
    bool isServerSubDirRescan() const { return (m_mode & F_SERVER_SUBDIR_RESCAN) != 0; }
    void setLocalSubDirRescanWithStat() { m_mode |= F_LOCAL_SUBDIR_RESCAN_STAT; }
    bool isLocalSubDirRescanWithStat() const { return (m_mode & F_LOCAL_SUBDIR_RESCAN_STAT) != 0; }
    void setServerSubDirRescanWithStat() { m_mode |= F_SERVER_SUBDIR_RESCAN_STAT; }
    bool isServerSubDirRescanWithStat() const {
        return (m_mode & F_SERVER_SUBDIR_RESCAN_STAT) != 0;
    }
    // Any of the four rescan-below bits.
    bool isSubDirRescan() const;

    void setConflict() { m_mode |= F_CONFLICT; }
    bool isConflict() const { return (m_mode & F_CONFLICT) != 0; }
    bool hasServerRemoval() const { return (m_mode & F_SERVER_REMOVED) != 0; }

    // The log form, e.g. "Event<server,dir,expand>: [EV_ADD] /a/b size = 0, hash = ".
    ustring toString() const;
    // The log text of a type: "EV_EMPTY", "EV_ADD", "EV_REMOVE", "EV_MODIFY", "EV_RENAME";
    // "EV_UNKNOWN" for a value outside the list.
    static const char* TypeText(int type);

    Type m_type = EV_EMPTY;
    uint32_t m_mode = 0;
    uint64_t m_sync_id = 0;    // the server's sync id; 0 on a fresh local event
    uint64_t m_max_id = 0;     // the highest sync id the change stands for
    uint64_t m_data_size = 0;  // bytes
    uint32_t m_time = 0;       // modification time, seconds since 1970
    ustring m_data_hash;       // content hash; empty when not known
    ustring m_path;            // relative to the session root, "/" separators, leading "/"
    ustring m_opt;             // target of an EV_RENAME
    ustring m_mac_attr_hash;   // hash of the extended attribute data; empty when none
    uint64_t m_mac_attr_size = 0;
    uint64_t m_sess_id = 0;
    uint32_t m_exec_bit = 0;  // executable bit on the server side
};

inline void swap(Event& a, Event& b) noexcept {
    a.swap(b);
}
