// file-op.cpp: the file layer on the platform seam.
#include "foundation/file-op.h"

#include <unicode/uchar.h>
#include <unicode/ustring.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <new>
#include <string>

#include "foundation/log.h"
#include "foundation/tmp-name-gen.h"

std::atomic<bool> is_fat{false};

namespace {

const char kLog[] = "file_op_debug";
constexpr size_t kCopyBuffer = 33554432;
constexpr int kMktempAttempts = 16;

using platform::DirItem;
using platform::DirReader;
using platform::NodeInfo;
using platform::NodeKind;
using platform::VolumeInfo;

platform::FileSystem& fs() {
    return platform::file_system();
}

FILE_TYPE type_of(NodeKind kind) {
    switch (kind) {
        case NodeKind::kFile:
            return FT_FILE;
        case NodeKind::kDirectory:
            return FT_DIR;
        case NodeKind::kSymlink:
            return FT_SLINK;
        case NodeKind::kOther:
            break;
    }
    return FT_ERR;
}

// The path without trailing separators; the root stays "/".
std::string trimmed(const ustring& path) {
    std::string p = path.str();
    while (p.size() > 1 && platform::is_path_separator(p.back())) p.pop_back();
    return p;
}

size_t last_separator(const std::string& p) {
    for (size_t i = p.size(); i > 0; --i)
        if (platform::is_path_separator(p[i - 1])) return i - 1;
    return std::string::npos;
}

std::string parent_of(const std::string& p) {
    size_t cut = last_separator(p);
    if (cut == std::string::npos) return ".";
    return cut == 0 ? std::string("/") : p.substr(0, cut);
}

std::string name_of(const std::string& p) {
    size_t cut = last_separator(p);
    return cut == std::string::npos ? p : p.substr(cut + 1);
}

ustring join(const ustring& dir, const std::string& name) {
    if (!dir.empty() && platform::is_path_separator(dir[dir.length() - 1]))
        return dir + name.c_str();
    return dir + "/" + name.c_str();
}

// Errors that say no object answers to the name, as opposed to one that cannot be
// examined: those must never be mistaken for a removal.
bool means_absent(int err) {
    return err == ENOENT || err == ENOTDIR || err == ENAMETOOLONG || err == ELOOP;
}

// Bytes that are not printable ASCII as \xNN, for logging names of unknown encoding.
std::string printable(const std::string& raw) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : raw) {
        if (c >= 0x20 && c < 0x7f && c != '\\') {
            out += static_cast<char>(c);
            continue;
        }
        out += "\\x";
        out += kHex[c >> 4];
        out += kHex[c & 15];
    }
    return out;
}

// The next entry whose name is valid UTF-8; others are logged and skipped, since a
// path built from them could not be spelled on the wire or in the databases.
int next_named(DirReader& reader, DirItem& item, bool with_stat, const ustring& dir, int* err) {
    for (;;) {
        int rc = reader.next(item, with_stat, err);
        if (rc <= 0) return rc;
        if (ustring::is_valid(ustring(item.name))) return rc;
        Logger::LogMsg(Logger::L_WARNING, kLog,
                       "[WARNING] file-op-win(%d): skipped '%s' in '%s': name is not UTF-8\n",
                       __LINE__, printable(item.name).c_str(), dir.c_str_utf8());
    }
}

bool is_dot(const std::string& name) {
    return name == "." || name == "..";
}

enum class Probe { kPresent, kAbsent, kError };

// Whether `name` is listed in `dir` with exactly these bytes.
Probe listed_exactly(const std::string& dir, const std::string& name, int& err) {
    std::unique_ptr<DirReader> reader;
    if (fs().open_dir(dir.c_str(), false, reader, &err) != 0) return Probe::kError;
    DirItem item;
    int rc;
    while ((rc = reader->next(item, false, &err)) > 0)
        if (item.name == name) return Probe::kPresent;
    return rc == 0 ? Probe::kAbsent : Probe::kError;
}

// On a case-sensitive volume the name that was found is the name asked for. On a
// folding volume a lookup also finds other spellings, so only the listing tells.
Probe case_matches(const std::string& p, int& err) {
    std::string name = name_of(p);
    if (name.empty() || is_dot(name)) return Probe::kPresent;
    std::string dir = parent_of(p);
    VolumeInfo vol;
    if (fs().volume_info(dir.c_str(), vol, &err) != 0) return Probe::kError;
    if (!vol.folds_case) return Probe::kPresent;
    return listed_exactly(dir, name, err);
}

