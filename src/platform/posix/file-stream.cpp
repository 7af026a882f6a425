// file-stream.cpp (POSIX): file primitives behind the wire encoding's binaries.
#include "platform/file-stream.h"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>
#include <cerrno>

namespace platform {

namespace {

int fail(int* err) {
    if (err != nullptr) *err = errno;
    return -1;
}

int open_flags(char mode) {
    switch (mode) {
        case 'a':
            return O_WRONLY | O_CREAT | O_APPEND;
        case 'r':
            return O_RDONLY;
        case 'w':
            return O_WRONLY | O_CREAT | O_TRUNC;
        default:
            return O_RDWR | O_CREAT | O_TRUNC;
    }
}

}  // namespace

int open_for_stream(const char* path, char mode, int* err) {
    int fd;
    do {
        fd = ::open(path, open_flags(mode) | O_CLOEXEC, 0644);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return fail(err);
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return fd;
}

FILE* stream_from_fd(int fd, const char* mode, int* err) {
    FILE* fp = ::fdopen(fd, mode);
    if (fp != nullptr) return fp;
    fail(err);
    ::close(fd);
    return nullptr;
}

int truncate_file(const char* path, uint64_t length, int* stage, int* err) {
    *stage = 0;
    int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return fail(err);
    *stage = 1;
    int rc;
    do {
        rc = ::ftruncate(fd, static_cast<off_t>(length));
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) fail(err);
    ::close(fd);
    return rc == 0 ? 0 : -1;
}

int seek_stream(FILE* fp, uint64_t offset, int* err) {
    if (::fseeko(fp, static_cast<off_t>(offset), SEEK_SET) != 0) return fail(err);
    return 0;
}

bool is_no_space(int err) {
    return err == ENOSPC;
}

}  // namespace platform
