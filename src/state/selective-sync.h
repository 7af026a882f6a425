// selective-sync.h: the stored records of selective sync: a rule that was loosened and
// whose hidden items must now be fetched (ResumeCondition) and a local change a filter
// held back (FilterLocalEvent); the rules themselves are in filter/filter-utils.h. Shared
// by the filter database, the resume list, the filter reload and the puller that works
// the conditions off.
#pragma once

#include <cstdint>
#include <set>

#include "filter/filter-utils.h"
#include "foundation/ustring.h"

// A rule taken away or loosened: what it hid has to be fetched from the server.
// filter_type is a FILTER_ code of a selective-sync kind.
struct ResumeCondition {
    uint64_t sess_id = 0;
    uint64_t sync_id = 0;
    int filter_type = 0;
    ustring filter_desc;

    void clear() { *this = ResumeCondition(); }
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