Probe probe(const ustring& path, bool do_case_check, NodeInfo& node, int& err) {
    if (path.empty()) return Probe::kAbsent;
    std::string p = trimmed(path);
    if (fs().lstat(p.c_str(), node, &err) != 0)
        return means_absent(err) ? Probe::kAbsent : Probe::kError;
    return do_case_check ? case_matches(p, err) : Probe::kPresent;
}

// The volume of the nearest existing ancestor of `path`.
int volume_of(const ustring& path, VolumeInfo& vol, int& err) {
    std::string p = trimmed(path);
    for (;;) {
        if (fs().volume_info(p.c_str(), vol, &err) == 0) return 0;
        if (!means_absent(err) || p == "/") return -1;
        p = parent_of(p);
    }
}

bool is_absolute(const ustring& path) {
    return !path.empty() && platform::is_path_separator(path[0]);
}

}  // namespace

bool _FILE_INFO_tag::operator==(const _FILE_INFO_tag& o) const {
    return isExist == o.isExist && size == o.size && mtime == o.mtime && type == o.type &&
           path == o.path && name == o.name;
}

int FSInitialize(int, int) {
    return 0;
}

int FSChown(const ustring&) {
    return 0;
}

int FSInit(const ustring& path) {
    if (!is_absolute(path)) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] file-op-win(%d): FSInit: Invalid path (%s)\n",
                       __LINE__, path.c_str_utf8());
        return -1;
    }
    VolumeInfo vol;
    int err = 0;
    if (volume_of(path, vol, err) != 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-op-win(%d): GetVolumeInformation: Error code %d\n", __LINE__,
                       err);
        return -1;
    }
    if (vol.is_fat) {
        Logger::LogMsg(Logger::L_WARNING, kLog,
                       "[WARNING] file-op-win(%d): Detect a non-NTFS platform (%s)\n", __LINE__,
                       vol.fs_name.c_str());
        is_fat = true;
    }
    return 0;
}

bool IsMSDOS(const ustring& path) {
    if (!is_absolute(path)) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-op-win(%d): IsSupportLargeFile: Invalid path (%s)\n", __LINE__,
                       path.c_str_utf8());
        return false;
    }
    VolumeInfo vol;
    int err = 0;
    if (volume_of(path, vol, err) != 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-op-win(%d): GetVolumeInformation: Error code %d\n", __LINE__,
                       err);
        return false;
    }
    if (!vol.is_fat) return false;
    Logger::LogMsg(Logger::L_WARNING, kLog,
                   "[WARNING] file-op-win(%d): Detect a non-NTFS platform (%s) for path '%s'.\n",
                   __LINE__, vol.fs_name.c_str(), path.c_str_utf8());
    return true;
}

bool IsFileExist(const ustring& path, bool do_case_check) {
    NodeInfo node;
    int err = 0;
    Probe found = probe(path, do_case_check, node, err);
    if (found == Probe::kError)
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] file-op-win(%d): FindFirstFile: %d\n",
                       __LINE__, err);
    return found == Probe::kPresent;
}

int FSStat(const ustring& path, FILE_INFO& info, bool do_case_check) {
    NodeInfo node;
    int err = 0;
    switch (probe(path, do_case_check, node, err)) {
        case Probe::kAbsent:
            info.isExist = false;
            return 0;
        case Probe::kError:
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] file-op-win(%d): FSStat: Failed on %s. Error code %d\n",
                           __LINE__, path.c_str_utf8(), err);
            return -1;
        case Probe::kPresent:
            break;
    }
    info.isExist = true;
    info.path = path;
    info.size = node.size;
    info.mtime = static_cast<uint32_t>(node.mtime);
    info.type = type_of(node.kind);
    return 0;
}

int FSOpenDir(const ustring& path, int flag, DIR_HANDLE& dh) {
    dh.path = path;
    dh.flag = flag;
    dh.handle.reset();
    return 0;
}

