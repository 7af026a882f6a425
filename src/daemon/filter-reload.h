// filter-reload.h: what a changed filter file does to a session. Its selective-sync rules
// are compared with those the filter database says were last applied: a rule added hides
// more (a hidden folder is taken off the disk, as far as the last agreement with the
// server covers it); a rule taken away or a size limit raised hides less, and what it hid
// becomes a resume condition, stored and queued for the puller that fetches it. Run by
// the session commands when a session is added and when its filters are reloaded.
#pragma once

#include <cstdint>
#include <set>

#include "filter/filter-utils.h"
#include "foundation/ustring.h"

class FileEventDB;

// Size limit that stands in for "no limit" in a resume condition: 10 GiB.
constexpr uint64_t kUnlimitedResumeSize = 10737418240ull;

// Compares the rules of one kind (`filter_type`, a FILTER_ selective-sync code) in the
// database (`db_set`) with those of the file (`file_set`), in byte order. A rule only in
// the database becomes a resume condition and leaves the database; a rule only in the
// file is stored, and for a folder rule the folder under `sync_folder` is taken off the
// disk: every file in it that is as the last agreement in `event_db` left it, and the
// folders this empties. Files changed since then stay, to be uploaded once the rule goes.
// 0; -1 (logged) when the database refuses a change, which ends the comparison with what
// was done kept.
int CompareFilterList(uint64_t sess_id, int filter_type, const std::set<FilterInfo>& db_set,
                      const std::set<FilterInfo>& file_set, const ustring& sync_folder,
                      FileEventDB* event_db);
// Compares the size limits (decimal text, 0 for none). A first limit is stored; a lower
// one replaces the stored one; a higher one, or none, replaces it and adds a resume
// condition "from=OLD,to=NEW" (NEW kUnlimitedResumeSize for none). 0; -1 (logged).
int CompareSizeFilter(uint64_t sess_id, const FilterInfo& db_finfo, const FilterInfo& file_finfo);
// Reads the filter file at `filter_path` and applies the difference from the database's
// rules of the session, kind by kind; new rules get `sync_id`. 0; -1 (logged) when the
// file can't be read (nothing changes) or a comparison failed.
int reload_filter(uint64_t sess_id, uint64_t sync_id, const ustring& filter_path,
                  const ustring& sync_folder, FileEventDB* event_db);
