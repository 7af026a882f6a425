// fs.h: the file system primitives of the platform seam. Neutral code reaches the
// disk only through a FileSystem; the POSIX backend is the default, and tests install
// a wrapper that fails or delays chosen operations. Paths are UTF-8 bytes.
//
// Results: 0 or more on success, -1 on failure with the platform's error number in
// *err when err is not null. Error numbers are POSIX errno values on every platform
// (a Windows backend translates its own codes), so neutral code can tell ENOENT,
// ENOSPC, ENAMETOOLONG and EACCES apart without system headers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace platform {

// What an object is, as seen without following a final symbolic link.
enum class NodeKind { kFile, kDirectory, kSymlink, kOther };

struct NodeInfo {
    NodeKind kind = NodeKind::kOther;
    uint64_t size = 0;    // bytes; 0 for directories
    int64_t mtime = 0;    // last modification, whole seconds since 1970-01-01 UTC
    uint32_t mode = 0;    // permission bits (07777)
    uint32_t uid = 0;     // owner
    uint64_t device = 0;  // the volume holding the object; equal values share a volume
};

// The kind of storage behind a volume, as far as synchronisation cares.
enum class VolumeClass { kFixed, kRemote, kOptical, kMemory };

struct VolumeInfo {
    std::string fs_name;  // "ext4", "vfat", "exfat", "nfs", "tmpfs"...; hex magic if unknown
    VolumeClass klass = VolumeClass::kFixed;
    bool is_fat = false;      // FAT or exFAT: two-second times, no ownership
    bool folds_case = false;  // names in the queried directory compare without case
};

// One name of a directory listing.
struct DirItem {
    std::string name;  // raw bytes as stored; "." and ".." are delivered too
    NodeKind kind = NodeKind::kOther;
    uint64_t size = 0;  // filled only when asked for
    int64_t mtime = 0;  // filled only when asked for
};

// An open directory listing. Owned by whoever opened it; closes on destruction.
class DirReader {
  public:
    virtual ~DirReader() = default;
    // 1 and the next item; 0 at the end; -1 on failure. With `with_stat`, size and
    // mtime are filled (without following a final link); an entry that vanished
    // before it could be examined is skipped.
    virtual int next(DirItem& item, bool with_stat, int* err) = 0;
};

// Open flags for FileSystem::open.
enum OpenFlag : int {
    kOpenRead = 1,
    kOpenWrite = 2,
    kOpenCreate = 4,        // create when absent (mode 0666 less the process's umask)
    kOpenTruncate = 8,      // empty an existing file
    kOpenExclusive = 16,    // with kOpenCreate: fail with EEXIST when the name exists
    kOpenNoFollow = 32,     // fail (ELOOP) when the final name is a symbolic link
    kOpenNonBlock = 64,     // never wait: for probing objects that might block an open
    kOpenAppend = 128,      // every write goes to the end of the file, whatever the position
    kOpenSequential = 256,  // a hint that the file is read or written front to back once
};

// An open file. Owned by whoever opened it; closes on destruction (errors lost).
class File {
  public:
    virtual ~File() = default;
    // Bytes read (0 at the end of the file), or -1.
    virtual int64_t read(void* buf, size_t n, int* err) = 0;
    // Writes all n bytes at the current position and returns n, or -1 (a full disk
    // gives ENOSPC or EDQUOT). Part of the data may be on disk after a failure.
    virtual int64_t write(const void* buf, size_t n, int* err) = 0;
    // Moves the position to `offset` from the start; the new position, or -1.
    virtual int64_t seek(int64_t offset, int* err) = 0;
    // Sets the length of the file; 0 or -1.
    virtual int truncate(uint64_t size, int* err) = 0;
    // The length of the file as the system knows it now (not the position); 0 or -1.
    virtual int size(uint64_t& out, int* err) = 0;
    // Sets the permission bits (07777) of the open file; 0 or -1.
    virtual int set_mode(uint32_t mode, int* err) = 0;
    // Flushes data and metadata to the device; 0 or -1.
    virtual int sync(int* err) = 0;
    // Whether someone else holds an advisory lock that conflicts with reading
    // (`for_write` false: a write lock) or with writing (any lock): 1, 0, or -1.
    virtual int lock_conflict(bool for_write, int* err) = 0;
    // Closes now and reports what the close reported; later calls fail with EBADF.
    virtual int close(int* err) = 0;
};

