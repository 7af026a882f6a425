// worker-filter.cpp: the filter tests every handler runs on its event: the session's white
// list, then the black lists (the process-wide one before the session's own).
#include <string>

#include "foundation/error-code.h"

#include "filter/black-list-v2.h"
#include "filter/filter.h"
#include "filter/white-list-cpp.h"
#include "state/filter-db.h"
#include "transport/connection-pool.h"
#include "worker/conflict-name.h"
#include "worker/worker-log.h"
#include "worker/worker.h"

namespace {

// Length limits count UTF-16 units, as the file systems that set them do.
uint64_t Utf16Length(const ustring& text) {
    return std::char_traits<uchar16>::length(text.c_str());
}

using PathTest = int (BlackList2::*)(const ustring&);

// The global rules, then the session's: the full path's length, then the path itself.
int TestWithBlackLists(BlackList2* session, PathTest test, const ustring& path,
                       const ustring& full_path) {
    const uint64_t length = Utf16Length(full_path);
    for (BlackList2* list : {&BlackList2::getInstance(), session}) {
        if (list == nullptr) continue;
        int rc = list->TestFullPathSize(length);
        if (rc == 0) rc = (list->*test)(path);
        if (rc != 0) return rc;
    }
    return 0;
}

// The name this computer goes by in conflict names.
ustring ClientName() {
    ConnectionPool* pool = g_pool.load();
    return pool != nullptr ? pool->getClientName() : ustring();
}

}  // namespace

int Worker::TestWhiteList() {
    const ustring& path = context.current_event.m_path;
    if (path.empty() || path == ustring("/")) return 0;
    WhiteListCpp* list = context.root_entry.white_list;
    // A session without a list restricts nothing.
    if (list == nullptr) return 0;
    const size_t slash = path.rfind('/');
    const ustring name = slash == ustring::npos ? path : path.substr(slash + 1);
    return list->Test(name) == 0 ? 0 : -1;
}

int Worker::TestCommonFilter() {
    if (TestWhiteList() != 0) return FILTER_EXT_SELECTIVE_SYNC;
    return TestBlackListPath();
}

int Worker::TestBlackListPath() {
    const Event& e = context.current_event;
    if (e.isDir()) {
        const int rc = TestDirectory(e.m_path, context.full_path);
        if (rc != 0)
            WorkerLog(Logger::L_DEBUG,
                      "[DEBUG] worker(%d): TestBlackListPath: Directory '%s' (blocked: %d)\n",
                      __LINE__, e.m_path.c_str_utf8(), rc);
        return rc;
    }
    const int rc = TestFilePath(e.m_path, context.full_path);
    if (rc != 0)
        WorkerLog(Logger::L_DEBUG,
                  "[DEBUG] worker(%d): TestBlackListPath: File '%s' (blocked: %d)\n", __LINE__,
                  e.m_path.c_str_utf8(), rc);
    return rc;
}

int Worker::TestDirectory(const ustring& path, const ustring& full_path) {
    return TestWithBlackLists(context.root_entry.black_list, &BlackList2::TestDirectoryPath, path,
                              full_path);
}

int Worker::TestFilePath(const ustring& path, const ustring& full_path) {
    return TestWithBlackLists(context.root_entry.black_list, &BlackList2::TestFilePath, path,
                              full_path);
}

int Worker::TestBaseNameConflict(const ustring& basename) {
    const size_t n = basename.length();
    if (n == 0) return 1;
    int rc = 0;
    if (basename[0] == ' ' || basename[n - 1] == ' ') {
        WorkerLog(Logger::L_WARNING,
                  "[WARNING] worker(%d): TestBaseNameConflict : WhiteSpaceConflict '%s'.\n",
                  __LINE__, basename.c_str_utf8());
        rc = WhiteSpaceConflictRename(GetFullPath(), basename, ClientName());
    } else if (basename[n - 1] == '.') {
        WorkerLog(Logger::L_WARNING,
                  "[WARNING] worker(%d): TestBaseNameConflict : TailCharacterConflict '%s'.\n",
                  __LINE__, basename.c_str_utf8());
        rc = ConflictRename(GetFullPath(), ClientName(), "TailCharacterConflict");
    } else {
        return 1;
    }
    return rc < 0 ? ERR_SYS : 0;
}

int Worker::AddFilteredEventToDB(const Event& ev, int filtered_type) {
    if (ev.isServerEvent()) return 0;
    FilterLocalEvent fe;
    ConvertToFilteredEvent(ev, filtered_type, fe);
    if (FilterDB::getInstance().setLocalFilteredEvent(fe) < 0)
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): Failed to setLocalFilteredEvent for session '%llu', path "
                  "'%s' .\n",
                  __LINE__, static_cast<unsigned long long>(ev.m_sess_id), ev.m_path.c_str_utf8());
    return 0;
}

int Worker::TestFilteredDeleteEvent(uint64_t sess_id, const ustring& path, bool isDir) {
    BlackList2* list = GetBlackList();
    if (list == nullptr) return 0;
    const int rc = isDir ? list->TestDirectoryPath(path) : list->TestFilePath(path);
    if (rc != FILTER_PATH_PREFIX_SELECTIVE_SYNC) return 0;
    // Selective sync took it off the disk: the server keeps it, and the filter record
    // says it is not here.
    WorkerLog(Logger::L_DEBUG,
              "[DEBUG] worker(%d): TestFilteredDeleteEvent: filter '%s' (blocked: %d)\n", __LINE__,
              path.c_str_utf8(), rc);
    FilterLocalEvent fe;
    fe.sess_id = sess_id;
    fe.path = path;
    fe.file_type = isDir ? 1 : 0;
    fe.event_type = Event::EV_REMOVE;
    fe.filtered_type = FILTER_PATH_PREFIX_SELECTIVE_SYNC;
    if (!isDir) fe.base_name = path.substr(path.rfind('/') + 1);
    if (FilterDB::getInstance().setLocalFilteredEvent(fe) < 0)
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): Failed to set LocalFilteredEvent for session '%llu', path "
                  "'%s' .\n",
                  __LINE__, static_cast<unsigned long long>(sess_id), path.c_str_utf8());
    return 1;
}
