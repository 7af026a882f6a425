// rescan.cpp: walks of the disk compared with the database (Rescan), walks of a new
// directory (Expand), and the event of a directory itself once its children were looked at.
//
// A rescan costs a directory listing and two compact lists: names are interned once in
// one StringBuffer shared by the disk's list and the database's, and only time and size
// are compared, never content. Both walks poll the abort flag at every entry, so a pause
// or a stop ends them within one directory read.
#include <string.h>
#include <strings.h>

#include <vector>

#include "events/event-generator.h"
#include "events/event-manager.h"
#include "foundation/file-op.h"
#include "runtime/session-folders.h"
#include "state/file-list.h"
#include "worker/worker-log.h"
#include "worker/worker.h"

namespace {

const char* Text(const ustring& s) {
    return s.c_str_utf8();
}

// The daemon's own folder at the session root is never synchronised. Compared without
// regard to ASCII case, as the detector does, so that a volume that folds case agrees.
bool IsWorkingDirectory(const ustring& name) {
    return strcasecmp(name.c_str_utf8(), session_folders::kWorkingDirectory) == 0;
}

// The visitor of a rescan: fills the disk's list, each directory below its parent's node.
struct FileListBuilder {
    FileList* list;
    int dir_id;
    int worker_id;

    // The node for a directory, into `inner` for its children; false skips the subtree.
    bool Directory(const ustring& full, const DIR_ENTRY& entry, FileListBuilder& inner) const {
        const int id = list->AddDirectory(dir_id, entry.name.c_str_utf8(), entry.mtime);
        if (id < 0) {
            WorkerLog(Logger::L_DEBUG,
                      "[DEBUG] worker(%d): Worker (%d): local list: add dir '%s'\n", __LINE__,
                      worker_id, Text(full));
            return false;
        }
        if (WorkerLogOn(Logger::L_DEBUG))
            WorkerLog(Logger::L_DEBUG,
                      "[DEBUG] worker(%d): Worker (%d): local list: add directory '%s'\n", __LINE__,
                      worker_id, Text(full));
        inner = *this;
        inner.dir_id = id;
        return true;
    }
    void File(const ustring& full, const DIR_ENTRY& entry) const {
        list->AddFile(dir_id, entry.name.c_str_utf8(), entry.mtime, entry.size);
        if (WorkerLogOn(Logger::L_DEBUG))
            WorkerLog(Logger::L_DEBUG,
                      "[DEBUG] worker(%d): Worker (%d): local list: add file '%s'\n", __LINE__,
                      worker_id, Text(full));
    }
};

// The visitor of an expansion: an upload for everything, a directory before its contents,
// except a file whose size and time are still those of its row: that is the echo of a
// download into a folder the download made, and an upload of it would only stand in the
// way of what the server does next (a removal of that folder, for one).
struct ExpandHandler {
    Registry::Entry* reg;
    size_t root_len;

    void Push(const ustring& full, bool is_dir) const {
        const ustring path = full.substr(root_len);
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): ExpandHandler push local event: %s\n",
                  __LINE__, Text(path));
        PushUploadEvent(*reg, path, is_dir);
    }
    bool AsItsRow(const ustring& full) const {
        FILE_INFO local;
        ClientFileEventInfo row;
        return reg->event_db != nullptr && FSStat(full, local) == 0 && local.isExist &&
               reg->event_db->getEventInfo(full.substr(root_len), row) >= 0 && row.IsValid() &&
               row.syncID != 0 && row.IsFile() && row.fileSize == local.size &&
               FSTimeEqual(row.fileModTime, local.mtime);
    }
    bool Directory(const ustring& full, const DIR_ENTRY&, ExpandHandler& inner) const {
        Push(full, true);
        inner = *this;
        return true;
    }
    void File(const ustring& full, const DIR_ENTRY&) const {
        if (!AsItsRow(full)) Push(full, false);
    }
};

