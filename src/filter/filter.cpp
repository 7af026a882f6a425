// filter.cpp: the Filter record's life cycle, file reading and writing, and the path,
// size and attribute tests.
#include "filter/filter.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "filter/filter-schema.h"
#include "filter/match.h"
#include "filter/printer.h"
#include "foundation/tmp-name-gen.h"
#include "platform/fs.h"

namespace {

// One test of a name, component or path against one rule list.
struct span {
    const char* s;
    size_t n;
};

bool hit_rule(filter_hit* hit, int result, const char* rule, const char* item, span subject) {
    *hit = filter_hit{result, rule, item, subject.s, subject.n};
    return true;
}

bool char_rule(filter_hit* hit, const value_type_string& chars, span subject, const char* rule) {
    return string_match(chars.str, subject.s, subject.n) &&
           hit_rule(hit, FILTER_CHAR, rule, chars.str, subject);
}

bool set_rule(filter_hit* hit, const value_type_string_set& set, span subject, bool prefix,
              int result, const char* rule) {
    const char* item = nullptr;
    return string_set_match(&set, subject.s, subject.n, prefix, &item) &&
           hit_rule(hit, result, rule, item, subject);
}

bool dir_prefix_rule(filter_hit* hit, const value_type_string_set& set, span path, int result,
                     const char* rule) {
    const char* item = nullptr;
    return dir_prefix_string_set_match(&set, path.s, path.n, &item) &&
           hit_rule(hit, result, rule, item, path);
}

bool length_rule(filter_hit* hit, uint64_t limit, span subject, const char* rule) {
    return limit != 0 && subject.n > limit && hit_rule(hit, FILTER_LENGTH, rule, nullptr, subject);
}

int test_file_name(const Filter* f, span path, span name, span ext, bool has_ext, filter_hit* hit) {
    const CommonSection& c = f->Common;
    const FileSection& fs = f->File;
    if (length_rule(hit, c.max_length, name, "Common.max_length") ||
        char_rule(hit, c.black_char, name, "Common.black_char") ||
        set_rule(hit, c.black_prefix, name, true, FILTER_PREFIX, "Common.black_prefix") ||
        dir_prefix_rule(hit, c.black_dir_prefix, path, FILTER_DIR_PREFIX,
                        "Common.black_dir_prefix") ||
        set_rule(hit, c.black_name, name, false, FILTER_NAME, "Common.black_name") ||
        dir_prefix_rule(hit, c.black_path_prefix_selective_sync, path,
                        FILTER_PATH_PREFIX_SELECTIVE_SYNC,
                        "Common.black_path_prefix_selective_sync") ||
        char_rule(hit, fs.black_char, name, "File.black_char") ||
        (has_ext && set_rule(hit, fs.black_ext, ext, false, FILTER_EXT, "File.black_ext")) ||
        set_rule(hit, fs.black_name, name, false, FILTER_NAME, "File.black_name") ||
        set_rule(hit, fs.black_prefix, name, true, FILTER_PREFIX, "File.black_prefix") ||
        set_rule(hit, fs.black_name_selective_sync, name, false, FILTER_NAME_SELECTIVE_SYNC,
                 "File.black_name_selective_sync") ||
        (has_ext && set_rule(hit, fs.black_ext_selective_sync, ext, false,
                             FILTER_EXT_SELECTIVE_SYNC, "File.black_ext_selective_sync")))
        return hit->result;
    return 0;
}

int test_component(const Filter* f, span path, span comp, filter_hit* hit) {
    const CommonSection& c = f->Common;
    const DirectorySection& d = f->Directory;
    if (char_rule(hit, c.black_char, comp, "Common.black_char") ||
        set_rule(hit, c.black_prefix, comp, true, FILTER_PREFIX, "Common.black_prefix") ||
        dir_prefix_rule(hit, c.black_dir_prefix, path, FILTER_DIR_PREFIX,
                        "Common.black_dir_prefix") ||
        set_rule(hit, c.black_name, comp, false, FILTER_NAME, "Common.black_name") ||
        length_rule(hit, c.max_length, comp, "Common.max_length") ||
        dir_prefix_rule(hit, c.black_path_prefix_selective_sync, path,
                        FILTER_PATH_PREFIX_SELECTIVE_SYNC,
                        "Common.black_path_prefix_selective_sync") ||
        char_rule(hit, d.black_char, comp, "Directory.black_char") ||
        set_rule(hit, d.black_name, comp, false, FILTER_NAME, "Directory.black_name") ||
        set_rule(hit, d.black_prefix, comp, true, FILTER_PREFIX, "Directory.black_prefix"))
        return hit->result;
    return 0;
}

// Each directory component from the root down; an over-long component is tested in
// slices of FILTER_NAME_MAX bytes. The prefix rules always see the caller's whole path.
int walk_directories(const Filter* f, span path, span dir, filter_hit* hit) {
    size_t i = 0;
    while (i < dir.n) {
        if (dir.s[i] == '/') {
            ++i;
            continue;
        }
        size_t j = i;
        while (j < dir.n && dir.s[j] != '/' && j - i < FILTER_NAME_MAX) ++j;
        int r = test_component(f, path, span{dir.s + i, j - i}, hit);
        if (r != 0) return r;
        i = j;
    }
    return 0;
}

int test_path(const Filter* f, int is_dir, const char* path, filter_hit* hit) {
    if (path == nullptr) return FILTER_ERROR;
    span whole{path, std::strlen(path)};
    if (is_dir) return walk_directories(f, whole, whole, hit);
    if (whole.n == 0 || path[0] != '/') return FILTER_ERROR;

    size_t slash = whole.n - 1;
    while (path[slash] != '/') --slash;
    span dir{path, slash + 1};
    span name{path + slash + 1, whole.n - slash - 1};
    if (dir.n >= FILTER_DIR_MAX || name.n > FILTER_NAME_MAX) return FILTER_ERROR;
    size_t dot = name.n;
    while (dot > 0 && name.s[dot - 1] != '.') --dot;
    // A leading dot (".profile") starts a name, not an extension.
    bool has_ext = dot > 1;
    span ext = has_ext ? span{name.s + dot, name.n - dot} : span{};

    int r = test_file_name(f, whole, name, ext, has_ext, hit);
    if (r != 0) return r;
    return walk_directories(f, whole, dir, hit);
}

void print_limit(std::string& out, const char* key, uint64_t value) {
    out += key;
    out += " = ";
    out += std::to_string(static_cast<unsigned long long>(value));
    out += '\n';
}

// The filter in the file format.
std::string render(const Filter* filter) {
    const CommonSection& c = filter->Common;
    const FileSection& f = filter->File;
    const DirectorySection& d = filter->Directory;
    std::string out = "[Version]\nmajor = " + std::to_string(filter->Version.major) +
                      "\nminor = " + std::to_string(filter->Version.minor) + "\n\n";

    out += "[Common]\n";
    print_string_rule(out, "black_char", &c.black_char);
    print_string_set_rule(out, "black_prefix", &c.black_prefix);
    print_string_set_rule(out, "black_dir_prefix", &c.black_dir_prefix);
    print_string_set_rule(out, "black_name", &c.black_name);
    print_string_set_rule(out, "black_path_prefix_selective_sync",
                          &c.black_path_prefix_selective_sync);
    print_limit(out, "max_length", c.max_length);
    print_limit(out, "max_path", c.max_path);

    out += "\n[File]\n";
    print_string_rule(out, "black_char", &f.black_char);
    print_string_set_rule(out, "black_ext", &f.black_ext);
    print_string_set_rule(out, "black_ext_selective_sync", &f.black_ext_selective_sync);
    print_string_set_rule(out, "black_name_selective_sync", &f.black_name_selective_sync);
    print_string_set_rule(out, "black_name", &f.black_name);
    print_string_set_rule(out, "black_prefix", &f.black_prefix);
    print_limit(out, "max_size", f.max_size);
    print_limit(out, "max_size_selective_sync", f.max_size_selective_sync);

    out += "\n[Directory]\n";
    print_string_rule(out, "black_char", &d.black_char);
    print_string_set_rule(out, "black_name", &d.black_name);
    print_string_set_rule(out, "black_prefix", &d.black_prefix);

    out += "\n[EA]\n";
    print_string_set_rule(out, "black_ea_name", &filter->EA.black_ea_name);
    out += "\n";
    return out;
}

// Creates a fresh file beside `path` for its new content; its name goes to `temp`.
int create_beside(const std::string& path, std::string& temp,
                  std::unique_ptr<platform::File>& out) {
    platform::FileSystem& fs = platform::file_system();
    const int flags = platform::kOpenWrite | platform::kOpenCreate | platform::kOpenExclusive;
    for (int attempt = 0; attempt < 16; ++attempt) {
        temp = path + "." + TmpNameGen::getTmpName(ustring()).str().substr(1);
        int err = 0;
        if (fs.open(temp.c_str(), flags, out, &err) == 0) return 0;
        if (err != EEXIST) return -1;
    }
    return -1;
}

// Writes `text` into the open `file`, makes it durable with the permissions of the file it
// replaces (0644 for a new one), and closes it. 0 or -1.
int write_durably(platform::File& file, const std::string& text, const char* replaced) {
    platform::NodeInfo old;
    uint32_t mode = platform::file_system().stat(replaced, old, nullptr) == 0 ? old.mode : 0644;
    int rc = file.set_mode(mode, nullptr);
    if (rc == 0 && file.write(text.data(), text.size(), nullptr) < 0) rc = -1;
    if (rc == 0) rc = file.sync(nullptr);
    if (file.close(nullptr) != 0) rc = -1;
    return rc;
}

}  // namespace