int FSReadDir(DIR_HANDLE& dh, DIR_ENTRY& entry) {
    int err = 0;
    if (!dh.handle) {
        if (dh.path.empty()) return -1;
        if (fs().open_dir(dh.path.c_str_utf8(), false, dh.handle, &err) != 0) {
            Logger::LogMsg(Logger::L_DEBUG, kLog,
                           "[DEBUG] file-op-win(%d): FSReadDir: cannot list '%s', error code %d\n",
                           __LINE__, dh.path.c_str_utf8(), err);
            return -1;
        }
    }
    const bool with_stat = (dh.flag & 1) != 0;
    DirItem item;
    int rc = next_named(*dh.handle, item, with_stat, dh.path, &err);
    if (rc <= 0) return rc;
    entry.name = ustring(item.name);
    entry.type = type_of(item.kind);
    entry.mtime = with_stat ? static_cast<uint32_t>(item.mtime) : 0;
    entry.size = with_stat && entry.type == FT_FILE ? item.size : 0;
    return 1;
}

void FSCloseDir(DIR_HANDLE& dh) {
    dh.handle.reset();
    dh.path.clear();
}

int TraverseDir(const ustring& dir, int (*fn)(const ustring& path, void* priv), void* pPriv) {
    if (fn(dir, pPriv) != 0) return -2;
    FILE_INFO info;
    if (FSStat(dir, info, true) != 0 || !info.isExist || info.type != FT_DIR) {
        Logger::LogMsg(Logger::L_DEBUG, kLog,
                       "[DEBUG] file-op-win(%d): TraverseDir: '%s' is not directory, stop here\n",
                       __LINE__, dir.c_str_utf8());
        return 0;
    }
    std::unique_ptr<DirReader> reader;
    int err = 0;
    if (fs().open_dir(dir.c_str_utf8(), true, reader, &err) != 0) return -1;
    DirItem item;
    while (next_named(*reader, item, false, dir, &err) > 0) {
        if (is_dot(item.name)) continue;
        ustring child = join(dir, item.name);
        bool stop = item.kind == NodeKind::kDirectory ? TraverseDir(child, fn, pPriv) < 0
                                                      : fn(child, pPriv) != 0;
        if (stop) {
            Logger::LogMsg(Logger::L_NOTICE, kLog,
                           "[NOTE] file-op-win(%d): TraverseDir: stopped at '%s'\n", __LINE__,
                           child.c_str_utf8());
            break;
        }
    }
    return 0;
}

namespace {

enum class Step { kDone, kFailed, kBlocked };

// One element of FSMKDirP: present, made, failed (the walk goes on), or blocked by
// a non-directory (the walk stops).
Step make_element(const std::string& prefix, bool last, bool force) {
    NodeInfo node;
    int err = 0;
    if (fs().stat(prefix.c_str(), node, &err) == 0) {
        if (node.kind == NodeKind::kDirectory) return Step::kDone;
        if (!force) {
            errno = last ? EEXIST : ENOTDIR;
            return Step::kBlocked;
        }
        fs().remove_file(prefix.c_str(), nullptr);
    }
    if (fs().mkdir(prefix.c_str(), 0777, &err) != 0) {
        Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] file-op-win(%d): FSMKDirP fail: %s\n",
                       __LINE__, prefix.c_str());
        errno = err;
        return Step::kFailed;
    }
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] file-op-win(%d): FSMKDirP: %s\n", __LINE__,
                   prefix.c_str());
    return Step::kDone;
}

size_t next_separator(const std::string& p, size_t from) {
    for (size_t i = from; i < p.size(); ++i)
        if (platform::is_path_separator(p[i])) return i;
    return std::string::npos;
}

}  // namespace

int FSMKDirP(const ustring& path, char**, bool blForceCreate, int, int, unsigned int) {
    if (path.empty()) {
        errno = EINVAL;
        return -1;
    }
    std::string p = path.str();
    size_t first = next_separator(p, 0);
    if (first == std::string::npos || first + 1 == p.size()) return 0;
    int result = 0;
    for (size_t pos = first + 1; pos < p.size();) {
        size_t sep = next_separator(p, pos);
        size_t end = sep == std::string::npos ? p.size() : sep;
        if (end > pos) {
            bool last = end == p.size() || end + 1 == p.size();
            Step step = make_element(p.substr(0, end), last, blForceCreate);
            if (step == Step::kBlocked) return -1;
            result = step == Step::kDone ? 0 : -1;
        }
        pos = end + 1;
    }
    return result;
}

