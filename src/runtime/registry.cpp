// registry.cpp: the session table under one mutex.
#include "runtime/registry.h"

#include "filter/black-list-v2.h"
#include "filter/white-list-cpp.h"
#include "foundation/log.h"
#include "state/file-event-db.h"

Registry::CopyCount::CopyCount(const CopyCount& other) : m_count(other.m_count) {
    if (m_count) m_count->fetch_add(1, std::memory_order_relaxed);
}

Registry::CopyCount& Registry::CopyCount::operator=(const CopyCount& other) {
    if (m_count != other.m_count) Join(other.m_count);
    return *this;
}

// Releasing, so that whoever sees the count drop also sees what this copy's holder did
// with the session's objects before letting go.
Registry::CopyCount::~CopyCount() {
    if (m_count) m_count->fetch_sub(1, std::memory_order_release);
}

int Registry::CopyCount::copies() const {
    return m_count ? m_count->load(std::memory_order_acquire) : 0;
}

void Registry::CopyCount::Join(const std::shared_ptr<std::atomic<int>>& count) {
    if (m_count) m_count->fetch_sub(1, std::memory_order_release);
    m_count = count;
    if (m_count) m_count->fetch_add(1, std::memory_order_relaxed);
}

Registry& Registry::getInstance() {
    static Registry instance;
    return instance;
}

size_t Registry::Size() {
    MutexLock guard(m_mutex);
    return m_table.size();
}

std::vector<uint64_t> Registry::Ids() {
    MutexLock guard(m_mutex);
    std::vector<uint64_t> ids;
    for (const auto& [id, entry] : m_table) ids.push_back(id);
    return ids;
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
    Entry& stored = m_table[entry.sess_id];
    stored = entry;
    if (stored.copies.copies() == 0) stored.copies.Join(std::make_shared<std::atomic<int>>(0));
}

void Registry::Remove(uint64_t sess_id) {
    MutexLock guard(m_mutex);
    m_table.erase(sess_id);
}

// New copies are made only under the table's mutex, which the caller holds, so a count
// of one (the table's own) cannot grow behind our back.
bool Registry::FreeObjects(Entry& entry) {
    if (entry.copies.copies() > 1) {
        Logger::LogMsg(Logger::L_ERR, "registry_debug",
                       "[ERROR] registry(%d): session %llu is still in use by %d task(s), its "
                       "objects are not freed\n",
                       __LINE__, static_cast<unsigned long long>(entry.sess_id),
                       entry.copies.copies() - 1);
        return false;
    }
    if (entry.event_db != nullptr) entry.event_db->destroy();
    delete entry.event_db;
    delete entry.white_list;
    delete entry.black_list;
    entry.event_db = nullptr;
    entry.white_list = nullptr;
    entry.black_list = nullptr;
    return true;
}

// Holding the mutex across the close makes a task that reads the table wait for it.
int Registry::Clear(uint64_t sess_id) {
    MutexLock guard(m_mutex);
    auto it = m_table.find(sess_id);
    if (it == m_table.end()) return 0;
    if (!FreeObjects(it->second)) return -1;
    m_table.erase(it);
    return 0;
}

int Registry::Clear() {
    MutexLock guard(m_mutex);
    int result = 0;
    for (auto it = m_table.begin(); it != m_table.end();) {
        if (FreeObjects(it->second)) {
            it = m_table.erase(it);
        } else {
            result = -1;
            ++it;
        }
    }
    return result;
}

bool Registry::TakeMergePending(uint64_t sess_id) {
    MutexLock guard(m_mutex);
    auto it = m_table.find(sess_id);
    if (it == m_table.end() || !it->second.merge_pending) return false;
    it->second.merge_pending = false;
    return true;
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
