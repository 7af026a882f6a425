// filter-command.cpp: `tarnbridge filter check FILE [PATH ...]`. Reads a filter file as
// the daemon does, reports the first error with its line, and tells for each path
// (relative to the view root, a trailing '/' for a folder) whether it is synchronised
// and which rule holds it back. `filter show` and `filter edit` are session commands.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "filter/filter.h"
#include "filter/printer.h"
#include "session-commands.h"

namespace {

int filter_usage() {
    std::fprintf(stderr,
                 "usage: tarnbridge filter check FILE [PATH ...]\n"
                 "       tarnbridge filter show|edit --config FILE --session-id N ...\n"
                 "  PATH is relative to the view root and begins with '/';\n"
                 "  end it with '/' to test it as a folder.\n");
    return 2;
}

void report_path(const Filter& filter, const char* arg) {
    std::string path(arg);
    bool is_dir = path.size() > 1 && path.back() == '/';
    if (is_dir) path.pop_back();
    filter_hit hit;
    int r = filter_test_path_explain(&filter, is_dir ? 1 : 0, path.c_str(), &hit);
    if (r == 0) {
        std::printf("%s: synchronised\n", arg);
        return;
    }
    if (r == FILTER_ERROR || hit.rule == nullptr) {
        std::printf(
            "%s: not synchronised: %s (a file path begins with '/', its name has at "
            "most %zu bytes and its folder part fewer than %zu)\n",
            arg, filter_result_name(r), FILTER_NAME_MAX, FILTER_DIR_MAX);
        return;
    }
    std::string subject(hit.subject, hit.subject_len);
    if (hit.item == nullptr) {  // the only path rule without a text is the length limit
        std::printf("%s: not synchronised: %s, %s = %llu (\"%s\" has %zu bytes)\n", arg,
                    filter_result_name(r), hit.rule,
                    static_cast<unsigned long long>(filter.Common.max_length), subject.c_str(),
                    hit.subject_len);
        return;
    }
    char item[PRINTER_STRING_MAX + 1];
    escape_string(hit.item, item);
    std::printf("%s: not synchronised: %s, %s %s (matched \"%s\")\n", arg, filter_result_name(r),
                hit.rule, item, subject.c_str());
}

}  // namespace

int cmd_filter(int argc, char** argv) {
    if (argc > 0 && std::strcmp(argv[0], "check") != 0) {
        // "show" and "edit" may come after the options, as in "filter --config F show".
        std::vector<char*> rest;
        int verb = -1;
        for (int i = 0; i < argc; ++i) {
            const bool is_verb =
                std::strcmp(argv[i], "show") == 0 || std::strcmp(argv[i], "edit") == 0;
            if (is_verb && verb < 0)
                verb = i;
            else
                rest.push_back(argv[i]);
        }
        if (verb < 0) return filter_usage();
        return run_filter_session(static_cast<int>(rest.size()), rest.data(),
                                  std::strcmp(argv[verb], "edit") == 0);
    }
    if (argc < 2) return filter_usage();
    const char* file = argv[1];
    Filter filter;
    if (filter_init(&filter) < 0) {
        std::fprintf(stderr, "tarnbridge: out of memory\n");
        return 1;
    }
    parse_report report;
    int rc = filter_read(&filter, file, &report);
    if (rc == 0) {
        std::printf("%s: ok, version %d.%d", file, filter.Version.major, filter.Version.minor);
        if (report.unknown_key_count > 0)
            std::printf(", %d unknown key(s) ignored, the first (%s) at line %d",
                        report.unknown_key_count, report.first_unknown_key.c_str(), report.line);
        std::printf("\n");
    } else {
        std::printf("%s: error: %s\n", file, report.message.c_str());
        std::printf("%s: the daemon would load an empty filter, which synchronises everything\n",
                    file);
    }
    for (int i = 2; i < argc; ++i) report_path(filter, argv[i]);
    filter_destroy(&filter);
    return rc == 0 ? 0 : 1;
}
