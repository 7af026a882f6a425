// worker-commit.cpp: what uploads and downloads share about the local object and its row:
// whether the object changed since its last agreement with the server, its MD4, and the
// writing of the row.
#include "delta/file-reader.h"
#include "worker/worker-log.h"
#include "worker/worker.h"

namespace {

// A volume that keeps two-second times may report one second off.
bool IsMtimeChange(uint32_t t1, uint32_t t2) {
    return !FSTimeEqual(t1, t2);
}

}  // namespace

bool Worker::ReportLocked(bool locked, const ustring& path) {
    if (locked)
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): Worker (%d): unable to handle locked/no permission file "
                  "'%s'.\n",
                  __LINE__, GetId(), path.c_str_utf8());
    return locked;
}

bool Worker::LocallyModified(const FILE_INFO& cur, const ClientFileEventInfo& base,
                             const ustring& cur_hash) {
    const ustring name = GetPath();
    const char* path = name.c_str_utf8();
    if (cur.type == FT_DIR) {
        if (!base.IsFile()) return false;
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): ModificationCheck: '%s' appears as FILE in database, but "
                  "now it is a directory\n",
                  __LINE__, path);
        return true;
    }
    if (base.IsDir()) {
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): ModificationCheck: '%s' appears as DIR in database, but now "
                  "it is a file\n",
                  __LINE__, path);
        return true;
    }
    if (cur.type != FT_FILE) return false;
    if (cur.size != base.fileSize || IsMtimeChange(cur.mtime, base.fileModTime)) {
        WorkerLog(Logger::L_INFO,
                  "[INFO] worker(%d): ModificationCheck: '%s' is modified (size and mtime not "
                  "match)\n",
                  __LINE__, path);
        return true;
    }
    if (cur_hash.empty() || cur_hash == base.fileCheckSum) return false;
    WorkerLog(Logger::L_INFO,
              "[INFO] worker(%d): ModificationCheck: '%s' is modified (hash does not match)\n",
              __LINE__, path);
    return true;
}

int Worker::UpdateDatabaseInfo(const ClientFileEventInfo& info) {
    FileEventDB* db = GetEventDatabase();
    if (db == nullptr) {
        WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): UpdateDatabaseInfo: missing databasehandle\n",
                  __LINE__);
        return -1;
    }
    const int rc = db->setEventInfo(info);
    if (rc != 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): UpdateDatabaseInfo: failed to update database, error code "
                  "%d\n",
                  __LINE__, rc);
        return -1;
    }
    return 0;
}

int Worker::CalculateMD4(const ustring& full_path, ustring& hash) {
    SimpleFileReader reader;
    reader.setAbortFlag(AbortFlag());
    reader.setFile(full_path);
    reader.setHashString(hash);
    if (reader.readFile() != 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): Worker (%d): CaculateMD4: Failed to calculate checksum for "
                  "'%s'\n",
                  __LINE__, GetId(), full_path.c_str_utf8());
        return -1;
    }
    return 0;
}
