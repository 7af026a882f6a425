// removal.cpp: removals in both directions (RemoveLocal for the server's, RemoveRemote for
// the user's), the expansion of a directory's removal into its children's, and the
// primitives that move local objects into the session's recycle bin.
#include <ctime>

#include "foundation/error-code.h"
#include "state/filter-db.h"
#include "worker/worker-log.h"
#include "worker/worker.h"

// Each of the three gives its event back (-1, "Interrupted") until removals are carried out
// here: the event stays pending and nothing is deleted on either side.
int Worker::RemoveLocal() {
    return ERR_INT;
}

int Worker::RemoveRemote() {
    return ERR_INT;
}

int Worker::ExpandDeleteEvent() {
    return ERR_INT;
}

int Worker::RemoveDatabaseInfo() {
    FileEventDB* db = GetEventDatabase();
    if (db == nullptr) {
        WorkerLog(Logger::L_ERR, "[ERROR] worker(%d): RemoveDatabaseInfo: missing databasehandle\n",
                  __LINE__);
        return -1;
    }
    context.database_record.Clear();
    const int rc = db->rmEventInfoV3(GetPath());
    if (rc != 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): RemoveDatabaseInfo: failed to update database, error code "
                  "%d\n",
                  __LINE__, rc);
        return -1;
    }
    const uint64_t sess = context.current_event.m_sess_id;
    if (FilterDB::getInstance().rmLocalFilteredEventByPath(sess, GetPath()) < 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): RemoveDatabaseInfo : failed to rmLocalFilteredEventByPath "
                  "for session '%llu', path '%s' .\n",
                  __LINE__, static_cast<unsigned long long>(sess), GetPath().c_str_utf8());
        return -1;
    }
    return 0;
}

int Worker::ProcessRenameRemoveLocal(const FILE_INFO& local) {
    const uint32_t now = static_cast<uint32_t>(std::time(nullptr));
    const int rc = local.type == FT_DIR ? RenameRemoveDirectory() : RenameRemoveFile();
    if (rc != 0) {
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): ProcessRenameRemoveLocal: Failed to remove '%s'\n", __LINE__,
                  GetFullPath().c_str_utf8());
        return ERR_SYS;
    }
    Registry::getInstance().InitRecycleTime(context.root_entry, now);
    return 0;
}

namespace {

// The words one kind of object logs while it moves to the bin.
struct RecycleTexts {
    const char* rename_failed;  // object, destination
    const char* no_database;
    const char* dump_failed;    // path
    const char* filter_failed;  // session, path
};

constexpr RecycleTexts kFileTexts = {
    "[ERROR] worker(%d): RenameRemoveFile: failed to remove directory '%s'.\n",
    "[ERROR] worker(%d): RenameRemoveFile: missing databasehandle\n",
    "[ERROR] worker(%d): RenameRemoveFile: failed to dumpDirToRecycleBin '%s'.\n",
    "[ERROR] worker(%d): RenameRemoveFile : failed to rmLocalFilteredEventByPath for session "
    "'%llu', path '%s' .\n",
};

constexpr RecycleTexts kDirTexts = {
    "[ERROR] worker(%d): RenameRemoveDirectory: failed remove directory from '%s' to '%s'.\n",
    "[ERROR] worker(%d): RenameRemoveDirectory: missing databasehandle\n",
    "[ERROR] worker(%d): RenameRemoveDirectory: failed to dumpDirToRecycleBin '%s'.\n",
    "[ERROR] worker(%d): RenameRemoveDirectory : failed to rmLocalFilteredEventByPath for "
    "session '%llu', path '%s' .\n",
};

}  // namespace

int Worker::RenameRemoveFile() {
    return MoveToRecycleBin(false);
}

int Worker::RenameRemoveDirectory() {
    return MoveToRecycleBin(true);
}

int Worker::MoveToRecycleBin(bool is_dir) {
    const RecycleTexts& texts = is_dir ? kDirTexts : kFileTexts;
    ustring name;
    if (FSCreateTempPath("", name) < 0) return -1;
    const ustring destination = GetRecycleBinDir() + name;
    if (FSRename(GetFullPath(), destination) != 0) {
        // The file's line names only the object.
        WorkerLog(Logger::L_ERR, texts.rename_failed, __LINE__, GetFullPath().c_str_utf8(),
                  destination.c_str_utf8());
        return -1;
    }
    FileEventDB* db = GetEventDatabase();
    if (db == nullptr) {
        WorkerLog(Logger::L_ERR, texts.no_database, __LINE__);
        return -1;
    }
    const int dumped = is_dir ? db->dumpDirToRecycleBin(name, GetPath())
                              : db->dumpFileToRecycleBin(name, GetPath());
    if (dumped < 0) {
        WorkerLog(Logger::L_ERR, texts.dump_failed, __LINE__, GetPath().c_str_utf8());
        return -1;
    }
    context.database_record.Clear();
    const uint64_t sess = context.current_event.m_sess_id;
    if (FilterDB::getInstance().rmLocalFilteredEventByPath(sess, GetPath()) < 0) {
        WorkerLog(Logger::L_ERR, texts.filter_failed, __LINE__,
                  static_cast<unsigned long long>(sess), GetPath().c_str_utf8());
        return -1;
    }
    return 0;
}

int Worker::moveFileToRecycleBin(const ustring& src, uint64_t size, const ustring& hash,
                                 const ustring& mac_hash) {
    FileEventDB* db = GetEventDatabase();
    if (db == nullptr)
        WorkerLog(Logger::L_ERR,
                  "[ERROR] worker(%d): moveFileToRecycleBin: missing databasehandle\n", __LINE__);
    ustring name;
    if (db != nullptr && FSCreateTempPath("", name) == 0) {
        const ustring destination = GetRecycleBinDir() + name;
        if (FSRename(src, destination) != 0) {
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): moveFileToRecycleBin: failed to move from '%s' to "
                      "'%s'.\n",
                      __LINE__, src.c_str_utf8(), destination.c_str_utf8());
        } else if (db->addFileToRecycleBin(name, size, hash, mac_hash) < 0) {
            WorkerLog(Logger::L_ERR,
                      "[ERROR] worker(%d): moveFileToRecycleBin: failed to addFileToRecycleBin "
                      "'%s'.\n",
                      __LINE__, name.c_str_utf8());
            FSRemove(destination);
        } else {
            return 0;
        }
    }
    // Only ever a file received into the working directory: nothing of the user's.
    FSRemove(src);
    return -1;
}
