// selective-sync.h: the records of selective sync: an applied rule (FilterInfo), a rule
// that was loosened and whose hidden items must now be fetched (ResumeCondition), a
// session's rules by kind (SelectiveSyncInfo), and a local change a filter held back
// (FilterLocalEvent). Shared by the filter database, the resume list, the filter reload
// and the puller that works the conditions off.
#pragma once

#include <cstdint>
#include <set>

#include "filter/filter.h"
#include "foundation/ustring.h"

// One applied rule: its text (a path prefix, name, extension or a size in decimal) and
// the sync id it was applied at. Ordered and compared by text alone.
struct FilterInfo {
    uint64_t sync_id = 0;
    ustring filter_desc;

    bool operator<(const FilterInfo& other) const { return filter_desc < other.filter_desc; }
    bool operator==(const FilterInfo& other) const { return filter_desc == other.filter_desc; }
};

// A rule taken away or loosened: what it hid has to be fetched from the server.
// filter_type is a FILTER_ code of a selective-sync kind.
struct ResumeCondition {
    uint64_t sess_id = 0;
    uint64_t sync_id = 0;
    int filter_type = 0;
    ustring filter_desc;

    void clear() { *this = ResumeCondition(); }
};

// A session's selective-sync rules by kind. black_size holds the size limit as decimal
// text; "0" or empty means none.
struct SelectiveSyncInfo {
    std::set<FilterInfo> black_prefix;
    std::set<FilterInfo> black_name;
    std::set<FilterInfo> black_ext;
    FilterInfo black_size;
};

// A local change that a filter kept from being uploaded. event_type lives only in
// memory. Ordered and compared by path.
struct FilterLocalEvent {
    ustring path;
    ustring file_checksum;
    ustring base_name;
    ustring win_hash;
    ustring mac_hash;
    ustring linux_hash;
    ustring zeph_hash;
    uint64_t sess_id = 0;
    uint64_t sync_id = 0;
    uint64_t file_size = 0;
    uint32_t event_type = 0;
    uint32_t file_mod_time = 0;
    uint64_t inode = 0;
    int file_type = 0;
    int filtered_type = 0;
    int is_exist = 0;

    bool operator<(const FilterLocalEvent& other) const { return path < other.path; }
    bool operator==(const FilterLocalEvent& other) const { return path == other.path; }
};

// The selective-sync rules of a filter file as the filter database keeps them: folder
// rules (Common.black_path_prefix_selective_sync) into black_prefix, names and extensions
// (File.black_name_selective_sync, File.black_ext_selective_sync) into black_name and
// black_ext, each with `sync_id`; File.max_size_selective_sync as decimal text into
// black_size. Repeated texts collapse into one entry. `sess_id` names the session for
// the caller's bookkeeping only. `ss_info` is added to, not cleared.
void ConvertFilterFileToSelectiveSyncInfo(uint64_t sess_id, uint64_t sync_id, const Filter& filter,
                                          SelectiveSyncInfo& ss_info);
