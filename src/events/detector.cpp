// detector.cpp: the local change detector over a platform change source.
#include "events/detector.h"

#include <utility>

#include "events/event-manager.h"
#include "events/ui-ipc.h"
#include "foundation/error-code.h"
#include "foundation/file-op.h"
#include "foundation/log.h"
#include "platform/fs.h"
#include "runtime/registry.h"
#include "state/file-event-db.h"

namespace {

constexpr const char* kLog = "detector_debug";
// How long one wait for changes lasts: the bound on how late a pause is noticed
// when the source cannot wake us, and the rhythm of the idle log line.
constexpr int kWaitMs = 1000;

// The daemon's destination: the event manager, and the user interface for
// errors.
class ManagerSink : public DetectorSink {
  public:
    void PushLocalEvent(const Event& e) override { EventManager::getInstance().PushLocalEvent(e); }
    void IssueExpand(uint64_t sess_id, const ustring& path) override {
        EventManager::getInstance().IssueExpand(sess_id, path);
    }
    void IssueRescan(uint64_t sess_id, const ustring& path, bool do_merge) override {
        EventManager::getInstance().IssueRescan(sess_id, path, do_merge);
    }
    void ReportSessionError(uint64_t sess_id, int error) override {
        UI_IPC::ReportSessionErrorToUI(sess_id, error);
    }
};

}  // namespace

Detector::Detector(std::unique_ptr<platform::ChangeSource> source, DetectorSink* sink)
    : m_source(std::move(source)), m_sink(sink) {
    if (!m_source) m_source = platform::make_change_source(&m_source_error);
    if (m_sink == nullptr) {
        m_own_sink = std::make_unique<ManagerSink>();
        m_sink = m_own_sink.get();
    }
}

Detector::~Detector() {
    Stop();
    Join();
    Clear();
}

int Detector::AddWatch(const ustring& path, uint64_t sess_id) {
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] detector-win2(%d): Detector add watch: %s\n",
                   __LINE__, path.c_str_utf8());
    if (!m_source) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] detector-win2(%d): CreateEvent: Error Code: %d\n", __LINE__,
                       m_source_error);
        return -1;
    }
    session_info info;
    info.path = path;
    while (info.path.size() > 1 && info.path[info.path.size() - 1] == '/') {
        info.path = info.path.substr(0, info.path.size() - 1);
    }
    platform::VolumeInfo volume;
    if (platform::file_system().volume_info(info.path.c_str_utf8(), volume, nullptr) == 0) {
        info.folds_case = volume.folds_case;
    }
    const ustring root = info.path;
    {
        // In the table before the source starts, so that no early record is
        // dropped.
        MutexLock guard(lock);
        index[sess_id] = std::move(info);
    }
    int err = 0;
    if (m_source->add(sess_id, root.str(), kWorkingDirectory, &err) != 0) {
        {
            MutexLock guard(lock);
            index.erase(sess_id);
        }
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] detector-win2(%d): CreateFile(%s): Error code: %d\n", __LINE__,
                       root.c_str_utf8(), err);
        return -1;
    }
    CreateWorkingDirectory(root);
    return 0;
}

void Detector::RemoveWatch(uint64_t sess_id) {
    MutexLock guard(lock);
    if (index.erase(sess_id) == 0) return;
    if (m_source) m_source->remove(sess_id);
}

void Detector::Clear() {
    MutexLock guard(lock);
    for (const auto& [sess_id, info] : index) {
        Logger::LogMsg(Logger::L_DEBUG, kLog,
                       "[DEBUG] detector-win2(%d): session #%llu (%s) down\n", __LINE__,
                       static_cast<unsigned long long>(sess_id), info.path.c_str_utf8());
        if (m_source) m_source->remove(sess_id);
    }
    index.clear();
}

int Detector::Pause() {
    Task::Pause();
    if (m_source) m_source->wake();
    return 0;
}

int Detector::Stop() {
    Task::Stop();
    if (m_source) m_source->wake();
    return 0;
}

void Detector::DoTask() {
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] detector-win2(%d): detector start\n", __LINE__);
    for (;;) {
        const State state = GetState();
        if (state == STOP) break;
        if (state == PAUSE) {
            WaitWhilePaused(kWaitMs);
            continue;
        }
        if (WaitHandle() > 0) {
            ReadFromHandle();
            ReadFromBuffer();
        }
    }
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] detector-win2(%d): detector stop\n", __LINE__);
}

