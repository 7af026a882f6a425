// xio.cpp: file handles on the platform's files, ring buffers and the buffered view.
// Writes "at the end of the file" open the file in append mode; an overlapped write is
// carried out by a helper thread of the fd_aio_t, so it really runs while the caller hashes
// the same chunk. Small writes are done at once, since a thread hand-off would cost more
// than the write.
#include "delta/xio.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "delta/background-lane.h"

namespace {

constexpr size_t kBackgroundWriteMin = 64 * 1024;

// Callers read errno after a failed call to say why in their own messages.
void report(const xio_location& loc, const char* what, int code) {
    std::fprintf(stderr, "xio (%d): %s: Error Code %d\n", loc.line(), what, code);
    errno = code;
}

// The open file behind a handle, or null after reporting EBADF as `what`.
platform::File* file_of(const fd_t& fd, const xio_location& loc, const char* what) {
    if (fd.handle) return fd.handle.get();
    report(loc, what, EBADF);
    return nullptr;
}

int open_file(const xio_string_type& path, int flags, fd_t& fd, const xio_location& loc) {
    std::unique_ptr<platform::File> file;
    int err = 0;
    if (platform::file_system().open(path.c_str_utf8(), flags, file, &err) != 0) {
        report(loc, "CreateFile", err);
        return -1;
    }
    fd.handle = std::move(file);
    return 0;
}

}  // namespace

struct fd_aio_impl {
    BackgroundLane lane;
    BackgroundLane::SliceFn job;
    platform::File* file = nullptr;
    const void* buffer = nullptr;
    size_t length = 0;
    int64_t result = 0;
    int error = 0;
    bool pending = false;

    void run() { result = file->write(buffer, length, &error); }
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
    return open_file(path, platform::kOpenRead | platform::kOpenSequential, fd, loc);
}

int fd_open_write(const xio_string_type& path, fd_t& fd, const xio_location& loc) {
    return open_file(path,
                     platform::kOpenWrite | platform::kOpenCreate | platform::kOpenTruncate |
                         platform::kOpenAppend | platform::kOpenSequential,
                     fd, loc);
}

void fd_close(fd_t& fd) {
    if (!fd_is_open(fd)) return;
    fd.handle->close(nullptr);
    fd.handle.reset();
}

int64_t fd_read(fd_t& fd, void* buffer, size_t length, const xio_location& loc) {
    platform::File* file = file_of(fd, loc, "ReadFile");
    if (file == nullptr) return -1;
    int err = 0;
    int64_t n = file->read(buffer, length, &err);
    if (n < 0) report(loc, "ReadFile", err);
    return n;
}

int64_t fd_write(fd_t& fd, const void* buffer, size_t length, const xio_location& loc) {
    platform::File* file = file_of(fd, loc, "fd_aio_write");
    if (file == nullptr) return -1;
    int err = 0;
    int64_t n = file->write(buffer, length, &err);
    if (n < 0) report(loc, "fd_aio_write", err);
    return n;
}

int fd_seek(fd_t& fd, uint64_t offset, const xio_location& loc) {
    if (offset > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        report(loc, "SetFilePointer", EINVAL);
        return -1;
    }
    platform::File* file = file_of(fd, loc, "SetFilePointer");
    if (file == nullptr) return -1;
    int err = 0;
    if (file->seek(static_cast<int64_t>(offset), &err) < 0) {
        report(loc, "SetFilePointer", err);
        return -1;
    }
    return 0;
}

int fd_sync(fd_t& fd, const xio_location& loc) {
    if (!fd_is_open(fd)) return -1;
    int err = 0;
    if (fd.handle->sync(&err) != 0) {
        report(loc, "FlushFileBuffers", err);
        return -1;
    }
    return 0;
}

