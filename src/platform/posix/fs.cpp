// fs.cpp (POSIX): the default FileSystem of the platform seam, on Linux system calls.
#include "platform/fs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "platform/posix/trash.h"
#include "platform/posix/volume.h"

namespace platform {
namespace {

int fail(int* err) {
    if (err != nullptr) *err = errno;
    return -1;
}

NodeKind kind_of_mode(mode_t mode) {
    if (S_ISREG(mode)) return NodeKind::kFile;
    if (S_ISDIR(mode)) return NodeKind::kDirectory;
    if (S_ISLNK(mode)) return NodeKind::kSymlink;
    return NodeKind::kOther;
}

void fill_node(const struct stat& st, NodeInfo& out) {
    out.kind = kind_of_mode(st.st_mode);
    out.size = out.kind == NodeKind::kDirectory ? 0 : static_cast<uint64_t>(st.st_size);
    out.mtime = st.st_mtim.tv_sec;
    out.mode = st.st_mode & 07777;
    out.uid = st.st_uid;
    out.device = st.st_dev;
}

class PosixDirReader : public DirReader {
  public:
    explicit PosixDirReader(DIR* dir) : m_dir(dir) {}
    ~PosixDirReader() override { ::closedir(m_dir); }
    PosixDirReader(const PosixDirReader&) = delete;
    PosixDirReader& operator=(const PosixDirReader&) = delete;

    int next(DirItem& item, bool with_stat, int* err) override {
        for (;;) {
            errno = 0;
            const dirent* ent = ::readdir(m_dir);
            if (ent == nullptr) return errno == 0 ? 0 : fail(err);
            int rc = describe(ent, item, with_stat, err);
            if (rc != 0) return rc;
        }
    }

  private:
    // 1 when the item is filled, 0 when the entry vanished, -1 on failure.
    int describe(const dirent* ent, DirItem& item, bool with_stat, int* err) {
        item.name.assign(ent->d_name);
        item.size = 0;
        item.mtime = 0;
        if (!with_stat && ent->d_type != DT_UNKNOWN) {
            item.kind = kind_of_dtype(ent->d_type);
            return 1;
        }
        struct stat st {};
        if (::fstatat(::dirfd(m_dir), ent->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) return 0;
            return fail(err);
        }
        NodeInfo node;
        fill_node(st, node);
        item.kind = node.kind;
        if (with_stat) {
            item.size = node.size;
            item.mtime = node.mtime;
        }
        return 1;
    }

    static NodeKind kind_of_dtype(unsigned char t) {
        if (t == DT_REG) return NodeKind::kFile;
        if (t == DT_DIR) return NodeKind::kDirectory;
        if (t == DT_LNK) return NodeKind::kSymlink;
        return NodeKind::kOther;
    }

    DIR* m_dir;
};

class PosixFile : public File {
  public:
    explicit PosixFile(int fd) : m_fd(fd) {}
    ~PosixFile() override {
        if (m_fd >= 0) ::close(m_fd);
    }
    PosixFile(const PosixFile&) = delete;
    PosixFile& operator=(const PosixFile&) = delete;

    int64_t read(void* buf, size_t n, int* err) override {
        for (;;) {
            ssize_t got = ::read(m_fd, buf, n);
            if (got >= 0) return got;
            if (errno != EINTR) return fail(err);
        }
    }

    int64_t write(const void* buf, size_t n, int* err) override {
        const char* p = static_cast<const char*>(buf);
        size_t left = n;
        while (left > 0) {
            ssize_t put = ::write(m_fd, p, left);
            if (put < 0) {
                if (errno == EINTR) continue;
                return fail(err);
            }
            if (put == 0) {
                errno = EIO;
                return fail(err);
            }
            // A regular file only writes short when the device is full; the next
            // call then reports why.
            p += put;
            left -= static_cast<size_t>(put);
        }
        return static_cast<int64_t>(n);
    }

    int64_t seek(int64_t offset, int* err) override {
        off_t pos = ::lseek(m_fd, offset, SEEK_SET);
        return pos < 0 ? fail(err) : pos;
    }

    int truncate(uint64_t size, int* err) override {
        return ::ftruncate(m_fd, static_cast<off_t>(size)) == 0 ? 0 : fail(err);
    }

    int size(uint64_t& out, int* err) override {
        struct stat st {};
        if (::fstat(m_fd, &st) != 0) return fail(err);
        out = static_cast<uint64_t>(st.st_size);
        return 0;
    }

    int set_mode(uint32_t mode, int* err) override {
        return ::fchmod(m_fd, static_cast<mode_t>(mode & 07777)) == 0 ? 0 : fail(err);
    }

    int sync(int* err) override { return ::fsync(m_fd) == 0 ? 0 : fail(err); }

    int lock_conflict(bool for_write, int* err) override {
        // Open-file-description locks conflict between descriptions even within one
        // process, so a probe from this process sees locks this process holds elsewhere.
        struct flock fl {};
        fl.l_type = for_write ? F_WRLCK : F_RDLCK;
        fl.l_whence = SEEK_SET;
        if (::fcntl(m_fd, F_OFD_GETLK, &fl) != 0) return fail(err);
        return fl.l_type == F_UNLCK ? 0 : 1;
    }

