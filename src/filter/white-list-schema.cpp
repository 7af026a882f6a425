// white-list-schema.cpp: the white list file's sections and keys, bound to WhiteList.
#include "filter/white-list-schema.h"

#include <cstddef>

#include "filter/white-list.h"

namespace {
const schema_parser kWhiteListSchema = {
    1,
    0,
    2,
    {
        {"Version",
         offsetof(WhiteList, Version),
         2,
         {{"major", integer32_type, offsetof(WhiteListVersionSection, major)},
          {"minor", integer32_type, offsetof(WhiteListVersionSection, minor)}}},
        {"File",
         offsetof(WhiteList, File),
         1,
         {{"white_ext", string_set_type, offsetof(WhiteListFileSection, white_ext)}}},
    },
};
}  // namespace

const schema_parser* white_list_schema() {
    return &kWhiteListSchema;
}
