// filter-schema.cpp: the filter file's sections and keys, bound to the Filter record.
#include "filter/filter-schema.h"

#include <cstddef>

#include "filter/filter.h"

#define TB_KEY(record, field, type) \
    { #field, type, offsetof(record, field) }

namespace {
const schema_parser kFilterSchema = {
    1,
    0,
    5,
    {
        {"Version",
         offsetof(Filter, Version),
         2,
         {TB_KEY(VersionSection, major, integer32_type),
          TB_KEY(VersionSection, minor, integer32_type)}},
        {"Common",
         offsetof(Filter, Common),
         7,
         {TB_KEY(CommonSection, black_char, string_type),
          TB_KEY(CommonSection, black_prefix, string_set_type),
          TB_KEY(CommonSection, black_dir_prefix, string_set_type),
          TB_KEY(CommonSection, black_name, string_set_type),
          TB_KEY(CommonSection, black_path_prefix_selective_sync, string_set_type),
          TB_KEY(CommonSection, max_length, integer64_type),
          TB_KEY(CommonSection, max_path, integer64_type)}},
        {"File",
         offsetof(Filter, File),
         8,
         {TB_KEY(FileSection, black_char, string_type),
          TB_KEY(FileSection, black_ext, string_set_type),
          TB_KEY(FileSection, black_name, string_set_type),
          TB_KEY(FileSection, black_prefix, string_set_type),
          TB_KEY(FileSection, black_ext_selective_sync, string_set_type),
          TB_KEY(FileSection, black_name_selective_sync, string_set_type),
          TB_KEY(FileSection, max_size, integer64_type),
          TB_KEY(FileSection, max_size_selective_sync, integer64_type)}},
        {"Directory",
         offsetof(Filter, Directory),
         3,
         {TB_KEY(DirectorySection, black_char, string_type),
          TB_KEY(DirectorySection, black_name, string_set_type),
          TB_KEY(DirectorySection, black_prefix, string_set_type)}},
        {"EA", offsetof(Filter, EA), 1, {TB_KEY(EASection, black_ea_name, string_set_type)}},
    },
};
}  // namespace

const schema_parser* filter_schema() {
    return &kFilterSchema;
}
