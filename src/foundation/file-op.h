// file-op.h: the daemon's file layer. Every access of the logic to the disk goes
// through these free functions, which turn platform failures into a few integer
// results and speak one vocabulary of type, time and existence. Used by the temp
// files, session set-up, the event tree, the databases, the workers and the filters.
//
// All calls go through platform::file_system(), log under "file_op_debug", and may
// be made from any thread. Paths are UTF-8; on this platform only "/" separates
// elements ("\" is an ordinary name byte). Times are 32-bit seconds since 1970.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>

#include "foundation/ustring.h"
#include "platform/fs.h"

enum _FILE_TYPE_tag : int32_t {
    FT_ERR = 0,    // unusable object: a device, FIFO or socket
    FT_FILE = 1,   // ordinary file
    FT_DIR = 2,    // directory
    FT_SLINK = 3,  // symbolic link, never followed
    FT_HLINK = 4,  // declared, never produced here
    FT_DEV = 5,    // declared, never produced here
    FT_FIFO = 6,   // declared, never produced here
    FT_SOCK = 7,   // declared, never produced here
};
typedef enum _FILE_TYPE_tag FILE_TYPE;

// What FSStat reports. There is no file identity here: callers may not assume that
// a file keeps any identifier across renames.
struct _FILE_INFO_tag {
    ustring path;  // the path asked about, as given
    ustring name;  // never filled by FSStat
    FILE_TYPE type = FT_ERR;
    uint32_t mtime = 0;  // last write, seconds since 1970-01-01 UTC
    uint64_t size = 0;   // bytes; 0 for directories
    bool isExist = false;
    uint32_t uid = 0;  // not filled on this platform
    uint32_t gid = 0;  // not filled on this platform

    // Compares isExist, size, mtime, type, path, name; ignores uid and gid.
    bool operator==(const _FILE_INFO_tag& o) const;
    bool operator!=(const _FILE_INFO_tag& o) const { return !(*this == o); }
};
typedef struct _FILE_INFO_tag FILE_INFO;

// An open directory iteration. `handle` is empty until the first FSReadDir.
struct DIR_HANDLE {
    ustring path;
    int flag = 0;  // bit 0: fill mtime and size of the entries
    std::unique_ptr<platform::DirReader> handle;
    DIR_HANDLE() = default;
};

// One name delivered by FSReadDir.
struct DIR_ENTRY {
    ustring name;  // bare name as on disk
    FILE_TYPE type = FT_ERR;
    uint32_t mtime = 0;
    uint64_t size = 0;  // FT_FILE entries only
};

// Set by FSInit on a FAT or exFAT volume and never cleared by the layer; makes
// FSUTime store even times and FSTimeEqual allow two seconds.
extern std::atomic<bool> is_fat;

// Access bits for isFileLocked (the values the callers share with other platforms).
constexpr uint32_t FS_GENERIC_READ = 0x80000000u;
constexpr uint32_t FS_GENERIC_WRITE = 0x40000000u;
constexpr uint32_t FS_DELETE = 0x00010000u;

// Ownership has no meaning on this platform: both do nothing and return 0.
int FSInitialize(int u, int g);
int FSChown(const ustring& path);

// Looks at the volume of an absolute path (of its nearest existing ancestor when it
// does not exist yet); sets is_fat on FAT or exFAT. 0; -1 for a path that is not
// absolute or a volume that cannot be queried.
int FSInit(const ustring& path);
// True when the volume of `path` is FAT or exFAT; false otherwise and on any failure.
bool IsMSDOS(const ustring& path);

// Whether an object exists by that name. With do_case_check the last element must
// also match the name as stored byte for byte (this only matters on a volume that
// folds case, where the layer compares against the directory listing).
bool IsFileExist(const ustring& path, bool do_case_check = false);

// Fills `info` from the object itself (a symbolic link is not followed). 0, also for
// an absent object (isExist false); -1 when the object may exist but cannot be
// examined (no search permission, I/O error).
int FSStat(const ustring& path, FILE_INFO& info, bool do_case_check = false);

