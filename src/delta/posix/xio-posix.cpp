// The POSIX half of the file layer. Writes "at the end of the file" become O_APPEND writes;
// an overlapped write becomes a write carried out by a helper thread of the fd_aio_t, so it
// really runs while the caller hashes the same chunk. Small writes are done at once, since
// a thread hand-off would cost more than the write.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <limits>
#include <memory>
#include <new>

#include "delta/background-lane.h"
#include "delta/xio.h"

namespace {

constexpr size_t kBackgroundWriteMin = 64 * 1024;

void report(const xio_location& loc, const char* what, int code) {
    std::fprintf(stderr, "xio (%d): %s: Error Code %d\n", loc.line(), what, code);
}

// Writes all of `length` bytes; the count, or -1 with errno set.
int64_t writeAll(int handle, const void* buffer, size_t length) {
    const auto* p = static_cast<const uint8_t*>(buffer);
    size_t done = 0;
    while (done < length) {
        ssize_t n = ::write(handle, p + done, length - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) {
            errno = EIO;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<int64_t>(done);
}

}  // namespace

struct fd_aio_impl {
    BackgroundLane lane;
    BackgroundLane::SliceFn job;
    int handle = FD_INVALID_HANDLE;
    const void* buffer = nullptr;
    size_t length = 0;
    int64_t result = 0;
    int error = 0;
    bool pending = false;

    void run() {
        result = writeAll(handle, buffer, length);
        error = result < 0 ? errno : 0;
    }
};

fd_aio_t::fd_aio_t() {
    try {
        impl = std::make_unique<fd_aio_impl>();
        impl->job = [state = impl.get()](size_t) { state->run(); };
    } catch (const std::bad_alloc&) {
        report(xio_location::current(), "CreateEvent", ENOMEM);
        throw;
    }
}

fd_aio_t::~fd_aio_t() {
    if (impl) impl->lane.wait();
}

int fd_open_read(const xio_string_type& path, fd_t& fd, const xio_location& loc) {
    int handle = ::open(path.c_str_utf8(), O_RDONLY | O_CLOEXEC);
    if (handle < 0) {
        report(loc, "CreateFile", errno);
        return -1;
    }
    ::posix_fadvise(handle, 0, 0, POSIX_FADV_SEQUENTIAL);
    fd.handle = handle;
    return 0;
}

int fd_open_write(const xio_string_type& path, fd_t& fd, const xio_location& loc) {
    int handle =
        ::open(path.c_str_utf8(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666);
    if (handle < 0) {
        report(loc, "CreateFile", errno);
        return -1;
    }
    ::posix_fadvise(handle, 0, 0, POSIX_FADV_SEQUENTIAL);
    fd.handle = handle;
    return 0;
}

void fd_close(fd_t& fd) {
    if (!fd_is_open(fd)) return;
    ::close(fd.handle);
    fd.handle = FD_INVALID_HANDLE;
}

int64_t fd_read(fd_t& fd, void* buffer, size_t length, const xio_location& loc) {
    ssize_t n;
    do {
        n = ::read(fd.handle, buffer, length);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        report(loc, "ReadFile", errno);
        return -1;
    }
    return n;
}

int64_t fd_write(fd_t& fd, const void* buffer, size_t length, const xio_location& loc) {
    int64_t n = writeAll(fd.handle, buffer, length);
    if (n < 0) {
        report(loc, "fd_aio_write", errno);
        return -1;
    }
    return n;
}

int fd_seek(fd_t& fd, uint64_t offset, const xio_location& loc) {
    if (offset > static_cast<uint64_t>(std::numeric_limits<off_t>::max())) {
        report(loc, "SetFilePointer", EINVAL);
        return -1;
    }
    if (::lseek(fd.handle, static_cast<off_t>(offset), SEEK_SET) < 0) {
        report(loc, "SetFilePointer", errno);
        return -1;
    }
    return 0;
}

int fd_sync(fd_t& fd, const xio_location& loc) {
    if (!fd_is_open(fd)) return -1;
    if (::fsync(fd.handle) != 0) {
        report(loc, "FlushFileBuffers", errno);
        return -1;
    }
    return 0;
}

int fd_stat(fd_t& fd, uint64_t& size, const xio_location& loc) {
    struct stat st;
    if (::fstat(fd.handle, &st) != 0) {
        report(loc, "GetFileInformationByHandle", errno);
        return -1;
    }
    size = static_cast<uint64_t>(st.st_size);
    return 0;
}

int fd_aio_write(fd_aio_t& aio, fd_t& fd, const void* buffer, size_t length,
                 const xio_location& loc) {
    fd_aio_impl& state = *aio.impl;
    if (!fd_is_open(fd)) {
        report(loc, "WriteFile", EBADF);
        return -1;
    }
    aio.file = fd;
    state.handle = fd.handle;
    state.buffer = buffer;
    state.length = length;
    state.pending = true;
    state.lane.start(1, state.job, length >= kBackgroundWriteMin);
    return 0;
}

int64_t fd_aio_wait(fd_aio_t& aio, const xio_location& loc) {
    fd_aio_impl& state = *aio.impl;
    if (!state.pending) {
        report(loc, "GetOverlappedResult", EINVAL);
        return -1;
    }
    state.lane.wait();
    state.pending = false;
    if (state.result < 0) {
        report(loc, "GetOverlappedResult", state.error);
        return -1;
    }
    return state.result;
}
