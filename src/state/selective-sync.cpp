// selective-sync.cpp: a filter file's selective-sync rules as records.
#include "state/selective-sync.h"

#include <string>

namespace {
void add_items(std::set<FilterInfo>& out, const value_type_string_set& set, uint64_t sync_id) {
    for (size_t i = 0; i < set.used; ++i) out.insert(FilterInfo{sync_id, ustring(set.set[i])});
}
}  // namespace

void ConvertFilterFileToSelectiveSyncInfo(uint64_t /*sess_id*/, uint64_t sync_id,
                                          const Filter& filter, SelectiveSyncInfo& ss_info) {
    add_items(ss_info.black_prefix, filter.Common.black_path_prefix_selective_sync, sync_id);
    add_items(ss_info.black_name, filter.File.black_name_selective_sync, sync_id);
    add_items(ss_info.black_ext, filter.File.black_ext_selective_sync, sync_id);
    ss_info.black_size.sync_id = sync_id;
    ss_info.black_size.filter_desc = std::to_string(filter.File.max_size_selective_sync);
}
