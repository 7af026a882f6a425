// filter-utils.h: a filter file's selective-sync rules as plain records, and the text of a
// loosened size rule. The filter database keeps the rules a session last applied in the
// same records, so the filter reload can compare the two; the puller of resume
// conditions decodes the size text into the bounds it asks the server for.
#pragma once

#include <cstdint>
#include <set>

#include "filter/filter.h"
#include "foundation/ustring.h"

// One applied rule: its text (a path prefix, name, extension or a size in decimal) and
// the sync id it was applied at. Ordered and compared by text alone, byte for byte.
struct FilterInfo {
    uint64_t sync_id = 0;
    ustring filter_desc;

    bool operator<(const FilterInfo& other) const { return filter_desc < other.filter_desc; }
    bool operator==(const FilterInfo& other) const { return filter_desc == other.filter_desc; }
};

// A session's selective-sync rules by kind. black_size holds the size limit as decimal
// text; "0" or empty means none.
struct SelectiveSyncInfo {
    std::set<FilterInfo> black_prefix;
    std::set<FilterInfo> black_name;
    std::set<FilterInfo> black_ext;
    FilterInfo black_size;
};

// The selective-sync rules of a filter file: folder rules
// (Common.black_path_prefix_selective_sync) into black_prefix, names and extensions
// (File.black_name_selective_sync, File.black_ext_selective_sync) into black_name and
// black_ext, each with `sync_id`; File.max_size_selective_sync as decimal text into
// black_size. Repeated texts collapse into one entry. `sess_id` names the session for
// the caller's bookkeeping only. `ss_info` is added to, not cleared.
void ConvertFilterFileToSelectiveSyncInfo(uint64_t sess_id, uint64_t sync_id, const Filter& filter,
                                          SelectiveSyncInfo& ss_info);

// The text of a loosened size rule, "from=F,to=T" in decimal: files above `from` bytes
// and up to `to` are wanted now. Always 0.
int EncodeResumeSizeFilterDesc(uint64_t from, uint64_t to, ustring& out);
// Reads both bounds back. 0; -1 for an empty text or one without both numbers (the
// bounds are then left as they were).
int DecodeResumeSizeFilterDesc(const ustring& desc, uint64_t& lower_bound, uint64_t& upper_bound);
