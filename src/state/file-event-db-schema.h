// file-event-db-schema.h: the tables of a session's agreement database ("event-db.sqlite"),
// created by FileEventDB::initialize in one script; an existing database of any version
// is used as it stands, since every statement of the script is idempotent.
//   eventinfo          one row per path the client and the server agree on
//   config_table       key/value: "sync_id" (the session's progress), "version" (7),
//                      "sign_pending/<row id>" (a signature committed but maybe not in place)
//   recycle_bin_table  what lies in the session's recycle folder, by its name there
// Deleting an eventinfo row, by any statement, removes its signature file: the trigger
// calls remove_signature, which FileEventDB registers on every connection it opens.
#pragma once

namespace eventinfo {

// The columns of eventinfo in the order the table declares them: their positions in a
// "select *". Paths are relative, "/"-separated, without a leading "/".
enum Column {
    kId,             // integer primary key; also names the row's signature file
    kFileType,       // 0 file, 1 directory
    kIsExist,        // 1 present, 0 known as removed
    kSyncID,         // sync id of the last change of this path
    kMaxSyncID,      // highest sync id of this path or anything below it
    kPDirID,         // parent id; 0 in rows made here
    kFileSize,       // bytes
    kFileModTime,    // seconds since 1970
    kFileCheckSum,   // content hash, lower-case hexadecimal
    kBaseName,       // last element of the path
    kPath,           // unique
    kFilePrivilege,  // the server's privilege text
    kUpdateClient,   // who made the change
    kSignPath,       // unused: the signature's place follows from the id
    kMacHash,        // hash of extended attribute data
    kWindowsHash,    // platform attribute hashes, stored and returned uninterpreted
    kLinuxHash,
    kZephHash,
    kInode,          // unused: paths aren't tracked by file id
    kExecBit,        // executable bit
};

}  // namespace eventinfo

inline constexpr const char kFileEventDBSchema[] =
    "PRAGMA journal_mode = WAL;PRAGMA synchronous = NORMAL;BEGIN;CREATE TABLE IF NOT EXISTS "
    "eventinfo ( id integer primary key, fileType integer NOT NULL, isExist integer NOT NULL, "
    "syncID NUMERIC NOT NULL, maxSyncID NUMERIC NOT NULL, pDirID NUMERIC default NULL, fileSize "
    "NUMERIC NOT NULL, fileModTime NUMERIC NOT NULL, fileCheckSum text NOT NULL, baseName text "
    "NOT NULL, path text unique NOT NULL, filePrivilege text default NULL, updateClient text NOT "
    "NULL, signPath text default NULL, macHash text default NULL, windowsHash text default NULL, "
    "linuxHash text default NULL, zephHash text default NULL, inode INTEGER, execBit INTEGER "
    "DEFAULT 0 ); CREATE TABLE IF NOT EXISTS config_table ( key VARCHAR PRIMARY KEY ON CONFLICT "
    "IGNORE, value VARCHAR NOT NULL );CREATE TABLE IF NOT EXISTS recycle_bin_table ( id integer "
    "primary key, path text unique NOT NULL, fileSize NUMERIC NOT NULL, fileCheckSum text NOT "
    "NULL, macHash text default NULL, time NUMERIC NOT NULL); CREATE INDEX IF NOT EXISTS "
    "eventinfo_syncID_idx on eventinfo(syncID); CREATE INDEX IF NOT EXISTS eventinfo_maxSyncID_idx "
    "on eventinfo(maxSyncID); CREATE INDEX IF NOT EXISTS eventinfo_baseName_idx on "
    "eventinfo(baseName); CREATE INDEX IF NOT EXISTS eventinfo_path_idx on eventinfo(path); "
    "CREATE INDEX IF NOT EXISTS eventinfo_updateClient_idx on eventinfo(updateClient); CREATE "
    "INDEX IF NOT EXISTS eventinfo_fileCheckSum_idx on eventinfo(fileCheckSum); CREATE INDEX IF "
    "NOT EXISTS eventinfo_macHash_idx on eventinfo(macHash); CREATE INDEX IF NOT EXISTS "
    "eventinfo_isExist_idx on eventinfo(isExist); CREATE INDEX IF NOT EXISTS "
    "recycle_bin_table_fileCheckSum_idx on recycle_bin_table(fileCheckSum); CREATE INDEX IF NOT "
    "EXISTS recycle_bin_table_macHash_idx on recycle_bin_table(macHash); CREATE INDEX IF NOT "
    "EXISTS recycle_bin_table_time_idx on recycle_bin_table(time); INSERT or IGNORE into "
    "config_table VALUES ('sync_id', '0'); INSERT or IGNORE into config_table VALUES ('version', "
    "7); CREATE TRIGGER IF NOT EXISTS eventinfo_delete_trigger AFTER DELETE ON eventinfo BEGIN "
    "UPDATE config_table SET value = '' WHERE rowid = remove_signature(OLD.id); END; COMMIT; ";
