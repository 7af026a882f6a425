// filter-parser.cpp: feeds arbitrary bytes to the filter file parser. Whatever is
// accepted is tested against a few paths, printed, and read again: a printed filter that
// reads back must print the same.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "filter/filter-schema.h"
#include "filter/filter.h"

namespace {

std::string print(const Filter& f) {
    char* buf = nullptr;
    size_t len = 0;
    FILE* out = open_memstream(&buf, &len);
    if (out == nullptr) return std::string();
    filter_print(&f, out);
    std::fclose(out);
    std::string text(buf, len);
    std::free(buf);
    return text;
}

parse_result parse_bytes(const void* data, size_t size, Filter* f) {
    return parse_text(static_cast<const char*>(data), size, filter_schema(), f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    Filter filter;
    if (filter_init(&filter) < 0) return 0;
    if (parse_bytes(data, size, &filter) != PARSE_ERROR) {
        const char* paths[] = {"/a/b.tmp", "/", "/.x/y/z", "/a/b", "rel/x"};
        for (const char* p : paths) {
            filter_test_path(&filter, 0, p);
            filter_test_path(&filter, 1, p);
        }
        filter_test_file_size(&filter, 12345);
        filter_test_ea(&filter, "user.x");

        std::string first = print(filter);
        Filter again;
        if (filter_init(&again) == 0) {
            if (parse_bytes(first.data(), first.size(), &again) == PARSE_DONE &&
                print(again) != first)
                std::abort();
            filter_destroy(&again);
        }
    }
    filter_destroy(&filter);
    return 0;
}