// Records `path` and `flag` in `dh`; touches nothing on disk. Always 0.
int FSOpenDir(const ustring& path, int flag, DIR_HANDLE& dh);
// 1 and the next entry ("." and ".." included); 0 at the end; -1 when the directory
// cannot be listed. Names that are not valid UTF-8 are skipped with a warning.
int FSReadDir(DIR_HANDLE& dh, DIR_ENTRY& entry);
// Ends the listing and clears dh.path.
void FSCloseDir(DIR_HANDLE& dh);

// Depth-first walk: fn(dir) first, then fn for each non-directory entry, a
// sub-directory getting its call when the walk enters it. Symbolic links are never
// followed. 0; -2 when fn refuses `dir` itself; -1 when `dir` cannot be listed. A
// refusal deeper down ends only the level where it happened.
int TraverseDir(const ustring& dir, int (*fn)(const ustring& path, void* priv), void* pPriv);

// Creates a directory (with its parents when isCreateParent). Without parents an
// existing name is success, whatever it is; with them see FSMKDirP. 0; -1.
int FSMKDir(const ustring& path, bool isCreateParent = false);
// Creates every element of `path` after the first "/" (a leading root is never
// created). 0 for the last element made or present; -1 with errno set (EEXIST or
// ENOTDIR when a non-directory is in the way and blForceCreate is false).
// endptr, uid, gid and mode have no effect on this platform.
int FSMKDirP(const ustring& path, char** endptr = nullptr, bool blForceCreate = false, int uid = 0,
             int gid = 0, unsigned int mode = 0);

// Removes a file or a directory tree. With allowundo the object goes to the user's
// trash instead, and nothing is deleted if no trash can take it. 0, also for an absent
// path; -1 for an empty path or a failed removal (symbolic links and special files
// are not removed permanently); -3 when the trash refused.
int FSRemove(const ustring& path, bool allowundo = false);
// Deletes a directory tree without following symbolic links out of it; links are
// removed, never their targets. 0; -1 when anything could not be removed (the rest
// is still removed).
int RemoveDirectoryRecursive(const ustring& path);

// Renames atomically, replacing an existing `to`, and makes the new name durable.
// All renames of the process are serialised. 0; -100 when a name is too long;
// -1 otherwise. do_case_check is accepted and ignored.
int FSRename(const ustring& from, const ustring& to, bool do_case_check = false);

// Copies `from` over `to` in 32 MiB pieces. 0; -1; -2 when the disk filled up (the
// partial `to` stays). With isDelOrigin the source is deleted afterwards whatever the
// copy's outcome, and a failed deletion makes the result -1.
int FSCopy(const ustring& from, const ustring& to, bool isDelOrigin);

// Sets the object's last write time (a link's own). atime has no effect; with
// is_fat the time is rounded down to even. 0; -1.
int FSUTime(const ustring& path, time_t atime, time_t mtime);
// a == b, or |a - b| < 2 when is_fat is set.
bool FSTimeEqual(time_t a, time_t b);

// Replaces an existing `path` by its spelling on disk (each element as the
// directory lists it, trailing separators dropped). 0; -1 when it does not exist.
int FSGetRealPath(ustring& path);

// True when the object cannot now be opened with the access of `flag`
// (FS_GENERIC_READ, FS_GENERIC_WRITE, FS_DELETE): no permission, busy, or a
// conflicting lock held by someone else. An absent path is not locked.
bool isFileLocked(const ustring& path, uint32_t flag);

// Creates a new empty file under a fresh name `prefix`/XXXXXXXX; an existing name is
// never reused. 0 and `path` set; -1 with `path` unchanged.
int FSMktemp(const ustring& prefix, ustring& path);
// A fresh name `prefix`/XXXXXXXX; nothing is created. 0; -1.
int FSCreateTempPath(const ustring& prefix, ustring& path);
