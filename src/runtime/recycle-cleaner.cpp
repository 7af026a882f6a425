// recycle-cleaner.cpp: the rotation loop and one session's rotation.
#include "runtime/recycle-cleaner.h"

#include <set>

#include "foundation/file-op.h"
#include "foundation/log.h"
#include "platform/clock.h"
#include "runtime/session-folders.h"
#include "state/file-event-db.h"

namespace {

const char* const kLog = "recycle_cleaner_debug";

// A record's path names something inside the bin: a leading "/" and no ".." element. A
// damaged record must never make the rotation remove anything outside it.
bool InsideBin(const ustring& path) {
    const std::string& p = path.str();
    if (p.size() < 2 || p[0] != '/') return false;
    size_t start = 1;
    while (start <= p.size()) {
        size_t end = p.find('/', start);
        if (end == std::string::npos) end = p.size();
        if (p.compare(start, end - start, "..") == 0) return false;
        start = end + 1;
    }
    return true;
}

}  // namespace

void RecycleCleaner::DoTask() {
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] recycle-cleaner(%d): RecycleCleaner START.\n",
                   __LINE__);
    for (;;) {
        const State state = GetState();
        if (state == STOP) break;
        if (state == PAUSE) {
            WaitWhilePaused(1000);
            continue;
        }
        if (UpdateContext() < 0 || Rotate() < 0) {
            Wait(3);
            continue;
        }
        Wait(1);
    }
    Logger::LogMsg(Logger::L_DEBUG, kLog,
                   "[DEBUG] recycle-cleaner(%d): RecycleCleaner : stop working\n", __LINE__);
}

int RecycleCleaner::Pause() {
    SetAbortFlag(1);
    return Task::Pause();
}

int RecycleCleaner::Stop() {
    SetAbortFlag(1);
    return Task::Stop();
}

int RecycleCleaner::Resume() {
    SetAbortFlag(0);
    return Task::Resume();
}

int RecycleCleaner::UpdateContext() {
    const uint64_t current = context.entry.sess_id;
    Registry::Entry next;
    // The walk wraps round; coming back to an id not above the current one ends the round.
    if (Registry::getInstance().FindNext(current, next) == 0 ||
        (current != 0 && next.sess_id <= current)) {
        context.clear();
        return -1;
    }
    context.entry = next;
    return 0;
}

ustring RecycleCleaner::GetRecycleBinDir() const {
    return session_folders::RecycleBinDir(context.entry.local_path);
}

int RecycleCleaner::Rotate() {
    const Registry::Entry& entry = context.entry;
    if (entry.recycle_time == 0 || entry.event_db == nullptr) return 0;
    const uint32_t now = static_cast<uint32_t>(platform::Now());
    // Unsigned: a time ahead of the clock counts as long past, so it can't stick.
    if (now - entry.recycle_time < kRetentionSeconds) return 0;
    const uint32_t limit = now - kRetentionSeconds;
    std::set<ustring> items;
    if (entry.event_db->getRotateList(limit, items) < 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] recycle-cleaner(%d): Failed to getRotateList.\n", __LINE__);
        return -1;
    }
    for (const ustring& item : items) {
        if (RemoveItem(item) < 0) return -1;
    }
    if (entry.event_db->rmRotateRecords(limit) < 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] recycle-cleaner(%d): Failed to rmRotateRecords.\n", __LINE__);
        return -1;
    }
    uint32_t oldest = 0;
    if (entry.event_db->getOldestRecyleTime(oldest) < 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] recycle-cleaner(%d): Failed to getOldestRecyleTime.\n", __LINE__);
        return -1;
    }
    Registry::getInstance().UpdateRecycleTime(entry, oldest);
    context.entry.recycle_time = oldest;
    return 0;
}

int RecycleCleaner::RemoveItem(const ustring& path) {
    if (!InsideBin(path)) {
        // Its record goes with the others; nothing on disk is touched for it.
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] recycle-cleaner(%d): '%s' is no name inside the recycle bin; "
                       "left alone.\n",
                       __LINE__, path.c_str_utf8());
        return 0;
    }
    const ustring full = GetRecycleBinDir() + path;
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] recycle-cleaner(%d): Need rotate '%s'.\n",
                   __LINE__, full.c_str_utf8());
    if (FSRemove(full, false) == 0) return 0;
    Logger::LogMsg(Logger::L_ERR, kLog,
                   "[ERROR] recycle-cleaner(%d): Failed to remove file. at '%s'\n", __LINE__,
                   full.c_str_utf8());
    return -1;
}