int FSMKDir(const ustring& path, bool isCreateParent) {
    if (isCreateParent) return FSMKDirP(path);
    int err = 0;
    if (fs().mkdir(path.c_str_utf8(), 0777, &err) == 0 || err == EEXIST) return 0;
    Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] file-op-win(%d): FSMKDirP: error code %d\n",
                   __LINE__, err);
    return -1;
}

int RemoveDirectoryRecursive(const ustring& path) {
    std::unique_ptr<DirReader> reader;
    int err = 0;
    if (fs().open_dir(path.c_str_utf8(), true, reader, &err) != 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-op-win(%d): RemoveDirectoryRecursive: error code %d\n",
                       __LINE__, err);
        return -1;
    }
    int result = 0;
    DirItem item;
    while (next_named(*reader, item, false, path, &err) > 0) {
        if (is_dot(item.name)) continue;
        ustring child = join(path, item.name);
        if (item.kind == NodeKind::kDirectory) {
            // A sub-tree that is left behind makes our own removal fail below.
            RemoveDirectoryRecursive(child);
            continue;
        }
        if (fs().remove_file(child.c_str_utf8(), &err) != 0) {
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] file-op-win(%d): DeleteFile: error code %d\n", __LINE__, err);
            result = -1;
        }
    }
    reader.reset();
    if (fs().remove_dir(path.c_str_utf8(), &err) != 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-op-win(%d): RemoveDirectory: error code %d\n", __LINE__, err);
        return -1;
    }
    return result;
}

int FSRemove(const ustring& path, bool allowundo) {
    if (path.empty()) return -1;
    FILE_INFO finfo;
    if (FSStat(path, finfo, true) != 0) return -1;
    if (!finfo.isExist) return 0;
    if (allowundo) {
        static std::mutex trash_lock;
        std::lock_guard<std::mutex> guard(trash_lock);
        int err = 0;
        if (fs().move_to_trash(path.c_str_utf8(), &err) == 0) return 0;
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-op-win(%d): SHFileOperation fail: %s %s  GetLastError:%d   "
                       "return code: %d=%x\n",
                       __LINE__, path.c_str_utf8(), "to trash", err, err, err);
        return -3;
    }
    if (finfo.type == FT_DIR) return RemoveDirectoryRecursive(path);
    if (finfo.type != FT_FILE) return -1;
    int err = 0;
    if (fs().remove_file(path.c_str_utf8(), &err) == 0) return 0;
    Logger::LogMsg(Logger::L_ERR, kLog,
                   "[ERROR] file-op-win(%d): FSRemove: failed on %s. error code %d\n", __LINE__,
                   path.c_str_utf8(), err);
    return -1;
}

int FSRename(const ustring& from, const ustring& to, bool) {
    int err = 0;
    {
        static std::mutex rename_lock;
        std::lock_guard<std::mutex> guard(rename_lock);
        if (fs().rename_replace(from.c_str_utf8(), to.c_str_utf8(), &err) != 0) {
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] file-op-win(%d): FSRename: error code %d\n", __LINE__, err);
            return err == ENAMETOOLONG ? -100 : -1;
        }
    }
    // The rename is done either way; flushing its directory keeps it across a crash,
    // and is done outside the lock so renames do not queue behind the disk.
    std::string dir = parent_of(trimmed(to));
    if (fs().sync_dir(dir.c_str(), &err) != 0)
        Logger::LogMsg(Logger::L_WARNING, kLog,
                       "[WARNING] file-op-win(%d): FSRename: cannot flush '%s', error code %d\n",
                       __LINE__, dir.c_str(), err);
    return 0;
}

namespace {

// Moves every byte of src to dst: 0; -1; -2 when the disk is full.
int copy_content(platform::File& src, platform::File& dst, char* buf) {
    int err = 0;
    for (;;) {
        int64_t got = src.read(buf, kCopyBuffer, &err);
        if (got < 0) {
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] file-op-win(%d): FSCopy: ReadFile failed with error code %d\n",
                           __LINE__, err);
            return -1;
        }
        if (got == 0) break;
        if (dst.write(buf, static_cast<size_t>(got), &err) < 0) {
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] file-op-win(%d): FSCopy: WriteFile failed with error code %d\n",
                           __LINE__, err);
            return err == ENOSPC || err == EDQUOT ? -2 : -1;
        }
    }
    if (dst.close(&err) != 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-op-win(%d): FSCopy: WriteFile failed with error code %d\n",
                       __LINE__, err);
        return err == ENOSPC || err == EDQUOT ? -2 : -1;
    }
    return 0;
}

}  // namespace