int fd_stat(fd_t& fd, uint64_t& size, const xio_location& loc) {
    platform::File* file = file_of(fd, loc, "GetFileInformationByHandle");
    if (file == nullptr) return -1;
    int err = 0;
    if (file->size(size, &err) != 0) {
        report(loc, "GetFileInformationByHandle", err);
        return -1;
    }
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
    state.file = fd.handle.get();
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

buffer_t::buffer_t(size_t cap) {
    capacity = cap == 0 ? 8192 : cap;
    data = static_cast<uint8_t*>(std::malloc(capacity));
    if (data == nullptr) {
        report(xio_location::current(), "malloc", errno);
        throw std::bad_alloc();
    }
}

buffer_t::~buffer_t() {
    std::free(data);
}

void buffer_clear(buffer_t& b) {
    b.size = 0;
    b.head = 0;
}

int buffer_resize(buffer_t& b, size_t capacity) {
    if (b.capacity >= capacity) return 0;
    if (b.size != 0) return -1;
    auto* data = static_cast<uint8_t*>(std::malloc(capacity));
    if (data == nullptr) return -1;
    std::free(b.data);
    b.data = data;
    b.capacity = capacity;
    buffer_clear(b);
    return 0;
}

size_t buffer_copy_in(buffer_t& b, const void* buffer, size_t length) {
    size_t count = std::min(length, buffer_left(b));
    size_t tail = (b.head + b.size) % b.capacity;
    size_t first = std::min(count, b.capacity - tail);
    const auto* src = static_cast<const uint8_t*>(buffer);
    std::memcpy(b.data + tail, src, first);
    std::memcpy(b.data, src + first, count - first);
    b.size += count;
    return count;
}

size_t buffer_copy_out(buffer_t& b, void* buffer, size_t length) {
    size_t count = std::min(length, b.size);
    size_t first = std::min(count, b.capacity - b.head);
    auto* dst = static_cast<uint8_t*>(buffer);
    std::memcpy(dst, b.data + b.head, first);
    std::memcpy(dst + first, b.data, count - first);
    b.head = (b.head + count) % b.capacity;
    b.size -= count;
    if (b.size == 0) b.head = 0;
    return count;
}

int64_t buffer_read_fd(buffer_t& b, fd_t& fd) {
    if (buffer_is_full(b)) return 0;
    bool wraps = b.head + b.size > b.capacity;
    if (!wraps && b.head != 0) {
        std::memmove(b.data, b.data + b.head, b.size);
        b.head = 0;
    }
    // Without wrapping the free space is the tail of the storage; with it, the gap before
    // head. Either way it is one contiguous stretch of capacity - size bytes.
    size_t tail = (b.head + b.size) % b.capacity;
    int64_t n = fd_read(fd, b.data + tail, buffer_left(b));
    if (n < 0) return -1;
    b.size += static_cast<size_t>(n);
    return n;
}

int buffer_write_fd(buffer_t& b, fd_t& fd) {
    if (b.size == 0) return 0;
    size_t first = std::min(b.size, b.capacity - b.head);
    if (fd_write(fd, b.data + b.head, first) != static_cast<int64_t>(first)) return -1;
    size_t rest = b.size - first;
    if (rest != 0 && fd_write(fd, b.data, rest) != static_cast<int64_t>(rest)) {
        // The first part is out already; keep only what is still owed.
        b.head = 0;
        b.size = rest;
        return -1;
    }
    buffer_clear(b);
    return 0;
}

int fd_bio_load(fd_bio_t& bio, fd_t& fd, size_t capacity) {
    bio.fd = fd;
    bio.w_buffer = std::make_unique<buffer_t>(capacity);
    bio.r_buffer = std::make_unique<buffer_t>(capacity);
    return 0;
}

void fd_bio_unload(fd_bio_t& bio) {
    bio.w_buffer.reset();
    bio.r_buffer.reset();
}

int fd_bio_read(fd_bio_t& bio, void* buffer, size_t length) {
    buffer_t& ring = *bio.r_buffer;
    if (length > ring.size && buffer_read_fd(ring, bio.fd) < 0) return -1;
    size_t got = buffer_copy_out(ring, buffer, length);
    auto* dst = static_cast<uint8_t*>(buffer);
    while (got < length) {
        int64_t n = fd_read(bio.fd, dst + got, length - got);
        if (n <= 0) return -1;
        got += static_cast<size_t>(n);
    }
    return 0;
}

int fd_bio_write(fd_bio_t& bio, const void* buffer, size_t length) {
    buffer_t& ring = *bio.w_buffer;
    if (length <= buffer_left(ring)) {
        buffer_copy_in(ring, buffer, length);
        return 0;
    }
    if (buffer_write_fd(ring, bio.fd) < 0) return -1;
    return fd_write(bio.fd, buffer, length) == static_cast<int64_t>(length) ? 0 : -1;
}

int fd_bio_flush(fd_bio_t& bio) {
    return buffer_write_fd(*bio.w_buffer, bio.fd);
}
