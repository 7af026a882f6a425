// file-status-db-schema.h: the status table "fstatinfo", which other processes (a file
// manager's overlay, say) read to badge files while they synchronise. FileStatusDB creates
// it and is its only writer; readers rely on these names, so they never change.
//   id          integer primary key, autoincrement: a replaced row gets a new one
//   path        absolute, the platform's own separators; unique
//   fileType    0 file, 1 directory
//   syncStatus  2 syncing, 1 what a syncing row becomes at the end of a run
// A path has a row only while work on it is pending; no row means in sync. The file is
// in WAL mode so that readers go on beside the writer.
#pragma once

namespace fstatinfo {

// Positions of the columns in a "select *".
enum Column { kId, kPath, kFileType, kSyncStatus, kColumnCount };

}  // namespace fstatinfo

inline constexpr const char kFileStatusDBSchema[] =
    "PRAGMA journal_mode = WAL;PRAGMA synchronous = OFF; CREATE TABLE IF NOT EXISTS fstatinfo ( "
    "id INTEGER PRIMARY KEY AUTOINCREMENT, path text unique NOT NULL, fileType integer NOT "
    "NULL, syncStatus integer NOT NULL ); ";
inline constexpr const char kFileStatusDBIndex[] =
    "CREATE INDEX IF NOT EXISTS fstatinfo_path_idx on fstatinfo(path);";
