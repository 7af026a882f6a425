// filter-utils.cpp: a filter file's selective-sync rules as records; the size rule's text.
#include "filter/filter-utils.h"

#include <cinttypes>
#include <cstdio>
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

int EncodeResumeSizeFilterDesc(uint64_t from, uint64_t to, ustring& out) {
    out = ("from=" + std::to_string(from) + ",to=" + std::to_string(to)).c_str();
    return 0;
}

int DecodeResumeSizeFilterDesc(const ustring& desc, uint64_t& lower_bound, uint64_t& upper_bound) {
    if (desc.empty()) return -1;
    uint64_t from = 0, to = 0;
    int end = 0;
    const std::string text = desc.str();
    if (std::sscanf(text.c_str(), "from=%" SCNu64 ",to=%" SCNu64 "%n", &from, &to, &end) != 2 ||
        static_cast<size_t>(end) != text.size())
        return -1;
    lower_bound = from;
    upper_bound = to;
    return 0;
}