int Detector::WaitHandle() {
    if (!m_source) {
        Wait(kWaitMs / 1000);
        return 0;
    }
    bool empty = false;
    {
        MutexLock guard(lock);
        empty = index.empty();
    }
    int err = 0;
    if (empty) {
        Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] detector-win2(%d): No watch folder.\n",
                       __LINE__);
        m_source->wait(kWaitMs, &err);
        return 0;
    }
    const int ready = m_source->wait(kWaitMs, &err);
    if (ready == 0) {
        Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] detector-win2(%d): No incoming events\n",
                       __LINE__);
    } else if (ready > 0) {
        // The source tells how many sessions have news, not which: the first is 0.
        Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] detector-win2(%d): Events at index %d\n",
                       __LINE__, ready - 1);
    } else {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] detector-win2(%d): WaitForMultipleObjects: Error Code: %d\n",
                       __LINE__, err);
        Wait(kWaitMs / 1000);
    }
    return ready;
}

void Detector::ReadFromHandle() {
    std::vector<platform::ChangeNotice> batch;
    MutexLock guard(lock);
    int err = 0;
    if (m_source->read(batch, &err) < 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] detector-win2(%d): GetOverlappedResult: Error Code %d\n", __LINE__,
                       err);
        return;
    }
    for (auto& notice : batch) {
        auto it = index.find(notice.sess_id);
        if (it != index.end()) HandleNotice(notice, it->second);
    }
}

void Detector::HandleNotice(platform::ChangeNotice& notice, session_info& info) {
    const unsigned long long sess = notice.sess_id;
    switch (notice.kind) {
        case platform::ChangeNotice::kRecord:
            info.read_buffer.push_back(std::move(notice));
            return;
        case platform::ChangeNotice::kOverflow:
            Logger::LogMsg(Logger::L_INFO, kLog,
                           "[INFO] detector-win2(%d): Event queue overflow, rescan watch\n",
                           __LINE__);
            m_sink->IssueRescan(notice.sess_id, "/", false);
            info.read_buffer.clear();
            return;
        case platform::ChangeNotice::kWatchLimit:
            Logger::LogMsg(Logger::L_WARNING, kLog,
                           "[WARNING] detector-win2(%d): cannot watch '%s' in %s (session #%llu): "
                           "the system's limit of inotify watches per user "
                           "(fs.inotify.max_user_watches) is reached, so changes below it are "
                           "seen only by rescans; rescanning the session. Raise the limit to "
                           "watch the whole folder.\n",
                           __LINE__, notice.path.c_str(), info.path.c_str_utf8(), sess);
            m_sink->IssueRescan(notice.sess_id, "/", false);
            return;
        case platform::ChangeNotice::kWatchFailed:
            Logger::LogMsg(Logger::L_WARNING, kLog,
                           "[WARNING] detector-win2(%d): cannot watch '%s' in %s (session #%llu): "
                           "error %d; changes below it are seen only by rescans\n",
                           __LINE__, notice.path.c_str(), info.path.c_str_utf8(), sess, notice.err);
            return;
        case platform::ChangeNotice::kRootGone:
            // Whatever was emptied on the way out is not passed on: the folder itself
            // is missing, which is not the user deleting its files.
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] detector-win2(%d): sync folder %s of session #%llu is gone "
                           "(removed, moved or unmounted); watching stops until it is back\n",
                           __LINE__, info.path.c_str_utf8(), sess);
            info.read_buffer.clear();
            cache.erase(notice.sess_id);
            m_sink->ReportSessionError(notice.sess_id, ERR_SYNCFOLDER_MISS);
            return;
        case platform::ChangeNotice::kRootBack:
            // What changed while it was away is unknown; a merging rescan uploads what
            // is new and brings back what is missing, and deletes nothing on the
            // server.
            Logger::LogMsg(Logger::L_INFO, kLog,
                           "[INFO] detector-win2(%d): sync folder %s of session #%llu is back; "
                           "rescanning it\n",
                           __LINE__, info.path.c_str_utf8(), sess);
            CreateWorkingDirectory(info.path);
            m_sink->IssueRescan(notice.sess_id, "/", true);
            return;
    }
}

void Detector::ReadFromBuffer() {
    MutexLock guard(lock);
    for (auto& [sess_id, info] : index) {
        if (info.read_buffer.empty()) continue;
        std::vector<platform::ChangeNotice> records;
        records.swap(info.read_buffer);
        int following = static_cast<int>(records.size());
        for (const auto& record : records) {
            --following;
            Event e;
            if (Translate(e, sess_id, info.path, record, following) == 0) PushEvent(e);
        }
    }
}

