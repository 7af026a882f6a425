// file-event-db.h: what the client has agreed with the server, one SQLite database per
// session ("event-db.sqlite"): a row per path, the session's sync id, the records of its
// recycle bin, and beside it a store of one signature file per row ("sign/").
// Used by the workers (commit after each transfer), the detector, the syncers, rescans
// and the recycle bin rotation.
//
// Every operation holds the object's mutex for its whole length, file moves included,
// so one object may be shared by all threads of a session. Look-ups give 1 found, 0 not
// found, -1 failure; other operations 0 or -1 unless said otherwise. Paths may be given
// with or without their leading "/"; rows store them without it.
#pragma once

#include <cstdint>
#include <set>

#include "foundation/mutex.h"
#include "foundation/ustring.h"
#include "state/sqlite-db.h"

class FileList;

// One row of eventinfo: the client's belief about a path at its last agreement with
// the server.
struct ClientFileEventInfo {
    int fileType = 0;  // 0 file, 1 directory
    int isExist = 0;   // 1 present, 0 known as removed
    uint32_t fileModTime = 0;
    uint32_t execBit = 0;
    uint64_t syncID = 0;     // sync id of the last change of this path
    uint64_t maxSyncID = 0;  // highest sync id in this path or below it
    uint64_t pDirID = 0;
    uint64_t fileSize = 0;
    ustring fileCheckSum;
    ustring baseName;
    ustring path;  // with a leading "/" in memory
    ustring filePrivilege;
    ustring updateClient;
    // On read: where the row's signature lives (files only). On write: a signature
    // file in the sign directory to be moved into the store with the row; empty, or
    // the row's own store path, when there is nothing to move.
    ustring signaturePath;
    ustring macHash;
    ustring windowsHash;
    ustring linuxHash;
    ustring zephHash;

    // Zeroes the numbers and empties the strings.
    void initEventInfo();
    void copyEventInfo(const ClientFileEventInfo& other);
    void Clear() { initEventInfo(); }
    // A row was read into it (it has a path).
    bool IsValid() const { return !path.empty(); }
    bool IsFile() const { return fileType == 0; }
    bool IsDir() const { return fileType == 1; }
};

class FileEventDB {
  public:
    // What contains found.
    struct EventInfo {
        uint64_t row_id = 0;
        uint64_t sync_id = 0;
    };

    FileEventDB() = default;
    // Closes the database if still open.
    ~FileEventDB();
    FileEventDB(const FileEventDB&) = delete;
    FileEventDB& operator=(const FileEventDB&) = delete;

    // Opens (creating if needed) the database at `path` and prepares it; the
    // signature store is the folder "sign" beside it. A commit that was cut short by
    // a crash is completed here. 0, also when already open; -1 when the file can't be
    // opened or isn't a usable database: that is logged with the path and SQLite's
    // reason, and the file is left exactly as it was.
    int initialize(const ustring& path);
    // Closes the database. Always 0.
    int destroy();

    // 1 and `info` when `path` has a row; 0 when not; -1 on failure.
    int contains(const ustring& path, EventInfo& info);
    // 1 and the row in `info` (path with its leading "/", signaturePath worked out for a
    // file); 0 when no row; -1 for an empty path or a failure.
    int getEventInfo(const ustring& path, ClientFileEventInfo& info);
    // Commits the row of info.path: inserts it, or updates it unless the stored syncID
    // is higher (a row never goes back in time; that case changes nothing and is a
    // success). Missing ancestors get directory rows and every ancestor's maxSyncID is
    // raised to info.syncID. When the row is written and info.signaturePath names a
    // file other than the row's store path, that file becomes the row's signature.
    // Row and signature change together or not at all: on -1 neither the database nor
    // the store has changed and the file at info.signaturePath is still there.
    int setEventInfo(const ClientFileEventInfo& info);
    // Deletes the path and everything below it, with their signatures. -1 for an empty
    // path; otherwise SQLite's result code (0 success).
    int rmEventInfo(const ustring& path);
    // The same; 0, or -1 (or SQLite's code for a top-level path) on failure.
    int rmEventInfoV3(const ustring& path);
    // Deletes every directory row and every row below the top level.
    int rmAllFolders();