int FSCopy(const ustring& from, const ustring& to, bool isDelOrigin) {
    std::unique_ptr<platform::File> src;
    std::unique_ptr<platform::File> dst;
    int err = 0;
    if (fs().open(from.c_str_utf8(), platform::kOpenRead | platform::kOpenNonBlock, src, &err) !=
        0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-op-win(%d): FSCopy: Invalid source (%s). Error code %d\n",
                       __LINE__, from.c_str_utf8(), err);
        return -1;
    }
    // Never write through a link: the destination is always a name of our own tree.
    const int dst_flags = platform::kOpenWrite | platform::kOpenCreate | platform::kOpenTruncate |
                          platform::kOpenNoFollow;
    if (fs().open(to.c_str_utf8(), dst_flags, dst, &err) != 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-op-win(%d): FSCopy: Invalid destination. Error code %d\n",
                       __LINE__, err);
        return -1;
    }
    std::unique_ptr<char[]> buf(new (std::nothrow) char[kCopyBuffer]);
    if (!buf) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-op-win(%d): FSCopy: Buffer allocated failed\n", __LINE__);
        return -1;
    }
    int result = copy_content(*src, *dst, buf.get());
    buf.reset();
    src.reset();
    dst.reset();
    if (!isDelOrigin) return result;
    if (fs().remove_file(from.c_str_utf8(), &err) != 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-op-win(%d): FSCopy: DeleteFile failed with error code %d\n",
                       __LINE__, err);
        return -1;
    }
    return result;
}

int FSUTime(const ustring& path, time_t, time_t mtime) {
    int64_t t = mtime;
    if (is_fat) t &= ~static_cast<int64_t>(1);
    int err = 0;
    if (fs().set_mtime(path.c_str_utf8(), t, &err) == 0) return 0;
    Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] file-op-win(%d): FSUTime: error code %d\n",
                   __LINE__, err);
    return -1;
}

bool FSTimeEqual(time_t a, time_t b) {
    if (!is_fat) return a == b;
    return a > b ? a - b < 2 : b - a < 2;
}

namespace {

bool same_without_case(const std::string& a, const std::string& b) {
    ustring ua(a);
    ustring ub(b);
    return u_strcasecmp(ua.c_str(), ub.c_str(), U_FOLD_CASE_DEFAULT) == 0;
}

// The spelling under which `dir` lists `name`: the exact bytes when listed, else a
// spelling that differs only in case, else `name` unchanged.
std::string listed_spelling(const std::string& dir, const std::string& name) {
    VolumeInfo vol;
    int err = 0;
    if (is_dot(name) || fs().volume_info(dir.c_str(), vol, &err) != 0 || !vol.folds_case)
        return name;
    std::unique_ptr<DirReader> reader;
    if (fs().open_dir(dir.c_str(), false, reader, &err) != 0) return name;
    std::string folded_match;
    DirItem item;
    while (reader->next(item, false, &err) > 0) {
        if (item.name == name) return name;
        if (folded_match.empty() && ustring::is_valid(ustring(item.name)) &&
            same_without_case(item.name, name))
            folded_match = item.name;
    }
    return folded_match.empty() ? name : folded_match;
}

}  // namespace

int FSGetRealPath(ustring& path) {
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] file-op-win(%d):  org path [%s]\n", __LINE__,
                   path.c_str_utf8());
    NodeInfo node;
    int err = 0;
    std::string p = trimmed(path);
    if (path.empty() || fs().lstat(p.c_str(), node, &err) != 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-op-win(%d): Cannot Get Short Path name for [%s].\n", __LINE__,
                       path.c_str_utf8());
        return -1;
    }
    std::string real = is_absolute(path) ? "/" : "";
    for (size_t pos = 0; pos < p.size();) {
        size_t sep = next_separator(p, pos);
        size_t end = sep == std::string::npos ? p.size() : sep;
        if (end > pos) {
            std::string dir = real.empty() ? "." : trimmed(ustring(real));
            if (!real.empty() && real.back() != '/') real += '/';
            real += listed_spelling(dir, p.substr(pos, end - pos));
        }
        pos = end + 1;
    }
    size_t keep = real.find_last_not_of('/');
    if (keep == std::string::npos) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] file-op-win(%d): Unexpected error, Null path is resolved. path = "
                       "[%s]\n",
                       __LINE__, path.c_str_utf8());
        return -1;
    }
    path = ustring(real.substr(0, keep + 1));
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] file-op-win(%d):  get full path [%s].\n",
                   __LINE__, path.c_str_utf8());
    return 0;
}

