// file-status-db.h: which paths are being synchronised right now, in one SQLite table
// (fstatinfo) that other processes, such as a file manager overlay, read to badge files.
// A path has a row only while work on it is pending. Written by the event pipeline.
//
// Every operation opens the database, does its work and closes it again, so no
// connection stays open between calls and readers elsewhere are never shut out. The
// database is in WAL mode; a writer in another process is waited for up to five minutes.
// Any thread may call any operation. Nothing here is fatal: status is for display only.
#pragma once

#include <memory>

#include "foundation/ustring.h"

// fileType values of a status row.
enum { SFT_FILE = 0, SFT_DIR = 1 };

// syncStatus values: what the pipeline writes, and what updateAllSyncingEntry makes of it.
enum { SFS_SYNCED_PENDING = 1, SFS_SYNCING = 2 };

struct FileStatusInfo {
    int fileType = SFT_FILE;
    int syncStatus = 0;
    // Absolute, with the platform's own separator ("/" here).
    ustring path;
};

class FileStatusDB {
  public:
    // Does what initialize does; the result is not kept.
    explicit FileStatusDB(const ustring& location);

    // Remembers `location` as the process's database and creates the table. 0; -1 for
    // an empty location or a database that can't be opened or set up.
    static int initialize(const ustring& location);
    // Forgets the location; later operations fail until the next initialize.
    static void destroy();

    // Inserts or replaces the row of info.path (the row gets a new id). 0; -1.
    static int setFileSyncStat(const FileStatusInfo& info);
    // Deletes the row of exactly `path`. 0; -1.
    static int rmFileStatByPath(const ustring& path);
    // Deletes info.path and every row below it. 0; -1.
    static int rmFileSyncStat(const FileStatusInfo& info);
    // Reads the row of `path` into *out. 1 found; 0 no row; -1 failure or null out.
    static int getFileSyncStat(const ustring& path, FileStatusInfo* out);
    // The rows directly below `dirpath`, at most `limit` from `offset` on, with `count`
    // set to their number. Null (count 0) when there are none or on failure.
    static std::unique_ptr<FileStatusInfo[]> getFileSyncStats(const ustring& dirpath, int offset,
                                                              int limit, int& count);
    // True when any row strictly below `path` is syncing.
    static bool isAnySubFileDirSyncing(const ustring& path);
    // Its statement names a column the table doesn't have, so it logs the failure and
    // answers false whatever the table holds. Nothing in the daemon calls it.
    static bool isAnyFileSyncing();
    // Turns every syncing row (2) into 1. 0; -1.
    static int updateAllSyncingEntry();
    // Empties the table and compacts the file. 0; -1.
    static int removeAllEntry();
};