    int getSyncId(uint64_t& id);
    int setSyncId(uint64_t id);

    // Adds the existing rows below `path` (all rows when `path` is empty or "/") to
    // `list`, with paths relative to `path`. 0; -1.
    int getFileList(FileList* list, const ustring& path);
    // The existing rows exactly one level below `path`, by name. 0; -1.
    int getFileListWithoutRecursive(FileList* list, const ustring& path);
    // The same, only rows whose syncID is at most `sync_id`.
    int getFileListWithoutRecursive(FileList* list, const ustring& path, uint64_t sync_id);

    // 1 and the path, as stored (no leading "/"), of an existing row with that content
    // hash; 0 none, also for an empty hash; -1 failure. mac_hash plays no part.
    int getFilePathByHash(const ustring& file_hash, const ustring& mac_hash, ustring& path);
    // The same over the recycle bin's records; their paths have a leading "/".
    int getFilePathByHashFromRecycle(const ustring& file_hash, const ustring& mac_hash,
                                     ustring& path);

    // Recycle bin records: `unique_path` is the item's name in the bin, with a leading
    // "/". add records a file now; dumpFile moves the row of `path` into a record;
    // dumpDir moves a directory's row and its files' rows under `unique_prefix`. The
    // dump operations are atomic.
    int addFileToRecycleBin(const ustring& unique_path, uint64_t file_size,
                            const ustring& file_hash, const ustring& mac_hash);
    int dumpFileToRecycleBin(const ustring& unique_path, const ustring& path);
    int dumpDirToRecycleBin(const ustring& unique_prefix, const ustring& path);
    int rmRecycleByPath(const ustring& path);
    int resetRecycleBin();
    // Top-level records with a time at or before `criteria_time`, added to rotate_list.
    int getRotateList(uint32_t criteria_time, std::set<ustring>& rotate_list);
    int rmRotateRecords(uint32_t criteria_time);
    // The oldest record's time, 0 for an empty table.
    int getOldestRecyleTime(uint32_t& time);

    // The client doesn't track paths by file id: both give -1 and do nothing.
    int getPathByInode(uint64_t id, ustring& path);
    int setPathInode(const ustring& path, uint64_t id);

    // The signature file name of row `id` relative to the store: the id's bytes from
    // the first non-zero one, two lower-case hex digits each, "/" between them and "."
    // before the last ("12/34/.56" for 0x123456). `buffer` holds at least 64 bytes.
    static void path_convert(uint64_t id, char* buffer);

  private:
    int containsLocked(const ustring& path, EventInfo& info) REQUIRES(m_dbMutex);
    int writeRowLocked(const ClientFileEventInfo& info, const ustring& path, uint64_t& row_id,
                       bool& written) REQUIRES(m_dbMutex);
    int raiseAncestorsLocked(const ustring& path, uint64_t sync_id, uint32_t mtime)
        REQUIRES(m_dbMutex);
    int stageSignatureLocked(uint64_t row_id, const ustring& from, ustring& staged)
        REQUIRES(m_dbMutex);
    int recoverSignaturesLocked() REQUIRES(m_dbMutex);
    int clearMarkerLocked(uint64_t row_id) REQUIRES(m_dbMutex);
    // Runs `sql`; a failure is logged as "<call>: [<code>] <message>". 0; -1.
    int execLocked(const char* sql) REQUIRES(m_dbMutex);
    // Runs `sql` (null when it could not be formatted), a failure logged as "<op> fail";
    // `atomic` for a script with its own transaction, rolled back when it fails. 0; -1.
    int execReportedLocked(const char* op, const char* sql, bool atomic = false)
        REQUIRES(m_dbMutex);
    int fillFileList(FileList* list, const char* query, size_t prefix_length) REQUIRES(m_dbMutex);
    int getPathByHashFrom(const char* select, const char* tail, const ustring& file_hash,
                          ustring& path);
    ustring signatureOf(uint64_t row_id) const;

    ustring m_eventDBPath;
    ustring m_signPath;
    Mutex m_dbMutex;
    sqlite::Database m_db GUARDED_BY(m_dbMutex);
};