    int close(int* err) override {
        int fd = m_fd;
        m_fd = -1;
        if (fd < 0) {
            errno = EBADF;
            return fail(err);
        }
        return ::close(fd) == 0 ? 0 : fail(err);
    }

  private:
    int m_fd;
};

int open_flags(int flags) {
    int f = O_CLOEXEC | O_NOCTTY;
    bool rd = (flags & kOpenRead) != 0;
    bool wr = (flags & kOpenWrite) != 0;
    f |= rd && wr ? O_RDWR : wr ? O_WRONLY : O_RDONLY;
    if (flags & kOpenCreate) f |= O_CREAT;
    if (flags & kOpenTruncate) f |= O_TRUNC;
    if (flags & kOpenExclusive) f |= O_EXCL;
    if (flags & kOpenNoFollow) f |= O_NOFOLLOW;
    if (flags & kOpenNonBlock) f |= O_NONBLOCK;
    if (flags & kOpenAppend) f |= O_APPEND;
    return f;
}

class PosixFileSystem : public FileSystem {
  public:
    int lstat(const char* path, NodeInfo& out, int* err) override {
        struct stat st {};
        if (::lstat(path, &st) != 0) return fail(err);
        fill_node(st, out);
        return 0;
    }

    int stat(const char* path, NodeInfo& out, int* err) override {
        struct stat st {};
        if (::stat(path, &st) != 0) return fail(err);
        fill_node(st, out);
        return 0;
    }

    int open_dir(const char* path, bool no_follow, std::unique_ptr<DirReader>& out,
                 int* err) override {
        int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (no_follow ? O_NOFOLLOW : 0);
        int fd = ::open(path, flags);
        if (fd < 0) {
            // Linux reports a refused final link as "not a directory"; say what it is.
            struct stat st {};
            if (no_follow && errno == ENOTDIR && ::lstat(path, &st) == 0 && S_ISLNK(st.st_mode))
                errno = ELOOP;
            return fail(err);
        }
        DIR* dir = ::fdopendir(fd);
        if (dir == nullptr) {
            int saved = errno;
            ::close(fd);
            errno = saved;
            return fail(err);
        }
        out = std::make_unique<PosixDirReader>(dir);
        return 0;
    }

    int mkdir(const char* path, uint32_t mode, int* err) override {
        return ::mkdir(path, static_cast<mode_t>(mode)) == 0 ? 0 : fail(err);
    }

    int remove_file(const char* path, int* err) override {
        return ::unlink(path) == 0 ? 0 : fail(err);
    }

    int remove_dir(const char* path, int* err) override {
        return ::rmdir(path) == 0 ? 0 : fail(err);
    }

    int rename_replace(const char* from, const char* to, int* err) override {
        return ::rename(from, to) == 0 ? 0 : fail(err);
    }

    int rename_noreplace(const char* from, const char* to, int* err) override {
        return platform::rename_noreplace(from, to, err);
    }

    int set_mtime(const char* path, int64_t mtime, int* err) override {
        timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(mtime), 0}};
        return ::utimensat(AT_FDCWD, path, times, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : fail(err);
    }

    int truncate(const char* path, uint64_t size, int* err) override {
        return ::truncate(path, static_cast<off_t>(size)) == 0 ? 0 : fail(err);
    }

    int open(const char* path, int flags, std::unique_ptr<File>& out, int* err) override {
        int fd;
        do {
            fd = ::open(path, open_flags(flags), 0666);
        } while (fd < 0 && errno == EINTR);
        if (fd < 0) return fail(err);
        if (flags & kOpenSequential) ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
        out = std::make_unique<PosixFile>(fd);
        return 0;
    }

    int sync_dir(const char* path, int* err) override {
        int fd = ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) return fail(err);
        int rc = ::fsync(fd);
        int saved = errno;
        ::close(fd);
        errno = saved;
        return rc == 0 ? 0 : fail(err);
    }

    int volume_info(const char* path, VolumeInfo& out, int* err) override {
        return posix_volume_info(path, out, err);
    }

    int access(const char* path, int how, int* err) override {
        int mode = 0;
        if (how & kAccessRead) mode |= R_OK;
        if (how & kAccessWrite) mode |= W_OK;
        if (how & kAccessExecute) mode |= X_OK;
        return ::faccessat(AT_FDCWD, path, mode, AT_EACCESS) == 0 ? 0 : fail(err);
    }

    int move_to_trash(const char* path, int* err) override {
        return freedesktop_trash(*this, path, err);
    }
};

std::atomic<FileSystem*> g_installed{nullptr};

}  // namespace

FileSystem& default_file_system() {
    static PosixFileSystem instance;
    return instance;
}

FileSystem& file_system() {
    FileSystem* fs = g_installed.load(std::memory_order_acquire);
    return fs != nullptr ? *fs : default_file_system();
}

FileSystem* install_file_system(FileSystem* fs) {
    return g_installed.exchange(fs, std::memory_order_acq_rel);
}

bool is_path_separator(char c) {
    return c == '/';
}

int rename_noreplace(const char* from, const char* to, int* err) {
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
    // Some file systems lack the flag; a hard link refuses an existing name as well.
    if (errno == EINVAL || errno == ENOSYS) {
        if (::link(from, to) == 0) {
            ::unlink(from);
            return 0;
        }
    }
    if (err != nullptr) *err = errno;
    return -1;
}

}  // namespace platform
