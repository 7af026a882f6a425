// rescan.cpp: walks of the disk compared with the database (Rescan), walks of a new
// directory (Expand), and the event of a directory itself once its children were looked at.
#include "events/event-generator.h"
#include "events/event-manager.h"
#include "foundation/file-op.h"
#include "worker/worker-log.h"
#include "worker/worker.h"

// Rescan and Expand report an interrupted walk (-1) until walks are carried out here; the
// loop finishes such an event all the same, as it does any interrupted walk.
int Worker::Rescan() {
    return -1;
}

int Worker::Expand() {
    return -1;
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
        PushUploadEvent(context.root_entry, e.m_path, true);
        WorkerLog(Logger::L_INFO, "[INFO] worker(%d): CreateDirSelfEvent: upload [%s].\n", __LINE__,
                  e.m_path.c_str_utf8());
        return;
    }
    PushDownloadEvent(context.root_entry, e.m_path, true);
    WorkerLog(Logger::L_INFO, "[INFO] worker(%d): CreateDirSelfEvent: download [%s].\n", __LINE__,
              e.m_path.c_str_utf8());
}

int Worker::PushRemoveEvent(const ustring& path, bool is_dir) {
    WorkerLog(Logger::L_DEBUG, "[DEBUG] worker(%d): PushRemoveEvent: %s\n", __LINE__,
              path.c_str_utf8());
    return PushLocalRemoveEvent(context.root_entry, path, is_dir);
}