// Access bits for FileSystem::access, checked with the effective identity.
enum AccessFlag : int { kAccessExecute = 1, kAccessWrite = 2, kAccessRead = 4 };

class FileSystem {
  public:
    virtual ~FileSystem() = default;

    // Facts about the object itself; a final symbolic link is not followed.
    virtual int lstat(const char* path, NodeInfo& out, int* err) = 0;
    // Facts about the object after following symbolic links.
    virtual int stat(const char* path, NodeInfo& out, int* err) = 0;
    // Starts listing a directory. With `no_follow`, a final symbolic link is refused
    // (ELOOP) instead of listing its target, so a walk cannot leave its tree.
    virtual int open_dir(const char* path, bool no_follow, std::unique_ptr<DirReader>& out,
                         int* err) = 0;
    virtual int mkdir(const char* path, uint32_t mode, int* err) = 0;
    // Removes a name that is not a directory (a link is removed, never its target).
    virtual int remove_file(const char* path, int* err) = 0;
    // Removes an empty directory.
    virtual int remove_dir(const char* path, int* err) = 0;
    // Renames, atomically replacing an existing `to` (not a non-empty directory).
    virtual int rename_replace(const char* from, const char* to, int* err) = 0;
    // Renames but fails with EEXIST when `to` exists.
    virtual int rename_noreplace(const char* from, const char* to, int* err) = 0;
    // Sets the modification time of the object itself (not a link's target), whole
    // seconds; the access time is left alone.
    virtual int set_mtime(const char* path, int64_t mtime, int* err) = 0;
    virtual int truncate(const char* path, uint64_t size, int* err) = 0;
    // Opens with OpenFlag bits; `out` receives the file.
    virtual int open(const char* path, int flags, std::unique_ptr<File>& out, int* err) = 0;
    // Makes the names in a directory durable (after a rename or create into it).
    virtual int sync_dir(const char* path, int* err) = 0;
    // The volume holding `path` (a directory for `folds_case` to be meaningful).
    virtual int volume_info(const char* path, VolumeInfo& out, int* err) = 0;
    // 0 when every AccessFlag bit in `how` is granted, else -1 (EACCES, EROFS...).
    virtual int access(const char* path, int how, int* err) = 0;
    // Moves the object into the user's trash, from which the desktop can restore
    // it. Fails, deleting nothing, when no trash can take it.
    virtual int move_to_trash(const char* path, int* err) = 0;
};

// The file system in use: the one installed last, else the platform's own. Callers
// must not keep the reference across an install.
FileSystem& file_system();

// The platform's own file system, whatever is installed.
FileSystem& default_file_system();

// Installs `fs` for the whole process (null restores the default) and returns
// what was installed before (null for the default). For tests; not to be called
// while other threads use the layer.
FileSystem* install_file_system(FileSystem* fs);

// Renames `from` to `to` but refuses (fails with EEXIST) when `to` exists. The
// default file system's primitive, for code below the seam's users (the log).
int rename_noreplace(const char* from, const char* to, int* err = nullptr);

// Reads until `n` bytes or the end of the file: the count (short only at the end), or -1.
int64_t read_full(File& file, void* buf, size_t n, int* err);

// Whether an error number means "no space left on the device".
bool is_no_space(int err);

// Byte that separates path elements on this platform. A "\" is an ordinary name
// byte on POSIX systems; only the Windows backend treats it as a separator.
bool is_path_separator(char c);

}  // namespace platform