int filter_init(Filter* filter) {
    std::memset(filter, 0, sizeof(*filter));
    CommonSection& c = filter->Common;
    FileSection& f = filter->File;
    value_type_string_set* four[] = {&c.black_prefix,
                                     &c.black_dir_prefix,
                                     &c.black_name,
                                     &c.black_path_prefix_selective_sync,
                                     &f.black_ext,
                                     &f.black_name,
                                     &f.black_prefix,
                                     &f.black_ext_selective_sync,
                                     &f.black_name_selective_sync};
    value_type_string_set* two[] = {&filter->Directory.black_name, &filter->Directory.black_prefix,
                                    &filter->EA.black_ea_name};
    int rc = 0;
    for (auto* set : four) rc |= vt_string_set_init(set, 4);
    for (auto* set : two) rc |= vt_string_set_init(set, 2);
    return rc < 0 ? -1 : 0;
}

void filter_destroy(Filter* filter) {
    CommonSection& c = filter->Common;
    FileSection& f = filter->File;
    DirectorySection& d = filter->Directory;
    for (value_type_string* s : {&c.black_char, &f.black_char, &d.black_char}) vt_string_destroy(s);
    for (value_type_string_set* set :
         {&c.black_prefix, &c.black_dir_prefix, &c.black_name, &c.black_path_prefix_selective_sync,
          &f.black_ext, &f.black_name, &f.black_prefix, &f.black_ext_selective_sync,
          &f.black_name_selective_sync, &d.black_name, &d.black_prefix, &filter->EA.black_ea_name})
        vt_string_set_destroy(set);
    // Limits too: a filter destroyed after a failed read must pass everything.
    std::memset(filter, 0, sizeof(*filter));
}