int Detector::Translate(Event& e, uint64_t sess_id, const ustring& watch,
                        const platform::ChangeNotice& notify, int following) {
    const int action = notify.action;
    Logger::LogMsg(Logger::L_DEBUG, kLog,
                   "[DEBUG] detector-win2(%d): Notification: NextEntryOffset: %d, "
                   "FileNameLength: %d, %s, %s\n",
                   __LINE__, following, static_cast<int>(notify.path.size()), ActionText(action),
                   notify.path.c_str());
    if (notify.path.empty()) return -1;
    const RecordPath where = SpellAsOnDisk(sess_id, watch, notify.path, action);
    if (DropWorkingDirectory(sess_id, watch, where, action)) return -1;
    if (MapAction(e, sess_id, where.path, action) != 0) return -1;
    if (LearnType(e, sess_id, where.full_path) != 0) return -1;
    e.m_sess_id = sess_id;
    return 0;
}

Detector::RecordPath Detector::SpellAsOnDisk(uint64_t sess_id, const ustring& watch,
                                             const ustring& name, int action) {
    RecordPath where{name, "/" + name, watch + "/" + name};
    auto info = index.find(sess_id);
    const bool folds_case = info != index.end() && info->second.folds_case;
    // A removed name has no spelling on disk any more.
    if (!folds_case || action == platform::kActionRemoved ||
        action == platform::kActionRenamedOldName)
        return where;
    // On a volume that ignores case the record may carry another spelling than the
    // disk's; the server must see the disk's.
    Logger::LogMsg(Logger::L_DEBUG, kLog,
                   "[DEBUG] detector-win2(%d): original full path: '%s', path: '%s'\n", __LINE__,
                   where.full_path.c_str_utf8(), where.path.c_str_utf8());
    ustring real = where.full_path;
    if (FSGetRealPath(real) == 0 && real.size() > watch.size() + 1) {
        where.full_path = real;
        where.name = real.substr(watch.size() + 1);
        where.path = "/" + where.name;
    }
    Logger::LogMsg(Logger::L_DEBUG, kLog,
                   "[DEBUG] detector-win2(%d): converted full path: '%s', path: '%s'\n", __LINE__,
                   where.full_path.c_str_utf8(), where.path.c_str_utf8());
    return where;
}

bool Detector::DropWorkingDirectory(uint64_t sess_id, const ustring& watch, const RecordPath& where,
                                    int action) {
    if (!IsFromWorkingDirectory(where.name)) return false;
    const bool taken_away =
        action == platform::kActionRemoved || action == platform::kActionRenamedOldName;
    if ((where.name.size() == ustring(kWorkingDirectory).size() || IsRecycleBin(where.path)) &&
        taken_away) {
        Logger::LogMsg(Logger::L_DEBUG, kLog,
                       "[DEBUG] detector-win2(%d): recreating working directory (%d)\n", __LINE__,
                       action);
        CreateWorkingDirectory(watch);
    }
    // Something moved into the working directory (the recycle bin takes files so) has
    // left the user's view without an event; its old name must not pair with a later
    // record.
    if (action == platform::kActionRenamedNewName) cache.erase(sess_id);
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] detector-win2(%d): ignoring changes to %s\n",
                   __LINE__, where.path.c_str_utf8());
    return true;
}

int Detector::MapAction(Event& e, uint64_t sess_id, const ustring& path, int action) {
    if (action == platform::kActionRenamedOldName) {
        Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] detector-win2(%d): hide rename event (%s)\n",
                       __LINE__, path.c_str_utf8());
        cache[sess_id] = path;
        return -1;
    }
    e.m_path = path;
    switch (action) {
        case platform::kActionAdded:
            e.m_type = Event::EV_CREATE;
            return 0;
        case platform::kActionModified:
            e.m_type = Event::EV_MODIFY;
            return 0;
        case platform::kActionRemoved:
            e.m_type = Event::EV_REMOVE;
            return 0;
        case platform::kActionRenamedNewName: {
            auto old = cache.find(sess_id);
            if (old == cache.end()) {
                e.m_type = Event::EV_CREATE;  // moved in from outside the tree
                return 0;
            }
            e.m_type = Event::EV_RENAME;
            e.m_path = old->second;
            e.m_opt = path;
            cache.erase(old);
            return 0;
        }
        default:
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] detector-win2(%d): invalie file action (%d)\n", __LINE__,
                           action);
            return -1;
    }
}

