// progress-cache.cpp: the resume list under its lock.
#include "pulling/progress-cache.h"

#include <algorithm>

#include "foundation/log.h"

namespace {
constexpr const char kLog[] = "progress_cache_debug";
}

ProgressCache& ProgressCache::getInstance() {
    static ProgressCache instance;
    return instance;
}

void ProgressCache::addProgressEntry(uint64_t row_id, const ResumeCondition& condition) {
    std::lock_guard<std::recursive_mutex> guard(m_mutex);
    cache_list.push_back(Entry{row_id, condition});
}

bool ProgressCache::getProgressEntry(Entry& entry) {
    std::lock_guard<std::recursive_mutex> guard(m_mutex);
    if (cache_list.empty()) {
        Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] progress-cache(%d): cache_list is empty. \n",
                       __LINE__);
        return false;
    }
    entry = cache_list.front();
    return true;
}

void ProgressCache::updateProgressSyncId(uint64_t row_id, uint64_t sync_id) {
    std::lock_guard<std::recursive_mutex> guard(m_mutex);
    for (Entry& e : cache_list) {
        if (e.row_id != row_id) continue;
        e.condition.sync_id = sync_id;
        Logger::LogMsg(
            Logger::L_DEBUG, kLog,
            "[DEBUG] progress-cache(%d): updateProgressSyncId to %llu for row_id = %llu.\n",
            __LINE__, static_cast<unsigned long long>(sync_id),
            static_cast<unsigned long long>(row_id));
    }
}

void ProgressCache::rmProgressEntry(uint64_t row_id) {
    std::lock_guard<std::recursive_mutex> guard(m_mutex);
    std::erase_if(cache_list, [row_id](const Entry& e) { return e.row_id == row_id; });
}

bool ProgressCache::isInProgrssCache(uint64_t sess_id) {
    std::lock_guard<std::recursive_mutex> guard(m_mutex);
    return std::any_of(cache_list.begin(), cache_list.end(),
                       [sess_id](const Entry& e) { return e.condition.sess_id == sess_id; });
}

void ProgressCache::Lock() {
    m_mutex.lock();
}

void ProgressCache::Unlock() {
    m_mutex.unlock();
}