// Depth-first walk of `path`; links and special files are never visited. A directory
// whose listing fails is added to `unlisted` (when given) with what was read of it. 0; -1
// when the abort flag ended it. `top` marks the session root, whose working directory is
// left out.
template <class Handler>
int Walk(const ustring& path, const Handler& handler, const Task& task, int flag, bool top,
         std::vector<ustring>* unlisted) {
    DIR_HANDLE dh;
    if (FSOpenDir(path, flag, dh) < 0) {
        WorkerLog(Logger::L_WARNING, "[WARNING] worker(%d): FSOpenDir(%s)\n", __LINE__, Text(path));
        return 0;
    }
    DIR_ENTRY entry;
    int read = 0;
    while ((read = FSReadDir(dh, entry)) > 0) {
        if (entry.name == ustring(".") || entry.name == ustring("..")) continue;
        if (task.IsAborted()) {
            WorkerLog(Logger::L_NOTICE, "[NOTE] worker(%d): Traversing '%s' ... abort\n", __LINE__,
                      Text(path));
            FSCloseDir(dh);
            return -1;
        }
        if (top && IsWorkingDirectory(entry.name)) continue;
        const ustring full = path + "/" + entry.name;
        if (entry.type == FT_DIR) {
            Handler inner = handler;
            if (handler.Directory(full, entry, inner) &&
                Walk(full, inner, task, flag, false, unlisted) < 0) {
                WorkerLog(Logger::L_NOTICE, "[NOTE] worker(%d): Traversing '%s' ... abort\n",
                          __LINE__, Text(path));
                FSCloseDir(dh);
                return -1;
            }
        } else if (entry.type == FT_FILE) {
            handler.File(full, entry);
        }
    }
    FSCloseDir(dh);
    if (read < 0 && unlisted != nullptr) {
        WorkerLog(Logger::L_WARNING,
                  "[WARNING] worker(%d): cannot list '%s'; what it holds is left as it is\n",
                  __LINE__, Text(path));
        unlisted->push_back(path);
    }
    return 0;
}

// Whether `path` is `dir` or lies below it.
bool IsWithin(const ustring& path, const ustring& dir) {
    return path.length() >= dir.length() && path.str().compare(0, dir.length(), dir.str()) == 0 &&
           (path.length() == dir.length() || path[dir.length()] == '/');
}

bool IsMtimeChange(uint32_t t1, uint32_t t2) {
    return !FSTimeEqual(t1, t2);
}

// Orders two paths as a FileList hands them out: element by element, each by its bytes,
// a directory before what lies below it. Plain byte order would put "/a.txt" between
// "/a" and "/a/x", since '.' sorts below '/'. Negative, 0 or positive.
int ComparePaths(const ustring& a, const ustring& b) {
    const auto rank = [](const ustring& s, size_t i) -> int {
        if (i >= s.length()) return 0;
        const auto c = static_cast<unsigned char>(s[i]);
        return c == '/' ? 1 : c + 1;
    };
    for (size_t i = 0;; ++i) {
        const int ra = rank(a, i), rb = rank(b, i);
        if (ra != rb) return ra - rb;
        if (ra == 0) return 0;
    }
}

}  // namespace

int Worker::Rescan() {
    const ustring path = GetPath();
    WorkerLog(Logger::L_INFO, "[INFO] worker(%d): Worker (%d): rescaning directory '%s'\n",
              __LINE__, GetId(), Text(path));
    StringBuffer names;
    FileList fs_list(names);
    const FileListBuilder builder{&fs_list, 0, GetId()};
    std::vector<ustring> unlisted;
    int rc = Walk(GetFullPath(), builder, *this, 1, path == ustring("/"), &unlisted);
    // A folder that cannot be listed says nothing of what it holds: had its rows been
    // compared with an empty listing, an unmounted or unreadable folder would become
    // removals on the server.
    m_unlisted.clear();
    for (const ustring& full : unlisted) {
        if (full == GetFullPath()) rc = -1;
        m_unlisted.push_back(full.substr(GetLocalWatch().length()));
    }
    if (rc >= 0) {
        FileList db_list(names);
        FileEventDB* db = GetEventDatabase();
        rc = db != nullptr ? db->getFileList(&db_list, path) : -1;
        if (rc >= 0) rc = CompareFileList(path, fs_list, db_list, context.current_event.isMerge());
    }
    m_unlisted.clear();
    if (rc < 0) {
        WorkerLog(Logger::L_NOTICE, "[NOTE] worker(%d): interrupted while rescaning '%s'\n",
                  __LINE__, Text(path));
        return -1;
    }
    return 0;
}

