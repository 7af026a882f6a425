// black-list-v2.cpp: locking around the filter core and the rule editing table.
#include "filter/black-list-v2.h"

#include "filter/match.h"

namespace {
// Adds `value` unless an entry equal ignoring ASCII case is already there. 0, 1 when
// added, -1 when out of memory.
int add_if_new(value_type_string_set* set, const ustring& value) {
    if (BlackList2::StringSetValueExist(set, value)) return 0;
    return vt_string_set_insert(set, value.c_str_utf8()) < 0 ? -1 : 1;
}
}  // namespace

BlackList2::BlackList2() {
    filter_init(&filter);
}

BlackList2::~BlackList2() {
    filter_destroy(&filter);
}

BlackList2& BlackList2::getInstance() {
    static BlackList2 instance;
    return instance;
}

int BlackList2::Load(const ustring& path, parse_report* report) {
    std::lock_guard<std::mutex> guard(mutex);
    filter_destroy(&filter);
    filter_init(&filter);
    return filter_read(&filter, path.c_str_utf8(), report);
}

int BlackList2::Write(const ustring& path) {
    std::lock_guard<std::mutex> guard(mutex);
    return filter_write(&filter, path.c_str_utf8());
}

void BlackList2::Clear() {
    std::lock_guard<std::mutex> guard(mutex);
    filter_destroy(&filter);
    filter_init(&filter);
}

void BlackList2::Destroy() {
    std::lock_guard<std::mutex> guard(mutex);
    filter_destroy(&filter);
}

Filter* BlackList2::GetFilter() {
    mutex.lock();
    return &filter;
}

void BlackList2::ReturnFilter() {
    mutex.unlock();
}

int BlackList2::TestFilePath(const ustring& path) {
    std::lock_guard<std::mutex> guard(mutex);
    return filter_test_path(&filter, 0, path.c_str_utf8());
}

int BlackList2::TestDirectoryPath(const ustring& path) {
    std::lock_guard<std::mutex> guard(mutex);
    return filter_test_path(&filter, 1, path.c_str_utf8());
}

int BlackList2::TestFileSize(uint64_t size) {
    std::lock_guard<std::mutex> guard(mutex);
    return filter_test_file_size(&filter, size);
}

int BlackList2::TestFullPathSize(uint64_t size) {
    std::lock_guard<std::mutex> guard(mutex);
    return filter_test_full_path_size(&filter, size);
}

int BlackList2::ExplainPath(const ustring& path, bool is_dir, filter_hit* hit) {
    std::lock_guard<std::mutex> guard(mutex);
    return filter_test_path_explain(&filter, is_dir ? 1 : 0, path.c_str_utf8(), hit);
}

int BlackList2::InsertFilter(VersionSection* section, int major, int minor) {
    section->major = major;
    section->minor = minor;
    return 0;
}

int BlackList2::InsertFilter(CommonSection* section, int filter_type, uint64_t value) {
    switch (filter_type) {
        case FILTER_LENGTH:
            section->max_length = value;
            return 0;
        case FILTER_PATH_SIZE:
            section->max_path = value;
            return 0;
    }
    return -1;
}

int BlackList2::InsertFilter(FileSection* section, int filter_type, uint64_t value) {
    switch (filter_type) {
        case FILTER_FILE_SIZE:
            section->max_size = value;
            return 0;
        case FILTER_FILE_SIZE_SELECTIVE_SYNC:
            section->max_size_selective_sync = value;
            return 0;
    }
    return -1;
}

int BlackList2::InsertFilter(CommonSection* section, int filter_type, const ustring& value) {
    switch (filter_type) {
        case FILTER_CHAR:
            return vt_string_assign(&section->black_char, value.c_str_utf8());
        case FILTER_PREFIX:
            return add_if_new(&section->black_prefix, value) < 0 ? -1 : 0;
        case FILTER_NAME:
            return add_if_new(&section->black_name, value) < 0 ? -1 : 0;
        case FILTER_DIR_PREFIX:
            return add_if_new(&section->black_dir_prefix, value) < 0 ? -1 : 0;
        case FILTER_PATH_PREFIX_SELECTIVE_SYNC:
            // A new folder rule answers -1 even though it was added; callers rely on that
            // answer staying as it is and don't read it as a failure.
            return add_if_new(&section->black_path_prefix_selective_sync, value) == 0 ? 0 : -1;
    }
    return -1;
}

int BlackList2::InsertFilter(FileSection* section, int filter_type, const ustring& value) {
    value_type_string_set* set = nullptr;
    switch (filter_type) {
        case FILTER_PREFIX:
            set = &section->black_prefix;
            break;
        case FILTER_NAME:
            set = &section->black_name;
            break;
        case FILTER_EXT:
            set = &section->black_ext;
            break;
        case FILTER_EXT_SELECTIVE_SYNC:
            set = &section->black_ext_selective_sync;
            break;
        case FILTER_NAME_SELECTIVE_SYNC:
            set = &section->black_name_selective_sync;
            break;
        default:
            return -1;
    }
    return add_if_new(set, value) < 0 ? -1 : 0;
}

int BlackList2::InsertFilter(DirectorySection* section, int filter_type, const ustring& value) {
    if (filter_type != FILTER_NAME) return -1;
    return add_if_new(&section->black_name, value) < 0 ? -1 : 0;
}

int BlackList2::RemoveFilter(CommonSection* section, int filter_type, const ustring& value) {
    switch (filter_type) {
        case FILTER_PREFIX:
            return vt_string_set_remove(&section->black_prefix, value.c_str_utf8());
        case FILTER_DIR_PREFIX:
            return vt_string_set_remove(&section->black_dir_prefix, value.c_str_utf8());
    }
    return -1;
}

int BlackList2::RemoveFilter(FileSection* section, int filter_type, const ustring& value) {
    if (filter_type != FILTER_EXT_SELECTIVE_SYNC) return -1;
    return vt_string_set_remove(&section->black_ext_selective_sync, value.c_str_utf8());
}

bool BlackList2::StringSetValueExist(const value_type_string_set* set, const ustring& value) {
    return string_set_match(set, value.c_str_utf8(), value.length(), false);
}
