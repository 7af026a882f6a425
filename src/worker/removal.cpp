// removal.cpp: removals in both directions (RemoveLocal for the server's, RemoveRemote for
// the user's) and the expansion of a directory's removal into its children's.
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