int Worker::Expand() {
    const ustring path = GetPath();
    WorkerLog(Logger::L_INFO, "[INFO] worker(%d): Worker (%d): expanding directory '%s'\n",
              __LINE__, GetId(), Text(path));
    const size_t root_len = GetFullPath().length() - (path == ustring("/") ? 0 : path.length());
    const ExpandHandler handler{&context.root_entry, root_len};
    if (Walk(GetFullPath(), handler, *this, 0, path == ustring("/"), nullptr) < 0) {
        WorkerLog(Logger::L_NOTICE, "[NOTE] worker(%d): interrupted while expanding '%s'\n",
                  __LINE__, Text(path));
        return -1;
    }
    return 0;
}

int Worker::CompareFileList(const ustring& root, const FileList& fs_list, const FileList& db_list,
                            bool do_merge) {
    const ustring prefix = root == ustring("/") ? ustring() : root;
    auto fs = fs_list.rbegin();
    auto db = db_list.rbegin();
    const auto fs_end = fs_list.rend();
    const auto db_end = db_list.rend();
    auto stopped = [&] {
        if (!IsAborted()) return false;
        WorkerLog(Logger::L_INFO, "[INFO] worker(%d): CompareFileList: user stopped\n", __LINE__);
        return true;
    };
    auto skipping = [&](const FileList::Entry& e) {
        if (WorkerLogOn(Logger::L_DEBUG))
            WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): CompareFileList: skipping: %s\n",
                      __LINE__, Text(prefix + e.path));
    };
    while (fs != fs_end && db != db_end) {
        if (stopped()) return -1;
        const int order = ComparePaths(fs->path, db->path);
        if (order > 0) {
            PushUploadEvent(prefix + fs->path, fs->is_dir());
            ++fs;
            continue;
        }
        if (order < 0) {
            OnlyInDatabase(prefix + db->path, db->is_dir(), do_merge);
            ++db;
            continue;
        }
        if (fs->is_dir() != db->is_dir()) {
            PushUploadEvent(prefix + fs->path, fs->is_dir());
            if (do_merge) PushDownloadEvent(prefix + db->path, db->is_dir());
        } else if (fs->is_file() && (IsMtimeChange(fs->mtime, db->mtime) || fs->size != db->size)) {
            WorkerLog(Logger::L_DEBUG,
                      "[DEBUG] worker(%d): CompareFileList: '%s' is locally modified ...\n",
                      __LINE__, Text(prefix + fs->path));
            PushUploadEvent(prefix + fs->path, false);
        } else {
            skipping(*fs);
        }
        ++fs;
        ++db;
    }
    for (; fs != fs_end; ++fs) {
        if (stopped()) return -1;
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): fs_iter: %s\n", __LINE__,
                  Text(prefix + fs->path));
        PushUploadEvent(prefix + fs->path, fs->is_dir());
    }
    for (; db != db_end; ++db) {
        if (stopped()) return -1;
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): db_iter: %s\n", __LINE__,
                  Text(prefix + db->path));
        OnlyInDatabase(prefix + db->path, db->is_dir(), do_merge);
    }
    return 0;
}

void Worker::OnlyInDatabase(const ustring& path, bool is_dir, bool do_merge) {
    for (const ustring& dir : m_unlisted)
        if (IsWithin(path, dir)) return;
    if (TestFilteredDeleteEvent(context.current_event.m_sess_id, path, is_dir) == 1) return;
    // Without merging the disk is the truth and the user deleted it; a merging scan does
    // not take the disk's word for it and brings the object back.
    if (do_merge)
        PushDownloadEvent(path, is_dir);
    else
        PushRemoveEvent(path, is_dir);
}

