// filter.h: the black-list record of a filter file and the tests that decide what is not
// synchronised. Plain data and free functions, no locks: BlackList2 wraps them for the
// daemon; FilterDB and the selective sync comparison read the selective-sync rules.
#pragma once

#include <cstdint>
#include <cstdio>

#include "filter/parser.h"
#include "filter/value-type.h"

// Results of the tests: 0 passes, a negative value names the rule that hit. The same
// numbers are the filter_type column of the filter database.
enum {
    FILTER_ERROR = -1,
    FILTER_CHAR = -2,
    FILTER_PREFIX = -3,
    FILTER_NAME = -4,
    FILTER_EXT = -5,
    FILTER_LENGTH = -6,
    FILTER_PATH = -7,  // reserved: no test produces it
    FILTER_FILE_SIZE = -8,
    FILTER_PATH_SIZE = -9,
    FILTER_EA_NAME = -10,
    FILTER_DIR_PREFIX = -11,
    FILTER_EXT_SELECTIVE_SYNC = -12,
    FILTER_PATH_PREFIX_SELECTIVE_SYNC = -13,
    FILTER_NAME_SELECTIVE_SYNC = -14,
    FILTER_FILE_SIZE_SELECTIVE_SYNC = -15,
};

// Longest directory part (exclusive) and name or extension of a file path that a test takes.
constexpr size_t FILTER_DIR_MAX = 4095;
constexpr size_t FILTER_NAME_MAX = 511;

struct VersionSection {
    int major;
    int minor;
};

struct CommonSection {
    value_type_string black_char;
    value_type_string_set black_prefix;
    value_type_string_set black_dir_prefix;
    value_type_string_set black_name;
    value_type_string_set black_path_prefix_selective_sync;
    uint64_t max_length;
    uint64_t max_path;
};

struct FileSection {
    value_type_string black_char;
    value_type_string_set black_ext;
    value_type_string_set black_name;
    value_type_string_set black_prefix;
    value_type_string_set black_ext_selective_sync;
    value_type_string_set black_name_selective_sync;
    uint64_t max_size;
    uint64_t max_size_selective_sync;
};

struct DirectorySection {
    value_type_string black_char;
    value_type_string_set black_name;
    value_type_string_set black_prefix;
};

struct EASection {
    value_type_string_set black_ea_name;
};

struct Filter {
    VersionSection Version;
    CommonSection Common;
    FileSection File;
    DirectorySection Directory;
    EASection EA;
};

// Which rule a path test hit, for people reading a diagnosis.
struct filter_hit {
    int result = 0;                 // the FILTER_ code; 0 when the path passed
    const char* rule = nullptr;     // "Section.key", e.g. "File.black_ext"
    const char* item = nullptr;     // the matching rule text; null for a length limit
    const char* subject = nullptr;  // the tested name, component or path, inside the path
    size_t subject_len = 0;
};

// An empty filter: no rules, version 0.0. 0, or -1 when out of memory (destroy it then).
int filter_init(Filter* filter);
// Frees every rule and zeroes the record, version included; a destroyed filter passes all.
void filter_destroy(Filter* filter);
// Parses the file at `path` (UTF-8) into an initialised filter. 0 when every key was known,
// or when unknown keys come with version 1.x, x > 0 (a newer minor version may add keys).
// Otherwise -1, and the filter is destroyed. `report`, if given, says why.
int filter_read(Filter* filter, const char* path, parse_report* report = nullptr);
// Writes the filter in the file format; the parser reads it back as the same rules. The
// file is replaced whole (written aside, then renamed), so a failure leaves the old one.
// 0 or -1.
int filter_write(const Filter* filter, const char* path);
// Prints the filter in the file format. 0, or -1 on a write error.
int filter_print(const Filter* filter, FILE* stream);

// A path relative to the view root with a leading '/'. 0 passes, else a FILTER_ code;
// FILTER_ERROR for a file path without the leading '/' or with a part too long to test.
// `is_dir` 0 tests the name as a file and its parent directories; not 0 tests every
// component as a directory. Allocates nothing.
int filter_test_path(const Filter* filter, int is_dir, const char* path);
// The same, and fills `hit` (when not null) with the rule that decided.
int filter_test_path_explain(const Filter* filter, int is_dir, const char* path, filter_hit* hit);
// FILTER_FILE_SIZE, then FILTER_FILE_SIZE_SELECTIVE_SYNC, for a size above a set limit.
int filter_test_file_size(const Filter* filter, uint64_t size);
// FILTER_PATH_SIZE for a full path length above max_path, else 0.
int filter_test_full_path_size(const Filter* filter, uint64_t size);
// FILTER_EA_NAME when an extended attribute name is in EA.black_ea_name, else 0.
int filter_test_ea(const Filter* filter, const char* name);

// "FILTER_EXT" and so on; "PASS" for 0, "FILTER_UNKNOWN" for anything else. Static storage.
const char* filter_result_name(int code);
