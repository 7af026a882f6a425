// filter-db-schema.h: the filter database's tables, created by FilterDB::initialize in one
// script. Rows of every table carry the session id; filter_type holds FILTER_ codes.
//   config_table               key/value settings ("version" 1, "event_overflow")
//   filter_table               applied folder, name and extension rules
//   filter_range_table         the applied size rule, its limit as filter_desc
//   filter_resume_table        loosened rules still to be fetched, by row id
//   filtered_local_event_table local changes a filter held back, one per (session, path)
#pragma once

inline constexpr const char kFilterDBSchema[] =
    "PRAGMA journal_mode = WAL;PRAGMA synchronous = NORMAL;BEGIN;"
    "CREATE TABLE IF NOT EXISTS config_table ( \tkey    VARCHAR PRIMARY KEY ON CONFLICT IGNORE, "
    "\tvalue  VARCHAR NOT NULL ); "
    "CREATE TABLE IF NOT EXISTS filter_table ( \tsess_id INTEGER NOT NULL,\tsync_id INTEGER NOT "
    "NULL,\tfilter_type INTEGER NOT NULL,\tfilter_desc TEXT NOT NULL,\tprimary key (sess_id, "
    "filter_type, filter_desc) ON CONFLICT IGNORE);"
    "CREATE TABLE IF NOT EXISTS filter_range_table ( \tsess_id INTEGER NOT NULL,\tsync_id "
    "INTEGER NOT NULL,\tfilter_type INTEGER NOT NULL,\tfilter_desc TEXT NOT NULL,\tprimary key "
    "(sess_id, filter_type, filter_desc) ON CONFLICT IGNORE);"
    "CREATE TABLE IF NOT EXISTS filter_resume_table ( \tid INTEGER PRIMARY KEY "
    "AUTOINCREMENT,\tsess_id INTEGER NOT NULL,\tsync_id INTEGER NOT NULL,\tfilter_type INTEGER "
    "NOT NULL,\tfilter_desc TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS filtered_local_event_table ( \tsess_id INTEGER NOT "
    "NULL,\tfile_type INTEGER NOT NULL,\tis_exist INTEGER NOT NULL, \tpath TEXT NOT NULL, "
    "\tsync_id NUMERIC NOT NULL, \tfile_size NUMERIC NOT NULL, \tfile_mod_time NUMERIC NOT "
    "NULL, \tfile_checksum TEXT NOT NULL, \tbase_name TEXT NOT NULL, \twin_hash TEXT DEFAULT "
    "NULL, \tmac_hash TEXT DEFAULT NULL, \tlinux_hash TEXT DEFAULT NULL, \tzeph_hash TEXT "
    "DEFAULT NULL, \tinode INTEGER, \tfiltered_type NUMERIC NOT NULL,\tprimary key (sess_id, "
    "path));"
    "CREATE INDEX IF NOT EXISTS filter_table_sess_id_idx on filter_table(sess_id); "
    "CREATE INDEX IF NOT EXISTS filter_table_type_idx on filter_table(filter_type); "
    "CREATE INDEX IF NOT EXISTS filter_table_desc_idx on filter_table(filter_desc); "
    "CREATE INDEX IF NOT EXISTS filter_range_table_sess_id_idx on filter_range_table(sess_id); "
    "CREATE INDEX IF NOT EXISTS filter_range_table_type_idx on filter_range_table(filter_type); "
    "CREATE INDEX IF NOT EXISTS filter_range_table_desc_idx on filter_range_table(filter_desc); "
    "CREATE INDEX IF NOT EXISTS filter_resume_table_sess_id_idx on filter_resume_table(sess_id); "
    "CREATE INDEX IF NOT EXISTS filtered_local_event_table_sess_id_idx on "
    "filtered_local_event_table(sess_id); "
    "CREATE INDEX IF NOT EXISTS filtered_local_event_table_path_idx on "
    "filtered_local_event_table(path); "
    "CREATE INDEX IF NOT EXISTS filtered_local_event_table_filtered_type_idx on "
    "filtered_local_event_table(filtered_type); "
    "CREATE INDEX IF NOT EXISTS filtered_local_event_table_file_size_idx on "
    "filtered_local_event_table(file_size); "
    "CREATE INDEX IF NOT EXISTS filtered_local_event_table_base_name_idx on "
    "filtered_local_event_table(base_name); "
    "INSERT or IGNORE into config_table values ('version', 1); COMMIT; ";