int Worker::BuildLocalFileListWithoutResursive(const ustring& path, FileList& flist) {
    WorkerLog(Logger::L_DEBUG,
              "[DEBUG] worker(%d): BuildLocalFileListWithoutResursive: path '%s'\n", __LINE__,
              Text(path));
    DIR_HANDLE dh;
    if (FSOpenDir(path, 1, dh) < 0) {
        WorkerLog(Logger::L_DEBUG,
                  "[DEBUG] worker(%d): BuildLocalFileListWithoutResursive: Failed to open "
                  "directory '%s'\n",
                  __LINE__, Text(path));
        return 0;
    }
    DIR_ENTRY entry;
    int read = 0;
    while ((read = FSReadDir(dh, entry)) > 0) {
        if (entry.name == ustring(".") || entry.name == ustring("..") ||
            entry.name == ustring(session_folders::kWorkingDirectory))
            continue;
        if (IsAborted()) {
            WorkerLog(Logger::L_INFO,
                      "[INFO] worker(%d): BuildLocalFileListWithoutResursive: user stopped\n",
                      __LINE__);
            FSCloseDir(dh);
            return -1;
        }
        if (entry.type == FT_FILE) {
            WorkerLog(Logger::L_DEBUG,
                      "[DEBUG] worker(%d): BuildLocalFileList: add file '%s' (%u, %llu)\n",
                      __LINE__, Text(entry.name), entry.mtime,
                      static_cast<unsigned long long>(entry.size));
            flist.AddFile(0, entry.name.c_str_utf8(), entry.mtime, entry.size);
        } else if (entry.type == FT_DIR) {
            WorkerLog(Logger::L_DEBUG,
                      "[DEBUG] worker(%d): BuildLocalFileList: add dir '%s' (%u)\n", __LINE__,
                      Text(entry.name), entry.mtime);
            flist.AddDirectory(0, entry.name.c_str_utf8(), entry.mtime);
        }
    }
    FSCloseDir(dh);
    // A listing cut short would read as deletions of what it did not reach.
    if (read < 0) {
        WorkerLog(Logger::L_WARNING, "[WARNING] worker(%d): cannot list '%s'\n", __LINE__,
                  Text(path));
        return -1;
    }
    return 0;
}

void Worker::CreateDirSelfEvent() {
    const Event& e = context.current_event;
    if (WorkerLogOn(Logger::L_DEBUG))
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): CreateDirSelfEvent event: %s\n", __LINE__,
                  e.toString().c_str_utf8());
    if (!e.isLocalSubDirRescanWithStat() && !e.isServerSubDirRescanWithStat()) {
        Event self = e;
        self.m_mode = Event::F_DIR;
        EventManager::getInstance().PushLocalEvent(self);
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): CreateDirSelfEvent: create self event [%s].\n", __LINE__,
                  e.m_path.c_str_utf8());
        return;
    }
    // Which side still has the directory decides which way it goes.
    FILE_INFO info;
    if (FSStat(GetFullPath(), info) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): CreateDirSelfEvent: failed to get local file system info "
                  "of '%s'\n",
                  __LINE__, GetFullPath().c_str_utf8());
        return;
    }
    if (info.isExist) {
        PushUploadEvent(e.m_path, true);
        WorkerLog(Logger::L_INFO, "[INFO] worker(%d): CreateDirSelfEvent: upload [%s].\n", __LINE__,
                  e.m_path.c_str_utf8());
        return;
    }
    PushDownloadEvent(e.m_path, true);
    WorkerLog(Logger::L_INFO, "[INFO] worker(%d): CreateDirSelfEvent: download [%s].\n", __LINE__,
              e.m_path.c_str_utf8());
}

int Worker::PushUploadEvent(const ustring& path, bool is_dir) {
    if (WorkerLogOn(Logger::L_DEBUG))
        WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): PushUploadEvent: %s\n", __LINE__,
                  Text(path));
    return ::PushUploadEvent(context.root_entry, path, is_dir);
}

int Worker::PushRemoveEvent(const ustring& path, bool is_dir) {
    WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): PushRemoveEvent: %s\n", __LINE__,
              path.c_str_utf8());
    return PushLocalRemoveEvent(context.root_entry, path, is_dir);
}

int Worker::PushDownloadEvent(const ustring& path, bool is_dir) {
    return ::PushDownloadEvent(context.root_entry, path, is_dir);
}
