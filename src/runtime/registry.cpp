// registry.cpp: the session table under one mutex.
#include "runtime/registry.h"

#include "filter/black-list-v2.h"
#include "filter/white-list-cpp.h"
#include "state/file-event-db.h"

Registry& Registry::getInstance() {
    static Registry instance;
    return instance;
}

size_t Registry::Size() {
    MutexLock guard(m_mutex);
    return m_table.size();
}

int Registry::Find(uint64_t sess_id, Entry& entry) {
    MutexLock guard(m_mutex);
    auto it = m_table.find(sess_id);
    if (it == m_table.end()) return 0;
    entry = it->second;
    return 1;
}

int Registry::FindNext(uint64_t sess_id, Entry& entry) {
    MutexLock guard(m_mutex);
    if (m_table.empty()) return 0;
    auto it = m_table.find(sess_id);
    if (it != m_table.end()) ++it;
    if (it == m_table.end()) it = m_table.begin();
    entry = it->second;
    return 1;
}

void Registry::Set(const Entry& entry) {
    MutexLock guard(m_mutex);
    m_table[entry.sess_id] = entry;
}

void Registry::Remove(uint64_t sess_id) {
    MutexLock guard(m_mutex);
    m_table.erase(sess_id);
}

void Registry::FreeObjects(Entry& entry) {
    if (entry.event_db != nullptr) entry.event_db->destroy();
    delete entry.event_db;
    delete entry.white_list;
    delete entry.black_list;
    entry.event_db = nullptr;
    entry.white_list = nullptr;
    entry.black_list = nullptr;
}

// Holding the mutex across the close makes a task that reads the table wait for it.
void Registry::Clear(uint64_t sess_id) {
    MutexLock guard(m_mutex);
    auto it = m_table.find(sess_id);
    if (it == m_table.end()) return;
    FreeObjects(it->second);
    m_table.erase(it);
}

void Registry::Clear() {
    MutexLock guard(m_mutex);
    for (auto& [id, entry] : m_table) FreeObjects(entry);
    m_table.clear();
}

void Registry::UpdateRecycleTime(const Entry& entry, uint32_t time) {
    MutexLock guard(m_mutex);
    auto it = m_table.find(entry.sess_id);
    if (it != m_table.end()) it->second.recycle_time = time;
}

void Registry::InitRecycleTime(const Entry& entry, uint32_t time) {
    MutexLock guard(m_mutex);
    auto it = m_table.find(entry.sess_id);
    if (it == m_table.end()) return;
    if (it->second.recycle_time == 0 || it->second.recycle_time > time)
        it->second.recycle_time = time;
}