int Detector::LearnType(Event& e, uint64_t sess_id, const ustring& full_path) {
    FILE_INFO finfo;
    const bool exists = FSStat(full_path, finfo) == 0 && finfo.isExist;
    if (exists && finfo.type == FT_DIR) {
        e.setDir();
        // A directory's own modification only says that its entries changed, and
        // those have records of their own.
        return e.m_type == Event::EV_MODIFY ? -1 : 0;
    }
    if (exists && finfo.type == FT_FILE) return 0;
    if (exists && e.m_type != Event::EV_REMOVE && e.m_type != Event::EV_RENAME) {
        Logger::LogMsg(Logger::L_DEBUG, kLog,
                       "[DEBUG] detector-win2(%d): ignoring %s: neither a file nor "
                       "a directory\n",
                       __LINE__, e.m_path.c_str_utf8());
        return -1;
    }
    if (e.m_type == Event::EV_RENAME) {
        // The new name is gone again, or is nothing we sync; what is certain is that
        // the old name is gone, and that removal must not be lost.
        Logger::LogMsg(Logger::L_DEBUG, kLog,
                       "[DEBUG] detector-win2(%d): rename target %s is gone, removing %s\n",
                       __LINE__, e.m_opt.c_str_utf8(), e.m_path.c_str_utf8());
        e.m_type = Event::EV_REMOVE;
        e.m_opt.clear();
    }
    return TypeFromDatabase(e, sess_id, e.m_path) == 0 ? 0 : -1;
}

int Detector::TypeFromDatabase(Event& e, uint64_t sess_id, const ustring& path) {
    Registry::Entry entry;
    if (Registry::getInstance().Find(sess_id, entry) != 1) {
        Logger::LogMsg(Logger::L_WARNING, kLog,
                       "[WARNING] detector-win2(%d): can not find registry entry for session "
                       "%llu \n",
                       __LINE__, static_cast<unsigned long long>(sess_id));
        return -1;
    }
    ClientFileEventInfo info;
    if (entry.event_db == nullptr || entry.event_db->getEventInfo(path, info) != 1) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] detector-win2(%d): can't find file type of deleted item %s\n",
                       __LINE__, path.c_str_utf8());
        return -1;
    }
    if (info.fileType != 0) e.setDir();
    Logger::LogMsg(Logger::L_DEBUG, kLog,
                   "[DEBUG] detector-win2(%d): file type of deleted item %s is %d\n", __LINE__,
                   path.c_str_utf8(), info.fileType);
    return 0;
}

void Detector::PushEvent(Event& e) {
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] detector-win2(%d): PushEvent: %s at %llu\n",
                   __LINE__, e.toString().c_str_utf8(),
                   static_cast<unsigned long long>(e.m_sess_id));
    if (e.m_type == Event::EV_RENAME) {
        // The tree merges removals and creations; a rename would stand beside them.
        Event f = e;
        f.m_type = Event::EV_REMOVE;
        f.m_opt.clear();
        e.m_type = Event::EV_CREATE;
        e.m_path = e.m_opt;
        e.m_opt.clear();
        m_sink->PushLocalEvent(f);
    }
    m_sink->PushLocalEvent(e);
    if (e.isDir() && e.m_type == Event::EV_CREATE) m_sink->IssueExpand(e.m_sess_id, e.m_path);
}

void Detector::CreateWorkingDirectory(const ustring& root) {
    Logger::LogMsg(Logger::L_DEBUG, kLog,
                   "[DEBUG] detector-win2(%d): creating working directory under %s\n", __LINE__,
                   root.c_str_utf8());
    // A leading dot hides the directory on this platform; the bin inside it needs
    // nothing more.
    FSMKDir(session_folders::WorkingDirectory(root));
    FSMKDir(session_folders::RecycleBinDir(root));
}

bool Detector::IsFromWorkingDirectory(const ustring& name) {
    const ustring working(kWorkingDirectory);
    const size_t n = working.size();
    if (name.size() < n || ustring::compare(name.substr(0, n), working, true) != 0) return false;
    return name.size() == n || name[n] == '/' || platform::is_path_separator(name[n]);
}

bool Detector::IsRecycleBin(const ustring& path) {
    return path == ustring("/") + kWorkingDirectory + "/" + kRecycleBin;
}

const char* Detector::ActionText(int action) {
    switch (action) {
        case platform::kActionAdded:
            return "FILE_ACTION_ADDED";
        case platform::kActionRemoved:
            return "FILE_ACTION_REMOVED";
        case platform::kActionModified:
            return "FILE_ACTION_MODIFIED";
        case platform::kActionRenamedOldName:
            return "FILE_ACTION_RENAMED_OLD_NAME";
        case platform::kActionRenamedNewName:
            return "FILE_ACTION_RENAMED_NEW_NAME";
        default:
            return "FILE_ACTION_UNKNOWN";
    }
}