namespace {

// Failures that mean "someone or something forbids this access now".
bool means_locked(int err) {
    return err == EACCES || err == EPERM || err == ETXTBSY || err == EBUSY || err == EROFS ||
           err == EAGAIN;
}

// Reading needs an open; writing is tested without opening the file for write, which
// a change watcher would see as a modification.
bool file_locked(const std::string& p, bool read, bool write) {
    int err = 0;
    if (write && fs().access(p.c_str(), platform::kAccessWrite, &err) != 0)
        return means_locked(err);
    std::unique_ptr<platform::File> file;
    const int flags = platform::kOpenRead | platform::kOpenNoFollow | platform::kOpenNonBlock;
    if (fs().open(p.c_str(), flags, file, &err) != 0) return read && means_locked(err);
    return file->lock_conflict(write, &err) == 1;
}

bool dir_locked(const std::string& p, bool read, bool write) {
    int how = (read ? platform::kAccessRead : 0) | (write ? platform::kAccessWrite : 0);
    if (how == 0) return false;
    int err = 0;
    return fs().access(p.c_str(), how | platform::kAccessExecute, &err) != 0 && means_locked(err);
}

}  // namespace

bool isFileLocked(const ustring& path, uint32_t flag) {
    NodeInfo node;
    int err = 0;
    std::string p = trimmed(path);
    if (path.empty() || fs().lstat(p.c_str(), node, &err) != 0) return false;
    const bool read = (flag & FS_GENERIC_READ) != 0;
    const bool write = (flag & FS_GENERIC_WRITE) != 0;
    if (node.kind == NodeKind::kFile && (read || write) && file_locked(p, read, write)) return true;
    if (node.kind == NodeKind::kDirectory && dir_locked(p, read, write)) return true;
    if ((flag & FS_DELETE) == 0) return false;
    std::string dir = parent_of(p);
    const int how = platform::kAccessWrite | platform::kAccessExecute;
    return fs().access(dir.c_str(), how, &err) != 0 && means_locked(err);
}

int FSMktemp(const ustring& prefix, ustring& path) {
    Logger::LogMsg(Logger::L_DEBUG, kLog,
                   "[DEBUG] file-op-win(%d): FSMktemp: prefix [%s], path[%s]\n", __LINE__,
                   prefix.c_str_utf8(), path.c_str_utf8());
    for (int attempt = 0; attempt < kMktempAttempts; ++attempt) {
        ustring name = TmpNameGen::getTmpName(prefix);
        if (name.empty()) {
            Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] file-op-win(%d): FSMktemp failed.\n",
                           __LINE__);
            return -1;
        }
        std::unique_ptr<platform::File> file;
        int err = 0;
        const int flags = platform::kOpenWrite | platform::kOpenCreate | platform::kOpenExclusive;
        if (fs().open(name.c_str_utf8(), flags, file, &err) == 0) {
            if (file->close(&err) != 0) {
                fs().remove_file(name.c_str_utf8(), nullptr);
                return -1;
            }
            path = name;
            return 0;
        }
        // Exclusive creation never truncates someone else's file; a taken name
        // simply asks for another.
        if (err != EEXIST) {
            Logger::LogMsg(Logger::L_ERR, kLog,
                           "[ERROR] file-op-win(%d): FSMktemp: cannot create '%s'. Error code %d\n",
                           __LINE__, name.c_str_utf8(), err);
            return -1;
        }
    }
    Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] file-op-win(%d): FSMktemp failed.\n", __LINE__);
    return -1;
}

int FSCreateTempPath(const ustring& prefix, ustring& path) {
    ustring name = TmpNameGen::getTmpName(prefix);
    if (name.empty()) return -1;
    path = name;
    return 0;
}
