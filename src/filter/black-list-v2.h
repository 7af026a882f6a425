// black-list-v2.h: BlackList2, a Filter behind a mutex, so that workers can test paths
// while the control thread reloads or edits the rules. One process-wide instance holds
// the system rules; each session's registry entry owns another.
#pragma once

#include <cstdint>
#include <mutex>

#include "filter/filter.h"
#include "foundation/ustring.h"

class BlackList2 {
  public:
    // An empty filter, which passes everything.
    BlackList2();
    ~BlackList2();
    BlackList2(const BlackList2&) = delete;
    BlackList2& operator=(const BlackList2&) = delete;

    // The system-wide instance, made on first use and destroyed at process exit.
    static BlackList2& getInstance();

    // Replaces the rules with those of the file. filter_read's result: 0, or -1 when the
    // file can't be read or is malformed, and the filter is then empty (passes all).
    // `report` (optional) tells why.
    int Load(const ustring& path, parse_report* report = nullptr);
    // Writes the rules to `path`, replacing it whole. 0 or -1.
    int Write(const ustring& path);
    // Drops every rule; the filter passes everything.
    void Clear();
    // Frees every rule without setting up room for new ones.
    void Destroy();

    // Locks and hands out the filter for reading or editing; the caller must call
    // ReturnFilter, and call nothing else on this object in between (the lock isn't
    // recursive). The pointer stays owned by this object.
    Filter* GetFilter();
    void ReturnFilter();

    // Each test holds the lock for its length: 0 passes, else a FILTER_ code.
    int TestFilePath(const ustring& path);
    int TestDirectoryPath(const ustring& path);
    int TestFileSize(uint64_t size);
    int TestFullPathSize(uint64_t size);
    // The same as TestFilePath/TestDirectoryPath, naming the rule that hit.
    int ExplainPath(const ustring& path, bool is_dir, filter_hit* hit);

    // Read without the lock: call them between GetFilter and ReturnFilter.
    int GetMajorVersion() const { return filter.Version.major; }
    int GetMinorVersion() const { return filter.Version.minor; }

    // Editing of a section got through GetFilter; no lock is taken here. `filter_type`
    // names the field; a type the section doesn't hold gives -1, otherwise 0.
    static int InsertFilter(VersionSection* section, int major, int minor);
    // FILTER_LENGTH -> max_length, FILTER_PATH_SIZE -> max_path.
    static int InsertFilter(CommonSection* section, int filter_type, uint64_t value);
    // FILTER_FILE_SIZE -> max_size, FILTER_FILE_SIZE_SELECTIVE_SYNC -> max_size_selective_sync.
    static int InsertFilter(FileSection* section, int filter_type, uint64_t value);
    // FILTER_CHAR replaces black_char; FILTER_PREFIX, FILTER_NAME, FILTER_DIR_PREFIX and
    // FILTER_PATH_PREFIX_SELECTIVE_SYNC add to their list unless an entry equal ignoring
    // ASCII case is there. A new FILTER_PATH_PREFIX_SELECTIVE_SYNC value is added and
    // gives -1 all the same; callers don't take that for a failure.
    static int InsertFilter(CommonSection* section, int filter_type, const ustring& value);
    // FILTER_PREFIX, FILTER_NAME, FILTER_EXT, FILTER_EXT_SELECTIVE_SYNC and
    // FILTER_NAME_SELECTIVE_SYNC add to their list if new (ignoring ASCII case).
    static int InsertFilter(FileSection* section, int filter_type, const ustring& value);
    // FILTER_NAME adds to black_name if new.
    static int InsertFilter(DirectorySection* section, int filter_type, const ustring& value);
    // FILTER_PREFIX, FILTER_DIR_PREFIX: removes the first entry of exactly that case.
    static int RemoveFilter(CommonSection* section, int filter_type, const ustring& value);
    // FILTER_EXT_SELECTIVE_SYNC: removes the first entry of exactly that case.
    static int RemoveFilter(FileSection* section, int filter_type, const ustring& value);

    // True when `set` holds `value` ignoring ASCII case.
    static bool StringSetValueExist(const value_type_string_set* set, const ustring& value);

  private:
    Filter filter;
    std::mutex mutex;
};
