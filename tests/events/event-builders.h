// event-builders.h: short ways to make events in the tests of the event pipeline.
#pragma once

#include <cstdint>
#include <string>

#include "events/event.h"

namespace evtest {

enum Side { LOCAL = 0, SERVER = 1 };
enum Kind { FILE_NODE = 0, DIR_NODE = 1 };

inline Event Make(Event::Type type, const std::string& path, Side side, Kind kind = FILE_NODE,
                  uint64_t sync_id = 0, const std::string& hash = "") {
    Event e;
    e.m_type = type;
    e.m_path = path.c_str();
    if (side == SERVER) e.setServerEvent();
    if (kind == DIR_NODE) e.setDir();
    e.m_sync_id = sync_id;
    e.m_max_id = sync_id;
    e.m_data_hash = hash.c_str();
    e.m_sess_id = 1;
    return e;
}

inline Event Local(Event::Type type, const std::string& path, Kind kind = FILE_NODE) {
    return Make(type, path, LOCAL, kind);
}

inline Event Server(Event::Type type, const std::string& path, uint64_t sync_id,
                    Kind kind = FILE_NODE) {
    return Make(type, path, SERVER, kind, sync_id);
}

}  // namespace evtest