int filter_read(Filter* filter, const char* path, parse_report* report) {
    parse_result r = parse(path, filter_schema(), filter, report);
    if (r == PARSE_DONE) return 0;
    if (r == PARSE_PARTIAL && filter->Version.major == 1 && filter->Version.minor > 0) return 0;
    if (r == PARSE_PARTIAL && report != nullptr)
        report->message =
            unknown_key_message(*report, filter->Version.major, filter->Version.minor);
    filter_destroy(filter);
    return -1;
}

int filter_print(const Filter* filter, FILE* out) {
    const std::string text = render(filter);
    if (std::fputs(text.c_str(), out) < 0) return -1;
    return std::ferror(out) ? -1 : 0;
}

int filter_write(const Filter* filter, const char* path) {
    std::string temp;
    std::unique_ptr<platform::File> file;
    if (create_beside(path, temp, file) != 0) return -1;
    platform::FileSystem& fs = platform::file_system();
    int rc = write_durably(*file, render(filter), path);
    if (rc == 0) rc = fs.rename_replace(temp.c_str(), path, nullptr);
    if (rc != 0) fs.remove_file(temp.c_str(), nullptr);
    return rc;
}

int filter_test_path(const Filter* filter, int is_dir, const char* path) {
    filter_hit hit;
    return test_path(filter, is_dir, path, &hit);
}

int filter_test_path_explain(const Filter* filter, int is_dir, const char* path, filter_hit* hit) {
    filter_hit local;
    if (hit == nullptr) hit = &local;
    *hit = filter_hit();
    hit->result = test_path(filter, is_dir, path, hit);
    return hit->result;
}

int filter_test_file_size(const Filter* filter, uint64_t size) {
    if (filter->File.max_size != 0 && size > filter->File.max_size) return FILTER_FILE_SIZE;
    if (filter->File.max_size_selective_sync != 0 && size > filter->File.max_size_selective_sync)
        return FILTER_FILE_SIZE_SELECTIVE_SYNC;
    return 0;
}

int filter_test_full_path_size(const Filter* filter, uint64_t size) {
    return filter->Common.max_path != 0 && size > filter->Common.max_path ? FILTER_PATH_SIZE : 0;
}

int filter_test_ea(const Filter* filter, const char* name) {
    if (name == nullptr) return 0;
    return string_set_match(&filter->EA.black_ea_name, name, std::strlen(name), false)
               ? FILTER_EA_NAME
               : 0;
}

const char* filter_result_name(int code) {
    static const char* const kNames[] = {
        "PASS",
        "FILTER_ERROR",
        "FILTER_CHAR",
        "FILTER_PREFIX",
        "FILTER_NAME",
        "FILTER_EXT",
        "FILTER_LENGTH",
        "FILTER_PATH",
        "FILTER_FILE_SIZE",
        "FILTER_PATH_SIZE",
        "FILTER_EA_NAME",
        "FILTER_DIR_PREFIX",
        "FILTER_EXT_SELECTIVE_SYNC",
        "FILTER_PATH_PREFIX_SELECTIVE_SYNC",
        "FILTER_NAME_SELECTIVE_SYNC",
        "FILTER_FILE_SIZE_SELECTIVE_SYNC",
    };
    if (code > 0 || -code >= static_cast<int>(sizeof(kNames) / sizeof(kNames[0])))
        return "FILTER_UNKNOWN";
    return kNames[-code];
}
