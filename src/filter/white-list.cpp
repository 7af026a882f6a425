// white-list.cpp: the white list's life cycle, reading and the extension test.
#include "filter/white-list.h"

#include <cstring>

#include "filter/match.h"
#include "filter/white-list-schema.h"

int white_list_init(WhiteList* list) {
    std::memset(list, 0, sizeof(*list));
    return vt_string_set_init(&list->File.white_ext, 4);
}

void white_list_destroy(WhiteList* list) {
    vt_string_set_destroy(&list->File.white_ext);
    std::memset(list, 0, sizeof(*list));
}

int white_list_read(WhiteList* list, const char* path, parse_report* report) {
    parse_result r = parse(path, white_list_schema(), list, report);
    if (r == PARSE_DONE) return 0;
    if (r == PARSE_PARTIAL && list->Version.major == 1 && list->Version.minor > 0) return 0;
    if (r == PARSE_PARTIAL && report != nullptr)
        report->message = unknown_key_message(*report, list->Version.major, list->Version.minor);
    white_list_destroy(list);
    return -1;
}

int white_list_test(const WhiteList* list, const char* name) {
    if (name == nullptr || *name == '\0') return -1;
    const value_type_string_set& exts = list->File.white_ext;
    if (exts.used == 0) return -1;
    const char* dot = std::strrchr(name, '.');
    const char* ext = dot != nullptr && dot != name ? dot + 1 : "";
    size_t ext_len = std::strlen(ext);
    for (size_t i = 0; i < exts.used; ++i) {
        const char* item = exts.set[i];
        if (std::strcmp(item, "*") == 0) return 0;
        if (std::strlen(item) == ext_len && ascii_equal_nocase(item, ext, ext_len)) return 0;
    }
    return -1;
}
